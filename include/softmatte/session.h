#ifndef SOFTMATTE_SESSION_H_
#define SOFTMATTE_SESSION_H_

#include "softmatte/export.h"
#include "softmatte/solver.h"

class DSCMattingImpl;

// One matting session per photograph: a full-resolution copy of the photo,
// its current matte, a reduced working copy the matting system is solved on,
// and the tables that carry a working matte back to full resolution. Inside
// the session the trimap polarity is the complement of MakeTrimapFromSegRes's
// (every value but 128); Refine works in that polarity, MakeMatte and
// MakeMatteFromSegmRes in the caller's. Width and height passed after Init
// must be exactly Init's. Use from one thread at a time.
class SOFTMATTE_API DSCMatting {
 public:
  // An empty session; call Init before anything else.
  DSCMatting();
  // Init without a segmentation.
  DSCMatting(const unsigned char* image, int width, int height, int stride,
             int work_size);
  // Init with a segmentation and the trimap parameters.
  DSCMatting(const unsigned char* image, int width, int height, int stride,
             const unsigned char* seg, int seg_stride, int work_size,
             int max_band, double band_scale, int step, unsigned char diff_low,
             unsigned char diff_high, int min_band);
  ~DSCMatting();
  DSCMatting(const DSCMatting&) = delete;
  DSCMatting& operator=(const DSCMatting&) = delete;

  // Takes the B, G, R image with an all-0 matte and no trimap.
  void Init(const unsigned char* image, int width, int height, int stride,
            int work_size);
  // Takes the B, G, R image; with a non-null 0/255 seg, builds the trimap
  // from it (complemented) and makes it the matte; reduces to work_size when
  // both sides exceed it; computes the upsampling tables.
  void Init(const unsigned char* image, int width, int height, int stride,
            const unsigned char* seg, int seg_stride, int work_size,
            int max_band, double band_scale, int step, unsigned char diff_low,
            unsigned char diff_high, int min_band);

  // Replaces the matte with alpha; nothing on null or another size. Keeps
  // the foreground cache as it is.
  void set_alpha(const unsigned char* alpha, int width, int height, int stride);
  // The session's own full-resolution matte (null before Init), valid until
  // the next Init; its row stride goes to a non-null stride.
  unsigned char* GetAlpha(int* stride);
  // Copies the matte into out; nothing when the session has no matte.
  void GetAlpha(unsigned char* out, int outStride);
  // Smooths the matte's boundary with window ksize, then keeps only its keep
  // largest foreground fragments (keep < 1: all).
  void SmoothBoundary(int ksize, int keep);

  // The foreground colours (B, G, R) under the matte, cached: recompute >= 1
  // always estimates, 0 only when the cache has another size, < 0 also when
  // the matte was refined or smoothed since. Stride to a non-null stride.
  unsigned char* GetFImage(int* stride, int recompute);
  // As above, then copies the colours into out.
  void GetFImage(unsigned char* out, int outStride, int recompute);

  // How every later refinement (Refine, MakeMatte, MakeMatteFromSegmRes)
  // assembles and solves its system; value-initialised options, the default
  // of a new session, keep the exact path. A fine solve that cannot be
  // factorised falls back to the exact one.
  void SetSolveOptions(const mat_options& options);

  // Solves the matte over the 128 pixels of trimap (session polarity; its
  // other values are kept) and writes it to the session and out; nothing
  // when the size differs or trimap is null.
  void Refine(const unsigned char* trimap, int width, int height, int stride,
              unsigned char* out, int outStride, int ksize, int keep);
  // As above with Init's trimap; 0 (out untouched) on another size or when
  // Init had no segmentation, else 1.
  int Refine(unsigned char* out, int width, int height, int stride, int ksize,
             int keep);
  // Builds a trimap from the 0/255 seg, refines and writes the matte with
  // foreground 255 to out; 0 (out untouched) on another size or a null seg,
  // else 1.
  int MakeMatteFromSegmRes(const unsigned char* seg, int width, int height,
                           int seg_stride, unsigned char* out, int outStride,
                           int max_band, double band_scale, int ksize,
                           int keep);
  // Refine with Init's trimap, the matte written with foreground 255; 0 (out
  // untouched) on another size or without a segmentation at Init, else 1.
  int MakeMatte(unsigned char* out, int width, int height, int stride,
                int ksize, int keep);

 private:
  DSCMattingImpl* impl_;
};

#endif  // SOFTMATTE_SESSION_H_
