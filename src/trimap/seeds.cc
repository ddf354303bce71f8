#include <cstddef>

#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/trimap.h"

namespace {

constexpr unsigned char kUnknown = 128;

}  // namespace

void MakeSeeds(const unsigned char* alpha, int width, int height, int stride,
               unsigned char* out, int out_stride, int window) {
  if (alpha == nullptr || out == nullptr || width < 1 || height < 1) return;
  const int k = window | 1;
  const size_t area = static_cast<size_t>(width) * height;
  unsigned char* extrema = new unsigned char[2 * area];
  unsigned char* hi = extrema;
  unsigned char* lo = extrema + area;
  ff::ipf_max_filter(alpha, width, height, stride, 1, hi, width, k, 1, nullptr);
  ff::ipf_min_filter(alpha, width, height, stride, 1, lo, width, k, 1, nullptr);
  ff::ipf_memcpy_2d(alpha, width, height, stride, out, out_stride);
  for (int y = 0; y < height; ++y) {
    unsigned char* o = out + static_cast<ptrdiff_t>(y) * out_stride;
    const unsigned char* h = hi + static_cast<size_t>(y) * width;
    const unsigned char* l = lo + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      // A flat 128 would read as unknown: it becomes the nearest known value.
      const unsigned char seed = o[x] == kUnknown ? kUnknown - 1 : o[x];
      o[x] = h[x] - l[x] < kUnknown ? seed : kUnknown;
    }
  }
  delete[] extrema;
}

void InvertMatte(unsigned char* alpha, int width, int height, int stride) {
  if (alpha == nullptr) return;
  for (int y = 0; y < height; ++y) {
    unsigned char* row = alpha + static_cast<ptrdiff_t>(y) * stride;
    for (int x = 0; x < width; ++x) {
      // 127 lands on 128 and so turns unknown; callers rely on the plain map.
      if (row[x] != kUnknown) row[x] = static_cast<unsigned char>(~row[x]);
    }
  }
}
