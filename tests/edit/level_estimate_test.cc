#include <gtest/gtest.h>

#include <vector>

#include "softmatte/edit.h"

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
