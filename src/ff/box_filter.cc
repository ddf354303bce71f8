#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "softmatte/ff/ipf.h"

namespace ff {

namespace {

// Where real data lies along one axis of the zero-padded plane: padded
// positions [first, last) hold source data, the rest counts as 0. The
// padded plane has length + 2 * half positions; source 0 sits at half.
struct Span {
  int half;
  int first;
  int last;
};

// before/after are the caller's border values on the two sides; they are
// not clamped below, so a negative one cuts into the region.
Span MakeSpan(int length, int size, int before, int after) {
  Span s;
  s.half = std::max(size, 1) / 2;
  const int padded = length + 2 * s.half;
  s.first = std::clamp(s.half - std::min(before, s.half), 0, padded);
  s.last =
      std::clamp(s.half + length + std::min(after, s.half), s.first, padded);
  return s;
}

// The caller's border values, 0 on every side without a border array.
struct Border {
  int left = 0;
  int top = 0;
  int right = 0;
  int bottom = 0;
};

Border ReadBorder(const int* border) {
  Border b;
  if (border != nullptr) {
    b.left = border[0];
    b.top = border[1];
    b.right = border[2];
    b.bottom = border[3];
  }
  return b;
}

// With at least half a window of data past every side, every window lies
// wholly over data.
bool FullWindows(const Border& b, int kw, int kh) {
  return b.left >= kw / 2 && b.top >= kh / 2 && b.right >= kw / 2 &&
         b.bottom >= kh / 2;
}

// Loops run in chunks of this many elements with a fixed trip count, which
// compilers vectorise even at their cheapest vectoriser settings.
constexpr int kChunk = 16;

// out[j] = window sum from two table rows; reach is the window's width in
// table entries.
void WindowSums(const unsigned* __restrict top,
                const unsigned* __restrict bottom, size_t reach,
                unsigned* __restrict out, size_t n) {
  const unsigned* __restrict topEnd = top + reach;
  const unsigned* __restrict bottomEnd = bottom + reach;
  size_t j = 0;
  for (; j + kChunk <= n; j += kChunk) {
    for (size_t i = j; i < j + kChunk; ++i) {
      out[i] = (bottomEnd[i] - bottom[i]) - (topEnd[i] - top[i]);
    }
  }
  for (; j < n; ++j) out[j] = (bottomEnd[j] - bottom[j]) - (topEnd[j] - top[j]);
}

// Window sums streamed row by row out of a summed-area table of the padded
// plane. Only the 2 * half + 2 table rows that a window row spans are kept,
// in a ring, instead of the whole table: the same unsigned 32-bit entries,
// a fraction of the memory. Wrapping arithmetic is exact for the window sums.
template <typename TS>
class SumRows {
 public:
  SumRows(const TS* src, int width, int height, int srcStep, int channels,
          int kw, int kh, const Border& border)
      : src_(src),
        srcStep_(srcStep),
        channels_(channels),
        width_(width),
        cols_(MakeSpan(width, kw, border.left, border.right)),
        rows_(MakeSpan(height, kh, border.top, border.bottom)),
        tableStep_(static_cast<size_t>(width + 2 * cols_.half + 1) * channels),
        ringRows_(2 * rows_.half + 2),
        ring_(new unsigned[tableStep_ * ringRows_]()),
        acc_(new unsigned[channels]) {}
  ~SumRows() {
    delete[] ring_;
    delete[] acc_;
  }
  SumRows(const SumRows&) = delete;
  SumRows& operator=(const SumRows&) = delete;

  // Window sums of output row y into out (width * channels values); rows
  // must be asked for in increasing order.
  void Row(int y, unsigned* out) {
    const int bottom = y + 2 * rows_.half + 1;
    while (built_ < bottom) Build();
    WindowSums(TableRow(y), TableRow(bottom),
               static_cast<size_t>(2 * cols_.half + 1) * channels_, out,
               static_cast<size_t>(width_) * channels_);
  }

