#include "cutout.h"

#include <cstddef>
#include <cstdio>
#include <ctime>

#include "softmatte/colour.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/geoseg.h"
#include "softmatte/resample.h"
#include "softmatte/solver.h"
#include "softmatte/trimap.h"

namespace softmatte_tool {
namespace {

constexpr unsigned char kUnknown = 128;
// Each full-resolution pixel is paired within the 3x3 working neighbourhood.
constexpr int kNeighbourhood3x3 = 3;
// Colours are estimated over the matte's soft pixels only; 0 and 254..255
// count as settled.
constexpr unsigned char kSoftLow = 1;
constexpr unsigned char kSoftHigh = 253;

// The session solves in the opposite polarity to the trimap builder; 128
// stays 128 both ways.
void Complement(std::vector<unsigned char>* plane) {
  for (unsigned char& v : *plane) {
    if (v != kUnknown) v = static_cast<unsigned char>(255 - v);
  }
}

// Strokes are drawn in saturated red or blue; anti-aliased stroke edges and
// photo-like colours fall outside these boxes and stay unlabelled.
bool IsStroke(const unsigned char* bgra, int hot) {
  if (bgra[3] < 128) return false;
  for (int c = 0; c < 3; ++c) {
    const bool wanted = c == hot;
    if (wanted ? bgra[c] < 192 : bgra[c] > 96) return false;
  }
  return true;
}

}  // namespace

StageClock::StageClock(bool enabled) : enabled_(enabled) {}

void StageClock::Start(const char* stage) {
  Stop();
  stage_ = stage;
  begin_ = std::chrono::steady_clock::now();
  cpu_begin_ = std::clock();
}

void StageClock::Stop() {
  if (!stage_) return;
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_)
          .count();
  // Processor time beside the wall clock: on a busy machine the two differ.
  const double cpu =
      static_cast<double>(std::clock() - cpu_begin_) / CLOCKS_PER_SEC;
  if (enabled_) {
    std::fprintf(stderr, "softmatte: %-34s %8.3f s (processor %.3f s)\n",
                 stage_, seconds, cpu);
  }
  stage_ = nullptr;
}

void TrimapFromMask(const std::vector<unsigned char>& mask, int width,
                    int height, const CutoutSettings& settings,
                    std::vector<unsigned char>* trimap) {
  trimap->assign(mask.size(), 0);
  MakeTrimapFromSegRes(mask.data(), width, height, width, trimap->data(), width,
                       settings.max_band, settings.band_scale);
}

void ScribbleLabels(const std::vector<unsigned char>& scribbles, int width,
                    int height, std::vector<unsigned char>* labels,
                    long* foreground, long* background) {
  const size_t count = static_cast<size_t>(width) * height;
  labels->assign(count, 0);
  *foreground = 0;
  *background = 0;
  for (size_t i = 0; i < count; ++i) {
    const unsigned char* p = &scribbles[4 * i];
    if (IsStroke(p, 2)) {
      (*labels)[i] = 2;
      ++*foreground;
    } else if (IsStroke(p, 0)) {
      (*labels)[i] = 1;
      ++*background;
    }
  }
}

void MaskFromLabels(const std::vector<unsigned char>& photo, int width,
                    int height, const std::vector<unsigned char>& labels,
                    std::vector<unsigned char>* mask) {
  std::vector<float> probability(static_cast<size_t>(width) * height);
  {
    GeoSeg segmenter;
    segmenter.SetImage(photo.data(), width, height, 3 * width, 3);
    segmenter.GetProb(labels.data(), width, probability.data(), width);
  }
  mask->resize(probability.size());
  // Strictly above one half: a pixel neither stroke reaches stays out.
  for (size_t i = 0; i < probability.size(); ++i) {
    (*mask)[i] = probability[i] > 0.5f ? 255 : 0;
  }
}

