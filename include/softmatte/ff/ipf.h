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

// ---- Window filters ----

}  // namespace ff

#endif  // SOFTMATTE_FF_IPF_H_
