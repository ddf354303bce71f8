// Window filters over regions of a larger image: sizes, channels, window
// sizes, borders and steps from the input. The source is allocated with
// exactly the border the call announces, so a read beyond it is a heap
// overflow; each result is compared with a brute-force window loop, the
// source must stay as it was and the padding of every output plane must
// keep its sentinel.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/ff/ipf.h"

namespace {

constexpr unsigned char kSentinel = 0xA5;
constexpr int kIntSentinel = -0x5A5A5A5B;

enum Op {
  kMin,
  kMax,
  kSum8,
  kSumInt,
  kCount,
  kMean8ToInt,
  kMeanIntToInt,
  kMean8To8,
  kOps
};

// The caller's image: the region plus the border around it.
template <typename T>
struct Source {
  Source(int width, int height, int channels, const int* extent, int pad,
         T sentinel)
      : plane(extent[1] + height + extent[3],
              (extent[0] + width + extent[2]) * channels + pad,
              (extent[0] + width + extent[2]) * channels, sentinel),
        left(extent[0]),
        top(extent[1]),
        channels_(channels) {}

  const T* region() const {
    return plane.data.data() + static_cast<size_t>(top) * plane.step +
           left * channels_;
  }
  // Element (x, y, c) with x and y relative to the region.
  T at(int x, int y, int c) const {
    return plane.data[static_cast<size_t>(y + top) * plane.step +
                      (x + left) * channels_ + c];
  }

  SentinelPlane<T> plane;
  int left;
  int top;
  int channels_;
};

// Running extremum over the (2 * (ksize / 2) + 1)^2 window of a dense plane,
// positions outside it ignored.
std::vector<unsigned char> Extremum(const std::vector<unsigned char>& in,
                                    int width, int height, int channels,
                                    int ksize, bool is_min) {
  const int half = ksize / 2;
  std::vector<unsigned char> out(in.size());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < channels; ++c) {
        unsigned char v = is_min ? 255 : 0;
        for (int yy = std::max(y - half, 0);
             yy <= std::min(y + half, height - 1); ++yy) {
          for (int xx = std::max(x - half, 0);
               xx <= std::min(x + half, width - 1); ++xx) {
            const unsigned char s =
                in[(static_cast<size_t>(yy) * width + xx) * channels + c];
            v = is_min ? std::min(v, s) : std::max(v, s);
          }
        }
        out[(static_cast<size_t>(y) * width + x) * channels + c] = v;
      }
    }
  }
  return out;
}

// Sum over the window of the positions that lie on real data: the region
// widened by the border clamped to half a window.
template <typename T>
long long WindowSum(const Source<T>& src, int width, int height, int x, int y,
                    int c, int kw, int kh, const int* b, bool ones) {
  const int w2 = kw / 2;
  const int h2 = kh / 2;
  const int l = std::min(b[0], w2), t = std::min(b[1], h2);
  const int r = std::min(b[2], w2), bo = std::min(b[3], h2);
  long long sum = 0;
  for (int yy = std::max(y - h2, -t); yy <= std::min(y + h2, height - 1 + bo);
       ++yy) {
    for (int xx = std::max(x - w2, -l); xx <= std::min(x + w2, width - 1 + r);
         ++xx) {
      sum += ones ? 1 : static_cast<long long>(src.at(xx, yy, c));
    }
  }
  return sum;
}

