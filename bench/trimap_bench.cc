#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "copy_reference.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;  // 12 megapixels, a phone photo

bool InEllipse(int x, int y, double cx, double cy, double rx, double ry) {
  const double dx = (x - cx) / rx;
  const double dy = (y - cy) / ry;
  return dx * dx + dy * dy <= 1.0;
}

// A few large blobs on background: most columns and rows cross an edge.
std::vector<unsigned char> BlobMask() {
  std::vector<unsigned char> mask(static_cast<size_t>(kWidth) * kHeight, 0);
  softmatte_test::FillEllipse(mask, kWidth, kHeight, 1000, 900, 700, 600, 255);
  softmatte_test::FillEllipse(mask, kWidth, kHeight, 2900, 1800, 900, 1000,
                              255);
  softmatte_test::FillEllipse(mask, kWidth, kHeight, 1200, 2400, 500, 350, 255);
  return mask;
}

// A person-sized subject: head, neck, torso and arms reaching the bottom
// edge, with a slightly wavy outline like a real segmentation's.
std::vector<unsigned char> PersonMask() {
  std::vector<unsigned char> mask(static_cast<size_t>(kWidth) * kHeight, 0);
  for (int y = 0; y < kHeight; ++y) {
    const double wave = 6.0 * std::sin(y * 0.05);
    for (int x = 0; x < kWidth; ++x) {
      const double xs = x + wave;
      const bool head = InEllipse(static_cast<int>(xs), y, 2000, 700, 330, 420);
      const bool neck = xs > 1850 && xs < 2150 && y > 1000 && y < 1300;
      const bool torso =
          InEllipse(static_cast<int>(xs), y, 2000, 2600, 1100, 1400) &&
          y > 1250;
      const bool arm_l =
          InEllipse(static_cast<int>(xs), y, 850, 2400, 260, 900);
      const bool arm_r =
          InEllipse(static_cast<int>(xs), y, 3150, 2400, 260, 900);
      const bool in = head || neck || torso || arm_l || arm_r;
      mask[static_cast<size_t>(y) * kWidth + x] = in ? 255 : 0;
    }
  }
  return mask;
}

// B, G, R photo: smooth gradients and texture, the subject in other tones,
// so that the contrast across the mask edge varies along it.
std::vector<unsigned char> PhotoBehind(const std::vector<unsigned char>& mask) {
  std::vector<unsigned char> img(static_cast<size_t>(kWidth) * kHeight * 3);
  std::mt19937 rng(11);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const size_t i = static_cast<size_t>(y) * kWidth + x;
      const int noise = static_cast<int>(rng() % 9) - 4;
      int b, g, r;
      if (mask[i] != 0) {
        b = 60 + (y * 80) / kHeight;
        g = 90 + static_cast<int>(40 * std::sin(x * 0.01));
        r = 150 + (x * 60) / kWidth;
      } else {
        b = 200 - (y * 150) / kHeight;
        g = 80 + (x * 100) / kWidth;
        r = 120 + static_cast<int>(60 * std::sin((x + y) * 0.003));
      }
      img[3 * i] = static_cast<unsigned char>(b + noise);
      img[3 * i + 1] = static_cast<unsigned char>(g + noise);
      img[3 * i + 2] = static_cast<unsigned char>(r + noise);
    }
  }
  return img;
}

// Everything the stages after labelling need, built once outside the loops.
struct Prepared {
  std::vector<unsigned char> mask;
  std::vector<unsigned char> img;
  std::vector<int> labels;
  int count = 0;
  std::vector<std::vector<dpl_pt2di>> boundary;
  std::vector<int> half;
};

const Prepared& PersonScene() {
  static const Prepared* scene = [] {
    auto* p = new Prepared;
    p->mask = PersonMask();
    p->img = PhotoBehind(p->mask);
    std::unique_ptr<float[]> dist(
        DPLMatting_MakeDTInput(p->mask.data(), kWidth, kHeight, kWidth));
    DistanceTransform(dist.get(), kWidth, kHeight);
    p->labels.resize(p->mask.size());
    p->count = ff::ipf_connected_component(p->mask.data(), kWidth, kHeight,
                                           kWidth, p->labels.data(), kWidth);
    GetCCBndryPixels(p->mask.data(), kWidth, kHeight, kWidth, p->labels.data(),
                     p->count, p->boundary);
    std::vector<double> thickness(p->count, 0.0);
    for (size_t i = 0; i < p->mask.size(); ++i) {
      double& t = thickness[p->labels[i]];
      if (t < dist[i]) t = dist[i];
    }
    for (double t : thickness) {
      const int h = static_cast<int>(std::sqrt(t) * 0.5);
      p->half.push_back(h < 20 ? h : 20);
    }
    return p;
  }();
  return *scene;
}

void BM_MemcpyMask(benchmark::State& state) {
  const std::vector<unsigned char> src = BlobMask();
  softmatte_bench::CopyEachIteration(state, src);
  state.SetBytesProcessed(state.iterations() * src.size());
}
BENCHMARK(BM_MemcpyMask)->Unit(benchmark::kMillisecond);

void BM_DistanceTransform(benchmark::State& state) {
  const std::vector<unsigned char> mask = BlobMask();
  std::unique_ptr<float[]> input(
      DPLMatting_MakeDTInput(mask.data(), kWidth, kHeight, kWidth));
  std::unique_ptr<float[]> grid(new float[mask.size()]);
  for (auto _ : state) {
    state.PauseTiming();  // the transform works in place: fresh input
    std::memcpy(grid.get(), input.get(), sizeof(float) * mask.size());
    state.ResumeTiming();
    DistanceTransform(grid.get(), kWidth, kHeight);
    benchmark::DoNotOptimize(grid.get());
  }
  state.SetItemsProcessed(state.iterations() * mask.size());
}
BENCHMARK(BM_DistanceTransform)->Unit(benchmark::kMillisecond);

