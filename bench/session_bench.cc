#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "softmatte/colour.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "softmatte/session.h"
#include "softmatte/solver.h"
#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using Plane = std::vector<unsigned char>;
using softmatte_test::MattingSample;

constexpr unsigned char kUnknown = 128;
constexpr int kWidth = 4000;
constexpr int kHeight = 3000;  // 12 megapixels, a phone photo
constexpr int kWorkSize = 1000;
// Trimap parameters for a 12-megapixel photo: bands up to 40 pixels wide on
// each side, narrowed to 8 where the edge has little contrast.
constexpr int kMaxBand = 40;
constexpr double kBandScale = 0.5;
constexpr int kStep = 3;
constexpr unsigned char kDiffLow = 5;
constexpr unsigned char kDiffHigh = 50;
constexpr int kMinBand = 8;
constexpr int kSmoothing = 5;
constexpr int kKeep = 1;

unsigned char Complement(unsigned char v) {
  return v == kUnknown ? v : static_cast<unsigned char>(255 - v);
}

// A small photo and its 0/255 subject mask: GT18 of the alphamatting set
// when it is there, otherwise a person shape on a gradient.
void SmallPhoto(Plane* image, Plane* mask, int* width, int* height) {
  MattingSample sample;
  if (softmatte_test::LoadMattingSample(18, false, &sample)) {
    *width = sample.image.width;
    *height = sample.image.height;
    *image = sample.image.pixels;
    *mask = softmatte_test::Binarize(sample.truth.pixels, 128);
    return;
  }
  *width = 800;
  *height = 600;
  image->resize(static_cast<size_t>(*width) * *height * 3);
  mask->resize(static_cast<size_t>(*width) * *height);
  for (int y = 0; y < *height; ++y) {
    for (int x = 0; x < *width; ++x) {
      const double hx = (x - 400) / 66.0, hy = (y - 140) / 84.0;
      const double tx = (x - 400) / 220.0, ty = (y - 520) / 280.0;
      const bool in =
          hx * hx + hy * hy <= 1.0 || (tx * tx + ty * ty <= 1.0 && y > 220);
      const size_t i = static_cast<size_t>(y) * *width + x;
      (*mask)[i] = in ? 255 : 0;
      unsigned char* px = &(*image)[3 * i];
      px[0] = static_cast<unsigned char>(in ? 70 : 200 - y / 4);
      px[1] = static_cast<unsigned char>(in ? 100 + x % 31 : 60 + x / 8);
      px[2] = static_cast<unsigned char>(in ? 160 : 120 + (x + y) / 20);
    }
  }
}

// The small photo blown up to width x height with a bilinear resize, and its
// mask thresholded again after the same resize.
void UpscaledPhoto(int width, int height, Plane* image, Plane* seg) {
  Plane smallImage, smallMask;
  int w = 0, h = 0;
  SmallPhoto(&smallImage, &smallMask, &w, &h);
  const size_t pixels = static_cast<size_t>(width) * height;
  image->resize(pixels * 3);
  ff::ipf_resize_bl(smallImage.data(), w, h, 3 * w, 3, image->data(), width,
                    height, 3 * width, 3, 3);
  Plane soft(pixels);
  ff::ipf_resize_bl(smallMask.data(), w, h, w, 1, soft.data(), width, height,
                    width, 1, 1);
  *seg = softmatte_test::Binarize(soft, 128);
}

// Everything the session computes on the way to a matte, kept so that each
// stage can be timed alone on the inputs the session hands it.
struct Scene {
  int workWidth = 0;
  int workHeight = 0;
  Plane image;  // full resolution, B, G, R
  Plane seg;
  Plane trimap;  // session polarity
  Plane workImage;
  Plane workTrimap;
  Plane mask;  // 1 at the working trimap's unknowns
  std::vector<int> idx;
  std::vector<short> wts;
  Plane workAlpha;  // solved
  Plane raw;        // full-resolution matte before cleanup
  Plane alpha;      // the finished matte, session polarity
  std::unique_ptr<mat_data> problem;
};

