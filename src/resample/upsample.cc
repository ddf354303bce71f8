#include <cstddef>
#include <cstring>

#include "resample/pair_search.h"
#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"

namespace {

using usam_internal::kOne;
using usam_internal::kShift;

// The blend of the whole library: exact in 32-bit integers, never negative
// for weights in 0 ... kOne, so the shift truncates.
inline int Blend(int a, int b, int w) {
  return ((a - b) * w + b * kOne) >> kShift;
}

// Pixels without an entry (negative first index) are never written.
template <typename Select>
void ApplyTable(const unsigned char* low, const int* idx, int idx_stride,
                const short* wts, int wts_stride, unsigned char* out, int width,
                int height, int out_stride, Select select) {
  for (int y = 0; y < height; ++y) {
    const int* idxRow = idx + static_cast<ptrdiff_t>(y) * idx_stride;
    const short* wtsRow = wts + static_cast<ptrdiff_t>(y) * wts_stride;
    unsigned char* outRow = out + static_cast<ptrdiff_t>(y) * out_stride;
    for (int x = 0; x < width; ++x) {
      const int a = idxRow[2 * x];
      if (a < 0 || !select(y, x)) continue;
      outRow[x] = static_cast<unsigned char>(
          Blend(low[a], low[idxRow[2 * x + 1]], wtsRow[x]));
    }
  }
}

}  // namespace

void usam_interpolate_c1(const unsigned char* low, int /*low_width*/,
                         int /*low_height*/, const int* idx, int idx_stride,
                         const short* wts, int wts_stride, unsigned char* out,
                         int width, int height, int out_stride) {
  if (!low || !idx || !wts || !out) return;
  ApplyTable(low, idx, idx_stride, wts, wts_stride, out, width, height,
             out_stride, [](int, int) { return true; });
}

void usam_interpolate_c1(const unsigned char* low, int low_width,
                         int low_height, const int* idx, int idx_stride,
                         const short* wts, int wts_stride, unsigned char* out,
                         int width, int height, int out_stride,
                         const unsigned char* mask, int mask_stride,
                         unsigned char value) {
  if (!mask) {
    usam_interpolate_c1(low, low_width, low_height, idx, idx_stride, wts,
                        wts_stride, out, width, height, out_stride);
    return;
  }
  if (!low || !idx || !wts || !out) return;
  ApplyTable(low, idx, idx_stride, wts, wts_stride, out, width, height,
             out_stride, [=](int y, int x) {
               return mask[static_cast<ptrdiff_t>(y) * mask_stride + x] ==
                      value;
             });
}

void usam_interpolate_mask_c1(const unsigned char* low_ref,
                              const unsigned char* low, int /*low_width*/,
                              int /*low_height*/, const int* idx,
                              int idx_stride, const short* wts, int wts_stride,
                              unsigned char* out, int width, int height,
                              int out_stride) {
  if (!low_ref || !low || !idx || !wts || !out) return;
  // Below this total change the old value is kept; from kFull on it is
  // replaced outright, in between blended in proportionally.
  constexpr int kThreshold = 4;
  constexpr int kFull = 32;
  for (int y = 0; y < height; ++y) {
    const int* idxRow = idx + static_cast<ptrdiff_t>(y) * idx_stride;
    const short* wtsRow = wts + static_cast<ptrdiff_t>(y) * wts_stride;
    unsigned char* outRow = out + static_cast<ptrdiff_t>(y) * out_stride;
    for (int x = 0; x < width; ++x) {
      const int a = idxRow[2 * x];
      if (a < 0) continue;
      const int b = idxRow[2 * x + 1];
      const int da = low[a] - low_ref[a];
      const int db = low[b] - low_ref[b];
      const int s = (da < 0 ? -da : da) + (db < 0 ? -db : db);
      if (s < kThreshold) continue;
      const int v = Blend(low[a], low[b], wtsRow[x]);
      const int k = s < kFull ? s : kFull;
      const int old = outRow[x];
      outRow[x] =
          static_cast<unsigned char>(((v - old) * k + old * kFull) >> 5);
    }
  }
}

void usam_masked_c1(const unsigned char* low_img, int low_width, int low_height,
                    int low_img_stride, const unsigned char* low_alpha,
                    int low_alpha_stride, const unsigned char* img, int width,
                    int height, int img_stride, const unsigned char* mask,
                    int mask_stride, unsigned char* out, int out_stride) {
  if (!low_img || !low_alpha || !img || !out || width < 1 || height < 1) {
    return;
  }
  const size_t pixels = static_cast<size_t>(width) * height;
  short* wts = new short[pixels];
  int* idx = new int[2 * pixels];
  // All bytes 0xFF: every first index is -1, no entry.
  std::memset(idx, 0xFF, 2 * pixels * sizeof(int));
  // The mask is read here, before out is written: it may be out itself.
  usam_calc_weights_8u_c3(img, width, height, img_stride, mask, mask_stride,
                          low_img, low_width, low_height, low_img_stride, idx,
                          2 * width, wts, width, 3);
  ff::ipf_resize_bl<unsigned char, unsigned char>(
      low_alpha, low_width, low_height, low_alpha_stride, 1, out, width, height,
      out_stride, 1, 1);
  const unsigned char* dense = low_alpha;
  unsigned char* copy = nullptr;
  if (low_alpha_stride != low_width) {
    copy = new unsigned char[static_cast<size_t>(low_width) * low_height];
    ff::ipf_memcpy_2d(low_alpha, low_width, low_height, low_alpha_stride, copy,
                      low_width);
    dense = copy;
  }
  usam_interpolate_c1(dense, low_width, low_height, idx, 2 * width, wts, width,
                      out, width, height, out_stride);
  delete[] copy;
  delete[] idx;
  delete[] wts;
}

