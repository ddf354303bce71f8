// Foreground colours computed over the soft band only. The full worker
// (fb_color.cc) builds every pyramid level as whole planes; here a level is
// nothing but two lookup tables into the caller's photo and matte plus the
// list of its unknown pixels, and only those pixels carry values. Each step
// reads what the full worker reads (through the shared per-pixel steps), so
// the bytes are the same.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "colour/fb_color.h"
#include "colour/fb_color_steps.h"
#include "softmatte/ff/ipf.h"

namespace {

using fb_color::kBackground;
using fb_color::kForeground;
using fb_color::kUnknown;
using fb_color::kWindowNeighbours;

// Chamfer weights of a field of scale 100: axial steps 100, diagonal ones
// trunc(100 * 1.414).
constexpr unsigned int kAxial = fb_color::kDistanceScale;
constexpr unsigned int kDiagonal = 141;
// The distance transform takes 16-bit sizes and refuses larger planes.
constexpr int kLargestDistanceSide = 0xFFFF;
constexpr int kScanBlock = 16;
// Label given to the columns and rows just outside the photo: a wall to
// both transforms, like the other class.
constexpr unsigned char kOutside = 3;

struct Labels {
  unsigned char of[256];
  Labels(unsigned char low, unsigned char high) {
    for (int v = 0; v < 256; ++v) {
      of[v] = fb_color::LabelOf(static_cast<unsigned char>(v), low, high);
    }
  }
};

// The unknown pixels of a plane as runs [x0, x1) per row, each numbered
// from base on, in raster order.
struct Run {
  int x0;
  int x1;
  size_t base;
};

class BandRows {
 public:
  explicit BandRows(int height) : rowBegin_(static_cast<size_t>(height) + 1) {}

  // Rows are appended in order.
  void Add(int x0, int x1) {
    runs_.push_back({x0, x1, pixels_});
    pixels_ += static_cast<size_t>(x1 - x0);
  }
  void EndRow(int y) { rowBegin_[static_cast<size_t>(y) + 1] = runs_.size(); }

  size_t pixels() const { return pixels_; }
  const Run* begin(int y) const { return runs_.data() + rowBegin_[y]; }
  const Run* end(int y) const { return runs_.data() + rowBegin_[y + 1]; }

  // Position of a run among all runs, in raster order.
  size_t Number(const Run* run) const {
    return static_cast<size_t>(run - runs_.data());
  }

