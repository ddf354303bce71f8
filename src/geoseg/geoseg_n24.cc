#include <algorithm>
#include <cstddef>
#include <memory>

#include "softmatte/ff/fvt_image.h"
#include "softmatte/geoseg.h"

namespace {

constexpr unsigned int kUnreached = 100000000;
constexpr int kBorder = 2;  // the distance buffer's margin on every side
constexpr int kCausal = 12;
constexpr int kCosts = 2 * kCausal;
constexpr int kOtherRows = 10;
constexpr unsigned short kOutsideCost =
    1;  // causal neighbours not in the pixel's row

// The causal half of the 5x5 window in raster order; cost k + 12 is the step
// toward the opposite neighbour (-dx, -dy).
constexpr int kDx[kCausal] = {-2, -1, 0, 1, 2, -2, -1, 0, 1, 2, -2, -1};
constexpr int kDy[kCausal] = {-2, -2, -2, -2, -2, -1, -1, -1, -1, -1, 0, 0};
constexpr int kLeft2 = 10;
constexpr int kLeft1 = 11;
constexpr int kRight2 = kLeft2 + kCausal;
constexpr int kRight1 = kLeft1 + kCausal;

// Squared colour differences toward the causal neighbours of one row, 12 per
// pixel; 0 toward a neighbour off the image. Exact in float: at most 195075.
void row_differences(const unsigned char* image, int width,
                     std::ptrdiff_t row_stride, int pixel_step, int y,
                     float* out) {
  std::fill(out, out + static_cast<std::ptrdiff_t>(width) * kCausal, 0.0f);
  const unsigned char* row = image + y * row_stride;
  for (int k = 0; k < kCausal; ++k) {
    // Only the columns whose neighbour k lies on the image, so that the
    // inner loop has no tests.
    const int first = std::max(0, -kDx[k]);
    const int end = std::min(width, width - kDx[k]);
    if (y + kDy[k] < 0 || first >= end) continue;
    const std::ptrdiff_t to_q =
        kDy[k] * row_stride + static_cast<std::ptrdiff_t>(kDx[k]) * pixel_step;
    for (int x = first; x < end; ++x) {
      const unsigned char* p =
          row + static_cast<std::ptrdiff_t>(x) * pixel_step;
      const unsigned char* q = p + to_q;
      int d = 0;
      for (int c = 0; c < 3; ++c) d += (p[c] - q[c]) * (p[c] - q[c]);
      out[x * kCausal + k] = static_cast<float>(d);
    }
  }
}

// Saturates: a wrapped strong edge would become a cheap step. Below 1 a step
// would be free and tie a whole region with its seed; so would NaN, 0 times
// the infinite scale of a flat image, which the argument order of max and
// min turns into 1.
unsigned short scaled_cost(float d, double scale) {
  return static_cast<unsigned short>(
      std::max(1.0, std::min(d * scale, 65535.0)));
}

struct Plane {
  const unsigned short* costs;  // kCosts per pixel, width pixels a row
  int width;
  int height;
  const unsigned char* labels;
  std::ptrdiff_t label_stride;
  unsigned int* dist;  // interior origin of the padded buffer
  std::ptrdiff_t pitch;
  unsigned char seed;
};

// One raster pass. The ten neighbours in the two rows behind are final for
// this pass before the row starts, so they are taken in a loop free of
// dependencies; only the two in the row itself need the in-order scan.
// Every interior pixel is visited: the border holds kUnreached, which an
// added cost can never bring below a real distance.
void run_pass(const Plane& p, bool top_down, bool left_to_right) {
  std::ptrdiff_t offset[kOtherRows];
  for (int k = 0; k < kOtherRows; ++k) {
    const std::ptrdiff_t o = kDy[k] * p.pitch + kDx[k];
    offset[k] = top_down ? o : -o;
  }
  const int first_cost = top_down ? 0 : kCausal;
  for (int i = 0; i < p.height; ++i) {
    const int y = top_down ? i : p.height - 1 - i;
    unsigned int* row = p.dist + y * p.pitch;
    const unsigned char* label = p.labels + y * p.label_stride;
    const unsigned short* cost =
        p.costs + static_cast<std::ptrdiff_t>(y) * p.width * kCosts;
    for (int x = 0; x < p.width; ++x) {
      const unsigned short* c = cost + x * kCosts + first_cost;
      unsigned int best = row[x];
      for (int k = 0; k < kOtherRows; ++k) {
        best = std::min(best, row[x + offset[k]] + c[k]);
      }
      const unsigned char l = label[x];
      row[x] = l == p.seed ? 0u : l == 0 ? best : kUnreached;
    }
    if (left_to_right) {
      for (int x = 0; x < p.width; ++x) {
        if (label[x] != 0) continue;
        const unsigned short* c = cost + x * kCosts;
        row[x] =
            std::min({row[x], row[x - 1] + c[kLeft1], row[x - 2] + c[kLeft2]});
      }
    } else {
      for (int x = p.width - 1; x >= 0; --x) {
        if (label[x] != 0) continue;
        const unsigned short* c = cost + x * kCosts;
        row[x] = std::min(
            {row[x], row[x + 1] + c[kRight1], row[x + 2] + c[kRight2]});
      }
    }
  }
}

// A single sweep, as in the 4-neighbour form: paths that turn back more than
// the four scan orders allow keep the longer distance this finds.
void propagate(const Plane& p, unsigned int* buffer) {
  std::fill(buffer,
            buffer + (p.width + 2 * kBorder) *
                         static_cast<std::ptrdiff_t>(p.height + 2 * kBorder),
            kUnreached);
  run_pass(p, /*top_down=*/true, /*left_to_right=*/true);
  run_pass(p, /*top_down=*/false, /*left_to_right=*/false);
  run_pass(p, /*top_down=*/true, /*left_to_right=*/false);
  run_pass(p, /*top_down=*/false, /*left_to_right=*/true);
}

// The distance at which the output saturates: one histogram bin below the
// bin where the top tenth of the pixels ends. Unreached pixels count with
// their 100000000, so the histogram is as large as that makes it.
int robust_cap(const Plane& p) {
  unsigned int top = 0;
  for (int y = 0; y < p.height; ++y) {
    const unsigned int* row = p.dist + y * p.pitch;
    for (int x = 0; x < p.width; ++x) top = std::max(top, row[x]);
  }
  const unsigned int bins = (top >> 3) + 1;
  int* count = new int[bins]();
  for (int y = 0; y < p.height; ++y) {
    const unsigned int* row = p.dist + y * p.pitch;
    for (int x = 0; x < p.width; ++x) ++count[row[x] >> 3];
  }
  int b = static_cast<int>(top >> 3);
  int r = p.width * p.height / 10;
  while (r > 0) {
    r -= count[b];
    b -= 1;
  }
  delete[] count;
  return 8 * b;
}

}  // namespace

