#include "softmatte/ff/fvt_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using ff::FVTImage;
using softmatte_test::FillRandom;
using Bytes = std::vector<unsigned char>;

int PixelBytes(int type) { return ((type >> 4) & 15) * ((type >> 8) & 255); }

// Smallest multiple of align that holds the row, found by counting up.
int PaddedRow(int row_bytes, int align) {
  int step = 0;
  while (step < row_bytes) step += align;
  return step;
}

// Touches every byte the image claims to own: under ASan a block smaller
// than step * height fails here.
void FillAll(const FVTImage& img, unsigned char value) {
  std::memset(img.data, value, static_cast<size_t>(img.step) * img.height);
}

unsigned char* PixelAt(const FVTImage& img, int x, int y) {
  return img.data + static_cast<ptrdiff_t>(y) * img.step +
         static_cast<ptrdiff_t>(x) * PixelBytes(img.type);
}

// Formats of 1 to 12 bytes per pixel: bytes, 16-bit pairs, float triples.
constexpr int kFormats[] = {0x111, 0x311, 0x411, 0x123, 0x223, 0x345};

TEST(FVTImageAllocation, RowsArePaddedToTheAlignment) {
  for (int type : kFormats) {
    for (int width = 1; width <= 17; ++width) {
      for (int align : {1, 2, 4, 8, 16}) {
        const int row_bytes = width * PixelBytes(type);
        FVTImage img(width, 3, type, align);
        ASSERT_EQ(img.step, PaddedRow(row_bytes, align))
            << "type " << type << " width " << width << " align " << align;
        ASSERT_NE(img.data, nullptr);
        EXPECT_EQ(img.width, width);
        EXPECT_EQ(img.height, 3);
        EXPECT_EQ(img.type, type);
        EXPECT_EQ(img.flags, 1);
        EXPECT_FALSE(img.IsExternData());
        FillAll(img, 0x5A);
      }
    }
  }
  // A colour row of 15 bytes takes 16; 8 grey bytes are already aligned.
  EXPECT_EQ(FVTImage(5, 2, 785, 4).step, 16);
  EXPECT_EQ(FVTImage(8, 2, 273, 4).step, 8);
}

TEST(FVTImageAllocation, AlignZeroGivesNoRowAndMinusOneTheBareRow) {
  FVTImage zero(5, 2, 785, 0);
  EXPECT_EQ(zero.step, 0);
  EXPECT_EQ(zero.flags, 1);
  FVTImage bare(5, 2, 785, -1);
  EXPECT_EQ(bare.step, 15);
  FillAll(bare, 1);
}

TEST(FVTImageAllocation, ResetAllocatesBeforeFreeingAndDropsLocks) {
  FVTImage img(7, 3, 0x111, 4);
  FillAll(img, 1);
  img.Lock(0x0300);
  const unsigned char* old = img.data;
  img.Reset(7, 3, 0x111, 4);
  // Both blocks exist at the same moment, so they cannot coincide.
  EXPECT_NE(img.data, old);
  EXPECT_EQ(img.flags, 1);
  EXPECT_EQ(img.step, 8);

  img.Reset(3, 5, 0x311, 8);
  EXPECT_EQ(img.width, 3);
  EXPECT_EQ(img.height, 5);
  EXPECT_EQ(img.type, 0x311);
  EXPECT_EQ(img.step, 16);
  FillAll(img, 2);

  img.StepReset(5, 4, 0x111, 37);
  EXPECT_EQ(img.step, 37);  // taken as given, not rounded
  EXPECT_EQ(img.width, 5);
  EXPECT_EQ(img.flags, 1);
  FillAll(img, 3);

  // Resetting a view must not free the caller's memory (ASan would object).
  Bytes caller(64, 9);
  img.Attach(caller.data(), 4, 4, 0x111, 16);
  img.Reset(4, 4, 0x111, 4);
  EXPECT_NE(img.data, caller.data());
  EXPECT_FALSE(img.IsExternData());
}

