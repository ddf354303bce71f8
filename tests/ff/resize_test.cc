#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PlaneMismatch;
using softmatte_test::RandomPlane;

// Source index of each destination index, and for bilinear the weight of
// the next one: i * srcLen / dstLen in float, no centring. Nearest rounds
// half up; at or past the last source element nearest takes it and bilinear
// the last pair with full weight on its right member.
void Table(int srcLen, int dstLen, bool bl, std::vector<int>& idx,
           std::vector<float>& frac) {
  idx.assign(dstLen, 0);
  frac.assign(dstLen, 0.0f);
  const float scale = static_cast<float>(srcLen) / static_cast<float>(dstLen);
  for (int i = 1; i < dstLen; ++i) {
    const float s = scale * static_cast<float>(i);
    idx[i] = static_cast<int>(bl ? s : static_cast<double>(s) + 0.5);
    frac[i] = s - std::trunc(s);
    if (idx[i] >= srcLen - 1) idx[i] = srcLen - 1 - bl, frac[i] = 1.0f;
  }
}

TEST(Resize, NearestAndBilinearMatchReference) {
  // {srcW, srcH, dstW, dstH}: shrinking, growing, identity, one side kept,
  // single lines.
  const int sizes[][4] = {{4, 3, 2, 2},    {2, 2, 7, 9},     {17, 13, 17, 13},
                          {33, 9, 10, 31}, {31, 17, 13, 40}, {41, 29, 19, 23},
                          {9, 5, 9, 11},   {12, 14, 5, 14},  {7, 1, 3, 4},
                          {1, 5, 6, 2}};
  // {channels, srcPix, dstPix}: whole pixels, one channel of a colour image,
  // colour with a fourth byte that must stay untouched; sixteen channels and
  // more take the wide bilinear path.
  const int steps[][3] = {{1, 1, 1},    {3, 3, 3},    {1, 3, 3},
                          {3, 4, 4},    {3, 3, 4},    {15, 15, 15},
                          {16, 16, 16}, {16, 18, 17}, {35, 37, 36}};
  uint32_t seed = 1;
  std::vector<int> cols, rows;
  std::vector<float> fx, fy;
  for (const auto& s : sizes) {
    for (const auto& p : steps) {
      const int sw = s[0], sh = s[1], dw = s[2], dh = s[3];
      const int ch = p[0], sp = p[1], dp = p[2], ss = sw * sp + 7;
      const int ds = dw * dp + 3;
      const auto src = RandomPlane(sw * sp, sh, ss, ++seed);
      // Nearest copies 1 or 3 bytes; bilinear needs a pair each way.
      for (bool bl : {false, true}) {
        if (bl ? sw < 2 || sh < 2 : ch > 3) continue;
        Table(sw, dw, bl, cols, fx);
        Table(sh, dh, bl, rows, fy);
        std::vector<unsigned char> dst(static_cast<size_t>(ds) * dh, kSentinel);
        unsigned char* d = dst.data();
        if (bl) {
          ff::ipf_resize_bl(src.data(), sw, sh, ss, sp, d, dw, dh, ds, dp, ch);
        } else if (ch == 1) {
          ff::ipf_resize_nn(src.data(), sw, sh, ss, sp, d, dw, dh, ds, dp,
                            ff::ccn<1>());
        } else {
          ff::ipf_resize_nn(src.data(), sw, sh, ss, sp, d, dw, dh, ds, dp,
                            ff::ccn<3>());
        }
        // Bilinear: the four-neighbour blend per channel in float, truncated.
        const auto want = [&](int x, int y) {
          const int i = x / dp, c = x % dp;
          const auto at = [&](int dx, int dy) {
            return static_cast<float>(
                src[(rows[y] + dy) * ss + (cols[i] + dx) * sp + c]);
          };
          if (c >= ch) return kSentinel;
          if (!bl) return src[rows[y] * ss + cols[i] * sp + c];
          const float top = fx[i] * (at(1, 0) - at(0, 0)) + at(0, 0);
          const float bottom = fx[i] * (at(1, 1) - at(0, 1)) + at(0, 1);
          return static_cast<unsigned char>(
              static_cast<int>(top + fy[y] * (bottom - top)));
        };
        EXPECT_EQ("", PlaneMismatch(dst, dw * dp, dh, ds, kSentinel, want))
            << (bl ? "bilinear " : "nearest ") << sw << "x" << sh << " -> "
            << dw << "x" << dh << " pix " << ch << "/" << sp << "/" << dp;
      }
    }
  }
}

TEST(Ipf, NeighbourOffsetsListTheWindowRowByRow) {
  for (auto [rx, ry] : {std::pair{1, 1}, {2, 1}, {0, 2}, {3, 0}}) {
    for (bool skip : {true, false}) {
      std::vector<int> want;
      for (int dy = -ry; dy <= ry; ++dy)
        for (int dx = -rx; dx <= rx; ++dx)
          if (!skip || dx || dy) want.push_back(dy * 100 + dx * 3);
      std::vector<int> got(want.size() + 1, -1);
      ff::ipf_calc_nbr_offset(rx, ry, 100, 3, got.data(), skip);
      want.push_back(-1);
      EXPECT_EQ(got, want) << rx << "x" << ry << " skip " << skip;
    }
  }
}

}  // namespace
