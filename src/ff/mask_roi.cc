#include <cstddef>
#include <memory>

#include "softmatte/ff/ipf.h"

namespace ff {
namespace {

// Index of the first non-zero entry, or n when there is none.
int first_marked(const unsigned char* marks, int n) {
  int i = 0;
  while (i < n && marks[i] == 0) ++i;
  return i;
}

// One past the index of the last non-zero entry, or 0 when there is none.
int end_of_marked(const unsigned char* marks, int n) {
  int i = n;
  while (i > 0 && marks[i - 1] == 0) --i;
  return i;
}

// Marks the columns and rows where hit(x, y) holds and writes their box.
// The row hit is accumulated as a byte OR rather than with an early exit so
// that the inner loop stays branch-free and vectorises.
template <typename RowHit>
bool box_of_marks(int width, int height, int* roi, RowHit row_hit) {
  const int w = width > 0 ? width : 0;
  const int h = height > 0 ? height : 0;
  std::unique_ptr<unsigned char[]> cols(new unsigned char[w + 1]());
  std::unique_ptr<unsigned char[]> rows(new unsigned char[h + 1]());
  for (int y = 0; y < h; ++y) rows[y] = row_hit(y, cols.get());

  const int left = first_marked(cols.get(), w);
  const int right = end_of_marked(cols.get(), w);
  const int top = first_marked(rows.get(), h);
  const int bottom = end_of_marked(rows.get(), h);
  if (left < right && top < bottom) {
    roi[0] = left;
    roi[1] = top;
    roi[2] = right;
    roi[3] = bottom;
    return true;
  }
  roi[0] = roi[1] = roi[2] = roi[3] = 0;
  return false;
}

}  // namespace

bool ipf_get_mask_range(const unsigned char* values, int n, int& first,
                        int& last) {
  first = -1;
  last = -1;
  if (values == nullptr || n < 1) return false;
  const int begin = first_marked(values, n);
  if (begin == n) return false;
  first = begin;
  last = end_of_marked(values, n);
  return true;
}

bool ipf_get_mask_roi(const unsigned char* mask, int width, int height,
                      int step, int* roi, unsigned char threshold) {
  if (mask == nullptr || roi == nullptr) return false;
  return box_of_marks(
      width, height, roi, [&](int y, unsigned char* cols) -> unsigned char {
        const unsigned char* row = mask + static_cast<ptrdiff_t>(y) * step;
        unsigned char any = 0;
        for (int x = 0; x < width; ++x) {
          const unsigned char hit = row[x] > threshold;
          cols[x] |= hit;
          any |= hit;
        }
        return any;
      });
}

bool ipf_get_mask_diff_roi(const unsigned char* a, int width, int height,
                           int stepA, const unsigned char* b, int stepB,
                           int* roi) {
  if (a == nullptr || b == nullptr || roi == nullptr) return false;
  return box_of_marks(
      width, height, roi, [&](int y, unsigned char* cols) -> unsigned char {
        const unsigned char* row_a = a + static_cast<ptrdiff_t>(y) * stepA;
        const unsigned char* row_b = b + static_cast<ptrdiff_t>(y) * stepB;
        unsigned char any = 0;
        for (int x = 0; x < width; ++x) {
          const unsigned char hit = row_a[x] != row_b[x];
          cols[x] |= hit;
          any |= hit;
        }
        return any;
      });
}

}  // namespace ff
