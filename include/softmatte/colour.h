#ifndef SOFTMATTE_COLOUR_H_
#define SOFTMATTE_COLOUR_H_

#include "softmatte/export.h"

// Foreground and background colour estimation and retouching.

#endif  // SOFTMATTE_COLOUR_H_
