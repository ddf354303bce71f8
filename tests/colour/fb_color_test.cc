#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "softmatte/colour.h"
#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;

constexpr unsigned char kLow = 1;
constexpr unsigned char kHigh = 253;

struct Planes {
  int width = 0;
  int height = 0;
  int imageStride = 0;
  int alphaStride = 0;
  std::vector<unsigned char> image;
  std::vector<unsigned char> alpha;
  unsigned char Alpha(int x, int y) const {
    return alpha[static_cast<size_t>(y) * alphaStride + x];
  }
  const unsigned char* Pixel(int x, int y) const {
    return &image[static_cast<size_t>(y) * imageStride + 3 * x];
  }
};

struct Outputs {
  int fgStride = 0;
  int bgStride = 0;
  std::vector<unsigned char> fg;
  std::vector<unsigned char> bg;
  const unsigned char* F(int x, int y) const {
    return &fg[static_cast<size_t>(y) * fgStride + 3 * x];
  }
  const unsigned char* B(int x, int y) const {
    return &bg[static_cast<size_t>(y) * bgStride + 3 * x];
  }
};

// Outputs of different odd paddings, the padding holding the sentinel.
Outputs Estimate(const Planes& p, unsigned char low = kLow,
                 unsigned char high = kHigh) {
  Outputs out;
  out.fgStride = 3 * p.width + 5;
  out.bgStride = 3 * p.width + 7;
  out.fg.assign(static_cast<size_t>(out.fgStride) * p.height, kSentinel);
  out.bg.assign(static_cast<size_t>(out.bgStride) * p.height, kSentinel);
  mat_estimate_fb_color(p.image.data(), p.width, p.height, p.imageStride,
                        p.alpha.data(), p.alphaStride, out.fg.data(),
                        out.fgStride, out.bg.data(), out.bgStride, low, high);
  EXPECT_TRUE(PaddingIntact(out.fg, 3 * p.width, p.height, out.fgStride));
  EXPECT_TRUE(PaddingIntact(out.bg, 3 * p.width, p.height, out.bgStride));
  return out;
}

// A random photo under a matte with a soft band around a wobbly disc, plus
// scattered unknown specks inside the known areas.
Planes DiscScene(int width, int height, uint32_t seed) {
  Planes p;
  p.width = width;
  p.height = height;
  p.imageStride = 3 * width + 3;
  p.alphaStride = width + 1;
  p.image = RandomPlane(3 * width, height, p.imageStride, seed);
  p.alpha.assign(static_cast<size_t>(p.alphaStride) * height, kSentinel);
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> speck(0, 60);
  const double r = 0.3 * std::min(width, height) + 2;
  const double ramp = std::min(6.0, std::min(width, height) / 5.0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double d = std::hypot(x - 0.45 * width, y - 0.55 * height) - r +
                       1.5 * std::sin(0.7 * x);
      double a = std::clamp(0.5 - d / ramp, 0.0, 1.0);
      if (speck(rng) == 0) a = 0.5;
      p.alpha[static_cast<size_t>(y) * p.alphaStride + x] =
          static_cast<unsigned char>(std::lround(a * 255));
    }
  }
  return p;
}

int LabelOf(unsigned char a, unsigned char low, unsigned char high) {
  return a > high ? 2 : a < low ? 1 : 0;
}

TEST(EstimateFbColor, KnownPixelsKeepTheImageColourInBothOutputs) {
  for (const auto& [width, height] : std::vector<std::pair<int, int>>{
           {7, 6}, {16, 13}, {37, 29}, {101, 67}}) {
    const Planes p = DiscScene(width, height, 500 + width);
    const Outputs out = Estimate(p);
    int known[3] = {0, 0, 0};
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const int label = LabelOf(p.Alpha(x, y), kLow, kHigh);
        ++known[label];
        if (label == 0) continue;
        for (int c = 0; c < 3; ++c) {
          ASSERT_EQ(out.F(x, y)[c], p.Pixel(x, y)[c])
              << width << "x" << height << " at " << x << "," << y;
          ASSERT_EQ(out.B(x, y)[c], p.Pixel(x, y)[c])
              << width << "x" << height << " at " << x << "," << y;
        }
      }
    }
    // With a class missing the outputs come from a level of twice the size.
    EXPECT_TRUE(known[1] > 0 && known[2] > 0) << width << "x" << height;
  }
}

