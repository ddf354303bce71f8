#!/usr/bin/env bash
# Fails when the shared library exports a name that no public header
# declares. Template instances of the standard library are left out: their
# visibility is the standard library's, not ours.
set -euo pipefail
lib=$1
cd "$(dirname "$0")/.."
headers=$(cat include/softmatte/*.h include/softmatte/ff/*.h)
status=0
while read -r name; do
  base=${name%%(*}                 # drop the parameter list
  base=${base%%<*}                 # and template arguments
  base=${base##*::}                # keep the last component
  base=${base#~}                   # destructors
  if ! grep -qw -- "$base" <<<"$headers"; then
    echo "exported but not public: $name"
    status=1
  fi
done < <(nm -DC --defined-only "$lib" | awk '$2 ~ /[TDBRV]/ {$1=""; $2=""; sub(/^  /, ""); print}' |
         grep -v -E '^(sp_ienv$|std::|__gnu_cxx::|operator new|operator delete|typeinfo|vtable|_init$|_fini$|_edata$|_end$|__bss_start$)')
exit $status
