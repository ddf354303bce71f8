// Chooses the cut-out's defaults on masks as segmenters really give them.
// From the ground truth of each alphamatting.com training photo it makes
// masks of several families (the truth thresholded at mid-grey; blocky: the
// truth reduced to 1/2 .. 1/16 of each side and enlarged back by nearest
// neighbour; moved: the thresholded edge moved in or out by a few pixels),
// runs the whole one-shot flow (mat_cutout) for every setting of a grid and
// prints, per mask family, the mean SAD over the whole image and over the
// set's own unknown band (trimap/).
//
//   softmatte_mask_bench [--families truth,x2,x4,x8,x16,in2,out2,in4,out4]
//       [--band 1,4,8] [--scale 0.01,0.25,1] [--contrast 0,1]
//       [--min-band 1] [--smooth 3] [--keep 0,1] [--quality exact,fine]
//       [--loose 0,1] [--coarse 0,1] [--epsilon 1e-7,1e-9]
//       [--photos 1-27] [--per-photo]
//
// Every list option is one axis of the grid. Family names: truth, xN
// (blocky, reduced N times), nxN (blocky with stray blocks and pinholes),
// inN / outN (edge moved N pixels).

#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "softmatte/cutout.h"
#include "test_util.h"

namespace {

using softmatte_test::MattingSample;

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, ',');) parts.push_back(part);
  return parts;
}

std::vector<double> Numbers(const std::string& text) {
  std::vector<double> values;
  for (const std::string& part : Split(text)) {
    values.push_back(std::atof(part.c_str()));
  }
  return values;
}

// The mask of one family for a photo, or an empty plane for an unknown name.
std::vector<unsigned char> FamilyMask(const std::string& family,
                                      const MattingSample& sample) {
  const std::vector<unsigned char>& truth = sample.truth.pixels;
  const int w = sample.truth.width;
  const int h = sample.truth.height;
  if (family == "truth") return softmatte_test::MovedEdgeMask(truth, w, h, 0);
  if (family.size() > 2 && family[0] == 'n' && family[1] == 'x') {
    return softmatte_test::NoisyBlockyMask(truth, w, h, std::atoi(&family[2]));
  }
  if (family.size() > 1 && family[0] == 'x') {
    return softmatte_test::BlockyMask(truth, w, h, std::atoi(&family[1]));
  }
  if (family.rfind("in", 0) == 0) {
    return softmatte_test::MovedEdgeMask(truth, w, h,
                                         -std::atoi(family.c_str() + 2));
  }
  if (family.rfind("out", 0) == 0) {
    return softmatte_test::MovedEdgeMask(truth, w, h,
                                         std::atoi(family.c_str() + 3));
  }
  return {};
}

struct Axis {
  std::string name;
  std::vector<double> values;
};

