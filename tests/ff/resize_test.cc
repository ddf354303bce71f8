#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
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
  // {srcW, srcH, dstW, dstH}: shrinking, growing, identity, single lines.
  const int sizes[][4] = {{4, 3, 2, 2},    {2, 2, 7, 9},     {17, 13, 17, 13},
                          {33, 9, 10, 31}, {31, 17, 13, 40}, {41, 29, 19, 23},
                          {7, 1, 3, 4},    {1, 5, 6, 2}};
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

// Hand-worked examples that pin rounding, clamping and layout.
TEST(Ipf, PinnedExamples) {
  std::vector<int> t(8, -7);
  std::vector<float> f(8, -2.0f);
  const auto nn = [&](int srcLen, int dstLen, int step) {
    ff::ipf_calc_resize_tab_nn(srcLen, dstLen, t.data(), step);
    return std::vector<int>(t.begin(), t.begin() + dstLen);
  };
  // Entries, then fractions in halves.
  const auto bl = [&](int srcLen, int dstLen, int step) {
    ff::ipf_calc_resize_tab_bl(srcLen, dstLen, t.data(), f.data(), step);
    std::vector<int> v(t.begin(), t.begin() + dstLen);
    for (int i = 0; i < dstLen; ++i) v.push_back(static_cast<int>(f[i] * 2));
    return v;
  };
  // Neighbour offsets without, then with the centre.
  std::vector<int> nbr(17, -1);
  ff::ipf_calc_nbr_offset(1, 1, 100, 3, nbr.data(), true);
  ff::ipf_calc_nbr_offset(1, 1, 100, 3, nbr.data() + 8, false);
  // Two equal rows of 254 but for 255 in column 1; destination column at.
  const auto bilinear = [](int w, int dstW, int at) {
    std::vector<unsigned char> src(2 * w, 254), out(dstW);
    src[1] = src[w + 1] = 255;
    ff::ipf_resize_bl(src.data(), w, 2, w, 1, out.data(), dstW, 1, dstW, 1, 1);
    return std::vector<int>{out[at]};
  };
  // Corners of a 3x3 mean see 4 pixels, edges 6, inner ones 9.
  const unsigned char meanSrc[16] = {1, 2, 7, 7, 1, 2, 7, 7,
                                     0, 0, 0, 0, 9, 9, 9, 9};
  std::vector<int> mean(16), count(16);
  ff::ipf_mean_filter(meanSrc, 4, 4, 4, 1, mean.data(), 4, count.data(), 4, 3,
                      3, nullptr);
  const struct {
    const char* what;
    std::vector<int> got, want;
  } rows[] = {
      {"nn 4->2", nn(4, 2, 1), {0, 2}},
      {"nn 2->4: 0.5 rounds up, 1.5 clamped", nn(2, 4, 1), {0, 1, 1, 1}},
      {"nn 3->2: 1.5 rounds up to the last", nn(3, 2, 1), {0, 2}},
      {"nn x3", nn(2, 4, 3), {0, 3, 3, 3}},
      {"bl", bl(4, 8, 1), {0, 0, 1, 1, 2, 2, 2, 2, 0, 1, 0, 1, 0, 1, 2, 2}},
      {"bl x3", bl(4, 8, 3), {0, 0, 3, 3, 6, 6, 6, 6, 0, 1, 0, 1, 0, 1, 2, 2}},
      {"254.5 truncates", bilinear(2, 4, 1), {254}},
      {"254.9 truncates", bilinear(10, 100, 9), {254}},
      {"nbr offsets",
       nbr,
       {-103, -100, -97, -3, 3, 97, 100, 103, -103, -100, -97, -3, 0, 3, 97,
        100, 103}},
      {"3x3 counts", count, {4, 6, 6, 4, 6, 9, 9, 6, 6, 9, 9, 6, 4, 6, 6, 4}},
      // Corner (1 + 2 + 1 + 2 + 2) / 4, edge (20 + 3) / 6, inner (20 + 4) / 9,
      // bottom corner (18 + 2) / 4.
      {"3x3 means", {mean[0], mean[1], mean[5], mean[15]}, {2, 3, 2, 5}},
  };
  for (const auto& r : rows) EXPECT_EQ(r.got, r.want) << r.what;
}

}  // namespace
