#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>
#include <random>
#include <vector>

#include "softmatte/resample.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;

// A colour plane with padded rows. Few distinct levels make exact matches,
// equal distances and tied errors common, which is where the tie rules show.
struct Colour {
  int width, height, bytes, stride;
  std::vector<unsigned char> data;
  const unsigned char* at(int x, int y) const {
    return &data[static_cast<size_t>(y) * stride +
                 static_cast<size_t>(x) * bytes];
  }
};

// levels evenly spaced values spanning span; a narrow span keeps every
// distance small, a wide one makes them large.
Colour MakeColour(int width, int height, int bytes, int levels,
                  std::mt19937& rng, int span = 255) {
  Colour c{width, height, bytes, width * bytes + 3, {}};
  c.data.assign(static_cast<size_t>(c.stride) * height, kSentinel);
  const int step = levels > 1 ? span / (levels - 1) : 0;
  const int base = (255 - span) / 2;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width * bytes; ++x) {
      c.data[static_cast<size_t>(y) * c.stride + x] =
          static_cast<unsigned char>(base +
                                     step * static_cast<int>(rng() % levels));
    }
  }
  return c;
}

struct Entry {
  int first, second, weight;
  bool operator==(const Entry& o) const {
    return first == o.first && second == o.second && weight == o.weight;
  }
};

std::ostream& operator<<(std::ostream& os, const Entry& e) {
  return os << "(" << e.first << ", " << e.second << ", weight " << e.weight
            << ")";
}

// The pair search in its plainest form: every pair is scored (no early exit)
// and the first pair with the least error wins. Mode 2 is the 2x2 rule.
Entry ReferenceEntry(const Colour& img, const Colour& low, int x, int y,
                     int mode, int errChannels) {
  const double sx = static_cast<double>(low.width - 1) / (img.width - 1);
  const double sy = static_cast<double>(low.height - 1) / (img.height - 1);
  int u = static_cast<int>(x * sx + 0.5);
  int v;
  std::vector<int> du, dv;
  if (mode == 2) {
    v = static_cast<int>(y * sy);  // rows truncate, columns round
    if (u > low.width - 2) u = low.width - 2;
    if (v > low.height - 2) v = low.height - 2;
    du = {0, 1, 1, 0};
    dv = {0, 0, 1, 1};
  } else {
    v = static_cast<int>(y * sy + 0.5);
    u = std::min(std::max(u, 1), low.width - 2);
    v = std::min(std::max(v, 1), low.height - 2);
    du = {-1, 0, 1, -1, 0, 1, -1, 0, 1};
    dv = {-1, -1, -1, 0, 0, 0, 1, 1, 1};
  }
  const int n = static_cast<int>(du.size());
  const unsigned char* c = img.at(x, y);
  std::vector<long long> dist(n);
  for (int k = 0; k < n; ++k) {
    const unsigned char* p = low.at(u + du[k], v + dv[k]);
    dist[k] = 1;
    for (int ch = 0; ch < 3; ++ch) dist[k] += (p[ch] - c[ch]) * (p[ch] - c[ch]);
  }
  std::vector<Entry> entries;
  std::vector<long long> errors;
  for (int i = 0; i < n; ++i) {
    for (int j = i + 1; j < n; ++j) {
      const int w = static_cast<int>(4096 * dist[j] / (dist[i] + dist[j]));
      const unsigned char* pi = low.at(u + du[i], v + dv[i]);
      const unsigned char* pj = low.at(u + du[j], v + dv[j]);
      long long e = 0;
      for (int ch = 0; ch < errChannels; ++ch) {
        // floor of the exact blend pi * w/4096 + pj * (1 - w/4096)
        const long long q = (pi[ch] * w + pj[ch] * (4096 - w)) / 4096;
        e += (q - c[ch]) * (q - c[ch]);
      }
      const int base = v * low.width + u;
      entries.push_back({base + dv[i] * low.width + du[i],
                         base + dv[j] * low.width + du[j], w});
      errors.push_back(e);
    }
  }
  size_t best = 0;
  for (size_t t = 1; t < errors.size(); ++t) {
    if (errors[t] < errors[best]) best = t;
  }
  return entries[best];
}

