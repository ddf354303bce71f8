// Trimaps from segmentation masks of any shape, with and without the photo.
// Beyond the sanitizers it checks what a caller relies on: the output keeps
// the mask's values except for 128s, every 128 lies within the widest window
// of some foreground pixel, the inputs and the output's row padding stay as
// they were, and a band of zero width leaves a plain copy.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/trimap.h"

namespace {

constexpr unsigned char kSentinel = 0xA5;
constexpr unsigned char kUnknown = 128;
constexpr unsigned char kForeground = 255;

// Number of foreground pixels in columns [x0, x1) of rows [y0, y1), through a
// summed-area table of (width + 1) x (height + 1) entries.
int CountIn(const std::vector<int>& sat, int width, int x0, int y0, int x1,
            int y1) {
  const size_t w = static_cast<size_t>(width) + 1;
  return sat[y1 * w + x1] - sat[y0 * w + x1] - sat[y1 * w + x0] +
         sat[y0 * w + x0];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 12) return 0;
  FuzzInput in(data, size);
  const uint8_t flags = in.Byte();
  const bool with_image = flags & 1;
  // Masks are 0/255 in practice; other values must pass through untouched.
  const bool raw_mask = flags & 2;
  const int width = in.Int(1, 64);
  const int height = in.Int(1, 64);
  const int seg_stride = width + in.Int(0, 7);
  const int out_stride = width + in.Int(0, 7);
  const int img_stride = 3 * width + in.Int(0, 7);
  const int max_band = in.Int(0, 40);
  // Thickness scales from 0 to 16, or absurdly large: the half-size is
  // capped by max_band either way.
  const double band_scale =
      (flags & 4) ? 1e12 * (in.Byte() + 1) : in.Int(0, 1023) / 64.0;
  const int step = in.Int(1, 8);
  const unsigned char diff_low = in.Byte();
  const unsigned char diff_high = in.Byte();
  const int min_band = in.Int(0, 40);

  SentinelPlane<unsigned char> seg(height, seg_stride, width, kSentinel);
  for (int y = 0; y < height; ++y) {
    unsigned char* row = seg.row(y);
    if (raw_mask) {
      in.Bytes(row, static_cast<size_t>(width));
      continue;
    }
    for (int x = 0; x < width; x += 8) {
      const uint8_t bits = in.Byte();
      for (int b = 0; b < 8 && x + b < width; ++b) {
        row[x + b] = (bits >> b) & 1 ? kForeground : 0;
      }
    }
  }
  SentinelPlane<unsigned char> img(height, img_stride, 3 * width, kSentinel);
  if (with_image) {
    for (int y = 0; y < height; ++y) {
      in.Bytes(img.row(y), static_cast<size_t>(3 * width));
    }
  }
  SentinelPlane<unsigned char> out(height, out_stride, width, kSentinel);
  const std::vector<unsigned char> seg_before = seg.data;
  const std::vector<unsigned char> img_before = img.data;

  int reach = max_band;
  if (with_image) {
    MakeTrimapFromSegRes(img.data.data(), width, height, img_stride,
                         seg.data.data(), seg_stride, out.data.data(),
                         out_stride, max_band, band_scale, step, diff_low,
                         diff_high, min_band);
    reach = std::max(max_band, min_band);
  } else {
    MakeTrimapFromSegRes(seg.data.data(), width, height, seg_stride,
                         out.data.data(), out_stride, max_band, band_scale);
  }

  if (seg.data != seg_before || img.data != img_before) __builtin_trap();
  if (!out.PaddingIntact()) __builtin_trap();

  std::vector<int> sat(static_cast<size_t>(width + 1) * (height + 1), 0);
  const size_t sw = static_cast<size_t>(width) + 1;
  for (int y = 0; y < height; ++y) {
    int run = 0;
    for (int x = 0; x < width; ++x) {
      run += seg.row(y)[x] == kForeground;
      sat[(y + 1) * sw + x + 1] = sat[y * sw + x + 1] + run;
    }
  }
  const bool no_band = !with_image && (max_band == 0 || band_scale == 0.0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const unsigned char s = seg.row(y)[x];
      const unsigned char o = out.row(y)[x];
      if (o == s) continue;
      if (o != kUnknown || no_band) __builtin_trap();
      // A window of half-size r at (bx, by) covers [bx - r, bx + r): this
      // pixel needs a foreground pixel with bx in [x - r + 1, x + r].
      const int x0 = std::max(x - reach + 1, 0);
      const int x1 = std::min(x + reach + 1, width);
      const int y0 = std::max(y - reach + 1, 0);
      const int y1 = std::min(y + reach + 1, height);
      if (x0 >= x1 || y0 >= y1 || CountIn(sat, width, x0, y0, x1, y1) == 0) {
        __builtin_trap();
      }
    }
  }
  return 0;
}
