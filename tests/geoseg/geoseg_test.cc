#include "softmatte/geoseg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <queue>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;

constexpr unsigned int kUnreached = 100000000;
constexpr unsigned int kDistSentinel = 0xA5A5A5A5u;
constexpr float kProbSentinel = -1234.5f;
enum Side { kLeft, kUp, kRight, kDown };

// A colour image with pixels `step` bytes apart and rows `stride` bytes apart.
struct Picture {
  int width;
  int height;
  int stride;
  int step;
  std::vector<unsigned char> bytes;

  const unsigned char* at(int x, int y) const {
    return bytes.data() + static_cast<size_t>(y) * stride +
           static_cast<size_t>(x) * step;
  }
};

Picture RandomPicture(int width, int height, int step, uint32_t seed) {
  const int stride = width * step + 5;  // odd padding the costs must ignore
  return {width, height, stride, step,
          RandomPlane(width * step, height, stride, seed)};
}

// Colour a(x) + b(y) per channel: a horizontal step costs the same in every
// row and a vertical step the same in every column, so a path that turns
// back only repeats steps and every shortest path is monotone in x and y.
Picture SeparablePicture(int width, int height, std::mt19937& rng) {
  Picture pic{width, height, width * 3 + 3, 3, {}};
  pic.bytes.assign(static_cast<size_t>(pic.stride) * height, kSentinel);
  std::vector<unsigned char> a(static_cast<size_t>(width) * 3);
  std::vector<unsigned char> b(static_cast<size_t>(height) * 3);
  for (auto& v : a) v = static_cast<unsigned char>(rng() % 128);
  for (auto& v : b) v = static_cast<unsigned char>(rng() % 128);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < 3; ++c) {
        pic.bytes[static_cast<size_t>(y) * pic.stride + x * 3 + c] =
            static_cast<unsigned char>(a[x * 3 + c] + b[y * 3 + c]);
      }
    }
  }
  return pic;
}

// The step cost as defined: squared difference, low 16 bits, never 0. (The
// float round trip of the library is exact at these magnitudes.)
unsigned int ReferenceCost(const unsigned char* p, const unsigned char* q) {
  int d = 0;
  for (int c = 0; c < 3; ++c) d += (p[c] - q[c]) * (p[c] - q[c]);
  const unsigned int low = static_cast<unsigned int>(d % 65536);
  return low == 0 ? 1 : low;
}

// Each side from its own pixel pair, so that the library's sharing of one
// step between its two ends is checked, not assumed.
std::vector<unsigned int> ReferenceCosts(const Picture& pic) {
  std::vector<unsigned int> costs(static_cast<size_t>(pic.width) * pic.height *
                                  4);
  for (int y = 0; y < pic.height; ++y) {
    for (int x = 0; x < pic.width; ++x) {
      unsigned int* c = &costs[(static_cast<size_t>(y) * pic.width + x) * 4];
      const unsigned char* p = pic.at(x, y);
      c[kLeft] = x > 0 ? ReferenceCost(p, pic.at(x - 1, y)) : 1;
      c[kUp] = y > 0 ? ReferenceCost(p, pic.at(x, y - 1)) : 1;
      c[kRight] = x + 1 < pic.width ? ReferenceCost(p, pic.at(x + 1, y)) : 1;
      c[kDown] = y + 1 < pic.height ? ReferenceCost(p, pic.at(x, y + 1)) : 1;
    }
  }
  return costs;
}

struct Labels {
  int stride;
  std::vector<unsigned char> bytes;
  unsigned char at(int x, int y) const {
    return bytes[static_cast<size_t>(y) * stride + x];
  }
};

// Mostly 0, some 1 and 2 (the seeds GetProb uses) and a few other values that
// must act like any non-seed; the padding holds the sentinel.
Labels RandomLabels(int width, int height, std::mt19937& rng) {
  Labels labels{width + 3, {}};
  labels.bytes.assign(static_cast<size_t>(labels.stride) * height, kSentinel);
  const unsigned char kinds[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 255};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      labels.bytes[static_cast<size_t>(y) * labels.stride + x] =
          kinds[rng() % sizeof kinds];
    }
  }
  return labels;
}

