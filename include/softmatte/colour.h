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

// ---- Foreground improvement and merge ----
// Colour planes are B, G, R (3 bytes); four-byte planes add a fourth byte.
// A width or height below 1 does nothing.

// Blends each colour of foreground_rgba towards image by its fourth byte
// (255 keeps the foreground, 0 gives the image); the fourth byte stays.
SOFTMATTE_API void mat_merge_f_color(const unsigned char* image, int width,
                                     int height, int image_stride,
                                     unsigned char* foreground_rgba,
                                     int foreground_rgba_stride);
// Writes reference's colour and mode into reference_map wherever strength
// exceeds the map's stored (even) strength, which it then replaces.
SOFTMATTE_API void mat_update_reference_color(unsigned char* reference_map,
                                              int width, int height,
                                              int reference_map_stride,
                                              const unsigned char* reference,
                                              const unsigned char* strength,
                                              int strength_stride);
// Pulls out's colours towards (or pushes them away from) the one reference
// colour by strength where it exceeds applied and alpha >= threshold; raises
// applied and out's fourth byte. ignored is never read.
SOFTMATTE_API void mat_improve_foreground(
    const unsigned char* image, int width, int height, int image_stride,
    const unsigned char* alpha, int alpha_stride, const unsigned char* strength,
    int strength_stride, unsigned char* applied, int applied_stride,
    unsigned char* out, int out_stride, const unsigned char* reference,
    const unsigned char* ignored, unsigned char threshold);
// As above with each pixel's colour, mode and strength from reference_map,
// for threshold <= alpha < 255 and painted pixels only; no applied plane.
SOFTMATTE_API void mat_improve_foreground(
    const unsigned char* image, int width, int height, int image_stride,
    const unsigned char* reference_map, int reference_map_stride,
    const unsigned char* alpha, int alpha_stride, unsigned char* out,
    int out_stride, unsigned char threshold);

#endif  // SOFTMATTE_COLOUR_H_
