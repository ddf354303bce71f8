#include "softmatte/ff/utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;
using softmatte_test::RandomPlane;

int PixelBytes(int type) { return ((type >> 4) & 15) * ((type >> 8) & 255); }

const unsigned char* Pixel(const Bytes& p, int step, int type, int x, int y) {
  return p.data() + static_cast<size_t>(y) * step + x * PixelBytes(type);
}

// The naive result: plane with the n bytes at pitch * x of each row y < h
// replaced by want(x, y); everything else, padding included, as it was.
template <typename F>
Bytes Expected(Bytes plane, int step, int w, int h, int pitch, int n, F want) {
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      memcpy(plane.data() + static_cast<size_t>(y) * step + x * pitch,
             want(x, y), n);
    }
  }
  return plane;
}

// Formats with odd element counts per row; strides get odd padding so that
// rows of wide elements also start unaligned.
const int kTypes[] = {0x111, 0x311, 0x110, 0x122, 0x223, 0x423, 0x144, 0x345};

TEST(FiuPlaneMoves, FillBorderTileAndChannelCopyMatchReference) {
  uint32_t seed = 1;
  for (int type : kTypes) {
    const int pb = PixelBytes(type), eb = (type >> 4) & 15;
    const int ch = (type >> 8) & 255;
    for (int w : {1, 3, 7}) {
      for (int h : {1, 4}) {
        const int ss = w * pb + 3, ds = (2 * w + 5) * pb + 5;
        const Bytes src = RandomPlane(w * pb, h, ss, seed++);
        const Bytes pixel = RandomPlane(pb, 1, pb, seed++);
        Bytes dst = RandomPlane((w + 5) * pb, h + 3, ds, seed++);
        Bytes want = Expected(dst, ds, w, h, pb, pb,
                              [&](int, int) { return pixel.data(); });
        ASSERT_EQ(1, ff::fiuFill(dst.data(), w, h, ds, type, pixel.data()));
        ASSERT_TRUE(dst == want) << "fill " << type << " " << w << "x" << h;

        const int border[4] = {2, 1, 3, 2};  // left, top, right, bottom
        for (const unsigned char* value :
             {pixel.data(), static_cast<const unsigned char*>(nullptr)}) {
          want = Expected(dst, ds, w + 5, h + 3, pb, pb, [&](int x, int y) {
            const int sx = std::clamp(x - 2, 0, w - 1);
            const int sy = std::clamp(y - 1, 0, h - 1);
            const bool inside = sx == x - 2 && sy == y - 1;
            return value && !inside ? value : Pixel(src, ss, type, sx, sy);
          });
          ASSERT_EQ(1, ff::fiuCopyBorder(src.data(), w, h, ss, type, dst.data(),
                                         ds, border, value));
          ASSERT_TRUE(dst == want) << "border " << type << " " << w << "x" << h;
        }

        dst = RandomPlane((w + 5) * pb, h + 3, ds, seed++);
        want = Expected(dst, ds, w + 5, h + 3, pb, pb, [&](int x, int y) {
          return Pixel(src, ss, type, x % w, y % h);
        });
        ASSERT_EQ(1, ff::fiuTile(src.data(), w, h, ss, type, dst.data(), w + 5,
                                 h + 3, ds));
        ASSERT_TRUE(dst == want) << "tile " << type << " " << w << "x" << h;

        // Last channel of src into channel 0 of a two-channel plane.
        want = Expected(dst, ds, w, h, 2 * eb, eb, [&](int x, int y) {
          return Pixel(src, ss, type, x, y) + (ch - 1) * eb;
        });
        ASSERT_EQ(1,
                  ff::fiuCopyChannel(src.data(), w, h, ss, type, ch - 1,
                                     dst.data(), ds, (type & 255) | 0x200, 0));
        ASSERT_TRUE(dst == want) << "channel " << type << " " << w << "x" << h;
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
    const int ch = (type >> 8) & 255, kind = type & 15;
    for (int w : {1, 4, 7}) {
      const int h = 3, ss = w * pb + 3, ds = w * pb + 5;
      const Bytes src = RandomPlane(w * pb, h, ss, seed++);
      Bytes dst = RandomPlane(w * pb, h, ds, seed++);
      const Bytes same = Expected(dst, ds, w, h, pb, pb, [&](int x, int y) {
        return Pixel(src, ss, type, x, y);
      });
      for (int mode : {1, 2, 3}) {
        const Bytes want = Expected(dst, ds, w, h, pb, pb, [&](int x, int y) {
          return Pixel(src, ss, type, mode & 1 ? w - 1 - x : x,
                       mode & 2 ? h - 1 - y : y);
        });
        ASSERT_EQ(
            1, ff::fiuFlip(src.data(), w, h, ss, type, dst.data(), ds, mode));
        ASSERT_TRUE(dst == want) << "flip " << mode << " " << type;
        ASSERT_EQ(1, ff::fiuFlip(dst.data(), w, h, ds, type, dst.data(), ds,
                                 mode));  // in place
        ASSERT_TRUE(dst == same) << "flip twice " << mode << " " << type;
      }
      const Bytes swapped = Expected(dst, ds, w, h, pb, eb, [&](int x, int y) {
        return Pixel(src, ss, type, x, y) + (ch - 1) * eb;
      });
      ASSERT_EQ(1, ff::fiuSwapChannels(src.data(), w, h, ss, type, dst.data(),
                                       ds, 0, ch - 1));
      ASSERT_EQ(0, memcmp(swapped.data(), dst.data(), eb));  // first pixel
      ASSERT_EQ(1, ff::fiuSwapChannels(dst.data(), w, h, ds, type, dst.data(),
                                       ds, ch - 1, 0));
      ASSERT_TRUE(dst == same) << "swap twice " << type;

      // Grey -> colour -> grey and casts up and back, on the first w
      // elements of each row viewed as a grey plane. Random float bytes
      // include signalling NaNs, which arithmetic may quieten: not floats.
      if (kind == 5) continue;
      const int grey = (type & 255) | 0x100;
      const int wider = kind == 0 ? 0x122 : 0x145;
      Bytes colour(static_cast<size_t>(w * 12 + 1) * h), back = dst;
      const Bytes want = Expected(back, ds, w, h, eb, eb, [&](int x, int y) {
        return Pixel(src, ss, grey, x, y);
      });
      ASSERT_EQ(1, ff::fiuGreyToColour(src.data(), w, h, ss, grey,
                                       colour.data(), w * 12 + 1, 3));
      ASSERT_EQ(1, ff::fiuColourToGrey(colour.data(), w, h, w * 12 + 1,
                                       (type & 255) | 0x300, back.data(), ds));
      ASSERT_TRUE(back == want) << "grey " << type;
      if (kind == 4) continue;  // no wider element holds every s32
      back = dst;
      ASSERT_EQ(1, ff::fiuConvert(src.data(), w, h, ss, grey, colour.data(),
                                  w * 4 + 1, wider));
      ASSERT_EQ(1, ff::fiuConvert(colour.data(), w, h, w * 4 + 1, wider,
                                  back.data(), ds, grey));
      ASSERT_TRUE(back == want) << "cast " << type;
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
  for (auto& v : f) v = (static_cast<int>(rng() % 2001) - 1000) / 4.0f;
  f[0] = 2.5f, f[1] = -2.5f, f[2] = NAN, f[3] = 0.49999997f;
  const std::vector<int> big = {70000, -70000, 40000, -1, 65535, 32767, -9};
  unsigned char u8[7 * 3];
  short s16[7 * 3];
  unsigned short u16[7];
  ASSERT_EQ(1, ff::fiuConvert(f.data(), 7, 3, 28, 0x145, u8, 7, 0x111));
  ASSERT_EQ(1, ff::fiuConvert(f.data(), 7, 3, 28, 0x145, s16, 14, 0x122));
  for (int i = 0; i < 21; ++i) {
    if (i == 2) continue;
    ASSERT_EQ(u8[i], Saturated(f[i], 0, 255)) << f[i];
    ASSERT_EQ(s16[i], Saturated(f[i], -32768, 32767)) << f[i];
  }
  EXPECT_EQ(0, u8[2] | s16[2]);  // NaN
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
  EXPECT_EQ(32, out.data[out.step * 2 + 4]);  // R - B: two columns apart
  ASSERT_EQ(1, ff::fiConvert(img, img, 1));
  ASSERT_EQ(1, ff::fiFlip(img, img, ff::kFlipHorizontal | ff::kFlipVertical));
  ASSERT_EQ(1, ff::fiFlip(img, out, ff::kFlipHorizontal | ff::kFlipVertical));
  for (int y = 0; y < 3; ++y) {
    ASSERT_EQ(0, memcmp(out.data + y * out.step,
                        original.data + y * original.step, 15));
  }
}

}  // namespace
