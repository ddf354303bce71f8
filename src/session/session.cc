#include "softmatte/session.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "session/session_impl.h"
#include "softmatte/colour.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "softmatte/trimap.h"

namespace {

constexpr unsigned char kUnknown = 128;
constexpr int kNeighbourhood3x3 = 3;
// The colour estimate covers the matte's soft pixels only; 0 and 254..255
// are taken as settled.
constexpr unsigned char kFbLow = 1;
constexpr unsigned char kFbHigh = 253;

// Element count of a per-pixel table. A count past what the platform can
// address asks for the largest size, so that array new fails rather than
// handing out a short block.
size_t TableCount(int width, int height, int perPixel) {
  const uint64_t count = static_cast<uint64_t>(width) *
                         static_cast<uint64_t>(height) *
                         static_cast<uint64_t>(perPixel);
  if (count > SIZE_MAX / sizeof(int)) return SIZE_MAX / sizeof(int);
  return static_cast<size_t>(count);
}

void ResizeNearestC1(const ff::FVTImage& src, ff::FVTImage& dst) {
  if (src.data == nullptr) return;
  ff::ipf_resize_nn(src.data, src.width, src.height, src.step, 1, dst.data,
                    dst.width, dst.height, dst.step, 1, ff::ccn<1>());
}

}  // namespace

void ComplementKnown(unsigned char* plane, int width, int height, int stride) {
  if (plane == nullptr) return;
  for (int y = 0; y < height; ++y) {
    unsigned char* row = plane + static_cast<ptrdiff_t>(y) * stride;
    for (int x = 0; x < width; ++x) {
      if (row[x] != kUnknown) row[x] = static_cast<unsigned char>(~row[x]);
    }
  }
}

DSCMattingImpl::DSCMattingImpl() = default;

DSCMattingImpl::~DSCMattingImpl() {
  delete[] weights;
  delete[] indices;
}

void DSCMattingImpl::Init(const unsigned char* src, int width, int height,
                          int stride, const unsigned char* seg, int seg_stride,
                          int work_size, int max_band, double band_scale,
                          int step, unsigned char diff_low,
                          unsigned char diff_high, int min_band) {
  fullWidth = width;
  fullHeight = height;
  image.ResetIf(width, height, ff::kFormat8UC3);
  ff::ipf_memcpy_2d(src, 3 * width, height, stride, image.data, image.step);

  if (seg != nullptr) {
    trimap.ResetIf(width, height, ff::kFormat8UC1);
    MakeTrimapFromSegRes(src, width, height, stride, seg, seg_stride,
                         trimap.data, trimap.step, max_band, band_scale, step,
                         diff_low, diff_high, min_band);
    ComplementKnown(trimap.data, width, height, trimap.step);
    alpha.ResetIf(width, height, ff::kFormat8UC1);
    set_alpha(trimap.data, trimap.width, trimap.height, trimap.step);
  } else {
    // A trimap of an earlier photo must not outlive it: form 2 of Refine
    // reads it at the new size.
    trimap.Clear();
    alpha.ResetIf(width, height, ff::kFormat8UC1);
    ff::ipf_memset_2d(alpha.data, width, height, alpha.step, 0);
  }

  workWidth = width;
  workHeight = height;
  // Both sides must exceed the working size: a panorama keeps its full
  // height rather than shrinking on account of its width alone.
  if (width > work_size && height > work_size) {
    const double sx = static_cast<double>(work_size) / width;
    const double sy = static_cast<double>(work_size) / height;
    const double s = sx < sy ? sx : sy;
    workWidth = static_cast<int>(s * width + 0.5);
    workHeight = static_cast<int>(s * height + 0.5);
  }
  // Dense working rows: the solver and the tables take the width as stride.
  workWidth &= ~3;

  const bool workResized = workWidth != workTrimap.width ||
                           workHeight != workTrimap.height ||
                           workTrimap.type != ff::kFormat8UC1;
  workImage.ResetIf(workWidth, workHeight, ff::kFormat8UC3);
  workAlpha.ResetIf(workWidth, workHeight, ff::kFormat8UC1);
  workTrimap.ResetIf(workWidth, workHeight, ff::kFormat8UC1);
  if (workResized) {
    ff::ipf_memset_2d(workTrimap.data, workWidth, workHeight, workTrimap.step,
                      0);
  }
  ff::ipf_resize_nn(image.data, width, height, image.step, 3, workImage.data,
                    workWidth, workHeight, workImage.step, 3, ff::ccn<3>());
  ResizeNearestC1(alpha, workAlpha);

  delete[] weights;
  weights = nullptr;
  weights = new short[TableCount(width, height, 1)];
  delete[] indices;
  indices = nullptr;
  const size_t indexCount = TableCount(width, height, 2);
  indices = new int[indexCount];
  std::memset(indices, 0xFF, indexCount * sizeof(int));

  if (workWidth < 1 || workHeight < 1) return;  // nothing to pair with
  if (seg != nullptr) {
    usam_calc_weights_8u_c3(image.data, width, height, image.step, trimap.data,
                            trimap.step, kUnknown, workImage.data, workWidth,
                            workHeight, workImage.step, indices, 2 * width,
                            weights, width, kNeighbourhood3x3);
    ResizeNearestC1(trimap, workTrimap);
  } else {
    usam_calc_weights_8u_c3(image.data, width, height, image.step, nullptr, 0,
                            workImage.data, workWidth, workHeight,
                            workImage.step, indices, 2 * width, weights, width,
                            kNeighbourhood3x3);
  }
}

