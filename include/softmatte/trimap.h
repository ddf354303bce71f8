#ifndef SOFTMATTE_TRIMAP_H_
#define SOFTMATTE_TRIMAP_H_

#include <vector>

#include "softmatte/export.h"

// Integer pixel position: x is the column, y the row.
struct dpl_pt2di {
  int x;
  int y;
};

// Half-open rectangle: columns [left, right), rows [top, bottom); empty when
// right <= left or bottom <= top.
struct dpl_rect {
  int left;
  int right;
  int top;
  int bottom;
};

// ---- Distance transform ----

// Squared Euclidean distance transform of the n samples at f (only read):
// returns a new[] array of n floats, min over q of f[q] + (p - q)^2, that the
// caller delete[]s.
SOFTMATTE_API float* DistanceTransform1D(float* f, int n);
// Transforms the dense width x height float grid (stride width) in place:
// 0 marks sources, 1e20f marks everything else; nothing on an empty grid.
SOFTMATTE_API void DistanceTransform(float* data, int width, int height);
// Returns a new[] dense width x height float grid: 1e20f where the 8-bit mask
// is non-zero, 0 where it is zero; the caller delete[]s it.
SOFTMATTE_API float* DPLMatting_MakeDTInput(const unsigned char* mask,
                                            int width, int height, int stride);

// ---- Component boundaries and adaptive windows ----

// Appends count lists to out and fills out[l] with the 255-valued pixels of
// component l (labels: stride width ints) that touch another label, in scan
// order.
SOFTMATTE_API void GetCCBndryPixels(const unsigned char* seg, int width,
                                    int height, int stride, int* labels,
                                    int count,
                                    std::vector<std::vector<dpl_pt2di>>& out);
// The window [x - r, x + r) x [y - r, y + r) at pt, clipped to the image.
SOFTMATTE_API dpl_rect AdaRect_CCSz(dpl_pt2di pt, int r, int width, int height);
// The window at pt of a half-size between r_low and r_high chosen by the
// squared colour contrast of the 3-channel img across the seg edge along the
// border of rect, sampled every step pixels (step >= 1).
SOFTMATTE_API dpl_rect AdaRect_ImgGrad(dpl_pt2di pt, dpl_rect rect,
                                       const unsigned char* img, int width,
                                       int height, int img_stride,
                                       const unsigned char* seg, int seg_stride,
                                       int step, double diff_low,
                                       double diff_high, int r_low, int r_high);

// ---- Trimap from a segmentation result ----

// Writes to out the 0/255 segmentation seg with a 128 band around each
// foreground component, half as wide as band_scale times its thickness, at
// most max_band; out must not overlap seg.
SOFTMATTE_API void MakeTrimapFromSegRes(const unsigned char* seg, int width,
                                        int height, int seg_stride,
                                        unsigned char* out, int out_stride,
                                        int max_band, double band_scale);
// As above, but each boundary window's half-size runs from min_band to
// max_band with the contrast of the 3-channel img across the seg edge
// (diff_low, diff_high per channel, sampled every step border pixels).
SOFTMATTE_API void MakeTrimapFromSegRes(
    const unsigned char* img, int width, int height, int img_stride,
    const unsigned char* seg, int seg_stride, unsigned char* out,
    int out_stride, int max_band, double band_scale, int step,
    unsigned char diff_low, unsigned char diff_high, int min_band);

// ---- Seeds and matte inversion ----

// Copies alpha to out as seeds: 128 where alpha varies by 128 or more within
// the (window | 1)-wide square, flat 128s become 127; nothing when alpha or
// out is null.
SOFTMATTE_API void MakeSeeds(const unsigned char* alpha, int width, int height,
                             int stride, unsigned char* out, int out_stride,
                             int window);
// Swaps foreground and background of a trimap or matte in place: every byte
// but 128 becomes 255 - byte (so 127 becomes 128); nothing on null.
SOFTMATTE_API void InvertMatte(unsigned char* alpha, int width, int height,
                               int stride);

#endif  // SOFTMATTE_TRIMAP_H_
