#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "test_util.h"

namespace {

constexpr int kWidth = 4000;  // a 12-megapixel photo
constexpr int kHeight = 3000;
constexpr int kLowWidth = 1000;  // its working copy
constexpr int kLowHeight = 750;
constexpr size_t kPixels = static_cast<size_t>(kWidth) * kHeight;

// Signed distance to the subject's outline (negative inside): a large ellipse
// with a wavy edge, plus a smaller disc.
float SubjectDistance(int x, int y) {
  const float dx = (x - 0.5f * kWidth) / 1300.0f;
  const float dy = (y - 0.55f * kHeight) / 1100.0f;
  const float r = std::sqrt(dx * dx + dy * dy);
  const float wave = 1.0f + 0.04f * std::sin(24.0f * std::atan2(dy, dx));
  const float ellipse = (r - wave) * 1100.0f;
  const float disc =
      std::hypot(x - 0.85f * kWidth, y - 0.2f * kHeight) - 350.0f;
  return std::min(ellipse, disc);
}

// Photo-like content: smooth background gradients, a textured subject with
// stripes and a soft edge, and a few levels of sensor noise everywhere.
struct Photo {
  std::vector<unsigned char> img;   // kWidth x kHeight, B, G, R
  std::vector<unsigned char> low;   // kLowWidth x kLowHeight, B, G, R
  std::vector<unsigned char> band;  // unknown band: non-zero near the edge
  std::vector<unsigned char> lowAlpha;
};

const Photo& TestPhoto() {
  static const Photo photo = [] {
    Photo p;
    p.img.resize(kPixels * 3);
    p.band.resize(kPixels);
    std::mt19937 rng(5);
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const float d = SubjectDistance(x, y);
        const float inside = std::clamp(0.5f - d / 6.0f, 0.0f, 1.0f);
        const float stripes = 30.0f * std::sin(0.05f * x + 0.08f * y);
        const float texture = 18.0f * std::sin(0.31f * x) * std::sin(0.23f * y);
        const float bg[3] = {60.0f + 0.03f * x, 90.0f + 0.02f * y,
                             140.0f - 0.01f * (x + y) * 0.5f};
        const float fg[3] = {180.0f + stripes, 120.0f + texture,
                             70.0f + stripes * 0.5f + texture};
        const int noise = static_cast<int>(rng() % 7) - 3;
        for (int c = 0; c < 3; ++c) {
          const float v = bg[c] + inside * (fg[c] - bg[c]) + noise;
          p.img[(static_cast<size_t>(y) * kWidth + x) * 3 + c] =
              static_cast<unsigned char>(std::clamp(v, 0.0f, 255.0f));
        }
        p.band[static_cast<size_t>(y) * kWidth + x] =
            std::fabs(d) < 15.0f ? 128 : 0;
      }
    }
    p.low.resize(static_cast<size_t>(kLowWidth) * kLowHeight * 3);
    ff::ipf_resize_nn<unsigned char, ff::ccn<3>>(
        p.img.data(), kWidth, kHeight, kWidth * 3, 3, p.low.data(), kLowWidth,
        kLowHeight, kLowWidth * 3, 3, ff::ccn<3>());
    p.lowAlpha.resize(static_cast<size_t>(kLowWidth) * kLowHeight);
    for (int v = 0; v < kLowHeight; ++v) {
      for (int u = 0; u < kLowWidth; ++u) {
        const float d = SubjectDistance(4 * u, 4 * v);
        p.lowAlpha[static_cast<size_t>(v) * kLowWidth + u] =
            static_cast<unsigned char>(
                std::clamp(0.5f - d / 12.0f, 0.0f, 1.0f) * 255.0f);
      }
    }
    return p;
  }();
  return photo;
}

// The session's table for the photo, built once for the benchmarks that
// apply it.
struct Table {
  std::vector<int> idx;
  std::vector<short> wts;
};

