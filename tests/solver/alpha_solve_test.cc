#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "softmatte/solver.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::RandomPlane;

constexpr unsigned char kUnknown = 128;

// Dense copy of the full symmetric matrix a stored triangle stands for.
std::vector<std::vector<double>> DenseMatrix(const mat_data& m) {
  std::vector<std::vector<double>> a(m.n, std::vector<double>(m.n, 0.0));
  for (int r = 0; r < m.n; ++r) {
    a[r][r] = m.values[m.rowStart[r] - 1];
    for (int e = m.rowStart[r]; e < m.rowStart[r + 1] - 1; ++e) {
      const int c = m.columns[e] - 1;
      a[r][c] = m.values[e];
      a[c][r] = m.values[e];
    }
  }
  return a;
}

// Gaussian elimination with partial pivoting; fine for the few hundred
// unknowns of these tests.
std::vector<double> DenseSolve(std::vector<std::vector<double>> a,
                               std::vector<double> b) {
  const int n = static_cast<int>(b.size());
  for (int c = 0; c < n; ++c) {
    int pivot = c;
    for (int r = c + 1; r < n; ++r) {
      if (std::fabs(a[r][c]) > std::fabs(a[pivot][c])) pivot = r;
    }
    std::swap(a[c], a[pivot]);
    std::swap(b[c], b[pivot]);
    for (int r = c + 1; r < n; ++r) {
      const double f = a[r][c] / a[c][c];
      if (f == 0.0) continue;
      for (int k = c; k < n; ++k) a[r][k] -= f * a[c][k];
      b[r] -= f * b[c];
    }
  }
  std::vector<double> x(n);
  for (int r = n - 1; r >= 0; --r) {
    double s = b[r];
    for (int k = r + 1; k < n; ++k) s -= a[r][k] * x[k];
    x[r] = s / a[r][r];
  }
  return x;
}

// A byte conversion is only checked exactly where the reference solution is
// not within reach of a rounding boundary: two solvers may land on either
// side of it.
bool NearBoundary(double scaled) {
  return std::fabs(scaled - std::round(scaled)) < 1e-6;
}

unsigned char Rounded(double x) {
  return static_cast<unsigned char>(
      std::min(255.0, std::max(0.0, std::floor(x * 255.0 + 0.5))));
}

unsigned char Truncated(double x) {
  return static_cast<unsigned char>(
      std::min(255.0, std::max(0.0, std::trunc(x * 255.0))));
}

TEST(MatGetAlpha, RoundsHalfUpAndClamps) {
  const double x[] = {0.999, -0.01, 1.2,  0.0,        1.0,
                      0.5,   -7.0,  1e30, 0.6 / 255., 254.49 / 255.};
  const unsigned char want[] = {255, 0, 255, 0, 255, 128, 0, 255, 1, 254};
  const int n = 10;
  std::vector<unsigned char> packed(n + 2, kSentinel);
  EXPECT_EQ(_mat_get_alpha(packed.data(), x, nullptr, n), packed.data() + n);
  // Scattered through pixelOf into a larger plane, the rest untouched.
  const int pixelOf[] = {3, 17, 0, 9, 21, 5, 12, 8, 1, 30};
  std::vector<unsigned char> plane(32, kSentinel);
  EXPECT_EQ(_mat_get_alpha(plane.data(), x, pixelOf, n), plane.data());
  for (int k = 0; k < n; ++k) {
    EXPECT_EQ(packed[k], want[k]) << "x = " << x[k];
    EXPECT_EQ(plane[pixelOf[k]], want[k]) << "x = " << x[k];
  }
  EXPECT_EQ(packed[n], kSentinel);
  int touched = 0;
  for (unsigned char v : plane) touched += v != kSentinel;
  EXPECT_EQ(touched, n);
}

