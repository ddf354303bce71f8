#include <cstddef>
#include <memory>

#include "session/session_impl.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "softmatte/solver.h"
#include "softmatte/trimap.h"
#include "solver/fine_solve.h"

namespace {

constexpr unsigned char kUnknown = 128;

// 1 at exactly 128 and 0 elsewhere: 127 and 129 are known values however
// close they come.
struct UnknownTable {
  unsigned char entry[256] = {};
  UnknownTable() { entry[kUnknown] = 1; }
};

}  // namespace

void DSCMattingImpl::SolveAndFinish(const unsigned char* fullTrimap,
                                    int fullTrimapStride, unsigned char* out,
                                    int outStride, int ksize, int keep) {
  static const UnknownTable kUnknownTable;
  ff::FVTImage mask(workWidth, workHeight, ff::kFormat8UC1, 4);
  for (int y = 0; y < workHeight; ++y) {
    const unsigned char* t =
        workTrimap.data + static_cast<ptrdiff_t>(y) * workTrimap.step;
    unsigned char* m = mask.data + static_cast<ptrdiff_t>(y) * mask.step;
    for (int x = 0; x < workWidth; ++x) m[x] = kUnknownTable.entry[t[x]];
  }

  // A fresh record each time: reusing rows of an older problem would tie
  // this matte to the previous trimap.
  if (workWidth >= 1 && workHeight >= 1) {
    // A fresh problem each time: reusing rows of an older one would tie
    // this matte to the previous trimap. Whatever the solve leaves in the
    // working alpha is carried on as it is.
    SolveBand(workImage.data, workWidth, workHeight, workImage.step, mask.data,
              mask.step, workTrimap.data, workAlpha.data, solveOptions);
    usam_interpolate_c1(workAlpha.data, workWidth, workHeight, indices,
                        2 * fullWidth, weights, fullWidth, alpha.data,
                        fullWidth, fullHeight, alpha.step, fullTrimap,
                        fullTrimapStride, kUnknown);
  }

  SmoothBoundary(ksize, keep);
  ff::ipf_memcpy_2d(alpha.data, fullWidth, fullHeight, alpha.step, out,
                    outStride);
  foregroundStale = 1;
}

void DSCMattingImpl::Refine(const unsigned char* trimapIn, int width,
                            int height, int stride, unsigned char* out,
                            int outStride, int ksize, int keep) {
  // Without a trimap there is nothing to solve over: leave everything alone.
  if (!SizeMatches(width, height) || trimapIn == nullptr) return;
  // The caller's known values become the matte outside the unknown band.
  set_alpha(trimapIn, width, height, stride);
  ff::ipf_resize_nn(trimapIn, width, height, stride, 1, workTrimap.data,
                    workWidth, workHeight, workTrimap.step, 1, ff::ccn<1>());
  SolveAndFinish(trimapIn, stride, out, outStride, ksize, keep);
}

int DSCMattingImpl::Refine(unsigned char* out, int width, int height,
                           int stride, int ksize, int keep) {
  if (!SizeMatches(width, height)) return 0;
  if (trimap.data == nullptr || trimap.width < 1 || trimap.height < 1) return 0;
  SolveAndFinish(trimap.data, trimap.step, out, stride, ksize, keep);
  return 1;
}

int DSCMattingImpl::MakeMatteFromSegmRes(const unsigned char* seg, int width,
                                         int height, int seg_stride,
                                         unsigned char* out, int outStride,
                                         int max_band, double band_scale,
                                         int ksize, int keep) {
  if (!SizeMatches(width, height) || seg == nullptr) return 0;
  std::unique_ptr<unsigned char[]> plane(
      new unsigned char[static_cast<size_t>(width) *
                        static_cast<size_t>(height)]);
  MakeTrimapFromSegRes(seg, width, height, seg_stride, plane.get(), width,
                       max_band, band_scale);
  ComplementKnown(plane.get(), width, height, width);
  Refine(plane.get(), width, height, width, out, outStride, ksize, keep);
  plane.reset();
  // 128 stays 128 on the way out too, even where the solve produced it.
  ComplementKnown(out, width, height, outStride);
  return 1;
}

int DSCMattingImpl::MakeMatte(unsigned char* out, int width, int height,
                              int stride, int ksize, int keep) {
  if (!SizeMatches(width, height)) return 0;
  if (Refine(out, width, height, stride, ksize, keep) == 0) return 0;
  ComplementKnown(out, width, height, stride);
  return 1;
}