const Scene& Photo12MP() {
  static const Scene* const scene = [] {
    Scene* s = new Scene;
    UpscaledPhoto(kWidth, kHeight, &s->image, &s->seg);
    const size_t pixels = static_cast<size_t>(kWidth) * kHeight;

    s->trimap.resize(pixels);
    MakeTrimapFromSegRes(s->image.data(), kWidth, kHeight, 3 * kWidth,
                         s->seg.data(), kWidth, s->trimap.data(), kWidth,
                         kMaxBand, kBandScale, kStep, kDiffLow, kDiffHigh,
                         kMinBand);
    for (auto& v : s->trimap) v = Complement(v);

    const double scale = std::min(static_cast<double>(kWorkSize) / kWidth,
                                  static_cast<double>(kWorkSize) / kHeight);
    s->workWidth = static_cast<int>(scale * kWidth + 0.5) & ~3;
    s->workHeight = static_cast<int>(scale * kHeight + 0.5);
    const int ww = s->workWidth, wh = s->workHeight;
    const size_t workPixels = static_cast<size_t>(ww) * wh;
    s->workImage.resize(workPixels * 3);
    ff::ipf_resize_nn(s->image.data(), kWidth, kHeight, 3 * kWidth, 3,
                      s->workImage.data(), ww, wh, 3 * ww, 3, ff::ccn<3>());
    s->workTrimap.resize(workPixels);
    ff::ipf_resize_nn(s->trimap.data(), kWidth, kHeight, kWidth, 1,
                      s->workTrimap.data(), ww, wh, ww, 1, ff::ccn<1>());
    s->workAlpha = s->workTrimap;
    s->idx.assign(pixels * 2, -1);
    s->wts.resize(pixels);
    usam_calc_weights_8u_c3(s->image.data(), kWidth, kHeight, 3 * kWidth,
                            s->trimap.data(), kWidth, kUnknown,
                            s->workImage.data(), ww, wh, 3 * ww, s->idx.data(),
                            2 * kWidth, s->wts.data(), kWidth, 3);

    s->mask.resize(workPixels);
    for (size_t i = 0; i < workPixels; ++i) {
      s->mask[i] = s->workTrimap[i] == kUnknown;
    }
    s->problem.reset(new mat_data);
    mat_update(s->workImage.data(), ww, wh, 3 * ww, s->mask.data(), ww,
               *s->problem, *s->problem, nullptr);
    mat_run(*s->problem, s->workTrimap.data(), s->workAlpha.data(), nullptr);
    s->raw = s->trimap;
    usam_interpolate_c1(s->workAlpha.data(), ww, wh, s->idx.data(), 2 * kWidth,
                        s->wts.data(), kWidth, s->raw.data(), kWidth, kHeight,
                        kWidth, s->trimap.data(), kWidth, kUnknown);
    s->alpha = s->raw;
    mat_smooth_boundary(s->alpha.data(), kWidth, kHeight, kWidth,
                        s->alpha.data(), kWidth, kSmoothing);
    vm_erase_small_cc(s->alpha.data(), kWidth, kHeight, kWidth, 0, kKeep);
    return s;
  }();
  return *scene;
}

void InitSession(DSCMatting& session, const Scene& s) {
  session.Init(s.image.data(), kWidth, kHeight, 3 * kWidth, s.seg.data(),
               kWidth, kWorkSize, kMaxBand, kBandScale, kStep, kDiffLow,
               kDiffHigh, kMinBand);
}

void Describe(benchmark::State& state, const Scene& s) {
  state.counters["unknowns"] = s.problem->n;
  state.counters["work_width"] = s.workWidth;
  state.counters["work_height"] = s.workHeight;
}

// ---- The three calls as the application makes them ----

