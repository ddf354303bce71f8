#ifndef SOFTMATTE_FF_UTILS_H_
#define SOFTMATTE_FF_UTILS_H_

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "softmatte/export.h"
#include "softmatte/ff/fvt_image.h"

namespace ff {

// General image utilities: fi... work on FVTImage, fiu... on raw planes.
//
// A plane is pointer, width, height, stride in bytes, then the format word;
// a second plane of the same size follows as pointer and stride only.
// Every function returns 1 when it did its work and 0, writing nothing, on
// a null plane, a width or height below 1, or an unusable argument. The
// format word must be valid: element kind 0-5 (s8, u8, s16, u16, s32, f32)
// with its own byte count in bits 4-7, 1-255 channels and no bits above
// 15; only fiuCopy, which the FVTImage copy constructor relies on, moves the
// bytes of any format with a non-zero pixel size. Source and destination
// are either the same plane (where a function says it may run in place) or
// do not overlap.
//
// The fi... forms take the destination's size and format from what they
// produce: dst.ResetIf(...) leaves a matching image (or view) alone and
// otherwise reallocates it. Passing the same image as src and dst is always
// allowed; functions that cannot run in place then build a new image and
// swap it in.
//
// Conversions to an integer element round to nearest (halves away from
// zero) and saturate; NaN becomes 0. Conversions to float are those of C++
// (s32 values beyond 2^24 round to the nearest float).

// ---- Element types ----

// The element kind of a C++ type: signed char 0, unsigned char 1, short 2,
// unsigned short 3, int 4, float 5.
template <typename T>
struct fiElementKind;
template <>
struct fiElementKind<signed char> : std::integral_constant<int, 0> {};
template <>
struct fiElementKind<unsigned char> : std::integral_constant<int, 1> {};
template <>
struct fiElementKind<short> : std::integral_constant<int, 2> {};
template <>
struct fiElementKind<unsigned short> : std::integral_constant<int, 3> {};
template <>
struct fiElementKind<int> : std::integral_constant<int, 4> {};
template <>
struct fiElementKind<float> : std::integral_constant<int, 5> {};

// The format word of channels interleaved elements of type T.
template <typename T>
constexpr int fiFormat(int channels) {
  return fiElementKind<T>::value | static_cast<int>(sizeof(T) << 4) |
         (channels << 8);
}

// v converted to T: integers round to nearest (halves away from zero) and
// saturate, NaN gives 0; floating-point targets take the C++ conversion.
template <typename T, typename V>
T fiSaturate(V v) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(v);
  } else if constexpr (std::is_floating_point_v<V>) {
    const double d = static_cast<double>(v);
    if (!(d == d)) return 0;
    // Halves are decided in double, where adding 0.5 to any float is exact.
    const double r = d < 0 ? -std::floor(0.5 - d) : std::floor(d + 0.5);
    if (r <= static_cast<double>(std::numeric_limits<T>::min())) {
      return std::numeric_limits<T>::min();
    }
    if (r >= static_cast<double>(std::numeric_limits<T>::max())) {
      return std::numeric_limits<T>::max();
    }
    return static_cast<T>(r);
  } else {
    const int64_t x = static_cast<int64_t>(v);
    if (x < static_cast<int64_t>(std::numeric_limits<T>::min())) {
      return std::numeric_limits<T>::min();
    }
    if (x > static_cast<int64_t>(std::numeric_limits<T>::max())) {
      return std::numeric_limits<T>::max();
    }
    return static_cast<T>(x);
  }
}

// ---- Copy and fill ----

// Copies the row bytes of each of height rows of src into dst; any format
// with a non-zero pixel size.
SOFTMATTE_API int fiuCopy(const void* src, int width, int height, int srcStep,
                          int type, void* dst, int dstStep);
// Copies src into dst, which takes src's size and format.
SOFTMATTE_API int fiCopy(const FVTImage& src, FVTImage& dst);

