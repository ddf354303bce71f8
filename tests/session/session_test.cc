// The session against the library's pieces chained by hand, sessions on
// threads against the same flows run in turn, and the one-shot cut-out
// against a session driven by hand: with the same settings its matte and
// colours must be the session's, bit for bit, on every guide and solve path.
// Photos are a noisy gradient behind a disc whose edge is blurred over a few
// pixels, so that a solve has real fractions to find.
#include "softmatte/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "session/cutout_steps.h"
#include "softmatte/colour.h"
#include "softmatte/cutout.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/geoseg.h"
#include "softmatte/resample.h"
#include "softmatte/solver.h"
#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::Packed;
using softmatte_test::PaddingIntact;

using Plane = std::vector<unsigned char>;
constexpr unsigned char kUnknown = 128;

// A trimap's value in the session's polarity, and back: 128 stays.
unsigned char Complement(unsigned char v) {
  return v == kUnknown ? v : static_cast<unsigned char>(255 - v);
}
Plane Complemented(Plane plane) {
  std::transform(plane.begin(), plane.end(), plane.begin(), Complement);
  return plane;
}

struct Photo {
  int width, height, stride;
  Plane bytes;  // B, G, R rows, their padding the sentinel
};

Photo DiscOnGradient(int w, int h, double cx, double cy, double r,
                     uint32_t seed, int pad = 5) {
  Photo p{w, h, 3 * w + pad, {}};
  p.bytes.assign(static_cast<size_t>(p.stride) * h, kSentinel);
  std::mt19937 rng(seed);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const double a =
          std::clamp((r + 2.0 - std::hypot(x - cx, y - cy)) / 4.0, 0.0, 1.0);
      const int back[3] = {40 + x * 150 / w, 200 - y * 120 / h,
                           90 + (x + y) * 60 / (w + h)};
      const int disc[3] = {220, 60, 30};
      for (int c = 0; c < 3; ++c) {
        const int noise = static_cast<int>(rng() % 7) - 3;
        p.bytes[static_cast<size_t>(y) * p.stride + 3 * x + c] =
            static_cast<unsigned char>(std::clamp(
                a * disc[c] + (1.0 - a) * back[c] + noise, 0.0, 255.0));
      }
    }
  }
  return p;
}

// Packed plane: `in` closer than r - band, `out` from r + band on, 128
// between.
Plane Disc(int w, int h, double cx, double cy, double r, double band,
           unsigned char in, unsigned char out) {
  Plane plane(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const double d = std::hypot(x - cx, y - cy);
      plane[static_cast<size_t>(y) * w + x] =
          d < r - band ? in : (d >= r + band ? out : kUnknown);
    }
  }
  return plane;
}

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
  const Plane packed = Packed(made.data(), w, h, stride);
  EXPECT_GT(std::count_if(packed.begin(), packed.end(),
                          [](int v) { return v != 0 && v != 255; }),
            0);
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

struct Result {
  Plane matte, alpha, colours, curve;
  std::vector<float> probability;
  bool operator==(const Result& o) const {
    return matte == o.matte && alpha == o.alpha && colours == o.colours &&
           curve == o.curve && probability == o.probability;
  }
};

