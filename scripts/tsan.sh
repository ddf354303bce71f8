#!/usr/bin/env bash
# Builds softmatte under ThreadSanitizer and runs the whole test suite: the
# library starts no threads, but an application may run several sessions on
# threads of its own, and nothing a session touches may be shared.
#
#   scripts/tsan.sh                          # build in build-tsan/
#   BUILD_DIR=out scripts/tsan.sh -R session # another folder, some tests
#
# Extra arguments go to ctest. SuperLU is not instrumented; its calls run on
# the caller's thread and it keeps no state between them.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/ensure-packages.sh
ensure_packages cmake make g++ pkg-config libsuperlu-dev libgtest-dev \
  libgmock-dev libpng-dev libjpeg-dev

build=${BUILD_DIR:-build-tsan}
# -O2: the suite's big solves stay quick under the instrumentation.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DSOFTMATTE_WERROR=ON \
  -DSOFTMATTE_BUILD_BENCHMARKS=OFF -DSOFTMATTE_BUILD_TOOLS=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=thread -O2 -g" >/dev/null
cmake --build "$build" -j"$(nproc)"
# A report fails the test that raised it (exit code 66), at the first one.
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1} \
  ctest --test-dir "$build" --output-on-failure -j"$(nproc)" "$@"
