#include <cstddef>
#include <memory>
#include <new>

#include "softmatte/ff/ipf.h"

namespace ff {
namespace {

// Callers label whole photographs on a phone: running out of memory must come
// back as a result of 0, never as an exception through the C-like API.
template <typename T>
std::unique_ptr<T[]> try_alloc(size_t n) {
  return std::unique_ptr<T[]>(new (std::nothrow) T[n > 0 ? n : 1]);
}

// First pass: provisional labels in raster order, written straight into the
// label plane, plus the pairs of labels found to touch. Returns the number of
// provisional labels; *pair_count receives the number of pairs.
int provisional_labels(const unsigned char* img, int width, int height,
                       ptrdiff_t step, int* labels, ptrdiff_t label_step,
                       int* pairs, size_t* pair_count) {
  int next = 0;
  size_t n = 0;

  labels[0] = next++;
  for (int x = 1; x < width; ++x) {
    labels[x] = img[x] == img[x - 1] ? labels[x - 1] : next++;
  }

  for (int y = 1; y < height; ++y) {
    const unsigned char* row = img + y * step;
    const unsigned char* up = row - step;
    int* lab = labels + y * label_step;
    const int* lab_up = lab - label_step;

    lab[0] = row[0] == up[0] ? lab_up[0] : next++;
    for (int x = 1; x < width; ++x) {
      const unsigned char v = row[x];
      if (v == row[x - 1]) {
        const int left = lab[x - 1];
        lab[x] = left;
        if (v == up[x]) {
          const int above = lab_up[x];
          // Along a shared border the same pair repeats pixel after pixel;
          // dropping the repeats keeps the list near the number of runs.
          if (left != above && (n == 0 || pairs[2 * n - 2] != left ||
                                pairs[2 * n - 1] != above)) {
            pairs[2 * n] = left;
            pairs[2 * n + 1] = above;
            ++n;
          }
        }
      } else if (v == up[x]) {
        lab[x] = lab_up[x];
      } else {
        lab[x] = next++;
      }
    }
  }
  *pair_count = n;
  return next;
}

}  // namespace

int ipf_connected_component(const unsigned char* img, int width, int height,
                            int step, int* labels, int labelStep) {
  if (img == nullptr || labels == nullptr) return 0;
  if (width < 1 || height < 1) return 0;

  const size_t pixels = static_cast<size_t>(width) * height;
  // Every pixel can add at most one pair, so this bound never overflows.
  std::unique_ptr<int[]> pairs = try_alloc<int>(2 * pixels);
  if (!pairs) return 0;

  size_t pair_count = 0;
  const int provisional = provisional_labels(
      img, width, height, step, labels, labelStep, pairs.get(), &pair_count);
  const size_t count = static_cast<size_t>(provisional);

  // The adjacency lists live in one array indexed by per-label offsets:
  // a vector per label would cost an allocation for each of them.
  std::unique_ptr<size_t[]> first = try_alloc<size_t>(count + 1);
  std::unique_ptr<int[]> neighbours = try_alloc<int>(2 * pair_count);
  std::unique_ptr<int[]> final_label = try_alloc<int>(count);
  std::unique_ptr<int[]> stack = try_alloc<int>(count);
  if (!first || !neighbours || !final_label || !stack) return 0;

  // Counts, then end offsets; filling backwards turns each end into its start.
  for (size_t i = 0; i <= count; ++i) first[i] = 0;
  for (size_t p = 0; p < 2 * pair_count; ++p) ++first[pairs[p]];
  for (size_t i = 1; i <= count; ++i) first[i] += first[i - 1];
  for (size_t p = 0; p < pair_count; ++p) {
    const int a = pairs[2 * p];
    const int b = pairs[2 * p + 1];
    neighbours[--first[a]] = b;
    neighbours[--first[b]] = a;
  }
  pairs.reset();

  for (size_t i = 0; i < count; ++i) final_label[i] = -1;
  int components = 0;
  for (int start = 0; start < provisional; ++start) {
    if (final_label[start] >= 0) continue;
    // Labels are marked when pushed, so the stack never holds more than all
    // provisional labels at once.
    final_label[start] = components;
    size_t top = 0;
    stack[top++] = start;
    while (top > 0) {
      const int label = stack[--top];
      for (size_t e = first[label]; e < first[label + 1]; ++e) {
        const int other = neighbours[e];
        if (final_label[other] < 0) {
          final_label[other] = components;
          stack[top++] = other;
        }
      }
    }
    ++components;
  }

  for (int y = 0; y < height; ++y) {
    int* lab = labels + static_cast<ptrdiff_t>(y) * labelStep;
    for (int x = 0; x < width; ++x) lab[x] = final_label[lab[x]];
  }
  return components;
}

}  // namespace ff
