#!/usr/bin/env bash
# Cuts the bundled sample photo (a cat) out of its background with the
# softmatte tool and says where the results went. On a fresh Debian machine
# it first installs what the build needs (as root, or through sudo when that
# is available), then builds the tool.
#
#   scripts/demo.sh                  # build in build-demo/, results in build-demo/demo
#   BUILD_DIR=out scripts/demo.sh    # another build folder
#
# Extra arguments go to `softmatte demo` (for example --verbose).
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/ensure-packages.sh
ensure_packages cmake make g++ pkg-config libsuperlu-dev libeigen3-dev libpng-dev libjpeg-dev

# A folder of its own: switching tests off in build/ would stick in its cache.
build=${BUILD_DIR:-build-demo}
# Only the library and the tool: the demo needs neither tests nor benchmarks
# (their packages are not installed above).
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DSOFTMATTE_BUILD_TESTS=OFF -DSOFTMATTE_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target softmatte_cli

"$build/tools/softmatte" demo -o "$build/demo" "$@"
echo "Open $build/demo/composite.png to see the cat on a white background;"
echo "alpha.png is the matte, foreground.png the cat with transparency."
