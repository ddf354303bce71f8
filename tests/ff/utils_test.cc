// Planes, images and their helpers against byte loops and definitions
// written inside the test, on random planes with odd sizes and padded rows.
#include "softmatte/ff/utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "softmatte/ff/fvt_image.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;
using softmatte_test::RandomBytes;
using softmatte_test::RandomPlane;

// The plane helpers' copies and fills run inside every plane function
// checked below and all through the library; here only what they refuse.
TEST(PlaneHelpers, NullPlanesAndBadStridesDoNothing) {
  const Bytes before = RandomBytes(64, 600);
  Bytes plane = before;
  unsigned char* p = plane.data();
  for (unsigned char* q : {p, static_cast<unsigned char*>(nullptr)}) {
    unsigned char* r = q ? nullptr : p;  // one side or the other null
    ff::ipf_memcpy_2d(q, 8, 4, 8, r, 8);
    ff::ipf_memcpy_3d(q, 8, 2, 2, 8, 16, r, 8, 16);
    ff::ipf_flip_vert(q, 8, 4, 8, r, 8);
    ff::ipf_flip_horz(q, 8, 4, 8, 1, r, 8);
  }
  ff::ipf_memset_2d(nullptr, 8, 4, 8, 0);
  ff::ipf_memset_3d(nullptr, 8, 2, 2, 8, 16, 0);
  ff::ipf_flip_vert(nullptr, 8, 4, 8);
  ff::ipf_flip_horz(nullptr, 8, 4, 8, 1);
  ff::ipf_flip_vert(p + 24, 8, 4, -8);
  ff::ipf_flip_vert(p, 8, 4, 0);
  EXPECT_TRUE(plane == before);
}

// The naive result: plane with the n bytes at pitch * x of each row y < h
// replaced by want(x, y); everything else, padding included, as it was.
template <typename F>
Bytes Expected(Bytes plane, int step, int w, int h, int pitch, int n, F want) {
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      memcpy(&plane[static_cast<size_t>(y) * step + x * pitch], want(x, y), n);
  return plane;
}

// Every plane mover against the naive result, then the round trips (flip
// twice, swap twice, grey -> colour -> grey, cast up and back). Formats have
// odd element counts per row; strides get odd padding so that rows of wide
// elements also start unaligned.
TEST(FiuPlanes, MatchReferenceAndRoundTrip) {
  uint32_t seed = 1;
  for (int type : {0x111, 0x311, 0x110, 0x122, 0x223, 0x423, 0x144, 0x345}) {
    const int eb = (type >> 4) & 15, ch = (type >> 8) & 255, pb = eb * ch;
    for (int w : {1, 4, 7}) {
      const int h = w == 4 ? 1 : 3, ss = w * pb + 3, ds = (w + 5) * pb + 5;
      SCOPED_TRACE(::testing::Message() << "type " << type << " " << w);
      const Bytes src = RandomPlane(w * pb, h, ss, seed++);
      const auto at = [&](int x, int y) { return &src[y * ss + x * pb]; };
      const Bytes pixel = RandomPlane(pb, 1, pb, seed++);
      Bytes dst = RandomPlane((w + 5) * pb, h + 3, ds, seed++);
      Bytes want = Expected(dst, ds, w, h, pb, pb,
                            [&](int, int) { return pixel.data(); });
      ASSERT_EQ(1, ff::fiuFill(dst.data(), w, h, ds, type, pixel.data()));
      ASSERT_TRUE(dst == want) << "fill";

      const int border[4] = {2, 1, 3, 2};  // left, top, right, bottom
      const unsigned char* none = nullptr;
      for (const unsigned char* value : {pixel.data(), none}) {
        want = Expected(dst, ds, w + 5, h + 3, pb, pb, [&](int x, int y) {
          const int sx = std::clamp(x - 2, 0, w - 1);
          const int sy = std::clamp(y - 1, 0, h - 1);
          const bool inside = sx == x - 2 && sy == y - 1;
          return value && !inside ? value : at(sx, sy);
        });
        ASSERT_EQ(1, ff::fiuCopyBorder(src.data(), w, h, ss, type, dst.data(),
                                       ds, border, value));
        ASSERT_TRUE(dst == want) << "border";
      }

      want = Expected(dst, ds, w + 5, h + 3, pb, pb,
                      [&](int x, int y) { return at(x % w, y % h); });
      ASSERT_EQ(1, ff::fiuTile(src.data(), w, h, ss, type, dst.data(), w + 5,
                               h + 3, ds));
      ASSERT_TRUE(dst == want) << "tile";

      // Last channel of src into channel 0 of a two-channel plane.
      want = Expected(dst, ds, w, h, 2 * eb, eb,
                      [&](int x, int y) { return at(x, y) + (ch - 1) * eb; });
      ASSERT_EQ(1, ff::fiuCopyChannel(src.data(), w, h, ss, type, ch - 1,
                                      dst.data(), ds, (type & 255) | 0x200, 0));
      ASSERT_TRUE(dst == want) << "channel";

      const Bytes same = Expected(dst, ds, w, h, pb, pb, at);
      Bytes copy = dst;
      ASSERT_EQ(1, ff::fiuCopy(src.data(), w, h, ss, type, copy.data(), ds));
      ASSERT_TRUE(copy == same) << "copy";
      for (int mode : {1, 2, 3}) {
        want = Expected(dst, ds, w, h, pb, pb, [&](int x, int y) {
          return at(mode & 1 ? w - 1 - x : x, mode & 2 ? h - 1 - y : y);
        });
        ASSERT_EQ(
            1, ff::fiuFlip(src.data(), w, h, ss, type, dst.data(), ds, mode));
        ASSERT_TRUE(dst == want) << "flip";
        ASSERT_EQ(1, ff::fiuFlip(dst.data(), w, h, ds, type, dst.data(), ds,
                                 mode));  // in place
        ASSERT_TRUE(dst == same) << "flip twice " << mode;
      }
      ASSERT_EQ(1, ff::fiuSwapChannels(src.data(), w, h, ss, type, dst.data(),
                                       ds, 0, ch - 1));
      ASSERT_EQ(1, ff::fiuSwapChannels(dst.data(), w, h, ds, type, dst.data(),
                                       ds, ch - 1, 0));
      ASSERT_TRUE(dst == same) << "swap twice";

      // The first w elements of each row viewed as a grey plane. Random
      // float bytes include signalling NaNs, which arithmetic may quieten.
      const int kind = type & 15, grey = (type & 255) | 0x100;
      if (kind == 5) continue;
      Bytes colour(static_cast<size_t>(w * 12 + 1) * h), back = dst;
      want = Expected(back, ds, w, h, eb, eb,
                      [&](int x, int y) { return &src[y * ss + x * eb]; });
      ASSERT_EQ(1, ff::fiuGreyToColour(src.data(), w, h, ss, grey,
                                       colour.data(), w * 12 + 1, 3));
      ASSERT_EQ(1, ff::fiuColourToGrey(colour.data(), w, h, w * 12 + 1,
                                       grey + 0x200, back.data(), ds));
      ASSERT_TRUE(back == want) << "grey";
      if (kind == 4) continue;  // no wider element holds every s32
      const int wider = kind == 0 ? 0x122 : 0x145;
      back = dst;
      ASSERT_EQ(1, ff::fiuConvert(src.data(), w, h, ss, grey, colour.data(),
                                  w * 4 + 1, wider));
      ASSERT_EQ(1, ff::fiuConvert(colour.data(), w, h, w * 4 + 1, wider,
                                  back.data(), ds, grey));
      ASSERT_TRUE(back == want) << "cast";
    }
  }
  // Format words the six-entry tables cannot dispatch are refused.
  Bytes plane(64, 0);
  EXPECT_EQ(0, ff::fiuFill(plane.data(), 2, 2, 8, 0x116, plane.data()));
  EXPECT_EQ(0, ff::fiuFlip(plane.data(), 2, 2, 8, 0x121, plane.data(), 8, 1));
  // So are channels one past the last, on either side.
  EXPECT_EQ(0, ff::fiuCopyChannel(plane.data(), 2, 2, 8, 0x311, 3, plane.data(),
                                  8, 0x211, 0));
  EXPECT_EQ(0, ff::fiuCopyChannel(plane.data(), 2, 2, 8, 0x311, 2, plane.data(),
                                  8, 0x211, 2));
}

