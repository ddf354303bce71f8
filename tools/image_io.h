#ifndef SOFTMATTE_TOOLS_IMAGE_IO_H_
#define SOFTMATTE_TOOLS_IMAGE_IO_H_

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

// Reads a PNG or JPEG file into layout (converting colour and depth as
// needed). On failure returns false and sets error to a short phrase that
// names the file ("cannot read x.png: No such file or directory").
bool ReadPicture(const std::string& path, Layout layout, Picture* out,
                 std::string* error);

// Writes picture as an 8-bit PNG (grey, BGR as RGB, or RGBA) to a temporary
// file beside path and renames it over path, so that an interrupted run
// never leaves a half-written PNG under the final name.
bool WritePngAtomically(const std::string& path, const Picture& picture,
                        Layout layout, std::string* error);

}  // namespace softmatte_tool

#endif  // SOFTMATTE_TOOLS_IMAGE_IO_H_
