// The matting system over a caller's photo and trimap: assembly over the
// trimap's unknown band (fresh, or reusing rows of an earlier problem), the
// solve, the masked re-solve of a whole-image problem and the conversion of
// solutions to bytes. Systems stay at a few hundred unknowns so that SuperLU
// is quick; a singular one may fail, but must not corrupt memory.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/solver.h"

namespace {

constexpr int kMaxSide = 20;
constexpr uint8_t kByteSentinel = 0xA5;
constexpr int kMaxRow = 13;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

// Trimap bytes: mostly 0, 128 and 255, now and then any known value.
uint8_t TrimapValue(uint8_t b) {
  static const uint8_t kTri[4] = {0, 128, 255, 128};
  return b % 8 == 7 ? b : kTri[b % 4];
}

// What the record of a build promises: a well-formed upper triangle
// over increasing pixels, the masked pixels among them as interior unknowns,
// and rows of the full matrix that sum to zero, reused rows included (their
// diagonal is rebuilt from the new neighbours).
void CheckProblem(const mat_data& m, int width, int height, const uint8_t* mask,
                  int maskStride) {
  const int pixels = width * height;
  Check(m.n >= 1 && m.n <= pixels);
  Check(m.width == width && m.height == height);
  Check(m.rowStart[0] == 1);
  std::vector<double> rowSum(m.n, 0.0);
  std::vector<double> magnitude(m.n, 0.0);
  for (int k = 0; k < m.n; ++k) {
    const int begin = m.rowStart[k];
    const int end = m.rowStart[k + 1];
    Check(end > begin && end - begin <= kMaxRow);
    Check(m.columns[begin - 1] == k + 1);
    rowSum[k] += m.values[begin - 1];
    magnitude[k] += std::fabs(m.values[begin - 1]);
    for (int e = begin; e < end - 1; ++e) {
      const int c = m.columns[e];
      Check(c > m.columns[e - 1] && c <= m.n);
      rowSum[k] += m.values[e];
      rowSum[c - 1] += m.values[e];
      magnitude[k] += std::fabs(m.values[e]);
      magnitude[c - 1] += std::fabs(m.values[e]);
    }
    Check(m.pixelOf[k] >= 0 && m.pixelOf[k] < pixels);
    Check(k == 0 || m.pixelOf[k] > m.pixelOf[k - 1]);
    Check(m.flags[k] <= 1);
  }
  for (int k = 0; k < m.n; ++k) {
    Check(std::fabs(rowSum[k]) <= 1e-9 * (1.0 + magnitude[k]));
  }
  // Every masked pixel is an unknown and not a ring pixel.
  int k = 0;
  for (int p = 0; p < pixels; ++p) {
    const bool masked = mask[(p / width) * maskStride + p % width] != 0;
    while (k < m.n && m.pixelOf[k] < p) ++k;
    const bool listed = k < m.n && m.pixelOf[k] == p;
    if (masked) Check(listed && m.flags[k] == 0);
  }
}

void FillPlane(FuzzInput& in, SentinelPlane<uint8_t>& plane, int height,
               int width) {
  for (int y = 0; y < height; ++y) in.Bytes(plane.row(y), width);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The solver reports every system size on standard output; a run of
  // millions would spend its time printing.
  if (!std::freopen("/dev/null", "w", stdout)) return 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  FuzzInput in(data, size);
  const int width = in.Int(1, kMaxSide);
  const int height = in.Int(1, kMaxSide);
  const uint8_t ops = in.Byte();
  const bool maskFromTrimap = !(ops & 1);
  const bool withPrevious = ops & 2;
  const bool solveTwice = ops & 4;
  const bool nullAlpha = ops & 8;
  const bool wholeImage = ops & 16;
  const bool convert = ops & 32;
  const int imageStride = 3 * width + in.Int(0, 7);
  const int maskStride = width + in.Int(0, 7);
  const int pixels = width * height;

  SentinelPlane<uint8_t> image(height, imageStride, 3 * width, kByteSentinel);
  FillPlane(in, image, height, 3 * width);
  // Trimap and alpha are addressed by pixel number: their stride is the
  // width.
  std::vector<uint8_t> trimap(pixels);
  for (auto& t : trimap) t = TrimapValue(in.Byte());
  std::vector<uint8_t> alpha(pixels);
  in.Bytes(alpha.data(), alpha.size());
  SentinelPlane<uint8_t> mask(height, maskStride, width, kByteSentinel);
  SentinelPlane<uint8_t> firstMask(height, maskStride, width, kByteSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const uint8_t t = trimap[y * width + x];
      mask.row(y)[x] = maskFromTrimap ? t == 128 : in.Byte() & 1;
      // An earlier band: the same one shifted by a pixel or two, so that
      // many rows can be reused.
      firstMask.row(y)[x] = 0;
    }
  }
  const int shiftX = in.Int(-2, 2);
  const int shiftY = in.Int(-2, 2);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int sx = x + shiftX;
      const int sy = y + shiftY;
      if (sx >= 0 && sx < width && sy >= 0 && sy < height) {
        firstMask.row(y)[x] = mask.row(sy)[sx];
      }
    }
  }

  const std::vector<uint8_t> maskBefore = mask.data;
  const std::vector<uint8_t> imageBefore = image.data;
  mat_data problem;
  mat_data previous;
  if (withPrevious) {
    mat_update(image.data.data(), width, height, imageStride,
               firstMask.data.data(), maskStride, previous, previous, nullptr);
  }
  mat_update(image.data.data(), width, height, imageStride, mask.data.data(),
             maskStride, withPrevious ? previous : problem, problem, nullptr);
  Check(mask.data == maskBefore && image.data == imageBefore);

  bool anyMasked = false;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) anyMasked |= mask.row(y)[x] != 0;
  }
  if (!anyMasked) {
    Check(problem.n == 0 && problem.values == nullptr);
  } else {
    CheckProblem(problem, width, height, mask.data.data(), maskStride);
  }

  for (int run = 0; run < (solveTwice ? 2 : 1); ++run) {
    const std::vector<uint8_t> alphaBefore = alpha;
    const std::vector<uint8_t> trimapBefore = trimap;
    const std::vector<unsigned char> flagsBefore(
        problem.flags, problem.flags + (problem.flags ? problem.n : 0));
    const int result = mat_run(problem, trimap.data(),
                               nullAlpha ? nullptr : alpha.data(), nullptr);
    Check(trimap == trimapBefore);
    // A well-formed system always reaches the factorisation.
    Check(result == 0);
    std::vector<bool> solved(pixels, false);
    for (int k = 0; k < problem.n; ++k) solved[problem.pixelOf[k]] = true;
    for (int p = 0; p < pixels; ++p) {
      if (!solved[p] || nullAlpha) Check(alpha[p] == alphaBefore[p]);
    }
    // Pinned known pixels lose their ring mark; the rest keep theirs.
    for (int k = 0; k < problem.n; ++k) {
      const bool known = trimap[problem.pixelOf[k]] != 128;
      Check(problem.flags[k] == (known && !nullAlpha ? 0 : flagsBefore[k]));
    }
  }

  if (wholeImage) {
    // A whole-image problem, re-solved over a masked part of it.
    mat_data whole;
    mat_init(image.data.data(), width, height, imageStride, whole, nullptr);
    Check(whole.n == pixels);
    const int constraintStride = width + in.Int(0, 5);
    const int alphaStride = width + in.Int(0, 5);
    SentinelPlane<uint8_t> constraint(height, constraintStride, width,
                                      kByteSentinel);
    SentinelPlane<uint8_t> reMask(height, maskStride, width, kByteSentinel);
    SentinelPlane<uint8_t> matte(height, alphaStride, width, kByteSentinel);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const uint8_t b = in.Byte();
        reMask.row(y)[x] = b & 1 ? b : 0;
        constraint.row(y)[x] = b & 2 ? in.Byte() : 0;
        matte.row(y)[x] = trimap[y * width + x];
      }
    }
    const std::vector<uint8_t> matteBefore = matte.data;
    mat_mask_run(whole, constraint.data.data(), width, height, constraintStride,
                 reMask.data.data(), maskStride, matte.data.data(), alphaStride,
                 0, 0.0);
    Check(matte.PaddingIntact());
    // Only the mask and the ring around it may change.
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        bool near = false;
        for (int dy = -1; dy <= 1; ++dy) {
          for (int dx = -1; dx <= 1; ++dx) {
            const int yy = y + dy;
            const int xx = x + dx;
            if (yy >= 0 && yy < height && xx >= 0 && xx < width) {
              near |= reMask.row(yy)[xx] != 0;
            }
          }
        }
        const size_t i = static_cast<size_t>(y) * alphaStride + x;
        if (!near) Check(matte.data[i] == matteBefore[i]);
      }
    }
    // The same record solved with the trimap as constraints everywhere.
    std::vector<uint8_t> wholeAlpha(pixels, 0);
    Check(mat_run(whole, trimap.data(), wholeAlpha.data(), nullptr) == 0);
  }

  if (convert) {
    // Solutions a little outside 0..1 as a solve gives them, to both forms.
    const int n = in.Int(0, pixels);
    std::vector<double> x(n);
    for (auto& v : x) {
      const int q = (in.Byte() << 8) | in.Byte();
      v = (q - 4096) / 32768.0;
    }
    std::vector<uint8_t> dense(n + 1, kByteSentinel);
    Check(_mat_get_alpha(dense.data(), x.data(), nullptr, n) ==
          dense.data() + n);
    std::vector<int> where(n);
    for (int k = 0; k < n; ++k) where[k] = (k * 7) % pixels;
    std::vector<uint8_t> scattered(pixels, kByteSentinel);
    Check(_mat_get_alpha(scattered.data(), x.data(), where.data(), n) ==
          scattered.data());
    for (int k = 0; k < n; ++k) {
      const double r = x[k] * 255.0 + 0.5;
      const int want = r >= 255.0 ? 255 : r <= 0.0 ? 0 : static_cast<int>(r);
      Check(dense[k] == want);
    }
    Check(dense[n] == kByteSentinel);
  }
  return 0;
}