// Float to narrower elements: halves away from zero, then clamp; NaN
// gives 0. Then the image form in place, up to float and back.
TEST(FiuConvert, RoundsSaturatesAndWorksInPlace) {
  std::mt19937 rng(7);
  float f[21] = {2.5f, -2.5f, NAN, 0.49999997f, 70000};
  for (int i = 5; i < 21; ++i) f[i] = int(rng() % 2001 - 1000) / 4.0f;
  unsigned char u8[21];
  short s16[21];
  ASSERT_EQ(1, ff::fiuConvert(f, 7, 3, 28, 0x145, u8, 7, 0x111));
  ASSERT_EQ(1, ff::fiuConvert(f, 7, 3, 28, 0x145, s16, 14, 0x122));
  for (int i = 0; i < 21; ++i) {
    const double r = std::isnan(f[i]) ? 0 : std::round(f[i]);
    ASSERT_EQ(u8[i], std::clamp(r, 0.0, 255.0)) << f[i];
    ASSERT_EQ(s16[i], std::clamp(r, -32768.0, 32767.0)) << f[i];
  }
  ff::FVTImage img(5, 3, ff::kFormat8UC3, 4);  // rows of 15 bytes in 16
  const Bytes original = RandomBytes(52, 7);
  std::copy_n(original.begin(), 48, img.data);
  ASSERT_EQ(1, ff::fiConvert(img, img, 5));  // through a swap
  EXPECT_EQ(0x345, img.type);
  ASSERT_EQ(1, ff::fiConvert(img, img, 1));
  // Copies of a view of odd stride, made or assigned, own their pixels with
  // 4-byte rows; the assigned image's old block must be released.
  ff::FVTImage view, assigned(2, 2, ff::kFormat8UC1, 4);
  view.Attach(const_cast<unsigned char*>(&original[1]), 5, 3, 0x311, 17);
  const ff::FVTImage copy(view);
  assigned = view;
  for (const ff::FVTImage* c :
       {&std::as_const(img), &copy, &std::as_const(assigned)}) {
    ASSERT_TRUE(c->flags == 1 && c->step == 16 && c->data != &original[1]);
    for (int y = 0; y < 3; ++y)
      ASSERT_EQ(0, memcmp(c->data + y * 16,
                          &original[c == &img ? y * 16 : 1 + y * 17], 15));
  }
}

}  // namespace
