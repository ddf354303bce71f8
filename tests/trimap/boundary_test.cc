#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;

bool SameRect(const dpl_rect& a, const dpl_rect& b) {
  return a.left == b.left && a.right == b.right && a.top == b.top &&
         a.bottom == b.bottom;
}

std::string Describe(const dpl_rect& r) {
  return "[" + std::to_string(r.left) + ", " + std::to_string(r.right) +
         ") x [" + std::to_string(r.top) + ", " + std::to_string(r.bottom) +
         ")";
}

// A 255 pixel is on the boundary when a neighbour inside the image carries
// another label; neighbours outside the image do not count.
std::vector<std::vector<dpl_pt2di>> BoundaryReference(
    const std::vector<unsigned char>& seg, int width, int height, int stride,
    const std::vector<int>& labels, int count) {
  std::vector<std::vector<dpl_pt2di>> out(count);
  const int dx[] = {0, 0, -1, 1};
  const int dy[] = {-1, 1, 0, 0};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (seg[static_cast<size_t>(y) * stride + x] != 255) continue;
      const int l = labels[static_cast<size_t>(y) * width + x];
      bool edge = false;
      for (int i = 0; i < 4; ++i) {
        const int nx = x + dx[i];
        const int ny = y + dy[i];
        if (nx < 0 || ny < 0 || nx >= width || ny >= height) continue;
        edge |= labels[static_cast<size_t>(ny) * width + nx] != l;
      }
      if (edge) out[l].push_back(dpl_pt2di{x, y});
    }
  }
  return out;
}

TEST(GetCCBndryPixels, MatchesReferenceOnRandomLabels) {
  std::mt19937 rng(1234);
  for (int width : {1, 2, 5, 17, 32}) {
    for (int height : {1, 3, 8, 13}) {
      for (int count : {1, 2, 5}) {
        // Labels need not be connected regions here: any label image must be
        // read the same way. Masks mix 255 with 0 and near-255 values.
        const int stride = width + 3;
        std::vector<unsigned char> seg(static_cast<size_t>(stride) * height,
                                       kSentinel);
        std::vector<int> labels(static_cast<size_t>(width) * height);
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            const unsigned r = rng() % 8;
            seg[static_cast<size_t>(y) * stride + x] =
                r < 5 ? 255 : (r == 5 ? 254 : 0);
            // Runs of equal labels, so that interior pixels exist.
            labels[static_cast<size_t>(y) * width + x] = static_cast<int>(
                (x / 3 + (y / 2) * 7 + (rng() % 6 == 0)) % count);
          }
        }
        std::vector<std::vector<dpl_pt2di>> got;
        GetCCBndryPixels(seg.data(), width, height, stride, labels.data(),
                         count, got);
        const auto want =
            BoundaryReference(seg, width, height, stride, labels, count);
        ASSERT_EQ(got.size(), want.size());
        for (int l = 0; l < count; ++l) {
          ASSERT_EQ(got[l].size(), want[l].size())
              << width << "x" << height << " label " << l;
          for (size_t i = 0; i < want[l].size(); ++i) {
            ASSERT_EQ(got[l][i].x, want[l][i].x);
            ASSERT_EQ(got[l][i].y, want[l][i].y);
          }
        }
      }
    }
  }
}

TEST(GetCCBndryPixels, AppendsListsButIndexesLabelsFromTheFront) {
  // One 255 pixel (label 1) inside a 0 region (label 0).
  const int width = 3;
  const int height = 3;
  const std::vector<unsigned char> seg = {0, 0, 0, 0, 255, 0, 0, 0, 0};
  std::vector<int> labels = {0, 0, 0, 0, 1, 0, 0, 0, 0};
  std::vector<std::vector<dpl_pt2di>> out(1);
  GetCCBndryPixels(seg.data(), width, height, width, labels.data(), 2, out);
  ASSERT_EQ(out.size(), 3u);
  ASSERT_EQ(out[1].size(), 1u);
  EXPECT_EQ(out[1][0].x, 1);
  EXPECT_EQ(out[1][0].y, 1);
  EXPECT_TRUE(out[0].empty());
  EXPECT_TRUE(out[2].empty());
}

