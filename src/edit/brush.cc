#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>

#include "edit/plane_scratch.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"

namespace {

using softmatte_edit::row;
using softmatte_edit::scratch;

constexpr unsigned char kUnknown = 128;
// Above sqrt(2) - 1, so that even a square patch's corners keep some weight.
constexpr float kEdgeOffset = 0.42f;
// The maximum looks half the brush wide, but never less than 7 pixels, so
// that a small brush still finds the level it moves towards.
constexpr int kMinMaxWindow = 8;
constexpr int kSmallMaxWindow = 7;

size_t pixel_count(int width, int height) {
  return static_cast<size_t>(std::max(width, 0)) *
         static_cast<size_t>(std::max(height, 0));
}

unsigned char weight_byte(float w) {
  return static_cast<unsigned char>(static_cast<int>(w * 255.0f + 0.5f));
}

// Moves the local mean by its distance below the local maximum, scaled by the
// mean's own level and the weight: down and keeping the smaller value when
// erode, up and keeping the larger otherwise. Either result stays in 0..255.
void erode_dilate_brush(const unsigned char* alpha, int width, int height,
                        int alphaStep, const unsigned char* weight,
                        int weightStep, unsigned char* dst, int dstStep,
                        int ksize, int* border, bool erode) {
  if (width < 1 || height < 1) return;
  const size_t n = pixel_count(width, height);
  auto mean = scratch<int>(n);
  auto max = scratch<unsigned char>(n);
  ff::ipf_mean_filter(alpha, width, height, alphaStep, 1, mean.get(), width,
                      nullptr, 0, ksize, ksize, border);
  int window = (width / 2) | 1;
  if (window < kMinMaxWindow) window = kSmallMaxWindow;
  ff::ipf_max_filter(alpha, width, height, alphaStep, 1, max.get(), width,
                     window, 1, nullptr);
  for (int y = 0; y < height; ++y) {
    const int* m = row(mean.get(), width, y);
    const unsigned char* mx = row(max.get(), width, y);
    const unsigned char* w = row(weight, weightStep, y);
    unsigned char* d = row(dst, dstStep, y);
    for (int x = 0; x < width; ++x) {
      const int top = mx[x];
      if (top == 0) continue;
      // Signed division truncating towards zero: a mean above the maximum
      // (the mean sees the border, the maximum does not) moves the other way.
      const int scale = top * 256;
      if (erode) {
        const int e = m[x] + ((m[x] - top) * m[x] * w[x]) / scale;
        d[x] = static_cast<unsigned char>(std::min<int>(d[x], e));
      } else {
        const int e = m[x] + ((top - m[x]) * m[x] * w[x]) / scale;
        d[x] = static_cast<unsigned char>(std::max<int>(d[x], e));
      }
    }
  }
}

}  // namespace

void mat_make_rect_weight(unsigned char* weight, int width, int height,
                          int step, float flat) {
  const int half_w = width / 2;
  const int half_h = height / 2;
  // A side of one pixel has no half to scale by: the quotient would be 0 / 0,
  // whose NaN weight ARM converts to 0.
  if (half_w == 0 || half_h == 0) {
    for (int y = 0; y < height; ++y)
      std::fill_n(row(weight, step, y), width, 0);
    return;
  }
  for (int y = 0; y < height; ++y) {
    unsigned char* w = row(weight, step, y);
    const float dy =
        static_cast<float>(y - half_h) / static_cast<float>(half_h);
    for (int x = 0; x < width; ++x) {
      const float dx =
          static_cast<float>(x - half_w) / static_cast<float>(half_w);
      const float v = 1.0f - std::sqrt(dx * dx + dy * dy);
      const float value =
          v > flat ? 1.0f : (v + kEdgeOffset) / (flat + kEdgeOffset);
      w[x] = weight_byte(value);
    }
  }
}

void mat_erode_brush(const unsigned char* alpha, int width, int height,
                     int alphaStep, const unsigned char* weight, int weightStep,
                     unsigned char* dst, int dstStep, int ksize, int* border) {
  erode_dilate_brush(alpha, width, height, alphaStep, weight, weightStep, dst,
                     dstStep, ksize, border, true);
}

void mat_dilate_brush(const unsigned char* alpha, int width, int height,
                      int alphaStep, const unsigned char* weight,
                      int weightStep, unsigned char* dst, int dstStep,
                      int ksize, int* border) {
  erode_dilate_brush(alpha, width, height, alphaStep, weight, weightStep, dst,
                     dstStep, ksize, border, false);
}

