#ifndef SOFTMATTE_FF_UTILS_H_
#define SOFTMATTE_FF_UTILS_H_

#include "softmatte/export.h"
#include "softmatte/ff/fvt_image.h"

namespace ff {

// General image utilities: fi... work on FVTImage, fiu... on raw planes
// (pointer, width, height, stride in bytes, then the format word).

// Copies width pixels of format type from each of height rows.
SOFTMATTE_API void fiuCopy(const void* src, int width, int height, int srcStep,
                           int type, void* dst, int dstStep);
// Copies the pixels of src into dst, which must have src's size and format.
SOFTMATTE_API void fiCopy(const FVTImage& src, FVTImage& dst);

}  // namespace ff

#endif  // SOFTMATTE_FF_UTILS_H_