 private:
  std::vector<size_t> rowBegin_;
  std::vector<Run> runs_;
  size_t pixels_ = 0;
};

// Sixteen alpha values side by side (a vector register on either target),
// and what comparing two such gives: all ones where true.
typedef unsigned char Bytes16 __attribute__((vector_size(kScanBlock)));
using Mask16 = decltype(std::declval<Bytes16>() < std::declval<Bytes16>());

// One pass over the matte: the unknown runs of every row. Blocks without an
// unknown value (the bulk of a photo) are passed over sixteen at a time.
BandRows FindBand(const unsigned char* alpha, int alphaStride, int width,
                  int height, unsigned char low, unsigned char high) {
  BandRows band(height);
  const unsigned char span = static_cast<unsigned char>(high - low);
  auto unknown = [&](unsigned char a) {
    return static_cast<unsigned char>(a - low) <= span;
  };
  Bytes16 lows;
  Bytes16 spans;
  for (int k = 0; k < kScanBlock; ++k) {
    lows[k] = low;
    spans[k] = span;
  }
  for (int y = 0; y < height; ++y) {
    const unsigned char* row = alpha + static_cast<ptrdiff_t>(y) * alphaStride;
    int x = 0;
    // Whether any value of the blocks at row + at is unknown.
    auto anyUnknown = [&](int at, int blocks) {
      Mask16 inBand = {};
      for (int b = 0; b < blocks; ++b) {
        Bytes16 block;
        std::memcpy(&block, row + at + b * kScanBlock, kScanBlock);
        inBand |= (block - lows) <= spans;
      }
      uint64_t halves[2];
      std::memcpy(halves, &inBand, sizeof halves);
      return (halves[0] | halves[1]) != 0;
    };
    while (low <= high && x < width) {
      if (x + 4 * kScanBlock <= width && !anyUnknown(x, 4)) {
        x += 4 * kScanBlock;
        continue;
      }
      if (x + kScanBlock <= width && !anyUnknown(x, 1)) {
        x += kScanBlock;
        continue;
      }
      if (!unknown(row[x])) {
        ++x;
        continue;
      }
      int end = x + 1;
      while (end < width && unknown(row[end])) ++end;
      band.Add(x, end);
      x = end + 1;
    }
    band.EndRow(y);
  }
  return band;
}

// A pyramid level: the nearest-neighbour tables that give each of its
// pixels a pixel of the photo (as the level's planes would hold them) and
// its unknown pixels.
class Level {
 public:
  Level(const unsigned char* image, int imageStride, const unsigned char* alpha,
        int alphaStride, const Labels& labels, int fullWidth, int fullHeight,
        int width, int height, const BandRows& fullBand)
      : image_(image),
        imageStride_(imageStride),
        alpha_(alpha),
        alphaStride_(alphaStride),
        labels_(labels.of),
        width_(width),
        height_(height),
        tx_(static_cast<size_t>(width)),
        ty_(static_cast<size_t>(height)) {
    ff::ipf_calc_resize_tab_nn(fullWidth, width, tx_.data(), 1);
    ff::ipf_calc_resize_tab_nn(fullHeight, height, ty_.data(), 1);
    if (width == fullWidth && height == fullHeight) {
      band_ = &fullBand;
      return;
    }
    // The tables only grow, so the level pixels of a run of photo columns
    // are those between the first level columns reaching either end.
    std::vector<int> firstAt(static_cast<size_t>(fullWidth) + 1);
    int x = 0;
    for (int c = 0; c <= fullWidth; ++c) {
      while (x < width && tx_[x] < c) ++x;
      firstAt[c] = x;
    }
    own_.emplace(height);
    for (int y = 0; y < height; ++y) {
      for (const Run* r = fullBand.begin(ty_[y]); r != fullBand.end(ty_[y]);
           ++r) {
        if (firstAt[r->x0] < firstAt[r->x1]) {
          own_->Add(firstAt[r->x0], firstAt[r->x1]);
        }
      }
      own_->EndRow(y);
    }
    band_ = &*own_;
  }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }
  const BandRows& band() const { return *band_; }

  // A level row as the ring search reads it.
  struct Row {
    const unsigned char* alpha;
    const unsigned char* image;
    const int* tx;
    const unsigned char* labels;
    unsigned char Label(int x) const { return labels[alpha[tx[x]]]; }
    unsigned char Alpha(int x) const { return alpha[tx[x]]; }
    const unsigned char* Colour(int x) const {
      return image + static_cast<ptrdiff_t>(tx[x]) * 3;
    }
  };
  Row RowAt(int y) const {
    return {alpha_ + static_cast<ptrdiff_t>(ty_[y]) * alphaStride_,
            image_ + static_cast<ptrdiff_t>(ty_[y]) * imageStride_, tx_.data(),
            labels_};
  }
  unsigned char Label(int x, int y) const { return RowAt(y).Label(x); }
  const int* tx() const { return tx_.data(); }
  const int* ty() const { return ty_.data(); }

 private:
  const unsigned char* image_;
  int imageStride_;
  const unsigned char* alpha_;
  int alphaStride_;
  const unsigned char* labels_;
  int width_;
  int height_;
  std::vector<int> tx_;
  std::vector<int> ty_;
  std::optional<BandRows> own_;
  const BandRows* band_ = nullptr;
};

// The ring search reads a level through a copyable handle.
class LevelView {
 public:
  explicit LevelView(const Level& level) : level_(&level) {}
  int width() const { return level_->width(); }
  int height() const { return level_->height(); }
  Level::Row RowAt(int y) const { return level_->RowAt(y); }

 private:
  const Level* level_;
};
using RingSampler = fb_color::RingSampler<LevelView>;

