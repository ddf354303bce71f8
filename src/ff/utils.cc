#include "softmatte/ff/utils.h"

#include <cstdint>
#include <cstring>

#include "ff/image_layout.h"
#include "ff/utils_internal.h"
#include "softmatte/ff/fvt_image.h"

namespace ff {

namespace {

using Byte = unsigned char;
using utils::offset;

const Byte* row_at(const void* plane, int step, int y) {
  return static_cast<const Byte*>(plane) + offset(step, y);
}
Byte* row_at(void* plane, int step, int y) {
  return static_cast<Byte*>(plane) + offset(step, y);
}

// Writes count copies of the pixel of pixelBytes bytes, doubling the filled
// run so that wide rows take a few large copies instead of many tiny ones.
void fill_pixels(Byte* dst, int count, int pixelBytes, const void* pixel) {
  if (count < 1) return;
  std::memcpy(dst, pixel, pixelBytes);
  std::size_t done = pixelBytes;
  const std::size_t total = static_cast<std::size_t>(count) * pixelBytes;
  while (done < total) {
    const std::size_t n = done < total - done ? done : total - done;
    std::memcpy(dst + done, dst, n);
    done += n;
  }
}

template <typename TS, typename TD>
void convert_rows(const void* src, int width, int height, int srcStep,
                  int channels, void* dst, int dstStep) {
  const int n = width * channels;
  for (int y = 0; y < height; ++y) {
    const Byte* s = row_at(src, srcStep, y);
    Byte* d = row_at(dst, dstStep, y);
    for (int i = 0; i < n; ++i) {
      // memcpy: callers' strides need not keep wider elements aligned.
      TS v;
      std::memcpy(&v, s + sizeof(TS) * i, sizeof(TS));
      const TD out = fiSaturate<TD>(v);
      std::memcpy(d + sizeof(TD) * i, &out, sizeof(TD));
    }
  }
}

using ConvertFn = void (*)(const void*, int, int, int, int, void*, int);

template <typename TS>
constexpr ConvertFn kConvertFrom[6] = {
    convert_rows<TS, signed char>, convert_rows<TS, unsigned char>,
    convert_rows<TS, short>,       convert_rows<TS, unsigned short>,
    convert_rows<TS, int>,         convert_rows<TS, float>};

constexpr const ConvertFn* kConvert[6] = {
    kConvertFrom<signed char>, kConvertFrom<unsigned char>,
    kConvertFrom<short>,       kConvertFrom<unsigned short>,
    kConvertFrom<int>,         kConvertFrom<float>};

// The integer weights sum to 256 and the double ones to 1 within far less
// than a float's half unit, so a grey pixel comes back unchanged.
template <typename T>
T luma(T b, T g, T r) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(0.114 * b + 0.587 * g + 0.299 * r);
  } else {
    const int64_t sum = int64_t{29} * b + int64_t{150} * g + int64_t{77} * r;
    return static_cast<T>((sum + 128) >> 8);
  }
}

template <typename T>
void grey_rows(const void* src, int width, int height, int srcStep,
               int channels, void* dst, int dstStep) {
  for (int y = 0; y < height; ++y) {
    const Byte* s = row_at(src, srcStep, y);
    Byte* d = row_at(dst, dstStep, y);
    for (int x = 0; x < width; ++x) {
      T bgr[3];
      std::memcpy(bgr, s + sizeof(T) * channels * x, sizeof(bgr));
      const T v = luma(bgr[0], bgr[1], bgr[2]);
      std::memcpy(d + sizeof(T) * x, &v, sizeof(T));
    }
  }
}

using GreyFn = void (*)(const void*, int, int, int, int, void*, int);
constexpr GreyFn kGrey[6] = {grey_rows<signed char>, grey_rows<unsigned char>,
                             grey_rows<short>,       grey_rows<unsigned short>,
                             grey_rows<int>,         grey_rows<float>};

}  // namespace