// Sets every pixel of dst to the one pixel (in dst's format) at pixel.
SOFTMATTE_API int fiuFill(void* dst, int width, int height, int step, int type,
                          const void* pixel);
// Sets every pixel of img to pixel; 0 on an empty image.
SOFTMATTE_API int fiFill(FVTImage& img, const void* pixel);

// Copies src into dst of (width + left + right) x (height + top + bottom)
// pixels, border = {left, top, right, bottom} (null: none, negatives: 0
// returned); the border is the pixel at pixel, or the nearest edge pixel of
// src when pixel is null.
SOFTMATTE_API int fiuCopyBorder(const void* src, int width, int height,
                                int srcStep, int type, void* dst, int dstStep,
                                const int* border, const void* pixel);
SOFTMATTE_API int fiCopyBorder(const FVTImage& src, FVTImage& dst,
                               const int* border, const void* pixel);

// ---- Flips and tiling ----

constexpr int kFlipHorizontal = 1;  // mirror each row
constexpr int kFlipVertical = 2;    // upside down

// Flips src into dst as mode (a combination of the kFlip bits; 0 copies).
// Runs in place when dst == src, which then needs dstStep == srcStep.
SOFTMATTE_API int fiuFlip(const void* src, int width, int height, int srcStep,
                          int type, void* dst, int dstStep, int mode);
SOFTMATTE_API int fiFlip(const FVTImage& src, FVTImage& dst, int mode);

// Fills dst of dstWidth x dstHeight pixels with copies of src repeated from
// the top left corner: dst(x, y) = src(x % width, y % height).
SOFTMATTE_API int fiuTile(const void* src, int width, int height, int srcStep,
                          int type, void* dst, int dstWidth, int dstHeight,
                          int dstStep);
// Tiles src over dst, which keeps its size and takes src's format.
SOFTMATTE_API int fiTile(const FVTImage& src, FVTImage& dst);

// ---- Channels ----

// dst = src with channels a and b of every pixel exchanged (a == b copies);
// 0 when either is not a channel. Runs in place when dst == src.
SOFTMATTE_API int fiuSwapChannels(const void* src, int width, int height,
                                  int srcStep, int type, void* dst, int dstStep,
                                  int a, int b);
SOFTMATTE_API int fiSwapChannels(const FVTImage& src, FVTImage& dst, int a,
                                 int b);

// Copies channel srcChannel of src into channel dstChannel of dst; the
// other channels of dst stay. Both formats must have the same element.
SOFTMATTE_API int fiuCopyChannel(const void* src, int width, int height,
                                 int srcStep, int srcType, int srcChannel,
                                 void* dst, int dstStep, int dstType,
                                 int dstChannel);
// As fiuCopyChannel; dst must already have src's size and element.
SOFTMATTE_API int fiCopyChannel(const FVTImage& src, int srcChannel,
                                FVTImage& dst, int dstChannel);

// Writes the one-channel src into every one of channels channels of dst
// (same element kind).
SOFTMATTE_API int fiuGreyToColour(const void* src, int width, int height,
                                  int srcStep, int type, void* dst, int dstStep,
                                  int channels);
SOFTMATTE_API int fiGreyToColour(const FVTImage& src, FVTImage& dst,
                                 int channels);

// Luma of the first three channels of src, taken as B, G, R, into the
// one-channel dst of the same element: integers (29 B + 150 G + 77 R + 128)
// >> 8, floats 0.114 B + 0.587 G + 0.299 R in double. A grey pixel keeps its
// value exactly. 0 when src has fewer than 3 channels.
SOFTMATTE_API int fiuColourToGrey(const void* src, int width, int height,
                                  int srcStep, int type, void* dst,
                                  int dstStep);
SOFTMATTE_API int fiColourToGrey(const FVTImage& src, FVTImage& dst);

// ---- Depth casts ----

// Converts every element of src to dstType's element kind (fiSaturate);
// both formats need the same channel count.
SOFTMATTE_API int fiuConvert(const void* src, int width, int height,
                             int srcStep, int srcType, void* dst, int dstStep,
                             int dstType);
