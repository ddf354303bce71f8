#ifndef SOFTMATTE_SRC_FF_MIN_MAX_FILTER_H_
#define SOFTMATTE_SRC_FF_MIN_MAX_FILTER_H_

// Running minimum and maximum over square windows, built on the van Herk /
// Gil-Werman block scheme: a constant number of comparisons per pixel, for
// any window size.
//
// The one-dimensional pass works on kMmLanes lines at once, interleaved in a
// line buffer, so that every comparison is a plain loop over the lanes that
// the compiler turns into vector instructions on any target. Rows of a plane
// are gathered into the lanes; columns are filtered the same way through the
// transposed view of the plane, where the lanes are neighbouring bytes.

#include <algorithm>
#include <cstddef>
#include <cstring>

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

// Lines filtered side by side; one cache line of bytes.
constexpr int kMmLanes = 64;

// An even window reaches as far as the next odd one.
inline int _mm_odd_ksize(int ksize) { return 2 * (std::max(ksize, 0) / 2) + 1; }

// Elements of line-buffer scratch _mm_filter_2D_x needs for lines of length
// positions: the padded line, the filtered line and the block array.
inline size_t _mm_line_scratch_size(int length, int ksize) {
  const size_t blocks = static_cast<size_t>((length + ksize - 1) / ksize);
  const size_t padded = static_cast<size_t>(ksize / 2) + blocks * ksize + ksize;
  return (padded + static_cast<size_t>(length) + 2 * ksize) * kMmLanes;
}

// Elements of scratch _mm_filter_2D_y needs: the intermediate plane, with
// 2 * ksize spare rows and two spare columns, then the line buffers.
inline size_t _mm_plane_scratch_size(int width, int height, int ksize) {
  return static_cast<size_t>(height + 2 * ksize) * (width + 2) +
         _mm_line_scratch_size(std::max(width, height), ksize);
}

// Running extremum of kMmLanes interleaved lines of length positions (ksize
// odd). line points at position 0 and is readable with pad values from
// ksize / 2 positions before it up to the length rounded up to a multiple of
// ksize plus ksize after it. Output position i goes to dst + i * dstPixStep
// (kMmLanes contiguous values); scratch holds 2 * ksize - 1 positions.
template <typename T, typename Cmp>
void _mm_filter_1D(const T* line, int length, T* dst, int dstPixStep, int ksize,
                   T* scratch, Cmp cmp) {
  constexpr int L = kMmLanes;
  const int reach = 2 * (ksize / 2);
  T* g = scratch;
  for (int p = 0; p < length; p += ksize) {
    const T* s = line + static_cast<ptrdiff_t>(p - (ksize - 1) / 2) * L;
    // g[j] is the extremum of s[j .. ksize - 1] below the middle and of
    // s[ksize - 1 .. j] above it; each output combines one of each.
    std::memcpy(g + (ksize - 1) * L, s + (ksize - 1) * L, L * sizeof(T));
    for (int j = ksize - 2; j >= 0; --j) {
      const T* sj = s + j * L;
      const T* up = g + (j + 1) * L;
      T* gj = g + j * L;
      for (int l = 0; l < L; ++l) gj[l] = cmp(sj[l], up[l]);
    }
    for (int j = ksize; j <= 2 * ksize - 2; ++j) {
      const T* sj = s + j * L;
      const T* down = g + (j - 1) * L;
      T* gj = g + j * L;
      for (int l = 0; l < L; ++l) gj[l] = cmp(sj[l], down[l]);
    }
    const int n = std::min(ksize, length - p);
    for (int i = 0; i < n; ++i) {
      const T* a = g + i * L;
      const T* b = g + (i + reach) * L;
      T* out = dst + static_cast<ptrdiff_t>(p + i) * dstPixStep;
      for (int l = 0; l < L; ++l) out[l] = cmp(a[l], b[l]);
    }
  }
}

// Filters height lines of width positions each along the line: position x of
// line y is src[y * srcStep + x * srcPixStep], likewise dst. Lines go through
// the padded line buffer kMmLanes at a time; src and dst may overlap as long
// as no line group writes values a later group still has to read.
template <typename T, typename Cmp>
void _mm_filter_2D_x(const T* src, int width, int height, int srcStep,
                     int srcPixStep, T* dst, int dstStep, int dstPixStep,
                     int ksize, T* scratch, T pad, Cmp cmp) {
  constexpr int L = kMmLanes;
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
    const T* s = src + static_cast<ptrdiff_t>(y0) * srcStep;
    if (srcStep == 1) {
      for (int x = 0; x < width; ++x) {
        std::memcpy(data + static_cast<size_t>(x) * L,
                    s + static_cast<ptrdiff_t>(x) * srcPixStep, n * sizeof(T));
      }
    } else {
      for (int r = 0; r < n; ++r) {
        const T* row = s + static_cast<ptrdiff_t>(r) * srcStep;
        for (int x = 0; x < width; ++x) {
          data[static_cast<size_t>(x) * L + r] =
              row[static_cast<ptrdiff_t>(x) * srcPixStep];
        }
      }
    }
    _mm_filter_1D(data, width, filtered, L, ksize, blockScratch, cmp);
    T* d = dst + static_cast<ptrdiff_t>(y0) * dstStep;
    if (dstStep == 1) {
      for (int x = 0; x < width; ++x) {
        std::memcpy(d + static_cast<ptrdiff_t>(x) * dstPixStep,
                    filtered + static_cast<size_t>(x) * L, n * sizeof(T));
      }
    } else {
      for (int r = 0; r < n; ++r) {
        T* row = d + static_cast<ptrdiff_t>(r) * dstStep;
        for (int x = 0; x < width; ++x) {
          row[static_cast<ptrdiff_t>(x) * dstPixStep] =
              filtered[static_cast<size_t>(x) * L + r];
        }
      }
    }
  }
}

// One channel: the horizontal pass into the intermediate plane of scratch,
// the vertical pass over that plane's columns, then the copy into dst.
// scratch holds _mm_plane_scratch_size(width, height, ksize) elements.
template <typename T, typename Cmp>
void _mm_filter_2D_y(const T* src, int width, int height, int srcStep,
                     int srcPixStep, T* dst, int dstStep, int dstPixStep,
                     int ksize, T* scratch, T pad, Cmp cmp) {
  const int planeStep = width + 2;
  T* plane = scratch;
  T* lines = plane + static_cast<size_t>(height + 2 * ksize) * planeStep;
  _mm_filter_2D_x(src, width, height, srcStep, srcPixStep, plane + 2, planeStep,
                  1, ksize, lines, pad, cmp);
  // Each column is shifted two bytes left: the column group is gathered into
  // the line buffer before its output is written, and the bytes it lands on
  // belong to columns already done.
  _mm_filter_2D_x(plane + 2, height, width, 1, planeStep, plane, 1, planeStep,
                  ksize, lines, pad, cmp);
  for (int y = 0; y < height; ++y) {
    const T* from = plane + static_cast<size_t>(y) * planeStep;
    T* to = dst + static_cast<ptrdiff_t>(y) * dstStep;
    if (dstPixStep == 1) {
      std::memcpy(to, from, width * sizeof(T));
    } else {
      for (int x = 0; x < width; ++x) {
        to[static_cast<ptrdiff_t>(x) * dstPixStep] = from[x];
      }
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
  ksize = _mm_odd_ksize(ksize);
  T* scratch = new T[_mm_plane_scratch_size(width, height, ksize)];
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
  ksize = _mm_odd_ksize(ksize);
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
