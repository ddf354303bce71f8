#include "softmatte/ff/utils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;
using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;

int PixelBytes(int type) { return ((type >> 4) & 15) * ((type >> 8) & 255); }

const unsigned char* Pixel(const Bytes& p, int step, int type, int x, int y) {
  return p.data() + static_cast<size_t>(y) * step + x * PixelBytes(type);
}

// Formats with odd element counts per row; strides get odd padding so that
// rows of wide elements also start unaligned.
const int kTypes[] = {0x111, 0x311, 0x110, 0x122, 0x223, 0x423, 0x144, 0x345};

TEST(FiuPlaneMoves, CopyFillBorderTileAndChannelCopyMatchReference) {
  uint32_t seed = 1;
  for (int type : kTypes) {
    const int pb = PixelBytes(type);
    for (int w : {1, 3, 7}) {
      for (int h : {1, 4}) {
        const int ss = w * pb + 3, ds = (w + 5) * pb + 5, ok = 1;
        const Bytes src = RandomPlane(w * pb, h, ss, seed++);
        const Bytes pixel = RandomPlane(pb, 1, pb, seed++);
        Bytes copy = RandomPlane(w * pb, h, w * pb + 1, seed++);
        Bytes fill = copy;
        ASSERT_EQ(ok, ff::fiuCopy(src.data(), w, h, ss, type, copy.data(),
                                  w * pb + 1));
        ASSERT_EQ(
            ok, ff::fiuFill(fill.data(), w, h, w * pb + 1, type, pixel.data()));
        for (int y = 0; y < h; ++y) {
          for (int x = 0; x < w; ++x) {
            ASSERT_EQ(0, memcmp(Pixel(copy, w * pb + 1, type, x, y),
                                Pixel(src, ss, type, x, y), pb));
            ASSERT_EQ(0, memcmp(Pixel(fill, w * pb + 1, type, x, y),
                                pixel.data(), pb));
          }
        }
        ASSERT_TRUE(PaddingIntact(copy, w * pb, h, w * pb + 1));
        ASSERT_TRUE(PaddingIntact(fill, w * pb, h, w * pb + 1));

        const int border[4] = {2, 1, 3, 2};  // left, top, right, bottom
        for (const void* value : {static_cast<const void*>(pixel.data()),
                                  static_cast<const void*>(nullptr)}) {
          Bytes dst = RandomPlane((w + 5) * pb, h + 3, ds, seed++);
          ASSERT_EQ(ok, ff::fiuCopyBorder(src.data(), w, h, ss, type,
                                          dst.data(), ds, border, value));
          for (int y = 0; y < h + 3; ++y) {
            for (int x = 0; x < w + 5; ++x) {
              const int sx = std::min(std::max(x - 2, 0), w - 1);
              const int sy = std::min(std::max(y - 1, 0), h - 1);
              const bool inside = sx == x - 2 && sy == y - 1;
              const unsigned char* want = value && !inside
                                              ? pixel.data()
                                              : Pixel(src, ss, type, sx, sy);
              ASSERT_EQ(0, memcmp(Pixel(dst, ds, type, x, y), want, pb))
                  << type << " " << w << "x" << h << " at " << x << "," << y;
            }
          }
          ASSERT_TRUE(PaddingIntact(dst, (w + 5) * pb, h + 3, ds));
        }

        Bytes tiled = RandomPlane((w + 5) * pb, h + 3, ds, seed++);
        ASSERT_EQ(ok, ff::fiuTile(src.data(), w, h, ss, type, tiled.data(),
                                  w + 5, h + 3, ds));
        for (int y = 0; y < h + 3; ++y) {
          for (int x = 0; x < w + 5; ++x) {
            ASSERT_EQ(0, memcmp(Pixel(tiled, ds, type, x, y),
                                Pixel(src, ss, type, x % w, y % h), pb));
          }
        }
        ASSERT_TRUE(PaddingIntact(tiled, (w + 5) * pb, h + 3, ds));

        // Last channel of src into channel 0 of a two-channel plane.
        const int eb = (type >> 4) & 15, ch = (type >> 8) & 255;
        const int two = (type & 255) | 0x200;
        Bytes pair = RandomPlane(w * 2 * eb, h, w * 2 * eb + 1, seed++);
        const Bytes before = pair;
        ASSERT_EQ(ok, ff::fiuCopyChannel(src.data(), w, h, ss, type, ch - 1,
                                         pair.data(), w * 2 * eb + 1, two, 0));
        for (int y = 0; y < h; ++y) {
          for (int x = 0; x < w; ++x) {
            const unsigned char* p = Pixel(pair, w * 2 * eb + 1, two, x, y);
            ASSERT_EQ(
                0, memcmp(p, Pixel(src, ss, type, x, y) + (ch - 1) * eb, eb));
            ASSERT_EQ(
                0, memcmp(p + eb, Pixel(before, w * 2 * eb + 1, two, x, y) + eb,
                          eb));
          }
        }
      }
    }
  }
  // Format words the six-entry tables cannot dispatch are refused.
  Bytes plane(64, 0);
  EXPECT_EQ(0, ff::fiuFill(plane.data(), 2, 2, 8, 0x116, plane.data()));
  EXPECT_EQ(0, ff::fiuFlip(plane.data(), 2, 2, 8, 0x121, plane.data(), 8, 1));
  EXPECT_EQ(0, ff::fiuConvert(plane.data(), 2, 2, 8, 0x111, plane.data() + 32,
                              8, 0x311));
}

