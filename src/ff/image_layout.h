#ifndef SOFTMATTE_SRC_FF_IMAGE_LAYOUT_H_
#define SOFTMATTE_SRC_FF_IMAGE_LAYOUT_H_

// Row and stride arithmetic of FVTImage, shared by the image class, the
// allocation functions and the pixel copy. All of it wraps in 32 bits, as
// image sizes always have here; the products are taken unsigned so that
// absurd sizes give the wrapped bits instead of signed overflow.

namespace ff {
namespace layout {

inline int wrap_mul(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) * static_cast<unsigned>(b));
}

// Bytes per pixel of a format word: element size times channels.
inline int pixel_bytes(int type) {
  return ((type >> 4) & 15) * ((type >> 8) & 255);
}

// Bytes in one row of width pixels.
inline int row_bytes(int type, int width) {
  return wrap_mul(pixel_bytes(type), width);
}

// The row length rounded up to a multiple of align. Align 0 yields 0 for
// every row and -1 the row length itself; callers rely on neither, but
// these are the values the rule has always given.
inline int stride(int type, int width, int align) {
  const int bytes = row_bytes(type, width);
  if (align == 0) return 0;
  if (align == -1) return bytes;
  const int q = bytes / align;
  if (q * align == bytes) return bytes;
  return wrap_mul(q + 1, align);
}

}  // namespace layout
}  // namespace ff

#endif  // SOFTMATTE_SRC_FF_IMAGE_LAYOUT_H_
