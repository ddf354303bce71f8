#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "softmatte/edit.h"
#include "test_util.h"

namespace {

// A one-channel plane whose rows are padded with the sentinel.
struct Plane {
  int width, height, stride;
  std::vector<unsigned char> px;
  Plane(int w, int h, unsigned char fill = 0)
      : width(w), height(h), stride(w + 3) {
    px.assign(size_t(stride) * h, softmatte_test::kSentinel);
    for (int y = 0; y < h; ++y) std::fill_n(&at(0, y), w, fill);
  }
  unsigned char& at(int x, int y) { return px[size_t(y) * stride + x]; }
  unsigned char at(int x, int y) const { return px[size_t(y) * stride + x]; }
  unsigned char* data() { return px.data(); }
};

// Mattes that reach the different branches: noise, mostly empty (zero
// maxima), bright (high minima) and flat 4x4 blocks (mean equal to maximum).
Plane MakeMatte(int width, int height, int kind, std::mt19937& rng) {
  Plane p(width, height);
  std::vector<unsigned char> blocks(16 * 16);
  for (auto& b : blocks) b = rng() % 4 == 0 ? 0 : rng() % 3 == 0 ? 255 : rng();
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const unsigned char r = static_cast<unsigned char>(rng());
      p.at(x, y) = kind == 0   ? r
                   : kind == 1 ? (rng() % 10 == 0 ? r : 0)
                   : kind == 2 ? 30 + r % 226
                               : blocks[(y / 4 % 16) * 16 + x / 4 % 16];
    }
  }
  return p;
}

// Labels each pixel with the smallest index of its 4-connected component of
// equal values, spreading minima until nothing changes; counts the sizes.
struct Components {
  std::vector<int> label, size;
};

Components FloodFill(const std::vector<int>& values, int width) {
  const int n = int(values.size());
  Components c{std::vector<int>(n), std::vector<int>(n, 0)};
  for (int i = 0; i < n; ++i) c.label[i] = i;
  for (bool changed = true; changed;) {
    changed = false;
    for (int i = 0; i < n; ++i) {
      for (int j : {(i + 1) % width ? i + 1 : n, i + width}) {
        if (j >= n || values[j] != values[i] || c.label[i] == c.label[j])
          continue;
        c.label[i] = c.label[j] = std::min(c.label[i], c.label[j]);
        changed = true;
      }
    }
  }
  for (int l : c.label) ++c.size[l];
  return c;
}

// Box mean over the window's part on the image; ksize 3 instead clamps rows
// and lets the outer columns use three copies of themselves.
int MeanReference(const Plane& p, int x, int y, int ksize) {
  const int r = ksize / 2;
  int sum = 0, count = 0;
  for (int v = y - r; v <= y + r; ++v) {
    for (int u = x - r; u <= x + r; ++u) {
      const bool outer = x == 0 || x == p.width - 1;
      if (ksize == 3) {
        sum += p.at(outer ? x : u, std::clamp(v, 0, p.height - 1)), ++count;
      } else if (u >= 0 && v >= 0 && u < p.width && v < p.height) {
        sum += p.at(u, v), ++count;
      }
    }
  }
  return (sum + count / 2) / count;
}

// Extremum over the window's part on the image, iterated (at least once).
Plane Extremum(const Plane& p, int ksize, int iterations, bool maximum) {
  Plane cur = p;
  const int r = ksize / 2;
  for (int it = 0; it < std::max(iterations, 1); ++it) {
    Plane next = cur;
    for (int y = 0; y < p.height; ++y) {
      for (int x = 0; x < p.width; ++x) {
        int e = maximum ? 0 : 255;
        for (int v = std::max(0, y - r); v <= std::min(p.height - 1, y + r);
             ++v)
          for (int u = std::max(0, x - r); u <= std::min(p.width - 1, x + r);
               ++u)
            e = maximum ? std::max<int>(e, cur.at(u, v))
                        : std::min<int>(e, cur.at(u, v));
        next.at(x, y) = static_cast<unsigned char>(e);
      }
    }
    cur = std::move(next);
  }
  return cur;
}

// Both edge operators on small planes, where the extremum window is 7.
Plane EdgeReference(const Plane& src, int ksize, bool smooth) {
  const Plane hi = Extremum(src, 7, 1, true), lo = Extremum(src, 7, 1, false);
  Plane out = src;
  for (int y = 0; y < src.height; ++y) {
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
  }
  return out;
}

