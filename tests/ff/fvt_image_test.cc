#include "softmatte/ff/fvt_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ostream>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using ff::FVTImage;
using softmatte_test::FillRandom;
using Bytes = std::vector<unsigned char>;

// The six fields, compared and printed together.
struct Fields {
  const unsigned char* data;
  int width, height, step, type, flags;
  bool operator==(const Fields& o) const {
    return data == o.data && width == o.width && height == o.height &&
           step == o.step && type == o.type && flags == o.flags;
  }
};
std::ostream& operator<<(std::ostream& os, const Fields& f) {
  return os << "{" << static_cast<const void*>(f.data) << ", " << f.width << "x"
            << f.height << ", step " << f.step << ", type 0x" << std::hex
            << f.type << ", flags 0x" << f.flags << std::dec << "}";
}
Fields Of(const FVTImage& img) {
  return {img.data, img.width, img.height, img.step, img.type, img.flags};
}

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

TEST(FVTImageAllocation, RowsArePaddedToTheAlignment) {
  // Formats of 1 to 12 bytes per pixel: bytes, 16-bit pairs, float triples.
  for (int type : {0x111, 0x311, 0x411, 0x123, 0x223, 0x345}) {
    for (int width = 1; width <= 17; ++width) {
      for (int align : {1, 2, 4, 8, 16}) {
        FVTImage img(width, 3, type, align);
        const int step = PaddedRow(width * PixelBytes(type), align);
        ASSERT_EQ(Of(img), (Fields{img.data, width, 3, step, type, 1}))
            << "align " << align;
        ASSERT_NE(img.data, nullptr);
        FillAll(img, 0x5A);
      }
    }
  }
  // A colour row of 15 bytes takes 16; 8 grey bytes are already aligned.
  EXPECT_EQ(FVTImage(5, 2, 785, 4).step, 16);
  EXPECT_EQ(FVTImage(8, 2, 273, 4).step, 8);
  // Degenerate alignments: 0 gives no row at all, -1 the bare row.
  EXPECT_EQ(FVTImage(5, 2, 785, 0).step, 0);
  EXPECT_EQ(FVTImage(5, 2, 785, -1).step, 15);
}

TEST(FVTImageAllocation, ResetAllocatesBeforeFreeingAndDropsLocks) {
  FVTImage img(7, 3, 0x111, 4);
  img.Lock(0x0300);
  const unsigned char* old = img.data;
  img.Reset(7, 3, 0x111, 4);
  // Both blocks exist at the same moment, so they cannot coincide.
  EXPECT_NE(img.data, old);
  EXPECT_EQ(Of(img), (Fields{img.data, 7, 3, 8, 0x111, 1}));
  img.Reset(3, 5, 0x311, 8);
  EXPECT_EQ(Of(img), (Fields{img.data, 3, 5, 16, 0x311, 1}));
  FillAll(img, 2);
  img.StepReset(5, 4, 0x111, 37);  // the stride is taken as given
  EXPECT_EQ(Of(img), (Fields{img.data, 5, 4, 37, 0x111, 1}));
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
  const Fields before = Of(img);
  img.ResetIf(9, 4, 0x311);
  EXPECT_EQ(Of(img), before);
  for (int i = 0; i < img.step * img.height; ++i) {
    ASSERT_EQ(img.data[i], static_cast<unsigned char>(i * 7)) << i;
  }

  Bytes caller(100, 0x33);
  FVTImage view;
  view.Attach(caller.data(), 6, 3, 0x111, 11);
  view.ResetIf(6, 3, 0x111);
  EXPECT_EQ(Of(view), (Fields{caller.data(), 6, 3, 11, 0x111, 0}));

  // Any difference reallocates an owning image with 4-byte rows.
  view.ResetIf(6, 3, 0x311);
  EXPECT_EQ(Of(view), (Fields{view.data, 6, 3, 20, 0x311, 1}));
  EXPECT_NE(view.data, caller.data());
  view.ResetIf(5, 3, 0x311);
  EXPECT_EQ(view.step, 16);
  view.ResetIf(5, 2, 0x311);
  EXPECT_EQ(view.height, 2);
  FillAll(view, 4);
  EXPECT_EQ(std::count(caller.begin(), caller.end(), 0x33), 100);
}