// dst takes src's size and channels with element kind kind (0-5).
SOFTMATTE_API int fiConvert(const FVTImage& src, FVTImage& dst, int kind);

// ---- Per-pixel transform ----

// Calls f(const TS* srcPixel, TD* dstPixel) for every pixel in raster order;
// f knows the channel counts. Strides are in bytes and must keep elements
// aligned. Runs in place when f allows it.
template <typename TS, typename TD, typename F>
int fiuTransform(const TS* src, int width, int height, int srcStep,
                 int srcChannels, TD* dst, int dstStep, int dstChannels,
                 F&& f) {
  if (src == nullptr || dst == nullptr || width < 1 || height < 1 ||
      srcChannels < 1 || dstChannels < 1) {
    return 0;
  }
  const auto* s = reinterpret_cast<const unsigned char*>(src);
  auto* d = reinterpret_cast<unsigned char*>(dst);
  for (int y = 0; y < height; ++y) {
    const TS* sp = reinterpret_cast<const TS*>(
        s + static_cast<std::ptrdiff_t>(srcStep) * y);
    TD* dp =
        reinterpret_cast<TD*>(d + static_cast<std::ptrdiff_t>(dstStep) * y);
    for (int x = 0; x < width; ++x, sp += srcChannels, dp += dstChannels) {
      f(sp, dp);
    }
  }
  return 1;
}

// As fiuTransform; src must hold TS elements, dst becomes an image of
// dstChannels TD elements of src's size. With &src == &dst and another
// format the result is built aside and swapped in.
template <typename TS, typename TD, typename F>
int fiTransform(const FVTImage& src, FVTImage& dst, int dstChannels, F&& f) {
  const int srcChannels = (src.type >> 8) & 255;
  if (src.type != fiFormat<TS>(srcChannels) || dstChannels < 1 ||
      dstChannels > 255) {
    return 0;
  }
  const int type = fiFormat<TD>(dstChannels);
  if (&src == &dst && type != src.type) {
    FVTImage out(src.width, src.height, type, 4);
    const int ok = fiuTransform(
        reinterpret_cast<const TS*>(src.data), src.width, src.height, src.step,
        srcChannels, reinterpret_cast<TD*>(out.data), out.step, dstChannels, f);
    if (ok) dst.Swap(out);
    return ok;
  }
  dst.ResetIf(src.width, src.height, type);
  return fiuTransform(
      reinterpret_cast<const TS*>(src.data), src.width, src.height, src.step,
      srcChannels, reinterpret_cast<TD*>(dst.data), dst.step, dstChannels, f);
}

// ---- Resizing ----

constexpr int kResizeNearest = 0;   // nearest pixel, copied as bytes
constexpr int kResizeBilinear = 1;  // 2 x 2 taps
constexpr int kResizeCubic = 2;     // 4 x 4 taps, Keys kernel a = -0.5

// Resizes src to dstWidth x dstHeight as method. Nearest copies the pixel at
// round(i * srcLen / dstLen) (ipf_calc_resize_tab_nn). Bilinear and cubic
// centre the grids (source x = (i + 0.5) * srcLen / dstLen - 0.5) and
// replicate edge pixels; 8-bit elements go through the fixed-point
// resampler, 16-bit and f32 through the float one, s32 through the double.
SOFTMATTE_API int fiuResize(const void* src, int srcWidth, int srcHeight,
                            int srcStep, int type, void* dst, int dstWidth,
                            int dstHeight, int dstStep, int method);
// Resizes src to dst's current size; dst takes src's format.
SOFTMATTE_API int fiResize(const FVTImage& src, FVTImage& dst, int method);

// Separable resampler templates behind fiuResize, usable directly. T is the
// element; Taps is 2 (bilinear) or 4 (cubic); W is the weight type: int for
// fixed point (kResampleFixedBits fraction bits, each axis' weights summing
// to exactly one) or float / double. Rows are filtered vertically into a
// scratch row, then horizontally; integer results round and saturate.
constexpr int kResampleFixedBits = 11;