TEST(EstimateFbColor, NullPlanesWriteNothingAndOutputsComeInTheirOrder) {
  const Planes p = DiscScene(41, 23, 77);
  const Outputs both = Estimate(p);
  std::vector<unsigned char> first(both.fg.size(), kSentinel);
  std::vector<unsigned char> second(both.bg.size(), kSentinel);
  mat_estimate_fb_color(
      nullptr, p.width, p.height, p.imageStride, p.alpha.data(), p.alphaStride,
      first.data(), both.fgStride, second.data(), both.bgStride, kLow, kHigh);
  estimate_fb_color_x(p.image.data(), p.width, p.height, p.imageStride, nullptr,
                      p.alphaStride, first.data(), both.fgStride, second.data(),
                      both.bgStride, kLow, kHigh);
  EXPECT_TRUE(std::all_of(first.begin(), first.end(),
                          [](unsigned char v) { return v == kSentinel; }));
  EXPECT_TRUE(std::all_of(second.begin(), second.end(),
                          [](unsigned char v) { return v == kSentinel; }));

  // The worker takes the background plane first.
  estimate_fb_color_x(p.image.data(), p.width, p.height, p.imageStride,
                      p.alpha.data(), p.alphaStride, first.data(),
                      both.fgStride, second.data(), both.bgStride, kLow, kHigh);
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < 3 * p.width; ++x) {
      ASSERT_EQ(first[static_cast<size_t>(y) * both.fgStride + x],
                both.bg[static_cast<size_t>(y) * both.bgStride + x]);
      ASSERT_EQ(second[static_cast<size_t>(y) * both.bgStride + x],
                both.fg[static_cast<size_t>(y) * both.fgStride + x]);
    }
  }

  // A null output is skipped; the other is unchanged by its absence.
  std::vector<unsigned char> alone(both.fg.size(), kSentinel);
  mat_estimate_fb_color(p.image.data(), p.width, p.height, p.imageStride,
                        p.alpha.data(), p.alphaStride, alone.data(),
                        both.fgStride, nullptr, 0, kLow, kHigh);
  EXPECT_EQ(alone, both.fg);
}

// The compositing-weight curve written out from its closed form.
double SReference(int alpha, int low, int high) {
  if (alpha < low || alpha > high) return 0.0;
  const double e = std::exp(-0.5);
  const double c = 0.5;  // the curve's midpoint for a midpoint of 0.5
  const double q = ((e - 1) / (e - (e + 1) * c) - 1) / e;
  const double k = (e * e * q + 1) / (e * e - 1) / q;
  const double t = static_cast<double>(alpha - low) / (high - low);
  return k - (q + 1) * k / (std::exp(std::log(q) - (1 - t)) + 1);
}

// Final colour of an unknown pixel whose band weight is 0: the compositing
// equation solved for F, blended with the image colour by S.
unsigned char CompositeEstimate(int i, int b, int alpha, int low, int high) {
  const float a = alpha / 255.0f;
  float fs = (i - (1.0f - a) * b) / a;
  fs = std::clamp(fs, 0.0f, 255.0f);
  const float s = static_cast<float>(SReference(alpha, low, high));
  return static_cast<unsigned char>(
      static_cast<int>((1.0f - s) * i + s * (0.0f * i + 1.0f * fs)));
}

