#include "softmatte/geoseg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::RandomPlane;

constexpr unsigned int kUnreached = 100000000;
enum Side { kLeft, kUp, kRight, kDown };

// A colour image with pixels `step` bytes apart and odd row padding.
struct Picture {
  int width, height, stride, step;
  std::vector<unsigned char> bytes;
  const unsigned char* at(int x, int y) const {
    return &bytes[size_t(y) * stride + size_t(x) * step];
  }
};

// Every fifth pixel repeats its left neighbour: a zero step, which costs 1.
Picture RandomPicture(int width, int height, int step, uint32_t seed) {
  const int stride = width * step + 5;
  Picture pic{width, height, stride, step,
              RandomPlane(width * step, height, stride, seed)};
  for (int i = 1; i < width * height; i += 5) {
    if (i % width == 0) continue;
    unsigned char* p =
        &pic.bytes[size_t(i / width) * stride + i % width * step];
    std::copy_n(p - step, 3, p);
  }
  return pic;
}

// Per pixel the left, up, right and down step cost: the squared colour
// difference, low 16 bits, never 0 (1 off the image). Each side comes from
// its own pixel pair, so the library's sharing of a step is checked.
std::vector<unsigned int> ReferenceCosts(const Picture& pic) {
  std::vector<unsigned int> costs;
  for (int i = 0; i < pic.width * pic.height; ++i) {
    const int x = i % pic.width, y = i / pic.width;
    for (auto [u, v] :
         {std::pair{x - 1, y}, {x, y - 1}, {x + 1, y}, {x, y + 1}}) {
      int d = 0;
      for (int c = 0;
           c < 3 && u >= 0 && v >= 0 && u < pic.width && v < pic.height; ++c)
        d += (pic.at(x, y)[c] - pic.at(u, v)[c]) *
             (pic.at(x, y)[c] - pic.at(u, v)[c]);
      costs.push_back(d % 65536 == 0 ? 1 : d % 65536);
    }
  }
  return costs;
}

// Labels have rows of width + 3 bytes. Random ones are mostly 0, some 1 and
// 2 (GetProb's seeds) and other values that must act like any non-seed; the
// padding holds the sentinel.
using Labels = std::vector<unsigned char>;

Labels RandomLabels(int width, int height, std::mt19937& rng) {
  Labels labels = RandomPlane(width, height, width + 3, rng());
  const unsigned char kinds[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 255};
  for (int i = 0; i < width * height; ++i) {
    unsigned char& v = labels[i / width * (width + 3) + i % width];
    v = kinds[v % sizeof kinds];
  }
  return labels;
}

// The four passes pixel by pixel: each pass's scan order follows from the
// two neighbours it reads, and a pixel is visited only when both exist.
std::vector<unsigned int> SingleSweep(const std::vector<unsigned int>& costs,
                                      int width, int height,
                                      const Labels& labels,
                                      unsigned char seed) {
  std::vector<unsigned int> d(size_t(width) * height, kUnreached);
  auto at = [&](int x, int y) -> unsigned int& {
    return d[size_t(y) * width + x];
  };
  auto cost = [&](int x, int y, Side s) {
    return costs[(size_t(y) * width + x) * 4 + s];
  };
  for (const auto& [nx, ny] :
       {std::pair{-1, -1}, {+1, +1}, {+1, -1}, {-1, +1}}) {
    for (int i = 0; i < height; ++i) {
      const int y = ny < 0 ? i : height - 1 - i;
      for (int j = 0; j < width; ++j) {
        const int x = nx < 0 ? j : width - 1 - j;
        if (x + nx < 0 || x + nx >= width || y + ny < 0 || y + ny >= height)
          continue;
        if (labels[size_t(y) * (width + 3) + x] == seed) {
          at(x, y) = 0;
          continue;
        }
        at(x, y) = std::min(
            {at(x, y), at(x + nx, y) + cost(x, y, nx < 0 ? kLeft : kRight),
             at(x, y + ny) + cost(x, y, ny < 0 ? kUp : kDown)});
      }
    }
  }
  return d;
}

