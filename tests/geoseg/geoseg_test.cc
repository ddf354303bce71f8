// Geodesic segmentation over 4 and 24 neighbours: step costs, distances and
// probabilities against references that follow the rules pixel by pixel, on
// the same padded scenes.
#include "softmatte/geoseg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

constexpr unsigned int kFar = 100000000;

// Direction k of a pixel's n costs. 4: left, up, right, down. 24: the causal
// half in raster order, then the same directions reversed.
int Dx(int k, int n) {
  if (n == 4) return k % 2 ? 0 : k - 1;
  return k < 12 ? (k < 10 ? k % 5 - 2 : k - 12) : -Dx(k - 12, n);
}
int Dy(int k, int n) {
  if (n == 4) return k % 2 ? k - 2 : 0;
  return k < 12 ? (k < 5 ? -2 : k < 10 ? -1 : 0) : -Dy(k - 12, n);
}

// An image with padded rows, pixels `step` bytes apart, and labels w + 3 a
// row. kind 0: noise, whose squared steps mostly pass 16 bits; 1: flat but
// for one speck, whose steps saturate in a large image; 2: stripes at least
// two wide, across which shortest paths are monotone, so that one 24-way
// sweep is exact. Seeds of label 2 are scattered; labels 1 and 255 fill
// whole lines along the stripes: walls that bend no path.
struct Scene {
  int w, h, step, stride;
  bool across;
  std::vector<unsigned char> rgb, labels;
  bool In(int x, int y) const { return x >= 0 && x < w && y >= 0 && y < h; }
  unsigned char Label(int i) const { return labels[i / w * (w + 3) + i % w]; }
  int Sq(int i, int k, int n) const {  // 0 toward the outside
    const int dx = Dx(k, n), dy = Dy(k, n);
    if (!In(i % w + dx, i / w + dy)) return 0;
    const unsigned char* p = &rgb[i / w * stride + i % w * step];
    const unsigned char* q = p + dy * stride + dx * step;
    int d = 0;
    for (int c = 0; c < 3; ++c) d += (p[c] - q[c]) * (p[c] - q[c]);
    return d;
  }
  void Relabel(std::mt19937& rng) {
    std::vector<unsigned char> line(w + h);
    for (auto& v : line) v = rng() % 5 ? 0 : rng() % 2 ? 1 : 255;
    for (int i = 0; i < w * h; ++i) {
      const int along = across ? i % w : i / w;
      labels[i / w * (w + 3) + i % w] = line[along] ? line[along]
                                        : rng() % 9 ? 0
                                                    : 2;
    }
  }
};

Scene MakeScene(int w, int h, int kind, std::mt19937& rng) {
  const int step = 3 + kind % 2, stride = step * w + 5;
  Scene s{w, h, step, stride, rng() % 2 == 0, {}, {}};
  s.rgb.assign(stride * h, 0xA5);
  s.labels.assign((w + 3) * h, 0xA5);
  const int speck = static_cast<int>(rng() % (w * h));
  std::vector<unsigned char> shade(3 * (w + h));
  for (auto& v : shade) v = static_cast<unsigned char>(rng());
  s.Relabel(rng);
  for (int i = 0; i < w * h; ++i) {
    const int x = i % w, y = i / w, along = s.across ? x : y;
    for (int c = 0; c < 3; ++c)
      s.rgb[y * stride + x * step + c] = kind == 0   ? rng()
                                         : kind == 1 ? (i == speck ? 255 : 9)
                                                     : shade[along / 2 * 3 + c];
  }
  return s;
}

// Costs straight from the rules, each end of a step taken on its own. 4:
// the squared difference's low 16 bits; 24: scaled to a mean of 128 over
// the causal half and saturated. Never 0.
std::vector<unsigned int> RefCosts(const Scene& s, int n) {
  double sum = 0;
  for (int i = 0; i < s.w * s.h * 12; ++i) sum += s.Sq(i / 12, i % 12, 24);
  const double scale = 128.0 / (sum / (12.0 * s.w * s.h));
  std::vector<unsigned int> c(s.w * s.h * n);
  for (size_t i = 0; i < c.size(); ++i) {
    const int d = s.Sq(i / n, i % n, n);
    const double v = d * scale;
    c[i] = n == 4       ? (d % 65536 ? d % 65536 : 1)
           : v >= 65536 ? 65535
           : v >= 1     ? static_cast<unsigned int>(v)
                        : 1;
  }
  return c;
}

