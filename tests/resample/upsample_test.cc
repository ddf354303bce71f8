#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "softmatte/resample.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;

// value = low[a] * w/4096 + low[b] * (1 - w/4096), rounded down.
int Interpolated(const std::vector<unsigned char>& low, int a, int b, int w) {
  return (low[a] * w + low[b] * (4096 - w)) / 4096;
}

// A random table over a dense lowWidth x lowHeight plane: about a third of the
// pixels have no entry; weights cover both ends of 0 ... 4096.
struct Table {
  int idxStride, wtsStride;
  std::vector<int> idx;
  std::vector<short> wts;
};

Table RandomTable(int width, int height, int lowPixels, std::mt19937& rng) {
  Table t{2 * width + 5, width + 3, {}, {}};
  t.idx.assign(static_cast<size_t>(t.idxStride) * height, -77);
  t.wts.assign(static_cast<size_t>(t.wtsStride) * height, -77);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      int* e = &t.idx[static_cast<size_t>(y) * t.idxStride + 2 * x];
      const bool hole = rng() % 3 == 0;
      e[0] = hole ? -1 - static_cast<int>(rng() % 5)
                  : static_cast<int>(rng() % lowPixels);
      e[1] = static_cast<int>(rng() % lowPixels);
      const int pick = static_cast<int>(rng() % 4);
      t.wts[static_cast<size_t>(y) * t.wtsStride + x] =
          static_cast<short>(pick == 0   ? 0
                             : pick == 1 ? 4096
                                         : static_cast<int>(rng() % 4097));
    }
  }
  return t;
}

struct Case {
  int width, height, lowWidth, lowHeight;
};
const Case kCases[] = {
    {1, 1, 2, 2}, {7, 5, 3, 3}, {17, 9, 5, 4}, {33, 21, 11, 9}};

TEST(UsamInterpolate, AppliesTheTableOnlyWhereThereIsAnEntry) {
  std::mt19937 rng(101);
  for (const Case& c : kCases) {
    const int lowPixels = c.lowWidth * c.lowHeight;
    std::vector<unsigned char> low(lowPixels);
    for (auto& v : low) v = static_cast<unsigned char>(rng());
    const Table t = RandomTable(c.width, c.height, lowPixels, rng);
    const int outStride = c.width + 3;
    const int maskStride = c.width + 1;
    const std::vector<unsigned char> before =
        RandomPlane(c.width, c.height, outStride, 102);
    std::vector<unsigned char> mask(static_cast<size_t>(maskStride) * c.height);
    const unsigned char values[] = {0, 127, 128, 129, 255};
    for (auto& m : mask) m = values[rng() % 5];
    for (bool masked : {false, true}) {
      std::vector<unsigned char> out = before;
      if (masked) {
        usam_interpolate_c1(low.data(), c.lowWidth, c.lowHeight, t.idx.data(),
                            t.idxStride, t.wts.data(), t.wtsStride, out.data(),
                            c.width, c.height, outStride, mask.data(),
                            maskStride, 128);
      } else {
        usam_interpolate_c1(low.data(), c.lowWidth, c.lowHeight, t.idx.data(),
                            t.idxStride, t.wts.data(), t.wtsStride, out.data(),
                            c.width, c.height, outStride);
      }
      for (int y = 0; y < c.height; ++y) {
        for (int x = 0; x < c.width; ++x) {
          const int* e = &t.idx[static_cast<size_t>(y) * t.idxStride + 2 * x];
          const size_t o = static_cast<size_t>(y) * outStride + x;
          const bool write =
              e[0] >= 0 &&
              (!masked || mask[static_cast<size_t>(y) * maskStride + x] == 128);
          const int want =
              write ? Interpolated(
                          low, e[0], e[1],
                          t.wts[static_cast<size_t>(y) * t.wtsStride + x])
                    : before[o];
          ASSERT_EQ(out[o], want)
              << "masked " << masked << " at (" << x << ", " << y << ")";
        }
      }
      EXPECT_TRUE(PaddingIntact(out, c.width, c.height, outStride));
    }
  }
}

// Change-driven blend, written out: below a total change of 4 nothing, from
// 32 on the interpolation outright, in between k/32 of the way to it.
int ChangeBlend(int old, int v, int change) {
  if (change < 4) return old;
  const int k = std::min(change, 32);
  return (v * k + old * (32 - k)) / 32;
}

