// Foreground colours: the band-only estimation worker against the exported
// estimate on a wide range of mattes, what known pixels and missing planes
// get, a closed form where no foreground exists, and the retouching of
// foreground colours against a reference written here.
#include "softmatte/colour.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "colour/fb_color.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;
using Bytes = std::vector<unsigned char>;

// What the matte of a case looks like: soft-edged discs, some across the
// border; the discs capped below high (no foreground) or lifted above low (no
// background); discs plus isolated unknown pixels in the known areas; mostly
// hard random values with a third soft; one tiny hard core in a wide halo
// (few known pixels).
enum Shape { kBlobs, kNoForeground, kNoBackground, kSpeckled, kNoise, kSpeck };

struct Case {
  int width, height;
  Shape shape;
  int blobs;
  double ramp;  // soft edge width in pixels
  unsigned char low, high;
  bool palette;  // four photo colours: composite errors tie all the time
};

// A photo and matte with padded rows (of different paddings).
struct Scene {
  int width, height, imageStride, alphaStride;
  std::vector<unsigned char> image, alpha;
  unsigned char& Alpha(int x, int y) {
    return alpha[size_t(y) * alphaStride + x];
  }
  unsigned char* Pixel(int x, int y) {
    return &image[size_t(y) * imageStride + 3 * x];
  }
};

Scene MakeScene(const Case& c, uint32_t seed) {
  std::mt19937 rng(seed);
  Scene s{c.width, c.height, 0, 0, {}, {}};
  s.imageStride = int(3 * c.width + 1 + seed % 5);
  s.alphaStride = int(c.width + seed % 3);
  s.image.assign(size_t(s.imageStride) * c.height, kSentinel);
  s.alpha.assign(size_t(s.alphaStride) * c.height, kSentinel);
  const unsigned char palette[4][3] = {
      {10, 200, 30}, {240, 240, 240}, {90, 20, 160}, {10, 200, 31}};
  for (int y = 0; y < c.height; ++y)
    for (int x = 0; x < c.width; ++x) {
      const int p = rng() % 4;
      for (int k = 0; k < 3; ++k)
        s.Pixel(x, y)[k] =
            c.palette ? palette[p][k] : static_cast<unsigned char>(rng());
    }
  std::vector<std::array<double, 3>> discs;  // centre and radius
  const int side = std::max(c.width, c.height);
  for (int k = 0; k < c.blobs; ++k)
    discs.push_back({double(rng() % (c.width + 4)) - 2,
                     double(rng() % (c.height + 4)) - 2,
                     1.0 + rng() % std::max(2, side / (c.blobs + 1))});
  for (int y = 0; y < c.height; ++y)
    for (int x = 0; x < c.width; ++x) {
      double a = 0.0;
      for (const auto& d : discs)
        a = std::max(a, 0.5 - (std::hypot(x - d[0], y - d[1]) - d[2]) / c.ramp);
      const int v = static_cast<int>(
                    std::lround(std::clamp(a, 0.0, 1.0) * 255)),
                n = rng() % 3 == 0 ? rng() % 256 : (rng() % 2) * 255;
      const double speck = std::hypot(x - c.width / 2.0, y - c.height / 2.0);
      s.Alpha(x, y) = static_cast<unsigned char>(
          c.shape == kNoForeground   ? std::min<int>(v, c.high)
          : c.shape == kNoBackground ? std::max<int>(v, c.low)
          : c.shape == kSpeckled     ? (rng() % 40 == 0 ? 128 : v)
          : c.shape == kNoise        ? n
          : c.shape == kSpeck
              ? std::lround(std::clamp(1.2 - speck / c.ramp, 0.0, 1.0) * 255)
              : v);
    }
  return s;
}

// The cases: tiny photos that are never reduced, a band whose low is above
// its high (none), one too wide for the distance transform (every width
// reads unreached) and one as tall as it takes. The rest drawn at random:
// every matte shape, photos whose coarsest level is halved several times,
// bands from half a pixel to dozens wide, and thresholds other than the
// session's, among them a low of 0 (no background).
std::vector<Case> Cases() {
  std::vector<Case> cases = {{1, 1, kBlobs, 1, 2, 1, 253, false},
                             {1, 9, kNoise, 0, 1, 1, 253, false},
                             {7, 2, kNoise, 0, 1, 1, 253, true},
                             {77, 55, kBlobs, 2, 14, 200, 40, false},
                             {65536 + 7, 3, kBlobs, 12, 4, 1, 253, false},
                             {3, 65535, kBlobs, 12, 4, 1, 253, false}};
  const unsigned char bands[][2] = {{1, 253}, {1, 253},  {1, 253},   {0, 255},
                                    {0, 128}, {40, 200}, {100, 100}, {30, 220}};
  std::mt19937 rng(20240611);
  for (int k = 0; k < 40; ++k) {
    const unsigned char* b = bands[rng() % 8];
    const Shape shape = Shape(rng() % 6);
    // Without a whole side, or with other bands, on smaller photos: there
    // every unknown pixel searches far.
    const bool small =
        b[0] != 1 || shape == kNoForeground || shape == kNoBackground;
    const int side = small ? 80 : 240;
    cases.push_back({2 + int(rng() % side), 2 + int(rng() % side), shape,
                     1 + int(rng() % 7), 0.5 + (rng() % 600) / 10.0, b[0], b[1],
                     rng() % 3 == 0});
  }
  return cases;
}

