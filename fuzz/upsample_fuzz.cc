// Upsampling tables built from caller photos, then applied to a reduced
// matte. The table builder searches in float lanes for speed; every entry it
// writes must still be the one the plain integer pair search picks, and the
// application must change exactly the pixels it selects.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/resample.h"

namespace {

constexpr int kMaxSide = 48;
constexpr uint8_t kByteSentinel = 0xA5;
constexpr int kIndexSentinel = 0x5A5A5A5A;
constexpr short kWeightSentinel = 0x5A5A;
// What a table holds before the builder runs: no entry yet.
constexpr int kNoEntry = -1;
constexpr short kUntouchedWeight = 0x1234;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

struct Entry {
  int a;
  int b;
  int w;
};

// The pair choice written the obvious way: integer distances, integer
// weights, first strictly smallest error, stop at an exact blend.
Entry ReferencePair(const uint8_t* c, const uint8_t* low, int lowStride,
                    int lowWidth, int u, int v, bool twoByTwo) {
  const int count = twoByTwo ? 4 : 9;
  static const int kDx2[4] = {0, 1, 1, 0};
  static const int kDy2[4] = {0, 0, 1, 1};
  int dx[9], dy[9], d[9];
  const uint8_t* p[9];
  for (int k = 0; k < count; ++k) {
    dx[k] = twoByTwo ? kDx2[k] : k % 3 - 1;
    dy[k] = twoByTwo ? kDy2[k] : k / 3 - 1;
    p[k] =
        low + static_cast<ptrdiff_t>(v + dy[k]) * lowStride + 3 * (u + dx[k]);
    d[k] = 1;
    for (int ch = 0; ch < 3; ++ch)
      d[k] += (p[k][ch] - c[ch]) * (p[k][ch] - c[ch]);
  }
  const int base = v * lowWidth + u;
  int best = INT_MAX;
  Entry pick{};
  for (int i = 0; i < count - 1; ++i) {
    for (int j = i + 1; j < count; ++j) {
      const int w = 4096 * d[j] / (d[i] + d[j]);
      int e = 0;
      for (int ch = 0; ch < 3; ++ch) {
        const int q = ((p[i][ch] - p[j][ch]) * w + p[j][ch] * 4096) >> 12;
        e += (q - c[ch]) * (q - c[ch]);
      }
      if (e < best) {
        best = e;
        pick = {base + dy[i] * lowWidth + dx[i],
                base + dy[j] * lowWidth + dx[j], w};
        if (e == 0) return pick;
      }
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
  const int lowWidth = in.Int(minLow, width > minLow ? width : minLow);
  const int lowHeight = in.Int(minLow, height > minLow ? height : minLow);
  const uint8_t flags = in.Byte();
  const bool withValue = flags & 1;
  const bool maskedBuild = flags & 2;
  const bool lowFromImage = flags & 4;
  const bool palette = flags & 8;
  const bool maskedApply = flags & 16;
  const bool nullApplyMask = flags & 32;
  const uint8_t value = in.Byte();
  const uint8_t applyValue = in.Bool() ? 128 : in.Byte();
  const int imgStride = 3 * width + in.Int(0, 7);
  const int lowStride = 3 * lowWidth + in.Int(0, 7);
  const int maskStride = width + in.Int(0, 7);
  const int idxStride = 2 * width + in.Int(0, 3);
  const int wtsStride = width + in.Int(0, 3);
  const int outStride = width + in.Int(0, 7);
  uint8_t colours[4][3];
  for (auto& c : colours) in.Bytes(c, 3);

  SentinelPlane<uint8_t> img(height, imgStride, 3 * width, kByteSentinel);
  FillColours(in, img, width, height, palette, colours);
  SentinelPlane<uint8_t> low(lowHeight, lowStride, 3 * lowWidth, kByteSentinel);
  if (lowFromImage) {
    // A nearest-neighbour reduction, as the session makes: most pixels then
    // find a candidate of their own colour.
    for (int v = 0; v < lowHeight; ++v) {
      const int y = lowHeight > 1 ? v * (height - 1) / (lowHeight - 1) : 0;
      for (int u = 0; u < lowWidth; ++u) {
        const int x = lowWidth > 1 ? u * (width - 1) / (lowWidth - 1) : 0;
        for (int ch = 0; ch < 3; ++ch)
          low.row(v)[3 * u + ch] = img.row(y)[3 * x + ch];
      }
    }
  } else {
    FillColours(in, low, lowWidth, lowHeight, palette, colours);
  }
  // Trimap-like: mostly 0, 128 and 255, sometimes any byte.
  SentinelPlane<uint8_t> mask(height, maskStride, width, kByteSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const uint8_t b = in.Byte();
      static const uint8_t kTri[3] = {0, 128, 255};
      mask.row(y)[x] = b % 4 == 3 ? b : kTri[b % 4];
    }
  }

  SentinelPlane<int> idx(height, idxStride, 2 * width, kIndexSentinel);
  SentinelPlane<short> wts(height, wtsStride, width, kWeightSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < 2 * width; ++x) idx.row(y)[x] = kNoEntry;
    for (int x = 0; x < width; ++x) wts.row(y)[x] = kUntouchedWeight;
  }
  const uint8_t* buildMask = maskedBuild ? mask.data.data() : nullptr;
  if (withValue) {
    usam_calc_weights_8u_c3(img.data.data(), width, height, imgStride,
                            buildMask, maskStride, value, low.data.data(),
                            lowWidth, lowHeight, lowStride, idx.data.data(),
                            idxStride, wts.data.data(), wtsStride, mode);
  } else {
    usam_calc_weights_8u_c3(img.data.data(), width, height, imgStride,
                            buildMask, maskStride, low.data.data(), lowWidth,
                            lowHeight, lowStride, idx.data.data(), idxStride,
                            wts.data.data(), wtsStride, mode);
  }
  Check(idx.PaddingIntact() && wts.PaddingIntact());

  const double sx = static_cast<double>(lowWidth - 1) / (width - 1);
  const double sy = static_cast<double>(lowHeight - 1) / (height - 1);
  for (int y = 0; y < height; ++y) {
    int v = static_cast<int>(y * sy + (twoByTwo ? 0.0 : 0.5));
    v = twoByTwo ? (v < lowHeight - 2 ? v : lowHeight - 2)
                 : (v < 1               ? 1
                    : v > lowHeight - 2 ? lowHeight - 2
                                        : v);
    for (int x = 0; x < width; ++x) {
      const int* entry = idx.row(y) + 2 * x;
      const short w = wts.row(y)[x];
      if (buildMask && mask.row(y)[x] == 0) {
        Check(entry[0] == kNoEntry && entry[1] == kNoEntry &&
              w == kUntouchedWeight);
        continue;
      }
      int u = static_cast<int>(x * sx + 0.5);
      u = twoByTwo ? (u < lowWidth - 2 ? u : lowWidth - 2)
                   : (u < 1              ? 1
                      : u > lowWidth - 2 ? lowWidth - 2
                                         : u);
      const Entry want = ReferencePair(img.row(y) + 3 * x, low.data.data(),
                                       lowStride, lowWidth, u, v, twoByTwo);
      Check(entry[0] == want.a && entry[1] == want.b && w == want.w);
    }
  }

  // The reduced matte is dense and exactly low_width x low_height: a read
  // past it is a heap overflow.
  std::vector<uint8_t> lowAlpha(static_cast<size_t>(lowWidth) * lowHeight);
  in.Bytes(lowAlpha.data(), lowAlpha.size());
  SentinelPlane<uint8_t> out(height, outStride, width, kByteSentinel);
  for (int y = 0; y < height; ++y) in.Bytes(out.row(y), width);
  const std::vector<uint8_t> before = out.data;
  const uint8_t* applyMask = nullApplyMask ? nullptr : mask.data.data();
  if (maskedApply) {
    usam_interpolate_c1(lowAlpha.data(), lowWidth, lowHeight, idx.data.data(),
                        idxStride, wts.data.data(), wtsStride, out.data.data(),
                        width, height, outStride, applyMask, maskStride,
                        applyValue);
  } else {
    usam_interpolate_c1(lowAlpha.data(), lowWidth, lowHeight, idx.data.data(),
                        idxStride, wts.data.data(), wtsStride, out.data.data(),
                        width, height, outStride);
  }
  Check(out.PaddingIntact());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const size_t i = static_cast<size_t>(y) * outStride + x;
      const int* entry = idx.row(y) + 2 * x;
      bool selected = entry[0] >= 0;
      if (maskedApply && applyMask) {
        selected = selected && mask.row(y)[x] == applyValue;
      }
      int want = before[i];
      if (selected) {
        const int a = lowAlpha[entry[0]];
        const int b = lowAlpha[entry[1]];
        want = ((a - b) * wts.row(y)[x] + b * 4096) >> 12;
      }
      Check(out.data[i] == want);
    }
  }
  return 0;
}
