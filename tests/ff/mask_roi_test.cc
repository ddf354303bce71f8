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

constexpr int kUnwritten = -77;

// Bounding box (left, top, right, bottom) of the pixels where hit(x, y)
// holds, by visiting them all; empty is four zeros and false.
template <typename Hit>
std::pair<bool, Box> BruteForceBox(int width, int height, Hit hit) {
  Box b = {width, height, 0, 0};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (hit(x, y)) {
        b = {std::min(b[0], x), std::min(b[1], y), std::max(b[2], x + 1),
             std::max(b[3], y + 1)};
      }
    }
  }
  return b[2] > 0 ? std::make_pair(true, b) : std::make_pair(false, Box{});
}

TEST(MaskRoi, MatchesBruteForceOnSparsePlanes) {
  std::mt19937 rng(1121);  // fixed seed: a failure must replay
  for (int width : {1, 2, 5, 17, 40}) {
    for (int height : {1, 3, 8, 23}) {
      for (int spots : {0, 1, 2, 5}) {
        // Low noise (at most 10) with a few spots above it. The padding is
        // kSentinel, above every threshold below: reading it widens a box.
        const int sa = width + 7, sb = width + 10;
        std::vector<unsigned char> a(static_cast<size_t>(sa) * height,
                                     softmatte_test::kSentinel);
        std::vector<unsigned char> b(static_cast<size_t>(sb) * height, 0);
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            a[y * sa + x] = b[y * sb + x] =
                static_cast<unsigned char>(rng() % 11);
          }
        }
        for (int i = 0; i < spots; ++i) {
          const size_t x = rng() % width, y = rng() % height;
          a[y * sa + x] = static_cast<unsigned char>(11 + rng() % 245);
          b[(rng() % height) * sb + rng() % width] ^= 1 + rng() % 255;
        }
        // -1 compares a with b instead: only pixels inside count, and the
        // two paddings differ.
        for (int threshold : {-1, 0, 5, 10, 100, 255}) {
          const auto want = BruteForceBox(width, height, [&](int x, int y) {
            return threshold < 0 ? a[y * sa + x] != b[y * sb + x]
                                 : a[y * sa + x] > threshold;
          });
          Box got = {kUnwritten, kUnwritten, kUnwritten, kUnwritten};
          const auto t = static_cast<unsigned char>(threshold);
          ASSERT_EQ(threshold < 0
                        ? ff::ipf_get_mask_diff_roi(a.data(), width, height, sa,
                                                    b.data(), sb, got.data())
                        : ff::ipf_get_mask_roi(a.data(), width, height, sa,
                                               got.data(), t),
                    want.first)
              << width << "x" << height << " threshold " << threshold;
          ASSERT_EQ(got, want.second);
        }
      }
    }
  }
}

TEST(MaskRange, MatchesBruteForceAndResetsBothEndsOnFailure) {
  std::mt19937 rng(5);
  for (int n : {1, 2, 7, 64}) {
    for (int trial = 0; trial < 20; ++trial) {
      std::vector<unsigned char> v(static_cast<size_t>(n), 0);
      for (int k = static_cast<int>(rng() % 3); k > 0; --k) {
        v[rng() % n] = static_cast<unsigned char>(1 + rng() % 255);
      }
      const auto box =
          BruteForceBox(n, 1, [&](int x, int) { return v[x] != 0; });
      const auto want = box.first ? std::make_pair(box.second[0], box.second[2])
                                  : std::make_pair(-1, -1);
      std::pair<int, int> got(3, 3);  // callers read both ends regardless
      EXPECT_EQ(ff::ipf_get_mask_range(v.data(), n, got.first, got.second),
                want.first >= 0);
      EXPECT_EQ(got, want);
    }
  }
}

TEST(MaskRoi, NullArgumentsReturnFalseAndWriteNothing) {
  const unsigned char plane[4] = {9, 9, 9, 9};
  Box roi = {kUnwritten, kUnwritten, kUnwritten, kUnwritten};
  EXPECT_FALSE(
      ff::ipf_get_mask_roi(nullptr, 2, 2, 2, roi.data(), 0) ||
      ff::ipf_get_mask_roi(plane, 2, 2, 2, nullptr, 0) ||
      ff::ipf_get_mask_diff_roi(nullptr, 2, 2, 2, plane, 2, roi.data()) ||
      ff::ipf_get_mask_diff_roi(plane, 2, 2, 2, nullptr, 2, roi.data()) ||
      ff::ipf_get_mask_diff_roi(plane, 2, 2, 2, plane, 2, nullptr));
  EXPECT_EQ(roi, (Box{kUnwritten, kUnwritten, kUnwritten, kUnwritten}));
  std::pair<int, int> range(3, 3);
  EXPECT_FALSE(ff::ipf_get_mask_range(nullptr, 6, range.first, range.second));
  EXPECT_EQ(range, std::make_pair(-1, -1));
}

}  // namespace