// An application may run several sessions at once, one per thread. Nothing
// a session or a GeoSeg touches may be shared with another, so flows run
// side by side must give, bit for bit, what they give one after another.
// Kept small: the suite also runs under ThreadSanitizer, which reports any
// unsynchronised access these runs make. A thread's flows: a session (Init
// with the mask and Refine, or MakeMatteFromSegmRes), its colours, GeoSeg.
Result RunFlows(int w, int h, uint32_t seed, bool viaRefine) {
  const double r = 0.3 * w, cx = 0.45 * w, cy = 0.55 * h;
  const Photo photo = DiscOnGradient(w, h, cx, cy, r, seed, 3);
  const Plane seg = Disc(w, h, cx, cy, r, 0, 255, 0);
  Plane labels = Disc(w, h, cx, cy, r / 3, 0, 2, 0);
  for (int y : {0, 1, h - 2, h - 1}) labels[y * w] = labels[y * w + w - 1] = 1;
  // Both sides exceed the working size: the reduced solve and the tables run
  // too.
  Result res;
  res.matte.resize(seg.size());
  {
    DSCMatting session;
    if (viaRefine) {
      session.Init(photo.bytes.data(), w, h, photo.stride, seg.data(), w, 60, 6,
                   0.5, 3, 5, 50, 1);
      EXPECT_EQ(session.Refine(res.matte.data(), w, h, w, 3, 1), 1);
    } else {
      session.Init(photo.bytes.data(), w, h, photo.stride, 60);
      EXPECT_EQ(session.MakeMatteFromSegmRes(seg.data(), w, h, w,
                                             res.matte.data(), w, 6, 0.5, 3, 1),
                1);
    }
    int stride = 0;
    const unsigned char* alpha = session.GetAlpha(&stride);
    res.alpha = Packed(alpha, w, h, stride);
    const unsigned char* f = session.GetFImage(&stride, 1);
    res.colours = Packed(f, 3 * w, h, stride);
  }
  GeoSeg geo;
  EXPECT_EQ(geo.SetImage(photo.bytes.data(), w, h, photo.stride, 3), 0);
  res.probability.resize(seg.size());
  geo.GetProb(labels.data(), w, res.probability.data(), w);

  // Only reads the tables the main thread filled before the threads began.
  res.curve.resize(256);
  mat_calc_S_transform(res.curve.data(), 30 + w % 40, 60);
  return res;
}

TEST(Concurrency, SessionsOnThreadsMatchTheSameFlowsRunInTurn) {
  // Two different photos and flows, and two threads on identical inputs.
  const struct {
    int w, h, seed;
    bool viaRefine;
  } jobs[] = {{97, 83, 1, false},
              {110, 71, 2, true},
              {89, 77, 3, false},
              {89, 77, 3, false}};
  constexpr int kThreads = 4;
  // The S-transform's tables are filled on first use: the one process-wide
  // step an application must take before its threads start.
  unsigned char curve[256];
  mat_calc_S_transform(curve, 50, 50);
  std::vector<Result> inTurn, side(kThreads);
  for (const auto& j : jobs)
    inTurn.push_back(RunFlows(j.w, j.h, j.seed, j.viaRefine));
  ASSERT_NE(inTurn[0].matte, inTurn[2].matte);
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Start together, so that the flows really overlap.
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      side[t] = RunFlows(jobs[t].w, jobs[t].h, jobs[t].seed, jobs[t].viaRefine);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(side[t] == inTurn[t]) << t;
}

constexpr int kWidth = 61, kHeight = 47;
constexpr size_t kCount = static_cast<size_t>(kWidth) * kHeight;

// A disc drawn in blocks of 4, as a segmenter at a quarter of the size
// gives it, and one block off to the side over plain background.
Plane SceneMask() {
  Plane mask = softmatte_test::BlockyMask(
      Disc(kWidth, kHeight, 30, 22, 15, 0, 255, 0), kWidth, kHeight, 4);
  for (int y = 0; y < 4; ++y) std::fill_n(&mask[y * kWidth + 52], 4, 255);
  return mask;
}

