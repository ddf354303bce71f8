#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "colour/fb_color.h"
#include "full_vs_band.h"
#include "softmatte/colour.h"
#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

// A composited photo: a textured subject with stripes over a smooth
// background, under a matte whose soft band follows a wavy outline with a
// hair-like ragged profile, a few percent of the pixels.
struct Scene {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> image;  // B, G, R
  std::vector<unsigned char> alpha;
  std::vector<unsigned char> label;  // 2 foreground, 1 background, 0 band
};

Scene MakeScene(int width, int height) {
  Scene s;
  s.width = width;
  s.height = height;
  const size_t pixels = static_cast<size_t>(width) * height;
  s.image.resize(pixels * 3);
  s.alpha.resize(pixels);
  s.label.resize(pixels);
  std::mt19937 rng(9);
  const float scale = width / 4032.0f;
  const float band = 60.0f * scale;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const float dx = (x - 0.5f * width) / (1300.0f * scale);
      const float dy = (y - 0.55f * height) / (1100.0f * scale);
      const float angle = std::atan2(dy, dx);
      const float edge = 1.0f + 0.05f * std::sin(40.0f * angle);
      const float d = (std::sqrt(dx * dx + dy * dy) - edge) * 1100.0f * scale;
      const float hair = 0.4f * band * std::sin(90.0f * angle + 0.01f * d);
      const float a = std::clamp(0.5f - (d + hair) / band, 0.0f, 1.0f);
      const size_t i = static_cast<size_t>(y) * width + x;
      s.alpha[i] = static_cast<unsigned char>(a * 255.0f + 0.5f);
      s.label[i] = s.alpha[i] > 253 ? 2 : s.alpha[i] < 1 ? 1 : 0;
      const float stripes = 30.0f * std::sin(0.05f * x + 0.08f * y);
      const float texture = 18.0f * std::sin(0.31f * x) * std::sin(0.23f * y);
      const float fg[3] = {180.0f + stripes, 120.0f + texture,
                           70.0f + 0.5f * stripes + texture};
      const float bg[3] = {60.0f + 0.03f * x / scale, 90.0f + 0.02f * y / scale,
                           140.0f - 0.005f * (x + y) / scale};
      const float noise = static_cast<float>(static_cast<int>(rng() % 7) - 3);
      for (int c = 0; c < 3; ++c) {
        const float v = a * fg[c] + (1.0f - a) * bg[c] + noise;
        s.image[i * 3 + c] =
            static_cast<unsigned char>(std::clamp(v, 0.0f, 255.0f));
      }
    }
  }
  return s;
}

const Scene& Photo12MP() {
  static const Scene scene = MakeScene(4032, 3024);
  return scene;
}

const Scene& WorkingSize() {
  static const Scene scene = MakeScene(1008, 756);
  return scene;
}

// An alphamatting photo and its ground-truth alpha, both stretched to 12
// megapixels (bilinear): real colours and a real soft band, five times as
// wide as in the photo. Empty when the photos are not beside the project.
const Scene& RealPhoto12MP() {
  static const Scene scene = [] {
    Scene s;
    softmatte_test::MattingSample sample;
    if (!softmatte_test::LoadMattingSample(1, false, &sample)) return s;
    s.width = 4032;
    s.height = 3024;
    const size_t pixels = static_cast<size_t>(s.width) * s.height;
    s.image.resize(pixels * 3);
    s.alpha.resize(pixels);
    s.label.resize(pixels);
    const softmatte_test::Image& in = sample.image;
    const softmatte_test::Image& truth = sample.truth;
    ff::ipf_resize_bl(in.pixels.data(), in.width, in.height, in.width * 3, 3,
                      s.image.data(), s.width, s.height, s.width * 3, 3, 3);
    ff::ipf_resize_bl(truth.pixels.data(), truth.width, truth.height,
                      truth.width, 1, s.alpha.data(), s.width, s.height,
                      s.width, 1, 1);
    for (size_t i = 0; i < pixels; ++i) {
      s.label[i] = s.alpha[i] > 253 ? 2 : s.alpha[i] < 1 ? 1 : 0;
    }
    return s;
  }();
  return scene;
}

double BandShare(const Scene& s) {
  size_t band = 0;
  for (unsigned char l : s.label) band += l == 0;
  return 100.0 * static_cast<double>(band) /
         static_cast<double>(s.label.size());
}

// What the session asks for: foreground only, thresholds 1 and 253.
void RunForeground(benchmark::State& state, const Scene& s) {
  std::vector<unsigned char> fg(s.image.size());
  for (auto _ : state) {
    mat_estimate_fb_color(s.image.data(), s.width, s.height, s.width * 3,
                          s.alpha.data(), s.width, fg.data(), s.width * 3,
                          nullptr, 0, 1, 253);
    benchmark::DoNotOptimize(fg.data());
  }
  state.counters["band_share_%"] = BandShare(s);
  state.SetItemsProcessed(state.iterations() * s.width * s.height);
}

// The same bytes from the band-only worker.
void RunForegroundBand(benchmark::State& state, const Scene& s) {
  std::vector<unsigned char> fg(s.image.size());
  for (auto _ : state) {
    estimate_foreground_band(s.image.data(), s.width, s.height, s.width * 3,
                             s.alpha.data(), s.width, fg.data(), s.width * 3, 1,
                             253);
    benchmark::DoNotOptimize(fg.data());
  }
  state.counters["band_share_%"] = BandShare(s);
  state.SetItemsProcessed(state.iterations() * s.width * s.height);
}

