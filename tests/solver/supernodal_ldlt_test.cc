#include "solver/supernodal_ldlt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

// A symmetric matrix as its diagonal and its couplings (i != j, each pair
// once), numbered as the caller of the factorisation numbers it.
struct Symmetric {
  std::vector<double> diagonal;
  struct Coupling {
    int i, j;
    double value;
  };
  std::vector<Coupling> couplings;

  int Add(int count) {
    diagonal.resize(diagonal.size() + count, 0.0);
    return static_cast<int>(diagonal.size()) - count;
  }
  void Couple(int i, int j, double value) {
    couplings.push_back({i, j, value});
    diagonal[i] += std::fabs(value);
    diagonal[j] += std::fabs(value);
  }
};

// Pixels of a width x height band, each coupled to those within `reach`
// rows and columns (reach 2: the 5 x 5 stencil of 3 x 3 windows). The
// diagonal outweighs the couplings, so that every pivot is far from zero;
// sign -1 makes the block negative definite.
void AddGrid(Symmetric& a, int width, int height, int reach, double sign,
             std::mt19937& rng) {
  std::uniform_real_distribution<double> weight(-1.0, 1.0);
  const int base = a.Add(width * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int dy = 0; dy <= reach && y + dy < height; ++dy) {
        for (int dx = -reach; dx <= reach; ++dx) {
          if ((dy == 0 && dx <= 0) || x + dx < 0 || x + dx >= width) continue;
          a.Couple(base + y * width + x, base + (y + dy) * width + x + dx,
                   sign * weight(rng));
        }
      }
    }
  }
  for (int k = base; k < base + width * height; ++k) {
    a.diagonal[k] = sign * (a.diagonal[k] + 0.5);
  }
}

// One unknown coupled to every other one: a dense row and column.
void AddHub(Symmetric& a, std::mt19937& rng) {
  std::uniform_real_distribution<double> weight(0.01, 0.1);
  const int hub = a.Add(1);
  for (int k = 0; k < hub; ++k) {
    const double w = weight(rng);
    a.couplings.push_back({k, hub, w});
    a.diagonal[hub] += w;
    a.diagonal[k] += a.diagonal[k] > 0 ? w : -w;
  }
  a.diagonal[hub] += 1.0;
}

// The upper triangle in compressed columns, unknown k at position[k]; rows
// come in random order within a column, and some couplings are stored as
// two entries that add up to them.
struct UpperColumns {
  std::vector<int> colStart, rowIndex;
  std::vector<double> values;
};

UpperColumns ToUpperColumns(const Symmetric& a,
                            const std::vector<int>& position,
                            std::mt19937& rng) {
  const int n = static_cast<int>(a.diagonal.size());
  std::vector<std::vector<std::pair<int, double>>> columns(n);
  for (int k = 0; k < n; ++k) {
    columns[position[k]].push_back({position[k], a.diagonal[k]});
  }
  for (const Symmetric::Coupling& c : a.couplings) {
    const int p = std::min(position[c.i], position[c.j]);
    const int q = std::max(position[c.i], position[c.j]);
    if (rng() % 5 == 0) {
      columns[q].push_back({p, 0.25 * c.value});
      columns[q].push_back({p, 0.75 * c.value});
    } else {
      columns[q].push_back({p, c.value});
    }
  }
  UpperColumns u;
  u.colStart.push_back(0);
  for (auto& column : columns) {
    std::shuffle(column.begin(), column.end(), rng);
    for (const auto& [row, value] : column) {
      u.rowIndex.push_back(row);
      u.values.push_back(value);
    }
    u.colStart.push_back(static_cast<int>(u.rowIndex.size()));
  }
  return u;
}

