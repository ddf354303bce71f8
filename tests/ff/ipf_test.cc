// The image-processing functions against naive versions written inside
// the test, on random planes with odd sizes and padded rows.
#include "softmatte/ff/ipf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;
using softmatte_test::kSentinel;
using softmatte_test::PlaneMismatch;
using softmatte_test::RandomPlane;

constexpr int kIntSentinel = 0x5A5A5A5A;

// The min/max filters' reference: the region grown by the border (each side
// clamped to 0 .. ksize), filtered whole `iterations` times with the window
// clipped to it (outside counts as 255 for the minimum, 0 for the maximum),
// then cut out at byte (grown width) * top + left * channels: the row offset
// is deliberately not scaled by the channel count. Returns the cut plane and
// its row length.
std::pair<Bytes, int> MinMax(const unsigned char* region, int stride, int width,
                             int height, int ch, int ksize, int iterations,
                             const int* border, bool isMin) {
  int side[4] = {0, 0, 0, 0};
  for (int i = 0; border && i < 4; ++i)
    side[i] = std::clamp(border[i], 0, ksize);
  const int w = side[0] + width + side[2], h = side[1] + height + side[3];
  const int r = std::max(ksize, 0) / 2;
  Bytes big(size_t(w) * h * ch);
  for (int y = 0; y < h; ++y)
    std::copy_n(region + ptrdiff_t(y - side[1]) * stride - side[0] * ch, w * ch,
                big.begin() + size_t(y) * w * ch);
  for (int pass = 0; pass < std::max(iterations, 1); ++pass) {
    Bytes next(big.size());
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w * ch; ++x) {
        int best = isMin ? 255 : 0;
        for (int v = std::max(y - r, 0); v <= std::min(y + r, h - 1); ++v)
          for (int u = std::max(x / ch - r, 0);
               u <= std::min(x / ch + r, w - 1); ++u) {
            const int value = big[(size_t(v) * w + u) * ch + x % ch];
            best = isMin ? std::min(best, value) : std::max(best, value);
          }
        next[size_t(y) * w * ch + x] = static_cast<unsigned char>(best);
      }
    big.swap(next);
  }
  big.erase(big.begin(), big.begin() + w * side[1] + side[0] * ch);
  return {big, w * ch};
}

