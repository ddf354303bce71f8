// softmatte: a finished cut-out (alpha, foreground, composite) from a photo
// and a rough mask, trimap or scribbles. See the README for the options.

#include <malloc.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "cutout.h"
#include "image_io.h"
#include "overview.h"
#include "softmatte/ff/ipf.h"

namespace softmatte_tool {
namespace {

namespace fs = std::filesystem;

constexpr int kBadInput = 2;
constexpr char kOverviewName[] = "overview.png";
constexpr int kCannotWrite = 1;
// The sample's mask is a rough hand-drawn polygon, a few pixels off the fur
// all round: it needs a wider band than the measured default, which suits
// masks that sit on the true edge.
constexpr int kSampleMaxBand = 12;
constexpr double kSampleBandScale = 0.1;

const char kUsage[] =
    "usage: softmatte [demo] [-o DIR] [--png-level N] [--verbose]\n"
    "       softmatte cutout PHOTO (--mask MASK | --trimap TRIMAP |"
    " --scribbles SCRIBBLES)\n"
    "                 [--work-size N] [--band MAX,SCALE]"
    " [--quality exact|fine]\n"
    "                 [--coarse-band N] [--keep-strays] [--smooth N]\n"
    "                 [--background IMAGE | --colour RRGGBB]\n"
    "                 [--max-pixels N] [--png-level N] [-o DIR] [--verbose]\n";

// Prints how long the tool's own stages (reading, writing) took to
// standard error when enabled; the cut-out reports its stages itself.
class Stage {
 public:
  explicit Stage(bool enabled) : enabled_(enabled) {}
  void Start(const char* name) {
    Stop();
    name_ = name;
    begin_ = std::chrono::steady_clock::now();
  }
  void Stop() {
    if (name_ != nullptr && enabled_) {
      const std::chrono::duration<double> seconds =
          std::chrono::steady_clock::now() - begin_;
      std::fprintf(stderr, "softmatte: %-34s %8.3f s\n", name_,
                   seconds.count());
    }
    name_ = nullptr;
  }