void mat_set_brush(const unsigned char* alpha, int width, int height,
                   int alphaStep, const unsigned char* weight, int weightStep,
                   unsigned char* acc, int accStep, unsigned char* dst,
                   int dstStep, unsigned char value) {
  for (int y = 0; y < height; ++y) {
    const unsigned char* a = row(alpha, alphaStep, y);
    const unsigned char* w = row(weight, weightStep, y);
    unsigned char* ac = row(acc, accStep, y);
    unsigned char* d = row(dst, dstStep, y);
    for (int x = 0; x < width; ++x) {
      if (ac[x] >= w[x]) continue;
      // +128 here, +127 in the undo: full weight stops one step short of
      // value, and the two roundings are kept as they are.
      d[x] = static_cast<unsigned char>(a[x] +
                                        (((value - a[x]) * w[x] + 128) >> 8));
      ac[x] = w[x];
    }
  }
}

void mat_smooth_brush(const unsigned char* src, int width, int height,
                      int srcStep, int channels, unsigned char* dst,
                      int dstStep, int ksize, int* border) {
  ff::ipf_mean_filter(src, width, height, srcStep, channels, dst, dstStep,
                      nullptr, 0, ksize, ksize, border);
}

void mat_undo_brush(const unsigned char* saved, int width, int height,
                    int savedStep, int channels, const unsigned char* weight,
                    int weightStep, unsigned char* acc, int accStep,
                    unsigned char* dst, int dstStep, bool track) {
  for (int y = 0; y < height; ++y) {
    const unsigned char* s = row(saved, savedStep, y);
    const unsigned char* w = row(weight, weightStep, y);
    unsigned char* ac = row(acc, accStep, y);
    unsigned char* d = row(dst, dstStep, y);
    for (int x = 0; x < width; ++x) {
      if (channels < 1) {
        // Without channels the call only records the stroke.
        if (track) ac[x] = std::max(ac[x], w[x]);
        continue;
      }
      if (ac[x] >= w[x]) continue;
      for (int c = 0; c < channels; ++c) {
        const int i = x * channels + c;
        d[i] = static_cast<unsigned char>(d[i] +
                                          (((s[i] - d[i]) * w[x] + 127) >> 8));
      }
      if (track) ac[x] = w[x];
    }
  }
}

void mat_brush_threshold(const unsigned char* alpha, int width, int height,
                         int alphaStep, unsigned char* out1, int out1Step,
                         unsigned char* out2, int out2Step, int ksize,
                         int* border, unsigned char lo, unsigned char hi) {
  if (width < 1 || height < 1) return;
  auto extreme = scratch<unsigned char>(pixel_count(width, height));
  const auto fill_where = [&](bool (*hit)(int, int), int limit,
                              unsigned char value) {
    for (int y = 0; y < height; ++y) {
      const unsigned char* e = row(extreme.get(), width, y);
      unsigned char* o1 = row(out1, out1Step, y);
      unsigned char* o2 = row(out2, out2Step, y);
      for (int x = 0; x < width; ++x) {
        if (hit(e[x], limit)) o1[x] = o2[x] = value;
      }
    }
  };
  // One pass after the other: when out1 is alpha itself, the minimum
  // already sees the cleared background.
  if (lo != 0) {
    ff::ipf_max_filter(alpha, width, height, alphaStep, 1, extreme.get(), width,
                       ksize, 1, border);
    fill_where([](int e, int limit) { return e < limit; }, lo, 0);
  }
  if (hi < 255) {
    ff::ipf_min_filter(alpha, width, height, alphaStep, 1, extreme.get(), width,
                       ksize, 1, border);
    fill_where([](int e, int limit) { return e > limit; }, hi, 255);
  }
}

void mat_rectify_uialpha(const unsigned char* ref, int width, int height,
                         int refStep, const unsigned char* a, int aStep,
                         unsigned char* b, int bStep, int tolerance) {
  if (width < 1 || height < 1) return;
  for (int y = 0; y < height; ++y) {
    const unsigned char* r = row(ref, refStep, y);
    const unsigned char* pa = row(a, aStep, y);
    unsigned char* pb = row(b, bStep, y);
    for (int x = 0; x < width; ++x) {
      // A user's known value close to the computed one is handed back to
      // the solver rather than pinned.
      const int diff = pa[x] - pb[x];
      if (r[x] == kUnknown && pa[x] != kUnknown && pb[x] != kUnknown &&
          -tolerance < diff && diff < tolerance) {
        pb[x] = kUnknown;
      }
    }
  }
}
