// The one-shot cut-out against a session driven by hand: with the same
// settings its matte and colours must be the session's, bit for bit, on
// every guide and solve path.
#include "softmatte/cutout.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "gtest/gtest.h"
#include "softmatte/edit.h"
#include "softmatte/geoseg.h"
#include "softmatte/session.h"
#include "softmatte/trimap.h"

namespace {

constexpr int kWidth = 61;
constexpr int kHeight = 47;
constexpr size_t kCount = static_cast<size_t>(kWidth) * kHeight;

// A bright blob with a speck off to the side, over a darker noisy ramp, and
// its 0/255 mask.
struct Scene {
  std::vector<unsigned char> photo = std::vector<unsigned char>(3 * kCount);
  std::vector<unsigned char> mask = std::vector<unsigned char>(kCount);
  Scene() {
    std::mt19937 random(24);
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const size_t i = static_cast<size_t>(y) * kWidth + x;
        const bool inside = std::hypot(x - 30.0, y - 22.0) < 15.0;
        mask[i] = inside || (x > 52 && y < 5) ? 255 : 0;
        for (int c = 0; c < 3; ++c) {
          const int base = inside ? 200 - 30 * c : 20 + x + 40 * c;
          photo[3 * i + c] = static_cast<unsigned char>(base + random() % 24);
        }
      }
    }
  }
};

unsigned char Flip(unsigned char v) {
  return v == 128 ? v : static_cast<unsigned char>(255 - v);
}

// What an application gets from a session refined over trimap (foreground
// 255): the matte and the colours under it.
void SessionCutout(const Scene& scene, const std::vector<unsigned char>& trimap,
                   const mat_cutout_options& o,
                   std::vector<unsigned char>* alpha,
                   std::vector<unsigned char>* colours) {
  DSCMatting session(scene.photo.data(), kWidth, kHeight, 3 * kWidth,
                     o.work_size);
  session.SetSolveOptions(o.solve);
  std::vector<unsigned char> flipped(trimap.size());
  std::transform(trimap.begin(), trimap.end(), flipped.begin(), Flip);
  alpha->assign(kCount, 0);
  session.Refine(flipped.data(), kWidth, kHeight, kWidth, alpha->data(), kWidth,
                 o.smooth_window, o.keep_fragments);
  std::transform(alpha->begin(), alpha->end(), alpha->begin(), Flip);
  session.set_alpha(alpha->data(), kWidth, kHeight, kWidth);
  colours->assign(3 * kCount, 0);
  session.GetFImage(colours->data(), 3 * kWidth, 1);
}