// Table planes with padding: each row has idxStride ints and wtsStride shorts,
// the extra ones (and untouched entries) set to recognisable garbage.
struct Table {
  int width, height, idxStride, wtsStride;
  std::vector<int> idx;
  std::vector<short> wts;
  Table(int w, int h, std::mt19937& rng)
      : width(w), height(h), idxStride(2 * w + 3), wtsStride(w + 5) {
    idx.resize(static_cast<size_t>(idxStride) * h);
    wts.resize(static_cast<size_t>(wtsStride) * h);
    // Half the entries are holes (negative first index).
    for (auto& v : idx) v = static_cast<int>(rng() % 2000) - 1000;
    for (auto& v : wts) v = static_cast<short>(rng());
  }
  int first(int x, int y) const {
    return idx[static_cast<size_t>(y) * idxStride + 2 * x];
  }
  Entry at(int x, int y) const {
    return {first(x, y), idx[static_cast<size_t>(y) * idxStride + 2 * x + 1],
            wts[static_cast<size_t>(y) * wtsStride + x]};
  }
};

// Padding past each row of the table must survive.
void ExpectTablePadding(const Table& got, const Table& before) {
  for (int y = 0; y < got.height; ++y) {
    for (int i = 2 * got.width; i < got.idxStride; ++i) {
      const size_t at = static_cast<size_t>(y) * got.idxStride + i;
      ASSERT_EQ(got.idx[at], before.idx[at]);
    }
    for (int i = got.width; i < got.wtsStride; ++i) {
      const size_t at = static_cast<size_t>(y) * got.wtsStride + i;
      ASSERT_EQ(got.wts[at], before.wts[at]);
    }
  }
}

struct Size {
  int width, height, lowWidth, lowHeight;
};
// Odd and even sizes, reductions by various ratios, and an enlargement.
const Size kSizes[] = {{13, 11, 5, 4},  {31, 17, 9, 6},   {7, 9, 3, 3},
                       {40, 25, 11, 7}, {25, 19, 25, 19}, {9, 7, 14, 10},
                       {2, 2, 3, 3}};

enum class Fill { kAll, kMask, kMaskWithValue };

void CheckCalcWeights(int bytes, int mode, Fill fill, int levels, uint32_t seed,
                      int span = 255) {
  std::mt19937 rng(seed);
  for (const Size& s : kSizes) {
    if (mode != 2 && (s.lowWidth < 3 || s.lowHeight < 3)) continue;
    const Colour img = MakeColour(s.width, s.height, bytes, levels, rng, span);
    const Colour low =
        MakeColour(s.lowWidth, s.lowHeight, bytes, levels, rng, span);
    std::vector<unsigned char> mask =
        softmatte_test::RandomPlane(s.width, s.height, s.width + 1, seed);
    for (auto& m : mask) m = rng() % 3 == 0 ? 0 : m;
    const Table before(s.width, s.height, rng);
    Table got = before;
    const unsigned char* maskPtr = fill == Fill::kAll ? nullptr : mask.data();
    if (bytes == 4) {
      usam_calc_weights_8u_c4(
          img.data.data(), s.width, s.height, img.stride, maskPtr, s.width + 1,
          low.data.data(), s.lowWidth, s.lowHeight, low.stride, got.idx.data(),
          got.idxStride, got.wts.data(), got.wtsStride, mode);
    } else if (fill == Fill::kMaskWithValue) {
      usam_calc_weights_8u_c3(
          img.data.data(), s.width, s.height, img.stride, maskPtr, s.width + 1,
          128, low.data.data(), s.lowWidth, s.lowHeight, low.stride,
          got.idx.data(), got.idxStride, got.wts.data(), got.wtsStride, mode);
    } else {
      usam_calc_weights_8u_c3(
          img.data.data(), s.width, s.height, img.stride, maskPtr, s.width + 1,
          low.data.data(), s.lowWidth, s.lowHeight, low.stride, got.idx.data(),
          got.idxStride, got.wts.data(), got.wtsStride, mode);
    }
    SCOPED_TRACE(testing::Message() << s.width << "x" << s.height << " from "
                                    << s.lowWidth << "x" << s.lowHeight);
    for (int y = 0; y < s.height; ++y) {
      for (int x = 0; x < s.width; ++x) {
        const bool filled =
            !maskPtr || mask[static_cast<size_t>(y) * (s.width + 1) + x] != 0;
        ASSERT_EQ(got.at(x, y),
                  filled ? ReferenceEntry(img, low, x, y, mode, bytes)
                         : before.at(x, y))
            << "at (" << x << ", " << y << ")";
      }
    }
    ExpectTablePadding(got, before);
  }
}

TEST(UsamCalcWeights, ThreeByThreeMatchesBruteForceSearch) {
  // Any mode but 2 selects the 3x3 rule.
  for (int mode : {3, 0, 7}) {
    CheckCalcWeights(3, mode, Fill::kAll, 256, 11 + mode);
    CheckCalcWeights(3, mode, Fill::kAll, 3, 21 + mode);
  }
  // Colours within a few levels of each other: all distances small.
  CheckCalcWeights(3, 3, Fill::kAll, 13, 25, 12);
  CheckCalcWeights(3, 3, Fill::kAll, 41, 26, 40);
  CheckCalcWeights(3, 3, Fill::kMask, 4, 31);
  CheckCalcWeights(3, 3, Fill::kMaskWithValue, 2, 32);
  CheckCalcWeights(3, 3, Fill::kMaskWithValue, 256, 33);
}

