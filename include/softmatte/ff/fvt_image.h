#ifndef SOFTMATTE_FF_FVT_IMAGE_H_
#define SOFTMATTE_FF_FVT_IMAGE_H_

#include "softmatte/export.h"

namespace ff {

// A rectangle selecting a region of an image: left column, top row, size.
template <typename T>
struct RectT {
  T x;
  T y;
  T width;
  T height;
};

// Format word of an FVTImage: bits 0-3 element kind (0 s8, 1 u8, 2 s16,
// 3 u16, 4 s32, 5 f32), bits 4-7 bytes per element, bits 8-15 channels.
constexpr int kFormat8UC1 = 0x111;  // 273: masks, trimaps, mattes
constexpr int kFormat8UC3 = 0x311;  // 785: interleaved B, G, R

// The library's image container. Owns its pixels when flags bit 0 is set,
// otherwise it is a view on memory that somebody else keeps alive. All pixel
// memory comes from ff_alloc (array new) and goes back through ff_free.
// Bits 8-15 of flags are lock bits that nothing in the library consults.
class SOFTMATTE_API FVTImage {
 public:
  unsigned char* data;
  int width;
  int height;
  int step;  // bytes from one row to the next
  int type;  // format word
  int flags;

  // An empty, non-owning image of format 0.
  FVTImage();
  // Allocates rows of width pixels rounded up to a multiple of align bytes.
  FVTImage(int width, int height, int type, int align);
  // Owning deep copy with rows rounded up to a multiple of 4 bytes.
  FVTImage(const FVTImage& other);
  // Owning deep copy, also from a view; self-assignment does nothing.
  FVTImage& operator=(const FVTImage& other);
  ~FVTImage();

  // Allocates the new block first, then frees the old one if owned. The
  // image becomes the owner and any lock bits are dropped.
  void Reset(int width, int height, int type, int align);
  // Keeps everything when width, height and type are unchanged; otherwise
  // Reset with 4-byte row alignment.
  void ResetIf(int width, int height, int type);
  // Allocates exactly step * height bytes, taking step as given.
  void StepReset(int width, int height, int type, int step);
  // Views caller memory (note: format word before stride). Frees an owned
  // block first.
  void Attach(void* data, int width, int height, int type, int step);
  // Views the part of src inside rect; empty (format word kept) when the
  // clipped region is empty. Does nothing when src is this image.
  void AttachROI(const FVTImage& src, const RectT<int>& rect);
  // Exchanges all fields, ownership included.
  void Swap(FVTImage& other);
  // Frees an owned block and empties the image; the format word is kept.
  void Clear();
  bool IsExternData() const;
  void Lock(int bits);
  void Unlock(int bits);
  // Reinterprets the same bytes with another format and/or width (width < 1:
  // derive it from the row length). Regroups rows only when they are
  // contiguous and the total divides exactly; otherwise leaves the image.
  void Reshape(int type, int width);
};

// Array new of size bytes, uninitialised; failure is that of array new.
SOFTMATTE_API void* ff_alloc(unsigned long size);
// Array delete; null is ignored.
SOFTMATTE_API void ff_free(void* p);
SOFTMATTE_API void* fiAlloc(unsigned int size);
SOFTMATTE_API void fiFree(void* p);
// ff_alloc(step * height), the product taken in 32 bits.
SOFTMATTE_API void* fiAllocImageData(int step, int height);
// A block for an image of this shape with the constructor's stride rule.
SOFTMATTE_API void* fiAllocImageData(int width, int height, int type,
                                     int align);

// Process-wide registry of blocks freed together by ff_gfree_all. Not
// synchronised: call these from one thread at a time.
SOFTMATTE_API void* ff_galloc(unsigned long size);
// Deletes p (registered or not) and leaves a hole where it was registered.
SOFTMATTE_API void ff_gfree(void* p);
// Registers a callback for ff_gfree_all; null is ignored. Registering again
// after ff_gfree_all starts a new list.
SOFTMATTE_API void ff_add_gfree_func(void (*fn)());
// Deletes every registered block, then runs the callbacks in order.
SOFTMATTE_API void ff_gfree_all();
// Does nothing; kept for callers that still call it.
SOFTMATTE_API void enable_memory_leak_report(bool enable);

// Owner of one block from array new.
class SOFTMATTE_API ff_mem {
 public:
  ff_mem();
  ~ff_mem();
  ff_mem(const ff_mem&) = delete;
  ff_mem& operator=(const ff_mem&) = delete;
  // Deletes the held block and holds p instead.
  void set_mem(void* p);
  void* mem;
};

// Raw plane helpers. Sizes are in bytes; every helper does nothing when a
// plane pointer is null.

// Copies rows * rowBytes bytes; one memcpy when both strides equal rowBytes.
SOFTMATTE_API void ipf_memcpy_2d(const void* src, int rowBytes, int rows,
                                 int srcStep, void* dst, int dstStep);
// Copies a stack of planes row by row; nothing when planes or rows < 1.
SOFTMATTE_API void ipf_memcpy_3d(const void* src, int rowBytes, int rows,
                                 int planes, int srcStep, int srcPlaneStep,
                                 void* dst, int dstStep, int dstPlaneStep);
// Fills rows * rowBytes bytes; one memset when step equals rowBytes.
SOFTMATTE_API void ipf_memset_2d(void* dst, int rowBytes, int rows, int step,
                                 char value);
// Fills a stack of planes row by row; nothing when planes or rows < 1.
SOFTMATTE_API void ipf_memset_3d(const void* dst, int rowBytes, int rows,
                                 int planes, int step, int planeStep,
                                 char value);
// dst row i = src row rows - 1 - i.
SOFTMATTE_API void ipf_flip_vert(const void* src, int rowBytes, int rows,
                                 int srcStep, void* dst, int dstStep);
// Upside down in place.
SOFTMATTE_API void ipf_flip_vert(void* img, int rowBytes, int rows, int step);
// Mirrors each row; pixels are pixelBytes bytes (any size).
SOFTMATTE_API void ipf_flip_horz(const void* src, int width, int height,
                                 int srcStep, int pixelBytes, void* dst,
                                 int dstStep);
// Mirrors each row in place; rows of fewer than 2 pixels stay.
SOFTMATTE_API void ipf_flip_horz(void* img, int width, int height, int step,
                                 int pixelBytes);

}  // namespace ff

#endif  // SOFTMATTE_FF_FVT_IMAGE_H_
