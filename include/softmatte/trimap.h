#ifndef SOFTMATTE_TRIMAP_H_
#define SOFTMATTE_TRIMAP_H_

#include "softmatte/export.h"

// Trimap generation: distance transform, component boundaries, adaptive
// windows and the trimap from a segmentation result.

#endif  // SOFTMATTE_TRIMAP_H_
