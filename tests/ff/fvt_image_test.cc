#include "softmatte/ff/fvt_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "test_util.h"

namespace {

using ff::FVTImage;
using Bytes = std::vector<unsigned char>;
using Fields = std::tuple<const void*, int, int, int, int, int>;

// Data, width, height, step, type and flags, compared and printed together.
Fields Of(const FVTImage& img) {
  return {img.data, img.width, img.height, img.step, img.type, img.flags};
}

int PixelBytes(int type) { return ((type >> 4) & 15) * ((type >> 8) & 255); }

// Smallest multiple of align that holds the row, found by counting up.
int PaddedRow(int rowBytes, int align) {
  int step = 0;
  while (step < rowBytes) step += align;
  return step;
}

// Owners pad rows to the alignment (0 gives no row, -1 the bare row);
// copies of views, made or assigned, own their pixels with 4-byte rows.
TEST(FVTImage, OwnersPadRowsAndCopiesOfViewsOwnTheirPixels) {
  uint32_t seed = 1;
  for (int type : {0x111, 0x311, 0x223, 0x345}) {
    for (int width = 1; width <= 17; ++width) {
      const int rowBytes = width * PixelBytes(type), stride = rowBytes + 5;
      for (int align : {1, 2, 4, 8, 16}) {
        FVTImage img(width, 3, type, align);
        ASSERT_EQ(Of(img), Fields(img.data, width, 3,
                                  PaddedRow(rowBytes, align), type, 1));
        // Under ASan a block smaller than step * height fails here.
        std::memset(img.data, 0x5A, static_cast<size_t>(img.step) * 3);
      }
      // A view of odd stride that starts at an odd address.
      Bytes buffer = softmatte_test::RandomBytes(stride * 4 + 3, seed++);
      const Bytes original = buffer;
      FVTImage view;
      view.Attach(buffer.data() + 3, width, 4, type, stride);
      const FVTImage copy(view);
      FVTImage assigned(2, 2, 0x111, 4);  // its old block must be released
      assigned = view;
      std::fill(buffer.begin(), buffer.end(), 0);
      for (const FVTImage* c :
           {&copy, static_cast<const FVTImage*>(&assigned)}) {
        ASSERT_EQ(Of(*c),
                  Fields(c->data, width, 4, PaddedRow(rowBytes, 4), type, 1));
        for (int y = 0; y < 4; ++y)
          ASSERT_EQ(std::memcmp(c->data + y * c->step,
                                original.data() + 3 + y * stride, rowBytes),
                    0)
              << "type " << type << " width " << width << " row " << y;
      }
    }
  }
  EXPECT_EQ(FVTImage(5, 2, 0x311, 0).step, 0);
  EXPECT_EQ(FVTImage(5, 2, 0x311, -1).step, 15);
  // ResetIf keeps a same-shape view; any difference makes an owner with
  // 4-byte rows.
  Bytes caller(100, 0x33);
  FVTImage view;
  view.Attach(caller.data(), 6, 3, 0x111, 11);
  view.ResetIf(6, 3, 0x111);
  EXPECT_EQ(Of(view), Fields(caller.data(), 6, 3, 11, 0x111, 0));
  view.ResetIf(5, 3, 0x311);
  EXPECT_EQ(Of(view), Fields(view.data, 5, 3, 16, 0x311, 1));
  EXPECT_EQ(std::count(caller.begin(), caller.end(), 0x33), 100);
}

TEST(FVTImage, AttachROIClipsToTheSourceAndKeepsTheOldFormatWhenEmpty) {
  std::mt19937 rng(20261121);
  for (int type : {0x111, 0x311, 0x223}) {
    FVTImage src(13, 9, type, 4);
    for (int trial = 0; trial < 400; ++trial) {
      const int x = static_cast<int>(rng() % 23) - 5;
      const int y = static_cast<int>(rng() % 19) - 5;
      const int w = static_cast<int>(rng() % 22) - 3;
      const int h = static_cast<int>(rng() % 18) - 3;
      const int left = std::max(x, 0), top = std::max(y, 0);
      const int right = std::min(x + w, src.width);
      const int bottom = std::min(y + h, src.height);
      const Fields want =
          right <= left || bottom <= top
              ? Fields(nullptr, 0, 0, 0, 0x145, 0)
              : Fields(src.data + top * src.step + left * PixelBytes(type),
                       right - left, bottom - top, src.step, type, 0);
      // An owning image of another format: its block must be freed.
      FVTImage view(3, 3, 0x145, 4);
      view.AttachROI(src, ff::RectT<int>{x, y, w, h});
      ASSERT_EQ(Of(view), want)
          << "rect " << x << "," << y << " " << w << "x" << h;
    }
  }
  FVTImage img(6, 5, 0x311, 4);
  const Fields before = Of(img);
  img.AttachROI(img, ff::RectT<int>{1, 1, 2, 2});
  EXPECT_EQ(Of(img), before);
}

TEST(FVTImage, ReshapeRegroupsOnlyContiguousRowsThatDivideExactly) {
  Bytes caller(200, 0);
  unsigned char* p = caller.data();
  FVTImage img;
  img.Attach(p, 10, 2, 0x311, 32);
  img.Reshape(0x111, 0);  // width from the row length
  EXPECT_EQ(Of(img), Fields(p, 30, 2, 32, 0x111, 0));
  img.Reshape(0x223, 0);  // 4 bytes a pixel: 30 / 4 truncates
  EXPECT_EQ(img.width, 7);
  img.Reshape(0, 0);  // no pixel size: width 0 rather than a division trap
  EXPECT_EQ(img.width, 0);
  img.Attach(p, 10, 2, 0x311, 32);
  img.Reshape(0x123, 15);
  EXPECT_EQ(Of(img), Fields(p, 15, 2, 32, 0x123, 0));
  // 4 x 6 contiguous grey bytes make 4 rows of two colour pixels.
  img.Attach(p, 4, 6, 0x111, 4);
  img.Reshape(0x311, 2);
  EXPECT_EQ(Of(img), Fields(p, 2, 4, 4, 0x311, 0));
  // Padded rows cannot be regrouped, nor can 15-byte rows fill 24 bytes.
  img.Attach(p, 4, 6, 0x111, 8);
  img.Reshape(0x311, 2);
  EXPECT_EQ(Of(img), Fields(p, 4, 6, 8, 0x111, 0));
  img.Attach(p, 4, 6, 0x111, 4);
  img.Reshape(0x311, 5);
  EXPECT_EQ(Of(img), Fields(p, 4, 6, 4, 0x111, 0));
}

}  // namespace
