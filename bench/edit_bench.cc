#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "copy_reference.h"
#include "edit/cleanup_band.h"
#include "full_vs_band.h"
#include "softmatte/edit.h"

namespace {

constexpr int kWidth = 4032;  // a 12-megapixel phone photo
constexpr int kHeight = 3024;

// What the session cleans after upsampling: a large subject whose edge is a
// soft band some 30 pixels wide with a ragged, hair-like profile, a few holes
// inside it and scattered specks of false foreground around it.
const std::vector<unsigned char>& RealisticMatte() {
  static const std::vector<unsigned char> matte = [] {
    std::vector<unsigned char> m(static_cast<size_t>(kWidth) * kHeight);
    std::mt19937 rng(12);
    std::uniform_real_distribution<float> jitter(-6.0f, 6.0f);
    const float cx = kWidth * 0.5f;
    const float cy = kHeight * 0.55f;
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const float dx = (x - cx) / 1300.0f;
        const float dy = (y - cy) / 1100.0f;
        const float angle = std::atan2(dy, dx);
        const float edge = 1100.0f * (1.0f + 0.05f * std::sin(40.0f * angle));
        const float d = edge - std::sqrt(dx * dx + dy * dy) * 1100.0f;
        const float a = (d + jitter(rng)) / 30.0f;
        m[static_cast<size_t>(y) * kWidth + x] =
            static_cast<unsigned char>(std::clamp(a, 0.0f, 1.0f) * 255.0f);
      }
    }
    auto square = [&](int x0, int y0, int side, unsigned char v) {
      for (int y = y0; y < std::min(y0 + side, kHeight); ++y) {
        for (int x = x0; x < std::min(x0 + side, kWidth); ++x) {
          m[static_cast<size_t>(y) * kWidth + x] = v;
        }
      }
    };
    for (int i = 0; i < 400; ++i) {
      square(static_cast<int>(rng() % kWidth), static_cast<int>(rng() % 400),
             2 + static_cast<int>(rng() % 20), 200);
    }
    for (int i = 0; i < 50; ++i) {
      square(static_cast<int>(cx) - 400 + static_cast<int>(rng() % 800),
             static_cast<int>(cy) - 400 + static_cast<int>(rng() % 800),
             3 + static_cast<int>(rng() % 10), 0);
    }
    return m;
  }();
  return matte;
}

void BM_memcpy_matte(benchmark::State& state) {
  softmatte_bench::CopyEachIteration(state, RealisticMatte());
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
BENCHMARK(BM_memcpy_matte)->Unit(benchmark::kMillisecond);

// The exported smoothing and its band-only counterpart.
template <typename Smooth>
void BM_smooth(benchmark::State& state, Smooth smooth) {
  const int ksize = static_cast<int>(state.range(0));
  const std::vector<unsigned char>& src = RealisticMatte();
  std::vector<unsigned char> dst(src.size());
  for (auto _ : state) {
    smooth(src.data(), kWidth, kHeight, kWidth, dst.data(), kWidth, ksize);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
// 3 takes the dedicated 3x3 mean, larger windows the box mean.
BENCHMARK_CAPTURE(BM_smooth, mat_smooth_boundary, mat_smooth_boundary)
    ->ArgName("ksize")
    ->Arg(3)
    ->Arg(9)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_smooth, smooth_boundary_band, smooth_boundary_band)
    ->ArgName("ksize")
    ->Arg(3)
    ->Arg(9)
    ->Unit(benchmark::kMillisecond);

// The exported fragment removal and its run-based counterpart.
template <typename Erase>
void BM_erase(benchmark::State& state, Erase erase) {
  const std::vector<unsigned char>& src = RealisticMatte();
  std::vector<unsigned char> alpha(src.size());
  for (auto _ : state) {
    // The call erases in place: each run must see the specks again.
    state.PauseTiming();
    std::memcpy(alpha.data(), src.data(), src.size());
    state.ResumeTiming();
    erase(alpha.data(), kWidth, kHeight, kWidth, 0, 1);
    benchmark::DoNotOptimize(alpha.data());
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
BENCHMARK_CAPTURE(BM_erase, vm_erase_small_cc, vm_erase_small_cc)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_erase, erase_small_cc_runs, erase_small_cc_runs)
    ->Unit(benchmark::kMillisecond);

// The session's cleanup of a 12-megapixel matte (smoothing in place with a
// 3 x 3 mean, then keeping the largest fragment), by the exported functions
// and by the edge-only ones in the same run: their times, the ratio, each
// one's peak memory growth and whether the bytes agree (1) or not (0).
void BM_cleanup_band_vs_full_12MP(benchmark::State& state) {
  const std::vector<unsigned char>& src = RealisticMatte();
  auto full = [&](unsigned char* alpha) {
    std::memcpy(alpha, src.data(), src.size());
    mat_smooth_boundary(alpha, kWidth, kHeight, kWidth, alpha, kWidth, 3);
    vm_erase_small_cc(alpha, kWidth, kHeight, kWidth, 0, 1);
  };
  auto band = [&](unsigned char* alpha) {
    std::memcpy(alpha, src.data(), src.size());
    smooth_boundary_band(alpha, kWidth, kHeight, kWidth, alpha, kWidth, 3);
    erase_small_cc_runs(alpha, kWidth, kHeight, kWidth, 0, 1);
  };
  softmatte_bench::CompareFullAndBand(state, src.size(), full, band);
}
BENCHMARK(BM_cleanup_band_vs_full_12MP)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

}  // namespace
