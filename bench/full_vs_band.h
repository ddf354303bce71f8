#ifndef SOFTMATTE_BENCH_FULL_VS_BAND_H_
#define SOFTMATTE_BENCH_FULL_VS_BAND_H_

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <vector>

#include "peak_memory.h"

namespace softmatte_bench {

// A whole-plane stage against its band-only counterpart, in the same run:
// each one's time, the ratio, each one's peak memory growth and whether
// their outputs (planes of `bytes` bytes) agree (1) or not (0). The band's
// output starts from `band_fill` so that bytes it fails to write show.
template <typename Full, typename Band>
void CompareFullAndBand(benchmark::State& state, size_t bytes, Full full,
                        Band band, unsigned char band_fill = 0) {
  std::vector<unsigned char> fullOut(bytes);
  std::vector<unsigned char> bandOut(bytes, band_fill);
  using Clock = std::chrono::steady_clock;
  double fullSeconds = 0;
  double bandSeconds = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    full(fullOut.data());
    const auto t1 = Clock::now();
    band(bandOut.data());
    const auto t2 = Clock::now();
    fullSeconds += std::chrono::duration<double>(t1 - t0).count();
    bandSeconds += std::chrono::duration<double>(t2 - t1).count();
    benchmark::DoNotOptimize(bandOut.data());
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["full_ms"] = 1e3 * fullSeconds / n;
  state.counters["band_ms"] = 1e3 * bandSeconds / n;
  state.counters["full_per_band"] = fullSeconds / bandSeconds;
  state.counters["identical"] = fullOut == bandOut ? 1 : 0;
  state.counters["full_peak_MB"] = PeakGrowthMB(bytes, full);
  state.counters["band_peak_MB"] = PeakGrowthMB(bytes, band);
}

}  // namespace softmatte_bench

#endif  // SOFTMATTE_BENCH_FULL_VS_BAND_H_
