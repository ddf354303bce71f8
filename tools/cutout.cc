#include "cutout.h"

#include <cstddef>
#include <cstdio>

namespace softmatte_tool {
namespace {

// Strokes are drawn in saturated red or blue; anti-aliased stroke edges and
// photo-like colours fall outside these boxes and stay unlabelled.
bool IsStroke(const unsigned char* bgra, int hot) {
  if (bgra[3] < 128) return false;
  for (int c = 0; c < 3; ++c) {
    const bool wanted = c == hot;
    if (wanted ? bgra[c] < 192 : bgra[c] > 96) return false;
  }
  return true;
}

}  // namespace

void ScribbleLabels(const std::vector<unsigned char>& scribbles, int width,
                    int height, std::vector<unsigned char>* labels,
                    long* foreground, long* background) {
  const size_t count = static_cast<size_t>(width) * height;
  labels->assign(count, 0);
  *foreground = 0;
  *background = 0;
  for (size_t i = 0; i < count; ++i) {
    const unsigned char* p = &scribbles[4 * i];
    if (IsStroke(p, 2)) {
      (*labels)[i] = 2;
      ++*foreground;
    } else if (IsStroke(p, 0)) {
      (*labels)[i] = 1;
      ++*background;
    }
  }
}

void PrintTimings(const mat_cutout_timings& t) {
  const struct {
    const char* name;
    double seconds;
  } stages[] = {
      {"scribbles (geodesic segmentation)", t.scribbles},
      {"trimap", t.trimap},
      {"tables (working copy, upsampling)", t.tables},
      {"solve", t.solve},
      {"upsampling", t.upsampling},
      {"cleanup", t.cleanup},
      {"colours", t.colours},
  };
  for (const auto& stage : stages) {
    if (stage.seconds == 0.0) continue;  // a stage this input does not have
    std::fprintf(stderr, "softmatte: %-34s %8.3f s\n", stage.name,
                 stage.seconds);
  }
}

}  // namespace softmatte_tool
