#ifndef SOFTMATTE_SRC_COLOUR_FB_COLOR_STEPS_H_
#define SOFTMATTE_SRC_COLOUR_FB_COLOR_STEPS_H_

// The per-pixel arithmetic of the foreground/background colour estimation,
// shared by the worker that builds every level in full and by the one that
// visits only the soft band (fb_color_band.cc): both must give the same
// bytes, so each decision lives here once.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "softmatte/ff/ipf.h"

namespace fb_color {

constexpr unsigned char kUnknown = 0;
constexpr unsigned char kBackground = 1;
constexpr unsigned char kForeground = 2;
constexpr int kEnoughSamples = 100;
constexpr int kWindowNeighbours = 24;  // 5 x 5 without its centre
// Levels are halved only while both sides stay at least this long.
constexpr int kMinHalvedSide = 17;
constexpr unsigned short kDistanceScale = 100;
constexpr unsigned int kUnreachedDistance = 10000000;

template <typename T>
using Buffer = std::unique_ptr<T[]>;

// The label of each alpha value: foreground above high, background below
// low, unknown in between. Foreground wins when low > high makes a value
// both.
inline unsigned char LabelOf(unsigned char alpha, unsigned char low,
                             unsigned char high) {
  if (alpha > high) return kForeground;
  return alpha < low ? kBackground : kUnknown;
}

// Integer mean per channel, truncated.
inline void MeanColour(const unsigned char* const* samples, int count,
                       unsigned char* out) {
  int64_t sum[3] = {0, 0, 0};
  for (int i = 0; i < count; ++i) {
    for (int c = 0; c < 3; ++c) sum[c] += samples[i][c];
  }
  for (int c = 0; c < 3; ++c) {
    out[c] = static_cast<unsigned char>(sum[c] / count);
  }
}

// How far the composite of f over b at alpha a lands from the observed i.
inline int CompositeError(const unsigned char* f, int a, const unsigned char* b,
                          const unsigned char* i) {
  int error = 0;
  for (int c = 0; c < 3; ++c) {
    const int d = (f[c] * a + (255 - a) * b[c]) / 255 - i[c];
    error += d * d;
  }
  return error;
}

// The first sample of least composite error: ties keep the earlier one.
inline const unsigned char* BestForeground(const unsigned char* const* samples,
                                           int count, int a,
                                           const unsigned char* b,
                                           const unsigned char* i) {
  const unsigned char* best = nullptr;
  int bestError = std::numeric_limits<int>::max();
  for (int k = 0; k < count; ++k) {
    const int error = CompositeError(samples[k], a, b, i);
    if (error < bestError) {
      bestError = error;
      best = samples[k];
    }
  }
  return best;
}

// The 5 x 5 correction of one pixel from the known neighbours gathered
// around it: b becomes the mean of the background ones, then f the
// foreground one that best explains the observed i over that b.
inline void CorrectFromWindow(const unsigned char* const* bg, int nb,
                              const unsigned char* const* fg, int nf, int a,
                              const unsigned char* i, unsigned char* b,
                              unsigned char* f) {
  if (nb > 0) MeanColour(bg, nb, b);
  if (nf > 0) std::memcpy(f, BestForeground(fg, nf, a, b, i), 3);
}

// Known samples around one pixel of a level seen through View, which gives
// width(), height() and RowAt(y) with Label(x) and Colour(x) (a pointer to
// three bytes that stays valid). When either class has fewer than
// kEnoughSamples pixels on the level the search never stops early and every
// ring search returns the whole level in ring order; that case is answered
// from full lists prepared once instead of scanning the level for each
// pixel.
template <typename View>
class RingSampler {
 public:
  explicit RingSampler(const View& view) : view_(view) {
    const int width = view.width();
    const int height = view.height();
    int64_t backgroundCount = 0;
    int64_t foregroundCount = 0;
    // Whether both classes reach kEnoughSamples is all the count decides,
    // so it stops as soon as they do.
    for (int y = 0; y < height; ++y) {
      const auto row = view.RowAt(y);
      int b = 0;
      int f = 0;
      for (int x = 0; x < width; ++x) {
        const unsigned char l = row.Label(x);
        b += l == kBackground;
        f += l == kForeground;
      }
      backgroundCount += b;
      foregroundCount += f;
      if (backgroundCount >= kEnoughSamples &&
          foregroundCount >= kEnoughSamples) {
        break;
      }
    }
    exhaustive_ =
        backgroundCount < kEnoughSamples || foregroundCount < kEnoughSamples;
    if (!exhaustive_) return;
    // Full lists: the background mean does not depend on order; the
    // foreground keeps coordinates to restore ring order on ties.
    fg_.reserve(static_cast<size_t>(foregroundCount));
    int64_t sum[3] = {0, 0, 0};
    for (int y = 0; y < height; ++y) {
      const auto row = view.RowAt(y);
      for (int x = 0; x < width; ++x) {
        const unsigned char l = row.Label(x);
        if (l == kBackground) {
          const unsigned char* p = row.Colour(x);
          for (int c = 0; c < 3; ++c) sum[c] += p[c];
        } else if (l == kForeground) {
          fg_.push_back(row.Colour(x));
          fgX_.push_back(x);
          fgY_.push_back(y);
        }
      }
    }
    bgCount_ = static_cast<int>(backgroundCount);
    fgCount_ = static_cast<int>(fg_.size());
    for (int c = 0; c < 3; ++c) {
      bgMean_[c] =
          bgCount_ > 0 ? static_cast<unsigned char>(sum[c] / bgCount_) : 0;
    }
  }

