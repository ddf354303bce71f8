#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "softmatte/colour.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;

constexpr unsigned char kLow = 1;
constexpr unsigned char kHigh = 253;

// A B, G, R photo and its matte, both with padded rows.
struct Planes {
  int width, height, imageStride, alphaStride;
  std::vector<unsigned char> image, alpha;
  Planes(int w, int h, uint32_t seed)
      : width(w),
        height(h),
        imageStride(3 * w + 3),
        alphaStride(w + 1),
        image(RandomPlane(3 * w, h, 3 * w + 3, seed)),
        alpha(RandomPlane(w, h, w + 1, seed)) {}
  unsigned char& Alpha(int x, int y) {
    return alpha[size_t(y) * alphaStride + x];
  }
  unsigned char* Pixel(int x, int y) {
    return &image[size_t(y) * imageStride + 3 * x];
  }
};

// Foreground and background outputs of different odd paddings.
struct Outputs {
  int stride[2];
  std::vector<unsigned char> plane[2];  // foreground, background
  const unsigned char* at(int which, int x, int y) const {
    return &plane[which][size_t(y) * stride[which] + 3 * x];
  }
};

Outputs Estimate(const Planes& p) {
  Outputs out{{3 * p.width + 5, 3 * p.width + 7}, {}};
  for (int k = 0; k < 2; ++k)
    out.plane[k].assign(size_t(out.stride[k]) * p.height, kSentinel);
  mat_estimate_fb_color(p.image.data(), p.width, p.height, p.imageStride,
                        p.alpha.data(), p.alphaStride, out.plane[0].data(),
                        out.stride[0], out.plane[1].data(), out.stride[1], kLow,
                        kHigh);
  for (int k = 0; k < 2; ++k)
    EXPECT_TRUE(
        PaddingIntact(out.plane[k], 3 * p.width, p.height, out.stride[k]));
  return out;
}

// A random photo under a soft band around a wobbly disc, with scattered
// unknown specks inside the known areas.
Planes DiscScene(int width, int height, uint32_t seed) {
  Planes p(width, height, seed);
  std::mt19937 rng(seed);
  const double r = 0.3 * std::min(width, height) + 2;
  const double ramp = std::min(6.0, std::min(width, height) / 5.0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double d = std::hypot(x - 0.45 * width, y - 0.55 * height) - r +
                       1.5 * std::sin(0.7 * x);
      const double a =
          rng() % 60 == 0 ? 0.5 : std::clamp(0.5 - d / ramp, 0.0, 1.0);
      p.Alpha(x, y) = static_cast<unsigned char>(std::lround(a * 255));
    }
  }
  return p;
}

TEST(EstimateFbColor, KnownPixelsKeepTheImageColourInBothOutputs) {
  for (auto [width, height] :
       {std::pair{7, 6}, {16, 13}, {37, 29}, {101, 67}}) {
    Planes p = DiscScene(width, height, 500 + width);
    const Outputs out = Estimate(p);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        if (p.Alpha(x, y) >= kLow && p.Alpha(x, y) <= kHigh) continue;
        for (int k = 0; k < 2; ++k) {
          ASSERT_TRUE(
              std::equal(p.Pixel(x, y), p.Pixel(x, y) + 3, out.at(k, x, y)))
              << width << "x" << height << " at " << x << "," << y << " output "
              << k;
        }
      }
    }
  }
}

TEST(EstimateFbColor, NullPlanesWriteNothingAndOutputsComeInTheirOrder) {
  const Planes p = DiscScene(41, 23, 77);
  const Outputs both = Estimate(p);
  const int fs = both.stride[0], bs = both.stride[1];
  const std::vector<unsigned char> blankF(both.plane[0].size(), kSentinel),
      blankB(both.plane[1].size(), kSentinel);
  std::vector<unsigned char> fg = blankF, bg = blankB;
  const unsigned char *image = p.image.data(), *alpha = p.alpha.data();
  const int w = p.width, h = p.height, is = p.imageStride, as = p.alphaStride;
  mat_estimate_fb_color(nullptr, w, h, is, alpha, as, fg.data(), fs, bg.data(),
                        bs, kLow, kHigh);
  estimate_fb_color_x(image, w, h, is, nullptr, as, bg.data(), bs, fg.data(),
                      fs, kLow, kHigh);
  EXPECT_EQ(fg, blankF);
  EXPECT_EQ(bg, blankB);
  // The worker takes the background plane first.
  estimate_fb_color_x(image, w, h, is, alpha, as, bg.data(), bs, fg.data(), fs,
                      kLow, kHigh);
  EXPECT_EQ(fg, both.plane[0]);
  EXPECT_EQ(bg, both.plane[1]);
  // A null output is skipped; the other is unchanged by its absence.
  fg = blankF;
  mat_estimate_fb_color(image, w, h, is, alpha, as, fg.data(), fs, nullptr, 0,
                        kLow, kHigh);
  EXPECT_EQ(fg, both.plane[0]);
}