// The four passes pixel by pixel: a pass's scan order follows from the two
// neighbours it reads, and a pixel is visited only when both exist.
std::vector<unsigned int> SingleSweep(const std::vector<unsigned int>& costs,
                                      int width, int height,
                                      const Labels& labels,
                                      unsigned char seed) {
  std::vector<unsigned int> d(static_cast<size_t>(width) * height, kUnreached);
  auto at = [&](int x, int y) -> unsigned int& {
    return d[static_cast<size_t>(y) * width + x];
  };
  auto cost = [&](int x, int y, Side side) {
    return costs[(static_cast<size_t>(y) * width + x) * 4 + side];
  };
  const int passes[4][2] = {{-1, -1}, {+1, +1}, {+1, -1}, {-1, +1}};
  for (const auto& pass : passes) {
    const int nx = pass[0];
    const int ny = pass[1];
    for (int i = 0; i < height; ++i) {
      const int y = ny < 0 ? i : height - 1 - i;
      for (int j = 0; j < width; ++j) {
        const int x = nx < 0 ? j : width - 1 - j;
        if (x + nx < 0 || x + nx >= width || y + ny < 0 || y + ny >= height) {
          continue;
        }
        if (labels.at(x, y) == seed) {
          at(x, y) = 0;
          continue;
        }
        const unsigned int across =
            at(x + nx, y) + cost(x, y, nx < 0 ? kLeft : kRight);
        const unsigned int along =
            at(x, y + ny) + cost(x, y, ny < 0 ? kUp : kDown);
        at(x, y) = std::min({at(x, y), across, along});
      }
    }
  }
  return d;
}

// True geodesic distances: Dijkstra from every seed pixel at once.
std::vector<unsigned int> Dijkstra(const std::vector<unsigned int>& costs,
                                   int width, int height, const Labels& labels,
                                   unsigned char seed) {
  std::vector<unsigned int> d(static_cast<size_t>(width) * height, kUnreached);
  using Entry = std::pair<unsigned int, int>;
  std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> queue;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (labels.at(x, y) != seed) continue;
      d[static_cast<size_t>(y) * width + x] = 0;
      queue.push({0, y * width + x});
    }
  }
  while (!queue.empty()) {
    const auto [dist, i] = queue.top();
    queue.pop();
    if (dist != d[i]) continue;
    const int x = i % width;
    const int y = i / width;
    const int steps[4][2] = {{-1, 0}, {0, -1}, {1, 0}, {0, 1}};
    for (int side = kLeft; side <= kDown; ++side) {
      const int qx = x + steps[side][0];
      const int qy = y + steps[side][1];
      if (qx < 0 || qx >= width || qy < 0 || qy >= height) continue;
      const int q = qy * width + qx;
      // Costs are symmetric; read the one stored at the far end.
      const unsigned int via =
          dist + costs[static_cast<size_t>(q) * 4 + (side + 2) % 4];
      if (via < d[q]) {
        d[q] = via;
        queue.push({via, q});
      }
    }
  }
  return d;
}

// Runs GetDist into a plane with padded rows; returns the width x height
// values and checks that the padding kept the sentinel.
std::vector<unsigned int> QueryDist(GeoSeg& seg, int width, int height,
                                    const Labels& labels, unsigned char seed) {
  const int stride = width + 2;
  std::vector<unsigned int> plane(static_cast<size_t>(stride) * height,
                                  kDistSentinel);
  EXPECT_EQ(seg.GetDist(labels.bytes.data(), labels.stride, plane.data(),
                        stride, seed),
            0);
  std::vector<unsigned int> out;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < stride; ++x) {
      const unsigned int v = plane[static_cast<size_t>(y) * stride + x];
      if (x < width) {
        out.push_back(v);
      } else {
        EXPECT_EQ(v, kDistSentinel) << "padding at (" << x << ", " << y << ")";
      }
    }
  }
  return out;
}