// Five pixels in a row, a whole-image problem made by hand: pixel 1 is
// coupled to pixel 0 with weight a and to pixel 2 with weight b, so with 0
// pinned to 1 and 2 pinned to 0 it settles near a / (a + b). Pixel 3 hangs
// on pixel 2 and stays out of a masked solve around pixel 1.
void ChainProblem(double a, double b, mat_data& m) {
  m.create(5);
  const double weight[4] = {a, b, 0.7, 0.3};
  int pos = 1;
  for (int k = 0; k < 5; ++k) {
    m.rowStart[k] = pos;
    const double left = k > 0 ? weight[k - 1] : 0.0;
    const double right = k < 4 ? weight[k] : 0.0;
    m.values[pos - 1] = left + right;
    m.columns[pos - 1] = k + 1;
    ++pos;
    if (k < 4) {
      m.values[pos - 1] = -right;
      m.columns[pos - 1] = k + 2;
      ++pos;
    }
  }
  m.rowStart[5] = pos;
}

TEST(MatRun, RoundsWhereMaskedSolveTruncates) {
  struct Case {
    double a, b;
    unsigned char rounded, truncated;
  };
  // 0.999 * 255 = 254.745; negative weights overshoot both ends.
  const Case cases[] = {
      {0.999, 0.001, 255, 254},
      {1.2, -0.2, 255, 255},
      {-0.01, 1.01, 0, 0},
      {0.3, 0.7, 77, 76},  // 76.52
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "a " << c.a << " b " << c.b);
    mat_data m;
    ChainProblem(c.a, c.b, m);
    const unsigned char trimap[5] = {255, kUnknown, 0, kUnknown, kUnknown};
    unsigned char alpha[5] = {1, 2, 3, 4, 5};
    ASSERT_EQ(mat_run(m, trimap, alpha, nullptr), 0);
    EXPECT_EQ(alpha[1], c.rounded);

    // The masked solve pins the ring around the mask to the current alpha.
    unsigned char mask[5] = {0, 1, 0, 0, 0};
    const unsigned char none[5] = {0, 0, 0, 0, 0};
    unsigned char matte[5] = {255, 9, 0, 60, 70};
    ASSERT_EQ(mat_mask_run(m, none, 5, 1, 5, mask, 5, matte, 5, 0, 0.0), 0);
    EXPECT_EQ(matte[1], c.truncated);
    EXPECT_EQ(matte[3], 60);
    EXPECT_EQ(matte[4], 70);
  }
}

