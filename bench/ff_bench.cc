#include <benchmark/benchmark.h>

#include <vector>

#include "copy_reference.h"
#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::RandomBytes;

// A 12-megapixel phone photo's plane.
constexpr int kWidth = 4000;
constexpr int kHeight = 3000;
// The working size the session reduces such a photo to.
constexpr int kSmallWidth = 1000;
constexpr int kSmallHeight = 750;

// The reference the filters are measured against: the same bytes copied.
void BM_memcpy(benchmark::State& state) {
  const size_t bytes = static_cast<size_t>(state.range(0));
  softmatte_bench::CopyEachIteration(state, RandomBytes(bytes, 1));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}
BENCHMARK(BM_memcpy)
    ->ArgName("bytes")
    ->Arg(kWidth* kHeight)
    ->Arg(kSmallWidth* kSmallHeight)
    ->Arg(kSmallWidth* kSmallHeight * 3)
    ->Unit(benchmark::kMicrosecond);

void BM_ipf_min_filter(benchmark::State& state) {
  const int ksize = static_cast<int>(state.range(0));
  const int channels = static_cast<int>(state.range(1));
  const int step = kWidth * channels;
  const std::vector<unsigned char> src =
      RandomBytes(static_cast<size_t>(step) * kHeight, 2);
  std::vector<unsigned char> dst(src.size());
  for (auto _ : state) {
    ff::ipf_min_filter(src.data(), kWidth, kHeight, step, channels, dst.data(),
                       step, ksize, 1, nullptr);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(src.size()));
}
BENCHMARK(BM_ipf_min_filter)
    ->ArgNames({"ksize", "channels"})
    ->ArgsProduct({{3, 15, 81}, {1}})
    ->Args({3, 3})
    ->Unit(benchmark::kMillisecond);

void BM_ipf_max_filter_border(benchmark::State& state) {
  const int ksize = static_cast<int>(state.range(0));
  const int margin = ksize;
  const int step = kWidth + 2 * margin;
  const std::vector<unsigned char> src =
      RandomBytes(static_cast<size_t>(step) * (kHeight + 2 * margin), 3);
  std::vector<unsigned char> dst(static_cast<size_t>(kWidth) * kHeight);
  int border[4] = {margin, margin, margin, margin};
  for (auto _ : state) {
    ff::ipf_max_filter(src.data() + static_cast<size_t>(margin) * step + margin,
                       kWidth, kHeight, step, 1, dst.data(), kWidth, ksize, 1,
                       border);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(dst.size()));
}
BENCHMARK(BM_ipf_max_filter_border)
    ->ArgName("ksize")
    ->Arg(3)
    ->Arg(81)
    ->Unit(benchmark::kMillisecond);

void BM_ipf_sum_filter(benchmark::State& state) {
  const int k = static_cast<int>(state.range(0));
  const std::vector<unsigned char> src =
      RandomBytes(static_cast<size_t>(kWidth) * kHeight, 4);
  std::vector<int> dst(src.size());
  for (auto _ : state) {
    ff::ipf_sum_filter(src.data(), kWidth, kHeight, kWidth, 1, dst.data(),
                       kWidth, k, k, nullptr);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(src.size()));
}
BENCHMARK(BM_ipf_sum_filter)
    ->ArgName("ksize")
    ->Arg(3)
    ->Arg(81)
    ->Unit(benchmark::kMillisecond);

// 8-bit in, 8-bit or integer out; the count plane is the filter's own.
void BM_ipf_mean_filter(benchmark::State& state) {
  const int k = static_cast<int>(state.range(0));
  const bool toBytes = state.range(1) != 0;
  const std::vector<unsigned char> src =
      RandomBytes(static_cast<size_t>(kWidth) * kHeight, 5);
  std::vector<int> dst(toBytes ? 0 : src.size());
  std::vector<unsigned char> dstBytes(toBytes ? src.size() : 0);
  for (auto _ : state) {
    if (toBytes) {
      ff::ipf_mean_filter(src.data(), kWidth, kHeight, kWidth, 1,
                          dstBytes.data(), kWidth, nullptr, 0, k, k, nullptr);
      benchmark::DoNotOptimize(dstBytes.data());
    } else {
      ff::ipf_mean_filter(src.data(), kWidth, kHeight, kWidth, 1, dst.data(),
                          kWidth, nullptr, 0, k, k, nullptr);
      benchmark::DoNotOptimize(dst.data());
    }
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(src.size()));
}
BENCHMARK(BM_ipf_mean_filter)
    ->ArgNames({"ksize", "to_bytes"})
    ->ArgsProduct({{3, 81}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// The session's reduction of a photo to its working size.
void BM_ipf_resize_nn(benchmark::State& state) {
  const int channels = static_cast<int>(state.range(0));
  const std::vector<unsigned char> src =
      RandomBytes(static_cast<size_t>(kWidth) * kHeight * channels, 6);
  std::vector<unsigned char> dst(static_cast<size_t>(kSmallWidth) *
                                 kSmallHeight * channels);
  for (auto _ : state) {
    if (channels == 3) {
      ff::ipf_resize_nn(src.data(), kWidth, kHeight, kWidth * 3, 3, dst.data(),
                        kSmallWidth, kSmallHeight, kSmallWidth * 3, 3,
                        ff::ccn<3>());
    } else {
      ff::ipf_resize_nn(src.data(), kWidth, kHeight, kWidth, 1, dst.data(),
                        kSmallWidth, kSmallHeight, kSmallWidth, 1,
                        ff::ccn<1>());
    }
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(dst.size()));
}
BENCHMARK(BM_ipf_resize_nn)
    ->ArgName("channels")
    ->Arg(1)
    ->Arg(3)
    ->Unit(benchmark::kMicrosecond);

// A working-size matte carried back to the photo's size.
void BM_ipf_resize_bl(benchmark::State& state) {
  const int channels = static_cast<int>(state.range(0));
  const std::vector<unsigned char> src = RandomBytes(
      static_cast<size_t>(kSmallWidth) * kSmallHeight * channels, 7);
  std::vector<unsigned char> dst(static_cast<size_t>(kWidth) * kHeight *
                                 channels);
  for (auto _ : state) {
    ff::ipf_resize_bl(src.data(), kSmallWidth, kSmallHeight,
                      kSmallWidth * channels, channels, dst.data(), kWidth,
                      kHeight, kWidth * channels, channels, channels);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(dst.size()));
}
BENCHMARK(BM_ipf_resize_bl)
    ->ArgName("channels")
    ->Arg(1)
    ->Arg(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace
