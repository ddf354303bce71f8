#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "softmatte/solver.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::RandomPlane;

// A B, G, R image with padded rows, and a mask with padding of its own.
struct Scene {
  int width = 0;
  int height = 0;
  int stride = 0;
  int maskStride = 0;
  std::vector<unsigned char> image;
  std::vector<unsigned char> mask;

  unsigned char& Mask(int x, int y) {
    return mask[static_cast<size_t>(y) * maskStride + x];
  }
  bool MaskSet(int x, int y) const {
    return mask[static_cast<size_t>(y) * maskStride + x] != 0;
  }
  float Colour(int x, int y, int c) const {
    return static_cast<float>(
               image[static_cast<size_t>(y) * stride + 3 * x + c]) *
           0.003921569f;
  }
};

// Random noise, or a faint texture whose window covariance is of the
// regulariser's size, where its exact value shows most.
Scene MakeScene(int width, int height, uint32_t seed, bool flat) {
  Scene s;
  s.width = width;
  s.height = height;
  s.stride = 3 * width + 5;
  s.maskStride = width + 3;
  s.image = RandomPlane(3 * width, height, s.stride, seed);
  if (flat) {
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < 3 * width; ++x) {
        unsigned char& v = s.image[static_cast<size_t>(y) * s.stride + x];
        v = static_cast<unsigned char>(118 + v % 5);
      }
    }
  }
  s.mask.assign(static_cast<size_t>(s.maskStride) * height, 0);
  for (int y = 0; y < height; ++y) {
    for (int x = width; x < s.maskStride; ++x) s.Mask(x, y) = kSentinel;
  }
  return s;
}

void RandomMask(Scene& s, double density, uint32_t seed) {
  std::mt19937 rng(seed);
  std::bernoulli_distribution on(density);
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      s.Mask(x, y) = on(rng) ? static_cast<unsigned char>(1 + rng() % 255) : 0;
    }
  }
}

void BoxMask(Scene& s, int x0, int y0, int x1, int y1) {
  for (int y = y0; y < y1; ++y) {
    for (int x = x0; x < x1; ++x) s.Mask(x, y) = 255;
  }
}

int Chebyshev(int ax, int ay, int bx, int by) {
  return std::max(std::abs(ax - bx), std::abs(ay - by));
}

// The problem as the window formula defines it, pixel by pixel, with no
// labels, slots or index maps.
struct Reference {
  int left = 0, top = 0, right = 0, bottom = 0;
  std::vector<int> pixelOf;                        // unknowns in raster order
  std::vector<unsigned char> flags;                // 1 = ring pixel (mask 0)
  std::map<int, int> number;                       // pixel -> unknown
  std::map<std::pair<int, int>, double> affinity;  // (earlier, later) pixel

  double W(int p, int q) const {
    auto it = affinity.find({std::min(p, q), std::max(p, q)});
    return it == affinity.end() ? 0.0 : it->second;
  }
};

// Solves for the inverse by Gauss-Jordan elimination, unlike the cofactors
// of the library.
void Invert3(double a[3][3], double inv[3][3]) {
  double m[3][6];
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      m[r][c] = a[r][c];
      m[r][c + 3] = r == c ? 1.0 : 0.0;
    }
  }
  for (int c = 0; c < 3; ++c) {
    int pivot = c;
    for (int r = c + 1; r < 3; ++r) {
      if (std::fabs(m[r][c]) > std::fabs(m[pivot][c])) pivot = r;
    }
    for (int k = 0; k < 6; ++k) std::swap(m[c][k], m[pivot][k]);
    const double d = m[c][c];
    for (int k = 0; k < 6; ++k) m[c][k] /= d;
    for (int r = 0; r < 3; ++r) {
      if (r == c) continue;
      const double f = m[r][c];
      for (int k = 0; k < 6; ++k) m[r][k] -= f * m[c][k];
    }
  }
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) inv[r][c] = m[r][c + 3];
  }
}

