#include "edit/cleanup_band.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#include "edit/cleanup_steps.h"
#include "softmatte/edit.h"

namespace {

using softmatte_edit::extremum_window;
using softmatte_edit::smoothed;

// Side of the smoothing's tiles: large enough that the reach of the
// extremum windows (40 pixels at 12 megapixels) does not dwarf the tile,
// small enough that a tile crossed by an edge holds little else.
constexpr int kTile = 64;
constexpr int kBlock = 16;

// Sixteen matte values side by side (a vector register on either target),
// and what comparing two such gives: all ones where true.
typedef unsigned char Bytes16 __attribute__((vector_size(kBlock)));
using Mask16 = decltype(std::declval<Bytes16>() < std::declval<Bytes16>());

Bytes16 Splat(unsigned char v) {
  Bytes16 b;
  for (int k = 0; k < kBlock; ++k) b[k] = v;
  return b;
}

// The larger or smaller of two values, or of two vectors value by value.
struct Max {
  template <typename T>
  T operator()(T a, T b) const {
    return a > b ? a : b;
  }
};
struct Min {
  template <typename T>
  T operator()(T a, T b) const {
    return a < b ? a : b;
  }
};

// a[i] = cmp(a[i], a[i + shift]) for i in [0, n), sixteen at a time; a
// value is read before the one shift places back replaces it.
template <typename Cmp>
void CombineShifted(unsigned char* a, size_t n, size_t shift, Cmp cmp) {
  size_t i = 0;
  for (; i + kBlock <= n; i += kBlock) {
    Bytes16 x;
    Bytes16 y;
    std::memcpy(&x, a + i, kBlock);
    std::memcpy(&y, a + i + shift, kBlock);
    x = cmp(x, y);
    std::memcpy(a + i, &x, kBlock);
  }
  for (; i < n; ++i) a[i] = cmp(a[i], a[i + shift]);
}

// The extremum of every window of `size` consecutive items of a sequence
// of `count` items, each `unit` bytes wide (a value of a row, or a whole row
// of a plane), compared byte by byte. Windows of 2, 4, 8 ... items are built
// in place by doubling; the window of item i is then covered by the two
// widest ones at i and i + size - widest. The first count - size + 1 items
// are the results.
template <typename Cmp>
void WindowExtrema(unsigned char* items, int count, int size, size_t unit,
                   Cmp cmp) {
  int widest = 1;
  for (; 2 * widest <= size; widest *= 2) {
    // Windows of 2 * widest start at items 0 .. count - 2 * widest.
    CombineShifted(items, (count - 2 * widest + 1) * unit, widest * unit, cmp);
  }
  CombineShifted(items, (count - size + 1) * unit, (size - widest) * unit, cmp);
}

// The exact smoothing of one tile, from the tile and the reach of the
// windows around it.
class TileSmoother {
 public:
  TileSmoother(const unsigned char* src, int width, int height, int srcStep,
               int ksize)
      : src_(src),
        width_(width),
        height_(height),
        srcStep_(srcStep),
        ksize_(ksize),
        reach_(extremum_window(width, height) / 2) {}

  // Writes the tile [x0, x1) x [y0, y1) into out, rows x1 - x0 apart.
  void Smooth(int x0, int y0, int x1, int y1, unsigned char* out) {
    const int tw = x1 - x0;
    const int th = y1 - y0;
    Extrema(x0, y0, x1, y1, Max(), 0, &maximum_);
    Extrema(x0, y0, x1, y1, Min(), 255, &minimum_);
    Means(x0, y0, x1, y1);
    for (int y = 0; y < th; ++y) {
      for (int x = 0; x < tw; ++x) {
        const size_t i = static_cast<size_t>(y) * tw + x;
        out[i] = smoothed(mean_[i], maximum_[i], minimum_[i]);
      }
    }
  }

 private:
  const unsigned char* Row(int y) const {
    return src_ + static_cast<ptrdiff_t>(y) * srcStep_;
  }

