// The matte cleanups and the brush against brute-force references written
// here, and the cut-out's edge-only versions against the whole-plane
// functions.
#include "softmatte/edit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "edit/cleanup_band.h"
#include "test_util.h"

namespace {

using softmatte_test::RandomPlane;
using Bytes = std::vector<unsigned char>;

// Rounded mean (op 0), maximum (1) or minimum (2) of channel c over the
// k x k window clipped to the rectangle grown by border b (null: none).
int Window(const unsigned char* p, int step, int ch, int w, int h, const int* b,
           int x, int y, int c, int k, int op) {
  int sum = 0, n = 0, hi = 0, lo = 255;
  for (int v = std::max(y - k / 2, b ? -b[1] : 0);
       v <= std::min(y + k / 2, h - 1 + (b ? b[3] : 0)); ++v)
    for (int u = std::max(x - k / 2, b ? -b[0] : 0);
         u <= std::min(x + k / 2, w - 1 + (b ? b[2] : 0)); ++u) {
      const int val = p[v * step + u * ch + c];
      sum += val, ++n, hi = std::max(hi, val), lo = std::min(lo, val);
    }
  return op == 0 ? (sum + n / 2) / n : op == 1 ? hi : lo;
}

// A one-channel plane whose rows are padded with the sentinel.
struct Plane {
  int width, height, stride;
  std::vector<unsigned char> px;
  Plane(int w, int h, unsigned char fill = 0, int pad = 3)
      : width(w), height(h), stride(w + pad) {
    px.assign(size_t(stride) * h, softmatte_test::kSentinel);
    for (int y = 0; y < h; ++y) std::fill_n(&at(0, y), w, fill);
  }
  unsigned char& at(int x, int y) { return px[size_t(y) * stride + x]; }
  unsigned char at(int x, int y) const { return px[size_t(y) * stride + x]; }
  unsigned char* data() { return px.data(); }
};

// Mattes that reach the different branches: noise, mostly empty (zero
// maxima), bright (high minima), flat 4x4 blocks (mean equal to maximum), a
// soft-edged disc (uniform tiles far from its edge) and a hard one with
// specks of a few equal sizes (ties) and pixels touching only diagonally.
Plane MakeMatte(int width, int height, int kind, std::mt19937& rng) {
  Plane p(width, height, 0, 1 + kind % 3);
  std::vector<unsigned char> blocks(16 * 16);
  for (auto& b : blocks) b = rng() % 4 == 0 ? 0 : rng() % 3 == 0 ? 255 : rng();
  const double cx = rng() % (width + 1), cy = rng() % (height + 1);
  const double r = 2 + rng() % (std::max(width, height) / 2 + 1);
  const double ramp = 0.5 + rng() % 8;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const unsigned char n = static_cast<unsigned char>(rng());
      const double e = std::hypot(x - cx, y - cy) - r;
      p.at(x, y) = kind == 0   ? n
                   : kind == 1 ? (rng() % 10 == 0 ? n : 0)
                   : kind == 2 ? 30 + n % 226
                   : kind == 3 ? blocks[(y / 4 % 16) * 16 + x / 4 % 16]
                   : kind == 4
                       ? std::lround(255 * std::clamp(0.5 - e / ramp, 0.0, 1.0))
                       : (e < 0 ? 255 : 0);
    }
  for (int k = 0; kind == 5 && k < 30; ++k) {
    const int side = 1 + rng() % 3, x0 = rng() % width, y0 = rng() % height;
    const unsigned char v = rng() % 2 ? 255 : 90 + rng() % 100;
    for (int y = y0; y < std::min(y0 + side, height); ++y)
      for (int x = x0; x < std::min(x0 + side, width); ++x) p.at(x, y) = v;
    if (2 * k < std::min(width, height)) p.at(2 * k, 2 * k) = 255;
  }
  return p;
}

// Labels each pixel of a plane of `step` columns with the smallest index of
// its 4-connected component of equal values, spreading minima until nothing
// changes; counts the sizes.
struct Components {
  std::vector<int> label, size;
};

