#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "softmatte/solver.h"
#include "solver/sparse_expand.h"

// SuperLU 5.3's dgssvx returns early after a zero pivot and never frees the
// column-permuted copy of A that sp_preorder made; the singular-system test
// below reaches that path on purpose.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:sp_preorder\n";
}

namespace {

// A symmetric system as the matting builder stores it: upper triangle,
// 1-based compressed rows, diagonal first, later columns increasing.
struct Triangle {
  int n = 0;
  std::vector<double> values;
  std::vector<int> columns;
  std::vector<int> rowStart;
  std::vector<double> rhs;
};

// Off-diagonal pattern of a w x h image with the later pixels that can share
// a 3 x 3 window, the shape the matting systems have.
std::vector<std::vector<int>> StencilPattern(int w, int h) {
  const int dx[12] = {1, 2, -2, -1, 0, 1, 2, -2, -1, 0, 1, 2};
  const int dy[12] = {0, 0, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2};
  std::vector<std::vector<int>> later(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      for (int k = 0; k < 12; ++k) {
        const int nx = x + dx[k];
        const int ny = y + dy[k];
        if (nx >= 0 && nx < w && ny < h) {
          later[static_cast<size_t>(y) * w + x].push_back(ny * w + nx);
        }
      }
    }
  }
  return later;
}

// Up to 12 later columns per row, scattered anywhere after the diagonal.
std::vector<std::vector<int>> ScatteredPattern(int n, std::mt19937& rng) {
  std::vector<std::vector<int>> later(n);
  for (int r = 0; r < n; ++r) {
    const int room = std::min(12, n - 1 - r);
    const int want = room > 0 ? static_cast<int>(rng() % (room + 1)) : 0;
    while (static_cast<int>(later[r].size()) < want) {
      const int c = r + 1 + static_cast<int>(rng() % (n - 1 - r));
      if (std::find(later[r].begin(), later[r].end(), c) == later[r].end()) {
        later[r].push_back(c);
      }
    }
    std::sort(later[r].begin(), later[r].end());
  }
  return later;
}

// Nonzero off-diagonal values of either sign; each diagonal outweighs the
// rest of its full row, so the system is comfortably non-singular.
Triangle DominantTriangle(const std::vector<std::vector<int>>& later,
                          std::mt19937& rng) {
  std::uniform_real_distribution<double> magnitude(0.1, 1.0);
  std::uniform_real_distribution<double> any(-10.0, 10.0);
  const int n = static_cast<int>(later.size());
  std::vector<std::vector<double>> off(n);
  std::vector<double> rowSum(n, 0.0);
  for (int r = 0; r < n; ++r) {
    for (int c : later[r]) {
      const double v = (rng() & 1 ? 1.0 : -1.0) * magnitude(rng);
      off[r].push_back(v);
      rowSum[r] += std::fabs(v);
      rowSum[c] += std::fabs(v);
    }
  }
  Triangle t;
  t.n = n;
  t.rowStart.push_back(1);
  for (int r = 0; r < n; ++r) {
    t.values.push_back(rowSum[r] + magnitude(rng));
    t.columns.push_back(r + 1);
    for (size_t k = 0; k < later[r].size(); ++k) {
      t.values.push_back(off[r][k]);
      t.columns.push_back(later[r][k] + 1);
    }
    t.rowStart.push_back(static_cast<int>(t.values.size()) + 1);
    t.rhs.push_back(any(rng));
  }
  return t;
}

// The full matrix written out densely, straight from the triangle.
std::vector<double> DenseFull(const Triangle& t) {
  const size_t n = t.n;
  std::vector<double> a(n * n, 0.0);
  for (size_t r = 0; r < n; ++r) {
    for (int k = t.rowStart[r] - 1; k < t.rowStart[r + 1] - 1; ++k) {
      const size_t c = t.columns[k] - 1;
      a[r * n + c] = t.values[k];
      a[c * n + r] = t.values[k];
    }
  }
  return a;
}

int Solve(const Triangle& t, std::vector<double>* x) {
  return mn_sparse_solve_d(t.values.data(), t.columns.data(), t.rowStart.data(),
                           t.n, 4, t.rhs.data(), x->data());
}

