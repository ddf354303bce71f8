#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "softmatte/ff/ipf.h"
#include "softmatte/solver.h"

namespace {

constexpr int kSlots = 13;
constexpr int kFrame = 2;   // index map border: forward lookups stay inside
constexpr int kGrow = 4;    // margin around the mask's bounding box
constexpr int kWindow = 9;  // pixels of a 3 x 3 window
constexpr int kPairs = 36;  // pairs i < j of a window

// Pixels are 8-bit; this float (0x3B808081) is the scale the results are
// pinned to, not 1.0f / 255.0f computed at run time.
constexpr float kByteToUnit = 0.003921569f;
// The regulariser is a float constant widened to double, not 1e-4 itself.
constexpr double kEpsilon = static_cast<double>(1e-4f);
// mat_init drops forward affinities this small from the stored triangle.
constexpr double kDropBelow = 1e-10;

// Labels of the rectangle's pixels while the problem is assembled.
constexpr unsigned char kOutside = 0;
constexpr unsigned char kSkipWindow = 1;  // every row of its window reused
constexpr unsigned char kSecondRing = 2;
constexpr unsigned char kFirstRing = 3;
constexpr unsigned char kUnknown = 4;
constexpr unsigned char kReused = 5;
constexpr unsigned char kReusedInside = 6;

// Forward neighbour slots 1..12: the later pixels that can share a 3 x 3
// window with a pixel, in raster order. Slot 0 is the pixel itself.
constexpr int kSlotDx[kSlots] = {0, 1, 2, -2, -1, 0, 1, 2, -2, -1, 0, 1, 2};
constexpr int kSlotDy[kSlots] = {0, 0, 0, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2};

struct WindowPair {
  int first;   // window position 0..8, raster order
  int second;  // a later position
  int slot;    // forward slot of second seen from first
};

constexpr int SlotOf(int dx, int dy) {
  // dy = 0 holds slots 1, 2 (dx 1, 2); dy = 1 and 2 hold five slots from
  // dx = -2 each.
  return dy == 0 ? dx : 3 + (dy - 1) * 5 + (dx + 2);
}

struct PairTable {
  WindowPair pairs[kPairs];
  constexpr PairTable() : pairs() {
    int k = 0;
    for (int i = 0; i < kWindow; ++i) {
      for (int j = i + 1; j < kWindow; ++j) {
        pairs[k].first = i;
        pairs[k].second = j;
        pairs[k].slot = SlotOf(j % 3 - i % 3, j / 3 - i / 3);
        ++k;
      }
    }
  }
};
constexpr PairTable kPairTable;

// Mean and inverse regularised covariance of one window, and every pixel's
// colour minus the mean, premultiplied by the inverse for the pair terms.
// Colour is float or double: with float colours each product of the second
// moments is a float product (the pinned exact arithmetic); with double
// colours everything is double, which a regulariser far below float
// resolution needs.
template <typename Colour>
struct WindowModel {
  double epsilon;
  double centred[kWindow][3];
  double weighted[kWindow][3];  // inverse covariance times centred

  explicit WindowModel(double eps) : epsilon(eps) {}

