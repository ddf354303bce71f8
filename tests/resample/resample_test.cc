// Guided enlargement: the upsampling tables against a brute-force pair
// search, every function that applies a table against the table's own
// values, and what every reduction and table function does without planes.
#include "softmatte/resample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <tuple>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::RandomPlane;
using Bytes = std::vector<unsigned char>;

const unsigned char kMaskValues[] = {0, 127, 128, 129, 255};

// A colour plane with padded rows of evenly spaced levels spanning span:
// few levels make exact matches and tied errors common, a narrow span keeps
// every distance small.
struct Colour {
  int width, height, bytes, stride;
  Bytes data;
  const unsigned char* at(int x, int y) const {
    return &data[size_t(y) * stride + size_t(x) * bytes];
  }
};

Colour MakeColour(int width, int height, int bytes, int levels, int span,
                  std::mt19937& rng) {
  Colour c{width, height, bytes, width * bytes + 3, {}};
  c.data = RandomPlane(width * bytes, height, c.stride, 0);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width * bytes; ++x)
      c.data[size_t(y) * c.stride + x] =
          (255 - span) / 2 + span / (levels - 1) * int(rng() % levels);
  return c;
}

// The pair search in its plainest form: every pair is scored and the first
// of least error wins. Writes the entry of (x, y) into idx and wts.
void ReferenceEntry(const Colour& img, const Colour& low, int x, int y,
                    int mode, int* idx, short* wts) {
  // A single row or column maps to the reduced copy's first. Candidates: a
  // 2 x 2 cell whose row truncates (mode 2) or a 3 x 3 window.
  const double sx = img.width > 1 ? double(low.width - 1) / (img.width - 1) : 0;
  const double sy =
      img.height > 1 ? double(low.height - 1) / (img.height - 1) : 0;
  const bool cell = mode == 2;
  const int lw = low.width;
  const int u = cell ? std::min(int(x * sx + 0.5), lw - 2)
                     : std::clamp(int(x * sx + 0.5), 1, lw - 2);
  const int v = cell ? std::min(int(y * sy), low.height - 2)
                     : std::clamp(int(y * sy + 0.5), 1, low.height - 2);
  std::vector<int> at;  // indices into low
  for (int k = 0; k < (cell ? 4 : 9); ++k)
    at.push_back(cell ? (v + k / 2) * lw + u + (k == 1 || k == 2)
                      : (v + k / 3 - 1) * lw + u + k % 3 - 1);
  const unsigned char* c = img.at(x, y);
  auto px = [&](size_t k) { return low.at(at[k] % lw, at[k] / lw); };
  std::vector<long long> dist(at.size(), 1);
  for (size_t k = 0; k < at.size(); ++k)
    for (int ch = 0; ch < 3; ++ch)
      dist[k] += (px(k)[ch] - c[ch]) * (px(k)[ch] - c[ch]);
  long long best = -1;
  for (size_t i = 0; i < at.size(); ++i)
    for (size_t j = i + 1; j < at.size(); ++j) {
      const int w = int(4096 * dist[j] / (dist[i] + dist[j]));
      long long e = 0;
      for (int ch = 0; ch < img.bytes; ++ch) {
        const long long q = (px(i)[ch] * w + px(j)[ch] * (4096 - w)) / 4096;
        e += (q - c[ch]) * (q - c[ch]);
      }
      if (best >= 0 && e >= best) continue;
      best = e, idx[0] = at[i], idx[1] = at[j], *wts = short(w);
    }
}