int WindowCount(const Source<unsigned char>& any, int width, int height, int x,
                int y, int kw, int kh, const int* b) {
  if (b[0] >= kw / 2 && b[1] >= kh / 2 && b[2] >= kw / 2 && b[3] >= kh / 2) {
    return kw * kh;
  }
  return static_cast<int>(
      WindowSum(any, width, height, x, y, 0, kw, kh, b, true));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 16) return 0;
  FuzzInput in(data, size);
  const int op = in.Int(0, kOps - 1);
  const int width = in.Int(1, 32);
  const int height = in.Int(1, 32);
  const int channels = in.Int(1, 4);
  const bool min_max = op == kMin || op == kMax;
  const int ksize = in.Int(1, 11);
  const int iterations = in.Int(0, 3);
  const int kw = in.Int(1, 15);
  const int kh = in.Int(1, 15);
  const bool with_border = in.Bool();
  int border[4] = {0, 0, 0, 0};
  for (int& b : border) {
    // The min/max filters clamp each side into [0, ksize] themselves; the
    // box filters are never given negative sides.
    b = min_max ? in.Int(-2, 13) : in.Int(0, 9);
  }
  if (!with_border) std::fill(border, border + 4, 0);
  int extent[4];
  for (int i = 0; i < 4; ++i) extent[i] = std::max(border[i], 0);
  const int src_pad = in.Int(0, 7);
  const int dst_pad = in.Int(0, 7);
  const int count_pad = in.Int(0, 7);
  const bool own_count = in.Bool();
  int* const border_arg = with_border ? border : nullptr;

  // Byte sources, or int sources in 0..65535 (the library's own int planes
  // are sums of bytes), whose window sums stay far from overflow.
  const bool int_source = op == kSumInt || op == kMeanIntToInt;
  Source<unsigned char> src8(width, height, channels, extent, src_pad,
                             kSentinel);
  Source<int> src32(width, height, channels, extent, src_pad, kIntSentinel);
  if (int_source) {
    for (size_t i = 0; i < src32.plane.data.size(); ++i) {
      if (static_cast<int>(i % src32.plane.step) >= src32.plane.used) continue;
      src32.plane.data[i] = (in.Byte() << 8) | in.Byte();
    }
  } else {
    for (size_t i = 0; i < src8.plane.data.size(); ++i) {
      if (static_cast<int>(i % src8.plane.step) >= src8.plane.used) continue;
      src8.plane.data[i] = in.Byte();
    }
  }
  const std::vector<unsigned char> src8_before = src8.plane.data;
  const std::vector<int> src32_before = src32.plane.data;

  const int row = width * channels;
  SentinelPlane<unsigned char> dst8(height, row + dst_pad, row, kSentinel);
  SentinelPlane<int> dst32(height, row + dst_pad, row, kIntSentinel);
  SentinelPlane<int> count(height, width + count_pad, width, kIntSentinel);
  int* const count_arg = own_count ? count.data.data() : nullptr;

  switch (op) {
    case kMin:
      ff::ipf_min_filter(src8.region(), width, height, src8.plane.step,
                         channels, dst8.data.data(), dst8.step, ksize,
                         iterations, border_arg);
      break;
    case kMax:
      ff::ipf_max_filter(src8.region(), width, height, src8.plane.step,
                         channels, dst8.data.data(), dst8.step, ksize,
                         iterations, border_arg);
      break;
    case kSum8:
      ff::ipf_sum_filter(src8.region(), width, height, src8.plane.step,
                         channels, dst32.data.data(), dst32.step, kw, kh,
                         border_arg);
      break;
    case kSumInt:
      ff::ipf_sum_filter(src32.region(), width, height, src32.plane.step,
                         channels, dst32.data.data(), dst32.step, kw, kh,
                         border_arg);
      break;
    case kCount:
      ff::ipf_count_filter_pixels(count.data.data(), width, height, count.step,
                                  kw, kh, border_arg);
      break;
    case kMean8ToInt:
      ff::ipf_mean_filter(src8.region(), width, height, src8.plane.step,
                          channels, dst32.data.data(), dst32.step, count_arg,
                          count.step, kw, kh, border_arg);
      break;
    case kMeanIntToInt:
      ff::ipf_mean_filter(src32.region(), width, height, src32.plane.step,
                          channels, dst32.data.data(), dst32.step, count_arg,
                          count.step, kw, kh, border_arg);
      break;
    case kMean8To8:
      ff::ipf_mean_filter(src8.region(), width, height, src8.plane.step,
                          channels, dst8.data.data(), dst8.step, count_arg,
                          count.step, kw, kh, border_arg);
      break;
  }

  if (src8.plane.data != src8_before || src32.plane.data != src32_before) {
    __builtin_trap();
  }
  if (!dst8.PaddingIntact() || !dst32.PaddingIntact() ||
      !count.PaddingIntact()) {
    __builtin_trap();
  }

  if (min_max) {
    // The filter works on the region widened by the border clamped to the
    // window, repeated on that widened plane, then cuts the region out. With
    // several channels the cut's row offset is deliberately not scaled by
    // the channel count; the reference cuts the same way.
    const int k = 2 * (ksize / 2) + 1;
    // Even sizes are free to clamp to ksize or to the odd window: compare
    // only where both agree.
    for (int b : border) {
      if (ksize % 2 == 0 && b > ksize) return 0;
    }
    int side[4];
    for (int i = 0; i < 4; ++i) side[i] = std::clamp(border[i], 0, k);
    const int big_w = side[0] + width + side[2];
    const int big_h = side[1] + height + side[3];
    std::vector<unsigned char> big(static_cast<size_t>(big_w) * big_h *
                                   channels);
    for (int y = 0; y < big_h; ++y) {
      for (int x = 0; x < big_w; ++x) {
        for (int c = 0; c < channels; ++c) {
          big[(static_cast<size_t>(y) * big_w + x) * channels + c] =
              src8.at(x - side[0], y - side[1], c);
        }
      }
    }
    for (int pass = 0; pass < std::max(iterations, 1); ++pass) {
      big = Extremum(big, big_w, big_h, channels, k, op == kMin);
    }
    const size_t cut = static_cast<size_t>(big_w) * side[1] +
                       static_cast<size_t>(side[0]) * channels;
    for (int y = 0; y < height; ++y) {
      for (int i = 0; i < row; ++i) {
        if (dst8.row(y)[i] !=
            big[cut + static_cast<size_t>(y) * big_w * channels + i]) {
          __builtin_trap();
        }
      }
    }
    return 0;
  }

  // Box filters: sums of the clamped window, counts of real positions.
  const bool wants_count = op == kCount || (op >= kMean8ToInt && own_count);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int n = WindowCount(src8, width, height, x, y, kw, kh, border);
      if (wants_count && count.row(y)[x] != n) __builtin_trap();
      if (op == kCount) continue;
      for (int c = 0; c < channels; ++c) {
        const long long sum = int_source ? WindowSum(src32, width, height, x, y,
                                                     c, kw, kh, border, false)
                                         : WindowSum(src8, width, height, x, y,
                                                     c, kw, kh, border, false);
        long long want = sum;
        if (op != kSum8 && op != kSumInt) {
          want = n == 0 ? 0 : (sum + n / 2) / n;
        }
        const int i = x * channels + c;
        const long long got =
            op == kMean8To8 ? dst8.row(y)[i] : dst32.row(y)[i];
        if (op == kMean8To8) want = static_cast<unsigned char>(want);
        if (got != want) __builtin_trap();
      }
    }
  }
  return 0;
}