TEST(MatCutout, MatchesASessionOnEveryGuideAndSolve) {
  const Scene scene;
  for (const int work_size : {1000, 30}) {
    for (const int solver : {MAT_SOLVER_EXACT, MAT_SOLVER_FINE}) {
      for (const int edge_contrast : {0, 1}) {
        SCOPED_TRACE(::testing::Message()
                     << "work_size " << work_size << " solver " << solver
                     << " edge_contrast " << edge_contrast);
        mat_cutout_options o;
        o.work_size = work_size;
        o.max_band = 4;
        o.band_scale = 0.3;
        o.edge_contrast = edge_contrast;
        o.min_band = 2;
        // The session has neither the stray-block rule nor the coarse band,
        // and smooths with the window it is given.
        o.loose_blocks = 0;
        o.coarse_band = 0;
        o.smooth_window = 3;
        o.solve.solver = solver;
        std::vector<unsigned char> trimap(kCount);
        if (edge_contrast) {
          MakeTrimapFromSegRes(scene.photo.data(), kWidth, kHeight, 3 * kWidth,
                               scene.mask.data(), kWidth, trimap.data(), kWidth,
                               o.max_band, o.band_scale, o.contrast_step,
                               o.contrast_low, o.contrast_high, o.min_band);
        } else {
          MakeTrimapFromSegRes(scene.mask.data(), kWidth, kHeight, kWidth,
                               trimap.data(), kWidth, o.max_band, o.band_scale);
        }
        ASSERT_GT(std::count(trimap.begin(), trimap.end(), 128), 50);
        std::vector<unsigned char> want, want_colours;
        SessionCutout(scene, trimap, o, &want, &want_colours);
        EXPECT_GT(std::count_if(want.begin(), want.end(),
                                [](int v) { return v != 0 && v != 255; }),
                  20);

        // The mask in, with padded strides on every plane.
        const int pad = 5;
        std::vector<unsigned char> photo(static_cast<size_t>(3 * kWidth + pad) *
                                         kHeight);
        std::vector<unsigned char> guide(static_cast<size_t>(kWidth + pad) *
                                         kHeight);
        for (int y = 0; y < kHeight; ++y) {
          std::copy_n(&scene.photo[3 * y * kWidth], 3 * kWidth,
                      &photo[y * (3 * kWidth + pad)]);
          // Anything from 128 up is the subject.
          for (int x = 0; x < kWidth; ++x) {
            guide[y * (kWidth + pad) + x] =
                scene.mask[y * kWidth + x] ? 128 + (x % 128) : x % 128;
          }
        }
        std::vector<unsigned char> alpha(kCount), colours(3 * kCount);
        mat_cutout_timings timings;
        ASSERT_EQ(mat_cutout(photo.data(), kWidth, kHeight, 3 * kWidth + pad,
                             guide.data(), kWidth + pad, MAT_GUIDE_MASK, o,
                             alpha.data(), kWidth, colours.data(), 3 * kWidth,
                             &timings),
                  MAT_CUTOUT_OK);
        EXPECT_EQ(alpha, want);
        EXPECT_EQ(colours, want_colours);
        EXPECT_GT(timings.solve, 0.0);

        // The trimap in: the same, whatever noise its grey levels carry.
        for (size_t i = 0; i < kCount; ++i) {
          guide[i] = trimap[i] == 0 ? 40 : trimap[i] == 255 ? 230 : 100;
        }
        std::fill(alpha.begin(), alpha.end(), 7);
        ASSERT_EQ(
            mat_cutout(scene.photo.data(), kWidth, kHeight, 3 * kWidth,
                       guide.data(), kWidth, MAT_GUIDE_TRIMAP, o, alpha.data(),
                       kWidth, colours.data(), 3 * kWidth, nullptr),
            MAT_CUTOUT_OK);
        EXPECT_EQ(alpha, want);
        EXPECT_EQ(colours, want_colours);

        // Unlike the session's (which works on its complemented matte),
        // the cut-out's fragment removal keeps the largest pieces of the
        // subject itself: the speck goes.
        o.keep_fragments = 1;
        ASSERT_EQ(mat_cutout(scene.photo.data(), kWidth, kHeight, 3 * kWidth,
                             scene.mask.data(), kWidth, MAT_GUIDE_MASK, o,
                             alpha.data(), kWidth, colours.data(), 3 * kWidth,
                             nullptr),
                  MAT_CUTOUT_OK);
        vm_erase_small_cc(want.data(), kWidth, kHeight, kWidth, 0, 1);
        EXPECT_EQ(alpha, want);
        EXPECT_EQ(alpha[2 * kWidth + 57], 0);
      }
    }
  }
}

// Scribbles go through the geodesic segmentation first, then on as a mask.
TEST(MatCutout, ScribblesCutAsTheirGeodesicMask) {
  const Scene scene;
  std::vector<unsigned char> labels(kCount, 0);
  for (int x = 25; x < 36; ++x) labels[22 * kWidth + x] = 2;
  for (int y = 0; y < kHeight; ++y) labels[y * kWidth + 2] = 1;
  std::vector<float> probability(kCount);
  GeoSeg segmenter;
  segmenter.SetImage(scene.photo.data(), kWidth, kHeight, 3 * kWidth, 3);
  segmenter.GetProb(labels.data(), kWidth, probability.data(), kWidth);
  std::vector<unsigned char> mask(kCount);
  for (size_t i = 0; i < kCount; ++i) mask[i] = probability[i] > 0.5f ? 255 : 0;

  mat_cutout_options o;
  std::vector<unsigned char> want(kCount), got(kCount);
  std::vector<unsigned char> want_colours(3 * kCount), got_colours(3 * kCount);
  ASSERT_EQ(mat_cutout(scene.photo.data(), kWidth, kHeight, 3 * kWidth,
                       mask.data(), kWidth, MAT_GUIDE_MASK, o, want.data(),
                       kWidth, want_colours.data(), 3 * kWidth, nullptr),
            MAT_CUTOUT_OK);
  mat_cutout_timings timings;
  ASSERT_EQ(
      mat_cutout(scene.photo.data(), kWidth, kHeight, 3 * kWidth, labels.data(),
                 kWidth, MAT_GUIDE_SCRIBBLES, o, got.data(), kWidth,
                 got_colours.data(), 3 * kWidth, &timings),
      MAT_CUTOUT_OK);
  EXPECT_EQ(got, want);
  EXPECT_EQ(got_colours, want_colours);
  EXPECT_GT(timings.scribbles, 0.0);
}