Components FloodFill(const std::vector<int>& values, int step) {
  const int n = int(values.size());
  Components c{std::vector<int>(n), std::vector<int>(n, 0)};
  std::iota(c.label.begin(), c.label.end(), 0);
  for (bool changed = true; changed;) {
    changed = false;
    for (int i = 0; i < n; ++i)
      for (int j : {(i + 1) % step ? i + 1 : n, i + step}) {
        if (j >= n || values[j] != values[i] || c.label[i] == c.label[j])
          continue;
        c.label[i] = c.label[j] = std::min(c.label[i], c.label[j]);
        changed = true;
      }
  }
  for (int l : c.label) ++c.size[l];
  return c;
}

// Box mean over the window's part on the image; ksize 3 instead clamps rows
// and lets the outer columns use three copies of themselves.
int MeanReference(const Plane& p, int x, int y, int ksize) {
  if (ksize != 3)
    return Window(p.px.data(), p.stride, 1, p.width, p.height, nullptr, x, y, 0,
                  ksize, 0);
  int sum = 0;
  for (int v = y - 1; v <= y + 1; ++v)
    for (int u = x - 1; u <= x + 1; ++u)
      sum += p.at(x == 0 || x == p.width - 1 ? x : u,
                  std::clamp(v, 0, p.height - 1));
  return (sum + 4) / 9;
}

// Maximum (op 1) or minimum (2) over the window's part on the image,
// iterated (at least once).
Plane Extremum(const Plane& p, int ksize, int iterations, int op) {
  Plane cur = p;
  for (int it = 0; it < std::max(iterations, 1); ++it) {
    Plane next = cur;
    for (int y = 0; y < p.height; ++y)
      for (int x = 0; x < p.width; ++x)
        next.at(x, y) = static_cast<unsigned char>(
            Window(cur.px.data(), cur.stride, 1, p.width, p.height, nullptr, x,
                   y, 0, ksize, op));
    cur = std::move(next);
  }
  return cur;
}

// Both edge operators on small planes, where the extremum window is 7.
Plane EdgeReference(const Plane& src, const Plane& hi, const Plane& lo,
                    int ksize, bool smooth) {
  Plane out = src;
  for (int y = 0; y < src.height; ++y)
    for (int x = 0; x < src.width; ++x) {
      const float m = static_cast<float>(MeanReference(src, x, y, ksize));
      const float mx = hi.at(x, y);
      float v = 0.0f;
      if (mx != 0.0f && smooth) {
        float r = m / mx;
        if (r != 1.0f) {
          const float cap = std::min<int>(lo.at(x, y), 32);
          r = std::pow(r, std::max(2.0f - r - cap / 64.0f, 1.0f));
        }
        v = r * mx + 0.5f;
      } else if (mx != 0.0f) {
        const float t = 1.0f - m / mx;
        v = (1.0f - t * t) * mx + 0.5f;
      }
      out.at(x, y) = static_cast<unsigned char>(std::clamp(v, 0.0f, 255.0f));
    }
  return out;
}

// Equal pixels whatever each plane's padding, and got's padding untouched.
bool Matches(const Plane& got, const Plane& want) {
  using softmatte_test::Packed;
  return softmatte_test::PaddingIntact(got.px, got.width, got.height,
                                       got.stride) &&
         Packed(got.px.data(), got.width, got.height, got.stride) ==
             Packed(want.px.data(), want.width, want.height, want.stride);
}

