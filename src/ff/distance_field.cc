#include <algorithm>
#include <cstddef>
#include <cstring>

#include "softmatte/ff/ipf.h"

namespace ff {

namespace dfp_c8 {

const int PCD[16][2] = {{-1, -1}, {0, -1}, {1, -1}, {-1, 0}, {1, 0}, {-1, 1},
                        {0, 1},   {1, 1},  {0, -1}, {1, -1}, {1, 0}, {1, 1},
                        {0, 1},   {-1, 1}, {-1, 0}, {-1, -1}};
const int PWI[16] = {0, 1, 2, 3, 4, 5, 6, 7, 1, 2, 4, 7, 6, 5, 3, 0};

}  // namespace dfp_c8

namespace {

constexpr unsigned int kUnreached = 10000000;
constexpr int kPad2d = 2;  // two cells: every neighbour read stays in the grid
constexpr int kPad3d = 1;

// Weights are stored as unsigned short; a product past 65535 keeps its low
// 16 bits, as converting through a 32-bit integer does on either target.
unsigned short ScaledWeight(unsigned short scale, double factor) {
  return static_cast<unsigned short>(static_cast<unsigned int>(scale * factor));
}

unsigned short WeightForSteps(unsigned short scale, int nonZeroAxes) {
  if (nonZeroAxes == 1) return scale;
  return ScaledWeight(scale, nonZeroAxes == 2 ? 1.414 : 1.732);
}

struct Neighbour {
  ptrdiff_t offset;  // in grid cells
  unsigned int weight;
};

// One raster pass over the interior. Neighbours are tried in list order and
// must beat the running minimum strictly, so the earliest of equal minima
// (and the current value before any of them) is kept.
// origin is the grid cell of pixel (0, 0).
template <typename Point, bool kNearest, int kCount>
void Pass(const unsigned char* labels, ptrdiff_t labelStride, int width,
          int height, unsigned char target, unsigned int* grid,
          ptrdiff_t origin, ptrdiff_t gridStride, Point* nearest, bool bottomUp,
          bool rightToLeft, const Neighbour (&nbr)[kCount]) {
  for (int i = 0; i < height; ++i) {
    const int y = bottomUp ? height - 1 - i : i;
    const unsigned char* labelRow = labels + y * labelStride;
    const ptrdiff_t rowStart = origin + y * gridStride;
    for (int j = 0; j < width; ++j) {
      const int x = rightToLeft ? width - 1 - j : j;
      const ptrdiff_t cell = rowStart + x;
      const unsigned char label = labelRow[x];
      if (label == target) {
        grid[cell] = 0;
        continue;
      }
      if (label != 0) {
        grid[cell] = kUnreached;
        continue;
      }
      unsigned int best = grid[cell];
      int from = -1;
      for (int k = 0; k < kCount; ++k) {
        const unsigned int candidate =
            grid[cell + nbr[k].offset] + nbr[k].weight;
        if (candidate < best) {
          best = candidate;
          from = k;
        }
      }
      grid[cell] = best;
      if (kNearest && from >= 0) {
        std::memcpy(nearest[cell], nearest[cell + nbr[from].offset],
                    sizeof(Point));
      }
    }
  }
}

struct PassShape2d {
  bool bottomUp;
  bool rightToLeft;
  int dx[4];
  int dy[4];
};

// The four-pass scheme: after the two classic raster sweeps, two sweeps
// along the other diagonal catch paths that bend against the first ones.
constexpr PassShape2d kFourPass[4] = {
    {false, false, {-1, 0, 1, -1}, {-1, -1, -1, 0}},
    {true, true, {1, -1, 0, 1}, {0, 1, 1, 1}},
    {false, true, {0, 1, 1, 1}, {-1, -1, 0, 1}},
    {true, false, {0, -1, -1, -1}, {1, 1, 0, -1}},
};

// Fields without the four-pass flag sweep forward and backward twice.
constexpr PassShape2d kTwoByTwoPass[4] = {
    {false, false, {-1, 0, 1, -1}, {-1, -1, -1, 0}},
    {true, true, {1, -1, 0, 1}, {0, 1, 1, 1}},
    {false, false, {-1, 0, 1, -1}, {-1, -1, -1, 0}},
    {true, true, {1, -1, 0, 1}, {0, 1, 1, 1}},
};

int RasterIndex2d(int dx, int dy) {
  const int i = (dy + 1) * 3 + (dx + 1);
  return i > 4 ? i - 1 : i;
}

// Distances alone. Three neighbours of every sweep lie in the rows above
// and below, which this row leaves alone; the fourth is the pixel visited
// just before, kept in a register so that no pixel waits for the previous
// one's store to come back from memory. The minimum is the same in any
// order; only nearest points need the list order.
template <bool kBottomUp, bool kRightToLeft>
void DistancePass(const unsigned char* labels, ptrdiff_t labelStride, int width,
                  int height, unsigned char target, unsigned int* grid,
                  ptrdiff_t gridStride, const PassShape2d& shape,
                  const unsigned short* weights) {
  ptrdiff_t offsets[3] = {0, 0, 0};
  unsigned int offWeights[3] = {0, 0, 0};
  unsigned int carriedWeight = 0;
  int n = 0;
  for (int k = 0; k < 4; ++k) {
    const unsigned int w = weights[RasterIndex2d(shape.dx[k], shape.dy[k])];
    if (shape.dy[k] == 0) {
      carriedWeight = w;
    } else {
      offsets[n] = shape.dy[k] * gridStride + shape.dx[k];
      offWeights[n] = w;
      ++n;
    }
  }
  const int step = kRightToLeft ? -1 : 1;
  for (int i = 0; i < height; ++i) {
    const int y = kBottomUp ? height - 1 - i : i;
    const unsigned char* label = labels + y * labelStride;
    unsigned int* row = grid + (y + kPad2d) * gridStride + kPad2d;
    const unsigned int* a = row + offsets[0];
    const unsigned int* b = row + offsets[1];
    const unsigned int* c = row + offsets[2];
    int x = kRightToLeft ? width - 1 : 0;
    unsigned int carried = row[x - step];
    for (int j = 0; j < width; ++j, x += step) {
      const unsigned char l = label[x];
      unsigned int v;
      if (l == target) {
        v = 0;
      } else if (l != 0) {
        v = kUnreached;
      } else {
        v = row[x];
        v = std::min(v, a[x] + offWeights[0]);
        v = std::min(v, b[x] + offWeights[1]);
        v = std::min(v, c[x] + offWeights[2]);
        v = std::min(v, carried + carriedWeight);
      }
      row[x] = v;
      carried = v;
    }
  }
}

template <bool kNearest>
void RunPasses2d(const dist_field& field, const unsigned char* labels,
                 ptrdiff_t labelStride, int width, int height,
                 unsigned char target, unsigned int* grid, ptrdiff_t gridStride,
                 unsigned short (*nearest)[2]) {
  const PassShape2d* shapes = (field.flags & 1) ? kFourPass : kTwoByTwoPass;
  for (int p = 0; p < 4; ++p) {
    const PassShape2d& shape = shapes[p];
    if (!kNearest) {
      auto pass = shape.bottomUp
                      ? (shape.rightToLeft ? DistancePass<true, true>
                                           : DistancePass<true, false>)
                      : (shape.rightToLeft ? DistancePass<false, true>
                                           : DistancePass<false, false>);
      pass(labels, labelStride, width, height, target, grid, gridStride, shape,
           field.weights);
      continue;
    }
    Neighbour nbr[4];
    for (int k = 0; k < 4; ++k) {
      nbr[k].offset = shape.dy[k] * gridStride + shape.dx[k];
      nbr[k].weight = field.weights[RasterIndex2d(shape.dx[k], shape.dy[k])];
    }
    Pass<unsigned short[2], kNearest, 4>(
        labels, labelStride, width, height, target, grid,
        kPad2d * gridStride + kPad2d, gridStride, nearest, shape.bottomUp,
        shape.rightToLeft, nbr);
  }
}

// 3-D passes: a sweep in each direction of z, y and x takes the 13
// neighbours that come before a voxel in its own visiting order.
template <bool kNearest>
void RunPasses3d(const dist_field& field, const unsigned char* labels,
                 int width, int height, int depth, unsigned char target,
                 unsigned int* grid, unsigned short (*nearest)[3]) {
  const ptrdiff_t gw = width + 2 * kPad3d;
  const ptrdiff_t gSlice = gw * (height + 2 * kPad3d);
  const ptrdiff_t lSlice = static_cast<ptrdiff_t>(width) * height;
  // Directions of z, y and x for each sweep: forward, backward, then the
  // same two with x reversed.
  const int sweeps[4][3] = {{1, 1, 1}, {-1, -1, -1}, {1, 1, -1}, {-1, -1, 1}};
  for (const auto& dir : sweeps) {
    Neighbour nbr[13];
    int n = 0;
    int w = 0;
    for (int dz = -1; dz <= 1; ++dz) {
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          if (dx == 0 && dy == 0 && dz == 0) continue;
          const int weightIndex = w++;
          const int key[3] = {dz * dir[0], dy * dir[1], dx * dir[2]};
          const int lead = key[0] != 0 ? key[0] : key[1] != 0 ? key[1] : key[2];
          if (lead > 0) continue;
          nbr[n].offset = dz * gSlice + dy * gw + dx;
          nbr[n].weight = field.weights[weightIndex];
          ++n;
        }
      }
    }
    for (int i = 0; i < depth; ++i) {
      const int z = dir[0] > 0 ? i : depth - 1 - i;
      // Each slice is a 2-D raster pass whose neighbours reach into the
      // slices around it.
      const ptrdiff_t origin = (z + kPad3d) * gSlice + kPad3d * gw + kPad3d;
      Pass<unsigned short[3], kNearest, 13>(
          labels + z * lSlice, width, width, height, target, grid, origin, gw,
          nearest, dir[1] < 0, dir[2] < 0, nbr);
    }
  }
}

}  // namespace