std::string Where(int width, int height, int i) {
  return "size " + std::to_string(width) + "x" + std::to_string(height) +
         " at (" + std::to_string(i % width) + ", " +
         std::to_string(i / width) + ")";
}

TEST(GeoSegSetImage, CostsMatchReferenceForEveryLayout) {
  uint32_t seed = 1;
  for (int step : {3, 4}) {
    for (int width : {1, 2, 3, 7, 16, 33}) {
      for (int height : {1, 2, 5, 8}) {
        // Random bytes give squared differences up to 195075: most steps
        // between unlike pixels wrap.
        const Picture pic = RandomPicture(width, height, step, ++seed);
        GeoSeg seg;
        ASSERT_EQ(
            seg.SetImage(pic.bytes.data(), width, height, pic.stride, step), 0);
        ASSERT_EQ(seg.width, width);
        ASSERT_EQ(seg.height, height);
        ASSERT_EQ(seg.row_pixels, width);
        const std::vector<unsigned int> want = ReferenceCosts(pic);
        for (size_t i = 0; i < want.size(); ++i) {
          ASSERT_EQ(seg.edge_weights[i], want[i])
              << "step " << step << ", "
              << Where(width, height, static_cast<int>(i / 4)) << " side "
              << i % 4;
        }
      }
    }
  }
}

TEST(GeoSegSetImage, CostsKeepTheLowSixteenBitsAndNeverZero) {
  // Channel differences and the cost they must give. No three byte
  // differences square-sum to a multiple of 65536, so only an unchanged
  // colour reaches the zero-becomes-one rule; 65537 and 131073 wrap to 1.
  const std::tuple<int, int, int, unsigned int> cases[] = {
      {0, 0, 0, 1},           {1, 0, 0, 1},       {0, 3, 4, 25},
      {255, 22, 5, 65534},    {255, 16, 16, 1},   {252, 45, 3, 2},
      {252, 46, 4, 100},      {248, 188, 185, 1}, {255, 255, 32, 2},
      {255, 255, 255, 64003},
  };
  for (const auto& [d0, d1, d2, want] : cases) {
    // A 2x2 image with the difference across both the right and the lower
    // step of the corner, once from dark to bright and once the other way.
    for (bool bright_first : {false, true}) {
      const unsigned char lo[3] = {0, 0, 0};
      const unsigned char hi[3] = {static_cast<unsigned char>(d0),
                                   static_cast<unsigned char>(d1),
                                   static_cast<unsigned char>(d2)};
      const unsigned char* a = bright_first ? hi : lo;
      const unsigned char* b = bright_first ? lo : hi;
      const unsigned char image[] = {a[0], a[1], a[2], b[0], b[1], b[2],
                                     b[0], b[1], b[2], a[0], a[1], a[2]};
      GeoSeg seg;
      ASSERT_EQ(seg.SetImage(image, 2, 2, 6, 3), 0);
      const unsigned int* e = seg.edge_weights;
      EXPECT_EQ(e[kRight], want) << d0 << " " << d1 << " " << d2;
      EXPECT_EQ(e[kDown], want) << d0 << " " << d1 << " " << d2;
      EXPECT_EQ(e[4 + kLeft], want);
      EXPECT_EQ(e[8 + kUp], want);
    }
  }
}

