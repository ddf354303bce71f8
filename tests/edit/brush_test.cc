// The brush and strip-level editing helpers against naive references
// written here, and their pinned values.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "softmatte/edit.h"
#include "test_util.h"

namespace {

using softmatte_test::RandomPlane;
using Bytes = std::vector<unsigned char>;

// Rounded mean (op 0), maximum (1) or minimum (2) of channel c over the
// k x k window clipped to the rectangle grown by border b (null: none).
int Window(const unsigned char* p, int step, int ch, int w, int h, const int* b,
           int x, int y, int c, int k, int op) {
  int sum = 0, n = 0, hi = 0, lo = 255;
  for (int v = std::max(y - k / 2, b ? -b[1] : 0);
       v <= std::min(y + k / 2, h - 1 + (b ? b[3] : 0)); ++v)
    for (int u = std::max(x - k / 2, b ? -b[0] : 0);
         u <= std::min(x + k / 2, w - 1 + (b ? b[2] : 0)); ++u) {
      const int val = p[v * step + u * ch + c];
      sum += val, ++n, hi = std::max(hi, val), lo = std::min(lo, val);
    }
  return op == 0 ? (sum + n / 2) / n : op == 1 ? hi : lo;
}

TEST(BrushFilters, ErodeDilateSmoothAndThresholdMatchReference) {
  int b[4] = {1, 2, 2, 0};  // the window runs past some of these
  for (int w : {5, 19, 23}) {
    const int h = 6, s = (w + 4) * 3 + 1;
    const Bytes big = RandomPlane((w + 4) * 3, h + 4, s, w);
    const unsigned char* alpha = big.data() + 2 * s + 2;  // 3 channels at +6
    const Bytes weight = RandomPlane(w, h, s, w + 1);
    const Bytes dst = RandomPlane(w * 3, h, s, w + 2);
    Bytes ero = dst, dil = dst, smooth = dst, out1 = dst, out2 = dst;
    mat_erode_brush(alpha, w, h, s, weight.data(), s, ero.data(), s, 5, b);
    mat_dilate_brush(alpha, w, h, s, weight.data(), s, dil.data(), s, 5, b);
    mat_smooth_brush(alpha + 4, w, h, s, 3, smooth.data(), s, 3, b);
    mat_brush_threshold(alpha, w, h, s, out1.data(), s, out2.data(), s, 3, b,
                        215, 40);
    Bytes ero_want = dst, dil_want = dst, smooth_want = dst, out_want = dst;
    const int kmax = ((w / 2) | 1) < 8 ? 7 : (w / 2) | 1;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int i = y * s + x,
                  m = Window(alpha, s, 1, w, h, b, x, y, 0, 5, 0);
        const int top = Window(alpha, s, 1, w, h, nullptr, x, y, 0, kmax, 1);
        const int wm = weight[i] * m;
        if (top > 0) {
          ero_want[i] =
              std::min(+ero_want[i], m + (m - top) * wm / (top * 256));
          dil_want[i] =
              std::max(+dil_want[i], m + (top - m) * wm / (top * 256));
        }
        for (int c = 0; c < 3; ++c)
          smooth_want[y * s + x * 3 + c] =
              Window(alpha + 4, s, 3, w, h, b, x, y, c, 3, 0);
        if (Window(alpha, s, 1, w, h, b, x, y, 0, 3, 1) < 215) out_want[i] = 0;
        if (Window(alpha, s, 1, w, h, b, x, y, 0, 3, 2) > 40) out_want[i] = 255;
      }
    EXPECT_TRUE(ero == ero_want && dil == dil_want && smooth == smooth_want &&
                out1 == out_want && out2 == out_want)
        << "width " << w;
  }
}

