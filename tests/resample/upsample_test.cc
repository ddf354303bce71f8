#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <random>
#include <tuple>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::RandomPlane;
using Bytes = std::vector<unsigned char>;

// low[a] * w/4096 + low[b] * (1 - w/4096), rounded down.
int Interpolated(const Bytes& low, int a, int b, int w) {
  return (low[a] * w + low[b] * (4096 - w)) / 4096;
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
    const unsigned char values[] = {0, 127, 128, 129, 255};
    for (auto& m : mask) m = values[rng() % 5];
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        int* e = &idx[size_t(y) * idxStride + 2 * x];
        e[0] = rng() % 3 == 0 ? -1 - int(rng() % 5) : int(rng() % lowPixels);
        e[1] = int(rng() % lowPixels);
        const int pick = rng() % 4;
        wts[size_t(y) * wtsStride + x] = pick == 0   ? 0
                                         : pick == 1 ? 4096
                                                     : rng() % 4097;
      }
    }
    const Bytes before = RandomPlane(width, height, outStride, 102);
    for (int kind = 0; kind < 3; ++kind) {
      Bytes out = before, want = before;
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          const int* e = &idx[size_t(y) * idxStride + 2 * x];
          const size_t o = size_t(y) * outStride + x;
          if (e[0] < 0 || (kind == 1 && mask[o] != 128)) continue;
          const int v =
              Interpolated(low, e[0], e[1], wts[size_t(y) * wtsStride + x]);
          // The change-driven blend: nothing below a total change of 4, the
          // interpolation outright from 32, k/32 of the way in between.
          const int change =
              std::abs(low[e[0]] - ref[e[0]]) + std::abs(low[e[1]] - ref[e[1]]);
          const int k = std::min(change, 32);
          want[o] = kind != 2    ? v
                    : change < 4 ? before[o]
                                 : (v * k + before[o] * (32 - k)) / 32;
        }
      }
      if (kind == 2) {
        usam_interpolate_mask_c1(ref.data(), low.data(), 1, lowPixels,
                                 idx.data(), idxStride, wts.data(), wtsStride,
                                 out.data(), width, height, outStride);
      } else {
        usam_interpolate_c1(low.data(), 1, lowPixels, idx.data(), idxStride,
                            wts.data(), wtsStride, out.data(), width, height,
                            outStride, kind ? mask.data() : nullptr, outStride,
                            128);
      }
      ASSERT_EQ(out, want) << width << "x" << height << " kind " << kind;
    }
  }
}

// A small photo-like pair: a disc over a ramp with a little noise, and the
// reduced image sampled from it, so that exact and near matches both occur.
struct Scene {
  int width, height, imgStride, lowWidth, lowHeight, lowStride;
  Bytes img, low;
};

Scene MakeScene(int width, int height, int lowWidth, int lowHeight,
                std::mt19937& rng) {
  Scene s{width, height, 3 * width + 4, lowWidth, lowHeight, 3 * lowWidth + 2,
          {},    {}};
  s.img.assign(size_t(s.imgStride) * height, kSentinel);
  s.low.assign(size_t(s.lowStride) * lowHeight, kSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int dx = x - width / 2, dy = y - height / 2;
      const bool inside = dx * dx + dy * dy < width * height / 8;
      for (int ch = 0; ch < 3; ++ch) {
        const int base = inside ? 200 - 10 * ch : 40 + 3 * x + 20 * ch;
        s.img[size_t(y) * s.imgStride + 3 * x + ch] =
            std::clamp(base + int(rng() % 7) - 3, 0, 255);
      }
    }
  }
  for (int v = 0; v < lowHeight; ++v) {
    for (int u = 0; u < lowWidth; ++u) {
      const int x = u * (width - 1) / (lowWidth - 1),
                y = v * (height - 1) / (lowHeight - 1);
      std::copy_n(&s.img[size_t(y) * s.imgStride + 3 * x], 3,
                  &s.low[size_t(v) * s.lowStride + 3 * u]);
    }
  }
  return s;
}