  // The extremum over each tile pixel's window clipped to the plane, as a
  // horizontal pass over the rows the windows reach, then a vertical one;
  // outside the plane the comparison's identity stands in.
  template <typename Cmp>
  void Extrema(int x0, int y0, int x1, int y1, Cmp cmp, unsigned char identity,
               std::vector<unsigned char>* result) {
    const int size = 2 * reach_ + 1;
    const int tw = x1 - x0;
    const int lineLength = tw + 2 * reach_;
    const int columnLength = (y1 - y0) + 2 * reach_;
    line_.resize(static_cast<size_t>(lineLength));
    rows_.assign(static_cast<size_t>(columnLength) * tw, identity);
    const int left = x0 - reach_;
    const int first = std::max(left, 0);
    const int last = std::min(x1 + reach_, width_);
    for (int y = std::max(y0 - reach_, 0); y < std::min(y1 + reach_, height_);
         ++y) {
      std::fill(line_.begin(), line_.end(), identity);
      std::memcpy(&line_[first - left], Row(y) + first,
                  static_cast<size_t>(last - first));
      WindowExtrema(line_.data(), lineLength, size, 1, cmp);
      std::memcpy(&rows_[static_cast<size_t>(y - (y0 - reach_)) * tw],
                  line_.data(), static_cast<size_t>(tw));
    }
    WindowExtrema(rows_.data(), columnLength, size, static_cast<size_t>(tw),
                  cmp);
    result->assign(rows_.begin(),
                   rows_.begin() + static_cast<ptrdiff_t>(y1 - y0) * tw);
  }

  // The local means the smoothing divides by its maxima: the 3 x 3 rule
  // (outer columns triple their own column, rows repeat at the edges) or
  // the rounded mean of the window clipped to the plane.
  void Means(int x0, int y0, int x1, int y1) {
    const int tw = x1 - x0;
    mean_.resize(static_cast<size_t>(y1 - y0) * tw);
    if (ksize_ == 3) {
      for (int y = y0; y < y1; ++y) {
        const unsigned char* up = Row(y > 0 ? y - 1 : y);
        const unsigned char* mid = Row(y);
        const unsigned char* down = Row(y + 1 < height_ ? y + 1 : y);
        auto column = [&](int x) { return up[x] + mid[x] + down[x]; };
        int* out = &mean_[static_cast<size_t>(y - y0) * tw];
        for (int x = x0; x < x1; ++x) {
          const bool outer = x == 0 || x == width_ - 1;
          const int sum =
              outer ? 3 * column(x) : column(x - 1) + column(x) + column(x + 1);
          out[x - x0] = (sum + 4) / 9;
        }
      }
      return;
    }
    const int r = std::max(ksize_, 1) / 2;
    const int cx0 = std::max(x0 - r, 0);
    const int cx1 = std::min(x1 + r, width_);
    sums_.resize(static_cast<size_t>(cx1 - cx0));
    for (int y = y0; y < y1; ++y) {
      const int top = std::max(y - r, 0);
      const int bottom = std::min(y + r + 1, height_);
      std::fill(sums_.begin(), sums_.end(), 0);
      for (int yy = top; yy < bottom; ++yy) {
        const unsigned char* row = Row(yy);
        for (int x = cx0; x < cx1; ++x) sums_[x - cx0] += row[x];
      }
      int* out = &mean_[static_cast<size_t>(y - y0) * tw];
      for (int x = x0; x < x1; ++x) {
        const int left = std::max(x - r, 0);
        const int right = std::min(x + r + 1, width_);
        int64_t sum = 0;
        for (int c = left; c < right; ++c) sum += sums_[c - cx0];
        const int64_t count =
            static_cast<int64_t>(right - left) * (bottom - top);
        out[x - x0] = static_cast<int>((sum + count / 2) / count);
      }
    }
  }