// Whether the level holds a pixel of each known class. The pixels beside
// the band's runs settle it at once in any ordinary matte; otherwise the
// whole level is looked at.
bool HasBothClasses(const Level& level) {
  unsigned char seen = 0;
  for (int y = 0; y < level.height() && seen != 3; ++y) {
    const Level::Row row = level.RowAt(y);
    for (const Run* r = level.band().begin(y); r != level.band().end(y); ++r) {
      if (r->x0 > 0) seen |= row.Label(r->x0 - 1);
      if (r->x1 < level.width()) seen |= row.Label(r->x1);
    }
  }
  for (int y = 0; y < level.height() && seen != 3; ++y) {
    const Level::Row row = level.RowAt(y);
    for (int x = 0; x < level.width(); ++x) seen |= row.Label(x);
  }
  return seen == 3;
}

// Whether every unknown pixel of the level has both known classes in its
// 5 x 5 window (parts outside the level count as neither).
bool Bracketed(const Level& level) {
  const int w = level.width();
  const int h = level.height();
  for (int y = 0; y < h; ++y) {
    Level::Row rows[5];
    int rowCount = 0;
    for (int dy = -2; dy <= 2; ++dy) {
      if (y + dy >= 0 && y + dy < h) rows[rowCount++] = level.RowAt(y + dy);
    }
    for (const Run* r = level.band().begin(y); r != level.band().end(y); ++r) {
      for (int x = r->x0; x < r->x1; ++x) {
        unsigned char seen = 0;
        const int left = std::max(x - 2, 0);
        const int right = std::min(x + 2, w - 1);
        for (int k = 0; k < rowCount; ++k) {
          for (int c = left; c <= right; ++c) seen |= rows[k].Label(c);
        }
        if (seen != 3) return false;
      }
    }
  }
  return true;
}

// The largest level, starting from full size and halving, on which every
// unknown pixel has both known classes within its 5 x 5 window; twice the
// size when a class is missing (see the full worker).
void ChooseCoarsestLevel(const unsigned char* image, int imageStride,
                         const unsigned char* alpha, int alphaStride,
                         const Labels& labels, int width, int height,
                         const BandRows& band, int* levelWidth,
                         int* levelHeight) {
  int w = width;
  int h = height;
  for (;;) {
    if (w < 1 || h < 1) {
      w *= 2;
      h *= 2;
      break;
    }
    const Level level(image, imageStride, alpha, alphaStride, labels, width,
                      height, w, h, band);
    if (!HasBothClasses(level)) {
      w *= 2;
      h *= 2;
      break;
    }
    if (Bracketed(level) || h < fb_color::kMinHalvedSide ||
        w < fb_color::kMinHalvedSide) {
      break;
    }
    w >>= 1;
    h >>= 1;
  }
  *levelWidth = w;
  *levelHeight = h;
}

// The background and foreground estimates of one pixel of a level.
struct Colours {
  unsigned char b[3];
  unsigned char f[3];
};

// The ring search of a level, prepared when it is first needed: most
// transfers never search.
class LazySampler {
 public:
  explicit LazySampler(const Level& level) : level_(level) {}
  const RingSampler& Search(int x, int y) {
    if (!sampler_) sampler_.emplace(LevelView(level_));
    sampler_->collect_ring_samples(x, y);
    return *sampler_;
  }

 private:
  const Level& level_;
  std::optional<RingSampler> sampler_;
};

// The coarsest level's estimate at (x, y): the background mean and the
// best foreground of the known samples around it.
Colours SolvePixel(const Level& level, LazySampler& sampler, int x, int y) {
  const Level::Row row = level.RowAt(y);
  const unsigned char* i = row.Colour(x);
  Colours out;
  std::memcpy(out.b, i, 3);
  std::memcpy(out.f, i, 3);
  const RingSampler& found = sampler.Search(x, y);
  if (found.BackgroundCount() > 0) found.BackgroundMean(out.b);
  const unsigned char* f = found.BestForegroundSample(row.Alpha(x), out.b, i);
  if (f != nullptr) std::memcpy(out.f, f, 3);
  return out;
}

// A level whose unknown pixels hold their estimates, in band order.
struct SolvedLevel {
  const Level* level;
  std::vector<Colours> colours;
};

