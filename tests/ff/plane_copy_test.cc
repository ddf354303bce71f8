#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/utils.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Buffers are random everywhere, padding, plane gaps and tail included,
// and compared whole: a helper must leave every byte outside its rows
// exactly as it was.
using softmatte_test::RandomBytes;

// Contiguous rows on both sides (the single-copy path), on one side only,
// and padded on both.
const std::pair<int, int> kPads[] = {{0, 0}, {0, 3}, {5, 0}, {3, 7}};

TEST(PlaneHelpers, CopyAndFillMatchRowByRowLoops) {
  // Above 127: the char argument must not be sign-mangled.
  const unsigned char fill = 0xC3;
  uint32_t seed = 1;
  for (int rowBytes : {1, 3, 7, 16, 33}) {
    for (int rows : {1, 2, 5}) {
      for (int planes : {1, 3}) {
        for (auto [srcPad, dstPad] : kPads) {
          SCOPED_TRACE(testing::Message()
                       << rowBytes << " x " << rows << " x " << planes
                       << " pads " << srcPad << "/" << dstPad);
          const int ss = rowBytes + srcPad, ds = rowBytes + dstPad;
          // Gaps between planes of other sizes than the row padding; with
          // one plane the gap is a tail that catches one row too many.
          const int sPlane = ss * rows + 4, dPlane = ds * rows + 1;
          const Bytes src =
              RandomBytes(static_cast<size_t>(sPlane) * planes, seed++);
          const Bytes dst =
              RandomBytes(static_cast<size_t>(dPlane) * planes, seed++);
          Bytes copied = dst, filled = dst;
          for (int p = 0; p < planes; ++p) {
            for (int y = 0; y < rows; ++y) {
              for (int x = 0; x < rowBytes; ++x) {
                const size_t at = static_cast<size_t>(p) * dPlane + y * ds + x;
                copied[at] = src[static_cast<size_t>(p) * sPlane + y * ss + x];
                filled[at] = fill;
              }
            }
          }
          Bytes got = dst, set = dst;
          if (planes == 1) {
            ff::ipf_memcpy_2d(src.data(), rowBytes, rows, ss, got.data(), ds);
            ff::ipf_memset_2d(set.data(), rowBytes, rows, ds,
                              static_cast<char>(fill));
            // The pixel copy takes its row length from element size times
            // channel count.
            for (int type : {0x111, 0x311, 0x223, 0x145}) {
              const int pixel = ((type >> 4) & 15) * ((type >> 8) & 255);
              if (rowBytes % pixel != 0) continue;
              Bytes pixels = dst;
              ff::fiuCopy(src.data(), rowBytes / pixel, rows, ss, type,
                          pixels.data(), ds);
              ASSERT_TRUE(pixels == copied) << "fiuCopy type " << type;
            }
          } else {
            ff::ipf_memcpy_3d(src.data(), rowBytes, rows, planes, ss, sPlane,
                              got.data(), ds, dPlane);
            ff::ipf_memset_3d(set.data(), rowBytes, rows, planes, ds, dPlane,
                              static_cast<char>(fill));
          }
          ASSERT_TRUE(got == copied) << "copy";
          ASSERT_TRUE(set == filled) << "fill";
        }
      }
    }
  }
}

TEST(PlaneHelpers, FlipsMatchReversedRowsAndPixelsOfEverySize) {
  uint32_t seed = 100;
  for (int pb = 1; pb <= 7; ++pb) {
    for (int width : {1, 2, 5, 8, 17}) {
      for (int height : {1, 2, 3, 6}) {
        for (auto [srcPad, dstPad] : kPads) {
          SCOPED_TRACE(testing::Message()
                       << "pixel bytes " << pb << " " << width << " x "
                       << height << " pads " << srcPad << "/" << dstPad);
          const int rowBytes = width * pb;
          const int ss = rowBytes + srcPad, ds = rowBytes + dstPad;
          // Planes start one byte into their buffers, which puts 2- and
          // 4-byte pixels off their natural alignment; 5 bytes of tail.
          const Bytes src =
              RandomBytes(static_cast<size_t>(ss) * height + 6, seed++);
          const Bytes dst =
              RandomBytes(static_cast<size_t>(ds) * height + 6, seed++);
          Bytes vert = dst, horz = dst, vertIn = src, horzIn = src;
          for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
              for (int b = 0; b < pb; ++b) {
                const unsigned char v = src[1 + y * ss + x * pb + b];
                const int up = height - 1 - y, back = (width - 1 - x) * pb + b;
                vert[1 + up * ds + x * pb + b] = v;
                horz[1 + y * ds + back] = v;
                vertIn[1 + up * ss + x * pb + b] = v;
                horzIn[1 + y * ss + back] = v;
              }
            }
          }
          Bytes got = dst;
          ff::ipf_flip_vert(src.data() + 1, rowBytes, height, ss,
                            got.data() + 1, ds);
          ASSERT_TRUE(got == vert) << "vertical";
          got = dst;
          ff::ipf_flip_horz(src.data() + 1, width, height, ss, pb,
                            got.data() + 1, ds);
          ASSERT_TRUE(got == horz) << "horizontal";
          got = src;
          ff::ipf_flip_vert(got.data() + 1, rowBytes, height, ss);
          ASSERT_TRUE(got == vertIn) << "vertical in place";
          got = src;
          ff::ipf_flip_horz(got.data() + 1, width, height, ss, pb);
          ASSERT_TRUE(got == horzIn) << "horizontal in place";
        }
      }
    }
  }
}

TEST(PlaneHelpers, NullPlanesAndDegenerateLayoutsDoNothing) {
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
  // A bottom-up (negative) or zero stride is refused in place.
  ff::ipf_flip_vert(p + 24, 8, 4, -8);
  ff::ipf_flip_vert(p, 8, 4, 0);
  EXPECT_TRUE(plane == before);
}

}  // namespace
