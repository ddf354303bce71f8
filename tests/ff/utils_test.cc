// Planes, images and their helpers against byte loops and definitions
// written inside the test, on random planes with odd sizes and padded rows.
#include "softmatte/ff/utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "softmatte/ff/fvt_image.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;
using softmatte_test::RandomBytes;
using softmatte_test::RandomPlane;

// Copies and fills against byte loops: contiguous rows on both sides (the
// single-copy path), on one side only and padded on both, planes one byte
// into their buffers. Buffers are random everywhere, padding, plane gaps and
// tail included, and compared whole: a helper must leave every byte outside
// its rows exactly as it was. The flips are checked through fiuFlip below.
TEST(PlaneHelpers, CopyAndFillMatchByteLoops) {
  const unsigned char fill = 0xC3;  // above 127: no sign mangling
  uint32_t seed = 1;
  for (int rb : {1, 2, 5, 8, 17, 42})
    for (int rows : {1, 2, 3, 6})
      for (int planes : {1, 3})
        for (auto [sp, dp] : {std::pair{0, 0}, {0, 3}, {5, 0}, {3, 7}}) {
          SCOPED_TRACE(testing::Message()
                       << rb << " x " << rows << " x " << planes << " pads "
                       << sp << "/" << dp);
          // Gaps between planes of other sizes than the row padding; with
          // one plane the gap is a tail that catches one row too many.
          const int ss = rb + sp, ds = rb + dp;
          const int sPlane = ss * rows + 4, dPlane = ds * rows + 1;
          const Bytes src = RandomBytes(size_t(sPlane) * planes + 1, seed++);
          const Bytes dst = RandomBytes(size_t(dPlane) * planes + 1, seed++);
          Bytes got = dst, set = dst, copied = dst, filled = dst;
          for (int p = 0; p < planes; ++p)
            for (int y = 0; y < rows; ++y)
              for (int x = 0; x < rb; ++x) {
                const size_t at = 1 + size_t(p) * dPlane + y * ds + x;
                copied[at] = src[1 + size_t(p) * sPlane + y * ss + x];
                filled[at] = fill;
              }
          if (planes == 1) {
            ff::ipf_memcpy_2d(&src[1], rb, rows, ss, &got[1], ds);
            ff::ipf_memset_2d(&set[1], rb, rows, ds, static_cast<char>(fill));
          } else {
            ff::ipf_memcpy_3d(&src[1], rb, rows, planes, ss, sPlane, &got[1],
                              ds, dPlane);
            ff::ipf_memset_3d(&set[1], rb, rows, planes, ds, dPlane,
                              static_cast<char>(fill));
          }
          ASSERT_TRUE(got == copied) << "copy";
          ASSERT_TRUE(set == filled) << "fill";
        }
  // Null planes and a bottom-up (negative) or zero stride in place do
  // nothing.
  const Bytes before = RandomBytes(64, 600);
  Bytes plane = before;
  unsigned char* p = plane.data();
  ff::ipf_memcpy_2d(nullptr, 8, 4, 8, p, 8);
  ff::ipf_memcpy_2d(p, 8, 4, 8, nullptr, 8);
  ff::ipf_memcpy_3d(nullptr, 8, 2, 2, 8, 16, p, 8, 16);
  ff::ipf_memcpy_3d(p, 8, 2, 2, 8, 16, nullptr, 8, 16);
  ff::ipf_memset_2d(nullptr, 8, 4, 8, 0);
  ff::ipf_memset_3d(nullptr, 8, 2, 2, 8, 16, 0);
  ff::ipf_flip_vert(nullptr, 8, 4, 8, p, 8);
  ff::ipf_flip_vert(p, 8, 4, 8, nullptr, 8);
  ff::ipf_flip_vert(nullptr, 8, 4, 8);
  ff::ipf_flip_horz(nullptr, 8, 4, 8, 1, p, 8);
  ff::ipf_flip_horz(p, 8, 4, 8, 1, nullptr, 8);
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
  std::vector<float> f(21);
  for (auto& v : f) v = (static_cast<int>(rng() % 2001) - 1000) / 4.0f;
  f[0] = 2.5f, f[1] = -2.5f, f[2] = NAN, f[3] = 0.49999997f, f[4] = 70000;
  unsigned char u8[21];
  short s16[21];
  ASSERT_EQ(1, ff::fiuConvert(f.data(), 7, 3, 28, 0x145, u8, 7, 0x111));
  ASSERT_EQ(1, ff::fiuConvert(f.data(), 7, 3, 28, 0x145, s16, 14, 0x122));
  for (int i = 0; i < 21; ++i) {
    const double r = std::isnan(f[i]) ? 0 : std::round(f[i]);
    ASSERT_EQ(u8[i], std::clamp(r, 0.0, 255.0)) << f[i];
    ASSERT_EQ(s16[i], std::clamp(r, -32768.0, 32767.0)) << f[i];
  }
  ff::FVTImage img(5, 3, ff::kFormat8UC3, 4);
  for (int i = 0; i < 45; ++i)
    img.data[i / 15 * img.step + i % 15] = u8[i % 21];
  const ff::FVTImage original(img);
  ASSERT_EQ(1, ff::fiConvert(img, img, 5));  // through a swap
  EXPECT_EQ(0x345, img.type);
  ASSERT_EQ(1, ff::fiConvert(img, img, 1));
  for (int y = 0; y < 3; ++y)
    ASSERT_EQ(0, memcmp(img.data + y * img.step,
                        original.data + y * original.step, 15));
}