GeoSegN24::GeoSegN24()
    : edge_weights(nullptr),
      distance_buffer(nullptr),
      width(0),
      height(0),
      row_pixels(0) {}

GeoSegN24::~GeoSegN24() {
  delete[] edge_weights;
  delete[] distance_buffer;
}

int GeoSegN24::SetImage(const unsigned char* image, int image_width,
                        int image_height, int row_stride, int pixel_step,
                        void* /*reserved*/) {
  delete[] edge_weights;
  delete[] distance_buffer;
  edge_weights = nullptr;
  distance_buffer = nullptr;
  width = height = row_pixels = 0;
  if (image == nullptr) return -1;
  if (image_width < 1 || image_height < 1) return 0;

  const std::size_t pixels = static_cast<std::size_t>(image_width) *
                             static_cast<std::size_t>(image_height);
  edge_weights = new unsigned short[pixels * kCosts];
  distance_buffer =
      new unsigned int[static_cast<std::size_t>(image_width + 2 * kBorder) *
                       static_cast<std::size_t>(image_height + 2 * kBorder)];
  width = image_width;
  height = image_height;
  row_pixels = image_width;

  // The differences are taken twice, for the mean and then for the costs,
  // rather than kept: twelve floats a pixel would outweigh the cost table.
  std::unique_ptr<float[]> diff(
      new float[static_cast<std::size_t>(width) * kCausal]);
  double sum = 0.0;  // exact: integers far below 2^53
  for (int y = 0; y < height; ++y) {
    row_differences(image, width, row_stride, pixel_step, y, diff.get());
    for (int i = 0; i < width * kCausal; ++i) sum += diff[i];
  }
  const double scale =
      128.0 / (sum / (static_cast<double>(kCausal) * width * height));

  const std::ptrdiff_t pitch = static_cast<std::ptrdiff_t>(width) * kCosts;
  for (int y = 0; y < height; ++y) {
    row_differences(image, width, row_stride, pixel_step, y, diff.get());
    unsigned short* row = edge_weights + y * pitch;
    for (int x = 0; x < width; ++x) {
      for (int k = 0; k < kCausal; ++k) {
        row[x * kCosts + k] = scaled_cost(diff[x * kCausal + k], scale);
      }
    }
  }
  // Both ends of a step must see one cost: each pixel's second half is its
  // neighbours' first. Toward the outside the cost is that of a zero
  // difference, 1 whatever the scale, and never read past the border.
  for (int y = 0; y < height; ++y) {
    // Where each of the twelve opposite costs is kept: the neighbour's row,
    // or none below the image.
    const unsigned short* from[kCausal];
    for (int k = 0; k < kCausal; ++k) {
      from[k] = y - kDy[k] < height ? edge_weights + (y - kDy[k]) * pitch + k
                                    : nullptr;
    }
    unsigned short* out = edge_weights + y * pitch + kCausal;
    for (int x = 0; x < width; ++x, out += kCosts) {
      for (int k = 0; k < kCausal; ++k) {
        const int qx = x - kDx[k];
        out[k] = from[k] != nullptr && qx >= 0 && qx < width
                     ? from[k][qx * kCosts]
                     : kOutsideCost;
      }
    }
  }
  return 0;
}