TEST(UsamWeights, MatchBruteForcePairSearch) {
  // Reductions by various ratios, equal sizes, an enlargement and a single
  // row or column (which maps to the reduced copy's first): width, height,
  // reduced width and height.
  const int sizes[][4] = {{13, 11, 5, 4},   {31, 17, 9, 6}, {7, 9, 3, 3},
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
  for (const auto& c : configs)
    for (const auto [W, H, lw, lh] : sizes) {
      if (c.mode != 2 && (lw < 3 || lh < 3)) continue;
      const Colour img = MakeColour(W, H, c.bytes, c.levels, c.span, rng),
                   low = MakeColour(lw, lh, c.bytes, c.levels, c.span, rng);
      const int ms = W + 1, xs = 2 * W + 3, ws = W + 5;
      Bytes mask(size_t(ms) * H);
      for (auto& m : mask) m = kMaskValues[rng() % 5];
      const unsigned char* maskPtr =
          c.kind == 0 || c.kind == 4 ? nullptr : mask.data();
      // Garbage (half the first indices negative, i.e. holes) that the
      // padding and the entries left alone must keep.
      std::vector<int> got(size_t(xs) * H);
      std::vector<short> got_wts(size_t(ws) * H);
      for (auto& v : got) v = int(rng() % 2000) - 1000;
      for (auto& v : got_wts) v = short(rng());
      std::vector<int> want = got;
      std::vector<short> want_wts = got_wts;
      for (int p = 0; p < W * H; ++p) {
        const int x = p % W, y = p / W, m = mask[size_t(y) * ms + x];
        int* e = &want[size_t(y) * xs + 2 * x];
        if (c.kind == 0 || (c.kind <= 2 && m != 0) ||
            (c.kind >= 3 && e[0] < 0 && (c.kind == 4 || m == 128)))
          ReferenceEntry(img, low, x, y, c.mode, e,
                         &want_wts[size_t(y) * ws + x]);
      }
      const auto *i = img.data.data(), *l = low.data.data();
      const int is = img.stride, ls = low.stride;
      int* ix = got.data();
      short* wt = got_wts.data();
      if (c.bytes == 4)
        usam_calc_weights_8u_c4(i, W, H, is, maskPtr, ms, l, lw, lh, ls, ix, xs,
                                wt, ws, c.mode);
      else if (c.kind >= 3)
        usam_update_weights(i, W, H, is, maskPtr, ms, 128, l, lw, lh, ls, ix,
                            xs, wt, ws);
      else if (c.kind == 2)
        usam_calc_weights_8u_c3(i, W, H, is, maskPtr, ms, 128, l, lw, lh, ls,
                                ix, xs, wt, ws, c.mode);
      else
        usam_calc_weights_8u_c3(i, W, H, is, maskPtr, ms, l, lw, lh, ls, ix, xs,
                                wt, ws, c.mode);
      ASSERT_TRUE(got == want && got_wts == want_wts)
          << W << "x" << H << " from " << lw << "x" << lh << ", bytes "
          << c.bytes << " mode " << c.mode << " kind " << c.kind;
    }
}

TEST(UsamInterpolate, AppliesTheTableOnlyWhereThereIsAnEntry) {
  std::mt19937 rng(101);
  for (auto [width, height, lowPixels] :
       {std::tuple{1, 1, 4}, {7, 5, 9}, {33, 21, 99}}) {
    // About a third of the entries are holes; weights reach both ends.
    const int idxStride = 2 * width + 5, wtsStride = width + 3,
              outStride = width + 3;
    std::vector<int> idx(size_t(idxStride) * height, -77);
    std::vector<short> wts(size_t(wtsStride) * height, -77);
    Bytes ref(lowPixels), low(lowPixels), mask(size_t(outStride) * height);
    for (int i = 0; i < lowPixels; ++i) {
      ref[i] = static_cast<unsigned char>(rng());
      // Mostly small changes, so that every blend branch is taken.
      low[i] = std::clamp<int>(ref[i] + int(rng() % 41) - 20, 0, 255);
    }
    for (auto& m : mask) m = kMaskValues[rng() % 5];
    for (int i = 0; i < width * height; ++i) {
      const size_t y = i / width, x = i % width;
      int* e = &idx[y * idxStride + 2 * x];
      e[0] = rng() % 3 == 0 ? -1 - int(rng() % 5) : int(rng() % lowPixels);
      e[1] = int(rng() % lowPixels);
      const int pick = rng() % 4;
      wts[y * wtsStride + x] = pick == 0 ? 0 : pick == 1 ? 4096 : rng() % 4097;
    }
    const Bytes before = RandomPlane(width, height, outStride, 102);
    for (int kind = 0; kind < 3; ++kind) {
      Bytes out = before, want = before;
      for (int i = 0; i < width * height; ++i) {
        const int* e = &idx[size_t(i / width) * idxStride + 2 * (i % width)];
        const size_t o = size_t(i / width) * outStride + i % width;
        if (e[0] < 0 || (kind == 1 && mask[o] != 128)) continue;
        const int w = wts[size_t(i / width) * wtsStride + i % width];
        const int v = (low[e[0]] * w + low[e[1]] * (4096 - w)) / 4096;
        // The change-driven blend: nothing below a total change of 4, the
        // interpolation outright from 32, k/32 of the way in between.
        const int change =
            std::abs(low[e[0]] - ref[e[0]]) + std::abs(low[e[1]] - ref[e[1]]);
        const int k = std::min(change, 32);
        want[o] = kind != 2    ? v
                  : change < 4 ? before[o]
                               : (v * k + before[o] * (32 - k)) / 32;
      }
      if (kind == 2)
        usam_interpolate_mask_c1(ref.data(), low.data(), 1, lowPixels,
                                 idx.data(), idxStride, wts.data(), wtsStride,
                                 out.data(), width, height, outStride);
      else
        usam_interpolate_c1(low.data(), 1, lowPixels, idx.data(), idxStride,
                            wts.data(), wtsStride, out.data(), width, height,
                            outStride, kind ? mask.data() : nullptr, outStride,
                            128);
      ASSERT_EQ(out, want) << width << "x" << height << " kind " << kind;
    }
  }
}

// Bilinear everywhere (when bilinear), then, where the mask is set (128 or
// any non-zero), the value through a whole-image table: the table builder
// is checked against the pair search above.
Bytes Reference(const Colour& img, const Colour& low, const Bytes& la,
                int laStride, const Bytes& mask, int stride, Bytes out,
                bool bilinear, bool only128) {
  const int w = img.width, h = img.height, lw = low.width;
  if (bilinear)
    ff::ipf_resize_bl<unsigned char, unsigned char>(
        la.data(), lw, low.height, laStride, 1, out.data(), w, h, stride, 1, 1);
  std::vector<int> idx(2 * w * h);
  std::vector<short> wts(w * h);
  usam_calc_weights_8u_c3(img.data.data(), w, h, img.stride, nullptr, 0,
                          low.data.data(), lw, low.height, low.stride,
                          idx.data(), 2 * w, wts.data(), w, 3);
  auto alpha = [&](int k) { return la[size_t(k / lw) * laStride + k % lw]; };
  for (int i = 0; i < w * h; ++i) {
    const size_t o = size_t(i / w) * stride + i % w;
    if (only128 ? mask[o] != 128 : mask[o] == 0) continue;
    out[o] =
        (alpha(idx[2 * i]) * wts[i] + alpha(idx[2 * i + 1]) * (4096 - wts[i])) /
        4096;
  }
  return out;
}

TEST(UsamGuided, ExecuteAndMaskedMatchTheTableWhereTheMaskSaysSo) {
  std::mt19937 rng(121);
  for (auto [w, h, lw, lh] :
       {std::tuple{23, 17, 7, 5}, {29, 23, 8, 7}, {9, 7, 3, 3}}) {
    const Colour img = MakeColour(w, h, 3, 5, 255, rng),
                 low = MakeColour(lw, lh, 3, 5, 255, rng);
    const int stride = w + 3;
    for (int laStride : {lw, lw + 3}) {  // a padded one is made dense first
      const Bytes la = RandomPlane(lw, lh, laStride, rng());
      Bytes mask = RandomPlane(w, h, stride, rng());
      for (int i = 0; i < w * h; ++i)
        if (rng() % 2) mask[i / w * stride + i % w] = rng() % 2 ? 0 : 128;
      const Bytes before = RandomPlane(w, h, stride, 122);
      Bytes out = before;
      const unsigned char *im = img.data.data(), *lo = low.data.data();
      if (laStride == lw) {
        usam_execute(im, w, h, img.stride, mask.data(), stride, 128, lo, lw, lh,
                     low.stride, la.data(), out.data(), stride);
        ASSERT_EQ(out, Reference(img, low, la, laStride, mask, stride, before,
                                 false, true));
      }
      usam_masked_c1(lo, lw, lh, low.stride, la.data(), laStride, im, w, h,
                     img.stride, mask.data(), stride, out.data(), stride);
      const Bytes want =
          Reference(img, low, la, laStride, mask, stride, before, true, false);
      ASSERT_EQ(out, want) << "alpha stride " << laStride;
      // The mask may be the output itself.
      usam_masked_c1(lo, lw, lh, low.stride, la.data(), laStride, im, w, h,
                     img.stride, mask.data(), stride, mask.data(), stride);
      ASSERT_EQ(mask, want) << "mask is out";
    }
  }
}

// Every reduction, table builder and table user with one plane missing
// writes nothing (and a missing output crashes nothing).
TEST(Usam, NullPlanesWriteNothing) {
  const int w = 11, h = 9, is = w * 4 + 3, ls = 4 * 4 + 3, xs = 2 * w, ws = w;
  const Bytes image = RandomPlane(w * 4, h, is, 1),
              small = RandomPlane(4 * 4, 3, ls, 2), la(12, 9),
              before(w * h * 4, 77);
  std::vector<int> index(xs * h, -3), index0 = index;
  std::vector<short> weights(ws * h, 5), weights0 = weights;
  Bytes out = before;
  unsigned char* o = out.data();
  const unsigned char *img = image.data(), *low = small.data(), *a = la.data();
  int* idx = index.data();
  short* wts = weights.data();
  usam_calc_weights_8u_c3(nullptr, w, h, is, nullptr, 0, low, 4, 3, ls, idx, xs,
                          wts, ws, 3);
  usam_calc_weights_8u_c3(img, w, h, is, nullptr, 0, nullptr, 4, 3, ls, idx, xs,
                          wts, ws, 3);
  usam_calc_weights_8u_c3(img, w, h, is, nullptr, 0, 1, low, 4, 3, ls, nullptr,
                          xs, wts, ws, 2);
  usam_calc_weights_8u_c4(img, w, h, is, nullptr, 0, low, 4, 3, ls, idx, xs,
                          nullptr, ws, 3);
  usam_update_weights(nullptr, w, h, is, nullptr, 0, 0, low, 4, 3, ls, idx, xs,
                      wts, ws);
  EXPECT_TRUE(index == index0 && weights == weights0);
  usam_interpolate_c1(nullptr, 4, 3, idx, 2, wts, 1, o, 1, 1, 1);
  usam_interpolate_c1(a, 4, 3, nullptr, 2, wts, 1, o, 1, 1, 1);
  usam_interpolate_c1(a, 4, 3, idx, 2, nullptr, 1, o, 1, 1, 1, a, 1, 9);
  usam_interpolate_mask_c1(nullptr, a, 4, 3, idx, 2, wts, 1, o, 1, 1, 1);
  usam_masked_c1(nullptr, 4, 3, ls, a, 4, img, w, h, is, nullptr, 0, o, w);
  usam_masked_c1(low, 4, 3, ls, a, 4, nullptr, w, h, is, nullptr, 0, o, w);
  usam_alpha(low, 4, 3, ls, nullptr, 4, img, w, h, is, o, w);
  usam_execute(img, w, h, is, nullptr, 0, 0, low, 4, 3, ls, nullptr, o, w);
  merge_c31(img, w, h, is, nullptr, 0, o, w);
  dsam_image(nullptr, w, h, is, o, 4, 3, 12, 3);
  dsam_calc_index(nullptr, w, h, is, low, 4, 3, ls, idx, xs);
  dsam_calc_index(img, w, h, is, nullptr, 4, 3, ls, idx, xs);
  dsam_calc_index(img, w, h, is, low, 4, 3, ls, nullptr, xs);
  dsam_ui_alpha(a, w, h, w, nullptr, xs, o, 4, 3, 0, 0);
  dsam_ui_alpha(nullptr, w, h, w, idx, xs, o, 4, 3, 0, 0);
  EXPECT_TRUE(out == before && index == index0);
  // Null outputs must not crash either.
  usam_alpha(low, 4, 3, ls, a, 4, img, w, h, is, nullptr, w);
  merge_c31(img, w, h, is, a, 4, nullptr, 0);
  dsam_image(img, w, h, is, nullptr, 4, 3, 12, 3);
  dsam_ui_alpha(a, w, h, w, idx, xs, nullptr, 4, 3, 0, 0);
}

}  // namespace