dist_field* ipf_create_distance_field_2d(int width, int height,
                                         unsigned short scale) {
  dist_field* field = new dist_field;
  field->width = width;
  field->height = height;
  field->depth = 1;
  field->neighbour_count = 8;
  field->flags = 1;
  field->weights = new unsigned short[8];
  int i = 0;
  for (int dy = -1; dy <= 1; ++dy) {
    for (int dx = -1; dx <= 1; ++dx) {
      if (dx == 0 && dy == 0) continue;
      field->weights[i++] = WeightForSteps(scale, (dx != 0) + (dy != 0));
    }
  }
  return field;
}

dist_field* ipf_create_distance_field_3d(int width, int height, int depth,
                                         unsigned short scale) {
  dist_field* field = new dist_field;
  field->width = width;
  field->height = height;
  field->depth = depth;
  field->neighbour_count = 26;
  field->flags = 1;
  field->weights = new unsigned short[26];
  int i = 0;
  for (int dz = -1; dz <= 1; ++dz) {
    for (int dy = -1; dy <= 1; ++dy) {
      for (int dx = -1; dx <= 1; ++dx) {
        if (dx == 0 && dy == 0 && dz == 0) continue;
        field->weights[i++] =
            WeightForSteps(scale, (dx != 0) + (dy != 0) + (dz != 0));
      }
    }
  }
  return field;
}