const Table& PhotoTable() {
  static const Table table = [] {
    const Photo& p = TestPhoto();
    Table t;
    t.idx.resize(2 * kPixels);
    t.wts.resize(kPixels);
    usam_calc_weights_8u_c3(p.img.data(), kWidth, kHeight, kWidth * 3, nullptr,
                            0, p.low.data(), kLowWidth, kLowHeight,
                            kLowWidth * 3, t.idx.data(), 2 * kWidth,
                            t.wts.data(), kWidth, 3);
    return t;
  }();
  return table;
}

// The references: the photo's bytes, the matte's bytes and the table's bytes
// copied.
void BM_usam_memcpy_photo(benchmark::State& state) {
  const Photo& p = TestPhoto();
  std::vector<unsigned char> dst(p.img.size());
  for (auto _ : state) {
    std::memcpy(dst.data(), p.img.data(), p.img.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
BENCHMARK(BM_usam_memcpy_photo)->Unit(benchmark::kMillisecond);

void BM_usam_memcpy_matte(benchmark::State& state) {
  std::vector<unsigned char> src(kPixels, 7);
  std::vector<unsigned char> dst(kPixels);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
BENCHMARK(BM_usam_memcpy_matte)->Unit(benchmark::kMillisecond);

// Ten bytes per pixel: what applying a table must at least read.
void BM_usam_memcpy_table(benchmark::State& state) {
  const size_t bytes = kPixels * (2 * sizeof(int) + sizeof(short));
  std::vector<unsigned char> src(bytes, 7);
  std::vector<unsigned char> dst(bytes);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
BENCHMARK(BM_usam_memcpy_table)->Unit(benchmark::kMillisecond);

// Times the table build of a 12-megapixel photo against its working copy;
// a null mask fills every pixel. mode 2 is the 2x2 rule, 3 the 3x3 rule.
void TimeTableBuild(benchmark::State& state, const unsigned char* img,
                    const unsigned char* low, const unsigned char* mask,
                    int mode) {
  std::vector<int> idx(2 * kPixels, -1);
  std::vector<short> wts(kPixels);
  for (auto _ : state) {
    usam_calc_weights_8u_c3(img, kWidth, kHeight, kWidth * 3, mask, kWidth, low,
                            kLowWidth, kLowHeight, kLowWidth * 3, idx.data(),
                            2 * kWidth, wts.data(), kWidth, mode);
    benchmark::DoNotOptimize(idx.data());
    benchmark::DoNotOptimize(wts.data());
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}

// The session's table build: every pixel of the photo (range 0) or only the
// unknown band around the subject, a few percent of it (range 1).
void BM_usam_calc_weights_8u_c3_12MP(benchmark::State& state) {
  const Photo& p = TestPhoto();
  const bool bandOnly = state.range(0) == 1;
  TimeTableBuild(state, p.img.data(), p.low.data(),
                 bandOnly ? p.band.data() : nullptr, 3);
}
BENCHMARK(BM_usam_calc_weights_8u_c3_12MP)
    ->ArgNames({"band_only"})
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond);

// A real photo of the matting set blown up to 12 megapixels, its working
// copy reduced as the session does, and its trimap's unknown band: real
// colours have flat patches and edges the synthetic noise never gives.
struct RealPhoto {
  bool loaded = false;
  std::vector<unsigned char> img;
  std::vector<unsigned char> low;
  std::vector<unsigned char> band;
};

const RealPhoto& TestRealPhoto() {
  static const RealPhoto photo = [] {
    RealPhoto p;
    softmatte_test::MattingSample sample;
    if (!softmatte_test::LoadMattingSample(1, false, &sample)) return p;
    const softmatte_test::Image& in = sample.image;
    const softmatte_test::Image& tri = sample.trimap;
    p.img.resize(kPixels * 3);
    ff::ipf_resize_bl(in.pixels.data(), in.width, in.height, in.width * 3, 3,
                      p.img.data(), kWidth, kHeight, kWidth * 3, 3, 3);
    p.low.resize(static_cast<size_t>(kLowWidth) * kLowHeight * 3);
    ff::ipf_resize_nn<unsigned char, ff::ccn<3>>(
        p.img.data(), kWidth, kHeight, kWidth * 3, 3, p.low.data(), kLowWidth,
        kLowHeight, kLowWidth * 3, 3, ff::ccn<3>());
    std::vector<unsigned char> trimap(kPixels);
    ff::ipf_resize_nn<unsigned char, ff::ccn<1>>(
        tri.pixels.data(), tri.width, tri.height, tri.width, 1, trimap.data(),
        kWidth, kHeight, kWidth, 1, ff::ccn<1>());
    p.band.resize(kPixels);
    for (size_t i = 0; i < kPixels; ++i) {
      p.band[i] = trimap[i] == 128 ? 128 : 0;
    }
    p.loaded = true;
    return p;
  }();
  return photo;
}

void BM_usam_calc_weights_8u_c3_real_12MP(benchmark::State& state) {
  const RealPhoto& p = TestRealPhoto();
  if (!p.loaded) {
    state.SkipWithError("matting photos not found");
    return;
  }
  const bool bandOnly = state.range(0) == 1;
  TimeTableBuild(state, p.img.data(), p.low.data(),
                 bandOnly ? p.band.data() : nullptr, 3);
}
BENCHMARK(BM_usam_calc_weights_8u_c3_real_12MP)
    ->ArgNames({"band_only"})
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond);

void BM_usam_calc_weights_8u_c3_2x2_12MP(benchmark::State& state) {
  const Photo& p = TestPhoto();
  TimeTableBuild(state, p.img.data(), p.low.data(), nullptr, 2);
}
BENCHMARK(BM_usam_calc_weights_8u_c3_2x2_12MP)->Unit(benchmark::kMillisecond);

// Applying a whole-photo table to the working matte, as every refinement does.
void BM_usam_interpolate_c1(benchmark::State& state) {
  const Photo& p = TestPhoto();
  const Table& t = PhotoTable();
  std::vector<unsigned char> out(kPixels);
  for (auto _ : state) {
    usam_interpolate_c1(p.lowAlpha.data(), kLowWidth, kLowHeight, t.idx.data(),
                        2 * kWidth, t.wts.data(), kWidth, out.data(), kWidth,
                        kHeight, kWidth);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
BENCHMARK(BM_usam_interpolate_c1)->Unit(benchmark::kMillisecond);

// Only the unknown band, as the session restricts it.
void BM_usam_interpolate_c1_masked(benchmark::State& state) {
  const Photo& p = TestPhoto();
  const Table& t = PhotoTable();
  std::vector<unsigned char> out(kPixels);
  for (auto _ : state) {
    usam_interpolate_c1(p.lowAlpha.data(), kLowWidth, kLowHeight, t.idx.data(),
                        2 * kWidth, t.wts.data(), kWidth, out.data(), kWidth,
                        kHeight, kWidth, p.band.data(), kWidth, 128);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
BENCHMARK(BM_usam_interpolate_c1_masked)->Unit(benchmark::kMillisecond);

// The whole-matte upsampler: bilinear, colour-guided in the transition zone.
void BM_usam_alpha_12MP(benchmark::State& state) {
  const Photo& p = TestPhoto();
  std::vector<unsigned char> out(kPixels);
  for (auto _ : state) {
    usam_alpha(p.low.data(), kLowWidth, kLowHeight, kLowWidth * 3,
               p.lowAlpha.data(), kLowWidth, p.img.data(), kWidth, kHeight,
               kWidth * 3, out.data(), kWidth);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
BENCHMARK(BM_usam_alpha_12MP)->Unit(benchmark::kMillisecond);

}  // namespace
