#ifndef SOFTMATTE_RESAMPLE_H_
#define SOFTMATTE_RESAMPLE_H_

#include "softmatte/export.h"

// Guided up- and down-sampling of mattes (usam_*, dsam_*).

#endif  // SOFTMATTE_RESAMPLE_H_
