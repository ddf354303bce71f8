// The matting system over a caller's photo and trimap: assembly over the
// trimap's unknown band (fresh, or reusing rows of an earlier problem), the
// solve, the masked re-solve of a whole-image problem and the conversion of
// solutions to bytes. Systems stay at a few hundred unknowns so that SuperLU
// is quick; a singular one may fail, but must not corrupt memory.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/solver.h"

namespace {

constexpr int kMaxSide = 20;
constexpr int kMaxRow = 13;

// What the record of a build promises: a well-formed upper triangle
// over increasing pixels, the masked pixels among them as interior unknowns,
// and rows of the full matrix that sum to zero, reused rows included (their
// diagonal is rebuilt from the new neighbours).
void CheckProblem(const mat_data& m, int width, int height,
                  SentinelPlane<uint8_t>& mask) {
  Check(m.n >= 1 && m.n <= width * height);
  Check(m.width == width && m.height == height && m.rowStart[0] == 1);
  std::vector<double> sum(m.n, 0.0), magnitude(m.n, 0.0);
  auto add = [&](int k, double v) {
    sum[k] += v, magnitude[k] += std::fabs(v);
  };
  for (int k = 0; k < m.n; ++k) {
    const int begin = m.rowStart[k], end = m.rowStart[k + 1];
    Check(end > begin && end - begin <= kMaxRow &&
          m.columns[begin - 1] == k + 1);
    add(k, m.values[begin - 1]);
    for (int e = begin; e < end - 1; ++e) {
      Check(m.columns[e] > m.columns[e - 1] && m.columns[e] <= m.n);
      add(k, m.values[e]);
      add(m.columns[e] - 1, m.values[e]);
    }
    Check(m.pixelOf[k] >= 0 && m.pixelOf[k] < width * height);
    Check((k == 0 || m.pixelOf[k] > m.pixelOf[k - 1]) && m.flags[k] <= 1);
  }
  for (int k = 0; k < m.n; ++k) {
    Check(std::fabs(sum[k]) <= 1e-9 * (1.0 + magnitude[k]));
  }
  // Every masked pixel is an unknown and not a ring pixel.
  int k = 0;
  ForEach(width, height, [&](int x, int y) {
    const int p = y * width + x;
    while (k < m.n && m.pixelOf[k] < p) ++k;
    if (mask.at(x, y)) Check(k < m.n && m.pixelOf[k] == p && m.flags[k] == 0);
  });
}

}  // namespace

