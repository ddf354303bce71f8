// Refusals of the session, sessions on threads against the same flows run
// in turn, and the one-shot cut-out against a session driven by hand: with
// the same settings its matte and colours must be the session's, bit for
// bit, on every guide and solve path. Photos are a noisy gradient behind a
// disc whose edge is blurred over a few pixels, so that a solve has real
// fractions to find.
#include "softmatte/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "session/cutout_steps.h"
#include "softmatte/cutout.h"
#include "softmatte/edit.h"
#include "softmatte/geoseg.h"
#include "softmatte/solver.h"
#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::Packed;

using Plane = std::vector<unsigned char>;
constexpr unsigned char kUnknown = 128;

// A packed plane in the session's polarity, and back: 128 stays.
Plane Inverted(Plane plane, int width, int height) {
  InvertMatte(plane.data(), width, height, width);
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

// An application may run several sessions at once, one per thread. Nothing
// a session or a GeoSeg touches may be shared with another, so flows run
// side by side must give, bit for bit, what they give one after another.
// Kept small: the suite also runs under ThreadSanitizer, which reports any
// unsynchronised access these runs make. A thread's flows: a session (Init
// with the mask and Refine, or MakeMatteFromSegmRes), its colours, GeoSeg,
// an S-transform curve. Both sides exceed the working size: the reduced
// solve and the tables run too.
using Result = std::tuple<Plane, Plane, Plane, Plane, std::vector<float>>;
Result RunFlows(uint32_t seed) {
  const int sizes[][2] = {{97, 83}, {110, 71}, {89, 77}};
  const int w = sizes[seed - 1][0], h = sizes[seed - 1][1];
  const double r = 0.3 * w, cx = 0.45 * w, cy = 0.55 * h;
  const Photo photo = DiscOnGradient(w, h, cx, cy, r, seed, 3);
  const Plane seg = Disc(w, h, cx, cy, r, 0, 255, 0);
  Plane labels = Disc(w, h, cx, cy, r / 3, 0, 2, 0), matte(seg.size());
  for (int y : {0, 1, h - 2, h - 1}) labels[y * w] = labels[y * w + w - 1] = 1;
  DSCMatting session;
  if (seed == 2) {
    session.Init(photo.bytes.data(), w, h, photo.stride, seg.data(), w, 60, 6,
                 0.5, 3, 5, 50, 1);
    EXPECT_EQ(session.Refine(matte.data(), w, h, w, 3, 1), 1);
  } else {
    session.Init(photo.bytes.data(), w, h, photo.stride, 60);
    EXPECT_EQ(session.MakeMatteFromSegmRes(seg.data(), w, h, w, matte.data(), w,
                                           6, 0.5, 3, 1),
              1);
  }
  int stride = 0, fStride = 0;
  const unsigned char* alpha = session.GetAlpha(&stride);
  const unsigned char* f = session.GetFImage(&fStride, 1);
  GeoSeg geo;
  EXPECT_EQ(geo.SetImage(photo.bytes.data(), w, h, photo.stride, 3), 0);
  std::vector<float> probability(seg.size());
  geo.GetProb(labels.data(), w, probability.data(), w);
  // Only reads the tables the main thread filled before the threads began.
  Plane curve(256);
  mat_calc_S_transform(curve.data(), 30 + w % 40, 60);
  return {matte, Packed(alpha, w, h, stride), Packed(f, 3 * w, h, fStride),
          curve, probability};
}

TEST(Concurrency, SessionsOnThreadsMatchTheSameFlowsRunInTurn) {
  // Three different photos and flows, and two threads on identical inputs.
  const uint32_t seeds[] = {1, 2, 3, 3};
  // The S-transform's tables are filled on first use: the one process-wide
  // step an application must take before its threads start.
  unsigned char curve[256];
  mat_calc_S_transform(curve, 50, 50);
  std::vector<Result> inTurn, side(4);
  for (uint32_t seed : seeds) inTurn.push_back(RunFlows(seed));
  ASSERT_NE(std::get<0>(inTurn[0]), std::get<0>(inTurn[2]));
  std::atomic<int> waiting{4};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      // Start together, so that the flows really overlap.
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      side[t] = RunFlows(seeds[t]);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) EXPECT_TRUE(side[t] == inTurn[t]) << t;
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
  // Bits of combo: the working size (47 is the height: only the width
  // exceeds it, so nothing is reduced), edge contrast, the solve; then
  // strays kept, dropped, or dropped and the band widened to the run length.
  for (int combo = 0; combo < 24; ++combo) {
    SCOPED_TRACE(combo);
    mat_cutout_options o;
    o.work_size = combo % 2 ? 30 : 47;
    o.edge_contrast = combo / 2 % 2;
    o.solve.solver = combo / 4 % 2 ? MAT_SOLVER_FINE : MAT_SOLVER_EXACT;
    const int strays = combo / 8;
    o.loose_blocks = strays ? 6 : 0;
    o.coarse_band = strays == 2 ? 8 : 0;
    o.band_scale = 0.3;
    o.min_band = 2;
    o.smooth_window = 3;
    // The same steps by hand: strays, trimap, a session.
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
    if (o.edge_contrast) {
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
    session.Refine(Inverted(trimap, kWidth, kHeight).data(), kWidth, kHeight,
                   kWidth, want.data(), kWidth, o.smooth_window, 0);
    want = Inverted(want, kWidth, kHeight);
    session.set_alpha(want.data(), kWidth, kHeight, kWidth);
    session.GetFImage(want_colours.data(), 3 * kWidth, 1);

    Plane alpha(kCount), colours(3 * kCount);
    mat_cutout_timings timings;
    auto cut = [&](const Plane& guide, int stride, int kind, bool same,
                   mat_cutout_timings* t) {
      ASSERT_EQ(mat_cutout(photo.bytes.data(), kWidth, kHeight, photo.stride,
                           guide.data(), stride, kind, o, alpha.data(), kWidth,
                           colours.data(), 3 * kWidth, t),
                MAT_CUTOUT_OK);
      EXPECT_EQ(alpha, want);
      EXPECT_TRUE(!same || colours == want_colours);
    };
    // The mask in, with padded strides; anything from 128 up is the subject.
    const int gs = kWidth + 5;
    Plane guide(static_cast<size_t>(gs) * kHeight);
    for (size_t i = 0; i < kCount; ++i) {
      guide[i / kWidth * gs + i % kWidth] = mask[i] ? 128 + i % 128 : i % 128;
    }
    cut(guide, gs, MAT_GUIDE_MASK, true, &timings);
    EXPECT_GT(timings.solve, 0.0);
    // The trimap in: the same, whatever noise its grey levels carry.
    for (size_t i = 0; i < kCount; ++i) {
      guide[i] = trimap[i] == 0 ? 40 : trimap[i] == 255 ? 230 : 100;
    }
    cut(guide, kWidth, MAT_GUIDE_TRIMAP, true, nullptr);
    // Unlike the session's (which works on its complemented matte), the
    // cut-out's fragment removal keeps the largest pieces of the subject
    // itself: the stray block goes in any case.
    o.keep_fragments = 1;
    vm_erase_small_cc(want.data(), kWidth, kHeight, kWidth, 0, 1);
    cut(mask, kWidth, MAT_GUIDE_MASK, false, nullptr);
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

TEST(DropLooseBlocks, DropsOnlyStraysThePhotoDoesNotShow) {
  const int width = 60, height = 40;
  std::mt19937 rng(3);
  // Background near grey 60, a small bright object at the right, the subject
  // bright.
  Plane image(3 * width * height), seg(width * height, 0);
  for (int i = 0; i < width * height; ++i) {
    const int x = i % width, y = i / width;
    const bool subject = x < 20, patch = x >= 46 && x < 50 && y >= 6 && y < 10;
    for (int c = 0; c < 3; ++c)
      image[3 * i + c] = (subject || patch) * 140 + 60 + rng() % 5;
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