// Both workers on one input in the same run: their times, the ratio, the
// peak memory each adds, and whether the bytes agree (1) or not (0).
void CompareBandWithFull(benchmark::State& state, const Scene& s) {
  if (s.image.empty()) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  const int w = s.width;
  const int h = s.height;
  auto full = [&](unsigned char* out) {
    mat_estimate_fb_color(s.image.data(), w, h, w * 3, s.alpha.data(), w, out,
                          w * 3, nullptr, 0, 1, 253);
  };
  auto band = [&](unsigned char* out) {
    estimate_foreground_band(s.image.data(), w, h, w * 3, s.alpha.data(), w,
                             out, w * 3, 1, 253);
  };
  softmatte_bench::CompareFullAndBand(state, s.image.size(), full, band, 1);
  state.counters["band_share_%"] = BandShare(s);
}

void BM_mat_estimate_fb_color_working_size(benchmark::State& state) {
  RunForeground(state, WorkingSize());
}
BENCHMARK(BM_mat_estimate_fb_color_working_size)->Unit(benchmark::kMillisecond);

void BM_mat_estimate_fb_color_12MP(benchmark::State& state) {
  RunForeground(state, Photo12MP());
}
BENCHMARK(BM_mat_estimate_fb_color_12MP)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

void BM_estimate_foreground_band_working_size(benchmark::State& state) {
  RunForegroundBand(state, WorkingSize());
}
BENCHMARK(BM_estimate_foreground_band_working_size)
    ->Unit(benchmark::kMillisecond);

void BM_estimate_foreground_band_12MP(benchmark::State& state) {
  RunForegroundBand(state, Photo12MP());
}
BENCHMARK(BM_estimate_foreground_band_12MP)->Unit(benchmark::kMillisecond);

void BM_fb_color_band_vs_full_working_size(benchmark::State& state) {
  CompareBandWithFull(state, WorkingSize());
}
BENCHMARK(BM_fb_color_band_vs_full_working_size)->Unit(benchmark::kMillisecond);

void BM_fb_color_band_vs_full_12MP(benchmark::State& state) {
  CompareBandWithFull(state, Photo12MP());
}
BENCHMARK(BM_fb_color_band_vs_full_12MP)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

void BM_fb_color_band_vs_full_real_12MP(benchmark::State& state) {
  CompareBandWithFull(state, RealPhoto12MP());
}
BENCHMARK(BM_fb_color_band_vs_full_real_12MP)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

// The band-width stage on its own: two chamfer transforms of the label map.
void BM_fb_color_distance_fields_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  std::vector<unsigned int> toFg(s.label.size());
  std::vector<unsigned int> toBg(s.label.size());
  const auto w = static_cast<unsigned short>(s.width);
  const auto h = static_cast<unsigned short>(s.height);
  for (auto _ : state) {
    ff::dist_field* field = ff::ipf_create_distance_field_2d(w, h, 100);
    ff::ipf_distance_transform_2d(field, s.label.data(), w, h, s.width, 2,
                                  toFg.data(), s.width, nullptr, 0);
    ff::ipf_distance_transform_2d(field, s.label.data(), w, h, s.width, 1,
                                  toBg.data(), s.width, nullptr, 0);
    ff::ipf_release_distance_field(field);
    benchmark::DoNotOptimize(toFg.data());
    benchmark::DoNotOptimize(toBg.data());
  }
  state.SetItemsProcessed(state.iterations() * s.width * s.height);
}
BENCHMARK(BM_fb_color_distance_fields_12MP)->Unit(benchmark::kMillisecond);

// The largest level build: photo, alpha and labels resized by nearest
// neighbour to half size, as the last level before full size.
void BM_fb_color_half_level_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  const int w = s.width / 2;
  const int h = s.height / 2;
  std::vector<unsigned char> image(static_cast<size_t>(w) * h * 3);
  std::vector<unsigned char> alpha(static_cast<size_t>(w) * h);
  std::vector<unsigned char> label(alpha.size());
  for (auto _ : state) {
    ff::ipf_resize_nn(s.image.data(), s.width, s.height, s.width * 3, 3,
                      image.data(), w, h, w * 3, 3, ff::ccn<3>());
    ff::ipf_resize_nn(s.alpha.data(), s.width, s.height, s.width, 1,
                      alpha.data(), w, h, w, 1, ff::ccn<1>());
    ff::ipf_resize_nn(s.label.data(), s.width, s.height, s.width, 1,
                      label.data(), w, h, w, 1, ff::ccn<1>());
    benchmark::DoNotOptimize(image.data());
    benchmark::DoNotOptimize(label.data());
  }
}
BENCHMARK(BM_fb_color_half_level_12MP)->Unit(benchmark::kMillisecond);

// Reference: one copy of the photo's bytes.
void BM_fb_color_memcpy_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  std::vector<unsigned char> copy(s.image.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), s.image.data(), s.image.size());
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(s.image.size()));
}
BENCHMARK(BM_fb_color_memcpy_12MP)->Unit(benchmark::kMillisecond);

}  // namespace