TEST(BrushStrokes, SetAndUndoMatchReferenceAndApplyOncePerStroke) {
  for (int w : {1, 17}) {
    const int h = 3, s = w * 3 + 2, n = s * h;
    const Bytes alpha = RandomPlane(w, h, s, 1);
    Bytes wt = RandomPlane(w, h, s, 2);
    // Weight 128 times an odd difference lands on the rounding constant.
    for (int i = 0; i < n; i += 2) wt[i] = i % s < w ? 128 : wt[i];
    const Bytes saved = RandomPlane(w * 3, h, s, 3),
                acc0 = RandomPlane(w, h, s, 4);
    Bytes acc = acc0, dst = RandomPlane(w * 3, h, s, 5), acc_want = acc0;
    Bytes want = dst;
    for (int i = 0; i < n; ++i)
      if (i % s < w && acc_want[i] < wt[i])
        want[i] = alpha[i] + (((200 - alpha[i]) * wt[i] + 128) >> 8),
        acc_want[i] = wt[i];
    // The second pass of the same stroke finds its weights already applied.
    for (unsigned char value : {200, 0}) {
      mat_set_brush(alpha.data(), w, h, s, wt.data(), s, acc.data(), s,
                    dst.data(), s, value);
      EXPECT_TRUE(dst == want && acc == acc_want) << "width " << w;
    }
    for (int channels : {3, 0})
      for (bool track : {false, true}) {
        acc = acc_want = acc0;
        mat_undo_brush(saved.data(), w, h, s, channels, wt.data(), s,
                       acc.data(), s, dst.data(), s, track);
        for (int a = 0; a < n; ++a) {
          if (a % s >= w || (acc_want[a] >= wt[a] && channels > 0)) continue;
          const int x = a % s, i = a - x + 3 * x;
          for (int c = 0; c < channels; ++c)
            want[i + c] += ((saved[i + c] - want[i + c]) * wt[a] + 127) >> 8;
          if (track) acc_want[a] = std::max(acc_want[a], wt[a]);
        }
        EXPECT_TRUE(dst == want && acc == acc_want) << "width " << w;
      }
    // Full weight set, then undone from its own input: back within a step.
    const Bytes full(n, 255);
    Bytes back = alpha;
    mat_set_brush(alpha.data(), w, h, s, full.data(), s, Bytes(n).data(), s,
                  back.data(), s, 255);
    mat_undo_brush(alpha.data(), w, h, s, 1, full.data(), s, Bytes(n).data(), s,
                   back.data(), s, false);
    for (int i = 0; i < n; ++i) ASSERT_LE(std::abs(back[i] - alpha[i]), 1);
  }
}

TEST(BrushPinned, DabWeightsAndTrimapRectification) {
  Bytes dab(5 * 7, 0xA5);
  mat_make_rect_weight(dab.data(), 5, 5, 7, 0.5f);
  EXPECT_EQ(dab[2 * 7 + 2], 255);
  for (int i : {2, 2 * 7, 2 * 7 + 4, 4 * 7 + 2}) EXPECT_EQ(dab[i], 116);
  for (int i : {0, 4, 4 * 7, 4 * 7 + 4}) EXPECT_EQ(dab[i], 2);
  EXPECT_TRUE(softmatte_test::PaddingIntact(dab, 5, 5, 7));
  // Only the first pixel qualifies: unknown in ref, known and close in a and
  // b; the last two differ by exactly the tolerance.
  const Bytes ref = {128, 128, 128, 0, 128, 128},
              a = {100, 128, 100, 100, 100, 100};
  Bytes b = {104, 100, 128, 103, 105, 95};
  mat_rectify_uialpha(ref.data(), 6, 1, 6, a.data(), 6, b.data(), 6, 5);
  EXPECT_EQ(b, Bytes({128, 100, 128, 103, 105, 95}));
}

TEST(MatEstimateOptLevel, FindsTheMostCrowdedWholeStripOfTheUnknownBox) {
  // Box: columns 1-4, rows 1-3; column counts 2 1 2 3, row counts 4 2 2. The
  // 128 in the padding column must not count.
  const unsigned char tri[] = {0, 0,   0,   0,   0,   0, 0, 128,  //
                               0, 128, 128, 128, 128, 0, 0, 128,  //
                               0, 128, 127, 129, 128, 0, 0, 128,  //
                               0, 0,   0,   128, 128, 0, 0, 128};
  const struct {
    int columns, rows;
    double want;
  } cases[] = {{0, 0, 1.0},     {1, 0, 1 - 8 / 12.0}, {2, 0, 1 - 5 / 6.0},
               {3, 0, 1 / 3.0}, {4, 0, 0.0},          {5, 9, 1.0},
               {0, 1, 1 / 3.0}, {0, 3, 0.0},          {2, 1, 1 / 6.0}};
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(mat_estimate_opt_level(tri, 7, 4, 8, c.columns, c.rows),
                     c.want)
        << c.columns << " columns, " << c.rows << " rows";
  }
  EXPECT_EQ(mat_estimate_opt_level(tri, 7, 1, 8, 2, 2), 0.0);  // no 128
  EXPECT_EQ(mat_estimate_opt_level(nullptr, 7, 4, 8, 2, 2), 1.0);
}

TEST(MatCalcSTransform, HitsKnownPointsAndClampsItsControls) {
  unsigned char c[256];
  mat_calc_S_transform(c, 50, 50);
  EXPECT_EQ((std::vector<int>{c[0], c[64], c[128], c[192], c[255]}),
            (std::vector<int>{0, 41, 128, 215, 255}));
  mat_calc_S_transform(c, -5, -9);  // as (0, 0)
  EXPECT_EQ((std::vector<int>{c[64], c[128], c[192]}),
            (std::vector<int>{26, 69, 141}));
}

}  // namespace
