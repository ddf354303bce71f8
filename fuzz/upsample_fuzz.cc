// Upsampling tables built from caller photos, then applied to a reduced
// matte. The table builder searches in float lanes for speed; every entry it
// writes must still be the one the plain integer pair search picks, and the
// application must change exactly the pixels it selects.
#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/resample.h"

namespace {

constexpr int kMaxSide = 48;
constexpr int kIndexSentinel = 0x5A5A5A5A;
constexpr short kWeightSentinel = 0x5A5A;
// What a table holds before the builder runs: no entry yet.
constexpr int kNoEntry = -1;
constexpr short kUntouchedWeight = 0x1234;

// The pair choice written the obvious way: integer distances, integer
// weights, first strictly smallest error, stop at an exact blend. Returns
// {first index, second index, weight}.
std::array<int, 3> ReferencePair(const uint8_t* c, SentinelPlane<uint8_t>& low,
                                 int lowWidth, int u, int v, bool twoByTwo) {
  const int count = twoByTwo ? 4 : 9;
  int at[9], d[9];
  const uint8_t* p[9];
  for (int k = 0; k < count; ++k) {
    const int dx = twoByTwo ? (k == 1 || k == 2) : k % 3 - 1;
    const int dy = twoByTwo ? k / 2 : k / 3 - 1;
    p[k] = low.row(v + dy) + 3 * (u + dx);
    at[k] = (v + dy) * lowWidth + u + dx;
    d[k] = 1;
    for (int ch = 0; ch < 3; ++ch)
      d[k] += (p[k][ch] - c[ch]) * (p[k][ch] - c[ch]);
  }
  int best = INT_MAX;
  std::array<int, 3> pick{};
  for (int i = 0; i < count - 1; ++i) {
    for (int j = i + 1; j < count && best > 0; ++j) {
      const int w = 4096 * d[j] / (d[i] + d[j]);
      int e = 0;
      for (int ch = 0; ch < 3; ++ch) {
        const int q = ((p[i][ch] - p[j][ch]) * w + p[j][ch] * 4096) >> 12;
        e += (q - c[ch]) * (q - c[ch]);
      }
      if (e < best) best = e, pick = {at[i], at[j], w};
    }
  }
  return pick;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 12) return 0;
  FuzzInput in(data, size);
  // Sizes of 1 divide by zero in the column mapping, and the reduced plane
  // needs a whole neighbourhood: neither is defined, so neither is fed.
  const int width = in.Int(2, kMaxSide);
  const int height = in.Int(2, kMaxSide);
  const int mode = in.Int(0, 3);  // 2: the 2x2 rule, anything else 3x3
  const bool twoByTwo = mode == 2;
  const int minLow = twoByTwo ? 2 : 3;
  const int lowWidth = in.Int(minLow, std::max(width, minLow));
  const int lowHeight = in.Int(minLow, std::max(height, minLow));
  const uint8_t flags = in.Byte();
  const bool maskedApply = flags & 16, nullApplyMask = flags & 32;
  const uint8_t value = in.Byte();
  const uint8_t applyValue = in.Bool() ? 128 : in.Byte();
  SentinelPlane<uint8_t> img(height, 3 * width + in.Int(0, 7), 3 * width);
  SentinelPlane<uint8_t> low(lowHeight, 3 * lowWidth + in.Int(0, 7),
                             3 * lowWidth);
  SentinelPlane<uint8_t> mask(height, width + in.Int(0, 7), width);
  SentinelPlane<int> idx(height, 2 * width + in.Int(0, 3), 2 * width,
                         kIndexSentinel);
  SentinelPlane<short> wts(height, width + in.Int(0, 3), width,
                           kWeightSentinel);
  SentinelPlane<uint8_t> out(height, width + in.Int(0, 7), width);
  uint8_t colours[4][3];
  for (auto& c : colours) in.Bytes(c, 3);

