#include "softmatte/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "softmatte/colour.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "softmatte/solver.h"
#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using Plane = std::vector<unsigned char>;

constexpr unsigned char kUnknown = 128;

unsigned char Complement(unsigned char v) {
  return v == kUnknown ? v : static_cast<unsigned char>(255 - v);
}

// B, G, R rows of stride bytes: a diagonal gradient with mild noise, and a
// disc of another colour whose edge is blurred over a few pixels.
struct Photo {
  int width = 0;
  int height = 0;
  int stride = 0;
  Plane bytes;
};

Photo DiscOnGradient(int width, int height, double cx, double cy, double r,
                     uint32_t seed) {
  Photo p;
  p.width = width;
  p.height = height;
  p.stride = 3 * width + 5;
  p.bytes.assign(static_cast<size_t>(p.stride) * height, kSentinel);
  std::mt19937 rng(seed);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double d = std::hypot(x - cx, y - cy);
      const double a = std::min(1.0, std::max(0.0, (r + 2.0 - d) / 4.0));
      const int noise = static_cast<int>(rng() % 7) - 3;
      const int back[3] = {40 + x * 150 / width, 200 - y * 120 / height,
                           90 + (x + y) * 60 / (width + height)};
      const int disc[3] = {220, 60, 30};
      unsigned char* px = &p.bytes[static_cast<size_t>(y) * p.stride + 3 * x];
      for (int c = 0; c < 3; ++c) {
        const double v = a * disc[c] + (1.0 - a) * back[c] + noise;
        px[c] = static_cast<unsigned char>(std::min(255.0, std::max(0.0, v)));
      }
    }
  }
  return p;
}

// Dense plane: inside (distance < r) gets `in`, everything else `out`.
Plane DiscPlane(int width, int height, double cx, double cy, double r,
                unsigned char in, unsigned char out) {
  Plane plane(static_cast<size_t>(width) * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      plane[static_cast<size_t>(y) * width + x] =
          std::hypot(x - cx, y - cy) < r ? in : out;
    }
  }
  return plane;
}

// Session polarity: 0 inside r - band, 255 beyond r + band, 128 between.
Plane BandTrimap(int width, int height, double cx, double cy, double r,
                 double band) {
  Plane t(static_cast<size_t>(width) * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double d = std::hypot(x - cx, y - cy);
      t[static_cast<size_t>(y) * width + x] =
          d < r - band ? 0 : (d > r + band ? 255 : kUnknown);
    }
  }
  return t;
}

// Rows of a padded plane, padding dropped.
Plane Packed(const unsigned char* p, int rowBytes, int height, int stride) {
  Plane out(static_cast<size_t>(rowBytes) * height);
  for (int y = 0; y < height; ++y) {
    std::memcpy(&out[static_cast<size_t>(y) * rowBytes],
                p + static_cast<size_t>(y) * stride, rowBytes);
  }
  return out;
}

// The refinement spelled out with the library's building blocks at a given
// working size: reduce, pair, solve the band, carry back, clean. The
// session must match it bit for bit at the size its rule picks.
Plane RefineByHand(const Photo& photo, const Plane& trimap, int workWidth,
                   int workHeight, int ksize, int keep) {
  const int w = photo.width;
  const int h = photo.height;
  Plane workImage(static_cast<size_t>(workWidth) * workHeight * 3);
  ff::ipf_resize_nn(photo.bytes.data(), w, h, photo.stride, 3, workImage.data(),
                    workWidth, workHeight, 3 * workWidth, 3, ff::ccn<3>());
  std::vector<int> idx(static_cast<size_t>(w) * h * 2, -1);
  std::vector<short> wts(static_cast<size_t>(w) * h, 0);
  usam_calc_weights_8u_c3(photo.bytes.data(), w, h, photo.stride, nullptr, 0,
                          workImage.data(), workWidth, workHeight,
                          3 * workWidth, idx.data(), 2 * w, wts.data(), w, 3);
  Plane alpha = trimap;
  Plane workAlpha(static_cast<size_t>(workWidth) * workHeight);
  Plane workTrimap(workAlpha.size());
  ff::ipf_resize_nn(alpha.data(), w, h, w, 1, workAlpha.data(), workWidth,
                    workHeight, workWidth, 1, ff::ccn<1>());
  ff::ipf_resize_nn(trimap.data(), w, h, w, 1, workTrimap.data(), workWidth,
                    workHeight, workWidth, 1, ff::ccn<1>());
  Plane mask(workTrimap.size());
  for (size_t i = 0; i < mask.size(); ++i) mask[i] = workTrimap[i] == 128;
  mat_data problem;
  mat_update(workImage.data(), workWidth, workHeight, 3 * workWidth,
             mask.data(), workWidth, problem, problem, nullptr);
  mat_run(problem, workTrimap.data(), workAlpha.data(), nullptr);
  usam_interpolate_c1(workAlpha.data(), workWidth, workHeight, idx.data(),
                      2 * w, wts.data(), w, alpha.data(), w, h, w,
                      trimap.data(), w, kUnknown);
  mat_smooth_boundary(alpha.data(), w, h, w, alpha.data(), w, ksize);
  vm_erase_small_cc(alpha.data(), w, h, w, 0, keep);
  return alpha;
}

struct WorkingSizeCase {
  int width;
  int height;
  int work_size;
  int workWidth;  // worked out by hand from the rule
  int workHeight;
};

TEST(DSCMattingWorkingSize, RefineMatchesTheHandChainAtTheRuleSize) {
  const WorkingSizeCase cases[] = {
      {130, 90, 60, 60, 42},      // both exceed; 41.54 rounds to 42
      {61, 97, 40, 24, 40},       // 25.15 rounds to 25, then down to 24
      {101, 203, 100, 48, 100},   // width exceeds by one: height decides
      {130, 90, 100, 128, 90},    // only the width exceeds: no reduction
      {90, 130, 100, 88, 130},    // only the height exceeds
      {102, 102, 102, 100, 102},  // equal is not above
  };
  for (const WorkingSizeCase& c : cases) {
    const double r = 0.3 * std::min(c.width, c.height);
    const double cx = c.width * 0.45;
    const double cy = c.height * 0.55;
    const Photo photo = DiscOnGradient(c.width, c.height, cx, cy, r, 7);
    const Plane trimap = BandTrimap(c.width, c.height, cx, cy, r, 3.0);
    DSCMatting session(photo.bytes.data(), c.width, c.height, photo.stride,
                       c.work_size);
    const int outStride = c.width + 3;
    Plane out(static_cast<size_t>(outStride) * c.height, kSentinel);
    session.Refine(trimap.data(), c.width, c.height, c.width, out.data(),
                   outStride, 3, 1);
    ASSERT_TRUE(
        softmatte_test::PaddingIntact(out, c.width, c.height, outStride));
    const Plane got = Packed(out.data(), c.width, c.height, outStride);
    EXPECT_EQ(got, RefineByHand(photo, trimap, c.workWidth, c.workHeight, 3, 1))
        << c.width << " x " << c.height << " at work_size " << c.work_size;
    // The comparison tells working sizes apart.
    EXPECT_NE(got,
              RefineByHand(photo, trimap, c.workWidth - 4, c.workHeight, 3, 1))
        << c.width << " x " << c.height;
  }
}

TEST(DSCMatting, EmptyAndUnsegmentedSessionsHaveNothingToRefine) {
  DSCMatting empty;
  int stride = -1;
  EXPECT_EQ(empty.GetAlpha(&stride), nullptr);

  const int w = 45, h = 38;
  const Photo photo = DiscOnGradient(w, h, 20, 20, 10, 3);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, 1000);
  const unsigned char* alpha = session.GetAlpha(&stride);
  ASSERT_NE(alpha, nullptr);
  EXPECT_GE(stride, w);
  EXPECT_EQ(stride % 4, 0);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) ASSERT_EQ(alpha[y * stride + x], 0);
  }
  // No segmentation, no session trimap: both trimap-less flows refuse.
  Plane out(static_cast<size_t>(w) * h, kSentinel);
  EXPECT_EQ(session.MakeMatte(out.data(), w, h, w, 3, 1), 0);
  EXPECT_EQ(session.Refine(out.data(), w, h, w, 3, 1), 0);
  EXPECT_EQ(out, Plane(out.size(), kSentinel));

  // Init without a segmentation drops the trimap of an earlier photo.
  const Plane seg = DiscPlane(w, h, 20, 20, 10, 255, 0);
  session.Init(photo.bytes.data(), w, h, photo.stride, seg.data(), w, 1000, 6,
               0.5, 3, 5, 50, 1);
  EXPECT_EQ(session.MakeMatte(out.data(), w, h, w, 3, 0), 1);
  session.Init(photo.bytes.data(), w, h, photo.stride, 1000);
  out.assign(out.size(), kSentinel);
  EXPECT_EQ(session.MakeMatte(out.data(), w, h, w, 3, 0), 0);
  EXPECT_EQ(out, Plane(out.size(), kSentinel));
}

TEST(DSCMatting, ConstructorsMatchInitAndInitForgetsTheLastPhoto) {
  const int w = 67, h = 51;
  const Photo photo = DiscOnGradient(w, h, 30, 25, 14, 5);
  const Plane seg = DiscPlane(w, h, 30, 25, 14, 255, 0);
  DSCMatting built(photo.bytes.data(), w, h, photo.stride, seg.data(), w, 40, 8,
                   0.5, 3, 5, 50, 2);

  // A session that worked on a larger photo first, at another working size.
  const Photo other = DiscOnGradient(90, 77, 40, 40, 20, 6);
  const Plane otherSeg = DiscPlane(90, 77, 40, 40, 20, 255, 0);
  DSCMatting reused(other.bytes.data(), 90, 77, other.stride, otherSeg.data(),
                    90, 60, 8, 0.5, 3, 5, 50, 2);
  Plane scratch(90 * 77);
  ASSERT_EQ(reused.MakeMatte(scratch.data(), 90, 77, 90, 3, 1), 1);
  ASSERT_NE(reused.GetFImage(nullptr, 1), nullptr);
  reused.Init(photo.bytes.data(), w, h, photo.stride, seg.data(), w, 40, 8, 0.5,
              3, 5, 50, 2);

  Plane a(static_cast<size_t>(w) * h), b(a.size());
  built.GetAlpha(a.data(), w);
  reused.GetAlpha(b.data(), w);
  EXPECT_EQ(a, b);
  ASSERT_EQ(built.MakeMatte(a.data(), w, h, w, 3, 1), 1);
  ASSERT_EQ(reused.MakeMatte(b.data(), w, h, w, 3, 1), 1);
  EXPECT_EQ(a, b);
  Plane colours(3 * a.size()), reusedColours(colours.size());
  built.GetFImage(colours.data(), 3 * w, 0);
  reused.GetFImage(reusedColours.data(), 3 * w, 0);
  EXPECT_EQ(colours, reusedColours);
}

TEST(DSCMatting, SizeMismatchLeavesOutputAndMatteUntouched) {
  const int w = 64, h = 48;
  const Photo photo = DiscOnGradient(w, h, 30, 24, 12, 9);
  const Plane seg = DiscPlane(w, h, 30, 24, 12, 255, 0);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, seg.data(), w,
                     1000, 6, 0.5, 3, 5, 50, 1);
  Plane before(static_cast<size_t>(w) * h);
  session.GetAlpha(before.data(), w);

  const int sizes[][2] = {{w - 1, h}, {w + 1, h}, {w, h - 1}, {w, h + 1}};
  for (const auto& s : sizes) {
    const int sw = s[0], sh = s[1];
    const Plane trimap = BandTrimap(sw, sh, 30, 24, 12, 3);
    const Plane otherSeg = DiscPlane(sw, sh, 30, 24, 12, 255, 0);
    const int stride = (w + 1) * 2;
    Plane out(static_cast<size_t>(stride) * (h + 1), kSentinel);
    session.Refine(trimap.data(), sw, sh, sw, out.data(), stride, 3, 1);
    EXPECT_EQ(session.Refine(out.data(), sw, sh, stride, 3, 1), 0);
    EXPECT_EQ(session.MakeMatte(out.data(), sw, sh, stride, 3, 1), 0);
    EXPECT_EQ(session.MakeMatteFromSegmRes(otherSeg.data(), sw, sh, sw,
                                           out.data(), stride, 6, 0.5, 3, 1),
              0);
    session.set_alpha(trimap.data(), sw, sh, sw);
    EXPECT_EQ(out, Plane(out.size(), kSentinel)) << sw << " x " << sh;
    Plane after(before.size());
    session.GetAlpha(after.data(), w);
    EXPECT_EQ(after, before) << sw << " x " << sh;
  }
}

TEST(DSCMatting, AlphaGoesInAndOutWithStridesAndNullIsIgnored) {
  const int w = 37, h = 23;
  const Photo photo = DiscOnGradient(w, h, 18, 11, 8, 2);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, 1000);
  const int inStride = w + 7;
  const Plane in = softmatte_test::RandomPlane(w, h, inStride, 41);
  session.set_alpha(in.data(), w, h, inStride);
  session.set_alpha(nullptr, w, h, inStride);

  const int outStride = w + 2;
  Plane out(static_cast<size_t>(outStride) * h, kSentinel);
  session.GetAlpha(out.data(), outStride);
  EXPECT_TRUE(softmatte_test::PaddingIntact(out, w, h, outStride));
  EXPECT_EQ(Packed(out.data(), w, h, outStride),
            Packed(in.data(), w, h, inStride));
  int stride = 0;
  const unsigned char* own = session.GetAlpha(&stride);
  EXPECT_EQ(Packed(own, w, h, stride), Packed(in.data(), w, h, inStride));
  EXPECT_EQ(session.GetAlpha(nullptr), own);
}

TEST(DSCMatting, InitAndMakeMatteWorkInOppositePolarities) {
  const int w = 120, h = 96;
  const double cx = 58, cy = 50, r = 26;
  const Photo photo = DiscOnGradient(w, h, cx, cy, r, 13);
  const Plane seg = DiscPlane(w, h, cx, cy, r, 255, 0);
  // The builder's own trimap, foreground 255.
  Plane trimap(seg.size());
  MakeTrimapFromSegRes(photo.bytes.data(), w, h, photo.stride, seg.data(), w,
                       trimap.data(), w, 8, 0.5, 3, 5, 50, 2);

  DSCMatting session(photo.bytes.data(), w, h, photo.stride, seg.data(), w, 60,
                     8, 0.5, 3, 5, 50, 2);
  DSCMatting twin(photo.bytes.data(), w, h, photo.stride, seg.data(), w, 60, 8,
                  0.5, 3, 5, 50, 2);
  Plane alpha(seg.size());
  session.GetAlpha(alpha.data(), w);
  for (size_t i = 0; i < alpha.size(); ++i) {
    ASSERT_EQ(alpha[i], Complement(trimap[i])) << "pixel " << i;
  }

  const int stride = w + 9;
  Plane made(static_cast<size_t>(stride) * h, kSentinel);
  Plane refined(made.size(), kSentinel);
  ASSERT_EQ(session.MakeMatte(made.data(), w, h, stride, 3, 0), 1);
  ASSERT_EQ(twin.Refine(refined.data(), w, h, stride, 3, 0), 1);
  EXPECT_TRUE(softmatte_test::PaddingIntact(made, w, h, stride));
  int soft = 0;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const size_t o = static_cast<size_t>(y) * stride + x;
      ASSERT_EQ(made[o], Complement(refined[o])) << x << ", " << y;
      const double d = std::hypot(x - cx, y - cy);
      // Smoothing reaches a few pixels past the band; beyond that the
      // trimap's known values stand.
      if (d < r - 14) {
        ASSERT_EQ(made[o], 255) << x << ", " << y;
      }
      if (d > r + 14) {
        ASSERT_EQ(made[o], 0) << x << ", " << y;
      }
      soft += made[o] != 0 && made[o] != 255;
    }
  }
  EXPECT_GT(soft, 0);
}

TEST(DSCMatting, ComplementSpares128GoingInAndComingOut) {
  // Init's trimap gives no table entries to its own foreground, so a later
  // band inside it keeps the trimap's 128 through the solve; deep in the
  // band smoothing leaves it too, and the output must say 128, not 127.
  const int w = 160, h = 140;
  const double cx = 80, cy = 70;
  const Photo photo = DiscOnGradient(w, h, cx, cy, 55, 17);
  const Plane bigSeg = DiscPlane(w, h, cx, cy, 55, 255, 0);
  const Plane smallSeg = DiscPlane(w, h, cx, cy, 20, 255, 0);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, bigSeg.data(), w,
                     1000, 8, 0.5, 3, 5, 50, 2);
  DSCMatting twin(photo.bytes.data(), w, h, photo.stride, bigSeg.data(), w,
                  1000, 8, 0.5, 3, 5, 50, 2);

  Plane made(static_cast<size_t>(w) * h);
  ASSERT_EQ(session.MakeMatteFromSegmRes(smallSeg.data(), w, h, w, made.data(),
                                         w, 12, 1.0, 3, 0),
            1);
  Plane trimap(made.size());
  MakeTrimapFromSegRes(smallSeg.data(), w, h, w, trimap.data(), w, 12, 1.0);
  for (auto& v : trimap) v = Complement(v);
  Plane refined(made.size());
  twin.Refine(trimap.data(), w, h, w, refined.data(), w, 3, 0);

  int kept128 = 0;
  for (size_t i = 0; i < made.size(); ++i) {
    ASSERT_EQ(made[i], Complement(refined[i])) << "pixel " << i;
    kept128 += made[i] == kUnknown;
  }
  EXPECT_GT(kept128, 0);
}

TEST(DSCMatting, TrimapWithoutUnknownsIsOnlySmoothedAndCleaned) {
  const int w = 90, h = 70;
  const Photo photo = DiscOnGradient(w, h, 40, 35, 20, 23);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, 50);
  // Known values need not be 0 or 255: a block of 200 is taken as it is.
  Plane trimap = DiscPlane(w, h, 30, 30, 18, 255, 0);
  for (int y = 5; y < 25; ++y) {
    for (int x = 60; x < 85; ++x) trimap[static_cast<size_t>(y) * w + x] = 200;
  }
  for (int keep : {0, 1}) {
    Plane out(trimap.size());
    session.Refine(trimap.data(), w, h, w, out.data(), w, 5, keep);
    Plane want = trimap;
    mat_smooth_boundary(want.data(), w, h, w, want.data(), w, 5);
    vm_erase_small_cc(want.data(), w, h, w, 0, keep);
    EXPECT_EQ(out, want) << "keep " << keep;
    EXPECT_EQ(out[15 * w + 72], keep == 1 ? 0 : 200);
  }
}

TEST(DSCMatting, KeepLimitsTheFragmentsOfTheSessionMatte) {
  // In the session's polarity two discs of 255 with soft bands: keep 1
  // leaves only the larger one, keep 0 and keep 2 both.
  const int w = 150, h = 90;
  const Photo photo = DiscOnGradient(w, h, 45, 45, 28, 29);
  const Plane big = BandTrimap(w, h, 45, 45, 28, 3);
  const Plane small = BandTrimap(w, h, 115, 45, 14, 3);
  Plane trimap(big.size());
  for (size_t i = 0; i < trimap.size(); ++i) {
    const bool inside = big[i] == 0 || small[i] == 0;
    const bool band = big[i] == kUnknown || small[i] == kUnknown;
    trimap[i] = inside ? 255 : (band ? kUnknown : 0);
  }
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, 1000);
  Plane outs[3];
  for (int keep : {0, 1, 2}) {
    outs[keep].resize(trimap.size());
    session.Refine(trimap.data(), w, h, w, outs[keep].data(), w, 3, keep);
  }
  EXPECT_EQ(outs[0], outs[2]);
  EXPECT_EQ(outs[0][45 * w + 45], 255);
  EXPECT_EQ(outs[0][45 * w + 115], 255);
  EXPECT_EQ(outs[1][45 * w + 45], 255);
  for (int y = 25; y < 65; ++y) {
    for (int x = 95; x < 135; ++x) {
      ASSERT_EQ(outs[1][static_cast<size_t>(y) * w + x], 0) << x << ", " << y;
    }
  }
}

TEST(DSCMatting, MakeMatteKeepCountsBackgroundRegions) {
  // The cleanup runs in the session's polarity, where the background is the
  // high side: keep 1 keeps only the largest background region, so the hole
  // of a ring-shaped subject comes back as subject.
  const int w = 100, h = 90;
  const double cx = 50, cy = 45;
  const Photo photo = DiscOnGradient(w, h, cx, cy, 35, 37);
  Plane ring = DiscPlane(w, h, cx, cy, 35, 255, 0);
  const Plane hole = DiscPlane(w, h, cx, cy, 15, 1, 0);
  for (size_t i = 0; i < ring.size(); ++i) {
    if (hole[i]) ring[i] = 0;
  }
  unsigned char centre[2] = {};
  for (int keep : {0, 1}) {
    DSCMatting session(photo.bytes.data(), w, h, photo.stride, ring.data(), w,
                       1000, 4, 0.5, 3, 5, 50, 1);
    Plane out(ring.size());
    ASSERT_EQ(session.MakeMatte(out.data(), w, h, w, 3, keep), 1);
    EXPECT_EQ(out[45 * w + 50 - 40], 0) << "keep " << keep;    // outside
    EXPECT_EQ(out[45 * w + 50 + 25], 255) << "keep " << keep;  // on the ring
    centre[keep] = out[45 * w + 50];
  }
  EXPECT_EQ(centre[0], 0);
  EXPECT_EQ(centre[1], 255);
}

// The colours mat_estimate_fb_color gives for the session's current matte.
Plane ForegroundOf(const Photo& photo, DSCMatting& session) {
  int stride = 0;
  const unsigned char* alpha = session.GetAlpha(&stride);
  Plane f(static_cast<size_t>(photo.width) * photo.height * 3);
  mat_estimate_fb_color(photo.bytes.data(), photo.width, photo.height,
                        photo.stride, alpha, stride, f.data(), 3 * photo.width,
                        nullptr, 0, 1, 253);
  return f;
}

TEST(DSCMatting, GetFImageCachesUntilTheMatteIsRefinedOrSmoothed) {
  const int w = 53, h = 41;
  const Photo photo = DiscOnGradient(w, h, 25, 20, 12, 31);
  const Plane seg = DiscPlane(w, h, 25, 20, 12, 255, 0);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, seg.data(), w,
                     1000, 6, 0.5, 3, 5, 50, 1);
  auto fetch = [&](int recompute) {
    int stride = 0;
    const unsigned char* f = session.GetFImage(&stride, recompute);
    EXPECT_GE(stride, 3 * w);
    return Packed(f, 3 * w, h, stride);
  };

  // The cache starts without a size, so even 0 estimates once.
  const Plane first = fetch(0);
  EXPECT_EQ(first, ForegroundOf(photo, session));

  // set_alpha leaves the colours alone until they are asked for anew.
  const Plane soft = softmatte_test::RandomPlane(w, h, w, 77);
  session.set_alpha(soft.data(), w, h, w);
  const Plane fresh = ForegroundOf(photo, session);
  ASSERT_NE(fresh, first);
  EXPECT_EQ(fetch(-1), first);
  EXPECT_EQ(fetch(0), first);
  EXPECT_EQ(fetch(1), fresh);

  session.SmoothBoundary(3, 0);
  const Plane smoothed = ForegroundOf(photo, session);
  ASSERT_NE(smoothed, fresh);
  EXPECT_EQ(fetch(0), fresh);
  EXPECT_EQ(fetch(-1), smoothed);

  Plane matte(seg.size());
  ASSERT_EQ(session.MakeMatte(matte.data(), w, h, w, 3, 1), 1);
  const Plane refined = ForegroundOf(photo, session);
  ASSERT_NE(refined, smoothed);
  EXPECT_EQ(fetch(-1), refined);

  // The copy form hands out the same colours and keeps the caller's padding.
  const int outStride = 3 * w + 4;
  Plane out(static_cast<size_t>(outStride) * h, kSentinel);
  session.GetFImage(out.data(), outStride, -1);
  EXPECT_TRUE(softmatte_test::PaddingIntact(out, 3 * w, h, outStride));
  EXPECT_EQ(Packed(out.data(), 3 * w, h, outStride), refined);
}