// A plane of stride width + 2 with the values packed in want, the padding
// holding the sentinel a query must leave alone.
template <typename T>
std::vector<T> Padded(const std::vector<T>& want, int width, T sentinel) {
  std::vector<T> out;
  for (size_t i = 0; i < want.size(); ++i) {
    out.push_back(want[i]);
    if (i % width == size_t(width - 1)) out.insert(out.end(), 2, sentinel);
  }
  return out;
}

constexpr unsigned int kDistSentinel = 0xA5A5A5A5u;

std::vector<unsigned int> Dist(GeoSeg& seg, const Labels& labels,
                               unsigned char seed) {
  std::vector<unsigned int> d(size_t(seg.width + 2) * seg.height,
                              kDistSentinel);
  EXPECT_EQ(
      seg.GetDist(labels.data(), seg.width + 3, d.data(), seg.width + 2, seed),
      0);
  return d;
}

std::vector<float> Prob(GeoSeg& seg, const Labels& labels) {
  std::vector<float> p(size_t(seg.width + 2) * seg.height, -1.0f);
  EXPECT_EQ(seg.GetProb(labels.data(), seg.width + 3, p.data(), seg.width + 2),
            0);
  return p;
}

TEST(GeoSeg, MatchesReferencesOnRandomImages) {
  std::mt19937 rng(606);
  GeoSeg seg;  // reused: each image replaces the last
  for (int step : {3, 4}) {
    for (int width : {1, 2, 7, 17}) {
      for (int height : {1, 2, 6, 11}) {
        SCOPED_TRACE(testing::Message()
                     << width << "x" << height << " step " << step);
        // Random bytes square-sum up to 195075: most costs wrap.
        const Picture pic = RandomPicture(width, height, step, rng());
        ASSERT_EQ(
            seg.SetImage(pic.bytes.data(), width, height, pic.stride, step), 0);
        ASSERT_EQ(seg.width, width);
        ASSERT_EQ(seg.height, height);
        ASSERT_EQ(seg.row_pixels, width);
        const std::vector<unsigned int> costs = ReferenceCosts(pic);
        ASSERT_EQ(std::vector<unsigned int>(seg.edge_weights,
                                            seg.edge_weights + costs.size()),
                  costs);
        // Several label maps in turn: GetProb's scratch carries nothing over.
        for (int round = 0; round < 3; ++round) {
          const Labels labels = RandomLabels(width, height, rng);
          for (unsigned char seed : {1, 2, 255}) {
            ASSERT_EQ(Dist(seg, labels, seed),
                      Padded(SingleSweep(costs, width, height, labels, seed),
                             width, kDistSentinel))
                << "seed " << +seed;
          }
          const auto d2 = SingleSweep(costs, width, height, labels, 2);
          const auto d1 = SingleSweep(costs, width, height, labels, 1);
          std::vector<float> want(d1.size());
          for (size_t i = 0; i < want.size(); ++i)
            want[i] = float(d1[i]) / (float(d2[i]) + float(d1[i]));
          ASSERT_EQ(Prob(seg, labels), Padded(want, width, -1.0f));
        }
      }
    }
  }
  EXPECT_EQ(seg.SetImage(nullptr, 4, 3, 12, 3), -1);
  EXPECT_EQ(seg.edge_weights, nullptr);
  EXPECT_EQ(seg.distance_buffer, nullptr);
  EXPECT_EQ(seg.width + seg.height + seg.row_pixels, 0);
  // Without pixels the caller's plane is not even initialised.
  const Picture tiny = RandomPicture(6, 5, 3, 32);
  ASSERT_EQ(seg.SetImage(tiny.bytes.data(), 0, 5, tiny.stride, 3), 0);
  std::vector<unsigned int> plane(8, kDistSentinel);
  const unsigned char label = 1;
  EXPECT_EQ(seg.GetDist(&label, 1, plane.data(), 4, 1), 0);
  EXPECT_EQ(plane, std::vector<unsigned int>(8, kDistSentinel));
}

}  // namespace