// y = A x straight from the stored triangle, mirrored.
std::vector<double> Multiply(const UpperColumns& u,
                             const std::vector<double>& x) {
  std::vector<double> y(x.size(), 0.0);
  for (size_t c = 0; c + 1 < u.colStart.size(); ++c) {
    for (int e = u.colStart[c]; e < u.colStart[c + 1]; ++e) {
      const size_t r = u.rowIndex[e];
      y[r] += u.values[e] * x[c];
      if (r != c) y[c] += u.values[e] * x[r];
    }
  }
  return y;
}

// Largest |A x - b| relative to the largest |b|.
double Residual(const UpperColumns& u, const std::vector<double>& x,
                const std::vector<double>& b) {
  const std::vector<double> ax = Multiply(u, x);
  double worst = 0.0, scale = 0.0;
  for (size_t i = 0; i < b.size(); ++i) {
    worst = std::max(worst, std::fabs(ax[i] - b[i]));
    scale = std::max(scale, std::fabs(b[i]));
  }
  return worst / scale;
}

// Entries of L, diagonal included, that elimination in the stored order
// fills in: the plainest symbolic factorisation, on a dense boolean matrix.
size_t NaiveFill(const UpperColumns& u) {
  const int n = static_cast<int>(u.colStart.size()) - 1;
  std::vector<std::vector<char>> filled(n, std::vector<char>(n, 0));
  for (int c = 0; c < n; ++c) {
    filled[c][c] = 1;
    for (int e = u.colStart[c]; e < u.colStart[c + 1]; ++e) {
      filled[c][u.rowIndex[e]] = 1;  // row c of L is column c of the triangle
    }
  }
  size_t count = 0;
  for (int j = 0; j < n; ++j) {
    std::vector<int> below;
    for (int i = j; i < n; ++i) {
      if (filled[i][j]) below.push_back(i);
    }
    count += below.size();
    for (int i : below) {
      for (int k : below) {
        if (k < i) filled[i][k] = 1;
      }
    }
  }
  return count;
}

std::vector<int> Identity(int n) {
  std::vector<int> p(n);
  std::iota(p.begin(), p.end(), 0);
  return p;
}

TEST(SupernodalLdlt, SolvesBandsComponentsAndDenseRowsInAnyOrder) {
  using Build = std::function<void(Symmetric&, std::mt19937&)>;
  const struct {
    const char* name;
    Build build;
  } cases[] = {
      {"one unknown", [](Symmetric& a, std::mt19937&) { a.diagonal = {-3.0}; }},
      {"diagonal",
       [](Symmetric& a, std::mt19937& r) { AddGrid(a, 7, 1, 0, 1.0, r); }},
      {"chain",
       [](Symmetric& a, std::mt19937& r) { AddGrid(a, 9, 1, 1, 1.0, r); }},
      {"band 7 x 5",
       [](Symmetric& a, std::mt19937& r) { AddGrid(a, 7, 5, 2, 1.0, r); }},
      {"band 33 x 21",
       [](Symmetric& a, std::mt19937& r) { AddGrid(a, 33, 21, 2, 1.0, r); }},
      {"components of both signs",
       [](Symmetric& a, std::mt19937& r) {
         AddGrid(a, 9, 7, 2, 1.0, r);
         AddGrid(a, 5, 1, 1, -1.0, r);
         AddGrid(a, 3, 1, 0, 1.0, r);
         AddGrid(a, 5, 5, 2, -1.0, r);
       }},
      {"dense row",
       [](Symmetric& a, std::mt19937& r) {
         AddGrid(a, 11, 9, 2, 1.0, r);
         AddGrid(a, 4, 3, 1, -1.0, r);
         AddHub(a, r);
       }},
      // One supernode wider than a panel of the dense kernel.
      {"dense 75",
       [](Symmetric& a, std::mt19937& r) { AddGrid(a, 75, 1, 74, 1.0, r); }},
  };
  std::mt19937 rng(20240611);  // fixed seed: a failure must replay
  for (const auto& c : cases) {
    Symmetric a;
    c.build(a, rng);
    const int n = static_cast<int>(a.diagonal.size());
    // The natural order keeps a band narrow; a random one fills it in.
    std::vector<int> shuffled = Identity(n);
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    for (const std::vector<int>& position : {Identity(n), shuffled}) {
      SCOPED_TRACE(testing::Message()
                   << c.name << ", n " << n
                   << (position == shuffled ? ", shuffled" : ", natural"));
      const UpperColumns u = ToUpperColumns(a, position, rng);
      std::vector<double> b(n);
      std::uniform_real_distribution<double> value(-2.0, 2.0);
      for (double& v : b) v = value(rng);

      SupernodalLdlt ldlt;
      ldlt.Analyze(n, u.colStart.data(), u.rowIndex.data());
      EXPECT_EQ(ldlt.Size(), n);
      EXPECT_EQ(ldlt.NonZeros(), NaiveFill(u));
      EXPECT_GE(ldlt.FactorEntries(), ldlt.NonZeros());
      EXPECT_LE(ldlt.FactorEntries(), static_cast<size_t>(n) * (n + 1) / 2);
      ASSERT_TRUE(ldlt.Factorize(u.values.data()));
      std::vector<double> x = b;
      ldlt.Solve(x.data());
      EXPECT_LT(Residual(u, x, b), 1e-13);

      // New values on the analysed pattern: nothing of the first
      // factorisation may linger.
      UpperColumns scaled = u;
      for (double& v : scaled.values) v *= -3.0;
      ASSERT_TRUE(ldlt.Factorize(scaled.values.data()));
      x = b;
      ldlt.Solve(x.data());
      EXPECT_LT(Residual(scaled, x, b), 1e-13);
    }
  }
}