// Adds the pair affinities of the window centred at (cx, cy) for every pair
// that keep(p, q) accepts.
template <typename Keep>
void AddWindow(const Scene& s, int cx, int cy, Keep keep,
               std::map<std::pair<int, int>, double>& affinity) {
  double mean[3] = {0, 0, 0};
  double second[3][3] = {};
  for (int dy = -1; dy <= 1; ++dy) {
    for (int dx = -1; dx <= 1; ++dx) {
      for (int a = 0; a < 3; ++a) {
        const float va = s.Colour(cx + dx, cy + dy, a);
        mean[a] += va;
        for (int b = 0; b < 3; ++b) {
          second[a][b] +=
              static_cast<float>(va * s.Colour(cx + dx, cy + dy, b));
        }
      }
    }
  }
  for (double& m : mean) m /= 9.0;
  double cov[3][3];
  for (int a = 0; a < 3; ++a) {
    for (int b = 0; b < 3; ++b) {
      cov[a][b] = second[a][b] / 9.0 - mean[a] * mean[b];
    }
    cov[a][a] += static_cast<double>(1e-4f);
  }
  double inv[3][3];
  Invert3(cov, inv);
  for (int i = 0; i < 9; ++i) {
    for (int j = i + 1; j < 9; ++j) {
      const int ix = cx + i % 3 - 1, iy = cy + i / 3 - 1;
      const int jx = cx + j % 3 - 1, jy = cy + j / 3 - 1;
      const int p = iy * s.width + ix, q = jy * s.width + jx;
      if (!keep(p, q)) continue;
      double form = 0.0;
      for (int a = 0; a < 3; ++a) {
        for (int b = 0; b < 3; ++b) {
          form += (s.Colour(ix, iy, a) - mean[a]) * inv[a][b] *
                  (s.Colour(jx, jy, b) - mean[b]);
        }
      }
      affinity[{p, q}] += (form + 1.0) / 9.0;
    }
  }
}

Reference BuildReference(const Scene& s) {
  Reference r;
  int x0 = s.width, y0 = s.height, x1 = -1, y1 = -1;
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      if (!s.MaskSet(x, y)) continue;
      x0 = std::min(x0, x);
      y0 = std::min(y0, y);
      x1 = std::max(x1, x);
      y1 = std::max(y1, y);
    }
  }
  if (x1 < 0) return r;
  r.left = std::max(x0 - 4, 0);
  r.top = std::max(y0 - 4, 0);
  r.right = std::min(x1 + 5, s.width);
  r.bottom = std::min(y1 + 5, s.height);
  auto inside = [&](int x, int y) {
    return x >= r.left && x < r.right && y >= r.top && y < r.bottom;
  };
  // Only pixels that could centre a window spread the band.
  auto interior = [&](int x, int y) {
    return x > r.left && x < r.right - 1 && y > r.top && y < r.bottom - 1;
  };
  auto nearInteriorWhere = [&](int x, int y, auto pred) {
    for (int qy = y - 1; qy <= y + 1; ++qy) {
      for (int qx = x - 1; qx <= x + 1; ++qx) {
        if (inside(qx, qy) && interior(qx, qy) && pred(qx, qy)) return true;
      }
    }
    return false;
  };
  auto masked = [&](int x, int y) { return s.MaskSet(x, y); };
  auto inBand = [&](int x, int y) {
    return inside(x, y) && (masked(x, y) || nearInteriorWhere(x, y, masked));
  };
  auto inOuterBand = [&](int x, int y) {
    return inside(x, y) && (inBand(x, y) || nearInteriorWhere(x, y, inBand));
  };
  for (int y = r.top; y < r.bottom; ++y) {
    for (int x = r.left; x < r.right; ++x) {
      if (!inBand(x, y)) continue;
      const int p = y * s.width + x;
      r.number[p] = static_cast<int>(r.pixelOf.size());
      r.pixelOf.push_back(p);
      r.flags.push_back(masked(x, y) ? 0 : 1);
    }
  }
  auto unknownPair = [&](int p, int q) {
    return r.number.count(p) != 0 && r.number.count(q) != 0;
  };
  for (int y = r.top; y < r.bottom; ++y) {
    for (int x = r.left; x < r.right; ++x) {
      if (interior(x, y) && inOuterBand(x, y)) {
        AddWindow(s, x, y, unknownPair, r.affinity);
      }
    }
  }
  return r;
}

// Later unknowns a row must list: every unknown after it in raster order
// within two pixels, which is what a 3 x 3 window can join.
std::vector<int> LaterNeighbours(const Reference& r, int width, int k) {
  std::vector<int> out;
  const int p = r.pixelOf[k];
  for (int q = k + 1; q < static_cast<int>(r.pixelOf.size()); ++q) {
    const int o = r.pixelOf[q];
    if (Chebyshev(p % width, p / width, o % width, o / width) <= 2) {
      out.push_back(q);
    }
  }
  return out;
}

double Tolerance(double v) { return 1e-9 * (1.0 + std::fabs(v)); }

// Row sums of the full symmetric matrix the triangle stands for.
std::vector<double> FullRowSums(const mat_data& m) {
  std::vector<double> sum(m.n, 0.0);
  for (int r = 0; r < m.n; ++r) {
    sum[r] += m.values[m.rowStart[r] - 1];
    for (int e = m.rowStart[r]; e < m.rowStart[r + 1] - 1; ++e) {
      sum[r] += m.values[e];
      sum[m.columns[e] - 1] += m.values[e];
    }
  }
  return sum;
}

