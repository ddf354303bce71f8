#include <cstdio>
#include <cstdlib>
#include <limits>
#include <vector>

#include "softmatte/solver.h"
#include "solver/fine_solve.h"

namespace {

constexpr unsigned char kUnknown = 128;
// Soft data constraint: large enough to pin a pixel, small enough to keep
// the factorisation well conditioned.
constexpr double kWeight = 1000.0;
constexpr double kInv255 = 0.00392156862745098;
constexpr int kStorage = 4;  // upper triangle, 1-based rows
constexpr unsigned char kPinnedMark = 2;

// Clamps first, so that no out-of-range double (or NaN, which becomes 0) is
// ever converted to int; truncation inside the range is the conversion's.
unsigned char ToByte(double v) {
  if (!(v > 0.0)) return 0;
  if (v >= 255.0) return 255;
  return static_cast<unsigned char>(static_cast<int>(v));
}

double& Diagonal(mat_data& m, int k) { return m.values[m.rowStart[k] - 1]; }

// Pins the known pixels softly, solves into x (nothing is solved without
// x) and restores the matrix. byFlags: the record's flags and pixel numbers
// say which pixels to pin, and a ring pixel the trimap leaves open keeps the
// alpha it had (when there is one); otherwise unknown k is pixel k.
int SolveExact(mat_data& problem, const unsigned char* trimap,
               const unsigned char* alpha, bool byFlags, double* x) {
  const int n = problem.n;
  if (byFlags) {
    for (int k = 0; k < n; ++k) {
      const int p = problem.pixelOf[k];
      if (trimap[p] != kUnknown) {
        Diagonal(problem, k) += kWeight;
        problem.rhs[k] = (trimap[p] * 1000) / 255.0;
        problem.flags[k] = kPinnedMark;
      } else if (alpha != nullptr && problem.flags[k] == 1) {
        Diagonal(problem, k) += kWeight;
        problem.rhs[k] = (alpha[p] * 1000) / 255.0;
      } else {
        problem.rhs[k] = 0.0;
      }
    }
  } else {
    for (int k = 0; k < n; ++k) {
      if (trimap[k] != kUnknown) {
        Diagonal(problem, k) += kWeight;
        problem.rhs[k] = (trimap[k] * 1000) / 255.0;
      } else {
        problem.rhs[k] = 0.0;
      }
    }
  }

  const int result =
      x == nullptr
          ? -1
          : mn_sparse_solve_d(problem.values, problem.columns, problem.rowStart,
                              n, kStorage, problem.rhs, x);

  if (byFlags) {
    for (int k = 0; k < n; ++k) {
      if (problem.flags[k] == 0) continue;
      Diagonal(problem, k) -= kWeight;
      // A known pixel drops its ring mark with the temporary one.
      problem.flags[k] &= static_cast<unsigned char>(~kPinnedMark);
    }
  } else {
    for (int k = 0; k < n; ++k) {
      if (trimap[k] != kUnknown) Diagonal(problem, k) -= kWeight;
    }
  }
  return result;
}

}  // namespace

unsigned char* _mat_get_alpha(unsigned char* alpha, const double* x,
                              const int* pixelOf, int n) {
  if (pixelOf != nullptr) {
    for (int k = 0; k < n; ++k) alpha[pixelOf[k]] = ToByte(x[k] * 255.0 + 0.5);
    return alpha;
  }
  for (int k = 0; k < n; ++k) *alpha++ = ToByte(x[k] * 255.0 + 0.5);
  return alpha;
}

int mat_run(mat_data& problem, const unsigned char* trimap,
            unsigned char* alpha, unsigned char* /*unused*/) {
  const int n = problem.n;
  std::printf("\nnp=%d", n);
  if (n < 1) return 0;
  // The record remembers which pixels it pinned through its flags; without
  // them (a whole-image problem) the trimap itself says so on the way back.
  const bool byFlags = alpha != nullptr && problem.flags != nullptr &&
                       problem.pixelOf != nullptr;
  double* solution = static_cast<double*>(
      std::malloc(sizeof(double) * static_cast<size_t>(n)));
  const int result = SolveExact(problem, trimap, alpha, byFlags, solution);
  if (result >= 0 && alpha != nullptr) {
    _mat_get_alpha(alpha, solution, problem.pixelOf, n);
  }
  std::free(solution);
  return result;
}

int mat_solve(mat_data& problem, const unsigned char* trimap,
              const unsigned char* alpha, double* x,
              const mat_options& options) {
  const int n = problem.n;
  if (n < 1) return 0;
  const bool byFlags = problem.flags != nullptr && problem.pixelOf != nullptr;
  if (options.solver != MAT_SOLVER_FINE) {
    return SolveExact(problem, trimap, alpha, byFlags, x);
  }
  // Known pixels are held exactly at their value; ring pixels the trimap
  // leaves open keep the alpha they had, as on the exact path.
  std::vector<double> pinned(n, std::numeric_limits<double>::quiet_NaN());
  for (int k = 0; k < n; ++k) {
    const int p = problem.pixelOf != nullptr ? problem.pixelOf[k] : k;
    if (trimap[p] != kUnknown) {
      pinned[k] = trimap[p] / 255.0;
    } else if (byFlags && alpha != nullptr && problem.flags[k] == 1) {
      pinned[k] = alpha[p] / 255.0;
    }
  }
  return SolvePinned(problem, pinned.data(), x);
}

int mat_run(mat_data& problem, const unsigned char* trimap,
            unsigned char* alpha, const mat_options& options) {
  if (options.solver != MAT_SOLVER_FINE) {
    return mat_run(problem, trimap, alpha, nullptr);
  }
  if (problem.n < 1) return 0;
  std::vector<double> x(problem.n);
  const int result = mat_solve(problem, trimap, alpha, x.data(), options);
  if (result >= 0 && alpha != nullptr) {
    _mat_get_alpha(alpha, x.data(), problem.pixelOf, problem.n);
  }
  return result;
}

