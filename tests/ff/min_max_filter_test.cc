#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

#include "softmatte/ff/ipf.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;
using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;

// An 8-bit interleaved plane standing for the caller's whole image; the
// filtered region sits `margin` pixels in from every side.
struct Canvas {
  int width;
  int height;
  int channels;
  int stride;
  std::vector<unsigned char> bytes;
  unsigned char at(int x, int y, int c) const {
    return bytes[static_cast<size_t>(y) * stride +
                 static_cast<size_t>(x) * channels + c];
  }
};

// One pass of the extremum over the ksize x ksize window, clipped to the
// plane: whatever lies outside never counts.
std::vector<unsigned char> WindowPass(const std::vector<unsigned char>& in,
                                      int width, int height, int channels,
                                      int ksize, bool isMin) {
  const int reach = std::max(ksize, 0) / 2;
  std::vector<unsigned char> out(in.size());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < channels; ++c) {
        int best = isMin ? 255 : 0;
        for (int v = std::max(y - reach, 0);
             v <= std::min(y + reach, height - 1); ++v) {
          for (int u = std::max(x - reach, 0);
               u <= std::min(x + reach, width - 1); ++u) {
            const int value =
                in[(static_cast<size_t>(v) * width + u) * channels + c];
            best = isMin ? std::min(best, value) : std::max(best, value);
          }
        }
        out[(static_cast<size_t>(y) * width + x) * channels + c] =
            static_cast<unsigned char>(best);
      }
    }
  }
  return out;
}

// The region grown by the border (each side clamped to 0 .. ksize with the
// window widened to odd), filtered whole `iterations` times, then cut out at
// byte (grown width) * top + left * channels: the row offset of that cut is
// not scaled by the channel count.
std::vector<unsigned char> ReferenceFilter(const Canvas& canvas, int margin,
                                           int width, int height, int ksize,
                                           int iterations, const int* border,
                                           bool isMin) {
  const int odd = 2 * (std::max(ksize, 0) / 2) + 1;
  int side[4] = {0, 0, 0, 0};
  if (border != nullptr) {
    for (int i = 0; i < 4; ++i) side[i] = std::clamp(border[i], 0, odd);
  }
  const int c = canvas.channels;
  const int bigWidth = side[0] + width + side[2];
  const int bigHeight = side[1] + height + side[3];
  std::vector<unsigned char> big(static_cast<size_t>(bigWidth) * bigHeight * c);
  for (int y = 0; y < bigHeight; ++y) {
    for (int x = 0; x < bigWidth; ++x) {
      for (int k = 0; k < c; ++k) {
        big[(static_cast<size_t>(y) * bigWidth + x) * c + k] =
            canvas.at(margin - side[0] + x, margin - side[1] + y, k);
      }
    }
  }
  for (int i = 0; i < std::max(iterations, 1); ++i) {
    big = WindowPass(big, bigWidth, bigHeight, c, ksize, isMin);
  }
  std::vector<unsigned char> out(static_cast<size_t>(width) * height * c);
  const size_t start = static_cast<size_t>(bigWidth) * side[1] + side[0] * c;
  for (int y = 0; y < height; ++y) {
    std::copy_n(big.begin() + start + static_cast<size_t>(y) * bigWidth * c,
                width * c, out.begin() + static_cast<size_t>(y) * width * c);
  }
  return out;
}

Canvas MakeCanvas(int width, int height, int channels, int margin,
                  std::mt19937& rng) {
  Canvas canvas;
  canvas.width = width + 2 * margin;
  canvas.height = height + 2 * margin;
  canvas.channels = channels;
  canvas.stride = canvas.width * channels + 3;
  canvas.bytes =
      RandomPlane(canvas.width * channels, canvas.height, canvas.stride, rng());
  return canvas;
}

using Filter = void (*)(const unsigned char*, int, int, int, int,
                        unsigned char*, int, int, int, int*);

struct Case {
  int width;
  int height;
  int channels;
  int ksize;
  int iterations;
};

// Runs both filters on a region of a fresh canvas and compares with the
// reference; dst gets its own odd padding that must keep its sentinel.
void CheckBothFilters(const Case& k, int margin, const int* border,
                      std::mt19937& rng) {
  const Canvas canvas = MakeCanvas(k.width, k.height, k.channels, margin, rng);
  const unsigned char* region = canvas.bytes.data() +
                                static_cast<size_t>(margin) * canvas.stride +
                                margin * k.channels;
  const int rowBytes = k.width * k.channels;
  const int dstStride = rowBytes + 5;
  for (bool isMin : {true, false}) {
    const Filter filter = isMin ? ff::ipf_min_filter : ff::ipf_max_filter;
    std::vector<unsigned char> dst(static_cast<size_t>(dstStride) * k.height,
                                   kSentinel);
    std::vector<int> borderCopy;
    if (border != nullptr) borderCopy.assign(border, border + 4);
    filter(region, k.width, k.height, canvas.stride, k.channels, dst.data(),
           dstStride, k.ksize, k.iterations,
           border ? borderCopy.data() : nullptr);
    const std::vector<unsigned char> want =
        ReferenceFilter(canvas, margin, k.width, k.height, k.ksize,
                        k.iterations, border, isMin);
    for (int y = 0; y < k.height; ++y) {
      for (int x = 0; x < rowBytes; ++x) {
        ASSERT_EQ(dst[static_cast<size_t>(y) * dstStride + x],
                  want[static_cast<size_t>(y) * rowBytes + x])
            << (isMin ? "min" : "max") << " " << k.width << "x" << k.height
            << "x" << k.channels << " ksize " << k.ksize << " iterations "
            << k.iterations << " at byte " << x << " of row " << y;
      }
    }
    ASSERT_TRUE(PaddingIntact(dst, rowBytes, k.height, dstStride));
  }
}

