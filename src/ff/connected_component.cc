#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "softmatte/ff/ipf.h"

namespace ff {
namespace {

// Callers label whole photographs on a phone: running out of memory must come
// back as a result of 0, never as an exception through the C-like API.
template <typename T>
std::unique_ptr<T[]> try_alloc(size_t n) {
  return std::unique_ptr<T[]>(new (std::nothrow) T[n > 0 ? n : 1]);
}

// Pixels per block of the first pass. A block whose bytes repeat the row above
// repeats its provisional labels too, so only a flag is kept for it and the
// final pass copies the finished row above: inside large regions, which is
// nearly everywhere in a segmentation mask, no label is looked up at all.
constexpr int kBlock = 16;

// First pass: provisional labels handed out in raster order and the pairs of
// labels found to touch. The labels of a row are built in a two-row buffer;
// those of blocks that could not be copied from the row above also go to the
// label plane, and `copied` records the others.
class ProvisionalLabeller {
 public:
  ProvisionalLabeller(int* pairs, int* rows, int width)
      : pairs_(pairs), cur_(rows), prev_(rows + width), width_(width) {}

  int count() const { return next_; }
  size_t pair_count() const { return pair_count_; }

  void first_row(const unsigned char* row, int* lab) {
    cur_[0] = next_++;
    for (int x = 1; x < width_; ++x) {
      cur_[x] = row[x] == row[x - 1] ? cur_[x - 1] : next_++;
    }
    std::memcpy(lab, cur_, sizeof(int) * width_);
  }

  void next_row(const unsigned char* row, const unsigned char* up, int* lab,
                unsigned char* copied) {
    std::swap(cur_, prev_);
    cur_[0] = row[0] == up[0] ? prev_[0] : next_++;
    lab[0] = cur_[0];
    int x = 1;
    for (int block = 0; x + kBlock <= width_; ++block, x += kBlock) {
      // Equal bytes give equal labels as long as the pixel before the block
      // does not carry a label the row above lacks into it.
      const bool repeats = std::memcmp(row + x, up + x, kBlock) == 0 &&
                           (row[x - 1] != row[x] || cur_[x - 1] == prev_[x]);
      copied[block] = repeats;
      if (repeats) {
        std::memcpy(cur_ + x, prev_ + x, sizeof(int) * kBlock);
      } else {
        label_span(row, up, x, x + kBlock);
        std::memcpy(lab + x, cur_ + x, sizeof(int) * kBlock);
      }
    }
    label_span(row, up, x, width_);
    std::memcpy(lab + x, cur_ + x, sizeof(int) * (width_ - x));
  }

 private:
  void label_span(const unsigned char* row, const unsigned char* up, int begin,
                  int end) {
    for (int x = begin; x < end; ++x) {
      const unsigned char v = row[x];
      if (v == row[x - 1]) {
        const int left = cur_[x - 1];
        cur_[x] = left;
        if (v == up[x]) {
          const int above = prev_[x];
          // Along a shared border the same pair repeats pixel after pixel;
          // dropping the repeats keeps the list near the number of runs.
          if (left != above &&
              (pair_count_ == 0 || pairs_[2 * pair_count_ - 2] != left ||
               pairs_[2 * pair_count_ - 1] != above)) {
            pairs_[2 * pair_count_] = left;
            pairs_[2 * pair_count_ + 1] = above;
            ++pair_count_;
          }
        }
      } else if (v == up[x]) {
        cur_[x] = prev_[x];
      } else {
        cur_[x] = next_++;
      }
    }
  }

  int* pairs_;
  int* cur_;
  int* prev_;
  int width_;
  int next_ = 0;
  size_t pair_count_ = 0;
};

}  // namespace

int ipf_connected_component(const unsigned char* img, int width, int height,
                            int step, int* labels, int labelStep) {
  if (img == nullptr || labels == nullptr) return 0;
  if (width < 1 || height < 1) return 0;

  const size_t pixels = static_cast<size_t>(width) * height;
  // Each pixel appends at most one pair, so the list cannot run over.
  std::unique_ptr<int[]> pairs = try_alloc<int>(2 * pixels);
  if (!pairs) return 0;

  const int blocks = (width - 1) / kBlock;
  std::unique_ptr<int[]> rows = try_alloc<int>(2 * static_cast<size_t>(width));
  std::unique_ptr<unsigned char[]> copied =
      try_alloc<unsigned char>(static_cast<size_t>(blocks) * height);
  if (!rows || !copied) return 0;

  ProvisionalLabeller labeller(pairs.get(), rows.get(), width);
  labeller.first_row(img, labels);
  for (int y = 1; y < height; ++y) {
    const unsigned char* row = img + static_cast<ptrdiff_t>(y) * step;
    labeller.next_row(row, row - step,
                      labels + static_cast<ptrdiff_t>(y) * labelStep,
                      copied.get() + static_cast<size_t>(y) * blocks);
  }
  rows.reset();
  const int provisional = labeller.count();
  const size_t pair_count = labeller.pair_count();
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

  for (int x = 0; x < width; ++x) labels[x] = final_label[labels[x]];
  for (int y = 1; y < height; ++y) {
    int* lab = labels + static_cast<ptrdiff_t>(y) * labelStep;
    const int* lab_up = lab - labelStep;
    const unsigned char* row_copied =
        copied.get() + static_cast<size_t>(y) * blocks;
    lab[0] = final_label[lab[0]];
    int x = 1;
    for (int block = 0; block < blocks; ++block, x += kBlock) {
      if (row_copied[block]) {
        std::memcpy(lab + x, lab_up + x, sizeof(int) * kBlock);
      } else {
        for (int i = x; i < x + kBlock; ++i) lab[i] = final_label[lab[i]];
      }
    }
    for (; x < width; ++x) lab[x] = final_label[lab[x]];
  }
  return components;
}

}  // namespace ff