TEST(FVTImageAllocation, ResetIfKeepsSameShapeImagesAndViews) {
  FVTImage img(9, 4, 0x311, 1);  // step 27, not what ResetIf would pick
  for (int i = 0; i < img.step * img.height; ++i) {
    img.data[i] = static_cast<unsigned char>(i * 7);
  }
  const unsigned char* block = img.data;
  img.ResetIf(9, 4, 0x311);
  EXPECT_EQ(img.data, block);
  EXPECT_EQ(img.step, 27);
  for (int i = 0; i < img.step * img.height; ++i) {
    ASSERT_EQ(img.data[i], static_cast<unsigned char>(i * 7)) << i;
  }

  Bytes caller(100, 0x33);
  FVTImage view;
  view.Attach(caller.data(), 6, 3, 0x111, 11);
  view.ResetIf(6, 3, 0x111);
  EXPECT_EQ(view.data, caller.data());
  EXPECT_TRUE(view.IsExternData());
  EXPECT_EQ(view.step, 11);

  // Any difference reallocates an owning image with 4-byte rows.
  view.ResetIf(6, 3, 0x311);
  EXPECT_NE(view.data, caller.data());
  EXPECT_FALSE(view.IsExternData());
  EXPECT_EQ(view.step, 20);
  view.ResetIf(5, 3, 0x311);
  EXPECT_EQ(view.step, 16);
  view.ResetIf(5, 2, 0x311);
  EXPECT_EQ(view.height, 2);
  FillAll(view, 4);
  EXPECT_TRUE(std::all_of(caller.begin(), caller.end(),
                          [](unsigned char v) { return v == 0x33; }));
}

TEST(FVTImageViews, AttachRecordsTheCallersLayout) {
  Bytes caller(80, 0x11);
  FVTImage img(4, 4, 0x111, 4);  // owned block, freed by Attach
  img.Lock(0x0100);
  // The format word comes before the stride.
  img.Attach(caller.data(), 5, 3, 0x311, 20);
  EXPECT_EQ(img.data, caller.data());
  EXPECT_EQ(img.width, 5);
  EXPECT_EQ(img.height, 3);
  EXPECT_EQ(img.type, 0x311);
  EXPECT_EQ(img.step, 20);
  EXPECT_EQ(img.flags, 0);
  EXPECT_TRUE(img.IsExternData());
  {
    FVTImage other;
    other.Attach(caller.data(), 5, 3, 0x311, 20);
  }  // a view's destructor leaves the caller's memory alone
  img.Clear();
  EXPECT_EQ(caller[0], 0x11);
}

// The clipping rule in plain terms: intersect the rectangle with the image;
// an empty intersection gives an empty view.
struct Clipped {
  bool empty;
  int x0, y0, width, height;
};
Clipped ClipReference(int img_w, int img_h, int x, int y, int w, int h) {
  const long left = std::max(x, 0);
  const long top = std::max(y, 0);
  const long right = std::min<long>(static_cast<long>(x) + w, img_w);
  const long bottom = std::min<long>(static_cast<long>(y) + h, img_h);
  if (right <= left || bottom <= top) return {true, 0, 0, 0, 0};
  return {false, static_cast<int>(left), static_cast<int>(top),
          static_cast<int>(right - left), static_cast<int>(bottom - top)};
}

