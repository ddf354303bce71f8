// The realistic masks the defaults are chosen on, against their definitions
// written out pixel by pixel.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "test_util.h"

namespace {

std::vector<unsigned char> RandomTruth(int width, int height, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<unsigned char> truth(width * height, 0);
  for (int s = 0; s < 4; ++s) {
    softmatte_test::FillEllipse(truth, width, height, rng() % width,
                                rng() % height, 1 + rng() % 9, 1 + rng() % 7,
                                static_cast<unsigned char>(rng()));
  }
  return truth;
}

TEST(BlockyMask, IsTheBlockMeanThresholdedAndEnlarged) {
  for (int factor : {1, 2, 3, 4, 16}) {
    const int width = 23, height = 17;
    const std::vector<unsigned char> truth = RandomTruth(width, height, factor);
    const std::vector<unsigned char> got =
        softmatte_test::BlockyMask(truth, width, height, factor);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        long sum = 0, area = 0;
        for (int v = y / factor * factor; v < (y / factor + 1) * factor; ++v) {
          for (int u = x / factor * factor; u < (x / factor + 1) * factor;
               ++u) {
            if (u >= width || v >= height) continue;
            sum += truth[v * width + u];
            ++area;
          }
        }
        ASSERT_EQ(got[y * width + x], sum >= 128 * area ? 255 : 0)
            << "factor " << factor << " at " << x << "," << y;
      }
    }
  }
}

TEST(MovedEdgeMask, GrowsAndShrinksByEuclideanDistance) {
  const int width = 21, height = 19;
  for (int shift : {-3, -1, 0, 1, 2, 4}) {
    const std::vector<unsigned char> truth = RandomTruth(width, height, 40);
    const std::vector<unsigned char> got =
        softmatte_test::MovedEdgeMask(truth, width, height, shift);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const bool subject = truth[y * width + x] >= 128;
        // Is a pixel of the other side within |shift|?
        bool reached = false;
        for (int v = 0; v < height; ++v) {
          for (int u = 0; u < width; ++u) {
            const bool other = (truth[v * width + u] >= 128) != subject;
            const int d2 = (u - x) * (u - x) + (v - y) * (v - y);
            reached |= other && d2 <= shift * shift;
          }
        }
        const bool want = shift < 0 ? subject && !reached : subject || reached;
        ASSERT_EQ(got[y * width + x], want ? 255 : 0)
            << "shift " << shift << " at " << x << "," << y;
      }
    }
  }
}

}  // namespace
