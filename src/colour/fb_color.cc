#include "colour/fb_color.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "colour/fb_color_steps.h"
#include "softmatte/colour.h"
#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/ipf.h"

#ifdef SOFTMATTE_FB_COLOR_STAGE_TIMES
#include <time.h>

#include <cstdio>
#endif

namespace {

using fb_color::Buffer;
using fb_color::kBackground;
using fb_color::kForeground;
using fb_color::kUnknown;
using fb_color::kWindowNeighbours;
constexpr int kLabelBlock = 16;

#ifdef SOFTMATTE_FB_COLOR_STAGE_TIMES
// Benchmark builds only: per-call split of the thread's CPU time between the
// stages, printed when the call returns.
class StageClock {
 public:
  void Lap(int stage) {
    const double now = Now();
    total_[stage] += now - last_;
    last_ = now;
  }
  ~StageClock() {
    std::fprintf(stderr,
                 "fb_color cpu ms: levels %.1f coarse %.1f transfer %.1f "
                 "window %.1f distance %.1f final %.1f\n",
                 total_[0], total_[1], total_[2], total_[3], total_[4],
                 total_[5]);
  }

 private:
  static double Now() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec * 1e-6;
  }
  double last_ = Now();
  double total_[6] = {};
};
#define STAGE_LAP(clock, stage) (clock).Lap(stage)
#else
struct StageClock {};
#define STAGE_LAP(clock, stage) static_cast<void>(clock)
#endif
enum Stage { kLevels, kCoarse, kTransfer, kWindow, kDistance, kFinal };

inline const unsigned char* At(const unsigned char* plane, int stride, int x,
                               int y, int channels) {
  return plane + static_cast<ptrdiff_t>(y) * stride +
         static_cast<ptrdiff_t>(x) * channels;
}
inline unsigned char* At(unsigned char* plane, int stride, int x, int y,
                         int channels) {
  return plane + static_cast<ptrdiff_t>(y) * stride +
         static_cast<ptrdiff_t>(x) * channels;
}

// Counts in registers: a table of counters indexed by label would make
// every pixel wait for the previous one's store.
void CountKnown(const unsigned char* label, int stride, int width, int height,
                int64_t* background, int64_t* foreground) {
  for (int y = 0; y < height; ++y) {
    const unsigned char* row = label + static_cast<ptrdiff_t>(y) * stride;
    int b = 0;
    int f = 0;
    for (int x = 0; x < width; ++x) {
      b += row[x] == kBackground;
      f += row[x] == kForeground;
    }
    *background += b;
    *foreground += f;
  }
}

// Index of the first unknown label at or after x in a row of width labels,
// or width. The band is a few percent of a photo: the library's memchr
// passes over the known runs far faster than a test per pixel.
inline int NextUnknown(const unsigned char* row, int x, int width) {
  if (x >= width) return width;
  const void* hit = std::memchr(row + x, kUnknown, width - x);
  return hit == nullptr
             ? width
             : static_cast<int>(static_cast<const unsigned char*>(hit) - row);
}

// A level's label and colour planes as the ring search reads them.
class DenseLevelView {
 public:
  struct Row {
    const unsigned char* label;
    const unsigned char* colour;
    unsigned char Label(int x) const { return label[x]; }
    const unsigned char* Colour(int x) const {
      return colour + static_cast<ptrdiff_t>(x) * 3;
    }
  };
  DenseLevelView(const unsigned char* label, int labelStride,
                 const unsigned char* colour, int colourStride, int width,
                 int height)
      : label_(label),
        labelStride_(labelStride),
        colour_(colour),
        colourStride_(colourStride),
        width_(width),
        height_(height) {}
  int width() const { return width_; }
  int height() const { return height_; }
  Row RowAt(int y) const {
    return {label_ + static_cast<ptrdiff_t>(y) * labelStride_,
            colour_ + static_cast<ptrdiff_t>(y) * colourStride_};
  }

 private:
  const unsigned char* label_;
  int labelStride_;
  const unsigned char* colour_;
  int colourStride_;
  int width_;
  int height_;
};
using RingSampler = fb_color::RingSampler<DenseLevelView>;

