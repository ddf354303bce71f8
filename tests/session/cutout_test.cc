// The one-shot cut-out against a session driven by hand: with the same
// settings its matte and colours must be the session's, bit for bit, on
// every guide and solve path; and its reading of a segmenter's mask (how
// coarse the edge is, which stray pieces the photo does not back).
#include "softmatte/cutout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "scenes.h"
#include "session/cutout_steps.h"
#include "softmatte/edit.h"
#include "softmatte/geoseg.h"
#include "softmatte/session.h"
#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using namespace session_test;

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

// Scribbles go through the geodesic segmentation first, then on as a mask.
TEST(MatCutout, ScribblesCutAsTheirGeodesicMask) {
  const Photo photo = DiscOnGradient(kWidth, kHeight, 30, 22, 15, 24);
  Plane labels(kCount, 0), mask(kCount);
  std::fill_n(&labels[22 * kWidth + 25], 11, 2);
  for (int y = 0; y < kHeight; ++y) labels[y * kWidth + 2] = 1;
  std::vector<float> probability(kCount);
  GeoSeg segmenter;
  segmenter.SetImage(photo.bytes.data(), kWidth, kHeight, photo.stride, 3);
  segmenter.GetProb(labels.data(), kWidth, probability.data(), kWidth);
  for (size_t i = 0; i < kCount; ++i) mask[i] = probability[i] > 0.5f ? 255 : 0;
  const mat_cutout_options o;
  Plane want(kCount), got(kCount), want_colours(3 * kCount),
      got_colours(want_colours);
  mat_cutout_timings timings;
  ASSERT_EQ(mat_cutout(photo.bytes.data(), kWidth, kHeight, photo.stride,
                       mask.data(), kWidth, MAT_GUIDE_MASK, o, want.data(),
                       kWidth, want_colours.data(), 3 * kWidth, nullptr),
            MAT_CUTOUT_OK);
  ASSERT_EQ(
      mat_cutout(photo.bytes.data(), kWidth, kHeight, photo.stride,
                 labels.data(), kWidth, MAT_GUIDE_SCRIBBLES, o, got.data(),
                 kWidth, got_colours.data(), 3 * kWidth, &timings),
      MAT_CUTOUT_OK);
  EXPECT_EQ(got, want);
  EXPECT_EQ(got_colours, want_colours);
  EXPECT_GT(timings.scribbles, 0.0);
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
