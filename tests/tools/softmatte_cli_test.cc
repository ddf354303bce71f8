// Runs the softmatte program as a person would and checks what it leaves
// behind: exit status, standard error, and the files in the output folder.

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "image_files.h"
#include "image_io.h"

namespace {

namespace fs = std::filesystem;
using softmatte_tool::Layout;
using softmatte_tool::Picture;
using namespace tool_test;

struct Outcome {
  int status = -1;
  std::string out, err;
};

class SoftmatteCli : public ScratchDir {
 protected:
  Outcome Run(const std::vector<std::string>& args) {
    const auto quote = [](const std::string& word) {
      std::string quoted = "'";
      for (char c : word) quoted += c == '\'' ? "'\\''" : std::string(1, c);
      return quoted + "'";
    };
    std::string command = quote(SOFTMATTE_TOOL);
    for (const std::string& a : args) command += " " + quote(a);
    command += " >" + quote(dir_ / "stdout") + " 2>" + quote(dir_ / "stderr");
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, Slurp(dir_ / "stdout"),
            Slurp(dir_ / "stderr")};
  }

  // A 300-row picture filled with one value, with a stroke of opaque red
  // along one row when red_row is given (BGRA).
  void SaveFilled(const std::string& name, int width, Layout layout,
                  unsigned char value, int red_row = -1) {
    const int c = softmatte_tool::ChannelsOf(layout);
    Picture picture{width, 300, c,
                    std::vector<unsigned char>(300u * width * c, value)};
    for (int x = 100; red_row >= 0 && x < 300; ++x) {
      picture.pixels[4 * (red_row * width + x) + 2] = 255;
      picture.pixels[4 * (red_row * width + x) + 3] = 255;
    }
    std::string error;
    ASSERT_TRUE(softmatte_tool::WritePngAtomically(dir_ / name, picture, layout,
                                                   &error))
        << error;
  }

  const fs::path photo_ = fs::path(SOFTMATTE_SAMPLE_DIR) / "chelsea.png";
  const fs::path mask_ = fs::path(SOFTMATTE_SAMPLE_DIR) / "chelsea_mask.png";
};

TEST_F(SoftmatteCli, BadInputGetsOneLineStatusTwoAndWritesNothing) {
  fs::create_directory(dir_ / "folder.png");
  Spit(dir_ / "text.png", "not an image at all");
  Spit(dir_ / "empty.jpg", "");
  const Picture bgr = Load(photo_, Layout::kBgr);
  SaveJpeg(dir_ / "photo.jpg", bgr.pixels.data(), bgr.width, bgr.height);
  const std::string png = Slurp(photo_), jpeg = Slurp(dir_ / "photo.jpg");
  // A PNG and a JPEG cut off halfway (their headers are fine), and headers
  // that claim 3.6 gigapixels.
  Spit(dir_ / "cut.png", png.substr(0, png.size() / 2));
  Spit(dir_ / "cut.jpg", jpeg.substr(0, jpeg.size() / 2));
  Spit(dir_ / "huge.png", EditedPng(png, 60000, 60000));
  Spit(dir_ / "huge.jpg", WithJpegSize(jpeg, 60000, 60000));
  SaveFilled("small.png", 450, Layout::kGrey, 255);
  // 127 is below mid-grey: an all-127 mask marks no subject.
  SaveFilled("dim.png", 451, Layout::kGrey, 127);
  SaveFilled("black.png", 451, Layout::kGrey, 0);
  SaveFilled("red.png", 451, Layout::kBgra, 0, 150);
  // An input where an output would go: it must survive byte for byte.
  fs::copy_file(mask_, dir_ / "alpha.png");

  // Words starting with @ name files: the sample's photo and mask, or one of
  // those made above (@ alone is their folder); + stands for a cut-out of
  // the sample. The output folder goes right after the command, so that a
  // case lacking a value at its end stays lacking.
  const std::pair<const char*, const char*> cases[] = {
      {"cutout @missing.png --mask @mask", "cannot read @missing.png"},
      {"cutout @folder.png --mask @mask", "cannot read @folder.png"},
      {"cutout @text.png --mask @mask", "not a PNG or JPEG"},
      {"cutout @empty.jpg --mask @mask", "cannot decode @empty.jpg"},
      {"cutout @cut.png --mask @mask", "cannot decode @cut.png"},
      {"cutout @cut.jpg --mask @mask", "cannot decode @cut.jpg"},
      {"cutout @huge.png --mask @mask",
       "@huge.png is 60000x60000 = 3600000000 pixels, more than the limit of "
       "150000000 (--max-pixels raises it)"},
      {"cutout @photo --mask @huge.jpg", "@huge.jpg is 60000x60000"},
      {"+ --max-pixels 135299",
       "@photo is 451x300 = 135300 pixels, more than the limit of 135299"},
      {"+ --max-pixels 0", "--max-pixels needs a whole number of at least 1"},
      {"+ --png-level 10", "--png-level needs a whole number from 0 to 9"},
      {"cutout @photo --mask @small.png",
       "mask @small.png is 450x300 but the photo is 451x300"},
      {"cutout @photo --mask @dim.png", "has no foreground"},
      {"cutout @photo --trimap @black.png", "no foreground or unknown"},
      {"cutout @photo --scribbles @red.png", "no blue (background)"},
      {"+ --work-size 7", "--work-size must be at least 8"},
      {"+ --band x", "--band needs"},
      {"+ --colour 12345", "--colour needs six hex digits"},
      {"+ --colour 00FF00 --background @photo",
       "either --background or --colour"},
      {"cutout @photo", "one of --mask, --trimap or --scribbles"},
      {"cutout --mask @mask", "cutout needs a photo"},
      {"cutout @photo @photo --mask @mask", "unexpected argument"},
      {"+ --trimap @mask", "only one of"},
      {"cutout @photo --mask", "--mask needs a value"},
      {"+ --frobnicate", "unknown option '--frobnicate'"},
      {"cut @photo", "unknown command 'cut'"},
      {"demo --mask @mask", "demo uses its own sample"},
      {"cutout -o @ @photo --mask @alpha.png", "would overwrite the input"},
  };
  const auto expand = [&](const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) {
      if (w == "+") {
        words.insert(words.end(), {"cutout", photo_, "--mask", mask_});
        continue;
      }
      words.push_back(w[0] != '@'     ? w
                      : w == "@"      ? dir_.string()
                      : w == "@photo" ? photo_.string()
                      : w == "@mask"  ? mask_.string()
                                      : (dir_ / w.substr(1)).string());
    }
    return words;
  };
  const fs::path out = dir_ / "out";
  for (const auto& [line, says] : cases) {
    SCOPED_TRACE(line);
    std::vector<std::string> args = expand(line);
    if (args[1] != "-o") args.insert(args.begin() + 1, {"-o", out.string()});
    std::string want;
    for (const std::string& w : expand(says)) want += " " + w;
    const Outcome got = Run(args);
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 1) << got.err;
    EXPECT_NE(got.err.find(want.substr(1)), std::string::npos) << got.err;
    EXPECT_FALSE(fs::exists(out));
  }
  EXPECT_EQ(Slurp(dir_ / "alpha.png"), Slurp(mask_));
  // Nothing beside what the test made: 13 inputs, stdout and stderr.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), {}), 15);
}