SOFTMATTE_FUZZ_QUIET_STDOUT()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  FuzzInput in(data, size);
  const int width = in.Int(1, kMaxSide);
  const int height = in.Int(1, kMaxSide);
  const uint8_t ops = in.Byte();
  const bool withPrevious = ops & 2, nullAlpha = ops & 8;
  SentinelPlane<uint8_t> image(height, 3 * width + in.Int(0, 7), 3 * width);
  const int maskStride = width + in.Int(0, 7);
  SentinelPlane<uint8_t> mask(height, maskStride, width);
  SentinelPlane<uint8_t> firstMask = mask;
  const int pixels = width * height;
  image.Fill(in);
  // Trimap and alpha are addressed by pixel number: their stride is the
  // width. Trimap bytes: mostly 0, 128 and 255, now and then any known value.
  std::vector<uint8_t> trimap(pixels), alpha(pixels);
  for (auto& t : trimap) {
    const uint8_t b = in.Byte();
    t = b % 8 == 7 ? b : b % 4 == 3 ? 128 : std::min(255, b % 4 * 128);
  }
  in.Bytes(alpha.data(), alpha.size());
  bool anyMasked = false;
  ForEach(width, height, [&](int x, int y) {
    const bool unknown = trimap[y * width + x] == 128;
    mask.at(x, y) = ops & 1 ? in.Byte() & 1 : unknown;
    anyMasked |= mask.at(x, y) != 0;
  });
  // An earlier band: the same one shifted by a pixel or two, so that many
  // rows can be reused.
  const int shiftX = in.Int(-2, 2);
  const int shiftY = in.Int(-2, 2);
  ForEach(width, height, [&](int x, int y) {
    const int sx = x + shiftX, sy = y + shiftY;
    firstMask.at(x, y) =
        sx >= 0 && sx < width && sy >= 0 && sy < height ? mask.at(sx, sy) : 0;
  });

  const std::vector<uint8_t> maskBefore = mask.data, imageBefore = image.data;
  mat_data problem, previous;
  if (withPrevious) {
    mat_update(image.p(), width, height, image.step, firstMask.p(), maskStride,
               previous, previous, nullptr);
  }
  mat_update(image.p(), width, height, image.step, mask.p(), maskStride,
             withPrevious ? previous : problem, problem, nullptr);
  Check(mask.data == maskBefore && image.data == imageBefore);
  if (!anyMasked) Check(problem.n == 0 && problem.values == nullptr);
  if (anyMasked) CheckProblem(problem, width, height, mask);

  for (int run = 0; run < (ops & 4 ? 2 : 1); ++run) {
    const std::vector<uint8_t> alphaBefore = alpha, trimapBefore = trimap;
    const std::vector<uint8_t> flagsBefore(
        problem.flags, problem.flags + (problem.flags ? problem.n : 0));
    // A well-formed system always reaches the factorisation.
    Check(mat_run(problem, trimap.data(), nullAlpha ? nullptr : alpha.data(),
                  nullptr) == 0);
    Check(trimap == trimapBefore);
    std::vector<bool> solved(pixels, false);
    for (int k = 0; k < problem.n; ++k) {
      solved[problem.pixelOf[k]] = true;
      // Pinned known pixels lose their ring mark; the rest keep theirs.
      const bool known = trimap[problem.pixelOf[k]] != 128;
      Check(problem.flags[k] == (known && !nullAlpha ? 0 : flagsBefore[k]));
    }
    for (int p = 0; p < pixels; ++p) {
      if (!solved[p] || nullAlpha) Check(alpha[p] == alphaBefore[p]);
    }
  }

  if (ops & 16) {
    // A whole-image problem, re-solved over a masked part of it.
    mat_data whole;
    mat_init(image.p(), width, height, image.step, whole, nullptr);
    Check(whole.n == pixels);
    SentinelPlane<uint8_t> constraint(height, width + in.Int(0, 5), width);
    SentinelPlane<uint8_t> reMask(height, maskStride, width);
    SentinelPlane<uint8_t> matte(height, width + in.Int(0, 5), width);
    ForEach(width, height, [&](int x, int y) {
      const uint8_t b = in.Byte();
      reMask.at(x, y) = b & 1 ? b : 0;
      constraint.at(x, y) = b & 2 ? in.Byte() : 0;
      matte.at(x, y) = trimap[y * width + x];
    });
    const SentinelPlane<uint8_t> matteBefore = matte;
    mat_mask_run(whole, constraint.p(), width, height, constraint.step,
                 reMask.p(), maskStride, matte.p(), matte.step, 0, 0.0);
    Check(matte.PaddingIntact());
    // Only the mask and the ring around it may change.
    ForEach(width, height, [&](int x, int y) {
      bool near = false;
      for (int yy = std::max(y - 1, 0); yy <= std::min(y + 1, height - 1); ++yy)
        for (int xx = std::max(x - 1, 0); xx <= std::min(x + 1, width - 1);
             ++xx)
          near |= reMask.at(xx, yy) != 0;
      Check(near || matte.at(x, y) == matteBefore.row(y)[x]);
    });
    // The same record solved with the trimap as constraints everywhere.
    std::vector<uint8_t> wholeAlpha(pixels, 0);
    Check(mat_run(whole, trimap.data(), wholeAlpha.data(), nullptr) == 0);
  }

  if (ops & 32) {
    // Solutions a little outside 0..1 as a solve gives them, to both forms.
    const int n = in.Int(0, pixels);
    std::vector<double> x(n);
    std::vector<int> where(n);
    std::vector<uint8_t> dense(n + 1, kSentinel), scattered(pixels, kSentinel);
    for (int k = 0; k < n; ++k) {
      const int q = in.Byte() << 8;
      x[k] = (q + in.Byte() - 4096) / 32768.0;
      where[k] = (k * 7) % pixels;
    }
    Check(_mat_get_alpha(dense.data(), x.data(), nullptr, n) == &dense[n]);
    Check(_mat_get_alpha(scattered.data(), x.data(), where.data(), n) ==
          scattered.data());
    for (int k = 0; k < n; ++k) {
      const double r = x[k] * 255.0 + 0.5;
      Check(dense[k] == (r >= 255.0 ? 255
                         : r <= 0.0 ? 0
                                    : static_cast<int>(r)));
    }
    Check(dense[n] == kSentinel);
  }
  return 0;
}
