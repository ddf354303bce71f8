// The one-shot cut-out's reading of a segmenter's mask: how coarse its edge
// is, and which stray pieces the photo does not back.
#include "session/cutout_steps.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "test_util.h"

namespace {

TEST(EdgeRunLength, IsTheEnlargementOfABlockyMask) {
  const int width = 203, height = 151;
  std::vector<unsigned char> mask(width * height, 0);
  softmatte_test::FillEllipse(mask, width, height, 90, 70, 60, 45, 255);
  softmatte_test::FillEllipse(mask, width, height, 170, 40, 20, 30, 255);
  auto length = [](const std::vector<unsigned char>& m, int w, int h) {
    return cutout_steps::EdgeRunLength(FindMaskRuns(m.data(), w, h));
  };
  // Drawn at full resolution the edge steps a pixel or two at a time.
  EXPECT_LE(length(mask, width, height), 2);
  for (int factor : {3, 4, 8, 16}) {
    EXPECT_EQ(length(softmatte_test::BlockyMask(mask, width, height, factor),
                     width, height),
              factor)
        << factor;
  }
  EXPECT_EQ(length(std::vector<unsigned char>(99, 255), 11, 9), 0);
}

TEST(DropLooseBlocks, DropsOnlyStraysThePhotoDoesNotShow) {
  const int width = 60, height = 40;
  std::mt19937 rng(3);
  // Background near grey 60, a small bright object at the right, the subject
  // bright.
  std::vector<unsigned char> image(3 * width * height);
  std::vector<unsigned char> seg(width * height, 0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const bool subject = x < 20;
      const bool patch = x >= 46 && x < 50 && y >= 6 && y < 10;
      for (int c = 0; c < 3; ++c) {
        image[3 * (y * width + x) + c] = static_cast<unsigned char>(
            (subject || patch ? 200 : 60) + rng() % 5);
      }
      seg[y * width + x] = subject ? 255 : 0;
    }
  }
  auto block = [&](int x0, int y0, int side) {
    for (int y = y0; y < y0 + side; ++y) {
      for (int x = x0; x < x0 + side; ++x) seg[y * width + x] = 255;
    }
  };
  block(26, 4, 4);   // over plain background: goes
  block(46, 6, 4);   // on the bright object: stays
  block(26, 20, 9);  // over background but larger than four blocks: stays
  const std::vector<unsigned char> before = seg;
  MaskRuns runs = FindMaskRuns(seg.data(), width, height);
  cutout_steps::DropLooseBlocks(image.data(), 3 * width, 6, 4, runs, seg);
  // The runs follow the mask.
  const MaskRuns again = FindMaskRuns(seg.data(), width, height);
  ASSERT_EQ(runs.runs.size(), again.runs.size());
  EXPECT_EQ(runs.rowStart, again.rowStart);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const bool gone = x >= 26 && x < 30 && y >= 4 && y < 8;
      ASSERT_EQ(seg[y * width + x], gone ? 0 : before[y * width + x])
          << x << "," << y;
    }
  }
}

}  // namespace