TEST(FVTImageViews, AttachROIClipsToTheSource) {
  std::mt19937 rng(20261121);
  for (int type : {0x111, 0x311, 0x223}) {
    FVTImage src(13, 9, type, 4);
    for (int trial = 0; trial < 400; ++trial) {
      const int x = static_cast<int>(rng() % 23) - 5;
      const int y = static_cast<int>(rng() % 19) - 5;
      const int w = static_cast<int>(rng() % 22) - 3;
      const int h = static_cast<int>(rng() % 18) - 3;
      const Clipped want = ClipReference(src.width, src.height, x, y, w, h);

      // Start from an owning image of another format: its block must be
      // freed, and an empty result keeps its format word.
      FVTImage view(3, 3, 0x145, 4);
      view.AttachROI(src, ff::RectT<int>{x, y, w, h});
      SCOPED_TRACE(::testing::Message() << "type " << type << " rect " << x
                                        << "," << y << " " << w << "x" << h);
      EXPECT_EQ(view.flags, 0);
      if (want.empty) {
        EXPECT_EQ(view.data, nullptr);
        EXPECT_EQ(view.width, 0);
        EXPECT_EQ(view.height, 0);
        EXPECT_EQ(view.step, 0);
        EXPECT_EQ(view.type, 0x145);
      } else {
        EXPECT_EQ(view.data, PixelAt(src, want.x0, want.y0));
        EXPECT_EQ(view.width, want.width);
        EXPECT_EQ(view.height, want.height);
        EXPECT_EQ(view.step, src.step);
        EXPECT_EQ(view.type, type);
      }
      if (::testing::Test::HasFailure()) return;
    }
  }
}

TEST(FVTImageViews, AttachROIOnItselfChangesNothing) {
  FVTImage img(6, 5, 0x311, 4);
  const unsigned char* block = img.data;
  img.AttachROI(img, ff::RectT<int>{1, 1, 2, 2});
  EXPECT_EQ(img.data, block);
  EXPECT_EQ(img.width, 6);
  EXPECT_EQ(img.height, 5);
  EXPECT_EQ(img.flags, 1);
}

// Rows of a view of odd stride: a region of a larger padded buffer.
FVTImage RandomView(Bytes& buffer, int width, int height, int type, int stride,
                    uint32_t seed) {
  buffer.assign(static_cast<size_t>(stride) * height + 3, 0);
  FillRandom(buffer, seed);
  FVTImage view;
  view.Attach(buffer.data() + 3, width, height, type, stride);
  return view;
}

void ExpectSamePixels(const FVTImage& a, const FVTImage& b) {
  ASSERT_EQ(a.width, b.width);
  ASSERT_EQ(a.height, b.height);
  ASSERT_EQ(a.type, b.type);
  const int row_bytes = a.width * PixelBytes(a.type);
  for (int y = 0; y < a.height; ++y) {
    ASSERT_EQ(
        std::memcmp(a.data + static_cast<ptrdiff_t>(y) * a.step,
                    b.data + static_cast<ptrdiff_t>(y) * b.step, row_bytes),
        0)
        << "row " << y;
  }
}

TEST(FVTImageCopies, CopiesOwnTheirPixelsWithFourByteRows) {
  uint32_t seed = 1;
  for (int type : {0x111, 0x311, 0x223}) {
    for (int width : {1, 3, 5, 8}) {
      const int row_bytes = width * PixelBytes(type);
      Bytes buffer;
      const FVTImage view =
          RandomView(buffer, width, 4, type, row_bytes + 5, seed++);

      const FVTImage copy(view);
      SCOPED_TRACE(::testing::Message()
                   << "type " << type << " width " << width);
      EXPECT_FALSE(copy.IsExternData());
      EXPECT_EQ(copy.step, PaddedRow(row_bytes, 4));
      ExpectSamePixels(copy, view);

      FVTImage assigned(2, 2, 0x111, 4);  // its old block must be released
      assigned.Lock(0x0f00);
      assigned = view;
      EXPECT_EQ(assigned.flags, 1);
      EXPECT_EQ(assigned.step, PaddedRow(row_bytes, 4));
      ExpectSamePixels(assigned, view);

      // Neither refers to the viewed memory any more.
      const FVTImage snapshot(copy);
      std::fill(buffer.begin(), buffer.end(), 0);
      ExpectSamePixels(copy, snapshot);
      ExpectSamePixels(assigned, snapshot);
    }
  }
}

