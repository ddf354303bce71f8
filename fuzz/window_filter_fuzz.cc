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

// Which filter runs; 32 stands for int planes, the rest for byte planes.
enum Op { kMin, kMax, kSum8, kSum32, kCount, kMean8To32, kMean32, kMean8 };
constexpr int kOps = kMean8 + 1;

// The caller's image: the region plus the border {left, top, right, bottom}
// around it.
template <typename T>
struct Source : SentinelPlane<T> {
  Source(int width, int height, int channels_, const int* e, int pad, T s)
      : SentinelPlane<T>(e[1] + height + e[3],
                         (e[0] + width + e[2]) * channels_ + pad,
                         (e[0] + width + e[2]) * channels_, s),
        left(e[0]),
        top(e[1]),
        channels(channels_) {}
  const T* region() { return this->row(top) + left * channels; }
  // Element (x, y, c) with x and y relative to the region.
  T get(int x, int y, int c) {
    return this->row(y + top)[(x + left) * channels + c];
  }
  int left, top, channels;
};

// Sum over the window of the positions that lie on real data: the region
// widened by the border clamped to half a window; ones counts them.
template <typename T>
long long WindowSum(Source<T>& src, int width, int height, int x, int y, int c,
                    int kw, int kh, const int* b, bool ones) {
  const int w2 = kw / 2, h2 = kh / 2;
  long long sum = 0;
  for (int yy = std::max(y - h2, -std::min(b[1], h2));
       yy <= std::min(y + h2, height - 1 + std::min(b[3], h2)); ++yy) {
    for (int xx = std::max(x - w2, -std::min(b[0], w2));
         xx <= std::min(x + w2, width - 1 + std::min(b[2], w2)); ++xx) {
      sum += ones ? 1 : static_cast<long long>(src.get(xx, yy, c));
    }
  }
  return sum;
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
  int border[4], extent[4];
  for (int i = 0; i < 4; ++i) {
    // The min/max filters clamp each side into [0, ksize] themselves; the
    // box filters are never given negative sides.
    border[i] = min_max ? in.Int(-2, 13) : in.Int(0, 9);
    if (!with_border) border[i] = 0;
    extent[i] = std::max(border[i], 0);
  }
  const int src_pad = in.Int(0, 7);
  const int row = width * channels;
  SentinelPlane<uint8_t> dst8(height, row + in.Int(0, 7), row);
  SentinelPlane<int> dst32(height, dst8.step, row, kIntSentinel);
  SentinelPlane<int> count(height, width + in.Int(0, 7), width, kIntSentinel);
  int* const count_arg = in.Bool() ? count.p() : nullptr;
  int* const b = with_border ? border : nullptr;

  // Byte sources, or int sources in 0..65535 (the library's own int planes
  // are sums of bytes), whose window sums stay far from overflow.
  const bool int_source = op == kSum32 || op == kMean32;
  Source<uint8_t> s8(width, height, channels, extent, src_pad, kSentinel);
  Source<int> s32(width, height, channels, extent, src_pad, kIntSentinel);
  if (!int_source) s8.Fill(in);
  if (int_source) {
    ForEach(s32.used, s32.rows, [&](int i, int y) {
      const int high = in.Byte() << 8;
      s32.row(y)[i] = high | in.Byte();
    });
  }
  const std::vector<uint8_t> s8_before = s8.data;
  const std::vector<int> s32_before = s32.data;

  const int h = height, w = width, ch = channels;
  switch (op) {
    case kMin:
      ff::ipf_min_filter(s8.region(), w, h, s8.step, ch, dst8.p(), dst8.step,
                         ksize, iterations, b);
      break;
    case kMax:
      ff::ipf_max_filter(s8.region(), w, h, s8.step, ch, dst8.p(), dst8.step,
                         ksize, iterations, b);
      break;
    case kSum8:
      ff::ipf_sum_filter(s8.region(), w, h, s8.step, ch, dst32.p(), dst32.step,
                         kw, kh, b);
      break;
    case kSum32:
      ff::ipf_sum_filter(s32.region(), w, h, s32.step, ch, dst32.p(),
                         dst32.step, kw, kh, b);
      break;
    case kCount:
      ff::ipf_count_filter_pixels(count.p(), w, h, count.step, kw, kh, b);
      break;
    case kMean8To32:
      ff::ipf_mean_filter(s8.region(), w, h, s8.step, ch, dst32.p(), dst32.step,
                          count_arg, count.step, kw, kh, b);
      break;
    case kMean32:
      ff::ipf_mean_filter(s32.region(), w, h, s32.step, ch, dst32.p(),
                          dst32.step, count_arg, count.step, kw, kh, b);
      break;
    case kMean8:
      ff::ipf_mean_filter(s8.region(), w, h, s8.step, ch, dst8.p(), dst8.step,
                          count_arg, count.step, kw, kh, b);
      break;
  }
  Check(s8.data == s8_before && s32.data == s32_before);
  Check(dst8.PaddingIntact() && dst32.PaddingIntact() && count.PaddingIntact());

  if (min_max) {
    // The filter works on the region widened by the border clamped to the
    // window, repeated on that widened plane, then cuts the region out. With
    // several channels the cut's row offset is deliberately not scaled by
    // the channel count; the reference cuts the same way.
    const int k = 2 * (ksize / 2) + 1, half = ksize / 2;
    // Even sizes are free to clamp to ksize or to the odd window: compare
    // only where both agree.
    for (int side : border) {
      if (ksize % 2 == 0 && side > ksize) return 0;
    }
    int side[4];
    for (int i = 0; i < 4; ++i) side[i] = std::clamp(border[i], 0, k);
    const int bw = side[0] + width + side[2], bh = side[1] + height + side[3];
    std::vector<uint8_t> big(static_cast<size_t>(bw) * bh * ch);
    auto at = [&](std::vector<uint8_t>& v, int x, int y, int c) -> uint8_t& {
      return v[(static_cast<size_t>(y) * bw + x) * ch + c];
    };
    ForEach(bw * ch, bh, [&](int i, int y) {
      at(big, i / ch, y, i % ch) =
          s8.get(i / ch - side[0], y - side[1], i % ch);
    });
    // Running extremum over the (2 * half + 1)^2 window, positions outside
    // the widened plane ignored.
    for (int pass = 0; pass < std::max(iterations, 1); ++pass) {
      std::vector<uint8_t> next(big.size());
      ForEach(bw * ch, bh, [&](int i, int y) {
        const int x = i / ch, c = i % ch;
        uint8_t v = op == kMin ? 255 : 0;
        for (int yy = std::max(y - half, 0); yy <= std::min(y + half, bh - 1);
             ++yy) {
          for (int xx = std::max(x - half, 0); xx <= std::min(x + half, bw - 1);
               ++xx) {
            v = op == kMin ? std::min(v, at(big, xx, yy, c))
                           : std::max(v, at(big, xx, yy, c));
          }
        }
        at(next, x, y, c) = v;
      });
      big.swap(next);
    }
    const size_t cut = static_cast<size_t>(bw) * side[1] + size_t(side[0]) * ch;
    ForEach(row, height, [&](int i, int y) {
      Check(dst8.at(i, y) == big[cut + static_cast<size_t>(y) * bw * ch + i]);
    });
    return 0;
  }

  // Box filters: sums of the clamped window, counts of real positions.
  const bool wants_count = op == kCount || (op >= kMean8To32 && count_arg);
  // With the whole window on real data the count is the window's area,
  // even sizes included.
  const bool full = border[0] >= kw / 2 && border[1] >= kh / 2 &&
                    border[2] >= kw / 2 && border[3] >= kh / 2;
  ForEach(width, height, [&](int x, int y) {
    const int n = full ? kw * kh
                       : static_cast<int>(WindowSum(s8, w, h, x, y, 0, kw, kh,
                                                    border, true));
    Check(!wants_count || count.at(x, y) == n);
    for (int c = 0; c < channels && op != kCount; ++c) {
      long long want =
          int_source ? WindowSum(s32, w, h, x, y, c, kw, kh, border, false)
                     : WindowSum(s8, w, h, x, y, c, kw, kh, border, false);
      if (op != kSum8 && op != kSum32) want = n == 0 ? 0 : (want + n / 2) / n;
      if (op == kMean8) {
        Check(dst8.at(x * ch + c, y) == static_cast<uint8_t>(want));
      } else {
        Check(dst32.at(x * ch + c, y) == want);
      }
    }
  });
  return 0;
}
