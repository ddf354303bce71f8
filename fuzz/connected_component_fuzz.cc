// Component labels and mask boxes of arbitrary planes, checked against a
// flood fill and plain scans: the labelling's block shortcuts and the box
// search's row skipping must agree with them on every input.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/ff/ipf.h"

namespace {

constexpr unsigned char kSentinel = 0xA5;
constexpr int kLabelSentinel = -0x5A5A5A5B;

// Labels 4-connected equal-valued regions by flood fill, numbered in the
// raster order of their first pixel; returns the count.
int FloodLabels(const SentinelPlane<unsigned char>& img, int width, int height,
                std::vector<int>& labels) {
  labels.assign(static_cast<size_t>(width) * height, -1);
  std::vector<int> stack;
  int count = 0;
  auto value = [&](int p) {
    return img.data[static_cast<size_t>(p / width) * img.step + p % width];
  };
  for (int start = 0; start < width * height; ++start) {
    if (labels[start] >= 0) continue;
    labels[start] = count;
    stack.push_back(start);
    while (!stack.empty()) {
      const int p = stack.back();
      stack.pop_back();
      const int x = p % width;
      const int y = p / width;
      const int next[4] = {x > 0 ? p - 1 : -1, x + 1 < width ? p + 1 : -1,
                           y > 0 ? p - width : -1,
                           y + 1 < height ? p + width : -1};
      for (int q : next) {
        if (q >= 0 && labels[q] < 0 && value(q) == value(p)) {
          labels[q] = count;
          stack.push_back(q);
        }
      }
    }
    ++count;
  }
  return count;
}

// The box {left, top, right, bottom} of the pixels where hit holds, by a
// full scan; false and zeros when there is none.
template <typename Hit>
bool ScanBox(int width, int height, int* box, Hit hit) {
  int left = width, top = height, right = 0, bottom = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (!hit(x, y)) continue;
      if (x < left) left = x;
      if (y < top) top = y;
      if (x + 1 > right) right = x + 1;
      if (y + 1 > bottom) bottom = y + 1;
    }
  }
  if (right == 0) {
    box[0] = box[1] = box[2] = box[3] = 0;
    return false;
  }
  box[0] = left;
  box[1] = top;
  box[2] = right;
  box[3] = bottom;
  return true;
}

bool SameBox(const int* a, const int* b) {
  return a[0] == b[0] && a[1] == b[1] && a[2] == b[2] && a[3] == b[3];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  FuzzInput in(data, size);
  const int width = in.Int(1, 64);
  const int height = in.Int(1, 64);
  const int step = width + in.Int(0, 7);
  const int label_step = width + in.Int(0, 7);
  // Few distinct values make large, winding regions; 0 keeps every byte.
  const int levels = in.Byte();
  const unsigned char threshold = in.Byte();
  const int diff_every = in.Int(0, 255);

  SentinelPlane<unsigned char> img(height, step, width, kSentinel);
  for (int y = 0; y < height; ++y) {
    unsigned char* row = img.row(y);
    in.Bytes(row, static_cast<size_t>(width));
    if (levels > 1) {
      for (int x = 0; x < width; ++x) {
        row[x] = static_cast<unsigned char>(row[x] % levels * (255 / levels));
      }
    }
  }
  const std::vector<unsigned char> img_before = img.data;

  SentinelPlane<int> labels(height, label_step, width, kLabelSentinel);
  const int count = ff::ipf_connected_component(
      img.data.data(), width, height, step, labels.data.data(), label_step);
  if (img.data != img_before || !labels.PaddingIntact()) __builtin_trap();
  std::vector<int> want;
  if (count != FloodLabels(img, width, height, want)) __builtin_trap();
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (labels.row(y)[x] != want[static_cast<size_t>(y) * width + x]) {
        __builtin_trap();
      }
    }
  }

  // Boxes of the same plane: above a threshold, and where a copy with a few
  // bytes changed differs from it.
  auto above = [&](int x, int y) { return img.row(y)[x] > threshold; };
  int roi[4] = {-1, -1, -1, -1};
  int box[4];
  const bool found = ff::ipf_get_mask_roi(img.data.data(), width, height, step,
                                          roi, threshold);
  if (found != ScanBox(width, height, box, above) || !SameBox(roi, box)) {
    __builtin_trap();
  }

  const int step_b = width + in.Int(0, 7);
  SentinelPlane<unsigned char> other(height, step_b, width, kSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) other.row(y)[x] = img.row(y)[x];
  }
  if (diff_every > 0) {
    for (int p = in.Int(0, 255); p < width * height; p += diff_every) {
      other.row(p / width)[p % width] ^= in.Byte() | 1;
    }
  }
  auto differs = [&](int x, int y) { return img.row(y)[x] != other.row(y)[x]; };
  int diff_roi[4] = {-1, -1, -1, -1};
  const bool any_diff =
      ff::ipf_get_mask_diff_roi(img.data.data(), width, height, step,
                                other.data.data(), step_b, diff_roi);
  if (any_diff != ScanBox(width, height, box, differs) ||
      !SameBox(diff_roi, box)) {
    __builtin_trap();
  }

  // The first row as a run of values, its length cut short by the input.
  const int n = in.Int(0, width);
  int first = 0;
  int last = 0;
  const bool any = ff::ipf_get_mask_range(img.row(0), n, first, last);
  int want_first = -1;
  int want_last = -1;
  for (int i = 0; i < n; ++i) {
    if (img.row(0)[i] == 0) continue;
    if (want_first < 0) want_first = i;
    want_last = i + 1;
  }
  if (any != (want_first >= 0) || first != want_first || last != want_last) {
    __builtin_trap();
  }
  return 0;
}
