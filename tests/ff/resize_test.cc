#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;

std::vector<int> NearestTable(int srcLen, int dstLen, int elemStep) {
  std::vector<int> tab(dstLen, -7);
  ff::ipf_calc_resize_tab_nn(srcLen, dstLen, tab.data(), elemStep);
  return tab;
}

TEST(ResizeTable, NearestSamplesWithoutCentringAndClampsTheEnd) {
  EXPECT_EQ(NearestTable(4, 2, 1), (std::vector<int>{0, 2}));
  // 0.5 rounds up to 1; 1.5 rounds to 2, past the end, and is clamped.
  EXPECT_EQ(NearestTable(2, 4, 1), (std::vector<int>{0, 1, 1, 1}));
  EXPECT_EQ(NearestTable(3, 2, 1), (std::vector<int>{0, 2}));
  // Offsets come multiplied by the element step.
  EXPECT_EQ(NearestTable(2, 4, 3), (std::vector<int>{0, 3, 3, 3}));
  EXPECT_EQ(NearestTable(4, 2, 100), (std::vector<int>{0, 200}));
  EXPECT_EQ(NearestTable(9, 1, 5), (std::vector<int>{0}));
  // 4000 -> 1000 columns: every fourth, none clamped.
  const std::vector<int> quarter = NearestTable(4000, 1000, 1);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(quarter[i], 4 * i);
}

TEST(ResizeTable, BilinearKeepsFractionsAndGivesTheLastPairFullWeight) {
  int tab[8];
  float frac[8];
  ff::ipf_calc_resize_tab_bl(4, 8, tab, frac, 1);
  const int wantTab[8] = {0, 0, 1, 1, 2, 2, 2, 2};
  const float wantFrac[8] = {0, 0.5f, 0, 0.5f, 0, 0.5f, 1.0f, 1.0f};
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(tab[i], wantTab[i]) << i;
    EXPECT_EQ(frac[i], wantFrac[i]) << i;
  }
  ff::ipf_calc_resize_tab_bl(4, 8, tab, frac, 3);
  EXPECT_EQ(tab[3], 3);
  EXPECT_EQ(tab[7], 6);
  ff::ipf_calc_resize_tab_bl(5, 1, tab, frac, 3);
  EXPECT_EQ(tab[0], 0);
  EXPECT_EQ(frac[0], 0.0f);
}

TEST(ResizeTable, UnusableArgumentsLeaveTablesAlone) {
  int tab[3] = {-7, -7, -7};
  float frac[3] = {-2, -2, -2};
  ff::ipf_calc_resize_tab_nn(4, 0, tab, 1);
  ff::ipf_calc_resize_tab_nn(4, 3, nullptr, 1);
  ff::ipf_calc_resize_tab_bl(4, 0, tab, frac, 1);
  ff::ipf_calc_resize_tab_bl(4, 3, tab, nullptr, 1);
  ff::ipf_calc_resize_tab_bl(4, 3, nullptr, frac, 1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(tab[i], -7);
    EXPECT_EQ(frac[i], -2.0f);
  }
}

// Source pixel (x, y) of destination (i, j) from the tables, N bytes per
// pixel; bytes of a destination pixel past N must keep the sentinel.
template <int N>
void CheckNearest(int srcW, int srcH, int srcPix, int dstW, int dstH,
                  int dstPix, uint32_t seed) {
  const int srcStride = srcW * srcPix + 3;
  const int dstStride = dstW * dstPix + 5;
  const std::vector<unsigned char> src =
      RandomPlane(srcW * srcPix, srcH, srcStride, seed);
  std::vector<unsigned char> dst(static_cast<size_t>(dstStride) * dstH,
                                 kSentinel);
  ff::ipf_resize_nn(src.data(), srcW, srcH, srcStride, srcPix, dst.data(), dstW,
                    dstH, dstStride, dstPix, ff::ccn<N>());
  const std::vector<int> cols = NearestTable(srcW, dstW, 1);
  const std::vector<int> rows = NearestTable(srcH, dstH, 1);
  for (int y = 0; y < dstH; ++y) {
    for (int x = 0; x < dstW * dstPix; ++x) {
      const int i = x / dstPix;
      const int k = x % dstPix;
      const unsigned char want =
          k < N ? src[static_cast<size_t>(rows[y]) * srcStride +
                      static_cast<size_t>(cols[i]) * srcPix + k]
                : kSentinel;
      ASSERT_EQ(dst[static_cast<size_t>(y) * dstStride + x], want)
          << srcW << "x" << srcH << " -> " << dstW << "x" << dstH << " pix "
          << srcPix << "/" << dstPix << " at " << x << ", " << y;
    }
  }
  ASSERT_TRUE(PaddingIntact(dst, dstW * dstPix, dstH, dstStride));
}

