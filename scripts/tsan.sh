#!/usr/bin/env bash
# Builds softmatte under ThreadSanitizer and runs the whole test suite: the
# library starts no threads, but an application may run several sessions on
# threads of its own, and nothing a session touches may be shared.
#
#   scripts/tsan.sh                    # build in build-tsan/
#   BUILD_DIR=out scripts/tsan.sh ...  # another folder; arguments go to CMake
#
# SuperLU is not instrumented; its calls run on the caller's thread and it
# keeps no state between them.
set -euo pipefail
cd "$(dirname "$0")/.."

# -O2: the suite's big solves stay quick under the instrumentation. A report
# fails the test that raised it (exit code 66), at the first one.
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1} BUILD_DIR=${BUILD_DIR:-build-tsan} \
  exec scripts/test.sh -DCMAKE_BUILD_TYPE=Debug \
  -DSOFTMATTE_BUILD_BENCHMARKS=OFF -DSOFTMATTE_BUILD_TOOLS=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=thread -O2 -g" "$@"
