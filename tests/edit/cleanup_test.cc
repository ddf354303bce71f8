#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "softmatte/edit.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;

// A one-channel 8-bit plane whose rows are padded with kSentinel.
struct Plane {
  int width = 0;
  int height = 0;
  int stride = 0;
  std::vector<unsigned char> px;

  Plane(int w, int h, int pad, unsigned char fill = 0)
      : width(w), height(h), stride(w + pad) {
    px.assign(static_cast<size_t>(stride) * h, kSentinel);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) at(x, y) = fill;
    }
  }
  unsigned char& at(int x, int y) {
    return px[static_cast<size_t>(y) * stride + x];
  }
  unsigned char at(int x, int y) const {
    return px[static_cast<size_t>(y) * stride + x];
  }
  unsigned char* data() { return px.data(); }
  bool padding_intact() const {
    return PaddingIntact(px, width, height, stride);
  }
};

// Mattes that reach the different branches of the cleanup rules: random
// noise, mostly-empty planes (zero maxima), bright planes (high minima) and
// flat blocks (mean equal to maximum).
enum class Kind { kNoise, kSparse, kBright, kBlocks };

Plane MakeMatte(int width, int height, int pad, Kind kind, uint32_t seed) {
  std::mt19937 rng(seed);
  Plane p(width, height, pad);
  std::vector<unsigned char> blocks(64 * 64);
  for (auto& b : blocks) {
    const uint32_t r = rng() % 4;
    b = r == 0 ? 0 : r == 1 ? 255 : static_cast<unsigned char>(rng());
  }
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      unsigned char v = 0;
      switch (kind) {
        case Kind::kNoise:
          v = static_cast<unsigned char>(rng());
          break;
        case Kind::kSparse:
          v = rng() % 10 == 0 ? static_cast<unsigned char>(rng()) : 0;
          break;
        case Kind::kBright:
          v = static_cast<unsigned char>(30 + rng() % 226);
          break;
        case Kind::kBlocks:
          v = blocks[(y / 4 % 64) * 64 + x / 4 % 64];
          break;
      }
      p.at(x, y) = v;
    }
  }
  return p;
}

// 4-connected components of equal value by flood fill: labels per pixel
// (row-major, no padding) and the size of each label.
struct Components {
  std::vector<int> label;
  std::vector<int> size;
};

Components FloodFill(const std::vector<int>& values, int width, int height) {
  Components c;
  c.label.assign(values.size(), -1);
  std::vector<int> stack;
  for (int start = 0; start < width * height; ++start) {
    if (c.label[start] >= 0) continue;
    const int id = static_cast<int>(c.size.size());
    c.size.push_back(0);
    c.label[start] = id;
    stack.push_back(start);
    while (!stack.empty()) {
      const int i = stack.back();
      stack.pop_back();
      ++c.size[id];
      const int x = i % width;
      const int y = i / width;
      const int nbrs[4][2] = {{x - 1, y}, {x + 1, y}, {x, y - 1}, {x, y + 1}};
      for (const auto& n : nbrs) {
        if (n[0] < 0 || n[0] >= width || n[1] < 0 || n[1] >= height) continue;
        const int j = n[1] * width + n[0];
        if (c.label[j] < 0 && values[j] == values[i]) {
          c.label[j] = id;
          stack.push_back(j);
        }
      }
    }
  }
  return c;
}

// Box mean over the part of the window that lies on the image.
int MeanReference(const Plane& p, int x, int y, int ksize) {
  const int r = ksize / 2;
  int sum = 0;
  int count = 0;
  for (int v = std::max(0, y - r); v <= std::min(p.height - 1, y + r); ++v) {
    for (int u = std::max(0, x - r); u <= std::min(p.width - 1, x + r); ++u) {
      sum += p.at(u, v);
      ++count;
    }
  }
  return (sum + count / 2) / count;
}