// Sets to 0 every foreground fragment smaller than the keep-th largest.
Plane EraseSmallReference(Plane alpha, int threshold, int keep) {
  std::vector<int> fg(alpha.px.size()), sizes;
  for (size_t i = 0; i < fg.size(); ++i)
    fg[i] = int(i % alpha.stride) < alpha.width &&
            (threshold == 255 || alpha.px[i] > threshold);
  const Components c = FloodFill(fg, alpha.stride);
  std::vector<int> is_fg(c.size.size());
  for (size_t i = 0; i < fg.size(); ++i) is_fg[c.label[i]] = fg[i];
  for (size_t id = 0; id < c.size.size(); ++id)
    if (is_fg[id]) sizes.push_back(c.size[id]);
  if (int(sizes.size()) <= keep) return alpha;
  std::sort(sizes.rbegin(), sizes.rend());
  for (size_t i = 0; i < fg.size(); ++i)
    if (fg[i] && c.size[c.label[i]] < sizes[keep - 1]) alpha.px[i] = 0;
  return alpha;
}

// Keeps a fragment at or above threshold only if some guide pixel of it is
// above threshold and not 128.
Plane RemoveIsolatedReference(Plane alpha, const Plane& guide, int threshold) {
  std::vector<int> bin(alpha.px.size());
  for (size_t i = 0; i < bin.size(); ++i)
    bin[i] =
        int(i % alpha.stride) >= alpha.width ? 2 : alpha.px[i] >= threshold;
  const Components c = FloodFill(bin, alpha.stride);
  std::vector<bool> kept(c.size.size(), false);
  for (size_t i = 0; i < bin.size(); ++i)
    if (bin[i] != 2 && guide.px[i] != 128 && guide.px[i] > threshold)
      kept[c.label[i]] = true;
  for (size_t i = 0; i < bin.size(); ++i)
    if (bin[i] != 2 && !kept[c.label[i]]) alpha.px[i] = 0;
  return alpha;
}

// Every cleanup function against its brute-force reference; each output
// plane is compared whole, so its padding must keep the sentinel.
TEST(MatteCleanup, MatchesBruteForceReferences) {
  std::mt19937 rng(1);
  for (int kind = 0; kind < 4; ++kind) {
    for (int width : {1, 2, 5, 13, 31}) {
      for (int height : {1, 9, 16}) {
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

        for (int ksize : {1, 3, 5, 9}) {
          for (bool smooth : {true, false}) {
            const Plane want = EdgeReference(src, ksize, smooth);
            Plane dst(width, height);
            (smooth ? mat_smooth_boundary : mat_dilate)(
                src.px.data(), width, height, src.stride, dst.data(),
                dst.stride, ksize);
            ASSERT_EQ(dst.px, want.px)
                << "ksize " << ksize << " smooth " << smooth;
            // The session filters its matte in place.
            dst = src;
            _erode_dilate(dst.data(), width, height, dst.stride, dst.data(),
                          dst.stride, ksize, smooth, nullptr);
            ASSERT_EQ(dst.px, want.px) << "in place, ksize " << ksize;
          }
        }

        for (int threshold : {0, 1, 100, 254, 255}) {
          for (int keep : {1, 2, 3, 6}) {
            Plane got = src;
            vm_erase_small_cc(got.data(), width, height, got.stride,
                              static_cast<unsigned char>(threshold), keep);
            ASSERT_EQ(got.px, EraseSmallReference(src, threshold, keep).px)
                << "erase, threshold " << threshold << " keep " << keep;
          }
        }

        // A trimap-like guide, mostly unknown, and a trimap to shrink.
        Plane guide(width, height), trimap(width, height);
        const unsigned char guides[] = {128, 128, 128, 128, 0, 255, 77};
        const unsigned char values[3] = {0, 128, 255};
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            guide.at(x, y) = guides[rng() % 7];
            trimap.at(x, y) = values[rng() % 3];
          }
        }
        for (int threshold : {-3, 0, 1, 77, 128, 200, 255, 300}) {
          const Plane want = RemoveIsolatedReference(src, guide, threshold);
          Plane dst(width, height);
          mat_remove_isolated(src.px.data(), width, height, src.stride,
                              guide.data(), guide.stride, dst.data(),
                              dst.stride, threshold);
          ASSERT_EQ(dst.px, want.px) << "isolated, threshold " << threshold;
          dst = src;
          mat_remove_isolated(dst.data(), width, height, dst.stride,
                              guide.data(), guide.stride, dst.data(),
                              dst.stride, threshold);
          ASSERT_EQ(dst.px, want.px)
              << "isolated in place, threshold " << threshold;
        }

        for (int ksize : {1, 3, 5}) {
          for (int iterations : {0, 1, 3}) {
            const Plane hi = Extremum(src, ksize, iterations, true);
            const Plane lo = Extremum(src, ksize, iterations, false);
            for (auto [l, h] :
                 {std::pair{10, 245}, {128, 128}, {255, 0}, {0, 255}}) {
              Plane want = trimap, got = trimap;
              for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                  if (hi.at(x, y) < l) want.at(x, y) = 0;
                  if (lo.at(x, y) > h) want.at(x, y) = 255;
                }
              }
              mat_shrink_unknown_mm(src.px.data(), width, height, src.stride,
                                    got.data(), got.stride, ksize, iterations,
                                    static_cast<unsigned char>(l),
                                    static_cast<unsigned char>(h));
              ASSERT_EQ(got.px, want.px)
                  << "shrink, ksize " << ksize << " iterations " << iterations
                  << " lo " << l << " hi " << h;
            }
          }
        }
      }
    }
  }
}

