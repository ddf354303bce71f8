// Runs the softmatte program as a person would and checks what it leaves
// behind: exit status, standard error, and the files in the output folder.

// clang-format off
#include <stdio.h>  // jpeglib.h uses FILE and size_t without declaring them
#include <jpeglib.h>
// clang-format on
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "image_io.h"

namespace {

namespace fs = std::filesystem;
using softmatte_tool::Layout;
using softmatte_tool::Picture;

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

std::string Slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string Quote(const std::string& word) {
  std::string quoted = "'";
  for (char c : word)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

Picture Load(const fs::path& path, Layout layout) {
  Picture picture;
  std::string error;
  EXPECT_TRUE(softmatte_tool::ReadPicture(path, layout, &picture, &error))
      << error;
  return picture;
}

void Save(const fs::path& path, const Picture& picture, Layout layout) {
  std::string error;
  ASSERT_TRUE(softmatte_tool::WritePngAtomically(path, picture, layout, &error))
      << error;
}

Picture Grey(int width, int height, unsigned char value) {
  Picture picture;
  picture.width = width;
  picture.height = height;
  picture.channels = 1;
  picture.pixels.assign(static_cast<size_t>(width) * height, value);
  return picture;
}

void SaveJpeg(const fs::path& path, const Picture& bgr) {
  jpeg_compress_struct info;
  jpeg_error_mgr errors;
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  FILE* file = fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  jpeg_stdio_dest(&info, file);
  info.image_width = bgr.width;
  info.image_height = bgr.height;
  info.input_components = 3;
  info.in_color_space = JCS_EXT_BGR;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 95, TRUE);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<unsigned char*>(bgr.pixels.data()) +
                   static_cast<size_t>(info.next_scanline) * 3 * bgr.width;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  fclose(file);
}

class SoftmatteCli : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/softmatte_cli_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }

  Outcome Run(const std::vector<std::string>& args) {
    std::string command = Quote(SOFTMATTE_TOOL);
    for (const std::string& a : args) command += " " + Quote(a);
    command += " >" + Quote(dir_ / "stdout") + " 2>" + Quote(dir_ / "stderr");
    Outcome outcome;
    const int raw = std::system(command.c_str());
    outcome.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    outcome.out = Slurp(dir_ / "stdout");
    outcome.err = Slurp(dir_ / "stderr");
    return outcome;
  }

  std::vector<std::string> Listing(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path dir_;
  const std::string photo_ = std::string(SOFTMATTE_SAMPLE_DIR) + "/chelsea.png";
  const std::string mask_ =
      std::string(SOFTMATTE_SAMPLE_DIR) + "/chelsea_mask.png";
  const std::string scribbles_ =
      std::string(SOFTMATTE_SAMPLE_DIR) + "/chelsea_scribbles.png";
};

