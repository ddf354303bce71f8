#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "softmatte/colour.h"
#include "test_util.h"

namespace {

// A 12-megapixel phone photo and its four-byte retouched foreground.
constexpr int kWidth = 4032;
constexpr int kHeight = 3024;

struct MergeInput {
  std::vector<unsigned char> image;
  std::vector<unsigned char> foreground;
  MergeInput()
      : image(size_t{kWidth} * kHeight * 3),
        foreground(size_t{kWidth} * kHeight * 4) {
    softmatte_test::FillRandom(image, 1);
    softmatte_test::FillRandom(foreground, 2);
  }
};

void BM_mat_merge_f_color(benchmark::State& state) {
  MergeInput in;
  for (auto _ : state) {
    mat_merge_f_color(in.image.data(), kWidth, kHeight, kWidth * 3,
                      in.foreground.data(), kWidth * 4);
    benchmark::DoNotOptimize(in.foreground.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          (in.image.size() + in.foreground.size()));
}
BENCHMARK(BM_mat_merge_f_color)->Unit(benchmark::kMillisecond);

// The merge's reference: copying both planes it reads, byte for byte.
void BM_mat_merge_f_color_memcpy(benchmark::State& state) {
  MergeInput in;
  std::vector<unsigned char> image_copy(in.image.size());
  std::vector<unsigned char> foreground_copy(in.foreground.size());
  for (auto _ : state) {
    std::memcpy(image_copy.data(), in.image.data(), in.image.size());
    std::memcpy(foreground_copy.data(), in.foreground.data(),
                in.foreground.size());
    benchmark::DoNotOptimize(image_copy.data());
    benchmark::DoNotOptimize(foreground_copy.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          (in.image.size() + in.foreground.size()));
}
BENCHMARK(BM_mat_merge_f_color_memcpy)->Unit(benchmark::kMillisecond);

}  // namespace