void BM_session_Init_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  DSCMatting session;
  for (auto _ : state) {
    InitSession(session, s);
    benchmark::DoNotOptimize(session.GetAlpha(nullptr));
  }
  Describe(state, s);
}
BENCHMARK(BM_session_Init_12MP)->Unit(benchmark::kMillisecond);

void BM_session_MakeMatte_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  DSCMatting session;
  InitSession(session, s);
  Plane out(s.alpha.size());
  for (auto _ : state) {
    session.MakeMatte(out.data(), kWidth, kHeight, kWidth, kSmoothing, kKeep);
    benchmark::DoNotOptimize(out.data());
  }
  Describe(state, s);
}
BENCHMARK(BM_session_MakeMatte_12MP)->Unit(benchmark::kMillisecond);

void BM_session_GetFImage_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  DSCMatting session;
  InitSession(session, s);
  session.set_alpha(s.alpha.data(), kWidth, kHeight, kWidth);
  Plane out(s.image.size());
  for (auto _ : state) {
    session.GetFImage(out.data(), 3 * kWidth, 1);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_session_GetFImage_12MP)->Unit(benchmark::kMillisecond);

// The whole flow on a VGA photo: quick enough for every run.
void BM_session_flow_VGA(benchmark::State& state) {
  const int vw = 640, vh = 480;
  Plane image, seg;
  UpscaledPhoto(vw, vh, &image, &seg);
  Plane out(seg.size()), colours(image.size());
  for (auto _ : state) {
    DSCMatting session(image.data(), vw, vh, 3 * vw, seg.data(), vw, 320, 10,
                       0.5, kStep, kDiffLow, kDiffHigh, 2);
    session.MakeMatte(out.data(), vw, vh, vw, 3, kKeep);
    session.GetFImage(colours.data(), 3 * vw, -1);
    benchmark::DoNotOptimize(colours.data());
  }
}
BENCHMARK(BM_session_flow_VGA)->Unit(benchmark::kMillisecond);

// ---- Init's stages ----

void BM_session_stage_trimap_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  Plane trimap(s.seg.size());
  for (auto _ : state) {
    MakeTrimapFromSegRes(s.image.data(), kWidth, kHeight, 3 * kWidth,
                         s.seg.data(), kWidth, trimap.data(), kWidth, kMaxBand,
                         kBandScale, kStep, kDiffLow, kDiffHigh, kMinBand);
    for (auto& v : trimap) v = Complement(v);
    benchmark::DoNotOptimize(trimap.data());
  }
}
BENCHMARK(BM_session_stage_trimap_12MP)->Unit(benchmark::kMillisecond);

// The photo's copy and the three nearest-neighbour reductions.
void BM_session_stage_reduce_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  const int ww = s.workWidth, wh = s.workHeight;
  Plane image(s.image.size()), alpha(s.trimap.size());
  Plane workImage(s.workImage.size()), workPlane(s.workTrimap.size());
  for (auto _ : state) {
    std::memcpy(image.data(), s.image.data(), s.image.size());
    std::memcpy(alpha.data(), s.trimap.data(), s.trimap.size());
    ff::ipf_resize_nn(image.data(), kWidth, kHeight, 3 * kWidth, 3,
                      workImage.data(), ww, wh, 3 * ww, 3, ff::ccn<3>());
    ff::ipf_resize_nn(alpha.data(), kWidth, kHeight, kWidth, 1,
                      workPlane.data(), ww, wh, ww, 1, ff::ccn<1>());
    ff::ipf_resize_nn(s.trimap.data(), kWidth, kHeight, kWidth, 1,
                      workPlane.data(), ww, wh, ww, 1, ff::ccn<1>());
    benchmark::DoNotOptimize(workImage.data());
    benchmark::DoNotOptimize(workPlane.data());
  }
}
BENCHMARK(BM_session_stage_reduce_12MP)->Unit(benchmark::kMillisecond);

