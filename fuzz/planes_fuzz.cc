// The plane functions on one photo and one mask-like plane from the data:
// trimaps from the mask, the band workers against the exported functions
// whose bytes they must give, component labels and mask boxes, window
// filters over a region of the photo whose border is the rest of it, and
// upsampling tables built from the photo and applied to a reduced matte.
// Inputs stay as they were and output padding keeps its sentinel; buffers
// end where the calls are told they do, so a read beyond is a heap overflow.
#include <algorithm>
#include <vector>

#include "colour/fb_color.h"
#include "edit/cleanup_band.h"
#include "fuzz_input.h"
#include "softmatte/colour.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "softmatte/trimap.h"

namespace {

void Trimaps(FuzzInput& in, Plane& photo, Plane& mask, int width, int height) {
  const bool with_image = in.Bool();
  const int max_band = in.Int(0, 40), min_band = in.Int(0, 40),
            step = in.Int(1, 8);
  const uint8_t diff_low = in.Byte(), diff_high = in.Byte();
  // Thickness scales from 0 to 16, or absurdly large: the half-size is
  // capped by max_band either way.
  const double band_scale =
      in.Bool() ? 1e12 * (in.Byte() + 1) : in.Int(0, 1023) / 64.0;
  Plane out(in, height, width);
  if (with_image) {
    MakeTrimapFromSegRes(photo.p(), width, height, photo.step, mask.p(),
                         mask.step, out.p(), out.step, max_band, band_scale,
                         step, diff_low, diff_high, min_band);
  } else {
    MakeTrimapFromSegRes(mask.p(), width, height, mask.step, out.p(), out.step,
                         max_band, band_scale);
  }
  Check(out.PaddingIntact());
}

// Foreground colours, boundary smoothing (in place and into another plane)
// and removal of small fragments, each the bytes of the exported function.
void BandWorkers(FuzzInput& in, Plane& photo, Plane& matte, int width,
                 int height) {
  const uint8_t low = in.Bool() ? 1 : in.Byte();
  const uint8_t high = in.Bool() ? 253 : in.Byte();
  const int ksize = in.Int(1, 9), keep = in.Int(0, 4);
  const uint8_t threshold = in.Bool() ? 0 : in.Byte();
  const int ms = matte.step;
  Plane want(height, 3 * width + 2, 3 * width), got = want;
  mat_estimate_fb_color(photo.p(), width, height, photo.step, matte.p(), ms,
                        want.p(), want.step, nullptr, 0, low, high);
  estimate_foreground_band(photo.p(), width, height, photo.step, matte.p(), ms,
                           got.p(), got.step, low, high);
  Check(got.data == want.data && got.PaddingIntact());

  Plane smooth(height, width + 1, width), band = smooth, inPlace = matte;
  mat_smooth_boundary(matte.p(), width, height, ms, smooth.p(), smooth.step,
                      ksize);
  smooth_boundary_band(matte.p(), width, height, ms, band.p(), band.step,
                       ksize);
  Check(band.data == smooth.data && band.PaddingIntact());
  smooth_boundary_band(inPlace.p(), width, height, ms, inPlace.p(), ms, ksize);
  ForEach(width, height,
          [&](int x, int y) { Check(inPlace.at(x, y) == smooth.at(x, y)); });

  Plane erased = matte, runs = matte;
  vm_erase_small_cc(erased.p(), width, height, ms, threshold, keep);
  erase_small_cc_runs(runs.p(), width, height, ms, threshold, keep);
  Check(runs.data == erased.data);
}

// Component labels, and the mask's box, the box of where it differs from a
// coarser copy of itself and one row's run of nonzero values.
void Components(FuzzInput& in, Plane& mask, int width, int height) {
  // Few distinct values make large, winding regions; 0 keeps every byte.
  const int levels = in.Byte();
  const uint8_t threshold = in.Byte();
  Plane img = mask;
  SentinelPlane<int> labels(in, height, width, kIntSentinel);
  for (uint8_t& v : img.data) v = levels > 1 ? v % levels * (255 / levels) : v;
  ff::ipf_connected_component(img.p(), width, height, img.step, labels.p(),
                              labels.step);
  Check(labels.PaddingIntact());
  int roi[4], first = 0, last = 0;
  ff::ipf_get_mask_roi(img.p(), width, height, img.step, roi, threshold);
  ff::ipf_get_mask_diff_roi(img.p(), width, height, img.step, mask.p(),
                            mask.step, roi);
  // The first row, its length cut short by the input.
  ff::ipf_get_mask_range(img.row(0), in.Int(0, width), first, last);
}

// Which filter runs: 32 stands for int output planes.
enum Op { kMin, kMax, kSum, kCount, kMean8To32, kMean8 };

// The photo's bytes seen as an image of 1 to 4 channels; the region leaves a
// border of up to 13 pixels on each side.
void WindowFilters(FuzzInput& in, const Plane& photo) {
  const int op = in.Int(0, kMean8), ch = in.Int(1, 4);
  const int ksize = in.Int(1, 11), iterations = in.Int(0, 3);
  const int kw = in.Int(1, 15), kh = in.Int(1, 15);
  const int cols = photo.used / ch, rows = photo.rows;
  if (cols == 0) return;
  int border[4] = {in.Int(0, 13), in.Int(0, 13), in.Int(0, 13), in.Int(0, 13)};
  border[0] = std::min(border[0], cols - 1);
  border[2] = std::min(border[2], cols - 1 - border[0]);
  border[1] = std::min(border[1], rows - 1);
  border[3] = std::min(border[3], rows - 1 - border[1]);
  const int w = cols - border[0] - border[2], h = rows - border[1] - border[3];
  const size_t start = size_t(border[1]) * photo.step + border[0] * ch;
  // The min/max filters clamp each side into [0, ksize] themselves and may
  // be told of less border than there is, or a negative one.
  const bool min_max = op == kMin || op == kMax;
  for (int& side : border) side -= min_max ? in.Int(0, 2) : 0;
  int* const b = in.Bool() ? border : nullptr;
  const uint8_t* s8 = photo.data.data() + start;
  Plane dst8(in, h, w * ch);
  SentinelPlane<int> dst32(h, dst8.step, w * ch, kIntSentinel);
  SentinelPlane<int> count(in, h, w, kIntSentinel);
  int* const count_arg = in.Bool() ? count.p() : nullptr;
  const int s = photo.step;
  switch (op) {
    case kMin:
    case kMax:
      (op == kMin ? ff::ipf_min_filter : ff::ipf_max_filter)(
          s8, w, h, s, ch, dst8.p(), dst8.step, ksize, iterations, b);
      break;
    case kSum:
      ff::ipf_sum_filter(s8, w, h, s, ch, dst32.p(), dst32.step, kw, kh, b);
      break;
    case kCount:
      ff::ipf_count_filter_pixels(count.p(), w, h, count.step, kw, kh, b);
      break;
    case kMean8To32:
      ff::ipf_mean_filter(s8, w, h, s, ch, dst32.p(), dst32.step, count_arg,
                          count.step, kw, kh, b);
      break;
    case kMean8:
      ff::ipf_mean_filter(s8, w, h, s, ch, dst8.p(), dst8.step, count_arg,
                          count.step, kw, kh, b);
      break;
  }
  Check(dst8.PaddingIntact() && dst32.PaddingIntact() && count.PaddingIntact());
}

// Tables from the photo against a reduction of it, applied to a reduced
// matte.
void Upsampling(FuzzInput& in, Plane& photo, Plane& mask, int width,
                int height) {
  const int mode = in.Int(0, 3);  // 2: the 2x2 rule, anything else 3x3
  // Sizes of 1 divide by zero in the column mapping, and the reduced plane
  // needs a whole neighbourhood: neither is defined, so neither is fed.
  const int minLow = mode == 2 ? 2 : 3;
  if (width < 2 || height < 2) return;
  const int lowWidth = in.Int(minLow, std::max(width, minLow));
  const int lowHeight = in.Int(minLow, std::max(height, minLow));
  const uint8_t flags = in.Byte(), value = in.Byte();
  const uint8_t applyValue = in.Bool() ? 128 : in.Byte();
  const bool maskedApply = flags & 16, nullApplyMask = flags & 32;
  Plane low(in, lowHeight, 3 * lowWidth), out(in, height, width);
  SentinelPlane<int> idx(in, height, 2 * width, 0x5A5A5A5A);
  SentinelPlane<short> wts(in, height, width, 0x5A5A);
  low.Fill(in);
  // No entries before the build: an unselected pixel keeps none.
  ForEach(2 * width, height, [&](int x, int y) { idx.at(x, y) = -1; });
  const uint8_t* buildMask = flags & 2 ? mask.p() : nullptr;
  if (flags & 1) {
    usam_calc_weights_8u_c3(photo.p(), width, height, photo.step, buildMask,
                            mask.step, value, low.p(), lowWidth, lowHeight,
                            low.step, idx.p(), idx.step, wts.p(), wts.step,
                            mode);
  } else {
    usam_calc_weights_8u_c3(photo.p(), width, height, photo.step, buildMask,
                            mask.step, low.p(), lowWidth, lowHeight, low.step,
                            idx.p(), idx.step, wts.p(), wts.step, mode);
  }
  Check(idx.PaddingIntact() && wts.PaddingIntact());

  // The reduced matte is dense and exactly low_width x low_height.
  std::vector<uint8_t> lowAlpha(static_cast<size_t>(lowWidth) * lowHeight);
  in.Bytes(lowAlpha.data(), lowAlpha.size());
  out.Fill(in);
  const uint8_t* applyMask = nullApplyMask ? nullptr : mask.p();
  if (maskedApply) {
    usam_interpolate_c1(lowAlpha.data(), lowWidth, lowHeight, idx.p(), idx.step,
                        wts.p(), wts.step, out.p(), width, height, out.step,
                        applyMask, mask.step, applyValue);
  } else {
    usam_interpolate_c1(lowAlpha.data(), lowWidth, lowHeight, idx.p(), idx.step,
                        wts.p(), wts.step, out.p(), width, height, out.step);
  }
  Check(out.PaddingIntact());
}

}  // namespace

FUZZ_HARNESS(16) {
  const int width = in.Int(1, 64), height = in.Int(1, 64);
  const uint8_t flags = in.Byte();
  Plane photo(in, height, 3 * width), mask(in, height, width);
  uint8_t colours[4][3];
  for (auto& c : colours) in.Bytes(c, 3);
  FillColours(in, photo, width, height, flags & 1, colours);
  // Masks are 0/255 in practice; other values must pass through untouched.
  FillShapes(in, mask, flags & 2);
  const std::vector<uint8_t> photo_before = photo.data, mask_before = mask.data;
  Trimaps(in, photo, mask, width, height);
  BandWorkers(in, photo, mask, width, height);
  Components(in, mask, width, height);
  WindowFilters(in, photo);
  Upsampling(in, photo, mask, width, height);
  Check(photo.data == photo_before && mask.data == mask_before);
}