void ipf_release_distance_field(dist_field* field) {
  if (field == nullptr) return;
  delete[] field->weights;
  delete field;
}

int ipf_distance_transform_2d(dist_field* field, const unsigned char* labels,
                              unsigned short width, unsigned short height,
                              int label_stride, unsigned char target,
                              unsigned int* distance, int distance_stride,
                              unsigned short (*nearest)[2],
                              int nearest_stride) {
  if (field == nullptr || field->width != width || labels == nullptr ||
      distance == nullptr || field->height != height) {
    return -1;
  }
  const ptrdiff_t gridStride = width + 2 * kPad2d;
  const size_t cells = static_cast<size_t>(gridStride) * (height + 2 * kPad2d);
  unsigned int* grid = new unsigned int[cells];
  for (size_t i = 0; i < cells; ++i) grid[i] = kUnreached;
  unsigned short(*near)[2] = nullptr;
  if (nearest != nullptr) {
    // Border cells are never copied from: their distance cannot win.
    near = new unsigned short[cells][2]();
    for (int y = 0; y < height; ++y) {
      unsigned short(*row)[2] = near + (y + kPad2d) * gridStride + kPad2d;
      for (int x = 0; x < width; ++x) {
        row[x][0] = static_cast<unsigned short>(x);
        row[x][1] = static_cast<unsigned short>(y);
      }
    }
  }
  if (field->neighbour_count == 8) {
    if (near != nullptr) {
      RunPasses2d<true>(*field, labels, label_stride, width, height, target,
                        grid, gridStride, near);
    } else {
      RunPasses2d<false>(*field, labels, label_stride, width, height, target,
                         grid, gridStride, near);
    }
  }
  for (int y = 0; y < height; ++y) {
    const ptrdiff_t cell = (y + kPad2d) * gridStride + kPad2d;
    std::memcpy(distance + static_cast<ptrdiff_t>(y) * distance_stride,
                grid + cell, width * sizeof(unsigned int));
    if (nearest != nullptr) {
      std::memcpy(nearest + static_cast<ptrdiff_t>(y) * nearest_stride,
                  near + cell, width * sizeof(near[0]));
    }
  }
  delete[] grid;
  delete[] near;
  return -1;
}

