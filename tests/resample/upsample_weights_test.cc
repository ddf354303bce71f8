#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

#include "softmatte/resample.h"
#include "test_util.h"

namespace {

// A colour plane with padded rows of evenly spaced levels spanning span:
// few levels make exact matches and tied errors common, a narrow span keeps
// every distance small.
struct Colour {
  int width, height, bytes, stride;
  std::vector<unsigned char> data;
  const unsigned char* at(int x, int y) const {
    return &data[size_t(y) * stride + size_t(x) * bytes];
  }
};

Colour MakeColour(int width, int height, int bytes, int levels, int span,
                  std::mt19937& rng) {
  Colour c{width, height, bytes, width * bytes + 3, {}};
  c.data = softmatte_test::RandomPlane(width * bytes, height, c.stride, 0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width * bytes; ++x) {
      c.data[size_t(y) * c.stride + x] =
          (255 - span) / 2 + span / (levels - 1) * int(rng() % levels);
    }
  }
  return c;
}

// The pair search in its plainest form: every pair is scored and the first
// of least error wins. Writes the entry of (x, y) into idx and wts.
void ReferenceEntry(const Colour& img, const Colour& low, int x, int y,
                    int mode, int* idx, short* wts) {
  // A single row or column maps to the reduced copy's first.
  const double sx = img.width > 1 ? double(low.width - 1) / (img.width - 1) : 0;
  const double sy =
      img.height > 1 ? double(low.height - 1) / (img.height - 1) : 0;
  int u = int(x * sx + 0.5), v;
  std::vector<int> du, dv;
  if (mode == 2) {  // rows truncate, columns round
    u = std::min(u, low.width - 2);
    v = std::min(int(y * sy), low.height - 2);
    du = {0, 1, 1, 0};
    dv = {0, 0, 1, 1};
  } else {
    u = std::min(std::max(u, 1), low.width - 2);
    v = std::min(std::max(int(y * sy + 0.5), 1), low.height - 2);
    du = {-1, 0, 1, -1, 0, 1, -1, 0, 1};
    dv = {-1, -1, -1, 0, 0, 0, 1, 1, 1};
  }
  const int n = int(du.size());
  const unsigned char* c = img.at(x, y);
  std::vector<long long> dist(n, 1);
  for (int k = 0; k < n; ++k) {
    const unsigned char* p = low.at(u + du[k], v + dv[k]);
    for (int ch = 0; ch < 3; ++ch) dist[k] += (p[ch] - c[ch]) * (p[ch] - c[ch]);
  }
  long long best = -1;
  for (int i = 0; i < n; ++i) {
    for (int j = i + 1; j < n; ++j) {
      const int w = int(4096 * dist[j] / (dist[i] + dist[j]));
      const unsigned char* pi = low.at(u + du[i], v + dv[i]);
      const unsigned char* pj = low.at(u + du[j], v + dv[j]);
      long long e = 0;
      for (int ch = 0; ch < img.bytes; ++ch) {
        const long long q = (pi[ch] * w + pj[ch] * (4096 - w)) / 4096;
        e += (q - c[ch]) * (q - c[ch]);
      }
      if (best >= 0 && e >= best) continue;
      best = e;
      idx[0] = (v + dv[i]) * low.width + u + du[i];
      idx[1] = (v + dv[j]) * low.width + u + du[j];
      *wts = short(w);
    }
  }
}

// Table planes with padding, filled with garbage (half the first indices
// negative, i.e. holes) that untouched entries and the padding must keep.
struct Table {
  int idxStride, wtsStride;
  std::vector<int> idx;
  std::vector<short> wts;
  Table(int w, int h, std::mt19937& rng)
      : idxStride(2 * w + 3), wtsStride(w + 5) {
    idx.resize(size_t(idxStride) * h);
    wts.resize(size_t(wtsStride) * h);
    for (auto& v : idx) v = int(rng() % 2000) - 1000;
    for (auto& v : wts) v = short(rng());
  }
};