TEST(FVTImageViews, AttachRecordsTheCallersLayoutAndNeverFreesIt) {
  Bytes caller(80, 0x11);
  FVTImage img(4, 4, 0x111, 4);  // owned block, freed by Attach
  img.Lock(0x0100);
  img.Attach(caller.data(), 5, 3, 0x311, 20);  // format word before stride
  EXPECT_EQ(Of(img), (Fields{caller.data(), 5, 3, 20, 0x311, 0}));
  EXPECT_TRUE(img.IsExternData());
  {
    FVTImage other;
    other.Attach(caller.data(), 5, 3, 0x311, 20);
  }
  img.Clear();
  EXPECT_EQ(caller[0], 0x11);
}

// The clipping rule in plain terms: intersect the rectangle with the image;
// an empty intersection gives an empty view.
Fields ClipReference(const FVTImage& src, int x, int y, int w, int h,
                     int old_type) {
  const long left = std::max(x, 0);
  const long top = std::max(y, 0);
  const long right = std::min<long>(static_cast<long>(x) + w, src.width);
  const long bottom = std::min<long>(static_cast<long>(y) + h, src.height);
  if (right <= left || bottom <= top) return {nullptr, 0, 0, 0, old_type, 0};
  return {src.data + top * src.step + left * PixelBytes(src.type),
          static_cast<int>(right - left),
          static_cast<int>(bottom - top),
          src.step,
          src.type,
          0};
}

TEST(FVTImageViews, AttachROIClipsToTheSourceAndKeepsTheOldFormatWhenEmpty) {
  std::mt19937 rng(20261121);
  for (int type : {0x111, 0x311, 0x223}) {
    FVTImage src(13, 9, type, 4);
    for (int trial = 0; trial < 400; ++trial) {
      const int x = static_cast<int>(rng() % 23) - 5;
      const int y = static_cast<int>(rng() % 19) - 5;
      const int w = static_cast<int>(rng() % 22) - 3;
      const int h = static_cast<int>(rng() % 18) - 3;
      // An owning image of another format: its block must be freed.
      FVTImage view(3, 3, 0x145, 4);
      view.AttachROI(src, ff::RectT<int>{x, y, w, h});
      ASSERT_EQ(Of(view), ClipReference(src, x, y, w, h, 0x145))
          << "rect " << x << "," << y << " " << w << "x" << h;
    }
  }
  FVTImage img(6, 5, 0x311, 4);
  const Fields before = Of(img);
  img.AttachROI(img, ff::RectT<int>{1, 1, 2, 2});
  EXPECT_EQ(Of(img), before);
}

void ExpectSamePixels(const FVTImage& a, const FVTImage& b) {
  ASSERT_EQ(a.width, b.width);
  ASSERT_EQ(a.height, b.height);
  ASSERT_EQ(a.type, b.type);
  for (int y = 0; y < a.height; ++y) {
    ASSERT_EQ(std::memcmp(a.data + static_cast<ptrdiff_t>(y) * a.step,
                          b.data + static_cast<ptrdiff_t>(y) * b.step,
                          a.width * PixelBytes(a.type)),
              0)
        << "row " << y;
  }
}