TEST(MatRun, ReportsUnknownCountAndSkipsEmptyProblem) {
  mat_data empty;
  unsigned char alpha[2] = {7, 8};
  const unsigned char trimap[2] = {0, 255};
  testing::internal::CaptureStdout();
  EXPECT_EQ(mat_run(empty, trimap, alpha, nullptr), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nnp=0");
  EXPECT_EQ(alpha[0], 7);

  mat_data m;
  ChainProblem(0.5, 0.5, m);
  unsigned char five[5] = {0, 0, 0, 0, 0};
  const unsigned char tri5[5] = {255, kUnknown, 0, kUnknown, kUnknown};
  testing::internal::CaptureStdout();
  mat_run(m, tri5, five, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("\nnp=5", 0), 0u);
}

// A matting problem over a random image, built the way the session does.
struct Band {
  int width = 0, height = 0;
  std::vector<unsigned char> image;
  std::vector<unsigned char> mask;
  mat_data problem;
};

void MakeBand(int width, int height, uint32_t seed, Band& b) {
  b.width = width;
  b.height = height;
  const int stride = 3 * width + 1;
  b.image = RandomPlane(3 * width, height, stride, seed);
  b.mask.assign(static_cast<size_t>(width) * height, 0);
  for (int y = height / 4; y < height * 3 / 4; ++y) {
    for (int x = width / 3; x < width * 2 / 3 + y % 3; ++x) {
      b.mask[static_cast<size_t>(y) * width + x] = 255;
    }
  }
  mat_update(b.image.data(), width, height, stride, b.mask.data(), width,
             b.problem, b.problem, nullptr);
}

// Unknown pixels of the trimap where the mask is set, plus a few in the
// ring, which the solve pins to their old alpha; the rest known, including
// values other than 0 and 255.
std::vector<unsigned char> MakeTrimap(const Band& b, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<unsigned char> trimap(b.mask.size());
  for (size_t p = 0; p < trimap.size(); ++p) {
    if (b.mask[p] != 0 && rng() % 6 != 0) {
      trimap[p] = kUnknown;
    } else if (rng() % 4 == 0) {
      trimap[p] = kUnknown;
    } else {
      const unsigned char known[] = {0, 255, 127, 129, 40};
      trimap[p] = known[rng() % 5];
    }
  }
  return trimap;
}

TEST(MatRun, MatchesDenseSolveWithPinnedKnownsAndRing) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    Band b;
    MakeBand(15 + 2 * static_cast<int>(seed), 11, seed, b);
    const std::vector<unsigned char> trimap = MakeTrimap(b, seed + 10);
    std::vector<unsigned char> alpha =
        RandomPlane(b.width, b.height, b.width, seed + 20);
    const std::vector<unsigned char> before = alpha;
    const std::vector<unsigned char> ringBefore(b.problem.flags,
                                                b.problem.flags + b.problem.n);
    const std::vector<double> valuesBefore(
        b.problem.values,
        b.problem.values + b.problem.rowStart[b.problem.n] - 1);

    const int n = b.problem.n;
    std::vector<std::vector<double>> a = DenseMatrix(b.problem);
    std::vector<double> rhs(n, 0.0);
    int pinnedToAlpha = 0;
    for (int k = 0; k < n; ++k) {
      const int p = b.problem.pixelOf[k];
      if (trimap[p] != kUnknown) {
        a[k][k] += 1000.0;
        rhs[k] = trimap[p] * 1000.0 / 255.0;
      } else if (ringBefore[k] == 1) {
        a[k][k] += 1000.0;
        rhs[k] = before[p] * 1000.0 / 255.0;
        ++pinnedToAlpha;
      }
    }
    ASSERT_GT(pinnedToAlpha, 0);
    const std::vector<double> x = DenseSolve(a, rhs);

    ASSERT_EQ(mat_run(b.problem, trimap.data(), alpha.data(), nullptr), 0);
    std::vector<bool> solved(alpha.size(), false);
    for (int k = 0; k < n; ++k) {
      const int p = b.problem.pixelOf[k];
      solved[p] = true;
      if (!NearBoundary(x[k] * 255.0 + 0.5)) {
        EXPECT_EQ(alpha[p], Rounded(x[k])) << "unknown " << k;
      }
      // Known pixels lose their ring mark; open ring pixels keep it.
      EXPECT_EQ(b.problem.flags[k], trimap[p] != kUnknown ? 0 : ringBefore[k]);
    }
    for (size_t p = 0; p < alpha.size(); ++p) {
      if (!solved[p]) {
        EXPECT_EQ(alpha[p], before[p]) << "pixel " << p;
      }
    }
    for (size_t e = 0; e < valuesBefore.size(); ++e) {
      EXPECT_NEAR(b.problem.values[e], valuesBefore[e], 1e-9) << "entry " << e;
    }
  }
}

TEST(MatRun, SecondSolveOfSameRecordGivesSameAlpha) {
  Band b;
  MakeBand(23, 17, 8, b);
  const std::vector<unsigned char> trimap = MakeTrimap(b, 9);
  const std::vector<unsigned char> start =
      RandomPlane(b.width, b.height, b.width, 10);
  std::vector<unsigned char> first = start, second = start;
  ASSERT_EQ(mat_run(b.problem, trimap.data(), first.data(), nullptr), 0);
  ASSERT_EQ(mat_run(b.problem, trimap.data(), second.data(), nullptr), 0);
  EXPECT_EQ(first, second);
}

