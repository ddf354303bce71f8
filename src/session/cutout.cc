#include "softmatte/cutout.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <vector>

#include "colour/fb_color.h"
#include "edit/cleanup_band.h"
#include "resample/upsample_rows.h"
#include "session/cutout_steps.h"
#include "softmatte/colour.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/geoseg.h"
#include "softmatte/resample.h"
#include "softmatte/trimap.h"
#include "solver/fine_solve.h"
#include "trimap/trimap_runs.h"

namespace cutout_steps {

int EdgeRunLength(const MaskRuns& mask) {
  const int width = mask.width;
  const int height = mask.height;
  std::vector<int> runs;
  // A vertical edge lies between columns x - 1 and x where a run starts or
  // ends inside the row, and goes on down the rows that have one there too.
  std::vector<int> length(static_cast<size_t>(width) + 1, 0);
  std::vector<int> seen(static_cast<size_t>(width) + 1, -2);
  std::vector<int> open;  // columns whose edge reached the previous row
  std::vector<int> next;
  auto edge = [&](int x, int y) {
    length[x] = seen[x] == y - 1 ? length[x] + 1 : 1;
    seen[x] = y;
    next.push_back(x);
  };
  for (int y = 0; y <= height; ++y) {
    next.clear();
    if (y < height) {
      for (size_t r = mask.rowStart[y]; r < mask.rowStart[y + 1]; ++r) {
        if (mask.runs[r].x0 > 0) edge(mask.runs[r].x0, y);
        if (mask.runs[r].x1 < width) edge(mask.runs[r].x1, y);
      }
    }
    for (int x : open) {
      if (seen[x] != y) runs.push_back(length[x]);
    }
    open.swap(next);
  }
  // A horizontal edge lies between rows y - 1 and y where exactly one of them
  // covers a column: each run's ends toggle it, and ends that meet cancel.
  std::vector<int> toggles;
  for (int y = 1; y < height; ++y) {
    toggles.clear();
    for (int row : {y - 1, y}) {
      for (size_t r = mask.rowStart[row]; r < mask.rowStart[row + 1]; ++r) {
        toggles.push_back(mask.runs[r].x0);
        toggles.push_back(mask.runs[r].x1);
      }
    }
    std::sort(toggles.begin(), toggles.end());
    bool on = false;
    int start = 0;
    for (size_t i = 0; i < toggles.size();) {
      size_t j = i;
      while (j < toggles.size() && toggles[j] == toggles[i]) ++j;
      if ((j - i) % 2 == 1) {
        if (on) {
          runs.push_back(toggles[i] - start);
        } else {
          start = toggles[i];
        }
        on = !on;
      }
      i = j;
    }
  }
  if (runs.empty()) return 0;
  std::nth_element(runs.begin(), runs.begin() + runs.size() / 2, runs.end());
  return runs[runs.size() / 2];
}

void DropLooseBlocks(const unsigned char* image, int stride, int contrast,
                     int run, MaskRuns& mask, std::vector<unsigned char>& seg) {
  const int width = mask.width;
  const int height = mask.height;
  if (mask.pieces < 2) return;
  std::vector<long> area(mask.pieces, 0);
  for (size_t r = 0; r < mask.runs.size(); ++r) {
    area[mask.piece[r]] += mask.runs[r].x1 - mask.runs[r].x0;
  }
  const int largest = static_cast<int>(
      std::max_element(area.begin(), area.end()) - area.begin());
  const long small = 4L * run * run;
  struct Colours {
    long inside[3] = {0, 0, 0};
    long around[3] = {0, 0, 0};
    long aroundCount = 0;
  };
  std::vector<Colours> colours(mask.pieces);
  std::vector<char> loose(mask.pieces, 0);
  for (int p = 0; p < mask.pieces; ++p) {
    loose[p] = p != largest && area[p] <= small;
  }
  for (size_t r = 0; r < mask.runs.size(); ++r) {
    const int p = mask.piece[r];
    if (!loose[p]) continue;
    Colours& c = colours[p];
    const int y = mask.runs[r].y;
    for (int x = mask.runs[r].x0; x < mask.runs[r].x1; ++x) {
      const unsigned char* px = image + static_cast<ptrdiff_t>(y) * stride;
      for (int k = 0; k < 3; ++k) c.inside[k] += px[3 * x + k];
      // The colours just outside: every 4-neighbour off the subject (any
      // subject neighbour belongs to the same piece).
      const int nx[4] = {x - 1, x + 1, x, x};
      const int ny[4] = {y, y, y - 1, y + 1};
      for (int n = 0; n < 4; ++n) {
        if (nx[n] < 0 || ny[n] < 0 || nx[n] >= width || ny[n] >= height ||
            seg[static_cast<size_t>(ny[n]) * width + nx[n]] != 0) {
          continue;
        }
        const unsigned char* q =
            image + static_cast<ptrdiff_t>(ny[n]) * stride + 3 * nx[n];
        for (int k = 0; k < 3; ++k) c.around[k] += q[k];
        ++c.aroundCount;
      }
    }
  }
  bool any = false;
  for (int p = 0; p < mask.pieces; ++p) {
    if (!loose[p]) continue;
    const Colours& c = colours[p];
    for (int k = 0; k < 3 && c.aroundCount > 0; ++k) {
      const double difference =
          static_cast<double>(c.inside[k]) / area[p] -
          static_cast<double>(c.around[k]) / c.aroundCount;
      if (std::fabs(difference) >= contrast) loose[p] = 0;
    }
    any |= loose[p] != 0;
  }
  if (!any) return;
  // The dropped pieces leave the mask and its runs.
  std::vector<MaskRun> kept;
  std::vector<int> keptPiece;
  std::vector<size_t> rowStart(mask.rowStart.size(), 0);
  for (int y = 0; y < height; ++y) {
    rowStart[y] = kept.size();
    for (size_t r = mask.rowStart[y]; r < mask.rowStart[y + 1]; ++r) {
      const MaskRun& piece = mask.runs[r];
      if (loose[mask.piece[r]]) {
        std::fill_n(&seg[static_cast<size_t>(y) * width + piece.x0],
                    piece.x1 - piece.x0, 0);
      } else {
        kept.push_back(piece);
        keptPiece.push_back(mask.piece[r]);
      }
    }
  }
  rowStart[height] = kept.size();
  mask.runs.swap(kept);
  mask.piece.swap(keptPiece);
  mask.rowStart.swap(rowStart);
}

}  // namespace cutout_steps