TEST(GeoSegSetImage, ReplacesThePreviousImageAndEmptiesOnNull) {
  const Picture big = RandomPicture(9, 7, 3, 11);
  const Picture small = RandomPicture(4, 3, 4, 12);
  GeoSeg seg;
  ASSERT_EQ(seg.SetImage(big.bytes.data(), 9, 7, big.stride, 3), 0);
  ASSERT_EQ(seg.SetImage(small.bytes.data(), 4, 3, small.stride, 4), 0);
  const std::vector<unsigned int> want = ReferenceCosts(small);
  EXPECT_EQ(std::vector<unsigned int>(seg.edge_weights,
                                      seg.edge_weights + want.size()),
            want);

  EXPECT_EQ(seg.SetImage(nullptr, 4, 3, small.stride, 4), -1);
  EXPECT_EQ(seg.edge_weights, nullptr);
  EXPECT_EQ(seg.distance_buffer, nullptr);
  EXPECT_EQ(seg.width, 0);
  EXPECT_EQ(seg.height, 0);
  EXPECT_EQ(seg.row_pixels, 0);
}

TEST(GeoSegGetDist, MatchesTheSingleSweepPixelByPixel) {
  std::mt19937 rng(606);
  for (int width : {1, 2, 3, 5, 8, 17}) {
    for (int height : {1, 2, 3, 6, 11}) {
      const Picture pic =
          RandomPicture(width, height, 3, static_cast<uint32_t>(rng()));
      GeoSeg seg;
      ASSERT_EQ(seg.SetImage(pic.bytes.data(), width, height, pic.stride, 3),
                0);
      const std::vector<unsigned int> costs = ReferenceCosts(pic);
      for (int round = 0; round < 3; ++round) {
        const Labels labels = RandomLabels(width, height, rng);
        for (unsigned char seed : {1, 2, 255}) {
          const std::vector<unsigned int> got =
              QueryDist(seg, width, height, labels, seed);
          const std::vector<unsigned int> want =
              SingleSweep(costs, width, height, labels, seed);
          for (size_t i = 0; i < want.size(); ++i) {
            ASSERT_EQ(got[i], want[i])
                << "seed " << int{seed} << ", "
                << Where(width, height, static_cast<int>(i));
          }
        }
      }
    }
  }
}

TEST(GeoSegGetDist, EqualsDijkstraWhenEveryShortestPathIsMonotone) {
  // Each pass carries paths that move one way along each axis (the first
  // right and down, and so on). A seed off the image border is visited by
  // all four passes, and so is every pixel of a path leaving it in a pass's
  // direction; when no shortest path turns back the sweep is therefore
  // exact. Border seeds are left out: the first pass skips row 0 and column
  // 0, so a seed there cannot start a right-and-down path.
  std::mt19937 rng(77);
  for (int width : {3, 4, 7, 12, 19}) {
    for (int height : {3, 5, 8, 13}) {
      const Picture pic = SeparablePicture(width, height, rng);
      GeoSeg seg;
      ASSERT_EQ(seg.SetImage(pic.bytes.data(), width, height, pic.stride, 3),
                0);
      const std::vector<unsigned int> costs = ReferenceCosts(pic);
      for (int seeds = 1; seeds <= 4; ++seeds) {
        Labels labels{width, std::vector<unsigned char>(
                                 static_cast<size_t>(width) * height, 0)};
        for (int k = 0; k < seeds; ++k) {
          const int x = 1 + static_cast<int>(rng() % (width - 2));
          const int y = 1 + static_cast<int>(rng() % (height - 2));
          labels.bytes[static_cast<size_t>(y) * width + x] = 2;
        }
        const std::vector<unsigned int> got =
            QueryDist(seg, width, height, labels, 2);
        const std::vector<unsigned int> want =
            Dijkstra(costs, width, height, labels, 2);
        for (size_t i = 0; i < want.size(); ++i) {
          ASSERT_EQ(got[i], want[i])
              << seeds << " seeds, "
              << Where(width, height, static_cast<int>(i));
        }
      }
    }
  }
}

