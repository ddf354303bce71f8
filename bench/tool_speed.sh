#!/usr/bin/env bash
# Times the whole command-line tool on a 12-megapixel JPEG with a
# segmenter-like mask at a sixteenth of each side (the alphamatting photo
# GT04 stretched to 4128 pixels wide), against the tool of another commit,
# in the same run: wall time, peak memory and the --verbose stages of each,
# alternately, three times.
#
#   bench/tool_speed.sh [COMMIT] [-- extra cutout arguments]
#
# COMMIT defaults to 03b1b44 (the tool before the one-shot flow). Needs a
# build with benchmarks and tools in build/ (BUILD_DIR overrides it) and the
# alphamatting set beside the project. Single thread, like the tool itself.
set -euo pipefail
cd "$(dirname "$0")/.."
old=${1:-03b1b44}
shift $(($# > 0 ? 1 : 0))
[ "${1:-}" = "--" ] && shift
build=${BUILD_DIR:-build}
work=$build/tool-speed
mkdir -p "$work"
if [ ! -f "$work/photo.jpg" ]; then
  "$build/bench/softmatte_make_photo" 4 4128 16 "$work/photo.jpg" "$work/mask.png"
fi
if [ ! -x "$work/old-$old/build/tools/softmatte" ]; then
  rm -rf "$work/old-$old"
  mkdir -p "$work/old-$old"
  git archive "$old" | tar -x -C "$work/old-$old"
  cmake -S "$work/old-$old" -B "$work/old-$old/build" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSOFTMATTE_BUILD_TESTS=OFF \
    -DSOFTMATTE_BUILD_BENCHMARKS=OFF >/dev/null
  cmake --build "$work/old-$old/build" -j"$(nproc)" --target softmatte_cli >/dev/null
fi
for run in 1 2 3; do
  for tool in "$work/old-$old/build/tools/softmatte" "$build/tools/softmatte"; do
    echo "== run $run: $tool"
    rm -rf "$work/out"
    /usr/bin/time -f "total %e s wall, %U s user, peak %M KB" \
      "$tool" cutout "$work/photo.jpg" --mask "$work/mask.png" \
      -o "$work/out" --verbose "$@" 2>&1 >/dev/null | grep -v '^$'
  done
done
