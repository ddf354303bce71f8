#ifndef SOFTMATTE_SESSION_H_
#define SOFTMATTE_SESSION_H_

#include "softmatte/export.h"

// The per-photo matting session (DSCMatting) arrives here.

#endif  // SOFTMATTE_SESSION_H_