// Box sums, counts and means and min/max filters against brute force, on
// regions inside a larger random image (border pixels come from it).
// {width, height, channels, kw, kh, ksize, iterations}: one-pixel planes,
// windows larger than the plane, even sizes (the 301 window takes the
// double division of the means), sizes around the 64 lines the min/max
// filters take side by side; iterations 0 and 1 both mean one pass.
TEST(WindowFilters, MatchBruteForce) {
  const int cases[][7] = {{1, 1, 1, 3, 3, 3, 1},     {1, 9, 1, 3, 5, 3, 1},
                          {9, 1, 3, 5, 3, 3, 1},     {9, 1, 1, 9, 3, 3, 1},
                          {13, 11, 3, 5, 7, 5, 0},   {13, 7, 1, 4, 6, 4, 1},
                          {17, 11, 3, 9, 3, 3, 2},   {70, 5, 1, 1, 11, 9, 1},
                          {5, 70, 1, 7, 1, 9, 1},    {131, 67, 1, 5, 7, 7, 2},
                          {67, 131, 3, 2, 3, 5, 1},  {29, 23, 1, 41, 41, 41, 1},
                          {23, 29, 3, 7, 1, 61, 3},  {3, 2, 1, 2, 3, 2, 1},
                          {8, 6, 1, 301, 301, 0, 1}, {33, 19, 2, 9, 3, 9, 4},
                          {21, 19, 4, 7, 1, 3, 1},   {10, 8, 3, 4, 6, 3, 1},
                          {6, 17, 2, 1, 11, 1, 1},   {5, 4, 1, 301, 301, 7, 1}};
  // Box filters lend up to half a window of each border and take all but
  // the last; min/max filters clamp it to ksize, count negative sides as
  // none and take the last five.
  const int borders[][4] = {{0, 0, 0, 0},     {5, 5, 5, 5},  {20, 20, 20, 20},
                            {1, 0, 2, 3},     {2, 9, 0, 1},  {3, 1, 3, 1},
                            {12, 12, 12, 12}, {-4, 7, 0, -1}};
  const int m = 20;  // the caller's image reaches this far around the region
  std::mt19937 rng(20240613);
  for (const auto& k : cases) {
    const int w = k[0], h = k[1], ch = k[2], kw = k[3], kh = k[4];
    const int elems = w * ch, step = elems + 3, cstep = w + 2;
    const int cw = (w + 2 * m) * ch, bs = cw + 3, is = cw + 2;
    const auto bytes = RandomPlane(cw, h + 2 * m, bs, rng());
    // Full-range ints make sums wrap around 32 bits; the means take
    // small ones, whose negative sums truncate towards zero.
    std::vector<int> ints(size_t(is) * (h + 2 * m)), small(ints.size());
    for (size_t i = 0; i < ints.size(); ++i)
      ints[i] = static_cast<int>(rng()), small[i] = ints[i] % 70000;
    const unsigned char* b0 = bytes.data() + m * bs + m * ch;
    const int* i0 = ints.data() + m * is + m * ch;
    const int* s0 = small.data() + m * is + m * ch;
    // Oversized windows over the whole border would make this slow.
    for (int bi = -1; bi < (w * h > 2000 ? 0 : 8); ++bi) {
      const int* border = bi < 0 ? nullptr : borders[bi];
      int b[4];
      const auto arg = [&]() -> int* {  // a fresh copy for every call
        if (border) std::copy_n(border, 4, b);
        return border ? b : nullptr;
      };
      const auto check = [&](const auto& got, int n, int st, auto pad,
                             auto want) {
        EXPECT_EQ("", PlaneMismatch(got, n, h, st, pad, want))
            << "case " << &k - cases << " border " << bi;
      };
      for (bool isMin : {true, false}) {
        if (bi >= 0 && bi < 3) break;
        const auto filter = isMin ? ff::ipf_min_filter : ff::ipf_max_filter;
        const auto want = MinMax(b0, bs, w, h, ch, k[5], k[6], border, isMin);
        const auto at = [&](int x, int y) {
          return want.first[y * want.second + x];
        };
        Bytes dst(size_t(step) * h, kSentinel);
        filter(b0, w, h, bs, ch, dst.data(), step, k[5], k[6], arg());
        check(dst, elems, step, kSentinel, at);
        if (border) continue;
        // In place: the region's rows in dst's layout, filtered there.
        for (int y = 0; y < h; ++y)
          std::copy_n(b0 + y * bs, elems, &dst[y * step]);
        filter(dst.data(), w, h, step, ch, dst.data(), step, k[5], k[6],
               nullptr);
        check(dst, elems, step, kSentinel, at);
      }
      if (bi == 7) continue;
      const auto side = [&](int i) { return border ? border[i] : 0; };
      // The window is widened to odd sizes; the border lends up to half a
      // window of real data on each side.
      const int hx = kw / 2, hy = kh / 2;
      const int x0 = -std::min(side(0), hx), y0 = -std::min(side(1), hy);
      const int x1 = w + std::min(side(2), hx), y1 = h + std::min(side(3), hy);
      const auto sum = [&](const auto* p, int s, int e, int y) {
        uint32_t total = 0;
        for (int v = std::max(y - hy, y0); v <= std::min(y + hy, y1 - 1); ++v)
          for (int u = std::max(e / ch - hx, x0);
               u <= std::min(e / ch + hx, x1 - 1); ++u)
            total += static_cast<uint32_t>(p[v * s + u * ch + e % ch]);
        return static_cast<int>(total);
      };
      // kw * kh (even sizes too) when the border covers half a window on
      // every side, else the window pixels on data.
      const auto count = [&](int x, int y) {
        if (side(0) >= hx && side(1) >= hy && side(2) >= hx && side(3) >= hy)
          return kw * kh;
        return (std::min(x + hx, x1 - 1) - std::max(x - hx, x0) + 1) *
               (std::min(y + hy, y1 - 1) - std::max(y - hy, y0) + 1);
      };
      const auto mean = [&](const auto* p, int s) {
        return [&, p, s](int e, int y) {
          const int n = count(e / ch, y);  // never 0 here
          return static_cast<int>((int64_t{sum(p, s, e, y)} + n / 2) / n);
        };
      };
      std::vector<int> out(size_t(step) * h, kIntSentinel);
      ff::ipf_sum_filter(b0, w, h, bs, ch, out.data(), step, kw, kh, arg());
      check(out, elems, step, kIntSentinel,
            [&](int e, int y) { return sum(b0, bs, e, y); });
      ff::ipf_sum_filter(i0, w, h, is, ch, out.data(), step, kw, kh, arg());
      check(out, elems, step, kIntSentinel,
            [&](int e, int y) { return sum(i0, is, e, y); });
      std::vector<int> counts(size_t(cstep) * h, kIntSentinel);
      ff::ipf_count_filter_pixels(counts.data(), w, h, cstep, kw, kh, arg());
      check(counts, w, cstep, kIntSentinel, count);
      // With their own count plane and with the caller's, which comes back
      // filled.
      for (bool own : {true, false}) {
        std::fill(counts.begin(), counts.end(), kIntSentinel);
        int* c = own ? nullptr : counts.data();
        ff::ipf_mean_filter(b0, w, h, bs, ch, out.data(), step, c, cstep, kw,
                            kh, arg());
        check(out, elems, step, kIntSentinel, mean(b0, bs));
        ff::ipf_mean_filter(s0, w, h, is, ch, out.data(), step, c, cstep, kw,
                            kh, arg());
        check(out, elems, step, kIntSentinel, mean(s0, is));
        Bytes bout(out.size(), kSentinel);
        ff::ipf_mean_filter(b0, w, h, bs, ch, bout.data(), step, c, cstep, kw,
                            kh, arg());
        check(bout, elems, step, kSentinel, mean(b0, bs));
        if (!own) check(counts, w, cstep, kIntSentinel, count);
      }
    }
  }
  // Null planes do nothing.
  std::vector<int> dst(20, kIntSentinel);
  ff::ipf_sum_filter(static_cast<const int*>(nullptr), 5, 4, 5, 1, dst.data(),
                     5, 3, 3, nullptr);
  ff::ipf_count_filter_pixels(nullptr, 5, 4, 5, 3, 3, nullptr);
  ff::ipf_mean_filter(static_cast<const unsigned char*>(nullptr), 5, 4, 5, 1,
                      dst.data(), 5, nullptr, 0, 3, 3, nullptr);
  Bytes bytes(12, kSentinel);
  ff::ipf_min_filter(nullptr, 4, 3, 4, 1, bytes.data(), 4, 3, 1, nullptr);
  ff::ipf_max_filter(bytes.data(), 4, 3, 4, 1, nullptr, 4, 3, 1, nullptr);
  EXPECT_EQ(dst, std::vector<int>(20, kIntSentinel));
  EXPECT_EQ(bytes, Bytes(12, kSentinel));
}