void usam_alpha(const unsigned char* low_img, int low_width, int low_height,
                int low_img_stride, const unsigned char* low_alpha,
                int low_alpha_stride, const unsigned char* img, int width,
                int height, int img_stride, unsigned char* out,
                int out_stride) {
  if (!low_img || !low_alpha || !img || !out) return;
  if (width == low_width && height == low_height) {
    ff::ipf_memcpy_2d(low_alpha, width, height, low_alpha_stride, out,
                      out_stride);
    return;
  }
  const size_t lowPixels = static_cast<size_t>(low_width) * low_height;
  unsigned char* lo = new unsigned char[lowPixels];
  unsigned char* hi = new unsigned char[lowPixels];
  ff::ipf_min_filter(low_alpha, low_width, low_height, low_alpha_stride, 1, lo,
                     low_width, 3, 1, nullptr);
  ff::ipf_max_filter(low_alpha, low_width, low_height, low_alpha_stride, 1, hi,
                     low_width, 3, 1, nullptr);
  // Transition pixels, widened by one reduced pixel: only there does the
  // colour guide pay for itself.
  for (size_t i = 0; i < lowPixels; ++i) lo[i] = hi[i] != lo[i] ? 1 : 0;
  ff::ipf_max_filter(lo, low_width, low_height, low_width, 1, hi, low_width, 3,
                     1, nullptr);
  ff::ipf_resize_nn<unsigned char, ff::ccn<1>>(hi, low_width, low_height,
                                               low_width, 1, out, width, height,
                                               out_stride, 1, ff::ccn<1>());
  delete[] hi;
  delete[] lo;
  usam_masked_c1(low_img, low_width, low_height, low_img_stride, low_alpha,
                 low_alpha_stride, img, width, height, img_stride, out,
                 out_stride, out, out_stride);
}

void usam_execute(const unsigned char* img, int width, int height,
                  int img_stride, const unsigned char* mask, int mask_stride,
                  unsigned char value, const unsigned char* low_img,
                  int low_width, int low_height, int low_img_stride,
                  const unsigned char* low_alpha, unsigned char* out,
                  int out_stride) {
  if (!img || !low_img || !low_alpha || !out || width < 1 || height < 1) {
    return;
  }
  // Smaller reduced planes have no full 3x3 neighbourhood to read.
  if (low_width < 3 || low_height < 3) return;
  const double sx = usam_internal::Scale(low_width, width);
  const double sy = usam_internal::Scale(low_height, height);
  int* columns = new int[width];
  for (int x = 0; x < width; ++x) {
    columns[x] = usam_internal::MapCentred(x, sx, low_width);
  }
  auto pick = [&](int x, int y) {
    return !mask || mask[static_cast<ptrdiff_t>(y) * mask_stride + x] == value;
  };
  auto store = [&](int x, int y, int a, int b, int w) {
    out[static_cast<ptrdiff_t>(y) * out_stride + x] =
        static_cast<unsigned char>(Blend(low_alpha[a], low_alpha[b], w));
  };
  usam_internal::SearchRows<3, 9>(img, width, img_stride, low_img, low_width,
                                  low_height, low_img_stride, columns, sy, 0,
                                  height, pick, store);
  delete[] columns;
}

void merge_c31(const unsigned char* src3, int width, int height,
               int src3_stride, const unsigned char* src1, int src1_stride,
               unsigned char* dst4, int dst4_stride) {
  if (!src3 || !src1 || !dst4) return;
  for (int y = 0; y < height; ++y) {
    const unsigned char* s3 = src3 + static_cast<ptrdiff_t>(y) * src3_stride;
    const unsigned char* s1 = src1 + static_cast<ptrdiff_t>(y) * src1_stride;
    unsigned char* d = dst4 + static_cast<ptrdiff_t>(y) * dst4_stride;
    for (int x = 0; x < width; ++x) {
      d[4 * x] = s3[3 * x];
      d[4 * x + 1] = s3[3 * x + 1];
      d[4 * x + 2] = s3[3 * x + 2];
      d[4 * x + 3] = s1[x];
    }
  }
}
