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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 12) return 0;
  FuzzInput in(data, size);
  const uint8_t flags = in.Byte();
  const bool with_image = flags & 1;
  // Masks are 0/255 in practice; other values must pass through untouched.
  const bool raw_mask = flags & 2;
  const int width = in.Int(1, 64);
  const int height = in.Int(1, 64);
  SentinelPlane<uint8_t> seg(height, width + in.Int(0, 7), width);
  SentinelPlane<uint8_t> out(height, width + in.Int(0, 7), width);
  SentinelPlane<uint8_t> img(height, 3 * width + in.Int(0, 7), 3 * width);
  const int max_band = in.Int(0, 40);
  // Thickness scales from 0 to 16, or absurdly large: the half-size is
  // capped by max_band either way.
  const double band_scale =
      (flags & 4) ? 1e12 * (in.Byte() + 1) : in.Int(0, 1023) / 64.0;
  const int step = in.Int(1, 8);
  const uint8_t diff_low = in.Byte();
  const uint8_t diff_high = in.Byte();
  const int min_band = in.Int(0, 40);

  if (raw_mask) seg.Fill(in);
  for (int y = 0; !raw_mask && y < height; ++y) {
    for (int x = 0; x < width; x += 8) {
      const uint8_t bits = in.Byte();
      for (int b = 0; b < 8 && x + b < width; ++b) {
        seg.at(x + b, y) = (bits >> b) & 1 ? 255 : 0;
      }
    }
  }
  if (with_image) img.Fill(in);
  const auto seg_before = seg.data, img_before = img.data;

  int reach = max_band;
  if (with_image) {
    MakeTrimapFromSegRes(img.p(), width, height, img.step, seg.p(), seg.step,
                         out.p(), out.step, max_band, band_scale, step,
                         diff_low, diff_high, min_band);
    reach = std::max(max_band, min_band);
  } else {
    MakeTrimapFromSegRes(seg.p(), width, height, seg.step, out.p(), out.step,
                         max_band, band_scale);
  }
  Check(seg.data == seg_before && img.data == img_before);
  Check(out.PaddingIntact());

  // Foreground pixels in [0, x) x [0, y), as a summed-area table.
  const size_t sw = static_cast<size_t>(width) + 1;
  std::vector<int> sat(sw * (height + 1), 0);
  ForEach(width, height, [&](int x, int y) {
    sat[(y + 1) * sw + x + 1] = sat[y * sw + x + 1] + sat[(y + 1) * sw + x] -
                                sat[y * sw + x] + (seg.at(x, y) == 255);
  });
  const bool no_band = !with_image && (max_band == 0 || band_scale == 0.0);
  ForEach(width, height, [&](int x, int y) {
    const uint8_t o = out.at(x, y);
    if (o == seg.at(x, y)) return;
    Check(o == 128 && !no_band);
    // A window of half-size r at (bx, by) covers [bx - r, bx + r): this
    // pixel needs a foreground pixel with bx in [x - r + 1, x + r].
    const int x0 = std::max(x - reach + 1, 0);
    const int x1 = std::min(x + reach + 1, width);
    const int y0 = std::max(y - reach + 1, 0);
    const int y1 = std::min(y + reach + 1, height);
    Check(x0 < x1 && y0 < y1 &&
          sat[y1 * sw + x1] - sat[y0 * sw + x1] - sat[y1 * sw + x0] +
                  sat[y0 * sw + x0] >
              0);
  });
  return 0;
}