TEST(UsamInterpolateMask, BlendsInProportionToTheChange) {
  std::mt19937 rng(111);
  for (const Case& c : kCases) {
    const int lowPixels = c.lowWidth * c.lowHeight;
    std::vector<unsigned char> ref(lowPixels), low(lowPixels);
    for (int i = 0; i < lowPixels; ++i) {
      ref[i] = static_cast<unsigned char>(rng());
      // Mostly small changes, so that every branch is taken.
      const int delta = static_cast<int>(rng() % 41) - 20;
      low[i] = static_cast<unsigned char>(std::clamp(ref[i] + delta, 0, 255));
    }
    const Table t = RandomTable(c.width, c.height, lowPixels, rng);
    const int outStride = c.width + 5;
    const std::vector<unsigned char> before =
        RandomPlane(c.width, c.height, outStride, 112);
    std::vector<unsigned char> out = before;
    usam_interpolate_mask_c1(ref.data(), low.data(), c.lowWidth, c.lowHeight,
                             t.idx.data(), t.idxStride, t.wts.data(),
                             t.wtsStride, out.data(), c.width, c.height,
                             outStride);
    for (int y = 0; y < c.height; ++y) {
      for (int x = 0; x < c.width; ++x) {
        const int* e = &t.idx[static_cast<size_t>(y) * t.idxStride + 2 * x];
        const size_t o = static_cast<size_t>(y) * outStride + x;
        int want = before[o];
        if (e[0] >= 0) {
          const int change =
              std::abs(low[e[0]] - ref[e[0]]) + std::abs(low[e[1]] - ref[e[1]]);
          const int w = t.wts[static_cast<size_t>(y) * t.wtsStride + x];
          want =
              ChangeBlend(before[o], Interpolated(low, e[0], e[1], w), change);
        }
        ASSERT_EQ(out[o], want) << "at (" << x << ", " << y << ")";
      }
    }
    EXPECT_TRUE(PaddingIntact(out, c.width, c.height, outStride));
  }
}

TEST(UsamInterpolateMask, ThresholdAndFullStrength) {
  // One pixel, entry (0, 1) with all weight on 0; old value 100.
  const int idx[2] = {0, 1};
  const short wts[1] = {4096};
  auto run = [&](int refA, int lowA, int refB, int lowB) {
    const unsigned char ref[2] = {static_cast<unsigned char>(refA),
                                  static_cast<unsigned char>(refB)};
    const unsigned char low[2] = {static_cast<unsigned char>(lowA),
                                  static_cast<unsigned char>(lowB)};
    unsigned char out = 100;
    usam_interpolate_mask_c1(ref, low, 2, 1, idx, 2, wts, 1, &out, 1, 1, 1);
    return static_cast<int>(out);
  };
  EXPECT_EQ(run(200, 202, 50, 49), 100);  // change 3: untouched
  EXPECT_EQ(run(200, 202, 50, 48), 112);  // change 4: 100 + 102 * 4 / 32
  EXPECT_EQ(run(200, 240, 50, 50), 240);  // change 40: full
}

// A small photo-like pair: smooth colour regions with an edge, and the
// reduced image sampled from it, so that exact and near matches both occur.
struct Scene {
  int width, height, imgStride, lowWidth, lowHeight, lowStride;
  std::vector<unsigned char> img, low;
};

Scene MakeScene(int width, int height, int lowWidth, int lowHeight,
                std::mt19937& rng) {
  Scene s{width, height, 3 * width + 4, lowWidth, lowHeight, 3 * lowWidth + 2,
          {},    {}};
  s.img.assign(static_cast<size_t>(s.imgStride) * height, kSentinel);
  s.low.assign(static_cast<size_t>(s.lowStride) * lowHeight, kSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const bool inside = (x - width / 2) * (x - width / 2) +
                              (y - height / 2) * (y - height / 2) <
                          width * height / 8;
      for (int ch = 0; ch < 3; ++ch) {
        const int base = inside ? 200 - 10 * ch : 40 + 3 * x + 20 * ch;
        s.img[static_cast<size_t>(y) * s.imgStride + 3 * x + ch] =
            static_cast<unsigned char>(
                std::clamp(base + static_cast<int>(rng() % 7) - 3, 0, 255));
      }
    }
  }
  for (int v = 0; v < lowHeight; ++v) {
    for (int u = 0; u < lowWidth; ++u) {
      const int x = u * (width - 1) / (lowWidth - 1);
      const int y = v * (height - 1) / (lowHeight - 1);
      for (int ch = 0; ch < 3; ++ch) {
        s.low[static_cast<size_t>(v) * s.lowStride + 3 * u + ch] =
            s.img[static_cast<size_t>(y) * s.imgStride + 3 * x + ch];
      }
    }
  }
  return s;
}

