#ifndef SOFTMATTE_COLOUR_H_
#define SOFTMATTE_COLOUR_H_

#include "softmatte/export.h"

// Estimates foreground and background colours (B, G, R) of image under alpha
// for pixels with low <= alpha <= high; other pixels get the image colour. A
// null output is not written; nothing is written when image or alpha is null.
SOFTMATTE_API void mat_estimate_fb_color(
    const unsigned char* image, int width, int height, int image_stride,
    const unsigned char* alpha, int alpha_stride, unsigned char* foreground,
    int foreground_stride, unsigned char* background, int background_stride,
    unsigned char low, unsigned char high);
// As mat_estimate_fb_color with the background output first.
SOFTMATTE_API void estimate_fb_color_x(
    const unsigned char* image, int width, int height, int image_stride,
    const unsigned char* alpha, int alpha_stride, unsigned char* background,
    int background_stride, unsigned char* foreground, int foreground_stride,
    unsigned char low, unsigned char high);

#endif  // SOFTMATTE_COLOUR_H_
