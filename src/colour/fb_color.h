#ifndef SOFTMATTE_SRC_COLOUR_FB_COLOR_H_
#define SOFTMATTE_SRC_COLOUR_FB_COLOR_H_

// Internal pieces of the foreground/background colour estimation.

// One level of the colour pyramid: the photo, alpha and label map resized by
// nearest neighbour, and the background and foreground estimates, which start
// as copies of the level's photo. Planes are packed; strides in bytes.
struct _LevelData {
  int width = 0;
  int height = 0;
  unsigned char* image = nullptr;
  unsigned char* alpha = nullptr;
  unsigned char* label = nullptr;
  unsigned char* background = nullptr;
  unsigned char* foreground = nullptr;
  int image_stride = 0;
  int alpha_stride = 0;
  int label_stride = 0;
  int background_stride = 0;
  int foreground_stride = 0;

  _LevelData() = default;
  _LevelData(const _LevelData&) = delete;
  _LevelData& operator=(const _LevelData&) = delete;
  ~_LevelData() { Release(); }

  // Builds the level_width x level_height level from the full-resolution
  // photo, alpha and label map, replacing what the record held.
  void InitLevel(const unsigned char* src_image, int src_width, int src_height,
                 int src_image_stride, const unsigned char* src_alpha,
                 int src_alpha_stride, const unsigned char* src_label,
                 int src_label_stride, int level_width, int level_height);
  // Frees the planes and clears the record.
  void Release();
};

// Fills table[0..256) with the weight of the compositing-equation estimate
// per alpha: a logistic step from 1 at low to 0 at high, 0 outside.
void _calc_S_func(float* table, int low, int high, double sigma, double mid);

// Writes the bytes mat_estimate_fb_color(image, ..., foreground,
// foreground_stride, nullptr, 0, low, high) writes, for every input, at a
// cost that follows the soft band (low <= alpha <= high) rather than the
// photo: known pixels take the image colour, and the pyramid levels, ring
// searches, 5 x 5 corrections, band-width distances and the final
// correction visit only the band's pixels and the few around them that they
// read. Scratch memory grows with the band; no level is built in full.
// Nothing is written when image, alpha or foreground is null or a side is
// below 1. A matte with no pixel above high or none below low is solved at
// twice its size, as the full worker does: then every pixel is visited (and
// with no background, every band pixel weighs every foreground pixel).
void estimate_foreground_band(const unsigned char* image, int width, int height,
                              int image_stride, const unsigned char* alpha,
                              int alpha_stride, unsigned char* foreground,
                              int foreground_stride, unsigned char low,
                              unsigned char high);

#endif  // SOFTMATTE_SRC_COLOUR_FB_COLOR_H_
