#!/usr/bin/env bash
# Builds the libFuzzer harnesses under AddressSanitizer and
# UndefinedBehaviorSanitizer and runs each one on its committed corpus.
#
#   scripts/fuzz.sh                 # every harness, 30 s each (CI: 15 s)
#   scripts/fuzz.sh 600 planes_fuzz # one harness for ten minutes
#   GROW=1 scripts/fuzz.sh 600      # also add new inputs to fuzz/corpus/
#
# A crash, a sanitizer report or a leak stops the run with a non-zero exit;
# libFuzzer leaves the offending input as crash-*/leak-* in the build dir.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/ensure-packages.sh
ensure_packages cmake make clang-14 libclang-rt-14-dev libsuperlu-dev libeigen3-dev

seconds=${1:-30}
shift || true
root=$PWD
build=$root/${BUILD_DIR:-build-fuzz}
san="-fsanitize=address,undefined,fuzzer-no-link -fno-sanitize-recover=all -fno-omit-frame-pointer -g -O1"
CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug \
  -DSOFTMATTE_BUILD_FUZZERS=ON -DSOFTMATTE_BUILD_TESTS=OFF \
  -DSOFTMATTE_BUILD_BENCHMARKS=OFF -DSOFTMATTE_BUILD_TOOLS=OFF \
  -DSOFTMATTE_WERROR=ON -DCMAKE_C_FLAGS="$san" -DCMAKE_CXX_FLAGS="$san" >/dev/null

harnesses=("$@")
if ((${#harnesses[@]} == 0)); then
  for f in fuzz/*_fuzz.cc; do harnesses+=("$(basename "$f" .cc)"); done
fi
targets=()
for h in "${harnesses[@]}"; do targets+=(--target "$h"); done
cmake --build "$build" -j"$(nproc)" "${targets[@]}"

for h in "${harnesses[@]}"; do
  corpus=$root/fuzz/corpus/$h
  mkdir -p "$corpus"
  dirs=("$corpus")
  if [ -z "${GROW:-}" ]; then
    # Keep the committed corpus as it is; new inputs go to a scratch dir.
    dirs=("$build/corpus-$h" "$corpus")
    mkdir -p "${dirs[0]}"
  fi
  echo "== $h: ${seconds}s"
  log=$build/$h.log
  if ! (cd "$build" && LSAN_OPTIONS=suppressions=$root/tests/lsan.supp \
    "$build/fuzz/$h" -max_total_time="$seconds" -print_final_stats=1 \
    -timeout=20 -rss_limit_mb=2048 "${dirs[@]}" >"$log" 2>&1); then
    tail -n 60 "$log"
    echo "$h failed; the input is in $build" >&2
    exit 1
  fi
  grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units|Done )' "$log" || tail -n 3 "$log"
done
