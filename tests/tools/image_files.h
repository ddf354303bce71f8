// What the tool's tests share: a scratch folder per test, reading a picture,
// and image files made on the spot: JPEGs in any colour space with an
// optional Exif block, and PNG and JPEG files edited to claim another size or
// to carry another chunk.
#ifndef SOFTMATTE_TESTS_TOOLS_IMAGE_FILES_H_
#define SOFTMATTE_TESTS_TOOLS_IMAGE_FILES_H_

// clang-format off
#include <stdio.h>  // jpeglib.h uses FILE and size_t without declaring them
#include <jpeglib.h>
// clang-format on
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "gtest/gtest.h"
#include "image_io.h"

namespace tool_test {

// A fresh folder for each test, removed with everything in it afterwards.
class ScratchDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/softmatte_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::filesystem::path dir_;
};

inline softmatte_tool::Picture Load(const std::filesystem::path& path,
                                    softmatte_tool::Layout layout) {
  softmatte_tool::Picture picture;
  std::string error;
  EXPECT_TRUE(softmatte_tool::ReadPicture(path, layout, &picture, &error))
      << error;
  return picture;
}

inline std::string Slurp(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void Spit(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string BigEndian(uint32_t value, int bytes) {
  std::string out;
  for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>(value >> 8 * i);
  return out;
}

// A JPEG at quality 100 without chroma subsampling, so that flat colours
// come back within a step or two, and with app1 as an APP1 marker when it
// is not empty. in_space is the pixels' layout, file_space what the file
// stores (CMYK may be stored as YCCK); the Adobe marker is for CMYK and
// YCCK only.
inline void SaveJpeg(const std::filesystem::path& path,
                     const unsigned char* pixels, int width, int height,
                     const std::string& app1 = "",
                     J_COLOR_SPACE in_space = JCS_EXT_BGR,
                     J_COLOR_SPACE file_space = JCS_YCbCr,
                     bool adobe_marker = false) {
  jpeg_compress_struct info;
  jpeg_error_mgr errors;
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  FILE* file = fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  jpeg_stdio_dest(&info, file);
  info.image_width = width;
  info.image_height = height;
  info.in_color_space = in_space;
  info.input_components = in_space == JCS_CMYK ? 4 : 3;
  jpeg_set_defaults(&info);
  jpeg_set_colorspace(&info, file_space);
  jpeg_set_quality(&info, 100, TRUE);
  for (int i = 0; i < info.num_components; ++i) {
    info.comp_info[i].h_samp_factor = info.comp_info[i].v_samp_factor = 1;
  }
  info.write_Adobe_marker = adobe_marker;
  jpeg_start_compress(&info, TRUE);
  if (!app1.empty()) {
    jpeg_write_marker(&info, JPEG_APP0 + 1,
                      reinterpret_cast<const JOCTET*>(app1.data()),
                      static_cast<unsigned>(app1.size()));
  }
  const size_t row = static_cast<size_t>(width) * info.input_components;
  while (info.next_scanline < info.image_height) {
    JSAMPROW rows[1] = {const_cast<unsigned char*>(pixels) +
                        row * info.next_scanline};
    jpeg_write_scanlines(&info, rows, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  fclose(file);
}

// A PNG chunk: length, type, data and the CRC of type and data.
inline std::string PngChunk(const std::string& type, const std::string& data) {
  const std::string body = type + data;
  const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(body.data()),
                          static_cast<uInt>(body.size()));
  return BigEndian(static_cast<uint32_t>(data.size()), 4) + body +
         BigEndian(static_cast<uint32_t>(crc), 4);
}

// The PNG with a header chunk that claims width x height pixels, and with
// extra (whole chunks) right after it.
inline std::string EditedPng(const std::string& png, uint32_t width,
                             uint32_t height, const std::string& extra = "") {
  const std::string header = BigEndian(width, 4) + BigEndian(height, 4) +
                             png.substr(24, 5);  // depth, colour type, ...
  return png.substr(0, 8) + PngChunk("IHDR", header) + extra + png.substr(33);
}

// The JPEG with a frame header that claims width x height pixels. (The
// tables before it, at quality 100, hold no 0xFF byte.)
inline std::string WithJpegSize(std::string jpeg, int width, int height) {
  const size_t frame = jpeg.find("\xFF\xC0");
  EXPECT_NE(frame, std::string::npos);
  return jpeg.replace(frame + 5, 4, BigEndian(height, 2) + BigEndian(width, 2));
}

}  // namespace tool_test

#endif  // SOFTMATTE_TESTS_TOOLS_IMAGE_FILES_H_