// The 3x3 mean: rows clamp to the plane, while the outer columns use
// three copies of themselves rather than their inner neighbour.
int Mean3x3Reference(const Plane& p, int x, int y) {
  int sum = 0;
  for (int dy = -1; dy <= 1; ++dy) {
    const int v = std::clamp(y + dy, 0, p.height - 1);
    for (int dx = -1; dx <= 1; ++dx) {
      const bool outer = x == 0 || x == p.width - 1;
      sum += p.at(outer ? x : x + dx, v);
    }
  }
  return (sum + 4) / 9;
}

// Extremum over the part of the window that lies on the image, applied
// iterations times (at least once).
Plane ExtremumReference(const Plane& p, int ksize, int iterations,
                        bool maximum) {
  Plane cur = p;
  const int r = ksize / 2;
  for (int it = 0; it < std::max(iterations, 1); ++it) {
    Plane next = cur;
    for (int y = 0; y < p.height; ++y) {
      for (int x = 0; x < p.width; ++x) {
        int e = maximum ? 0 : 255;
        for (int v = std::max(0, y - r); v <= std::min(p.height - 1, y + r);
             ++v) {
          for (int u = std::max(0, x - r); u <= std::min(p.width - 1, x + r);
               ++u) {
            e = maximum ? std::max<int>(e, cur.at(u, v))
                        : std::min<int>(e, cur.at(u, v));
          }
        }
        next.at(x, y) = static_cast<unsigned char>(e);
      }
    }
    cur = std::move(next);
  }
  return cur;
}

unsigned char ToByte(float v) {
  return static_cast<unsigned char>(std::clamp(v, 0.0f, 255.0f));
}

// Both edge operators on small planes, where the extremum window is 7.
Plane EdgeReference(const Plane& src, int ksize, bool smooth) {
  const Plane hi = ExtremumReference(src, 7, 1, true);
  const Plane lo = ExtremumReference(src, 7, 1, false);
  Plane out = src;
  for (int y = 0; y < src.height; ++y) {
    for (int x = 0; x < src.width; ++x) {
      const int m = ksize == 3 ? Mean3x3Reference(src, x, y)
                               : MeanReference(src, x, y, ksize);
      const float mx = hi.at(x, y);
      float v = 0.0f;
      if (mx != 0.0f && smooth) {
        float r = static_cast<float>(m) / mx;
        if (r != 1.0f) {
          const float cap = std::min<int>(lo.at(x, y), 32);
          r = std::pow(r, std::max(2.0f - r - cap / 64.0f, 1.0f));
        }
        v = r * mx + 0.5f;
      } else if (mx != 0.0f) {
        const float t = 1.0f - static_cast<float>(m) / mx;
        v = (1.0f - t * t) * mx + 0.5f;
      }
      out.at(x, y) = ToByte(v);
    }
  }
  return out;
}

constexpr Kind kKinds[] = {Kind::kNoise, Kind::kSparse, Kind::kBright,
                           Kind::kBlocks};

void ExpectPlanesEqual(const Plane& got, const Plane& want, const char* what) {
  for (int y = 0; y < want.height; ++y) {
    for (int x = 0; x < want.width; ++x) {
      ASSERT_EQ(+got.at(x, y), +want.at(x, y))
          << what << " " << want.width << "x" << want.height << " at (" << x
          << ", " << y << ")";
    }
  }
  ASSERT_TRUE(got.padding_intact()) << what;
}

TEST(MeanFilter3x3, MatchesReferenceAndKeepsIntPadding) {
  constexpr int kIntSentinel = -12345;
  uint32_t seed = 1;
  for (int width : {1, 2, 3, 4, 9, 17}) {
    for (int height : {1, 2, 3, 8}) {
      const Plane src = MakeMatte(width, height, 3, Kind::kNoise, seed++);
      const int dst_step = width + 5;  // counted in ints
      std::vector<int> dst(static_cast<size_t>(dst_step) * height,
                           kIntSentinel);
      mean_filter_3x3(src.px.data(), width, height, src.stride, dst.data(),
                      dst_step);
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < dst_step; ++x) {
          const int want =
              x < width ? Mean3x3Reference(src, x, y) : kIntSentinel;
          ASSERT_EQ(dst[static_cast<size_t>(y) * dst_step + x], want)
              << width << "x" << height << " at (" << x << ", " << y << ")";
        }
      }
    }
  }
}