// The demo's files agree with each other: the foreground's fourth channel is
// the matte, the composite is foreground over the colour, and the overview
// shows photo, mask, matte and composite side by side.
TEST_F(SoftmatteCli, DemoWritesAMatchingAlphaForegroundAndComposite) {
  const fs::path out = dir_ / "demo";
  // The photo has exactly as many pixels as allowed.
  const Outcome got =
      Run({"demo", "--colour", "20C040", "--max-pixels", "135300", "-o", out});
  ASSERT_EQ(got.status, 0) << got.err;
  EXPECT_EQ(got.err, "");
  EXPECT_NE(got.out.find(out.string()), std::string::npos) << got.out;
  EXPECT_EQ(std::distance(fs::directory_iterator(out), {}), 4);
  const Picture alpha = Load(out / "alpha.png", Layout::kGrey);
  const Picture fore = Load(out / "foreground.png", Layout::kBgra);
  const Picture comp = Load(out / "composite.png", Layout::kBgr);
  const Picture photo = Load(photo_, Layout::kBgr);
  const Picture mask = Load(mask_, Layout::kGrey);
  const Picture overview = Load(out / "overview.png", Layout::kBgr);
  ASSERT_EQ(alpha.pixels.size(), 451u * 300);
  ASSERT_EQ(fore.pixels.size(), 4 * alpha.pixels.size());
  ASSERT_EQ(comp.pixels.size(), 3 * alpha.pixels.size());
  // The overview: the four at their own size (the sample is small), in a
  // frame of 8 grey pixels.
  ASSERT_EQ(overview.width, 4 * 451 + 5 * 8);
  ASSERT_EQ(overview.height, 300 + 2 * 8);
  EXPECT_EQ(overview.pixels[0], 128);
  const int colour[3] = {0x40, 0xC0, 0x20};  // B, G, R
  size_t fractional = 0;
  for (size_t i = 0; i < alpha.pixels.size(); ++i) {
    const int a = alpha.pixels[i];
    ASSERT_EQ(fore.pixels[4 * i + 3], a) << "pixel " << i;
    fractional += a > 0 && a < 255;
    const auto panel = [&](int k, int c) {
      const size_t y = i / 451 + 8, x = i % 451 + 8 * (k + 1) + 451 * k;
      return overview.pixels[3 * (y * overview.width + x) + c];
    };
    for (int c = 0; c < 3; ++c) {
      ASSERT_EQ(
          comp.pixels[3 * i + c],
          (fore.pixels[4 * i + c] * a + colour[c] * (255 - a) + 127) / 255)
          << "pixel " << i;
      ASSERT_EQ(panel(0, c), photo.pixels[3 * i + c]) << "pixel " << i;
      ASSERT_EQ(panel(1, c), mask.pixels[i]) << "pixel " << i;
      ASSERT_EQ(panel(2, c), a) << "pixel " << i;
      ASSERT_EQ(panel(3, c), comp.pixels[3 * i + c]) << "pixel " << i;
    }
  }
  // The cat's middle is subject, the far right is not, and the fur edge
  // gets a soft band.
  EXPECT_EQ(alpha.pixels[150 * 451 + 200], 255);
  EXPECT_EQ(alpha.pixels[150 * 451 + 440], 0);
  EXPECT_GT(fractional, 1000u);
}

}  // namespace