int fiuCopy(const void* src, int width, int height, int srcStep, int type,
            void* dst, int dstStep) {
  const int rowBytes = layout::row_bytes(type, width);
  if (src == nullptr || dst == nullptr || width < 1 || height < 1 ||
      rowBytes < 1) {
    return 0;
  }
  ipf_memcpy_2d(src, rowBytes, height, srcStep, dst, dstStep);
  return 1;
}

int fiCopy(const FVTImage& src, FVTImage& dst) {
  if (src.data == nullptr || &src == &dst) return src.data != nullptr;
  dst.ResetIf(src.width, src.height, src.type);
  return fiuCopy(src.data, src.width, src.height, src.step, src.type, dst.data,
                 dst.step);
}

int fiuFill(void* dst, int width, int height, int step, int type,
            const void* pixel) {
  if (!utils::usable(dst, pixel, width, height, type)) return 0;
  const int pixelBytes = layout::pixel_bytes(type);
  Byte* first = row_at(dst, step, 0);
  fill_pixels(first, width, pixelBytes, pixel);
  for (int y = 1; y < height; ++y) {
    std::memcpy(row_at(dst, step, y), first,
                static_cast<std::size_t>(width) * pixelBytes);
  }
  return 1;
}

int fiFill(FVTImage& img, const void* pixel) {
  return fiuFill(img.data, img.width, img.height, img.step, img.type, pixel);
}

int fiuCopyBorder(const void* src, int width, int height, int srcStep, int type,
                  void* dst, int dstStep, const int* border,
                  const void* pixel) {
  if (!utils::usable(src, dst, width, height, type)) return 0;
  const int zero[4] = {0, 0, 0, 0};
  if (border == nullptr) border = zero;
  const int left = border[0], top = border[1], right = border[2],
            bottom = border[3];
  if (left < 0 || top < 0 || right < 0 || bottom < 0) return 0;
  const int pb = layout::pixel_bytes(type);
  const std::size_t rowBytes = static_cast<std::size_t>(width) * pb;
  for (int y = 0; y < height; ++y) {
    const Byte* s = row_at(src, srcStep, y);
    Byte* d = row_at(dst, dstStep, top + y);
    fill_pixels(d, left, pb, pixel != nullptr ? pixel : s);
    std::memcpy(d + offset(pb, left), s, rowBytes);
    fill_pixels(d + offset(pb, left + width), right, pb,
                pixel != nullptr ? pixel : s + rowBytes - pb);
  }
  const int fullWidth = left + width + right;
  const std::size_t fullBytes = static_cast<std::size_t>(fullWidth) * pb;
  // Constant rows are filled once and copied; replicated ones copy the
  // nearest finished row.
  for (int y = 0; y < top; ++y) {
    Byte* d = row_at(dst, dstStep, y);
    if (pixel != nullptr && y > 0) {
      std::memcpy(d, row_at(dst, dstStep, 0), fullBytes);
    } else if (pixel != nullptr) {
      fill_pixels(d, fullWidth, pb, pixel);
    } else {
      std::memcpy(d, row_at(dst, dstStep, top), fullBytes);
    }
  }
  for (int y = top + height; y < top + height + bottom; ++y) {
    Byte* d = row_at(dst, dstStep, y);
    if (pixel != nullptr) {
      fill_pixels(d, fullWidth, pb, pixel);
    } else {
      std::memcpy(d, row_at(dst, dstStep, top + height - 1), fullBytes);
    }
  }
  return 1;
}

int fiCopyBorder(const FVTImage& src, FVTImage& dst, const int* border,
                 const void* pixel) {
  const int zero[4] = {0, 0, 0, 0};
  const int* b = border != nullptr ? border : zero;
  if (b[0] < 0 || b[1] < 0 || b[2] < 0 || b[3] < 0) return 0;
  return utils::into(
      src, dst, src.width + b[0] + b[2], src.height + b[1] + b[3], src.type,
      false, [&](FVTImage& out) {
        return fiuCopyBorder(src.data, src.width, src.height, src.step,
                             src.type, out.data, out.step, b, pixel);
      });
}