TEST(FVTImageCopies, SelfAssignmentKeepsTheBlock) {
  FVTImage img(5, 3, 0x311, 4);
  FillAll(img, 0x77);
  const unsigned char* block = img.data;
  FVTImage& alias = img;
  img = alias;
  EXPECT_EQ(img.data, block);
  EXPECT_EQ(img.data[0], 0x77);
}

TEST(FVTImageOwnership, SwapClearAndLocks) {
  Bytes caller(40, 0);
  FVTImage owner(4, 2, 0x111, 4);
  FVTImage view;
  view.Attach(caller.data(), 5, 2, 0x111, 20);
  owner.Lock(0x0200);
  const unsigned char* block = owner.data;

  owner.Swap(view);
  EXPECT_EQ(owner.data, caller.data());
  EXPECT_TRUE(owner.IsExternData());
  EXPECT_EQ(owner.step, 20);
  EXPECT_EQ(view.data, block);
  EXPECT_EQ(view.flags, 0x0201);
  EXPECT_EQ(view.width, 4);

  // Lock and Unlock touch bits 8 to 15 only, never ownership.
  view.Unlock(0xffff);
  EXPECT_EQ(view.flags, 1);
  view.Lock(0x7ff0f);
  EXPECT_EQ(view.flags, 0xff01);
  view.Unlock(0x0100);
  EXPECT_EQ(view.flags, 0xfe01);
  EXPECT_FALSE(view.IsExternData());

  view.Reset(3, 3, 0x311, 4);
  view.Clear();  // frees the block (the leak checker would notice)
  EXPECT_EQ(view.data, nullptr);
  EXPECT_EQ(view.width, 0);
  EXPECT_EQ(view.height, 0);
  EXPECT_EQ(view.step, 0);
  EXPECT_EQ(view.flags, 0);
  EXPECT_EQ(view.type, 0x311);  // a cleared image still knows its format
}

TEST(FVTImageReshape, ReinterpretsRowsWithoutCopying) {
  // Same row, other grouping of its bytes.
  Bytes caller(200, 0);
  FVTImage img;
  img.Attach(caller.data(), 10, 2, 0x311, 32);
  img.Reshape(0x111, 0);
  EXPECT_EQ(img.type, 0x111);
  EXPECT_EQ(img.width, 30);
  EXPECT_EQ(img.height, 2);
  img.Reshape(0x223, 0);  // 4 bytes a pixel: 30 / 4 truncates
  EXPECT_EQ(img.width, 7);
  img.Attach(caller.data(), 10, 2, 0x311, 32);
  img.Reshape(0x123, 15);
  EXPECT_EQ(img.type, 0x123);
  EXPECT_EQ(img.width, 15);
  img.Reshape(0, 0);  // no pixel size: width 0 rather than a division trap
  EXPECT_EQ(img.width, 0);
  EXPECT_EQ(img.data, caller.data());
  EXPECT_EQ(img.step, 32);
}

TEST(FVTImageReshape, RegroupsOnlyContiguousRowsThatDivideExactly) {
  Bytes caller(200, 0);
  FVTImage img;
  // Four grey pixels a row, six rows, contiguous: 24 bytes make four rows
  // of two colour pixels.
  img.Attach(caller.data(), 4, 6, 0x111, 4);
  img.Reshape(0x311, 2);
  EXPECT_EQ(img.type, 0x311);
  EXPECT_EQ(img.width, 2);
  EXPECT_EQ(img.height, 4);
  EXPECT_EQ(img.step, 4);  // only format, width and height are rewritten

  img.Attach(caller.data(), 4, 6, 0x111, 8);  // padded rows
  img.Reshape(0x311, 2);
  EXPECT_EQ(img.type, 0x111);
  EXPECT_EQ(img.width, 4);
  EXPECT_EQ(img.height, 6);

  img.Attach(caller.data(), 4, 6, 0x111, 4);
  img.Reshape(0x311, 5);  // 15 does not divide 24
  EXPECT_EQ(img.type, 0x111);
  EXPECT_EQ(img.width, 4);
  EXPECT_EQ(img.height, 6);
}

}  // namespace