void LabelRows(const unsigned char* alpha, int alphaStride, int width, int y0,
               int y1, unsigned char low, unsigned char high,
               unsigned char* label) {
  for (int y = y0; y < y1; ++y) {
    const unsigned char* a = alpha + static_cast<ptrdiff_t>(y) * alphaStride;
    unsigned char* l = label + static_cast<ptrdiff_t>(y) * width;
    // Foreground wins when low > high makes a value both; arithmetic in
    // place of branches and blocks of fixed length let this vectorise.
    auto one = [&](int x) {
      const int isForeground = a[x] > high;
      const int isBackground = (a[x] < low) & (isForeground ^ 1);
      l[x] = static_cast<unsigned char>(isForeground * kForeground +
                                        isBackground * kBackground);
    };
    int x = 0;
    for (; x + kLabelBlock <= width; x += kLabelBlock) {
      for (int k = 0; k < kLabelBlock; ++k) one(x + k);
    }
    for (; x < width; ++x) one(x);
  }
}

// The largest level, starting from full size and halving, on which every
// unknown pixel has both known classes within its 5 x 5 window.
void ChooseCoarsestLevel(const unsigned char* label, int width, int height,
                         int* levelWidth, int* levelHeight) {
  int w = width;
  int h = height;
  for (;;) {
    if (w < 1 || h < 1) {
      w *= 2;
      h *= 2;
      break;
    }
    // A zero border of two pixels lets every window read without tests.
    const int stride = w + 4;
    Buffer<unsigned char> padded(
        new unsigned char[static_cast<size_t>(stride) * (h + 4)]());
    unsigned char* inner = padded.get() + 2 * stride + 2;
    ff::ipf_resize_nn(label, width, height, width, 1, inner, w, h, stride, 1,
                      ff::ccn<1>());
    int64_t backgroundCount = 0;
    int64_t foregroundCount = 0;
    CountKnown(inner, stride, w, h, &backgroundCount, &foregroundCount);
    if (backgroundCount == 0 || foregroundCount == 0) {
      // Deliberately back up (or, on the first pass, up) one level: a class
      // lost to the halving is found again, and a matte with no pixel of one
      // class is worked on at twice its size.
      w *= 2;
      h *= 2;
      break;
    }
    int offsets[kWindowNeighbours];
    ff::ipf_calc_nbr_offset(2, 2, stride, 1, offsets, true);
    bool bracketed = true;
    for (int y = 0; y < h && bracketed; ++y) {
      const unsigned char* row = inner + static_cast<ptrdiff_t>(y) * stride;
      for (int x = 0; x < w; ++x) {
        if (row[x] != kUnknown) continue;
        unsigned char seen = 0;
        for (int k = 0; k < kWindowNeighbours; ++k) seen |= row[x + offsets[k]];
        if (seen != 3) {
          bracketed = false;
          break;
        }
      }
    }
    if (bracketed || h < fb_color::kMinHalvedSide ||
        w < fb_color::kMinHalvedSide) {
      break;
    }
    w >>= 1;
    h >>= 1;
  }
  *levelWidth = w;
  *levelHeight = h;
}

void SolveCoarseLevel(_LevelData& level) {
  RingSampler sampler(DenseLevelView(level.label, level.label_stride,
                                     level.image, level.image_stride,
                                     level.width, level.height));
  for (int y = 0; y < level.height; ++y) {
    for (int x = 0; x < level.width; ++x) {
      if (level.label[static_cast<ptrdiff_t>(y) * level.label_stride + x] !=
          kUnknown) {
        continue;
      }
      sampler.collect_ring_samples(x, y);
      unsigned char* b = At(level.background, level.background_stride, x, y, 3);
      if (sampler.BackgroundCount() > 0) sampler.BackgroundMean(b);
      const int a =
          level.alpha[static_cast<ptrdiff_t>(y) * level.alpha_stride + x];
      const unsigned char* i = At(level.image, level.image_stride, x, y, 3);
      const unsigned char* f = sampler.BestForegroundSample(a, b, i);
      if (f != nullptr) {
        std::memcpy(At(level.foreground, level.foreground_stride, x, y, 3), f,
                    3);
      }
    }
  }
}

using fb_color::AxisTable;