// Element i of row y.
template <typename T>
T At(const Bytes& p, int step, int i, int y) {
  T v;
  memcpy(&v, &p[static_cast<size_t>(y) * step + i * sizeof(T)], sizeof(T));
  return v;
}

// Keys' cubic (a = -0.5) and the tent, written from their definitions.
double Kernel(int taps, double d) {
  d = std::fabs(d);
  if (taps == 2) return std::max(0.0, 1 - d);
  if (d <= 1) return 1.5 * d * d * d - 2.5 * d * d + 1;
  if (d < 2) return -0.5 * d * d * d + 2.5 * d * d - 4 * d + 2;
  return 0;
}

// Bilinear and cubic on odd sizes (shrinking, growing, identity) against
// the definition: centred grids, clamped taps, the sum in double, rounded
// and saturated for integers; nearest on the identity. Padding survives.
template <typename T>
void CheckResize(int channels, double tolerance, uint32_t seed) {
  const int type = ff::fiFormat<T>(channels), pb = sizeof(T) * channels;
  std::mt19937 rng(seed);
  const int sizes[][4] = {
      {7, 5, 3, 4}, {5, 3, 11, 7}, {1, 1, 3, 2}, {9, 6, 9, 6}, {13, 3, 4, 1}};
  for (const auto& s : sizes) {
    const int sw = s[0], sh = s[1], dw = s[2], dh = s[3];
    const int ss = sw * pb + 3, ds = dw * pb + 5;
    // Floats from small integers: random bytes would make NaNs.
    Bytes src = RandomPlane(sw * pb, sh, ss, seed++);
    for (int i = 0; std::is_floating_point_v<T> && i < sw * sh * channels;
         ++i) {
      const T v = static_cast<T>(static_cast<int>(rng() % 2001) - 1000);
      memcpy(&src[i / (sw * channels) * ss + i % (sw * channels) * sizeof(T)],
             &v, sizeof(T));
    }
    const bool same = sw == dw && sh == dh;
    for (int method = same ? 0 : 1; method <= 2; ++method) {
      Bytes dst = RandomPlane(dw * pb, dh, ds, seed++);
      ASSERT_EQ(1, ff::fiuResize(src.data(), sw, sh, ss, type, dst.data(), dw,
                                 dh, ds, method));
      // On the identity the tent is exact, so it stands for nearest too.
      const int taps = std::max(2, method * 2);
      const auto want = [&](int x, int y, int c) {
        const double cx = (x + 0.5) * sw / dw - 0.5;
        const double cy = (y + 0.5) * sh / dh - 0.5;
        const int x0 = static_cast<int>(std::floor(cx)) - taps / 2 + 1;
        const int y0 = static_cast<int>(std::floor(cy)) - taps / 2 + 1;
        double sum = 0;
        for (int sy = y0; sy < y0 + taps; ++sy)
          for (int sx = x0; sx < x0 + taps; ++sx)
            sum += Kernel(taps, cx - sx) * Kernel(taps, cy - sy) *
                   At<T>(src, ss, std::clamp(sx, 0, sw - 1) * channels + c,
                         std::clamp(sy, 0, sh - 1));
        if (std::is_floating_point_v<T>) return sum;
        return std::clamp(std::round(sum),
                          double{std::numeric_limits<T>::min()},
                          double{std::numeric_limits<T>::max()});
      };
      for (int y = 0; y < dh; ++y) {
        for (int x = 0; x < dw * channels; ++x) {
          ASSERT_NEAR(At<T>(dst, ds, x, y), want(x / channels, y, x % channels),
                      same ? 0 : tolerance)
              << "type " << type << " method " << method << " size "
              << &s - sizes << " at " << x << "," << y;
        }
      }
      ASSERT_TRUE(softmatte_test::PaddingIntact(dst, dw * pb, dh, ds));
    }
  }
}