TEST(MatCutout, MatchesASessionOnEveryGuideAndSolve) {
  const Photo photo = DiscOnGradient(kWidth, kHeight, 30, 22, 15, 24);
  const Plane mask = SceneMask();
  // 47 is the height: only the width exceeds it, so nothing is reduced.
  for (int combo = 0; combo < 24; ++combo) {
    const int work_size = combo % 2 ? 30 : 47, edge_contrast = combo / 2 % 2;
    const int solver = combo / 4 % 2 ? MAT_SOLVER_FINE : MAT_SOLVER_EXACT;
    const int strays = combo / 8;
    SCOPED_TRACE(::testing::Message()
                 << "work_size " << work_size << " solver " << solver
                 << " edge_contrast " << edge_contrast << " strays " << strays);
    mat_cutout_options o;
    o.work_size = work_size;
    o.band_scale = 0.3;
    o.edge_contrast = edge_contrast;
    o.min_band = 2;
    o.loose_blocks = strays ? 6 : 0;
    o.coarse_band = strays == 2 ? 8 : 0;
    o.smooth_window = 3;
    o.solve.solver = solver;
    // The same steps by hand: the strays dropped (1, 2), the band
    // widened to the run length of the mask's edge (2), the trimap, a
    // session.
    Plane seg = mask, trimap(kCount);
    int max_band = o.max_band;
    if (strays) {
      MaskRuns runs = FindMaskRuns(seg.data(), kWidth, kHeight);
      const int run = cutout_steps::EdgeRunLength(runs);
      ASSERT_EQ(run, 4);
      cutout_steps::DropLooseBlocks(photo.bytes.data(), photo.stride, 6, run,
                                    runs, seg);
      if (strays == 2) max_band = std::max(max_band, std::min(run, 8));
    }
    if (edge_contrast) {
      MakeTrimapFromSegRes(photo.bytes.data(), kWidth, kHeight, photo.stride,
                           seg.data(), kWidth, trimap.data(), kWidth, max_band,
                           o.band_scale, o.contrast_step, o.contrast_low,
                           o.contrast_high, o.min_band);
    } else {
      MakeTrimapFromSegRes(seg.data(), kWidth, kHeight, kWidth, trimap.data(),
                           kWidth, max_band, o.band_scale);
    }
    ASSERT_GT(std::count(trimap.begin(), trimap.end(), kUnknown), 50);
    DSCMatting session(photo.bytes.data(), kWidth, kHeight, photo.stride,
                       o.work_size);
    session.SetSolveOptions(o.solve);
    Plane want(kCount), want_colours(3 * kCount);
    session.Refine(Complemented(trimap).data(), kWidth, kHeight, kWidth,
                   want.data(), kWidth, o.smooth_window, 0);
    want = Complemented(want);
    session.set_alpha(want.data(), kWidth, kHeight, kWidth);
    session.GetFImage(want_colours.data(), 3 * kWidth, 1);
    EXPECT_GT(std::count_if(want.begin(), want.end(),
                            [](int v) { return v != 0 && v != 255; }),
              20);

    // The mask in, with padded strides; anything from 128 up is the
    // subject.
    const int gs = kWidth + 5;
    Plane guide(static_cast<size_t>(gs) * kHeight);
    for (size_t i = 0; i < kCount; ++i) {
      guide[i / kWidth * gs + i % kWidth] = mask[i] ? 128 + i % 128 : i % 128;
    }
    Plane alpha(kCount), colours(3 * kCount);
    mat_cutout_timings timings;
    ASSERT_EQ(mat_cutout(photo.bytes.data(), kWidth, kHeight, photo.stride,
                         guide.data(), gs, MAT_GUIDE_MASK, o, alpha.data(),
                         kWidth, colours.data(), 3 * kWidth, &timings),
              MAT_CUTOUT_OK);
    EXPECT_EQ(alpha, want);
    EXPECT_EQ(colours, want_colours);
    EXPECT_GT(timings.solve, 0.0);

    // The trimap in: the same, whatever noise its grey levels carry.
    for (size_t i = 0; i < kCount; ++i) {
      guide[i] = trimap[i] == 0 ? 40 : trimap[i] == 255 ? 230 : 100;
    }
    ASSERT_EQ(
        mat_cutout(photo.bytes.data(), kWidth, kHeight, photo.stride,
                   guide.data(), kWidth, MAT_GUIDE_TRIMAP, o, alpha.data(),
                   kWidth, colours.data(), 3 * kWidth, nullptr),
        MAT_CUTOUT_OK);
    EXPECT_EQ(alpha, want);
    EXPECT_EQ(colours, want_colours);

    // Unlike the session's (which works on its complemented matte),
    // the cut-out's fragment removal keeps the largest pieces of the
    // subject itself: the stray block goes in any case.
    o.keep_fragments = 1;
    ASSERT_EQ(mat_cutout(photo.bytes.data(), kWidth, kHeight, photo.stride,
                         mask.data(), kWidth, MAT_GUIDE_MASK, o, alpha.data(),
                         kWidth, colours.data(), 3 * kWidth, nullptr),
              MAT_CUTOUT_OK);
    vm_erase_small_cc(want.data(), kWidth, kHeight, kWidth, 0, 1);
    EXPECT_EQ(alpha, want);
    EXPECT_EQ(alpha[2 * kWidth + 54], 0);
  }
}