// Carries one colour plane up a level. Coarse pixels of the excluded class
// (the other layer's known pixels) get no weight where a neighbour of the
// right kind can stand in; with all four excluded, the plane is re-estimated
// from known samples around on the coarse level.
void upsample_level_color(const _LevelData& coarse,
                          const unsigned char* coarsePlane, int coarseStride,
                          const _LevelData& fine, unsigned char* finePlane,
                          int fineStride, unsigned char excluded,
                          const AxisTable& xs, const AxisTable& ys) {
  const bool isBackground = excluded == kForeground;
  RingSampler sampler(DenseLevelView(coarse.label, coarse.label_stride,
                                     coarsePlane, coarseStride, coarse.width,
                                     coarse.height));
  for (int y = 0; y < fine.height; ++y) {
    const int iy = ys.index[y];
    const float ty = ys.frac[y];
    const unsigned char* labelTop =
        coarse.label + static_cast<ptrdiff_t>(iy) * coarse.label_stride;
    const unsigned char* labelBottom = labelTop + coarse.label_stride;
    const unsigned char* fineLabels =
        fine.label + static_cast<ptrdiff_t>(y) * fine.label_stride;
    for (int x = NextUnknown(fineLabels, 0, fine.width); x < fine.width;
         x = NextUnknown(fineLabels, x + 1, fine.width)) {
      const int ix = xs.index[x];
      const unsigned char* p00 = At(coarsePlane, coarseStride, ix, iy, 3);
      const unsigned char* p01 = p00 + coarseStride;
      const auto search = [&]() -> const RingSampler& {
        sampler.collect_ring_samples(ix, iy);
        return sampler;
      };
      fb_color::TransferPixel(
          isBackground, labelTop[ix] == excluded, labelTop[ix + 1] == excluded,
          labelBottom[ix] == excluded, labelBottom[ix + 1] == excluded,
          xs.frac[x], ty, p00, p00 + 3, p01, p01 + 3, search,
          fine.alpha[static_cast<ptrdiff_t>(y) * fine.alpha_stride + x],
          At(fine.background, fine.background_stride, x, y, 3),
          At(finePlane, fineStride, x, y, 3));
    }
  }
}

// 5 x 5 gathers on the new level: the window is moved inside the level at
// its borders rather than clipped, so it always holds 24 neighbours.
void CorrectWithWindow(_LevelData& level) {
  const int w = level.width;
  const int h = level.height;
  int labelOffsets[kWindowNeighbours];
  int imageOffsets[kWindowNeighbours];
  ff::ipf_calc_nbr_offset(2, 2, level.label_stride, 1, labelOffsets, true);
  ff::ipf_calc_nbr_offset(2, 2, level.image_stride, 3, imageOffsets, true);
  const unsigned char* bg[kWindowNeighbours];
  const unsigned char* fg[kWindowNeighbours];
  for (int y = 0; y < h; ++y) {
    const int cy = y < 2 ? 2 : std::min(y, h - 3);
    const unsigned char* labels =
        level.label + static_cast<ptrdiff_t>(y) * level.label_stride;
    for (int x = NextUnknown(labels, 0, w); x < w;
         x = NextUnknown(labels, x + 1, w)) {
      const int cx = x < 2 ? 2 : std::min(x, w - 3);
      const unsigned char* centreLabel =
          level.label + static_cast<ptrdiff_t>(cy) * level.label_stride + cx;
      const unsigned char* centreImage =
          At(level.image, level.image_stride, cx, cy, 3);
      int nb = 0;
      int nf = 0;
      for (int k = 0; k < kWindowNeighbours; ++k) {
        // Written to both lists, kept by the one the label names: no branch
        // to mispredict on the band's ragged edges.
        const unsigned char l = centreLabel[labelOffsets[k]];
        bg[nb] = centreImage + imageOffsets[k];
        fg[nf] = centreImage + imageOffsets[k];
        nb += l == kBackground;
        nf += l == kForeground;
      }
      fb_color::CorrectFromWindow(
          bg, nb, fg, nf,
          level.alpha[static_cast<ptrdiff_t>(y) * level.alpha_stride + x],
          At(level.image, level.image_stride, x, y, 3),
          At(level.background, level.background_stride, x, y, 3),
          At(level.foreground, level.foreground_stride, x, y, 3));
    }
  }
}

// The pixels measured are those with low <= alpha <= high, that is the
// unknown labels.
fb_color::BandWidth MeasureBand(const unsigned int* toFg,
                                const unsigned int* toBg,
                                const unsigned char* label, int width,
                                int height) {
  fb_color::BandHistogram histogram(width, height);
  for (int y = 0; y < height; ++y) {
    const size_t row = static_cast<size_t>(y) * width;
    const unsigned char* labels = label + row;
    for (int x = NextUnknown(labels, 0, width); x < width;
         x = NextUnknown(labels, x + 1, width)) {
      histogram.Add(fb_color::BandWidthAt(toFg[row + x], toBg[row + x]));
    }
  }
  return histogram.Result();
}