// The colour-guided value of every pixel, through a whole-image table: the
// table builder is checked against a brute-force pair search on its own.
std::vector<int> GuidedValues(const Scene& s,
                              const std::vector<unsigned char>& la,
                              int laStride) {
  const size_t n = static_cast<size_t>(s.width) * s.height;
  std::vector<int> idx(2 * n);
  std::vector<short> wts(n);
  usam_calc_weights_8u_c3(s.img.data(), s.width, s.height, s.imgStride, nullptr,
                          0, s.low.data(), s.lowWidth, s.lowHeight, s.lowStride,
                          idx.data(), 2 * s.width, wts.data(), s.width, 3);
  auto alpha = [&](int k) {
    return la[static_cast<size_t>(k / s.lowWidth) * laStride + k % s.lowWidth];
  };
  std::vector<int> values(n);
  for (size_t i = 0; i < n; ++i) {
    values[i] =
        (alpha(idx[2 * i]) * wts[i] + alpha(idx[2 * i + 1]) * (4096 - wts[i])) /
        4096;
  }
  return values;
}

TEST(UsamExecute, MatchesPairSearchWhereTheMaskHasTheValue) {
  std::mt19937 rng(121);
  for (const Case& c :
       {Case{23, 17, 7, 5}, Case{31, 31, 9, 9}, Case{9, 7, 3, 3}}) {
    const Scene s = MakeScene(c.width, c.height, c.lowWidth, c.lowHeight, rng);
    std::vector<unsigned char> lowAlpha(c.lowWidth * c.lowHeight);
    for (auto& v : lowAlpha) v = static_cast<unsigned char>(rng());
    const int maskStride = c.width + 2;
    std::vector<unsigned char> mask(static_cast<size_t>(maskStride) * c.height);
    for (auto& m : mask)
      m = rng() % 2 ? 128 : static_cast<unsigned char>(rng());
    const int outStride = c.width + 1;
    const std::vector<unsigned char> before =
        RandomPlane(c.width, c.height, outStride, 122);
    std::vector<unsigned char> out = before;
    const std::vector<int> guided = GuidedValues(s, lowAlpha, c.lowWidth);
    usam_execute(s.img.data(), c.width, c.height, s.imgStride, mask.data(),
                 maskStride, 128, s.low.data(), c.lowWidth, c.lowHeight,
                 s.lowStride, lowAlpha.data(), out.data(), outStride);
    for (int y = 0; y < c.height; ++y) {
      for (int x = 0; x < c.width; ++x) {
        const size_t o = static_cast<size_t>(y) * outStride + x;
        const int want = mask[static_cast<size_t>(y) * maskStride + x] == 128
                             ? guided[static_cast<size_t>(y) * c.width + x]
                             : before[o];
        ASSERT_EQ(out[o], want) << "at (" << x << ", " << y << ")";
      }
    }
    EXPECT_TRUE(PaddingIntact(out, c.width, c.height, outStride));
  }
}

// Bilinear everywhere, then the pair search where the mask is non-zero.
std::vector<unsigned char> MaskedReference(
    const Scene& s, const std::vector<unsigned char>& la, int laStride,
    const std::vector<unsigned char>& mask, int maskStride, int outStride) {
  const std::vector<int> guided = GuidedValues(s, la, laStride);
  std::vector<unsigned char> out(static_cast<size_t>(outStride) * s.height,
                                 kSentinel);
  ff::ipf_resize_bl<unsigned char, unsigned char>(
      la.data(), s.lowWidth, s.lowHeight, laStride, 1, out.data(), s.width,
      s.height, outStride, 1, 1);
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      if (mask[static_cast<size_t>(y) * maskStride + x] == 0) continue;
      out[static_cast<size_t>(y) * outStride + x] = static_cast<unsigned char>(
          guided[static_cast<size_t>(y) * s.width + x]);
    }
  }
  return out;
}

