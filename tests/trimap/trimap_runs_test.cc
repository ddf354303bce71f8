// The run-based trimap of the one-shot flow against MakeTrimapFromSegRes,
// byte for byte, on masks of every kind of shape and band setting.
#include "trimap/trimap_runs.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

// Discs, thin bars, single pixels and holes, some over the border; or the
// blocky enlargement of such a mask, as segmenters give them.
std::vector<unsigned char> RandomMask(int width, int height, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<unsigned char> mask(static_cast<size_t>(width) * height, 0);
  const int shapes = 1 + rng() % 8;
  for (int s = 0; s < shapes; ++s) {
    const double cx = rng() % (width + 10) - 5.0;
    const double cy = rng() % (height + 10) - 5.0;
    const double rx = 0.5 + rng() % (1 + width / 2);
    const double ry = rng() % 3 == 0 ? 0.7 : 0.5 + rng() % (1 + height / 2);
    const unsigned char value = s > 0 && rng() % 4 == 0 ? 0 : 255;
    softmatte_test::FillEllipse(mask, width, height, cx, cy, rx, ry, value);
  }
  for (int specks = rng() % 6; specks > 0; --specks) {
    mask[rng() % mask.size()] ^= 255;
  }
  if (rng() % 3 == 0) {
    mask = softmatte_test::BlockyMask(mask, width, height, 2 + rng() % 6);
  }
  return mask;
}

TEST(MakeTrimapFromRuns, MatchesTheWholePlaneTrimap) {
  std::mt19937 rng(7);
  const int bands[] = {0, 1, 2, 3, 5, 12};
  const double scales[] = {0.0, 0.01, 0.1, 0.25, 0.5, 1.0, 3.0};
  for (int round = 0; round < 400; ++round) {
    const int width = 1 + rng() % 70;
    const int height = 1 + rng() % 60;
    const std::vector<unsigned char> mask = RandomMask(width, height, round);
    const int max_band = bands[rng() % 6];
    const double scale = scales[rng() % 7];
    std::vector<unsigned char> want(mask.size(), 7);
    std::vector<unsigned char> got(mask.size(), 9);
    MakeTrimapFromSegRes(mask.data(), width, height, width, want.data(), width,
                         max_band, scale);
    MakeTrimapFromRuns(mask.data(), width, height, got.data(), max_band, scale);
    ASSERT_EQ(got, want) << "round " << round << ": " << width << "x" << height
                         << " band " << max_band << " scale " << scale;
  }
}

}  // namespace