TEST(EstimateFbColor, MatteWithoutForegroundSolvesAgainstTheBackgroundMean) {
  // No alpha above high: no class-2 pixel anywhere, so every unknown pixel
  // sees the whole background, has no foreground samples and no band width
  // (the distance to the foreground is unreached).
  const int width = 23, height = 19;
  Planes p;
  p.width = width;
  p.height = height;
  p.imageStride = 3 * width + 1;
  p.alphaStride = width + 2;
  p.image = RandomPlane(3 * width, height, p.imageStride, 31);
  p.alpha.assign(static_cast<size_t>(p.alphaStride) * height, 0);
  const unsigned char background[3] = {40, 90, 200};
  std::mt19937 rng(32);
  std::uniform_int_distribution<int> soft(kLow, kHigh);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      unsigned char* px =
          &p.image[static_cast<size_t>(y) * p.imageStride + 3 * x];
      if (x < 9) {
        std::copy_n(background, 3, px);  // known background, one colour
      } else {
        p.alpha[static_cast<size_t>(y) * p.alphaStride + x] =
            static_cast<unsigned char>(soft(rng));
      }
    }
  }
  const Outputs out = Estimate(p);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < 3; ++c) {
        ASSERT_EQ(out.B(x, y)[c], background[c]) << x << "," << y;
        const unsigned char want =
            x < 9 ? background[c]
                  : CompositeEstimate(p.Pixel(x, y)[c], background[c],
                                      p.Alpha(x, y), kLow, kHigh);
        ASSERT_NEAR(out.F(x, y)[c], want, x < 9 ? 0 : 1) << x << "," << y;
      }
    }
  }
}

// The whole estimate written plainly: a pyramid of nearest-neighbour
// levels, the coarsest one on which every unknown pixel has both known
// classes in its 5 x 5 window (halving while both sides are at least 17);
// there each unknown pixel takes the known pixels ring by ring (square
// rings, each from its top-left corner clockwise) until a completed ring
// leaves 100 of each class: B is their mean, F the first of least composite
// error. Each finer level interpolates the coarser planes, ignoring the
// other layer's known pixels, then corrects from the 5 x 5 window; at full
// size the compositing equation finishes F, weighted by the band's width.
struct RingKey {
  int ring, side, along;
  bool operator<(const RingKey& o) const {
    return std::tie(ring, side, along) < std::tie(o.ring, o.side, o.along);
  }
};

RingKey KeyOf(int dx, int dy) {
  const int r = std::max(std::abs(dx), std::abs(dy));
  if (dy == -r && dx != r) return {r, 0, dx};
  if (dx == r && dy != r) return {r, 1, dy};
  if (dy == r && dx != -r) return {r, 2, dx};
  return {r, 3, dy};
}

struct RefLevel {
  int w = 0, h = 0;
  std::vector<unsigned char> image, alpha, label, bg, fg;  // packed
  int At(int x, int y) const { return y * w + x; }
};

RefLevel MakeLevel(const Planes& p, const std::vector<unsigned char>& label,
                   int w, int h) {
  RefLevel l;
  l.w = w;
  l.h = h;
  l.image.resize(static_cast<size_t>(w) * h * 3);
  l.alpha.resize(static_cast<size_t>(w) * h);
  l.label.resize(l.alpha.size());
  ff::ipf_resize_nn(p.image.data(), p.width, p.height, p.imageStride, 3,
                    l.image.data(), w, h, 3 * w, 3, ff::ccn<3>());
  ff::ipf_resize_nn(p.alpha.data(), p.width, p.height, p.alphaStride, 1,
                    l.alpha.data(), w, h, w, 1, ff::ccn<1>());
  ff::ipf_resize_nn(label.data(), p.width, p.height, p.width, 1, l.label.data(),
                    w, h, w, 1, ff::ccn<1>());
  l.bg = l.image;
  l.fg = l.image;
  return l;
}

// Known pixels around (x, y), the pixel itself left out, in ring order.
void RingSamples(const RefLevel& l, int x, int y, std::vector<int>* bgs,
                 std::vector<int>* fgs) {
  std::vector<std::pair<RingKey, int>> known;
  for (int v = 0; v < l.h; ++v) {
    for (int u = 0; u < l.w; ++u) {
      if (l.label[l.At(u, v)] != 0 && (u != x || v != y)) {
        known.push_back({KeyOf(u - x, v - y), l.At(u, v)});
      }
    }
  }
  std::sort(known.begin(), known.end());
  for (size_t k = 0; k < known.size(); ++k) {
    const int i = known[k].second;
    (l.label[i] == 1 ? bgs : fgs)->push_back(i);
    const bool ringDone =
        k + 1 == known.size() || known[k + 1].first.ring != known[k].first.ring;
    if (ringDone && bgs->size() >= 100 && fgs->size() >= 100) break;
  }
}

