#ifndef SOFTMATTE_SRC_TRIMAP_TRIMAP_RUNS_H_
#define SOFTMATTE_SRC_TRIMAP_TRIMAP_RUNS_H_

#include "trimap/mask_runs.h"

// Writes the trimap MakeTrimapFromSegRes(seg, width, height, width, out,
// width, max_band, band_scale) writes, byte for byte, for a packed 0/255
// mask seg, with work and scratch memory that follow the mask's edges and
// runs instead of its area: components are joined from row runs, a
// component that holds a square as wide as its band needs is known to be
// thick enough without a distance transform, and the others get one over
// their own bounding box only. out must not overlap seg.
void MakeTrimapFromRuns(const unsigned char* seg, int width, int height,
                        unsigned char* out, int max_band, double band_scale);
// The same from the mask's runs, already found (pieces without runs are
// passed over).
void MakeTrimapFromRuns(const MaskRuns& mask, const unsigned char* seg,
                        unsigned char* out, int max_band, double band_scale);

#endif  // SOFTMATTE_SRC_TRIMAP_TRIMAP_RUNS_H_
