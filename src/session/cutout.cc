#include "softmatte/cutout.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <vector>

#include "softmatte/colour.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/geoseg.h"
#include "softmatte/resample.h"
#include "softmatte/trimap.h"
#include "solver/fine_solve.h"

namespace {

constexpr unsigned char kUnknown = 128;
// Each full-resolution pixel is paired within the 3x3 working neighbourhood.
constexpr int kNeighbourhood3x3 = 3;
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

// The median length of the straight runs of a 0/255 mask's edge, along
// rows and columns: 1 or 2 for a mask drawn at full resolution, about N for
// one enlarged N times by nearest neighbour, whatever the scale's fraction.
// The true edge then lies up to about that far from the mask's.
int EdgeRunLength(const std::vector<unsigned char>& seg, int width,
                  int height) {
  std::vector<int> runs;
  // A vertical edge between columns x - 1 and x continues down the rows.
  for (int x = 1; x < width; ++x) {
    int run = 0;
    for (int y = 0; y <= height; ++y) {
      const size_t i = static_cast<size_t>(y) * width + x;
      if (y < height && seg[i - 1] != seg[i]) {
        ++run;
      } else if (run > 0) {
        runs.push_back(run);
        run = 0;
      }
    }
  }
  // A horizontal edge between rows y - 1 and y continues along the row.
  for (int y = 1; y < height; ++y) {
    const unsigned char* above = &seg[static_cast<size_t>(y - 1) * width];
    const unsigned char* row = above + width;
    int run = 0;
    for (int x = 0; x <= width; ++x) {
      if (x < width && above[x] != row[x]) {
        ++run;
      } else if (run > 0) {
        runs.push_back(run);
        run = 0;
      }
    }
  }
  if (runs.empty()) return 0;
  std::nth_element(runs.begin(), runs.begin() + runs.size() / 2, runs.end());
  return runs[runs.size() / 2];
}

// Drops the loose pieces of a 0/255 mask whose colours the photo's
// background explains better than its subject, and fills the holes inside
// the subject that its colours explain better: a segmenter computed at low
// resolution leaves blocks floating near hair and pinholes in the subject.
// The colour models are histograms of the largest subject piece and of the
// background pieces that reach the border, over 4-bit channels.
void DropLooseBlocks(const unsigned char* image, int width, int height,
                     int stride, std::vector<unsigned char>& seg) {
  std::vector<int> labels(seg.size());
  const int count = ff::ipf_connected_component(seg.data(), width, height,
                                                width, labels.data(), width);
  if (count < 2) return;
  struct Piece {
    long area = 0;
    bool border = false;
    double score = 0.0;  // log-likelihood of subject over background
  };
  std::vector<Piece> pieces(count);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      Piece& p = pieces[labels[static_cast<size_t>(y) * width + x]];
      ++p.area;
      p.border |= x == 0 || y == 0 || x == width - 1 || y == height - 1;
    }
  }
  int subject = -1;
  std::vector<unsigned char> value(count);
  for (size_t i = 0; i < seg.size(); ++i) value[labels[i]] = seg[i];
  for (int l = 0; l < count; ++l) {
    if (value[l] != 0 &&
        (subject < 0 || pieces[l].area > pieces[subject].area)) {
      subject = l;
    }
  }
  if (subject < 0) return;
  constexpr int kBins = 1 << 12;
  std::vector<double> fg(kBins, 1.0), bg(kBins, 1.0);  // Laplace smoothing
  auto bin = [&](int x, int y) {
    const unsigned char* p = image + static_cast<ptrdiff_t>(y) * stride + 3 * x;
    return (p[0] >> 4) | (p[1] >> 4) << 4 | (p[2] >> 4) << 8;
  };
  double fgTotal = kBins, bgTotal = kBins;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int l = labels[static_cast<size_t>(y) * width + x];
      if (l == subject) {
        fg[bin(x, y)] += 1.0;
        fgTotal += 1.0;
      } else if (value[l] == 0 && pieces[l].border) {
        bg[bin(x, y)] += 1.0;
        bgTotal += 1.0;
      }
    }
  }
  std::vector<double> ratio(kBins);
  for (int b = 0; b < kBins; ++b) {
    ratio[b] = std::log(fg[b] / fgTotal) - std::log(bg[b] / bgTotal);
  }
  bool any = false;
  for (int l = 0; l < count; ++l) {
    any |= l != subject && (value[l] != 0 || !pieces[l].border);
  }
  if (!any) return;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      pieces[labels[static_cast<size_t>(y) * width + x]].score +=
          ratio[bin(x, y)];
    }
  }
  for (size_t i = 0; i < seg.size(); ++i) {
    const int l = labels[i];
    if (l == subject) continue;
    if (value[l] != 0 && pieces[l].score < 0.0) seg[i] = 0;
    if (value[l] == 0 && !pieces[l].border && pieces[l].score > 0.0) {
      seg[i] = 255;
    }
  }
}