void Mean(const std::vector<unsigned char>& plane, const std::vector<int>& at,
          unsigned char* out) {
  for (int c = 0; c < 3; ++c) {
    int sum = 0;
    for (int i : at) sum += plane[i * 3 + c];
    out[c] = static_cast<unsigned char>(sum / static_cast<int>(at.size()));
  }
}

// The first candidate of least composite error.
void BestF(const std::vector<unsigned char>& plane, const std::vector<int>& at,
           int a, const unsigned char* b, const unsigned char* i,
           unsigned char* out) {
  long best = -1;
  int pick = -1;
  for (int k : at) {
    long e = 0;
    for (int c = 0; c < 3; ++c) {
      const int d = (plane[k * 3 + c] * a + (255 - a) * b[c]) / 255 - i[c];
      e += d * d;
    }
    if (best < 0 || e < best) {
      best = e;
      pick = k;
    }
  }
  std::copy_n(&plane[pick * 3], 3, out);
}

bool Bracketed(const std::vector<unsigned char>& label, int w, int h) {
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (label[y * w + x] != 0) continue;
      int seen = 0;
      for (int v = y - 2; v <= y + 2; ++v) {
        for (int u = x - 2; u <= x + 2; ++u) {
          if (u >= 0 && v >= 0 && u < w && v < h) seen |= label[v * w + u];
        }
      }
      if (seen != 3) return false;
    }
  }
  return true;
}

// Interpolates one plane of coarse into fine; excluded is the other layer's
// known label.
void Transfer(const RefLevel& coarse, const std::vector<unsigned char>& from,
              RefLevel& fine, std::vector<unsigned char>& to, int excluded) {
  std::vector<int> xi(fine.w), yi(fine.h);
  std::vector<float> xf(fine.w), yf(fine.h);
  ff::ipf_calc_resize_tab_bl(coarse.w, fine.w, xi.data(), xf.data(), 1);
  ff::ipf_calc_resize_tab_bl(coarse.h, fine.h, yi.data(), yf.data(), 1);
  for (int y = 0; y < fine.h; ++y) {
    for (int x = 0; x < fine.w; ++x) {
      const int here = fine.At(x, y);
      if (fine.label[here] != 0) continue;
      const int i00 = coarse.At(xi[x], yi[y]);
      const int i10 = i00 + 1, i01 = i00 + coarse.w, i11 = i01 + 1;
      auto out = [&](int idx) { return coarse.label[idx] == excluded; };
      float wt = xf[x], wb = xf[x], wv = yf[y];
      if (out(i00) != out(i10)) wt = out(i00) ? 1.0f : 0.0f;
      if (out(i01) != out(i11)) wb = out(i01) ? 1.0f : 0.0f;
      const bool topOut = out(i00) && out(i10);
      const bool bottomOut = out(i01) && out(i11);
      if (!bottomOut && topOut) wv = 1.0f;
      if (bottomOut && !topOut) wv = 0.0f;
      if (bottomOut && topOut) {
        std::vector<int> bgs, fgs;
        RingSamples(coarse, xi[x], yi[y], &bgs, &fgs);
        const std::vector<int>& need = excluded == 2 ? bgs : fgs;
        if (!need.empty()) {
          if (excluded == 2) {
            Mean(from, need, &to[here * 3]);
          } else {
            unsigned char current[3];
            std::copy_n(&to[here * 3], 3, current);
            BestF(from, need, fine.alpha[here], &fine.bg[here * 3], current,
                  &to[here * 3]);
          }
          continue;
        }
        wt = xf[x];
        wv = 0.0f;
      }
      for (int c = 0; c < 3; ++c) {
        const float p00 = from[i00 * 3 + c], p10 = from[i10 * 3 + c];
        const float p01 = from[i01 * 3 + c], p11 = from[i11 * 3 + c];
        const float top = p00 + wt * (p10 - p00);
        const float bottom = p01 + wb * (p11 - p01);
        to[here * 3 + c] = static_cast<unsigned char>(
            static_cast<int>(top + wv * (bottom - top)));
      }
    }
  }
}