// Bilinear everywhere (when bilinear), then, where the mask is set (128 or
// any non-zero), the value through a whole-image table: the table builder
// is checked against a brute-force pair search on its own.
Bytes Reference(const Scene& s, const Bytes& la, int laStride,
                const Bytes& mask, int stride, const Bytes& before,
                bool bilinear, bool only128) {
  Bytes out = before;
  if (bilinear) {
    ff::ipf_resize_bl<unsigned char, unsigned char>(
        la.data(), s.lowWidth, s.lowHeight, laStride, 1, out.data(), s.width,
        s.height, stride, 1, 1);
  }
  std::vector<int> idx(2 * s.width * s.height);
  std::vector<short> wts(s.width * s.height);
  usam_calc_weights_8u_c3(s.img.data(), s.width, s.height, s.imgStride, nullptr,
                          0, s.low.data(), s.lowWidth, s.lowHeight, s.lowStride,
                          idx.data(), 2 * s.width, wts.data(), s.width, 3);
  auto alpha = [&](int k) {
    return la[size_t(k / s.lowWidth) * laStride + k % s.lowWidth];
  };
  for (int i = 0; i < s.width * s.height; ++i) {
    const size_t o = size_t(i / s.width) * stride + i % s.width;
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
    const Scene s = MakeScene(w, h, lw, lh, rng);
    const int stride = w + 3;
    for (int laStride : {lw, lw + 3}) {  // a padded one is made dense first
      const Bytes la = RandomPlane(lw, lh, laStride, rng());
      Bytes mask = RandomPlane(w, h, stride, rng());
      for (int i = 0; i < w * h; ++i) {
        if (rng() % 2) mask[i / w * stride + i % w] = rng() % 2 ? 0 : 128;
      }
      const Bytes before = RandomPlane(w, h, stride, 122);
      Bytes out = before;
      if (laStride == lw) {
        usam_execute(s.img.data(), w, h, s.imgStride, mask.data(), stride, 128,
                     s.low.data(), lw, lh, s.lowStride, la.data(), out.data(),
                     stride);
        ASSERT_EQ(out,
                  Reference(s, la, laStride, mask, stride, before, false, true))
            << "execute " << w << "x" << h;
      }
      usam_masked_c1(s.low.data(), lw, lh, s.lowStride, la.data(), laStride,
                     s.img.data(), w, h, s.imgStride, mask.data(), stride,
                     out.data(), stride);
      const Bytes want =
          Reference(s, la, laStride, mask, stride, before, true, false);
      ASSERT_EQ(out, want) << "masked " << w << "x" << h << " alpha stride "
                           << laStride;
      // The mask may be the output itself.
      usam_masked_c1(s.low.data(), lw, lh, s.lowStride, la.data(), laStride,
                     s.img.data(), w, h, s.imgStride, mask.data(), stride,
                     mask.data(), stride);
      ASSERT_EQ(mask, want) << "mask is out";
    }
  }
}

