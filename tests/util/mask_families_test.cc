// The realistic masks the defaults are chosen on, against their definitions
// written out pixel by pixel.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;
using softmatte_test::PlaneMismatch;
constexpr int kW = 23, kH = 17;
constexpr unsigned char kNoPadding = 0;

Bytes RandomTruth(uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes truth(kW * kH, 0);
  for (int s = 0; s < 4; ++s)
    softmatte_test::FillEllipse(truth, kW, kH, rng() % kW, rng() % kH,
                                1 + rng() % 9, 1 + rng() % 7,
                                static_cast<unsigned char>(rng()));
  return truth;
}

// A block (clipped at the border) is the subject when its mean is at least
// 128.
TEST(BlockyMask, IsTheBlockMeanThresholdedAndEnlarged) {
  for (int f : {1, 2, 3, 4, 16}) {
    const Bytes truth = RandomTruth(f);
    const Bytes got = softmatte_test::BlockyMask(truth, kW, kH, f);
    const auto want = [&](int x, int y) {
      long sum = 0, area = 0;
      for (int v = y / f * f; v < std::min(kH, (y / f + 1) * f); ++v)
        for (int u = x / f * f; u < std::min(kW, (x / f + 1) * f); ++u)
          sum += truth[v * kW + u], ++area;
      return sum >= 128 * area ? 255 : 0;
    };
    EXPECT_EQ("", PlaneMismatch(got, kW, kH, kW, kNoPadding, want))
        << "factor " << f;
  }
}

// A pixel changes side when one of the other side lies within |shift|.
TEST(MovedEdgeMask, GrowsAndShrinksByEuclideanDistance) {
  const Bytes truth = RandomTruth(40);
  for (int shift : {-3, -1, 0, 1, 2, 4}) {
    const Bytes got = softmatte_test::MovedEdgeMask(truth, kW, kH, shift);
    const auto want = [&](int x, int y) {
      const bool subject = truth[y * kW + x] >= 128;
      bool reached = false;
      for (int v = 0; v < kH; ++v)
        for (int u = 0; u < kW; ++u)
          reached |= (truth[v * kW + u] >= 128) != subject &&
                     (u - x) * (u - x) + (v - y) * (v - y) <= shift * shift;
      return (shift < 0 ? subject && !reached : subject || reached) ? 255 : 0;
    };
    EXPECT_EQ("", PlaneMismatch(got, kW, kH, kW, kNoPadding, want))
        << "shift " << shift;
  }
}

}  // namespace
