#ifndef SOFTMATTE_GEOSEG_H_
#define SOFTMATTE_GEOSEG_H_

#include "softmatte/export.h"

// Geodesic distances from seed labels over a colour image: a step between
// 4-connected pixels costs their squared colour difference (kept to 16 bits),
// so distance grows fast across edges. The costs are taken once per image;
// any number of label maps can then be queried, one query at a time.
class SOFTMATTE_API GeoSeg {
 public:
  GeoSeg();
  ~GeoSeg();
  GeoSeg(const GeoSeg&) = delete;
  GeoSeg& operator=(const GeoSeg&) = delete;

  // Takes the step costs of image (pixels pixel_step bytes apart, first three
  // bytes used); returns -1 and leaves the object empty on a null image.
  int SetImage(const unsigned char* image, int width, int height,
               int row_stride, int pixel_step);
  // Writes the distance to the nearest label equal to seed into distance
  // (stride in elements), 100000000 where none is reached; returns 0.
  int GetDist(const unsigned char* labels, int label_stride,
              unsigned int* distance, int distance_stride, unsigned char seed);
  // Writes D1 / (D2 + D1), the chance of label 2 against label 1, into
  // probability (stride in elements); returns 0.
  int GetProb(const unsigned char* labels, int label_stride, float* probability,
              int probability_stride);

  unsigned int* edge_weights;     // per pixel: left, up, right, down cost
  unsigned int* distance_buffer;  // GetProb's scratch, row_pixels a row
  int width;
  int height;
  int row_pixels;  // pitch of both arrays; equals width
};

// The 24-neighbour form of GeoSeg: every pixel is linked to its whole 5x5
// window, costs are scaled so that the image's mean step costs 128 and kept
// to 16 bits, and labels other than 0 and the seed are walls.
class SOFTMATTE_API GeoSegN24 {
 public:
  GeoSegN24();
  ~GeoSegN24();
  GeoSegN24(const GeoSegN24&) = delete;
  GeoSegN24& operator=(const GeoSegN24&) = delete;

  // Takes the step costs of image (pixels pixel_step bytes apart, first three
  // bytes used); -1 and empty on a null image, 0 and empty when a side is
  // below 1, else 0. reserved is not read.
  int SetImage(const unsigned char* image, int width, int height,
               int row_stride, int pixel_step, void* reserved);
  // Writes the distance to the nearest label equal to seed into distance
  // (stride in elements), 100000000 where none is reached; returns 0.
  int GetDist(const unsigned char* labels, int label_stride,
              unsigned int* distance, int distance_stride, unsigned char seed);
  // Writes into probability (stride in elements), by mode: 3 gives
  // D1 / (D2 + D1), 2 gives 1 - min(D2, cap) / cap, 1 gives min(D1, cap) / cap,
  // the cap being where nine tenths of the distances lie; other modes leave
  // it alone. Returns 0; reserved is not read.
  int GetProb(const unsigned char* labels, int label_stride, float* probability,
              int probability_stride, int mode, unsigned char* reserved);

  unsigned short* edge_weights;   // 24 costs per pixel, width pixels a row
  unsigned int* distance_buffer;  // (width + 4) x (height + 4): 2-pixel border
  int width;
  int height;
  int row_pixels;  // pitch of edge_weights; equals width
};

#endif  // SOFTMATTE_GEOSEG_H_
