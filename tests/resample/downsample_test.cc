#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "softmatte/resample.h"
#include "test_util.h"

TEST(DsamImage, PicksNearestPixelsForEachChannelCount) {
  const int w = 17, h = 11, lh = 4;
  for (int ch : {1, 2, 3, 4}) {
    for (int lw : {1, 6, 17}) {
      const int ss = w * ch + 3, ds = lw * ch + 5;
      const auto src = softmatte_test::RandomPlane(w * ch, h, ss, ch);
      auto dst = softmatte_test::RandomPlane(lw * ch, lh, ds, 99);
      const auto before = dst;  // channels 2 must leave it alone
      dsam_image(src.data(), w, h, ss, dst.data(), lw, lh, ds, ch);
      // Rounded scaled positions; one column takes column 0, the last of
      // several is pinned to the end.
      const double sc = lw > 1 ? (w - 1.0) / (lw - 1) : 0,
                   sr = (h - 1.0) / (lh - 1);
      for (int y = 0; y < lh; ++y) {
        const int sy = static_cast<int>(y * sr + 0.5);
        for (int i = 0; i < lw * ch; ++i) {
          const int x = i / ch;
          const int sx =
              lw > 1 && x == lw - 1 ? w - 1 : static_cast<int>(x * sc + 0.5);
          ASSERT_EQ(dst[y * ds + i], ch == 2 ? before[y * ds + i]
                                             : src[sy * ss + sx * ch + i % ch])
              << ch << " channels, " << lw << " wide, at " << i << "," << y;
        }
      }
    }
  }
}

TEST(DsamIndex, ChoosesNearestColourOfCellAndCarriesLastMark) {
  std::mt19937 rng(3);
  const int w = 23, h = 9, lw = 7, lh = 4, is = w * 3 + 2, ls = lw * 3 + 5,
            xs = w + 3;
  std::vector<unsigned char> img(is * h), low(ls * lh), marks(w * h);
  for (auto& v : img) v = rng() % 3;  // few levels: equal distances are common
  for (auto& v : low) v = rng() % 3;
  for (auto& v : marks) v = rng() % 2 ? 128 : rng();
  std::vector<int> index(xs * h);
  dsam_calc_index(img.data(), w, h, is, low.data(), lw, lh, ls, index.data(),
                  xs);
  std::vector<unsigned char> want_low(lw * lh, 128), got_low(lw * lh);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const int u = std::min(x * (lw - 1) / (w - 1), lw - 2),
                v = std::min(y * (lh - 1) / (h - 1), lh - 2);
      int best = -1, best_d = 1 << 30;
      for (int k = 0; k < 4; ++k) {
        const unsigned char *c = &img[y * is + 3 * x],
                            *p = &low[(v + k / 2) * ls + 3 * (u + k % 2)];
        int d = 0;
        for (int j = 0; j < 3; ++j) d += (c[j] - p[j]) * (c[j] - p[j]);
        if (d < best_d) best_d = d, best = (v + k / 2) * lw + u + k % 2;
      }
      ASSERT_EQ(index[y * xs + x], best) << "at " << x << "," << y;
      if (marks[y * w + x] != 128) want_low[best] = marks[y * w + x];
    }
  }
  dsam_ui_alpha(marks.data(), w, h, w, index.data(), xs, got_low.data(), lw, lh,
                0, 0);
  EXPECT_EQ(got_low, want_low);
}