TEST(FiuResize, MatchesReferenceForEveryElementType) {
  CheckResize<unsigned char>(3, 1, 1);  // fixed point: off by one at most
  CheckResize<signed char>(1, 1, 2);
  CheckResize<unsigned short>(2, 1, 3);
  CheckResize<short>(1, 1, 4);
  CheckResize<int>(1, 1, 5);  // double weights: only halves may differ
  CheckResize<float>(3, 1e-3, 6);
  // Fixed-point weights must sum to exactly one, or a flat 255 plane drifts
  // (within the tolerance above); unknown methods are refused. The image
  // form shapes its destination like the source.
  Bytes flat(9 * 7 * 3, 255), out(4 * 3 * 3, 0);
  for (int method : {1, 2}) {
    ASSERT_EQ(1, ff::fiuResize(flat.data(), 9, 7, 27, ff::kFormat8UC3,
                               out.data(), 4, 3, 12, method));
    EXPECT_EQ(out, Bytes(out.size(), 255));
  }
  EXPECT_EQ(0, ff::fiuResize(flat.data(), 9, 7, 27, ff::kFormat8UC3, out.data(),
                             4, 3, 12, 3));
  ff::FVTImage img(9, 7, ff::kFormat8UC3, 4), small(4, 3, ff::kFormat8UC1, 4);
  ASSERT_EQ(1, ff::fiuFill(img.data, 9, 7, img.step, img.type, flat.data()));
  ASSERT_EQ(1, ff::fiResize(img, small, ff::kResizeCubic));
  EXPECT_EQ(ff::kFormat8UC3, small.type);
}

using ff::FVTImage;
using Fields = std::tuple<const void*, int, int, int, int, int>;

// Data, width, height, step, type and flags, compared and printed together.
Fields Of(const FVTImage& img) {
  return {img.data, img.width, img.height, img.step, img.type, img.flags};
}

int PixelBytes(int type) { return ((type >> 4) & 15) * ((type >> 8) & 255); }

// Smallest multiple of align that holds the row.
int PaddedRow(int rowBytes, int align) {
  return (rowBytes + align - 1) / align * align;
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
      Bytes buffer = RandomBytes(stride * 4 + 3, seed++);
      const Bytes original = buffer;
      FVTImage view;
      view.Attach(buffer.data() + 3, width, 4, type, stride);
      const FVTImage copy(view);
      FVTImage assigned(2, 2, 0x111, 4);  // its old block must be released
      assigned = view;
      std::fill(buffer.begin(), buffer.end(), 0);
      for (const FVTImage* c :
           {&copy, const_cast<const FVTImage*>(&assigned)}) {
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

// Rectangles in and around a 13 x 9 image become views clipped to it; an
// empty one leaves an empty view of the old format. The owning image of
// another format that takes the view must free its block.
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
      const int right = std::min(x + w, 13), bottom = std::min(y + h, 9);
      const Fields want =
          right <= left || bottom <= top
              ? Fields(nullptr, 0, 0, 0, 0x145, 0)
              : Fields(src.data + top * src.step + left * PixelBytes(type),
                       right - left, bottom - top, src.step, type, 0);
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

// Reshape regroups only contiguous rows that divide exactly; a width of 0
// takes it from the row length (truncating), and no pixel size gives width
// 0 rather than a division trap.
TEST(FVTImage, ReshapeRegroupsOnlyContiguousRowsThatDivideExactly) {
  // {width, height, type, step, new type, new width; width, height, step,
  // type after}
  const int cases[][10] = {{10, 2, 0x311, 32, 0x111, 0, 30, 2, 32, 0x111},
                           {30, 2, 0x111, 32, 0x223, 0, 7, 2, 32, 0x223},
                           {7, 2, 0x223, 32, 0, 0, 0, 2, 32, 0},
                           {10, 2, 0x311, 32, 0x123, 15, 15, 2, 32, 0x123},
                           {4, 6, 0x111, 4, 0x311, 2, 2, 4, 4, 0x311},
                           {4, 6, 0x111, 8, 0x311, 2, 4, 6, 8, 0x111},
                           {4, 6, 0x111, 4, 0x311, 5, 4, 6, 4, 0x111}};
  Bytes caller(200, 0);
  for (const auto& c : cases) {
    FVTImage img;
    img.Attach(caller.data(), c[0], c[1], c[2], c[3]);
    img.Reshape(c[4], c[5]);
    EXPECT_EQ(Of(img), Fields(caller.data(), c[6], c[7], c[8], c[9], 0))
        << &c - cases;
  }
}

}  // namespace