TEST(AdaRect_CCSz, ReachesOneMorePixelBeforeThanAfterAndClips) {
  const dpl_rect mid = AdaRect_CCSz(dpl_pt2di{10, 10}, 3, 100, 100);
  EXPECT_TRUE(SameRect(mid, dpl_rect{7, 13, 7, 13})) << Describe(mid);
  const dpl_rect corner = AdaRect_CCSz(dpl_pt2di{0, 0}, 3, 100, 100);
  EXPECT_TRUE(SameRect(corner, dpl_rect{0, 3, 0, 3})) << Describe(corner);
  const dpl_rect far = AdaRect_CCSz(dpl_pt2di{98, 5}, 4, 100, 7);
  EXPECT_TRUE(SameRect(far, dpl_rect{94, 100, 1, 7})) << Describe(far);
  const dpl_rect none = AdaRect_CCSz(dpl_pt2di{4, 4}, 0, 100, 100);
  EXPECT_TRUE(SameRect(none, dpl_rect{4, 4, 4, 4})) << Describe(none);
  // Half-sizes past the int range clip instead of overflowing.
  const dpl_rect all = AdaRect_CCSz(dpl_pt2di{5, 5}, INT_MAX, 10, 10);
  EXPECT_TRUE(SameRect(all, dpl_rect{0, 10, 0, 10})) << Describe(all);
}

// Two colours on either side of a vertical mask edge at column 15.
struct EdgeScene {
  static constexpr int kWidth = 30;
  static constexpr int kHeight = 30;
  std::vector<unsigned char> img =
      std::vector<unsigned char>(3 * kWidth * kHeight);
  std::vector<unsigned char> seg = std::vector<unsigned char>(kWidth * kHeight);

  // Per-channel difference `diff` between the sides.
  explicit EdgeScene(int diff) {
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const bool in = x < 15;
        seg[y * kWidth + x] = in ? 255 : 0;
        for (int c = 0; c < 3; ++c) {
          img[3 * (y * kWidth + x) + c] =
              static_cast<unsigned char>(in ? 100 + diff : 100);
        }
      }
    }
  }

  int HalfSize(dpl_rect ring, double low, double high) const {
    const dpl_pt2di pt{15, 15};
    const dpl_rect w =
        AdaRect_ImgGrad(pt, ring, img.data(), kWidth, kHeight, 3 * kWidth,
                        seg.data(), kWidth, 1, low, high, 2, 8);
    return pt.x - w.left;  // the window is wide enough never to clip here
  }
};

TEST(AdaRect_ImgGrad, HalfSizeFollowsContrastBetweenTheBounds) {
  const dpl_rect across{12, 19, 12, 19};
  const double low = 3.0 * 10 * 10;
  const double high = 3.0 * 50 * 50;
  EXPECT_EQ(EdgeScene(50).HalfSize(across, low, high), 8);
  EXPECT_EQ(EdgeScene(80).HalfSize(across, low, high), 8);
  EXPECT_EQ(EdgeScene(10).HalfSize(across, low, high), 2);
  EXPECT_EQ(EdgeScene(0).HalfSize(across, low, high), 2);
  // 3 * 31^2 = 2883 sits (2883 - 300) / 7200 = 0.359 of the way: 2 + 2.15.
  EXPECT_EQ(EdgeScene(31).HalfSize(across, low, high), 4);
  // A border wholly on one side, or no border, has no contrast at all.
  EXPECT_EQ(EdgeScene(80).HalfSize(dpl_rect{0, 14, 0, 30}, low, high), 2);
  EXPECT_EQ(EdgeScene(80).HalfSize(dpl_rect{16, 30, 0, 30}, low, high), 2);
  EXPECT_EQ(EdgeScene(80).HalfSize(dpl_rect{3, 3, 3, 9}, low, high), 2);
}

TEST(AdaRect_ImgGrad, EqualBoundsSplitAtTheBoundItself) {
  const dpl_rect across{12, 19, 12, 19};
  const double bound = 3.0 * 20 * 20;
  EXPECT_EQ(EdgeScene(21).HalfSize(across, bound, bound), 8);
  // Exactly at the bound the ratio is 0 / 0: NaN counts as r_low.
  EXPECT_EQ(EdgeScene(20).HalfSize(across, bound, bound), 2);
  EXPECT_EQ(EdgeScene(19).HalfSize(across, bound, bound), 2);
}

}  // namespace
