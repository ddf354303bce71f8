#ifndef SOFTMATTE_SOFTMATTE_H_
#define SOFTMATTE_SOFTMATTE_H_

// Everything the library exports.
#include "softmatte/colour.h"
#include "softmatte/cutout.h"
#include "softmatte/edit.h"
#include "softmatte/export.h"
#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/ff/utils.h"
#include "softmatte/geoseg.h"
#include "softmatte/resample.h"
#include "softmatte/session.h"
#include "softmatte/solver.h"
#include "softmatte/trimap.h"

#endif  // SOFTMATTE_SOFTMATTE_H_
