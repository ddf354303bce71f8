#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PlaneMismatch;

constexpr int kIntSentinel = 0x5A5A5A5A;

TEST(BoxFilters, SumCountAndMeanMatchBruteForce) {
  // {width, height, channels, kw, kh}: one-pixel planes, windows larger than
  // the plane, even sizes; the 301 window takes the double division.
  const int cases[][5] = {
      {1, 1, 1, 3, 3},    {1, 7, 1, 3, 5},    {9, 1, 3, 5, 3},
      {13, 11, 3, 5, 7},  {33, 4, 1, 9, 3},   {6, 17, 2, 1, 11},
      {11, 9, 1, 41, 41}, {10, 8, 3, 4, 6},   {15, 12, 1, 2, 3},
      {21, 19, 4, 7, 1},  {5, 4, 1, 301, 301}};
  const int borders[][4] = {{0, 0, 0, 0}, {1, 0, 2, 3},     {5, 5, 5, 5},
                            {2, 9, 0, 1}, {20, 20, 20, 20}, {3, 1, 3, 1}};
  const int m = 20;  // the caller's image reaches this far around the region
  std::mt19937 rng(20240613);
  for (const auto& k : cases) {
    const int w = k[0], h = k[1], ch = k[2], kw = k[3], kh = k[4];
    const int rowElems = w * ch, step = rowElems + 3, cstep = w + 2;
    const int cw = (w + 2 * m) * ch, bstride = cw + 3, istride = cw + 2;
    const auto bytes =
        softmatte_test::RandomPlane(cw, h + 2 * m, bstride, rng());
    // Full-range ints make sums wrap around 32 bits; the means take
    // small ones, whose negative sums truncate towards zero.
    std::vector<int> ints(static_cast<size_t>(istride) * (h + 2 * m));
    for (int& v : ints) v = static_cast<int>(rng());
    std::vector<int> small(ints);
    for (int& v : small) v %= 70000;
    const unsigned char* b0 = bytes.data() + m * bstride + m * ch;
    const int* i0 = ints.data() + m * istride + m * ch;
    const int* s0 = small.data() + m * istride + m * ch;
    for (int bi = -1; bi < 6; ++bi) {
      const int* border = bi < 0 ? nullptr : borders[bi];
      SCOPED_TRACE(::testing::Message()
                   << w << "x" << h << "x" << ch << " window " << kw << "x"
                   << kh << " border " << border);
      const auto side = [&](int i) { return border ? border[i] : 0; };
      // The window is widened to odd sizes; the border lends up to half a
      // window of real data on each side.
      const int hx = kw / 2, hy = kh / 2;
      const int x0 = -std::min(side(0), hx), y0 = -std::min(side(1), hy);
      const int x1 = w + std::min(side(2), hx), y1 = h + std::min(side(3), hy);
      const auto sum = [&](const auto* p, int s, int e, int y) {
        const int x = e / ch, c = e % ch;
        uint32_t total = 0;
        for (int v = std::max(y - hy, y0); v <= std::min(y + hy, y1 - 1); ++v)
          for (int u = std::max(x - hx, x0); u <= std::min(x + hx, x1 - 1); ++u)
            total += static_cast<uint32_t>(p[v * s + u * ch + c]);
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
      const auto mean = [&](int total, int e, int y) {
        const int n = count(e / ch, y);  // never 0 here
        return static_cast<int>((int64_t{total} + n / 2) / n);
      };
      int b[4];
      const auto arg = [&]() -> int* {  // a fresh copy for every call
        if (border) std::copy_n(border, 4, b);
        return border ? b : nullptr;
      };
      const auto check = [&](const auto& got, int elems, int st, auto pad,
                             auto want) {
        EXPECT_EQ("", PlaneMismatch(got, elems, h, st, pad, want));
      };
      const auto byteSum = [&](int e, int y) { return sum(b0, bstride, e, y); };
      const auto byteMean = [&](int e, int y) {
        return mean(byteSum(e, y), e, y);
      };
      std::vector<int> out(static_cast<size_t>(step) * h, kIntSentinel);
      ff::ipf_sum_filter(b0, w, h, bstride, ch, out.data(), step, kw, kh,
                         arg());
      check(out, rowElems, step, kIntSentinel, byteSum);
      ff::ipf_sum_filter(i0, w, h, istride, ch, out.data(), step, kw, kh,
                         arg());
      check(out, rowElems, step, kIntSentinel,
            [&](int e, int y) { return sum(i0, istride, e, y); });
      std::vector<int> counts(static_cast<size_t>(cstep) * h, kIntSentinel);
      ff::ipf_count_filter_pixels(counts.data(), w, h, cstep, kw, kh, arg());
      check(counts, w, cstep, kIntSentinel, count);
      // With their own count plane and with the caller's, which comes back
      // filled.
      for (bool own : {true, false}) {
        std::fill(counts.begin(), counts.end(), kIntSentinel);
        int* c = own ? nullptr : counts.data();
        ff::ipf_mean_filter(b0, w, h, bstride, ch, out.data(), step, c, cstep,
                            kw, kh, arg());
        check(out, rowElems, step, kIntSentinel, byteMean);
        ff::ipf_mean_filter(s0, w, h, istride, ch, out.data(), step, c, cstep,
                            kw, kh, arg());
        check(out, rowElems, step, kIntSentinel,
              [&](int e, int y) { return mean(sum(s0, istride, e, y), e, y); });
        std::vector<unsigned char> bout(out.size(), kSentinel);
        ff::ipf_mean_filter(b0, w, h, bstride, ch, bout.data(), step, c, cstep,
                            kw, kh, arg());
        check(bout, rowElems, step, kSentinel, byteMean);
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
  EXPECT_EQ(dst, std::vector<int>(20, kIntSentinel));
}

}  // namespace
