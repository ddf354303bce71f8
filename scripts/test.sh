#!/usr/bin/env bash
# Builds softmatte (the Python module too) with warnings as errors and runs
# its test suite.
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
  libgmock-dev libbenchmark-dev libpng-dev libjpeg-dev clang-format \
  pybind11-dev python3-dev python3-numpy python3-pytest python3-pil python3-matplotlib \
  python3-pycodestyle

build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSOFTMATTE_WERROR=ON \
  -DSOFTMATTE_BUILD_PYTHON=ON "$@"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