TEST(FiuRoundTrips, FlipSwapGreyAndCastsComeBack) {
  uint32_t seed = 100;
  for (int type : kTypes) {
    const int pb = PixelBytes(type), eb = (type >> 4) & 15;
    const int ch = (type >> 8) & 255;
    for (int w : {1, 4, 7}) {
      const int h = 3, ss = w * pb + 3, ds = w * pb + 5;
      const Bytes src = RandomPlane(w * pb, h, ss, seed++);
      for (int mode : {1, 2, 3}) {
        Bytes dst = RandomPlane(w * pb, h, ds, seed++);
        ASSERT_EQ(
            1, ff::fiuFlip(src.data(), w, h, ss, type, dst.data(), ds, mode));
        for (int y = 0; y < h; ++y) {
          for (int x = 0; x < w; ++x) {
            const int sx = mode & 1 ? w - 1 - x : x;
            const int sy = mode & 2 ? h - 1 - y : y;
            ASSERT_EQ(0, memcmp(Pixel(dst, ds, type, x, y),
                                Pixel(src, ss, type, sx, sy), pb));
          }
        }
        ASSERT_EQ(
            1, ff::fiuFlip(dst.data(), w, h, ds, type, dst.data(), ds, mode));
        for (int y = 0; y < h; ++y) {
          ASSERT_EQ(0, memcmp(Pixel(dst, ds, type, 0, y),
                              Pixel(src, ss, type, 0, y), w * pb));
        }
        ASSERT_TRUE(PaddingIntact(dst, w * pb, h, ds));
      }
      Bytes swapped = RandomPlane(w * pb, h, ds, seed++);
      ASSERT_EQ(1, ff::fiuSwapChannels(src.data(), w, h, ss, type,
                                       swapped.data(), ds, 0, ch - 1));
      for (int x = 0; x < w; ++x) {
        ASSERT_EQ(0, memcmp(Pixel(swapped, ds, type, x, 1),
                            Pixel(src, ss, type, x, 1) + (ch - 1) * eb, eb));
      }
      ASSERT_EQ(1, ff::fiuSwapChannels(swapped.data(), w, h, ds, type,
                                       swapped.data(), ds, ch - 1, 0));
      ASSERT_EQ(0, memcmp(Pixel(swapped, ds, type, 0, 2),
                          Pixel(src, ss, type, 0, 2), w * pb));
      ASSERT_TRUE(PaddingIntact(swapped, w * pb, h, ds));

      // Grey -> colour -> grey and casts up and back, on the first w
      // elements of each row viewed as a grey plane. Random float bytes
      // include signalling NaNs, which arithmetic may quieten: not floats.
      const int grey = (type & 255) | 0x100;
      Bytes colour((w * 3 * eb + 1) * h), back((w * eb + 2) * h);
      ASSERT_EQ(1, ff::fiuGreyToColour(src.data(), w, h, ss, grey,
                                       colour.data(), w * 3 * eb + 1, 3));
      ASSERT_EQ(1, ff::fiuColourToGrey(colour.data(), w, h, w * 3 * eb + 1,
                                       (type & 255) | 0x300, back.data(),
                                       w * eb + 2));
      const int kind = type & 15;
      for (int y = 0; y < h && kind != 5; ++y) {
        for (int x = 0; x < w; ++x) {
          ASSERT_EQ(0, memcmp(Pixel(back, w * eb + 2, grey, x, y),
                              Pixel(src, ss, grey, x, y), eb));
        }
      }
      const int wider = kind == 0 ? 0x122 : kind < 4 ? 0x145 : 0;
      if (!wider) continue;
      Bytes up(16 * w * h), down(eb * w * h);
      ASSERT_EQ(1, ff::fiuConvert(src.data(), w, h, ss, grey, up.data(),
                                  4 * w + 1, wider));
      ASSERT_EQ(1, ff::fiuConvert(up.data(), w, h, 4 * w + 1, wider,
                                  down.data(), eb * w, grey));
      for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
          ASSERT_EQ(0, memcmp(Pixel(down, eb * w, grey, x, y),
                              Pixel(src, ss, grey, x, y), eb));
        }
      }
    }
  }
}

