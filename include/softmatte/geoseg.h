#ifndef SOFTMATTE_GEOSEG_H_
#define SOFTMATTE_GEOSEG_H_

#include "softmatte/export.h"

// Geodesic segmentation from scribbles (GeoSeg, GeoSegN24).

#endif  // SOFTMATTE_GEOSEG_H_