// Kernel weight at distance x from a tap.
template <int Taps>
double fiResampleKernel(double x) {
  x = std::fabs(x);
  if constexpr (Taps == 2) {
    return x < 1 ? 1 - x : 0;
  } else {
    constexpr double a = -0.5;
    if (x <= 1) return ((a + 2) * x - (a + 3)) * x * x + 1;
    if (x < 2) return ((a * x - 5 * a) * x + 8 * a) * x - 4 * a;
    return 0;
  }
}

template <typename T, typename W, int Taps>
class fiResampler {
  static_assert(Taps == 2 || Taps == 4, "bilinear or cubic");
  static constexpr bool kFixed = std::is_integral_v<W>;
  // Fixed point: both axes of 8-bit values stay within 32 bits (1.25 is the
  // largest sum of cubic weight magnitudes); one axis of 16-bit values does
  // too, the second needs 64 bits.
  using Mid = W;
  using Acc = std::conditional_t<kFixed && (sizeof(T) > 1), int64_t, W>;

 public:
  fiResampler(int srcWidth, int srcHeight, int dstWidth, int dstHeight,
              int channels)
      : srcWidth_(srcWidth),
        dstWidth_(dstWidth),
        dstHeight_(dstHeight),
        channels_(channels) {
    Axis(srcWidth, dstWidth, channels, &xIndex_, &xWeight_);
    Axis(srcHeight, dstHeight, 1, &yIndex_, &yWeight_);
    row_.resize(static_cast<std::size_t>(srcWidth) * channels);
  }

  // Resamples src (the constructor's source size) into dst; strides in bytes,
  // any alignment.
  void Run(const T* src, int srcStep, T* dst, int dstStep) {
    const auto* s = reinterpret_cast<const unsigned char*>(src);
    auto* d = reinterpret_cast<unsigned char*>(dst);
    for (int y = 0; y < dstHeight_; ++y) {
      const unsigned char* rows[Taps];
      for (int k = 0; k < Taps; ++k) {
        rows[k] = s + static_cast<std::ptrdiff_t>(srcStep) *
                          yIndex_[static_cast<std::size_t>(y) * Taps + k];
      }
      Vertical(rows, yWeight_.data() + static_cast<std::size_t>(y) * Taps,
               srcWidth_ * channels_, row_.data());
      Horizontal(row_.data(), xIndex_.data(), xWeight_.data(), dstWidth_,
                 channels_, d + static_cast<std::ptrdiff_t>(dstStep) * y);
    }
  }

 private:
  static void Vertical(const unsigned char* const* rows, const W* weights,
                       int n, Mid* row) {
    const W w0 = weights[0], w1 = weights[1];
    const W w2 = Taps == 4 ? weights[2] : W{0};
    const W w3 = Taps == 4 ? weights[3] : W{0};
    int j = 0;
    for (; j + kBlock <= n; j += kBlock) {
      const std::size_t at = sizeof(T) * j;
      Blend<kBlock>(rows[0] + at, rows[1] + at, rows[Taps - 2] + at,
                    rows[Taps - 1] + at, w0, w1, w2, w3, row + j);
    }
    const std::size_t at = sizeof(T) * j;
    Blend<1>(rows[0] + at, rows[1] + at, rows[Taps - 2] + at,
             rows[Taps - 1] + at, w0, w1, w2, w3, row + j, n - j);
  }

  // Restrict parameters and a fixed trip count: compilers at their cheapest
  // vectoriser settings leave the blend scalar without either.
  static constexpr int kBlock = 16;

