#!/usr/bin/env bash
# Cross-builds softmatte for 64-bit ARM Linux (aarch64) with warnings as
# errors and runs the whole test suite there under qemu-user. On a Debian
# machine it first adds the arm64 architecture and installs the cross
# compiler, qemu and the arm64 packages the build links (as root, or through
# sudo when that is available).
#
#   scripts/cross-arm64.sh                       # build in build-arm64/
#   BUILD_DIR=build-a-debug scripts/cross-arm64.sh -DCMAKE_BUILD_TYPE=Debug
#
# Extra arguments go to the CMake configure step.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/ensure-packages.sh
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  sudo=()
  [ "$(id -u)" -eq 0 ] || sudo=(sudo)
  "${sudo[@]}" dpkg --add-architecture arm64
fi
# Reference BLAS, as in the native build: SuperLU's package would otherwise
# pull in OpenBLAS, whose kernels round differently. The tests run on the
# arm64 C and C++ runtimes of the multiarch packages.
ensure_packages cmake make pkg-config crossbuild-essential-arm64 qemu-user \
  libc6:arm64 libstdc++6:arm64 libsuperlu-dev:arm64 libblas-dev:arm64 \
  libgtest-dev:arm64 libgmock-dev:arm64 libpng-dev:arm64 libjpeg-dev:arm64

# The native test command with the cross toolchain: every test program runs
# through qemu-aarch64, the toolchain's emulator. No Python module: the
# machine's interpreter could not load an arm64 one.
BUILD_DIR=${BUILD_DIR:-build-arm64} exec scripts/test.sh \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/aarch64-linux-gnu.cmake" \
  -DSOFTMATTE_BUILD_BENCHMARKS=OFF -DSOFTMATTE_BUILD_PYTHON=OFF "$@"
