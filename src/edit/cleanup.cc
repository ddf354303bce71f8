#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "edit/cleanup_steps.h"
#include "edit/plane_scratch.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"

namespace {

using softmatte_edit::dilated;
using softmatte_edit::extremum_window;
using softmatte_edit::row;
using softmatte_edit::scratch;
using softmatte_edit::smoothed;

constexpr unsigned char kUnknown = 128;

// Classes of mat_erase_unknown_fragment: distinct bits, so that the classes
// around a region can be OR-ed together and the region's own class kept apart
// from them by shifting it up four bits.
constexpr int kBackground = 1;
constexpr int kUnknownClass = 2;
constexpr int kIntermediate = 4;
constexpr int kForeground = 8;
constexpr int kOwnShift = 4;

template <typename T>
std::unique_ptr<T[]> zeroed(size_t n) {
  return std::unique_ptr<T[]>(new T[n > 0 ? n : 1]());
}

size_t pixel_count(int width, int height) {
  return static_cast<size_t>(width) * static_cast<size_t>(height);
}

}  // namespace

void mean_filter_3x3(const unsigned char* src, int width, int height, int step,
                     int* dst, int dstStep) {
  if (!src || !dst || width <= 0 || height <= 0) return;
  auto column_sums = scratch<int>(static_cast<size_t>(width));
  int* vs = column_sums.get();
  for (int y = 0; y < height; ++y) {
    const unsigned char* up = row(src, step, y > 0 ? y - 1 : y);
    const unsigned char* mid = row(src, step, y);
    const unsigned char* down = row(src, step, y + 1 < height ? y + 1 : y);
    for (int x = 0; x < width; ++x) vs[x] = up[x] + mid[x] + down[x];

    int* out = dst + static_cast<ptrdiff_t>(dstStep) * y;
    // The outer columns triple their own column instead of borrowing the
    // inner neighbour: a hard matte edge on the image border stays hard.
    out[0] = (3 * vs[0] + 4) / 9;
    for (int x = 1; x + 1 < width; ++x) {
      out[x] = (vs[x - 1] + vs[x] + vs[x + 1] + 4) / 9;
    }
    if (width > 1) out[width - 1] = (3 * vs[width - 1] + 4) / 9;
  }
}

void _erode_dilate(const unsigned char* src, int width, int height, int srcStep,
                   unsigned char* dst, int dstStep, int ksize, bool smooth,
                   unsigned char* /*ignored*/) {
  if (!src || !dst || width <= 0 || height <= 0) return;
  const size_t n = pixel_count(width, height);

  // Everything is read from src before dst is written: the session filters
  // its matte in place.
  auto mean = scratch<int>(n);
  if (ksize == 3) {
    mean_filter_3x3(src, width, height, srcStep, mean.get(), width);
  } else {
    ff::ipf_mean_filter(src, width, height, srcStep, 1, mean.get(), width,
                        nullptr, 0, ksize, ksize, nullptr);
  }

  const int k = extremum_window(width, height);
  auto maximum = scratch<unsigned char>(n);
  ff::ipf_max_filter(src, width, height, srcStep, 1, maximum.get(), width, k, 1,
                     nullptr);
  std::unique_ptr<unsigned char[]> minimum;
  if (smooth) {
    minimum = scratch<unsigned char>(n);
    ff::ipf_min_filter(src, width, height, srcStep, 1, minimum.get(), width, k,
                       1, nullptr);
  }

  for (int y = 0; y < height; ++y) {
    const size_t base = static_cast<size_t>(y) * width;
    const int* m = mean.get() + base;
    const unsigned char* hi = maximum.get() + base;
    unsigned char* out = row(dst, dstStep, y);
    if (smooth) {
      const unsigned char* lo = minimum.get() + base;
      for (int x = 0; x < width; ++x) out[x] = smoothed(m[x], hi[x], lo[x]);
    } else {
      for (int x = 0; x < width; ++x) out[x] = dilated(m[x], hi[x]);
    }
  }
}

void mat_smooth_boundary(const unsigned char* src, int width, int height,
                         int srcStep, unsigned char* dst, int dstStep,
                         int ksize) {
  _erode_dilate(src, width, height, srcStep, dst, dstStep, ksize, true,
                nullptr);
}

void mat_dilate(const unsigned char* src, int width, int height, int srcStep,
                unsigned char* dst, int dstStep, int ksize) {
  _erode_dilate(src, width, height, srcStep, dst, dstStep, ksize, false,
                nullptr);
}

void vm_erase_small_cc(unsigned char* alpha, int width, int height, int step,
                       unsigned char threshold, int keep) {
  if (!alpha || width <= 0 || height <= 0 || keep < 1) return;
  const size_t n = pixel_count(width, height);

  // The zero run wraps at 256 on purpose: a threshold of 255 leaves no
  // background at all, so nothing is ever erased.
  unsigned char binary_of[256];
  const int zeros = (threshold + 1) & 255;
  for (int v = 0; v < 256; ++v) binary_of[v] = v < zeros ? 0 : 255;

  auto binary = scratch<unsigned char>(n);
  for (int y = 0; y < height; ++y) {
    const unsigned char* a = row(alpha, step, y);
    unsigned char* b = binary.get() + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) b[x] = binary_of[a[x]];
  }

  auto labels = scratch<int>(n);
  const int count = ff::ipf_connected_component(binary.get(), width, height,
                                                width, labels.get(), width);
  if (count <= 0) return;

  auto sizes = zeroed<int>(static_cast<size_t>(count));
  auto is_foreground = zeroed<bool>(static_cast<size_t>(count));
  for (size_t i = 0; i < n; ++i) {
    ++sizes[labels[i]];
    is_foreground[labels[i]] = binary[i] != 0;
  }

  auto fg_sizes = scratch<int>(static_cast<size_t>(count));
  int fg_count = 0;
  for (int c = 0; c < count; ++c) {
    if (is_foreground[c]) fg_sizes[fg_count++] = sizes[c];
  }
  if (fg_count <= keep) return;
  std::sort(fg_sizes.get(), fg_sizes.get() + fg_count, std::greater<int>());
  const int limit = fg_sizes[keep - 1];

  for (int y = 0; y < height; ++y) {
    unsigned char* a = row(alpha, step, y);
    const int* l = labels.get() + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      if (is_foreground[l[x]] && sizes[l[x]] < limit) a[x] = 0;
    }
  }
}