TEST_F(SoftmatteCli, BadInputGetsOneLineStatusTwoAndWritesNothing) {
  const fs::path missing = dir_ / "missing.png";
  const fs::path folder = dir_ / "folder.png";
  fs::create_directory(folder);
  const fs::path text = dir_ / "text.png";
  std::ofstream(text) << "not an image at all";
  const fs::path empty = dir_ / "empty.jpg";
  std::ofstream{empty};
  // A PNG and a JPEG cut off halfway: their headers are fine.
  const std::string whole = Slurp(photo_);
  const fs::path cut_png = dir_ / "cut.png";
  std::ofstream(cut_png, std::ios::binary) << whole.substr(0, whole.size() / 2);
  const fs::path jpeg = dir_ / "photo.jpg";
  SaveJpeg(jpeg, Load(photo_, Layout::kBgr));
  const std::string jpeg_bytes = Slurp(jpeg);
  const fs::path cut_jpeg = dir_ / "cut.jpg";
  std::ofstream(cut_jpeg, std::ios::binary)
      << jpeg_bytes.substr(0, jpeg_bytes.size() / 2);
  const fs::path small = dir_ / "small.png";
  Save(small, Grey(450, 300, 255), Layout::kGrey);
  // 127 is below mid-grey: an all-127 mask marks no subject.
  const fs::path dim = dir_ / "dim.png";
  Save(dim, Grey(451, 300, 127), Layout::kGrey);
  const fs::path black = dir_ / "black.png";
  Save(black, Grey(451, 300, 0), Layout::kGrey);
  // Scribbles with only foreground (red) strokes.
  Picture strokes;
  strokes.width = 451;
  strokes.height = 300;
  strokes.channels = 4;
  strokes.pixels.assign(4 * 451 * 300, 0);
  for (int x = 100; x < 300; ++x) {
    unsigned char* p = &strokes.pixels[4 * (150 * 451 + x)];
    p[2] = 255;
    p[3] = 255;
  }
  const fs::path red_only = dir_ / "red.png";
  Save(red_only, strokes, Layout::kBgra);

  struct Case {
    std::vector<std::string> args;
    std::string says;
  };
  const std::vector<Case> cases = {
      {{"cutout", missing, "--mask", mask_}, "cannot read " + missing.string()},
      {{"cutout", photo_, "--mask", missing},
       "cannot read " + missing.string()},
      {{"cutout", folder, "--mask", mask_}, "cannot read " + folder.string()},
      {{"cutout", text, "--mask", mask_}, "not a PNG or JPEG"},
      {{"cutout", empty, "--mask", mask_}, "cannot decode " + empty.string()},
      {{"cutout", cut_png, "--mask", mask_},
       "cannot decode " + cut_png.string()},
      {{"cutout", cut_jpeg, "--mask", mask_},
       "cannot decode " + cut_jpeg.string()},
      {{"cutout", photo_, "--mask", cut_png},
       "cannot decode " + cut_png.string()},
      {{"cutout", photo_, "--mask", mask_, "--background", text},
       "cannot decode " + text.string()},
      {{"cutout", photo_, "--mask", small},
       "mask " + small.string() + " is 450x300 but the photo is 451x300"},
      {{"cutout", photo_, "--trimap", small}, "is 450x300"},
      {{"cutout", photo_, "--scribbles", small}, "is 450x300"},
      {{"cutout", photo_, "--mask", dim}, "has no foreground"},
      {{"cutout", photo_, "--mask", black}, "has no foreground"},
      {{"cutout", photo_, "--trimap", black}, "no foreground or unknown"},
      {{"cutout", photo_, "--scribbles", red_only}, "no blue (background)"},
      {{"cutout", photo_, "--mask", mask_, "--work-size", "7"},
       "--work-size must be at least 8"},
      {{"cutout", photo_, "--mask", mask_, "--work-size", "-3"},
       "--work-size must be at least 8"},
      {{"cutout", photo_, "--mask", mask_, "--work-size", "ten"},
       "--work-size needs a whole number"},
      {{"cutout", photo_, "--mask", mask_, "--band", "x"}, "--band needs"},
      {{"cutout", photo_, "--mask", mask_, "--colour", "12345"},
       "--colour needs six hex digits"},
      {{"cutout", photo_, "--mask", mask_, "--colour", "00FF00", "--background",
        photo_},
       "either --background or --colour"},
      {{"cutout", photo_}, "one of --mask, --trimap or --scribbles"},
      {{"cutout", "--mask", mask_}, "cutout needs a photo"},
      {{"cutout", photo_, photo_, "--mask", mask_}, "unexpected argument"},
      {{"cutout", photo_, "--mask", mask_, "--trimap", mask_}, "only one of"},
      {{"cutout", photo_, "--mask"}, "--mask needs a value"},
      {{"cutout", photo_, "--mask", mask_, "--frobnicate"},
       "unknown option '--frobnicate'"},
      {{"cut", photo_}, "unknown command 'cut'"},
      {{"demo", "--mask", mask_}, "demo uses its own sample"},
  };
  int n = 0;
  for (const Case& c : cases) {
    const fs::path out = dir_ / ("out" + std::to_string(n++));
    // The output folder goes right after the command, so that a case that
    // lacks a value at its end stays lacking.
    std::vector<std::string> args = c.args;
    args.insert(args.begin() + 1, {"-o", out.string()});
    const Outcome got = Run(args);
    std::string joined;
    for (const std::string& a : c.args) joined += " " + a;
    SCOPED_TRACE(joined);
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 1) << got.err;
    EXPECT_NE(got.err.find(c.says), std::string::npos) << got.err;
    EXPECT_FALSE(fs::exists(out));
  }
}

TEST_F(SoftmatteCli, NeverOverwritesAnInput) {
  // The mask sits where alpha.png would go, the photo where composite.png
  // would: both must survive byte for byte.
  const fs::path mask = dir_ / "alpha.png";
  const fs::path photo = dir_ / "composite.png";
  fs::copy_file(mask_, mask);
  fs::copy_file(photo_, photo);
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"cutout", photo_, "--mask", mask, "-o", dir_},
        std::vector<std::string>{"cutout", photo, "--mask", mask_, "-o",
                                 dir_}}) {
    const Outcome got = Run(args);
    EXPECT_EQ(got.status, 2);
    EXPECT_NE(got.err.find("would overwrite the input"), std::string::npos)
        << got.err;
  }
  EXPECT_EQ(Slurp(mask), Slurp(mask_));
  EXPECT_EQ(Slurp(photo), Slurp(photo_));
  EXPECT_EQ(Listing(dir_),
            (std::vector<std::string>{"alpha.png", "composite.png", "stderr",
                                      "stdout"}));
}