// Looks up band pixels of one row in increasing column order.
class RowCursor {
 public:
  RowCursor(const BandRows& band, int y) : run_(band.begin(y)) {}
  // Index of (x, y), which must be a band pixel at or after the last one.
  size_t IndexOf(int x) {
    while (run_->x1 <= x) ++run_;
    return run_->base + static_cast<size_t>(x - run_->x0);
  }

 private:
  const Run* run_;
};

// Carries the estimates from a coarser level to the pixels of the next and
// corrects them from their 5 x 5 windows, a run of pixels at a time.
class Refiner {
 public:
  Refiner(const SolvedLevel& coarse, const Level& fine)
      : coarse_(coarse),
        fine_(fine),
        xs_(coarse.level->width(), fine.width()),
        ys_(coarse.level->height(), fine.height()),
        sampler_(*coarse.level) {}

  // The estimates of the band pixels x0 .. x1 - 1 of row y, passed in order
  // to emit(x, colours).
  template <typename Emit>
  void Run(int y, int x0, int x1, Emit&& emit) {
    const Level& coarse = *coarse_.level;
    const BandRows& coarseBand = coarse.band();
    const int iy = ys_.index[y];
    const float fy = ys_.frac[y];
    const Level::Row top = coarse.RowAt(iy);
    const Level::Row bottom = coarse.RowAt(iy + 1);
    // One cursor per corner: the left and right columns advance separately.
    RowCursor cursors[4] = {{coarseBand, iy},
                            {coarseBand, iy},
                            {coarseBand, iy + 1},
                            {coarseBand, iy + 1}};
    const Level::Row row = fine_.RowAt(y);
    // The window is moved inside the level at its borders, as on the full
    // planes. Its five rows are the same for the whole run: their labels
    // over the columns the run's windows cover are read once, with the
    // known classes seen in each column.
    const int cy = y < 2 ? 2 : std::min(y, fine_.height() - 3);
    const int firstColumn = WindowCentre(x0) - 2;
    const int columnCount = WindowCentre(x1 - 1) + 3 - firstColumn;
    const int* fineTx = fine_.tx();
    const unsigned char* imageRows[5];
    windowLabels_.resize(static_cast<size_t>(columnCount) * 5);
    columnSeen_.assign(static_cast<size_t>(columnCount), 0);
    for (int d = 0; d < 5; ++d) {
      const Level::Row windowRow = fine_.RowAt(cy - 2 + d);
      imageRows[d] = windowRow.image;
      unsigned char* labels =
          &windowLabels_[static_cast<size_t>(d) * columnCount];
      for (int c = 0; c < columnCount; ++c) {
        labels[c] = windowRow.Label(firstColumn + c);
        columnSeen_[c] |= labels[c];
      }
    }
    for (int x = x0; x < x1; ++x) {
      const int ix = xs_.index[x];
      const float fx = xs_.frac[x];
      const unsigned char l[4] = {top.Label(ix), top.Label(ix + 1),
                                  bottom.Label(ix), bottom.Label(ix + 1)};
      // Known coarse pixels hold the coarse photo in both planes.
      const unsigned char* bc[4];
      const unsigned char* fc[4];
      for (int k = 0; k < 4; ++k) {
        const int cx = ix + (k & 1);
        if (l[k] == kUnknown) {
          const Colours& c = coarse_.colours[cursors[k].IndexOf(cx)];
          bc[k] = c.b;
          fc[k] = c.f;
        } else {
          bc[k] = fc[k] = (k < 2 ? top : bottom).Colour(cx);
        }
      }
      const unsigned char* i = row.Colour(x);
      const int a = row.Alpha(x);
      Colours out;
      std::memcpy(out.b, i, 3);
      std::memcpy(out.f, i, 3);
      const auto search = [&]() -> const RingSampler& {
        return sampler_.Search(ix, iy);
      };
      fb_color::TransferPixel(true, l[0] == kForeground, l[1] == kForeground,
                              l[2] == kForeground, l[3] == kForeground, fx, fy,
                              bc[0], bc[1], bc[2], bc[3], search, a, out.b,
                              out.b);
      fb_color::TransferPixel(false, l[0] == kBackground, l[1] == kBackground,
                              l[2] == kBackground, l[3] == kBackground, fx, fy,
                              fc[0], fc[1], fc[2], fc[3], search, a, out.b,
                              out.f);

      // Deep inside a wide band the window sees no known pixel and
      // corrects nothing.
      const int left = WindowCentre(x) - 2 - firstColumn;
      const unsigned char seen = columnSeen_[left] | columnSeen_[left + 1] |
                                 columnSeen_[left + 2] | columnSeen_[left + 3] |
                                 columnSeen_[left + 4];
      if (seen != 0) {
        // Neighbours in the order of the neighbour-offset table.
        const unsigned char* bg[kWindowNeighbours];
        const unsigned char* fg[kWindowNeighbours];
        int nb = 0;
        int nf = 0;
        for (int dy = 0; dy < 5; ++dy) {
          const unsigned char* labels =
              &windowLabels_[static_cast<size_t>(dy) * columnCount + left];
          for (int dx = 0; dx < 5; ++dx) {
            if (dx == 2 && dy == 2) continue;
            // Written to both lists, kept by the one the label names.
            const unsigned char* p =
                imageRows[dy] +
                static_cast<ptrdiff_t>(fineTx[firstColumn + left + dx]) * 3;
            bg[nb] = p;
            fg[nf] = p;
            nb += labels[dx] == kBackground;
            nf += labels[dx] == kForeground;
          }
        }
        fb_color::CorrectFromWindow(bg, nb, fg, nf, a, i, out.b, out.f);
      }
      emit(x, out);
    }
  }

