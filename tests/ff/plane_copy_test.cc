#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/utils.h"
#include "test_util.h"

namespace {

using softmatte_test::FillRandom;
using softmatte_test::kSentinel;
using softmatte_test::RandomPlane;
using Bytes = std::vector<unsigned char>;

size_t at(int stride, int row, int col) {
  return static_cast<size_t>(stride) * row + col;
}

// Whole buffers are compared, padding and tails included: a helper must
// leave every byte outside its rows exactly as it was.
::testing::AssertionResult SameBytes(const Bytes& got, const Bytes& want) {
  if (got.size() != want.size()) {
    return ::testing::AssertionFailure()
           << "size " << got.size() << " vs " << want.size();
  }
  for (size_t i = 0; i < got.size(); ++i) {
    if (got[i] != want[i]) {
      return ::testing::AssertionFailure()
             << "first difference at byte " << i << ": "
             << static_cast<int>(got[i]) << " instead of "
             << static_cast<int>(want[i]);
    }
  }
  return ::testing::AssertionSuccess();
}

// Each case copies between planes of different strides: contiguous rows on
// both sides (the single-copy path), on one side only, and padded on both.
struct Strides {
  int src_pad;
  int dst_pad;
};
constexpr Strides kStrideCases[] = {{0, 0}, {0, 3}, {5, 0}, {3, 7}};
constexpr int kRowLengths[] = {1, 2, 3, 7, 16, 33};
constexpr int kRowCounts[] = {1, 2, 5};
// A few bytes past the last row catch copies that run one row too far.
constexpr int kTail = 9;

std::string Where(int row_bytes, int rows, const Strides& s) {
  return "rowBytes " + std::to_string(row_bytes) + " rows " +
         std::to_string(rows) + " pads " + std::to_string(s.src_pad) + "/" +
         std::to_string(s.dst_pad);
}

Bytes Plane(int row_bytes, int rows, int stride, uint32_t seed) {
  Bytes p = RandomPlane(row_bytes, rows, stride, seed);
  p.insert(p.end(), kTail, kSentinel);
  return p;
}

TEST(MemCopy2d, MatchesRowByRowCopyAndKeepsPadding) {
  uint32_t seed = 1;
  for (int row_bytes : kRowLengths) {
    for (int rows : kRowCounts) {
      for (const Strides& s : kStrideCases) {
        const int src_step = row_bytes + s.src_pad;
        const int dst_step = row_bytes + s.dst_pad;
        const Bytes src = Plane(row_bytes, rows, src_step, seed++);
        Bytes dst = Plane(row_bytes, rows, dst_step, seed++);
        Bytes want = dst;
        for (int y = 0; y < rows; ++y) {
          for (int x = 0; x < row_bytes; ++x) {
            want[at(dst_step, y, x)] = src[at(src_step, y, x)];
          }
        }
        ff::ipf_memcpy_2d(src.data(), row_bytes, rows, src_step, dst.data(),
                          dst_step);
        ASSERT_TRUE(SameBytes(dst, want)) << Where(row_bytes, rows, s);
      }
    }
  }
}

TEST(MemCopy3d, CopiesEveryRowOfEveryPlaneAndNothingBetween) {
  uint32_t seed = 100;
  for (int row_bytes : {1, 5, 12}) {
    for (int rows : {1, 3}) {
      for (int planes : {1, 2, 4}) {
        for (const Strides& s : kStrideCases) {
          const int src_step = row_bytes + s.src_pad;
          const int dst_step = row_bytes + s.dst_pad;
          // Gaps between planes, of other sizes than the row padding.
          const int src_plane_step = src_step * rows + 4;
          const int dst_plane_step = dst_step * rows + 1;
          Bytes src(static_cast<size_t>(src_plane_step) * planes);
          Bytes dst(static_cast<size_t>(dst_plane_step) * planes);
          FillRandom(src, seed++);
          FillRandom(dst, seed++);
          Bytes want = dst;
          for (int p = 0; p < planes; ++p) {
            for (int y = 0; y < rows; ++y) {
              for (int x = 0; x < row_bytes; ++x) {
                want[at(dst_plane_step, p, 0) + at(dst_step, y, x)] =
                    src[at(src_plane_step, p, 0) + at(src_step, y, x)];
              }
            }
          }
          ff::ipf_memcpy_3d(src.data(), row_bytes, rows, planes, src_step,
                            src_plane_step, dst.data(), dst_step,
                            dst_plane_step);
          ASSERT_TRUE(SameBytes(dst, want))
              << Where(row_bytes, rows, s) << " planes " << planes;
        }
      }
    }
  }
}

TEST(MemSet, FillsOnlyTheRowsOfEveryPlane) {
  // A value above 127: the char argument must not be sign-mangled.
  const char value = static_cast<char>(0xC3);
  uint32_t seed = 200;
  for (int row_bytes : kRowLengths) {
    for (int rows : kRowCounts) {
      for (int pad : {0, 3}) {
        const int step = row_bytes + pad;
        Bytes plane = Plane(row_bytes, rows, step, seed++);
        Bytes want = plane;
        for (int y = 0; y < rows; ++y) {
          for (int x = 0; x < row_bytes; ++x) want[at(step, y, x)] = 0xC3;
        }
        ff::ipf_memset_2d(plane.data(), row_bytes, rows, step, value);
        ASSERT_TRUE(SameBytes(plane, want))
            << "2d " << row_bytes << "x" << rows << " pad " << pad;

        const int planes = 3;
        const int plane_step = step * rows + 2;
        Bytes stack(static_cast<size_t>(plane_step) * planes);
        FillRandom(stack, seed++);
        want = stack;
        for (int p = 0; p < planes; ++p) {
          for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < row_bytes; ++x) {
              want[at(plane_step, p, 0) + at(step, y, x)] = 0xC3;
            }
          }
        }
        ff::ipf_memset_3d(stack.data(), row_bytes, rows, planes, step,
                          plane_step, value);
        ASSERT_TRUE(SameBytes(stack, want))
            << "3d " << row_bytes << "x" << rows << " pad " << pad;
      }
    }
  }
}

