#!/usr/bin/env bash
# Builds softmatte with warnings as errors and runs its test suite.
# On a fresh Debian machine it first installs what the build needs (as root,
# or through sudo when that is available).
#
#   scripts/test.sh                 # RelWithDebInfo build in build/
#   BUILD_DIR=build-san scripts/test.sh -DCMAKE_BUILD_TYPE=Debug ...
#
# Extra arguments go to the CMake configure step.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/ensure-packages.sh
ensure_packages cmake make g++ pkg-config libsuperlu-dev libeigen3-dev libgtest-dev \
  libgmock-dev libbenchmark-dev libpng-dev libjpeg-dev clang-format

build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSOFTMATTE_WERROR=ON "$@"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