// The plainest rounding rule: halves away from zero, then clamp.
double Saturated(double v, double lo, double hi) {
  return std::min(std::max(std::round(v), lo), hi);
}

TEST(FiuConvert, RoundsHalvesAwayFromZeroAndSaturates) {
  std::mt19937 rng(7);
  std::vector<float> f(7 * 3);
  for (auto& v : f)
    v = static_cast<float>(static_cast<int>(rng() % 2001) - 1000) / 4;
  f[0] = 2.5f, f[1] = -2.5f, f[2] = NAN, f[3] = 0.49999997f;
  unsigned char u8[7 * 3];
  signed char s8[7 * 3];
  short s16[7 * 3];
  ASSERT_EQ(1, ff::fiuConvert(f.data(), 7, 3, 28, 0x145, u8, 7, 0x111));
  ASSERT_EQ(1, ff::fiuConvert(f.data(), 7, 3, 28, 0x145, s8, 7, 0x110));
  ASSERT_EQ(1, ff::fiuConvert(f.data(), 7, 3, 28, 0x145, s16, 14, 0x122));
  for (int i = 3; i < 21; ++i) {
    ASSERT_EQ(u8[i], Saturated(f[i], 0, 255)) << f[i];
    ASSERT_EQ(s8[i], Saturated(f[i], -128, 127)) << f[i];
    ASSERT_EQ(s16[i], Saturated(f[i], -32768, 32767)) << f[i];
  }
  EXPECT_EQ(3, u8[0]);
  EXPECT_EQ(-3, s8[1]);
  EXPECT_EQ(0, s16[2]);
  std::vector<int> big = {70000, -70000, 40000, -1, 65535, 32767, -32769};
  unsigned short u16[7];
  ASSERT_EQ(1, ff::fiuConvert(big.data(), 7, 1, 28, 0x144, u16, 14, 0x123));
  ASSERT_EQ(1, ff::fiuConvert(big.data(), 7, 1, 28, 0x144, s16, 14, 0x122));
  for (int i = 0; i < 7; ++i) {
    ASSERT_EQ(u16[i], Saturated(big[i], 0, 65535));
    ASSERT_EQ(s16[i], Saturated(big[i], -32768, 32767));
  }
}

TEST(FiWrappers, ShapeTheDestinationAndWorkInPlace) {
  ff::FVTImage img(5, 3, ff::kFormat8UC3, 4);
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 15; ++x) img.data[y * img.step + x] = x * 16 + y;
  }
  const ff::FVTImage original(img);
  ff::FVTImage out;
  ASSERT_EQ(1, ff::fiConvert(img, img, 5));  // in place through a swap
  EXPECT_EQ(0x345, img.type);
  const auto r_minus_b = [](const float* s, unsigned char* d) {
    d[0] = static_cast<unsigned char>(s[2] - s[0]);
  };
  ASSERT_EQ(1, (ff::fiTransform<float, unsigned char>(img, out, 1, r_minus_b)));
  ASSERT_EQ(5, out.width);
  EXPECT_EQ(32,
            out.data[out.step * 2 + 4]);  // R - B: two byte columns of 16 apart
  ASSERT_EQ(1, ff::fiConvert(img, img, 1));
  ASSERT_EQ(1, ff::fiFlip(img, img, ff::kFlipHorizontal | ff::kFlipVertical));
  ASSERT_EQ(1, ff::fiFlip(img, out, ff::kFlipHorizontal | ff::kFlipVertical));
  for (int y = 0; y < 3; ++y) {
    ASSERT_EQ(0, memcmp(out.data + y * out.step,
                        original.data + y * original.step, 15));
  }
}

}  // namespace