TEST(FlipVertical, CopyingAndInPlaceMatchReversedRows) {
  uint32_t seed = 300;
  for (int row_bytes : kRowLengths) {
    for (int rows : {1, 2, 3, 6, 7}) {
      for (const Strides& s : kStrideCases) {
        const int src_step = row_bytes + s.src_pad;
        const int dst_step = row_bytes + s.dst_pad;
        const Bytes src = Plane(row_bytes, rows, src_step, seed++);
        Bytes dst = Plane(row_bytes, rows, dst_step, seed++);
        Bytes want = dst;
        for (int y = 0; y < rows; ++y) {
          for (int x = 0; x < row_bytes; ++x) {
            want[at(dst_step, y, x)] = src[at(src_step, rows - 1 - y, x)];
          }
        }
        ff::ipf_flip_vert(src.data(), row_bytes, rows, src_step, dst.data(),
                          dst_step);
        ASSERT_TRUE(SameBytes(dst, want)) << Where(row_bytes, rows, s);

        // In place on a copy of the source must agree with the copying form
        // on the source's own layout.
        Bytes img = src;
        Bytes want_img = src;
        for (int y = 0; y < rows; ++y) {
          for (int x = 0; x < row_bytes; ++x) {
            want_img[at(src_step, y, x)] = src[at(src_step, rows - 1 - y, x)];
          }
        }
        ff::ipf_flip_vert(img.data(), row_bytes, rows, src_step);
        ASSERT_TRUE(SameBytes(img, want_img))
            << "in place " << Where(row_bytes, rows, s);
        ff::ipf_flip_vert(img.data(), row_bytes, rows, src_step);
        ASSERT_TRUE(SameBytes(img, src))
            << "twice " << Where(row_bytes, rows, s);
      }
    }
  }
}

TEST(FlipVertical, InPlaceLeavesBottomUpAndDegenerateLayoutsAlone) {
  const int row_bytes = 6;
  const int rows = 4;
  Bytes plane(static_cast<size_t>(row_bytes) * rows);
  FillRandom(plane, 400);
  const Bytes before = plane;
  // A negative stride addresses the plane from its last row upwards; such a
  // layout is refused rather than flipped.
  ff::ipf_flip_vert(plane.data() + at(row_bytes, rows - 1, 0), row_bytes, rows,
                    -row_bytes);
  EXPECT_TRUE(SameBytes(plane, before)) << "negative stride";
  ff::ipf_flip_vert(plane.data(), row_bytes, rows, 0);
  EXPECT_TRUE(SameBytes(plane, before)) << "zero stride";
  ff::ipf_flip_vert(plane.data(), row_bytes, 1, row_bytes);
  EXPECT_TRUE(SameBytes(plane, before)) << "one row";
}

