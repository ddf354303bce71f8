#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

constexpr int kLabelSentinel = 0x5A5A5A5A;

// Flood fill from each unlabelled pixel in raster order: numbering by first
// appearance falls out of the scan order, with no equivalence bookkeeping.
std::vector<int> FloodFillLabels(const std::vector<unsigned char>& img,
                                 int width, int height, int stride,
                                 int* count) {
  const int n = width * height;
  std::vector<int> labels(n, -1), stack;
  auto value = [&](int p) { return img[p / width * stride + p % width]; };
  *count = 0;
  for (int start = 0; start < n; ++start) {
    if (labels[start] >= 0) continue;
    labels[start] = *count;
    stack.push_back(start);
    while (!stack.empty()) {
      const int p = stack.back();
      stack.pop_back();
      for (int q : {p - 1, p + 1, p - width, p + width}) {
        // A step of one that wraps into another row is no neighbour.
        if (q >= 0 && q < n &&
            (q / width == p / width || q % width == p % width) &&
            labels[q] < 0 && value(q) == value(p)) {
          labels[q] = *count;
          stack.push_back(q);
        }
      }
    }
    ++*count;
  }
  return labels;
}

TEST(ConnectedComponent, MatchesFloodFillOnRandomPlanes) {
  std::mt19937 rng(20241121);  // fixed seed: a failure must replay
  // Binary masks of several densities grow long, branching regions whose
  // provisional labels must be merged; three levels make many small ones.
  // The larger sizes reach merge chains joined far below their start.
  struct Levels {
    int count;
    double on;
  };
  const int sizes[][2] = {{1, 1},  {1, 5},  {2, 2},   {3, 16},   {7, 31},
                          {17, 5}, {33, 2}, {64, 16}, {201, 157}};
  for (const Levels levels : {Levels{2, 0.5}, Levels{2, 0.1}, Levels{2, 0.6},
                              Levels{3, 0.3}, Levels{1, 0.0}}) {
    for (const auto& size : sizes) {
      const int width = size[0], height = size[1];
      const int stride = width + 3, labelStep = width + 5;
      // The padding holds kSentinel, a value that never occurs inside.
      std::vector<unsigned char> img(static_cast<size_t>(stride) * height,
                                     softmatte_test::kSentinel);
      std::bernoulli_distribution on(levels.on);
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          img[y * stride + x] =
              static_cast<unsigned char>(levels.count == 3 ? rng() % 3
                                         : on(rng)         ? 255
                                                           : 0);
        }
      }
      std::vector<int> labels(static_cast<size_t>(labelStep) * height,
                              kLabelSentinel);
      int wantCount = 0;
      const std::vector<int> want =
          FloodFillLabels(img, width, height, stride, &wantCount);
      ASSERT_EQ(ff::ipf_connected_component(img.data(), width, height, stride,
                                            labels.data(), labelStep),
                wantCount)
          << width << "x" << height;
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < labelStep; ++x) {
          ASSERT_EQ(labels[y * labelStep + x],
                    x < width ? want[y * width + x] : kLabelSentinel)
              << width << "x" << height << " at (" << x << ", " << y << ")";
        }
      }
    }
  }
  // Null planes: 0 components and nothing written.
  int untouched[4] = {kLabelSentinel, kLabelSentinel, kLabelSentinel,
                      kLabelSentinel};
  const unsigned char plane[4] = {0, 255, 255, 0};
  EXPECT_EQ(ff::ipf_connected_component(nullptr, 2, 2, 2, untouched, 2), 0);
  EXPECT_EQ(ff::ipf_connected_component(plane, 2, 2, 2, nullptr, 2), 0);
  for (int v : untouched) EXPECT_EQ(v, kLabelSentinel);
}

}  // namespace