TEST(MeanFilter3x3, OuterColumnIgnoresItsInnerNeighbour) {
  Plane src(4, 3, 0);
  for (int y = 0; y < 3; ++y) {
    src.at(1, y) = 255;
    src.at(2, y) = 255;
  }
  std::vector<int> dst(12);
  mean_filter_3x3(src.data(), 4, 3, 4, dst.data(), 4);
  for (int y = 0; y < 3; ++y) {
    EXPECT_EQ(dst[y * 4 + 0], 0);
    EXPECT_EQ(dst[y * 4 + 1], 170);
    EXPECT_EQ(dst[y * 4 + 2], 170);
    EXPECT_EQ(dst[y * 4 + 3], 0);
  }
}

TEST(EdgeOperators, MatchReferenceOnSmallMattesAlsoInPlace) {
  uint32_t seed = 100;
  for (Kind kind : kKinds) {
    for (int width : {1, 2, 5, 13, 31}) {
      for (int height : {1, 3, 9, 16}) {
        for (int ksize : {1, 3, 5, 9}) {
          const Plane src = MakeMatte(width, height, 3, kind, seed++);
          for (bool smooth : {true, false}) {
            Plane dst(width, height, 6);
            if (smooth) {
              mat_smooth_boundary(src.px.data(), width, height, src.stride,
                                  dst.data(), dst.stride, ksize);
            } else {
              mat_dilate(src.px.data(), width, height, src.stride, dst.data(),
                         dst.stride, ksize);
            }
            const Plane want = EdgeReference(src, ksize, smooth);
            ASSERT_NO_FATAL_FAILURE(
                ExpectPlanesEqual(dst, want, smooth ? "smooth" : "dilate"));
            // The session filters its matte in place.
            Plane same = src;
            _erode_dilate(same.data(), width, height, same.stride, same.data(),
                          same.stride, ksize, smooth, nullptr);
            ASSERT_NO_FATAL_FAILURE(ExpectPlanesEqual(same, want, "in place"));
          }
        }
      }
    }
  }
}

TEST(EdgeOperators, FlatMattesAndPinnedValues) {
  for (int value : {0, 1, 37, 128, 254, 255}) {
    for (bool smooth : {true, false}) {
      Plane p(19, 12, 2, static_cast<unsigned char>(value));
      const Plane before = p;
      _erode_dilate(p.data(), p.width, p.height, p.stride, p.data(), p.stride,
                    smooth ? 5 : 3, smooth, nullptr);
      ASSERT_NO_FATAL_FAILURE(ExpectPlanesEqual(p, before, "flat"));
    }
  }

  // The centre pixel of each 3x3 plane sees a mean of 100 under a maximum of
  // 200: a quarter of the gap closes when dilating. When smoothing, a dark
  // neighbourhood squares the ratio more sharply (0.5^1.5) than one whose
  // minimum reaches 32 (exponent 1).
  const unsigned char dark[9] = {200, 100, 100, 100, 100, 100, 100, 100, 0};
  const unsigned char lit[9] = {200, 100, 100, 100, 100, 100, 100, 60, 40};
  unsigned char out[9];
  mat_dilate(dark, 3, 3, 3, out, 3, 3);
  EXPECT_EQ(out[4], 150);
  mat_smooth_boundary(dark, 3, 3, 3, out, 3, 3);
  EXPECT_EQ(out[4], 71);
  mat_smooth_boundary(lit, 3, 3, 3, out, 3, 3);
  EXPECT_EQ(out[4], 100);
}

