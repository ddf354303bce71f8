#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "softmatte/solver.h"
#include "test_util.h"

namespace {

// A B, G, R image with padded rows, and a mask with padding of its own.
struct Scene {
  int width, height, stride, maskStride;
  std::vector<unsigned char> image, mask;

  unsigned char& Mask(int x, int y) { return mask[y * maskStride + x]; }
  bool Masked(int x, int y) const { return mask[y * maskStride + x] != 0; }
  float Colour(int x, int y, int c) const {
    return static_cast<float>(image[y * stride + 3 * x + c]) * 0.003921569f;
  }
};

// Random noise, or a faint texture whose window covariance is of the
// regulariser's size, where its exact value shows most.
template <typename MaskAt>
Scene MakeScene(int width, int height, uint32_t seed, bool flat,
                MaskAt maskAt) {
  Scene s{width, height, 3 * width + 5, width + 3, {}, {}};
  s.image = softmatte_test::RandomPlane(3 * width, height, s.stride, seed);
  s.mask.assign(static_cast<size_t>(s.maskStride) * height,
                softmatte_test::kSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < 3 * width; ++x) {
      unsigned char& v = s.image[y * s.stride + x];
      if (flat) v = static_cast<unsigned char>(118 + v % 5);
      if (x < width) s.Mask(x, y) = static_cast<unsigned char>(maskAt(x, y));
    }
  }
  return s;
}

auto Box(int x0, int y0, int x1, int y1) {
  return [=](int x, int y) {
    return x >= x0 && x < x1 && y >= y0 && y < y1 ? 255 : 0;
  };
}

// The inverse by Gauss-Jordan elimination, unlike the cofactors of the
// library.
void Invert3(const double a[3][3], double inv[3][3]) {
  double m[3][6];
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 6; ++c) m[r][c] = c < 3 ? a[r][c] : r == c - 3;
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
      const double f = r == c ? 0.0 : m[r][c];
      for (int k = 0; k < 6; ++k) m[r][k] -= f * m[c][k];
    }
  }
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) inv[r][c] = m[r][c + 3];
  }
}

// Adds the affinities of the window centred at (cx, cy) to w, a dense
// matrix over all pixels, for the pairs keep(p, q) accepts.
template <typename Keep>
void AddWindow(const Scene& s, int cx, int cy, Keep keep,
               std::vector<double>& w) {
  double mean[3] = {}, cov[3][3] = {}, inv[3][3];
  for (int i = 0; i < 9; ++i) {
    for (int a = 0; a < 3; ++a) {
      const float va = s.Colour(cx + i % 3 - 1, cy + i / 3 - 1, a);
      mean[a] += va;
      for (int b = 0; b < 3; ++b) {
        cov[a][b] += static_cast<float>(
            va * s.Colour(cx + i % 3 - 1, cy + i / 3 - 1, b));
      }
    }
  }
  for (double& m : mean) m /= 9.0;
  for (int a = 0; a < 3; ++a) {
    for (int b = 0; b < 3; ++b) cov[a][b] = cov[a][b] / 9.0 - mean[a] * mean[b];
    cov[a][a] += static_cast<double>(1e-4f);
  }
  Invert3(cov, inv);
  const int pixels = s.width * s.height;
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
      w[p * pixels + q] += (form + 1.0) / 9.0;
      w[q * pixels + p] += (form + 1.0) / 9.0;
    }
  }
}

// Checks the stored triangle against the affinities w between the
// unknowns' pixels: row k holds its diagonal, then minus the affinity of
// each later unknown listed(k, q) accepts, in order; the diagonal adds up
// every earlier affinity and the listed later ones. Full rows sum to zero.
template <typename Listed>
void ExpectTriangle(const mat_data& m, const std::vector<int>& pixelOf,
                    const std::vector<double>& w, int pixels, Listed listed) {
  auto tolerance = [](double v) { return 1e-9 * (1.0 + std::fabs(v)); };
  std::vector<double> rowSum(m.n, 0.0);
  ASSERT_EQ(m.rowStart[0], 1);
  for (int k = 0; k < m.n; ++k) {
    auto affinity = [&](int q) { return w[pixelOf[k] * pixels + pixelOf[q]]; };
    const int first = m.rowStart[k] - 1, end = m.rowStart[k + 1] - 1;
    ASSERT_EQ(m.columns[first], k + 1);
    double diagonal = 0.0;
    for (int q = 0; q < k; ++q) diagonal += affinity(q);
    int e = first + 1;
    for (int q = k + 1; q < m.n; ++q) {
      if (!listed(k, q)) continue;
      diagonal += affinity(q);
      ASSERT_LT(e, end) << "row " << k << " lacks column " << q;
      ASSERT_EQ(m.columns[e], q + 1) << "row " << k;
      EXPECT_NEAR(m.values[e], -affinity(q), tolerance(affinity(q)));
      rowSum[k] += m.values[e];
      rowSum[q] += m.values[e++];
    }
    ASSERT_EQ(e, end) << "row " << k << " lists too many columns";
    EXPECT_NEAR(m.values[first], diagonal, tolerance(diagonal)) << "row " << k;
    rowSum[k] += m.values[first];
  }
  for (int k = 0; k < m.n; ++k) EXPECT_NEAR(rowSum[k], 0.0, 1e-9) << k;
}