  // w[k] points to the three channels of window pixel k.
  void Fit(const Colour* const* w) {
    double mean[3];
    for (int c = 0; c < 3; ++c) {
      double sum = 0.0;
      for (int k = 0; k < kWindow; ++k) sum += w[k][c];
      mean[c] = sum / 9.0;
    }
    double m[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    for (int k = 0; k < kWindow; ++k) {
      const Colour* p = w[k];
      m[0] += static_cast<Colour>(p[0] * p[0]);
      m[1] += static_cast<Colour>(p[0] * p[1]);
      m[2] += static_cast<Colour>(p[0] * p[2]);
      m[3] += static_cast<Colour>(p[1] * p[1]);
      m[4] += static_cast<Colour>(p[1] * p[2]);
      m[5] += static_cast<Colour>(p[2] * p[2]);
    }
    const double a = m[0] / 9.0 - mean[0] * mean[0] + epsilon;
    const double b = m[1] / 9.0 - mean[0] * mean[1];
    const double c = m[2] / 9.0 - mean[0] * mean[2];
    const double d = m[3] / 9.0 - mean[1] * mean[1] + epsilon;
    const double e = m[4] / 9.0 - mean[1] * mean[2];
    const double f = m[5] / 9.0 - mean[2] * mean[2] + epsilon;
    const double c00 = d * f - e * e;
    const double c01 = c * e - b * f;
    const double c02 = b * e - c * d;
    const double c11 = a * f - c * c;
    const double c12 = b * c - a * e;
    const double c22 = a * d - b * b;
    const double scale = 1.0 / (a * c00 + b * c01 + c * c02);
    const double s00 = c00 * scale, s01 = c01 * scale, s02 = c02 * scale;
    const double s11 = c11 * scale, s12 = c12 * scale, s22 = c22 * scale;
    for (int k = 0; k < kWindow; ++k) {
      const double u0 = w[k][0] - mean[0];
      const double u1 = w[k][1] - mean[1];
      const double u2 = w[k][2] - mean[2];
      centred[k][0] = u0;
      centred[k][1] = u1;
      centred[k][2] = u2;
      weighted[k][0] = s00 * u0 + s01 * u1 + s02 * u2;
      weighted[k][1] = s01 * u0 + s11 * u1 + s12 * u2;
      weighted[k][2] = s02 * u0 + s12 * u1 + s22 * u2;
    }
  }

  double Affinity(int i, int j) const {
    const double q = centred[i][0] * weighted[j][0] +
                     centred[i][1] * weighted[j][1] +
                     centred[i][2] * weighted[j][2];
    return (q + 1.0) / 9.0;
  }
};

// Packed copy of a rectangle of a B, G, R image in 0..1. Single precision
// uses the pinned scale constant; double precision divides exactly.
template <typename Colour>
Colour ByteToUnit(unsigned char v);
template <>
float ByteToUnit<float>(unsigned char v) {
  return static_cast<float>(v) * kByteToUnit;
}
template <>
double ByteToUnit<double>(unsigned char v) {
  return v / 255.0;
}

template <typename Colour>
Colour* ToUnit(const unsigned char* image, int stride, int left, int top,
               int width, int height) {
  Colour* out = static_cast<Colour*>(
      std::malloc(sizeof(Colour) * 3 * static_cast<size_t>(width) * height));
  if (out == nullptr) return nullptr;
  Colour* dst = out;
  for (int y = 0; y < height; ++y) {
    const unsigned char* src =
        image + static_cast<size_t>(top + y) * stride + 3 * left;
    for (int x = 0; x < 3 * width; ++x) dst[x] = ByteToUnit<Colour>(src[x]);
    dst += 3 * static_cast<size_t>(width);
  }
  return out;
}

// Sets the 3 x 3 block around every interior pixel whose source is nonzero
// to value. Border pixels never spread: they cannot centre a window.
void Dilate(const unsigned char* src, unsigned char* dst, int width, int height,
            unsigned char value) {
  for (int y = 1; y < height - 1; ++y) {
    for (int x = 1; x < width - 1; ++x) {
      if (src[y * width + x] == 0) continue;
      for (int dy = -1; dy <= 1; ++dy) {
        unsigned char* row = dst + (y + dy) * width + x;
        row[-1] = value;
        row[0] = value;
        row[1] = value;
      }
    }
  }
}

// As Dilate, but border pixels spread too, clipped to the rectangle.
void DilateClipped(const unsigned char* src, unsigned char* dst, int width,
                   int height, unsigned char value) {
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (src[y * width + x] == 0) continue;
      for (int v = std::max(y - 1, 0); v <= std::min(y + 1, height - 1); ++v) {
        for (int u = std::max(x - 1, 0); u <= std::min(x + 1, width - 1); ++u) {
          dst[v * width + u] = value;
        }
      }
    }
  }
}

// Row p of a previous problem describes the same couplings as a new row
// when it has as many entries and the same neighbours in the same order.
// Full rows (13) and diagonal-only rows have no choice of neighbours left.
bool SameRow(const mat_data& previous, int p, const int* prevCell,
             int prevPitch, const int* slots, int count) {
  const int start = previous.rowStart[p] - 1;
  if (previous.rowStart[p + 1] - 1 - start != count) return false;
  if (count == kSlots || count < 2) return true;
  for (int e = 1; e < count; ++e) {
    const int slot = slots[e];
    const int q = prevCell[kSlotDy[slot] * prevPitch + kSlotDx[slot]];
    if (q + 1 != previous.columns[start + e]) return false;
  }
  return true;
}

