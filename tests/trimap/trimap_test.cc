#include "softmatte/trimap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <random>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

using softmatte_test::kSentinel;

constexpr unsigned char kUnknown = 128;

// The contrast rule of the image-aware form, per-channel bounds.
struct Contrast {
  int step, low, high, min_band;
};

// A segmentation and a B, G, R photo of it, both with padded rows.
struct Scene {
  int width, height, stride, img_stride;
  std::vector<unsigned char> seg = {}, img = {};
  unsigned char& at(int i) { return seg[i / width * stride + i % width]; }
};

// The trimap painted the slow way: 4-connected components of equal value by
// label propagation, thickness as the farthest squared distance to a zero
// pixel over every pair, and a window of 128 around every 255 pixel with
// another value beside it. With img, the window's half-size follows the
// largest colour difference between sampled 255 and other pixels on the
// border of the thickness window, walked clockwise.
std::vector<unsigned char> Paint(Scene s, int max_band, double band_scale,
                                 const Contrast* c) {
  const int width = s.width, height = s.height, n = width * height;
  std::vector<int> comp(n);
  for (int i = 0; i < n; ++i) comp[i] = i;
  for (bool changed = true; changed;) {
    changed = false;
    for (int i = 0; i < n; ++i) {
      for (int j :
           {i % width + 1 < width ? i + 1 : i, i + width < n ? i + width : i}) {
        if (s.at(j) == s.at(i) && comp[j] != comp[i]) {
          comp[i] = comp[j] = std::min(comp[i], comp[j]);
          changed = true;
        }
      }
    }
  }
  std::vector<double> thickness(n, 0.0);
  for (int i = 0; i < n; ++i) {
    double d = s.at(i) == 0 ? 0.0 : 1e20f;
    for (int j = 0; j < n; ++j) {
      const int dx = i % width - j % width, dy = i / width - j / width;
      if (s.at(j) == 0) d = std::min(d, 1.0 * (dx * dx + dy * dy));
    }
    thickness[comp[i]] = std::max(thickness[comp[i]], d);
  }
  std::vector<unsigned char> out(n);
  for (int i = 0; i < n; ++i) out[i] = s.at(i);
  for (int i = 0; i < n; ++i) {
    const int x = i % width, y = i / width;
    if (s.at(i) != 255 || !((x > 0 && s.at(i - 1) != 255) ||
                            (x + 1 < width && s.at(i + 1) != 255) ||
                            (y > 0 && s.at(i - width) != 255) ||
                            (y + 1 < height && s.at(i + width) != 255))) {
      continue;
    }
    const double h = std::trunc(std::sqrt(thickness[comp[i]]) * band_scale);
    int r = h >= max_band ? max_band : static_cast<int>(h);
    if (c != nullptr) {
      const int left = std::max(x - r, 0), right = std::min(x + r, width);
      const int top = std::max(y - r, 0), bottom = std::min(y + r, height);
      std::vector<int> in, other;
      auto visit = [&](int u, int v) {
        (s.at(v * width + u) == 255 ? in : other).push_back(v * width + u);
      };
      for (int u = left; top < bottom && u < right; ++u) visit(u, top);
      for (int v = top; left < right && v < bottom; ++v) visit(right - 1, v);
      for (int u = right - 1; top < bottom && u >= left; --u)
        visit(u, bottom - 1);
      for (int v = bottom - 1; left < right && v >= top; --v) visit(left, v);
      auto px = [&](int j) {
        return &s.img[j / width * s.img_stride + j % width * 3];
      };
      long contrast = INT_MIN;
      for (size_t a = 0; a < in.size(); a += c->step) {
        for (size_t b = 0; b < other.size(); b += c->step) {
          const unsigned char *p = px(in[a]), *q = px(other[b]);
          long d = 0;
          for (int ch = 0; ch < 3; ++ch) d += (p[ch] - q[ch]) * (p[ch] - q[ch]);
          contrast = std::max(contrast, d);
        }
      }
      const double low = 3.0 * c->low * c->low, high = 3.0 * c->high * c->high;
      double t = (contrast - low) / (high - low);
      t = std::isnan(t) ? 0.0 : std::clamp(t, 0.0, 1.0);
      r = c->min_band + static_cast<int>(t * (max_band - c->min_band) + 0.5);
    }
    // One pixel less after the centre than before it.
    for (int v = std::max(y - r, 0); v < std::min(y + r, height); ++v) {
      for (int u = std::max(x - r, 0); u < std::min(x + r, width); ++u) {
        out[v * width + u] = kUnknown;
      }
    }
  }
  return out;
}