// L0 D0 L0^T with L0 of random 0s and 1s and D0 all 1 but one 0: every
// intermediate value is a small integer, so elimination meets that zero
// exactly, in whichever panel it lies.
UpperColumns IntegerProduct(int n, int zeroAt, std::mt19937& rng) {
  std::vector<std::vector<double>> l(n, std::vector<double>(n, 0.0));
  for (int i = 0; i < n; ++i) {
    l[i][i] = 1.0;
    for (int j = 0; j < i; ++j) l[i][j] = rng() % 2;
  }
  UpperColumns u;
  u.colStart.push_back(0);
  for (int c = 0; c < n; ++c) {
    for (int r = 0; r <= c; ++r) {
      double sum = 0.0;
      for (int k = 0; k <= r; ++k) sum += k == zeroAt ? 0.0 : l[r][k] * l[c][k];
      u.rowIndex.push_back(r);
      u.values.push_back(sum);
    }
    u.colStart.push_back(static_cast<int>(u.rowIndex.size()));
  }
  return u;
}

TEST(SupernodalLdlt, ReportsAnExactlyZeroPivot) {
  std::mt19937 rng(7);
  const struct {
    const char* name;
    UpperColumns matrix;
  } cases[] = {
      {"zero", {{0, 1}, {0}, {0.0}}},
      {"singular 2 x 2", {{0, 1, 3}, {0, 0, 1}, {2.0, 2.0, 2.0}}},
      {"second of 3", IntegerProduct(3, 1, rng)},
      {"in the second panel", IntegerProduct(50, 41, rng)},
      {"last of 70", IntegerProduct(70, 69, rng)},
  };
  for (const auto& c : cases) {
    const int n = static_cast<int>(c.matrix.colStart.size()) - 1;
    SupernodalLdlt ldlt;
    ldlt.Analyze(n, c.matrix.colStart.data(), c.matrix.rowIndex.data());
    EXPECT_FALSE(ldlt.Factorize(c.matrix.values.data())) << c.name;
  }
  // The same integer construction without the zero factorises.
  const UpperColumns regular = IntegerProduct(50, -1, rng);
  SupernodalLdlt ldlt;
  ldlt.Analyze(50, regular.colStart.data(), regular.rowIndex.data());
  EXPECT_TRUE(ldlt.Factorize(regular.values.data()));
}

}  // namespace
