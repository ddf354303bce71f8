#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <random>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using Box = std::array<int, 4>;

constexpr int kUnwritten = -77;

// Bounding box of the pixels where hit(x, y) holds, by visiting them all;
// the empty box is four zeros.
template <typename Hit>
Box ReferenceBox(int width, int height, Hit hit, bool* any) {
  int left = width, top = height, right = 0, bottom = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (!hit(x, y)) continue;
      left = std::min(left, x);
      top = std::min(top, y);
      right = std::max(right, x + 1);
      bottom = std::max(bottom, y + 1);
    }
  }
  *any = right > 0;
  return *any ? Box{left, top, right, bottom} : Box{0, 0, 0, 0};
}

// A plane of low values (at most 10) with `spots` random pixels raised to
// random higher values; the padding holds kSentinel, which is above every
// threshold the tests use, so reading it would widen the box.
std::vector<unsigned char> SparsePlane(int width, int height, int stride,
                                       int spots, std::mt19937& rng) {
  std::vector<unsigned char> plane(static_cast<size_t>(stride) * height,
                                   kSentinel);
  std::uniform_int_distribution<int> low(0, 10), high(11, 255);
  std::uniform_int_distribution<int> col(0, width - 1), row(0, height - 1);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      plane[static_cast<size_t>(y) * stride + x] =
          static_cast<unsigned char>(low(rng));
    }
  }
  for (int i = 0; i < spots; ++i) {
    plane[static_cast<size_t>(row(rng)) * stride + col(rng)] =
        static_cast<unsigned char>(high(rng));
  }
  return plane;
}

TEST(MaskRoi, MatchesBruteForceOnSparsePlanes) {
  std::mt19937 rng(1121);  // fixed seed: a failure must replay
  for (int width : {1, 2, 5, 17, 40}) {
    for (int height : {1, 3, 8, 23}) {
      for (int spots : {0, 1, 2, 5}) {
        const int stride = width + 7;
        const std::vector<unsigned char> plane =
            SparsePlane(width, height, stride, spots, rng);
        // 0 counts the background noise too; 10 only the spots.
        for (int threshold : {0, 5, 10, 100}) {
          bool want_any = false;
          const Box want = ReferenceBox(
              width, height,
              [&](int x, int y) {
                return plane[static_cast<size_t>(y) * stride + x] > threshold;
              },
              &want_any);
          Box got = {kUnwritten, kUnwritten, kUnwritten, kUnwritten};
          const bool any = ff::ipf_get_mask_roi(
              plane.data(), width, height, stride, got.data(),
              static_cast<unsigned char>(threshold));
          ASSERT_EQ(any, want_any)
              << width << "x" << height << " threshold " << threshold;
          ASSERT_EQ(got, want)
              << width << "x" << height << " threshold " << threshold;
        }
      }
    }
  }
}

TEST(MaskRoi, CountsOnlyPixelsStrictlyAboveThreshold) {
  const int width = 9, height = 8;
  std::vector<unsigned char> plane(static_cast<size_t>(width) * height, 0);
  Box roi{};
  plane[5 * width + 3] = 1;
  EXPECT_TRUE(
      ff::ipf_get_mask_roi(plane.data(), width, height, width, roi.data(), 0));
  EXPECT_EQ(roi, (Box{3, 5, 4, 6}));

  // Equal to the threshold is not above it: the box is empty again.
  roi = {kUnwritten, kUnwritten, kUnwritten, kUnwritten};
  EXPECT_FALSE(
      ff::ipf_get_mask_roi(plane.data(), width, height, width, roi.data(), 1));
  EXPECT_EQ(roi, (Box{0, 0, 0, 0}));

  std::fill(plane.begin(), plane.end(), 255);
  EXPECT_FALSE(ff::ipf_get_mask_roi(plane.data(), width, height, width,
                                    roi.data(), 255));
  EXPECT_TRUE(ff::ipf_get_mask_roi(plane.data(), width, height, width,
                                   roi.data(), 254));
  EXPECT_EQ(roi, (Box{0, 0, width, height}));
}

