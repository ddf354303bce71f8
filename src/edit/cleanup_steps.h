#ifndef SOFTMATTE_SRC_EDIT_CLEANUP_STEPS_H_
#define SOFTMATTE_SRC_EDIT_CLEANUP_STEPS_H_

// Per-pixel arithmetic of the boundary smoothing and soft dilation, shared
// by the whole-plane filters (cleanup.cc) and the band-only one
// (cleanup_band.cc), which must give the same bytes.

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace softmatte_edit {

// The extremum window scales with the image so that the edge profile looks
// the same at every resolution: 7 up to about 1.2 megapixels, 81 at 12.
// The product is formed in 64 bits only to stay defined on huge planes.
inline int extremum_window(int width, int height) {
  const int64_t area7 = static_cast<int64_t>(width) * height * 7;
  const int k = static_cast<int>(area7 / 1048576) | 1;
  return k > 7 ? k : 7;
}

// Clamps before truncating: a mean window wider than the extremum window can
// push the ratio past 1 and the soft dilation below 0.
inline unsigned char to_byte(float v) {
  if (!(v > 0.0f)) return 0;
  if (v >= 255.0f) return 255;
  return static_cast<unsigned char>(v);
}

inline unsigned char dilated(int mean, int maximum) {
  if (maximum == 0) return 0;
  const float t = 1.0f - static_cast<float>(mean) / static_cast<float>(maximum);
  return to_byte((1.0f - t * t) * static_cast<float>(maximum) + 0.5f);
}

inline unsigned char smoothed(int mean, int maximum, int minimum) {
  if (maximum == 0) return 0;
  float r = static_cast<float>(mean) / static_cast<float>(maximum);
  if (r != 1.0f) {
    // A float division: the exponent eases from 2 towards 1 as the darkest
    // neighbour brightens to 32, so faint veils are not crushed.
    const float e = std::max(
        2.0f - r - static_cast<float>(std::min(minimum, 32)) / 64.0f, 1.0f);
    r = std::pow(r, e);
  }
  return to_byte(r * static_cast<float>(maximum) + 0.5f);
}

}  // namespace softmatte_edit

#endif  // SOFTMATTE_SRC_EDIT_CLEANUP_STEPS_H_