  const unsigned char* src_;
  int width_;
  int height_;
  int srcStep_;
  int ksize_;
  int reach_;
  std::vector<unsigned char> maximum_;
  std::vector<unsigned char> minimum_;
  std::vector<int> mean_;
  std::vector<int64_t> sums_;
  std::vector<unsigned char> line_;
  std::vector<unsigned char> rows_;
};

// Whether every value of rows [y0, y1) between columns x0 and x1 is v.
bool Uniform(const unsigned char* src, int srcStep, int x0, int y0, int x1,
             int y1, unsigned char v) {
  const Bytes16 vs = Splat(v);
  for (int y = y0; y < y1; ++y) {
    const unsigned char* row = src + static_cast<ptrdiff_t>(y) * srcStep;
    int x = x0;
    for (; x + kBlock <= x1; x += kBlock) {
      Bytes16 block;
      std::memcpy(&block, row + x, kBlock);
      const Mask16 differs = block != vs;
      uint64_t halves[2];
      std::memcpy(halves, &differs, sizeof halves);
      if ((halves[0] | halves[1]) != 0) return false;
    }
    for (; x < x1; ++x) {
      if (row[x] != v) return false;
    }
  }
  return true;
}

// Foreground runs [x0, x1) of the matte's rows.
struct Run {
  int x0;
  int x1;
};

// Index of the first value at or after x whose class (value >= zeros) is
// foreground, or width.
int NextOfClass(const unsigned char* row, int x, int width, int zeros,
                bool foreground) {
  const Bytes16 threshold = Splat(static_cast<unsigned char>(zeros));
  for (; x + kBlock <= width; x += kBlock) {
    Bytes16 block;
    std::memcpy(&block, row + x, kBlock);
    const Mask16 isForeground = block >= threshold;
    uint64_t halves[2];
    std::memcpy(halves, &isForeground, sizeof halves);
    const uint64_t none = foreground ? 0 : ~uint64_t{0};
    if (halves[0] != none || halves[1] != none) break;
  }
  for (; x < width; ++x) {
    if ((row[x] >= zeros) == foreground) return x;
  }
  return width;
}

}  // namespace

void smooth_boundary_band(const unsigned char* src, int width, int height,
                          int srcStep, unsigned char* dst, int dstStep,
                          int ksize) {
  if (src == nullptr || dst == nullptr || width <= 0 || height <= 0) return;
  if (ksize < 1) {
    // The mean filter's own rules for windows below one pixel.
    mat_smooth_boundary(src, width, height, srcStep, dst, dstStep, ksize);
    return;
  }
  const bool inPlace = src == dst;
  // A pixel whose mean window holds only its own value, 0 or 255, keeps it:
  // the mean is that value and so is the ratio to the maximum (0 or 1).
  const int meanReach = ksize == 3 ? 1 : ksize / 2;
  TileSmoother smoother(src, width, height, srcStep, ksize);
  struct Pending {
    int x0, y0, x1, y1;
    size_t offset;
  };
  std::vector<Pending> pending;
  std::vector<unsigned char> outputs;
  for (int y0 = 0; y0 < height; y0 += kTile) {
    const int y1 = std::min(y0 + kTile, height);
    // Neighbouring tiles that need the filters are filtered together, so
    // that they share the reach of the windows between them.
    // One step past the last tile closes a span that reaches the edge.
    const int tiles = (width + kTile - 1) / kTile;
    int spanStart = -1;
    for (int t = 0; t <= tiles; ++t) {
      const int x0 = std::min(t * kTile, width);
      const int x1 = std::min(x0 + kTile, width);
      bool keeps = true;
      if (t < tiles) {
        const unsigned char v = src[static_cast<ptrdiff_t>(y0) * srcStep + x0];
        keeps = (v == 0 || v == 255) &&
                Uniform(src, srcStep, std::max(x0 - meanReach, 0),
                        std::max(y0 - meanReach, 0),
                        std::min(x1 + meanReach, width),
                        std::min(y1 + meanReach, height), v);
        if (keeps && !inPlace) {
          for (int y = y0; y < y1; ++y) {
            std::memset(dst + static_cast<ptrdiff_t>(y) * dstStep + x0, v,
                        static_cast<size_t>(x1 - x0));
          }
        }
        if (!keeps && spanStart < 0) spanStart = x0;
      }
      if (keeps && spanStart >= 0) {
        // Written once every tile has been read: the filter may work in
        // place.
        const int spanEnd = x0;
        pending.push_back({spanStart, y0, spanEnd, y1, outputs.size()});
        outputs.resize(outputs.size() +
                       static_cast<size_t>(spanEnd - spanStart) * (y1 - y0));
        smoother.Smooth(spanStart, y0, spanEnd, y1,
                        &outputs[pending.back().offset]);
        spanStart = -1;
      }
    }
  }
  for (const Pending& p : pending) {
    const int tw = p.x1 - p.x0;
    for (int y = p.y0; y < p.y1; ++y) {
      std::memcpy(dst + static_cast<ptrdiff_t>(y) * dstStep + p.x0,
                  &outputs[p.offset + static_cast<size_t>(y - p.y0) * tw],
                  static_cast<size_t>(tw));
    }
  }
}