// The band problem straight from its definition: the mask's bounding box
// grown by 4 and clipped; unknowns are the masked pixels and those next to
// a masked pixel that could centre a window; windows centred on pixels next
// to those, or on them, join every pair of unknowns they cover.
void ExpectBandProblem(const Scene& s, const mat_data& m) {
  const int pixels = s.width * s.height;
  int x0 = s.width, y0 = s.height, x1 = -1, y1 = -1;
  for (int p = 0; p < pixels; ++p) {
    const int x = p % s.width, y = p / s.width;
    if (!s.Masked(x, y)) continue;
    x0 = std::min(x0, x), x1 = std::max(x1, x);
    y0 = std::min(y0, y), y1 = std::max(y1, y);
  }
  const int left = std::max(x0 - 4, 0), top = std::max(y0 - 4, 0);
  const int right = std::min(x1 + 5, s.width),
            bottom = std::min(y1 + 5, s.height);
  EXPECT_EQ(std::vector<int>(m.roi, m.roi + 4),
            (std::vector<int>{left, top, right, bottom}));
  auto inside = [&](int x, int y) {
    return x >= left && x < right && y >= top && y < bottom;
  };
  auto interior = [&](int x, int y) {
    return x > left && x < right - 1 && y > top && y < bottom - 1;
  };
  auto nearInteriorWhere = [&](int x, int y, auto pred) {
    for (int i = 0; i < 9; ++i) {
      const int qx = x + i % 3 - 1, qy = y + i / 3 - 1;
      if (interior(qx, qy) && pred(qx, qy)) return true;
    }
    return false;
  };
  auto masked = [&](int x, int y) { return s.Masked(x, y); };
  auto inBand = [&](int x, int y) {
    return inside(x, y) && (masked(x, y) || nearInteriorWhere(x, y, masked));
  };
  std::vector<int> number(pixels, -1), pixelOf;
  for (int y = top; y < bottom; ++y) {
    for (int x = left; x < right; ++x) {
      if (!inBand(x, y)) continue;
      const int k = static_cast<int>(pixelOf.size());
      number[y * s.width + x] = k;
      pixelOf.push_back(y * s.width + x);
      ASSERT_LT(k, m.n);
      ASSERT_EQ(m.pixelOf[k], y * s.width + x) << "unknown " << k;
      EXPECT_EQ(m.flags[k], masked(x, y) ? 0 : 1) << "unknown " << k;
    }
  }
  const int n = static_cast<int>(pixelOf.size());
  ASSERT_EQ(std::make_tuple(m.n, m.systemCount, m.unknownCount),
            std::make_tuple(n, n, n));
  std::vector<double> w(static_cast<size_t>(pixels) * pixels, 0.0);
  for (int y = top; y < bottom; ++y) {
    for (int x = left; x < right; ++x) {
      if (interior(x, y) && (inBand(x, y) || nearInteriorWhere(x, y, inBand))) {
        AddWindow(
            s, x, y,
            [&](int p, int q) { return number[p] >= 0 && number[q] >= 0; }, w);
      }
    }
  }
  // A row lists every later unknown a 3 x 3 window can reach.
  ExpectTriangle(m, pixelOf, w, pixels, [&](int k, int q) {
    const int p = pixelOf[k], o = pixelOf[q], width = s.width;
    return std::abs(p % width - o % width) <= 2 && o / width - p / width <= 2;
  });
}

void Build(const Scene& s, const mat_data& previous, mat_data& out) {
  mat_update(s.image.data(), s.width, s.height, s.stride, s.mask.data(),
             s.maskStride, previous, out, nullptr);
}