void PyramidReference(const Planes& p, std::vector<unsigned char>* fgOut,
                      std::vector<unsigned char>* bgOut) {
  const int width = p.width, height = p.height;
  std::vector<unsigned char> label(static_cast<size_t>(width) * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      label[y * width + x] =
          static_cast<unsigned char>(LabelOf(p.Alpha(x, y), kLow, kHigh));
    }
  }
  int w = width, h = height;
  for (;;) {
    const RefLevel trial = MakeLevel(p, label, w, h);
    const auto has = [&](int l) {
      return std::count(trial.label.begin(), trial.label.end(), l) > 0;
    };
    if (!has(1) || !has(2)) {
      w *= 2;
      h *= 2;
      break;
    }
    if (Bracketed(trial.label, w, h) || w < 17 || h < 17) break;
    w /= 2;
    h /= 2;
  }
  RefLevel cur = MakeLevel(p, label, w, h);
  for (int y = 0; y < cur.h; ++y) {
    for (int x = 0; x < cur.w; ++x) {
      const int here = cur.At(x, y);
      if (cur.label[here] != 0) continue;
      std::vector<int> bgs, fgs;
      RingSamples(cur, x, y, &bgs, &fgs);
      if (!bgs.empty()) Mean(cur.image, bgs, &cur.bg[here * 3]);
      if (!fgs.empty()) {
        BestF(cur.image, fgs, cur.alpha[here], &cur.bg[here * 3],
              &cur.image[here * 3], &cur.fg[here * 3]);
      }
    }
  }
  while (cur.w < width || cur.h < height) {
    int nw = std::min(2 * cur.w, width), nh = std::min(2 * cur.h, height);
    if (nw * 5 / 4 >= width || nh * 5 / 4 >= height) {
      nw = width;
      nh = height;
    }
    RefLevel fine = MakeLevel(p, label, nw, nh);
    Transfer(cur, cur.bg, fine, fine.bg, 2);
    Transfer(cur, cur.fg, fine, fine.fg, 1);
    for (int y = 0; y < nh; ++y) {
      for (int x = 0; x < nw; ++x) {
        const int here = fine.At(x, y);
        if (fine.label[here] != 0) continue;
        // The window moves inside the level rather than shrinking.
        const int cx = std::clamp(x, 2, nw - 3), cy = std::clamp(y, 2, nh - 3);
        std::vector<int> bgs, fgs;
        for (int v = cy - 2; v <= cy + 2; ++v) {
          for (int u = cx - 2; u <= cx + 2; ++u) {
            if (u == cx && v == cy) continue;
            const int l = fine.label[fine.At(u, v)];
            if (l == 1) bgs.push_back(fine.At(u, v));
            if (l == 2) fgs.push_back(fine.At(u, v));
          }
        }
        if (!bgs.empty()) Mean(fine.image, bgs, &fine.bg[here * 3]);
        if (!fgs.empty()) {
          BestF(fine.image, fgs, fine.alpha[here], &fine.bg[here * 3],
                &fine.image[here * 3], &fine.fg[here * 3]);
        }
      }
    }
    cur = std::move(fine);
  }

  std::vector<unsigned int> toFg(static_cast<size_t>(width) * height);
  std::vector<unsigned int> toBg(toFg.size());
  ff::dist_field* field = ff::ipf_create_distance_field_2d(width, height, 100);
  ff::ipf_distance_transform_2d(field, label.data(), width, height, width, 2,
                                toFg.data(), width, nullptr, 0);
  ff::ipf_distance_transform_2d(field, label.data(), width, height, width, 1,
                                toBg.data(), width, nullptr, 0);
  ff::ipf_release_distance_field(field);
  std::vector<long> widths;
  const long bins =
      std::max<long>(static_cast<long>(std::hypot(width, height)), 1024);
  for (int i = 0; i < width * height; ++i) {
    const long n = (toFg[i] + toBg[i]) / 100;
    if (label[i] == 0 && n < bins) widths.push_back(n);
  }
  std::sort(widths.begin(), widths.end());
  const long longest = widths.empty() ? 0 : widths.back();
  // One past the value at which half the widths are counted.
  const long median = widths.size() < 2 ? 0 : widths[widths.size() / 2 - 1] + 1;
  const long lower = std::min(longest, median);
  const long upper = std::min(longest, 5 * lower / 2) + 1;

  // The last level's planes, read at full-size coordinates (the level is
  // larger than the image when a class is missing).
  fgOut->assign(static_cast<size_t>(width) * height * 3, 0);
  bgOut->assign(fgOut->size(), 0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int i = y * width + x;
      const int at = cur.At(x, y) * 3;
      std::copy_n(&cur.bg[at], 3, &(*bgOut)[i * 3]);
      std::copy_n(&cur.fg[at], 3, &(*fgOut)[i * 3]);
      if (label[i] != 0) continue;
      const long n = (toFg[i] + toBg[i]) / 100;
      const float g = n < lower    ? 1.0f
                      : n <= upper ? static_cast<float>(upper - n) /
                                         static_cast<float>(upper - lower)
                                   : 0.0f;
      const int alpha = p.Alpha(x, y);
      const float a = alpha / 255.0f;
      const float s = static_cast<float>(SReference(alpha, kLow, kHigh));
      for (int c = 0; c < 3; ++c) {
        const float img = p.Pixel(x, y)[c];
        const float fs =
            std::clamp((img - (1.0f - a) * cur.bg[at + c]) / a, 0.0f, 255.0f);
        (*fgOut)[i * 3 + c] = static_cast<unsigned char>(static_cast<int>(
            (1.0f - s) * img + s * (g * cur.fg[at + c] + (1.0f - g) * fs)));
      }
    }
  }
}

