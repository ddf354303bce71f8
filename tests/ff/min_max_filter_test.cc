#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PlaneMismatch;

// The region grown by the border (each side clamped to 0 .. ksize), filtered
// whole `iterations` times with the window clipped to it (outside counts as
// 255 for the minimum, 0 for the maximum), then cut out at byte
// (grown width) * top + left * channels: the row offset is deliberately not
// scaled by the channel count.
// Returns the cut plane and its row length.
std::pair<std::vector<unsigned char>, int> Reference(
    const unsigned char* region, int stride, int width, int height, int ch,
    int ksize, int iterations, const int* border, bool isMin) {
  int side[4] = {0, 0, 0, 0};
  for (int i = 0; border && i < 4; ++i)
    side[i] = std::clamp(border[i], 0, ksize);
  const int w = side[0] + width + side[2], h = side[1] + height + side[3];
  const int r = std::max(ksize, 0) / 2;
  std::vector<unsigned char> big(static_cast<size_t>(w) * h * ch);
  for (int y = 0; y < h; ++y) {
    std::copy_n(
        region + static_cast<ptrdiff_t>(y - side[1]) * stride - side[0] * ch,
        w * ch, big.begin() + static_cast<size_t>(y) * w * ch);
  }
  for (int pass = 0; pass < std::max(iterations, 1); ++pass) {
    std::vector<unsigned char> next(big.size());
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w * ch; ++x) {
        int best = isMin ? 255 : 0;
        for (int v = std::max(y - r, 0); v <= std::min(y + r, h - 1); ++v) {
          for (int u = std::max(x / ch - r, 0);
               u <= std::min(x / ch + r, w - 1); ++u) {
            const int value =
                big[(static_cast<size_t>(v) * w + u) * ch + x % ch];
            best = isMin ? std::min(best, value) : std::max(best, value);
          }
        }
        next[static_cast<size_t>(y) * w * ch + x] =
            static_cast<unsigned char>(best);
      }
    }
    big.swap(next);
  }
  big.erase(big.begin(), big.begin() + w * side[1] + side[0] * ch);
  return {big, w * ch};
}

TEST(MinMaxFilter, MatchesBruteForce) {
  // {width, height, channels, ksize, iterations}: sizes around the 64 lines
  // filtered side by side, one-pixel lines, even and oversized windows;
  // iterations 0 and 1 both mean one pass.
  const int cases[][5] = {
      {1, 1, 1, 3, 1},    {1, 9, 1, 3, 1},    {9, 1, 1, 3, 1},
      {13, 7, 1, 4, 1},   {13, 7, 3, 5, 0},   {17, 11, 3, 3, 2},
      {70, 5, 1, 9, 1},   {5, 70, 1, 9, 1},   {131, 67, 1, 7, 2},
      {67, 131, 3, 5, 1}, {29, 23, 1, 41, 1}, {23, 29, 3, 61, 3},
      {3, 2, 1, 2, 1},    {8, 6, 1, 0, 1},    {33, 19, 2, 9, 4}};
  // Borders beyond ksize are clamped, negative ones count as none.
  const int borders[][4] = {
      {1, 1, 1, 1}, {3, 0, 2, 5}, {12, 12, 12, 12}, {-4, 7, 0, -1}};
  const int margin = 12;
  uint32_t seed = 1;
  for (const auto& k : cases) {
    const int width = k[0], height = k[1], ch = k[2];
    const int stride = (width + 2 * margin) * ch + 3;
    const auto canvas = softmatte_test::RandomPlane(
        (width + 2 * margin) * ch, height + 2 * margin, stride, ++seed);
    const unsigned char* region =
        canvas.data() + static_cast<size_t>(margin) * stride + margin * ch;
    const int rowBytes = width * ch, dstStride = rowBytes + 5;
    for (int bi = -1; bi < 4; ++bi) {
      const int* border = bi < 0 ? nullptr : borders[bi];
      // Oversized windows over the whole border would make this slow.
      if (border && width * height > 2000) continue;
      for (bool isMin : {true, false}) {
        const auto filter = isMin ? ff::ipf_min_filter : ff::ipf_max_filter;
        std::vector<unsigned char> dst(static_cast<size_t>(dstStride) * height,
                                       kSentinel);
        int b[4];
        if (border) std::copy_n(border, 4, b);
        filter(region, width, height, stride, ch, dst.data(), dstStride, k[3],
               k[4], border ? b : nullptr);
        const auto want = Reference(region, stride, width, height, ch, k[3],
                                    k[4], border, isMin);
        const auto at = [&](int x, int y) {
          return want.first[y * want.second + x];
        };
        EXPECT_EQ(
            "", PlaneMismatch(dst, rowBytes, height, dstStride, kSentinel, at))
            << (isMin ? "min " : "max ") << width << "x" << height << "x" << ch
            << " ksize " << k[3] << " iterations " << k[4] << " border "
            << border;
        if (border) continue;
        // In place: the region's rows in dst's layout, filtered there.
        for (int y = 0; y < height; ++y)
          std::copy_n(region + y * stride, rowBytes, &dst[y * dstStride]);
        filter(dst.data(), width, height, dstStride, ch, dst.data(), dstStride,
               k[3], k[4], nullptr);
        EXPECT_EQ(
            "", PlaneMismatch(dst, rowBytes, height, dstStride, kSentinel, at))
            << "in place";
      }
    }
  }
  // Null planes leave everything alone.
  std::vector<unsigned char> dst(12, kSentinel);
  ff::ipf_min_filter(nullptr, 4, 3, 4, 1, dst.data(), 4, 3, 1, nullptr);
  ff::ipf_max_filter(dst.data(), 4, 3, 4, 1, nullptr, 4, 3, 1, nullptr);
  EXPECT_EQ(dst, std::vector<unsigned char>(12, kSentinel));
}

}  // namespace
