#include "ff/min_max_filter.h"

#include "softmatte/ff/ipf.h"

namespace ff {

namespace {

// Padding must never win the comparison.
constexpr unsigned char kMinPad = 255;
constexpr unsigned char kMaxPad = 0;

}  // namespace

void ipf_min_filter(const unsigned char* src, int width, int height,
                    int srcStep, int channels, unsigned char* dst, int dstStep,
                    int ksize, int iterations, int* border) {
  if (src == nullptr || dst == nullptr) return;
  _mm_filter_2D_wb(src, width, height, srcStep, channels, dst, dstStep, ksize,
                   iterations, kMinPad, _LE<unsigned char>(), border);
}

void ipf_max_filter(const unsigned char* src, int width, int height,
                    int srcStep, int channels, unsigned char* dst, int dstStep,
                    int ksize, int iterations, int* border) {
  if (src == nullptr || dst == nullptr) return;
  _mm_filter_2D_wb(src, width, height, srcStep, channels, dst, dstStep, ksize,
                   iterations, kMaxPad, _GR<unsigned char>(), border);
}

}  // namespace ff