void BM_session_stage_tables_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  std::vector<int> idx(s.idx.size());
  std::vector<short> wts(s.wts.size());
  for (auto _ : state) {
    std::memset(idx.data(), 0xFF, idx.size() * sizeof(int));
    usam_calc_weights_8u_c3(
        s.image.data(), kWidth, kHeight, 3 * kWidth, s.trimap.data(), kWidth,
        kUnknown, s.workImage.data(), s.workWidth, s.workHeight,
        3 * s.workWidth, idx.data(), 2 * kWidth, wts.data(), kWidth, 3);
    benchmark::DoNotOptimize(idx.data());
  }
}
BENCHMARK(BM_session_stage_tables_12MP)->Unit(benchmark::kMillisecond);

// ---- MakeMatte's stages ----

void BM_session_stage_assembly_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  const int ww = s.workWidth, wh = s.workHeight;
  Plane mask(s.mask.size());
  for (auto _ : state) {
    for (size_t i = 0; i < mask.size(); ++i) {
      mask[i] = s.workTrimap[i] == kUnknown;
    }
    mat_data problem;
    mat_update(s.workImage.data(), ww, wh, 3 * ww, mask.data(), ww, problem,
               problem, nullptr);
    benchmark::DoNotOptimize(problem.values);
  }
  Describe(state, s);
}
BENCHMARK(BM_session_stage_assembly_12MP)->Unit(benchmark::kMillisecond);

// mat_run: pinning the known pixels, the SuperLU factorisation and solve,
// and writing the alpha; SuperLU is nearly all of it.
void BM_session_stage_superlu_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  Plane workAlpha = s.workTrimap;
  for (auto _ : state) {
    mat_run(*s.problem, s.workTrimap.data(), workAlpha.data(), nullptr);
    benchmark::DoNotOptimize(workAlpha.data());
  }
  Describe(state, s);
}
BENCHMARK(BM_session_stage_superlu_12MP)->Unit(benchmark::kMillisecond);

void BM_session_stage_upsampling_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  Plane alpha = s.trimap;
  for (auto _ : state) {
    usam_interpolate_c1(s.workAlpha.data(), s.workWidth, s.workHeight,
                        s.idx.data(), 2 * kWidth, s.wts.data(), kWidth,
                        alpha.data(), kWidth, kHeight, kWidth, s.trimap.data(),
                        kWidth, kUnknown);
    benchmark::DoNotOptimize(alpha.data());
  }
}
BENCHMARK(BM_session_stage_upsampling_12MP)->Unit(benchmark::kMillisecond);

// Smoothing, fragment removal, the copy out and the complement back.
void BM_session_stage_cleanup_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  Plane alpha(s.raw.size()), out(s.raw.size());
  for (auto _ : state) {
    mat_smooth_boundary(s.raw.data(), kWidth, kHeight, kWidth, alpha.data(),
                        kWidth, kSmoothing);
    vm_erase_small_cc(alpha.data(), kWidth, kHeight, kWidth, 0, kKeep);
    for (size_t i = 0; i < out.size(); ++i) out[i] = Complement(alpha[i]);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_session_stage_cleanup_12MP)->Unit(benchmark::kMillisecond);

// ---- GetFImage's one stage, and the reference ----

void BM_session_stage_colours_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  Plane fg(s.image.size());
  for (auto _ : state) {
    mat_estimate_fb_color(s.image.data(), kWidth, kHeight, 3 * kWidth,
                          s.alpha.data(), kWidth, fg.data(), 3 * kWidth,
                          nullptr, 0, 1, 253);
    benchmark::DoNotOptimize(fg.data());
  }
}
BENCHMARK(BM_session_stage_colours_12MP)->Unit(benchmark::kMillisecond);