 private:
  unsigned* TableRow(int i) {
    return ring_ + static_cast<size_t>(i % ringRows_) * tableStep_;
  }

  // Table row built_ + 1 from row built_ and padded row built_.
  void Build() {
    const unsigned* prev = TableRow(built_);
    unsigned* next = TableRow(built_ + 1);
    const int py = built_++;
    if (py < rows_.first || py >= rows_.last || cols_.first == cols_.last) {
      std::memcpy(next, prev, tableStep_ * sizeof(unsigned));
      return;
    }
    const TS* row =
        src_ + static_cast<ptrdiff_t>(py - rows_.half) * srcStep_ +
        static_cast<ptrdiff_t>(cols_.first - cols_.half) * channels_;
    const size_t c = channels_;
    const size_t first = cols_.first * c;
    const size_t last = cols_.last * c;
    const size_t end = tableStep_ - c;
    // Entry j + c of a table row covers padded elements up to j.
    std::fill(next, next + c, 0u);
    for (size_t j = c; j < first + c; ++j) next[j] = prev[j];
    if (c == 1) {
      // The running sum is the one serial chain of the table: unrolled by
      // hand so that loop overhead does not double its cost.
      unsigned acc = 0;
      unsigned* out = next + first + 1;
      const unsigned* above = prev + first + 1;
      const size_t count = last - first;
      size_t i = 0;
      for (; i + 4 <= count; i += 4) {
        const unsigned a0 = acc + static_cast<unsigned>(row[i]);
        const unsigned a1 = a0 + static_cast<unsigned>(row[i + 1]);
        const unsigned a2 = a1 + static_cast<unsigned>(row[i + 2]);
        acc = a2 + static_cast<unsigned>(row[i + 3]);
        out[i] = above[i] + a0;
        out[i + 1] = above[i + 1] + a1;
        out[i + 2] = above[i + 2] + a2;
        out[i + 3] = above[i + 3] + acc;
      }
      for (; i < count; ++i) {
        acc += static_cast<unsigned>(row[i]);
        out[i] = above[i] + acc;
      }
      for (size_t j = last; j < end; ++j) next[j + 1] = prev[j + 1] + acc;
      return;
    }
    std::fill(acc_, acc_ + c, 0u);
    for (size_t j = first; j < last; j += c) {
      for (size_t k = 0; k < c; ++k) {
        acc_[k] += static_cast<unsigned>(row[j - first + k]);
        next[j + c + k] = prev[j + c + k] + acc_[k];
      }
    }
    for (size_t j = last; j < end; j += c) {
      for (size_t k = 0; k < c; ++k)
        next[j + c + k] = prev[j + c + k] + acc_[k];
    }
  }

