#include "solver/supernodal_ldlt.h"

#include <gtest/gtest.h>

#include <Eigen/Sparse>
#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <tuple>
#include <vector>

namespace {

// A symmetric matrix as its diagonal and its couplings (i != j, each pair
// once), numbered as the caller of the factorisation numbers it.
struct Symmetric {
  std::vector<double> diagonal;
  std::vector<std::tuple<int, int, double>> couplings;
};

// Pixels of a width x height band, each coupled to those within `reach`
// rows and columns (reach 2: the 5 x 5 stencil of 3 x 3 windows). The
// diagonal outweighs the couplings, so that every pivot is far from zero;
// sign -1 makes the block negative definite.
struct Grid {
  int width, height, reach;
  double sign;
};
void AddGrid(Symmetric& a, const Grid& g, std::mt19937& rng) {
  const auto [width, height, reach, sign] = g;
  std::uniform_real_distribution<double> weight(-1.0, 1.0);
  const int base = static_cast<int>(a.diagonal.size());
  a.diagonal.resize(base + width * height, 0.0);
  for (int p = 0; p < width * height; ++p) {
    const int x = p % width, y = p / width;
    for (int dy = 0; dy <= reach && y + dy < height; ++dy) {
      for (int dx = -reach; dx <= reach; ++dx) {
        if ((dy == 0 && dx <= 0) || x + dx < 0 || x + dx >= width) continue;
        const int q = base + p + dy * width + dx;
        const double w = sign * weight(rng);
        a.couplings.emplace_back(base + p, q, w);
        a.diagonal[base + p] += std::fabs(w);
        a.diagonal[q] += std::fabs(w);
      }
    }
  }
  for (int k = base; k < base + width * height; ++k) {
    a.diagonal[k] = sign * (a.diagonal[k] + 0.5);
  }
}

// The upper triangle in compressed columns, unknown k at position[k]; rows
// come in random order within a column, and some couplings are stored as
// two entries that add up to them. full: the same as Eigen's own sparse
// matrix, duplicates summed.
struct UpperColumns {
  std::vector<int> colStart, rowIndex;
  std::vector<double> values;
  Eigen::SparseMatrix<double> full;
};

UpperColumns ToUpperColumns(const Symmetric& a,
                            const std::vector<int>& position,
                            std::mt19937& rng) {
  const int n = static_cast<int>(a.diagonal.size());
  std::vector<std::vector<std::pair<int, double>>> columns(n);
  for (int k = 0; k < n; ++k) {
    columns[position[k]].push_back({position[k], a.diagonal[k]});
  }
  for (const auto& [i, j, value] : a.couplings) {
    const int p = std::min(position[i], position[j]);
    const int q = std::max(position[i], position[j]);
    const bool split = rng() % 5 == 0;
    if (split) columns[q].push_back({p, 0.25 * value});
    columns[q].push_back({p, (split ? 0.75 : 1.0) * value});
  }
  UpperColumns u{{0}, {}, {}, Eigen::SparseMatrix<double>(n, n)};
  std::vector<Eigen::Triplet<double>> entries;
  for (int c = 0; c < n; ++c) {
    std::shuffle(columns[c].begin(), columns[c].end(), rng);
    for (const auto& [row, value] : columns[c]) {
      u.rowIndex.push_back(row);
      u.values.push_back(value);
      entries.emplace_back(row, c, value);
    }
    u.colStart.push_back(static_cast<int>(u.rowIndex.size()));
  }
  u.full.setFromTriplets(entries.begin(), entries.end());
  return u;
}

TEST(SupernodalLdlt, SolvesBandsComponentsAndDenseRowsInAnyOrder) {
  const struct {
    const char* name;
    std::vector<Grid> grids;
    bool hub;  // one more unknown coupled to every other: a dense row
  } cases[] = {
      {"one unknown", {{1, 1, 0, -1.0}}, false},
      {"band 33 x 21", {{33, 21, 2, 1.0}}, false},
      {"components of both signs",
       {{9, 7, 2, 1.0}, {5, 1, 1, -1.0}, {3, 1, 0, 1.0}, {5, 5, 2, -1.0}},
       false},
      {"dense row", {{11, 9, 2, 1.0}, {4, 3, 1, -1.0}}, true},
      // One supernode wider than a panel of the dense kernel.
      {"dense 75", {{75, 1, 74, 1.0}}, false},
  };
  std::mt19937 rng(20240611);  // fixed seed: a failure must replay
  for (const auto& c : cases) {
    Symmetric a;
    for (const Grid& g : c.grids) AddGrid(a, g, rng);
    if (c.hub) {
      const int hub = static_cast<int>(a.diagonal.size());
      a.diagonal.push_back(1.0);
      for (int k = 0; k < hub; ++k) {
        const double w = std::uniform_real_distribution<double>(0.01, 0.1)(rng);
        a.couplings.emplace_back(k, hub, w);
        a.diagonal[hub] += w;
        a.diagonal[k] += a.diagonal[k] > 0 ? w : -w;
      }
    }
    const int n = static_cast<int>(a.diagonal.size());
    // The natural order keeps a band narrow; a random one fills it in.
    std::vector<int> natural(n);
    std::iota(natural.begin(), natural.end(), 0);
    std::vector<int> shuffled = natural;
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    for (const std::vector<int>& position : {natural, shuffled}) {
      SCOPED_TRACE(testing::Message() << c.name << (position == shuffled));
      UpperColumns u = ToUpperColumns(a, position, rng);
      Eigen::VectorXd b(n);
      for (double& v : b) v = std::uniform_real_distribution<>(-2, 2)(rng);
      SupernodalLdlt ldlt;
      ldlt.Analyze(n, u.colStart.data(), u.rowIndex.data());
      EXPECT_EQ(ldlt.Size(), n);
      // Then new values on the analysed pattern: nothing of the first
      // factorisation may linger. Eigen's simplicial factor in the same
      // order fills in the same entries (it keeps the unit diagonal apart).
      for (const double scale : {1.0, -3.0}) {
        for (double& v : u.values) v *= scale;
        u.full *= scale;
        Eigen::SimplicialLDLT<Eigen::SparseMatrix<double>, Eigen::Upper,
                              Eigen::NaturalOrdering<int>>
            reference(u.full);
        EXPECT_EQ(ldlt.NonZeros(),
                  reference.matrixL().nestedExpression().nonZeros() + n);
        ASSERT_TRUE(ldlt.Factorize(u.values.data()));
        Eigen::VectorXd x = b;
        ldlt.Solve(x.data());
        const Eigen::VectorXd r =
            u.full.selfadjointView<Eigen::Upper>() * x - b;
        EXPECT_LT(r.lpNorm<Eigen::Infinity>() / b.lpNorm<Eigen::Infinity>(),
                  1e-13)
            << "scale " << scale;
      }
    }
  }
}

// L0 D0 L0^T with L0 of random 0s and 1s and D0 all 1 but one 0 (none at
// -1): every intermediate value is a small integer, so elimination meets
// that zero exactly, in whichever panel it lies.
UpperColumns IntegerProduct(int n, int zeroAt, std::mt19937& rng) {
  Eigen::MatrixXd l = Eigen::MatrixXd::Identity(n, n);
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < i; ++j) l(i, j) = rng() % 2;
  }
  Eigen::VectorXd d = Eigen::VectorXd::Ones(n);
  if (zeroAt >= 0) d[zeroAt] = 0.0;
  const Eigen::MatrixXd a = l * d.asDiagonal() * l.transpose();
  UpperColumns u{{0}, {}, {}, {}};
  for (int c = 0; c < n; ++c) {
    for (int r = 0; r <= c; ++r) {
      u.rowIndex.push_back(r);
      u.values.push_back(a(r, c));
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
    bool regular;
  } cases[] = {
      {"zero", {{0, 1}, {0}, {0.0}, {}}, false},
      {"singular 2 x 2", {{0, 1, 3}, {0, 0, 1}, {2.0, 2.0, 2.0}, {}}, false},
      {"in the second panel", IntegerProduct(50, 41, rng), false},
      {"last of 70", IntegerProduct(70, 69, rng), false},
      {"no zero", IntegerProduct(50, -1, rng), true},
  };
  for (const auto& c : cases) {
    const int n = static_cast<int>(c.matrix.colStart.size()) - 1;
    SupernodalLdlt ldlt;
    ldlt.Analyze(n, c.matrix.colStart.data(), c.matrix.rowIndex.data());
    EXPECT_EQ(ldlt.Factorize(c.matrix.values.data()), c.regular) << c.name;
  }
}

}  // namespace
