#ifndef SOFTMATTE_SRC_SESSION_CUTOUT_STEPS_H_
#define SOFTMATTE_SRC_SESSION_CUTOUT_STEPS_H_

#include <vector>

#include "trimap/mask_runs.h"

// The one-shot cut-out's own treatment of a segmentation mask (packed
// width x height, 0 or 255) before its band is drawn.
namespace cutout_steps {

// The median length of the straight runs of the mask's edge along rows and
// columns (inside the image): 1 or 2 for a mask drawn at full resolution,
// about N for one enlarged N times by nearest neighbour; 0 without an edge.
int EdgeRunLength(const MaskRuns& mask);

// Drops the pieces of the subject other than the largest that hold at most
// 4 * run^2 pixels and whose mean colour in the B, G, R image (stride
// bytes a row) differs from the mean colour just around them by less than
// contrast in every channel: from seg (packed, 0/255) and from its runs.
void DropLooseBlocks(const unsigned char* image, int stride, int contrast,
                     int run, MaskRuns& mask, std::vector<unsigned char>& seg);

}  // namespace cutout_steps

#endif  // SOFTMATTE_SRC_SESSION_CUTOUT_STEPS_H_