TEST(UsamMaskedC1, GuidedUnderTheMaskBilinearElsewhere) {
  std::mt19937 rng(131);
  const Scene s = MakeScene(29, 23, 8, 7, rng);
  // Padded and dense reduced alpha: the padded one is first made dense.
  for (int laStride : {8, 11}) {
    std::vector<unsigned char> la =
        RandomPlane(s.lowWidth, s.lowHeight, laStride, 132);
    const int stride = s.width + 3;
    std::vector<unsigned char> mask =
        RandomPlane(s.width, s.height, stride, 133);
    for (int y = 0; y < s.height; ++y) {
      for (int x = 0; x < s.width; ++x) {
        if (rng() % 2) mask[static_cast<size_t>(y) * stride + x] = 0;
      }
    }
    const std::vector<unsigned char> want =
        MaskedReference(s, la, laStride, mask, stride, stride);
    std::vector<unsigned char> out(mask.size(), kSentinel);
    usam_masked_c1(s.low.data(), s.lowWidth, s.lowHeight, s.lowStride,
                   la.data(), laStride, s.img.data(), s.width, s.height,
                   s.imgStride, mask.data(), stride, out.data(), stride);
    EXPECT_EQ(out, want) << "separate mask, alpha stride " << laStride;
    // The mask may be the output itself.
    std::vector<unsigned char> inPlace = mask;
    const std::vector<unsigned char> wantInPlace =
        MaskedReference(s, la, laStride, inPlace, stride, stride);
    usam_masked_c1(s.low.data(), s.lowWidth, s.lowHeight, s.lowStride,
                   la.data(), laStride, s.img.data(), s.width, s.height,
                   s.imgStride, inPlace.data(), stride, inPlace.data(), stride);
    EXPECT_EQ(inPlace, wantInPlace) << "mask is out, alpha stride " << laStride;
  }
}

TEST(UsamAlpha, GuidesOnlyTheWidenedTransitionZone) {
  std::mt19937 rng(141);
  const Scene s = MakeScene(37, 29, 10, 8, rng);
  const int laStride = s.lowWidth + 3;
  std::vector<unsigned char> la(static_cast<size_t>(laStride) * s.lowHeight,
                                kSentinel);
  // A hard-edged blob with one soft pixel: flat areas and a transition.
  for (int v = 0; v < s.lowHeight; ++v) {
    for (int u = 0; u < s.lowWidth; ++u) {
      la[static_cast<size_t>(v) * laStride + u] =
          (u >= 3 && u <= 6 && v >= 2 && v <= 5) ? 255 : 0;
    }
  }
  la[static_cast<size_t>(4) * laStride + 8] = 90;
  // Transition: the 3x3 window (clipped at the edges) is not flat; then
  // widened by one more reduced pixel and sampled to full size.
  auto windowFlat = [&](int u, int v) {
    int lo = 255, hi = 0;
    for (int dv = -1; dv <= 1; ++dv) {
      for (int du = -1; du <= 1; ++du) {
        const int uu = u + du, vv = v + dv;
        if (uu < 0 || vv < 0 || uu >= s.lowWidth || vv >= s.lowHeight) continue;
        const int a = la[static_cast<size_t>(vv) * laStride + uu];
        lo = std::min(lo, a);
        hi = std::max(hi, a);
      }
    }
    return lo == hi;
  };
  std::vector<unsigned char> zone(s.lowWidth * s.lowHeight, 0);
  for (int v = 0; v < s.lowHeight; ++v) {
    for (int u = 0; u < s.lowWidth; ++u) {
      for (int dv = -1; dv <= 1; ++dv) {
        for (int du = -1; du <= 1; ++du) {
          const int uu = u + du, vv = v + dv;
          if (uu < 0 || vv < 0 || uu >= s.lowWidth || vv >= s.lowHeight)
            continue;
          if (!windowFlat(uu, vv)) zone[v * s.lowWidth + u] = 1;
        }
      }
    }
  }
  const int stride = s.width + 2;
  std::vector<unsigned char> mask(static_cast<size_t>(stride) * s.height, 0);
  std::vector<int> cols(s.width), rows(s.height);
  ff::ipf_calc_resize_tab_nn(s.lowWidth, s.width, cols.data(), 1);
  ff::ipf_calc_resize_tab_nn(s.lowHeight, s.height, rows.data(), 1);
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      mask[static_cast<size_t>(y) * stride + x] =
          zone[rows[y] * s.lowWidth + cols[x]];
    }
  }
  std::vector<unsigned char> want =
      MaskedReference(s, la, laStride, mask, stride, stride);
  std::vector<unsigned char> out(want.size(), kSentinel);
  usam_alpha(s.low.data(), s.lowWidth, s.lowHeight, s.lowStride, la.data(),
             laStride, s.img.data(), s.width, s.height, s.imgStride, out.data(),
             stride);
  EXPECT_EQ(out, want);
  EXPECT_TRUE(PaddingIntact(out, s.width, s.height, stride));
}