// The four passes pixel by pixel, each taking the neighbours behind it in
// its scan order. 24: with bounds tests where the library has a border and
// every label a wall; repeated until nothing changes they give the true
// geodesic distances, since every direction is behind in some pass. 4: a
// pixel is visited only when both neighbours exist, and only the seed is
// fixed.
std::vector<unsigned int> Sweep(const Scene& s,
                                const std::vector<unsigned int>& c, int n,
                                unsigned char seed, bool settle) {
  std::vector<unsigned int> d(s.w * s.h, kFar), before;
  while (before != d) {
    before = d;
    for (int j = 0; j < 4 * s.w * s.h; ++j) {
      const int pass = j / (s.w * s.h), sy = pass % 2 ? -1 : 1,
                sx = pass % 3 ? -1 : 1, row = j / s.w % s.h, col = j % s.w;
      const int y = sy > 0 ? row : s.h - 1 - row;
      const int x = sx > 0 ? col : s.w - 1 - col, p = y * s.w + x;
      unsigned int best = d[p];
      bool all = true;
      for (int k = 0; k < n; ++k) {
        const int dx = Dx(k, n), dy = Dy(k, n);
        if (!(dy * sy < 0 || (dy == 0 && dx * sx < 0))) continue;
        if (!s.In(x + dx, y + dy))
          all = false;
        else
          best = std::min(best, d[p + dy * s.w + dx] + c[p * n + k]);
      }
      if (n == 24)
        d[p] = s.Label(p) == 0 ? best : s.Label(p) == seed ? 0 : kFar;
      else if (all)
        d[p] = s.Label(p) == seed ? 0 : best;
    }
    if (!settle) break;
  }
  return d;
}

// Runs a query into a plane of w + 2 a row; the padding must keep its fill.
template <typename T, typename Query>
std::vector<T> Padded(int w, int h, T fill, Query query) {
  std::vector<T> plane((w + 2) * h, fill), out, pad;
  EXPECT_EQ(query(plane.data(), w + 2), 0);
  for (int i = 0; i < (w + 2) * h; ++i)
    (i % (w + 2) < w ? out : pad).push_back(plane[i]);
  EXPECT_EQ(pad, std::vector<T>(2 * h, fill));
  return out;
}

template <typename Seg>
std::vector<unsigned int> Dist(Seg& seg, const Scene& s, unsigned char seed) {
  return Padded(s.w, s.h, 0xA5A5A5A5u, [&](unsigned int* p, int n) {
    return seg.GetDist(s.labels.data(), s.w + 3, p, n, seed);
  });
}

// What GetProb must make of the distances. The cap comes from sorting, not
// a histogram walk: one bin below the bin of the (n / 10)-th largest
// distance, or the top bin when n / 10 is 0.
std::vector<float> RefProb(const std::vector<unsigned int>& d1,
                           const std::vector<unsigned int>& d2, int mode,
                           float fill) {
  const std::vector<unsigned int>& d = mode == 2 ? d2 : d1;
  std::vector<long long> bins(d.begin(), d.end());
  for (auto& b : bins) b >>= 3;
  std::sort(bins.rbegin(), bins.rend());
  const size_t r = d.size() / 10;
  const long long cap = r ? 8 * (bins[r - 1] - 1) : 8 * bins[0];
  const float k = 1.0f / static_cast<float>(cap | 1);
  std::vector<float> p(d.size(), fill);
  for (size_t i = 0; i < p.size(); ++i) {
    const float v = k * static_cast<float>(std::min<long long>(d[i], cap));
    if (mode == 1 || mode == 2) p[i] = mode == 2 ? 1.0f - v : v;
    if (mode == 3) p[i] = 1.0f * d1[i] / (1.0f * d2[i] + d1[i]);
  }
  return p;
}

// Sizes from a single pixel up, every kind on each.
Scene SceneNumber(int i, std::mt19937& rng) {
  const int widths[] = {1, 2, 7, 12, 37}, heights[] = {1, 4, 9, 31};
  return MakeScene(widths[i % 5], heights[i / 5 % 4], i / 20, rng);
}