void CorrectRows(const unsigned char* image, int imageStride,
                 const unsigned char* alpha, int alphaStride,
                 const unsigned char* label, int width, int y0, int y1,
                 const unsigned int* toFg, const unsigned int* toBg,
                 const fb_color::BandWidth& band, const float* sTable,
                 const _LevelData& level) {
  for (int y = y0; y < y1; ++y) {
    const size_t row = static_cast<size_t>(y) * width;
    for (int x = NextUnknown(label + row, 0, width); x < width;
         x = NextUnknown(label + row, x + 1, width)) {
      fb_color::CorrectForeground(
          fb_color::BandWidthAt(toFg[row + x], toBg[row + x]), band,
          alpha[static_cast<ptrdiff_t>(y) * alphaStride + x], sTable,
          At(image, imageStride, x, y, 3),
          At(level.background, level.background_stride, x, y, 3),
          At(level.foreground, level.foreground_stride, x, y, 3));
    }
  }
}

}  // namespace

void _LevelData::InitLevel(const unsigned char* src_image, int src_width,
                           int src_height, int src_image_stride,
                           const unsigned char* src_alpha, int src_alpha_stride,
                           const unsigned char* src_label, int src_label_stride,
                           int level_width, int level_height) {
  Release();
  const size_t pixels = static_cast<size_t>(level_width) * level_height;
  image = new unsigned char[pixels * 3];
  alpha = new unsigned char[pixels];
  label = new unsigned char[pixels];
  background = new unsigned char[pixels * 3];
  foreground = new unsigned char[pixels * 3];
  width = level_width;
  height = level_height;
  image_stride = level_width * 3;
  alpha_stride = level_width;
  label_stride = level_width;
  background_stride = level_width * 3;
  foreground_stride = level_width * 3;
  ff::ipf_resize_nn(src_image, src_width, src_height, src_image_stride, 3,
                    image, level_width, level_height, image_stride, 3,
                    ff::ccn<3>());
  ff::ipf_resize_nn(src_alpha, src_width, src_height, src_alpha_stride, 1,
                    alpha, level_width, level_height, alpha_stride, 1,
                    ff::ccn<1>());
  ff::ipf_resize_nn(src_label, src_width, src_height, src_label_stride, 1,
                    label, level_width, level_height, label_stride, 1,
                    ff::ccn<1>());
  ff::ipf_memcpy_2d(image, level_width * 3, level_height, image_stride,
                    background, background_stride);
  ff::ipf_memcpy_2d(image, level_width * 3, level_height, image_stride,
                    foreground, foreground_stride);
}

void _LevelData::Release() {
  unsigned char* planes[5] = {image, alpha, label, background, foreground};
  for (unsigned char* p : planes) {
    if (p != nullptr) delete[] p;
  }
  width = height = 0;
  image = alpha = label = background = foreground = nullptr;
  image_stride = alpha_stride = label_stride = 0;
  background_stride = foreground_stride = 0;
}

void _calc_S_func(float* table, int low, int high, double sigma, double mid) {
  const double e = std::exp(-0.5 / sigma);
  const double c = (e + (1.0 - e) * mid) / (e + 1.0);
  const double q = ((e - 1.0) / (e - (e + 1.0) * c) - 1.0) / e;
  const double logQ = std::log(q);
  const double k = (e * e * q + 1.0) / (e * e - 1.0) / q;
  const int lo = std::max(low, 0);
  const int hi = std::min(high, 255);
  for (int v = 0; v < 256; ++v) table[v] = 0.0f;
  for (int step = 0; step <= hi - lo; ++step) {
    // A one-value band has no slope: 0 / 0, as the division would give.
    const double t = hi > lo ? static_cast<double>(step) / (hi - lo)
                             : std::numeric_limits<double>::quiet_NaN();
    table[lo + step] = static_cast<float>(
        k -
        (q + 1.0) * k / (std::exp((logQ * sigma - (1.0 - t)) / sigma) + 1.0));
  }
}