bool ValidOptions(const mat_cutout_options& o) {
  return o.work_size >= 1 && o.max_band >= 0 && o.band_scale >= 0.0 &&
         o.min_band >= 0 && o.contrast_step >= 1 && o.contrast_low >= 0 &&
         o.contrast_low <= 255 && o.contrast_high >= 0 &&
         o.contrast_high <= 255 && o.smooth_window >= 0 &&
         o.keep_fragments >= 0 && o.solve.epsilon >= 0.0 &&
         (o.solve.solver == MAT_SOLVER_EXACT ||
          o.solve.solver == MAT_SOLVER_FINE);
}

// The packed trimap (0, 128, 255) the guide describes, or a status.
int TrimapFromGuide(const unsigned char* image, int width, int height,
                    int stride, const unsigned char* guide, int guide_stride,
                    int guide_kind, const mat_cutout_options& options,
                    Stopwatch& clock, std::vector<unsigned char>& trimap) {
  const size_t count = static_cast<size_t>(width) * height;
  trimap.assign(count, 0);
  std::vector<unsigned char> seg(count);
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
  if (options.loose_blocks != 0) {
    DropLooseBlocks(image, width, height, stride, seg);
  }
  int max_band = options.max_band;
  if (options.coarse_band != 0) {
    // A coarse mask's edge is off by up to about its run length.
    max_band = std::max(
        max_band, EdgeRunLength(seg, width, height) * options.coarse_band / 2);
  }
  if (options.edge_contrast != 0) {
    MakeTrimapFromSegRes(
        image, width, height, stride, seg.data(), width, trimap.data(), width,
        max_band, options.band_scale, options.contrast_step,
        static_cast<unsigned char>(options.contrast_low),
        static_cast<unsigned char>(options.contrast_high), options.min_band);
  } else {
    MakeTrimapFromSegRes(seg.data(), width, height, width, trimap.data(), width,
                         max_band, options.band_scale);
  }
  clock.Lap(&mat_cutout_timings::trimap);
  return MAT_CUTOUT_OK;
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
  const int status =
      TrimapFromGuide(image, width, height, stride, guide, guide_stride,
                      guide_kind, options, clock, trimap);
  if (status != MAT_CUTOUT_OK) return status;

  // The working size of a session: reduced only when both sides exceed it,
  // the width then rounded down to a multiple of 4.
  const size_t count = static_cast<size_t>(width) * height;
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

  // In the session's polarity from here on, where its solve and cleanup run.
  Complement(trimap);
  std::vector<unsigned char> matte = trimap;
  std::vector<unsigned char> work_image(3 * work_count);
  std::vector<short> weights;
  std::vector<int> indices;
  if (solvable) {
    ff::ipf_resize_nn(image, width, height, stride, 3, work_image.data(),
                      work_width, work_height, 3 * work_width, 3, ff::ccn<3>());
    // Only undecided pixels are ever interpolated, so only they need an
    // entry: the search is per pixel, and theirs are those of a whole table.
    std::vector<unsigned char> undecided(count);
    for (size_t i = 0; i < count; ++i) undecided[i] = trimap[i] == kUnknown;
    weights.resize(count);
    indices.assign(2 * count, -1);
    usam_calc_weights_8u_c3(image, width, height, stride, undecided.data(),
                            width, work_image.data(), work_width, work_height,
                            3 * work_width, indices.data(), 2 * width,
                            weights.data(), width, kNeighbourhood3x3);
  }
  clock.Lap(&mat_cutout_timings::tables);

  std::vector<unsigned char> work_alpha(work_count);
  if (solvable) {
    ff::ipf_resize_nn(trimap.data(), width, height, width, 1, work_alpha.data(),
                      work_width, work_height, work_width, 1, ff::ccn<1>());
    const std::vector<unsigned char> work_trimap = work_alpha;
    std::vector<unsigned char> unknown(work_count);
    for (size_t i = 0; i < work_count; ++i) {
      unknown[i] = work_trimap[i] == kUnknown ? 1 : 0;
    }
    SolveBand(work_image.data(), work_width, work_height, 3 * work_width,
              unknown.data(), work_width, work_trimap.data(), work_alpha.data(),
              options.solve);
  }
  std::vector<unsigned char>().swap(work_image);
  clock.Lap(&mat_cutout_timings::solve);

  if (solvable) {
    usam_interpolate_c1(work_alpha.data(), work_width, work_height,
                        indices.data(), 2 * width, weights.data(), width,
                        matte.data(), width, height, width, trimap.data(),
                        width, kUnknown);
  }
  std::vector<unsigned char>().swap(work_alpha);
  std::vector<short>().swap(weights);
  std::vector<int>().swap(indices);
  std::vector<unsigned char>().swap(trimap);
  clock.Lap(&mat_cutout_timings::upsampling);

  mat_smooth_boundary(matte.data(), width, height, width, matte.data(), width,
                      options.smooth_window);
  if (options.keep_fragments >= 1) {
    vm_erase_small_cc(matte.data(), width, height, width, 0,
                      options.keep_fragments);
  }
  Complement(matte);
  ff::ipf_memcpy_2d(matte.data(), width, height, width, alpha, alpha_stride);
  clock.Lap(&mat_cutout_timings::cleanup);

  if (colours) {
    // The colour estimator takes 255 as the subject: the caller's polarity.
    mat_estimate_fb_color(image, width, height, stride, matte.data(), width,
                          foreground, foreground_stride, nullptr, 0, kSoftLow,
                          kSoftHigh);
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