void erase_small_cc_runs(unsigned char* alpha, int width, int height, int step,
                         unsigned char threshold, int keep) {
  if (alpha == nullptr || width <= 0 || height <= 0 || keep < 1) return;
  // Values 0 .. threshold are background; the count wraps at 256, so a
  // threshold of 255 makes everything one foreground component, kept.
  const int zeros = (threshold + 1) & 255;
  if (zeros == 0) return;

  std::vector<Run> runs;
  std::vector<size_t> rowBegin(static_cast<size_t>(height) + 1, 0);
  for (int y = 0; y < height; ++y) {
    const unsigned char* row = alpha + static_cast<ptrdiff_t>(y) * step;
    for (int x = NextOfClass(row, 0, width, zeros, true); x < width;) {
      const int end = NextOfClass(row, x, width, zeros, false);
      runs.push_back({x, end});
      x = NextOfClass(row, end, width, zeros, true);
    }
    rowBegin[y + 1] = runs.size();
  }

  // Runs of adjacent rows that share a column belong together (the labelling
  // joins left/right and up/down neighbours only).
  std::vector<size_t> parent(runs.size());
  for (size_t i = 0; i < parent.size(); ++i) parent[i] = i;
  auto find = [&](size_t i) {
    while (parent[i] != i) {
      parent[i] = parent[parent[i]];
      i = parent[i];
    }
    return i;
  };
  for (int y = 1; y < height; ++y) {
    size_t i = rowBegin[y - 1];
    size_t j = rowBegin[y];
    while (i < rowBegin[y] && j < rowBegin[y + 1]) {
      const Run& up = runs[i];
      const Run& down = runs[j];
      if (up.x0 < down.x1 && down.x0 < up.x1) {
        const size_t a = find(i);
        const size_t b = find(j);
        if (a != b) parent[std::max(a, b)] = std::min(a, b);
      }
      if (up.x1 <= down.x1) ++i;
      if (down.x1 <= up.x1) ++j;
    }
  }
  std::vector<int64_t> sizes(runs.size(), 0);
  for (size_t i = 0; i < runs.size(); ++i) {
    sizes[find(i)] += runs[i].x1 - runs[i].x0;
  }
  std::vector<int64_t> componentSizes;
  for (size_t i = 0; i < runs.size(); ++i) {
    if (parent[i] == i) componentSizes.push_back(sizes[i]);
  }
  if (componentSizes.size() <= static_cast<size_t>(keep)) return;
  std::nth_element(componentSizes.begin(), componentSizes.begin() + (keep - 1),
                   componentSizes.end(), std::greater<int64_t>());
  const int64_t limit = componentSizes[keep - 1];
  for (int y = 0; y < height; ++y) {
    unsigned char* row = alpha + static_cast<ptrdiff_t>(y) * step;
    for (size_t i = rowBegin[y]; i < rowBegin[y + 1]; ++i) {
      if (sizes[find(i)] < limit) {
        std::memset(row + runs[i].x0, 0,
                    static_cast<size_t>(runs[i].x1 - runs[i].x0));
      }
    }
  }
}
