#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;

constexpr int kIntSentinel = 0x5A5A5A5A;

// The caller's whole image; the region starts `margin` pixels in.
template <typename T>
struct Canvas {
  int width;
  int height;
  int channels;
  int step;  // elements
  std::vector<T> data;
  T at(int x, int y, int c) const {
    return data[static_cast<size_t>(y) * step +
                static_cast<size_t>(x) * channels + c];
  }
};

Canvas<unsigned char> ByteCanvas(int width, int height, int channels,
                                 int margin, std::mt19937& rng) {
  Canvas<unsigned char> canvas{
      width + 2 * margin, height + 2 * margin, channels, 0, {}};
  canvas.step = canvas.width * channels + 3;
  canvas.data = softmatte_test::RandomPlane(canvas.width * channels,
                                            canvas.height, canvas.step, rng());
  return canvas;
}

// Full-range ints, so that window sums wrap around 32 bits.
Canvas<int> IntCanvas(int width, int height, int channels, int margin,
                      std::mt19937& rng) {
  Canvas<int> canvas{width + 2 * margin, height + 2 * margin, channels, 0, {}};
  canvas.step = canvas.width * channels + 2;
  canvas.data.resize(static_cast<size_t>(canvas.step) * canvas.height);
  for (int& v : canvas.data) v = static_cast<int>(rng());
  return canvas;
}

int Side(const int* border, int i) { return border ? border[i] : 0; }

// Pixels of the caller's image that a window of the region may use: the
// border on each side, never more than half a window.
struct Reach {
  int x0, x1, y0, y1;  // region coordinates, half-open
  int hx, hy;          // half window
};

Reach ReachOf(int width, int height, int kw, int kh, const int* border) {
  Reach r;
  r.hx = kw / 2;
  r.hy = kh / 2;
  r.x0 = -std::min(Side(border, 0), r.hx);
  r.y0 = -std::min(Side(border, 1), r.hy);
  r.x1 = width + std::min(Side(border, 2), r.hx);
  r.y1 = height + std::min(Side(border, 3), r.hy);
  return r;
}

// Sum over the (2 * (kw / 2) + 1) x (2 * (kh / 2) + 1) window, modulo 2^32
// like the library's unsigned table.
template <typename T>
int ReferenceSum(const Canvas<T>& canvas, int margin, const Reach& r, int x,
                 int y, int c) {
  uint32_t sum = 0;
  for (int v = std::max(y - r.hy, r.y0); v <= std::min(y + r.hy, r.y1 - 1);
       ++v) {
    for (int u = std::max(x - r.hx, r.x0); u <= std::min(x + r.hx, r.x1 - 1);
         ++u) {
      sum += static_cast<uint32_t>(canvas.at(margin + u, margin + v, c));
    }
  }
  return static_cast<int>(sum);
}

// kw * kh when the border covers half a window on every side (even sizes
// included); otherwise the window pixels that fall on data.
int ReferenceCount(const Reach& r, int kw, int kh, const int* border, int x,
                   int y) {
  if (Side(border, 0) >= kw / 2 && Side(border, 1) >= kh / 2 &&
      Side(border, 2) >= kw / 2 && Side(border, 3) >= kh / 2) {
    return kw * kh;
  }
  int n = 0;
  for (int v = y - r.hy; v <= y + r.hy; ++v) {
    for (int u = x - r.hx; u <= x + r.hx; ++u) {
      n += (u >= r.x0 && u < r.x1 && v >= r.y0 && v < r.y1) ? 1 : 0;
    }
  }
  return n;
}

int RoundedMean(int sum, int count) {
  if (count == 0) return 0;
  return static_cast<int>((static_cast<int64_t>(sum) + count / 2) / count);
}

struct Case {
  int width, height, channels, kw, kh;
};

// Odd sizes, windows larger than the plane, even sizes, one-pixel planes.
const Case kCases[] = {
    {1, 1, 1, 3, 3},
    {1, 7, 1, 3, 5},
    {9, 1, 3, 5, 3},
    {7, 5, 1, 3, 3},
    {13, 11, 3, 5, 7},
    {33, 4, 1, 9, 3},
    {6, 17, 2, 1, 11},
    {11, 9, 1, 41, 41},
    {10, 8, 3, 4, 6},
    {15, 12, 1, 2, 3},
    {21, 19, 4, 7, 1},
    // Byte windows this large take the double-precision division.
    {5, 4, 1, 301, 301},
};

const int kBorders[][4] = {{0, 0, 0, 0}, {1, 0, 2, 3},     {5, 5, 5, 5},
                           {2, 9, 0, 1}, {20, 20, 20, 20}, {3, 1, 3, 1}};
constexpr int kMargin = 20;

// Every case with no border array and with each border.
template <typename Fn>
void ForEachCaseAndBorder(Fn fn) {
  for (const Case& k : kCases) {
    fn(k, static_cast<const int*>(nullptr));
    for (const auto& border : kBorders) fn(k, border);
  }
}