 private:
  int WindowCentre(int x) const {
    return x < 2 ? 2 : std::min(x, fine_.width() - 3);
  }

  const SolvedLevel& coarse_;
  const Level& fine_;
  fb_color::AxisTable xs_;
  fb_color::AxisTable ys_;
  LazySampler sampler_;
  std::vector<unsigned char> windowLabels_;  // five rows of the run's windows
  std::vector<unsigned char> columnSeen_;    // known classes per column
};

// Calls visit(y, run number, run) for the band's runs in raster order.
template <typename Visit>
void ForEachRun(const BandRows& band, int height, Visit&& visit) {
  for (int y = 0; y < height; ++y) {
    for (const Run* r = band.begin(y); r != band.end(y); ++r) {
      visit(y, band.Number(r), *r);
    }
  }
}

// Estimates for every unknown pixel of a coarse level, in band order.
std::vector<Colours> SolveBand(const Level& level) {
  LazySampler sampler(level);
  std::vector<Colours> colours;
  colours.reserve(level.band().pixels());
  ForEachRun(level.band(), level.height(), [&](int y, size_t, const Run& r) {
    for (int x = r.x0; x < r.x1; ++x) {
      colours.push_back(SolvePixel(level, sampler, x, y));
    }
  });
  return colours;
}

std::vector<Colours> RefineBand(const SolvedLevel& coarse, const Level& fine) {
  Refiner refiner(coarse, fine);
  std::vector<Colours> colours;
  colours.reserve(fine.band().pixels());
  ForEachRun(fine.band(), fine.height(), [&](int y, size_t, const Run& r) {
    refiner.Run(y, r.x0, r.x1,
                [&](int, const Colours& c) { colours.push_back(c); });
  });
  return colours;
}