  // Searches around (x, y); afterwards the *Count() and accessors describe
  // what the ring search found.
  void collect_ring_samples(int x, int y) {
    cx_ = x;
    cy_ = y;
    if (exhaustive_) return;
    bg_.clear();
    fg_.clear();
    const int width = view_.width();
    const int height = view_.height();
    for (int r = 1;; ++r) {
      bool inside = false;
      if (y - r >= 0) {
        inside |=
            VisitRow(y - r, std::max(x - r, 0), std::min(x + r - 1, width - 1));
      }
      if (x + r < width) {
        inside |= VisitColumn(x + r, std::max(y - r, 0),
                              std::min(y + r - 1, height - 1));
      }
      if (y + r < height) {
        inside |=
            VisitRow(y + r, std::max(x - r + 1, 0), std::min(x + r, width - 1));
      }
      if (x - r >= 0) {
        inside |= VisitColumn(x - r, std::max(y - r + 1, 0),
                              std::min(y + r, height - 1));
      }
      if (!inside) break;
      if (bg_.size() >= static_cast<size_t>(kEnoughSamples) &&
          fg_.size() >= static_cast<size_t>(kEnoughSamples)) {
        break;
      }
    }
    bgCount_ = static_cast<int>(bg_.size());
    fgCount_ = static_cast<int>(fg_.size());
  }

  int BackgroundCount() const { return bgCount_; }
  int ForegroundCount() const { return fgCount_; }

  void BackgroundMean(unsigned char* out) const {
    if (exhaustive_) {
      std::memcpy(out, bgMean_, 3);
    } else {
      MeanColour(bg_.data(), bgCount_, out);
    }
  }

  // The foreground sample of least composite error, earliest in ring order
  // among equals; null when there is none.
  const unsigned char* BestForegroundSample(int a, const unsigned char* b,
                                            const unsigned char* i) const {
    if (!exhaustive_) return BestForeground(fg_.data(), fgCount_, a, b, i);
    const unsigned char* best = nullptr;
    int bestError = std::numeric_limits<int>::max();
    int64_t bestOrder = 0;
    for (int k = 0; k < fgCount_; ++k) {
      const int error = CompositeError(fg_[k], a, b, i);
      if (error > bestError) continue;
      const int64_t order = RingOrder(fgX_[k] - cx_, fgY_[k] - cy_);
      if (error < bestError || order < bestOrder) {
        bestError = error;
        bestOrder = order;
        best = fg_[k];
      }
    }
    return best;
  }