  const TS* src_;
  int srcStep_;
  int channels_;
  int width_;
  Span cols_;
  Span rows_;
  size_t tableStep_;
  int ringRows_;
  unsigned* ring_;
  unsigned* acc_;
  int built_ = 0;
};

// Window sums of every channel; dstStep counts TD elements. The table's
// unsigned sums are written straight into the int rows: int and unsigned
// may alias, and the conversion is the same modulo 2^32.
template <typename TD, typename TS, typename TA>
void _sum_filter_2D(const TS* src, int width, int height, int srcStep,
                    int channels, TD* dst, int dstStep, int kw, int kh,
                    const int* border) {
  static_assert(sizeof(TD) == sizeof(unsigned) && sizeof(TA) == sizeof(TD),
                "window sums are 32-bit");
  if (width < 1 || height < 1 || channels < 1) return;
  SumRows<TS> sums(src, width, height, srcStep, channels, kw, kh,
                   ReadBorder(border));
  for (int y = 0; y < height; ++y) {
    sums.Row(y, reinterpret_cast<unsigned*>(dst + static_cast<ptrdiff_t>(y) *
                                                      dstStep));
  }
}

// Window positions on real data along one axis, for each position.
void AxisCounts(int length, const Span& s, int* counts) {
  for (int i = 0; i < length; ++i) {
    const int lo = std::max(i, s.first);
    const int hi = std::min(i + 2 * s.half + 1, s.last);
    counts[i] = std::max(hi - lo, 0);
  }
}

// q = (sum + count / 2) / count in 32-bit integers, 0 for a count of 0.
// The quotient comes from a floating-point division, which truncates to the
// integer quotient exactly while count * (quotient + 1) stays below 2^24 in
// float or 2^53 in double: float whenever the caller has made sure of that,
// double otherwise (any 32-bit values). Unlike integer division, it
// vectorises.
template <typename F, typename TD>
void DivideRow(const unsigned* __restrict sums, const int* __restrict counts,
               TD* __restrict out, int n) {
  const auto divide = [](const unsigned* __restrict s, const int* __restrict c,
                         TD* __restrict o, int count) {
    for (int i = 0; i < count; ++i) {
      const int d = c[i];
      // Summed in unsigned: an int source near the limits wraps rather than
      // overflow.
      const int num = static_cast<int>(s[i] + static_cast<unsigned>(d / 2));
      // Every step runs unconditionally and a zero count is masked out
      // rather than branched around, so that the loop has no branches.
      const int q = static_cast<int>(static_cast<F>(num) /
                                     static_cast<F>(std::max(d, 1)));
      o[i] = static_cast<TD>(q & -static_cast<int>(d != 0));
    }
  };
  int j = 0;
  for (; j + kChunk <= n; j += kChunk) {
    divide(sums + j, counts + j, out + j, kChunk);
  }
  divide(sums + j, counts + j, out + j, n - j);
}

// Rounded mean of each channel by its pixel's count; a count of 0 gives 0.
// Rows go in four bands one after the other, like the library's other banded
// loops; the result does not depend on it. The window sums of a
// row are divided as soon as they are made, so no sum plane is kept; without
// a caller's count plane the counts are made a row at a time too, as they
// are products of the two axis counts.
template <typename TS, typename TD>
void MeanFilter(const TS* src, int width, int height, int srcStep, int channels,
                TD* dst, int dstStep, int* count, int countStep, int kw, int kh,
                int* border) {
  if (src == nullptr || dst == nullptr) return;
  if (width < 1 || height < 1 || channels < 1) return;
  kw = std::max(kw, 1);
  kh = std::max(kh, 1);
  const Border b = ReadBorder(border);
  const bool fullWindows = FullWindows(b, kw, kh);
  int* xs = new int[width];
  int* ys = new int[height];
  AxisCounts(width, MakeSpan(width, kw, b.left, b.right), xs);
  AxisCounts(height, MakeSpan(height, kh, b.top, b.bottom), ys);
  if (count != nullptr) {
    ipf_count_filter_pixels(count, width, height, countStep, kw, kh, border);
  }
  // Byte sums stay small enough for the float division unless the window
  // passes some 65000 pixels; anything larger takes the double one.
  const int64_t windowPixels =
      std::max(static_cast<int64_t>(2 * (kw / 2) + 1) * (2 * (kh / 2) + 1),
               static_cast<int64_t>(kw) * kh);
  const bool floatExact =
      sizeof(TS) == 1 && 258 * windowPixels < (int64_t{1} << 24);
  const size_t n = static_cast<size_t>(width) * channels;
  SumRows<TS> sums(src, width, height, srcStep, channels, kw, kh, b);
  unsigned* row = new unsigned[n];
  // Divisors per value of the row; rows of equal vertical count share them.
  int* divisors = new int[n];
  int divisorsRowCount = -1;
  const int bands[5] = {0, height / 4, height / 2, 3 * (height / 4), height};
  for (int band = 0; band < 4; ++band) {
    for (int y = bands[band]; y < bands[band + 1]; ++y) {
      sums.Row(y, row);
      if (count != nullptr) {
        // The caller's plane is what the counts are; every channel of a
        // pixel divides by that pixel's count.
        const int* pixelCounts = count + static_cast<ptrdiff_t>(y) * countStep;
        for (int x = 0; x < width; ++x) {
          std::fill_n(divisors + static_cast<size_t>(x) * channels, channels,
                      pixelCounts[x]);
        }
        divisorsRowCount = -1;
      } else if (divisorsRowCount != ys[y]) {
        for (int x = 0; x < width; ++x) {
          std::fill_n(divisors + static_cast<size_t>(x) * channels, channels,
                      fullWindows ? kw * kh : xs[x] * ys[y]);
        }
        divisorsRowCount = ys[y];
      }
      TD* out = dst + static_cast<ptrdiff_t>(y) * dstStep;
      if (floatExact) {
        DivideRow<float>(row, divisors, out, static_cast<int>(n));
      } else {
        DivideRow<double>(row, divisors, out, static_cast<int>(n));
      }
    }
  }
  delete[] row;
  delete[] divisors;
  delete[] xs;
  delete[] ys;
}

}  // namespace

void ipf_sum_filter(const unsigned char* src, int width, int height,
                    int srcStep, int channels, int* dst, int dstStep, int kw,
                    int kh, int* border) {
  if (src == nullptr || dst == nullptr) return;
  _sum_filter_2D<int, unsigned char, int>(src, width, height, srcStep, channels,
                                          dst, dstStep, kw, kh, border);
}

void ipf_sum_filter(const int* src, int width, int height, int srcStep,
                    int channels, int* dst, int dstStep, int kw, int kh,
                    int* border) {
  if (src == nullptr || dst == nullptr) return;
  _sum_filter_2D<int, int, int>(src, width, height, srcStep, channels, dst,
                                dstStep, kw, kh, border);
}

void ipf_count_filter_pixels(int* count, int width, int height, int countStep,
                             int kw, int kh, int* border) {
  if (count == nullptr || width < 1 || height < 1) return;
  // A size below 1 is taken as 1, like the sums do.
  kw = std::max(kw, 1);
  kh = std::max(kh, 1);
  const Border b = ReadBorder(border);
  // With data under the whole window everywhere the count is kw * kh, which
  // for an even size is one row and column short of what the sum covers.
  if (FullWindows(b, kw, kh)) {
    for (int y = 0; y < height; ++y) {
      std::fill_n(count + static_cast<ptrdiff_t>(y) * countStep, width,
                  kw * kh);
    }
    return;
  }
  // The box sum of a plane of ones is separable: a product of axis counts.
  int* xs = new int[width];
  int* ys = new int[height];
  AxisCounts(width, MakeSpan(width, kw, b.left, b.right), xs);
  AxisCounts(height, MakeSpan(height, kh, b.top, b.bottom), ys);
  for (int y = 0; y < height; ++y) {
    int* out = count + static_cast<ptrdiff_t>(y) * countStep;
    for (int x = 0; x < width; ++x) out[x] = xs[x] * ys[y];
  }
  delete[] xs;
  delete[] ys;
}

void ipf_mean_filter(const unsigned char* src, int width, int height,
                     int srcStep, int channels, int* dst, int dstStep,
                     int* count, int countStep, int kw, int kh, int* border) {
  MeanFilter(src, width, height, srcStep, channels, dst, dstStep, count,
             countStep, kw, kh, border);
}

void ipf_mean_filter(const int* src, int width, int height, int srcStep,
                     int channels, int* dst, int dstStep, int* count,
                     int countStep, int kw, int kh, int* border) {
  MeanFilter(src, width, height, srcStep, channels, dst, dstStep, count,
             countStep, kw, kh, border);
}

void ipf_mean_filter(const unsigned char* src, int width, int height,
                     int srcStep, int channels, unsigned char* dst, int dstStep,
                     int* count, int countStep, int kw, int kh, int* border) {
  MeanFilter(src, width, height, srcStep, channels, dst, dstStep, count,
             countStep, kw, kh, border);
}

}  // namespace ff