// Chamfer distances of the band's pixels to either known class, as the
// four-pass transform of the whole label map gives them there. A pixel's
// distance comes only through unknown pixels, so the transform is run on
// the band's runs and the known (or outside) pixels next to them, kept as
// rows of intervals; every band run lies inside one interval of its own row
// and of the rows above and below, widened by a pixel, so the passes read
// their neighbours by offset exactly as on full rows.
class BandDistances {
 public:
  BandDistances(const unsigned char* alpha, int alphaStride,
                const Labels& labels, int width, int height,
                const BandRows& band)
      : height_(height), rowBegin_(height + 3) {
    BuildIntervals(band);
    toFg_.resize(size_);
    toBg_.resize(size_);
    for (int y = -1; y <= height; ++y) {
      const unsigned char* row =
          y >= 0 && y < height ? alpha + static_cast<ptrdiff_t>(y) * alphaStride
                               : nullptr;
      for (size_t k = rowBegin_[y + 1]; k < rowBegin_[y + 2]; ++k) {
        const Interval& iv = intervals_[k];
        for (int x = iv.x0; x < iv.x1; ++x) {
          const unsigned char l = row != nullptr && x >= 0 && x < width
                                      ? labels.of[row[x]]
                                      : kOutside;
          const size_t i = iv.base + static_cast<size_t>(x - iv.x0);
          toFg_[i] = l == kForeground ? 0 : fb_color::kUnreachedDistance;
          toBg_[i] = l == kBackground ? 0 : fb_color::kUnreachedDistance;
        }
      }
    }
    // Where each band run's neighbourhood lies in the intervals.
    for (int y = 0; y < height; ++y) {
      for (const Run* r = band.begin(y); r != band.end(y); ++r) {
        offsets_.push_back(
            {Offset(y - 1, r->x0), Offset(y, r->x0), Offset(y + 1, r->x0)});
      }
    }
    Pass<0>(band);
    Pass<1>(band);
    Pass<2>(band);
    Pass<3>(band);
  }

  // Band width (in pixels) of pixel x of the band's run with this index.
  int64_t WidthAt(size_t run, int x) const {
    const ptrdiff_t at = offsets_[run][1] + x;
    return fb_color::BandWidthAt(toFg_[at], toBg_[at]);
  }

 private:
  struct Interval {
    int x0;
    int x1;
    size_t base;
  };

  // Rows -1 .. height: the union of the band runs of the row and its two
  // neighbours, each widened by one pixel to either side.
  void BuildIntervals(const BandRows& band) {
    std::vector<std::pair<int, int>> spans;
    for (int y = -1; y <= height_; ++y) {
      spans.clear();
      for (int ny = y - 1; ny <= y + 1; ++ny) {
        if (ny < 0 || ny >= height_) continue;
        for (const Run* r = band.begin(ny); r != band.end(ny); ++r) {
          spans.push_back({r->x0 - 1, r->x1 + 1});
        }
      }
      std::sort(spans.begin(), spans.end());
      for (size_t k = 0; k < spans.size();) {
        int x0 = spans[k].first;
        int x1 = spans[k].second;
        for (++k; k < spans.size() && spans[k].first <= x1; ++k) {
          x1 = std::max(x1, spans[k].second);
        }
        intervals_.push_back({x0, x1, size_});
        size_ += static_cast<size_t>(x1 - x0);
      }
      rowBegin_[y + 2] = intervals_.size();
    }
  }

  // The offset that turns column x of row y into an index, for the
  // interval of that row holding column x.
  ptrdiff_t Offset(int y, int x) const {
    const Interval* first = intervals_.data() + rowBegin_[y + 1];
    const Interval* last = intervals_.data() + rowBegin_[y + 2];
    const Interval* iv =
        std::upper_bound(first, last, x,
                         [](int v, const Interval& i) { return v < i.x0; }) -
        1;
    return static_cast<ptrdiff_t>(iv->base) - iv->x0;
  }

  // One of the four raster passes; the neighbour lists are the transform's.
  template <int kPass>
  void Pass(const BandRows& band) {
    constexpr bool kBottomUp = kPass == 1 || kPass == 3;
    constexpr bool kRightToLeft = kPass == 1 || kPass == 2;
    unsigned int* planes[2] = {toFg_.data(), toBg_.data()};
    for (int i = 0; i < height_; ++i) {
      const int y = kBottomUp ? height_ - 1 - i : i;
      const size_t count = static_cast<size_t>(band.end(y) - band.begin(y));
      for (size_t j = 0; j < count; ++j) {
        const Run& r = band.begin(y)[kRightToLeft ? count - 1 - j : j];
        const std::array<ptrdiff_t, 3>& o = offsets_[band.Number(&r)];
        for (unsigned int* d : planes) {
          const unsigned int* up = d + o[0];
          unsigned int* cur = d + o[1];
          const unsigned int* down = d + o[2];
          if (kRightToLeft) {
            for (int x = r.x1 - 1; x >= r.x0; --x)
              Update<kPass>(up, cur, down, x);
          } else {
            for (int x = r.x0; x < r.x1; ++x) Update<kPass>(up, cur, down, x);
          }
        }
      }
    }
  }