template <typename T>
void CheckSum(const Canvas<T>& canvas, const Case& k, const int* border) {
  const T* region = canvas.data.data() +
                    static_cast<size_t>(kMargin) * canvas.step +
                    kMargin * k.channels;
  const int rowElems = k.width * k.channels;
  const int dstStep = rowElems + 3;  // elements, not bytes
  std::vector<int> dst(static_cast<size_t>(dstStep) * k.height, kIntSentinel);
  std::vector<int> borderCopy;
  if (border) borderCopy.assign(border, border + 4);
  ff::ipf_sum_filter(region, k.width, k.height, canvas.step, k.channels,
                     dst.data(), dstStep, k.kw, k.kh,
                     border ? borderCopy.data() : nullptr);
  const Reach r = ReachOf(k.width, k.height, k.kw, k.kh, border);
  for (int y = 0; y < k.height; ++y) {
    for (int x = 0; x < dstStep; ++x) {
      const int got = dst[static_cast<size_t>(y) * dstStep + x];
      const int want = x < rowElems
                           ? ReferenceSum(canvas, kMargin, r, x / k.channels, y,
                                          x % k.channels)
                           : kIntSentinel;
      ASSERT_EQ(got, want) << k.width << "x" << k.height << "x" << k.channels
                           << " window " << k.kw << "x" << k.kh
                           << (border ? " border" : " no border") << " at " << x
                           << ", " << y;
    }
  }
}

TEST(SumFilter, MatchesBruteForceForByteAndIntSources) {
  std::mt19937 rng(20240613);
  ForEachCaseAndBorder([&](const Case& k, const int* border) {
    CheckSum(ByteCanvas(k.width, k.height, k.channels, kMargin, rng), k,
             border);
    CheckSum(IntCanvas(k.width, k.height, k.channels, kMargin, rng), k, border);
  });
}

TEST(CountFilter, CountsWindowPixelsOnData) {
  ForEachCaseAndBorder([&](const Case& k, const int* border) {
    const int step = k.width + 2;
    std::vector<int> count(static_cast<size_t>(step) * k.height, kIntSentinel);
    std::vector<int> borderCopy;
    if (border) borderCopy.assign(border, border + 4);
    ff::ipf_count_filter_pixels(count.data(), k.width, k.height, step, k.kw,
                                k.kh, border ? borderCopy.data() : nullptr);
    const Reach r = ReachOf(k.width, k.height, k.kw, k.kh, border);
    for (int y = 0; y < k.height; ++y) {
      for (int x = 0; x < step; ++x) {
        const int want = x < k.width
                             ? ReferenceCount(r, k.kw, k.kh, border, x, y)
                             : kIntSentinel;
        ASSERT_EQ(count[static_cast<size_t>(y) * step + x], want)
            << k.width << "x" << k.height << " window " << k.kw << "x" << k.kh
            << " at " << x << ", " << y;
      }
    }
  });
}

// All three mean filters, with their own count plane and with the caller's
// (which must come back filled), against sum / count rounded half up.
TEST(MeanFilter, AllFormsMatchRoundedReference) {
  std::mt19937 rng(20240614);
  ForEachCaseAndBorder([&](const Case& k, const int* border) {
    const auto bytes = ByteCanvas(k.width, k.height, k.channels, kMargin, rng);
    // Ints small enough not to wrap; negative sums truncate towards zero.
    Canvas<int> ints = IntCanvas(k.width, k.height, k.channels, kMargin, rng);
    for (int& v : ints.data) {
      v = static_cast<int>(static_cast<uint32_t>(v) % 140000u) - 70000;
    }
    const size_t offset = static_cast<size_t>(kMargin) * k.channels;
    const unsigned char* byteRegion =
        bytes.data.data() + kMargin * static_cast<size_t>(bytes.step) + offset;
    const int* intRegion =
        ints.data.data() + kMargin * static_cast<size_t>(ints.step) + offset;
    const Reach r = ReachOf(k.width, k.height, k.kw, k.kh, border);
    const int rowElems = k.width * k.channels;
    const int dstStep = rowElems + 1;
    const int countStep = k.width + 4;
    for (bool ownCount : {true, false}) {
      std::vector<int> b1(4), b2(4), b3(4);
      if (border) {
        b1.assign(border, border + 4);
        b2 = b1;
        b3 = b1;
      }
      std::vector<int> count(static_cast<size_t>(countStep) * k.height,
                             kIntSentinel);
      int* countArg = ownCount ? nullptr : count.data();
      std::vector<int> fromBytes(static_cast<size_t>(dstStep) * k.height,
                                 kIntSentinel);
      std::vector<int> fromInts(fromBytes);
      std::vector<unsigned char> toBytes(fromBytes.size(), kSentinel);
      ff::ipf_mean_filter(byteRegion, k.width, k.height, bytes.step, k.channels,
                          fromBytes.data(), dstStep, countArg, countStep, k.kw,
                          k.kh, border ? b1.data() : nullptr);
      ff::ipf_mean_filter(intRegion, k.width, k.height, ints.step, k.channels,
                          fromInts.data(), dstStep, countArg, countStep, k.kw,
                          k.kh, border ? b2.data() : nullptr);
      ff::ipf_mean_filter(byteRegion, k.width, k.height, bytes.step, k.channels,
                          toBytes.data(), dstStep, countArg, countStep, k.kw,
                          k.kh, border ? b3.data() : nullptr);
      for (int y = 0; y < k.height; ++y) {
        for (int x = 0; x < dstStep; ++x) {
          const size_t i = static_cast<size_t>(y) * dstStep + x;
          if (x >= rowElems) {
            ASSERT_EQ(fromBytes[i], kIntSentinel);
            ASSERT_EQ(fromInts[i], kIntSentinel);
            ASSERT_EQ(toBytes[i], kSentinel);
            continue;
          }
          const int px = x / k.channels;
          const int c = x % k.channels;
          const int n = ReferenceCount(r, k.kw, k.kh, border, px, y);
          const int wantBytes =
              RoundedMean(ReferenceSum(bytes, kMargin, r, px, y, c), n);
          ASSERT_EQ(fromBytes[i], wantBytes)
              << k.width << "x" << k.height << "x" << k.channels << " window "
              << k.kw << "x" << k.kh << " at " << x << ", " << y;
          ASSERT_EQ(toBytes[i], static_cast<unsigned char>(wantBytes));
          ASSERT_EQ(fromInts[i],
                    RoundedMean(ReferenceSum(ints, kMargin, r, px, y, c), n));
        }
        if (!ownCount) {
          for (int x = 0; x < countStep; ++x) {
            ASSERT_EQ(count[static_cast<size_t>(y) * countStep + x],
                      x < k.width ? ReferenceCount(r, k.kw, k.kh, border, x, y)
                                  : kIntSentinel);
          }
        }
      }
    }
  });
}