// Every refusal leaves the outputs alone.
TEST(MatCutout, RefusesUnusableInputsAndWritesNothing) {
  const Photo photo = DiscOnGradient(kWidth, kHeight, 30, 22, 15, 24);
  const Plane mask = SceneMask(), none(kCount, 0);
  Plane only_subject(kCount, 0);
  only_subject[100] = 2;
  const struct {
    const char* what;
    const unsigned char* guide;
    int kind, solver, work_size, width, want;
  } cases[] = {
      // clang-format off
      {"empty mask", none.data(), MAT_GUIDE_MASK, 0, 9, kWidth, MAT_CUTOUT_NO_SUBJECT},
      {"background trimap", none.data(), MAT_GUIDE_TRIMAP, 0, 9, kWidth, MAT_CUTOUT_NO_SUBJECT},
      {"no strokes", none.data(), MAT_GUIDE_SCRIBBLES, 0, 9, kWidth, MAT_CUTOUT_NO_SUBJECT},
      {"no background stroke", only_subject.data(), MAT_GUIDE_SCRIBBLES, 0, 9, kWidth, MAT_CUTOUT_NO_BACKGROUND},
      {"null guide", nullptr, MAT_GUIDE_MASK, 0, 9, kWidth, MAT_CUTOUT_BAD_ARGUMENT},
      {"unknown guide kind", mask.data(), 3, 0, 9, kWidth, MAT_CUTOUT_BAD_ARGUMENT},
      {"unknown solver", mask.data(), MAT_GUIDE_MASK, 7, 9, kWidth, MAT_CUTOUT_BAD_ARGUMENT},
      {"work size 0", mask.data(), MAT_GUIDE_MASK, 0, 0, kWidth, MAT_CUTOUT_BAD_ARGUMENT},
      {"width 0", mask.data(), MAT_GUIDE_MASK, 0, 9, 0, MAT_CUTOUT_BAD_ARGUMENT},
      // clang-format on
  };
  for (const auto& c : cases) {
    mat_cutout_options o;
    o.solve.solver = c.solver;
    o.work_size = c.work_size;
    Plane alpha(kCount, 7), colours(3 * kCount, 7);
    EXPECT_EQ(mat_cutout(photo.bytes.data(), c.width, kHeight, photo.stride,
                         c.guide, kWidth, c.kind, o, alpha.data(), kWidth,
                         colours.data(), 3 * kWidth, nullptr),
              c.want)
        << c.what;
    EXPECT_EQ(alpha, Plane(kCount, 7)) << c.what;
    EXPECT_EQ(colours, Plane(3 * kCount, 7)) << c.what;
  }
}

TEST(MatComposite, BlendsRoundedPerChannelInPlace) {
  const int width = 5, height = 3, s = 3 * width + 2, as = width + 2;
  Plane fg = softmatte_test::RandomBytes(s * height, 1);
  Plane bg = softmatte_test::RandomBytes(s * height, 2);
  Plane alpha = softmatte_test::RandomBytes(as * height, 3);
  alpha[0] = 0;
  alpha[1] = 255;
  const Plane before = bg;
  mat_composite(fg.data(), s, alpha.data(), as, bg.data(), s, width, height,
                bg.data(), s);
  for (int i = 0; i < s * height; ++i) {
    const double a = alpha[i / s * as + i % s / 3] / 255.0;
    const int want = i % s >= 3 * width
                         ? before[i]
                         : static_cast<int>(std::floor(
                               fg[i] * a + before[i] * (1 - a) + 0.5 - 1e-9));
    EXPECT_EQ(bg[i], want) << i;
  }
}