TEST(ResizeNearest, CopiesTheTabledPixelsWithAnyPixelStep) {
  const int sizes[][4] = {{4, 3, 2, 2},    {2, 2, 4, 5}, {17, 13, 17, 13},
                          {33, 9, 10, 31}, {7, 1, 3, 4}, {1, 5, 6, 2},
                          {41, 29, 19, 23}};
  uint32_t seed = 1;
  for (const auto& s : sizes) {
    CheckNearest<1>(s[0], s[1], 1, s[2], s[3], 1, ++seed);
    CheckNearest<3>(s[0], s[1], 3, s[2], s[3], 3, ++seed);
    // One channel of a colour image, and colour with a fourth byte.
    CheckNearest<1>(s[0], s[1], 3, s[2], s[3], 3, ++seed);
    CheckNearest<3>(s[0], s[1], 4, s[2], s[3], 4, ++seed);
    CheckNearest<3>(s[0], s[1], 3, s[2], s[3], 4, ++seed);
  }
}

// The four-neighbour blend written out per channel, in float, truncated.
unsigned char BilinearReference(const std::vector<unsigned char>& src,
                                int srcStride, int srcPix, int x0, int y0,
                                int x1, int y1, float fx, float fy, int c) {
  const auto at = [&](int x, int y) {
    return static_cast<float>(src[static_cast<size_t>(y) * srcStride +
                                  static_cast<size_t>(x) * srcPix + c]);
  };
  const float top = fx * (at(x1, y0) - at(x0, y0)) + at(x0, y0);
  const float bottom = fx * (at(x1, y1) - at(x0, y1)) + at(x0, y1);
  return static_cast<unsigned char>(
      static_cast<int>(top + fy * (bottom - top)));
}

void CheckBilinear(int srcW, int srcH, int channels, int srcPix, int dstW,
                   int dstH, int dstPix, uint32_t seed) {
  const int srcStride = srcW * srcPix + 7;
  const int dstStride = dstW * dstPix + 3;
  const std::vector<unsigned char> src =
      RandomPlane(srcW * srcPix, srcH, srcStride, seed);
  std::vector<unsigned char> dst(static_cast<size_t>(dstStride) * dstH,
                                 kSentinel);
  ff::ipf_resize_bl(src.data(), srcW, srcH, srcStride, srcPix, dst.data(), dstW,
                    dstH, dstStride, dstPix, channels);
  std::vector<int> cols(dstW), rows(dstH);
  std::vector<float> fxs(dstW), fys(dstH);
  ff::ipf_calc_resize_tab_bl(srcW, dstW, cols.data(), fxs.data(), 1);
  ff::ipf_calc_resize_tab_bl(srcH, dstH, rows.data(), fys.data(), 1);
  for (int y = 0; y < dstH; ++y) {
    // A single source row or column is read twice instead of reaching
    // before the plane.
    const int y0 = srcH > 1 ? rows[y] : 0;
    const int y1 = srcH > 1 ? y0 + 1 : 0;
    for (int x = 0; x < dstW * dstPix; ++x) {
      const int i = x / dstPix;
      const int c = x % dstPix;
      const int x0 = srcW > 1 ? cols[i] : 0;
      const int x1 = srcW > 1 ? x0 + 1 : 0;
      const unsigned char want =
          c < channels ? BilinearReference(src, srcStride, srcPix, x0, y0, x1,
                                           y1, fxs[i], fys[y], c)
                       : kSentinel;
      ASSERT_EQ(dst[static_cast<size_t>(y) * dstStride + x], want)
          << srcW << "x" << srcH << "x" << channels << " -> " << dstW << "x"
          << dstH << " at byte " << x << " of row " << y;
    }
  }
  ASSERT_TRUE(PaddingIntact(dst, dstW * dstPix, dstH, dstStride));
}