TEST(EstimateFbColor, MatteWithoutForegroundSolvesAgainstTheBackgroundMean) {
  // No alpha above high: every unknown pixel sees the whole one-coloured
  // background, has no foreground samples and no band width (the distance
  // to the foreground is unreached). Its F is the compositing equation
  // solved for F, blended with the image colour by the weight curve S.
  Planes p(23, 19, 31);
  const unsigned char background[3] = {40, 90, 200};
  std::mt19937 rng(32);
  const double e = std::exp(-0.5);
  const double q = ((e - 1) / (e - (e + 1) * 0.5) - 1) / e;  // midpoint 0.5
  const double k = (e * e * q + 1) / (e * e - 1) / q;
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < p.width; ++x) {
      p.Alpha(x, y) = x < 9 ? 0 : kLow + rng() % (kHigh - kLow + 1);
      if (x < 9) std::copy_n(background, 3, p.Pixel(x, y));
    }
  }
  const Outputs out = Estimate(p);
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < p.width; ++x) {
      const float a = p.Alpha(x, y) / 255.0f;
      const double t = double(p.Alpha(x, y) - kLow) / (kHigh - kLow);
      const float s =
          x < 9
              ? 0.0f
              : float(k - (q + 1) * k / (std::exp(std::log(q) - (1 - t)) + 1));
      for (int c = 0; c < 3; ++c) {
        const float i = p.Pixel(x, y)[c];
        const float fs = x < 9
                             ? 0.0f
                             : std::clamp((i - (1.0f - a) * background[c]) / a,
                                          0.0f, 255.0f);
        ASSERT_EQ(out.at(1, x, y)[c], background[c]) << x << "," << y;
        const int want = x < 9 ? background[c] : int((1.0f - s) * i + s * fs);
        ASSERT_NEAR(out.at(0, x, y)[c], want, x < 9 ? 0 : 1) << x << "," << y;
      }
    }
  }
}

// A composite with known layers: smooth colourful foreground and background
// textures mixed by a disc whose edge ramps over some 14 pixels.
TEST(EstimateFbColor, RecoversTheForegroundOfASyntheticComposite) {
  Planes p(241, 181, 0);
  std::vector<float> trueF(size_t(p.width) * p.height * 3);
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < p.width; ++x) {
      const double d = std::hypot(x - 120.0, y - 90.0) - 55.0 +
                       4.0 * std::sin(std::atan2(y - 90.0, x - 120.0) * 7);
      p.Alpha(x, y) = static_cast<unsigned char>(
          std::lround(std::clamp(0.5 - d / 14.0, 0.0, 1.0) * 255));
      const double a = p.Alpha(x, y) / 255.0;
      for (int c = 0; c < 3; ++c) {
        const double f =
            150 + 60 * std::sin(0.05 * x + 2.0 * c) * std::cos(0.04 * y - c);
        const double b = 90 + 70 * std::cos(0.03 * (x + y) + c) *
                                  std::sin(0.06 * x - 0.5 * c);
        trueF[(y * p.width + x) * 3 + c] = static_cast<float>(f);
        p.Pixel(x, y)[c] =
            static_cast<unsigned char>(std::lround(a * f + (1 - a) * b));
      }
    }
  }
  const Outputs out = Estimate(p);
  // Alpha-weighted mean absolute error over the soft band: where alpha is
  // small the foreground hardly shows and is barely determined.
  double estimated = 0, naive = 0, weight = 0;
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < p.width; ++x) {
      const int alpha = p.Alpha(x, y);
      if (alpha < kLow || alpha > kHigh) continue;
      for (int c = 0; c < 3; ++c) {
        const double f = trueF[(y * p.width + x) * 3 + c];
        estimated += alpha * std::abs(out.at(0, x, y)[c] - f);
        naive += alpha * std::abs(p.Pixel(x, y)[c] - f);
        weight += alpha;
      }
    }
  }
  estimated /= weight;
  naive /= weight;
  RecordProperty("estimated_error", std::to_string(estimated));
  RecordProperty("image_colour_error", std::to_string(naive));
  // Measured: 14.9 against 24.4. Mid-band the result is by design only
  // partly moved from the image colour towards the solved one.
  EXPECT_LT(estimated, 0.7 * naive);
  EXPECT_LT(estimated, 17.0);
}

}  // namespace