// Flood fill from each unlabelled pixel in raster order: numbering by first
// appearance falls out of the scan order, with no equivalence bookkeeping.
std::vector<int> FloodFillLabels(const Bytes& img, int width, int height,
                                 int stride, int* count) {
  const int n = width * height;
  std::vector<int> labels(n, -1), stack;
  auto value = [&](int p) { return img[p / width * stride + p % width]; };
  for (int start = *count = 0; start < n; ++start) {
    if (labels[start] >= 0) continue;
    labels[start] = *count;
    for (stack.push_back(start); !stack.empty();) {
      const int p = stack.back();
      stack.pop_back();
      // A step of one that wraps into another row is no neighbour.
      for (int q : {p - 1, p + 1, p - width, p + width})
        if (q >= 0 && q < n &&
            (q / width == p / width || q % width == p % width) &&
            labels[q] < 0 && value(q) == value(p))
          labels[q] = *count, stack.push_back(q);
    }
    ++*count;
  }
  return labels;
}

// Binary masks of several densities grow long, branching regions whose
// provisional labels must be merged; three levels make many small ones. The
// larger sizes reach merge chains joined far below their start. The padding
// holds kSentinel, a value that never occurs inside.
TEST(ConnectedComponent, MatchesFloodFillOnRandomPlanes) {
  std::mt19937 rng(20241121);
  const int sizes[][2] = {{1, 1},  {1, 5},  {2, 2},   {3, 16},   {7, 31},
                          {17, 5}, {33, 2}, {64, 16}, {201, 157}};
  for (auto [levels, on] :
       {std::pair{2, 0.5}, {2, 0.1}, {2, 0.6}, {3, 0.3}, {1, 0.0}}) {
    for (const auto& size : sizes) {
      const int width = size[0], height = size[1], ls = width + 5;
      Bytes img(size_t(width + 3) * height, kSentinel);
      std::bernoulli_distribution bit(on);
      for (int i = 0; i < width * height; ++i)
        img[i / width * (width + 3) + i % width] =
            levels == 3 ? rng() % 3 : 255 * bit(rng);
      std::vector<int> labels(size_t(ls) * height, kIntSentinel);
      int count = 0;
      const auto want = FloodFillLabels(img, width, height, width + 3, &count);
      ASSERT_EQ(ff::ipf_connected_component(img.data(), width, height,
                                            width + 3, labels.data(), ls),
                count)
          << width << "x" << height;
      ASSERT_EQ(
          "", PlaneMismatch(labels, width, height, ls, kIntSentinel,
                            [&](int x, int y) { return want[y * width + x]; }))
          << width << "x" << height;
    }
  }
  // Null planes: 0 components and nothing written.
  int untouched[4] = {kIntSentinel, kIntSentinel, kIntSentinel, kIntSentinel};
  const unsigned char plane[4] = {0, 255, 255, 0};
  EXPECT_EQ(ff::ipf_connected_component(nullptr, 2, 2, 2, untouched, 2), 0);
  EXPECT_EQ(ff::ipf_connected_component(plane, 2, 2, 2, nullptr, 2), 0);
  for (int v : untouched) EXPECT_EQ(v, kIntSentinel);
}