// Sets one named setting of the options.
void Apply(const std::string& name, double v, mat_cutout_options* o) {
  if (name == "band") o->max_band = static_cast<int>(v);
  if (name == "scale") o->band_scale = v;
  if (name == "contrast") o->edge_contrast = static_cast<int>(v);
  if (name == "min-band") o->min_band = static_cast<int>(v);
  if (name == "smooth") o->smooth_window = static_cast<int>(v);
  if (name == "keep") o->keep_fragments = static_cast<int>(v);
  if (name == "quality") o->solve.solver = static_cast<int>(v);
  if (name == "loose") o->loose_blocks = static_cast<int>(v);
  if (name == "coarse") o->coarse_band = static_cast<int>(v);
  if (name == "epsilon") o->solve.epsilon = v;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> families = {"truth", "x2",  "x4",  "x8",
                                       "x16",   "in3", "out3"};
  std::vector<Axis> axes;
  int first = 1;
  int last = 27;
  bool perPhoto = false;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    const std::string value = i + 1 < argc ? argv[i + 1] : "";
    if (flag == "--per-photo") {
      perPhoto = true;
      continue;
    }
    ++i;
    if (flag == "--families") {
      families = Split(value);
    } else if (flag == "--photos") {
      const size_t dash = value.find('-');
      first = std::atoi(value.c_str());
      last = dash == std::string::npos ? first
                                       : std::atoi(value.c_str() + dash + 1);
    } else if (flag == "--quality") {
      Axis axis{"quality", {}};
      for (const std::string& q : Split(value)) {
        axis.values.push_back(q == "fine" ? MAT_SOLVER_FINE : MAT_SOLVER_EXACT);
      }
      axes.push_back(axis);
    } else if (flag.rfind("--", 0) == 0) {
      axes.push_back({flag.substr(2), Numbers(value)});
    }
  }
  if (softmatte_test::AlphamattingDir().empty()) {
    std::fprintf(stderr, "mask_bench: the alphamatting set is not there\n");
    return 2;
  }

  // The grid: every combination of the axes' values over the defaults.
  std::vector<std::vector<double>> grid(1);
  for (const Axis& axis : axes) {
    std::vector<std::vector<double>> next;
    for (const auto& point : grid) {
      for (double v : axis.values) {
        next.push_back(point);
        next.back().push_back(v);
      }
    }
    grid.swap(next);
  }

  // sums[setting][family] = {whole-image SAD, in-band SAD}
  std::vector<std::vector<std::pair<double, double>>> sums(
      grid.size(), std::vector<std::pair<double, double>>(families.size()));
  int count = 0;
  for (int index = first; index <= last; ++index) {
    MattingSample sample;
    if (!softmatte_test::LoadMattingSample(index, false, &sample)) continue;
    ++count;
    const int w = sample.image.width;
    const int h = sample.image.height;
    for (size_t f = 0; f < families.size(); ++f) {
      const std::vector<unsigned char> mask = FamilyMask(families[f], sample);
      if (mask.empty()) {
        std::fprintf(stderr, "mask_bench: unknown family %s\n",
                     families[f].c_str());
        return 2;
      }
      for (size_t g = 0; g < grid.size(); ++g) {
        mat_cutout_options o;
        o.colours = 0;
        for (size_t a = 0; a < axes.size(); ++a) {
          Apply(axes[a].name, grid[g][a], &o);
        }
        std::vector<unsigned char> alpha(mask.size());
        if (mat_cutout(sample.image.pixels.data(), w, h, 3 * w, mask.data(), w,
                       MAT_GUIDE_MASK, o, alpha.data(), w, nullptr, 0,
                       nullptr) != MAT_CUTOUT_OK) {
          std::fprintf(stderr, "mask_bench: %s %s refused\n",
                       sample.name.c_str(), families[f].c_str());
          return 1;
        }
        const double whole =
            softmatte_test::SadOverImage(alpha, sample.truth.pixels);
        const double band = softmatte_test::SadOverUnknown(alpha, sample);
        sums[g][f].first += whole;
        sums[g][f].second += band;
        if (perPhoto) {
          std::fprintf(stderr, "%s %s setting %zu: %.3f %.3f\n",
                       sample.name.c_str(), families[f].c_str(), g, whole,
                       band);
        }
      }
    }
    std::fprintf(stderr, "mask_bench: %s done\n", sample.name.c_str());
  }
  if (count == 0) return 2;

  std::printf(
      "\nmean SAD (thousands) over %d photos: whole image / in the "
      "set's unknown band\n\n|",
      count);
  for (const Axis& axis : axes) std::printf(" %s |", axis.name.c_str());
  for (const std::string& family : families) {
    std::printf(" %s |", family.c_str());
  }
  std::printf("\n|");
  for (size_t i = 0; i < axes.size() + families.size(); ++i) {
    std::printf("---|");
  }
  std::printf("\n");
  for (size_t g = 0; g < grid.size(); ++g) {
    std::printf("|");
    for (size_t a = 0; a < axes.size(); ++a) {
      if (axes[a].name == "quality") {
        std::printf(" %s |", grid[g][a] == MAT_SOLVER_FINE ? "fine" : "exact");
      } else {
        std::printf(" %g |", grid[g][a]);
      }
    }
    for (size_t f = 0; f < families.size(); ++f) {
      std::printf(" %.2f / %.2f |", sums[g][f].first / count,
                  sums[g][f].second / count);
    }
    std::printf("\n");
  }
  return 0;
}
