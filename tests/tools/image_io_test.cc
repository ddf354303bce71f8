// The tool's image reading: Exif orientation and CMYK JPEGs. (The size
// limit read from the header is checked through the program, with its
// message.)

#include "image_io.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "gtest/gtest.h"
#include "image_files.h"

namespace {

using softmatte_tool::Layout;
using softmatte_tool::Picture;
using namespace tool_test;

using ImageIo = ScratchDir;

// As viewers show a picture of Exif orientation 1 to 8: the stored one
// transposed for 5 to 8, then mirrored left to right and/or top to bottom.
Picture UprightReference(const Picture& stored, int orientation) {
  const bool turned = orientation >= 5 && orientation <= 8;
  const bool mirror_x = orientation % 4 == 2 || orientation % 4 == 3;
  const bool mirror_y = orientation == 3 || orientation == 4 ||
                        orientation == 7 || orientation == 8;
  const int c = stored.channels;
  Picture out{turned ? stored.height : stored.width,
              turned ? stored.width : stored.height, c,
              std::vector<unsigned char>(stored.pixels.size())};
  for (int sy = 0; sy < stored.height; ++sy) {
    for (int sx = 0; sx < stored.width; ++sx) {
      int x = turned ? sy : sx, y = turned ? sx : sy;
      if (mirror_x) x = out.width - 1 - x;
      if (mirror_y) y = out.height - 1 - y;
      std::copy_n(&stored.pixels[(size_t{1} * sy * stored.width + sx) * c], c,
                  &out.pixels[(size_t{1} * y * out.width + x) * c]);
    }
  }
  return out;
}

// A TIFF header and a first directory holding an image width and then the
// orientation, in Intel (II) or Motorola (MM) byte order.
std::string Tiff(bool motorola, int orientation) {
  std::string out = motorola ? "MM" : "II";
  const auto put = [&](uint32_t value, int bytes) {
    std::string big = BigEndian(value, bytes);
    out += motorola ? big : std::string(big.rbegin(), big.rend());
  };
  put(42, 2), put(8, 4), put(2, 2);
  put(0x0100, 2), put(3, 2), put(1, 4), put(640, 2), put(0, 2);
  put(0x0112, 2), put(3, 2), put(1, 4), put(orientation, 2), put(0, 2);
  put(0, 4);
  return out;
}

TEST_F(ImageIo, TurnsPhotosUprightByTheirExifOrientation) {
  // Noise: JPEG at quality 100 keeps it within a few steps, and a pixel
  // moved to the wrong place shows.
  Picture stored{5, 3, 3, std::vector<unsigned char>(45)};
  std::mt19937 random(7);
  for (unsigned char& v : stored.pixels) v = 100 + random() % 40;
  std::string error;
  ASSERT_TRUE(softmatte_tool::WritePngAtomically(dir_ / "plain.png", stored,
                                                 Layout::kBgr, &error));
  const std::string png = Slurp(dir_ / "plain.png");
  // With an Exif block, a PNG's pixels and a JPEG's within a few steps of
  // them are moved, in every layout.
  const auto check = [&](const std::string& tiff, int want) {
    SaveJpeg(dir_ / "turned.jpg", stored.pixels.data(), 5, 3,
             std::string("Exif\0\0", 6) + tiff);
    Spit(dir_ / "turned.png", EditedPng(png, 5, 3, PngChunk("eXIf", tiff)));
    for (const std::string kind : {".jpg", ".png"}) {
      for (Layout layout :
           {Layout::kGrey, Layout::kBgr, Layout::kBgra, Layout::kRgba}) {
        const Picture got = Load(dir_ / ("turned" + kind), layout);
        const Picture expected =
            UprightReference(Load(dir_ / "plain.png", layout), want);
        ASSERT_EQ(std::tie(got.width, got.height),
                  std::tie(expected.width, expected.height));
        for (size_t i = 0; i < got.pixels.size(); ++i) {
          ASSERT_NEAR(got.pixels[i], expected.pixels[i], kind == ".png" ? 0 : 3)
              << kind << " layout " << int(layout) << " byte " << i;
        }
      }
    }
  };
  for (int orientation = 1; orientation <= 8; ++orientation) {
    for (bool motorola : {false, true}) {
      SCOPED_TRACE("orientation " + std::to_string(orientation) +
                   (motorola ? " MM" : " II"));
      check(Tiff(motorola, orientation), orientation);
    }
  }
  // Broken blocks are ignored, never read beyond their end: cut short, a
  // directory far beyond the end, too many entries, and no orientation.
  std::string far_directory = Tiff(true, 6), many_entries = Tiff(false, 6);
  far_directory.replace(4, 4, "\xFF\xFF\xFF\xF0");
  many_entries.replace(8, 2, "\xFF\xFF");
  for (const std::string& tiff :
       {Tiff(false, 6).substr(0, 9), Tiff(true, 6).substr(0, 32),
        many_entries.substr(0, 22), far_directory, Tiff(false, 9)}) {
    SCOPED_TRACE(testing::PrintToString(tiff));
    check(tiff, 1);
  }
}

TEST_F(ImageIo, ConvertsCmykAndYcckJpegsToRgb) {
  // Flat 8x8 blocks of C, M, Y, K ink.
  const unsigned char inks[][4] = {
      {0, 0, 0, 0}, {255, 0, 0, 0}, {90, 128, 255, 64}, {0, 0, 0, 255}};
  const int count = sizeof inks / sizeof inks[0], width = 8 * count;
  const struct {
    J_COLOR_SPACE stored;
    bool adobe;
  } kinds[] = {{JCS_CMYK, false}, {JCS_CMYK, true}, {JCS_YCCK, true}};
  for (const auto& kind : kinds) {
    SCOPED_TRACE(&kind - kinds);
    // Photoshop's files, those with the Adobe marker, store 255 for no ink.
    std::vector<unsigned char> cmyk(4 * width * 8);
    for (size_t i = 0; i < cmyk.size(); ++i) {
      const int ink = inks[i / 4 % width / 8][i % 4];
      cmyk[i] = static_cast<unsigned char>(kind.adobe ? 255 - ink : ink);
    }
    SaveJpeg(dir_ / "ink.jpg", cmyk.data(), width, 8, "", JCS_CMYK, kind.stored,
             kind.adobe);
    const Picture bgr = Load(dir_ / "ink.jpg", Layout::kBgr);
    const Picture grey = Load(dir_ / "ink.jpg", Layout::kGrey);
    ASSERT_EQ(bgr.width, width);
    for (int block = 0; block < count; ++block) {
      const size_t at = 4 * width + 8 * block + 4;
      double luma = 0;
      for (int c = 0; c < 3; ++c) {  // R, G, B
        // Ink to light as the plain subtractive model has it.
        const int light =
            ((255 - inks[block][c]) * (255 - inks[block][3]) + 127) / 255;
        EXPECT_NEAR(bgr.pixels[3 * at + 2 - c], light, 3) << "block " << block;
        luma += light * (c == 0 ? 0.299 : c == 1 ? 0.587 : 0.114);
      }
      EXPECT_NEAR(grey.pixels[at], luma, 3) << "block " << block;
    }
  }
}

}  // namespace