TEST(ResizeBilinear, MatchesPerChannelReference) {
  const int sizes[][4] = {{4, 3, 8, 6}, {9, 7, 4, 3},     {5, 5, 5, 5},
                          {2, 2, 7, 9}, {31, 17, 13, 40}, {1, 6, 5, 4},
                          {6, 1, 3, 5}};
  uint32_t seed = 100;
  for (const auto& s : sizes) {
    CheckBilinear(s[0], s[1], 1, 1, s[2], s[3], 1, ++seed);
    CheckBilinear(s[0], s[1], 3, 3, s[2], s[3], 3, ++seed);
    CheckBilinear(s[0], s[1], 1, 3, s[2], s[3], 2, ++seed);
    CheckBilinear(s[0], s[1], 3, 4, s[2], s[3], 4, ++seed);
  }
}

// Sixteen channels and more go through the wide path, the rest one by one;
// both must agree with the same scalar reference.
TEST(ResizeBilinear, WideChannelPathMatchesReference) {
  uint32_t seed = 200;
  for (int channels : {15, 16, 17, 32, 35}) {
    CheckBilinear(7, 5, channels, channels, 11, 9, channels, ++seed);
    CheckBilinear(9, 6, channels, channels + 2, 5, 4, channels + 1, ++seed);
  }
}

TEST(ResizeBilinear, TruncatesInsteadOfRounding) {
  // Two columns 254 and 255: halfway gives 254.5, and 90% gives 254.9.
  const unsigned char src[2 * 2] = {254, 255, 254, 255};
  unsigned char dst[4];
  ff::ipf_resize_bl(src, 2, 2, 2, 1, dst, 4, 1, 4, 1, 1);
  EXPECT_EQ(dst[1], 254);  // fraction 0.5
  std::vector<unsigned char> wide(10 * 2);
  for (int i = 0; i < 10; ++i) {
    wide[i] = wide[10 + i] = static_cast<unsigned char>(i == 1 ? 255 : 254);
  }
  std::vector<unsigned char> out(100);
  // 10 -> 100 columns: destination 9 samples source 0.9, between 254 and 255.
  ff::ipf_resize_bl(wide.data(), 10, 2, 10, 1, out.data(), 100, 1, 100, 1, 1);
  EXPECT_EQ(out[9], 254);
}

TEST(NeighbourOffsets, RowMajorWithOptionalCentre) {
  int offsets[9];
  ff::ipf_calc_nbr_offset(1, 1, 100, 3, offsets, true);
  const int want[8] = {-103, -100, -97, -3, 3, 97, 100, 103};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(offsets[i], want[i]) << i;
  ff::ipf_calc_nbr_offset(1, 1, 100, 3, offsets, false);
  EXPECT_EQ(offsets[4], 0);
  EXPECT_EQ(offsets[8], 103);
  std::vector<int> wider(2 * 5 - 1, -1);
  ff::ipf_calc_nbr_offset(2, 0, 10, 1, wider.data(), true);
  EXPECT_EQ(wider[0], -2);
  EXPECT_EQ(wider[3], 2);
  int untouched[2] = {5, 5};
  ff::ipf_calc_nbr_offset(-1, 1, 100, 3, untouched, false);
  ff::ipf_calc_nbr_offset(1, -1, 100, 3, untouched, false);
  ff::ipf_calc_nbr_offset(1, 1, 100, 3, nullptr, false);
  EXPECT_EQ(untouched[0], 5);
  EXPECT_EQ(untouched[1], 5);
}

}  // namespace
