#include "softmatte/trimap.h"

#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/ipf.h"

namespace {

constexpr unsigned char kUnknown = 128;
constexpr float kFar = 1e20f;

// Converts like the target's float-to-int instruction: NaN gives 0 and
// out-of-range values saturate (a component with no background at all has a
// thickness near 1e10), where a plain cast would be undefined.
int saturating_trunc(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483647.0) return INT_MAX;
  if (v <= -2147483648.0) return INT_MIN;
  return static_cast<int>(v);
}

// Boundary pixels and band half-size of every component.
struct Components {
  std::vector<std::vector<dpl_pt2di>> boundary;
  std::vector<int> half;
};

Components measure_components(const unsigned char* seg, int width, int height,
                              int seg_stride, int max_band, double band_scale) {
  const size_t w = static_cast<size_t>(width);
  const size_t n = w * static_cast<size_t>(height);
  std::unique_ptr<float[]> dist(new float[n]);
  for (size_t y = 0; y < static_cast<size_t>(height); ++y) {
    const unsigned char* s = seg + y * seg_stride;
    float* d = &dist[y * w];
    for (size_t x = 0; x < w; ++x) d[x] = s[x] != 0 ? kFar : 0.0f;
  }
  DistanceTransform(dist.get(), width, height);

  std::unique_ptr<int[]> labels(new int[n]);
  const int count = ff::ipf_connected_component(seg, width, height, seg_stride,
                                                labels.get(), width);
  Components c;
  // Without labels the label image holds garbage: no bands at all.
  if (count <= 0) return c;
  GetCCBndryPixels(seg, width, height, seg_stride, labels.get(), count,
                   c.boundary);

  // Squared half-thickness: the largest inner distance to the background.
  std::vector<double> thickness(static_cast<size_t>(count), 0.0);
  for (size_t p = 0; p < n; ++p) {
    double& t = thickness[static_cast<size_t>(labels[p])];
    if (t < dist[p]) t = dist[p];
  }
  c.half.resize(static_cast<size_t>(count));
  for (size_t l = 0; l < c.half.size(); ++l) {
    const int h = saturating_trunc(std::sqrt(thickness[l]) * band_scale);
    c.half[l] = h < max_band ? h : max_band;
  }
  return c;
}

void fill_unknown(const dpl_rect& r, unsigned char* out, int out_stride) {
  if (r.left >= r.right) return;
  const size_t len = static_cast<size_t>(r.right - r.left);
  for (int y = r.top; y < r.bottom; ++y) {
    std::memset(out + static_cast<size_t>(y) * out_stride + r.left, kUnknown,
                len);
  }
}

}  // namespace

void MakeTrimapFromSegRes(const unsigned char* seg, int width, int height,
                          int seg_stride, unsigned char* out, int out_stride,
                          int max_band, double band_scale) {
  if (width < 1 || height < 1) return;
  const Components c =
      measure_components(seg, width, height, seg_stride, max_band, band_scale);
  ff::ipf_memcpy_2d(seg, width, height, seg_stride, out, out_stride);
  for (size_t l = 0; l < c.half.size(); ++l) {
    const int r = c.half[l];
    // The window reaches r pixels up and left but only r - 1 down and right.
    if (r <= 0) continue;
    for (const dpl_pt2di& pt : c.boundary[l]) {
      fill_unknown(AdaRect_CCSz(pt, r, width, height), out, out_stride);
    }
  }
}

void MakeTrimapFromSegRes(const unsigned char* img, int width, int height,
                          int img_stride, const unsigned char* seg,
                          int seg_stride, unsigned char* out, int out_stride,
                          int max_band, double band_scale, int step,
                          unsigned char diff_low, unsigned char diff_high,
                          int min_band) {
  if (width < 1 || height < 1) return;
  const Components c =
      measure_components(seg, width, height, seg_stride, max_band, band_scale);
  ff::ipf_memcpy_2d(seg, width, height, seg_stride, out, out_stride);
  // The contrast rule compares squared colour distances: the bounds are a
  // difference of diff_low or diff_high in each of the three channels.
  const double low2 = static_cast<double>(3 * diff_low * diff_low);
  const double high2 = static_cast<double>(3 * diff_high * diff_high);
  for (size_t l = 0; l < c.half.size(); ++l) {
    // The component's size only picks the ring inspected for contrast; even
    // an empty ring still gets a min_band window.
    const int r = c.half[l];
    for (const dpl_pt2di& pt : c.boundary[l]) {
      const dpl_rect ring = AdaRect_CCSz(pt, r, width, height);
      const dpl_rect window =
          AdaRect_ImgGrad(pt, ring, img, width, height, img_stride, seg,
                          seg_stride, step, low2, high2, min_band, max_band);
      if (window.top < window.bottom) fill_unknown(window, out, out_stride);
    }
  }
}