TEST(ExpandUpperTriangle, MatchesDenseExpansionEntryByEntry) {
  std::mt19937 rng(20261121);
  std::vector<Triangle> cases;
  for (int n : {1, 2, 3, 13, 40, 150}) {
    cases.push_back(DominantTriangle(ScatteredPattern(n, rng), rng));
  }
  cases.push_back(DominantTriangle(StencilPattern(9, 7), rng));
  for (const Triangle& t : cases) {
    const int n = t.n;
    sparse_expand::CompressedColumns m;
    ASSERT_TRUE(sparse_expand::ExpandUpperTriangle(
        t.values.data(), t.columns.data(), t.rowStart.data(), n, &m));
    const int offDiagonal = t.rowStart[n] - 1 - n;
    EXPECT_EQ(m.nnz, n + 2 * offDiagonal) << "n " << n;
    ASSERT_EQ(m.colStart[0], 0);
    ASSERT_EQ(m.colStart[n], m.nnz);

    std::vector<double> rebuilt(static_cast<size_t>(n) * n, 0.0);
    for (int c = 0; c < n; ++c) {
      ASSERT_LE(m.colStart[c], m.colStart[c + 1]);
      for (int k = m.colStart[c]; k < m.colStart[c + 1]; ++k) {
        if (k > m.colStart[c]) {
          ASSERT_LT(m.rowIndex[k - 1], m.rowIndex[k])
              << "rows out of order in column " << c << ", n " << n;
        }
        ASSERT_GE(m.rowIndex[k], 0);
        ASSERT_LT(m.rowIndex[k], n);
        rebuilt[static_cast<size_t>(m.rowIndex[k]) * n + c] = m.values[k];
      }
    }
    // Every value is nonzero, so matching the dense matrix everywhere also
    // proves that no entry is missing or doubled.
    const std::vector<double> want = DenseFull(t);
    for (size_t i = 0; i < want.size(); ++i) {
      ASSERT_EQ(rebuilt[i], want[i])
          << "n " << n << " at row " << i / n << " column " << i % n;
    }
    sparse_expand::Release(&m);
  }
}

// Each case breaks one promise of the storage; the expansion must notice
// without reading outside the stored entries.
TEST(ExpandUpperTriangle, FlagsMalformedTrianglesByCount) {
  struct Case {
    const char* what;
    std::vector<int> rowStart;
    std::vector<int> columns;
  };
  const std::vector<Case> cases = {
      {"column past the last unknown", {1, 3, 4, 5}, {1, 4, 2, 3}},
      {"entry on the diagonal", {1, 3, 4, 5}, {1, 1, 2, 3}},
      {"entry left of the diagonal", {1, 2, 4, 5}, {1, 2, 1, 3}},
      {"row without its diagonal", {1, 3, 3, 4}, {1, 2, 3}},
      {"rows running backwards", {1, 3, 2, 4}, {1, 2, 3}},
      {"first row before the arrays", {0, 2, 3, 4}, {1, 2, 3}},
  };
  for (const Case& c : cases) {
    const std::vector<double> values(c.columns.size(), 1.0);
    sparse_expand::CompressedColumns m;
    ASSERT_TRUE(sparse_expand::ExpandUpperTriangle(
        values.data(), c.columns.data(), c.rowStart.data(), 3, &m));
    EXPECT_NE(m.colStart[3], m.nnz) << c.what;
    sparse_expand::Release(&m);
  }
}

TEST(MnSparseSolveD, OneUnknownGivesRhsOverDiagonal) {
  for (double diagonal : {1.0, 1000.0001, -3.5, 1e-6}) {
    Triangle t;
    t.n = 1;
    t.values = {diagonal};
    t.columns = {1};
    t.rowStart = {1, 2};
    t.rhs = {0.7};
    std::vector<double> x(1, 0.0);
    ASSERT_EQ(Solve(t, &x), 0);
    EXPECT_NEAR(x[0], 0.7 / diagonal, 1e-14 * std::fabs(0.7 / diagonal));
  }
}

TEST(MnSparseSolveD, FullMatrixTimesSolutionGivesRhs) {
  std::mt19937 rng(7);
  std::vector<Triangle> cases;
  for (int n : {2, 5, 31, 120}) {
    cases.push_back(DominantTriangle(ScatteredPattern(n, rng), rng));
  }
  for (int w : {1, 4, 11}) {
    cases.push_back(DominantTriangle(StencilPattern(w, 13), rng));
  }
  for (const Triangle& t : cases) {
    const size_t n = t.n;
    const std::vector<double> rhsBefore = t.rhs;
    std::vector<double> x(n, 0.0);
    testing::internal::CaptureStdout();
    const int result = Solve(t, &x);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "")
        << "a successful solve is silent";
    ASSERT_EQ(result, 0);
    // Equilibration works on a copy: the right-hand side is the caller's.
    EXPECT_EQ(t.rhs, rhsBefore);

    const std::vector<double> a = DenseFull(t);
    double rhsNorm = 0.0;
    for (double b : t.rhs) rhsNorm = std::max(rhsNorm, std::fabs(b));
    for (size_t r = 0; r < n; ++r) {
      double sum = 0.0;
      for (size_t c = 0; c < n; ++c) sum += a[r * n + c] * x[c];
      ASSERT_NEAR(sum, t.rhs[r], 1e-9 * rhsNorm) << "n " << n << " row " << r;
    }
  }
}