using Box = std::array<int, 4>;
constexpr Box kUnwritten = {-77, -77, -77, -77};

// The box, the box of differences and, on one-row planes, the range, each
// against a visit of every pixel; then null arguments, which return false
// and write no box (the range's ends become -1 on any failure). Low noise
// (at most 10) with a few spots above it; the padding of a is kSentinel,
// above every threshold below: reading it widens a box.
TEST(MaskRoi, BoxAndRangeMatchBruteForceOnSparsePlanes) {
  std::mt19937 rng(1121);
  for (int width : {1, 2, 5, 17, 40, 64}) {
    for (int height : {1, 3, 8, 23}) {
      for (int spots : {0, 1, 2, 5}) {
        const int sa = width + 7, sb = width + 10;
        Bytes a(size_t(sa) * height, kSentinel), b(size_t(sb) * height, 0);
        for (int i = 0; i < width * height; ++i)
          a[i / width * sa + i % width] = b[i / width * sb + i % width] =
              static_cast<unsigned char>(rng() % 11);
        for (int i = 0; i < spots; ++i) {
          a[(rng() % height) * sa + rng() % width] = 11 + rng() % 245;
          b[(rng() % height) * sb + rng() % width] ^= 1 + rng() % 255;
        }
        // -1 compares a with b instead: only pixels inside count, and the
        // two paddings differ.
        for (int threshold : {-1, 0, 5, 10, 100, 255}) {
          Box want = {width, height, 0, 0};
          for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
              if (threshold < 0 ? a[y * sa + x] != b[y * sb + x]
                                : a[y * sa + x] > threshold)
                want = {std::min(want[0], x), std::min(want[1], y),
                        std::max(want[2], x + 1), std::max(want[3], y + 1)};
          const bool found = want[2] > 0;
          if (!found) want = {0, 0, 0, 0};
          Box got = kUnwritten;
          ASSERT_EQ(threshold < 0
                        ? ff::ipf_get_mask_diff_roi(a.data(), width, height, sa,
                                                    b.data(), sb, got.data())
                        : ff::ipf_get_mask_roi(a.data(), width, height, sa,
                                               got.data(), threshold),
                    found)
              << width << "x" << height << " threshold " << threshold;
          ASSERT_EQ(got, want);
          if (height > 1 || threshold != 100) continue;
          // The range of the non-zero bytes: the spots of a over 100.
          Bytes row(a.begin(), a.begin() + width);
          for (auto& v : row) v = v > 100 ? v : 0;
          std::pair<int, int> range(3, 3);  // callers read both ends anyway
          EXPECT_EQ(ff::ipf_get_mask_range(row.data(), width, range.first,
                                           range.second),
                    found);
          EXPECT_EQ(range,
                    found ? std::pair(want[0], want[2]) : std::pair(-1, -1));
        }
      }
    }
  }
  const unsigned char plane[4] = {9, 9, 9, 9};
  Box roi = kUnwritten;
  EXPECT_FALSE(
      ff::ipf_get_mask_roi(nullptr, 2, 2, 2, roi.data(), 0) ||
      ff::ipf_get_mask_roi(plane, 2, 2, 2, nullptr, 0) ||
      ff::ipf_get_mask_diff_roi(nullptr, 2, 2, 2, plane, 2, roi.data()) ||
      ff::ipf_get_mask_diff_roi(plane, 2, 2, 2, nullptr, 2, roi.data()) ||
      ff::ipf_get_mask_diff_roi(plane, 2, 2, 2, plane, 2, nullptr));
  EXPECT_EQ(roi, kUnwritten);
  std::pair<int, int> range(3, 3);
  EXPECT_FALSE(ff::ipf_get_mask_range(nullptr, 6, range.first, range.second));
  EXPECT_EQ(range, std::pair(-1, -1));
}