int mat_mask_run(mat_data& problem, const unsigned char* constraint, int width,
                 int height, int constraintStride, unsigned char* mask,
                 int maskStride, unsigned char* alpha, int alphaStride,
                 int /*unused*/, double /*unused2*/) {
  if (width < 1 || height < 1) return 0;
  constexpr unsigned char kFree = 1;
  constexpr unsigned char kPinned = 2;

  // Labels on a grid with a one-pixel frame, so that the blocks around
  // border pixels need no clipping.
  const int pitch = width + 2;
  unsigned char* grid = static_cast<unsigned char*>(
      std::calloc(static_cast<size_t>(pitch) * (height + 2), 1));
  if (grid == nullptr) return 0;
  unsigned char* labels = grid + pitch + 1;
  for (int y = 0; y < height; ++y) {
    const unsigned char* m = mask + static_cast<size_t>(y) * maskStride;
    for (int x = 0; x < width; ++x) {
      if (m[x] == 0) continue;
      for (int dy = -1; dy <= 1; ++dy) {
        unsigned char* l = labels + (y + dy) * pitch + x;
        l[-1] = l[0] = l[1] = kPinned;
      }
    }
  }

  int count = 0;
  for (int y = 0; y < height; ++y) {
    const unsigned char* m = mask + static_cast<size_t>(y) * maskStride;
    const unsigned char* c =
        constraint + static_cast<size_t>(y) * constraintStride;
    unsigned char* a = alpha + static_cast<size_t>(y) * alphaStride;
    for (int x = 0; x < width; ++x) {
      unsigned char& l = labels[y * pitch + x];
      if (l != kPinned) continue;
      ++count;
      if (m[x] == 0) continue;  // ring pixel: pinned to the current alpha
      if (c[x] == 0) {
        l = kFree;
      } else {
        a[x] = c[x];
      }
    }
  }
  if (count == 0) {
    std::free(grid);
    return 0;
  }

  // Unknown number of every pixel of the image, -1 outside the sub-problem.
  const size_t pixels = static_cast<size_t>(width) * height;
  int* number = static_cast<int*>(std::malloc(sizeof(int) * pixels));
  double* diagonal = static_cast<double*>(
      std::calloc(static_cast<size_t>(count), sizeof(double)));
  double* solution = static_cast<double*>(
      std::malloc(sizeof(double) * static_cast<size_t>(count)));
  if (number == nullptr || diagonal == nullptr || solution == nullptr) {
    std::free(number);
    std::free(diagonal);
    std::free(solution);
    std::free(grid);
    return 0;
  }
  for (int y = 0, k = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      number[static_cast<size_t>(y) * width + x] =
          labels[y * pitch + x] != 0 ? k++ : -1;
    }
  }

  mat_data sub;
  sub.create(count);
  int pos = 1;
  for (size_t p = 0, k = 0; p < pixels; ++p) {
    if (number[p] < 0) continue;
    sub.rowStart[k] = pos;
    sub.columns[pos - 1] = static_cast<int>(k) + 1;
    ++pos;
    const int end = problem.rowStart[p + 1] - 1;
    for (int e = problem.rowStart[p]; e < end; ++e) {
      const size_t column = static_cast<size_t>(problem.columns[e]) - 1;
      if (column >= pixels || number[column] < 0) continue;
      const double v = problem.values[e];
      sub.values[pos - 1] = v;
      sub.columns[pos - 1] = number[column] + 1;
      ++pos;
      diagonal[k] -= v;
      diagonal[number[column]] -= v;
    }
    ++k;
  }
  sub.rowStart[count] = pos;

  for (int y = 0, k = 0; y < height; ++y) {
    const unsigned char* a = alpha + static_cast<size_t>(y) * alphaStride;
    for (int x = 0; x < width; ++x) {
      const unsigned char l = labels[y * pitch + x];
      if (l == 0) continue;
      solution[k] = a[x] * kInv255;
      sub.values[sub.rowStart[k] - 1] = diagonal[k];
      if (l == kPinned) {
        sub.values[sub.rowStart[k] - 1] += kWeight;
        sub.rhs[k] = a[x] * kInv255 * kWeight;
      } else {
        sub.rhs[k] = 0.0;
      }
      ++k;
    }
  }

  const int result = mn_sparse_solve_d(sub.values, sub.columns, sub.rowStart,
                                       count, kStorage, sub.rhs, solution);

  for (int y = 0, k = 0; y < height; ++y) {
    unsigned char* a = alpha + static_cast<size_t>(y) * alphaStride;
    for (int x = 0; x < width; ++x) {
      if (labels[y * pitch + x] == 0) continue;
      // Truncated, not rounded, unlike mat_run: kept as callers expect.
      a[x] = ToByte(solution[k++] * 255.0);
    }
  }

  std::free(solution);
  std::free(diagonal);
  std::free(number);
  std::free(grid);
  return result;
}

void SolveBand(const unsigned char* image, int width, int height, int stride,
               const unsigned char* mask, int maskStride,
               const unsigned char* trimap, unsigned char* alpha,
               const mat_options& options) {
  mat_data problem;
  mat_update(image, width, height, stride, mask, maskStride, problem, options);
  if (mat_run(problem, trimap, alpha, options) >= 0) return;
  problem.release();
  mat_update(image, width, height, stride, mask, maskStride, problem,
             mat_options());
  mat_run(problem, trimap, alpha, nullptr);
}