void ExpectMatchesReference(const Scene& s, const mat_data& m) {
  const Reference r = BuildReference(s);
  const int n = static_cast<int>(r.pixelOf.size());
  ASSERT_EQ(m.n, n);
  EXPECT_EQ(m.systemCount, n);
  EXPECT_EQ(m.unknownCount, n);
  EXPECT_EQ(m.width, s.width);
  EXPECT_EQ(m.height, s.height);
  EXPECT_EQ(m.roi[0], r.left);
  EXPECT_EQ(m.roi[1], r.top);
  EXPECT_EQ(m.roi[2], r.right);
  EXPECT_EQ(m.roi[3], r.bottom);
  ASSERT_EQ(m.indexPitch, r.right - r.left + 4);
  ASSERT_EQ(m.indexOrigin, m.indexMap + 2 * m.indexPitch + 2);
  for (int y = -2; y < r.bottom - r.top + 2; ++y) {
    for (int x = -2; x < r.right - r.left + 2; ++x) {
      const int p = (r.top + y) * s.width + (r.left + x);
      const bool inRect =
          x >= 0 && y >= 0 && x < r.right - r.left && y < r.bottom - r.top;
      const int want = inRect && r.number.count(p) ? r.number.at(p) : -1;
      ASSERT_EQ(m.indexOrigin[y * m.indexPitch + x], want)
          << "index map at (" << x << ", " << y << ")";
    }
  }
  ASSERT_EQ(m.rowStart[0], 1);
  for (int k = 0; k < n; ++k) {
    ASSERT_EQ(m.pixelOf[k], r.pixelOf[k]) << "unknown " << k;
    EXPECT_EQ(m.flags[k], r.flags[k]) << "unknown " << k;
    const std::vector<int> later = LaterNeighbours(r, s.width, k);
    const int first = m.rowStart[k] - 1;
    ASSERT_EQ(m.rowStart[k + 1] - m.rowStart[k],
              1 + static_cast<int>(later.size()))
        << "row " << k;
    ASSERT_EQ(m.columns[first], k + 1);
    double diagonal = 0.0;
    for (int q = 0; q < n; ++q) {
      const int a = r.pixelOf[k], b = r.pixelOf[q];
      if (q != k &&
          Chebyshev(a % s.width, a / s.width, b % s.width, b / s.width) <= 2) {
        diagonal += r.W(a, b);
      }
    }
    EXPECT_NEAR(m.values[first], diagonal, Tolerance(diagonal))
        << "diagonal " << k;
    for (size_t e = 0; e < later.size(); ++e) {
      ASSERT_EQ(m.columns[first + 1 + e], later[e] + 1) << "row " << k;
      const double want = -r.W(r.pixelOf[k], r.pixelOf[later[e]]);
      EXPECT_NEAR(m.values[first + 1 + e], want, Tolerance(want))
          << "row " << k << " column " << later[e];
    }
  }
  const std::vector<double> sums = FullRowSums(m);
  for (int k = 0; k < n; ++k) EXPECT_NEAR(sums[k], 0.0, 1e-9) << "row " << k;
}

// Rows are compared bit for bit: reuse must give exactly the numbers a
// fresh build gives.
void ExpectSameProblem(const mat_data& a, const mat_data& b) {
  ASSERT_EQ(a.n, b.n);
  for (int k = 0; k <= a.n; ++k) ASSERT_EQ(a.rowStart[k], b.rowStart[k]);
  for (int k = 0; k < a.n; ++k) {
    ASSERT_EQ(a.pixelOf[k], b.pixelOf[k]);
    ASSERT_EQ(a.flags[k], b.flags[k]);
  }
  for (int e = 0; e < a.rowStart[a.n] - 1; ++e) {
    ASSERT_EQ(a.columns[e], b.columns[e]) << "entry " << e;
    ASSERT_EQ(a.values[e], b.values[e]) << "entry " << e;
  }
  for (int i = 0; i < 4; ++i) EXPECT_EQ(a.roi[i], b.roi[i]);
}

void Build(const Scene& s, const mat_data& previous, mat_data& out) {
  mat_update(s.image.data(), s.width, s.height, s.stride, s.mask.data(),
             s.maskStride, previous, out, nullptr);
}