TEST(MakeTrimapFromSegRes, BothFormsMatchThePlainPainter) {
  std::mt19937 rng(31337);
  const std::pair<int, double> bands[] = {
      {3, 0.5}, {20, 1.3}, {6, 2.0}, {5, 0.7}};
  const Contrast contrasts[] = {{1, 5, 50, 1}, {3, 20, 20, 2}, {2, 40, 10, 0}};
  for (int width : {5, 17, 31})
    for (int height : {4, 9, 23})
      for (int trial = 0; trial < 6; ++trial) {
        // Trials 0 and 1 are all 0 and all 255; the rest up to four discs of
        // 255 with ragged edges on 0, a full 255 row and a few 100s.
        const int n = width * height, offset = rng() % 160;
        Scene s{width, height, width + 1 + static_cast<int>(rng() % 6),
                3 * width + 2};
        s.seg.assign(s.stride * height, kSentinel);
        for (int i = 0; i < n; ++i) s.at(i) = trial == 1 ? 255 : 0;
        for (int b = trial < 2 ? 4 : rng() % 4; b < 4; ++b) {
          const int centre = rng() % n, radius = 1 + rng() % (width / 2 + 1);
          for (int i = 0; i < n; ++i) {
            const int dx = i % width - centre % width,
                      dy = i / width - centre / width;
            if (dx * dx + dy * dy <= radius * radius && rng() % 9 != 0)
              s.at(i) = 255;
          }
        }
        for (int i = 0; trial > 1 && i < 3; ++i) s.at(rng() % n) = 100;
        if (trial > 1) std::fill_n(&s.at(rng() % height * width), width, 255);
        // A photo whose two sides differ by a random amount.
        s.img.assign(s.img_stride * height, kSentinel);
        for (int i = 0; i < 3 * n; ++i) {
          s.img[i / 3 / width * s.img_stride + i % (3 * width)] =
              rng() % 64 + (s.at(i / 3) == 255 ? offset : 0);
        }
        const int out_stride = width + 3;
        std::vector<unsigned char> out(out_stride * height);
        SCOPED_TRACE(testing::Message()
                     << width << "x" << height << " trial " << trial);
        auto expect = [&](const std::vector<unsigned char>& want,
                          const char* what) {
          for (int i = 0; i < out_stride * height; ++i) {
            const int x = i % out_stride, y = i / out_stride;
            ASSERT_EQ(out[i], x < width ? want[y * width + x] : kSentinel)
                << what << " at (" << x << ", " << y << ")";
          }
        };
        for (const auto& [max_band, scale] : bands) {
          std::fill(out.begin(), out.end(), kSentinel);
          MakeTrimapFromSegRes(s.seg.data(), width, height, s.stride,
                               out.data(), out_stride, max_band, scale);
          expect(Paint(s, max_band, scale, nullptr), "without image");
          for (const Contrast& c : contrasts) {
            std::fill(out.begin(), out.end(), kSentinel);
            MakeTrimapFromSegRes(
                s.img.data(), width, height, s.img_stride, s.seg.data(),
                s.stride, out.data(), out_stride, max_band, scale, c.step,
                static_cast<unsigned char>(c.low),
                static_cast<unsigned char>(c.high), c.min_band);
            expect(Paint(s, max_band, scale, &c), "with image");
          }
        }
      }
}

// Photos of the set whose subjects have compact edges: every fractional
// ground-truth pixel lies within 20 pixels of the contour where alpha
// crosses 128. (Hair- and glass-like subjects such as GT03, GT16 or GT27
// have wisps 80 pixels or more from it, out of reach of any band around a
// thresholded mask.)
TEST(MakeTrimapFromSegRes,
     BandAroundThresholdedTruthHoldsEveryFractionalPixel) {
  // The band the matting flow uses: half-size up to 20 pixels, half the
  // component's thickness below that; these subjects are hundreds of pixels
  // thick, so the half-size is 20 around all of their edge.
  int loaded = 0;
  for (int index : {5, 11, 14, 19, 25}) {
    softmatte_test::MattingSample sample;
    if (!softmatte_test::LoadMattingSample(index, false, &sample)) continue;
    ++loaded;
    const int width = sample.truth.width, height = sample.truth.height;
    const std::vector<unsigned char>& truth = sample.truth.pixels;
    std::vector<unsigned char> mask(truth.size());
    for (size_t i = 0; i < truth.size(); ++i)
      mask[i] = truth[i] >= 128 ? 255 : 0;
    std::vector<unsigned char> out(truth.size());
    MakeTrimapFromSegRes(mask.data(), width, height, width, out.data(), width,
                         20, 0.5);
    long band = 0;
    for (size_t i = 0; i < truth.size(); ++i) {
      band += out[i] == kUnknown;
      // Outside the band nothing is fractional, so the trimap is the truth.
      if (out[i] != kUnknown) {
        ASSERT_EQ(out[i], truth[i]) << sample.name << " at pixel " << i;
      }
    }
    EXPECT_LT(band, static_cast<long>(truth.size()) / 3)
        << sample.name << ": a band, not the picture";
  }
  if (loaded == 0) GTEST_SKIP() << "alphamatting photos not found";
}

}  // namespace
