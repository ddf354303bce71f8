#include "trimap/trimap_runs.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "softmatte/trimap.h"

namespace {

constexpr unsigned char kUnknown = 128;
constexpr float kFar = 1e20f;

using Run = MaskRun;

// Calls emit(a, b) for every maximal piece of [x0, x1) that none of the
// sorted, disjoint runs [first, last) covers.
template <typename Emit>
void Uncovered(int x0, int x1, const Run* first, const Run* last, Emit emit) {
  int x = x0;
  for (const Run* r = first; r != last && x < x1; ++r) {
    if (r->x1 <= x) continue;
    if (r->x0 >= x1) break;
    if (r->x0 > x) emit(x, r->x0);
    x = std::max(x, r->x1);
  }
  if (x < x1) emit(x, x1);
}

// The rounding of the whole-plane trimap: half-size from the squared
// thickness, as it converts it.
int HalfSize(double thickness, double band_scale, int max_band) {
  const double v = std::sqrt(thickness) * band_scale;
  int h = 0;
  if (std::isnan(v)) {
    h = 0;
  } else if (v >= 2147483647.0) {
    h = 2147483647;
  } else {
    h = static_cast<int>(v);
  }
  return h < max_band ? h : max_band;
}

}  // namespace

void MakeTrimapFromRuns(const unsigned char* seg, int width, int height,
                        unsigned char* out, int max_band, double band_scale) {
  if (width < 1 || height < 1) return;
  MakeTrimapFromRuns(FindMaskRuns(seg, width, height), seg, out, max_band,
                     band_scale);
}

void MakeTrimapFromRuns(const MaskRuns& mask, const unsigned char* seg,
                        unsigned char* out, int max_band, double band_scale) {
  const int width = mask.width;
  const int height = mask.height;
  if (width < 1 || height < 1) return;
  const size_t w = static_cast<size_t>(width);
  std::memcpy(out, seg, w * height);
  // Half-sizes are min(trunc(sqrt(thickness) * scale), max_band): nothing
  // can be painted without a positive band and scale.
  if (max_band <= 0 || !(band_scale > 0.0)) return;
  const std::vector<MaskRun>& runs = mask.runs;
  const std::vector<size_t>& rowStart = mask.rowStart;
  const std::vector<int>& component = mask.piece;
  const int count = mask.pieces;
  if (runs.empty()) return;

  // A component holding a (2k + 1)-square of subject pixels, k >= the
  // thickness at which its band reaches max_band, is that thick: its nearest
  // background pixel is more than k away from the square's centre.
  const double reach = static_cast<double>(max_band) / band_scale;
  const long long k = static_cast<long long>(std::ceil(reach));
  std::vector<char> thick(count, 0);
  if (2 * k + 1 <= std::min(width, height)) {
    const int side = static_cast<int>(2 * k + 1);
    std::vector<int> depth(w, 0);
    std::vector<int> seen(w, -2);  // the last row that counted a column
    for (int y = 0; y < height; ++y) {
      for (size_t r = rowStart[y]; r < rowStart[y + 1]; ++r) {
        if (thick[component[r]] || runs[r].x1 - runs[r].x0 < side) continue;
        for (int x = runs[r].x0 + static_cast<int>(k);
             x < runs[r].x1 - static_cast<int>(k); ++x) {
          depth[x] = seen[x] == y - 1 ? depth[x] + 1 : 1;
          seen[x] = y;
          if (depth[x] >= side) {
            thick[component[r]] = 1;
            break;
          }
        }
      }
    }
  }

  // The others get their thickness from a distance transform over their
  // bounding box grown by k + 1: exact wherever it is below (k + 1)^2, and
  // at least that (so again the full band) where it is not.
  struct Box {
    int left = 1 << 30, top = 1 << 30, right = -1, bottom = -1;
  };
  std::vector<Box> boxes(count);
  for (size_t r = 0; r < runs.size(); ++r) {
    Box& b = boxes[component[r]];
    b.left = std::min(b.left, runs[r].x0);
    b.right = std::max(b.right, runs[r].x1);
    b.top = std::min(b.top, runs[r].y);
    b.bottom = std::max(b.bottom, runs[r].y + 1);
  }
  std::vector<int> half(count, max_band);
  std::vector<std::vector<size_t>> runsOf(count);
  for (size_t r = 0; r < runs.size(); ++r) {
    if (!thick[component[r]]) runsOf[component[r]].push_back(r);
  }
  const long long grow = k + 1;
  std::vector<float> grid;
  for (int c = 0; c < count; ++c) {
    if (thick[c] || runsOf[c].empty()) continue;
    const Box& b = boxes[c];
    const int left = static_cast<int>(std::max(0LL, b.left - grow));
    const int top = static_cast<int>(std::max(0LL, b.top - grow));
    const int right =
        static_cast<int>(std::min<long long>(width, b.right + grow));
    const int bottom =
        static_cast<int>(std::min<long long>(height, b.bottom + grow));
    const int bw = right - left;
    const int bh = bottom - top;
    grid.resize(static_cast<size_t>(bw) * bh);
    for (int y = 0; y < bh; ++y) {
      const unsigned char* s = seg + (top + y) * w + left;
      float* g = &grid[static_cast<size_t>(y) * bw];
      for (int x = 0; x < bw; ++x) g[x] = s[x] != 0 ? kFar : 0.0f;
    }
    DistanceTransform(grid.data(), bw, bh);
    double thickness = 0.0;
    for (size_t r : runsOf[c]) {
      const float* g = &grid[static_cast<size_t>(runs[r].y - top) * bw];
      for (int x = runs[r].x0; x < runs[r].x1; ++x) {
        if (thickness < g[x - left]) thickness = g[x - left];
      }
    }
    half[c] = HalfSize(thickness, band_scale, max_band);
  }

  // Paint [x - r, x + r) x [y - r, y + r) around every subject pixel with a
  // background 4-neighbour (the image's edge is none), a span at a time.
  auto paint = [&](int y, int a, int b, int r) {
    const int x0 = std::max(a - r, 0);
    const int x1 = std::min(b - 1 + r, width);
    const int y0 = std::max(y - r, 0);
    const int y1 = std::min(y + r, height);
    if (x0 >= x1) return;
    for (int v = y0; v < y1; ++v)
      std::memset(out + v * w + x0, kUnknown, x1 - x0);
  };
  for (int y = 0; y < height; ++y) {
    for (size_t r = rowStart[y]; r < rowStart[y + 1]; ++r) {
      const int h = half[component[r]];
      if (h <= 0) continue;
      const Run& run = runs[r];
      if (run.x0 > 0) paint(y, run.x0, run.x0 + 1, h);
      if (run.x1 < width) paint(y, run.x1 - 1, run.x1, h);
      auto edge = [&](int a, int b) { paint(y, a, b, h); };
      if (y > 0) {
        Uncovered(run.x0, run.x1, runs.data() + rowStart[y - 1],
                  runs.data() + rowStart[y], edge);
      }
      if (y + 1 < height) {
        Uncovered(run.x0, run.x1, runs.data() + rowStart[y + 1],
                  runs.data() + rowStart[y + 2], edge);
      }
    }
  }
}