TEST(MatUpdate, MatchesWindowFormulaOnRandomMasks) {
  struct Case {
    int width, height;
    bool flat;
    double density;  // 0: a box instead
    int x0, y0, x1, y1;
  };
  const Case cases[] = {
      {15, 11, false, 0.0, 6, 4, 9, 7},   // box well inside
      {17, 13, true, 0.0, 0, 0, 4, 3},    // box in the corner: clamped
      {13, 9, false, 0.0, 8, 2, 13, 9},   // box at right and bottom edges
      {21, 17, false, 0.08, 0, 0, 0, 0},  // scattered pixels
      {19, 15, true, 0.3, 0, 0, 0, 0},
      {2, 9, false, 0.0, 0, 3, 1, 5},   // too narrow for any window
      {11, 1, false, 0.0, 4, 0, 6, 1},  // one row: no window either
      {25, 3, true, 0.2, 0, 0, 0, 0},
  };
  uint32_t seed = 7;
  for (const Case& c : cases) {
    Scene s = MakeScene(c.width, c.height, ++seed, c.flat);
    if (c.density > 0) {
      RandomMask(s, c.density, ++seed);
    } else {
      BoxMask(s, c.x0, c.y0, c.x1, c.y1);
    }
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height);
    mat_data m;
    Build(s, m, m);
    ExpectMatchesReference(s, m);
    ASSERT_TRUE(
        softmatte_test::PaddingIntact(s.mask, s.width, s.height, s.maskStride));
  }
}

TEST(MatUpdate, SinglePixelGivesNineZeroSumRows) {
  Scene s = MakeScene(9, 9, 3, false);
  s.Mask(4, 4) = 1;
  mat_data m;
  Build(s, m, m);
  ASSERT_EQ(m.n, 9);
  for (int k = 0; k < 9; ++k) {
    EXPECT_EQ(m.flags[k], k == 4 ? 0 : 1);
    EXPECT_EQ(m.pixelOf[k], (3 + k / 3) * 9 + 3 + k % 3);
  }
  ExpectMatchesReference(s, m);
}

TEST(MatUpdate, EmptyMaskLeavesRecordAlone) {
  Scene s = MakeScene(12, 10, 11, false);
  BoxMask(s, 3, 3, 6, 5);
  mat_data m;
  Build(s, m, m);
  const int n = m.n;
  const double* values = m.values;
  const int* pixelOf = m.pixelOf;
  Scene empty = s;
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) empty.Mask(x, y) = 0;
  }
  Build(empty, m, m);
  EXPECT_EQ(m.n, n);
  EXPECT_EQ(m.values, values);
  EXPECT_EQ(m.pixelOf, pixelOf);
}

// Moves the band: adds a box, clears another, so that rows far from the
// change keep their neighbours and rows near it do not.
void ChangeMask(Scene& s) {
  BoxMask(s, 17, 10, 24, 17);
  for (int y = 2; y < 6; ++y) {
    for (int x = 3; x < 8; ++x) s.Mask(x, y) = 0;
  }
}

TEST(MatUpdate, ReuseGivesTheFreshMatrix) {
  for (bool flat : {false, true}) {
    Scene s = MakeScene(27, 19, flat ? 41 : 42, flat);
    BoxMask(s, 3, 2, 20, 13);
    mat_data first;
    Build(s, first, first);
    ChangeMask(s);
    mat_data fresh, reused;
    Build(s, fresh, fresh);
    Build(s, first, reused);
    ExpectMatchesReference(s, fresh);
    ExpectSameProblem(reused, fresh);
    // The session hands one record as both previous and out.
    Build(s, first, first);
    ExpectSameProblem(first, fresh);
  }
}

// Toggles about a tenth of the mask's pixels, so that many rows keep as many
// neighbours as before but not the same ones.
void ToggleSome(Scene& s, uint32_t seed) {
  std::mt19937 rng(seed);
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      if (rng() % 10 == 0) s.Mask(x, y) = s.MaskSet(x, y) ? 0 : 9;
    }
  }
}

