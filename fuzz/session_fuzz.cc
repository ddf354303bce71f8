// The matting API on a caller's photo. An even first byte drives a whole
// session: construction, or Init with a segmentation, a reduced working
// size from the data, then refinements, matte and colour fetches, smoothing
// and matte replacement in the order the data asks for; calls of the wrong
// size must be refused and every caller buffer's padding must survive. An odd
// one drives the matting system alone: assembly over the trimap's unknown
// band (fresh, or reusing rows of an earlier problem), the solve and the
// masked re-solve of a whole-image problem. Systems stay at a few hundred
// unknowns so that SuperLU is quick; a singular one may fail, but must not
// corrupt memory.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/session.h"
#include "softmatte/solver.h"

namespace {

void Solver(FuzzInput& in) {
  const int width = in.Int(1, 20), height = in.Int(1, 20);
  const uint8_t ops = in.Byte();
  Plane image(in, height, 3 * width), mask(in, height, width);
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
  const Plane maskBefore = mask, imageBefore = image;
  mat_data problem, previous;
  if (ops & 2) {
    mat_update(image.p(), width, height, image.step, firstMask.p(), mask.step,
               previous, previous, nullptr);
  }
  mat_update(image.p(), width, height, image.step, mask.p(), mask.step,
             ops & 2 ? previous : problem, problem, nullptr);
  Check(mask.data == maskBefore.data && image.data == imageBefore.data);
  // A well-formed system always reaches the factorisation.
  for (int run = 0; run < (ops & 4 ? 2 : 1); ++run) {
    Check(mat_run(problem, trimap.p(), ops & 8 ? nullptr : alpha.p(),
                  nullptr) == 0);
  }
  if (ops & 16) {
    // A whole-image problem, re-solved over a masked part of it, and solved
    // with the trimap as constraints everywhere.
    mat_data whole;
    mat_init(image.p(), width, height, image.step, whole, nullptr);
    Check(whole.n == width * height);
    Plane constraint(in, height, width), reMask(height, mask.step, width);
    Plane matte(in, height, width);
    ForEach(width, height, [&](int x, int y) {
      const uint8_t b = in.Byte();
      reMask.at(x, y) = b & 1 ? b : 0;
      constraint.at(x, y) = b & 2 ? in.Byte() : 0;
      matte.at(x, y) = trimap.at(x, y);
    });
    mat_mask_run(whole, constraint.p(), width, height, constraint.step,
                 reMask.p(), reMask.step, matte.p(), matte.step, 0, 0.0);
    Check(matte.PaddingIntact());
    std::vector<uint8_t> wholeAlpha(size_t{1} * width * height);
    Check(mat_run(whole, trimap.p(), wholeAlpha.data(), nullptr) == 0);
  }
}

// Outputs start as sentinels: a refused call (r == 0) leaves them so, and
// no call writes into their padding.
void Settle(int r, const Plane& out) {
  Check(out.PaddingIntact() &&
        (r || out.data == std::vector(out.data.size(), kSentinel)));
}

void Session(FuzzInput& in) {
  const int width = in.Int(4, 48), height = in.Int(3, 48);
  const int workSize = in.Int(3, 96);
  // The tables need at least three working pixels each way, so sizes that
  // the session would reduce further are not fed.
  if (width > workSize && height > workSize) {
    const double s =
        std::min(double(workSize) / width, double(workSize) / height);
    if ((static_cast<int>(s * width + 0.5) & ~3) < 4) return;
    if (static_cast<int>(s * height + 0.5) < 3) return;
  }
  const uint8_t setup = in.Byte();
  const bool withSeg = setup & 1;
  Plane image(in, height, 3 * width), seg(in, height, width);
  // Trimap parameters: bands of a few pixels, a sampling step of at least 1.
  const int maxBand = in.Int(0, 8);
  const double bandScale = in.Byte() / 64.0;
  const int step = in.Int(1, 4);
  const uint8_t diffLow = in.Byte(), diffHigh = in.Byte();
  const int minBand = in.Int(0, 4);
  uint8_t colours[4][3];
  for (auto& c : colours) in.Bytes(c, 3);
  FillColours(in, image, width, height, setup & 4, colours);
  FillShapes(in, seg, true);

  const uint8_t* img = image.p();
  std::unique_ptr<DSCMatting> session(
      withSeg ? new DSCMatting()
              : new DSCMatting(img, width, height, image.step, workSize));
  if (withSeg) {
    session->Init(img, width, height, image.step, seg.p(), seg.step, workSize,
                  maxBand, bandScale, step, diffLow, diffHigh, minBand);
  }

  for (int op = 0; op < 8 && in.remaining() > 0; ++op) {
    const uint8_t code = in.Byte();
    // Now and then a call of the wrong size, which must be refused.
    const bool wrongSize = (code >> 4) == 15;
    const int w = wrongSize ? width + 1 : width, h = height;
    const int ksize = in.Int(1, 15), keep = in.Int(0, 3);
    // Init's trimap exists only when it was given a segmentation.
    const int withInitTrimap = withSeg && !wrongSize;
    Plane out(in, height, width);
    switch (code % 8) {
      case 0: {  // Refine with a caller trimap
        Plane trimap(in, height, width);
        FillTrimap(in, trimap, 0);  // subject 0, as the session has it
        session->Refine(trimap.p(), w, h, trimap.step, out.p(), out.step, ksize,
                        keep);
        Check(trimap.PaddingIntact());
        Settle(!wrongSize, out);
        break;
      }
      case 1:
      case 3: {  // Init's trimap: Refine, or MakeMatte in caller polarity
        const int r =
            code % 8 == 1
                ? session->Refine(out.p(), w, h, out.step, ksize, keep)
                : session->MakeMatte(out.p(), w, h, out.step, ksize, keep);
        Check(r == withInitTrimap);
        Settle(r, out);
        break;
      }
      case 2: {  // A matte straight from a new segmentation
        Plane newSeg(in, height, width);
        FillShapes(in, newSeg, true);
        const int band = in.Int(0, 8);
        const double scale = in.Byte() / 64.0;
        const int r = session->MakeMatteFromSegmRes(
            newSeg.p(), w, h, newSeg.step, out.p(), out.step, band, scale,
            ksize, keep);
        Check(newSeg.PaddingIntact() && r == !wrongSize);
        Settle(r, out);
        break;
      }
      case 4:
        session->GetAlpha(out.p(), out.step);
        Settle(1, out);
        break;
      case 5: {  // Foreground colours, cached or not
        const int recompute = in.Int(-1, 1);
        Plane colour(in, height, 3 * width);
        session->GetFImage(colour.p(), colour.step, recompute);
        Check(colour.PaddingIntact());
        int stride = -1;
        Check(session->GetFImage(&stride, 0) && stride >= 3 * width);
        break;
      }
      case 6:
        session->SmoothBoundary(ksize, keep);
        break;
      case 7: {  // Replace the matte; another size is ignored
        Plane alpha(in, height, width);
        alpha.Fill(in);
        session->set_alpha(alpha.p(), w, h, alpha.step);
        break;
      }
    }
  }
}

}  // namespace

// The solver reports every system size on standard output, and a run of
// millions would spend its time printing.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return std::freopen("/dev/null", "w", stdout) ? 0 : 0;
}

FUZZ_HARNESS(9) {
  if (in.Byte() & 1) return Solver(in);
  if (in.remaining() >= 16) Session(in);
}