int ipf_distance_transform_3d(dist_field* field, const unsigned char* labels,
                              unsigned short width, unsigned short height,
                              unsigned short depth, unsigned char target,
                              unsigned int* distance,
                              unsigned short (*nearest)[3]) {
  if (field == nullptr || labels == nullptr || distance == nullptr ||
      field->width != width || field->height != height ||
      field->depth != depth) {
    return -1;
  }
  const ptrdiff_t gw = width + 2 * kPad3d;
  const ptrdiff_t gSlice = gw * (height + 2 * kPad3d);
  const size_t cells = static_cast<size_t>(gSlice) * (depth + 2 * kPad3d);
  unsigned int* grid = new unsigned int[cells];
  for (size_t i = 0; i < cells; ++i) grid[i] = kUnreached;
  unsigned short(*near)[3] = nullptr;
  if (nearest != nullptr) {
    near = new unsigned short[cells][3]();
    for (int z = 0; z < depth; ++z) {
      for (int y = 0; y < height; ++y) {
        unsigned short(*row)[3] =
            near + (z + kPad3d) * gSlice + (y + kPad3d) * gw + kPad3d;
        for (int x = 0; x < width; ++x) {
          row[x][0] = static_cast<unsigned short>(x);
          row[x][1] = static_cast<unsigned short>(y);
          row[x][2] = static_cast<unsigned short>(z);
        }
      }
    }
  }
  if (field->neighbour_count == 26) {
    if (near != nullptr) {
      RunPasses3d<true>(*field, labels, width, height, depth, target, grid,
                        near);
    } else {
      RunPasses3d<false>(*field, labels, width, height, depth, target, grid,
                         near);
    }
  }
  for (int z = 0; z < depth; ++z) {
    for (int y = 0; y < height; ++y) {
      const ptrdiff_t cell = (z + kPad3d) * gSlice + (y + kPad3d) * gw + kPad3d;
      const ptrdiff_t out = (static_cast<ptrdiff_t>(z) * height + y) * width;
      std::memcpy(distance + out, grid + cell, width * sizeof(unsigned int));
      if (nearest != nullptr) {
        std::memcpy(nearest + out, near + cell, width * sizeof(near[0]));
      }
    }
  }
  delete[] grid;
  delete[] near;
  return -1;
}

}  // namespace ff
