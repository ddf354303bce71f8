#ifndef SOFTMATTE_SRC_FF_UTILS_INTERNAL_H_
#define SOFTMATTE_SRC_FF_UTILS_INTERNAL_H_

// Pieces shared by the general image utilities' source files.

#include <cstddef>

#include "softmatte/ff/fvt_image.h"

namespace ff {
namespace utils {

inline int kind(int type) { return type & 15; }
inline int element_bytes(int type) { return (type >> 4) & 15; }
inline int channels(int type) { return (type >> 8) & 255; }

// Kind 0-5 with its own element size and at least one channel; the tables
// of per-kind workers have exactly six entries.
inline bool valid_format(int type) {
  static constexpr int kBytes[6] = {1, 1, 2, 2, 4, 4};
  return kind(type) < 6 && element_bytes(type) == kBytes[kind(type)] &&
         channels(type) > 0 && (type >> 16) == 0;
}

inline bool usable(const void* a, const void* b, int width, int height,
                   int type) {
  return a != nullptr && b != nullptr && width > 0 && height > 0 &&
         valid_format(type);
}

// Byte offsets in pointer width: step * row overflows 32 bits on big planes.
inline std::ptrdiff_t offset(int step, int index) {
  return static_cast<std::ptrdiff_t>(step) * index;
}

// Runs op(dst) after giving dst the shape width x height x type; 0 without
// touching dst when src is empty or the shape unusable. When src is
// dst and the work cannot run in place, it is done into a new image that is
// then swapped in, so src stays readable throughout.
template <typename Op>
int into(const FVTImage& src, FVTImage& dst, int width, int height, int type,
         bool inPlaceOk, Op op) {
  if (src.data == nullptr || width < 1 || height < 1 || !valid_format(type)) {
    return 0;
  }
  if (&src == &dst && (!inPlaceOk || width != dst.width ||
                       height != dst.height || type != dst.type)) {
    FVTImage out(width, height, type, 4);
    const int ok = op(out);
    if (ok) dst.Swap(out);
    return ok;
  }
  dst.ResetIf(width, height, type);
  return op(dst);
}

}  // namespace utils
}  // namespace ff

#endif  // SOFTMATTE_SRC_FF_UTILS_INTERNAL_H_