 private:
  bool VisitRow(int y, int x0, int x1) {
    if (x0 > x1) return false;
    const auto row = view_.RowAt(y);
    for (int x = x0; x <= x1; ++x) Take(row, x);
    return true;
  }
  bool VisitColumn(int x, int y0, int y1) {
    if (y0 > y1) return false;
    for (int y = y0; y <= y1; ++y) Take(view_.RowAt(y), x);
    return true;
  }
  template <typename Row>
  void Take(const Row& row, int x) {
    const unsigned char label = row.Label(x);
    if (label == kBackground) {
      bg_.push_back(row.Colour(x));
    } else if (label == kForeground) {
      fg_.push_back(row.Colour(x));
    }
  }

  // Position of offset (dx, dy) in the visiting order: ring, then side (top,
  // right, bottom, left), then coordinate along the side.
  static int64_t RingOrder(int dx, int dy) {
    const int r = std::max(std::abs(dx), std::abs(dy));
    int side;
    int along;
    if (dy == -r && dx < r) {
      side = 0;
      along = dx;
    } else if (dx == r && dy < r) {
      side = 1;
      along = dy;
    } else if (dy == r && dx > -r) {
      side = 2;
      along = dx;
    } else {
      side = 3;
      along = dy;
    }
    return (static_cast<int64_t>(r) * 4 + side) * (int64_t{1} << 32) + along +
           (int64_t{1} << 31);
  }

  View view_;
  bool exhaustive_ = false;
  std::vector<const unsigned char*> bg_;
  std::vector<const unsigned char*> fg_;
  std::vector<int> fgX_;
  std::vector<int> fgY_;
  int bgCount_ = 0;
  int fgCount_ = 0;
  unsigned char bgMean_[3] = {0, 0, 0};
  int cx_ = 0;
  int cy_ = 0;
};

// Bilinear source positions of one axis of the transfer between levels.
struct AxisTable {
  Buffer<int> index;
  Buffer<float> frac;
  AxisTable(int coarse, int fine)
      : index(new int[fine > 0 ? fine : 1]),
        frac(new float[fine > 0 ? fine : 1]) {
    ff::ipf_calc_resize_tab_bl(coarse, fine, index.get(), frac.get(), 1);
  }
};

// Carries one pixel of one colour plane up a level from the four coarse
// pixels around it: c00, c10 (right of it), c01 (below), c11, with e* telling
// which carry the excluded class (the other layer's known pixels). Those get
// no weight where a neighbour of the right kind can stand in. With all four
// excluded, Search() is asked for the sampler around the coarse pixel
// (already searched); background planes then take the mean of its
// background samples, foreground planes its best foreground sample for
// alpha a over background b. out holds the fine image colour on entry.
template <typename SearchFn>
void TransferPixel(bool isBackground, bool e00, bool e10, bool e01, bool e11,
                   float tx, float ty, const unsigned char* c00,
                   const unsigned char* c10, const unsigned char* c01,
                   const unsigned char* c11, SearchFn&& Search, int a,
                   const unsigned char* b, unsigned char* out) {
  float wt = e00 == e10 ? tx : e00 ? 1.0f : 0.0f;
  const float wb = e01 == e11 ? tx : e01 ? 1.0f : 0.0f;
  float wv;
  if (!(e01 && e11)) {
    wv = (e00 && e10) ? 1.0f : ty;
  } else if (!(e00 && e10)) {
    wv = 0.0f;
  } else {
    const auto& sampler = Search();
    if (isBackground && sampler.BackgroundCount() > 0) {
      sampler.BackgroundMean(out);
      return;
    }
    if (!isBackground && sampler.ForegroundCount() > 0) {
      const unsigned char* f = sampler.BestForegroundSample(a, b, out);
      std::memcpy(out, f, 3);
      return;
    }
    wt = tx;
    wv = 0.0f;
  }
  for (int c = 0; c < 3; ++c) {
    const float top = c00[c] + wt * (c10[c] - c00[c]);
    const float bottom = c01[c] + wb * (c11[c] - c01[c]);
    const float v = top + wv * (bottom - top);
    out[c] = static_cast<unsigned char>(static_cast<int>(v));
  }
}

// Side of the distance histogram: the image diagonal, at least 1024.
inline int64_t BandBins(int width, int height) {
  const int64_t diagonal =
      static_cast<int64_t>(std::sqrt(static_cast<double>(width) * width +
                                     static_cast<double>(height) * height));
  return std::max<int64_t>(diagonal, 1024);
}

// Band width of a pixel from its chamfer distances to either known class.
inline int64_t BandWidthAt(unsigned int toFg, unsigned int toBg) {
  return (toFg + toBg) / kDistanceScale;
}

// Typical width of the unknown band: the median of the per-pixel widths
// (capped at the longest one seen), the weight then fading out up to two and
// a half times that.
struct BandWidth {
  int64_t lower;
  int64_t upper;
};

// Collects the per-pixel widths of the band's pixels.
class BandHistogram {
 public:
  BandHistogram(int width, int height)
      : bins_(BandBins(width, height)), histogram_(new int64_t[bins_]()) {}