TEST(FVTImageCopies, CopiesOfViewsOwnTheirPixelsWithFourByteRows) {
  uint32_t seed = 1;
  for (int type : {0x111, 0x311, 0x223}) {
    for (int width : {1, 3, 5, 8}) {
      SCOPED_TRACE(::testing::Message()
                   << "type " << type << " width " << width);
      const int row_bytes = width * PixelBytes(type);
      const int stride = row_bytes + 5;
      // A view of odd stride that starts at an odd address.
      Bytes buffer(static_cast<size_t>(stride) * 4 + 3);
      FillRandom(buffer, seed++);
      FVTImage view;
      view.Attach(buffer.data() + 3, width, 4, type, stride);

      const FVTImage copy(view);
      EXPECT_EQ(Of(copy), (Fields{copy.data, width, 4, PaddedRow(row_bytes, 4),
                                  type, 1}));
      ExpectSamePixels(copy, view);

      FVTImage assigned(2, 2, 0x111, 4);  // its old block must be released
      assigned.Lock(0x0f00);
      assigned = view;
      EXPECT_EQ(Of(assigned), (Fields{assigned.data, width, 4,
                                      PaddedRow(row_bytes, 4), type, 1}));
      ExpectSamePixels(assigned, view);

      // Neither refers to the viewed memory any more.
      const FVTImage snapshot(copy);
      std::fill(buffer.begin(), buffer.end(), 0);
      ExpectSamePixels(copy, snapshot);
      ExpectSamePixels(assigned, snapshot);
    }
  }
  FVTImage img(5, 3, 0x311, 4);
  FillAll(img, 0x77);
  const Fields before = Of(img);
  FVTImage& alias = img;
  img = alias;
  EXPECT_EQ(Of(img), before);
  EXPECT_EQ(img.data[0], 0x77);
}

TEST(FVTImageOwnership, SwapMovesOwnershipAndClearKeepsTheFormat) {
  Bytes caller(40, 0);
  FVTImage owner(4, 2, 0x111, 4);
  FVTImage view;
  view.Attach(caller.data(), 5, 2, 0x111, 20);
  owner.Lock(0x0200);
  const Fields owner_before = Of(owner);
  const Fields view_before = Of(view);
  owner.Swap(view);
  EXPECT_EQ(Of(owner), view_before);
  EXPECT_EQ(Of(view), owner_before);

  // Lock and Unlock touch bits 8 to 15 only, never ownership.
  view.Unlock(0xffff);
  EXPECT_EQ(view.flags, 1);
  view.Lock(0x7ff0f);
  EXPECT_EQ(view.flags, 0xff01);
  view.Unlock(0x0100);
  EXPECT_EQ(view.flags, 0xfe01);

  view.Reset(3, 3, 0x311, 4);
  view.Clear();  // frees the block (the leak checker would notice)
  EXPECT_EQ(Of(view), (Fields{nullptr, 0, 0, 0, 0x311, 0}));
}

TEST(FVTImageReshape, ReinterpretsRowsWithoutCopying) {
  Bytes caller(200, 0);
  FVTImage img;
  img.Attach(caller.data(), 10, 2, 0x311, 32);
  img.Reshape(0x111, 0);  // width from the row length
  EXPECT_EQ(Of(img), (Fields{caller.data(), 30, 2, 32, 0x111, 0}));
  img.Reshape(0x223, 0);  // 4 bytes a pixel: 30 / 4 truncates
  EXPECT_EQ(img.width, 7);
  img.Reshape(0, 0);  // no pixel size: width 0 rather than a division trap
  EXPECT_EQ(img.width, 0);
  img.Attach(caller.data(), 10, 2, 0x311, 32);
  img.Reshape(0x123, 15);
  EXPECT_EQ(Of(img), (Fields{caller.data(), 15, 2, 32, 0x123, 0}));

  // Four grey pixels a row, six rows, contiguous: 24 bytes make four rows
  // of two colour pixels. Only format, width and height are rewritten.
  img.Attach(caller.data(), 4, 6, 0x111, 4);
  img.Reshape(0x311, 2);
  EXPECT_EQ(Of(img), (Fields{caller.data(), 2, 4, 4, 0x311, 0}));
  // Padded rows cannot be regrouped, nor can 15-byte rows fill 24 bytes.
  img.Attach(caller.data(), 4, 6, 0x111, 8);
  img.Reshape(0x311, 2);
  EXPECT_EQ(Of(img), (Fields{caller.data(), 4, 6, 8, 0x111, 0}));
  img.Attach(caller.data(), 4, 6, 0x111, 4);
  img.Reshape(0x311, 5);
  EXPECT_EQ(Of(img), (Fields{caller.data(), 4, 6, 4, 0x111, 0}));
}

}  // namespace