TEST(UsamAlpha, ConstantMattesAndEqualSizes) {
  std::mt19937 rng(151);
  const Scene s = MakeScene(21, 15, 6, 5, rng);
  for (int level : {0, 255}) {
    std::vector<unsigned char> la(s.lowWidth * s.lowHeight, level);
    std::vector<unsigned char> out(static_cast<size_t>(s.width) * s.height, 3);
    usam_alpha(s.low.data(), s.lowWidth, s.lowHeight, s.lowStride, la.data(),
               s.lowWidth, s.img.data(), s.width, s.height, s.imgStride,
               out.data(), s.width);
    EXPECT_EQ(out, std::vector<unsigned char>(out.size(), level));
  }
  // Equal sizes: a copy, whatever the colours say.
  const int laStride = s.width + 4, outStride = s.width + 1;
  const std::vector<unsigned char> la =
      RandomPlane(s.width, s.height, laStride, 152);
  std::vector<unsigned char> out =
      RandomPlane(s.width, s.height, outStride, 153);
  for (auto& v : out) v = kSentinel;
  usam_alpha(s.img.data(), s.width, s.height, s.imgStride, la.data(), laStride,
             s.img.data(), s.width, s.height, s.imgStride, out.data(),
             outStride);
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      ASSERT_EQ(out[static_cast<size_t>(y) * outStride + x],
                la[static_cast<size_t>(y) * laStride + x]);
    }
  }
  EXPECT_TRUE(PaddingIntact(out, s.width, s.height, outStride));
}

TEST(MergeC31, InterleavesColourAndPlane) {
  for (int width : {1, 6, 13}) {
    const int height = 5;
    const std::vector<unsigned char> src3 =
        RandomPlane(3 * width, height, 3 * width + 2, 161);
    const std::vector<unsigned char> src1 =
        RandomPlane(width, height, width + 3, 162);
    const int dstStride = 4 * width + 5;
    std::vector<unsigned char> dst(static_cast<size_t>(dstStride) * height,
                                   kSentinel);
    merge_c31(src3.data(), width, height, 3 * width + 2, src1.data(), width + 3,
              dst.data(), dstStride);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        for (int c = 0; c < 4; ++c) {
          const unsigned char want =
              c < 3 ? src3[static_cast<size_t>(y) * (3 * width + 2) + 3 * x + c]
                    : src1[static_cast<size_t>(y) * (width + 3) + x];
          ASSERT_EQ(dst[static_cast<size_t>(y) * dstStride + 4 * x + c], want);
        }
      }
    }
    EXPECT_TRUE(PaddingIntact(dst, 4 * width, height, dstStride));
  }
}

TEST(Usam, NullPlanesWriteNothing) {
  std::mt19937 rng(171);
  const Scene s = MakeScene(11, 9, 4, 3, rng);
  const std::vector<unsigned char> la(12, 9);
  const int idx[2] = {0, 1};
  const short wts[1] = {2048};
  const std::vector<unsigned char> before(s.width * s.height, 77);
  std::vector<unsigned char> out = before;
  const unsigned char* img = s.img.data();
  const unsigned char* low = s.low.data();
  usam_interpolate_c1(nullptr, 4, 3, idx, 2, wts, 1, out.data(), 1, 1, 1);
  usam_interpolate_c1(la.data(), 4, 3, nullptr, 2, wts, 1, out.data(), 1, 1, 1);
  usam_interpolate_c1(la.data(), 4, 3, idx, 2, nullptr, 1, out.data(), 1, 1, 1,
                      la.data(), 1, 9);
  usam_interpolate_mask_c1(nullptr, la.data(), 4, 3, idx, 2, wts, 1, out.data(),
                           1, 1, 1);
  usam_masked_c1(nullptr, 4, 3, s.lowStride, la.data(), 4, img, s.width,
                 s.height, s.imgStride, nullptr, 0, out.data(), s.width);
  usam_masked_c1(low, 4, 3, s.lowStride, la.data(), 4, nullptr, s.width,
                 s.height, s.imgStride, nullptr, 0, out.data(), s.width);
  usam_alpha(low, 4, 3, s.lowStride, nullptr, 4, img, s.width, s.height,
             s.imgStride, out.data(), s.width);
  usam_execute(img, s.width, s.height, s.imgStride, nullptr, 0, 0, low, 4, 3,
               s.lowStride, nullptr, out.data(), s.width);
  merge_c31(img, s.width, s.height, s.imgStride, nullptr, 0, out.data(),
            s.width);
  EXPECT_EQ(out, before);
  // Null outputs must not crash either.
  usam_alpha(low, 4, 3, s.lowStride, la.data(), 4, img, s.width, s.height,
             s.imgStride, nullptr, s.width);
  merge_c31(img, s.width, s.height, s.imgStride, la.data(), 4, nullptr, 0);
}

}  // namespace