// Every refusal leaves the outputs alone.
TEST(MatCutout, RefusesUnusableInputsAndWritesNothing) {
  const Scene scene;
  const std::vector<unsigned char> none(kCount, 0);
  std::vector<unsigned char> only_subject(kCount, 0);
  only_subject[100] = 2;
  struct Case {
    const char* what;
    const unsigned char* guide;
    int kind;
    mat_cutout_options options;
    int width;
    int want;
  };
  mat_cutout_options bad_solver;
  bad_solver.solve.solver = 7;
  mat_cutout_options bad_size;
  bad_size.work_size = 0;
  const Case cases[] = {
      {"empty mask",
       none.data(),
       MAT_GUIDE_MASK,
       {},
       kWidth,
       MAT_CUTOUT_NO_SUBJECT},
      {"all-background trimap",
       none.data(),
       MAT_GUIDE_TRIMAP,
       {},
       kWidth,
       MAT_CUTOUT_NO_SUBJECT},
      {"no strokes",
       none.data(),
       MAT_GUIDE_SCRIBBLES,
       {},
       kWidth,
       MAT_CUTOUT_NO_SUBJECT},
      {"no background stroke",
       only_subject.data(),
       MAT_GUIDE_SCRIBBLES,
       {},
       kWidth,
       MAT_CUTOUT_NO_BACKGROUND},
      {"null guide",
       nullptr,
       MAT_GUIDE_MASK,
       {},
       kWidth,
       MAT_CUTOUT_BAD_ARGUMENT},
      {"unknown guide kind",
       scene.mask.data(),
       3,
       {},
       kWidth,
       MAT_CUTOUT_BAD_ARGUMENT},
      {"unknown solver", scene.mask.data(), MAT_GUIDE_MASK, bad_solver, kWidth,
       MAT_CUTOUT_BAD_ARGUMENT},
      {"work size 0", scene.mask.data(), MAT_GUIDE_MASK, bad_size, kWidth,
       MAT_CUTOUT_BAD_ARGUMENT},
      {"width 0",
       scene.mask.data(),
       MAT_GUIDE_MASK,
       {},
       0,
       MAT_CUTOUT_BAD_ARGUMENT},
  };
  for (const Case& c : cases) {
    std::vector<unsigned char> alpha(kCount, 7), colours(3 * kCount, 7);
    EXPECT_EQ(mat_cutout(scene.photo.data(), c.width, kHeight, 3 * kWidth,
                         c.guide, kWidth, c.kind, c.options, alpha.data(),
                         kWidth, colours.data(), 3 * kWidth, nullptr),
              c.want)
        << c.what;
    EXPECT_EQ(std::count(alpha.begin(), alpha.end(), 7), long(kCount))
        << c.what;
    EXPECT_EQ(std::count(colours.begin(), colours.end(), 7), long(3 * kCount))
        << c.what;
  }
}

TEST(MatComposite, BlendsRoundedPerChannelInPlace) {
  const int width = 5, height = 3, pad = 2;
  std::mt19937 random(5);
  std::vector<unsigned char> fg((3 * width + pad) * height);
  std::vector<unsigned char> bg((3 * width + pad) * height);
  std::vector<unsigned char> alpha((width + pad) * height);
  for (auto* plane : {&fg, &bg, &alpha}) {
    for (auto& v : *plane) v = static_cast<unsigned char>(random());
  }
  alpha[0] = 0;
  alpha[1] = 255;
  const std::vector<unsigned char> before = bg;
  mat_composite(fg.data(), 3 * width + pad, alpha.data(), width + pad,
                bg.data(), 3 * width + pad, width, height, bg.data(),
                3 * width + pad);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < 3 * width + pad; ++x) {
      const size_t i = y * (3 * width + pad) + x;
      if (x >= 3 * width) {
        EXPECT_EQ(bg[i], before[i]);
        continue;
      }
      const double a = alpha[y * (width + pad) + x / 3] / 255.0;
      EXPECT_EQ(bg[i], static_cast<int>(std::floor(
                           fg[i] * a + before[i] * (1 - a) + 0.5 - 1e-9)))
          << x << "," << y;
    }
  }
}

}  // namespace