namespace {

constexpr unsigned char kUnknown = 128;
// Colours are estimated over the matte's soft pixels only; 0 and 254..255
// count as settled.
constexpr unsigned char kSoftLow = 1;
constexpr unsigned char kSoftHigh = 253;

using Clock = std::chrono::steady_clock;

// Adds the time since the last lap to one stage of the caller's timings.
class Stopwatch {
 public:
  explicit Stopwatch(mat_cutout_timings* timings) : timings_(timings) {
    if (timings_ != nullptr) *timings_ = mat_cutout_timings();
  }
  void Lap(double mat_cutout_timings::*stage) {
    const Clock::time_point now = Clock::now();
    if (timings_ != nullptr) {
      timings_->*stage += std::chrono::duration<double>(now - last_).count();
    }
    last_ = now;
  }

 private:
  mat_cutout_timings* timings_;
  Clock::time_point last_ = Clock::now();
};

// The session solves in the opposite polarity to the trimap builder; 128
// stays 128 both ways.
void Complement(std::vector<unsigned char>& plane) {
  for (unsigned char& v : plane) {
    if (v != kUnknown) v = static_cast<unsigned char>(255 - v);
  }
}

bool ValidOptions(const mat_cutout_options& o) {
  return o.work_size >= 1 && o.max_band >= 0 && o.band_scale >= 0.0 &&
         o.min_band >= 0 && o.contrast_step >= 1 && o.contrast_low >= 0 &&
         o.contrast_low <= 255 && o.contrast_high >= 0 &&
         o.contrast_high <= 255 && o.smooth_window >= 0 &&
         o.keep_fragments >= 0 && o.loose_blocks >= 0 &&
         o.loose_blocks <= 255 && o.coarse_band >= 0 &&
         o.solve.epsilon >= 0.0 &&
         (o.solve.solver == MAT_SOLVER_EXACT ||
          o.solve.solver == MAT_SOLVER_FINE);
}

// The packed trimap (0, 128, 255) the guide describes, or a status. seg
// holds the mask on the way, when there is one.
int TrimapFromGuide(const unsigned char* image, int width, int height,
                    int stride, const unsigned char* guide, int guide_stride,
                    int guide_kind, const mat_cutout_options& options,
                    Stopwatch& clock, std::vector<unsigned char>& trimap,
                    std::vector<unsigned char>& seg) {
  const size_t count = static_cast<size_t>(width) * height;
  trimap.assign(count, 0);
  if (guide_kind != MAT_GUIDE_TRIMAP) seg.resize(count);
  bool subject = false;
  if (guide_kind == MAT_GUIDE_TRIMAP) {
    for (int y = 0; y < height; ++y) {
      const unsigned char* g = guide + static_cast<ptrdiff_t>(y) * guide_stride;
      unsigned char* t = &trimap[static_cast<size_t>(y) * width];
      for (int x = 0; x < width; ++x) {
        t[x] = g[x] < 64 ? 0 : g[x] > 191 ? 255 : kUnknown;
        subject |= t[x] != 0;
      }
    }
    return subject ? MAT_CUTOUT_OK : MAT_CUTOUT_NO_SUBJECT;
  }
  if (guide_kind == MAT_GUIDE_SCRIBBLES) {
    std::vector<unsigned char> labels(count);
    bool background = false;
    for (int y = 0; y < height; ++y) {
      const unsigned char* g = guide + static_cast<ptrdiff_t>(y) * guide_stride;
      unsigned char* l = &labels[static_cast<size_t>(y) * width];
      for (int x = 0; x < width; ++x) {
        l[x] = g[x] == 1 || g[x] == 2 ? g[x] : 0;
        subject |= g[x] == 2;
        background |= g[x] == 1;
      }
    }
    if (!subject) return MAT_CUTOUT_NO_SUBJECT;
    if (!background) return MAT_CUTOUT_NO_BACKGROUND;
    std::vector<float> probability(count);
    {
      GeoSeg segmenter;
      segmenter.SetImage(image, width, height, stride, 3);
      segmenter.GetProb(labels.data(), width, probability.data(), width);
    }
    // Strictly above one half: a pixel neither stroke reaches stays out.
    for (size_t i = 0; i < count; ++i) seg[i] = probability[i] > 0.5f ? 255 : 0;
    clock.Lap(&mat_cutout_timings::scribbles);
  } else {
    for (int y = 0; y < height; ++y) {
      const unsigned char* g = guide + static_cast<ptrdiff_t>(y) * guide_stride;
      unsigned char* s = &seg[static_cast<size_t>(y) * width];
      for (int x = 0; x < width; ++x) {
        s[x] = g[x] >= 128 ? 255 : 0;
        subject |= g[x] >= 128;
      }
    }
    if (!subject) return MAT_CUTOUT_NO_SUBJECT;
  }
  MaskRuns runs = FindMaskRuns(seg.data(), width, height);
  const int run = options.loose_blocks != 0 || options.coarse_band != 0
                      ? cutout_steps::EdgeRunLength(runs)
                      : 0;
  if (options.loose_blocks != 0) {
    cutout_steps::DropLooseBlocks(image, stride, options.loose_blocks, run,
                                  runs, seg);
  }
  int max_band = options.max_band;
  if (options.coarse_band != 0) {
    // A coarse mask's edge is off by up to about its run length.
    max_band = std::max(max_band, std::min(run, options.coarse_band));
  }
  if (options.edge_contrast != 0) {
    MakeTrimapFromSegRes(
        image, width, height, stride, seg.data(), width, trimap.data(), width,
        max_band, options.band_scale, options.contrast_step,
        static_cast<unsigned char>(options.contrast_low),
        static_cast<unsigned char>(options.contrast_high), options.min_band);
  } else {
    // The whole-plane trimap's bytes, at a cost that follows the edges.
    MakeTrimapFromRuns(runs, seg.data(), trimap.data(), max_band,
                       options.band_scale);
  }
  clock.Lap(&mat_cutout_timings::trimap);
  return MAT_CUTOUT_OK;
}

// Carries the working matte to the undecided pixels of the full-resolution
// trimap (session polarity) in strips of rows: each strip's upsampling table
// is built for its undecided pixels only and applied at once, so the whole
// photo's table (10 bytes a pixel) never exists. The entries are those of a
// whole table, pixel by pixel.
void UpsampleStrips(const unsigned char* image, int width, int height,
                    int stride, const unsigned char* trimap,
                    const unsigned char* work_image, int work_width,
                    int work_height, const unsigned char* work_alpha,
                    Stopwatch& clock, unsigned char* matte) {
  constexpr int kStripRows = 32;
  const int rows = std::min(kStripRows, height);
  std::vector<int> indices(2 * static_cast<size_t>(width) * rows);
  std::vector<short> weights(static_cast<size_t>(width) * rows);
  std::vector<unsigned char> undecided(static_cast<size_t>(width) * rows);
  for (int y0 = 0; y0 < height; y0 += rows) {
    const int y1 = std::min(y0 + rows, height);
    const unsigned char* t = trimap + static_cast<size_t>(y0) * width;
    const size_t pixels = static_cast<size_t>(y1 - y0) * width;
    bool any = false;
    for (size_t i = 0; i < pixels; ++i) {
      undecided[i] = t[i] == kUnknown;
      any |= t[i] == kUnknown;
    }
    if (!any) continue;
    std::fill(indices.begin(), indices.end(), -1);
    usam_fill_rows_3x3_c3(image, width, height, stride, undecided.data(), width,
                          work_image, work_width, work_height, 3 * work_width,
                          y0, y1, indices.data(), 2 * width, weights.data(),
                          width);
    clock.Lap(&mat_cutout_timings::tables);
    usam_interpolate_c1(work_alpha, work_width, work_height, indices.data(),
                        2 * width, weights.data(), width,
                        matte + static_cast<size_t>(y0) * width, width, y1 - y0,
                        width, t, width, kUnknown);
    clock.Lap(&mat_cutout_timings::upsampling);
  }
}

}  // namespace

