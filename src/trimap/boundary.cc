#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <vector>

#include "softmatte/trimap.h"

namespace {

constexpr unsigned char kForeground = 255;

int to_int(long long v) {
  return static_cast<int>(v < INT_MIN ? INT_MIN : (v > INT_MAX ? INT_MAX : v));
}

// In 64 bits, so that no half-size, however absurd, overflows.
dpl_rect window_at(dpl_pt2di pt, long long r, int width, int height) {
  const long long x = pt.x;
  const long long y = pt.y;
  dpl_rect w;
  w.left = to_int(std::max(x - r, 0LL));
  w.right = to_int(std::min(x + r, static_cast<long long>(width)));
  w.top = to_int(std::max(y - r, 0LL));
  w.bottom = to_int(std::min(y + r, static_cast<long long>(height)));
  return w;
}

// Colours of every step-th pixel of one side of the mask edge, in walk order.
struct SideSamples {
  std::vector<int> bgr;
  size_t seen = 0;
};

// Converts like the target's float-to-int instruction: NaN gives 0 and
// out-of-range values saturate, where a plain cast would be undefined.
int saturating_trunc(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483647.0) return INT_MAX;
  if (v <= -2147483648.0) return INT_MIN;
  return static_cast<int>(v);
}

// Four labels at a time through the compiler's generic vectors (SSE on x86,
// NEON on ARM).
typedef int i32x4 __attribute__((vector_size(16)));

i32x4 load4(const int* p) {
  i32x4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

bool any4(i32x4 mask) {
  unsigned long long halves[2];
  std::memcpy(halves, &mask, sizeof halves);
  return (halves[0] | halves[1]) != 0;
}

}  // namespace

void GetCCBndryPixels(const unsigned char* seg, int width, int height,
                      int stride, int* labels, int count,
                      std::vector<std::vector<dpl_pt2di>>& out) {
  out.resize(out.size() + static_cast<size_t>(count > 0 ? count : 0));
  const size_t w = static_cast<size_t>(width);
  for (int y = 0; y < height; ++y) {
    const unsigned char* s = seg + static_cast<size_t>(y) * stride;
    const int* row = labels + y * w;
    // Clamped neighbours: the image border never makes a boundary.
    const int* up = labels + (y > 0 ? y - 1 : 0) * w;
    const int* down = labels + (y + 1 < height ? y + 1 : y) * w;
    // Labels index from the front even when out already held lists.
    auto visit = [&](int x) {
      if (s[x] <= 254) return;
      const int l = row[x];
      const int left = row[x > 0 ? x - 1 : 0];
      const int right = row[x + 1 < width ? x + 1 : x];
      if (up[x] != l || down[x] != l || left != l || right != l) {
        out[l].push_back(dpl_pt2di{x, y});
      }
    };
    visit(0);
    // Inside the row four labels at a time: most pixels lie in the middle of
    // a region and differ from no neighbour.
    int x = 1;
    for (; x + 4 < width; x += 4) {
      const i32x4 l = load4(row + x);
      const i32x4 diff = (l != load4(row + x - 1)) | (l != load4(row + x + 1)) |
                         (l != load4(up + x)) | (l != load4(down + x));
      if (!any4(diff)) continue;
      for (int i = 0; i < 4; ++i) {
        if (diff[i] != 0 && s[x + i] > 254) {
          out[l[i]].push_back(dpl_pt2di{x + i, y});
        }
      }
    }
    for (; x < width; ++x) visit(x);
  }
}

dpl_rect AdaRect_CCSz(dpl_pt2di pt, int r, int width, int height) {
  return window_at(pt, r, width, height);
}

dpl_rect AdaRect_ImgGrad(dpl_pt2di pt, dpl_rect rect, const unsigned char* img,
                         int width, int height, int img_stride,
                         const unsigned char* seg, int seg_stride, int step,
                         double diff_low, double diff_high, int r_low,
                         int r_high) {
  const size_t stride_step = static_cast<size_t>(step);
  SideSamples inside;
  SideSamples outside;
  const bool has_rows = rect.left < rect.right;
  const bool has_cols = rect.top < rect.bottom;
  size_t border = 0;
  if (has_rows) border += 2 * static_cast<size_t>(rect.right - rect.left);
  if (has_cols) border += 2 * static_cast<size_t>(rect.bottom - rect.top);
  const size_t kept = border / stride_step + 2;
  inside.bgr.reserve(3 * kept);
  outside.bgr.reserve(3 * kept);

  auto visit = [&](int x, int y) {
    SideSamples& side =
        seg[static_cast<size_t>(y) * seg_stride + x] == kForeground ? inside
                                                                    : outside;
    if (side.seen++ % stride_step != 0) return;
    const unsigned char* p = img + static_cast<size_t>(y) * img_stride + 3 * x;
    side.bgr.push_back(p[0]);
    side.bgr.push_back(p[1]);
    side.bgr.push_back(p[2]);
  };
  // Clockwise from the top-left corner; every corner is visited twice.
  if (has_rows) {
    for (int x = rect.left; x < rect.right; ++x) visit(x, rect.top);
  }
  if (has_cols) {
    for (int y = rect.top; y < rect.bottom; ++y) visit(rect.right - 1, y);
  }
  if (has_rows) {
    for (int x = rect.right - 1; x >= rect.left; --x) visit(x, rect.bottom - 1);
  }
  if (has_cols) {
    for (int y = rect.bottom - 1; y >= rect.top; --y) visit(rect.left, y);
  }

  // A border that does not straddle the edge keeps the most negative value
  // and so falls to r_low.
  int contrast = INT_MIN;
  const std::vector<int>& a = inside.bgr;
  const std::vector<int>& b = outside.bgr;
  for (size_t i = 0; i < a.size(); i += 3) {
    for (size_t j = 0; j < b.size(); j += 3) {
      const int d0 = b[j] - a[i];
      const int d1 = b[j + 1] - a[i + 1];
      const int d2 = b[j + 2] - a[i + 2];
      const int d = d0 * d0 + d1 * d1 + d2 * d2;
      if (d > contrast) contrast = d;
    }
  }

  double t =
      (static_cast<double>(contrast) - diff_low) / (diff_high - diff_low);
  // Written so that NaN (equal bounds met exactly) passes through unclamped.
  if (t < 0.0) t = 0.0;
  if (t > 1.0) t = 1.0;
  const double span = static_cast<double>(r_high) - static_cast<double>(r_low);
  const long long r =
      static_cast<long long>(r_low) + saturating_trunc(t * span + 0.5);
  return window_at(pt, r, width, height);
}