// Mirror with pixels of any size, byte by byte.
void MirrorReference(const unsigned char* src, int width, int height,
                     int src_step, int pixel_bytes, unsigned char* dst,
                     int dst_step) {
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int b = 0; b < pixel_bytes; ++b) {
        dst[at(dst_step, y, x * pixel_bytes + b)] =
            src[at(src_step, y, (width - 1 - x) * pixel_bytes + b)];
      }
    }
  }
}

TEST(FlipHorizontal, MirrorsPixelsOfEverySizeOnUnalignedRows) {
  uint32_t seed = 500;
  for (int pixel_bytes = 1; pixel_bytes <= 7; ++pixel_bytes) {
    for (int width : {1, 2, 3, 5, 8, 17}) {
      for (int height : {1, 3}) {
        for (const Strides& s : kStrideCases) {
          const int row_bytes = width * pixel_bytes;
          const int src_step = row_bytes + s.src_pad;
          const int dst_step = row_bytes + s.dst_pad;
          const std::string where = "pixelBytes " +
                                    std::to_string(pixel_bytes) + " " +
                                    Where(row_bytes, height, s);
          // Planes start one byte into their buffers, which puts 2- and
          // 4-byte pixels off their natural alignment.
          Bytes src = Plane(row_bytes, height, src_step, seed++);
          src.insert(src.begin(), kSentinel);
          Bytes dst = Plane(row_bytes, height, dst_step, seed++);
          dst.insert(dst.begin(), kSentinel);

          Bytes want = dst;
          MirrorReference(src.data() + 1, width, height, src_step, pixel_bytes,
                          want.data() + 1, dst_step);
          ff::ipf_flip_horz(src.data() + 1, width, height, src_step,
                            pixel_bytes, dst.data() + 1, dst_step);
          ASSERT_TRUE(SameBytes(dst, want)) << where;

          Bytes img = src;
          want = src;
          MirrorReference(src.data() + 1, width, height, src_step, pixel_bytes,
                          want.data() + 1, src_step);
          ff::ipf_flip_horz(img.data() + 1, width, height, src_step,
                            pixel_bytes);
          ASSERT_TRUE(SameBytes(img, want)) << "in place " << where;
          ff::ipf_flip_horz(img.data() + 1, width, height, src_step,
                            pixel_bytes);
          ASSERT_TRUE(SameBytes(img, src)) << "twice " << where;
        }
      }
    }
  }
}

TEST(PlaneHelpers, NullPlanesAndEmptyStacksDoNothing) {
  Bytes plane(64);
  FillRandom(plane, 600);
  const Bytes before = plane;
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
  EXPECT_TRUE(SameBytes(plane, before)) << "null pointers";

  // Copies from the plane's first half into its second half, which must
  // stay untouched when there are no planes or no rows to copy.
  ff::ipf_memcpy_3d(p, 8, 2, 0, 8, 16, p + 32, 8, 16);
  ff::ipf_memcpy_3d(p, 8, 0, 2, 8, 16, p + 32, 8, 16);
  ff::ipf_memset_3d(p, 8, 2, 0, 8, 16, 0);
  ff::ipf_memset_3d(p, 8, 0, 2, 8, 16, 0);
  ff::ipf_flip_vert(p, 8, 0, 8, p + 32, 8);
  EXPECT_TRUE(SameBytes(plane, before)) << "no planes or rows";
}

TEST(PixelCopy, CopiesWidthPixelsOfTheFormatPerRow) {
  // One and three channels of bytes, two channels of 16 bits, one float:
  // the row length must come from both element size and channel count.
  uint32_t seed = 700;
  for (int type : {0x111, 0x311, 0x223, 0x145}) {
    const int width = 5;
    const int height = 3;
    const int row_bytes = width * ((type >> 4) & 15) * ((type >> 8) & 255);
    const Bytes src = Plane(row_bytes, height, row_bytes + 3, seed++);
    Bytes dst = Plane(row_bytes, height, row_bytes + 6, seed++);
    Bytes want = dst;
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < row_bytes; ++x) {
        want[at(row_bytes + 6, y, x)] = src[at(row_bytes + 3, y, x)];
      }
    }
    ff::fiuCopy(src.data(), width, height, row_bytes + 3, type, dst.data(),
                row_bytes + 6);
    ASSERT_TRUE(SameBytes(dst, want)) << "type " << type;
  }
}

}  // namespace
