#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "colour/fb_color.h"
#include "softmatte/colour.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;

// What the matte of a case looks like.
enum Shape {
  kBlobs,         // soft-edged discs, some across the border
  kNoForeground,  // the blobs capped below high
  kNoBackground,  // the blobs lifted above low
  kSpeckled,      // blobs plus isolated unknown pixels in the known areas
  kNoise,         // mostly hard random values with a third soft
  kSpeck,         // one tiny hard core in a wide halo: few known pixels
};

struct Case {
  int width;
  int height;
  Shape shape;
  int blobs;
  double ramp;  // soft edge width in pixels
  unsigned char low;
  unsigned char high;
  bool palette;  // four photo colours: composite errors tie all the time
};

std::string Describe(const Case& c) {
  return std::to_string(c.width) + "x" + std::to_string(c.height) + " shape " +
         std::to_string(c.shape) + " blobs " + std::to_string(c.blobs) +
         " ramp " + std::to_string(c.ramp) + " low " + std::to_string(c.low) +
         " high " + std::to_string(c.high) + (c.palette ? " palette" : "");
}

// A photo and matte with padded rows (of different paddings).
struct Scene {
  int imageStride, alphaStride;
  std::vector<unsigned char> image, alpha;
};

Scene MakeScene(const Case& c, uint32_t seed) {
  std::mt19937 rng(seed);
  Scene s;
  s.imageStride = 3 * c.width + 1 + seed % 5;
  s.alphaStride = c.width + seed % 3;
  s.image.assign(size_t(s.imageStride) * c.height, kSentinel);
  s.alpha.assign(size_t(s.alphaStride) * c.height, kSentinel);
  const unsigned char palette[4][3] = {
      {10, 200, 30}, {240, 240, 240}, {90, 20, 160}, {10, 200, 31}};
  for (int y = 0; y < c.height; ++y) {
    for (int x = 0; x < 3 * c.width; x += 3) {
      const int p = rng() % 4;
      for (int k = 0; k < 3; ++k) {
        s.image[size_t(y) * s.imageStride + x + k] =
            c.palette ? palette[p][k] : static_cast<unsigned char>(rng());
      }
    }
  }
  struct Disc {
    double x, y, r;
  };
  std::vector<Disc> discs;
  const int side = std::max(c.width, c.height);
  for (int k = 0; k < c.blobs; ++k) {
    discs.push_back({double(rng() % (c.width + 4)) - 2,
                     double(rng() % (c.height + 4)) - 2,
                     1.0 + rng() % std::max(2, side / (c.blobs + 1))});
  }
  for (int y = 0; y < c.height; ++y) {
    for (int x = 0; x < c.width; ++x) {
      double a = 0.0;
      for (const Disc& d : discs) {
        const double e = std::hypot(x - d.x, y - d.y) - d.r;
        a = std::max(a, std::clamp(0.5 - e / c.ramp, 0.0, 1.0));
      }
      int v = static_cast<int>(std::lround(a * 255));
      switch (c.shape) {
        case kNoForeground:
          v = std::min<int>(v, c.high);
          break;
        case kNoBackground:
          v = std::max<int>(v, c.low);
          break;
        case kSpeckled:
          if (rng() % 40 == 0) v = 128;
          break;
        case kNoise:
          v = rng() % 3 == 0 ? rng() % 256 : (rng() % 2) * 255;
          break;
        case kSpeck:
          v = std::lround(std::clamp(1.2 - std::hypot(x - c.width / 2.0,
                                                      y - c.height / 2.0) /
                                               c.ramp,
                                     0.0, 1.0) *
                          255);
          break;
        default:
          break;
      }
      s.alpha[size_t(y) * s.alphaStride + x] = static_cast<unsigned char>(v);
    }
  }
  return s;
}

