#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <random>
#include <utility>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using Box = std::array<int, 4>;
constexpr Box kUnwritten = {-77, -77, -77, -77};

// The box, the box of differences and, on one-row planes, the range, each
// against a visit of every pixel; then null arguments, which return false
// and write no box (the range's ends become -1 on any failure).
TEST(MaskRoi, BoxAndRangeMatchBruteForceOnSparsePlanes) {
  std::mt19937 rng(1121);  // fixed seed: a failure must replay
  for (int width : {1, 2, 5, 17, 40, 64}) {
    for (int height : {1, 3, 8, 23}) {
      for (int spots : {0, 1, 2, 5}) {
        // Low noise (at most 10) with a few spots above it. The padding is
        // kSentinel, above every threshold below: reading it widens a box.
        const int sa = width + 7, sb = width + 10;
        std::vector<unsigned char> a(static_cast<size_t>(sa) * height,
                                     softmatte_test::kSentinel);
        std::vector<unsigned char> b(static_cast<size_t>(sb) * height, 0);
        for (int i = 0; i < width * height; ++i)
          a[i / width * sa + i % width] = b[i / width * sb + i % width] =
              static_cast<unsigned char>(rng() % 11);
        for (int i = 0; i < spots; ++i) {
          a[(rng() % height) * sa + rng() % width] = 11 + rng() % 245;
          b[(rng() % height) * sb + rng() % width] ^= 1 + rng() % 255;
        }
        // -1 compares a with b instead: only pixels inside count, and the
        // two paddings differ.
        for (int threshold : {-1, 0, 5, 10, 100, 255}) {
          Box want = {width, height, 0, 0};
          for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
              if (threshold < 0 ? a[y * sa + x] != b[y * sb + x]
                                : a[y * sa + x] > threshold)
                want = {std::min(want[0], x), std::min(want[1], y),
                        std::max(want[2], x + 1), std::max(want[3], y + 1)};
          const bool found = want[2] > 0;
          if (!found) want = {0, 0, 0, 0};
          Box got = kUnwritten;
          const auto t = static_cast<unsigned char>(threshold);
          ASSERT_EQ(threshold < 0
                        ? ff::ipf_get_mask_diff_roi(a.data(), width, height, sa,
                                                    b.data(), sb, got.data())
                        : ff::ipf_get_mask_roi(a.data(), width, height, sa,
                                               got.data(), t),
                    found)
              << width << "x" << height << " threshold " << threshold;
          ASSERT_EQ(got, want);
          if (height > 1 || threshold != 100) continue;
          // The range of the non-zero bytes: the spots of a over 100.
          std::vector<unsigned char> row(a.begin(), a.begin() + width);
          for (auto& v : row) v = v > 100 ? v : 0;
          std::pair<int, int> range(3, 3);  // callers read both ends anyway
          EXPECT_EQ(ff::ipf_get_mask_range(row.data(), width, range.first,
                                           range.second),
                    found);
          EXPECT_EQ(range,
                    found ? std::pair(want[0], want[2]) : std::pair(-1, -1));
        }
      }
    }
  }
  const unsigned char plane[4] = {9, 9, 9, 9};
  Box roi = kUnwritten;
  EXPECT_FALSE(
      ff::ipf_get_mask_roi(nullptr, 2, 2, 2, roi.data(), 0) ||
      ff::ipf_get_mask_roi(plane, 2, 2, 2, nullptr, 0) ||
      ff::ipf_get_mask_diff_roi(nullptr, 2, 2, 2, plane, 2, roi.data()) ||
      ff::ipf_get_mask_diff_roi(plane, 2, 2, 2, nullptr, 2, roi.data()) ||
      ff::ipf_get_mask_diff_roi(plane, 2, 2, 2, plane, 2, nullptr));
  EXPECT_EQ(roi, kUnwritten);
  std::pair<int, int> range(3, 3);
  EXPECT_FALSE(ff::ipf_get_mask_range(nullptr, 6, range.first, range.second));
  EXPECT_EQ(range, std::pair(-1, -1));
}

}  // namespace