void MakeCutout(std::vector<unsigned char>* photo, int width, int height,
                std::vector<unsigned char>* trimap,
                const CutoutSettings& settings, StageClock* clock,
                std::vector<unsigned char>* alpha,
                std::vector<unsigned char>* foreground) {
  // The session's road (MakeMatteFromSegmRes with the trimap made outside),
  // taken step by step so that each stage can be timed on its own.
  clock->Start("tables (working copy, upsampling)");
  const size_t count = static_cast<size_t>(width) * height;
  int work_width = width;
  int work_height = height;
  // Reduced only when both sides exceed the working size, as the session
  // does.
  if (width > settings.work_size && height > settings.work_size) {
    const double sx = static_cast<double>(settings.work_size) / width;
    const double sy = static_cast<double>(settings.work_size) / height;
    const double s = sx < sy ? sx : sy;
    work_width = static_cast<int>(s * width + 0.5);
    work_height = static_cast<int>(s * height + 0.5);
  }
  work_width &= ~3;
  const bool solvable = work_width >= 1 && work_height >= 1;
  const size_t work_count = static_cast<size_t>(work_width) * work_height;
  std::vector<unsigned char> work_image(3 * work_count);
  std::vector<short> weights;
  std::vector<int> indices;
  if (solvable) {
    ff::ipf_resize_nn(photo->data(), width, height, 3 * width, 3,
                      work_image.data(), work_width, work_height,
                      3 * work_width, 3, ff::ccn<3>());
    weights.resize(count);
    indices.assign(2 * count, -1);
    usam_calc_weights_8u_c3(photo->data(), width, height, 3 * width, nullptr, 0,
                            work_image.data(), work_width, work_height,
                            3 * work_width, indices.data(), 2 * width,
                            weights.data(), width, kNeighbourhood3x3);
  }
  if (!foreground) std::vector<unsigned char>().swap(*photo);

  clock->Start("solve");
  Complement(trimap);
  // The trimap's known values are the matte outside the unknown band.
  *alpha = *trimap;
  std::vector<unsigned char> work_alpha(work_count);
  if (solvable) {
    ff::ipf_resize_nn(trimap->data(), width, height, width, 1,
                      work_alpha.data(), work_width, work_height, work_width, 1,
                      ff::ccn<1>());
    const std::vector<unsigned char> work_trimap = work_alpha;
    std::vector<unsigned char> unknown(work_count);
    for (size_t i = 0; i < work_count; ++i) {
      unknown[i] = work_trimap[i] == kUnknown ? 1 : 0;
    }
    mat_data problem;
    mat_update(work_image.data(), work_width, work_height, 3 * work_width,
               unknown.data(), work_width, problem, problem, nullptr);
    std::vector<unsigned char>().swap(unknown);
    std::vector<unsigned char>().swap(work_image);
    // Whatever the solve leaves in the working alpha is carried on as it is.
    mat_run(problem, work_trimap.data(), work_alpha.data(), nullptr);
  }

  clock->Start("upsampling");
  if (solvable) {
    usam_interpolate_c1(work_alpha.data(), work_width, work_height,
                        indices.data(), 2 * width, weights.data(), width,
                        alpha->data(), width, height, width, trimap->data(),
                        width, kUnknown);
  }
  std::vector<unsigned char>().swap(work_alpha);
  std::vector<short>().swap(weights);
  std::vector<int>().swap(indices);
  std::vector<unsigned char>().swap(*trimap);

  clock->Start("cleanup");
  // In the session's polarity, where its cleanup runs.
  if (width >= 1 && height >= 1) {
    mat_smooth_boundary(alpha->data(), width, height, width, alpha->data(),
                        width, settings.smooth_window);
    if (settings.keep_fragments >= 1) {
      vm_erase_small_cc(alpha->data(), width, height, width, 0,
                        settings.keep_fragments);
    }
  }
  Complement(alpha);
  clock->Stop();

  if (!foreground) return;
  clock->Start("colours");
  // The colour estimator takes 255 as the subject: hand it the matte in the
  // caller's polarity, not the session's.
  foreground->resize(3 * count);
  mat_estimate_fb_color(photo->data(), width, height, 3 * width, alpha->data(),
                        width, foreground->data(), 3 * width, nullptr, 0,
                        kSoftLow, kSoftHigh);
  std::vector<unsigned char>().swap(*photo);
  clock->Stop();
}

void Composite(const std::vector<unsigned char>& foreground,
               const std::vector<unsigned char>& alpha,
               const std::vector<unsigned char>& background,
               std::vector<unsigned char>* out) {
  out->resize(foreground.size());
  for (size_t i = 0; i < alpha.size(); ++i) {
    const int a = alpha[i];
    for (size_t c = 3 * i; c < 3 * i + 3; ++c) {
      (*out)[c] = static_cast<unsigned char>(
          (foreground[c] * a + background[c] * (255 - a) + 127) / 255);
    }
  }
}

}  // namespace softmatte_tool
