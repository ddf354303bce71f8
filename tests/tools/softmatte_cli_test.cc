// Runs the softmatte program as a person would and checks what it leaves
// behind: exit status, standard error, and the files in the output folder.

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
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
  std::string err;
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
    command += " >/dev/null 2>" + quote(dir_ / "stderr");
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, Slurp(dir_ / "stderr")};
  }

  const fs::path photo_ = fs::path(SOFTMATTE_SAMPLE_DIR) / "chelsea.png";
  const fs::path mask_ = fs::path(SOFTMATTE_SAMPLE_DIR) / "chelsea_mask.png";
};

TEST_F(SoftmatteCli, BadInputGetsOneLineStatusTwoAndWritesNothing) {
  fs::create_directory(dir_ / "folder.png");
  Spit(dir_ / "text.png", "not an image at all");
  const Picture bgr = Load(photo_, Layout::kBgr);
  SaveJpeg(dir_ / "photo.jpg", bgr.pixels.data(), bgr.width, bgr.height);
  const std::string png = Slurp(photo_), jpeg = Slurp(dir_ / "photo.jpg");
  // A PNG and a JPEG cut off halfway (their headers are fine), and headers
  // that claim 3.6 gigapixels.
  Spit(dir_ / "cut.png", png.substr(0, png.size() / 2));
  Spit(dir_ / "cut.jpg", jpeg.substr(0, jpeg.size() / 2));
  Spit(dir_ / "huge.png", EditedPng(png, 60000, 60000));
  Spit(dir_ / "huge.jpg", WithJpegSize(jpeg, 60000, 60000));
  // Grey pictures filled with one value: one of another size, and masks
  // with no subject (127 is below mid-grey).
  std::string error;
  for (const auto& [name, width, value] : {std::tuple{"small.png", 450, 255},
                                           {"dim.png", 451, 127},
                                           {"black.png", 451, 0}}) {
    const Picture filled{width, 300, 1,
                         std::vector<unsigned char>(300u * width, value)};
    ASSERT_TRUE(softmatte_tool::WritePngAtomically(dir_ / name, filled,
                                                   Layout::kGrey, &error))
        << error;
  }
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
      {"cutout @photo --scribbles @mask", "no red (foreground)"},
      {"+ --work-size 7", "--work-size must be at least 8"},
      {"+ --band x", "--band needs"},
      {"+ --colour 12345", "--colour needs six hex digits"},
      {"+ --colour 00FF00 --background @photo",
       "either --background or --colour"},
      {"cutout @photo", "one of --mask, --trimap or --scribbles"},
      {"cutout --mask @mask", "cutout needs a photo"},
      {"cutout @photo @photo --mask @mask", "unexpected argument"},
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
  // Nothing beside what the test made: 11 inputs and stderr.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), {}), 12);
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
  EXPECT_EQ(std::distance(fs::directory_iterator(out), {}), 4);
  const Picture alpha = Load(out / "alpha.png", Layout::kGrey);
  const Picture fore = Load(out / "foreground.png", Layout::kBgra);
  const Picture overview = Load(out / "overview.png", Layout::kBgr);
  const Picture panels[] = {Load(photo_, Layout::kBgr),
                            Load(mask_, Layout::kBgr),
                            Load(out / "alpha.png", Layout::kBgr),
                            Load(out / "composite.png", Layout::kBgr)};
  ASSERT_EQ(fore.pixels.size(), 4 * 451u * 300);
  ASSERT_EQ(panels[3].pixels.size(), 3 * 451u * 300);
  const int colour[3] = {0x40, 0xC0, 0x20};  // B, G, R
  for (size_t i = 0; i < alpha.pixels.size(); ++i) {
    const int a = alpha.pixels[i];
    ASSERT_EQ(fore.pixels[4 * i + 3], a) << "pixel " << i;
    for (int c = 0; c < 3; ++c) {
      ASSERT_EQ(
          panels[3].pixels[3 * i + c],
          (fore.pixels[4 * i + c] * a + colour[c] * (255 - a) + 127) / 255)
          << "pixel " << i;
    }
  }
  // The overview: the four at their own size (the sample is small), in a
  // frame of 8 grey pixels.
  ASSERT_EQ(overview.width, 4 * 451 + 5 * 8);
  ASSERT_EQ(overview.height, 300 + 2 * 8);
  EXPECT_EQ(overview.pixels[0], 128);
  for (int k = 0; k < 4; ++k) {
    for (int y = 0; y < 300; ++y) {
      const auto row = overview.pixels.begin() +
                       3 * ((y + 8) * overview.width + 8 * (k + 1) + 451 * k);
      ASSERT_TRUE(std::equal(row, row + 3 * 451,
                             panels[k].pixels.begin() + 3 * 451 * y))
          << "panel " << k << " row " << y;
    }
  }
  // The cat's middle is subject, the far right is not.
  EXPECT_EQ(alpha.pixels[150 * 451 + 200], 255);
  EXPECT_EQ(alpha.pixels[150 * 451 + 440], 0);
}

}  // namespace