// Source index of each destination index, and for bilinear the weight of
// the next one: i * srcLen / dstLen in float, no centring. Nearest rounds
// half up; at or past the last source element nearest takes it and bilinear
// the last pair with full weight on its right member.
void Table(int srcLen, int dstLen, bool bl, std::vector<int>& idx,
           std::vector<float>& frac) {
  idx.assign(dstLen, 0), frac.assign(dstLen, 0.0f);
  const float scale = static_cast<float>(srcLen) / static_cast<float>(dstLen);
  for (int i = 1; i < dstLen; ++i) {
    const float s = scale * static_cast<float>(i);
    idx[i] = static_cast<int>(bl ? s : static_cast<double>(s) + 0.5);
    frac[i] = s - std::trunc(s);
    if (idx[i] >= srcLen - 1) idx[i] = srcLen - 1 - bl, frac[i] = 1.0f;
  }
}

TEST(Resize, NearestAndBilinearMatchReference) {
  // {srcW, srcH, dstW, dstH}: shrinking, growing, identity, one side kept,
  // single lines.
  const int sizes[][4] = {{4, 3, 2, 2},    {2, 2, 7, 9},     {17, 13, 17, 13},
                          {33, 9, 10, 31}, {31, 17, 13, 40}, {41, 29, 19, 23},
                          {9, 5, 9, 11},   {12, 14, 5, 14},  {7, 1, 3, 4},
                          {1, 5, 6, 2}};
  // {channels, srcPix, dstPix}: whole pixels, one channel of a colour image,
  // colour with a fourth byte that must stay untouched; sixteen channels and
  // more take the wide bilinear path.
  const int steps[][3] = {{1, 1, 1},    {3, 3, 3},    {1, 3, 3},
                          {3, 4, 4},    {3, 3, 4},    {15, 15, 15},
                          {16, 16, 16}, {16, 18, 17}, {35, 37, 36}};
  uint32_t seed = 1;
  std::vector<int> cols, rows;
  std::vector<float> fx, fy;
  for (const auto& s : sizes) {
    for (const auto& p : steps) {
      const int sw = s[0], sh = s[1], dw = s[2], dh = s[3];
      const int ch = p[0], sp = p[1], dp = p[2], ss = sw * sp + 7;
      const int ds = dw * dp + 3;
      const auto src = RandomPlane(sw * sp, sh, ss, ++seed);
      // Nearest copies 1 or 3 bytes; bilinear needs a pair each way.
      for (bool bl : {false, true}) {
        if (bl ? sw < 2 || sh < 2 : ch > 3) continue;
        Table(sw, dw, bl, cols, fx);
        Table(sh, dh, bl, rows, fy);
        std::vector<unsigned char> dst(static_cast<size_t>(ds) * dh, kSentinel);
        unsigned char* d = dst.data();
        if (bl)
          ff::ipf_resize_bl(src.data(), sw, sh, ss, sp, d, dw, dh, ds, dp, ch);
        else if (ch == 1)
          ff::ipf_resize_nn(src.data(), sw, sh, ss, sp, d, dw, dh, ds, dp,
                            ff::ccn<1>());
        else
          ff::ipf_resize_nn(src.data(), sw, sh, ss, sp, d, dw, dh, ds, dp,
                            ff::ccn<3>());
        // Bilinear: the four-neighbour blend per channel in float, truncated.
        const auto want = [&](int x, int y) {
          const int i = x / dp, c = x % dp;
          const auto at = [&](int dx, int dy) {
            return static_cast<float>(
                src[(rows[y] + dy) * ss + (cols[i] + dx) * sp + c]);
          };
          if (c >= ch) return kSentinel;
          if (!bl) return src[rows[y] * ss + cols[i] * sp + c];
          const float top = fx[i] * (at(1, 0) - at(0, 0)) + at(0, 0);
          const float bottom = fx[i] * (at(1, 1) - at(0, 1)) + at(0, 1);
          return static_cast<unsigned char>(
              static_cast<int>(top + fy[y] * (bottom - top)));
        };
        EXPECT_EQ("", PlaneMismatch(dst, dw * dp, dh, ds, kSentinel, want))
            << (bl ? "bilinear " : "nearest ") << sw << "x" << sh << " -> "
            << dw << "x" << dh << " pix " << ch << "/" << sp << "/" << dp;
      }
    }
  }
}

