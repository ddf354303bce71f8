#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

TEST(GetCCBndryPixels, MatchesNeighbourCheckOnRandomLabels) {
  std::mt19937 rng(1234);
  for (int width : {1, 2, 5, 17, 32})
    for (int height : {1, 3, 8, 13})
      for (int count : {1, 2, 5}) {
        // Labels need not form connected regions: any label image is read
        // the same way. Only 255 (not 254) can be a boundary pixel.
        const int stride = width + 3;
        std::vector<unsigned char> seg(stride * height,
                                       softmatte_test::kSentinel);
        std::vector<int> labels(width * height);
        for (int i = 0; i < width * height; ++i) {
          const unsigned r = rng() % 8;
          seg[i / width * stride + i % width] = r < 5 ? 255 : r == 5 ? 254 : 0;
          labels[i] =
              (i % width / 3 + i / width / 2 * 7 + (rng() % 6 == 0)) % count;
        }
        // A 255 pixel is on the boundary when a neighbour inside the image
        // carries another label.
        std::vector<std::vector<std::pair<int, int>>> want(count);
        for (int i = 0; i < width * height; ++i) {
          const int x = i % width, y = i / width, l = labels[i];
          if (seg[y * stride + x] == 255 &&
              ((x > 0 && labels[i - 1] != l) ||
               (x + 1 < width && labels[i + 1] != l) ||
               (y > 0 && labels[i - width] != l) ||
               (y + 1 < height && labels[i + width] != l))) {
            want[l].push_back({x, y});
          }
        }
        // The lists are appended, yet out[l] is still label l's list.
        std::vector<std::vector<dpl_pt2di>> got(1);
        GetCCBndryPixels(seg.data(), width, height, stride, labels.data(),
                         count, got);
        ASSERT_EQ(got.size(), want.size() + 1);
        EXPECT_TRUE(got[count].empty());
        for (int l = 0; l < count; ++l) {
          std::vector<std::pair<int, int>> points;
          for (const dpl_pt2di& p : got[l]) points.push_back({p.x, p.y});
          ASSERT_EQ(points, want[l])
              << width << "x" << height << " label " << l;
        }
      }
}

std::tuple<int, int, int, int> Sides(const dpl_rect& r) {
  return {r.left, r.right, r.top, r.bottom};
}

TEST(AdaRect_CCSz, ReachesOneMorePixelBeforeThanAfterAndClips) {
  const struct {
    dpl_pt2di pt;
    int r, width, height;
    dpl_rect want;
  } cases[] = {
      {{10, 10}, 3, 100, 100, {7, 13, 7, 13}},
      {{0, 0}, 3, 100, 100, {0, 3, 0, 3}},
      {{98, 5}, 4, 100, 7, {94, 100, 1, 7}},
      {{4, 4}, 0, 100, 100, {4, 4, 4, 4}},
      {{5, 5}, INT_MAX, 10, 10, {0, 10, 0, 10}},  // clips, no overflow
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.r);
    EXPECT_EQ(Sides(AdaRect_CCSz(c.pt, c.r, c.width, c.height)), Sides(c.want));
  }
}

TEST(AdaRect_ImgGrad, HalfSizeFollowsContrastAcrossTheEdge) {
  // Left of column 15 is foreground at 100 + diff in every channel, the right
  // background at 100; windows at (15, 15) with r_low 2 and r_high 8.
  const int size = 30;
  const struct {
    int diff;
    dpl_rect ring;
    int low, high;  // per-channel bounds
    int half;
  } cases[] = {
      {50, {12, 19, 12, 19}, 10, 50, 8},
      // 3 * 31^2 sits (2883 - 300) / 7200 of the way: 2 + round(2.15).
      {31, {12, 19, 12, 19}, 10, 50, 4},
      {80, {16, 30, 0, 30}, 10, 50, 2},  // border wholly outside
      {80, {3, 3, 3, 9}, 10, 50, 2},     // empty ring
      {21, {12, 19, 12, 19}, 20, 20, 8},
      {20, {12, 19, 12, 19}, 20, 20, 2},  // 0 / 0 is NaN: r_low
  };
  std::vector<unsigned char> img(3 * size * size), seg(size * size);
  for (const auto& c : cases) {
    for (int i = 0; i < size * size; ++i) {
      seg[i] = i % size < 15 ? 255 : 0;
      img[3 * i] = img[3 * i + 1] = img[3 * i + 2] =
          100 + (seg[i] ? c.diff : 0);
    }
    const dpl_rect w = AdaRect_ImgGrad(
        dpl_pt2di{15, 15}, c.ring, img.data(), size, size, 3 * size, seg.data(),
        size, 1, 3.0 * c.low * c.low, 3.0 * c.high * c.high, 2, 8);
    EXPECT_EQ(Sides(w),
              std::tuple(15 - c.half, 15 + c.half, 15 - c.half, 15 + c.half))
        << c.diff;
  }
}

}  // namespace