// The extremum window is 7 up to about 1.2 megapixels and grows with the
// area after that; a bright square shows it as the reach of the dilation.
TEST(EdgeOperators, ExtremumWindowGrowsWithArea) {
  const struct {
    int width, height, window;
  } cases[] = {{1024, 1024, 7}, {1200, 1000, 9}, {1500, 1000, 11}};
  for (const auto& c : cases) {
    Plane src(c.width, c.height, 0);
    const int cx = c.width / 2;
    const int cy = c.height / 2;
    for (int y = cy - 2; y <= cy + 2; ++y) {
      for (int x = cx - 2; x <= cx + 2; ++x) src.at(x, y) = 255;
    }
    Plane dst(c.width, c.height, 0);
    mat_dilate(src.data(), c.width, c.height, c.width, dst.data(), c.width, 31);
    int reach = 0;
    for (int x = 0; x < c.width; ++x) reach += dst.at(x, cy) != 0;
    EXPECT_EQ(reach, 5 + c.window - 1) << c.width << "x" << c.height;
  }
}

// Sets to 0 every foreground fragment smaller than the keep-th largest.
void EraseSmallReference(Plane& alpha, unsigned char threshold, int keep) {
  const int w = alpha.width;
  std::vector<int> binary(static_cast<size_t>(w) * alpha.height);
  for (int y = 0; y < alpha.height; ++y) {
    for (int x = 0; x < w; ++x) {
      binary[y * w + x] = threshold == 255 || alpha.at(x, y) > threshold;
    }
  }
  const Components c = FloodFill(binary, w, alpha.height);
  std::vector<int> fg;
  std::vector<bool> is_fg(c.size.size());
  for (size_t i = 0; i < binary.size(); ++i) is_fg[c.label[i]] = binary[i];
  for (size_t id = 0; id < c.size.size(); ++id) {
    if (is_fg[id]) fg.push_back(c.size[id]);
  }
  if (static_cast<int>(fg.size()) <= keep) return;
  std::sort(fg.rbegin(), fg.rend());
  const int limit = fg[keep - 1];
  for (int y = 0; y < alpha.height; ++y) {
    for (int x = 0; x < w; ++x) {
      const int id = c.label[y * w + x];
      if (is_fg[id] && c.size[id] < limit) alpha.at(x, y) = 0;
    }
  }
}

TEST(EraseSmallComponents, MatchesFloodFillReference) {
  uint32_t seed = 500;
  for (int width : {1, 3, 8, 17, 40}) {
    for (int height : {1, 4, 13, 30}) {
      for (Kind kind : {Kind::kSparse, Kind::kNoise, Kind::kBlocks}) {
        const Plane src = MakeMatte(width, height, 5, kind, seed++);
        for (int threshold : {0, 1, 100, 254, 255}) {
          for (int keep : {1, 2, 3, 6}) {
            Plane got = src;
            vm_erase_small_cc(got.data(), width, height, got.stride,
                              static_cast<unsigned char>(threshold), keep);
            Plane want = src;
            EraseSmallReference(want, static_cast<unsigned char>(threshold),
                                keep);
            ASSERT_NO_FATAL_FAILURE(ExpectPlanesEqual(got, want, "erase"))
                << "threshold " << threshold << " keep " << keep;
          }
        }
      }
    }
  }
}

TEST(EraseSmallComponents, TiesAtTheLimitStay) {
  // Blobs of 500, 200 and 200 pixels with soft values inside.
  Plane src(80, 60, 3);
  auto blob = [&](int x0, int y0, int w, int h) {
    for (int y = y0; y < y0 + h; ++y) {
      for (int x = x0; x < x0 + w; ++x) {
        src.at(x, y) = static_cast<unsigned char>(1 + (x * 7 + y * 13) % 255);
      }
    }
  };
  blob(2, 2, 25, 20);
  blob(40, 5, 20, 10);
  blob(40, 30, 10, 20);

  Plane one = src;
  vm_erase_small_cc(one.data(), 80, 60, one.stride, 0, 1);
  int left = 0;
  for (int y = 0; y < 60; ++y) {
    for (int x = 0; x < 80; ++x) {
      if (one.at(x, y) != 0) {
        ++left;
        ASSERT_EQ(one.at(x, y), src.at(x, y));
      }
    }
  }
  EXPECT_EQ(left, 500);

  Plane two = src;
  vm_erase_small_cc(two.data(), 80, 60, two.stride, 0, 2);
  EXPECT_EQ(two.px, src.px);
}

