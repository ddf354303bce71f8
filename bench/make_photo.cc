// Writes a large test photo and a realistic mask for it from a photo of the
// alphamatting.com set: the photo stretched bilinearly to WIDTH pixels and
// saved as a JPEG (quality 92, as a camera would), and a segmenter-like mask
// (the ground truth stretched the same way, reduced to 1/FACTOR of each side
// and enlarged back by nearest neighbour) saved as a PNG.
//
//   softmatte_make_photo INDEX WIDTH FACTOR PHOTO.jpg MASK.png
//
// For example `softmatte_make_photo 4 4000 16 gt04.jpg gt04_mask.png` makes
// the 12-megapixel input of bench/tool_speed.sh.

// clang-format off
#include <stdio.h>  // jpeglib.h uses FILE and size_t without declaring them
#include <jpeglib.h>
// clang-format on

#include <cstdlib>
#include <string>
#include <vector>

#include "image_io.h"
#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

bool SaveJpeg(const std::string& path, const std::vector<unsigned char>& bgr,
              int width, int height) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  jpeg_compress_struct info;
  jpeg_error_mgr errors;
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  jpeg_stdio_dest(&info, file);
  info.image_width = width;
  info.image_height = height;
  info.in_color_space = JCS_EXT_BGR;
  info.input_components = 3;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 92, TRUE);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<unsigned char*>(
        &bgr[static_cast<size_t>(info.next_scanline) * 3 * width]);
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  return std::fclose(file) == 0;
}

std::vector<unsigned char> Stretch(const std::vector<unsigned char>& src,
                                   int width, int height, int channels,
                                   int toWidth, int toHeight) {
  std::vector<unsigned char> out(static_cast<size_t>(toWidth) * toHeight *
                                 channels);
  ff::ipf_resize_bl<unsigned char, unsigned char>(
      src.data(), width, height, width * channels, channels, out.data(),
      toWidth, toHeight, toWidth * channels, channels, channels);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr,
                 "usage: softmatte_make_photo INDEX WIDTH FACTOR PHOTO.jpg "
                 "MASK.png\n");
    return 2;
  }
  softmatte_test::MattingSample sample;
  if (!softmatte_test::LoadMattingSample(std::atoi(argv[1]), false, &sample)) {
    std::fprintf(stderr, "make_photo: the alphamatting set is not there\n");
    return 2;
  }
  const int w = sample.image.width;
  const int h = sample.image.height;
  const int width = std::atoi(argv[2]);
  const int height = static_cast<int>(static_cast<long>(h) * width / w);
  const std::vector<unsigned char> photo =
      Stretch(sample.image.pixels, w, h, 3, width, height);
  const std::vector<unsigned char> truth =
      Stretch(sample.truth.pixels, w, h, 1, width, height);
  softmatte_tool::Picture mask;
  mask.width = width;
  mask.height = height;
  mask.channels = 1;
  mask.pixels =
      softmatte_test::BlockyMask(truth, width, height, std::atoi(argv[3]));
  std::string error;
  if (!SaveJpeg(argv[4], photo, width, height) ||
      !softmatte_tool::WritePngAtomically(
          argv[5], mask, softmatte_tool::Layout::kGrey, &error)) {
    std::fprintf(stderr, "make_photo: cannot write: %s\n", error.c_str());
    return 1;
  }
  std::printf("%s: %dx%d photo, %s: mask at 1/%s\n", argv[4], width, height,
              argv[5], argv[3]);
  return 0;
}
