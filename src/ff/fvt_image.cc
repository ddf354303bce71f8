#include "softmatte/ff/fvt_image.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "ff/image_layout.h"
#include "softmatte/ff/utils.h"

namespace ff {

namespace {

constexpr int kOwner = 1;
constexpr int kLockBits = 0xff00;
// Rows of copies and of ResetIf are padded to 4 bytes, what the matting code
// expects of every image it makes.
constexpr int kDefaultAlign = 4;

unsigned char* allocate(int step, int height) {
  return static_cast<unsigned char*>(fiAllocImageData(step, height));
}

}  // namespace

FVTImage::FVTImage()
    : data(nullptr), width(0), height(0), step(0), type(0), flags(0) {}

FVTImage::FVTImage(int new_width, int new_height, int new_type, int align)
    : FVTImage() {
  Reset(new_width, new_height, new_type, align);
}

FVTImage::FVTImage(const FVTImage& other) : FVTImage() {
  Reset(other.width, other.height, other.type, kDefaultAlign);
  fiCopy(other, *this);
}

FVTImage& FVTImage::operator=(const FVTImage& other) {
  if (this == &other) return *this;
  // Built aside first: if allocation throws, this image stays as it was.
  FVTImage copy(other);
  Swap(copy);
  return *this;
}

FVTImage::~FVTImage() {
  if ((flags & kOwner) != 0 && data != nullptr) ff_free(data);
}

void FVTImage::Reset(int new_width, int new_height, int new_type, int align) {
  StepReset(new_width, new_height, new_type,
            layout::stride(new_type, new_width, align));
}

void FVTImage::ResetIf(int new_width, int new_height, int new_type) {
  // Images reset to the same shape on every run keep their memory, and a
  // view stays a view.
  if (new_width == width && new_height == height && new_type == type) return;
  Reset(new_width, new_height, new_type, kDefaultAlign);
}

void FVTImage::StepReset(int new_width, int new_height, int new_type,
                         int new_step) {
  unsigned char* block = allocate(new_step, new_height);
  if ((flags & kOwner) != 0) ff_free(data);
  data = block;
  width = new_width;
  height = new_height;
  step = new_step;
  type = new_type;
  flags = kOwner;
}

void FVTImage::Attach(void* pixels, int new_width, int new_height, int new_type,
                      int new_step) {
  if ((flags & kOwner) != 0) ff_free(data);
  data = static_cast<unsigned char*>(pixels);
  width = new_width;
  height = new_height;
  step = new_step;
  type = new_type;
  flags = 0;
}

void FVTImage::AttachROI(const FVTImage& src, const RectT<int>& rect) {
  if (this == &src) return;
  // Sums in 64 bits: a rectangle reaching past INT_MAX is simply clipped.
  const std::int64_t bottom = std::int64_t{rect.y} + rect.height;
  const std::int64_t right = std::int64_t{rect.x} + rect.width;
  const int y0 = std::max(rect.y, 0);
  const int x0 = std::max(rect.x, 0);
  const std::int64_t y1 = std::min<std::int64_t>(bottom, src.height);
  const std::int64_t x1 = std::min<std::int64_t>(right, src.width);
  const bool empty = rect.y >= src.height || rect.x >= src.width ||
                     bottom <= y0 || right <= x0 || y1 - y0 < 1 || x1 - x0 < 1;

  if ((flags & kOwner) != 0) ff_free(data);
  flags = 0;
  if (empty) {
    // The format word survives, as in Clear.
    data = nullptr;
    width = height = step = 0;
    return;
  }
  const std::ptrdiff_t offset =
      static_cast<std::ptrdiff_t>(src.step) * y0 +
      static_cast<std::ptrdiff_t>(x0) * layout::pixel_bytes(src.type);
  // An attached null plane stays null rather than becoming a wild pointer.
  data = src.data == nullptr ? nullptr : src.data + offset;
  width = static_cast<int>(x1 - x0);
  height = static_cast<int>(y1 - y0);
  step = src.step;
  type = src.type;
}

void FVTImage::Swap(FVTImage& other) {
  std::swap(data, other.data);
  std::swap(width, other.width);
  std::swap(height, other.height);
  std::swap(step, other.step);
  std::swap(type, other.type);
  std::swap(flags, other.flags);
}

void FVTImage::Clear() {
  if ((flags & kOwner) != 0) ff_free(data);
  data = nullptr;
  width = height = step = 0;
  flags = 0;
}

bool FVTImage::IsExternData() const { return (flags & kOwner) == 0; }

void FVTImage::Lock(int bits) { flags |= bits & kLockBits; }

void FVTImage::Unlock(int bits) { flags &= ~(bits & kLockBits); }

void FVTImage::Reshape(int new_type, int new_width) {
  const int bytes = layout::row_bytes(type, width);
  const int new_pixel_bytes = layout::pixel_bytes(new_type);
  if (new_width < 1) {
    type = new_type;
    width = new_pixel_bytes == 0 ? 0 : bytes / new_pixel_bytes;
    return;
  }
  const std::int64_t new_bytes = std::int64_t{new_pixel_bytes} * new_width;
  if (new_bytes == bytes) {
    type = new_type;
    width = new_width;
    return;
  }
  // Regrouping the rows is only possible when no padding sits between them.
  if (bytes != step || new_bytes == 0) return;
  const std::int64_t total = std::int64_t{height} * bytes;
  if (total % new_bytes != 0) return;
  type = new_type;
  width = new_width;
  height = static_cast<int>(total / new_bytes);
}

}  // namespace ff
