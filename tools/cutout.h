#ifndef SOFTMATTE_TOOLS_CUTOUT_H_
#define SOFTMATTE_TOOLS_CUTOUT_H_

#include <vector>

#include "softmatte/cutout.h"

namespace softmatte_tool {

constexpr int kMinWorkSize = 8;

// Labels for geodesic segmentation from a B, G, R, A scribble picture: 2
// where a foreground stroke is, 1 where a background stroke is, else 0.
// Returns the counts of foreground and background stroke pixels.
void ScribbleLabels(const std::vector<unsigned char>& scribbles, int width,
                    int height, std::vector<unsigned char>* labels,
                    long* foreground, long* background);

// Prints each stage of a cut-out (wall clock) to standard error.
void PrintTimings(const mat_cutout_timings& timings);

}  // namespace softmatte_tool

#endif  // SOFTMATTE_TOOLS_CUTOUT_H_
