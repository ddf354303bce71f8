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

// Element i of row y.
template <typename T>
T At(const Bytes& p, int step, int i, int y) {
  T v;
  memcpy(&v, &p[static_cast<size_t>(y) * step + i * sizeof(T)], sizeof(T));
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

// Bilinear and cubic on odd sizes (shrinking, growing, identity) against
// the definition: centred grids, clamped taps, the sum in double, rounded
// and saturated for integers; nearest on the identity. Padding survives.
template <typename T>
void CheckResize(int channels, double tolerance, uint32_t seed) {
  const int type = ff::fiFormat<T>(channels), pb = sizeof(T) * channels;
  std::mt19937 rng(seed);
  const int sizes[][4] = {
      {7, 5, 3, 4}, {5, 3, 11, 7}, {1, 1, 3, 2}, {9, 6, 9, 6}, {13, 3, 4, 1}};
  for (const auto& s : sizes) {
    const int sw = s[0], sh = s[1], dw = s[2], dh = s[3];
    const int ss = sw * pb + 3, ds = dw * pb + 5;
    // Floats from small integers: random bytes would make NaNs.
    Bytes src = softmatte_test::RandomPlane(sw * pb, sh, ss, seed++);
    for (int y = 0; std::is_floating_point_v<T> && y < sh; ++y) {
      for (int i = 0; i < sw * channels; ++i) {
        const T v = static_cast<T>(static_cast<int>(rng() % 2001) - 1000);
        memcpy(&src[y * ss + i * sizeof(T)], &v, sizeof(T));
      }
    }
    const bool same = sw == dw && sh == dh;
    for (int method = same ? 0 : 1; method <= 2; ++method) {
      Bytes dst = softmatte_test::RandomPlane(dw * pb, dh, ds, seed++);
      ASSERT_EQ(1, ff::fiuResize(src.data(), sw, sh, ss, type, dst.data(), dw,
                                 dh, ds, method));
      // On the identity the tent is exact, so it stands for nearest too.
      const int taps = std::max(2, method * 2);
      const auto want = [&](int x, int y, int c) {
        const double cx = (x + 0.5) * sw / dw - 0.5;
        const double cy = (y + 0.5) * sh / dh - 0.5;
        const int x0 = static_cast<int>(std::floor(cx)) - taps / 2 + 1;
        const int y0 = static_cast<int>(std::floor(cy)) - taps / 2 + 1;
        double sum = 0;
        for (int sy = y0; sy < y0 + taps; ++sy)
          for (int sx = x0; sx < x0 + taps; ++sx)
            sum += Kernel(taps, cx - sx) * Kernel(taps, cy - sy) *
                   At<T>(src, ss, std::clamp(sx, 0, sw - 1) * channels + c,
                         std::clamp(sy, 0, sh - 1));
        if (std::is_floating_point_v<T>) return sum;
        return std::clamp(std::round(sum),
                          double{std::numeric_limits<T>::min()},
                          double{std::numeric_limits<T>::max()});
      };
      for (int y = 0; y < dh; ++y) {
        for (int x = 0; x < dw * channels; ++x) {
          ASSERT_NEAR(At<T>(dst, ds, x, y), want(x / channels, y, x % channels),
                      same ? 0 : tolerance)
              << "type " << type << " method " << method << " size "
              << &s - sizes << " at " << x << "," << y;
        }
      }
      ASSERT_TRUE(softmatte_test::PaddingIntact(dst, dw * pb, dh, ds));
    }
  }
}

TEST(FiuResize, MatchesReferenceForEveryElementType) {
  CheckResize<unsigned char>(3, 1, 1);  // fixed point: off by one at most
  CheckResize<signed char>(1, 1, 2);
  CheckResize<unsigned short>(2, 1, 3);
  CheckResize<short>(1, 1, 4);
  CheckResize<int>(1, 1, 5);  // double weights: only halves may differ
  CheckResize<float>(3, 1e-3, 6);
  // Fixed-point weights must sum to exactly one, or a flat 255 plane drifts
  // (within the tolerance above); unknown methods are refused. The image
  // form shapes its destination like the source.
  std::vector<unsigned char> flat(9 * 7 * 3, 255), out(4 * 3 * 3, 0);
  for (int method : {1, 2}) {
    ASSERT_EQ(1, ff::fiuResize(flat.data(), 9, 7, 27, ff::kFormat8UC3,
                               out.data(), 4, 3, 12, method));
    EXPECT_EQ(out, std::vector<unsigned char>(out.size(), 255));
  }
  EXPECT_EQ(0, ff::fiuResize(flat.data(), 9, 7, 27, ff::kFormat8UC3, out.data(),
                             4, 3, 12, 3));
  ff::FVTImage img(9, 7, ff::kFormat8UC3, 4), small(4, 3, ff::kFormat8UC1, 4);
  ASSERT_EQ(1, ff::fiuFill(img.data, 9, 7, img.step, img.type, flat.data()));
  ASSERT_EQ(1, ff::fiResize(img, small, ff::kResizeCubic));
  EXPECT_EQ(ff::kFormat8UC3, small.type);
}

}  // namespace
