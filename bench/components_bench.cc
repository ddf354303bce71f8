#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "copy_reference.h"
#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;

// A segmentation mask as the trimap step sees one: a few large filled
// ellipses of 255 (one overlapping another, one with a hole) on 0.
std::vector<unsigned char> BlobMask() {
  struct Ellipse {
    double cx, cy, rx, ry;
    unsigned char value;
  };
  const Ellipse ellipses[] = {
      {1200, 1300, 700, 900, 255}, {1700, 1800, 500, 350, 255},
      {3000, 900, 600, 500, 255},  {3000, 900, 200, 150, 0},
      {3200, 2500, 450, 300, 255}, {500, 2700, 300, 200, 255},
  };
  std::vector<unsigned char> mask(static_cast<size_t>(kWidth) * kHeight, 0);
  for (const Ellipse& e : ellipses) {
    softmatte_test::FillEllipse(mask, kWidth, kHeight, e.cx, e.cy, e.rx, e.ry,
                                e.value);
  }
  return mask;
}

const std::vector<unsigned char>& SharedMask() {
  static const std::vector<unsigned char> mask = BlobMask();
  return mask;
}

void BM_ipf_connected_component_blobs(benchmark::State& state) {
  const std::vector<unsigned char>& mask = SharedMask();
  std::vector<int> labels(mask.size());
  for (auto _ : state) {
    benchmark::DoNotOptimize(ff::ipf_connected_component(
        mask.data(), kWidth, kHeight, kWidth, labels.data(), kWidth));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
BENCHMARK(BM_ipf_connected_component_blobs)->Unit(benchmark::kMillisecond);

// The opposite of a mask: salt-and-pepper noise, where almost every pixel
// starts a run and no block repeats the row above.
void BM_ipf_connected_component_noise(benchmark::State& state) {
  std::vector<unsigned char> noise(static_cast<size_t>(kWidth) * kHeight);
  softmatte_test::FillRandom(noise, /*seed=*/3);
  for (auto& v : noise) v = v < 128 ? 0 : 255;
  std::vector<int> labels(noise.size());
  for (auto _ : state) {
    benchmark::DoNotOptimize(ff::ipf_connected_component(
        noise.data(), kWidth, kHeight, kWidth, labels.data(), kWidth));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
BENCHMARK(BM_ipf_connected_component_noise)->Unit(benchmark::kMillisecond);

// The labelling's yardstick: copying the mask's bytes once.
void BM_memcpy_blob_mask(benchmark::State& state) {
  const std::vector<unsigned char>& mask = SharedMask();
  softmatte_bench::CopyEachIteration(state, mask);
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(mask.size()));
}
BENCHMARK(BM_memcpy_blob_mask)->Unit(benchmark::kMillisecond);

void BM_ipf_get_mask_roi_blobs(benchmark::State& state) {
  const std::vector<unsigned char>& mask = SharedMask();
  int roi[4];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        ff::ipf_get_mask_roi(mask.data(), kWidth, kHeight, kWidth, roi, 128));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
BENCHMARK(BM_ipf_get_mask_roi_blobs)->Unit(benchmark::kMillisecond);

}  // namespace
