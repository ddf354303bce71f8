#ifndef SOFTMATTE_SRC_TRIMAP_MASK_RUNS_H_
#define SOFTMATTE_SRC_TRIMAP_MASK_RUNS_H_

#include <cstddef>
#include <vector>

// The subject of a packed mask (non-zero pixels) as row runs, grouped into
// its 4-connected pieces: a description whose size follows the mask's edges
// rather than its area, for the one-shot flow's work on large photos.
struct MaskRun {
  int y;
  int x0;  // first pixel
  int x1;  // one past the last
};

struct MaskRuns {
  int width = 0;
  int height = 0;
  std::vector<MaskRun> runs;     // row by row, left to right
  std::vector<size_t> rowStart;  // height + 1: the first run of each row
  std::vector<int> piece;        // per run, its piece 0 .. pieces - 1
  int pieces = 0;
};

// The runs and pieces of the non-zero pixels of mask (stride width).
MaskRuns FindMaskRuns(const unsigned char* mask, int width, int height);

#endif  // SOFTMATTE_SRC_TRIMAP_MASK_RUNS_H_
