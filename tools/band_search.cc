// Chooses the cut-out's default band parameters by measurement: for each
// (max_band, band_scale) of a grid, runs the tool's flow on every photo of
// the alphamatting training set with a mask cut from its ground truth at
// mid-grey (truth >= 128), and prints the mean SAD of the finished matte
// over the unknown pixels of the set's own trimaps.
//
//   softmatte_band_search [--max-band 4,8,12] [--scale 0.1,0.5]
//                         [--first N] [--last N]   (photos GT01..GT27)

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "softmatte/cutout.h"
#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using softmatte_test::MattingSample;

std::vector<double> ParseList(const char* text) {
  std::vector<double> values;
  const char* p = text;
  while (*p) {
    char* end = nullptr;
    values.push_back(std::strtod(p, &end));
    p = *end == ',' ? end + 1 : end;
    if (end == p && *p) break;
  }
  return values;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<double> max_bands = {4, 8, 12, 16, 24, 32};
  std::vector<double> scales = {0.05, 0.1, 0.25, 0.5, 1.0};
  int first = 1;
  int last = 27;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--max-band") == 0) {
      max_bands = ParseList(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--scale") == 0) {
      scales = ParseList(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--first") == 0) {
      first = std::atoi(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--last") == 0) {
      last = std::atoi(argv[i + 1]);
    }
  }
  if (softmatte_test::AlphamattingDir().empty()) {
    std::fprintf(stderr, "band_search: the alphamatting set is not there\n");
    return 2;
  }

  std::vector<std::vector<double>> sums(max_bands.size(),
                                        std::vector<double>(scales.size()));
  int loaded = 0;
  for (int index = first; index <= last; ++index) {
    MattingSample sample;
    if (!softmatte_test::LoadMattingSample(index, false, &sample)) continue;
    ++loaded;
    const int width = sample.image.width;
    const int height = sample.image.height;
    std::vector<unsigned char> mask(sample.truth.pixels.size());
    for (size_t i = 0; i < mask.size(); ++i) {
      mask[i] = sample.truth.pixels[i] >= 128 ? 255 : 0;
    }
    // Many grid points give the same trimap once max_band caps the band:
    // solve each distinct trimap once.
    std::map<size_t, std::pair<std::vector<unsigned char>, double>> solved;
    for (size_t b = 0; b < max_bands.size(); ++b) {
      for (size_t s = 0; s < scales.size(); ++s) {
        mat_cutout_options settings;
        settings.max_band = static_cast<int>(max_bands[b]);
        settings.band_scale = scales[s];
        settings.colours = 0;
        std::vector<unsigned char> trimap(mask.size());
        MakeTrimapFromSegRes(mask.data(), width, height, width, trimap.data(),
                             width, settings.max_band, settings.band_scale);
        const size_t key = std::hash<std::string_view>()(std::string_view(
            reinterpret_cast<const char*>(trimap.data()), trimap.size()));
        auto found = solved.find(key);
        double sad = 0.0;
        if (found != solved.end() && found->second.first == trimap) {
          sad = found->second.second;
        } else {
          std::vector<unsigned char> alpha(mask.size());
          mat_cutout(sample.image.pixels.data(), width, height, 3 * width,
                     mask.data(), width, MAT_GUIDE_MASK, settings, alpha.data(),
                     width, nullptr, 0, nullptr);
          sad = softmatte_test::SadOverUnknown(alpha, sample);
          solved[key] = {trimap, sad};
        }
        sums[b][s] += sad;
        std::fprintf(stderr, "%s max_band %g scale %g: SAD %.2f\n",
                     sample.name.c_str(), max_bands[b], scales[s], sad);
      }
    }
  }
  if (loaded == 0) return 2;

  std::printf(
      "\nmean SAD (thousands) over %d photos; rows max_band, "
      "columns band_scale\n\n| max_band |",
      loaded);
  for (double s : scales) std::printf(" %g |", s);
  std::printf("\n|---|");
  for (size_t s = 0; s < scales.size(); ++s) std::printf("---|");
  std::printf("\n");
  for (size_t b = 0; b < max_bands.size(); ++b) {
    std::printf("| %g |", max_bands[b]);
    for (size_t s = 0; s < scales.size(); ++s) {
      std::printf(" %.2f |", sums[b][s] / loaded);
    }
    std::printf("\n");
  }
  return 0;
}
