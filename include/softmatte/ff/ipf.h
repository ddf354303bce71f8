#ifndef SOFTMATTE_FF_IPF_H_
#define SOFTMATTE_FF_IPF_H_

#include "softmatte/export.h"
#include "softmatte/ff/fvt_image.h"

namespace ff {

// ---- Connected components and mask regions ----

// Labels 4-connected regions of equal value (0 included). labels has its own
// stride in ints; components are numbered 0..count-1 in the raster order of
// their first pixel. Returns count, or 0 on a null plane or when scratch
// memory cannot be had (labels are then unspecified).
SOFTMATTE_API int ipf_connected_component(const unsigned char* img, int width,
                                          int height, int step, int* labels,
                                          int labelStep);
// first = index of the first non-zero value, last = one past the last one;
// both -1 and false when there is none (or values is null, n < 1).
SOFTMATTE_API bool ipf_get_mask_range(const unsigned char* values, int n,
                                      int& first, int& last);
// Bounding box {left, top, right, bottom} (right, bottom exclusive) of the
// pixels strictly above threshold; four zeros and false when there is none.
// Writes nothing when mask or roi is null.
SOFTMATTE_API bool ipf_get_mask_roi(const unsigned char* mask, int width,
                                    int height, int step, int* roi,
                                    unsigned char threshold);
// Bounding box of the pixels where a and b differ; as ipf_get_mask_roi.
SOFTMATTE_API bool ipf_get_mask_diff_roi(const unsigned char* a, int width,
                                         int height, int stepA,
                                         const unsigned char* b, int stepB,
                                         int* roi);

// ---- Resizing ----

// Tag naming the bytes the nearest-neighbour resize copies per pixel.
template <int N>
struct ccn {};

// Fills tab[0..dstLen) with the nearest source index of each destination
// index, times elemStep; nothing on a null tab or dstLen < 1.
SOFTMATTE_API void ipf_calc_resize_tab_nn(int srcLen, int dstLen, int* tab,
                                          int elemStep);
// Fills tab[0..dstLen) with the left source index times elemStep and frac
// with the weight of its right neighbour; nothing on a null tab or frac, or
// dstLen < 1.
SOFTMATTE_API void ipf_calc_resize_tab_bl(int srcLen, int dstLen, int* tab,
                                          float* frac, int elemStep);
// Nearest-neighbour resize of src into dst, N bytes per pixel; steps and
// pixel steps in bytes. Instantiated for unsigned char with ccn<1>, ccn<3>.
template <typename T, typename C>
SOFTMATTE_API void ipf_resize_nn(const T* src, int srcWidth, int srcHeight,
                                 int srcStep, int srcPixStep, T* dst,
                                 int dstWidth, int dstHeight, int dstStep,
                                 int dstPixStep, C);
// Bilinear resize of the first channels of each pixel of src into dst,
// truncated to bytes; steps and pixel steps in bytes. Instantiated for
// unsigned char to unsigned char.
template <typename TS, typename TD>
SOFTMATTE_API void ipf_resize_bl(const TS* src, int srcWidth, int srcHeight,
                                 int srcStep, int srcPixStep, TD* dst,
                                 int dstWidth, int dstHeight, int dstStep,
                                 int dstPixStep, int channels);
// Writes the byte offsets of the (2rx+1) x (2ry+1) neighbourhood in row-major
// order into offsets, the centre left out when skipCentre; nothing on a null
// offsets or a negative radius.
SOFTMATTE_API void ipf_calc_nbr_offset(int rx, int ry, int step, int pixStep,
                                       int* offsets, bool skipCentre);

// ---- Window filters ----

// Window filters take border = {left, top, right, bottom}: how many readable
// pixels of the caller's image lie beyond the region on each side (null: none).
// Those pixels are read, never written. Integer planes count steps in ints.

// dst = minimum over the ksize x ksize window, repeated iterations times;
// nothing when src or dst is null.
SOFTMATTE_API void ipf_min_filter(const unsigned char* src, int width,
                                  int height, int srcStep, int channels,
                                  unsigned char* dst, int dstStep, int ksize,
                                  int iterations, int* border);
// dst = maximum over the ksize x ksize window; as ipf_min_filter.
SOFTMATTE_API void ipf_max_filter(const unsigned char* src, int width,
                                  int height, int srcStep, int channels,
                                  unsigned char* dst, int dstStep, int ksize,
                                  int iterations, int* border);
// dst (ints) = sum over the kw x kh window, outside pixels counting 0;
// nothing when src or dst is null.
SOFTMATTE_API void ipf_sum_filter(const unsigned char* src, int width,
                                  int height, int srcStep, int channels,
                                  int* dst, int dstStep, int kw, int kh,
                                  int* border);
// As above for an int source (srcStep in ints).
SOFTMATTE_API void ipf_sum_filter(const int* src, int width, int height,
                                  int srcStep, int channels, int* dst,
                                  int dstStep, int kw, int kh, int* border);
// count (ints) = number of window pixels on real data; nothing on null count.
SOFTMATTE_API void ipf_count_filter_pixels(int* count, int width, int height,
                                           int countStep, int kw, int kh,
                                           int* border);
// dst (ints) = rounded window mean; fills count (ints), or uses a scratch one
// when count is null; nothing when src or dst is null.
SOFTMATTE_API void ipf_mean_filter(const unsigned char* src, int width,
                                   int height, int srcStep, int channels,
                                   int* dst, int dstStep, int* count,
                                   int countStep, int kw, int kh, int* border);
// As above for an int source (srcStep in ints).
SOFTMATTE_API void ipf_mean_filter(const int* src, int width, int height,
                                   int srcStep, int channels, int* dst,
                                   int dstStep, int* count, int countStep,
                                   int kw, int kh, int* border);
// As above with the mean stored as bytes in dst.
SOFTMATTE_API void ipf_mean_filter(const unsigned char* src, int width,
                                   int height, int srcStep, int channels,
                                   unsigned char* dst, int dstStep, int* count,
                                   int countStep, int kw, int kh, int* border);

// ---- Distance fields ----

// Chamfer distance-field record: geometry and one integer weight per
// neighbour, neighbours in raster order of their offsets.
struct dist_field {
  int width;
  int height;
  int depth;            // 1 for a 2-D field
  int neighbour_count;  // 8 in 2-D, 26 in 3-D
  int flags;            // bit 0: the four-pass 2-D scheme
  unsigned short* weights;
};

namespace dfp_c8 {
// The 8 neighbour offsets (dx, dy) in raster order, then clockwise from the
// one above the centre.
SOFTMATTE_API extern const int PCD[16][2];
// For each PCD entry, the raster index of its weight.
SOFTMATTE_API extern const int PWI[16];
}  // namespace dfp_c8

// New 2-D field with weights scale (axial) and trunc(scale * 1.414)
// (diagonal); released with ipf_release_distance_field.
SOFTMATTE_API dist_field* ipf_create_distance_field_2d(int width, int height,
                                                       unsigned short scale);
// New 3-D field of 26 neighbours: face scale, edge trunc(scale * 1.414),
// corner trunc(scale * 1.732).
SOFTMATTE_API dist_field* ipf_create_distance_field_3d(int width, int height,
                                                       int depth,
                                                       unsigned short scale);
// Frees the field and its weights; a null field is ignored.
SOFTMATTE_API void ipf_release_distance_field(dist_field* field);
// distance = chamfer length from each label-0 pixel to the nearest target
// pixel through label-0 pixels (0 on targets, 10000000 on other labels and
// where unreached); nearest (optional) = that target's (x, y). Strides of
// distance and nearest count elements. Writes nothing on a null field, labels
// or distance or a size other than the field's. Always returns -1.
SOFTMATTE_API int ipf_distance_transform_2d(
    dist_field* field, const unsigned char* labels, unsigned short width,
    unsigned short height, int label_stride, unsigned char target,
    unsigned int* distance, int distance_stride, unsigned short (*nearest)[2],
    int nearest_stride);
// As the 2-D transform over dense volumes (rows of width, slices of
// width * height); nearest (optional) gets (x, y, z). Always returns -1.
SOFTMATTE_API int ipf_distance_transform_3d(
    dist_field* field, const unsigned char* labels, unsigned short width,
    unsigned short height, unsigned short depth, unsigned char target,
    unsigned int* distance, unsigned short (*nearest)[3]);

// ---- Colour-space conversion ----
// One pixel each: bgr is B, G, R bytes; lab is L (0 ... 100 scaled to 255) and
// a, b offset by 128; yuv is full-range Y with U, V offset by 128. Nothing
// happens when a pointer is null.

// B, G, R to L, a, b; out-of-range results keep their low byte.
SOFTMATTE_API void ipf_bgr2lab(const unsigned char* bgr, unsigned char* lab);
// L, a, b to B, G, R, clamped to 0 ... 255.
SOFTMATTE_API void ipf_lab2bgr(const unsigned char* lab, unsigned char* bgr);
// B, G, R to Y, U, V; out-of-range results keep their low byte.
SOFTMATTE_API void ipf_bgr2yuv(const unsigned char* bgr, unsigned char* yuv);
// Y, U, V to B, G, R; out-of-gamut results keep their low byte (they wrap).
SOFTMATTE_API void ipf_yuv2bgr(const unsigned char* yuv, unsigned char* bgr);

}  // namespace ff

#endif  // SOFTMATTE_FF_IPF_H_