  FillColours(in, img, width, height, flags & 8, colours);
  if (flags & 4) {
    // A nearest-neighbour reduction, as the session makes: most pixels then
    // find a candidate of their own colour.
    ForEach(lowWidth, lowHeight, [&](int u, int v) {
      const int y = v * (height - 1) / (lowHeight - 1);
      const int x = u * (width - 1) / (lowWidth - 1);
      std::copy_n(img.row(y) + 3 * x, 3, low.row(v) + 3 * u);
    });
  } else {
    FillColours(in, low, lowWidth, lowHeight, flags & 8, colours);
  }
  // Trimap-like: mostly 0, 128 and 255, sometimes any byte.
  ForEach(width, height, [&](int x, int y) {
    const uint8_t b = in.Byte();
    mask.at(x, y) = b % 4 == 3 ? b : std::min(255, b % 4 * 128);
  });

  ForEach(width, height, [&](int x, int y) {
    idx.at(2 * x, y) = idx.at(2 * x + 1, y) = kNoEntry;
    wts.at(x, y) = kUntouchedWeight;
  });
  const uint8_t* buildMask = flags & 2 ? mask.p() : nullptr;
  if (flags & 1) {
    usam_calc_weights_8u_c3(img.p(), width, height, img.step, buildMask,
                            mask.step, value, low.p(), lowWidth, lowHeight,
                            low.step, idx.p(), idx.step, wts.p(), wts.step,
                            mode);
  } else {
    usam_calc_weights_8u_c3(img.p(), width, height, img.step, buildMask,
                            mask.step, low.p(), lowWidth, lowHeight, low.step,
                            idx.p(), idx.step, wts.p(), wts.step, mode);
  }
  Check(idx.PaddingIntact() && wts.PaddingIntact());

  const double sx = static_cast<double>(lowWidth - 1) / (width - 1);
  const double sy = static_cast<double>(lowHeight - 1) / (height - 1);
  const int lo = twoByTwo ? 0 : 1;
  ForEach(width, height, [&](int x, int y) {
    const int* entry = &idx.at(2 * x, y);
    std::array<int, 3> want = {kNoEntry, kNoEntry, kUntouchedWeight};
    if (!buildMask || mask.at(x, y) != 0) {
      const int v = static_cast<int>(y * sy + (twoByTwo ? 0.0 : 0.5));
      const int u = static_cast<int>(x * sx + 0.5);
      want = ReferencePair(&img.at(3 * x, y), low, lowWidth,
                           std::clamp(u, lo, lowWidth - 2),
                           std::clamp(v, lo, lowHeight - 2), twoByTwo);
    }
    Check(entry[0] == want[0] && entry[1] == want[1] &&
          wts.at(x, y) == want[2]);
  });

  // The reduced matte is dense and exactly low_width x low_height: a read
  // past it is a heap overflow.
  std::vector<uint8_t> lowAlpha(static_cast<size_t>(lowWidth) * lowHeight);
  in.Bytes(lowAlpha.data(), lowAlpha.size());
  out.Fill(in);
  const SentinelPlane<uint8_t> before = out;
  const uint8_t* applyMask = nullApplyMask ? nullptr : mask.p();
  if (maskedApply) {
    usam_interpolate_c1(lowAlpha.data(), lowWidth, lowHeight, idx.p(), idx.step,
                        wts.p(), wts.step, out.p(), width, height, out.step,
                        applyMask, mask.step, applyValue);
  } else {
    usam_interpolate_c1(lowAlpha.data(), lowWidth, lowHeight, idx.p(), idx.step,
                        wts.p(), wts.step, out.p(), width, height, out.step);
  }
  Check(out.PaddingIntact());
  ForEach(width, height, [&](int x, int y) {
    const int* entry = &idx.at(2 * x, y);
    int want = before.row(y)[x];
    if (entry[0] >= 0 &&
        (!maskedApply || !applyMask || mask.at(x, y) == applyValue)) {
      const int a = lowAlpha[entry[0]], b = lowAlpha[entry[1]];
      want = ((a - b) * wts.at(x, y) + b * 4096) >> 12;
    }
    Check(out.at(x, y) == want);
  });
  return 0;
}