// Keeps a fragment at or above threshold only if some guide pixel of it is
// above threshold and not 128.
Plane RemoveIsolatedReference(const Plane& alpha, const Plane& guide,
                              int threshold) {
  const int w = alpha.width;
  std::vector<int> binary(static_cast<size_t>(w) * alpha.height);
  for (int y = 0; y < alpha.height; ++y) {
    for (int x = 0; x < w; ++x) binary[y * w + x] = alpha.at(x, y) >= threshold;
  }
  const Components c = FloodFill(binary, w, alpha.height);
  std::vector<bool> supported(c.size.size(), false);
  for (int y = 0; y < alpha.height; ++y) {
    for (int x = 0; x < w; ++x) {
      const int g = guide.at(x, y);
      if (g != 128 && g > threshold) supported[c.label[y * w + x]] = true;
    }
  }
  Plane out = alpha;
  for (int y = 0; y < alpha.height; ++y) {
    for (int x = 0; x < w; ++x) {
      if (!supported[c.label[y * w + x]]) out.at(x, y) = 0;
    }
  }
  return out;
}

TEST(RemoveIsolated, MatchesFloodFillReferenceAlsoInPlace) {
  uint32_t seed = 900;
  for (int width : {1, 2, 7, 16, 33}) {
    for (int height : {1, 5, 12}) {
      const Plane alpha = MakeMatte(width, height, 3, Kind::kBlocks, seed++);
      // A trimap-like guide: mostly unknown, some definite values.
      std::mt19937 rng(seed++);
      Plane guide(width, height, 2);
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          const uint32_t r = rng() % 8;
          guide.at(x, y) = r < 5   ? 128
                           : r < 6 ? 0
                           : r < 7 ? 255
                                   : static_cast<unsigned char>(rng());
        }
      }
      for (int threshold : {-3, 0, 1, 60, 128, 200, 255, 300}) {
        const Plane want = RemoveIsolatedReference(alpha, guide, threshold);
        Plane dst(width, height, 7);
        mat_remove_isolated(alpha.px.data(), width, height, alpha.stride,
                            guide.px.data(), guide.stride, dst.data(),
                            dst.stride, threshold);
        ASSERT_NO_FATAL_FAILURE(ExpectPlanesEqual(dst, want, "isolated"))
            << "threshold " << threshold;
        Plane same = alpha;
        mat_remove_isolated(same.data(), width, height, same.stride,
                            guide.px.data(), guide.stride, same.data(),
                            same.stride, threshold);
        ASSERT_NO_FATAL_FAILURE(ExpectPlanesEqual(same, want, "in place"));
      }
    }
  }
}

TEST(ShrinkUnknown, MatchesIteratedExtremumReference) {
  uint32_t seed = 1300;
  for (int width : {1, 4, 9, 21}) {
    for (int height : {1, 6, 11}) {
      const Plane alpha = MakeMatte(width, height, 1, Kind::kBlocks, seed++);
      std::mt19937 rng(seed++);
      Plane trimap(width, height, 4);
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          const unsigned char values[3] = {0, 128, 255};
          trimap.at(x, y) = values[rng() % 3];
        }
      }
      for (int ksize : {1, 3, 5}) {
        for (int iterations : {0, 1, 2, 3}) {
          for (auto [lo, hi] :
               {std::pair<int, int>{10, 245}, {128, 128}, {255, 0}, {0, 255}}) {
            const Plane hi_plane =
                ExtremumReference(alpha, ksize, iterations, true);
            const Plane lo_plane =
                ExtremumReference(alpha, ksize, iterations, false);
            Plane want = trimap;
            for (int y = 0; y < height; ++y) {
              for (int x = 0; x < width; ++x) {
                if (hi_plane.at(x, y) < lo) want.at(x, y) = 0;
                if (lo_plane.at(x, y) > hi) want.at(x, y) = 255;
              }
            }
            Plane got = trimap;
            mat_shrink_unknown_mm(alpha.px.data(), width, height, alpha.stride,
                                  got.data(), got.stride, ksize, iterations,
                                  static_cast<unsigned char>(lo),
                                  static_cast<unsigned char>(hi));
            ASSERT_NO_FATAL_FAILURE(ExpectPlanesEqual(got, want, "shrink"))
                << "ksize " << ksize << " iterations " << iterations << " lo "
                << lo << " hi " << hi;
          }
        }
      }
    }
  }
}

