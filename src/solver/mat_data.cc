#include <cstddef>
#include <utility>

#include "softmatte/solver.h"

namespace {

// Rows never hold more than the diagonal and 12 forward neighbours.
constexpr int kRowCapacity = 13;

}  // namespace

mat_data::mat_data()
    : n(0),
      values(nullptr),
      rhs(nullptr),
      rowStart(nullptr),
      columns(nullptr),
      width(0),
      height(0),
      roi{0, 0, 0, 0},
      indexMap(nullptr),
      indexOrigin(nullptr),
      pixelOf(nullptr),
      flags(nullptr),
      indexPitch(0),
      systemCount(0),
      unknownCount(0) {}

mat_data::~mat_data() { release(); }

void mat_data::release() {
  delete[] values;
  delete[] rhs;
  delete[] rowStart;
  delete[] columns;
  values = nullptr;
  rhs = nullptr;
  rowStart = nullptr;
  columns = nullptr;
  release_mask_data();
}

void mat_data::create(int count) {
  release();
  // A negative count must not wrap into a small allocation: size_t(-1)
  // makes array new fail the way an impossible size should.
  const size_t rows = count < 0 ? static_cast<size_t>(-1) / kRowCapacity
                                : static_cast<size_t>(count);
  values = new double[rows * kRowCapacity];
  rhs = new double[rows];
  rowStart = new int[rows + 1];
  columns = new int[rows * kRowCapacity];
  n = count;
}

void mat_data::set_mask_data(int imageWidth, int imageHeight, const int* rect,
                             int* map, int* origin, int pitch, int* pixels,
                             int systemSize, unsigned char* ringFlags,
                             int unknownSize, unsigned char* /*unused*/) {
  width = imageWidth;
  height = imageHeight;
  for (int i = 0; i < 4; ++i) roi[i] = rect[i];
  release_mask_data();
  indexMap = map;
  indexOrigin = origin;
  indexPitch = pitch;
  pixelOf = pixels;
  systemCount = systemSize;
  flags = ringFlags;
  unknownCount = unknownSize;
}

void mat_data::release_mask_data() {
  delete[] indexMap;
  indexMap = nullptr;
  indexOrigin = nullptr;
  delete[] pixelOf;
  pixelOf = nullptr;
  delete[] flags;
  flags = nullptr;
}

void mat_data::swap(mat_data& other) {
  std::swap(n, other.n);
  std::swap(values, other.values);
  std::swap(rhs, other.rhs);
  std::swap(rowStart, other.rowStart);
  std::swap(columns, other.columns);
  std::swap(width, other.width);
  std::swap(height, other.height);
  std::swap(roi, other.roi);
  std::swap(indexMap, other.indexMap);
  std::swap(indexOrigin, other.indexOrigin);
  std::swap(pixelOf, other.pixelOf);
  std::swap(flags, other.flags);
  std::swap(indexPitch, other.indexPitch);
  std::swap(systemCount, other.systemCount);
  std::swap(unknownCount, other.unknownCount);
}