  template <int N>
  static void Blend(const unsigned char* __restrict r0,
                    const unsigned char* __restrict r1,
                    const unsigned char* __restrict r2,
                    const unsigned char* __restrict r3, W w0, W w1, W w2, W w3,
                    Mid* __restrict out, int count = N) {
    for (int i = 0; i < (N > 1 ? N : count); ++i) {
      const std::size_t at = sizeof(T) * i;
      Mid a = w0 * static_cast<Mid>(Load(r0 + at)) +
              w1 * static_cast<Mid>(Load(r1 + at));
      if constexpr (Taps == 4) {
        a = a + w2 * static_cast<Mid>(Load(r2 + at)) +
            w3 * static_cast<Mid>(Load(r3 + at));
      }
      out[i] = a;
    }
  }

  static void Horizontal(const Mid* __restrict row, const int* index,
                         const W* weight, int width, int channels,
                         unsigned char* __restrict out) {
    for (int x = 0; x < width; ++x, index += Taps, weight += Taps) {
      const Mid* p0 = row + index[0];
      const Mid* p1 = row + index[1];
      const Acc w0 = weight[0], w1 = weight[1];
      for (int c = 0; c < channels; ++c, out += sizeof(T)) {
        Acc a = w0 * static_cast<Acc>(p0[c]) + w1 * static_cast<Acc>(p1[c]);
        if constexpr (Taps == 4) {
          a +=
              static_cast<Acc>(weight[2]) *
                  static_cast<Acc>(row[index[2] + c]) +
              static_cast<Acc>(weight[3]) * static_cast<Acc>(row[index[3] + c]);
        }
        const T v = Finish(a);
        std::memcpy(out, &v, sizeof(T));
      }
    }
  }

  // memcpy: callers' strides need not keep wider elements aligned.
  static T Load(const unsigned char* p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
  }

  static T Finish(Acc a) {
    if constexpr (kFixed) {
      constexpr int shift = 2 * kResampleFixedBits;
      // The shift floors negative sums too, so halves always round up.
      return fiSaturate<T>((a + (Acc{1} << (shift - 1))) >> shift);
    } else {
      return fiSaturate<T>(a);
    }
  }

  // Taps clamped source indices (times scale) and weights per destination
  // index; fixed-point weights are nudged so that each set sums to one.
  static void Axis(int srcLen, int dstLen, int scale, std::vector<int>* index,
                   std::vector<W>* weight) {
    index->resize(static_cast<std::size_t>(dstLen) * Taps);
    weight->resize(index->size());
    const double ratio = static_cast<double>(srcLen) / dstLen;
    for (int i = 0; i < dstLen; ++i) {
      const double centre = (i + 0.5) * ratio - 0.5;
      const double base = std::floor(centre);
      const int first = static_cast<int>(base) - (Taps / 2 - 1);
      int* idx = index->data() + static_cast<std::size_t>(i) * Taps;
      W* w = weight->data() + static_cast<std::size_t>(i) * Taps;
      int sum = 0;
      int largest = 0;
      for (int k = 0; k < Taps; ++k) {
        const int at = first + k;
        idx[k] = (at < 0 ? 0 : at >= srcLen ? srcLen - 1 : at) * scale;
        const double v = fiResampleKernel<Taps>(centre - at);
        if constexpr (kFixed) {
          w[k] = static_cast<W>(std::lround(v * (1 << kResampleFixedBits)));
          sum += w[k];
          if (w[k] > w[largest]) largest = k;
        } else {
          w[k] = static_cast<W>(v);
        }
      }
      if constexpr (kFixed) w[largest] += (1 << kResampleFixedBits) - sum;
    }
  }

  int srcWidth_, dstWidth_, dstHeight_, channels_;
  std::vector<int> xIndex_, yIndex_;
  std::vector<W> xWeight_, yWeight_;
  std::vector<Mid> row_;
};

// Fixed-point resampler: within one step of the exact result for 8-bit
// elements; 16-bit ones would see the 2^-12 rounding of the weights.
template <typename T, int Taps>
using fiFixedResampler = fiResampler<T, int, Taps>;
// Floating-point resampler: W float or double.
template <typename T, typename W, int Taps>
using fiFloatResampler = fiResampler<T, W, Taps>;

}  // namespace ff

#endif  // SOFTMATTE_FF_UTILS_H_