TEST(MaskDiffRoi, MatchesBruteForceWithDifferentStrides) {
  std::mt19937 rng(99);
  for (int width : {1, 3, 16, 31}) {
    for (int height : {1, 2, 9, 20}) {
      for (int changes : {0, 1, 3, 8}) {
        const int stride_a = width + 3;
        const int stride_b = width + 10;
        std::vector<unsigned char> a(static_cast<size_t>(stride_a) * height,
                                     kSentinel);
        // b's padding differs from a's: only pixels inside may count.
        std::vector<unsigned char> b(static_cast<size_t>(stride_b) * height, 0);
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            const auto v = static_cast<unsigned char>(rng());
            a[static_cast<size_t>(y) * stride_a + x] = v;
            b[static_cast<size_t>(y) * stride_b + x] = v;
          }
        }
        for (int i = 0; i < changes; ++i) {
          const int x = static_cast<int>(rng() % width);
          const int y = static_cast<int>(rng() % height);
          b[static_cast<size_t>(y) * stride_b + x] ^=
              static_cast<unsigned char>(1 + rng() % 255);
        }
        bool want_any = false;
        const Box want = ReferenceBox(
            width, height,
            [&](int x, int y) {
              return a[static_cast<size_t>(y) * stride_a + x] !=
                     b[static_cast<size_t>(y) * stride_b + x];
            },
            &want_any);
        Box got = {kUnwritten, kUnwritten, kUnwritten, kUnwritten};
        const bool any = ff::ipf_get_mask_diff_roi(
            a.data(), width, height, stride_a, b.data(), stride_b, got.data());
        ASSERT_EQ(any, want_any) << width << "x" << height;
        ASSERT_EQ(got, want) << width << "x" << height;
      }
    }
  }
}

TEST(MaskRoi, NullArgumentsReturnFalseAndWriteNothing) {
  const unsigned char plane[4] = {9, 9, 9, 9};
  const unsigned char other[4] = {0, 0, 0, 0};
  const Box untouched = {kUnwritten, kUnwritten, kUnwritten, kUnwritten};
  Box roi = untouched;
  EXPECT_FALSE(ff::ipf_get_mask_roi(nullptr, 2, 2, 2, roi.data(), 0));
  EXPECT_FALSE(ff::ipf_get_mask_roi(plane, 2, 2, 2, nullptr, 0));
  EXPECT_FALSE(
      ff::ipf_get_mask_diff_roi(nullptr, 2, 2, 2, other, 2, roi.data()));
  EXPECT_FALSE(
      ff::ipf_get_mask_diff_roi(plane, 2, 2, 2, nullptr, 2, roi.data()));
  EXPECT_FALSE(ff::ipf_get_mask_diff_roi(plane, 2, 2, 2, other, 2, nullptr));
  EXPECT_EQ(roi, untouched);
}

TEST(MaskRange, FindsFirstAndOnePastLastNonZero) {
  int first = 0, last = 0;
  const unsigned char values[6] = {0, 0, 7, 0, 9, 0};
  EXPECT_TRUE(ff::ipf_get_mask_range(values, 6, first, last));
  EXPECT_EQ(first, 2);
  EXPECT_EQ(last, 5);

  // Failure still resets both ends: callers read them without the result.
  first = last = 3;
  EXPECT_FALSE(ff::ipf_get_mask_range(values, 2, first, last));
  EXPECT_EQ(first, -1);
  EXPECT_EQ(last, -1);
  first = last = 3;
  EXPECT_FALSE(ff::ipf_get_mask_range(nullptr, 6, first, last));
  EXPECT_EQ(first, -1);
  EXPECT_EQ(last, -1);
  first = last = 3;
  EXPECT_FALSE(ff::ipf_get_mask_range(values, 0, first, last));
  EXPECT_EQ(first, -1);
  EXPECT_EQ(last, -1);

  std::mt19937 rng(5);
  for (int n : {1, 2, 7, 64}) {
    for (int trial = 0; trial < 20; ++trial) {
      std::vector<unsigned char> v(static_cast<size_t>(n), 0);
      for (int k = static_cast<int>(rng() % 3); k > 0; --k) {
        v[rng() % n] = static_cast<unsigned char>(1 + rng() % 255);
      }
      int want_first = -1, want_last = -1;
      for (int i = 0; i < n; ++i) {
        if (v[i] == 0) continue;
        if (want_first < 0) want_first = i;
        want_last = i + 1;
      }
      EXPECT_EQ(ff::ipf_get_mask_range(v.data(), n, first, last),
                want_first >= 0);
      EXPECT_EQ(first, want_first);
      EXPECT_EQ(last, want_last);
    }
  }
}

}  // namespace
