// Component labels and mask boxes of arbitrary planes, checked against a
// union-find labelling and plain scans: the labelling's block shortcuts and
// the box search's row skipping must agree with them on every input.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/ff/ipf.h"

namespace {

// The box {left, top, right, bottom} of the pixels where hit holds, by a full
// scan, must be what the library found; all zeros when there is none.
template <typename Hit>
void CheckBox(int width, int height, bool found, const int* got, Hit hit) {
  int box[4] = {width, height, 0, 0};
  ForEach(width, height, [&](int x, int y) {
    if (!hit(x, y)) return;
    box[0] = std::min(box[0], x), box[1] = std::min(box[1], y);
    box[2] = std::max(box[2], x + 1), box[3] = std::max(box[3], y + 1);
  });
  if (box[2] == 0) std::fill(box, box + 4, 0);
  Check(found == (box[2] > 0) && std::equal(box, box + 4, got));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  FuzzInput in(data, size);
  const int width = in.Int(1, 64);
  const int height = in.Int(1, 64);
  SentinelPlane<uint8_t> img(height, width + in.Int(0, 7), width);
  SentinelPlane<int> labels(height, width + in.Int(0, 7), width, kIntSentinel);
  // Few distinct values make large, winding regions; 0 keeps every byte.
  const int levels = in.Byte();
  const uint8_t threshold = in.Byte();
  const int diff_every = in.Int(0, 255);
  for (int y = 0; y < height; ++y) {
    in.Bytes(img.row(y), width);
    for (int x = 0; x < width && levels > 1; ++x) {
      img.at(x, y) =
          static_cast<uint8_t>(img.at(x, y) % levels * (255 / levels));
    }
  }
  const std::vector<uint8_t> img_before = img.data;

  const int count = ff::ipf_connected_component(
      img.p(), width, height, img.step, labels.p(), labels.step);
  Check(img.data == img_before && labels.PaddingIntact());
  // 4-connected equal-valued regions by union-find, numbered in the raster
  // order of their first pixel.
  std::vector<int> root(static_cast<size_t>(width) * height),
      number(root.size(), -1);
  std::iota(root.begin(), root.end(), 0);
  auto find = [&](int p) {
    while (root[p] != p) p = root[p] = root[root[p]];
    return p;
  };
  auto join = [&](int p, int q) { root[find(p)] = find(q); };
  ForEach(width, height, [&](int x, int y) {
    const int p = y * width + x;
    if (x > 0 && img.at(x - 1, y) == img.at(x, y)) join(p, p - 1);
    if (y > 0 && img.at(x, y - 1) == img.at(x, y)) join(p, p - width);
  });
  int want = 0;
  ForEach(width, height, [&](int x, int y) {
    int& n = number[find(y * width + x)];
    if (n < 0) n = want++;
    Check(labels.at(x, y) == n);
  });
  Check(count == want);

  // Boxes of the same plane: above a threshold, and where a copy with a few
  // bytes changed differs from it.
  int roi[4] = {-1, -1, -1, -1};
  bool found =
      ff::ipf_get_mask_roi(img.p(), width, height, img.step, roi, threshold);
  CheckBox(width, height, found, roi,
           [&](int x, int y) { return img.at(x, y) > threshold; });

  SentinelPlane<uint8_t> other(height, width + in.Int(0, 7), width);
  ForEach(width, height, [&](int x, int y) { other.at(x, y) = img.at(x, y); });
  const int pixels = width * height;
  for (int p = diff_every ? in.Int(0, 255) : pixels; p < pixels;
       p += diff_every) {
    other.at(p % width, p / width) ^= in.Byte() | 1;
  }
  std::fill(roi, roi + 4, -1);
  found = ff::ipf_get_mask_diff_roi(img.p(), width, height, img.step, other.p(),
                                    other.step, roi);
  CheckBox(width, height, found, roi,
           [&](int x, int y) { return img.at(x, y) != other.at(x, y); });

  // The first row as a run of values, its length cut short by the input.
  const int n = in.Int(0, width);
  int first = 0, last = 0, want_first = -1, want_last = -1;
  const bool any = ff::ipf_get_mask_range(img.row(0), n, first, last);
  for (int i = 0; i < n; ++i) {
    if (img.at(i, 0) == 0) continue;
    if (want_first < 0) want_first = i;
    want_last = i + 1;
  }
  Check(any == (want_first >= 0) && first == want_first && last == want_last);
  return 0;
}