int fiuFlip(const void* src, int width, int height, int srcStep, int type,
            void* dst, int dstStep, int mode) {
  if (!utils::usable(src, dst, width, height, type) || (mode & ~3) != 0) {
    return 0;
  }
  const int pb = layout::pixel_bytes(type);
  const int rowBytes = layout::row_bytes(type, width);
  const bool horizontal = (mode & kFlipHorizontal) != 0;
  const bool vertical = (mode & kFlipVertical) != 0;
  if (src == dst) {
    if (srcStep != dstStep) return 0;
    if (horizontal) ipf_flip_horz(dst, width, height, dstStep, pb);
    if (vertical) ipf_flip_vert(dst, rowBytes, height, dstStep);
    return 1;
  }
  if (horizontal) {
    ipf_flip_horz(src, width, height, srcStep, pb, dst, dstStep);
    if (vertical) ipf_flip_vert(dst, rowBytes, height, dstStep);
  } else if (vertical) {
    ipf_flip_vert(src, rowBytes, height, srcStep, dst, dstStep);
  } else {
    ipf_memcpy_2d(src, rowBytes, height, srcStep, dst, dstStep);
  }
  return 1;
}

int fiFlip(const FVTImage& src, FVTImage& dst, int mode) {
  return utils::into(src, dst, src.width, src.height, src.type, true,
                     [&](FVTImage& out) {
                       return fiuFlip(src.data, src.width, src.height, src.step,
                                      src.type, out.data, out.step, mode);
                     });
}

int fiuTile(const void* src, int width, int height, int srcStep, int type,
            void* dst, int dstWidth, int dstHeight, int dstStep) {
  if (!utils::usable(src, dst, width, height, type) || dstWidth < 1 ||
      dstHeight < 1) {
    return 0;
  }
  const int pb = layout::pixel_bytes(type);
  const std::size_t dstBytes = static_cast<std::size_t>(dstWidth) * pb;
  for (int y = 0; y < dstHeight; ++y) {
    Byte* d = row_at(dst, dstStep, y);
    if (y >= height) {
      std::memcpy(d, row_at(dst, dstStep, y - height), dstBytes);
      continue;
    }
    const Byte* s = row_at(src, srcStep, y);
    for (int x = 0; x < dstWidth; x += width) {
      const int n = dstWidth - x < width ? dstWidth - x : width;
      std::memcpy(d + offset(pb, x), s, static_cast<std::size_t>(n) * pb);
    }
  }
  return 1;
}

int fiTile(const FVTImage& src, FVTImage& dst) {
  return utils::into(
      src, dst, dst.width, dst.height, src.type, false, [&](FVTImage& out) {
        return fiuTile(src.data, src.width, src.height, src.step, src.type,
                       out.data, out.width, out.height, out.step);
      });
}

int fiuSwapChannels(const void* src, int width, int height, int srcStep,
                    int type, void* dst, int dstStep, int a, int b) {
  const int channels = utils::channels(type);
  if (!utils::usable(src, dst, width, height, type) || a < 0 || b < 0 ||
      a >= channels || b >= channels || (src == dst && srcStep != dstStep)) {
    return 0;
  }
  const int eb = utils::element_bytes(type);
  const int pb = eb * channels;
  for (int y = 0; y < height; ++y) {
    const Byte* s = row_at(src, srcStep, y);
    Byte* d = row_at(dst, dstStep, y);
    for (int x = 0; x < width; ++x) {
      Byte pixel[255 * 4];
      std::memcpy(pixel, s + offset(pb, x), pb);
      Byte* out = d + offset(pb, x);
      std::memcpy(out, pixel, pb);
      std::memcpy(out + eb * a, pixel + eb * b, eb);
      std::memcpy(out + eb * b, pixel + eb * a, eb);
    }
  }
  return 1;
}

int fiSwapChannels(const FVTImage& src, FVTImage& dst, int a, int b) {
  return utils::into(
      src, dst, src.width, src.height, src.type, true, [&](FVTImage& out) {
        return fiuSwapChannels(src.data, src.width, src.height, src.step,
                               src.type, out.data, out.step, a, b);
      });
}