// Every cleanup function against its brute-force reference, and the
// edge-only versions against the whole-plane ones, out of place into planes
// of another padding and in place.
TEST(MatteCleanup, MatchesBruteForceReferences) {
  std::mt19937 rng(1);
  const int sizes[][2] = {{1, 1},   {1, 9},  {2, 16}, {5, 9},   {13, 1},
                          {13, 16}, {31, 9}, {37, 2}, {65, 63}, {129, 97}};
  for (int kind = 0; kind < 6; ++kind)
    for (const auto& [width, height] : sizes) {
      SCOPED_TRACE(testing::Message()
                   << "kind " << kind << ", " << width << "x" << height);
      const Plane src = MakeMatte(width, height, kind, rng);
      const int step = width + 5;  // counted in ints
      std::vector<int> ints(size_t(step) * height, -12345), want_ints = ints;
      for (int i = 0; i < step * height; ++i)
        if (i % step < width)
          want_ints[i] = MeanReference(src, i % step, i / step, 3);
      mean_filter_3x3(src.px.data(), width, height, src.stride, ints.data(),
                      step);
      ASSERT_EQ(ints, want_ints);

      const Plane hi7 = Extremum(src, 7, 1, 1), lo7 = Extremum(src, 7, 1, 2);
      for (int ksize : {1, 2, 3, 5, 9})
        for (bool smooth : {true, false}) {
          Plane dst(width, height, 0, 4), in_place = src;
          (smooth ? mat_smooth_boundary : mat_dilate)(
              src.px.data(), width, height, src.stride, dst.data(), dst.stride,
              ksize);
          // Even windows have no reference here: they are held to the
          // edge-only version alone.
          ASSERT_TRUE(ksize == 2 || Matches(dst, EdgeReference(src, hi7, lo7,
                                                               ksize, smooth)));
          // The session filters its matte in place.
          _erode_dilate(in_place.data(), width, height, in_place.stride,
                        in_place.data(), in_place.stride, ksize, smooth,
                        nullptr);
          ASSERT_TRUE(Matches(in_place, dst));
          if (!smooth) continue;
          Plane band(width, height, 0, 2), band_in_place = src;
          smooth_boundary_band(src.px.data(), width, height, src.stride,
                               band.data(), band.stride, ksize);
          smooth_boundary_band(band_in_place.data(), width, height,
                               band_in_place.stride, band_in_place.data(),
                               band_in_place.stride, ksize);
          ASSERT_TRUE(Matches(band, dst) && Matches(band_in_place, dst));
        }

      for (int threshold : {0, 1, 100, 254, 255}) {
        std::vector<int> fg(src.px.size()), sizes_fg;
        for (size_t i = 0; i < fg.size(); ++i)
          fg[i] = int(i % src.stride) < width &&
                  (threshold == 255 || src.px[i] > threshold);
        const Components c = FloodFill(fg, src.stride);
        for (size_t i = 0; i < fg.size(); ++i)
          if (fg[i] && c.label[i] == int(i)) sizes_fg.push_back(c.size[i]);
        std::sort(sizes_fg.rbegin(), sizes_fg.rend());
        for (int keep : {0, 1, 2, 3, 6}) {
          // Every foreground fragment smaller than the keep-th largest goes.
          Plane want = src, got = src, runs = src;
          for (size_t i = 0; i < fg.size(); ++i)
            if (keep >= 1 && int(sizes_fg.size()) > keep && fg[i] &&
                c.size[c.label[i]] < sizes_fg[keep - 1])
              want.px[i] = 0;
          const auto t = static_cast<unsigned char>(threshold);
          vm_erase_small_cc(got.data(), width, height, got.stride, t, keep);
          erase_small_cc_runs(runs.data(), width, height, runs.stride, t, keep);
          ASSERT_TRUE(Matches(got, want) && Matches(runs, want))
              << threshold << " " << keep;
        }
      }

      // A trimap-like guide, mostly unknown, and a trimap to shrink.
      Plane guide(width, height), trimap(width, height);
      const unsigned char guides[] = {128, 128, 128, 128, 0, 255, 77};
      for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
          guide.at(x, y) = guides[rng() % 7],
                      trimap.at(x, y) = std::min<int>(128 * (rng() % 3), 255);
      for (int threshold : {-3, 0, 1, 77, 128, 200, 255, 300}) {
        // A fragment at or above threshold stays only if some guide pixel
        // of it is above threshold and not 128.
        std::vector<int> bin(src.px.size());
        for (size_t i = 0; i < bin.size(); ++i)
          bin[i] = int(i % src.stride) >= width ? 2 : src.px[i] >= threshold;
        const Components c = FloodFill(bin, src.stride);
        std::vector<bool> kept(c.size.size(), false);
        for (int y = 0; y < height; ++y)
          for (int x = 0; x < width; ++x)
            if (guide.at(x, y) != 128 && guide.at(x, y) > threshold)
              kept[c.label[size_t(y) * src.stride + x]] = true;
        Plane want = src, dst(width, height, 0, 4), in_place = src;
        for (size_t i = 0; i < bin.size(); ++i)
          if (bin[i] != 2 && !kept[c.label[i]]) want.px[i] = 0;
        mat_remove_isolated(src.px.data(), width, height, src.stride,
                            guide.data(), guide.stride, dst.data(), dst.stride,
                            threshold);
        mat_remove_isolated(in_place.data(), width, height, in_place.stride,
                            guide.data(), guide.stride, in_place.data(),
                            in_place.stride, threshold);
        ASSERT_TRUE(Matches(dst, want) && Matches(in_place, want)) << threshold;
      }
      for (int ksize : {1, 3, 5})
        for (int iterations : {0, 1, 3}) {
          const Plane hi = Extremum(src, ksize, iterations, 1),
                      lo = Extremum(src, ksize, iterations, 2);
          for (auto [l, h] :
               {std::pair{10, 245}, {128, 128}, {255, 0}, {0, 255}}) {
            Plane want = trimap, got = trimap;
            for (int y = 0; y < height; ++y)
              for (int x = 0; x < width; ++x)
                want.at(x, y) = lo.at(x, y) > h   ? 255
                                : hi.at(x, y) < l ? 0
                                                  : want.at(x, y);
            mat_shrink_unknown_mm(src.px.data(), width, height, src.stride,
                                  got.data(), got.stride, ksize, iterations,
                                  static_cast<unsigned char>(l),
                                  static_cast<unsigned char>(h));
            ASSERT_TRUE(Matches(got, want))
                << "shrink " << ksize << " " << iterations << " " << l << h;
          }
        }
    }
}