int GeoSegN24::GetDist(const unsigned char* labels, int label_stride,
                       unsigned int* distance, int distance_stride,
                       unsigned char seed) {
  if (width < 1 || height < 1) return 0;
  const std::ptrdiff_t pitch = width + 2 * kBorder;
  unsigned int* interior = distance_buffer + kBorder * pitch + kBorder;
  propagate({edge_weights, width, height, labels, label_stride, interior, pitch,
             seed},
            distance_buffer);
  ff::ipf_memcpy_2d(interior, width * 4, height, static_cast<int>(pitch * 4),
                    distance, distance_stride * 4);
  return 0;
}

int GeoSegN24::GetProb(const unsigned char* labels, int label_stride,
                       float* probability, int probability_stride, int mode,
                       unsigned char* /*reserved*/) {
  if (width < 1 || height < 1) return 0;
  const std::ptrdiff_t pitch = width + 2 * kBorder;
  Plane plane{edge_weights, width,
              height,       labels,
              label_stride, distance_buffer + kBorder * pitch + kBorder,
              pitch,        2};
  auto for_each_pixel = [&](auto&& f) {
    for (int y = 0; y < height; ++y) {
      const unsigned int* d = plane.dist + y * pitch;
      float* out =
          probability + static_cast<std::ptrdiff_t>(y) * probability_stride;
      for (int x = 0; x < width; ++x) f(d[x], out[x]);
    }
  };

  if (mode & 2) propagate(plane, distance_buffer);
  if (mode == 3) {
    for_each_pixel(
        [](unsigned int d2, float& out) { out = static_cast<float>(d2); });
    plane.seed = 1;
    propagate(plane, distance_buffer);
    for_each_pixel([](unsigned int d1, float& out) {
      const float d1f = static_cast<float>(d1);
      out = d1f / (out + d1f);
    });
  } else if (mode == 2 || mode == 1) {
    if (mode == 1) {
      plane.seed = 1;
      propagate(plane, distance_buffer);
    }
    // The cap is negative only when nearly every pixel is a seed; the
    // comparison stays signed so that it then caps every pixel.
    const int cap = robust_cap(plane);
    const float k = 1.0f / static_cast<float>(cap | 1);
    const bool foreground = mode == 2;
    for_each_pixel([&](unsigned int d, float& out) {
      const float v = k * static_cast<float>(std::min<long long>(d, cap));
      out = foreground ? 1.0f - v : v;
    });
  }
  return 0;
}