void ExpectMatchesReference(const Planes& p) {
  std::vector<unsigned char> wantFg, wantBg;
  PyramidReference(p, &wantFg, &wantBg);
  const Outputs out = Estimate(p);
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < p.width; ++x) {
      for (int c = 0; c < 3; ++c) {
        ASSERT_EQ(out.B(x, y)[c], wantBg[(y * p.width + x) * 3 + c])
            << p.width << "x" << p.height << " at " << x << "," << y;
        ASSERT_EQ(out.F(x, y)[c], wantFg[(y * p.width + x) * 3 + c])
            << p.width << "x" << p.height << " at " << x << "," << y
            << " alpha " << int(p.Alpha(x, y));
      }
    }
  }
}

TEST(EstimateFbColor, SmallImagesMatchTheReference) {
  std::mt19937 rng(2026);
  // Few colours make equal composite errors common: the first candidate in
  // ring order must win them.
  const unsigned char palette[4] = {0, 70, 140, 250};
  for (const auto& [width, height] :
       std::vector<std::pair<int, int>>{{16, 16}, {15, 13}, {9, 7}, {3, 16}}) {
    for (double unknownShare : {0.08, 0.3}) {
      Planes p;
      p.width = width;
      p.height = height;
      p.imageStride = 3 * width + 1;
      p.alphaStride = width + 3;
      p.image.assign(static_cast<size_t>(p.imageStride) * height, kSentinel);
      p.alpha.assign(static_cast<size_t>(p.alphaStride) * height, kSentinel);
      std::uniform_real_distribution<double> u(0.0, 1.0);
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          for (int c = 0; c < 3; ++c) {
            p.image[y * p.imageStride + 3 * x + c] = palette[rng() % 4];
          }
          const double r = u(rng);
          const int a = r < unknownShare ? 1 + static_cast<int>(rng() % 253)
                        : r < (1 + unknownShare) / 2
                            ? static_cast<int>(rng() % 2)
                            : 254 + static_cast<int>(rng() % 2);
          p.alpha[y * p.alphaStride + x] = static_cast<unsigned char>(a);
        }
      }
      // Both classes must be there, or the image is solved at twice its size.
      p.alpha[0] = 0;
      p.alpha[1] = 255;
      ExpectMatchesReference(p);
    }
  }
}