void DSCMattingImpl::set_alpha(const unsigned char* src, int width, int height,
                               int stride) {
  if (src == nullptr || width != alpha.width || height != alpha.height) return;
  ff::ipf_memcpy_2d(src, width, height, stride, alpha.data, alpha.step);
  ResizeNearestC1(alpha, workAlpha);
}

unsigned char* DSCMattingImpl::GetAlpha(int* stride) {
  if (stride != nullptr) *stride = alpha.step;
  return alpha.data;
}

void DSCMattingImpl::GetAlpha(unsigned char* out, int outStride) {
  if (!HasAlpha()) return;
  ff::ipf_memcpy_2d(alpha.data, fullWidth, fullHeight, alpha.step, out,
                    outStride);
}

void DSCMattingImpl::SmoothBoundary(int ksize, int keep) {
  if (!HasAlpha()) return;
  mat_smooth_boundary(alpha.data, alpha.width, alpha.height, alpha.step,
                      alpha.data, alpha.step, ksize);
  foregroundStale = 1;
  if (keep >= 1) {
    vm_erase_small_cc(alpha.data, alpha.width, alpha.height, alpha.step, 0,
                      keep);
  }
}

unsigned char* DSCMattingImpl::GetFImage(int* stride, int recompute) {
  bool estimate = true;
  if (foreground.width == image.width && foreground.height == image.height) {
    // A negative request defers to the staleness flag, which set_alpha
    // leaves alone: a caller that swaps in its own matte keeps the colours
    // of the last refinement until it asks for new ones.
    const int wanted = recompute < 0 ? foregroundStale : recompute;
    estimate = wanted >= 1;
  }
  if (estimate && image.data != nullptr) {
    foreground.ResetIf(image.width, image.height, ff::kFormat8UC3);
    mat_estimate_fb_color(image.data, image.width, image.height, image.step,
                          alpha.data, alpha.step, foreground.data,
                          foreground.step, nullptr, 0, kFbLow, kFbHigh);
    foregroundStale = 0;
  }
  if (stride != nullptr) *stride = foreground.step;
  return foreground.data;
}

void DSCMattingImpl::GetFImage(unsigned char* out, int outStride,
                               int recompute) {
  int step = 0;
  const unsigned char* colours = GetFImage(&step, recompute);
  ff::ipf_memcpy_2d(colours, 3 * fullWidth, fullHeight, step, out, outStride);
}

DSCMatting::DSCMatting() : impl_(new DSCMattingImpl) {}

DSCMatting::DSCMatting(const unsigned char* image, int width, int height,
                       int stride, int work_size)
    : impl_(new DSCMattingImpl) {
  Init(image, width, height, stride, work_size);
}

DSCMatting::DSCMatting(const unsigned char* image, int width, int height,
                       int stride, const unsigned char* seg, int seg_stride,
                       int work_size, int max_band, double band_scale, int step,
                       unsigned char diff_low, unsigned char diff_high,
                       int min_band)
    : impl_(new DSCMattingImpl) {
  Init(image, width, height, stride, seg, seg_stride, work_size, max_band,
       band_scale, step, diff_low, diff_high, min_band);
}

DSCMatting::~DSCMatting() { delete impl_; }

void DSCMatting::Init(const unsigned char* image, int width, int height,
                      int stride, int work_size) {
  impl_->Init(image, width, height, stride, nullptr, 0, work_size, 0, 0.0, 3, 5,
              50, 1);
}

void DSCMatting::Init(const unsigned char* image, int width, int height,
                      int stride, const unsigned char* seg, int seg_stride,
                      int work_size, int max_band, double band_scale, int step,
                      unsigned char diff_low, unsigned char diff_high,
                      int min_band) {
  impl_->Init(image, width, height, stride, seg, seg_stride, work_size,
              max_band, band_scale, step, diff_low, diff_high, min_band);
}

void DSCMatting::set_alpha(const unsigned char* alpha, int width, int height,
                           int stride) {
  impl_->set_alpha(alpha, width, height, stride);
}

unsigned char* DSCMatting::GetAlpha(int* stride) {
  return impl_->GetAlpha(stride);
}

void DSCMatting::GetAlpha(unsigned char* out, int outStride) {
  impl_->GetAlpha(out, outStride);
}

void DSCMatting::SmoothBoundary(int ksize, int keep) {
  impl_->SmoothBoundary(ksize, keep);
}

unsigned char* DSCMatting::GetFImage(int* stride, int recompute) {
  return impl_->GetFImage(stride, recompute);
}

void DSCMatting::GetFImage(unsigned char* out, int outStride, int recompute) {
  impl_->GetFImage(out, outStride, recompute);
}

void DSCMatting::Refine(const unsigned char* trimap, int width, int height,
                        int stride, unsigned char* out, int outStride,
                        int ksize, int keep) {
  impl_->Refine(trimap, width, height, stride, out, outStride, ksize, keep);
}

int DSCMatting::Refine(unsigned char* out, int width, int height, int stride,
                       int ksize, int keep) {
  return impl_->Refine(out, width, height, stride, ksize, keep);
}

int DSCMatting::MakeMatteFromSegmRes(const unsigned char* seg, int width,
                                     int height, int seg_stride,
                                     unsigned char* out, int outStride,
                                     int max_band, double band_scale, int ksize,
                                     int keep) {
  return impl_->MakeMatteFromSegmRes(seg, width, height, seg_stride, out,
                                     outStride, max_band, band_scale, ksize,
                                     keep);
}

int DSCMatting::MakeMatte(unsigned char* out, int width, int height, int stride,
                          int ksize, int keep) {
  return impl_->MakeMatte(out, width, height, stride, ksize, keep);
}

void DSCMatting::SetSolveOptions(const mat_options& options) {
  impl_->solveOptions = options;
}
