#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

constexpr float kFar = 1e20f;

// Replaces the n samples of g at start, start + step, ... by the min over q
// of f[q] + (p - q)^2, trying every q.
void BruteForceLine(std::vector<float>& g, int start, int step, int n) {
  std::vector<float> f(n);
  for (int q = 0; q < n; ++q) f[q] = g[start + q * step];
  for (int p = 0; p < n; ++p) {
    float best = f[0] + static_cast<float>(p * p);
    for (int q = 1; q < n; ++q) {
      best = std::min(best, f[q] + static_cast<float>((p - q) * (p - q)));
    }
    g[start + p * step] = best;
  }
}

// Columns, then rows, line by line. The library walks the lines of a pass in
// four ranges cut at n/4, n/2 and 3 * (n/4); with 2 or 3 lines the last range
// restarts at 0, so line 0 goes through twice.
std::vector<float> LineByLine(std::vector<float> g, int width, int height) {
  for (int x = 0; x < width; ++x) BruteForceLine(g, x, width, height);
  if (width == 2 || width == 3) BruteForceLine(g, 0, width, height);
  for (int y = 0; y < height; ++y) BruteForceLine(g, y * width, 1, width);
  if (height == 2 || height == 3) BruteForceLine(g, 0, 1, width);
  return g;
}

TEST(DistanceTransform, MatchesBruteForceOnRandomGrids) {
  std::mt19937 rng(5150);
  for (int width : {1, 2, 3, 4, 5, 9, 33})
    for (int height : {1, 2, 3, 4, 7, 31})
      for (unsigned zeros : {0u, 1u, 10u, 60u, 100u}) {
        SCOPED_TRACE(testing::Message()
                     << width << "x" << height << ", " << zeros << "% zeros");
        // Object pixels take any non-zero value: non-zero, not 255, counts.
        const int n = width * height, stride = width + 3;
        std::vector<unsigned char> mask = softmatte_test::RandomPlane(
            width, height, stride, static_cast<uint32_t>(rng()));
        auto at = [&](int i) -> unsigned char& {
          return mask[i / width * stride + i % width];
        };
        for (int i = 0; i < n; ++i) at(i) = rng() % 100 < zeros ? 0 : at(i) | 1;
        std::unique_ptr<float[]> grid(
            DPLMatting_MakeDTInput(mask.data(), width, height, stride));
        std::vector<float> want(n, kFar);
        for (int i = 0; i < n; ++i) {
          ASSERT_EQ(grid[i], at(i) ? kFar : 0.0f);
          for (int s = 0; s < n; ++s) {
            const int dx = i % width - s % width, dy = i / width - s / width;
            if (at(s) == 0)
              want[i] = std::min(want[i], 1.0f * (dx * dx + dy * dy));
          }
        }
        // Where a line goes through twice the result is no longer the plain
        // nearest-source distance.
        std::vector<float> costs(grid.get(), grid.get() + n);
        if (width == 2 || width == 3 || height == 2 || height == 3)
          want = LineByLine(costs, width, height);
        DistanceTransform(grid.get(), width, height);
        ASSERT_EQ(0, std::memcmp(grid.get(), want.data(), sizeof(float) * n));

        // The same grid with small integer costs, exact in float, on some
        // far pixels, and -0 (a source too, coming out as +0) on some sources.
        for (float& v : costs) {
          if (rng() % 3 == 0)
            v = v == 0.0f ? -0.0f : static_cast<float>(rng() % 200);
        }
        std::vector<float> row0(costs.begin(), costs.begin() + width);
        std::unique_ptr<float[]> d(DistanceTransform1D(row0.data(), width));
        ASSERT_TRUE(std::equal(row0.begin(), row0.end(), costs.begin()))
            << "the input is only read";
        BruteForceLine(row0, 0, 1, width);
        ASSERT_EQ(0, std::memcmp(d.get(), row0.data(), sizeof(float) * width));
        want = LineByLine(costs, width, height);
        DistanceTransform(costs.data(), width, height);
        ASSERT_EQ(0, std::memcmp(costs.data(), want.data(), sizeof(float) * n));
      }
}

}  // namespace
