#include "softmatte/trimap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

// The contrast rule of the image-aware form, per-channel bounds.
struct Contrast {
  int step, low, high, min_band;
};

// The trimap painted the slow way: 4-connected components of equal value by
// label propagation, thickness as the farthest squared distance to a zero
// pixel over every pair, and a window of 128 around every 255 pixel with
// another value beside it. With a contrast rule, the window's half-size
// follows the largest colour difference between sampled 255 and other pixels
// on the border of the thickness window, walked clockwise. seg and img are
// packed (img B, G, R).
std::vector<unsigned char> Paint(const std::vector<unsigned char>& seg,
                                 const std::vector<unsigned char>& img,
                                 int width, int height, int max_band,
                                 double band_scale, const Contrast* c) {
  const int n = width * height;
  std::vector<int> comp(n);
  for (int i = 0; i < n; ++i) comp[i] = i;
  for (bool changed = true; changed;) {
    changed = false;
    for (int i = 0; i < n; ++i)
      for (int j :
           {i % width + 1 < width ? i + 1 : i, i + width < n ? i + width : i})
        if (seg[j] == seg[i] && comp[j] != comp[i])
          comp[i] = comp[j] = std::min(comp[i], comp[j]), changed = true;
  }
  std::vector<double> thickness(n, 0.0);
  for (int i = 0; i < n; ++i) {
    double d = seg[i] == 0 ? 0.0 : 1e20f;
    for (int j = 0; j < n; ++j) {
      const int dx = i % width - j % width, dy = i / width - j / width;
      if (seg[j] == 0) d = std::min(d, 1.0 * (dx * dx + dy * dy));
    }
    thickness[comp[i]] = std::max(thickness[comp[i]], d);
  }
  std::vector<unsigned char> out(seg);
  for (int i = 0; i < n; ++i) {
    const int x = i % width, y = i / width;
    if (seg[i] != 255 || !((x > 0 && seg[i - 1] != 255) ||
                           (x + 1 < width && seg[i + 1] != 255) ||
                           (y > 0 && seg[i - width] != 255) ||
                           (y + 1 < height && seg[i + width] != 255)))
      continue;
    const double h = std::trunc(std::sqrt(thickness[comp[i]]) * band_scale);
    int r = h >= max_band ? max_band : static_cast<int>(h);
    if (c != nullptr) {
      const int left = std::max(x - r, 0), right = std::min(x + r, width);
      const int top = std::max(y - r, 0), bottom = std::min(y + r, height);
      std::vector<int> in, other;
      auto visit = [&](int u, int v) {
        (seg[v * width + u] == 255 ? in : other).push_back(v * width + u);
      };
      for (int u = left; top < bottom && u < right; ++u) visit(u, top);
      for (int v = top; left < right && v < bottom; ++v) visit(right - 1, v);
      for (int u = right - 1; top < bottom && u >= left; --u)
        visit(u, bottom - 1);
      for (int v = bottom - 1; left < right && v >= top; --v) visit(left, v);
      long contrast = INT_MIN;
      for (size_t a = 0; a < in.size(); a += c->step) {
        for (size_t b = 0; b < other.size(); b += c->step) {
          long d = 0;
          for (int ch = 0; ch < 3; ++ch) {
            const int e = img[3 * in[a] + ch] - img[3 * other[b] + ch];
            d += e * e;
          }
          contrast = std::max(contrast, d);
        }
      }
      const double low = 3.0 * c->low * c->low, high = 3.0 * c->high * c->high;
      double t = (contrast - low) / (high - low);
      t = std::isnan(t) ? 0.0 : std::clamp(t, 0.0, 1.0);
      r = c->min_band + static_cast<int>(t * (max_band - c->min_band) + 0.5);
    }
    // One pixel less after the centre than before it.
    for (int v = std::max(y - r, 0); v < std::min(y + r, height); ++v)
      for (int u = std::max(x - r, 0); u < std::min(x + r, width); ++u)
        out[v * width + u] = 128;
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
        std::vector<unsigned char> seg(n, trial == 1 ? 255 : 0), img(3 * n);
        for (int b = trial < 2 ? 4 : rng() % 4; b < 4; ++b) {
          const int centre = rng() % n, radius = 1 + rng() % (width / 2 + 1);
          for (int i = 0; i < n; ++i) {
            const int dx = i % width - centre % width,
                      dy = i / width - centre / width;
            if (dx * dx + dy * dy <= radius * radius && rng() % 9 != 0)
              seg[i] = 255;
          }
        }
        for (int i = 0; trial > 1 && i < 3; ++i) seg[rng() % n] = 100;
        if (trial > 1) std::fill_n(&seg[rng() % height * width], width, 255);
        // A photo whose two sides differ by a random amount.
        for (int i = 0; i < 3 * n; ++i)
          img[i] = rng() % 64 + (seg[i / 3] == 255 ? offset : 0);
        // Padded rows everywhere: the strides differ from one another.
        const int ss = width + 1 + rng() % 6, is = 3 * width + 2,
                  os = width + 3;
        const auto pseg = softmatte_test::RandomPlane(width, height, ss, 1);
        auto pimg = softmatte_test::RandomPlane(3 * width, height, is, 2);
        std::vector<unsigned char> padded(pseg);
        for (int y = 0; y < height; ++y) {
          std::copy_n(&seg[y * width], width, &padded[y * ss]);
          std::copy_n(&img[3 * y * width], 3 * width, &pimg[y * is]);
        }
        SCOPED_TRACE(testing::Message()
                     << width << "x" << height << " trial " << trial);
        for (const auto& [max_band, scale] : bands) {
          for (int ci = -1; ci < 3; ++ci) {
            std::vector<unsigned char> out(os * height,
                                           softmatte_test::kSentinel);
            const Contrast* c = ci < 0 ? nullptr : &contrasts[ci];
            if (c) {
              MakeTrimapFromSegRes(
                  pimg.data(), width, height, is, padded.data(), ss, out.data(),
                  os, max_band, scale, c->step,
                  static_cast<unsigned char>(c->low),
                  static_cast<unsigned char>(c->high), c->min_band);
            } else {
              MakeTrimapFromSegRes(padded.data(), width, height, ss, out.data(),
                                   os, max_band, scale);
            }
            const auto want =
                Paint(seg, img, width, height, max_band, scale, c);
            ASSERT_EQ("",
                      softmatte_test::PlaneMismatch(
                          out, width, height, os, softmatte_test::kSentinel,
                          [&](int x, int y) { return want[y * width + x]; }))
                << "contrast " << ci << " band " << max_band;
          }
        }
      }
}

}  // namespace