TEST(MatteCleanup, NullPlanesAndEmptySizesLeaveEverythingAlone) {
  std::mt19937 rng(3);
  Plane a = MakeMatte(9, 7, 0, rng), b = MakeMatte(9, 7, 0, rng);
  const Plane a0 = a, b0 = b;
  int ints[63] = {};
  const int s = a.stride;
  mat_smooth_boundary(nullptr, 9, 7, s, b.data(), s, 3);
  mat_dilate(a.data(), 9, 7, s, nullptr, s, 3);
  _erode_dilate(nullptr, 9, 7, s, b.data(), s, 5, true, nullptr);
  mean_filter_3x3(nullptr, 9, 7, 9, ints, 9);
  vm_erase_small_cc(nullptr, 9, 7, s, 0, 1);
  mat_remove_isolated(a.data(), 9, 7, s, nullptr, s, b.data(), s, 10);
  mat_remove_isolated(a.data(), 9, 7, s, a.data(), s, nullptr, s, 10);
  mat_shrink_unknown_mm(nullptr, 9, 7, s, b.data(), s, 3, 1, 10, 245);
  mat_shrink_unknown_mm(a.data(), 9, 7, s, nullptr, s, 3, 1, 10, 245);
  mat_erase_unknown_fragment(nullptr, 9, 7, s, 1, 254);
  smooth_boundary_band(nullptr, 9, 7, s, b.data(), s, 3);
  smooth_boundary_band(a.data(), 9, 7, s, nullptr, s, 3);
  smooth_boundary_band(a.data(), 0, 7, s, b.data(), s, 3);
  smooth_boundary_band(a.data(), 9, 0, s, b.data(), s, 3);
  erase_small_cc_runs(nullptr, 9, 7, s, 0, 1);
  erase_small_cc_runs(b.data(), 9, 0, s, 0, 1);
  erase_small_cc_runs(b.data(), 0, 7, s, 0, 1);
  EXPECT_TRUE(a.px == a0.px && b.px == b0.px &&
              std::count(ints, ints + 63, 0) == 63);
  EXPECT_EQ(mat_estimate_opt_level(nullptr, 9, 7, s, 2, 2), 1.0);
}