TEST(MinMaxFilter, MatchesBruteForceWithoutBorder) {
  std::mt19937 rng(20240611);
  // Sizes around the 64 lines filtered side by side, one-pixel lines, and
  // windows up to larger than the plane; 0 and 1 iterations mean one pass.
  const Case cases[] = {
      {1, 1, 1, 3, 1},    {1, 9, 1, 3, 1},    {9, 1, 1, 3, 1},
      {5, 4, 1, 1, 1},    {13, 7, 1, 4, 1},   {13, 7, 3, 5, 0},
      {17, 11, 3, 3, 2},  {70, 5, 1, 9, 1},   {5, 70, 1, 9, 1},
      {131, 67, 1, 3, 1}, {131, 67, 1, 7, 2}, {67, 131, 3, 5, 1},
      {29, 23, 1, 41, 1}, {23, 29, 3, 61, 3}, {65, 65, 1, 15, 3},
      {3, 2, 1, 2, 1},    {8, 6, 1, 0, 1},    {33, 19, 2, 9, 4},
  };
  for (const Case& k : cases) CheckBothFilters(k, 0, nullptr, rng);
}

TEST(MinMaxFilter, BorderReadsRealDataAndClampsToWindow) {
  std::mt19937 rng(20240612);
  const int margin = 12;
  // Borders beyond ksize are clamped, negative ones count as none; with
  // three channels and a top border the cut starts at the shifted row.
  const int borders[][4] = {{0, 0, 0, 0},     {1, 1, 1, 1},   {3, 0, 2, 5},
                            {12, 12, 12, 12}, {-4, 7, 0, -1}, {0, 2, 9, 0}};
  const Case cases[] = {{1, 1, 1, 3, 1},   {17, 9, 1, 3, 1},  {17, 9, 1, 5, 2},
                        {31, 21, 1, 9, 1}, {70, 13, 1, 7, 3}, {11, 7, 3, 3, 1},
                        {9, 6, 3, 5, 2},   {6, 9, 1, 4, 1}};
  for (const Case& k : cases) {
    for (const auto& border : borders) {
      CheckBothFilters(k, margin, border, rng);
    }
  }
}

TEST(MinMaxFilter, OneColumnTakesVerticalNeighboursOnly) {
  const unsigned char column[5] = {10, 200, 30, 40, 250};
  unsigned char lo[5];
  unsigned char hi[5];
  ff::ipf_min_filter(column, 1, 5, 1, 1, lo, 1, 3, 1, nullptr);
  ff::ipf_max_filter(column, 1, 5, 1, 1, hi, 1, 3, 1, nullptr);
  const unsigned char wantLo[5] = {10, 10, 30, 30, 40};
  const unsigned char wantHi[5] = {200, 200, 200, 250, 250};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(lo[i], wantLo[i]) << i;
    EXPECT_EQ(hi[i], wantHi[i]) << i;
  }
}

TEST(MinMaxFilter, InPlaceMatchesSeparateOutput) {
  // Wider and taller than one group of lines filtered together.
  const int width = 83;
  const int height = 71;
  for (int channels : {1, 3}) {
    const int stride = width * channels + 2;
    std::vector<unsigned char> plane =
        RandomPlane(width * channels, height, stride, 7);
    std::vector<unsigned char> apart(plane.size(), kSentinel);
    ff::ipf_max_filter(plane.data(), width, height, stride, channels,
                       apart.data(), stride, 5, 2, nullptr);
    ff::ipf_max_filter(plane.data(), width, height, stride, channels,
                       plane.data(), stride, 5, 2, nullptr);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width * channels; ++x) {
        const size_t i = static_cast<size_t>(y) * stride + x;
        ASSERT_EQ(plane[i], apart[i]) << channels << ": " << x << ", " << y;
      }
    }
  }
}

TEST(MinMaxFilter, NullPlanesLeaveEverythingAlone) {
  std::vector<unsigned char> src(12, 9);
  std::vector<unsigned char> dst(12, kSentinel);
  ff::ipf_min_filter(nullptr, 4, 3, 4, 1, dst.data(), 4, 3, 1, nullptr);
  ff::ipf_max_filter(src.data(), 4, 3, 4, 1, nullptr, 4, 3, 1, nullptr);
  ff::ipf_max_filter(nullptr, 4, 3, 4, 1, dst.data(), 4, 3, 1, nullptr);
  for (unsigned char v : dst) EXPECT_EQ(v, kSentinel);
}

}  // namespace
