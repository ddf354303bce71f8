// The alpha solver on real photos at full resolution, with their trimaps:
// assembly (mat_update), the whole solve (mat_run), the parts of the solve
// that are ours rather than SuperLU's, and the fine solve's factorisation.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <vector>

#include "peak_memory.h"
#include "softmatte/solver.h"
#include "solver/sparse_expand.h"
#include "solver/supernodal_ldlt.h"
#include "test_util.h"

// Only the MPL-2.0 parts of Eigen, as in the library.
#define EIGEN_MPL2_ONLY
#include <Eigen/OrderingMethods>
#include <Eigen/SparseCholesky>
#include <Eigen/SparseCore>

namespace {

using softmatte_test::LoadMattingSample;
using softmatte_test::MattingSample;

constexpr unsigned char kUnknown = 128;

// A photo, its unknown mask, and the problem mat_update makes of them.
struct Photo {
  MattingSample sample;
  std::vector<unsigned char> mask;
  mat_data problem;
};

// 255 at the trimap's unknown pixels, the mask mat_update takes.
std::vector<unsigned char> UnknownMask(
    const std::vector<unsigned char>& trimap) {
  std::vector<unsigned char> mask(trimap.size());
  for (size_t p = 0; p < trimap.size(); ++p) {
    mask[p] = trimap[p] == kUnknown ? 255 : 0;
  }
  return mask;
}

Photo* LoadPhoto(int index) {
  static std::map<int, std::unique_ptr<Photo>> cache;
  auto it = cache.find(index);
  if (it != cache.end()) return it->second.get();
  auto photo = std::make_unique<Photo>();
  if (!LoadMattingSample(index, false, &photo->sample)) return nullptr;
  photo->mask = UnknownMask(photo->sample.trimap.pixels);
  const int w = photo->sample.image.width;
  mat_update(photo->sample.image.pixels.data(), w, photo->sample.image.height,
             3 * w, photo->mask.data(), w, photo->problem, photo->problem,
             nullptr);
  return cache.emplace(index, std::move(photo)).first->second.get();
}

void Assemble(Photo& photo, mat_data& out) {
  const int w = photo.sample.image.width;
  mat_update(photo.sample.image.pixels.data(), w, photo.sample.image.height,
             3 * w, photo.mask.data(), w, out, out, nullptr);
}

// Three photos whose solves take about a second each: GT19, GT01, GT02
// (29.5k, 44k and 68k unknowns).
const std::vector<long> kPhotos = {19, 1, 2};

void BM_mat_update(benchmark::State& state) {
  Photo* photo = LoadPhoto(static_cast<int>(state.range(0)));
  if (photo == nullptr) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  for (auto _ : state) {
    mat_data out;
    Assemble(*photo, out);
    benchmark::DoNotOptimize(out.values);
  }
  state.counters["unknowns"] = photo->problem.n;
}
BENCHMARK(BM_mat_update)
    ->ArgName("photo")
    ->ArgsProduct({kPhotos})
    ->Unit(benchmark::kMillisecond);

void BM_mat_run(benchmark::State& state) {
  Photo* photo = LoadPhoto(static_cast<int>(state.range(0)));
  if (photo == nullptr) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  std::vector<unsigned char> alpha = photo->sample.trimap.pixels;
  // The record's diagonal is restored after each solve, so a solve in a
  // forked child leaves the problem as it found it.
  const double peak =
      softmatte_bench::PeakGrowthMB(alpha.size(), [&](unsigned char* out) {
        mat_run(photo->problem, photo->sample.trimap.pixels.data(), out,
                nullptr);
      });
  for (auto _ : state) {
    // The record's diagonal is restored after each solve, so the same
    // problem is solved every time.
    const int result =
        mat_run(photo->problem, photo->sample.trimap.pixels.data(),
                alpha.data(), nullptr);
    benchmark::DoNotOptimize(result);
  }
  state.counters["unknowns"] = photo->problem.n;
  state.counters["peak_MB"] = peak;
  state.counters["SAD"] = softmatte_test::SadOverUnknown(alpha, photo->sample);
}
BENCHMARK(BM_mat_run)
    ->ArgName("photo")
    ->ArgsProduct({kPhotos})
    ->Unit(benchmark::kMillisecond);

// Assembly and solve by the exact path (0) and the fine one (1, at its
// default regulariser) on the same photos, fresh each time as a caller
// meets them: the time, the SAD over the trimap's unknown pixels and the
// growth of the peak resident set.
void BM_solve_exact_vs_fine(benchmark::State& state) {
  Photo* photo = LoadPhoto(static_cast<int>(state.range(0)));
  if (photo == nullptr) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  mat_options options;
  if (state.range(1) == 1) options.solver = MAT_SOLVER_FINE;
  const int w = photo->sample.image.width;
  const unsigned char* trimap = photo->sample.trimap.pixels.data();
  auto solve = [&](unsigned char* alpha) {
    mat_data problem;
    mat_update(photo->sample.image.pixels.data(), w, photo->sample.image.height,
               3 * w, photo->mask.data(), w, problem, options);
    mat_run(problem, trimap, alpha, options);
  };
  std::vector<unsigned char> alpha = photo->sample.trimap.pixels;
  for (auto _ : state) {
    solve(alpha.data());
    benchmark::DoNotOptimize(alpha.data());
  }
  state.counters["SAD"] = softmatte_test::SadOverUnknown(alpha, photo->sample);
  state.counters["peak_MB"] =
      softmatte_bench::PeakGrowthMB(alpha.size(), [&](unsigned char* out) {
        std::copy(alpha.begin(), alpha.end(), out);
        solve(out);
      });
}
BENCHMARK(BM_solve_exact_vs_fine)
    ->ArgNames({"photo", "fine"})
    ->ArgsProduct({kPhotos, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// The driver's own work before SuperLU: the upper triangle expanded to full
// compressed columns, on the matrix structure mat_run hands over.
void BM_expand_triangle(benchmark::State& state) {
  Photo* photo = LoadPhoto(static_cast<int>(state.range(0)));
  if (photo == nullptr) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  const mat_data& m = photo->problem;
  for (auto _ : state) {
    sparse_expand::CompressedColumns full;
    sparse_expand::ExpandUpperTriangle(m.values, m.columns, m.rowStart, m.n,
                                       &full);
    benchmark::DoNotOptimize(full.values);
    sparse_expand::Release(&full);
  }
  const double stored = m.rowStart[m.n] - 1;
  state.counters["unknowns"] = m.n;
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(stored * 12));
}
BENCHMARK(BM_expand_triangle)
    ->ArgName("photo")
    ->ArgsProduct({kPhotos})
    ->Unit(benchmark::kMillisecond);

// Reference for the expansion: copying the bytes of the stored triangle
// (values and columns) once.
void BM_memcpy_triangle(benchmark::State& state) {
  Photo* photo = LoadPhoto(static_cast<int>(state.range(0)));
  if (photo == nullptr) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  const mat_data& m = photo->problem;
  const size_t stored = static_cast<size_t>(m.rowStart[m.n] - 1);
  std::vector<double> values(stored);
  std::vector<int> columns(stored);
  for (auto _ : state) {
    std::memcpy(values.data(), m.values, stored * sizeof(double));
    std::memcpy(columns.data(), m.columns, stored * sizeof(int));
    benchmark::DoNotOptimize(values.data());
    benchmark::DoNotOptimize(columns.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(stored * 12));
}
BENCHMARK(BM_memcpy_triangle)
    ->ArgName("photo")
    ->ArgsProduct({kPhotos})
    ->Unit(benchmark::kMillisecond);

// The system the fine solve factorises on a photo: the trimap's undecided
// pixels coupled among themselves (the known ones only move to the
// right-hand side), upper triangle in 0-based compressed columns, in
// approximate minimum-degree order of the pixels (the fine solve orders
// 2 x 2 pixel blocks, with a little less fill).
using SparseMatrix = Eigen::SparseMatrix<double, Eigen::ColMajor, int>;

SparseMatrix* LoadBand(int index) {
  static std::map<int, std::unique_ptr<SparseMatrix>> cache;
  auto it = cache.find(index);
  if (it != cache.end()) return it->second.get();
  MattingSample sample;
  if (!LoadMattingSample(index, false, &sample)) return nullptr;
  const std::vector<unsigned char>& trimap = sample.trimap.pixels;
  const std::vector<unsigned char> mask = UnknownMask(trimap);
  mat_options options;
  options.solver = MAT_SOLVER_FINE;
  mat_data problem;
  const int w = sample.image.width;
  mat_update(sample.image.pixels.data(), w, sample.image.height, 3 * w,
             mask.data(), w, problem, options);
  std::vector<int> freeIndex(problem.n, -1);
  int n = 0;
  for (int k = 0; k < problem.n; ++k) {
    if (trimap[problem.pixelOf[k]] == kUnknown) freeIndex[k] = n++;
  }
  std::vector<Eigen::Triplet<double>> entries;
  for (int k = 0; k < problem.n; ++k) {
    const int fk = freeIndex[k];
    if (fk < 0) continue;
    for (int e = problem.rowStart[k] - 1; e < problem.rowStart[k + 1] - 1;
         ++e) {
      const int fc = freeIndex[problem.columns[e] - 1];
      if (fc >= 0) entries.emplace_back(fk, fc, problem.values[e]);
    }
  }
  SparseMatrix upper(n, n);
  upper.setFromTriplets(entries.begin(), entries.end());
  const SparseMatrix full = upper.selfadjointView<Eigen::Upper>();
  Eigen::SparseMatrix<float, Eigen::ColMajor, int> pattern = full.cast<float>();
  Eigen::PermutationMatrix<Eigen::Dynamic, Eigen::Dynamic, int> order;
  Eigen::internal::minimum_degree_ordering(pattern, order);
  auto band = std::make_unique<SparseMatrix>(n, n);
  band->selfadjointView<Eigen::Upper>() =
      upper.selfadjointView<Eigen::Upper>().twistedBy(order.inverse());
  band->makeCompressed();
  return cache.emplace(index, std::move(band)).first->second.get();
}

// Analysis and factorisation of a photo's band, as each fine solve does
// them, fresh memory included: the supernodal factorisation (1) against
// Eigen's simplicial LDL^T (0) on the same matrix, the ratio to watch.
void BM_fine_factorise(benchmark::State& state) {
  const SparseMatrix* band = LoadBand(static_cast<int>(state.range(0)));
  if (band == nullptr) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  const int n = static_cast<int>(band->rows());
  double entries = 0.0;
  if (state.range(1) != 0) {
    for (auto _ : state) {
      SupernodalLdlt ldlt;
      ldlt.Analyze(n, band->outerIndexPtr(), band->innerIndexPtr());
      benchmark::DoNotOptimize(ldlt.Factorize(band->valuePtr()));
      entries = static_cast<double>(ldlt.FactorEntries());
    }
  } else {
    for (auto _ : state) {
      Eigen::SimplicialLDLT<SparseMatrix, Eigen::Upper,
                            Eigen::NaturalOrdering<int>>
          ldlt(*band);
      benchmark::DoNotOptimize(ldlt.info());
      entries =
          static_cast<double>(ldlt.matrixL().nestedExpression().nonZeros() + n);
    }
  }
  state.counters["unknowns"] = n;
  state.counters["factor_entries"] = entries;
}
// GT01 and GT03: 38.6k and 121k undecided pixels.
BENCHMARK(BM_fine_factorise)
    ->ArgNames({"photo", "supernodal"})
    ->ArgsProduct({{1, 3}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// All 27 photos of the set, once: mean SAD over the trimaps' unknown pixels
// and the mean time of mat_update + mat_run. Several minutes; not for smoke
// runs.
void BM_solver_AllPhotos(benchmark::State& state) {
  if (softmatte_test::AlphamattingDir().empty()) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  double sadSum = 0.0, seconds = 0.0, cpuSeconds = 0.0, unknowns = 0.0;
  int photos = 0;
  for (auto _ : state) {
    for (int index = 1; index <= 27; ++index) {
      state.PauseTiming();
      MattingSample sample;
      const bool loaded = LoadMattingSample(index, false, &sample);
      const std::vector<unsigned char> mask = UnknownMask(sample.trimap.pixels);
      std::vector<unsigned char> alpha = sample.trimap.pixels;
      state.ResumeTiming();
      if (!loaded) continue;
      // Processor time too: on a shared machine the wall clock also counts
      // the other processes' turns.
      const std::clock_t cpuStart = std::clock();
      const auto start = std::chrono::steady_clock::now();
      mat_data problem;
      const int w = sample.image.width;
      mat_update(sample.image.pixels.data(), w, sample.image.height, 3 * w,
                 mask.data(), w, problem, problem, nullptr);
      mat_run(problem, sample.trimap.pixels.data(), alpha.data(), nullptr);
      seconds += std::chrono::duration<double>(
                     std::chrono::steady_clock::now() - start)
                     .count();
      cpuSeconds +=
          static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
      sadSum += softmatte_test::SadOverUnknown(alpha, sample);
      unknowns += problem.n;
      ++photos;
    }
  }
  if (photos == 0) return;
  state.counters["photos"] = photos;
  state.counters["mean_SAD"] = sadSum / photos;
  state.counters["mean_update_run_s"] = seconds / photos;
  state.counters["mean_update_run_cpu_s"] = cpuSeconds / photos;
  state.counters["mean_unknowns"] = unknowns / photos;
}
BENCHMARK(BM_solver_AllPhotos)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