// A memcpy of the 12-megapixel colour photo: the floor for any pass over it.
void BM_session_memcpy_photo_12MP(benchmark::State& state) {
  const Scene& s = Photo12MP();
  Plane copy(s.image.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), s.image.data(), s.image.size());
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(s.image.size()));
}
BENCHMARK(BM_session_memcpy_photo_12MP)->Unit(benchmark::kMillisecond);

// ---- Quality over the 27 photos of the set (minutes; not for smoke runs)
// ----

// MakeMatteFromSegmRes from the truth thresholded at 128, band half-size 20,
// on an unsegmented session reduced to work_size; mean SAD over the set's
// own unknown pixels.
void BM_session_AllPhotos_FromTruth(benchmark::State& state) {
  if (softmatte_test::AlphamattingDir().empty()) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  const int workSize = static_cast<int>(state.range(0));
  const int keep = static_cast<int>(state.range(1));
  double sadSum = 0.0;
  int photos = 0;
  for (auto _ : state) {
    for (int index = 1; index <= 27; ++index) {
      MattingSample sample;
      if (!softmatte_test::LoadMattingSample(index, false, &sample)) continue;
      const int w = sample.image.width, h = sample.image.height;
      const Plane seg = softmatte_test::Binarize(sample.truth.pixels, 128);
      DSCMatting session(sample.image.pixels.data(), w, h, 3 * w, workSize);
      Plane out(seg.size());
      session.MakeMatteFromSegmRes(seg.data(), w, h, w, out.data(), w, 20, 0.5,
                                   3, keep);
      sadSum += softmatte_test::SadOverUnknown(out, sample);
      ++photos;
    }
  }
  if (photos > 0) state.counters["mean_SAD"] = sadSum / photos;
  state.counters["photos"] = photos;
}
BENCHMARK(BM_session_AllPhotos_FromTruth)
    ->ArgNames({"work_size", "keep"})
    ->ArgsProduct({{400, 800}, {0, 1}})
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

// Refine at full resolution with the set's own trimaps beside a direct
// mat_update + mat_run on the same trimap: the session's overhead in SAD.
void BM_session_AllPhotos_RefineVsDirect(benchmark::State& state) {
  if (softmatte_test::AlphamattingDir().empty()) {
    state.SkipWithError("alphamatting photos not found beside the project");
    return;
  }
  double sessionSad = 0.0, directSad = 0.0;
  int photos = 0;
  for (auto _ : state) {
    for (int index = 1; index <= 27; ++index) {
      MattingSample sample;
      if (!softmatte_test::LoadMattingSample(index, false, &sample)) continue;
      const int w = sample.image.width, h = sample.image.height;
      const Plane& trimap = sample.trimap.pixels;
      Plane mask(trimap.size()), inverted(trimap.size());
      for (size_t i = 0; i < trimap.size(); ++i) {
        mask[i] = trimap[i] == kUnknown;
        inverted[i] = Complement(trimap[i]);
      }
      Plane direct = trimap;
      mat_data problem;
      mat_update(sample.image.pixels.data(), w, h, 3 * w, mask.data(), w,
                 problem, problem, nullptr);
      mat_run(problem, trimap.data(), direct.data(), nullptr);
      directSad += softmatte_test::SadOverUnknown(direct, sample);

      DSCMatting session(sample.image.pixels.data(), w, h, 3 * w, 4096);
      Plane out(trimap.size());
      session.Refine(inverted.data(), w, h, w, out.data(), w, 3, 0);
      for (auto& v : out) v = Complement(v);
      sessionSad += softmatte_test::SadOverUnknown(out, sample);
      ++photos;
    }
  }
  if (photos == 0) return;
  state.counters["photos"] = photos;
  state.counters["mean_SAD_session"] = sessionSad / photos;
  state.counters["mean_SAD_direct"] = directSad / photos;
  state.counters["ratio"] = sessionSad / directSad;
}
BENCHMARK(BM_session_AllPhotos_RefineVsDirect)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace
