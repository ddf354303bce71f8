#include "softmatte/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "scenes.h"
#include "softmatte/colour.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "softmatte/solver.h"
#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using namespace session_test;
using softmatte_test::kSentinel;
using softmatte_test::Packed;
using softmatte_test::PaddingIntact;

// The refinement built from the library's pieces at a given working size:
// reduce, pair, solve the band, carry back, smooth, clean.
Plane RefineByHand(const Photo& photo, const Plane& trimap, int ww, int wh) {
  const int w = photo.width, h = photo.height;
  Plane workImage(static_cast<size_t>(ww) * wh * 3);
  ff::ipf_resize_nn(photo.bytes.data(), w, h, photo.stride, 3, workImage.data(),
                    ww, wh, 3 * ww, 3, ff::ccn<3>());
  std::vector<int> idx(static_cast<size_t>(w) * h * 2, -1);
  std::vector<short> wts(static_cast<size_t>(w) * h, 0);
  usam_calc_weights_8u_c3(photo.bytes.data(), w, h, photo.stride, nullptr, 0,
                          workImage.data(), ww, wh, 3 * ww, idx.data(), 2 * w,
                          wts.data(), w, 3);
  Plane workTrimap(static_cast<size_t>(ww) * wh), mask(workTrimap.size());
  ff::ipf_resize_nn(trimap.data(), w, h, w, 1, workTrimap.data(), ww, wh, ww, 1,
                    ff::ccn<1>());
  for (size_t i = 0; i < mask.size(); ++i) mask[i] = workTrimap[i] == kUnknown;
  Plane workAlpha = workTrimap, alpha = trimap;
  mat_data problem;
  mat_update(workImage.data(), ww, wh, 3 * ww, mask.data(), ww, problem,
             problem, nullptr);
  mat_run(problem, workTrimap.data(), workAlpha.data(), nullptr);
  usam_interpolate_c1(workAlpha.data(), ww, wh, idx.data(), 2 * w, wts.data(),
                      w, alpha.data(), w, h, w, trimap.data(), w, kUnknown);
  mat_smooth_boundary(alpha.data(), w, h, w, alpha.data(), w, 3);
  vm_erase_small_cc(alpha.data(), w, h, w, 0, 1);
  return alpha;
}

TEST(DSCMattingWorkingSize, RefineMatchesTheHandChainAtTheRuleSize) {
  const struct {
    int w, h, work_size, ww, wh;  // ww, wh worked out by hand from the rule
  } cases[] = {
      {130, 90, 60, 60, 42},      // both exceed; 41.54 rounds to 42
      {61, 97, 40, 24, 40},       // 25.15 rounds to 25, then down to 24
      {101, 203, 100, 48, 100},   // width exceeds by one: height decides
      {130, 90, 100, 128, 90},    // only the width exceeds: no reduction
      {90, 130, 100, 88, 130},    // only the height exceeds
      {102, 102, 102, 100, 102},  // equal is not above
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << c.w << "x" << c.h << " at " << c.work_size);
    const double r = 0.3 * std::min(c.w, c.h), cx = c.w * 0.45, cy = c.h * 0.55;
    const Photo photo = DiscOnGradient(c.w, c.h, cx, cy, r, 7);
    const Plane trimap = Disc(c.w, c.h, cx, cy, r, 3.0, 0, 255);
    DSCMatting session(photo.bytes.data(), c.w, c.h, photo.stride, c.work_size);
    const int outStride = c.w + 3;
    Plane out(static_cast<size_t>(outStride) * c.h, kSentinel);
    session.Refine(trimap.data(), c.w, c.h, c.w, out.data(), outStride, 3, 1);
    ASSERT_TRUE(PaddingIntact(out, c.w, c.h, outStride));
    EXPECT_EQ(Packed(out.data(), c.w, c.h, outStride),
              RefineByHand(photo, trimap, c.ww, c.wh));
  }
}

TEST(DSCMatting, MattesComeBackInTheSubjectPolarityAndSpare128) {
  // Init keeps the complement of the trimap it builds (subject 255); the
  // matte flows hand the subject back as 255. A band inside Init's
  // foreground has no table entries, so 128 survives the solve there and
  // must come out as 128, not 127.
  const int w = 160, h = 140, stride = w + 9;
  const Photo photo = DiscOnGradient(w, h, 80, 70, 55, 17);
  const Plane big = Disc(w, h, 80, 70, 55, 0, 255, 0);
  const Plane small = Disc(w, h, 80, 70, 20, 0, 255, 0);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, big.data(), w,
                     1000, 8, 0.5, 3, 5, 50, 2);
  DSCMatting twin(photo.bytes.data(), w, h, photo.stride, big.data(), w, 1000,
                  8, 0.5, 3, 5, 50, 2);
  Plane trimap(big.size()), alpha(big.size());
  MakeTrimapFromSegRes(photo.bytes.data(), w, h, photo.stride, big.data(), w,
                       trimap.data(), w, 8, 0.5, 3, 5, 50, 2);
  session.GetAlpha(alpha.data(), w);
  EXPECT_EQ(alpha, Complemented(trimap));
  Plane made(static_cast<size_t>(stride) * h, kSentinel), refined(made);
  ASSERT_EQ(session.MakeMatte(made.data(), w, h, stride, 3, 1), 1);
  ASSERT_EQ(twin.Refine(refined.data(), w, h, stride, 3, 1), 1);
  EXPECT_TRUE(PaddingIntact(made, w, h, stride));
  const auto same = [&] {
    return Packed(made.data(), w, h, stride) ==
           Complemented(Packed(refined.data(), w, h, stride));
  };
  EXPECT_TRUE(same());
  int soft = 0;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      // Smoothing reaches a few pixels past Init's band, no further.
      const double d = std::hypot(x - 80, y - 70);
      const unsigned char v = made[static_cast<size_t>(y) * stride + x];
      if (d < 55 - 14 || d > 55 + 14) {
        ASSERT_EQ(v, d < 55 ? 255 : 0) << x << ", " << y;
      }
      soft += v != 0 && v != 255;
    }
  }
  EXPECT_GT(soft, 0);
  ASSERT_EQ(session.MakeMatteFromSegmRes(small.data(), w, h, w, made.data(),
                                         stride, 12, 1.0, 3, 0),
            1);
  MakeTrimapFromSegRes(small.data(), w, h, w, trimap.data(), w, 12, 1.0);
  twin.Refine(Complemented(trimap).data(), w, h, w, refined.data(), stride, 3,
              0);
  EXPECT_TRUE(same());
  EXPECT_GT(std::count(made.begin(), made.end(), kUnknown), 0);
}