// The demo's three files agree with each other: the foreground's fourth
// channel is the matte, and the composite is foreground over the colour.
TEST_F(SoftmatteCli, DemoWritesAMatchingAlphaForegroundAndComposite) {
  const fs::path out = dir_ / "demo";
  const Outcome got = Run({"demo", "--colour", "20C040", "-o", out});
  ASSERT_EQ(got.status, 0) << got.err;
  EXPECT_EQ(got.err, "");
  EXPECT_NE(got.out.find(out.string()), std::string::npos) << got.out;
  EXPECT_EQ(Listing(out), (std::vector<std::string>{
                              "alpha.png", "composite.png", "foreground.png"}));

  const Picture alpha = Load(out / "alpha.png", Layout::kGrey);
  const Picture fore = Load(out / "foreground.png", Layout::kBgra);
  const Picture comp = Load(out / "composite.png", Layout::kBgr);
  ASSERT_EQ(alpha.width, 451);
  ASSERT_EQ(alpha.height, 300);
  ASSERT_EQ(fore.pixels.size(), 4 * alpha.pixels.size());
  ASSERT_EQ(comp.pixels.size(), 3 * alpha.pixels.size());
  const int colour[3] = {0x40, 0xC0, 0x20};  // B, G, R
  size_t fractional = 0;
  for (size_t i = 0; i < alpha.pixels.size(); ++i) {
    const int a = alpha.pixels[i];
    ASSERT_EQ(fore.pixels[4 * i + 3], a) << "pixel " << i;
    fractional += a > 0 && a < 255;
    for (int c = 0; c < 3; ++c) {
      const int want =
          (fore.pixels[4 * i + c] * a + colour[c] * (255 - a) + 127) / 255;
      ASSERT_EQ(comp.pixels[3 * i + c], want) << "pixel " << i;
    }
  }
  // The cat's middle is subject, the far right is not, and the fur edge
  // gets a soft band.
  EXPECT_EQ(alpha.pixels[150 * 451 + 200], 255);
  EXPECT_EQ(alpha.pixels[150 * 451 + 440], 0);
  EXPECT_GT(fractional, 1000u);
}

// Everything at or above 128 is subject, everything below is not: a mask of
// 128 and 127 cuts out exactly what the 255 and 0 mask does. A JPEG photo
// goes through the same road.
TEST_F(SoftmatteCli, MaskIsCutAtMidGreyAndJpegPhotosWork) {
  Picture mask = Load(mask_, Layout::kGrey);
  for (unsigned char& v : mask.pixels) v = v ? 128 : 127;
  const fs::path grey = dir_ / "grey.png";
  Save(grey, mask, Layout::kGrey);
  ASSERT_EQ(Run({"cutout", photo_, "--mask", mask_, "-o", dir_ / "a"}).status,
            0);
  ASSERT_EQ(Run({"cutout", photo_, "--mask", grey, "-o", dir_ / "b"}).status,
            0);
  EXPECT_EQ(Slurp(dir_ / "a" / "alpha.png"), Slurp(dir_ / "b" / "alpha.png"));

  const fs::path jpeg = dir_ / "photo.jpg";
  SaveJpeg(jpeg, Load(photo_, Layout::kBgr));
  const Outcome got = Run({"cutout", jpeg, "--mask", mask_, "-o", dir_ / "c"});
  ASSERT_EQ(got.status, 0) << got.err;
  const Picture alpha = Load(dir_ / "c" / "alpha.png", Layout::kGrey);
  EXPECT_EQ(alpha.width, 451);
  EXPECT_EQ(alpha.height, 300);
}

// Scribbles give the subject under the red strokes and leave it out under
// the blue ones; a hand-made trimap is honoured far from its band; the
// smallest working size still runs; --verbose reports the stages on
// standard error.
TEST_F(SoftmatteCli, ScribblesTrimapAndSmallWorkSize) {
  const Outcome scribbled =
      Run({"cutout", photo_, "--scribbles", scribbles_, "--background", photo_,
           "--verbose", "-o", dir_ / "s"});
  ASSERT_EQ(scribbled.status, 0) << scribbled.err;
  const Picture alpha = Load(dir_ / "s" / "alpha.png", Layout::kGrey);
  EXPECT_EQ(alpha.pixels[60 * 451 + 200], 255);  // red stroke
  EXPECT_EQ(alpha.pixels[150 * 451 + 420], 0);   // blue stroke
  for (const char* stage : {"scribbles", "trimap", "tables", "solve",
                            "upsampling", "cleanup", "colours"}) {
    EXPECT_NE(scribbled.err.find(stage), std::string::npos) << stage;
  }

  Picture trimap = Load(mask_, Layout::kGrey);
  for (int y = 0; y < 300; ++y) {
    for (int x = 330; x < 380; ++x) trimap.pixels[y * 451 + x] = 128;
  }
  const fs::path trimap_path = dir_ / "trimap.png";
  Save(trimap_path, trimap, Layout::kGrey);
  const Outcome trimapped =
      Run({"cutout", photo_, "--trimap", trimap_path, "-o", dir_ / "t"});
  ASSERT_EQ(trimapped.status, 0) << trimapped.err;
  const Picture matte = Load(dir_ / "t" / "alpha.png", Layout::kGrey);
  EXPECT_EQ(matte.pixels[150 * 451 + 200], 255);
  EXPECT_EQ(matte.pixels[150 * 451 + 440], 0);

  EXPECT_EQ(Run({"cutout", photo_, "--mask", mask_, "--work-size", "8", "-o",
                 dir_ / "w"})
                .status,
            0);
}

}  // namespace
