#ifndef SOFTMATTE_SRC_RESAMPLE_UPSAMPLE_ROWS_H_
#define SOFTMATTE_SRC_RESAMPLE_UPSAMPLE_ROWS_H_

// Fills the upsampling table entries of rows [y0, y1) of the B, G, R image
// img (width x height) where mask is non-zero, pairing reduced pixels of low
// in the 3 x 3 neighbourhood: the entries usam_calc_weights_8u_c3 gives
// those pixels (mode 3) over the whole image, but mask, idx and wts hold
// the strip only: row y is read from mask + (y - y0) * mask_stride and goes
// to idx + (y - y0) * idx_stride and wts + (y - y0) * wts_stride. Lets a
// caller hold the table of a strip of rows at a time. Other entries are left
// alone.
void usam_fill_rows_3x3_c3(const unsigned char* img, int width, int height,
                           int img_stride, const unsigned char* mask,
                           int mask_stride, const unsigned char* low,
                           int low_width, int low_height, int low_stride,
                           int y0, int y1, int* idx, int idx_stride, short* wts,
                           int wts_stride);

#endif  // SOFTMATTE_SRC_RESAMPLE_UPSAMPLE_ROWS_H_