// ---- Real photos ----

// Subjects whose fractional pixels all lie within 20 pixels of the
// thresholded truth's edge, so a band built from it can hold them.
constexpr int kCompactEdgePhotos[] = {5, 14, 25};

TEST(DSCMattingPhotos, MatteFromThresholdedTruthStaysNearTheTruth) {
  double sadSum = 0.0;
  int loaded = 0;
  for (int index : kCompactEdgePhotos) {
    softmatte_test::MattingSample sample;
    if (!softmatte_test::LoadMattingSample(index, false, &sample)) continue;
    ++loaded;
    const int w = sample.image.width;
    const int h = sample.image.height;
    Plane seg(sample.truth.pixels.size());
    for (size_t i = 0; i < seg.size(); ++i) {
      seg[i] = sample.truth.pixels[i] >= 128 ? 255 : 0;
    }
    // Half the photo's size: the tables carry a real reduction.
    DSCMatting session(sample.image.pixels.data(), w, h, 3 * w, 400);
    Plane out(seg.size());
    ASSERT_EQ(session.MakeMatteFromSegmRes(seg.data(), w, h, w, out.data(), w,
                                           20, 0.5, 3, 0),
              1);
    sadSum += softmatte_test::SadOverUnknown(out, sample);
  }
  if (loaded == 0) GTEST_SKIP() << "alphamatting photos not found";
  // Measured: 9.29. The bound catches a flow that loses the band or the
  // polarity, not the last digit of the solver.
  EXPECT_LT(sadSum / loaded, 10.0) << "mean SAD over " << loaded;
}

TEST(DSCMattingPhotos, FullResolutionRefineMatchesADirectSolve) {
  double sessionSad = 0.0, directSad = 0.0;
  int loaded = 0;
  for (int index : {5, 12, 19}) {  // the narrowest bands: quick solves
    softmatte_test::MattingSample sample;
    if (!softmatte_test::LoadMattingSample(index, false, &sample)) continue;
    ++loaded;
    const int w = sample.image.width;
    const int h = sample.image.height;
    const Plane& trimap = sample.trimap.pixels;

    Plane mask(trimap.size());
    for (size_t i = 0; i < mask.size(); ++i) mask[i] = trimap[i] == kUnknown;
    Plane direct = trimap;
    mat_data problem;
    mat_update(sample.image.pixels.data(), w, h, 3 * w, mask.data(), w, problem,
               problem, nullptr);
    mat_run(problem, trimap.data(), direct.data(), nullptr);
    directSad += softmatte_test::SadOverUnknown(direct, sample);

    // The session works on the complement; its width is cut to a multiple
    // of 4, which is all that separates it from the direct solve.
    Plane inverted(trimap.size());
    for (size_t i = 0; i < trimap.size(); ++i) {
      inverted[i] = Complement(trimap[i]);
    }
    DSCMatting session(sample.image.pixels.data(), w, h, 3 * w, 4096);
    Plane out(trimap.size());
    session.Refine(inverted.data(), w, h, w, out.data(), w, 3, 0);
    for (auto& v : out) v = Complement(v);
    sessionSad += softmatte_test::SadOverUnknown(out, sample);
  }
  if (loaded == 0) GTEST_SKIP() << "alphamatting photos not found";
  EXPECT_LE(sessionSad, directSad * 1.03) << "mean SAD " << sessionSad / loaded
                                          << " against " << directSad / loaded;
}

}  // namespace