TEST(MatUpdate, MatchesWindowFormula) {
  struct Case {
    int width, height;
    bool flat;
    double density;  // 0: a box instead
    int x0, y0, x1, y1;
  };
  const Case cases[] = {
      {15, 11, false, 0.0, 6, 4, 9, 7},   // box well inside
      {9, 9, false, 0.0, 4, 4, 5, 5},     // a single pixel
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
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height);
    std::mt19937 rng(++seed);
    std::bernoulli_distribution on(c.density);
    const Scene s =
        c.density > 0
            ? MakeScene(c.width, c.height, ++seed, c.flat,
                        [&](int, int) { return on(rng) ? 1 + rng() % 255 : 0; })
            : MakeScene(c.width, c.height, ++seed, c.flat,
                        Box(c.x0, c.y0, c.x1, c.y1));
    mat_data m;
    Build(s, m, m);
    ExpectBandProblem(s, m);
    EXPECT_TRUE(
        softmatte_test::PaddingIntact(s.mask, s.width, s.height, s.maskStride));
  }
}

// Bit for bit: reuse must give exactly the numbers a fresh build gives.
auto Contents(const mat_data& m) {
  const int entries = m.rowStart[m.n] - 1;
  return std::make_tuple(std::vector<int>(m.rowStart, m.rowStart + m.n + 1),
                         std::vector<int>(m.pixelOf, m.pixelOf + m.n),
                         std::vector<unsigned char>(m.flags, m.flags + m.n),
                         std::vector<int>(m.columns, m.columns + entries),
                         std::vector<double>(m.values, m.values + entries),
                         std::vector<int>(m.roi, m.roi + 4));
}

TEST(MatUpdate, ReuseGivesTheFreshMatrix) {
  for (bool flat : {false, true}) {
    Scene s = MakeScene(27, 19, flat ? 41 : 42, flat, Box(3, 2, 20, 13));
    mat_data first;
    Build(s, first, first);
    // Adds a box and clears another, so that rows far from the change keep
    // their neighbours and rows near it do not.
    for (int y = 2; y < 17; ++y) {
      for (int x = 3; x < 24; ++x) {
        if (x >= 17 && y >= 10) s.Mask(x, y) = 255;
        if (x < 8 && y < 6) s.Mask(x, y) = 0;
      }
    }
    mat_data fresh, reused;
    Build(s, fresh, fresh);
    Build(s, first, reused);
    ExpectBandProblem(s, fresh);
    EXPECT_TRUE(Contents(reused) == Contents(fresh));
    // The session hands one record as both previous and out.
    Build(s, first, first);
    EXPECT_TRUE(Contents(first) == Contents(fresh));

    // An empty mask leaves the record as it was.
    const double* values = first.values;
    const Scene empty = MakeScene(27, 19, 43, flat, Box(0, 0, 0, 0));
    Build(empty, first, first);
    EXPECT_EQ(first.values, values);
    EXPECT_TRUE(Contents(first) == Contents(fresh));
  }
}

// Whole-image problems: every pixel a row, forward affinities kept only
// above 1e-10 while the backward ones always reach the diagonal. No
// affinity of these images is small enough to be dropped, so the rows
// still sum to zero.
TEST(MatInit, MatchesWindowFormulaWithThresholdedForwardEntries) {
  uint32_t seed = 90;
  for (int width : {1, 2, 3, 7, 12}) {
    for (int height : {1, 3, 6}) {
      SCOPED_TRACE(testing::Message() << width << "x" << height);
      ++seed;
      const Scene s =
          MakeScene(width, height, seed, seed % 2 == 0, Box(0, 0, 0, 0));
      const int n = width * height;
      std::vector<double> w(static_cast<size_t>(n) * n, 0.0);
      for (int y = 1; y < height - 1; ++y) {
        for (int x = 1; x < width - 1; ++x) {
          AddWindow(
              s, x, y, [](int, int) { return true; }, w);
        }
      }
      mat_data m;
      mat_init(s.image.data(), width, height, s.stride, m, nullptr);
      ASSERT_EQ(m.n, n);
      EXPECT_TRUE(!m.pixelOf && !m.flags && !m.indexMap);
      std::vector<int> pixelOf(n);
      for (int p = 0; p < n; ++p) pixelOf[p] = p;
      ExpectTriangle(m, pixelOf, w, n, [&](int k, int q) {
        return std::fabs(w[k * n + q]) > 1e-10;
      });
    }
  }
}

}  // namespace
