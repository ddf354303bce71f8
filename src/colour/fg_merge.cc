#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "softmatte/colour.h"

namespace {

constexpr int kImageChannels = 3;
constexpr int kRgbaChannels = 4;
constexpr int kBlock = 16;
constexpr unsigned char kOpaque = 255;

const unsigned char* row(const unsigned char* p, int stride, int y) {
  return p + static_cast<ptrdiff_t>(stride) * y;
}

unsigned char* row(unsigned char* p, int stride, int y) {
  return p + static_cast<ptrdiff_t>(stride) * y;
}

unsigned char clamp_to_byte(int v) {
  return static_cast<unsigned char>(std::min(std::max(v, 0), 255));
}

// The shift of a negative product floors (arithmetic shift); the block path
// below reproduces exactly that rounding.
unsigned char merge_channel(int image, int fore, int a) {
  return static_cast<unsigned char>(image + (((fore - image) * a + 127) >> 8));
}

// I + (((F - I) * a + 127) >> 8) == (I * (256 - a) + F * a + 127) >> 8, since
// I * 256 passes through the floor of the shift unchanged. The right side is
// never negative and stays below 2^16, so 16-bit lanes hold it. The block is
// widened to the foreground's four-byte layout so that the blend runs over
// contiguous bytes; the fourth byte blends with itself and stays as it is.
void merge_block(const unsigned char* __restrict image,
                 unsigned char* __restrict fore) {
  constexpr int kBytes = kBlock * kRgbaChannels;
  unsigned short in[kBytes];
  unsigned short a[kBytes];
  // Written out channel by channel: with inner loops here GCC's -O2
  // vectoriser left the widening scalar, at twice the time of the block.
  for (int i = 0; i < kBlock; ++i) {
    const unsigned char* px = image + kImageChannels * i;
    unsigned short* wide = in + kRgbaChannels * i;
    unsigned short* weight = a + kRgbaChannels * i;
    const unsigned char alpha = fore[kRgbaChannels * i + 3];
    wide[0] = px[0];
    wide[1] = px[1];
    wide[2] = px[2];
    wide[3] = alpha;
    weight[0] = weight[1] = weight[2] = weight[3] = alpha;
  }
  for (int j = 0; j < kBytes; ++j) {
    fore[j] = static_cast<unsigned char>(
        (in[j] * (256 - a[j]) + fore[j] * a[j] + 127) >> 8);
  }
}

// Byte ranges [begin, end) covered by a plane's rows, compared as integers
// because the two planes need not belong to one array.
bool planes_overlap(const unsigned char* a, int aRowBytes, int aStride,
                    const unsigned char* b, int bRowBytes, int bStride,
                    int height) {
  const uintptr_t a0 = reinterpret_cast<uintptr_t>(a);
  const uintptr_t b0 = reinterpret_cast<uintptr_t>(b);
  const uintptr_t a1 =
      a0 + static_cast<uintptr_t>(aStride) * (height - 1) + aRowBytes;
  const uintptr_t b1 =
      b0 + static_cast<uintptr_t>(bStride) * (height - 1) + bRowBytes;
  return a0 < b1 && b0 < a1;
}

// The blend both mat_improve_foreground forms share: the target lies between
// the image colour and the reference (pull) or as far beyond the image colour
// on the other side (push), by the pixel's transparency.
void improve_pixel(const unsigned char* image, const unsigned char* ref,
                   bool pull, int alpha, int weight, unsigned char* out) {
  const float t = static_cast<float>(kOpaque - alpha) / 255.0f;
  for (int c = 0; c < kImageChannels; ++c) {
    const int in = image[c];
    const int r = ref[c];
    const float shifted = pull ? in + t * static_cast<float>(r - in)
                               : in + t * static_cast<float>(in - r);
    const int target = static_cast<int>(shifted + 0.5f);
    out[c] = clamp_to_byte(out[c] + (((target - out[c]) * weight + 127) >> 8));
  }
}

}  // namespace

