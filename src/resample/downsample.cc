#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "softmatte/resample.h"

namespace {

constexpr unsigned char kNoMark = 128;

// Nearest source position of each of n destination positions, the last one
// pinned to the source's last position.
void NearestTable(int src_len, int n, int* tab) {
  if (n == 1) {
    tab[0] = 0;
    return;
  }
  const double scale = static_cast<double>(src_len - 1) / (n - 1);
  for (int i = 0; i < n - 1; ++i) {
    tab[i] = static_cast<int>(i * scale + 0.5);
  }
  tab[n - 1] = src_len - 1;
}

int SquaredDistance(const unsigned char* a, const unsigned char* b) {
  const int d0 = a[0] - b[0], d1 = a[1] - b[1], d2 = a[2] - b[2];
  return d0 * d0 + d1 * d1 + d2 * d2;
}

}  // namespace

template <int N>
void _dsam_image_x(const unsigned char* src, int width, int height,
                   int src_stride, unsigned char* dst, int low_width,
                   int low_height, int dst_stride) {
  if (src == nullptr || dst == nullptr) return;
  if (width < 1 || height < 1 || low_width < 1 || low_height < 1) return;
  int* cols = new int[low_width];
  NearestTable(width, low_width, cols);
  for (int i = 0; i < low_width; ++i) cols[i] *= N;
  // The rows get no pinned last entry; rounding up past the end is clamped.
  const double row_scale =
      low_height == 1 ? 0.0
                      : static_cast<double>(height - 1) / (low_height - 1);
  for (int y = 0; y < low_height; ++y) {
    const int r = std::min(static_cast<int>(y * row_scale + 0.5), height - 1);
    const unsigned char* s = src + static_cast<ptrdiff_t>(r) * src_stride;
    unsigned char* d = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int i = 0; i < low_width; ++i) {
      std::memcpy(d + static_cast<ptrdiff_t>(i) * N, s + cols[i], N);
    }
  }
  delete[] cols;
}

template SOFTMATTE_API void _dsam_image_x<1>(const unsigned char*, int, int,
                                             int, unsigned char*, int, int,
                                             int);
template SOFTMATTE_API void _dsam_image_x<3>(const unsigned char*, int, int,
                                             int, unsigned char*, int, int,
                                             int);
template SOFTMATTE_API void _dsam_image_x<4>(const unsigned char*, int, int,
                                             int, unsigned char*, int, int,
                                             int);

void dsam_image(const unsigned char* src, int width, int height, int src_stride,
                unsigned char* dst, int low_width, int low_height,
                int dst_stride, int channels) {
  switch (channels) {
    case 1:
      _dsam_image_x<1>(src, width, height, src_stride, dst, low_width,
                       low_height, dst_stride);
      break;
    case 3:
      _dsam_image_x<3>(src, width, height, src_stride, dst, low_width,
                       low_height, dst_stride);
      break;
    case 4:
      _dsam_image_x<4>(src, width, height, src_stride, dst, low_width,
                       low_height, dst_stride);
      break;
    default:
      break;
  }
}

void dsam_calc_index(const unsigned char* img, int width, int height,
                     int img_stride, const unsigned char* low, int low_width,
                     int low_height, int low_stride, int* index,
                     int index_stride) {
  if (img == nullptr || low == nullptr || index == nullptr) return;
  // A side of 1 leaves no 2 x 2 cell to choose from (and divides by zero).
  if (width < 2 || height < 2 || low_width < 2 || low_height < 2) return;
  int* cell_u = new int[width];
  for (int x = 0; x < width; ++x) {
    const int64_t u = static_cast<int64_t>(x) * (low_width - 1) / (width - 1);
    cell_u[x] = static_cast<int>(std::min<int64_t>(u, low_width - 2));
  }
  for (int y = 0; y < height; ++y) {
    const int64_t v64 =
        static_cast<int64_t>(y) * (low_height - 1) / (height - 1);
    const int v = static_cast<int>(std::min<int64_t>(v64, low_height - 2));
    const unsigned char* top = low + static_cast<ptrdiff_t>(v) * low_stride;
    const unsigned char* bottom = top + low_stride;
    const unsigned char* c = img + static_cast<ptrdiff_t>(y) * img_stride;
    int* out = index + static_cast<ptrdiff_t>(y) * index_stride;
    for (int x = 0; x < width; ++x, c += 3) {
      const int u = cell_u[x];
      const unsigned char* p = top + 3 * u;
      const unsigned char* q = bottom + 3 * u;
      // Strict comparisons: a tie keeps the lower-numbered candidate.
      const int d[4] = {SquaredDistance(c, p), SquaredDistance(c, p + 3),
                        SquaredDistance(c, q), SquaredDistance(c, q + 3)};
      const int offsets[4] = {0, 1, low_width, low_width + 1};
      int best = 0;
      for (int k = 1; k < 4; ++k) {
        if (d[k] < d[best]) best = k;
      }
      out[x] = v * low_width + u + offsets[best];
    }
  }
  delete[] cell_u;
}

void dsam_ui_alpha(const unsigned char* marks, int width, int height,
                   int marks_stride, const int* index, int index_stride,
                   unsigned char* dst, int low_width, int low_height, int,
                   int) {
  if (marks == nullptr || index == nullptr || dst == nullptr) return;
  if (low_width < 1 || low_height < 1) return;
  const size_t low_area = static_cast<size_t>(low_width) * low_height;
  std::memset(dst, kNoMark, low_area);
  for (int y = 0; y < height; ++y) {
    const unsigned char* m = marks + static_cast<ptrdiff_t>(y) * marks_stride;
    const int* idx = index + static_cast<ptrdiff_t>(y) * index_stride;
    for (int x = 0; x < width; ++x) {
      // An index from another geometry must not write outside dst.
      if (m[x] != kNoMark && static_cast<size_t>(idx[x]) < low_area) {
        dst[idx[x]] = m[x];
      }
    }
  }
}