int fiuCopyChannel(const void* src, int width, int height, int srcStep,
                   int srcType, int srcChannel, void* dst, int dstStep,
                   int dstType, int dstChannel) {
  if (!utils::usable(src, dst, width, height, srcType) ||
      !utils::valid_format(dstType) || (srcType & 255) != (dstType & 255) ||
      srcChannel < 0 || srcChannel >= utils::channels(srcType) ||
      dstChannel < 0 || dstChannel >= utils::channels(dstType)) {
    return 0;
  }
  const int eb = utils::element_bytes(srcType);
  const int srcPb = layout::pixel_bytes(srcType);
  const int dstPb = layout::pixel_bytes(dstType);
  for (int y = 0; y < height; ++y) {
    const Byte* s = row_at(src, srcStep, y) + eb * srcChannel;
    Byte* d = row_at(dst, dstStep, y) + eb * dstChannel;
    for (int x = 0; x < width; ++x) {
      std::memmove(d + offset(dstPb, x), s + offset(srcPb, x), eb);
    }
  }
  return 1;
}

int fiCopyChannel(const FVTImage& src, int srcChannel, FVTImage& dst,
                  int dstChannel) {
  if (dst.width != src.width || dst.height != src.height) return 0;
  return fiuCopyChannel(src.data, src.width, src.height, src.step, src.type,
                        srcChannel, dst.data, dst.step, dst.type, dstChannel);
}

int fiuGreyToColour(const void* src, int width, int height, int srcStep,
                    int type, void* dst, int dstStep, int channels) {
  if (!utils::usable(src, dst, width, height, type) ||
      utils::channels(type) != 1 || channels < 1 || channels > 255) {
    return 0;
  }
  const int eb = utils::element_bytes(type);
  for (int y = 0; y < height; ++y) {
    const Byte* s = row_at(src, srcStep, y);
    Byte* d = row_at(dst, dstStep, y);
    for (int x = 0; x < width; ++x) {
      fill_pixels(d + offset(eb * channels, x), channels, eb,
                  s + offset(eb, x));
    }
  }
  return 1;
}

int fiGreyToColour(const FVTImage& src, FVTImage& dst, int channels) {
  if (channels < 1 || channels > 255) return 0;
  return utils::into(
      src, dst, src.width, src.height, (src.type & 255) | (channels << 8),
      false, [&](FVTImage& out) {
        return fiuGreyToColour(src.data, src.width, src.height, src.step,
                               src.type, out.data, out.step, channels);
      });
}

int fiuColourToGrey(const void* src, int width, int height, int srcStep,
                    int type, void* dst, int dstStep) {
  if (!utils::usable(src, dst, width, height, type) ||
      utils::channels(type) < 3) {
    return 0;
  }
  kGrey[utils::kind(type)](src, width, height, srcStep, utils::channels(type),
                           dst, dstStep);
  return 1;
}

int fiColourToGrey(const FVTImage& src, FVTImage& dst) {
  return utils::into(src, dst, src.width, src.height, (src.type & 255) | 0x100,
                     false, [&](FVTImage& out) {
                       return fiuColourToGrey(src.data, src.width, src.height,
                                              src.step, src.type, out.data,
                                              out.step);
                     });
}

int fiuConvert(const void* src, int width, int height, int srcStep, int srcType,
               void* dst, int dstStep, int dstType) {
  if (!utils::usable(src, dst, width, height, srcType) ||
      !utils::valid_format(dstType) ||
      utils::channels(srcType) != utils::channels(dstType)) {
    return 0;
  }
  kConvert[utils::kind(srcType)][utils::kind(dstType)](
      src, width, height, srcStep, utils::channels(srcType), dst, dstStep);
  return 1;
}

int fiConvert(const FVTImage& src, FVTImage& dst, int kind) {
  static constexpr int kBytes[6] = {1, 1, 2, 2, 4, 4};
  if (kind < 0 || kind > 5) return 0;
  const int type = (src.type & 0xff00) | (kBytes[kind] << 4) | kind;
  return utils::into(
      src, dst, src.width, src.height, type, false, [&](FVTImage& out) {
        return fiuConvert(src.data, src.width, src.height, src.step, src.type,
                          out.data, out.step, out.type);
      });
}

}  // namespace ff