  void Add(int64_t n) {
    if (n >= bins_) return;
    ++histogram_[n];
    ++count_;
    longest_ = std::max(longest_, n);
  }

  BandWidth Result() const {
    // Counts the bin where half is reached too: one past the median bin.
    int64_t median = 0;
    if (count_ >= 2) {
      int64_t k = count_ >> 1;
      while (k > 0) k -= histogram_[median++];
    }
    BandWidth band;
    band.lower = std::min(longest_, median);
    band.upper = std::min(longest_, (5 * band.lower) / 2) + 1;
    return band;
  }

 private:
  int64_t bins_;
  Buffer<int64_t> histogram_;
  int64_t count_ = 0;
  int64_t longest_ = 0;
};

// Float to byte as the conversion instruction of either target does for
// values in range; a NaN (alpha 0 with low = 0) becomes 0.
inline unsigned char TruncateToByte(float v) {
  if (!(v == v)) return 0;
  if (v >= 2147483648.0f || v < -2147483648.0f) return 0;
  return static_cast<unsigned char>(static_cast<int>(v));
}

// The last correction of one unknown pixel at full resolution: where the
// band is narrow the estimate f stands, where it is wide the compositing
// equation solved for the foreground takes over, both only as far as the
// alpha's weight s allows.
inline void CorrectForeground(int64_t n, const BandWidth& band,
                              unsigned char alphaValue, const float* sTable,
                              const unsigned char* i, const unsigned char* b,
                              unsigned char* f) {
  float g;
  if (n < band.lower) {
    g = 1.0f;
  } else if (n <= band.upper) {
    g = static_cast<float>(band.upper - n) /
        static_cast<float>(band.upper - band.lower);
  } else {
    g = 0.0f;
  }
  const float a = static_cast<float>(alphaValue) / 255.0f;
  const float s = sTable[alphaValue];
  for (int c = 0; c < 3; ++c) {
    float fs =
        (static_cast<float>(i[c]) - (1.0f - a) * static_cast<float>(b[c])) / a;
    fs = fs < 0.0f ? 0.0f : std::min(fs, 255.0f);
    const float v = (1.0f - s) * static_cast<float>(i[c]) +
                    s * (g * static_cast<float>(f[c]) + (1.0f - g) * fs);
    f[c] = TruncateToByte(v);
  }
}

}  // namespace fb_color

#endif  // SOFTMATTE_SRC_COLOUR_FB_COLOR_STEPS_H_
