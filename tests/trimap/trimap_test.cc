// Trimaps and their building blocks against plain versions written out
// pixel by pixel, and the run-based trimap of the one-shot flow against the
// whole-plane one, byte for byte.
#include "softmatte/trimap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "test_util.h"
#include "trimap/trimap_runs.h"

namespace {

using Bytes = std::vector<unsigned char>;
using softmatte_test::kSentinel;
using softmatte_test::PlaneMismatch;

// The contrast rule of the image-aware form, per-channel bounds.
struct Contrast {
  int step, low, high, min_band;
};

// The trimap painted the slow way: 4-connected components of equal value by
// label propagation, thickness as the farthest squared distance to a zero
// pixel over every pair, and a window of 128 around every 255 pixel with
// another value beside it (a component's boundary pixel), clipped to the
// image and one pixel shorter after the centre than before it. With a contrast
// rule, the window's half-size follows the largest colour difference between
// sampled 255 and other pixels on the border of the thickness window, walked
// clockwise. seg and img are packed (img B, G, R).
Bytes Paint(const Bytes& seg, const Bytes& img, int width, int height,
            int max_band, double band_scale, const Contrast* c) {
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
  Bytes out(seg);
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
        // 255 with ragged edges on 0, a full 255 row and a few 100s, on a
        // photo whose two sides differ by a random amount.
        const int n = width * height, offset = rng() % 160;
        Bytes seg(n, trial == 1 ? 255 : 0), img(3 * n);
        for (int b = trial < 2 ? 4 : rng() % 4; b < 4; ++b) {
          const int c = rng() % n, radius = 1 + rng() % (width / 2 + 1);
          for (int i = 0; i < n; ++i) {
            const int dx = i % width - c % width, dy = i / width - c / width;
            if (dx * dx + dy * dy <= radius * radius && rng() % 9 != 0)
              seg[i] = 255;
          }
        }
        for (int i = 0; trial > 1 && i < 3; ++i) seg[rng() % n] = 100;
        if (trial > 1) std::fill_n(&seg[rng() % height * width], width, 255);
        for (int i = 0; i < 3 * n; ++i)
          img[i] = rng() % 64 + (seg[i / 3] == 255 ? offset : 0);
        // Padded rows everywhere: the strides differ from one another.
        const int ss = width + 1 + rng() % 6, is = 3 * width + 2;
        auto pseg = softmatte_test::RandomPlane(width, height, ss, 1);
        auto pimg = softmatte_test::RandomPlane(3 * width, height, is, 2);
        for (int y = 0; y < height; ++y) {
          std::copy_n(&seg[y * width], width, &pseg[y * ss]);
          std::copy_n(&img[3 * y * width], 3 * width, &pimg[y * is]);
        }
        for (const auto& [band, scale] : bands) {
          for (int ci = -1; ci < 3; ++ci) {
            Bytes out((width + 3) * height, kSentinel);
            const Contrast* c = ci < 0 ? nullptr : &contrasts[ci];
            c ? MakeTrimapFromSegRes(pimg.data(), width, height, is,
                                     pseg.data(), ss, out.data(), width + 3,
                                     band, scale, c->step, c->low, c->high,
                                     c->min_band)
              : MakeTrimapFromSegRes(pseg.data(), width, height, ss, out.data(),
                                     width + 3, band, scale);
            const auto want = Paint(seg, img, width, height, band, scale, c);
            ASSERT_EQ("",
                      PlaneMismatch(
                          out, width, height, width + 3, kSentinel,
                          [&](int x, int y) { return want[y * width + x]; }))
                << width << "x" << height << " trial " << trial << " contrast "
                << ci << " band " << band;
          }
        }
      }
}

// Discs, thin bars, single pixels and holes, some over the border; or the
// blocky enlargement of such a mask, as segmenters give them.
Bytes RandomMask(int width, int height, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes mask(static_cast<size_t>(width) * height, 0);
  for (int s = 0, shapes = 1 + rng() % 8; s < shapes; ++s) {
    const double cx = rng() % (width + 10) - 5.0;
    const double cy = rng() % (height + 10) - 5.0;
    const double rx = 0.5 + rng() % (1 + width / 2);
    const double ry = rng() % 3 == 0 ? 0.7 : 0.5 + rng() % (1 + height / 2);
    const unsigned char value = s > 0 && rng() % 4 == 0 ? 0 : 255;
    softmatte_test::FillEllipse(mask, width, height, cx, cy, rx, ry, value);
  }
  for (int specks = rng() % 6; specks > 0; --specks)
    mask[rng() % mask.size()] ^= 255;
  if (rng() % 3 == 0)
    mask = softmatte_test::BlockyMask(mask, width, height, 2 + rng() % 6);
  return mask;
}

