#ifndef SOFTMATTE_RESAMPLE_H_
#define SOFTMATTE_RESAMPLE_H_

#include "softmatte/export.h"

// ---- Guided upsampling ----
// Colour planes are 8-bit B, G, R (3 bytes per pixel, 4 in _c4); strides of
// 8-bit planes are in bytes. An upsampling table is idx (two ints per
// full-resolution pixel, idx_stride in ints) plus wts (one short per pixel,
// wts_stride in shorts): indices into a dense low_width-wide reduced plane and
// the 12-bit weight of the first one; a negative first index means no entry.
// Every function does nothing when an image, table or output pointer is null.

// Fills the table for every pixel of img (mask null) or every pixel whose mask
// byte is non-zero, pairing reduced pixels of low; mode 2 picks the 2x2
// neighbourhood, any other value the 3x3 one.
SOFTMATTE_API void usam_calc_weights_8u_c3(
    const unsigned char* img, int width, int height, int img_stride,
    const unsigned char* mask, int mask_stride, const unsigned char* low,
    int low_width, int low_height, int low_stride, int* idx, int idx_stride,
    short* wts, int wts_stride, int mode);
// As above; value is ignored (the mask test stays non-zero).
SOFTMATTE_API void usam_calc_weights_8u_c3(
    const unsigned char* img, int width, int height, int img_stride,
    const unsigned char* mask, int mask_stride, unsigned char value,
    const unsigned char* low, int low_width, int low_height, int low_stride,
    int* idx, int idx_stride, short* wts, int wts_stride, int mode);
// As the first form for 4 bytes per pixel: the fourth byte counts in the
// blend error, not in the distances.
SOFTMATTE_API void usam_calc_weights_8u_c4(
    const unsigned char* img, int width, int height, int img_stride,
    const unsigned char* mask, int mask_stride, const unsigned char* low,
    int low_width, int low_height, int low_stride, int* idx, int idx_stride,
    short* wts, int wts_stride, int mode);
// Fills, with the 3x3 neighbourhood, the entries of pixels whose first index
// is negative and whose mask byte equals value (every such pixel when mask is
// null); other entries stay.
SOFTMATTE_API void usam_update_weights(
    const unsigned char* img, int width, int height, int img_stride,
    const unsigned char* mask, int mask_stride, unsigned char value,
    const unsigned char* low, int low_width, int low_height, int low_stride,
    int* idx, int idx_stride, short* wts, int wts_stride);

// Writes into out each pixel that has a table entry, blended from the dense
// low_width-wide plane low; pixels without an entry stay.
SOFTMATTE_API void usam_interpolate_c1(const unsigned char* low, int low_width,
                                       int low_height, const int* idx,
                                       int idx_stride, const short* wts,
                                       int wts_stride, unsigned char* out,
                                       int width, int height, int out_stride);
// As above, only where the mask byte equals value (a null mask: everywhere).
SOFTMATTE_API void usam_interpolate_c1(const unsigned char* low, int low_width,
                                       int low_height, const int* idx,
                                       int idx_stride, const short* wts,
                                       int wts_stride, unsigned char* out,
                                       int width, int height, int out_stride,
                                       const unsigned char* mask,
                                       int mask_stride, unsigned char value);
// Blends into out the upsampled low where it differs from low_ref at the
// table's two pixels by 4 or more, with a strength growing to full at 32.
SOFTMATTE_API void usam_interpolate_mask_c1(
    const unsigned char* low_ref, const unsigned char* low, int low_width,
    int low_height, const int* idx, int idx_stride, const short* wts,
    int wts_stride, unsigned char* out, int width, int height, int out_stride);
// out = bilinear upsampling of low_alpha, replaced by the colour-guided one
// where mask is non-zero (mask null: everywhere); mask may be out itself.
SOFTMATTE_API void usam_masked_c1(const unsigned char* low_img, int low_width,
                                  int low_height, int low_img_stride,
                                  const unsigned char* low_alpha,
                                  int low_alpha_stride,
                                  const unsigned char* img, int width,
                                  int height, int img_stride,
                                  const unsigned char* mask, int mask_stride,
                                  unsigned char* out, int out_stride);
// out = low_alpha upsampled to img's size, colour-guided around its
// transitions and bilinear elsewhere; a plain copy when the sizes are equal.
SOFTMATTE_API void usam_alpha(const unsigned char* low_img, int low_width,
                              int low_height, int low_img_stride,
                              const unsigned char* low_alpha,
                              int low_alpha_stride, const unsigned char* img,
                              int width, int height, int img_stride,
                              unsigned char* out, int out_stride);
// Writes the colour-guided upsampling of the dense low_width-wide low_alpha
// into the pixels of out whose mask byte equals value (a null mask: all),
// without a table.
SOFTMATTE_API void usam_execute(const unsigned char* img, int width, int height,
                                int img_stride, const unsigned char* mask,
                                int mask_stride, unsigned char value,
                                const unsigned char* low_img, int low_width,
                                int low_height, int low_img_stride,
                                const unsigned char* low_alpha,
                                unsigned char* out, int out_stride);
// Interleaves the 3-byte pixels of src3 and the bytes of src1 into the 4-byte
// pixels of dst4; nothing on a null plane.
SOFTMATTE_API void merge_c31(const unsigned char* src3, int width, int height,
                             int src3_stride, const unsigned char* src1,
                             int src1_stride, unsigned char* dst4,
                             int dst4_stride);

// ---- Downsampling ----
// Planes are 8-bit with strides in bytes; nothing happens on a null plane.

// Nearest-neighbour reduction of src into dst, N bytes per pixel (1, 3, 4);
// the last of several columns is the source's last, and a single destination
// column or row takes the first source one.
template <int N>
SOFTMATTE_API void _dsam_image_x(const unsigned char* src, int width,
                                 int height, int src_stride, unsigned char* dst,
                                 int low_width, int low_height, int dst_stride);
// _dsam_image_x for channels 1, 3 or 4; dst stays untouched for any other.
SOFTMATTE_API void dsam_image(const unsigned char* src, int width, int height,
                              int src_stride, unsigned char* dst, int low_width,
                              int low_height, int dst_stride, int channels);
// index (ints, index_stride in ints) = dense position v * low_width + u of
// the reduced pixel of low nearest in colour to each pixel of the 3-byte img,
// among the 2 x 2 cell it falls in; nothing when a size is below 2.
SOFTMATTE_API void dsam_calc_index(const unsigned char* img, int width,
                                   int height, int img_stride,
                                   const unsigned char* low, int low_width,
                                   int low_height, int low_stride, int* index,
                                   int index_stride);
// dst (dense low_width x low_height) = 128, then each mark (byte not 128)
// stored at its index entry, the last in scan order winning; the last two
// ints are unused.
SOFTMATTE_API void dsam_ui_alpha(const unsigned char* marks, int width,
                                 int height, int marks_stride, const int* index,
                                 int index_stride, unsigned char* dst,
                                 int low_width, int low_height, int, int);

#endif  // SOFTMATTE_RESAMPLE_H_
