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

packages=(cmake make g++ pkg-config libsuperlu-dev libgtest-dev libgmock-dev
          libbenchmark-dev libpng-dev libjpeg-dev clang-format)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
    missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=()
  [ "$(id -u)" -eq 0 ] || sudo=(sudo)
  "${sudo[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq \
    --no-install-recommends "${missing[@]}"
fi

build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSOFTMATTE_WERROR=ON "$@"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