TEST(UsamCalcWeights, TwoByTwoMatchesBruteForceSearch) {
  CheckCalcWeights(3, 2, Fill::kAll, 256, 41);
  CheckCalcWeights(3, 2, Fill::kAll, 3, 42);
  CheckCalcWeights(3, 2, Fill::kAll, 9, 45, 8);
  CheckCalcWeights(3, 2, Fill::kMask, 5, 43);
  CheckCalcWeights(3, 2, Fill::kMaskWithValue, 256, 44);
}

TEST(UsamCalcWeights, FourBytesScoreTheFourthInTheErrorOnly) {
  for (int mode : {2, 3}) {
    CheckCalcWeights(4, mode, Fill::kAll, 256, 51 + mode);
    CheckCalcWeights(4, mode, Fill::kAll, 3, 53 + mode);
    CheckCalcWeights(4, mode, Fill::kMask, 2, 55 + mode);
    CheckCalcWeights(4, mode, Fill::kAll, 21, 57 + mode, 20);
  }
}

TEST(UsamCalcWeights, HandWorkedPixels) {
  // A flat reduced image: the very first pair blends exactly, half and half.
  std::vector<unsigned char> low(5 * 5 * 3, 90);
  std::vector<unsigned char> img(9 * 9 * 3, 90);
  std::vector<int> idx(2 * 81, -5);
  std::vector<short> wts(81, -5);
  usam_calc_weights_8u_c3(img.data(), 9, 9, 27, nullptr, 0, low.data(), 5, 5,
                          15, idx.data(), 18, wts.data(), 9, 3);
  // Pixel (0, 0) sits on reduced (1, 1), not (0, 0): its pair is (0,0)-(1,0).
  EXPECT_EQ(idx[0], 0);
  EXPECT_EQ(idx[1], 1);
  EXPECT_EQ(wts[0], 2048);
  // The last pixel sits on reduced (3, 3).
  EXPECT_EQ(idx[2 * 80], 2 * 5 + 2);
  EXPECT_EQ(idx[2 * 80 + 1], 2 * 5 + 3);

  // The pixel's own colour first (distance 1) and a neighbour at distance 2
  // weigh 4096 * 2 / 3 = 2730; that blend rounds to the pixel's colour, so it
  // is exact and wins.
  for (auto& v : low) v = 200;
  // Reduced (0, 0) and (1, 0), candidates 0 and 1 of pixel (0, 0).
  for (int i : {0, 1, 2, 4, 5}) low[i] = 90;
  low[3] = 91;
  usam_calc_weights_8u_c3(img.data(), 9, 9, 27, nullptr, 0, low.data(), 5, 5,
                          15, idx.data(), 18, wts.data(), 9, 3);
  EXPECT_EQ(idx[0], 0);
  EXPECT_EQ(idx[1], 1);
  EXPECT_EQ(wts[0], 2730);
}

TEST(UsamCalcWeights, WeightsAreTruncatedExactlyEvenNearAnInteger) {
  // Found by search: pair (1, 4) has a quotient just below an integer that a
  // rounded division would carry up, making pair (1, 3) look better.
  const unsigned char colours[9][3] = {
      {203, 10, 70},  {85, 240, 147}, {30, 16, 53},
      {113, 103, 79}, {39, 68, 15},   {11, 232, 221},
      {42, 152, 95},  {191, 52, 163}, {132, 163, 183}};
  std::vector<unsigned char> low(27), img(27, 0);
  for (int k = 0; k < 9; ++k) {
    for (int ch = 0; ch < 3; ++ch) low[3 * k + ch] = colours[k][ch];
  }
  img[12] = 103;  // pixel (1, 1), whose candidates are all nine
  img[13] = 236;
  img[14] = 81;
  std::vector<int> idx(18);
  std::vector<short> wts(9);
  usam_calc_weights_8u_c3(img.data(), 3, 3, 9, nullptr, 0, low.data(), 3, 3, 9,
                          idx.data(), 6, wts.data(), 3, 3);
  EXPECT_EQ(idx[8], 1);
  EXPECT_EQ(idx[9], 4);
  const int d1 = 18 * 18 + 4 * 4 + 66 * 66 + 1;
  const int d4 = 64 * 64 + 168 * 168 + 66 * 66 + 1;
  EXPECT_EQ(wts[4], 4096 * d4 / (d1 + d4));
}