TEST(DSCMatting, RefusedCallsReturnZeroAndTouchNothing) {
  const int w = 64, h = 48, stride = 2 * (w + 1);
  const Photo photo = DiscOnGradient(w, h, 30, 24, 12, 9);
  const Plane seg = Disc(w, h, 30, 24, 12, 0, 255, 0);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, seg.data(), w,
                     1000, 6, 0.5, 3, 5, 50, 1);
  Plane before(seg.size()), after(seg.size());
  session.GetAlpha(before.data(), w);
  const Plane untouched(static_cast<size_t>(stride) * (h + 1), kSentinel);
  const int sizes[][2] = {{w - 1, h}, {w + 1, h}, {w, h - 1}, {w, h + 1}};
  for (const auto& [sw, sh] : sizes) {
    SCOPED_TRACE(testing::Message() << sw << "x" << sh);
    const Plane trimap = Disc(sw, sh, 30, 24, 12, 3, 0, 255);
    Plane out = untouched;
    session.Refine(trimap.data(), sw, sh, sw, out.data(), stride, 3, 1);
    EXPECT_EQ(
        session.Refine(out.data(), sw, sh, stride, 3, 1) +
            session.MakeMatte(out.data(), sw, sh, stride, 3, 1) +
            session.MakeMatteFromSegmRes(trimap.data(), sw, sh, sw, out.data(),
                                         stride, 6, 0.5, 3, 1),
        0);
    session.set_alpha(trimap.data(), sw, sh, sw);
    EXPECT_EQ(out, untouched);
    session.GetAlpha(after.data(), w);
    EXPECT_EQ(after, before);
  }
  // Without a segmentation there is no session trimap to refine.
  DSCMatting bare(photo.bytes.data(), w, h, photo.stride, 1000);
  Plane out = untouched;
  EXPECT_EQ(bare.Refine(out.data(), w, h, stride, 3, 1) +
                bare.MakeMatte(out.data(), w, h, stride, 3, 1),
            0);
  EXPECT_EQ(out, untouched);
}

TEST(DSCMatting, GetFImageCachesUntilTheMatteIsRefinedOrSmoothed) {
  const int w = 53, h = 41;
  const Photo photo = DiscOnGradient(w, h, 25, 20, 12, 31);
  const Plane seg = Disc(w, h, 25, 20, 12, 0, 255, 0);
  DSCMatting session(photo.bytes.data(), w, h, photo.stride, seg.data(), w,
                     1000, 6, 0.5, 3, 5, 50, 1);
  auto fetch = [&](int recompute) {
    int stride = 0;
    const unsigned char* f = session.GetFImage(&stride, recompute);
    return Packed(f, 3 * w, h, stride);
  };
  auto estimate = [&] {  // the colours for the session's current matte
    int stride = 0;
    const unsigned char* alpha = session.GetAlpha(&stride);
    Plane f(static_cast<size_t>(w) * h * 3);
    mat_estimate_fb_color(photo.bytes.data(), w, h, photo.stride, alpha, stride,
                          f.data(), 3 * w, nullptr, 0, 1, 253);
    return f;
  };
  // The cache starts without a size, so even 0 estimates once.
  const Plane first = fetch(0);
  EXPECT_EQ(first, estimate());
  const Plane soft = softmatte_test::RandomPlane(w, h, w, 77);
  session.set_alpha(soft.data(), w, h, w);
  const Plane fresh = estimate();
  ASSERT_NE(fresh, first);
  EXPECT_EQ(fetch(-1), first);
  EXPECT_EQ(fetch(0), first);
  EXPECT_EQ(fetch(1), fresh);
  session.SmoothBoundary(3, 0);
  const Plane smoothed = estimate();
  ASSERT_NE(smoothed, fresh);
  EXPECT_EQ(fetch(0), fresh);
  EXPECT_EQ(fetch(-1), smoothed);
  Plane matte(seg.size());
  ASSERT_EQ(session.MakeMatte(matte.data(), w, h, w, 3, 1), 1);
  const Plane refined = estimate();
  ASSERT_NE(refined, smoothed);
  EXPECT_EQ(fetch(-1), refined);
  // The copy form hands out the same colours and keeps the caller's padding.
  const int outStride = 3 * w + 4;
  Plane out(static_cast<size_t>(outStride) * h, kSentinel);
  session.GetFImage(out.data(), outStride, -1);
  EXPECT_TRUE(PaddingIntact(out, 3 * w, h, outStride));
  EXPECT_EQ(Packed(out.data(), 3 * w, h, outStride), refined);
}

}  // namespace