constexpr unsigned int kUnreached = 10000000;
constexpr unsigned char kTarget = 7;
using Dists = std::vector<unsigned int>;
using Pixel = std::array<int, 2>;

// Shortest chamfer path (scale a side step, scale * 1.414 truncated a
// diagonal one) from any target pixel to each label-0 pixel through label-0
// pixels only, relaxed over every step until nothing changes.
Dists ShortestPaths(const Bytes& labels, int width, int height, int scale) {
  const unsigned int weight[3] = {0, unsigned(scale), unsigned(scale * 1.414)};
  Dists dist(labels.size(), kUnreached);
  for (size_t i = 0; i < labels.size(); ++i)
    dist[i] = labels[i] == kTarget ? 0 : kUnreached;
  for (bool changed = true; changed;) {
    changed = false;
    for (size_t i = 0; i < labels.size(); ++i) {
      for (int n = 0; n < 9; ++n) {
        const int dx = n % 3 - 1, dy = n / 3 - 1;
        const int x = int(i % width) + dx, y = int(i / width) + dy;
        if (x < 0 || y < 0 || x >= width || y >= height) continue;
        const size_t j = size_t(y) * width + x;
        const unsigned int w = weight[std::abs(dx) + std::abs(dy)];
        if (labels[j] != 0 || j == i || dist[i] + w >= dist[j]) continue;
        dist[j] = dist[i] + w;
        changed = true;
      }
    }
  }
  return dist;
}

