#ifndef SOFTMATTE_SESSION_SESSION_IMPL_H_
#define SOFTMATTE_SESSION_SESSION_IMPL_H_

#include "softmatte/ff/fvt_image.h"
#include "softmatte/geoseg.h"
#include "softmatte/solver.h"

// Everything a session keeps between calls. The working planes are dense
// (their width is a multiple of 4, so the 4-byte row rounding adds nothing):
// the solver and the upsampling tables address them as y * workWidth + x.
class DSCMattingImpl {
 public:
  DSCMattingImpl();
  ~DSCMattingImpl();
  DSCMattingImpl(const DSCMattingImpl&) = delete;
  DSCMattingImpl& operator=(const DSCMattingImpl&) = delete;

  void Init(const unsigned char* image, int width, int height, int stride,
            const unsigned char* seg, int seg_stride, int work_size,
            int max_band, double band_scale, int step, unsigned char diff_low,
            unsigned char diff_high, int min_band);
  void set_alpha(const unsigned char* alpha, int width, int height, int stride);
  unsigned char* GetAlpha(int* stride);
  void GetAlpha(unsigned char* out, int outStride);
  void SmoothBoundary(int ksize, int keep);
  unsigned char* GetFImage(int* stride, int recompute);
  void GetFImage(unsigned char* out, int outStride, int recompute);

  void Refine(const unsigned char* trimap, int width, int height, int stride,
              unsigned char* out, int outStride, int ksize, int keep);
  int Refine(unsigned char* out, int width, int height, int stride, int ksize,
             int keep);
  int MakeMatteFromSegmRes(const unsigned char* seg, int width, int height,
                           int seg_stride, unsigned char* out, int outStride,
                           int max_band, double band_scale, int ksize,
                           int keep);
  int MakeMatte(unsigned char* out, int width, int height, int stride,
                int ksize, int keep);

  ff::FVTImage image;
  ff::FVTImage alpha;
  ff::FVTImage spare0;
  ff::FVTImage foreground;
  ff::FVTImage spare1;
  GeoSeg geoseg;  // kept for the layout; no session call uses it
  unsigned char foregroundStale = 1;
  int fullWidth = 0;
  int fullHeight = 0;
  ff::FVTImage workImage;
  ff::FVTImage workAlpha;
  ff::FVTImage trimap;
  ff::FVTImage workTrimap;
  int workWidth = 0;
  int workHeight = 0;
  short* weights = nullptr;  // fullWidth per row
  int* indices = nullptr;    // 2 * fullWidth per row, -1 = no entry
  mat_options solveOptions;  // the exact path unless the caller asks

 private:
  bool SizeMatches(int width, int height) const {
    return width == fullWidth && height == fullHeight;
  }
  bool HasAlpha() const { return alpha.width >= 1 && alpha.height >= 1; }
  // Solves over the working trimap's unknowns and carries the result to the
  // pixels of fullTrimap equal to 128, then cleans and copies it out.
  void SolveAndFinish(const unsigned char* fullTrimap, int fullTrimapStride,
                      unsigned char* out, int outStride, int ksize, int keep);
};

// Turns every value but 128 into 255 - v, in place.
void ComplementKnown(unsigned char* plane, int width, int height, int stride);

#endif  // SOFTMATTE_SESSION_SESSION_IMPL_H_