// The band-only worker against the exported one (foreground only), with
// the output's row padding left alone, and the background's too.
TEST(EstimateForegroundBand, WritesTheBytesOfTheFullEstimate) {
  const std::vector<Case> cases = Cases();
  for (size_t k = 0; k < cases.size(); ++k) {
    const Case& c = cases[k];
    const Scene s = MakeScene(c, static_cast<uint32_t>(k + 1));
    const int stride = 3 * c.width + 2, bstride = 3 * c.width + 5;
    Bytes want(size_t(stride) * c.height, kSentinel),
        got = want, back(size_t(bstride) * c.height, kSentinel);
    mat_estimate_fb_color(s.image.data(), c.width, c.height, s.imageStride,
                          s.alpha.data(), s.alphaStride, want.data(), stride,
                          back.data(), bstride, c.low, c.high);
    estimate_foreground_band(s.image.data(), c.width, c.height, s.imageStride,
                             s.alpha.data(), s.alphaStride, got.data(), stride,
                             c.low, c.high);
    ASSERT_TRUE(PaddingIntact(got, 3 * c.width, c.height, stride) &&
                PaddingIntact(back, 3 * c.width, c.height, bstride) &&
                got == want)
        << "case " << k;
  }
}

constexpr unsigned char kLow = 1;
constexpr unsigned char kHigh = 253;

// Foreground and background outputs of different odd paddings.
struct Outputs {
  int stride[2];
  std::vector<unsigned char> plane[2];  // foreground, background
  const unsigned char* at(int which, int x, int y) const {
    return &plane[which][size_t(y) * stride[which] + 3 * x];
  }
};

Outputs Estimate(Scene& p) {
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
  // Known pixels keep the photo's colour in both outputs.
  for (int y = 0; y < p.height; ++y)
    for (int x = 0; x < p.width; ++x)
      for (int k = 0; k < 2 && (p.Alpha(x, y) < kLow || p.Alpha(x, y) > kHigh);
           ++k)
        EXPECT_TRUE(
            std::equal(p.Pixel(x, y), p.Pixel(x, y) + 3, out.at(k, x, y)))
            << x << "," << y;
  return out;
}

// Null planes and empty sizes write nothing; the worker takes the
// background plane first; a null output is skipped, the other unchanged by
// its absence.
TEST(EstimateFbColor, NullPlanesWriteNothingAndOutputsComeInTheirOrder) {
  Scene s = MakeScene({41, 23, kBlobs, 2, 6, 1, 253, false}, 77);
  const Outputs want = Estimate(s);
  const unsigned char *im = s.image.data(), *al = s.alpha.data();
  const int w = s.width, h = s.height, is = s.imageStride, as = s.alphaStride;
  const int fs = want.stride[0], bs = want.stride[1];
  const Bytes blankF(size_t(fs) * h, kSentinel),
      blankB(size_t(bs) * h, kSentinel);
  Bytes fg = blankF, bg = blankB;
  mat_estimate_fb_color(nullptr, w, h, is, al, as, fg.data(), fs, bg.data(), bs,
                        1, 253);
  estimate_fb_color_x(im, w, h, is, nullptr, as, bg.data(), bs, fg.data(), fs,
                      1, 253);
  for (const auto& [i, a, width, height] :
       {std::tuple{(const unsigned char*)nullptr, al, w, h},
        {im, nullptr, w, h},
        {im, al, 0, h},
        {im, al, w, 0}})
    estimate_foreground_band(i, width, height, is, a, as, fg.data(), fs, 1,
                             253);
  EXPECT_TRUE(fg == blankF && bg == blankB);
  estimate_foreground_band(im, w, h, is, al, as, nullptr, fs, 1, 253);
  estimate_fb_color_x(im, w, h, is, al, as, bg.data(), bs, fg.data(), fs, 1,
                      253);
  EXPECT_TRUE(fg == want.plane[0] && bg == want.plane[1]);
  fg = blankF;
  mat_estimate_fb_color(im, w, h, is, al, as, fg.data(), fs, nullptr, 0, 1,
                        253);
  EXPECT_EQ(fg, want.plane[0]);
}

