#ifndef SOFTMATTE_CUTOUT_H_
#define SOFTMATTE_CUTOUT_H_

#include "softmatte/export.h"
#include "softmatte/solver.h"

// ---- One-shot cut-out ----
// From a photo and a description of the subject to a finished matte and the
// subject's own colours in one call: what an application, the command-line
// tool and the Python module run. It drives the same building blocks as a
// DSCMatting session (trimap, working copy, upsampling tables, solve,
// cleanup, colour estimation) but does work only where it can change the
// result; with matching settings its matte and colours are a session's, bit
// for bit. Stateless, and safe to call from several threads at once.

// What the guide plane of mat_cutout holds.
enum mat_guide {
  // A segmentation: 128 and above is the subject, below is background. An
  // unknown band is drawn around its edge and solved.
  MAT_GUIDE_MASK = 0,
  // A trimap: below 64 background, above 191 subject, anything else
  // undecided (0 / 128 / 255 trimaps, but also noisy JPEG ones).
  MAT_GUIDE_TRIMAP = 1,
  // Scribbles: 2 marks the subject, 1 the background, 0 nothing. A pixel is
  // the subject when it is geodesically closer to a 2 than to a 1 (GeoSeg);
  // the resulting mask is then used as MAT_GUIDE_MASK.
  MAT_GUIDE_SCRIBBLES = 2,
};

// Settings of mat_cutout. Value-initialised, they are the command-line
// tool's defaults, chosen on masks made as segmenters make them (reduced
// and enlarged, edges moved, stray blocks; softmatte_mask_bench).
struct mat_cutout_options {
  // The system is solved on a copy reduced so that its longer side is
  // work_size, when both sides of the photo exceed it (as a session does).
  int work_size = 1000;
  // Masks: the unknown band reaches band_scale x the subject's
  // half-thickness to each side of the edge, at most max_band pixels.
  int max_band = 3;
  double band_scale = 0.25;
  // Masks: 1 lets the photo's contrast across the mask's edge narrow the
  // band where the edge is crisp (down to min_band), sampled every
  // contrast_step pixels with the per-channel contrast range
  // [contrast_low, contrast_high]; 0 draws the plain band.
  int edge_contrast = 0;
  int min_band = 1;
  int contrast_step = 3;
  int contrast_low = 5;
  int contrast_high = 50;
  // Masks: a loose piece of the subject (not its largest, at most four of
  // the mask's own blocks) is dropped when its mean colour differs from what
  // surrounds it by less than loose_blocks levels in every channel: the
  // photo shows no edge there. 0 keeps every piece.
  int loose_blocks = 6;
  // Masks: a coarse mask (a low-resolution segmentation enlarged) gets a
  // band as wide as the typical straight run of its edge, up to coarse_band
  // pixels, when that is wider than max_band; 0 keeps max_band.
  int coarse_band = 8;
  // Cleanup: the matte's boundary is smoothed over this window (0: not at
  // all), then only the keep_fragments largest pieces of the subject are
  // kept (0: all).
  int smooth_window = 0;
  int keep_fragments = 0;
  // The solve: fine, with a regulariser a hundred times the fine solve's
  // default, which suits trimaps; on the bands drawn around rough masks it
  // measured slightly better.
  mat_options solve = {MAT_SOLVER_FINE, 1e-7};
  // 0 skips the colour estimation (foreground may then be null).
  int colours = 1;
};

// Wall-clock seconds of each stage of one mat_cutout call.
struct mat_cutout_timings {
  double scribbles;   // geodesic segmentation of scribbles
  double trimap;      // band around the mask
  double tables;      // working copy and upsampling tables
  double solve;       // assembly and solve
  double upsampling;  // working matte to full resolution
  double cleanup;     // smoothing and fragment removal
  double colours;     // the subject's own colours
};

// Results of mat_cutout.
enum mat_cutout_status {
  MAT_CUTOUT_OK = 1,
  // A null pointer, a side below 1, a guide kind or option out of range.
  MAT_CUTOUT_BAD_ARGUMENT = 0,
  // The guide marks no subject pixel (a mask or scribbles without any, a
  // trimap that is all background).
  MAT_CUTOUT_NO_SUBJECT = -1,
  // Scribbles without a background stroke.
  MAT_CUTOUT_NO_BACKGROUND = -2,
};

// Cuts the subject out of the B, G, R image (width x height, stride bytes a
// row) as guide (one byte a pixel, guide_stride a row) describes it: writes
// the matte (255 subject, 0 background) to alpha and, unless
// options.colours is 0, the subject's estimated own colours (B, G, R) to
// foreground. Per-stage times go to a non-null timings. Returns a
// mat_cutout_status; on anything but MAT_CUTOUT_OK nothing is written.
SOFTMATTE_API int mat_cutout(const unsigned char* image, int width, int height,
                             int stride, const unsigned char* guide,
                             int guide_stride, int guide_kind,
                             const mat_cutout_options& options,
                             unsigned char* alpha, int alpha_stride,
                             unsigned char* foreground, int foreground_stride,
                             mat_cutout_timings* timings);

// Composites: out = (foreground x alpha + background x (255 - alpha)) / 255,
// rounded, per channel of the B, G, R planes. out may be background or
// foreground.
SOFTMATTE_API void mat_composite(const unsigned char* foreground,
                                 int foreground_stride,
                                 const unsigned char* alpha, int alpha_stride,
                                 const unsigned char* background,
                                 int background_stride, int width, int height,
                                 unsigned char* out, int out_stride);

#endif  // SOFTMATTE_CUTOUT_H_
