#include <benchmark/benchmark.h>

#include <vector>

#include "copy_reference.h"
#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/utils.h"
#include "test_util.h"

namespace {

// A 12-megapixel colour photo reduced to the session's working size.
constexpr int kWidth = 4000;
constexpr int kHeight = 3000;
constexpr int kSmallWidth = 1000;
constexpr int kSmallHeight = 750;
constexpr size_t kPhotoBytes = static_cast<size_t>(kWidth) * kHeight * 3;

// Reference: copying the photo's bytes once.
void BM_utils_photo_memcpy(benchmark::State& state) {
  std::vector<unsigned char> src(kPhotoBytes);
  softmatte_test::FillRandom(src, 1);
  softmatte_bench::CopyEachIteration(state, src);
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(kPhotoBytes));
}
BENCHMARK(BM_utils_photo_memcpy)->Unit(benchmark::kMillisecond);

// Source bytes per second, comparable with the copy above.
void BM_fiuResize_photo(benchmark::State& state) {
  const int method = static_cast<int>(state.range(0));
  std::vector<unsigned char> src(kPhotoBytes);
  softmatte_test::FillRandom(src, 2);
  std::vector<unsigned char> dst(static_cast<size_t>(kSmallWidth) *
                                 kSmallHeight * 3);
  for (auto _ : state) {
    ff::fiuResize(src.data(), kWidth, kHeight, kWidth * 3, ff::kFormat8UC3,
                  dst.data(), kSmallWidth, kSmallHeight, kSmallWidth * 3,
                  method);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(kPhotoBytes));
}
BENCHMARK(BM_fiuResize_photo)
    ->ArgName("method")
    ->Arg(ff::kResizeBilinear)
    ->Arg(ff::kResizeCubic)
    ->Unit(benchmark::kMillisecond);

}  // namespace
