#include "cutout.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "softmatte/geoseg.h"
#include "softmatte/session.h"
#include "softmatte/trimap.h"

namespace softmatte_tool {
namespace {

constexpr unsigned char kUnknown = 128;

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
  clock->Start("tables (working copy, upsampling)");
  DSCMatting session(photo->data(), width, height, 3 * width,
                     settings.work_size);
  std::vector<unsigned char>().swap(*photo);

  // The same road as MakeMatteFromSegmRes, with the trimap made outside so
  // that it can come from a file or from scribbles as well as from a mask.
  clock->Start("solve, upsampling, cleanup");
  Complement(trimap);
  alpha->assign(trimap->size(), 0);
  session.Refine(trimap->data(), width, height, width, alpha->data(), width,
                 settings.smooth_window, settings.keep_fragments);
  std::vector<unsigned char>().swap(*trimap);
  Complement(alpha);
  clock->Stop();

  if (!foreground) return;
  clock->Start("colours");
  // The colour estimator takes 255 as the subject: hand it the matte in the
  // caller's polarity, not the session's.
  session.set_alpha(alpha->data(), width, height, width);
  int stride = 0;
  const unsigned char* colours = session.GetFImage(&stride, 1);
  // Taken only now: during the estimate this copy would add to the peak.
  foreground->resize(3 * alpha->size());
  for (int y = 0; y < height; ++y) {
    std::copy(colours + static_cast<size_t>(y) * stride,
              colours + static_cast<size_t>(y) * stride + 3 * width,
              foreground->begin() + static_cast<size_t>(y) * 3 * width);
  }
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
