#!/usr/bin/env bash
# Runs the command-line tool's demo and the session tests under valgrind's
# memcheck: no invalid access, no decision on uninitialised memory, no
# mismatched free/delete and no definite or indirect leak. Builds without
# sanitizers (valgrind cannot run sanitized code) in a folder of its own.
#
#   scripts/valgrind.sh             # build in build-vg/, logs in build-vg/valgrind/
#   BUILD_DIR=out scripts/valgrind.sh
#   GTEST_FILTER='*' scripts/valgrind.sh   # the photo suites too (~40 min)
#
# Any memcheck error (or failing test) makes the script fail and prints that
# run's log. SuperLU's own leak on exactly singular systems is suppressed
# (tests/valgrind.supp).
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/ensure-packages.sh
ensure_packages cmake make g++ pkg-config libsuperlu-dev libeigen3-dev libgtest-dev \
  libgmock-dev libpng-dev libjpeg-dev valgrind

root=$PWD
build=${BUILD_DIR:-build-vg}
# Empty flags on purpose: a sanitizer left in the cache would make every
# run fail under valgrind.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSOFTMATTE_WERROR=ON \
  -DSOFTMATTE_BUILD_TESTS=ON -DSOFTMATTE_BUILD_TOOLS=ON \
  -DSOFTMATTE_BUILD_BENCHMARKS=OFF -DCMAKE_CXX_FLAGS= -DCMAKE_C_FLAGS= \
  >/dev/null

# The session's end-to-end suites. Those on the alphamatting photos are left
# out unless asked for: each photo takes minutes under memcheck (the whole
# determinism suite is photos, about 7 minutes), and a fresh machine without
# the photos skips them anyway.
filter=${GTEST_FILTER:--*Photos*}
tests=(session_session_test session_determinism_test)
targets=(--target softmatte_cli)
for t in "${tests[@]}"; do targets+=(--target "$t"); done
cmake --build "$build" -j"$(nproc)" "${targets[@]}"

logs=$build/valgrind
mkdir -p "$logs"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

memcheck=(valgrind --tool=memcheck --error-exitcode=1 --leak-check=full
  --errors-for-leak-kinds=definite,indirect
  --show-leak-kinds=definite,indirect --track-origins=yes --num-callers=30
  --suppressions="$root/tests/valgrind.supp")

failed=0
run() {
  local name=$1
  shift
  local log=$logs/$name.log start=$SECONDS
  if "${memcheck[@]}" --log-file="$log" "$@" >"$logs/$name.out" 2>&1; then
    echo "== $name: clean ($((SECONDS - start)) s)"
  else
    cat "$log" "$logs/$name.out" >&2
    echo "== $name: FAILED (a memcheck error or a failing test); log in $log" >&2
    failed=1
  fi
}

run demo "$build/tools/softmatte" demo -o "$out/demo"
for t in "${tests[@]}"; do
  run "$t" "$build/tests/$t" --gtest_filter="$filter"
done
exit "$failed"
