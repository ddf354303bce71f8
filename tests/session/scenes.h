// Photos and planes shared by the session, cut-out and concurrency tests: a
// noisy gradient behind a disc whose edge is blurred over a few pixels, so
// that a solve has real fractions to find.
#ifndef SOFTMATTE_TESTS_SESSION_SCENES_H_
#define SOFTMATTE_TESTS_SESSION_SCENES_H_

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "test_util.h"

namespace session_test {

using Plane = std::vector<unsigned char>;
constexpr unsigned char kUnknown = 128;

// A trimap's value in the session's polarity, and back: 128 stays.
inline unsigned char Complement(unsigned char v) {
  return v == kUnknown ? v : static_cast<unsigned char>(255 - v);
}
inline Plane Complemented(Plane plane) {
  std::transform(plane.begin(), plane.end(), plane.begin(), Complement);
  return plane;
}

struct Photo {
  int width, height, stride;
  Plane bytes;  // B, G, R rows, their padding the sentinel
};

inline Photo DiscOnGradient(int w, int h, double cx, double cy, double r,
                            uint32_t seed, int pad = 5) {
  Photo p{w, h, 3 * w + pad, {}};
  p.bytes.assign(static_cast<size_t>(p.stride) * h, softmatte_test::kSentinel);
  std::mt19937 rng(seed);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const double a =
          std::clamp((r + 2.0 - std::hypot(x - cx, y - cy)) / 4.0, 0.0, 1.0);
      const int back[3] = {40 + x * 150 / w, 200 - y * 120 / h,
                           90 + (x + y) * 60 / (w + h)};
      const int disc[3] = {220, 60, 30};
      for (int c = 0; c < 3; ++c) {
        const int noise = static_cast<int>(rng() % 7) - 3;
        p.bytes[static_cast<size_t>(y) * p.stride + 3 * x + c] =
            static_cast<unsigned char>(std::clamp(
                a * disc[c] + (1.0 - a) * back[c] + noise, 0.0, 255.0));
      }
    }
  }
  return p;
}

// Packed plane: `in` closer than r - band, `out` from r + band on, 128
// between.
inline Plane Disc(int w, int h, double cx, double cy, double r, double band,
                  unsigned char in, unsigned char out) {
  Plane plane(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const double d = std::hypot(x - cx, y - cy);
      plane[static_cast<size_t>(y) * w + x] =
          d < r - band ? in : (d >= r + band ? out : kUnknown);
    }
  }
  return plane;
}

}  // namespace session_test

#endif  // SOFTMATTE_TESTS_SESSION_SCENES_H_