TEST(EstimateFbColor, MatteWithoutForegroundSolvesAgainstTheBackgroundMean) {
  // No alpha above high: every unknown pixel sees the whole one-coloured
  // background, has no foreground samples and no band width (the distance
  // to the foreground is unreached). Its F is the compositing equation
  // solved for F, blended with the image colour by the weight curve S.
  Scene p = MakeScene({23, 19, kNoise, 0, 1, 1, 253, false}, 31);
  const unsigned char background[3] = {40, 90, 200};
  std::mt19937 rng(32);
  const double e = std::exp(-0.5);
  const double q = ((e - 1) / (e - (e + 1) * 0.5) - 1) / e;  // midpoint 0.5
  const double k = (e * e * q + 1) / (e * e - 1) / q;
  for (int y = 0; y < p.height; ++y)
    for (int x = 0; x < p.width; ++x) {
      p.Alpha(x, y) = x < 9 ? 0 : kLow + rng() % (kHigh - kLow + 1);
      if (x < 9) std::copy_n(background, 3, p.Pixel(x, y));
    }
  const Outputs out = Estimate(p);  // checks the known columns
  for (int y = 0; y < p.height; ++y)
    for (int x = 9; x < p.width; ++x) {
      const float a = p.Alpha(x, y) / 255.0f;
      const double t = double(p.Alpha(x, y) - kLow) / (kHigh - kLow);
      const float s =
          float(k - (q + 1) * k / (std::exp(std::log(q) - (1 - t)) + 1));
      for (int c = 0; c < 3; ++c) {
        const float i = p.Pixel(x, y)[c];
        const float fs =
            std::clamp((i - (1.0f - a) * background[c]) / a, 0.0f, 255.0f);
        ASSERT_EQ(out.at(1, x, y)[c], background[c]) << x << "," << y;
        ASSERT_NEAR(out.at(0, x, y)[c], int((1.0f - s) * i + s * fs), 1)
            << x << "," << y;
      }
    }
}

// Either improve form at one pixel, weighted by s.
void Improve(const unsigned char* in, const unsigned char* ref, bool pull,
             int alpha, int s, unsigned char* out) {
  const float t = (255 - alpha) / 255.0f;
  for (int c = 0; c < 3; ++c) {
    const int d = pull ? ref[c] - in[c] : in[c] - ref[c];
    const int target = static_cast<int>(in[c] + t * d + 0.5f);
    out[c] = std::clamp(out[c] + (((target - out[c]) * s + 127) >> 8), 0, 255);
  }
  out[3] = std::max<int>(out[3], s);
}

TEST(ImproveForeground, BothFormsAndTheMapMatchReference) {
  // Few levels, so that equal strengths and opaque pixels occur.
  const auto lv = [](Bytes p) {
    for (auto& v : p) v = v == 0xA5 ? v : (v % 4) * 85;
    return p;
  };
  const int w = 19, h = 3, s1 = w + 3, s3 = w * 3 + 1, s4 = w * 4 + 5;
  const Bytes im = RandomPlane(w * 3, h, s3, 1),
              al = lv(RandomPlane(w, h, s1, 2));
  Bytes map = lv(RandomPlane(w * 4, h, s4, 3)), map_want = map;
  Bytes done = lv(RandomPlane(w, h, s1, 4)), done_want = done;
  Bytes out = RandomPlane(w * 4, h, s4, 5), out_want = out, out2 = out,
        out2_want = out;
  const unsigned char refs[2][4] = {{10, 200, 90, 129}, {250, 3, 77, 128}};
  for (int k = 0; k < 2; ++k) {
    const unsigned char* ref = refs[k];
    const Bytes st = lv(RandomPlane(w, h, s1, 6 + k));
    mat_update_reference_color(map.data(), w, h, s4, ref, st.data(), s1);
    mat_improve_foreground(im.data(), w, h, s3, al.data(), s1, st.data(), s1,
                           done.data(), s1, out.data(), s4, ref, nullptr, 85);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int i = y * s1 + x, s = st[i];
        const unsigned char *in = &im[y * s3 + x * 3],
                            *m = &map_want[y * s4 + x * 4];
        if (s > (m[3] & 254))
          map_want[y * s4 + x * 4 + 3] = (s & 254) | (ref[3] > 128),
                                    std::copy(ref, ref + 3,
                                              &map_want[y * s4 + x * 4]);
        // The map is final after the last stroke: the map form's turn.
        if (k == 1 && m[3] != 0 && al[i] >= 85 && al[i] < 255)
          Improve(in, m, m[3] & 1, al[i], m[3], &out2_want[y * s4 + x * 4]);
        if (s <= done_want[i] || al[i] < 85) continue;
        Improve(in, ref, ref[3] > 128, al[i], s, &out_want[y * s4 + x * 4]);
        done_want[i] = s;
      }
  }
  mat_improve_foreground(im.data(), w, h, s3, map.data(), s4, al.data(), s1,
                         out2.data(), s4, 85);
  EXPECT_TRUE(map == map_want && out == out_want && done == done_want &&
              out2 == out2_want);
}

}  // namespace