TEST(MatteCleanup, PinnedExponentAndWindowSizes) {
  // The centre sees a mean of 100 under a maximum of 200: dilating closes a
  // quarter of the gap; smoothing raises the ratio 0.5 to 1.5 when the
  // neighbourhood is dark, to 1 when its minimum reaches 32.
  const unsigned char dark[9] = {200, 100, 100, 100, 100, 100, 100, 100, 0};
  const unsigned char lit[9] = {200, 100, 100, 100, 100, 100, 100, 60, 40};
  unsigned char out[9];
  mat_dilate(dark, 3, 3, 3, out, 3, 3);
  EXPECT_EQ(out[4], 150);
  mat_smooth_boundary(dark, 3, 3, 3, out, 3, 3);
  EXPECT_EQ(out[4], 71);
  mat_smooth_boundary(lit, 3, 3, 3, out, 3, 3);
  EXPECT_EQ(out[4], 100);

  // The extremum window is 7 up to about 1.2 megapixels and grows with the
  // area after that: the reach of a dilated 5x5 square shows it.
  for (auto [width, height, window] :
       {std::tuple{1024, 1024, 7}, {1200, 1000, 9}, {1500, 1000, 11}}) {
    Plane src(width, height), dst(width, height);
    for (int y = height / 2 - 2; y <= height / 2 + 2; ++y)
      std::fill_n(&src.at(width / 2 - 2, y), 5, 255);
    mat_dilate(src.data(), width, height, src.stride, dst.data(), dst.stride,
               31);
    const unsigned char* row = &dst.at(0, height / 2);
    EXPECT_EQ(width - std::count(row, row + width, 0), 5 + window - 1)
        << width << "x" << height;
  }

  // Unknown holes take the class around them (250 counts as foreground and
  // 5 as background under 10/240; 60 is neither); holes across the edge,
  // beside a neither value, or on the outermost columns only, do not.
  Plane t(14, 9, 250);
  for (int y = 0; y < 9; ++y) std::fill_n(&t.at(7, y), 7, 5);
  t.at(2, 2) = t.at(3, 2) = t.at(10, 2) = t.at(6, 4) = t.at(7, 4) = t.at(2, 6) =
      128;
  t.at(0, 4) = t.at(0, 5) = t.at(13, 8) = 128;
  t.at(3, 6) = 60;
  Plane want = t;
  want.at(2, 2) = want.at(3, 2) = 255;
  want.at(10, 2) = want.at(0, 4) = want.at(0, 5) = want.at(13, 8) = 0;
  mat_erase_unknown_fragment(t.data(), 14, 9, t.stride, 10, 240);
  EXPECT_EQ(t.px, want.px);
}

TEST(MatteCleanup, NullPlanesLeaveEverythingAlone) {
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
  EXPECT_EQ(a.px, a0.px);
  EXPECT_EQ(b.px, b0.px);
  EXPECT_EQ(std::count(ints, ints + 63, 0), 63);
}

}  // namespace
