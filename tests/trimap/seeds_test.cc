#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "softmatte/trimap.h"
#include "test_util.h"

TEST(MakeSeeds, MatchesClippedWindowReferenceWithPaddedRows) {
  std::mt19937 rng(7);
  const int configs[][3] = {{1, 9, 4}, {6, 1, 0}, {13, 8, 3}, {13, 8, 2}};
  for (auto [w, h, window] : configs) {
    const int s = w + 3, os = w + 5, r = (window | 1) / 2;
    std::vector<unsigned char> a(s * h), out(os * h, softmatte_test::kSentinel);
    // Mostly near 128 with rare extremes: flat windows, flat 128s and steps
    // of exactly 127 and 128 all occur.
    for (auto& v : a) v = rng() % 9 ? 124 + rng() % 6 : 254 * (rng() % 2);
    MakeSeeds(a.data(), w, h, s, out.data(), os, window);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        int lo = 255, hi = 0;
        for (int j = std::max(0, y - r); j <= std::min(h - 1, y + r); ++j)
          for (int i = std::max(0, x - r); i <= std::min(w - 1, x + r); ++i)
            lo = std::min<int>(lo, a[j * s + i]),
            hi = std::max<int>(hi, a[j * s + i]);
        const int v = a[y * s + x];
        ASSERT_EQ(out[y * os + x], hi - lo >= 128 ? 128
                                   : v == 128     ? 127
                                                  : v)
            << w << "x" << h << " window " << window;
      }
    }
    EXPECT_TRUE(softmatte_test::PaddingIntact(out, w, h, os));
  }
}

TEST(InvertMatte, ComplementsAllButUnknownAndLeavesPadding) {
  std::vector<unsigned char> row = {0, 127, 128, 129, 255, 0xA5};
  InvertMatte(row.data(), 5, 1, 6);
  EXPECT_EQ(row, (std::vector<unsigned char>{255, 128, 128, 126, 0, 0xA5}));
}