TEST(EraseUnknownFragment, ResolvesHolesFromTheirSurroundings) {
  // Foreground on the left, background on the right; 5 and 250 count as
  // background and foreground under lo 10, hi 240, while 60 is neither.
  Plane t(14, 9, 2, 250);
  for (int y = 0; y < 9; ++y) {
    for (int x = 7; x < 14; ++x) t.at(x, y) = 5;
  }
  t.at(2, 2) = t.at(3, 2) = 128;  // inside the foreground
  t.at(10, 2) = 128;              // inside the background
  t.at(6, 4) = t.at(7, 4) = 128;  // across the edge
  t.at(2, 6) = 128;               // beside an intermediate pixel
  t.at(3, 6) = 60;
  t.at(0, 4) = t.at(0, 5) = 128;  // on the left column only
  t.at(13, 8) = 128;              // in the corner
  mat_erase_unknown_fragment(t.data(), 14, 9, t.stride, 10, 240);

  const struct {
    int x, y, want;
  } expected[] = {{2, 2, 255}, {3, 2, 255}, {10, 2, 0},  {6, 4, 128},
                  {7, 4, 128}, {2, 6, 128}, {3, 6, 60},  {0, 4, 0},
                  {0, 5, 0},   {13, 8, 0},  {1, 1, 250}, {12, 1, 5}};
  for (const auto& e : expected) {
    EXPECT_EQ(t.at(e.x, e.y), e.want) << "(" << e.x << ", " << e.y << ")";
  }
  EXPECT_TRUE(t.padding_intact());
}

TEST(MatteCleanup, NullPlanesLeaveEverythingAlone) {
  Plane a = MakeMatte(9, 7, 2, Kind::kNoise, 3);
  Plane b = MakeMatte(9, 7, 2, Kind::kNoise, 4);
  const Plane a0 = a;
  const Plane b0 = b;
  int ints[63] = {};
  mat_smooth_boundary(nullptr, 9, 7, a.stride, b.data(), b.stride, 3);
  mat_dilate(a.data(), 9, 7, a.stride, nullptr, b.stride, 3);
  _erode_dilate(nullptr, 9, 7, a.stride, b.data(), b.stride, 5, true, nullptr);
  mean_filter_3x3(nullptr, 9, 7, 9, ints, 9);
  vm_erase_small_cc(nullptr, 9, 7, a.stride, 0, 1);
  mat_remove_isolated(a.data(), 9, 7, a.stride, nullptr, b.stride, b.data(),
                      b.stride, 10);
  mat_remove_isolated(a.data(), 9, 7, a.stride, a.data(), a.stride, nullptr,
                      b.stride, 10);
  mat_shrink_unknown_mm(nullptr, 9, 7, a.stride, b.data(), b.stride, 3, 1, 10,
                        245);
  mat_shrink_unknown_mm(a.data(), 9, 7, a.stride, nullptr, b.stride, 3, 1, 10,
                        245);
  mat_erase_unknown_fragment(nullptr, 9, 7, a.stride, 1, 254);
  EXPECT_EQ(a.px, a0.px);
  EXPECT_EQ(b.px, b0.px);
  for (int v : ints) EXPECT_EQ(v, 0);
}

}  // namespace
