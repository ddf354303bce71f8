#include <cstddef>
#include <cstring>
#include <memory>

#include "softmatte/ff/fvt_image.h"

namespace ff {

namespace {

using Byte = unsigned char;

// Offsets in pointer width: step * row overflows 32 bits on large stacks.
std::ptrdiff_t offset(int step, int index) {
  return static_cast<std::ptrdiff_t>(step) * index;
}

// Fixed-size memcpy compiles to single loads and stores and, unlike a cast
// to a wider type, is safe on unaligned rows.
template <int N>
void mirror_row(const Byte* src, int width, Byte* dst) {
  for (int x = 0; x < width; ++x) {
    std::memcpy(dst + offset(N, x), src + offset(N, width - 1 - x), N);
  }
}

void mirror_row_any(const Byte* src, int width, int pixelBytes, Byte* dst) {
  for (int x = 0; x < width; ++x) {
    std::memcpy(dst + offset(pixelBytes, x),
                src + offset(pixelBytes, width - 1 - x), pixelBytes);
  }
}

template <int N>
void reverse_row(Byte* row, int width) {
  Byte* left = row;
  Byte* right = row + offset(N, width - 1);
  for (int i = 0; i < width / 2; ++i, left += N, right -= N) {
    Byte t[N];
    std::memcpy(t, left, N);
    std::memcpy(left, right, N);
    std::memcpy(right, t, N);
  }
}

void reverse_row_any(Byte* row, int width, int pixelBytes, Byte* scratch) {
  Byte* left = row;
  Byte* right = row + offset(pixelBytes, width - 1);
  for (int i = 0; i < width / 2; ++i, left += pixelBytes, right -= pixelBytes) {
    std::memcpy(scratch, left, pixelBytes);
    std::memcpy(left, right, pixelBytes);
    std::memcpy(right, scratch, pixelBytes);
  }
}

template <int N>
void mirror_plane(const Byte* src, int width, int height, int srcStep,
                  Byte* dst, int dstStep) {
  for (int y = 0; y < height; ++y) {
    mirror_row<N>(src + offset(srcStep, y), width, dst + offset(dstStep, y));
  }
}

template <int N>
void reverse_plane(Byte* img, int width, int height, int step) {
  for (int y = 0; y < height; ++y) reverse_row<N>(img + offset(step, y), width);
}

}  // namespace

void ipf_memcpy_2d(const void* src, int rowBytes, int rows, int srcStep,
                   void* dst, int dstStep) {
  if (src == nullptr || dst == nullptr) return;
  // Negative sizes would reach memcpy as huge unsigned counts.
  if (rowBytes < 1 || rows < 1) return;
  const Byte* s = static_cast<const Byte*>(src);
  Byte* d = static_cast<Byte*>(dst);
  if (srcStep == rowBytes && dstStep == rowBytes) {
    std::memcpy(d, s, static_cast<std::size_t>(offset(srcStep, rows)));
    return;
  }
  for (int y = 0; y < rows; ++y) {
    std::memcpy(d + offset(dstStep, y), s + offset(srcStep, y),
                static_cast<std::size_t>(rowBytes));
  }
}

void ipf_memcpy_3d(const void* src, int rowBytes, int rows, int planes,
                   int srcStep, int srcPlaneStep, void* dst, int dstStep,
                   int dstPlaneStep) {
  if (src == nullptr || dst == nullptr || planes < 1 || rows < 1) return;
  if (rowBytes < 1) return;
  const Byte* s = static_cast<const Byte*>(src);
  Byte* d = static_cast<Byte*>(dst);
  for (int p = 0; p < planes; ++p) {
    const Byte* sp = s + offset(srcPlaneStep, p);
    Byte* dp = d + offset(dstPlaneStep, p);
    for (int y = 0; y < rows; ++y) {
      std::memcpy(dp + offset(dstStep, y), sp + offset(srcStep, y),
                  static_cast<std::size_t>(rowBytes));
    }
  }
}

void ipf_memset_2d(void* dst, int rowBytes, int rows, int step, char value) {
  if (dst == nullptr || rowBytes < 1 || rows < 1) return;
  Byte* d = static_cast<Byte*>(dst);
  if (step == rowBytes) {
    std::memset(d, value, static_cast<std::size_t>(offset(rowBytes, rows)));
    return;
  }
  for (int y = 0; y < rows; ++y) {
    std::memset(d + offset(step, y), value, static_cast<std::size_t>(rowBytes));
  }
}

void ipf_memset_3d(const void* dst, int rowBytes, int rows, int planes,
                   int step, int planeStep, char value) {
  if (dst == nullptr || planes < 1 || rows < 1 || rowBytes < 1) return;
  // The public signature takes the destination as const; it is written all
  // the same.
  Byte* d = static_cast<Byte*>(const_cast<void*>(dst));
  for (int p = 0; p < planes; ++p) {
    Byte* dp = d + offset(planeStep, p);
    for (int y = 0; y < rows; ++y) {
      std::memset(dp + offset(step, y), value,
                  static_cast<std::size_t>(rowBytes));
    }
  }
}

void ipf_flip_vert(const void* src, int rowBytes, int rows, int srcStep,
                   void* dst, int dstStep) {
  if (src == nullptr || dst == nullptr || rows < 1 || rowBytes < 1) return;
  const Byte* s = static_cast<const Byte*>(src);
  Byte* d = static_cast<Byte*>(dst);
  for (int y = 0; y < rows; ++y) {
    std::memcpy(d + offset(dstStep, y), s + offset(srcStep, rows - 1 - y),
                static_cast<std::size_t>(rowBytes));
  }
}

void ipf_flip_vert(void* img, int rowBytes, int rows, int step) {
  if (img == nullptr || rowBytes < 1) return;
  if (offset(step, rows - 1) < 1) return;
  Byte* base = static_cast<Byte*>(img);
  std::unique_ptr<Byte[]> scratch(new Byte[rowBytes]);
  const std::size_t n = static_cast<std::size_t>(rowBytes);
  for (int top = 0, bottom = rows - 1; top < bottom; ++top, --bottom) {
    Byte* upper = base + offset(step, top);
    Byte* lower = base + offset(step, bottom);
    std::memcpy(scratch.get(), upper, n);
    std::memcpy(upper, lower, n);
    std::memcpy(lower, scratch.get(), n);
  }
}

void ipf_flip_horz(const void* src, int width, int height, int srcStep,
                   int pixelBytes, void* dst, int dstStep) {
  if (src == nullptr || dst == nullptr || pixelBytes < 1) return;
  if (width < 1 || height < 1) return;
  const Byte* s = static_cast<const Byte*>(src);
  Byte* d = static_cast<Byte*>(dst);
  switch (pixelBytes) {
    case 1:
      mirror_plane<1>(s, width, height, srcStep, d, dstStep);
      return;
    case 2:
      mirror_plane<2>(s, width, height, srcStep, d, dstStep);
      return;
    case 3:
      mirror_plane<3>(s, width, height, srcStep, d, dstStep);
      return;
    case 4:
      mirror_plane<4>(s, width, height, srcStep, d, dstStep);
      return;
    default:
      for (int y = 0; y < height; ++y) {
        mirror_row_any(s + offset(srcStep, y), width, pixelBytes,
                       d + offset(dstStep, y));
      }
  }
}

void ipf_flip_horz(void* img, int width, int height, int step, int pixelBytes) {
  if (img == nullptr || pixelBytes < 1 || width < 2 || height < 1) return;
  Byte* p = static_cast<Byte*>(img);
  switch (pixelBytes) {
    case 1:
      reverse_plane<1>(p, width, height, step);
      return;
    case 2:
      reverse_plane<2>(p, width, height, step);
      return;
    case 3:
      reverse_plane<3>(p, width, height, step);
      return;
    case 4:
      reverse_plane<4>(p, width, height, step);
      return;
    default: {
      std::unique_ptr<Byte[]> scratch(new Byte[pixelBytes]);
      for (int y = 0; y < height; ++y) {
        reverse_row_any(p + offset(step, y), width, pixelBytes, scratch.get());
      }
    }
  }
}

}  // namespace ff
