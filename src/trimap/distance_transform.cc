#include <algorithm>
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

// Up to this line length every square, sum of a square and a zero cost, and
// meeting point of two zero-cost parabolas is exact in float, which the
// shortcuts below rely on.
constexpr int kExactLength = 4096;

// Per-line scratch: the envelope's parabolas v, their breakpoints z, and
// each parabola's f[v] + v^2 and 2v as the arithmetic rounds them.
struct Envelope {
  explicit Envelope(int n)
      : d(new float[n]),
        z(new float[n + 1]),
        v(new int[n]),
        base(new float[n]),
        twice(new float[n]) {}
  std::unique_ptr<float[]> d;
  std::unique_ptr<float[]> z;
  std::unique_ptr<int[]> v;
  std::unique_ptr<float[]> base;
  std::unique_ptr<float[]> twice;
};

// Lower envelope of the parabolas f[q] + (p - q)^2 for q in [begin, end),
// written to d[begin, end). Indices stay absolute: they enter the
// arithmetic, and its rounding is part of the result.
void lower_envelope(const float* f, int begin, int end, float* d, Envelope& e) {
  float* z = e.z.get();
  int* v = e.v.get();
  float* base = e.base.get();
  float* twice = e.twice.get();
  int k = 0;
  v[0] = begin;
  base[0] = f[begin] + static_cast<float>(square(begin));
  twice[0] = static_cast<float>(2 * begin);
  z[0] = -kFar;
  z[1] = kFar;
  for (int q = begin + 1; q < end; ++q) {
    const float fq = f[q] + static_cast<float>(square(q));
    const float twice_q = static_cast<float>(2 * q);
    float s;
    for (;;) {
      const float num = fq - base[k];
      // x - x is +0 and the divisor is positive: no division needed.
      s = num == 0.0f ? 0.0f : num / (twice_q - twice[k]);
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
    base[k] = fq;
    twice[k] = twice_q;
    z[k] = s;
    z[k + 1] = kFar;
  }
  k = 0;
  for (int q = begin; q < end; ++q) {
    const float fq = static_cast<float>(q);
    while (z[k + 1] < fq) ++k;
    d[q] = f[v[k]] + static_cast<float>(square(q - v[k]));
  }
}

// Four floats at a time through the compiler's generic vectors, which map
// to SSE on x86 and NEON on ARM; every lane does the scalar arithmetic.
typedef float f32x4 __attribute__((vector_size(16)));
typedef int i32x4 __attribute__((vector_size(16)));

f32x4 load4(const float* p) {
  f32x4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

void store4(float* p, f32x4 v) { std::memcpy(p, &v, sizeof v); }

f32x4 splat4(float v) { return f32x4{v, v, v, v}; }

f32x4 select4(i32x4 mask, f32x4 a, f32x4 b) {
  return (f32x4)((mask & (i32x4)a) | (~mask & (i32x4)b));
}

bool any4(i32x4 mask) {
  unsigned long long halves[2];
  std::memcpy(halves, &mask, sizeof halves);
  return (halves[0] | halves[1]) != 0;
}

// First index in [p, n) whose sample is not `value`, or n.
int skip_run(const float* f, int p, int n, float value) {
  const f32x4 v4 = splat4(value);
  while (p + 4 <= n && !any4(load4(f + p) != v4)) p += 4;
  while (p < n && f[p] == value) ++p;
  return p;
}

// First index in [p, n) holding a zero, or n.
int find_zero(const float* f, int p, int n) {
  const f32x4 zero = splat4(0.0f);
  while (p + 4 <= n && !any4(load4(f + p) == zero)) p += 4;
  while (p < n && f[p] != 0.0f) ++p;
  return p;
}

// Transforms lines of up to kExactLength samples in place. A zero sample u
// cuts the line in two: no later parabola can meet it before u + 1/2, so
// nothing after u ever pops it or what lies beneath, and nothing before u
// reaches past it. Runs of zeros therefore cost nothing, and each stretch
// of other samples is enveloped on its own together with the zeros that
// bound it. A stretch of kFar only needs the nearer bounding zero: its
// parabolas start beyond 1e16 and never own a sample (and with no zero at
// all, kFar + r^2 == kFar).
void split_at_zeros(float* f, int n, Envelope& e) {
  int p = 0;
  for (;;) {
    // A source's own result is f + 0, which turns -0 into +0.
    const int zeros_end = skip_run(f, p, n, 0.0f);
    std::fill(f + p, f + zeros_end, 0.0f);
    p = zeros_end;
    if (p == n) break;
    int stop = skip_run(f, p, n, kFar);
    const bool far_only = stop == n || f[stop] == 0.0f;
    if (!far_only) stop = find_zero(f, stop, n);
    const bool left = p > 0;
    const bool right = stop < n;
    if (far_only) {
      for (int q = p; q < stop; ++q) {
        const int to_left = q - (p - 1);
        const int to_right = stop - q;
        int g;
        if (left && right) {
          g = to_left < to_right ? to_left : to_right;
        } else if (left || right) {
          g = left ? to_left : to_right;
        } else {
          continue;  // no zero anywhere: kFar stays
        }
        f[q] = static_cast<float>(g * g);
      }
    } else {
      // The envelope reads f until its last output: write aside first.
      const int begin = left ? p - 1 : 0;
      const int end = right ? stop + 1 : n;
      lower_envelope(f, begin, end, e.d.get(), e);
      std::memcpy(f + p, e.d.get() + p, sizeof(float) * (stop - p));
    }
    p = stop;
  }
}

void transform_in_place(float* f, int n, Envelope& e) {
  if (n > kExactLength) {
    lower_envelope(f, 0, n, e.d.get(), e);
    std::memcpy(f, e.d.get(), sizeof(float) * n);
  } else {
    split_at_zeros(f, n, e);
  }
}

// Columns are gathered a block at a time: walking one column down a large
// grid touches a new cache line (and often a new page) for every sample.
constexpr int kColumnBlock = 64;

void transform_column_blocks(float* data, int width, int height, int x_begin,
                             int x_end) {
  if (x_begin >= x_end) return;
  const size_t h = static_cast<size_t>(height);
  std::unique_ptr<float[]> block(new float[kColumnBlock * h]);
  Envelope e(height);
  for (int x0 = x_begin; x0 < x_end; x0 += kColumnBlock) {
    const int nb = x_end - x0 < kColumnBlock ? x_end - x0 : kColumnBlock;
    for (size_t y = 0; y < h; ++y) {
      const float* row = data + y * width + x0;
      for (int b = 0; b < nb; ++b) block[b * h + y] = row[b];
    }
    for (int b = 0; b < nb; ++b) {
      transform_in_place(&block[b * h], height, e);
    }
    for (size_t y = 0; y < h; ++y) {
      float* row = data + y * width + x0;
      for (int b = 0; b < nb; ++b) row[b] = block[b * h + y];
    }
  }
}

bool row_binary(const float* row, int n) {
  const f32x4 zero = splat4(0.0f);
  const f32x4 far = splat4(kFar);
  i32x4 other = {0, 0, 0, 0};
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    const f32x4 v = load4(row + i);
    other |= ~((v == zero) | (v == far));
  }
  bool binary = !any4(other);
  for (; i < n; ++i) binary &= (row[i] == 0.0f) | (row[i] == kFar);
  return binary;
}

// The column pass of a grid of only 0 and kFar, the trimap builder's input:
// each column's result is the squared gap to its nearest zero (as for a
// stretch of kFar above), found by sweeping down and up the grid a row at a
// time so that memory streams in order. Gaps count in float, exact below
// 2^24. With `rows`, each row also gets its row pass as soon as its column
// pass is done. Returns false, with the grid as it was, when some sample is
// neither 0 nor kFar.
bool sweep_binary_columns(float* data, int width, int height, Envelope* rows) {
  // Far enough to mean "no zero on this side".
  const float none = static_cast<float>(1 << 20);
  std::unique_ptr<float[]> gap(new float[width]);
  const f32x4 zero = splat4(0.0f);
  const f32x4 one = splat4(1.0f);
  // Down: the gap to the nearest zero above, 0 exactly on zeros.
  for (int i = 0; i < width; ++i) gap[i] = none;
  for (int y = 0; y < height; ++y) {
    float* row = data + static_cast<size_t>(y) * width;
    if (!row_binary(row, width)) {
      // Rows above only held 0 and kFar: undo them.
      for (int j = 0; j < y; ++j) {
        float* done = data + static_cast<size_t>(j) * width;
        for (int i = 0; i < width; ++i) {
          done[i] = done[i] == 0.0f ? 0.0f : kFar;
        }
      }
      return false;
    }
    int i = 0;
    for (; i + 4 <= width; i += 4) {
      const f32x4 g =
          select4(load4(row + i) == zero, zero, load4(&gap[i]) + one);
      store4(&gap[i], g);
      store4(row + i, g);
    }
    for (; i < width; ++i) {
      gap[i] = row[i] == 0.0f ? 0.0f : gap[i] + 1.0f;
      row[i] = gap[i];
    }
  }
  // Up: the smaller of both gaps, squared.
  const f32x4 far = splat4(kFar);
  const f32x4 none4 = splat4(none);
  for (int i = 0; i < width; ++i) gap[i] = none;
  for (int y = height - 1; y >= 0; --y) {
    float* row = data + static_cast<size_t>(y) * width;
    int i = 0;
    for (; i + 4 <= width; i += 4) {
      const f32x4 up = load4(row + i);
      const f32x4 below = select4(up == zero, zero, load4(&gap[i]) + one);
      store4(&gap[i], below);
      const f32x4 g = select4(up < below, up, below);
      store4(row + i, select4(g >= none4, far, g * g));
    }
    for (; i < width; ++i) {
      const float up = row[i];
      gap[i] = up == 0.0f ? 0.0f : gap[i] + 1.0f;
      const float g = up < gap[i] ? up : gap[i];
      row[i] = g >= none ? kFar : g * g;
    }
    // The row is final for the column pass and still in cache.
    if (rows != nullptr) transform_in_place(row, width, *rows);
  }
  return true;
}

void transform_rows(float* data, int width, int y_begin, int y_end) {
  if (y_begin >= y_end) return;
  Envelope e(width);
  for (int y = y_begin; y < y_end; ++y) {
    transform_in_place(data + static_cast<size_t>(y) * width, width, e);
  }
}

}  // namespace