TEST(EstimateFbColor, LevelsMatchTheReferencePyramid) {
  // Bands wide enough to be solved a level or two down, with specks of
  // unknown inside the known areas: all four coarse neighbours belong to
  // the other layer there.
  for (const auto& [width, height, ramp] :
       std::vector<std::tuple<int, int, double>>{
           {70, 50, 6.0}, {151, 119, 16.0}, {97, 61, 12.0}}) {
    Planes p = DiscScene(width, height, 900 + width);
    std::mt19937 rng(width);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const double d = std::hypot(x - 0.45 * width, y - 0.55 * height) -
                         0.3 * std::min(width, height);
        unsigned char& a = p.alpha[y * p.alphaStride + x];
        a = static_cast<unsigned char>(
            std::lround(std::clamp(0.5 - d / ramp, 0.0, 1.0) * 255));
        if (rng() % 50 == 0) a = static_cast<unsigned char>(1 + rng() % 253);
      }
    }
    ExpectMatchesReference(p);
  }
  // No background at all: the work is done on a level of twice the size,
  // whose planes the outputs read at full-size coordinates, so that even
  // known pixels show the photo at ((x + 1) / 2, (y + 1) / 2).
  Planes p = DiscScene(23, 19, 5);
  for (auto& a : p.alpha) a = std::max<unsigned char>(a, 1);
  ExpectMatchesReference(p);
}

// A composite with known layers: smooth colourful foreground and background
// textures mixed by a disc whose edge ramps over some 14 pixels.
TEST(EstimateFbColor, RecoversTheForegroundOfASyntheticComposite) {
  const int width = 241, height = 181;
  Planes p;
  p.width = width;
  p.height = height;
  p.imageStride = 3 * width + 3;
  p.alphaStride = width + 1;
  p.image.assign(static_cast<size_t>(p.imageStride) * height, kSentinel);
  p.alpha.assign(static_cast<size_t>(p.alphaStride) * height, kSentinel);
  std::vector<float> trueF(static_cast<size_t>(width) * height * 3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double d = std::hypot(x - 120.0, y - 90.0) - 55.0 +
                       4.0 * std::sin(std::atan2(y - 90.0, x - 120.0) * 7);
      const double a = std::clamp(0.5 - d / 14.0, 0.0, 1.0);
      const unsigned char alpha =
          static_cast<unsigned char>(std::lround(a * 255));
      p.alpha[y * p.alphaStride + x] = alpha;
      const double af = alpha / 255.0;
      for (int c = 0; c < 3; ++c) {
        const double f =
            150 + 60 * std::sin(0.05 * x + 2.0 * c) * std::cos(0.04 * y - c);
        const double b = 90 + 70 * std::cos(0.03 * (x + y) + c) *
                                  std::sin(0.06 * x - 0.5 * c);
        trueF[(y * width + x) * 3 + c] = static_cast<float>(f);
        p.image[y * p.imageStride + 3 * x + c] =
            static_cast<unsigned char>(std::lround(af * f + (1 - af) * b));
      }
    }
  }
  const Outputs out = Estimate(p);
  // Alpha-weighted mean absolute error over the soft band: where alpha is
  // small the foreground hardly shows and is barely determined.
  double estimated = 0, naive = 0, weight = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int alpha = p.Alpha(x, y);
      if (alpha < kLow || alpha > kHigh) continue;
      for (int c = 0; c < 3; ++c) {
        const double f = trueF[(y * width + x) * 3 + c];
        estimated += alpha * std::abs(out.F(x, y)[c] - f);
        naive += alpha * std::abs(p.Pixel(x, y)[c] - f);
        weight += alpha;
      }
    }
  }
  estimated /= weight;
  naive /= weight;
  RecordProperty("estimated_error", std::to_string(estimated));
  RecordProperty("image_colour_error", std::to_string(naive));
  std::printf("foreground error in band: estimated %.2f, image colour %.2f\n",
              estimated, naive);
  // Measured: 14.9 against 24.4. Mid-band the result is by design only
  // partly moved from the image colour towards the solved one.
  EXPECT_LT(estimated, 0.7 * naive);
  EXPECT_LT(estimated, 17.0);
}

}  // namespace
