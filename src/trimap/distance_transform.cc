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
    float s;
    for (;;) {
      const int vk = v[k];
      s = (fq - (f[vk] + static_cast<float>(square(vk)))) /
          (twice_q - static_cast<float>(2 * vk));
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

// Scratch for transforming lines of up to n samples.
struct LineScratch {
  explicit LineScratch(int n)
      : d(new float[n]), z(new float[n + 1]), v(new int[n]) {}
  std::unique_ptr<float[]> d;
  std::unique_ptr<float[]> z;
  std::unique_ptr<int[]> v;
};

// Columns are gathered a block at a time: walking one column down a large
// grid touches a new cache line (and often a new page) for every sample.
constexpr int kColumnBlock = 16;

void transform_columns(float* data, int width, int height, int x_begin,
                       int x_end) {
  if (x_begin >= x_end) return;
  const size_t h = static_cast<size_t>(height);
  std::unique_ptr<float[]> in(new float[kColumnBlock * h]);
  std::unique_ptr<float[]> out(new float[kColumnBlock * h]);
  LineScratch scratch(height);
  for (int x0 = x_begin; x0 < x_end; x0 += kColumnBlock) {
    const int nb = x_end - x0 < kColumnBlock ? x_end - x0 : kColumnBlock;
    for (size_t y = 0; y < h; ++y) {
      const float* row = data + y * width + x0;
      for (int b = 0; b < nb; ++b) in[b * h + y] = row[b];
    }
    for (int b = 0; b < nb; ++b) {
      lower_envelope(&in[b * h], height, &out[b * h], scratch.z.get(),
                     scratch.v.get());
    }
    for (size_t y = 0; y < h; ++y) {
      float* row = data + y * width + x0;
      for (int b = 0; b < nb; ++b) row[b] = out[b * h + y];
    }
  }
}

void transform_rows(float* data, int width, int y_begin, int y_end) {
  if (y_begin >= y_end) return;
  LineScratch scratch(width);
  for (int y = y_begin; y < y_end; ++y) {
    float* row = data + static_cast<size_t>(y) * width;
    lower_envelope(row, width, scratch.d.get(), scratch.z.get(),
                   scratch.v.get());
    std::memcpy(row, scratch.d.get(), sizeof(float) * width);
  }
}

}  // namespace

float* DistanceTransform1D(float* f, int n) {
  float* d = new float[n > 0 ? n : 0];
  if (n < 1) return d;
  LineScratch scratch(n);
  lower_envelope(f, n, d, scratch.z.get(), scratch.v.get());
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