 private:
  bool enabled_;
  const char* name_ = nullptr;
  std::chrono::steady_clock::time_point begin_;
};

// Carries the one line a bad input earns.
struct Failure {
  int status;
  std::string message;
};

struct Arguments {
  bool demo = false;
  std::string photo;
  std::string mask;
  std::string trimap;
  std::string scribbles;
  std::string background;
  unsigned char colour[3] = {255, 255, 255};  // B, G, R
  std::string output = "softmatte-out";
  bool verbose = false;
  long long max_pixels = kDefaultMaxPixels;
  int png_level = kFastPngLevel;
  mat_cutout_options settings;
};

bool ParseInt(const std::string& text, long* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  *value = std::strtol(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0';
}

bool ParseColour(const std::string& text, unsigned char bgr[3]) {
  std::string hex = text[0] == '#' ? text.substr(1) : text;
  if (hex.size() != 6) return false;
  for (char c : hex) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  const unsigned long rgb = std::strtoul(hex.c_str(), nullptr, 16);
  bgr[0] = static_cast<unsigned char>(rgb & 0xFF);
  bgr[1] = static_cast<unsigned char>((rgb >> 8) & 0xFF);
  bgr[2] = static_cast<unsigned char>((rgb >> 16) & 0xFF);
  return true;
}

bool ParseBand(const std::string& text, mat_cutout_options* settings) {
  const size_t comma = text.find(',');
  long max_band = 0;
  if (!ParseInt(text.substr(0, comma), &max_band) || max_band < 0 ||
      max_band > 10000) {
    return false;
  }
  if (comma != std::string::npos) {
    const std::string scale = text.substr(comma + 1);
    char* end = nullptr;
    const double value = std::strtod(scale.c_str(), &end);
    if (scale.empty() || *end != '\0' || !(value > 0.0 && value <= 100.0)) {
      return false;
    }
    settings->band_scale = value;
  }
  settings->max_band = static_cast<int>(max_band);
  return true;
}

Failure Bad(const std::string& message) { return {kBadInput, message}; }

// Fills args from argv; false with failure set on a usage error.
bool Parse(int argc, char** argv, Arguments* args, Failure* failure) {
  std::vector<std::string> words(argv + 1, argv + argc);
  size_t i = 0;
  if (words.empty() || words[0] == "demo") {
    args->demo = true;
    i = words.empty() ? 0 : 1;
  } else if (words[0] == "cutout") {
    i = 1;
  } else if (words[0] != "-o" && words[0] != "--verbose") {
    *failure = Bad("unknown command '" + words[0] +
                   "' (try 'softmatte cutout' or 'softmatte demo')");
    return false;
  } else {
    args->demo = true;
  }
  bool have_colour = false;
  bool have_band = false;
  for (; i < words.size(); ++i) {
    const std::string& flag = words[i];
    if (flag == "--verbose" || flag == "-v") {
      args->verbose = true;
      continue;
    }
    if (flag == "--keep-strays") {
      args->settings.loose_blocks = 0;
      continue;
    }
    if (flag.empty() || flag[0] != '-') {
      if (args->demo || !args->photo.empty()) {
        *failure = Bad("unexpected argument '" + flag + "'");
        return false;
      }
      args->photo = flag;
      continue;
    }
    const bool takes_value =
        flag == "-o" || flag == "--work-size" || flag == "--band" ||
        flag == "--background" || flag == "--colour" || flag == "--color" ||
        flag == "--mask" || flag == "--trimap" || flag == "--scribbles" ||
        flag == "--quality" || flag == "--max-pixels" ||
        flag == "--png-level" || flag == "--smooth" || flag == "--coarse-band";
    if (!takes_value) {
      *failure = Bad("unknown option '" + flag + "'");
      return false;
    }
    if (i + 1 >= words.size() || words[i + 1].rfind("--", 0) == 0) {
      *failure = Bad(flag + " needs a value");
      return false;
    }
    const std::string& value = words[++i];
    if (args->demo &&
        (flag == "--mask" || flag == "--trimap" || flag == "--scribbles")) {
      *failure = Bad("demo uses its own sample; give " + flag +
                     " to 'softmatte cutout PHOTO'");
      return false;
    }
    if (flag == "-o") {
      args->output = value;
    } else if (flag == "--work-size") {
      long n = 0;
      if (!ParseInt(value, &n)) {
        *failure = Bad("--work-size needs a whole number, not '" + value + "'");
        return false;
      }
      if (n < kMinWorkSize || n > 1000000) {
        *failure =
            Bad("--work-size must be at least " + std::to_string(kMinWorkSize) +
                " (and at most 1000000)" + ", not " + value);
        return false;
      }
      args->settings.work_size = static_cast<int>(n);
    } else if (flag == "--band") {
      have_band = true;
      if (!ParseBand(value, &args->settings)) {
        *failure =
            Bad("--band needs MAX[,SCALE] with MAX a whole number >= 0"
                " and 0 < SCALE <= 100, not '" +
                value + "'");
        return false;
      }
    } else if (flag == "--smooth" || flag == "--coarse-band") {
      long n = 0;
      if (!ParseInt(value, &n) || n < 0 || n > 1000) {
        *failure = Bad(flag + " needs a whole number from 0 to 1000, not '" +
                       value + "'");
        return false;
      }
      (flag == "--smooth" ? args->settings.smooth_window
                          : args->settings.coarse_band) = static_cast<int>(n);
    } else if (flag == "--quality") {
      // Each solve with its own default regulariser.
      if (value == "exact") {
        args->settings.solve = mat_options();
      } else if (value == "fine") {
        args->settings.solve = mat_cutout_options().solve;
      } else {
        *failure = Bad("--quality needs exact or fine, not '" + value + "'");
        return false;
      }
    } else if (flag == "--max-pixels") {
      long n = 0;
      if (!ParseInt(value, &n) || n < 1) {
        *failure =
            Bad("--max-pixels needs a whole number of at least 1, not '" +
                value + "'");
        return false;
      }
      args->max_pixels = n;
    } else if (flag == "--png-level") {
      long n = 0;
      if (!ParseInt(value, &n) || n < 0 || n > 9) {
        *failure = Bad("--png-level needs a whole number from 0 to 9, not '" +
                       value + "'");
        return false;
      }
      args->png_level = static_cast<int>(n);
    } else if (flag == "--background") {
      args->background = value;
    } else if (flag == "--colour" || flag == "--color") {
      if (!ParseColour(value, args->colour)) {
        *failure =
            Bad(flag + " needs six hex digits RRGGBB, not '" + value + "'");
        return false;
      }
      have_colour = true;
    } else if (flag == "--mask") {
      args->mask = value;
    } else if (flag == "--trimap") {
      args->trimap = value;
    } else {
      args->scribbles = value;
    }
  }
  if (args->demo && !have_band) {
    args->settings.max_band = kSampleMaxBand;
    args->settings.band_scale = kSampleBandScale;
  }
  if (have_colour && !args->background.empty()) {
    *failure = Bad("give either --background or --colour, not both");
    return false;
  }
  const int sources =
      !args->mask.empty() + !args->trimap.empty() + !args->scribbles.empty();
  if (!args->demo && args->photo.empty()) {
    *failure = Bad("cutout needs a photo: softmatte cutout PHOTO --mask MASK");
    return false;
  }
  if (!args->demo && sources != 1) {
    *failure =
        Bad(sources == 0 ? "cutout needs one of --mask, --trimap or --scribbles"
                         : "give only one of --mask, --trimap and --scribbles");
    return false;
  }
  return true;
}

// Where the bundled sample lives: installed beside the program's data, or
// in the source tree of a build that was not installed. The installed copy
// is looked for from the program itself first, since the prefix may be
// chosen only when installing.
std::string SampleDir() {
  if (const char* dir = std::getenv("SOFTMATTE_SAMPLE_DIR")) return dir;
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  const fs::path beside =
      error ? fs::path()
            : program.parent_path() / SOFTMATTE_SAMPLE_DIR_FROM_PROGRAM;
  for (const fs::path& dir : {beside, fs::path(SOFTMATTE_INSTALLED_SAMPLE_DIR),
                              fs::path(SOFTMATTE_SOURCE_SAMPLE_DIR)}) {
    std::error_code ignored;
    if (!dir.empty() && fs::exists(dir / "chelsea.png", ignored)) {
      return dir.lexically_normal().string();
    }
  }
  return SOFTMATTE_SOURCE_SAMPLE_DIR;
}

bool Load(const std::string& path, Layout layout, long long max_pixels,
          Picture* picture, Failure* failure) {
  std::string error;
  if (ReadPicture(path, layout, picture, &error, max_pixels)) return true;
  *failure = Bad(error);
  return false;
}

bool CheckSize(const Picture& picture, const Picture& photo,
               const std::string& what, const std::string& path,
               Failure* failure) {
  if (picture.width == photo.width && picture.height == photo.height) {
    return true;
  }
  *failure =
      Bad(what + " " + path + " is " + std::to_string(picture.width) + "x" +
          std::to_string(picture.height) + " but the photo is " +
          std::to_string(photo.width) + "x" + std::to_string(photo.height));
  return false;
}

// True when writing to out would replace the file at input.
bool SameFile(const fs::path& out, const std::string& input) {
  std::error_code error;
  return !input.empty() && fs::equivalent(out, input, error) && !error;
}

int Run(int argc, char** argv) {
  Arguments args;
  Failure failure{0, ""};
  const auto fail = [&failure]() {
    std::fprintf(stderr, "softmatte: %s\n", failure.message.c_str());
    return failure.status;
  };
  if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 ||
                   std::strcmp(argv[1], "-h") == 0)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (!Parse(argc, argv, &args, &failure)) return fail();
  if (args.demo) {
    const std::string dir = SampleDir();
    args.photo = dir + "/chelsea.png";
    args.mask = dir + "/chelsea_mask.png";
  }

  Stage stage(args.verbose);
  stage.Start("reading inputs");
  Picture photo;
  if (!Load(args.photo, Layout::kBgr, args.max_pixels, &photo, &failure)) {
    return fail();
  }
  const int width = photo.width;
  const int height = photo.height;

  // The guide plane mat_cutout takes: the grey mask or trimap as it is read
  // (the library draws the line at mid-grey, or bins the trimap), or the
  // scribbles' labels.
  std::vector<unsigned char> guide;
  int guide_kind = MAT_GUIDE_MASK;
  std::string no_subject;
  if (!args.scribbles.empty()) {
    Picture strokes;
    if (!Load(args.scribbles, Layout::kBgra, args.max_pixels, &strokes,
              &failure) ||
        !CheckSize(strokes, photo, "scribbles", args.scribbles, &failure)) {
      return fail();
    }
    long foreground = 0;
    long background = 0;
    ScribbleLabels(strokes.pixels, width, height, &guide, &foreground,
                   &background);
    if (foreground == 0 || background == 0) {
      failure =
          Bad("scribbles " + args.scribbles + " have no " +
              (foreground == 0 ? "red (foreground)" : "blue (background)") +
              " strokes");
      return fail();
    }
    guide_kind = MAT_GUIDE_SCRIBBLES;
  } else {
    const bool trimap = !args.trimap.empty();
    const std::string& path = trimap ? args.trimap : args.mask;
    const char* what = trimap ? "trimap" : "mask";
    Picture given;
    if (!Load(path, Layout::kGrey, args.max_pixels, &given, &failure) ||
        !CheckSize(given, photo, what, path, &failure)) {
      return fail();
    }
    guide.swap(given.pixels);
    guide_kind = trimap ? MAT_GUIDE_TRIMAP : MAT_GUIDE_MASK;
    no_subject = trimap
                     ? "trimap " + path + " has no foreground or unknown pixels"
                     : "mask " + path +
                           " has no foreground (no pixel is mid-grey or "
                           "brighter)";
  }

  if (!args.background.empty()) {
    // Checked before the long solve, so that a broken file fails at once.
    Picture given;
    if (!Load(args.background, Layout::kBgr, args.max_pixels, &given,
              &failure)) {
      return fail();
    }
  }

  const fs::path folder(args.output);
  const char* names[] = {"alpha.png", "foreground.png", "composite.png",
                         kOverviewName};
  for (const char* name : names) {
    for (const std::string* input : {&args.photo, &args.mask, &args.trimap,
                                     &args.scribbles, &args.background}) {
      if (SameFile(folder / name, *input)) {
        failure = Bad("writing " + (folder / name).string() +
                      " would overwrite the input " + *input +
                      "; choose another output folder with -o");
        return fail();
      }
    }
  }
  std::error_code folder_error;
  if (fs::exists(folder, folder_error) && !fs::is_directory(folder)) {
    failure = Bad("output " + args.output + " exists and is not a folder");
    return fail();
  }

  stage.Stop();
  const size_t count = static_cast<size_t>(width) * height;
  std::vector<unsigned char> alpha(count);
  std::vector<unsigned char> colours(3 * count);
  mat_cutout_timings timings;
  const int status =
      mat_cutout(photo.pixels.data(), width, height, 3 * width, guide.data(),
                 width, guide_kind, args.settings, alpha.data(), width,
                 colours.data(), 3 * width, &timings);
  if (status == MAT_CUTOUT_NO_SUBJECT && !no_subject.empty()) {
    failure = Bad(no_subject);
    return fail();
  }
  if (status != MAT_CUTOUT_OK) {
    failure = Bad("the cut-out failed (status " + std::to_string(status) + ")");
    return fail();
  }
  if (args.verbose) PrintTimings(timings);
  // The demo keeps photo and guide for its overview; a cut-out lets them go
  // before the outputs are made.
  if (!args.demo) {
    std::vector<unsigned char>().swap(photo.pixels);
    std::vector<unsigned char>().swap(guide);
  }

  // The backdrop is decoded again only now, when the photo is gone: holding
  // it through the cut-out would raise the peak. A plain colour is one row.
  std::vector<unsigned char> backdrop;
  std::vector<unsigned char> plain(3 * static_cast<size_t>(width));
  for (size_t i = 0; i < plain.size(); ++i) plain[i] = args.colour[i % 3];
  if (!args.background.empty()) {
    Picture given;
    if (!Load(args.background, Layout::kBgr, args.max_pixels, &given,
              &failure)) {
      return fail();
    }
    // Stretched to the photo: a backdrop rarely has the photo's exact size.
    backdrop.resize(colours.size());
    ff::ipf_resize_bl<unsigned char, unsigned char>(
        given.pixels.data(), given.width, given.height, 3 * given.width, 3,
        backdrop.data(), width, height, 3 * width, 3, 3);
  }

  stage.Start("writing outputs");
  fs::create_directories(folder, folder_error);
  if (folder_error) {
    std::fprintf(stderr, "softmatte: cannot create %s: %s\n",
                 args.output.c_str(), folder_error.message().c_str());
    return kCannotWrite;
  }
  std::string error;
  const PngCompression png = PngCompressionForLevel(args.png_level);
  // The composite and the four-channel foreground are made row by row as
  // they are written: neither ever exists whole.
  const RowSource matte_rows = [&](int y, unsigned char*) {
    return &alpha[static_cast<size_t>(y) * width];
  };
  const RowSource composite_rows = [&](int y, unsigned char* row) {
    const size_t at = static_cast<size_t>(y) * width;
    const unsigned char* back =
        backdrop.empty() ? plain.data() : &backdrop[3 * at];
    mat_composite(&colours[3 * at], 3 * width, &alpha[at], width, back,
                  3 * width, width, 1, row, 3 * width);
    return row;
  };
  const RowSource foreground_rows = [&](int y, unsigned char* row) {
    const size_t at = static_cast<size_t>(y) * width;
    // A transparent pixel's colour shows nowhere: black there costs the
    // compressor far less than the photo's background would.
    for (int x = 0; x < width; ++x) {
      const unsigned char a = alpha[at + x];
      if (a != 0) {
        std::memcpy(&row[4 * x], &colours[3 * (at + x)], 3);
      } else {
        std::memset(&row[4 * x], 0, 3);
      }
      row[4 * x + 3] = a;
    }
    return row;
  };
  const struct {
    const char* name;
    Layout layout;
    const RowSource* rows;
  } outputs[] = {{names[0], Layout::kGrey, &matte_rows},
                 {names[2], Layout::kBgr, &composite_rows},
                 {names[1], Layout::kBgra, &foreground_rows}};
  for (const auto& output : outputs) {
    if (!WritePngRowsAtomically((folder / output.name).string(), width, height,
                                output.layout, *output.rows, &error, png)) {
      std::fprintf(stderr, "softmatte: %s\n", error.c_str());
      return kCannotWrite;
    }
  }
  if (args.demo) {
    // The whole run at a glance: photo, mask, matte and composite.
    std::vector<unsigned char> composite(colours.size());
    for (int y = 0; y < height; ++y) {
      composite_rows(y, &composite[3 * static_cast<size_t>(y) * width]);
    }
    if (!WritePngAtomically(
            (folder / kOverviewName).string(),
            MakeOverview(width, height, photo.pixels, guide, alpha, composite),
            Layout::kBgr, &error, png)) {
      std::fprintf(stderr, "softmatte: %s\n", error.c_str());
      return kCannotWrite;
    }
  }
  stage.Stop();
  std::fflush(stdout);
  std::printf("\nsoftmatte: wrote %s, %s, %s%s in %s\n", names[0], names[1],
              names[2], args.demo ? " and overview.png" : "",
              fs::absolute(folder).lexically_normal().c_str());
  return 0;
}

}  // namespace
}  // namespace softmatte_tool

namespace {

// A cut-out takes and frees a few planes of the photo's size in turn: tens
// of thousands of page faults and TLB misses at 4 KB a page. The planes are
// served from one heap that is never returned to the kernel, and that heap
// is marked for transparent huge pages up front, so that a 12-megapixel run
// faults a few hundred times instead of forty thousand.
void PrepareHeapForLargePlanes() {
#if defined(__GLIBC__) && defined(__linux__) && \
    !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // (The sanitizers bring their own allocators.)
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  constexpr size_t kReserve = size_t{1} << 30;
  constexpr uintptr_t kHugePage = uintptr_t{1} << 21;
  void* block = std::malloc(kReserve);
  if (block == nullptr) return;
  const uintptr_t begin =
      (reinterpret_cast<uintptr_t>(block) + kHugePage - 1) & ~(kHugePage - 1);
  const uintptr_t end =
      (reinterpret_cast<uintptr_t>(block) + kReserve) & ~(kHugePage - 1);
  if (end > begin) {
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
  }
  std::free(block);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  PrepareHeapForLargePlanes();
  return softmatte_tool::Run(argc, argv);
}
