#include <cstddef>
#include <cstring>
#include <memory>

#include "softmatte/trimap.h"

namespace {

constexpr float kFar = 1e20f;

// Squares wrap like the 32-bit arithmetic the results are pinned to instead of
// being undefined on absurdly long lines.
int square(int v) {
  const unsigned u = static_cast<unsigned>(v);
  return static_cast<int>(u * u);
}

// Lines of only 0 and kFar samples, the trimap builder's input, have a
// shortcut: up to this length every square and every midpoint is exact in
// float, the envelope then holds exactly the zero samples (a kFar parabola
// after one starts beyond 1e16), and its result is the squared gap to the
// nearest zero sample, or kFar + r^2 == kFar when there is none.
constexpr int kExactBinaryLength = 4096;

// Lower envelope of the parabolas f[q] + (p - q)^2. z needs n + 1 entries and
// v n entries; d receives the n results.
void lower_envelope(const float* f, int n, float* d, float* z, int* v) {
  int k = 0;
  v[0] = 0;
  z[0] = -kFar;
  z[1] = kFar;
  for (int q = 1; q < n; ++q) {
    const float fq = f[q] + static_cast<float>(square(q));
    const float twice_q = static_cast<float>(2 * q);
    const bool zero_q = f[q] == 0.0f && q < kExactBinaryLength;
    float s;
    for (;;) {
      const int vk = v[k];
      const float num = fq - (f[vk] + static_cast<float>(square(vk)));
      // The division is the slow part, and two cases are known exactly
      // without it: equal sums (x - x is +0, the divisor is positive) and
      // two zero-cost samples, whose parabolas meet halfway.
      if (num == 0.0f) {
        s = 0.0f;
      } else if (zero_q && f[vk] == 0.0f) {
        s = static_cast<float>(q + vk) * 0.5f;
      } else {
        s = num / (twice_q - static_cast<float>(2 * vk));
      }
      // Less-or-equal on purpose: a parabola meeting the envelope exactly at
      // the previous breakpoint takes that breakpoint over. Written so that
      // a NaN stops the popping like the plain comparison does.
      if (!(s <= z[k])) break;
      // Only a huge cost at the first sample can get here; the new parabola
      // then owns the whole line so far.
      if (--k < 0) break;
    }
    ++k;
    v[k] = q;
    z[k] = s;
    z[k + 1] = kFar;
  }
  k = 0;
  for (int q = 0; q < n; ++q) {
    const float fq = static_cast<float>(q);
    while (z[k + 1] < fq) ++k;
    d[q] = f[v[k]] + static_cast<float>(square(q - v[k]));
  }
}

bool is_binary(const float* f, int n) {
  bool binary = true;
  for (int q = 0; q < n; ++q) binary &= (f[q] == 0.0f) | (f[q] == kFar);
  return binary;
}

void nearest_zero(const float* f, int n, float* d, int* gap) {
  constexpr int kNone = 1 << 30;
  int last = -kNone;
  for (int q = 0; q < n; ++q) {
    if (f[q] == 0.0f) last = q;
    gap[q] = q - last;
  }
  int next = n - 1 + kNone;
  for (int q = n - 1; q >= 0; --q) {
    if (f[q] == 0.0f) next = q;
    const int g = gap[q] < next - q ? gap[q] : next - q;
    d[q] = g >= kNone ? kFar : static_cast<float>(g * g);
  }
}

// Scratch for transforming lines of up to n samples.
struct LineScratch {
  explicit LineScratch(int n)
      : d(new float[n]), z(new float[n + 1]), v(new int[n]) {}

  void transform(const float* f, int n) {
    if (n <= kExactBinaryLength && is_binary(f, n)) {
      nearest_zero(f, n, d.get(), v.get());
    } else {
      lower_envelope(f, n, d.get(), z.get(), v.get());
    }
  }

