// The tool's three PNGs (alpha, foreground, composite) of a 12-megapixel
// cut-out, written with several zlib levels, PNG filters and zlib
// strategies: the time per run and the bytes they take.

#include <benchmark/benchmark.h>
#include <png.h>
#include <stdlib.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "image_io.h"
#include "softmatte/ff/ipf.h"

namespace {

namespace fs = std::filesystem;
using softmatte_tool::Layout;
using softmatte_tool::Picture;

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;

Picture Upscaled(const std::string& name, Layout layout) {
  Picture small;
  std::string error;
  if (!softmatte_tool::ReadPicture(
          std::string(SOFTMATTE_SAMPLE_DIR) + "/" + name, layout, &small,
          &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    std::abort();
  }
  const int c = small.channels;
  Picture big{
      kWidth, kHeight, c,
      std::vector<unsigned char>(static_cast<size_t>(kWidth) * kHeight * c)};
  ff::ipf_resize_bl<unsigned char, unsigned char>(
      small.pixels.data(), small.width, small.height, c * small.width, c,
      big.pixels.data(), kWidth, kHeight, c * kWidth, c, c);
  return big;
}

// The sample cat blown up to 12 megapixels: its mask, mostly 0 and 255 with
// a ramp of about nine pixels at the edge, as alpha; the photo under that
// alpha as foreground; the cat over white as composite.
struct Cutout {
  Picture alpha = Upscaled("chelsea_mask.png", Layout::kGrey);
  Picture foreground;
  Picture composite = Upscaled("chelsea.png", Layout::kBgr);

  explicit Cutout(int noise) {
    const size_t count = alpha.pixels.size();
    std::mt19937 random(7);
    if (noise > 0) {
      for (unsigned char& v : composite.pixels) {
        v = static_cast<unsigned char>(std::clamp(
            v + static_cast<int>(random() % (2 * noise + 1)) - noise, 0, 255));
      }
    }
    foreground = {kWidth, kHeight, 4, std::vector<unsigned char>(4 * count)};
    for (size_t i = 0; i < count; ++i) {
      const int a = alpha.pixels[i];
      for (int c = 0; c < 3; ++c) {
        unsigned char& v = composite.pixels[3 * i + c];
        foreground.pixels[4 * i + c] = v;
        v = static_cast<unsigned char>((v * a + 255 * (255 - a) + 127) / 255);
      }
      foreground.pixels[4 * i + 3] = static_cast<unsigned char>(a);
    }
  }
};

void BM_tool_png_write_12MP(benchmark::State& state) {
  static const Cutout smooth(0);
  static const Cutout noisy(3);
  const Cutout& cutout = state.range(3) ? noisy : smooth;
  const softmatte_tool::PngCompression compression{
      static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
      static_cast<int>(state.range(2))};
  char pattern[] = "/tmp/softmatte_png_bench_XXXXXX";
  if (!mkdtemp(pattern)) std::abort();
  const fs::path dir = pattern;
  const std::pair<const Picture*, Layout> files[] = {
      {&cutout.alpha, Layout::kGrey},
      {&cutout.foreground, Layout::kBgra},
      {&cutout.composite, Layout::kBgr}};
  for (auto _ : state) {
    int n = 0;
    for (const auto& [picture, layout] : files) {
      std::string error;
      if (!softmatte_tool::WritePngAtomically(
              (dir / std::to_string(n++)).string() + ".png", *picture, layout,
              &error, compression)) {
        state.SkipWithError(error.c_str());
      }
    }
  }
  double bytes = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    bytes += static_cast<double>(entry.file_size());
  }
  state.counters["MB"] = bytes / 1e6;
  fs::remove_all(dir);
}

constexpr int kNone = PNG_FILTER_NONE;
constexpr int kSub = PNG_FILTER_SUB;
constexpr int kUp = PNG_FILTER_UP;
constexpr int kPaeth = PNG_FILTER_PAETH;
constexpr int kAll = PNG_ALL_FILTERS;

// noise 0 is the blown-up sample alone, smoother than any camera's photo;
// noise 1 adds a camera's grain (+-3) to the colours.
BENCHMARK(BM_tool_png_write_12MP)
    ->ArgNames({"level", "filters", "strategy", "noise"})
    // What the tool wrote with before: libpng's simplified writer, fast.
    ->ArgsProduct({{3}, {kNone}, {Z_DEFAULT_STRATEGY}, {0, 1}})
    ->ArgsProduct({{0}, {kNone}, {Z_DEFAULT_STRATEGY}, {0, 1}})
    ->ArgsProduct(
        {{1}, {kNone, kSub, kUp, kPaeth, kAll}, {Z_DEFAULT_STRATEGY}, {0, 1}})
    ->ArgsProduct({{1}, {kSub, kUp, kPaeth}, {Z_RLE}, {0, 1}})
    ->ArgsProduct({{1}, {kUp}, {Z_HUFFMAN_ONLY}, {0, 1}})
    ->ArgsProduct({{2}, {kUp}, {Z_DEFAULT_STRATEGY}, {0, 1}})
    ->ArgsProduct({{2, 4, 6, 9}, {kAll}, {Z_FILTERED}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

}  // namespace
