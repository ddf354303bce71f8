#ifndef SOFTMATTE_EDIT_H_
#define SOFTMATTE_EDIT_H_

#include "softmatte/export.h"

// Matte cleanup, brush editing, level estimation and S-transform.

#endif  // SOFTMATTE_EDIT_H_