int mat_cutout(const unsigned char* image, int width, int height, int stride,
               const unsigned char* guide, int guide_stride, int guide_kind,
               const mat_cutout_options& options, unsigned char* alpha,
               int alpha_stride, unsigned char* foreground,
               int foreground_stride, mat_cutout_timings* timings) {
  const bool colours = options.colours != 0;
  if (image == nullptr || guide == nullptr || alpha == nullptr ||
      (colours && foreground == nullptr) || width < 1 || height < 1 ||
      stride < 3 * width || guide_stride < width || alpha_stride < width ||
      (colours && foreground_stride < 3 * width) || guide_kind < 0 ||
      guide_kind > MAT_GUIDE_SCRIBBLES || !ValidOptions(options)) {
    return MAT_CUTOUT_BAD_ARGUMENT;
  }
  Stopwatch clock(timings);
  std::vector<unsigned char> trimap;
  std::vector<unsigned char> matte;  // the mask's plane, reused
  const int status =
      TrimapFromGuide(image, width, height, stride, guide, guide_stride,
                      guide_kind, options, clock, trimap, matte);
  if (status != MAT_CUTOUT_OK) return status;

  // The working size of a session: reduced only when both sides exceed it,
  // the width then rounded down to a multiple of 4.
  int work_width = width;
  int work_height = height;
  if (width > options.work_size && height > options.work_size) {
    const double sx = static_cast<double>(options.work_size) / width;
    const double sy = static_cast<double>(options.work_size) / height;
    const double s = sx < sy ? sx : sy;
    work_width = static_cast<int>(s * width + 0.5);
    work_height = static_cast<int>(s * height + 0.5);
  }
  work_width &= ~3;
  const bool solvable = work_width >= 1 && work_height >= 1;
  const size_t work_count = static_cast<size_t>(work_width) * work_height;

  // In the session's polarity from here on, where its solve and smoothing
  // run.
  Complement(trimap);
  matte = trimap;
  std::vector<unsigned char> work_image(3 * work_count);
  std::vector<unsigned char> work_alpha(work_count);
  if (solvable) {
    ff::ipf_resize_nn(image, width, height, stride, 3, work_image.data(),
                      work_width, work_height, 3 * work_width, 3, ff::ccn<3>());
    ff::ipf_resize_nn(trimap.data(), width, height, width, 1, work_alpha.data(),
                      work_width, work_height, work_width, 1, ff::ccn<1>());
    const std::vector<unsigned char> work_trimap = work_alpha;
    std::vector<unsigned char> unknown(work_count);
    for (size_t i = 0; i < work_count; ++i) {
      unknown[i] = work_trimap[i] == kUnknown ? 1 : 0;
    }
    clock.Lap(&mat_cutout_timings::tables);
    SolveBand(work_image.data(), work_width, work_height, 3 * work_width,
              unknown.data(), work_width, work_trimap.data(), work_alpha.data(),
              options.solve);
    clock.Lap(&mat_cutout_timings::solve);
    UpsampleStrips(image, width, height, stride, trimap.data(),
                   work_image.data(), work_width, work_height,
                   work_alpha.data(), clock, matte.data());
  }
  std::vector<unsigned char>().swap(work_image);
  std::vector<unsigned char>().swap(work_alpha);
  std::vector<unsigned char>().swap(trimap);

  // Both cleanups visit only the matte's edges and give the bytes of the
  // whole-plane functions.
  if (options.smooth_window >= 1) {
    smooth_boundary_band(matte.data(), width, height, width, matte.data(),
                         width, options.smooth_window);
  }
  Complement(matte);
  if (options.keep_fragments >= 1) {
    erase_small_cc_runs(matte.data(), width, height, width, 0,
                        options.keep_fragments);
  }
  ff::ipf_memcpy_2d(matte.data(), width, height, width, alpha, alpha_stride);
  clock.Lap(&mat_cutout_timings::cleanup);

  if (colours) {
    // The colour estimator takes 255 as the subject: the caller's polarity.
    // The band-only worker writes the whole-plane worker's bytes but reads
    // the photo after it has begun to write: a foreground over the photo
    // itself takes the whole-plane worker.
    const unsigned char* image_end =
        image + static_cast<ptrdiff_t>(height - 1) * stride + 3 * width;
    unsigned char* foreground_end =
        foreground + static_cast<ptrdiff_t>(height - 1) * foreground_stride +
        3 * width;
    if (foreground < image_end && image < foreground_end) {
      mat_estimate_fb_color(image, width, height, stride, matte.data(), width,
                            foreground, foreground_stride, nullptr, 0, kSoftLow,
                            kSoftHigh);
    } else {
      estimate_foreground_band(image, width, height, stride, matte.data(),
                               width, foreground, foreground_stride, kSoftLow,
                               kSoftHigh);
    }
    clock.Lap(&mat_cutout_timings::colours);
  }
  return MAT_CUTOUT_OK;
}

void mat_composite(const unsigned char* foreground, int foreground_stride,
                   const unsigned char* alpha, int alpha_stride,
                   const unsigned char* background, int background_stride,
                   int width, int height, unsigned char* out, int out_stride) {
  if (!foreground || !alpha || !background || !out) return;
  for (int y = 0; y < height; ++y) {
    const unsigned char* f =
        foreground + static_cast<ptrdiff_t>(y) * foreground_stride;
    const unsigned char* a = alpha + static_cast<ptrdiff_t>(y) * alpha_stride;
    const unsigned char* b =
        background + static_cast<ptrdiff_t>(y) * background_stride;
    unsigned char* o = out + static_cast<ptrdiff_t>(y) * out_stride;
    for (int x = 0; x < width; ++x) {
      const int w = a[x];
      for (int c = 3 * x; c < 3 * x + 3; ++c) {
        o[c] = static_cast<unsigned char>((f[c] * w + b[c] * (255 - w) + 127) /
                                          255);
      }
    }
  }
}