// The expanded system the driver solves is the full symmetric matrix of the
// triangle: multiplying it by the solution gives the right-hand side back.
TEST(MatRun, DriverSolutionSatisfiesTheFullSystem) {
  Band b;
  MakeBand(31, 21, 12, b);
  mat_data& m = b.problem;
  std::mt19937 rng(13);
  std::uniform_real_distribution<double> value(0.0, 1000.0);
  for (int k = 0; k < m.n; ++k) {
    if (m.flags[k]) m.values[m.rowStart[k] - 1] += 1000.0;
    m.rhs[k] = m.flags[k] ? value(rng) : 0.0;
  }
  std::vector<double> x(m.n);
  ASSERT_EQ(mn_sparse_solve_d(m.values, m.columns, m.rowStart, m.n, 4, m.rhs,
                              x.data()),
            0);
  std::vector<double> product(m.n, 0.0);
  for (int r = 0; r < m.n; ++r) {
    product[r] += m.values[m.rowStart[r] - 1] * x[r];
    for (int e = m.rowStart[r]; e < m.rowStart[r + 1] - 1; ++e) {
      const int c = m.columns[e] - 1;
      product[r] += m.values[e] * x[c];
      product[c] += m.values[e] * x[r];
    }
  }
  for (int r = 0; r < m.n; ++r) {
    EXPECT_NEAR(product[r], m.rhs[r], 1e-8 * (1.0 + std::fabs(m.rhs[r])));
  }
}

TEST(MatRun, TrimapWithoutUnknownsComesBack) {
  const int width = 13, height = 9;
  const std::vector<unsigned char> image =
      RandomPlane(3 * width, height, 3 * width + 3, 21);
  mat_data m;
  mat_init(image.data(), width, height, 3 * width + 3, m, nullptr);
  std::vector<unsigned char> trimap = RandomPlane(width, height, width, 22);
  for (auto& v : trimap) {
    if (v == kUnknown) v = 0;
  }
  std::vector<unsigned char> alpha(trimap.size(), 1);
  ASSERT_EQ(mat_run(m, trimap.data(), alpha.data(), nullptr), 0);
  for (size_t p = 0; p < alpha.size(); ++p) {
    EXPECT_LE(std::abs(alpha[p] - trimap[p]), 1) << "pixel " << p;
  }
  // Without an alpha there is nowhere to write; the record still recovers.
  const std::vector<double> values(m.values, m.values + m.rowStart[m.n] - 1);
  ASSERT_EQ(mat_run(m, trimap.data(), nullptr, nullptr), 0);
  for (size_t e = 0; e < values.size(); ++e) {
    EXPECT_NEAR(m.values[e], values[e], 1e-9);
  }
}

TEST(MatMaskRun, MatchesDenseSolveOfTheMaskedRegion) {
  const int width = 17, height = 12;
  const int maskStride = width + 3, constraintStride = width + 5,
            alphaStride = width + 7;
  const std::vector<unsigned char> image =
      RandomPlane(3 * width, height, 3 * width, 31);
  mat_data m;
  mat_init(image.data(), width, height, 3 * width, m, nullptr);

  std::mt19937 rng(32);
  std::vector<unsigned char> mask(static_cast<size_t>(maskStride) * height,
                                  kSentinel);
  std::vector<unsigned char> constraint(
      static_cast<size_t>(constraintStride) * height, kSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      // A blob touching the left edge, and a lone pixel.
      const bool in = (x < 7 && y > 2 && y < 9) || (x == 13 && y == 5);
      mask[y * maskStride + x] = in ? 1 + rng() % 200 : 0;
      constraint[y * constraintStride + x] =
          rng() % 3 == 0 ? static_cast<unsigned char>(rng()) : 0;
    }
  }
  std::vector<unsigned char> alpha =
      RandomPlane(width, height, alphaStride, 33);
  const std::vector<unsigned char> before = alpha;
  const std::vector<unsigned char> maskBefore = mask;

  // The region: the mask grown by one pixel; free where the mask is set and
  // the constraint 0, pinned elsewhere (to the constraint inside the mask,
  // to the current alpha outside).
  std::vector<int> pixels;
  std::vector<double> target;
  std::vector<bool> pinned;
  std::vector<int> number(static_cast<size_t>(width) * height, -1);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      bool near = false;
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          const int qx = x + dx, qy = y + dy;
          near |= qx >= 0 && qy >= 0 && qx < width && qy < height &&
                  maskBefore[qy * maskStride + qx] != 0;
        }
      }
      if (!near) continue;
      const bool inMask = maskBefore[y * maskStride + x] != 0;
      const unsigned char c = constraint[y * constraintStride + x];
      number[y * width + x] = static_cast<int>(pixels.size());
      pixels.push_back(y * width + x);
      pinned.push_back(!inMask || c != 0);
      target.push_back(inMask && c != 0 ? c : before[y * alphaStride + x]);
    }
  }
  const int n = static_cast<int>(pixels.size());
  const std::vector<std::vector<double>> whole = DenseMatrix(m);
  std::vector<std::vector<double>> a(n, std::vector<double>(n, 0.0));
  std::vector<double> rhs(n, 0.0);
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      if (i == j) continue;
      const double w = whole[pixels[i]][pixels[j]];
      a[i][j] = w;
      a[i][i] -= w;
    }
    if (pinned[i]) {
      a[i][i] += 1000.0;
      rhs[i] = target[i] / 255.0 * 1000.0;
    }
  }
  const std::vector<double> x = DenseSolve(a, rhs);

  ASSERT_EQ(
      mat_mask_run(m, constraint.data(), width, height, constraintStride,
                   mask.data(), maskStride, alpha.data(), alphaStride, 0, 0.0),
      0);
  EXPECT_EQ(mask, maskBefore);
  EXPECT_TRUE(softmatte_test::PaddingIntact(alpha, width, height, alphaStride));
  for (int y = 0; y < height; ++y) {
    for (int x0 = 0; x0 < width; ++x0) {
      const int k = number[y * width + x0];
      const unsigned char got = alpha[y * alphaStride + x0];
      if (k < 0) {
        EXPECT_EQ(got, before[y * alphaStride + x0]) << x0 << ", " << y;
      } else if (!NearBoundary(x[k] * 255.0)) {
        EXPECT_EQ(got, Truncated(x[k])) << x0 << ", " << y;
      }
    }
  }
}