  template <int kPass>
  static void Update(const unsigned int* up, unsigned int* cur,
                     const unsigned int* down, int x) {
    unsigned int v = cur[x];
    if (kPass == 0) {
      v = std::min(v, up[x - 1] + kDiagonal);
      v = std::min(v, up[x] + kAxial);
      v = std::min(v, up[x + 1] + kDiagonal);
      v = std::min(v, cur[x - 1] + kAxial);
    } else if (kPass == 1) {
      v = std::min(v, cur[x + 1] + kAxial);
      v = std::min(v, down[x - 1] + kDiagonal);
      v = std::min(v, down[x] + kAxial);
      v = std::min(v, down[x + 1] + kDiagonal);
    } else if (kPass == 2) {
      v = std::min(v, up[x] + kAxial);
      v = std::min(v, up[x + 1] + kDiagonal);
      v = std::min(v, cur[x + 1] + kAxial);
      v = std::min(v, down[x + 1] + kDiagonal);
    } else {
      v = std::min(v, down[x] + kAxial);
      v = std::min(v, down[x - 1] + kDiagonal);
      v = std::min(v, cur[x - 1] + kAxial);
      v = std::min(v, up[x - 1] + kDiagonal);
    }
    cur[x] = v;
  }

  int height_;
  std::vector<size_t> rowBegin_;  // rows -1 .. height, shifted by one
  std::vector<Interval> intervals_;
  size_t size_ = 0;
  std::vector<unsigned int> toFg_;
  std::vector<unsigned int> toBg_;
  std::vector<std::array<ptrdiff_t, 3>> offsets_;  // per band run
};

// Band widths of the band's pixels, each from its distances to either
// known class.
class BandWidths {
 public:
  BandWidths(const unsigned char* alpha, int alphaStride, const Labels& labels,
             int width, int height, const BandRows& band) {
    if (width <= kLargestDistanceSide && height <= kLargestDistanceSide) {
      distances_.emplace(alpha, alphaStride, labels, width, height, band);
    }
  }
  int64_t At(size_t run, int x) const {
    // Planes too large for the transform read "unreached" from both classes.
    if (!distances_) {
      return fb_color::BandWidthAt(fb_color::kUnreachedDistance,
                                   fb_color::kUnreachedDistance);
    }
    return distances_->WidthAt(run, x);
  }

 private:
  std::optional<BandDistances> distances_;
};

// How many times the full worker's final correction visits row y. It walks
// the rows in four bands with bounds 0, h/4, h/2, 3 (h/4), h, which split the
// rows except on photos of 2 or 3 rows: there 3 (h/4) falls below h/2 and
// row 0 is corrected twice, the second time starting from the first one's
// result.
int CorrectionsOfRow(int y, int height) {
  const int bounds[5] = {0, height / 4, height / 2, 3 * (height / 4), height};
  int count = 0;
  for (int b = 0; b < 4; ++b) count += bounds[b] <= y && y < bounds[b + 1];
  return count;
}

}  // namespace

