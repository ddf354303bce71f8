#ifndef SOFTMATTE_SRC_FF_MIN_MAX_FILTER_H_
#define SOFTMATTE_SRC_FF_MIN_MAX_FILTER_H_

// Running minimum and maximum over square windows, built on the van Herk /
// Gil-Werman block scheme: a constant number of comparisons per pixel, for
// any window size.
//
// The one-dimensional pass works on min_max::kLanes lines at once, interleaved
// in a line buffer, so that every comparison is a plain loop over the lanes
// that the compiler turns into vector instructions on any target. Rows of a
// plane are gathered into the lanes; columns are filtered the same way through
// the transposed view of the plane, where the lanes are neighbouring bytes.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace ff {

// Keeps the smaller of two values: the minimum filter's comparator.
template <typename T>
struct _LE {
  T operator()(T a, T b) const { return a <= b ? a : b; }
};

// Keeps the larger of two values: the maximum filter's comparator.
template <typename T>
struct _GR {
  T operator()(T a, T b) const { return a >= b ? a : b; }
};

namespace min_max {

#if defined(__GNUC__)
#define SOFTMATTE_MM_FORCE_INLINE inline __attribute__((always_inline))
#else
#define SOFTMATTE_MM_FORCE_INLINE inline
#endif

// Lines filtered side by side; one cache line of bytes.
constexpr int kLanes = 64;

// An even window reaches as far as the next odd one.
inline int OddWindow(int ksize) { return 2 * (std::max(ksize, 0) / 2) + 1; }

// Elements of line-buffer scratch _mm_filter_2D_x needs for lines of length
// positions: the padded line, the filtered line and the block array.
inline size_t LineScratchSize(int length, int ksize) {
  const size_t blocks = static_cast<size_t>((length + ksize - 1) / ksize);
  const size_t padded = static_cast<size_t>(ksize / 2) + blocks * ksize + ksize;
  return (padded + static_cast<size_t>(length) + 2 * ksize) * kLanes;
}

// Elements of scratch _mm_filter_2D_y needs: the intermediate plane with two
// spare columns, then the line buffers. The last block of a line never
// writes past the line's end, so the plane needs no spare rows.
inline size_t PlaneScratchSize(int width, int height, int ksize) {
  return static_cast<size_t>(height) * (width + 2) +
         LineScratchSize(std::max(width, height), ksize);
}

// out = cmp(a, b) lane by lane. Written values never overlap the read ones:
// saying so lets the compiler use vector instructions without run-time
// overlap checks.
template <typename T, typename Cmp>
inline void CmpLanes(const T* __restrict a, const T* __restrict b,
                     T* __restrict out, Cmp cmp) {
  for (int l = 0; l < kLanes; ++l) out[l] = cmp(a[l], b[l]);
}

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr bool kWordTranspose = true;
#else
constexpr bool kWordTranspose = false;
#endif

// out row j = in column j of an 8 x 8 byte block, in three rounds of
// swapping off-diagonal sub-blocks inside 64-bit words. Relies on byte j of
// a row landing in bits 8j..8j+7 of its word (little-endian).
inline uint64_t LoadWord(const unsigned char* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

inline void StoreWord(unsigned char* p, uint64_t v) { std::memcpy(p, &v, 8); }

// Swaps the sub-blocks of `shift` bits that lie off the diagonal of the
// pair of rows a (upper) and b (lower).
inline void SwapBlocks(uint64_t& a, uint64_t& b, int shift, uint64_t mask) {
  const uint64_t t = ((a >> shift) ^ b) & mask;
  b ^= t;
  a ^= t << shift;
}

// Named words rather than an array: the rounds then stay in registers, where
// an array invites vector code that stalls on reloading the words it stored.
// A call per block would cost as much as the block, hence forced inlining.
SOFTMATTE_MM_FORCE_INLINE void Transpose8x8(const unsigned char* in,
                                            ptrdiff_t inStep,
                                            unsigned char* out,
                                            ptrdiff_t outStep) {
  uint64_t r0 = LoadWord(in), r1 = LoadWord(in + inStep),
           r2 = LoadWord(in + 2 * inStep), r3 = LoadWord(in + 3 * inStep),
           r4 = LoadWord(in + 4 * inStep), r5 = LoadWord(in + 5 * inStep),
           r6 = LoadWord(in + 6 * inStep), r7 = LoadWord(in + 7 * inStep);
  constexpr uint64_t kBytes = 0x00FF00FF00FF00FFull;
  constexpr uint64_t kPairs = 0x0000FFFF0000FFFFull;
  constexpr uint64_t kQuads = 0x00000000FFFFFFFFull;
  SwapBlocks(r0, r1, 8, kBytes);
  SwapBlocks(r2, r3, 8, kBytes);
  SwapBlocks(r4, r5, 8, kBytes);
  SwapBlocks(r6, r7, 8, kBytes);
  SwapBlocks(r0, r2, 16, kPairs);
  SwapBlocks(r1, r3, 16, kPairs);
  SwapBlocks(r4, r6, 16, kPairs);
  SwapBlocks(r5, r7, 16, kPairs);
  SwapBlocks(r0, r4, 32, kQuads);
  SwapBlocks(r1, r5, 32, kQuads);
  SwapBlocks(r2, r6, 32, kQuads);
  SwapBlocks(r3, r7, 32, kQuads);
  StoreWord(out, r0);
  StoreWord(out + outStep, r1);
  StoreWord(out + 2 * outStep, r2);
  StoreWord(out + 3 * outStep, r3);
  StoreWord(out + 4 * outStep, r4);
  StoreWord(out + 5 * outStep, r5);
  StoreWord(out + 6 * outStep, r6);
  StoreWord(out + 7 * outStep, r7);
}

// Copies n lines of width positions between a plane (line y, position x at
// y * step + x * pixStep) and the interleaved lanes (x * kLanes + y): into
// the lanes when P is const, out of them otherwise. Square tiles keep the
// transposed bytes in the L1 cache; packed bytes move as 8 x 8 word
// transposes.
template <typename P, typename T>
void MoveLines(P* plane, int width, int n, int step, int pixStep, T* lanes) {
  constexpr bool kToLanes = std::is_const_v<P>;
  constexpr int L = kLanes;
  const auto copy = [](P* p, T* q, size_t count) {
    if constexpr (kToLanes) {
      std::memcpy(q, p, count * sizeof(T));
    } else {
      std::memcpy(p, q, count * sizeof(T));
    }
  };
  if (step == 1) {
    // The lanes are neighbouring elements of the plane already.
    for (int x = 0; x < width; ++x) {
      P* p = plane + static_cast<ptrdiff_t>(x) * pixStep;
      T* q = lanes + static_cast<size_t>(x) * L;
      n == L ? copy(p, q, L) : copy(p, q, n);
    }
    return;
  }
  const bool words = kWordTranspose && sizeof(T) == 1 && pixStep == 1;
  const int n8 = words ? n / 8 * 8 : 0;
  const int w8 = words ? width / 8 * 8 : 0;
  for (int x0 = 0; x0 < width; x0 += L) {
    const int x1 = std::min(x0 + L, width);
    const int wordsEnd = std::max(x0, std::min(x1, w8));
    if constexpr (sizeof(T) == 1) {
      for (int r = 0; r < n8; r += 8) {
        for (int x = x0; x < wordsEnd; x += 8) {
          P* p = plane + static_cast<ptrdiff_t>(r) * step + x;
          T* q = lanes + static_cast<size_t>(x) * L + r;
          if constexpr (kToLanes) {
            Transpose8x8(p, step, q, L);
          } else {
            Transpose8x8(q, L, p, step);
          }
        }
      }
    }
    for (int r = 0; r < n; ++r) {
      P* row = plane + static_cast<ptrdiff_t>(r) * step;
      for (int x = r < n8 ? wordsEnd : x0; x < x1; ++x) {
        copy(row + static_cast<ptrdiff_t>(x) * pixStep,
             lanes + static_cast<size_t>(x) * L + r, 1);
      }
    }
  }
}

#undef SOFTMATTE_MM_FORCE_INLINE

}  // namespace min_max

// Running extremum of min_max::kLanes interleaved lines of length positions
// (ksize odd). line points at position 0 and is readable with pad values from
// ksize / 2 positions before it up to the length rounded up to a multiple of
// ksize plus ksize after it. Output position i < length goes to
// dst + i * dstPixStep (min_max::kLanes contiguous values), and nothing past
// length is written; scratch holds 2 * ksize - 1 positions.
template <typename T, typename Cmp>
void _mm_filter_1D(const T* line, int length, T* dst, int dstPixStep, int ksize,
                   T* scratch, Cmp cmp) {
  constexpr int L = min_max::kLanes;
  const int reach = 2 * (ksize / 2);
  T* g = scratch;
  for (int p = 0; p < length; p += ksize) {
    const T* s = line + static_cast<ptrdiff_t>(p - (ksize - 1) / 2) * L;
    // g[j] is the extremum of s[j .. ksize - 1] below the middle and of
    // s[ksize - 1 .. j] above it; each output combines one of each.
    std::memcpy(g + (ksize - 1) * L, s + (ksize - 1) * L, L * sizeof(T));
    for (int j = ksize - 2; j >= 0; --j) {
      min_max::CmpLanes(s + j * L, g + (j + 1) * L, g + j * L, cmp);
    }
    for (int j = ksize; j <= 2 * ksize - 2; ++j) {
      min_max::CmpLanes(s + j * L, g + (j - 1) * L, g + j * L, cmp);
    }
    const int n = std::min(ksize, length - p);
    for (int i = 0; i < n; ++i) {
      min_max::CmpLanes(g + i * L, g + (i + reach) * L,
                        dst + static_cast<ptrdiff_t>(p + i) * dstPixStep, cmp);
    }
  }
}

// Filters height lines of width positions each along the line: position x of
// line y is src[y * srcStep + x * srcPixStep], likewise dst. Lines go through
// the padded line buffer min_max::kLanes at a time; src and dst may overlap as
// long as no line group writes values a later group still has to read.
template <typename T, typename Cmp>
void _mm_filter_2D_x(const T* src, int width, int height, int srcStep,
                     int srcPixStep, T* dst, int dstStep, int dstPixStep,
                     int ksize, T* scratch, T pad, Cmp cmp) {
  constexpr int L = min_max::kLanes;
  const int before = ksize / 2;
  const int blocks = (width + ksize - 1) / ksize;
  const size_t padded = static_cast<size_t>(before) + blocks * ksize + ksize;
  T* line = scratch;
  T* filtered = line + padded * L;
  T* blockScratch = filtered + static_cast<size_t>(width) * L;
  // Pad positions never change, and lanes past the last line of a group keep
  // values that are never written back.
  std::fill(line, line + padded * L, pad);
  T* data = line + static_cast<size_t>(before) * L;
  for (int y0 = 0; y0 < height; y0 += L) {
    const int n = std::min(L, height - y0);
    min_max::MoveLines(src + static_cast<ptrdiff_t>(y0) * srcStep, width, n,
                       srcStep, srcPixStep, data);
    _mm_filter_1D(data, width, filtered, L, ksize, blockScratch, cmp);
    min_max::MoveLines(dst + static_cast<ptrdiff_t>(y0) * dstStep, width, n,
                       dstStep, dstPixStep, filtered);
  }
}

// One channel: the horizontal pass, then the vertical pass over the columns
// (the transposed view, in which neighbouring columns are neighbouring
// lanes). Both passes read a whole group of lines into the line buffer before
// writing it back, so with packed destination pixels the horizontal pass goes
// straight into dst and the vertical one runs in place there. Otherwise the
// intermediate plane of scratch takes the two passes and is copied into dst.
// scratch holds min_max::PlaneScratchSize(width, height, ksize) elements, or
// min_max::LineScratchSize(max(width, height), ksize) with packed dst pixels.
template <typename T, typename Cmp>
void _mm_filter_2D_y(const T* src, int width, int height, int srcStep,
                     int srcPixStep, T* dst, int dstStep, int dstPixStep,
                     int ksize, T* scratch, T pad, Cmp cmp) {
  if (dstPixStep == 1) {
    _mm_filter_2D_x(src, width, height, srcStep, srcPixStep, dst, dstStep, 1,
                    ksize, scratch, pad, cmp);
    _mm_filter_2D_x(dst, height, width, 1, dstStep, dst, 1, dstStep, ksize,
                    scratch, pad, cmp);
    return;
  }
  const int planeStep = width + 2;
  T* plane = scratch;
  T* lines = plane + static_cast<size_t>(height) * planeStep;
  _mm_filter_2D_x(src, width, height, srcStep, srcPixStep, plane + 2, planeStep,
                  1, ksize, lines, pad, cmp);
  // Each column is shifted two bytes left: a column group is gathered into
  // the line buffer before its output is written, and the bytes it lands on
  // belong to columns already done.
  _mm_filter_2D_x(plane + 2, height, width, 1, planeStep, plane, 1, planeStep,
                  ksize, lines, pad, cmp);
  for (int y = 0; y < height; ++y) {
    const T* from = plane + static_cast<size_t>(y) * planeStep;
    T* to = dst + static_cast<ptrdiff_t>(y) * dstStep;
    for (int x = 0; x < width; ++x) {
      to[static_cast<ptrdiff_t>(x) * dstPixStep] = from[x];
    }
  }
}

// Each channel through _mm_filter_2D_y, then iterations - 1 more passes in
// place on dst.
template <typename T, typename Cmp>
void _mm_filter_2D(const T* src, int width, int height, int srcStep,
                   int channels, T* dst, int dstStep, int ksize, int iterations,
                   T pad, Cmp cmp) {
  if (width < 1 || height < 1 || channels < 1) return;
  ksize = min_max::OddWindow(ksize);
  // One channel needs no intermediate plane; see _mm_filter_2D_y.
  T* scratch =
      new T[channels == 1
                ? min_max::LineScratchSize(std::max(width, height), ksize)
                : min_max::PlaneScratchSize(width, height, ksize)];
  const int passes = std::max(iterations, 1);
  for (int pass = 0; pass < passes; ++pass) {
    const T* from = pass == 0 ? src : dst;
    const int fromStep = pass == 0 ? srcStep : dstStep;
    for (int c = 0; c < channels; ++c) {
      _mm_filter_2D_y(from + c, width, height, fromStep, channels, dst + c,
                      dstStep, channels, ksize, scratch, pad, cmp);
    }
  }
  delete[] scratch;
}

// border = {left, top, right, bottom} readable pixels beyond the region; each
// is clamped to 0 .. ksize, the enlarged region is filtered and the region
// cut out of it.
template <typename T, typename Cmp>
void _mm_filter_2D_wb(const T* src, int width, int height, int srcStep,
                      int channels, T* dst, int dstStep, int ksize,
                      int iterations, T pad, Cmp cmp, int* border) {
  if (border == nullptr) {
    _mm_filter_2D(src, width, height, srcStep, channels, dst, dstStep, ksize,
                  iterations, pad, cmp);
    return;
  }
  if (width < 1 || height < 1 || channels < 1) return;
  ksize = min_max::OddWindow(ksize);
  const int l = std::clamp(border[0], 0, ksize);
  const int t = std::clamp(border[1], 0, ksize);
  const int r = std::clamp(border[2], 0, ksize);
  const int b = std::clamp(border[3], 0, ksize);
  const int bigWidth = l + width + r;
  const int bigHeight = t + height + b;
  const int bigStep = bigWidth * channels;
  T* big = new T[static_cast<size_t>(bigStep) * bigHeight];
  _mm_filter_2D(src - static_cast<ptrdiff_t>(t) * srcStep - l * channels,
                bigWidth, bigHeight, srcStep, channels, big, bigStep, ksize,
                iterations, pad, cmp);
  // The row offset is not scaled by the channel count: with several channels
  // and a top border the cut starts higher up. Callers that pass a border
  // filter one channel, where this is exact.
  const T* cut = big + static_cast<size_t>(bigWidth) * t + l * channels;
  for (int y = 0; y < height; ++y) {
    std::memcpy(dst + static_cast<ptrdiff_t>(y) * dstStep,
                cut + static_cast<size_t>(y) * bigStep,
                static_cast<size_t>(width) * channels * sizeof(T));
  }
  delete[] big;
}

}  // namespace ff

#endif  // SOFTMATTE_SRC_FF_MIN_MAX_FILTER_H_
