// The matting system over a caller's photo and trimap: assembly over the
// trimap's unknown band (fresh, or reusing rows of an earlier problem), the
// solve and the masked re-solve of a whole-image problem. Systems stay at a few
// hundred unknowns so that SuperLU is quick; a singular one may fail, but must
// not corrupt memory.
#include <algorithm>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/solver.h"

// What the record of a build promises: a well-formed upper triangle over
// increasing pixels, with the masked pixels among them as interior unknowns.
void CheckProblem(const mat_data& m, int width, int height, Plane& mask) {
  Check(m.n >= 1 && m.n <= width * height);
  Check(m.width == width && m.height == height && m.rowStart[0] == 1);
  for (int k = 0; k < m.n; ++k) {
    const int begin = m.rowStart[k], end = m.rowStart[k + 1];
    Check(end > begin && end - begin <= 13 && m.columns[begin - 1] == k + 1);
    for (int e = begin; e < end - 1; ++e)
      Check(m.columns[e] > m.columns[e - 1] && m.columns[e] <= m.n);
    Check(m.pixelOf[k] >= 0 && m.pixelOf[k] < width * height);
    Check((k == 0 || m.pixelOf[k] > m.pixelOf[k - 1]) && m.flags[k] <= 1);
  }
  int k = 0;
  ForEach(width, height, [&](int x, int y) {
    const int p = y * width + x;
    while (k < m.n && m.pixelOf[k] < p) ++k;
    if (mask.at(x, y)) Check(k < m.n && m.pixelOf[k] == p && m.flags[k] == 0);
  });
}

SOFTMATTE_FUZZ_QUIET_STDOUT()

FUZZ_HARNESS(8) {
  const int width = in.Int(1, 20), height = in.Int(1, 20);
  const uint8_t ops = in.Byte();
  const bool withPrevious = ops & 2, nullAlpha = ops & 8;
  Plane image(in, height, 3 * width), mask(in, height, width);
  const int pixels = width * height, maskStride = mask.step;
  // Trimap and alpha are addressed by pixel number: their stride is the
  // width.
  Plane trimap(height, width, width), alpha(height, width, width);
  image.Fill(in);
  FillTrimap(in, trimap, 255);
  alpha.Fill(in);
  // The unknowns, or any pixels; and an earlier band: the same one shifted
  // by a pixel or two, so that many rows can be reused.
  const int shiftX = in.Int(-2, 2), shiftY = in.Int(-2, 2);
  ForEach(width, height, [&](int x, int y) {
    mask.at(x, y) = ops & 1 ? in.Byte() & 1 : trimap.at(x, y) == 128;
  });
  Plane firstMask = mask;
  ForEach(width, height, [&](int x, int y) {
    const int sx = x + shiftX, sy = y + shiftY;
    firstMask.at(x, y) =
        sx >= 0 && sx < width && sy >= 0 && sy < height ? mask.at(sx, sy) : 0;
  });
  const bool anyMasked = std::any_of(mask.data.begin(), mask.data.end(),
                                     [](uint8_t v) { return v == 1; });

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
    const std::vector<uint8_t> alphaBefore = alpha.data,
                               trimapBefore = trimap.data;
    const std::vector<uint8_t> flagsBefore(
        problem.flags, problem.flags + (problem.flags ? problem.n : 0));
    // A well-formed system always reaches the factorisation.
    Check(mat_run(problem, trimap.p(), nullAlpha ? nullptr : alpha.p(),
                  nullptr) == 0);
    Check(trimap.data == trimapBefore);
    std::vector<bool> solved(pixels, false);
    for (int k = 0; k < problem.n; ++k) {
      solved[problem.pixelOf[k]] = true;
      // Pinned known pixels lose their ring mark; the rest keep theirs.
      const bool known = trimap.data[problem.pixelOf[k]] != 128;
      Check(problem.flags[k] == (known && !nullAlpha ? 0 : flagsBefore[k]));
    }
    for (int p = 0; p < pixels; ++p)
      Check((solved[p] && !nullAlpha) || alpha.data[p] == alphaBefore[p]);
  }

  if (ops & 16) {
    // A whole-image problem, re-solved over a masked part of it: only the
    // mask and the ring around it may change.
    mat_data whole;
    mat_init(image.p(), width, height, image.step, whole, nullptr);
    Check(whole.n == pixels);
    Plane constraint(in, height, width), reMask(height, maskStride, width);
    Plane matte(in, height, width);
    ForEach(width, height, [&](int x, int y) {
      const uint8_t b = in.Byte();
      reMask.at(x, y) = b & 1 ? b : 0;
      constraint.at(x, y) = b & 2 ? in.Byte() : 0;
      matte.at(x, y) = trimap.at(x, y);
    });
    const Plane matteBefore = matte;
    mat_mask_run(whole, constraint.p(), width, height, constraint.step,
                 reMask.p(), maskStride, matte.p(), matte.step, 0, 0.0);
    Check(matte.PaddingIntact());
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
    Check(mat_run(whole, trimap.p(), wholeAlpha.data(), nullptr) == 0);
  }
}
