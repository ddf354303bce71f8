#ifndef SOFTMATTE_BENCH_COPY_REFERENCE_H_
#define SOFTMATTE_BENCH_COPY_REFERENCE_H_

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace softmatte_bench {

// Copies src into a buffer of its size on every iteration: the yardstick the
// plane functions are compared with. The caller reports the counters, so
// each benchmark keeps its own unit.
inline void CopyEachIteration(benchmark::State& state,
                              const std::vector<unsigned char>& src) {
  std::vector<unsigned char> dst(src.size());
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
}

}  // namespace softmatte_bench

#endif  // SOFTMATTE_BENCH_COPY_REFERENCE_H_
