#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "copy_reference.h"
#include "softmatte/geoseg.h"

namespace {

constexpr int kWidth = 4000;  // 12 megapixels
constexpr int kHeight = 3000;
constexpr size_t kPixels = static_cast<size_t>(kWidth) * kHeight;

// B, G, R: a lit wall behind a textured subject, with sensor noise, so that
// most steps are cheap and the subject's outline costs a lot.
const std::vector<unsigned char>& Photo() {
  static const std::vector<unsigned char> photo = [] {
    std::vector<unsigned char> img(kPixels * 3);
    std::mt19937 rng(4000);
    std::uniform_int_distribution<int> noise(-4, 4);
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const float dx = (x - kWidth * 0.5f) / 1100.0f;
        const float dy = (y - kHeight * 0.55f) / 1200.0f;
        const bool subject = dx * dx + dy * dy < 1.0f;
        const float shade = 0.5f + 0.5f * std::sin(x * 0.013f + y * 0.007f);
        for (int c = 0; c < 3; ++c) {
          const float base = subject ? 60.0f + 40.0f * c + 50.0f * shade
                                     : 200.0f - 30.0f * c + 20.0f * y / kHeight;
          const int v = static_cast<int>(base) + noise(rng);
          img[(static_cast<size_t>(y) * kWidth + x) * 3 + c] =
              static_cast<unsigned char>(std::clamp(v, 0, 255));
        }
      }
    }
    return img;
  }();
  return photo;
}

// Scribbles: a few thick strokes of label 2 across the subject and of
// label 1 along the background's edges; the rest 0.
const std::vector<unsigned char>& Scribbles() {
  static const std::vector<unsigned char> labels = [] {
    std::vector<unsigned char> l(kPixels, 0);
    auto stroke = [&](int x0, int y0, int x1, int y1, unsigned char v) {
      const int steps = std::max(std::abs(x1 - x0), std::abs(y1 - y0));
      for (int i = 0; i <= steps; ++i) {
        const int cx = x0 + (x1 - x0) * i / steps;
        const int cy = y0 + (y1 - y0) * i / steps;
        for (int y = std::max(cy - 6, 0); y < std::min(cy + 6, kHeight); ++y) {
          for (int x = std::max(cx - 6, 0); x < std::min(cx + 6, kWidth); ++x) {
            l[static_cast<size_t>(y) * kWidth + x] = v;
          }
        }
      }
    };
    stroke(1500, 1200, 2500, 2000, 2);
    stroke(2000, 1000, 2000, 2600, 2);
    stroke(100, 100, 3900, 100, 1);
    stroke(100, 100, 100, 2900, 1);
    stroke(3900, 100, 3900, 2900, 1);
    return l;
  }();
  return labels;
}

void BM_GeoSeg_memcpy_photo(benchmark::State& state) {
  const std::vector<unsigned char>& src = Photo();
  softmatte_bench::CopyEachIteration(state, src);
  state.SetBytesProcessed(state.iterations() * src.size());
}
BENCHMARK(BM_GeoSeg_memcpy_photo)->Unit(benchmark::kMillisecond);

void BM_GeoSeg_SetImage_12MP(benchmark::State& state) {
  const std::vector<unsigned char>& photo = Photo();
  GeoSeg seg;
  for (auto _ : state) {
    seg.SetImage(photo.data(), kWidth, kHeight, kWidth * 3, 3);
    benchmark::DoNotOptimize(seg.edge_weights);
  }
  state.SetBytesProcessed(state.iterations() * photo.size());
}
BENCHMARK(BM_GeoSeg_SetImage_12MP)->Unit(benchmark::kMillisecond);

// The float plane GetProb writes is 4 bytes a pixel; copying it is the
// floor for one pass over the output.
void BM_GeoSeg_memcpy_probability(benchmark::State& state) {
  std::vector<float> src(kPixels, 0.5f);
  std::vector<float> dst(kPixels);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), kPixels * sizeof(float));
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kPixels * sizeof(float));
}
BENCHMARK(BM_GeoSeg_memcpy_probability)->Unit(benchmark::kMillisecond);

void BM_GeoSeg_GetProb_12MP(benchmark::State& state) {
  GeoSeg seg;
  seg.SetImage(Photo().data(), kWidth, kHeight, kWidth * 3, 3);
  const std::vector<unsigned char>& labels = Scribbles();
  std::vector<float> prob(kPixels);
  for (auto _ : state) {
    seg.GetProb(labels.data(), kWidth, prob.data(), kWidth);
    benchmark::DoNotOptimize(prob.data());
  }
  state.SetItemsProcessed(state.iterations() * kPixels);  // pixels/s
}
BENCHMARK(BM_GeoSeg_GetProb_12MP)->Unit(benchmark::kMillisecond);

// The 24-neighbour form on the same photo and scribbles: mode 3 is two
// propagations over twelve neighbours a pass, modes 1 and 2 one propagation
// and the cap's histogram.
void BM_GeoSegN24_GetProb_12MP(benchmark::State& state) {
  GeoSegN24 seg;
  seg.SetImage(Photo().data(), kWidth, kHeight, kWidth * 3, 3, nullptr);
  const std::vector<unsigned char>& labels = Scribbles();
  std::vector<float> prob(kPixels);
  const int mode = static_cast<int>(state.range(0));
  for (auto _ : state) {
    seg.GetProb(labels.data(), kWidth, prob.data(), kWidth, mode, nullptr);
    benchmark::DoNotOptimize(prob.data());
  }
  state.SetItemsProcessed(state.iterations() * kPixels);  // pixels/s
}
BENCHMARK(BM_GeoSegN24_GetProb_12MP)
    ->ArgName("mode")
    ->Arg(3)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond);

void BM_GeoSegN24_SetImage_12MP(benchmark::State& state) {
  const std::vector<unsigned char>& photo = Photo();
  GeoSegN24 seg;
  for (auto _ : state) {
    seg.SetImage(photo.data(), kWidth, kHeight, kWidth * 3, 3, nullptr);
    benchmark::DoNotOptimize(seg.edge_weights);
  }
  state.SetBytesProcessed(state.iterations() * photo.size());
}
BENCHMARK(BM_GeoSegN24_SetImage_12MP)->Unit(benchmark::kMillisecond);

}  // namespace