// With the previous problem built on another image, a row shows where it
// came from: the rule says exactly which rows may be borrowed.
TEST(MatUpdate, ReusesRowsWithUnchangedNeighboursOnly) {
  enum Change { kMovedBoxes, kToggled, kShiftedLine };
  for (Change change : {kMovedBoxes, kToggled, kShiftedLine}) {
    SCOPED_TRACE(testing::Message() << "change " << change);
    Scene s = MakeScene(27, 19, 51, false);
    Scene other = MakeScene(27, 19, 52, false);
    if (change == kMovedBoxes) {
      BoxMask(s, 3, 2, 20, 13);
      other.mask = s.mask;
      ChangeMask(s);
    } else if (change == kToggled) {
      RandomMask(s, 0.2, 53);
      other.mask = s.mask;
      ToggleSome(s, 54);
    } else {
      // A line whose lower part moves one column (with a gap, so that the
      // band around it moves whole): rows just above the step keep their
      // neighbour count, not their neighbours.
      BoxMask(s, 10, 3, 11, 16);
      other.mask = s.mask;
      for (int y = 9; y < 16; ++y) {
        s.Mask(10, y) = 0;
        s.Mask(11, y) = y > 10 ? 1 : 0;
      }
    }
    mat_data before;
    Build(other, before, before);
    const Reference refBefore = BuildReference(other);
    const Reference refAfter = BuildReference(s);
    mat_data mixed, fresh;
    Build(s, before, mixed);
    Build(s, fresh, fresh);
    ASSERT_EQ(mixed.n, fresh.n);

    auto forwardPixels = [&](const Reference& r, int k) {
      std::vector<int> out;
      for (int q : LaterNeighbours(r, s.width, k)) out.push_back(r.pixelOf[q]);
      return out;
    };
    int borrowed = 0, rebuilt = 0;
    for (int k = 0; k < mixed.n; ++k) {
      const int p = refAfter.pixelOf[k];
      auto old = refBefore.number.find(p);
      const bool expectBorrowed =
          old != refBefore.number.end() &&
          forwardPixels(refBefore, old->second) == forwardPixels(refAfter, k);
      const mat_data& source = expectBorrowed ? before : fresh;
      const int sourceRow = expectBorrowed ? old->second : k;
      const int count = mixed.rowStart[k + 1] - mixed.rowStart[k];
      for (int e = 1; e < count; ++e) {
        ASSERT_EQ(mixed.values[mixed.rowStart[k] - 1 + e],
                  source.values[source.rowStart[sourceRow] - 1 + e])
            << "row " << k << (expectBorrowed ? " borrowed" : " rebuilt");
      }
      ++(expectBorrowed ? borrowed : rebuilt);
    }
    EXPECT_GT(borrowed, 10);
    EXPECT_GT(rebuilt, 10);
    const std::vector<double> sums = FullRowSums(mixed);
    for (int k = 0; k < mixed.n; ++k) EXPECT_NEAR(sums[k], 0.0, 1e-9);
  }
}

// Whole-image problems: every pixel a row, forward affinities kept only
// above 1e-10 while the backward ones always reach the diagonal.
TEST(MatInit, MatchesWindowFormulaWithThresholdedForwardEntries) {
  uint32_t seed = 90;
  for (int width : {1, 2, 3, 7, 12}) {
    for (int height : {1, 3, 6}) {
      ++seed;
      Scene s = MakeScene(width, height, seed, seed % 2 == 0);
      SCOPED_TRACE(testing::Message() << width << "x" << height);
      std::map<std::pair<int, int>, double> affinity;
      for (int y = 1; y < height - 1; ++y) {
        for (int x = 1; x < width - 1; ++x) {
          AddWindow(
              s, x, y, [](int, int) { return true; }, affinity);
        }
      }
      mat_data m;
      mat_init(s.image.data(), width, height, s.stride, m, nullptr);
      const int n = width * height;
      ASSERT_EQ(m.n, n);
      EXPECT_EQ(m.pixelOf, nullptr);
      EXPECT_EQ(m.flags, nullptr);
      EXPECT_EQ(m.indexMap, nullptr);
      ASSERT_EQ(m.rowStart[0], 1);
      for (int p = 0; p < n; ++p) {
        double backward = 0.0, forward = 0.0;
        std::vector<std::pair<int, double>> kept;
        for (const auto& [pair, w] : affinity) {
          if (pair.second == p) backward += w;
          if (pair.first == p && std::fabs(w) > 1e-10) {
            kept.push_back({pair.second, w});
            forward += w;
          }
        }
        const int first = m.rowStart[p] - 1;
        ASSERT_EQ(m.rowStart[p + 1] - 1 - first,
                  1 + static_cast<int>(kept.size()))
            << "row " << p;
        ASSERT_EQ(m.columns[first], p + 1);
        EXPECT_NEAR(m.values[first], backward + forward,
                    Tolerance(backward + forward));
        for (size_t e = 0; e < kept.size(); ++e) {
          ASSERT_EQ(m.columns[first + 1 + e], kept[e].first + 1);
          EXPECT_NEAR(m.values[first + 1 + e], -kept[e].second,
                      Tolerance(kept[e].second));
        }
      }
      // No affinity of these images is small enough to be dropped, so the
      // rows still sum to zero here.
      for (double sum : FullRowSums(m)) EXPECT_NEAR(sum, 0.0, 1e-9);
    }
  }
}

}  // namespace