TEST(MatMaskRun, NothingToSolve) {
  mat_data m;
  ChainProblem(0.5, 0.5, m);
  unsigned char mask[5] = {0, 0, 0, 0, 0};
  unsigned char alpha[5] = {1, 2, 3, 4, 5};
  EXPECT_EQ(mat_mask_run(m, mask, 5, 1, 5, mask, 5, alpha, 5, 0, 0.0), 0);
  EXPECT_EQ(mat_mask_run(m, mask, 0, 1, 5, mask, 5, alpha, 5, 0, 0.0), 0);
  EXPECT_EQ(alpha[2], 3);
}

// A real photo with its trimap, solved at full resolution exactly as the
// session solves its working image. The measured SADs of this arithmetic
// are 1.668 (GT01) and 2.435 (GT05); the bounds leave about 4% for other
// SuperLU or BLAS builds, far less than what a wrong window statistic, ring
// or constraint costs.
TEST(MatRun, SolvesRealPhotosWithinMeasuredSad) {
  const struct {
    int index;
    double bound;
  } photos[] = {{1, 1.74}, {5, 2.53}};
  for (const auto& photo : photos) {
    softmatte_test::MattingSample sample;
    if (!softmatte_test::LoadMattingSample(photo.index, false, &sample)) {
      GTEST_SKIP() << "alphamatting photos not found beside the project";
    }
    const int w = sample.image.width, h = sample.image.height;
    std::vector<unsigned char> mask(sample.trimap.pixels.size());
    for (size_t p = 0; p < mask.size(); ++p) {
      mask[p] = sample.trimap.pixels[p] == kUnknown ? 255 : 0;
    }
    mat_data problem;
    mat_update(sample.image.pixels.data(), w, h, 3 * w, mask.data(), w, problem,
               problem, nullptr);
    std::vector<unsigned char> alpha = sample.trimap.pixels;
    ASSERT_EQ(
        mat_run(problem, sample.trimap.pixels.data(), alpha.data(), nullptr),
        0);
    const double sad = softmatte_test::SadOverUnknown(alpha, sample);
    EXPECT_LT(sad, photo.bound) << sample.name;
    std::printf("\n%s SAD %.3f\n", sample.name.c_str(), sad);
  }
}

}  // namespace