TEST(UsamAlpha, GuidesOnlyTheWidenedTransitionZone) {
  std::mt19937 rng(141);
  const Scene s = MakeScene(37, 29, 10, 8, rng);
  const int lw = s.lowWidth, lh = s.lowHeight, laStride = lw + 3,
            stride = s.width + 2;
  // A hard-edged block with one soft pixel: flat areas and a transition.
  Bytes la(size_t(laStride) * lh, kSentinel);
  for (int i = 0; i < lw * lh; ++i) {
    const int u = i % lw, v = i / lw;
    la[v * laStride + u] = u >= 3 && u <= 6 && v >= 2 && v <= 5 ? 255 : 0;
  }
  la[4 * laStride + 8] = 90;
  // Reduced pixels whose 5x5 neighbourhood is not flat (the 3x3 window of
  // unequal values, widened by one), sampled to full size.
  auto zone = [&](int u, int v) {
    int lo = 255, hi = 0;
    for (int vv = std::max(v - 2, 0); vv <= std::min(v + 2, lh - 1); ++vv) {
      for (int uu = std::max(u - 2, 0); uu <= std::min(u + 2, lw - 1); ++uu) {
        lo = std::min<int>(lo, la[vv * laStride + uu]);
        hi = std::max<int>(hi, la[vv * laStride + uu]);
      }
    }
    return lo != hi;
  };
  std::vector<int> cols(s.width), rows(s.height);
  ff::ipf_calc_resize_tab_nn(lw, s.width, cols.data(), 1);
  ff::ipf_calc_resize_tab_nn(lh, s.height, rows.data(), 1);
  Bytes mask(size_t(stride) * s.height, 0);
  for (int y = 0; y < s.height; ++y)
    for (int x = 0; x < s.width; ++x)
      mask[y * stride + x] = zone(cols[x], rows[y]);
  const Bytes before(mask.size(), kSentinel);
  Bytes out = before;
  usam_alpha(s.low.data(), lw, lh, s.lowStride, la.data(), laStride,
             s.img.data(), s.width, s.height, s.imgStride, out.data(), stride);
  EXPECT_EQ(out, Reference(s, la, laStride, mask, stride, before, true, false));

  // Equal sizes: a copy, whatever the colours say.
  const Bytes full = RandomPlane(s.width, s.height, stride, 152);
  usam_alpha(s.img.data(), s.width, s.height, s.imgStride, full.data(), stride,
             s.img.data(), s.width, s.height, s.imgStride, out.data(), stride);
  EXPECT_EQ(out, full);
}

TEST(MergeC31, InterleavesColourAndPlane) {
  for (int width : {1, 6, 13}) {
    const int s3 = 3 * width + 2, s1 = width + 3, ds = 4 * width + 5;
    const Bytes src3 = RandomPlane(3 * width, 5, s3, 161);
    const Bytes src1 = RandomPlane(width, 5, s1, 162);
    Bytes dst(size_t(ds) * 5, kSentinel);
    merge_c31(src3.data(), width, 5, s3, src1.data(), s1, dst.data(), ds);
    EXPECT_EQ("", softmatte_test::PlaneMismatch(
                      dst, 4 * width, 5, ds, kSentinel, [&](int i, int y) {
                        return i % 4 < 3 ? src3[y * s3 + i / 4 * 3 + i % 4]
                                         : src1[y * s1 + i / 4];
                      }));
  }
}

TEST(Usam, NullPlanesWriteNothing) {
  std::mt19937 rng(171);
  const Scene s = MakeScene(11, 9, 4, 3, rng);
  const Bytes la(12, 9), before(s.width * s.height, 77);
  const int idx[2] = {0, 1};
  const short wts[1] = {2048};
  Bytes out = before;
  unsigned char* o = out.data();
  const unsigned char *img = s.img.data(), *low = s.low.data(), *a = la.data();
  const int w = s.width, h = s.height, is = s.imgStride, ls = s.lowStride;
  usam_interpolate_c1(nullptr, 4, 3, idx, 2, wts, 1, o, 1, 1, 1);
  usam_interpolate_c1(a, 4, 3, nullptr, 2, wts, 1, o, 1, 1, 1);
  usam_interpolate_c1(a, 4, 3, idx, 2, nullptr, 1, o, 1, 1, 1, a, 1, 9);
  usam_interpolate_mask_c1(nullptr, a, 4, 3, idx, 2, wts, 1, o, 1, 1, 1);
  usam_masked_c1(nullptr, 4, 3, ls, a, 4, img, w, h, is, nullptr, 0, o, w);
  usam_masked_c1(low, 4, 3, ls, a, 4, nullptr, w, h, is, nullptr, 0, o, w);
  usam_alpha(low, 4, 3, ls, nullptr, 4, img, w, h, is, o, w);
  usam_execute(img, w, h, is, nullptr, 0, 0, low, 4, 3, ls, nullptr, o, w);
  merge_c31(img, w, h, is, nullptr, 0, o, w);
  EXPECT_EQ(out, before);
  // Null outputs must not crash either.
  usam_alpha(low, 4, 3, ls, a, 4, img, w, h, is, nullptr, w);
  merge_c31(img, w, h, is, a, 4, nullptr, 0);
}

}  // namespace