TEST(UsamWeights, MatchBruteForcePairSearch) {
  struct Size {
    int width, height, lowWidth, lowHeight;
  };
  // Reductions by various ratios, equal sizes, an enlargement and a single
  // row or column (which maps to the reduced copy's first).
  const Size sizes[] = {{13, 11, 5, 4},   {31, 17, 9, 6}, {7, 9, 3, 3},
                        {25, 19, 25, 19}, {9, 7, 14, 10}, {2, 2, 3, 3},
                        {9, 1, 5, 3},     {1, 7, 3, 4}};
  // kind 0 fills all, 1 where the mask is non-zero, 2 the same through the
  // form with a mask value, 3 the holes where the mask is 128 (update), 4
  // every hole (update without a mask).
  const struct {
    int bytes, mode, kind, levels, span;
  } configs[] = {{3, 3, 0, 256, 255}, {3, 0, 0, 3, 255},   {3, 7, 0, 13, 12},
                 {3, 3, 1, 4, 255},   {3, 3, 2, 2, 255},   {3, 3, 3, 256, 255},
                 {3, 3, 4, 3, 255},   {3, 2, 0, 256, 255}, {3, 2, 0, 3, 255},
                 {3, 2, 0, 9, 8},     {3, 2, 1, 5, 255},   {3, 2, 2, 256, 255},
                 {4, 2, 0, 256, 255}, {4, 3, 0, 3, 255},   {4, 2, 1, 2, 255},
                 {4, 3, 1, 21, 20}};
  std::mt19937 rng(11);
  for (const auto& c : configs) {
    for (const Size& s : sizes) {
      if (c.mode != 2 && (s.lowWidth < 3 || s.lowHeight < 3)) continue;
      const Colour img =
          MakeColour(s.width, s.height, c.bytes, c.levels, c.span, rng);
      const Colour low =
          MakeColour(s.lowWidth, s.lowHeight, c.bytes, c.levels, c.span, rng);
      const int ms = s.width + 1;
      std::vector<unsigned char> mask(size_t(ms) * s.height);
      const unsigned char values[] = {0, 127, 128, 129, 255};
      for (auto& m : mask) m = values[rng() % 5];
      const unsigned char* maskPtr =
          c.kind == 0 || c.kind == 4 ? nullptr : mask.data();
      Table got(s.width, s.height, rng), want = got;
      for (int y = 0; y < s.height; ++y) {
        for (int x = 0; x < s.width; ++x) {
          const int m = mask[size_t(y) * ms + x];
          int* e = &want.idx[size_t(y) * want.idxStride + 2 * x];
          const bool fill =
              c.kind == 0 || (c.kind <= 2 && m != 0) ||
              (c.kind >= 3 && e[0] < 0 && (c.kind == 4 || m == 128));
          if (fill)
            ReferenceEntry(img, low, x, y, c.mode, e,
                           &want.wts[size_t(y) * want.wtsStride + x]);
        }
      }
      const auto* i = img.data.data();
      const auto* l = low.data.data();
      if (c.bytes == 4) {
        usam_calc_weights_8u_c4(i, s.width, s.height, img.stride, maskPtr, ms,
                                l, s.lowWidth, s.lowHeight, low.stride,
                                got.idx.data(), got.idxStride, got.wts.data(),
                                got.wtsStride, c.mode);
      } else if (c.kind >= 3) {
        usam_update_weights(i, s.width, s.height, img.stride, maskPtr, ms, 128,
                            l, s.lowWidth, s.lowHeight, low.stride,
                            got.idx.data(), got.idxStride, got.wts.data(),
                            got.wtsStride);
      } else if (c.kind == 2) {
        usam_calc_weights_8u_c3(i, s.width, s.height, img.stride, maskPtr, ms,
                                128, l, s.lowWidth, s.lowHeight, low.stride,
                                got.idx.data(), got.idxStride, got.wts.data(),
                                got.wtsStride, c.mode);
      } else {
        usam_calc_weights_8u_c3(i, s.width, s.height, img.stride, maskPtr, ms,
                                l, s.lowWidth, s.lowHeight, low.stride,
                                got.idx.data(), got.idxStride, got.wts.data(),
                                got.wtsStride, c.mode);
      }
      SCOPED_TRACE(testing::Message()
                   << s.width << "x" << s.height << " from " << s.lowWidth
                   << "x" << s.lowHeight << ", bytes " << c.bytes << " mode "
                   << c.mode << " kind " << c.kind);
      ASSERT_EQ(got.idx, want.idx);
      ASSERT_EQ(got.wts, want.wts);
    }
  }
}

TEST(UsamWeights, WeightsAreTruncatedExactlyEvenNearAnInteger) {
  // Pair (1, 4) has a quotient just below an integer that a rounded
  // division would carry up, making pair (1, 3) look better.
  const unsigned char low[27] = {203, 10,  70, 85,  240, 147, 30,  16,  53,
                                 113, 103, 79, 39,  68,  15,  11,  232, 221,
                                 42,  152, 95, 191, 52,  163, 132, 163, 183};
  std::vector<unsigned char> img(27, 0);
  img[12] = 103;  // pixel (1, 1), whose candidates are all nine
  img[13] = 236;
  img[14] = 81;
  std::vector<int> idx(18);
  std::vector<short> wts(9);
  usam_calc_weights_8u_c3(img.data(), 3, 3, 9, nullptr, 0, low, 3, 3, 9,
                          idx.data(), 6, wts.data(), 3, 3);
  EXPECT_EQ(idx[8], 1);
  EXPECT_EQ(idx[9], 4);
  const int d1 = 18 * 18 + 4 * 4 + 66 * 66 + 1;
  const int d4 = 64 * 64 + 168 * 168 + 66 * 66 + 1;
  EXPECT_EQ(wts[4], 4096 * d4 / (d1 + d4));
}

TEST(UsamWeights, NullPlanesWriteNothing) {
  std::mt19937 rng(71);
  const Colour img = MakeColour(9, 7, 4, 256, 255, rng);
  const Colour low = MakeColour(4, 3, 4, 256, 255, rng);
  const Table before(9, 7, rng);
  Table got = before;
  const unsigned char *i = img.data.data(), *l = low.data.data();
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
}

}  // namespace