// A graph Laplacian without a data term: every row sums to zero. Small
// ones hit an exactly zero pivot, larger ones limp through on rounding;
// either way the call counts as a solve.
TEST(MnSparseSolveD, SingularSystemStillReturnsZero) {
  for (int w : {2, 3, 6}) {
    const std::vector<std::vector<int>> later = StencilPattern(w, w - 1);
    const int n = static_cast<int>(later.size());
    std::vector<double> degree(n, 0.0);
    for (int r = 0; r < n; ++r) {
      for (int c : later[r]) {
        degree[r] += 1.0;
        degree[c] += 1.0;
      }
    }
    Triangle t;
    t.n = n;
    t.rowStart.push_back(1);
    for (int r = 0; r < n; ++r) {
      t.values.push_back(degree[r]);
      t.columns.push_back(r + 1);
      for (int c : later[r]) {
        t.values.push_back(-1.0);
        t.columns.push_back(c + 1);
      }
      t.rowStart.push_back(static_cast<int>(t.values.size()) + 1);
      t.rhs.push_back(r % 2 ? 1.0 : 0.0);
    }
    std::vector<double> x(n, 0.0);
    EXPECT_EQ(Solve(t, &x), 0) << "n " << n;
  }
}

TEST(MnSparseSolveD, InconsistentTriangleIsRejectedWithMessage) {
  Triangle t;
  t.n = 3;
  t.values = {2.0, 0.5, 2.0, 2.0};
  t.columns = {1, 7, 2, 3};  // column 7 of a 3 x 3 system
  t.rowStart = {1, 3, 4, 5};
  t.rhs = {1.0, 1.0, 1.0};
  std::vector<double> x(3, -123.0);
  testing::internal::CaptureStdout();
  const int result = Solve(t, &x);
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "error number of unknowns");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(x, std::vector<double>(3, -123.0)) << "nothing is solved";

  // No unknowns is an empty solve, not an error.
  testing::internal::CaptureStdout();
  EXPECT_EQ(mn_sparse_solve_d(nullptr, nullptr, t.rowStart.data(), 0, 4,
                              nullptr, nullptr),
            0);
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// The solver's tuning values only count if SuperLU, which calls sp_ienv
// through its PLT, ends up in ours rather than its own.
TEST(SpIenv, OursIsTheDefinitionSuperLuBindsTo) {
  void* found = dlsym(RTLD_DEFAULT, "sp_ienv");
  ASSERT_NE(found, nullptr);
  Dl_info where;
  ASSERT_NE(dladdr(found, &where), 0);
  Dl_info self;
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&Solve), &self), 0);
  // A static build links our definition into this executable instead.
  const std::string object = where.dli_fname;
  EXPECT_TRUE(object.find("softmatte") != std::string::npos ||
              object == self.dli_fname)
      << "sp_ienv resolves to " << object;

  auto ienv = reinterpret_cast<int (*)(int)>(found);
  const int want[8] = {0, 12, 6, 100, 200, 60, 20, 10};
  for (int ispec = 0; ispec < 8; ++ispec) {
    EXPECT_EQ(ienv(ispec), want[ispec]) << "ispec " << ispec;
  }
  for (int ispec : {-1, 8, 100}) EXPECT_EQ(ienv(ispec), 0) << ispec;
}

// SuperLU's StatInit sizes its panel histogram from sp_ienv(1) and (2):
// 13 ints with our values, 21 with the library's own panel size of 20.
TEST(SpIenv, SuperLuSizesItsPanelHistogramWithOurValues) {
  // SuperLUStat_t's layout; the test does not see SuperLU's headers.
  struct Statistics {
    int* panelHisto;
    double* utime;
    float* ops;
    int tinyPivots;
    int refineSteps;
    int expansions;
  };
  using StatFunction = void (*)(Statistics*);
  auto init = reinterpret_cast<StatFunction>(dlsym(RTLD_DEFAULT, "StatInit"));
  auto release =
      reinterpret_cast<StatFunction>(dlsym(RTLD_DEFAULT, "StatFree"));
  if (init == nullptr || release == nullptr) {
    GTEST_SKIP() << "SuperLU's StatInit is not reachable from here";
  }
  Statistics stat = {};
  init(&stat);
  ASSERT_NE(stat.panelHisto, nullptr);
  const size_t bytes = malloc_usable_size(stat.panelHisto);
  EXPECT_GE(bytes, 13 * sizeof(int));
  EXPECT_LT(bytes, 21 * sizeof(int));
  release(&stat);
}

}  // namespace