TEST(GeoSeg, MatchesReferencesOnRandomImages) {
  std::mt19937 rng(606);
  GeoSeg seg;  // reused: each image replaces the last
  for (int i = 0; i < 60; ++i) {
    Scene s = SceneNumber(i, rng);
    SCOPED_TRACE(testing::Message() << "scene " << i);
    ASSERT_EQ(seg.SetImage(s.rgb.data(), s.w, s.h, s.stride, s.step), 0);
    ASSERT_EQ(seg.width + 1000 * seg.height + 1000000 * seg.row_pixels,
              s.w + 1000 * s.h + 1000000 * s.w);
    const std::vector<unsigned int> c = RefCosts(s, 4);
    ASSERT_TRUE(std::equal(c.begin(), c.end(), seg.edge_weights));
    // Several label maps in turn: GetProb's scratch carries nothing over.
    for (int round = 0; round < 3; ++round, s.Relabel(rng)) {
      std::vector<unsigned int> d[3];
      for (unsigned char seed : {1, 2, 255}) {
        d[seed % 3] = Sweep(s, c, 4, seed, false);
        EXPECT_EQ(Dist(seg, s, seed), d[seed % 3]) << "seed " << +seed;
      }
      EXPECT_EQ(Padded(s.w, s.h, -1.0f,
                       [&](float* p, int n) {
                         return seg.GetProb(s.labels.data(), s.w + 3, p, n);
                       }),
                RefProb(d[1], d[2], 3, -1.0f));
    }
  }
  EXPECT_EQ(seg.SetImage(nullptr, 4, 3, 12, 3), -1);
  EXPECT_TRUE(!seg.edge_weights && !seg.distance_buffer &&
              seg.width + seg.height + seg.row_pixels == 0);
  // Without pixels the caller's plane is not even initialised.
  const unsigned char pixels[15 * 5] = {}, label = 1;
  ASSERT_EQ(seg.SetImage(pixels, 0, 5, 15, 3), 0);
  std::vector<unsigned int> plane(8, 0xA5A5A5A5u);
  EXPECT_EQ(seg.GetDist(&label, 1, plane.data(), 4, 1), 0);
  EXPECT_EQ(plane, std::vector<unsigned int>(8, 0xA5A5A5A5u));
}

TEST(GeoSegN24, MatchesReferencesOnPaddedPlanes) {
  std::mt19937 rng(2424);
  for (int i = 0; i < 60; ++i) {
    const Scene s = SceneNumber(i, rng);
    GeoSegN24 seg;
    ASSERT_EQ(seg.SetImage(s.rgb.data(), s.w, s.h, s.stride, s.step, nullptr),
              0);
    const std::vector<unsigned int> c = RefCosts(s, 24);
    ASSERT_TRUE(std::equal(c.begin(), c.end(), seg.edge_weights));
    std::vector<unsigned int> d[3];
    for (unsigned char seed : {1, 2}) {
      d[seed] = Dist(seg, s, seed);
      EXPECT_EQ(d[seed], Sweep(s, c, 24, seed, false))
          << i << " seed " << +seed;
    }
    EXPECT_TRUE(i / 20 != 2 || d[2] == Sweep(s, c, 24, 2, true)) << i;
    // Modes 1 and 2 size a histogram by the largest distance, unreached
    // ones included: some 50 megabytes a call, so a third of the scenes.
    for (int mode : {3, 2, 1, 0, 6}) {
      if (i % 3 && (mode == 1 || mode == 2)) continue;
      const auto p = Padded(s.w, s.h, -7.0f, [&](float* out, int n) {
        return seg.GetProb(s.labels.data(), s.w + 3, out, n, mode, nullptr);
      });
      EXPECT_EQ(p, RefProb(d[1], d[2], mode, -7.0f)) << i << " mode " << mode;
    }
  }
  GeoSegN24 empty;
  const unsigned char pixel[3] = {};
  EXPECT_EQ(empty.SetImage(nullptr, 1, 1, 3, 3, nullptr), -1);
  EXPECT_EQ(empty.SetImage(pixel, 0, 1, 3, 3, nullptr), 0);
}

}  // namespace