void mat_merge_f_color(const unsigned char* image, int width, int height,
                       int image_stride, unsigned char* foreground_rgba,
                       int foreground_rgba_stride) {
  if (width <= 0 || height <= 0) return;
  // Blocks read all their bytes before writing any, which only matches the
  // pixel-by-pixel order when writes cannot reach bytes still to be read.
  const bool blocks = !planes_overlap(
      image, width * kImageChannels, image_stride, foreground_rgba,
      width * kRgbaChannels, foreground_rgba_stride, height);
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = row(image, image_stride, y);
    unsigned char* fore = row(foreground_rgba, foreground_rgba_stride, y);
    int x = 0;
    if (blocks) {
      for (; x + kBlock <= width; x += kBlock) {
        merge_block(in + kImageChannels * x, fore + kRgbaChannels * x);
      }
    }
    for (; x < width; ++x) {
      const unsigned char* i = in + kImageChannels * x;
      unsigned char* f = fore + kRgbaChannels * x;
      const int a = f[3];
      for (int c = 0; c < kImageChannels; ++c) {
        f[c] = merge_channel(i[c], f[c], a);
      }
    }
  }
}

void mat_update_reference_color(unsigned char* reference_map, int width,
                                int height, int reference_map_stride,
                                const unsigned char* reference,
                                const unsigned char* strength,
                                int strength_stride) {
  if (width <= 0 || height <= 0) return;
  // Strengths are kept even so that bit 0 can carry the mode alongside.
  const unsigned char mode = reference[3] > 128 ? 1 : 0;
  for (int y = 0; y < height; ++y) {
    unsigned char* map = row(reference_map, reference_map_stride, y);
    const unsigned char* s = row(strength, strength_stride, y);
    for (int x = 0; x < width; ++x) {
      unsigned char* m = map + kRgbaChannels * x;
      if (s[x] <= (m[3] & 254)) continue;
      m[0] = reference[0];
      m[1] = reference[1];
      m[2] = reference[2];
      m[3] = static_cast<unsigned char>((s[x] & 254) | mode);
    }
  }
}

void mat_improve_foreground(const unsigned char* image, int width, int height,
                            int image_stride, const unsigned char* alpha,
                            int alpha_stride, const unsigned char* strength,
                            int strength_stride, unsigned char* applied,
                            int applied_stride, unsigned char* out,
                            int out_stride, const unsigned char* reference,
                            const unsigned char* /*ignored*/,
                            unsigned char threshold) {
  if (width <= 0 || height <= 0) return;
  const bool pull = reference[3] > 128;
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = row(image, image_stride, y);
    const unsigned char* a = row(alpha, alpha_stride, y);
    const unsigned char* s = row(strength, strength_stride, y);
    unsigned char* done = row(applied, applied_stride, y);
    unsigned char* o = row(out, out_stride, y);
    for (int x = 0; x < width; ++x) {
      if (s[x] <= done[x] || a[x] < threshold) continue;
      unsigned char* px = o + kRgbaChannels * x;
      improve_pixel(in + kImageChannels * x, reference, pull, a[x], s[x], px);
      done[x] = s[x];
      px[3] = std::max(px[3], s[x]);
    }
  }
}

void mat_improve_foreground(const unsigned char* image, int width, int height,
                            int image_stride,
                            const unsigned char* reference_map,
                            int reference_map_stride,
                            const unsigned char* alpha, int alpha_stride,
                            unsigned char* out, int out_stride,
                            unsigned char threshold) {
  if (width <= 0 || height <= 0) return;
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = row(image, image_stride, y);
    const unsigned char* map = row(reference_map, reference_map_stride, y);
    const unsigned char* a = row(alpha, alpha_stride, y);
    unsigned char* o = row(out, out_stride, y);
    for (int x = 0; x < width; ++x) {
      const unsigned char* ref = map + kRgbaChannels * x;
      const unsigned char m = ref[3];
      // Unlike the single-reference form, opaque pixels are left alone, and
      // unpainted pixels (strength 0) are told apart by the map itself.
      if (m == 0 || a[x] < threshold || a[x] == kOpaque) continue;
      unsigned char* px = o + kRgbaChannels * x;
      improve_pixel(in + kImageChannels * x, ref, (m & 1) != 0, a[x], m, px);
      px[3] = std::max(px[3], m);
    }
  }
}
