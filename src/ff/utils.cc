#include "softmatte/ff/utils.h"

#include "ff/image_layout.h"
#include "softmatte/ff/fvt_image.h"

namespace ff {

void fiuCopy(const void* src, int width, int height, int srcStep, int type,
             void* dst, int dstStep) {
  ipf_memcpy_2d(src, layout::row_bytes(type, width), height, srcStep, dst,
                dstStep);
}

void fiCopy(const FVTImage& src, FVTImage& dst) {
  fiuCopy(src.data, src.width, src.height, src.step, src.type, dst.data,
          dst.step);
}

}  // namespace ff