TEST(GeoSegGetDist, OneSweepMissesPathsThatTurnBack) {
  // A spiral corridor: from S the way to E goes down, left, up, right and
  // down again, one turn more than the four passes can follow. Walls cost
  // 10000 to enter, so the corridor (14 steps) is the true shortest path;
  // the sweep can only go through the wall between them, in and out.
  const char* const map[] = {
      "#######",  //
      "#.....#",  //
      "#.###.#",  //
      "#.#S#E#",  //
      "#.#.#.#",  //
      "#...#.#",  //
      "#######",
  };
  const int width = 7;
  const int height = 7;
  std::vector<unsigned char> image(static_cast<size_t>(width) * height * 3, 0);
  Labels labels{width, std::vector<unsigned char>(image.size() / 3, 0)};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (map[y][x] == '#')
        image[(static_cast<size_t>(y) * width + x) * 3] = 100;
      if (map[y][x] == 'S')
        labels.bytes[static_cast<size_t>(y) * width + x] = 1;
    }
  }
  GeoSeg seg;
  ASSERT_EQ(seg.SetImage(image.data(), width, height, width * 3, 3), 0);
  const std::vector<unsigned int> got =
      QueryDist(seg, width, height, labels, 1);
  const std::vector<unsigned int> truth =
      Dijkstra(std::vector<unsigned int>(
                   seg.edge_weights, seg.edge_weights + image.size() / 3 * 4),
               width, height, labels, 1);
  const int end = 3 * width + 5;
  EXPECT_EQ(truth[end], 14u);
  EXPECT_EQ(got[end], 20000u);
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_GE(got[i], truth[i]) << Where(width, height, static_cast<int>(i));
  }
}

TEST(GeoSegGetDist, UnreachedPixelsAndEmptyImages) {
  std::mt19937 rng(31);
  const Picture pic = RandomPicture(6, 5, 3, 32);
  GeoSeg seg;
  ASSERT_EQ(seg.SetImage(pic.bytes.data(), 6, 5, pic.stride, 3), 0);
  Labels none{6, std::vector<unsigned char>(30, 0)};
  for (unsigned int v : QueryDist(seg, 6, 5, none, 1)) {
    EXPECT_EQ(v, kUnreached);
  }

  // With a side of 1 no pixel has both neighbours of any pass, so nothing
  // is visited: even the seeds stay unreached.
  for (const auto& [width, height] : {std::pair{1, 6}, std::pair{5, 1}}) {
    const Picture line = RandomPicture(width, height, 3, 33);
    ASSERT_EQ(seg.SetImage(line.bytes.data(), width, height, line.stride, 3),
              0);
    Labels seeded{width, std::vector<unsigned char>(
                             static_cast<size_t>(width) * height, 1)};
    for (unsigned int v : QueryDist(seg, width, height, seeded, 1)) {
      EXPECT_EQ(v, kUnreached);
    }
  }

  // Without pixels the caller's plane is not even initialised.
  ASSERT_EQ(seg.SetImage(pic.bytes.data(), 0, 5, pic.stride, 3), 0);
  std::vector<unsigned int> plane(8, kDistSentinel);
  const unsigned char label = 1;
  EXPECT_EQ(seg.GetDist(&label, 1, plane.data(), 4, 1), 0);
  for (unsigned int v : plane) EXPECT_EQ(v, kDistSentinel);
}

// D1 / (D2 + D1) in single precision from the reference distances.
std::vector<float> ReferenceProb(const std::vector<unsigned int>& costs,
                                 int width, int height, const Labels& labels) {
  const std::vector<unsigned int> d2 =
      SingleSweep(costs, width, height, labels, 2);
  const std::vector<unsigned int> d1 =
      SingleSweep(costs, width, height, labels, 1);
  std::vector<float> p(d1.size());
  for (size_t i = 0; i < p.size(); ++i) {
    const float a = static_cast<float>(d1[i]);
    p[i] = a / (static_cast<float>(d2[i]) + a);
  }
  return p;
}

