#ifndef SOFTMATTE_TOOLS_IMAGE_IO_H_
#define SOFTMATTE_TOOLS_IMAGE_IO_H_

#include <functional>
#include <string>
#include <vector>

namespace softmatte_tool {

// Pixel layouts the tool reads and writes; rows are packed.
enum class Layout { kGrey, kBgr, kBgra, kRgba };

int ChannelsOf(Layout layout);

struct Picture {
  int width = 0;
  int height = 0;
  int channels = 0;  // 1, 3 or 4
  std::vector<unsigned char> pixels;
};

// Pictures with more pixels are refused from their header, before any pixel
// memory is taken. A cut-out peaks at about 34 bytes a pixel (410 MB for 12
// megapixels with a wide band), so this keeps a run near 5 GB while letting
// through the 108-megapixel photos of the largest phone sensors.
constexpr long long kDefaultMaxPixels = 150000000;

// Reads a PNG or JPEG file into layout (converting colour and depth as
// needed, CMYK and YCCK JPEGs included) and turns it upright as its Exif
// orientation says. On failure returns false and sets error to a short
// phrase that names the file ("cannot read x.png: No such file or
// directory"); a picture of more than max_pixels pixels is refused before
// it is decoded.
bool ReadPicture(const std::string& path, Layout layout, Picture* out,
                 std::string* error, long long max_pixels = kDefaultMaxPixels);

// How a PNG is compressed: a zlib level (0-9), the PNG row filters (a mask
// of libpng's PNG_FILTER_* bits) and the zlib strategy (Z_DEFAULT_STRATEGY,
// Z_FILTERED, Z_RLE, ...).
struct PngCompression {
  int level;
  int filters;
  int strategy;
};

// The tool's settings for --png-level: 0 stores the pixels uncompressed, 1
// (the default) is the quickest compression, 2-9 are zlib's levels with
// libpng's adaptive filters.
constexpr int kFastPngLevel = 1;
PngCompression PngCompressionForLevel(int level);

// Writes picture as an 8-bit PNG (grey, BGR as RGB, or RGBA) to a temporary
// file beside path and renames it over path, so that an interrupted run
// never leaves a half-written PNG under the final name.
bool WritePngAtomically(
    const std::string& path, const Picture& picture, Layout layout,
    std::string* error,
    const PngCompression& compression = PngCompressionForLevel(kFastPngLevel));

// Gives row y of an image being written, in its layout: a pointer into the
// caller's own pixels, or scratch (a row's bytes) filled on the spot.
using RowSource =
    std::function<const unsigned char*(int y, unsigned char* scratch)>;

// As above for a width x height image made row by row as it is written, so
// that a picture derived from others never has to exist whole.
bool WritePngRowsAtomically(
    const std::string& path, int width, int height, Layout layout,
    const RowSource& rows, std::string* error,
    const PngCompression& compression = PngCompressionForLevel(kFastPngLevel));

}  // namespace softmatte_tool

#endif  // SOFTMATTE_TOOLS_IMAGE_IO_H_