TEST(BrushFilters, ErodeDilateSmoothAndThresholdMatchReference) {
  int b[4] = {1, 2, 2, 0};  // the window runs past some of these
  for (int w : {5, 19, 23}) {
    const int h = 6, s = (w + 4) * 3 + 1;
    const Bytes big = RandomPlane((w + 4) * 3, h + 4, s, w);
    const unsigned char* alpha = big.data() + 2 * s + 2;  // 3 channels at +6
    const Bytes weight = RandomPlane(w, h, s, w + 1),
                dst = RandomPlane(w * 3, h, s, w + 2);
    Bytes ero = dst, dil = dst, smooth = dst, out1 = dst, out2 = dst;
    mat_erode_brush(alpha, w, h, s, weight.data(), s, ero.data(), s, 5, b);
    mat_dilate_brush(alpha, w, h, s, weight.data(), s, dil.data(), s, 5, b);
    mat_smooth_brush(alpha + 4, w, h, s, 3, smooth.data(), s, 3, b);
    mat_brush_threshold(alpha, w, h, s, out1.data(), s, out2.data(), s, 3, b,
                        215, 40);
    Bytes ero_want = dst, dil_want = dst, smooth_want = dst, out_want = dst;
    const int kmax = ((w / 2) | 1) < 8 ? 7 : (w / 2) | 1;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int i = y * s + x,
                  m = Window(alpha, s, 1, w, h, b, x, y, 0, 5, 0);
        const int top = Window(alpha, s, 1, w, h, nullptr, x, y, 0, kmax, 1);
        const int wm = weight[i] * m;
        if (top > 0) {
          ero_want[i] =
              std::min(+ero_want[i], m + (m - top) * wm / (top * 256));
          dil_want[i] =
              std::max(+dil_want[i], m + (top - m) * wm / (top * 256));
        }
        for (int c = 0; c < 3; ++c)
          smooth_want[y * s + x * 3 + c] =
              Window(alpha + 4, s, 3, w, h, b, x, y, c, 3, 0);
        if (Window(alpha, s, 1, w, h, b, x, y, 0, 3, 1) < 215) out_want[i] = 0;
        if (Window(alpha, s, 1, w, h, b, x, y, 0, 3, 2) > 40) out_want[i] = 255;
      }
    EXPECT_TRUE(ero == ero_want && dil == dil_want && smooth == smooth_want &&
                out1 == out_want && out2 == out_want)
        << "width " << w;
  }
}

TEST(BrushStrokes, SetAndUndoMatchReferenceAndApplyOncePerStroke) {
  for (int w : {1, 17}) {
    const int h = 3, s = w * 3 + 2, n = s * h;
    const Bytes alpha = RandomPlane(w, h, s, 1);
    Bytes wt = RandomPlane(w, h, s, 2);
    // Weight 128 times an odd difference lands on the rounding constant.
    for (int i = 0; i < n; i += 2) wt[i] = i % s < w ? 128 : wt[i];
    const Bytes saved = RandomPlane(w * 3, h, s, 3),
                acc0 = RandomPlane(w, h, s, 4);
    Bytes acc = acc0, dst = RandomPlane(w * 3, h, s, 5), acc_want = acc0;
    Bytes want = dst;
    for (int i = 0; i < n; ++i)
      if (i % s < w && acc_want[i] < wt[i])
        want[i] = alpha[i] + (((200 - alpha[i]) * wt[i] + 128) >> 8),
        acc_want[i] = wt[i];
    // The second pass of the same stroke finds its weights already applied.
    for (unsigned char value : {200, 0}) {
      mat_set_brush(alpha.data(), w, h, s, wt.data(), s, acc.data(), s,
                    dst.data(), s, value);
      EXPECT_TRUE(dst == want && acc == acc_want) << "width " << w;
    }
    for (int channels : {3, 0})
      for (bool track : {false, true}) {
        acc = acc_want = acc0;
        mat_undo_brush(saved.data(), w, h, s, channels, wt.data(), s,
                       acc.data(), s, dst.data(), s, track);
        for (int a = 0; a < n; ++a) {
          if (a % s >= w || (acc_want[a] >= wt[a] && channels > 0)) continue;
          const int x = a % s, i = a - x + 3 * x;
          for (int c = 0; c < channels; ++c)
            want[i + c] += ((saved[i + c] - want[i + c]) * wt[a] + 127) >> 8;
          if (track) acc_want[a] = std::max(acc_want[a], wt[a]);
        }
        EXPECT_TRUE(dst == want && acc == acc_want) << "width " << w;
      }
  }
}

}  // namespace