// Without walls the sweeps are exact and the nearest target is no farther
// than a free straight line; with walls they find real paths, not always the
// shortest, and what no path reaches (walls included) stays unreached. A
// scale of 7 makes a diagonal weight that truncates (9.898). Label, distance
// and nearest planes have different strides; no padding may change, and
// leaving out the nearest plane gives the same distances.
TEST(DistanceField, MatchesShortestPathsRespectsWallsAndRefusesMismatches) {
  std::mt19937 rng(8006);
  // {targets and walls in thousandths, scale}
  const int kRuns[][3] = {{2, 0, 100}, {30, 0, 7}, {300, 0, 100}, {10, 250, 7}};
  for (int width : {1, 2, 5, 17, 40}) {
    for (int height : {1, 3, 16, 23}) {
      for (const auto& [targets, walls, scale] : kRuns) {
        const int n = width * height, ls = width + 3, ds = width + 2;
        const int ns = width + 5;
        Bytes labels(n), padded(size_t(ls) * height, kTarget);
        for (int i = 0; i < n; ++i) {
          const int r = int(rng() % 1000);
          labels[i] = r < targets ? kTarget : r < targets + walls ? 3 : 0;
          padded[i / width * ls + i % width] = labels[i];
        }
        const Dists want = ShortestPaths(labels, width, height, scale);
        Dists dist(size_t(ds) * height, 0xA5A5A5A5u), alone = dist;
        std::vector<unsigned short> got(size_t(ns) * height * 2, 0xA5A5);
        ff::dist_field* field =
            ff::ipf_create_distance_field_2d(width, height, scale);
        ASSERT_EQ(
            -1,
            ff::ipf_distance_transform_2d(
                field, padded.data(), width, height, ls, kTarget, dist.data(),
                ds, reinterpret_cast<unsigned short(*)[2]>(got.data()), ns));
        ff::ipf_distance_transform_2d(field, padded.data(), width, height, ls,
                                      kTarget, alone.data(), ds, nullptr, 0);
        ff::ipf_release_distance_field(field);
        ASSERT_EQ(alone, dist);
        for (int i = 0; i < ns * height; ++i) {
          const int x = i % ns, y = i / ns, k = y * width + x;
          const Pixel nearest = {got[2 * i], got[2 * i + 1]};
          const unsigned int d = dist[size_t(y) * ds + std::min(x, ds - 1)];
          if (x >= width) {
            ASSERT_EQ(nearest, (Pixel{0xA5A5, 0xA5A5})) << "nearest padding";
            ASSERT_TRUE(x >= ds || d == 0xA5A5A5A5u) << "distance padding";
            continue;
          }
          ASSERT_EQ(d, walls || want[k] == kUnreached ? std::max(d, want[k])
                                                      : want[k])
              << width << "x" << height << " walls " << walls << " at " << x
              << "," << y;
          ASSERT_TRUE(want[k] != kUnreached || d == kUnreached);
          if (d == kUnreached) {
            ASSERT_EQ(nearest, (Pixel{x, y}));
            continue;
          }
          ASSERT_EQ(labels[nearest[1] * width + nearest[0]], kTarget);
          const unsigned int dx = std::abs(nearest[0] - x),
                             dy = std::abs(nearest[1] - y);
          const unsigned int line =
              unsigned(scale * 1.414) * std::min(dx, dy) +
              unsigned(scale) * (std::max(dx, dy) - std::min(dx, dy));
          ASSERT_EQ(d, walls ? std::max(d, line) : line);
        }
      }
    }
  }
  // A mismatch or a null writes nothing.
  Bytes labels(24, 0);
  Dists dist(24, 77);
  ff::dist_field* flat = ff::ipf_create_distance_field_2d(6, 4, 100);
  unsigned char* l = labels.data();
  unsigned int* d = dist.data();
  for (auto [field, lp, w, h, dp] :
       {std::tuple{static_cast<ff::dist_field*>(nullptr), l, 6, 4, d},
        {flat, l, 7, 4, d},
        {flat, l, 6, 3, d},
        {flat, nullptr, 6, 4, d},
        {flat, l, 6, 4, nullptr}})
    EXPECT_EQ(ff::ipf_distance_transform_2d(field, lp, w, h, 6, kTarget, dp, 6,
                                            nullptr, 0),
              -1);
  EXPECT_EQ(dist, Dists(24, 77));
  ff::ipf_release_distance_field(flat);
  ff::ipf_release_distance_field(nullptr);
}

}  // namespace