void estimate_foreground_band(const unsigned char* image, int width, int height,
                              int image_stride, const unsigned char* alpha,
                              int alpha_stride, unsigned char* foreground,
                              int foreground_stride, unsigned char low,
                              unsigned char high) {
  if (image == nullptr || alpha == nullptr || foreground == nullptr) return;
  if (width < 1 || height < 1) return;
  const Labels labels(low, high);
  const BandRows band = FindBand(alpha, alpha_stride, width, height, low, high);

  int w = 0;
  int h = 0;
  ChooseCoarsestLevel(image, image_stride, alpha, alpha_stride, labels, width,
                      height, band, &w, &h);

  // Band widths and the final weights, as at the end of the full worker.
  const BandWidths widths(alpha, alpha_stride, labels, width, height, band);
  fb_color::BandHistogram histogram(width, height);
  ForEachRun(band, height, [&](int, size_t run, const Run& r) {
    for (int x = r.x0; x < r.x1; ++x) histogram.Add(widths.At(run, x));
  });
  const fb_color::BandWidth bandWidth = histogram.Result();
  float sTable[256];
  _calc_S_func(sTable, low, high, 1.0, 0.5);

  // The final correction of band pixel x of a run, written out.
  auto finish = [&](int x, int y, size_t run, Colours c) {
    const unsigned char* i =
        image + static_cast<ptrdiff_t>(y) * image_stride + x * 3;
    for (int k = CorrectionsOfRow(y, height); k > 0; --k) {
      fb_color::CorrectForeground(
          widths.At(run, x), bandWidth,
          alpha[static_cast<ptrdiff_t>(y) * alpha_stride + x], sTable, i, c.b,
          c.f);
    }
    std::memcpy(
        foreground + static_cast<ptrdiff_t>(y) * foreground_stride + x * 3, c.f,
        3);
  };

  if (w > width) {
    // A class is missing: one level of twice the size, of which the photo's
    // pixels read the top-left quarter, known ones included.
    const Level level(image, image_stride, alpha, alpha_stride, labels, width,
                      height, w, h, band);
    LazySampler sampler(level);
    for (int y = 0; y < height; ++y) {
      const Level::Row row = level.RowAt(y);
      const Run* run = band.begin(y);
      for (int x = 0; x < width; ++x) {
        Colours c;
        if (row.Label(x) == kUnknown) {
          c = SolvePixel(level, sampler, x, y);
        } else {
          std::memcpy(c.b, row.Colour(x), 3);
          std::memcpy(c.f, row.Colour(x), 3);
        }
        while (run != band.end(y) && run->x1 <= x) ++run;
        if (run != band.end(y) && run->x0 <= x) {
          finish(x, y, band.Number(run), c);
        } else {
          std::memcpy(foreground +
                          static_cast<ptrdiff_t>(y) * foreground_stride + x * 3,
                      c.f, 3);
        }
      }
    }
    return;
  }

  // Known pixels keep the photo's colour.
  for (int y = 0; y < height; ++y) {
    std::memcpy(foreground + static_cast<ptrdiff_t>(y) * foreground_stride,
                image + static_cast<ptrdiff_t>(y) * image_stride,
                static_cast<size_t>(width) * 3);
  }

  // The level sizes from the coarsest up, as the full worker steps them.
  std::vector<std::pair<int, int>> sizes = {{w, h}};
  while (sizes.back().first < width || sizes.back().second < height) {
    int nw = std::min(sizes.back().first * 2, width);
    int nh = std::min(sizes.back().second * 2, height);
    if ((nw * 5) / 4 >= width || (nh * 5) / 4 >= height) {
      nw = width;
      nh = height;
    }
    sizes.push_back({nw, nh});
  }

  const Level full(image, image_stride, alpha, alpha_stride, labels, width,
                   height, width, height, band);
  if (sizes.size() == 1) {
    LazySampler sampler(full);
    ForEachRun(band, height, [&](int y, size_t run, const Run& r) {
      for (int x = r.x0; x < r.x1; ++x) {
        finish(x, y, run, SolvePixel(full, sampler, x, y));
      }
    });
    return;
  }

  // Coarse levels hold their estimates until the next one has taken them.
  auto coarse = std::make_unique<Level>(image, image_stride, alpha,
                                        alpha_stride, labels, width, height,
                                        sizes[0].first, sizes[0].second, band);
  SolvedLevel solved{coarse.get(), SolveBand(*coarse)};
  for (size_t k = 1; k + 1 < sizes.size(); ++k) {
    auto fine = std::make_unique<Level>(image, image_stride, alpha,
                                        alpha_stride, labels, width, height,
                                        sizes[k].first, sizes[k].second, band);
    std::vector<Colours> colours = RefineBand(solved, *fine);
    coarse = std::move(fine);
    solved = SolvedLevel{coarse.get(), std::move(colours)};
  }
  Refiner refiner(solved, full);
  ForEachRun(band, height, [&](int y, size_t run, const Run& r) {
    refiner.Run(y, r.x0, r.x1,
                [&](int x, const Colours& c) { finish(x, y, run, c); });
  });
}
