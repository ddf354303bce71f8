#ifndef SOFTMATTE_SRC_EDIT_CLEANUP_BAND_H_
#define SOFTMATTE_SRC_EDIT_CLEANUP_BAND_H_

// Matte cleanup at a cost that follows the matte's edges rather than its
// area: the same bytes as the exported functions, for full-resolution mattes
// that are 0 or 255 almost everywhere.

// Writes the bytes mat_smooth_boundary(src, width, height, srcStep, dst,
// dstStep, ksize) writes. The plane is cut into tiles; a tile whose pixels
// and mean windows hold only 0 or only 255 keeps its values (the smoothing
// leaves such pixels alone), and only the others get the mean and the
// extremum windows, read from the tile and the window's reach around it.
// dst may be src with the same step (in place, as the session smooths its
// matte); otherwise the planes must not overlap. Nothing happens on a null
// plane or a side below 1.
void smooth_boundary_band(const unsigned char* src, int width, int height,
                          int srcStep, unsigned char* dst, int dstStep,
                          int ksize);

// Does what vm_erase_small_cc(alpha, width, height, step, threshold, keep)
// does, labelling the foreground's row runs instead of its pixels: the work
// and scratch memory follow the number of runs.
void erase_small_cc_runs(unsigned char* alpha, int width, int height, int step,
                         unsigned char threshold, int keep);

#endif  // SOFTMATTE_SRC_EDIT_CLEANUP_BAND_H_