TEST(MakeTrimapFromRuns, MatchesTheWholePlaneTrimap) {
  std::mt19937 rng(7);
  const int bands[] = {0, 1, 2, 3, 5, 12};
  const double scales[] = {0.0, 0.01, 0.1, 0.25, 0.5, 1.0, 3.0};
  for (int round = 0; round < 400; ++round) {
    const int width = 1 + rng() % 70, height = 1 + rng() % 60;
    const Bytes mask = RandomMask(width, height, round);
    const int band = bands[rng() % 6];
    const double scale = scales[rng() % 7];
    Bytes want(mask.size(), 7), got(mask.size(), 9);
    MakeTrimapFromSegRes(mask.data(), width, height, width, want.data(), width,
                         band, scale);
    MakeTrimapFromRuns(mask.data(), width, height, got.data(), band, scale);
    ASSERT_EQ(got, want) << "round " << round << ": " << width << "x" << height
                         << " band " << band << " scale " << scale;
  }
}

constexpr float kFar = 1e20f;

// Replaces the n samples of g at start, start + step, ... by the min over q
// of f[q] + (p - q)^2, trying every q.
void BruteForceLine(std::vector<float>& g, int start, int step, int n) {
  std::vector<float> f(n);
  for (int q = 0; q < n; ++q) f[q] = g[start + q * step];
  for (int p = 0; p < n; ++p) {
    float best = f[0] + static_cast<float>(p * p);
    for (int q = 1; q < n; ++q)
      best = std::min(best, f[q] + static_cast<float>((p - q) * (p - q)));
    g[start + p * step] = best;
  }
}

// Columns, then rows, line by line. The library walks the lines of a pass in
// four ranges cut at n/4, n/2 and 3 * (n/4); with 2 or 3 lines the last range
// restarts at 0, so line 0 goes through twice.
std::vector<float> LineByLine(std::vector<float> g, int width, int height) {
  for (int x = 0; x < width; ++x) BruteForceLine(g, x, width, height);
  if (width == 2 || width == 3) BruteForceLine(g, 0, width, height);
  for (int y = 0; y < height; ++y) BruteForceLine(g, y * width, 1, width);
  if (height == 2 || height == 3) BruteForceLine(g, 0, 1, width);
  return g;
}

// A mask's grid (sources where it is 0: non-zero, not 255, is the object),
// then the same grid with small integer costs, exact in float, on some far
// pixels, and -0 (a source too, coming out as +0) on some sources.
TEST(DistanceTransform, MatchesBruteForceOnRandomGrids) {
  std::mt19937 rng(5150);
  for (int width : {1, 2, 3, 4, 5, 9, 33})
    for (int height : {1, 2, 3, 4, 7, 31})
      for (unsigned zeros : {0u, 1u, 10u, 60u, 100u}) {
        const int n = width * height, stride = width + 3;
        Bytes mask = softmatte_test::RandomPlane(width, height, stride, rng());
        for (auto& m : mask) m = rng() % 100 < zeros ? 0 : m | 1;
        std::unique_ptr<float[]> grid(
            DPLMatting_MakeDTInput(mask.data(), width, height, stride));
        for (int i = 0; i < n; ++i)
          ASSERT_EQ(grid[i], mask[i / width * stride + i % width] ? kFar : 0);
        std::vector<float> costs(grid.get(), grid.get() + n);
        for (int pass = 0; pass < 2; ++pass) {
          const std::vector<float> want = LineByLine(costs, width, height);
          DistanceTransform(pass ? costs.data() : grid.get(), width, height);
          ASSERT_EQ(0, std::memcmp(pass ? costs.data() : grid.get(),
                                   want.data(), sizeof(float) * n))
              << width << "x" << height << ", " << zeros << "% zeros";
          if (pass) break;
          for (float& v : costs)
            if (rng() % 3 == 0)
              v = v == 0.0f ? -0.0f : static_cast<float>(rng() % 200);
        }
      }
}

// Everything but unknown turns over; the row's padding stays.
TEST(InvertMatte, FlipsAllButUnknownAndLeavesThePaddingAlone) {
  Bytes row = {0, 127, 128, 129, 255, kSentinel};
  InvertMatte(row.data(), 5, 1, 6);
  EXPECT_EQ(row, (Bytes{255, 128, 128, 126, 0, kSentinel}));
}

}  // namespace
