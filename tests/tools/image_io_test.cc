// The tool's image reading and writing: size limits taken from the header,
// and PNG round trips at every compression.

#include "image_io.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "image_files.h"

namespace {

namespace fs = std::filesystem;
using softmatte_tool::Layout;
using softmatte_tool::Picture;
using namespace tool_test;

class ImageIo : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/softmatte_io_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }

  // A picture of random colours, width x height.
  static Picture Random(int width, int height, Layout layout) {
    const int c = softmatte_tool::ChannelsOf(layout);
    Picture picture{width, height, c,
                    std::vector<unsigned char>(size_t{1} * width * height * c)};
    std::mt19937 random(width * 100 + height);
    for (unsigned char& v : picture.pixels) v = random() & 0xFF;
    return picture;
  }

  fs::path Png(const std::string& name, const Picture& picture, Layout layout,
               const softmatte_tool::PngCompression& compression =
                   softmatte_tool::PngCompressionForLevel(1)) {
    std::string error;
    EXPECT_TRUE(softmatte_tool::WritePngAtomically(dir_ / name, picture, layout,
                                                   &error, compression))
        << error;
    return dir_ / name;
  }

  static Picture Read(
      const fs::path& path, Layout layout,
      long long max_pixels = softmatte_tool::kDefaultMaxPixels) {
    Picture picture;
    std::string error;
    EXPECT_TRUE(
        softmatte_tool::ReadPicture(path, layout, &picture, &error, max_pixels))
        << error;
    return picture;
  }

  fs::path dir_;
};

TEST_F(ImageIo, RefusesTooManyPixelsFromTheHeader) {
  const Picture small = Random(9, 7, Layout::kBgr);
  const std::string png = Slurp(Png("small.png", small, Layout::kBgr));
  SaveJpeg(dir_ / "small.jpg", small.pixels.data(), 9, 7);
  const std::string jpeg = Slurp(dir_ / "small.jpg");
  // Decoding either would take gigabytes; the header is all that is read.
  Spit(dir_ / "huge.png", WithPngSize(png, 60000, 60000));
  Spit(dir_ / "huge.jpg", WithJpegSize(jpeg, 60000, 60000));
  for (const char* name : {"huge.png", "huge.jpg"}) {
    Picture picture;
    std::string error;
    EXPECT_FALSE(softmatte_tool::ReadPicture(dir_ / name, Layout::kBgr,
                                             &picture, &error));
    EXPECT_EQ(error, (dir_ / name).string() +
                         " is 60000x60000 = 3600000000 pixels, more than the "
                         "limit of 150000000 (--max-pixels raises it)");
    EXPECT_TRUE(picture.pixels.empty());
  }
  // The limit counts pixels, whatever the width and height.
  for (const char* name : {"small.png", "small.jpg"}) {
    Picture picture;
    std::string error;
    EXPECT_FALSE(softmatte_tool::ReadPicture(dir_ / name, Layout::kGrey,
                                             &picture, &error, 62));
    EXPECT_NE(error.find("9x7 = 63 pixels, more than the limit of 62"),
              std::string::npos)
        << error;
    EXPECT_EQ(Read(dir_ / name, Layout::kGrey, 63).width, 9);
  }
}

TEST_F(ImageIo, PngsReadBackExactlyAtEveryCompression) {
  // Smooth waves, compressible like a photo.
  Picture waves = Random(301, 67, Layout::kBgra);
  for (size_t i = 0; i < waves.pixels.size(); ++i) {
    const double x = i / 4 % 301, y = i / 4 / 301;
    waves.pixels[i] = static_cast<unsigned char>(
        128 + 100 * std::sin(x / (9 + i % 4)) * std::cos(y / 7));
  }
  std::vector<uintmax_t> sizes;
  for (int level : {0, 1, 9}) {
    const auto compression = softmatte_tool::PngCompressionForLevel(level);
    for (Layout layout :
         {Layout::kGrey, Layout::kBgr, Layout::kBgra, Layout::kRgba}) {
      SCOPED_TRACE("level " + std::to_string(level) + " channels " +
                   std::to_string(softmatte_tool::ChannelsOf(layout)));
      const Picture odd = Random(37, 23, layout);
      EXPECT_EQ(Read(Png("odd.png", odd, layout, compression), layout).pixels,
                odd.pixels);
    }
    sizes.push_back(
        fs::file_size(Png("waves.png", waves, Layout::kBgra, compression)));
    EXPECT_EQ(Read(dir_ / "waves.png", Layout::kBgra).pixels, waves.pixels);
  }
  // Stored, quick, small: each level does compress more.
  EXPECT_GT(sizes[0], sizes[1]);
  EXPECT_GT(sizes[1], sizes[2]);
}

}  // namespace
