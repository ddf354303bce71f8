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
using softmatte_test::RandomBytes;

// Copies, fills and flips against the byte loops above: contiguous rows on
// both sides (the single-copy path), on one side only and padded on both;
// 1 to 7 bytes a pixel, planes one byte into their buffers (2- and 4-byte
// pixels off their alignment); flips also in place.
TEST(PlaneHelpers, CopyFillAndFlipMatchByteLoops) {
  const unsigned char fill = 0xC3;  // above 127: no sign mangling
  uint32_t seed = 1;
  for (int pb = 1; pb <= 7; ++pb)
    for (int width : {1, 2, 5, 8, 17})
      for (int rows : {1, 2, 3, 6})
        for (int planes : {1, 3})
          for (auto [sp, dp] : {std::pair{0, 0}, {0, 3}, {5, 0}, {3, 7}}) {
            SCOPED_TRACE(testing::Message()
                         << pb << " bytes, " << width << " x " << rows << " x "
                         << planes << " pads " << sp << "/" << dp);
            const int rb = width * pb, ss = rb + sp, ds = rb + dp;
            // Gaps between planes of other sizes than the row padding; with
            // one plane the gap is a tail that catches one row too many.
            const int sPlane = ss * rows + 4, dPlane = ds * rows + 1;
            const Bytes src = RandomBytes(size_t(sPlane) * planes + 1, seed++);
            const Bytes dst = RandomBytes(size_t(dPlane) * planes + 1, seed++);
            const auto from = [&](int x, int y, int p) {
              return src[1 + size_t(p) * sPlane + y * ss + x];
            };
            Bytes got = dst, set = dst;
            if (planes == 1) {
              ff::ipf_memcpy_2d(&src[1], rb, rows, ss, &got[1], ds);
              ff::ipf_memset_2d(&set[1], rb, rows, ds, static_cast<char>(fill));
            } else {
              ff::ipf_memcpy_3d(&src[1], rb, rows, planes, ss, sPlane, &got[1],
                                ds, dPlane);
              ff::ipf_memset_3d(&set[1], rb, rows, planes, ds, dPlane,
                                static_cast<char>(fill));
            }
            // Buffers are random everywhere, padding, plane gaps and tail
            // included, and compared whole: a helper must leave every byte
            // outside its rows exactly as it was.
            const auto shifted = [&](Bytes b, int stride, int step, auto f) {
              for (int p = 0; p < planes; ++p)
                for (int y = 0; y < rows; ++y)
                  for (int x = 0; x < rb; ++x)
                    b[1 + size_t(p) * step + y * stride + x] = f(x, y, p);
              return b;
            };
            const Bytes copied = shifted(dst, ds, dPlane, from);
            ASSERT_TRUE(got == copied) << "copy";
            ASSERT_TRUE(set == shifted(dst, ds, dPlane,
                                       [&](int, int, int) { return fill; }))
                << "fill";
            if (planes > 1) continue;
            // The pixel copy takes its row length from element size times
            // channel count.
            for (int type : {0x111, 0x311, 0x223, 0x145}) {
              const int pixel = ((type >> 4) & 15) * ((type >> 8) & 255);
              if (rb % pixel != 0) continue;
              Bytes pixels = dst;
              ff::fiuCopy(&src[1], rb / pixel, rows, ss, type, &pixels[1], ds);
              ASSERT_TRUE(pixels == copied) << "fiuCopy type " << type;
            }
            const auto vert = [&](int x, int y, int) {
              return from(x, rows - 1 - y, 0);
            };
            const auto horz = [&](int x, int y, int) {
              return from((width - 1 - x / pb) * pb + x % pb, y, 0);
            };
            got = dst;
            ff::ipf_flip_vert(&src[1], rb, rows, ss, &got[1], ds);
            ASSERT_TRUE(got == shifted(dst, ds, dPlane, vert)) << "vertical";
            got = dst;
            ff::ipf_flip_horz(&src[1], width, rows, ss, pb, &got[1], ds);
            ASSERT_TRUE(got == shifted(dst, ds, dPlane, horz)) << "horizontal";
            got = src;
            ff::ipf_flip_vert(&got[1], rb, rows, ss);
            ASSERT_TRUE(got == shifted(src, ss, sPlane, vert)) << "in place";
            got = src;
            ff::ipf_flip_horz(&got[1], width, rows, ss, pb);
            ASSERT_TRUE(got == shifted(src, ss, sPlane, horz)) << "in place";
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

}  // namespace
