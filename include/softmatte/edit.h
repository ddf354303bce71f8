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

// ---- Brush editing ----
// Planes are the brush rectangle, one-channel 8-bit unless channels is given;
// border is the window filters' {left, top, right, bottom} or null. acc holds
// the largest weight applied so far in the stroke; only a larger one acts.

// Fills weight with a rounded dab: 255 where 1 - (normalised radius) > flat,
// falling towards a small positive weight in the corners.
SOFTMATTE_API void mat_make_rect_weight(unsigned char* weight, int width,
                                        int height, int step, float flat);
// Lowers dst towards 0 by weight, from alpha's ksize mean and its wider
// maximum, keeping the smaller of dst and the result.
SOFTMATTE_API void mat_erode_brush(const unsigned char* alpha, int width,
                                   int height, int alphaStep,
                                   const unsigned char* weight, int weightStep,
                                   unsigned char* dst, int dstStep, int ksize,
                                   int* border);
// Raises dst towards the local maximum by weight; as mat_erode_brush.
SOFTMATTE_API void mat_dilate_brush(const unsigned char* alpha, int width,
                                    int height, int alphaStep,
                                    const unsigned char* weight, int weightStep,
                                    unsigned char* dst, int dstStep, int ksize,
                                    int* border);
// dst = alpha moved towards value by weight where weight exceeds acc, which
// it then replaces.
SOFTMATTE_API void mat_set_brush(const unsigned char* alpha, int width,
                                 int height, int alphaStep,
                                 const unsigned char* weight, int weightStep,
                                 unsigned char* acc, int accStep,
                                 unsigned char* dst, int dstStep,
                                 unsigned char value);
// dst = rounded ksize box mean of src, channels interleaved.
SOFTMATTE_API void mat_smooth_brush(const unsigned char* src, int width,
                                    int height, int srcStep, int channels,
                                    unsigned char* dst, int dstStep, int ksize,
                                    int* border);
// Blends dst (channels interleaved) back towards saved by weight where weight
// exceeds acc; track raises acc. With channels < 1 only acc is raised.
SOFTMATTE_API void mat_undo_brush(const unsigned char* saved, int width,
                                  int height, int savedStep, int channels,
                                  const unsigned char* weight, int weightStep,
                                  unsigned char* acc, int accStep,
                                  unsigned char* dst, int dstStep, bool track);
// Sets out1 and out2 to 0 where alpha's ksize maximum is below lo (lo > 0),
// then to 255 where its minimum is above hi (hi < 255).
SOFTMATTE_API void mat_brush_threshold(const unsigned char* alpha, int width,
                                       int height, int alphaStep,
                                       unsigned char* out1, int out1Step,
                                       unsigned char* out2, int out2Step,
                                       int ksize, int* border, unsigned char lo,
                                       unsigned char hi);
// Sets b to 128 where ref is 128 and known a and b differ by less than
// tolerance.
SOFTMATTE_API void mat_rectify_uialpha(const unsigned char* ref, int width,
                                       int height, int refStep,
                                       const unsigned char* a, int aStep,
                                       unsigned char* b, int bStep,
                                       int tolerance);

#endif  // SOFTMATTE_EDIT_H_