float* DistanceTransform1D(float* f, int n) {
  float* d = new float[n > 0 ? n : 0];
  if (n < 1) return d;
  Envelope e(n);
  lower_envelope(f, 0, n, d, e);
  return d;
}

void DistanceTransform(float* data, int width, int height) {
  if (width < 1 || height < 1) return;
  // Both passes keep the four consecutive line ranges. Their bounds are
  // quartered before tripling, as results are pinned to: with 2 or 3 lines
  // the last range starts again at line 0, so that line is transformed
  // twice. With 4 or more, every line is transformed once and independently
  // of the others, so one sweep may stand in for both passes.
  bool swept = false;
  if (height <= kExactLength) {
    if (width >= 4 && height >= 4) {
      Envelope rows(width);
      if (sweep_binary_columns(data, width, height, &rows)) return;
    } else {
      swept = sweep_binary_columns(data, width, height, nullptr);
    }
  }
  if (!swept) {
    const int qw = width / 4;
    const int hw = width / 2;
    transform_column_blocks(data, width, height, 0, qw);
    transform_column_blocks(data, width, height, qw, hw);
    transform_column_blocks(data, width, height, hw, 3 * qw);
    transform_column_blocks(data, width, height, 3 * qw, width);
  } else if (width == 2 || width == 3) {
    transform_column_blocks(data, width, height, 0, 1);
  }
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