TEST(UsamCalcWeights, TwoByTwoTruncatesRowsButRoundsColumns) {
  // On a flat image the first pair is exact, so its first index is the
  // reduced pixel (u, v) itself. 5 onto 3 is a scale of 0.5 both ways.
  std::vector<unsigned char> img(5 * 5 * 3, 7), low(3 * 3 * 3, 7);
  std::vector<int> idx(2 * 25);
  std::vector<short> wts(25);
  usam_calc_weights_8u_c3(img.data(), 5, 5, 15, nullptr, 0, low.data(), 3, 3, 9,
                          idx.data(), 10, wts.data(), 5, 2);
  const int wantU[5] = {0, 1, 1, 1, 1};  // 0.5 and 1.5 round up; clamped at 1
  const int wantV[5] = {0, 0, 1, 1, 1};  // 0.5 truncates to 0
  for (int y = 0; y < 5; ++y) {
    for (int x = 0; x < 5; ++x) {
      EXPECT_EQ(idx[2 * (5 * y + x)], 3 * wantV[y] + wantU[x]) << x << " " << y;
      EXPECT_EQ(idx[2 * (5 * y + x) + 1], 3 * wantV[y] + wantU[x] + 1);
      EXPECT_EQ(wts[5 * y + x], 2048);
    }
  }
}

TEST(UsamUpdateWeights, FillsOnlyHolesUnderTheMaskValue) {
  std::mt19937 rng(61);
  for (const Size& s : kSizes) {
    if (s.lowWidth < 3 || s.lowHeight < 3) continue;
    for (int levels : {256, 3}) {
      const Colour img = MakeColour(s.width, s.height, 3, levels, rng);
      const Colour low = MakeColour(s.lowWidth, s.lowHeight, 3, levels, rng);
      const int maskStride = s.width + 2;
      std::vector<unsigned char> mask(static_cast<size_t>(maskStride) *
                                      s.height);
      const unsigned char values[] = {0, 127, 128, 129, 255};
      for (auto& m : mask) m = values[rng() % 5];
      const Table before(s.width, s.height, rng);
      // Without a mask every hole is filled.
      for (const bool masked : {true, false}) {
        Table got = before;
        usam_update_weights(img.data.data(), s.width, s.height, img.stride,
                            masked ? mask.data() : nullptr, maskStride, 128,
                            low.data.data(), s.lowWidth, s.lowHeight,
                            low.stride, got.idx.data(), got.idxStride,
                            got.wts.data(), got.wtsStride);
        SCOPED_TRACE(testing::Message()
                     << s.width << "x" << s.height << " masked " << masked);
        for (int y = 0; y < s.height; ++y) {
          for (int x = 0; x < s.width; ++x) {
            const bool filled =
                (!masked ||
                 mask[static_cast<size_t>(y) * maskStride + x] == 128) &&
                before.first(x, y) < 0;
            ASSERT_EQ(got.at(x, y), filled
                                        ? ReferenceEntry(img, low, x, y, 3, 3)
                                        : before.at(x, y))
                << "at (" << x << ", " << y << ")";
          }
        }
        ExpectTablePadding(got, before);
      }
    }
  }
}

TEST(UsamWeights, NullPlanesWriteNothing) {
  std::mt19937 rng(71);
  const Colour img = MakeColour(9, 7, 4, 256, rng);
  const Colour low = MakeColour(4, 3, 4, 256, rng);
  const Table before(9, 7, rng);
  Table got = before;
  const unsigned char* i = img.data.data();
  const unsigned char* l = low.data.data();
  int* idx = got.idx.data();
  short* wts = got.wts.data();
  const int is = img.stride, ls = low.stride, xs = got.idxStride,
            ws = got.wtsStride;
  usam_calc_weights_8u_c3(nullptr, 9, 7, is, nullptr, 0, l, 4, 3, ls, idx, xs,
                          wts, ws, 3);
  usam_calc_weights_8u_c3(i, 9, 7, is, nullptr, 0, nullptr, 4, 3, ls, idx, xs,
                          wts, ws, 3);
  usam_calc_weights_8u_c3(i, 9, 7, is, nullptr, 0, 1, l, 4, 3, ls, nullptr, xs,
                          wts, ws, 2);
  usam_calc_weights_8u_c4(i, 9, 7, is, nullptr, 0, l, 4, 3, ls, idx, xs,
                          nullptr, ws, 3);
  usam_update_weights(nullptr, 9, 7, is, nullptr, 0, 0, l, 4, 3, ls, idx, xs,
                      wts, ws);
  EXPECT_EQ(got.idx, before.idx);
  EXPECT_EQ(got.wts, before.wts);
  EXPECT_TRUE(PaddingIntact(img.data, 9 * 4, 7, img.stride));
}

}  // namespace
