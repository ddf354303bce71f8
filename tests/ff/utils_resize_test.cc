#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "softmatte/ff/utils.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;

template <typename T>
T At(const Bytes& p, int step, int channels, int x, int y, int c) {
  T v;
  memcpy(&v,
         p.data() + static_cast<size_t>(y) * step +
             (static_cast<size_t>(x) * channels + c) * sizeof(T),
         sizeof(T));
  return v;
}

// Keys' cubic (a = -0.5) and the tent, written from their definitions.
double Kernel(int taps, double d) {
  d = std::fabs(d);
  if (taps == 2) return std::max(0.0, 1 - d);
  if (d <= 1) return 1.5 * d * d * d - 2.5 * d * d + 1;
  if (d < 2) return -0.5 * d * d * d + 2.5 * d * d - 4 * d + 2;
  return 0;
}

// One output sample straight from the definition: centred grids, clamped
// taps, the sum in double.
template <typename T>
double Reference(const Bytes& src, int sw, int sh, int ss, int ch, int dw,
                 int dh, int x, int y, int c, int taps) {
  const double cx = (x + 0.5) * sw / dw - 0.5, cy = (y + 0.5) * sh / dh - 0.5;
  double sum = 0;
  for (int j = 0; j < taps; ++j) {
    const int sy = static_cast<int>(std::floor(cy)) - taps / 2 + 1 + j;
    for (int i = 0; i < taps; ++i) {
      const int sx = static_cast<int>(std::floor(cx)) - taps / 2 + 1 + i;
      const T v = At<T>(src, ss, ch, std::clamp(sx, 0, sw - 1),
                        std::clamp(sy, 0, sh - 1), c);
      sum += Kernel(taps, cx - sx) * Kernel(taps, cy - sy) * v;
    }
  }
  if (std::is_floating_point_v<T>) return sum;
  return std::clamp(std::round(sum),
                    static_cast<double>(std::numeric_limits<T>::min()),
                    static_cast<double>(std::numeric_limits<T>::max()));
}

// Compares bilinear and cubic with the reference on odd sizes (shrinking,
// growing, identity), and nearest on the identity; padding must survive.
template <typename T>
void CheckResize(int channels, double tolerance, uint32_t seed) {
  const int type = ff::fiFormat<T>(channels);
  const int eb = sizeof(T), pb = eb * channels;
  std::mt19937 rng(seed);
  const int sizes[][4] = {
      {7, 5, 3, 4}, {5, 3, 11, 7}, {1, 1, 3, 2}, {9, 6, 9, 6}, {13, 3, 4, 1}};
  for (const auto& s : sizes) {
    const int sw = s[0], sh = s[1], dw = s[2], dh = s[3];
    const int ss = sw * pb + 3, ds = dw * pb + 5;
    Bytes src(static_cast<size_t>(ss) * sh);
    for (int y = 0; y < sh; ++y) {
      for (int i = 0; i < sw * channels; ++i) {
        const T v = std::is_floating_point_v<T>
                        ? static_cast<T>(static_cast<int>(rng() % 2001) - 1000)
                        : static_cast<T>(rng());
        memcpy(src.data() + static_cast<size_t>(y) * ss + i * eb, &v, eb);
      }
    }
    const bool same = sw == dw && sh == dh;
    for (int method : {0, 1, 2}) {
      if (method == ff::kResizeNearest && !same) continue;
      Bytes dst = softmatte_test::RandomPlane(dw * pb, dh, ds, seed++);
      ASSERT_EQ(1, ff::fiuResize(src.data(), sw, sh, ss, type, dst.data(), dw,
                                 dh, ds, method));
      for (int y = 0; y < dh; ++y) {
        for (int x = 0; x < dw; ++x) {
          for (int c = 0; c < channels; ++c) {
            const double want = method == 0
                                    ? At<T>(src, ss, channels, x, y, c)
                                    : Reference<T>(src, sw, sh, ss, channels,
                                                   dw, dh, x, y, c, method * 2);
            const double got = At<T>(dst, ds, channels, x, y, c);
            ASSERT_NEAR(got, want, same ? 0 : tolerance)
                << "type " << type << " method " << method << " " << sw << "x"
                << sh << " -> " << dw << "x" << dh << " at " << x << "," << y;
          }
        }
      }
      ASSERT_TRUE(softmatte_test::PaddingIntact(dst, dw * pb, dh, ds));
    }
  }
}

TEST(FiuResize, BilinearAndCubicMatchReferenceForEveryElement) {
  CheckResize<unsigned char>(3, 1, 1);  // fixed point: off by one at most
  CheckResize<signed char>(1, 1, 2);
  CheckResize<unsigned short>(2, 1, 3);
  CheckResize<short>(1, 1, 4);
  CheckResize<int>(1, 1, 5);  // double weights: only halves may differ
  CheckResize<float>(3, 1e-3, 6);
}

TEST(FiuResize, FixedPointKeepsFlatPlanesAndRefusesUnknownMethods) {
  // Weights that do not sum to exactly one would drift a flat 255 plane.
  std::vector<unsigned char> flat(9 * 7 * 3, 255), out(4 * 3 * 3, 0);
  for (int method : {1, 2}) {
    ASSERT_EQ(1, ff::fiuResize(flat.data(), 9, 7, 27, ff::kFormat8UC3,
                               out.data(), 4, 3, 12, method));
    for (unsigned char v : out) ASSERT_EQ(255, v);
  }
  EXPECT_EQ(0, ff::fiuResize(flat.data(), 9, 7, 27, ff::kFormat8UC3, out.data(),
                             4, 3, 12, 3));
  ff::FVTImage img(9, 7, ff::kFormat8UC3, 4), small(4, 3, ff::kFormat8UC1, 4);
  const unsigned char bgr[3] = {1, 2, 3};
  ASSERT_EQ(1, ff::fiFill(img, bgr));
  EXPECT_EQ(1, ff::fiResize(img, small, ff::kResizeCubic));
  EXPECT_EQ(ff::kFormat8UC3, small.type);
  EXPECT_EQ(4, small.width);
}

}  // namespace
