// The workers that visit only a matte's soft band or edges against the
// exported functions whose bytes they must give: foreground colours, boundary
// smoothing (in place and into another plane) and removal of small
// fragments, on photos, mattes, thresholds and strides from the data.
// Output padding must survive.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "colour/fb_color.h"
#include "edit/cleanup_band.h"
#include "fuzz_input.h"
#include "softmatte/colour.h"
#include "softmatte/edit.h"

namespace {

constexpr int kMaxSide = 72;

// A matte: discs with soft edges of a width from the data (some cut by the
// border, some capped so that a class is missing), or raw bytes.
void FillMatte(FuzzInput& in, SentinelPlane<uint8_t>& matte, int width,
               int height) {
  const uint8_t shape = in.Byte();
  if (shape & 1) {
    matte.Fill(in);
    return;
  }
  const int discs = 1 + (shape >> 1) % 4;
  int cx[4], cy[4], r[4];
  for (int k = 0; k < discs; ++k) {
    cx[k] = in.Int(-8, width + 8);
    cy[k] = in.Int(-8, height + 8);
    r[k] = in.Int(0, kMaxSide);
  }
  const int ramp = in.Int(0, 24);
  const int cap = in.Int(0, 3);
  ForEach(width, height, [&](int x, int y) {
    int best = 0;
    for (int k = 0; k < discs; ++k) {
      const int dx = x - cx[k], dy = y - cy[k];
      // How far inside the disc's edge, in whole pixels.
      const int inside =
          (r[k] - static_cast<int>(std::sqrt(dx * dx + dy * dy))) * 255;
      best =
          std::max(best, ramp == 0 ? (inside >= 0 ? 255 : 0)
                                   : std::clamp(128 + inside / ramp, 0, 255));
    }
    if (cap == 1) best = std::min(best, 200);  // no foreground
    if (cap == 2) best = std::max(best, 30);   // no background
    matte.at(x, y) = static_cast<uint8_t>(best);
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  const int width = in.Int(1, kMaxSide);
  const int height = in.Int(1, kMaxSide);
  const uint8_t low = in.Bool() ? 1 : in.Byte();
  const uint8_t high = in.Bool() ? 253 : in.Byte();
  const int ksize = in.Int(1, 9);
  const uint8_t threshold = in.Bool() ? 0 : in.Byte();
  const int keep = in.Int(0, 4);
  const bool palette = in.Bool();

  SentinelPlane<uint8_t> matte(height, width + in.Int(0, 5), width);
  FillMatte(in, matte, width, height);
  const int ms = matte.step;
  SentinelPlane<uint8_t> photo(height, 3 * width + in.Int(0, 5), 3 * width);
  const uint8_t colours[4][3] = {
      {0, 0, 0}, {255, 255, 255}, {10, 200, 30}, {10, 200, 31}};
  FillColours(in, photo, width, height, palette, colours);

  SentinelPlane<uint8_t> want(height, 3 * width + 2, 3 * width), got = want;
  mat_estimate_fb_color(photo.p(), width, height, photo.step, matte.p(), ms,
                        want.p(), want.step, nullptr, 0, low, high);
  estimate_foreground_band(photo.p(), width, height, photo.step, matte.p(), ms,
                           got.p(), got.step, low, high);
  Check(got.data == want.data && got.PaddingIntact());

  SentinelPlane<uint8_t> smooth(height, width + 1, width), band = smooth;
  mat_smooth_boundary(matte.p(), width, height, ms, smooth.p(), smooth.step,
                      ksize);
  smooth_boundary_band(matte.p(), width, height, ms, band.p(), band.step,
                       ksize);
  Check(band.data == smooth.data && band.PaddingIntact());
  SentinelPlane<uint8_t> inPlace = matte;
  smooth_boundary_band(inPlace.p(), width, height, ms, inPlace.p(), ms, ksize);
  ForEach(width, height,
          [&](int x, int y) { Check(inPlace.at(x, y) == smooth.at(x, y)); });

  SentinelPlane<uint8_t> erased = matte, runs = matte;
  vm_erase_small_cc(erased.p(), width, height, ms, threshold, keep);
  erase_small_cc_runs(runs.p(), width, height, ms, threshold, keep);
  Check(runs.data == erased.data);
  return 0;
}
