#ifndef SOFTMATTE_TOOLS_OVERVIEW_H_
#define SOFTMATTE_TOOLS_OVERVIEW_H_

#include <vector>

#include "image_io.h"

namespace softmatte_tool {

// Panels of an overview are at most this many rows high; smaller photos
// keep their size.
constexpr int kOverviewHeight = 360;
// Grey frame around and between the panels, in pixels.
constexpr int kOverviewGap = 8;

// A picture for a person: the photo, its guide (mask, trimap or scribbles as
// grey), the matte and the composite side by side, each scaled alike to at
// most kOverviewHeight rows (B, G, R). Every plane is packed and has the
// photo's size; photo and composite are B, G, R.
Picture MakeOverview(int width, int height,
                     const std::vector<unsigned char>& photo,
                     const std::vector<unsigned char>& guide,
                     const std::vector<unsigned char>& alpha,
                     const std::vector<unsigned char>& composite);

}  // namespace softmatte_tool

#endif  // SOFTMATTE_TOOLS_OVERVIEW_H_
