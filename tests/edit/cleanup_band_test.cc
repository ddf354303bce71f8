#include "edit/cleanup_band.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "softmatte/edit.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;

// What a matte of a case looks like.
enum Shape {
  kSoftBlobs,  // 0/255 with soft-edged discs, some across the border
  kHardBlobs,  // the same discs without soft edges
  kSpecks,     // many small squares and single pixels, equal sizes among them
  kNoise,      // random values
  kFlat,       // one value everywhere
};

struct Matte {
  int width, height, step;
  std::vector<unsigned char> px;  // rows padded with the sentinel
};

Matte MakeMatte(int width, int height, Shape shape, uint32_t seed) {
  std::mt19937 rng(seed);
  Matte m{width, height, width + 1 + int(seed % 4), {}};
  m.px.assign(size_t(m.step) * height, kSentinel);
  auto at = [&](int x, int y) -> unsigned char& {
    return m.px[size_t(y) * m.step + x];
  };
  const double ramp = 0.5 + rng() % 12;
  std::vector<std::array<double, 3>> discs(1 + rng() % 5);
  for (auto& d : discs) {
    d = {double(rng() % (width + 20)) - 10, double(rng() % (height + 20)) - 10,
         2.0 + rng() % std::max(3, std::max(width, height) / 3)};
  }
  const unsigned char flat = rng() % 3 == 0 ? 128 : (rng() % 2) * 255;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      double a = 0;
      for (const auto& d : discs) {
        const double e = std::hypot(x - d[0], y - d[1]) - d[2];
        a = std::max(a, shape == kHardBlobs
                            ? (e < 0 ? 1.0 : 0.0)
                            : std::clamp(0.5 - e / ramp, 0.0, 1.0));
      }
      at(x, y) = shape == kNoise ? static_cast<unsigned char>(rng())
                 : shape == kFlat
                     ? flat
                     : static_cast<unsigned char>(std::lround(a * 255));
    }
  }
  if (shape == kSpecks) {
    // Squares of a few equal sizes (ties at the limit) and single pixels
    // that touch only diagonally (separate components).
    for (int k = 0; k < 30; ++k) {
      const int side = 1 + rng() % 3;
      const int x0 = rng() % width;
      const int y0 = rng() % height;
      const unsigned char v = rng() % 2 ? 255 : 90 + rng() % 100;
      for (int y = y0; y < std::min(y0 + side, height); ++y) {
        for (int x = x0; x < std::min(x0 + side, width); ++x) at(x, y) = v;
      }
    }
    for (int k = 0; k + 1 < std::min(width, height); k += 2) at(k, k) = 255;
  }
  return m;
}

std::string Describe(int width, int height, int shape, uint32_t seed) {
  return std::to_string(width) + "x" + std::to_string(height) + " shape " +
         std::to_string(shape) + " seed " + std::to_string(seed);
}

// Photo sizes from a pixel to past the point where the extremum window
// grows beyond 7 (1.2 megapixels: 9, then 17 at 2.4).
const std::vector<std::pair<int, int>>& Sizes() {
  static const std::vector<std::pair<int, int>> sizes = {
      {1, 1},     {1, 40},      {37, 1},     {2, 3},   {15, 17},
      {16, 16},   {63, 65},     {64, 64},    {65, 63}, {129, 97},
      {200, 131}, {1300, 1000}, {2000, 1210}};
  return sizes;
}

TEST(SmoothBoundaryBand, WritesTheBytesOfMatSmoothBoundary) {
  uint32_t seed = 1;
  for (const auto& [width, height] : Sizes()) {
    // One case each for the large ones: the wider extremum windows.
    const bool large = width * height > 1000000;
    for (int shape = kSoftBlobs; shape <= kFlat; ++shape) {
      if (large && shape != (width < 1500 ? kSpecks : kSoftBlobs)) continue;
      for (int ksize : {1, 2, 3, 5, 9}) {
        if (large && ksize != (width < 1500 ? 3 : 9)) continue;
        const Matte m = MakeMatte(width, height, Shape(shape), seed++);
        // Into a plane of another step, and in place.
        const int dstStep = width + 3;
        std::vector<unsigned char> want(size_t(dstStep) * height, kSentinel);
        std::vector<unsigned char> got = want;
        mat_smooth_boundary(m.px.data(), width, height, m.step, want.data(),
                            dstStep, ksize);
        smooth_boundary_band(m.px.data(), width, height, m.step, got.data(),
                             dstStep, ksize);
        ASSERT_EQ(got, want)
            << Describe(width, height, shape, seed) << " ksize " << ksize;
        std::vector<unsigned char> inPlace = m.px;
        std::vector<unsigned char> wantInPlace = m.px;
        mat_smooth_boundary(wantInPlace.data(), width, height, m.step,
                            wantInPlace.data(), m.step, ksize);
        smooth_boundary_band(inPlace.data(), width, height, m.step,
                             inPlace.data(), m.step, ksize);
        ASSERT_EQ(inPlace, wantInPlace) << Describe(width, height, shape, seed)
                                        << " ksize " << ksize << " in place";
      }
    }
  }
}

TEST(EraseSmallCcRuns, WritesTheBytesOfVmEraseSmallCc) {
  uint32_t seed = 1000;
  for (const auto& [width, height] : Sizes()) {
    if (width * height > 1000000) continue;
    for (int shape = kSoftBlobs; shape <= kFlat; ++shape) {
      for (int threshold : {0, 1, 127, 254, 255}) {
        for (int keep : {0, 1, 2, 3, 7}) {
          const Matte m = MakeMatte(width, height, Shape(shape), seed++);
          std::vector<unsigned char> want = m.px;
          std::vector<unsigned char> got = m.px;
          vm_erase_small_cc(want.data(), width, height, m.step,
                            static_cast<unsigned char>(threshold), keep);
          erase_small_cc_runs(got.data(), width, height, m.step,
                              static_cast<unsigned char>(threshold), keep);
          ASSERT_EQ(got, want)
              << Describe(width, height, shape, seed) << " threshold "
              << threshold << " keep " << keep;
        }
      }
    }
  }
}

TEST(CleanupBand, NullPlanesAndEmptySizesWriteNothing) {
  std::vector<unsigned char> plane(12, 7);
  const std::vector<unsigned char> before = plane;
  smooth_boundary_band(nullptr, 3, 4, 3, plane.data(), 3, 3);
  smooth_boundary_band(plane.data(), 0, 4, 3, plane.data(), 3, 3);
  smooth_boundary_band(plane.data(), 3, 0, 3, plane.data(), 3, 3);
  erase_small_cc_runs(nullptr, 3, 4, 3, 0, 1);
  erase_small_cc_runs(plane.data(), 0, 4, 3, 0, 1);
  erase_small_cc_runs(plane.data(), 3, 4, 3, 0, 0);
  EXPECT_EQ(plane, before);
  smooth_boundary_band(plane.data(), 3, 4, 3, nullptr, 3, 3);
}

}  // namespace