TEST(EdgeRunLength, IsTheEnlargementOfABlockyMask) {
  const int width = 203, height = 151;
  Plane mask(width * height, 0);
  softmatte_test::FillEllipse(mask, width, height, 90, 70, 60, 45, 255);
  softmatte_test::FillEllipse(mask, width, height, 170, 40, 20, 30, 255);
  auto length = [](const Plane& m, int w, int h) {
    return cutout_steps::EdgeRunLength(FindMaskRuns(m.data(), w, h));
  };
  // Drawn at full resolution the edge steps a pixel or two at a time.
  EXPECT_LE(length(mask, width, height), 2);
  for (int factor : {3, 4, 8, 16}) {
    EXPECT_EQ(length(softmatte_test::BlockyMask(mask, width, height, factor),
                     width, height),
              factor);
  }
  EXPECT_EQ(length(Plane(99, 255), 11, 9), 0);
}

TEST(DropLooseBlocks, DropsOnlyStraysThePhotoDoesNotShow) {
  const int width = 60, height = 40;
  std::mt19937 rng(3);
  // Background near grey 60, a small bright object at the right, the subject
  // bright.
  Plane image(3 * width * height), seg(width * height, 0);
  for (int i = 0; i < width * height; ++i) {
    const int x = i % width, y = i / width;
    const bool subject = x < 20, patch = x >= 46 && x < 50 && y >= 6 && y < 10;
    for (int c = 0; c < 3; ++c) {
      image[3 * i + c] = (subject || patch ? 200 : 60) + rng() % 5;
    }
    seg[i] = subject ? 255 : 0;
  }
  // Over plain background: goes; on the bright object: stays; over
  // background but larger than four blocks: stays.
  for (const auto& [x0, y0, side] :
       {std::array{26, 4, 4}, {46, 6, 4}, {26, 20, 9}}) {
    for (int y = y0; y < y0 + side; ++y)
      std::fill_n(&seg[y * width + x0], side, 255);
  }
  Plane want = seg;
  for (int y = 4; y < 8; ++y) std::fill_n(&want[y * width + 26], 4, 0);
  MaskRuns runs = FindMaskRuns(seg.data(), width, height);
  cutout_steps::DropLooseBlocks(image.data(), 3 * width, 6, 4, runs, seg);
  EXPECT_EQ(seg, want);
  // The runs follow the mask.
  const MaskRuns again = FindMaskRuns(seg.data(), width, height);
  ASSERT_EQ(runs.runs.size(), again.runs.size());
  EXPECT_EQ(runs.rowStart, again.rowStart);

  // The contrast is met with equality: on a flat background a stray exactly
  // 6 levels off stays, one 5 off goes.
  Plane flat(3 * width * height, 60), strays(width * height, 0);
  for (int y = 0; y < height; ++y) std::fill_n(&strays[y * width], 20, 255);
  for (const auto& [x0, level] : {std::array{26, 66}, {36, 65}}) {
    for (int y = 4; y < 8; ++y) {
      std::fill_n(&strays[y * width + x0], 4, 255);
      std::fill_n(&flat[3 * (y * width + x0)], 12, level);
    }
  }
  want = strays;
  for (int y = 4; y < 8; ++y) std::fill_n(&want[y * width + 36], 4, 0);
  runs = FindMaskRuns(strays.data(), width, height);
  cutout_steps::DropLooseBlocks(flat.data(), 3 * width, 6, 4, runs, strays);
  EXPECT_EQ(strays, want);
}

}  // namespace