// Sets every diagonal to minus the sum of the row's and column's stored
// couplings, so that each row of the full symmetric matrix sums to zero.
void ZeroSumDiagonal(mat_data& m) {
  for (int r = 0; r < m.n; ++r) m.values[m.rowStart[r] - 1] = 0.0;
  for (int r = 0; r < m.n; ++r) {
    const int diagonal = m.rowStart[r] - 1;
    for (int e = diagonal + 1; e < m.rowStart[r + 1] - 1; ++e) {
      const double v = m.values[e];
      m.values[diagonal] -= v;
      m.values[m.rowStart[m.columns[e] - 1] - 1] -= v;
    }
  }
}

// The band assembly behind both mat_update forms; Colour and epsilon select
// the arithmetic. The system always holds the mask's pixels and the ring
// around them; with secondRing also the next ring, so that every pixel a
// window shares with an unknown one is in it and no affinity of an unknown
// pixel is lost (the fine solve pins both rings exactly).
template <typename Colour>
void Assemble(const unsigned char* image, int width, int height, int stride,
              const unsigned char* mask, int maskStride,
              const mat_data& previous, mat_data& out, double epsilon,
              bool secondRing) {
  const unsigned char firstMember = secondRing ? kSecondRing : kFirstRing;
  int rect[4];
  if (!ff::ipf_get_mask_roi(mask, width, height, maskStride, rect, 0)) return;
  if (rect[0] >= rect[2] || rect[1] >= rect[3]) return;
  const int left = rect[0] - kGrow > 0 ? rect[0] - kGrow : 0;
  const int top = rect[1] - kGrow > 0 ? rect[1] - kGrow : 0;
  const int right = rect[2] + kGrow < width ? rect[2] + kGrow : width;
  const int bottom = rect[3] + kGrow < height ? rect[3] + kGrow : height;
  const int rw = right - left;
  const int rh = bottom - top;
  const size_t area = static_cast<size_t>(rw) * rh;

  unsigned char* labels = static_cast<unsigned char*>(std::calloc(area, 3));
  if (labels == nullptr) return;
  unsigned char* ring1 = labels + area;
  unsigned char* ring2 = ring1 + area;
  for (int y = 0; y < rh; ++y) {
    const unsigned char* m =
        mask + static_cast<size_t>(top + y) * maskStride + left;
    std::memcpy(ring1 + static_cast<size_t>(y) * rw, m, rw);
  }
  for (size_t i = 0; i < area; ++i) labels[i] = ring1[i] ? kUnknown : kOutside;
  // labels still mark exactly the mask, so the first ring grows from them
  // into ring1, which starts as the mask's copy.
  // With both rings in the system every pixel that shares a window with an
  // unknown one must be in it, those on the image's edge included.
  const auto dilate = secondRing ? DilateClipped : Dilate;
  dilate(labels, ring1, rw, rh, kFirstRing);
  std::memcpy(ring2, ring1, area);
  dilate(ring1, ring2, rw, rh, kSecondRing);
  int n = 0;
  for (size_t i = 0; i < area; ++i) {
    if (labels[i] == kOutside && ring1[i] != 0) {
      labels[i] = kFirstRing;
    } else if (ring1[i] == 0 && ring2[i] != 0) {
      labels[i] = kSecondRing;
    }
    if (labels[i] >= firstMember) ++n;
  }

  const int pitch = rw + 2 * kFrame;
  const size_t mapSize = static_cast<size_t>(pitch) * (rh + 2 * kFrame);
  int* indexMap = new int[mapSize];
  for (size_t i = 0; i < mapSize; ++i) indexMap[i] = -1;
  int* origin = indexMap + kFrame * pitch + kFrame;
  int* pixelOf = new int[n];
  unsigned char* flags = new unsigned char[n];
  {
    int k = 0;
    for (int y = 0; y < rh; ++y) {
      for (int x = 0; x < rw; ++x) {
        const unsigned char label = labels[y * rw + x];
        if (label < firstMember) continue;
        origin[y * pitch + x] = k;
        pixelOf[k] = (top + y) * width + (left + x);
        flags[k] = label == kFirstRing || label == kSecondRing ? 1 : 0;
        ++k;
      }
    }
  }

  mat_data fresh;
  fresh.create(n);
  const int grown[4] = {left, top, right, bottom};
  fresh.set_mask_data(width, height, grown, indexMap, origin, pitch, pixelOf, n,
                      flags, n, nullptr);

  // A problem over the same image can lend rows whose couplings are the
  // same; only the size check guards against a record of another image.
  const bool canReuse = previous.roi[0] < previous.roi[2] &&
                        previous.roi[1] < previous.roi[3] &&
                        previous.indexMap != nullptr &&
                        previous.width == width && previous.height == height;
  bool* reused = static_cast<bool*>(std::calloc(static_cast<size_t>(n), 1));
  double* records = static_cast<double*>(
      std::calloc(static_cast<size_t>(n) * kSlots, sizeof(double)));
  if (reused == nullptr || records == nullptr) {
    std::free(reused);
    std::free(records);
    std::free(labels);
    return;
  }
  // Each window reads its nine colours through a table of the 256 values:
  // the same numbers as a converted copy of the rectangle, without one.
  Colour unit[256];
  for (int v = 0; v < 256; ++v) {
    unit[v] = ByteToUnit<Colour>(static_cast<unsigned char>(v));
  }

  int pos = 1;
  for (int y = 0, k = 0; y < rh; ++y) {
    for (int x = 0; x < rw; ++x) {
      const int* cell = origin + y * pitch + x;
      if (*cell < 0) continue;
      fresh.rowStart[k] = pos;
      int slotsOfRow[kSlots];
      int count = 0;
      fresh.columns[pos - 1 + count] = k + 1;
      slotsOfRow[count++] = 0;
      for (int s = 1; s < kSlots; ++s) {
        const int q = cell[kSlotDy[s] * pitch + kSlotDx[s]];
        if (q < 0) continue;
        fresh.columns[pos - 1 + count] = q + 1;
        slotsOfRow[count++] = s;
      }
      if (canReuse) {
        const int px = left + x - previous.roi[0];
        const int py = top + y - previous.roi[1];
        if (px >= 0 && py >= 0 && px < previous.roi[2] - previous.roi[0] &&
            py < previous.roi[3] - previous.roi[1]) {
          const int* prevCell =
              previous.indexOrigin + py * previous.indexPitch + px;
          const int p = *prevCell;
          if (p >= 0 && SameRow(previous, p, prevCell, previous.indexPitch,
                                slotsOfRow, count)) {
            std::memcpy(fresh.values + pos - 1,
                        previous.values + previous.rowStart[p] - 1,
                        sizeof(double) * count);
            reused[k] = true;
            labels[y * rw + x] = kReused;
          }
        }
      }
      pos += count;
      ++k;
    }
  }
  fresh.rowStart[n] = pos;

  if (canReuse) {
    // A window whose nine pixels all lend their rows adds nothing new.
    for (int y = 1; y < rh - 1; ++y) {
      for (int x = 1; x < rw - 1; ++x) {
        unsigned char* l = labels + y * rw + x;
        if (*l != kReused) continue;
        if (l[-rw - 1] > kUnknown && l[-rw] > kUnknown &&
            l[-rw + 1] > kUnknown && l[-1] > kUnknown && l[1] > kUnknown &&
            l[rw - 1] > kUnknown && l[rw] > kUnknown && l[rw + 1] > kUnknown) {
          *l = kReusedInside;
        }
      }
    }
    for (size_t i = 0; i < area; ++i) {
      if (labels[i] == kReusedInside) labels[i] = kSkipWindow;
    }
  }

  WindowModel<Colour> model(epsilon);
  for (int y = 1; y < rh - 1; ++y) {
    for (int x = 1; x < rw - 1; ++x) {
      if (labels[y * rw + x] <= kSkipWindow) continue;
      // Only pairs whose first pixel owns a row being built and whose second
      // is in the system end up in the matrix; skip windows without one.
      int number[kWindow];
      bool needed = false;
      bool builds[kWindow];
      for (int k = 0; k < kWindow; ++k) {
        number[k] = origin[(y + k / 3 - 1) * pitch + (x + k % 3 - 1)];
        builds[k] = number[k] >= 0 && !reused[number[k]];
      }
      for (int k = 0; k < kWindow - 1 && !needed; ++k) {
        if (!builds[k]) continue;
        for (int j = k + 1; j < kWindow; ++j) needed |= number[j] >= 0;
      }
      if (!needed) continue;
      Colour colour[kWindow][3];
      const Colour* w[kWindow];
      for (int k = 0; k < kWindow; ++k) {
        const unsigned char* p =
            image + (static_cast<size_t>(top) + y + k / 3 - 1) * stride +
            3 * (static_cast<size_t>(left) + x + k % 3 - 1);
        for (int c = 0; c < 3; ++c) colour[k][c] = unit[p[c]];
        w[k] = colour[k];
      }
      model.Fit(w);
      for (const WindowPair& pair : kPairTable.pairs) {
        if (!builds[pair.first] || number[pair.second] < 0) continue;
        records[static_cast<size_t>(number[pair.first]) * kSlots + pair.slot] +=
            model.Affinity(pair.first, pair.second);
      }
    }
  }

  for (int y = 0; y < rh; ++y) {
    for (int x = 0; x < rw; ++x) {
      const int* cell = origin + y * pitch + x;
      const int k = *cell;
      if (k < 0 || reused[k]) continue;
      const double* record = records + static_cast<size_t>(k) * kSlots;
      int e = fresh.rowStart[k];
      for (int s = 1; s < kSlots; ++s) {
        if (cell[kSlotDy[s] * pitch + kSlotDx[s]] < 0) continue;
        fresh.values[e++] = -record[s];
      }
    }
  }
  ZeroSumDiagonal(fresh);

  std::free(records);
  std::free(reused);
  std::free(labels);
  out.swap(fresh);
}

}  // namespace