  std::unique_ptr<float[]> d;
  std::unique_ptr<float[]> z;
  std::unique_ptr<int[]> v;
};

// Columns are gathered a block at a time: walking one column down a large
// grid touches a new cache line (and often a new page) for every sample.
constexpr int kColumnBlock = 64;

void transform_column_blocks(float* data, int width, int height, int x_begin,
                             int x_end) {
  const size_t h = static_cast<size_t>(height);
  std::unique_ptr<float[]> block(new float[kColumnBlock * h]);
  LineScratch scratch(height);
  for (int x0 = x_begin; x0 < x_end; x0 += kColumnBlock) {
    const int nb = x_end - x0 < kColumnBlock ? x_end - x0 : kColumnBlock;
    for (size_t y = 0; y < h; ++y) {
      const float* row = data + y * width + x0;
      for (int b = 0; b < nb; ++b) block[b * h + y] = row[b];
    }
    for (int b = 0; b < nb; ++b) {
      float* line = &block[b * h];
      scratch.transform(line, height);
      std::memcpy(line, scratch.d.get(), sizeof(float) * h);
    }
    for (size_t y = 0; y < h; ++y) {
      float* row = data + y * width + x0;
      for (int b = 0; b < nb; ++b) row[b] = block[b * h + y];
    }
  }
}

// The nearest-zero shortcut for a range of 0/kFar columns, swept down and up
// the grid a whole row at a time so that memory is read in order.
void sweep_binary_columns(float* data, int width, int height, int x_begin,
                          int x_end) {
  const int n = x_end - x_begin;
  // Far enough to mean "no zero on this side", small enough to stay exact.
  constexpr int kNone = 1 << 20;
  std::unique_ptr<int[]> seen(new int[n]);
  for (int i = 0; i < n; ++i) seen[i] = -kNone;
  // Down: the gap to the zero above, 0 exactly on zeros.
  for (int y = 0; y < height; ++y) {
    float* row = data + static_cast<size_t>(y) * width + x_begin;
    for (int i = 0; i < n; ++i) {
      const int last = row[i] == 0.0f ? y : seen[i];
      seen[i] = last;
      row[i] = static_cast<float>(y - last);
    }
  }
  for (int i = 0; i < n; ++i) seen[i] = height - 1 + kNone;
  // Up: the smaller of both gaps, squared.
  for (int y = height - 1; y >= 0; --y) {
    float* row = data + static_cast<size_t>(y) * width + x_begin;
    for (int i = 0; i < n; ++i) {
      const float up = row[i];
      const int next = up == 0.0f ? y : seen[i];
      seen[i] = next;
      const float down = static_cast<float>(next - y);
      const float g = up < down ? up : down;
      row[i] = g >= static_cast<float>(kNone) ? kFar : g * g;
    }
  }
}

void transform_columns(float* data, int width, int height, int x_begin,
                       int x_end) {
  if (x_begin >= x_end) return;
  bool binary = height <= kExactBinaryLength;
  for (int y = 0; y < height && binary; ++y) {
    binary = is_binary(data + static_cast<size_t>(y) * width + x_begin,
                       x_end - x_begin);
  }
  if (binary) {
    sweep_binary_columns(data, width, height, x_begin, x_end);
  } else {
    transform_column_blocks(data, width, height, x_begin, x_end);
  }
}

void transform_rows(float* data, int width, int y_begin, int y_end) {
  if (y_begin >= y_end) return;
  LineScratch scratch(width);
  for (int y = y_begin; y < y_end; ++y) {
    float* row = data + static_cast<size_t>(y) * width;
    scratch.transform(row, width);
    std::memcpy(row, scratch.d.get(), sizeof(float) * width);
  }
}

}  // namespace

float* DistanceTransform1D(float* f, int n) {
  float* d = new float[n > 0 ? n : 0];
  if (n < 1) return d;
  std::unique_ptr<float[]> z(new float[n + 1]);
  std::unique_ptr<int[]> v(new int[n]);
  lower_envelope(f, n, d, z.get(), v.get());
  return d;
}

void DistanceTransform(float* data, int width, int height) {
  if (width < 1 || height < 1) return;
  // Both passes keep the four consecutive line ranges, each with scratch of
  // its own. The bounds are quartered before tripling, as results are pinned
  // to: with 2 or 3 lines the last range starts again at line 0, so that line
  // is transformed twice.
  const int qw = width / 4;
  const int hw = width / 2;
  transform_columns(data, width, height, 0, qw);
  transform_columns(data, width, height, qw, hw);
  transform_columns(data, width, height, hw, 3 * qw);
  transform_columns(data, width, height, 3 * qw, width);
  const int qh = height / 4;
  const int hh = height / 2;
  transform_rows(data, width, 0, qh);
  transform_rows(data, width, qh, hh);
  transform_rows(data, width, hh, 3 * qh);
  transform_rows(data, width, 3 * qh, height);
}

float* DPLMatting_MakeDTInput(const unsigned char* mask, int width, int height,
                              int stride) {
  const bool filled = width > 0 && height > 0;
  const size_t w = filled ? static_cast<size_t>(width) : 0;
  const size_t h = filled ? static_cast<size_t>(height) : 0;
  float* grid = new float[w * h];
  for (size_t y = 0; y < h; ++y) {
    const unsigned char* m = mask + y * stride;
    float* g = grid + y * w;
    for (size_t x = 0; x < w; ++x) g[x] = m[x] != 0 ? kFar : 0.0f;
  }
  return grid;
}