void BM_MakeTrimap(benchmark::State& state) {
  const Prepared& s = PersonScene();
  std::vector<unsigned char> out(s.mask.size());
  for (auto _ : state) {
    MakeTrimapFromSegRes(s.mask.data(), kWidth, kHeight, kWidth, out.data(),
                         kWidth, 20, 0.5);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * s.mask.size());
}
BENCHMARK(BM_MakeTrimap)->Unit(benchmark::kMillisecond);

void BM_MakeTrimapWithImage(benchmark::State& state) {
  const Prepared& s = PersonScene();
  std::vector<unsigned char> out(s.mask.size());
  for (auto _ : state) {
    MakeTrimapFromSegRes(s.img.data(), kWidth, kHeight, 3 * kWidth,
                         s.mask.data(), kWidth, out.data(), kWidth, 20, 0.5, 3,
                         5, 50, 4);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * s.mask.size());
}
BENCHMARK(BM_MakeTrimapWithImage)->Unit(benchmark::kMillisecond);

// The stages of the trimap builder on the person scene, one at a time.

void BM_TrimapStageDistance(benchmark::State& state) {
  const Prepared& s = PersonScene();
  for (auto _ : state) {
    std::unique_ptr<float[]> grid(
        DPLMatting_MakeDTInput(s.mask.data(), kWidth, kHeight, kWidth));
    DistanceTransform(grid.get(), kWidth, kHeight);
    benchmark::DoNotOptimize(grid.get());
  }
}
BENCHMARK(BM_TrimapStageDistance)->Unit(benchmark::kMillisecond);

void BM_TrimapStageLabels(benchmark::State& state) {
  const Prepared& s = PersonScene();
  std::vector<int> labels(s.mask.size());
  for (auto _ : state) {
    benchmark::DoNotOptimize(ff::ipf_connected_component(
        s.mask.data(), kWidth, kHeight, kWidth, labels.data(), kWidth));
  }
}
BENCHMARK(BM_TrimapStageLabels)->Unit(benchmark::kMillisecond);

void BM_TrimapStageBoundary(benchmark::State& state) {
  const Prepared& s = PersonScene();
  std::vector<int> labels = s.labels;
  for (auto _ : state) {
    std::vector<std::vector<dpl_pt2di>> lists;
    GetCCBndryPixels(s.mask.data(), kWidth, kHeight, kWidth, labels.data(),
                     s.count, lists);
    benchmark::DoNotOptimize(lists.data());
  }
}
BENCHMARK(BM_TrimapStageBoundary)->Unit(benchmark::kMillisecond);

void BM_TrimapStageContrast(benchmark::State& state) {
  const Prepared& s = PersonScene();
  size_t points = 0;
  for (const auto& list : s.boundary) points += list.size();
  for (auto _ : state) {
    for (size_t l = 0; l < s.boundary.size(); ++l) {
      for (const dpl_pt2di& pt : s.boundary[l]) {
        const dpl_rect ring = AdaRect_CCSz(pt, s.half[l], kWidth, kHeight);
        benchmark::DoNotOptimize(AdaRect_ImgGrad(
            pt, ring, s.img.data(), kWidth, kHeight, 3 * kWidth, s.mask.data(),
            kWidth, 3, 3.0 * 25, 3.0 * 2500, 4, 20));
      }
    }
  }
  state.counters["boundary_pixels"] = static_cast<double>(points);
}
BENCHMARK(BM_TrimapStageContrast)->Unit(benchmark::kMillisecond);

// Largest inner distance per component, from labels and distances.
void BM_TrimapStageThickness(benchmark::State& state) {
  const Prepared& s = PersonScene();
  std::unique_ptr<float[]> dist(
      DPLMatting_MakeDTInput(s.mask.data(), kWidth, kHeight, kWidth));
  DistanceTransform(dist.get(), kWidth, kHeight);
  std::vector<double> thickness(s.count);
  for (auto _ : state) {
    std::fill(thickness.begin(), thickness.end(), 0.0);
    for (size_t i = 0; i < s.mask.size(); ++i) {
      double& t = thickness[s.labels[i]];
      if (t < dist[i]) t = dist[i];
    }
    benchmark::DoNotOptimize(thickness.data());
  }
}
BENCHMARK(BM_TrimapStageThickness)->Unit(benchmark::kMillisecond);

// Copy of the mask plus the 128 windows of the image-less builder.
void BM_TrimapStagePaint(benchmark::State& state) {
  const Prepared& s = PersonScene();
  std::vector<unsigned char> out(s.mask.size());
  for (auto _ : state) {
    ff::ipf_memcpy_2d(s.mask.data(), kWidth, kHeight, kWidth, out.data(),
                      kWidth);
    for (size_t l = 0; l < s.boundary.size(); ++l) {
      for (const dpl_pt2di& pt : s.boundary[l]) {
        const dpl_rect w = AdaRect_CCSz(pt, s.half[l], kWidth, kHeight);
        if (w.left >= w.right) continue;
        for (int y = w.top; y < w.bottom; ++y) {
          std::memset(&out[static_cast<size_t>(y) * kWidth + w.left], 128,
                      w.right - w.left);
        }
      }
    }
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_TrimapStagePaint)->Unit(benchmark::kMillisecond);

}  // namespace