void estimate_fb_color_x(const unsigned char* image, int width, int height,
                         int image_stride, const unsigned char* alpha,
                         int alpha_stride, unsigned char* background,
                         int background_stride, unsigned char* foreground,
                         int foreground_stride, unsigned char low,
                         unsigned char high) {
  if (image == nullptr || alpha == nullptr) return;
  // Nothing to write; the steps below assume a non-empty plane.
  if (width < 1 || height < 1) return;
  StageClock clock;

  const size_t pixels = static_cast<size_t>(width) * height;
  Buffer<unsigned char> label(new unsigned char[pixels]);
  const int bands[5] = {0, height / 4, height / 2, 3 * (height / 4), height};
  for (int b = 0; b < 4; ++b) {
    LabelRows(alpha, alpha_stride, width, bands[b], bands[b + 1], low, high,
              label.get());
  }

  int w = 0;
  int h = 0;
  ChooseCoarsestLevel(label.get(), width, height, &w, &h);
  auto current = std::make_unique<_LevelData>();
  current->InitLevel(image, width, height, image_stride, alpha, alpha_stride,
                     label.get(), width, w, h);
  STAGE_LAP(clock, kLevels);
  SolveCoarseLevel(*current);
  STAGE_LAP(clock, kCoarse);

  while (current->width < width || current->height < height) {
    int nw = std::min(current->width * 2, width);
    int nh = std::min(current->height * 2, height);
    // A last step of less than a quarter is not worth a level of its own.
    if ((nw * 5) / 4 >= width || (nh * 5) / 4 >= height) {
      nw = width;
      nh = height;
    }
    auto next = std::make_unique<_LevelData>();
    next->InitLevel(image, width, height, image_stride, alpha, alpha_stride,
                    label.get(), width, nw, nh);
    STAGE_LAP(clock, kLevels);
    const AxisTable xs(current->width, nw);
    const AxisTable ys(current->height, nh);
    upsample_level_color(*current, current->background,
                         current->background_stride, *next, next->background,
                         next->background_stride, kForeground, xs, ys);
    upsample_level_color(*current, current->foreground,
                         current->foreground_stride, *next, next->foreground,
                         next->foreground_stride, kBackground, xs, ys);
    STAGE_LAP(clock, kTransfer);
    CorrectWithWindow(*next);
    current = std::move(next);
    STAGE_LAP(clock, kWindow);
  }

  Buffer<unsigned int> toFg(new unsigned int[pixels]);
  Buffer<unsigned int> toBg(new unsigned int[pixels]);
  if (width > 0xFFFF || height > 0xFFFF) {
    // The transform takes 16-bit sizes and refuses these; read "unreached"
    // rather than whatever the fresh memory holds.
    std::fill_n(toFg.get(), pixels, fb_color::kUnreachedDistance);
    std::fill_n(toBg.get(), pixels, fb_color::kUnreachedDistance);
  }
  ff::dist_field* field =
      ff::ipf_create_distance_field_2d(width, height, fb_color::kDistanceScale);
  ff::ipf_distance_transform_2d(field, label.get(),
                                static_cast<unsigned short>(width),
                                static_cast<unsigned short>(height), width,
                                kForeground, toFg.get(), width, nullptr, 0);
  ff::ipf_distance_transform_2d(field, label.get(),
                                static_cast<unsigned short>(width),
                                static_cast<unsigned short>(height), width,
                                kBackground, toBg.get(), width, nullptr, 0);
  ff::ipf_release_distance_field(field);
  const fb_color::BandWidth band =
      MeasureBand(toFg.get(), toBg.get(), label.get(), width, height);
  STAGE_LAP(clock, kDistance);

  float sTable[256];
  _calc_S_func(sTable, low, high, 1.0, 0.5);
  for (int b = 0; b < 4; ++b) {
    CorrectRows(image, image_stride, alpha, alpha_stride, label.get(), width,
                bands[b], bands[b + 1], toFg.get(), toBg.get(), band, sTable,
                *current);
  }
  STAGE_LAP(clock, kFinal);

  if (background != nullptr) {
    ff::ipf_memcpy_2d(current->background, width * 3, height,
                      current->background_stride, background,
                      background_stride);
  }
  if (foreground != nullptr) {
    ff::ipf_memcpy_2d(current->foreground, width * 3, height,
                      current->foreground_stride, foreground,
                      foreground_stride);
  }
}

void mat_estimate_fb_color(const unsigned char* image, int width, int height,
                           int image_stride, const unsigned char* alpha,
                           int alpha_stride, unsigned char* foreground,
                           int foreground_stride, unsigned char* background,
                           int background_stride, unsigned char low,
                           unsigned char high) {
  // The worker takes the background first: the outputs swap on the way.
  estimate_fb_color_x(image, width, height, image_stride, alpha, alpha_stride,
                      background, background_stride, foreground,
                      foreground_stride, low, high);
}