void mat_update(const unsigned char* image, int width, int height, int stride,
                const unsigned char* mask, int maskStride,
                const mat_data& previous, mat_data& out,
                unsigned char* /*unused*/) {
  Assemble<float>(image, width, height, stride, mask, maskStride, previous, out,
                  kEpsilon, false);
}

void mat_update(const unsigned char* image, int width, int height, int stride,
                const unsigned char* mask, int maskStride, mat_data& out,
                const mat_options& options) {
  // Rows of an older problem may have been built with another regulariser:
  // never lend them.
  const mat_data none;
  const bool fine = options.solver == MAT_SOLVER_FINE;
  const double epsilon = options.epsilon > 0.0 ? options.epsilon
                         : fine                ? MAT_FINE_EPSILON
                                               : kEpsilon;
  if (fine) {
    Assemble<double>(image, width, height, stride, mask, maskStride, none, out,
                     epsilon, true);
  } else {
    Assemble<float>(image, width, height, stride, mask, maskStride, none, out,
                    epsilon, false);
  }
}

void mat_init(const unsigned char* image, int width, int height, int stride,
              mat_data& out, unsigned char* /*unused*/) {
  const int n = width * height;
  out.release();
  out.create(n);
  if (n < 1) {
    if (out.rowStart != nullptr) out.rowStart[0] = 1;
    return;
  }
  float* colours = ToUnit<float>(image, stride, 0, 0, width, height);
  if (colours == nullptr) {
    out.rowStart[0] = 1;
    for (int k = 0; k < n; ++k) out.rowStart[k + 1] = 1;
    return;
  }

  // The 13-slot records are accumulated inside values itself: row k is
  // later written at or before slot 13 * k, so compacting in raster order
  // never overwrites a record that is still to be read. A separate record
  // array would double the memory of a whole photo's problem.
  double* records = out.values;
  std::memset(records, 0, sizeof(double) * kSlots * static_cast<size_t>(n));
  WindowModel<float> model(kEpsilon);
  for (int y = 1; y < height - 1; ++y) {
    for (int x = 1; x < width - 1; ++x) {
      const float* w[kWindow];
      int pixel[kWindow];
      for (int k = 0; k < kWindow; ++k) {
        pixel[k] = (y + k / 3 - 1) * width + (x + k % 3 - 1);
        w[k] = colours + 3 * static_cast<size_t>(pixel[k]);
      }
      model.Fit(w);
      for (const WindowPair& pair : kPairTable.pairs) {
        const double a = model.Affinity(pair.first, pair.second);
        records[static_cast<size_t>(pixel[pair.first]) * kSlots + pair.slot] +=
            a;
        records[static_cast<size_t>(pixel[pair.second]) * kSlots] += a;
      }
    }
  }
  std::free(colours);

  int pos = 1;
  for (int k = 0; k < n; ++k) {
    double record[kSlots];
    std::memcpy(record, records + static_cast<size_t>(k) * kSlots,
                sizeof record);
    out.rowStart[k] = pos;
    const int diagonal = pos - 1;
    ++pos;
    double sum = record[0];
    for (int s = 1; s < kSlots; ++s) {
      // Affinities dropped here are left out of the diagonal too, while the
      // backward ones collected in slot 0 always count: the stored matrix
      // is deliberately not quite zero-sum where an affinity is tiny.
      if (!(std::fabs(record[s]) > kDropBelow)) continue;
      out.values[pos - 1] = -record[s];
      out.columns[pos - 1] = k + kSlotDy[s] * width + kSlotDx[s] + 1;
      sum += record[s];
      ++pos;
    }
    out.values[diagonal] = sum;
    out.columns[diagonal] = k + 1;
  }
  out.rowStart[n] = pos;
}