std::vector<float> QueryProb(GeoSeg& seg, int width, int height,
                             const Labels& labels) {
  const int stride = width + 3;
  std::vector<float> plane(static_cast<size_t>(stride) * height, kProbSentinel);
  EXPECT_EQ(
      seg.GetProb(labels.bytes.data(), labels.stride, plane.data(), stride), 0);
  std::vector<float> out;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < stride; ++x) {
      const float v = plane[static_cast<size_t>(y) * stride + x];
      if (x < width) {
        out.push_back(v);
      } else {
        EXPECT_EQ(v, kProbSentinel) << "padding at (" << x << ", " << y << ")";
      }
    }
  }
  return out;
}

TEST(GeoSegGetProb, MatchesReferenceWithPaddedStrides) {
  std::mt19937 rng(909);
  for (int width : {1, 2, 3, 7, 16, 21}) {
    for (int height : {1, 2, 5, 9}) {
      const Picture pic =
          RandomPicture(width, height, 4, static_cast<uint32_t>(rng()));
      GeoSeg seg;
      ASSERT_EQ(seg.SetImage(pic.bytes.data(), width, height, pic.stride, 4),
                0);
      const std::vector<unsigned int> costs = ReferenceCosts(pic);
      // Two label maps in turn: the scratch buffer carries nothing over.
      for (int round = 0; round < 2; ++round) {
        const Labels labels = RandomLabels(width, height, rng);
        const std::vector<float> got = QueryProb(seg, width, height, labels);
        const std::vector<float> want =
            ReferenceProb(costs, width, height, labels);
        for (size_t i = 0; i < want.size(); ++i) {
          ASSERT_EQ(got[i], want[i])
              << Where(width, height, static_cast<int>(i));
        }
        EXPECT_TRUE(PaddingIntact(labels.bytes, width, height, labels.stride));
      }
    }
  }
}

TEST(GeoSegGetProb, TwoSeedsOnAFlatImage) {
  // Every step costs 1, so distances are city-block distances from the two
  // seeds and the midpoint between them is even.
  const int width = 9;
  const int height = 5;
  std::vector<unsigned char> image(static_cast<size_t>(width) * height * 3, 90);
  Labels labels{width, std::vector<unsigned char>(image.size() / 3, 0)};
  labels.bytes[2 * width + 2] = 2;
  labels.bytes[2 * width + 6] = 1;
  GeoSeg seg;
  ASSERT_EQ(seg.SetImage(image.data(), width, height, width * 3, 3), 0);
  const std::vector<float> got = QueryProb(seg, width, height, labels);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const float d2 = static_cast<float>(std::abs(x - 2) + std::abs(y - 2));
      const float d1 = static_cast<float>(std::abs(x - 6) + std::abs(y - 2));
      EXPECT_EQ(got[y * width + x], d1 / (d2 + d1))
          << Where(width, height, y * width + x);
    }
  }
  EXPECT_EQ(got[2 * width + 2], 1.0f);
  EXPECT_EQ(got[2 * width + 6], 0.0f);
  EXPECT_EQ(got[2 * width + 4], 0.5f);
}

TEST(GeoSegGetProb, MissingSeedsCountAsFarAway) {
  const Picture pic = RandomPicture(7, 6, 3, 41);
  GeoSeg seg;
  ASSERT_EQ(seg.SetImage(pic.bytes.data(), 7, 6, pic.stride, 3), 0);
  Labels labels{7, std::vector<unsigned char>(42, 0)};
  for (float p : QueryProb(seg, 7, 6, labels)) EXPECT_EQ(p, 0.5f);

  // Only label 2: its pixels are certain, the rest close to 1.
  labels.bytes[2 * 7 + 3] = 2;
  std::vector<float> got = QueryProb(seg, 7, 6, labels);
  EXPECT_EQ(got[2 * 7 + 3], 1.0f);
  for (float p : got) EXPECT_GT(p, 0.99f);

  // Only label 1: its pixels are certain background, the rest close to 0.
  labels.bytes[2 * 7 + 3] = 1;
  got = QueryProb(seg, 7, 6, labels);
  EXPECT_EQ(got[2 * 7 + 3], 0.0f);
  for (float p : got) EXPECT_LT(p, 0.01f);
}

}  // namespace
