#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"

namespace {

constexpr unsigned char kUnknown = 128;
constexpr int kControlSteps = 101;

// Filled on first use and kept for the life of the process. spread[0] is
// 0.5 once filled, so a value near zero means "not yet".
double spread_table[kControlSteps];
double level_table[kControlSteps];

void FillTables() {
  if (spread_table[0] >= 1e-6) return;
  for (int i = 0; i < kControlSteps; ++i) {
    const double s = std::sqrt(i / 100.0);
    spread_table[i] = s * 0.05 + (1 - s) * 0.5;
    const double t = i / 100.0;
    level_table[i] = t / 255 + (1 - t) * 254 / 255;
  }
}

// Lowers result to the known fraction of each whole strip of strip_len
// lines, given how many unknown pixels each line holds.
void LowerByStrips(const std::vector<int>& line_counts, int strips,
                   int strip_len, int64_t strip_area, double& result) {
  if (strips < 1 || strip_len < 1 || strip_area < 1) return;
  for (int i = 0; i < strips; ++i) {
    int64_t unknown = 0;
    for (int j = i * strip_len; j < (i + 1) * strip_len; ++j) {
      unknown += line_counts[j];
    }
    result = std::min(result, 1 - static_cast<double>(unknown) / strip_area);
  }
}

}  // namespace

double mat_estimate_opt_level(const unsigned char* trimap, int width,
                              int height, int step, int columns, int rows) {
  if (trimap == nullptr) return 1.0;
  if (width < 1 || height < 1) return 0.0;
  std::vector<unsigned char> marked(static_cast<size_t>(width) * height);
  for (int y = 0; y < height; ++y) {
    const unsigned char* t = trimap + static_cast<ptrdiff_t>(y) * step;
    unsigned char* m = marked.data() + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) m[x] = t[x] == kUnknown;
  }
  int roi[4];
  if (!ff::ipf_get_mask_roi(marked.data(), width, height, width, roi, 0)) {
    return 0.0;
  }
  const int left = roi[0], top = roi[1];
  const int bw = roi[2] - roi[0], bh = roi[3] - roi[1];
  std::vector<int> column_counts(bw, 0), row_counts(bh, 0);
  for (int y = 0; y < bh; ++y) {
    const unsigned char* m =
        marked.data() + static_cast<size_t>(top + y) * width + left;
    for (int x = 0; x < bw; ++x) {
      column_counts[x] += m[x];
      row_counts[y] += m[x];
    }
  }
  double result = 1.0;
  if (columns >= 1) {
    const int sw = bw / columns;
    LowerByStrips(column_counts, columns, sw, int64_t{sw} * bh, result);
  }
  if (rows >= 1) {
    const int sh = bh / rows;
    LowerByStrips(row_counts, rows, sh, int64_t{sh} * bw, result);
  }
  return result;
}

void mat_calc_S_transform(unsigned char* curve, int steepness, int level) {
  if (curve == nullptr) return;
  FillTables();
  const double sigma = spread_table[std::clamp(steepness, 0, 100)];
  const double y = level_table[100 - std::clamp(level, 0, 100)];
  const double k = std::exp(-0.5 / sigma);
  // Algebraically (1 / y - 1) / k; this order of operations fixes the bits.
  const double x =
      ((k - 1) / (k - (k + 1) * ((k + y * (1 - k)) / (k + 1))) - 1) / k;
  const double c = sigma * std::log(x);
  const double g = ((k * k * x + 1) / (k * k - 1)) / x;
  for (int i = 0; i < 256; ++i) {
    const double v =
        (g - (x + 1) * g / (std::exp((c - i / 255.0) / sigma) + 1)) * 255 + 0.5;
    // Clamping before the conversion truncates the same way and keeps
    // out-of-range values (never NaN here) away from the int conversion.
    curve[i] = static_cast<unsigned char>(std::clamp(v, 0.0, 255.0));
  }
}