// The cases: tiny photos that are never reduced, photos whose coarsest level
// is halved several times, every matte shape, bands from a pixel to dozens
// wide, and thresholds other than the session's.
std::vector<Case> Cases() {
  std::vector<Case> cases = {
      {1, 1, kBlobs, 1, 2, 1, 253, false},
      {1, 9, kNoise, 0, 1, 1, 253, false},
      {7, 2, kNoise, 0, 1, 1, 253, true},
      {5, 16, kBlobs, 2, 3, 1, 253, false},
      {16, 16, kSpeckled, 2, 4, 1, 253, true},
      {17, 17, kBlobs, 1, 6, 1, 253, false},
      {33, 18, kBlobs, 3, 2, 1, 253, false},
      {35, 35, kBlobs, 1, 30, 1, 253, false},
      {40, 35, kSpeckled, 2, 8, 1, 253, false},
      {67, 41, kNoForeground, 3, 9, 1, 253, false},
      {41, 37, kNoBackground, 2, 7, 1, 253, false},
      {21, 19, kNoBackground, 1, 3, 1, 253, true},
      {64, 48, kNoise, 0, 1, 1, 253, false},
      {80, 61, kBlobs, 5, 1.5, 1, 253, true},
      {101, 67, kBlobs, 4, 12, 1, 253, false},
      {97, 131, kSpeckled, 3, 20, 1, 253, false},
      {150, 100, kSpeck, 0, 25, 1, 253, false},
      {121, 90, kSpeck, 0, 6, 1, 253, true},
      {230, 170, kBlobs, 2, 60, 1, 253, false},
      {203, 157, kBlobs, 7, 3, 1, 253, false},
      {199, 211, kSpeckled, 1, 40, 1, 253, true},
      // Nothing below a low of 0: no background.
      {45, 33, kBlobs, 3, 10, 0, 255, false},
      {45, 33, kBlobs, 3, 10, 0, 128, false},
      {77, 55, kSpeckled, 2, 14, 40, 200, false},
      {77, 55, kBlobs, 2, 14, 200, 40, false},  // low above high: no band
      {60, 45, kNoise, 0, 1, 100, 100, true},
      {123, 77, kNoForeground, 2, 5, 30, 220, true},
      // Too wide for the distance transform: every width reads unreached;
      // and as tall as it takes.
      {65536 + 7, 3, kBlobs, 12, 4, 1, 253, false},
      {3, 65535, kBlobs, 12, 4, 1, 253, false},
  };
  // More of the ordinary kind, sizes and bands drawn at random.
  std::mt19937 rng(20240611);
  for (int k = 0; k < 24; ++k) {
    cases.push_back({2 + int(rng() % 160), 2 + int(rng() % 120),
                     rng() % 4 == 0 ? kSpeckled : kBlobs, 1 + int(rng() % 6),
                     0.5 + (rng() % 300) / 10.0, 1, 253, rng() % 3 == 0});
  }
  return cases;
}

// The band-only worker against the exported one (foreground only), with
// the output's row padding left alone.
TEST(EstimateForegroundBand, WritesTheBytesOfTheFullEstimate) {
  uint32_t seed = 1;
  for (const Case& c : Cases()) {
    const Scene s = MakeScene(c, seed++);
    const int stride = 3 * c.width + 2;
    std::vector<unsigned char> want(size_t(stride) * c.height, kSentinel);
    std::vector<unsigned char> got = want;
    mat_estimate_fb_color(s.image.data(), c.width, c.height, s.imageStride,
                          s.alpha.data(), s.alphaStride, want.data(), stride,
                          nullptr, 0, c.low, c.high);
    estimate_foreground_band(s.image.data(), c.width, c.height, s.imageStride,
                             s.alpha.data(), s.alphaStride, got.data(), stride,
                             c.low, c.high);
    ASSERT_TRUE(PaddingIntact(got, 3 * c.width, c.height, stride))
        << Describe(c);
    for (size_t i = 0; i < got.size(); ++i) {
      ASSERT_EQ(got[i], want[i])
          << Describe(c) << ": pixel " << (i % stride) / 3 << "," << i / stride
          << " channel " << i % stride % 3;
    }
  }
}

TEST(EstimateForegroundBand, NullPlanesAndEmptySizesWriteNothing) {
  const Case c{9, 7, kBlobs, 1, 3, 1, 253, false};
  const Scene s = MakeScene(c, 5);
  const int stride = 3 * c.width;
  const std::vector<unsigned char> blank(size_t(stride) * c.height, kSentinel);
  std::vector<unsigned char> out = blank;
  estimate_foreground_band(nullptr, c.width, c.height, s.imageStride,
                           s.alpha.data(), s.alphaStride, out.data(), stride, 1,
                           253);
  estimate_foreground_band(s.image.data(), c.width, c.height, s.imageStride,
                           nullptr, s.alphaStride, out.data(), stride, 1, 253);
  estimate_foreground_band(s.image.data(), 0, c.height, s.imageStride,
                           s.alpha.data(), s.alphaStride, out.data(), stride, 1,
                           253);
  estimate_foreground_band(s.image.data(), c.width, 0, s.imageStride,
                           s.alpha.data(), s.alphaStride, out.data(), stride, 1,
                           253);
  EXPECT_EQ(out, blank);
  estimate_foreground_band(s.image.data(), c.width, c.height, s.imageStride,
                           s.alpha.data(), s.alphaStride, nullptr, stride, 1,
                           253);
}

}  // namespace