TEST(MeanFilter, ThreeByThreeDividesCornersEdgesAndInside) {
  // Corner pixels see 4 values, edge pixels 6, inner ones 9.
  const unsigned char src[4 * 4] = {1, 2, 7, 7,  //
                                    1, 2, 7, 7,  //
                                    0, 0, 0, 0,  //
                                    9, 9, 9, 9};
  int mean[16];
  int count[16];
  ff::ipf_mean_filter(src, 4, 4, 4, 1, mean, 4, count, 4, 3, 3, nullptr);
  const int wantCount[16] = {4, 6, 6, 4, 6, 9, 9, 6, 6, 9, 9, 6, 4, 6, 6, 4};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(count[i], wantCount[i]) << i;
  // (1 + 2 + 1 + 2 + 4 / 2) / 4 = 2: the corner sum 6 rounds to 2.
  EXPECT_EQ(mean[0], 2);
  // (1 + 2 + 7 + 1 + 2 + 7 + 3) / 6 = 3, (20 + 4) / 9 = 2.
  EXPECT_EQ(mean[1], 3);
  EXPECT_EQ(mean[5], (20 + 4) / 9);
  // The bottom-right corner: 0 + 0 + 9 + 9 = 18, (18 + 2) / 4 = 5.
  EXPECT_EQ(mean[15], 5);
}

TEST(BoxFilters, NullPlanesDoNothing) {
  std::vector<unsigned char> src(20, 3);
  std::vector<int> ints(20, 3);
  std::vector<int> dst(20, kIntSentinel);
  std::vector<unsigned char> dstBytes(20, kSentinel);
  ff::ipf_sum_filter(static_cast<const unsigned char*>(nullptr), 5, 4, 5, 1,
                     dst.data(), 5, 3, 3, nullptr);
  ff::ipf_sum_filter(src.data(), 5, 4, 5, 1, nullptr, 5, 3, 3, nullptr);
  ff::ipf_sum_filter(static_cast<const int*>(nullptr), 5, 4, 5, 1, dst.data(),
                     5, 3, 3, nullptr);
  ff::ipf_count_filter_pixels(nullptr, 5, 4, 5, 3, 3, nullptr);
  ff::ipf_mean_filter(static_cast<const unsigned char*>(nullptr), 5, 4, 5, 1,
                      dst.data(), 5, nullptr, 0, 3, 3, nullptr);
  ff::ipf_mean_filter(static_cast<const int*>(nullptr), 5, 4, 5, 1, dst.data(),
                      5, nullptr, 0, 3, 3, nullptr);
  ff::ipf_mean_filter(ints.data(), 5, 4, 5, 1, static_cast<int*>(nullptr), 5,
                      nullptr, 0, 3, 3, nullptr);
  ff::ipf_mean_filter(static_cast<const unsigned char*>(nullptr), 5, 4, 5, 1,
                      dstBytes.data(), 5, nullptr, 0, 3, 3, nullptr);
  for (int v : dst) EXPECT_EQ(v, kIntSentinel);
  for (unsigned char v : dstBytes) EXPECT_EQ(v, kSentinel);
}

}  // namespace
