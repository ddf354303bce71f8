#ifndef SOFTMATTE_EDIT_H_
#define SOFTMATTE_EDIT_H_

#include "softmatte/export.h"

// ---- Matte cleanup ----
// All planes are one-channel 8-bit with strides in bytes unless stated.

// Smooths the edge of matte src into dst (which may be src) from its local
// ksize mean and an extremum window that grows with the image area; does
// nothing when src or dst is null.
SOFTMATTE_API void mat_smooth_boundary(const unsigned char* src, int width,
                                       int height, int srcStep,
                                       unsigned char* dst, int dstStep,
                                       int ksize);
// Softly dilates matte src into dst (which may be src) from its local ksize
// mean and maximum; does nothing when src or dst is null.
SOFTMATTE_API void mat_dilate(const unsigned char* src, int width, int height,
                              int srcStep, unsigned char* dst, int dstStep,
                              int ksize);
// The worker behind both above: smooth selects mat_smooth_boundary; the last
// pointer is never read. Does nothing when src or dst is null.
SOFTMATTE_API void _erode_dilate(const unsigned char* src, int width,
                                 int height, int srcStep, unsigned char* dst,
                                 int dstStep, int ksize, bool smooth,
                                 unsigned char* ignored);
// Writes the rounded 3x3 mean of src into the int plane dst (dstStep in ints);
// the first and last columns average their own column only.
SOFTMATTE_API void mean_filter_3x3(const unsigned char* src, int width,
                                   int height, int step, int* dst, int dstStep);
// Sets to 0 in alpha every fragment above threshold smaller than the keep-th
// largest one (ties stay); does nothing when alpha is null or keep < 1.
SOFTMATTE_API void vm_erase_small_cc(unsigned char* alpha, int width,
                                     int height, int step,
                                     unsigned char threshold, int keep);
// Copies alpha to dst (which may be alpha), zeroing each fragment of values
// >= threshold that touches no guide pixel above threshold other than 128;
// does nothing when a plane is null.
SOFTMATTE_API void mat_remove_isolated(const unsigned char* alpha, int width,
                                       int height, int alphaStep,
                                       const unsigned char* guide,
                                       int guideStep, unsigned char* dst,
                                       int dstStep, int threshold);
// Sets trimap to 0 where the windowed maximum of alpha is below lo and to 255
// where its minimum is above hi; does nothing when a plane is null.
SOFTMATTE_API void mat_shrink_unknown_mm(const unsigned char* alpha, int width,
                                         int height, int alphaStep,
                                         unsigned char* trimap, int trimapStep,
                                         int ksize, int iterations,
                                         unsigned char lo, unsigned char hi);
// Resolves each unknown (128) region of trimap in place: 0 when only values
// below lo surround it, 255 when only values above hi do, else 128. Regions
// lying only on the outermost rows and columns become 0. Null does nothing.
SOFTMATTE_API void mat_erase_unknown_fragment(unsigned char* trimap, int width,
                                              int height, int step,
                                              unsigned char lo,
                                              unsigned char hi);

// ---- Level estimation and S-transform ----

// The smallest known fraction among columns vertical and rows horizontal
// strips of the bounding box of trimap's 128s: 0.0 without any 128, 1.0 for
// a null trimap.
SOFTMATTE_API double mat_estimate_opt_level(const unsigned char* trimap,
                                            int width, int height, int step,
                                            int columns, int rows);
// Fills curve[0..255] with an S-shaped tone curve: steepness and level in
// 0 ... 100 (clamped) set its width and midpoint; nothing on null. The first
// call fills process-wide tables without a lock: it must not race another.
SOFTMATTE_API void mat_calc_S_transform(unsigned char* curve, int steepness,
                                        int level);

#endif  // SOFTMATTE_EDIT_H_
