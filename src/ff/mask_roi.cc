#include <cstddef>

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

// Bounding box of the pixels where hit(x, y) holds. Only the first and the
// last row with a hit are searched in full; rows between them can only widen
// the box, so they are read outside it alone. A mask with one large region
// is then read little further than its background.
template <typename Hit>
bool box_of_hits(int width, int height, int* roi, Hit hit) {
  int left = width;
  int right = 0;
  // Widens [left, right) by the hits of row y outside it; false when the row
  // has none there.
  auto widen = [&](int y) {
    int x = 0;
    while (x < left && !hit(x, y)) ++x;
    const bool found_left = x < left;
    if (found_left) left = x;
    if (!found_left && left == width) return false;  // the whole row is clear
    x = width - 1;
    while (x >= right && !hit(x, y)) --x;
    const bool found_right = x >= right;
    if (found_right) right = x + 1;
    return found_left || found_right;
  };

  int top = 0;
  while (top < height && !widen(top)) ++top;
  if (top == height) {
    roi[0] = roi[1] = roi[2] = roi[3] = 0;
    return false;
  }
  // A row below the top one counts if it widens the box or has a hit inside.
  auto any_hit = [&](int y) {
    bool inside = false;
    for (int x = left; x < right && !inside; ++x) inside = hit(x, y);
    return widen(y) || inside;
  };
  int bottom = height;
  while (bottom > top + 1 && !any_hit(bottom - 1)) --bottom;
  for (int y = top + 1; y < bottom - 1; ++y) widen(y);

  roi[0] = left;
  roi[1] = top;
  roi[2] = right;
  roi[3] = bottom;
  return true;
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
  return box_of_hits(width, height, roi, [=](int x, int y) {
    return mask[static_cast<ptrdiff_t>(y) * step + x] > threshold;
  });
}

bool ipf_get_mask_diff_roi(const unsigned char* a, int width, int height,
                           int stepA, const unsigned char* b, int stepB,
                           int* roi) {
  if (a == nullptr || b == nullptr || roi == nullptr) return false;
  return box_of_hits(width, height, roi, [=](int x, int y) {
    return a[static_cast<ptrdiff_t>(y) * stepA + x] !=
           b[static_cast<ptrdiff_t>(y) * stepB + x];
  });
}

}  // namespace ff