void mat_remove_isolated(const unsigned char* alpha, int width, int height,
                         int alphaStep, const unsigned char* guide,
                         int guideStep, unsigned char* dst, int dstStep,
                         int threshold) {
  if (!alpha || !guide || !dst || width <= 0 || height <= 0) return;
  const size_t n = pixel_count(width, height);

  auto binary = scratch<unsigned char>(n);
  for (int y = 0; y < height; ++y) {
    const unsigned char* a = row(alpha, alphaStep, y);
    unsigned char* b = binary.get() + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) b[x] = a[x] < threshold ? 0 : 1;
  }

  auto labels = scratch<int>(n);
  const int count = ff::ipf_connected_component(binary.get(), width, height,
                                                width, labels.get(), width);
  if (count <= 0) return;

  // With a trimap as guide, 128 is undecided and must not vouch for anything.
  auto support = zeroed<int>(static_cast<size_t>(count));
  for (int y = 0; y < height; ++y) {
    const unsigned char* g = row(guide, guideStep, y);
    const int* l = labels.get() + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      if (g[x] != kUnknown && g[x] > threshold) ++support[l[x]];
    }
  }

  for (int y = 0; y < height; ++y) {
    const unsigned char* a = row(alpha, alphaStep, y);
    const int* l = labels.get() + static_cast<size_t>(y) * width;
    unsigned char* out = row(dst, dstStep, y);
    for (int x = 0; x < width; ++x) out[x] = support[l[x]] != 0 ? a[x] : 0;
  }
}

void mat_shrink_unknown_mm(const unsigned char* alpha, int width, int height,
                           int alphaStep, unsigned char* trimap, int trimapStep,
                           int ksize, int iterations, unsigned char lo,
                           unsigned char hi) {
  if (!alpha || !trimap || width <= 0 || height <= 0) return;
  const size_t n = pixel_count(width, height);
  auto extremum = scratch<unsigned char>(n);

  ff::ipf_max_filter(alpha, width, height, alphaStep, 1, extremum.get(), width,
                     ksize, iterations, nullptr);
  for (int y = 0; y < height; ++y) {
    const unsigned char* e = extremum.get() + static_cast<size_t>(y) * width;
    unsigned char* t = row(trimap, trimapStep, y);
    for (int x = 0; x < width; ++x) {
      if (e[x] < lo) t[x] = 0;
    }
  }

  ff::ipf_min_filter(alpha, width, height, alphaStep, 1, extremum.get(), width,
                     ksize, iterations, nullptr);
  for (int y = 0; y < height; ++y) {
    const unsigned char* e = extremum.get() + static_cast<size_t>(y) * width;
    unsigned char* t = row(trimap, trimapStep, y);
    for (int x = 0; x < width; ++x) {
      if (e[x] > hi) t[x] = 255;
    }
  }
}

void mat_erase_unknown_fragment(unsigned char* trimap, int width, int height,
                                int step, unsigned char lo, unsigned char hi) {
  if (!trimap || width <= 0 || height <= 0) return;
  const size_t n = pixel_count(width, height);

  auto classes = scratch<unsigned char>(n);
  for (int y = 0; y < height; ++y) {
    const unsigned char* t = row(trimap, step, y);
    unsigned char* c = classes.get() + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      const unsigned char v = t[x];
      c[x] = v == kUnknown ? kUnknownClass
             : v < lo      ? kBackground
             : v > hi      ? kForeground
                           : kIntermediate;
    }
  }

  auto labels = scratch<int>(n);
  const int count = ff::ipf_connected_component(classes.get(), width, height,
                                                width, labels.get(), width);
  if (count <= 0) return;

  // Only pixels with four neighbours vote, so an unknown sliver along the
  // image edge gathers nothing and falls to background below.
  auto flags = zeroed<int>(static_cast<size_t>(count));
  for (int y = 1; y + 1 < height; ++y) {
    const unsigned char* c = classes.get() + static_cast<size_t>(y) * width;
    const int* l = labels.get() + static_cast<size_t>(y) * width;
    for (int x = 1; x + 1 < width; ++x) {
      flags[l[x]] |= c[x - 1] | c[x + 1] | c[x - width] | c[x + width] |
                     (c[x] << kOwnShift);
    }
  }

  auto resolved = zeroed<unsigned char>(static_cast<size_t>(count));
  constexpr int kSurroundings = kBackground | kIntermediate | kForeground;
  for (int i = 0; i < count; ++i) {
    if (!(flags[i] & (kUnknownClass << kOwnShift))) continue;
    const int around = flags[i] & kSurroundings;
    resolved[i] = around == kBackground   ? 0
                  : around == kForeground ? 255
                                          : kUnknown;
  }

  for (int y = 0; y < height; ++y) {
    unsigned char* t = row(trimap, step, y);
    const int* l = labels.get() + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      if (t[x] == kUnknown) t[x] = resolved[l[x]];
    }
  }
}
