#include <cstring>
#include <vector>

#include "ff/image_layout.h"
#include "ff/utils_internal.h"
#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/ff/utils.h"

namespace ff {

namespace {

using Byte = unsigned char;

// Any pixel size: the nearest resize only moves bytes.
void resize_nearest(const void* src, int srcWidth, int srcHeight, int srcStep,
                    int pixelBytes, void* dst, int dstWidth, int dstHeight,
                    int dstStep) {
  std::vector<int> xTab(dstWidth);
  std::vector<int> yTab(dstHeight);
  ipf_calc_resize_tab_nn(srcWidth, dstWidth, xTab.data(), pixelBytes);
  ipf_calc_resize_tab_nn(srcHeight, dstHeight, yTab.data(), 1);
  const Byte* s = static_cast<const Byte*>(src);
  Byte* d = static_cast<Byte*>(dst);
  for (int y = 0; y < dstHeight; ++y) {
    const Byte* srcRow = s + utils::offset(srcStep, yTab[y]);
    Byte* dstRow = d + utils::offset(dstStep, y);
    for (int x = 0; x < dstWidth; ++x) {
      std::memcpy(dstRow + utils::offset(pixelBytes, x), srcRow + xTab[x],
                  pixelBytes);
    }
  }
}

// Fixed point for bytes, where 11-bit weights keep results within one step;
// 16-bit values would show the weights' rounding, so they and floats use
// float weights, and s32, which a float would round, double ones.
template <typename T>
using WeightOf = std::conditional_t<
    sizeof(T) == 1, int,
    std::conditional_t<std::is_same_v<T, int>, double, float>>;

template <typename T, int Taps>
void resample(const void* src, int srcWidth, int srcHeight, int srcStep,
              int channels, void* dst, int dstWidth, int dstHeight,
              int dstStep) {
  fiResampler<T, WeightOf<T>, Taps> resampler(srcWidth, srcHeight, dstWidth,
                                              dstHeight, channels);
  resampler.Run(static_cast<const T*>(src), srcStep, static_cast<T*>(dst),
                dstStep);
}

using ResampleFn = void (*)(const void*, int, int, int, int, void*, int, int,
                            int);

template <int Taps>
constexpr ResampleFn kResample[6] = {
    resample<signed char, Taps>, resample<unsigned char, Taps>,
    resample<short, Taps>,       resample<unsigned short, Taps>,
    resample<int, Taps>,         resample<float, Taps>};

}  // namespace

int fiuResize(const void* src, int srcWidth, int srcHeight, int srcStep,
              int type, void* dst, int dstWidth, int dstHeight, int dstStep,
              int method) {
  if (!utils::usable(src, dst, srcWidth, srcHeight, type) || dstWidth < 1 ||
      dstHeight < 1) {
    return 0;
  }
  const int channels = utils::channels(type);
  switch (method) {
    case kResizeNearest:
      resize_nearest(src, srcWidth, srcHeight, srcStep,
                     layout::pixel_bytes(type), dst, dstWidth, dstHeight,
                     dstStep);
      return 1;
    case kResizeBilinear:
      kResample<2>[utils::kind(type)](src, srcWidth, srcHeight, srcStep,
                                      channels, dst, dstWidth, dstHeight,
                                      dstStep);
      return 1;
    case kResizeCubic:
      kResample<4>[utils::kind(type)](src, srcWidth, srcHeight, srcStep,
                                      channels, dst, dstWidth, dstHeight,
                                      dstStep);
      return 1;
    default:
      return 0;
  }
}

int fiResize(const FVTImage& src, FVTImage& dst, int method) {
  if (method < kResizeNearest || method > kResizeCubic) return 0;
  return utils::into(
      src, dst, dst.width, dst.height, src.type, false, [&](FVTImage& out) {
        return fiuResize(src.data, src.width, src.height, src.step, src.type,
                         out.data, out.width, out.height, out.step, method);
      });
}

}  // namespace ff
