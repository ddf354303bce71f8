#include "softmatte/geoseg.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr unsigned int kUnreached = 100000000;
constexpr unsigned int kOutsideCost = 1;
constexpr int kLeft = 0;
constexpr int kUp = 1;
constexpr int kRight = 2;
constexpr int kDown = 3;

unsigned int step_cost(const unsigned char* p, const unsigned char* q) {
  int d = 0;
  for (int c = 0; c < 3; ++c) {
    const int diff = p[c] - q[c];
    d += diff * diff;
  }
  // Only the low 16 bits count: a very strong edge can cost less than a weak
  // one. Distances are pinned to this, so the wrap stays.
  const unsigned int cost =
      static_cast<unsigned int>(static_cast<float>(d)) & 0xFFFFu;
  // A free step would tie every pixel of a flat region with its seed.
  return cost == 0 ? 1u : cost;
}

struct DistPlane {
  const unsigned int* costs;  // 4 per pixel, width pixels a row
  int width;
  int height;
  const unsigned char* labels;
  std::ptrdiff_t label_stride;
  unsigned int* dist;
  std::ptrdiff_t dist_stride;
  unsigned char seed;
};

// One raster pass over the pixels that have both of its neighbours. The
// horizontal neighbour was written a moment ago in the same pass, so its
// value is carried in prev rather than read back from memory.
void run_pass(const DistPlane& p, bool top_down, bool left_to_right) {
  if (p.width < 2 || p.height < 2) return;
  const int vertical = top_down ? kUp : kDown;
  for (int i = 0; i < p.height - 1; ++i) {
    const int y = top_down ? i + 1 : p.height - 2 - i;
    const int from_y = top_down ? y - 1 : y + 1;
    unsigned int* row = p.dist + y * p.dist_stride;
    const unsigned int* from = p.dist + from_y * p.dist_stride;
    const unsigned char* label = p.labels + y * p.label_stride;
    const unsigned int* cost =
        p.costs + 4 * static_cast<std::ptrdiff_t>(y) * p.width;
    if (left_to_right) {
      unsigned int prev = row[0];
      for (int x = 1; x < p.width; ++x) {
        const unsigned int* c = cost + 4 * x;
        const unsigned int best =
            std::min({row[x], from[x] + c[vertical], prev + c[kLeft]});
        prev = label[x] == p.seed ? 0u : best;
        row[x] = prev;
      }
    } else {
      unsigned int prev = row[p.width - 1];
      for (int x = p.width - 2; x >= 0; --x) {
        const unsigned int* c = cost + 4 * x;
        const unsigned int best =
            std::min({row[x], from[x] + c[vertical], prev + c[kRight]});
        prev = label[x] == p.seed ? 0u : best;
        row[x] = prev;
      }
    }
  }
}

// A single sweep, not iterated to convergence: paths that turn back keep
// the longer distance this finds, which is the expected result.
void propagate(const DistPlane& p) {
  for (int y = 0; y < p.height; ++y) {
    unsigned int* row = p.dist + y * p.dist_stride;
    std::fill(row, row + p.width, kUnreached);
  }
  run_pass(p, /*top_down=*/true, /*left_to_right=*/true);
  run_pass(p, /*top_down=*/false, /*left_to_right=*/false);
  run_pass(p, /*top_down=*/true, /*left_to_right=*/false);
  run_pass(p, /*top_down=*/false, /*left_to_right=*/true);
}

}  // namespace

GeoSeg::GeoSeg()
    : edge_weights(nullptr),
      distance_buffer(nullptr),
      width(0),
      height(0),
      row_pixels(0) {}

GeoSeg::~GeoSeg() {
  delete[] edge_weights;
  delete[] distance_buffer;
}

int GeoSeg::SetImage(const unsigned char* image, int image_width,
                     int image_height, int row_stride, int pixel_step) {
  delete[] edge_weights;
  delete[] distance_buffer;
  edge_weights = nullptr;
  distance_buffer = nullptr;
  width = height = row_pixels = 0;
  if (image == nullptr) return -1;

  // Sizes are trusted; a non-positive side just leaves nothing to compute.
  const std::size_t pixels = image_width > 0 && image_height > 0
                                 ? static_cast<std::size_t>(image_width) *
                                       static_cast<std::size_t>(image_height)
                                 : 0;
  edge_weights = new unsigned int[pixels * 4];
  distance_buffer = new unsigned int[pixels];
  width = image_width;
  height = image_height;
  row_pixels = image_width;
  if (pixels == 0) return 0;

  // Each step is taken once, from its left or upper end, and copied to the
  // other: both ends must see the same cost. Steps off the image get 1, never
  // read by a pass.
  const std::ptrdiff_t pitch = 4 * static_cast<std::ptrdiff_t>(row_pixels);
  for (int y = 0; y < height; ++y) {
    const unsigned char* row =
        image + static_cast<std::ptrdiff_t>(y) * row_stride;
    unsigned int* e = edge_weights + y * pitch;
    e[kLeft] = kOutsideCost;
    e[4 * (width - 1) + kRight] = kOutsideCost;
    for (int x = 0; x + 1 < width; ++x) {
      const unsigned char* p =
          row + static_cast<std::ptrdiff_t>(x) * pixel_step;
      const unsigned int cost = step_cost(p, p + pixel_step);
      e[4 * x + kRight] = cost;
      e[4 * (x + 1) + kLeft] = cost;
    }
    if (y == 0) {
      for (int x = 0; x < width; ++x) e[4 * x + kUp] = kOutsideCost;
    }
    if (y + 1 == height) {
      for (int x = 0; x < width; ++x) e[4 * x + kDown] = kOutsideCost;
      break;
    }
    for (int x = 0; x < width; ++x) {
      const unsigned char* p =
          row + static_cast<std::ptrdiff_t>(x) * pixel_step;
      const unsigned int cost = step_cost(p, p + row_stride);
      e[4 * x + kDown] = cost;
      e[4 * x + pitch + kUp] = cost;
    }
  }
  return 0;
}

int GeoSeg::GetDist(const unsigned char* labels, int label_stride,
                    unsigned int* distance, int distance_stride,
                    unsigned char seed) {
  if (width < 1 || height < 1) return 0;
  propagate({edge_weights, width, height, labels, label_stride, distance,
             distance_stride, seed});
  return 0;
}

int GeoSeg::GetProb(const unsigned char* labels, int label_stride,
                    float* probability, int probability_stride) {
  if (width < 1 || height < 1) return 0;
  DistPlane plane{edge_weights, width,           height,     labels,
                  label_stride, distance_buffer, row_pixels, 2};
  propagate(plane);
  for (int y = 0; y < height; ++y) {
    const unsigned int* d2 =
        distance_buffer + static_cast<std::ptrdiff_t>(y) * row_pixels;
    float* out =
        probability + static_cast<std::ptrdiff_t>(y) * probability_stride;
    for (int x = 0; x < width; ++x) out[x] = static_cast<float>(d2[x]);
  }
  plane.seed = 1;
  propagate(plane);
  for (int y = 0; y < height; ++y) {
    const unsigned int* d1 =
        distance_buffer + static_cast<std::ptrdiff_t>(y) * row_pixels;
    float* out =
        probability + static_cast<std::ptrdiff_t>(y) * probability_stride;
    for (int x = 0; x < width; ++x) {
      const float d1f = static_cast<float>(d1[x]);
      out[x] = d1f / (out[x] + d1f);
    }
  }
  return 0;
}
