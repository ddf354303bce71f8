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
constexpr uint8_t kSentinel = 0xA5;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

// A matte: discs with soft edges of a width from the data (some cut by the
// border, some capped so that a class is missing), or raw bytes.
void FillMatte(FuzzInput& in, SentinelPlane<uint8_t>& matte, int width,
               int height) {
  const uint8_t shape = in.Byte();
  if (shape & 1) {
    for (int y = 0; y < height; ++y) in.Bytes(matte.row(y), width);
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
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      int best = 0;
      for (int k = 0; k < discs; ++k) {
        const int dx = x - cx[k];
        const int dy = y - cy[k];
        // How far inside the disc's edge, in whole pixels.
        const int inside =
            (r[k] - static_cast<int>(std::sqrt(dx * dx + dy * dy))) * 255;
        const int v = ramp == 0 ? (inside >= 0 ? 255 : 0)
                                : std::clamp(128 + inside / ramp, 0, 255);
        best = std::max(best, v);
      }
      if (cap == 1) best = std::min(best, 200);  // no foreground
      if (cap == 2) best = std::max(best, 30);   // no background
      matte.row(y)[x] = static_cast<uint8_t>(best);
    }
  }
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

  SentinelPlane<uint8_t> matte(height, width + in.Int(0, 5), width, kSentinel);
  FillMatte(in, matte, width, height);
  SentinelPlane<uint8_t> photo(height, 3 * width + in.Int(0, 5), 3 * width,
                               kSentinel);
  const uint8_t colours[4][3] = {
      {0, 0, 0}, {255, 255, 255}, {10, 200, 30}, {10, 200, 31}};
  FillColours(in, photo, width, height, palette, colours);

  const int fgStep = 3 * width + 2;
  SentinelPlane<uint8_t> want(height, fgStep, 3 * width, kSentinel);
  SentinelPlane<uint8_t> got(height, fgStep, 3 * width, kSentinel);
  mat_estimate_fb_color(photo.data.data(), width, height, photo.step,
                        matte.data.data(), matte.step, want.data.data(),
                        want.step, nullptr, 0, low, high);
  estimate_foreground_band(photo.data.data(), width, height, photo.step,
                           matte.data.data(), matte.step, got.data.data(),
                           got.step, low, high);
  Check(got.data == want.data && got.PaddingIntact());

  SentinelPlane<uint8_t> smoothWant(height, width + 1, width, kSentinel);
  SentinelPlane<uint8_t> smoothGot(height, width + 1, width, kSentinel);
  mat_smooth_boundary(matte.data.data(), width, height, matte.step,
                      smoothWant.data.data(), smoothWant.step, ksize);
  smooth_boundary_band(matte.data.data(), width, height, matte.step,
                       smoothGot.data.data(), smoothGot.step, ksize);
  Check(smoothGot.data == smoothWant.data && smoothGot.PaddingIntact());
  std::vector<uint8_t> inPlace = matte.data;
  smooth_boundary_band(inPlace.data(), width, height, matte.step,
                       inPlace.data(), matte.step, ksize);
  for (int y = 0; y < height; ++y) {
    Check(std::equal(smoothWant.row(y), smoothWant.row(y) + width,
                     &inPlace[static_cast<size_t>(y) * matte.step]));
  }

  std::vector<uint8_t> eraseWant = matte.data;
  std::vector<uint8_t> eraseGot = matte.data;
  vm_erase_small_cc(eraseWant.data(), width, height, matte.step, threshold,
                    keep);
  erase_small_cc_runs(eraseGot.data(), width, height, matte.step, threshold,
                      keep);
  Check(eraseGot == eraseWant);
  return 0;
}
