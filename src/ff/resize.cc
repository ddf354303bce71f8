#include <cmath>
#include <cstddef>
#include <cstring>

#include "softmatte/ff/fvt_image.h"
#include "softmatte/ff/ipf.h"

namespace ff {

namespace {

// Channels blended side by side in the wide path; plain loops over this many
// floats become vector instructions on any target.
constexpr int kBlendLanes = 16;

// One destination row of the nearest-neighbour resize from its source row,
// N elements per pixel; packed pixels get a constant stride the compiler
// can see.
template <typename T, int N>
void CopyRowNearest(const T* srcRow, const int* colTab, T* dstRow, int width,
                    int dstPixStep) {
  if (dstPixStep == N) {
    for (int x = 0; x < width; ++x) {
      std::memcpy(dstRow + static_cast<ptrdiff_t>(x) * N, srcRow + colTab[x],
                  N * sizeof(T));
    }
    return;
  }
  for (int x = 0; x < width; ++x) {
    std::memcpy(dstRow + static_cast<ptrdiff_t>(x) * dstPixStep,
                srcRow + colTab[x], N * sizeof(T));
  }
}

template <int N>
constexpr int ChannelsOf(ccn<N>) {
  return N;
}

// Horizontal blends of kBlendLanes consecutive channels of one pixel, for
// its upper and lower source rows at once.
template <typename TS>
void LerpWide(const TS* __restrict p0, const TS* __restrict p1, int xStep,
              float fx, float* __restrict top, float* __restrict bottom) {
  float a[kBlendLanes], b[kBlendLanes], d[kBlendLanes], e[kBlendLanes];
  for (int i = 0; i < kBlendLanes; ++i) {
    a[i] = static_cast<float>(p0[i]);
    b[i] = static_cast<float>(p0[xStep + i]);
    d[i] = static_cast<float>(p1[i]);
    e[i] = static_cast<float>(p1[xStep + i]);
  }
  for (int i = 0; i < kBlendLanes; ++i) top[i] = fx * (b[i] - a[i]) + a[i];
  for (int i = 0; i < kBlendLanes; ++i) bottom[i] = fx * (e[i] - d[i]) + d[i];
}

// The horizontal blends of one pair of source rows for every destination
// value (x * channels + c). They do not depend on the vertical fraction, so
// destination rows that share their source rows share them.
template <typename TS>
void LerpRows(const TS* r0, const TS* r1, const int* colTab,
              const float* colFrac, int xStep, int width, int channels,
              float* top, float* bottom) {
  const int wide = channels / kBlendLanes * kBlendLanes;
  for (int x = 0; x < width; ++x) {
    const TS* p0 = r0 + colTab[x];
    const TS* p1 = r1 + colTab[x];
    const float fx = colFrac[x];
    float* t = top + static_cast<size_t>(x) * channels;
    float* u = bottom + static_cast<size_t>(x) * channels;
    int c = 0;
    for (; c < wide; c += kBlendLanes) {
      LerpWide(p0 + c, p1 + c, xStep, fx, t + c, u + c);
    }
    for (; c < channels; ++c) {
      const float a = static_cast<float>(p0[c]);
      const float b = static_cast<float>(p0[xStep + c]);
      const float d = static_cast<float>(p1[c]);
      const float e = static_cast<float>(p1[xStep + c]);
      t[c] = fx * (b - a) + a;
      u[c] = fx * (e - d) + d;
    }
  }
}

// out = top + fy * (bottom - top), truncated: no 0.5 is added. Runs of
// kBlendLanes values, a fixed trip count that compilers vectorise.
template <typename TD>
void LerpVertical(const float* __restrict top, const float* __restrict bottom,
                  float fy, TD* __restrict out, int n) {
  const auto lerp = [fy](const float* __restrict t, const float* __restrict b,
                         TD* __restrict o, int count) {
    for (int i = 0; i < count; ++i) {
      o[i] = static_cast<TD>(static_cast<int>(t[i] + fy * (b[i] - t[i])));
    }
  };
  int i = 0;
  for (; i + kBlendLanes <= n; i += kBlendLanes) {
    lerp(top + i, bottom + i, out + i, kBlendLanes);
  }
  lerp(top + i, bottom + i, out + i, n - i);
}

}  // namespace

void ipf_calc_resize_tab_nn(int srcLen, int dstLen, int* tab, int elemStep) {
  if (tab == nullptr || dstLen < 1) return;
  if (dstLen == 1) {
    tab[0] = 0;
    return;
  }
  const float scale = static_cast<float>(srcLen) / static_cast<float>(dstLen);
  for (int i = 0; i < dstLen; ++i) {
    // The product stays in single precision; only the rounding is double.
    const float s = scale * static_cast<float>(i);
    tab[i] =
        static_cast<int>(std::trunc(static_cast<double>(s) + 0.5)) * elemStep;
  }
  const int last = (srcLen - 1) * elemStep;
  for (int i = dstLen - 1; i >= 0 && tab[i] >= last; --i) tab[i] = last;
}

void ipf_calc_resize_tab_bl(int srcLen, int dstLen, int* tab, float* frac,
                            int elemStep) {
  if (tab == nullptr || frac == nullptr || dstLen < 1) return;
  if (dstLen == 1) {
    tab[0] = 0;
    frac[0] = 0.0f;
    return;
  }
  const float scale = static_cast<float>(srcLen) / static_cast<float>(dstLen);
  for (int i = 0; i < dstLen; ++i) {
    const float s = scale * static_cast<float>(i);
    const float whole = std::trunc(s);
    tab[i] = static_cast<int>(whole) * elemStep;
    frac[i] = s - whole;
  }
  // The last pair with all weight on its right member, so that no entry
  // reads past the last element.
  const int last = (srcLen - 1) * elemStep;
  for (int i = dstLen - 1; i >= 0 && tab[i] >= last; --i) {
    tab[i] = (srcLen - 2) * elemStep;
    frac[i] = 1.0f;
  }
}

template <typename T, typename C>
void ipf_resize_nn(const T* src, int srcWidth, int srcHeight, int srcStep,
                   int srcPixStep, T* dst, int dstWidth, int dstHeight,
                   int dstStep, int dstPixStep, C) {
  constexpr int N = ChannelsOf(C());
  if (dstWidth < 1 || dstHeight < 1) return;
  if (srcPixStep == N && dstPixStep == N && srcWidth == dstWidth &&
      srcHeight == dstHeight) {
    ipf_memcpy_2d(src, static_cast<int>(srcWidth * N * sizeof(T)), srcHeight,
                  static_cast<int>(srcStep * sizeof(T)), dst,
                  static_cast<int>(dstStep * sizeof(T)));
    return;
  }
  int* colTab = new int[dstWidth];
  int* rowTab = new int[dstHeight];
  ipf_calc_resize_tab_nn(srcWidth, dstWidth, colTab, srcPixStep);
  ipf_calc_resize_tab_nn(srcHeight, dstHeight, rowTab, 1);
  for (int y = 0; y < dstHeight; ++y) {
    CopyRowNearest<T, N>(src + static_cast<ptrdiff_t>(rowTab[y]) * srcStep,
                         colTab, dst + static_cast<ptrdiff_t>(y) * dstStep,
                         dstWidth, dstPixStep);
  }
  delete[] colTab;
  delete[] rowTab;
}

template <typename TS, typename TD>
void ipf_resize_bl(const TS* src, int srcWidth, int srcHeight, int srcStep,
                   int srcPixStep, TD* dst, int dstWidth, int dstHeight,
                   int dstStep, int dstPixStep, int channels) {
  if (dstWidth < 1 || dstHeight < 1 || channels < 1) return;
  int* colTab = new int[dstWidth];
  float* colFrac = new float[dstWidth];
  int* rowTab = new int[dstHeight];
  float* rowFrac = new float[dstHeight];
  ipf_calc_resize_tab_bl(srcWidth, dstWidth, colTab, colFrac, srcPixStep);
  ipf_calc_resize_tab_bl(srcHeight, dstHeight, rowTab, rowFrac, 1);
  // A single source column or row would have its table point one element
  // before the plane, with all weight on the element after it: read that
  // element twice instead, which gives the same value.
  const int xStep = srcWidth > 1 ? srcPixStep : 0;
  const int yStep = srcHeight > 1 ? srcStep : 0;
  if (srcWidth <= 1) std::memset(colTab, 0, dstWidth * sizeof(int));
  if (srcHeight <= 1) std::memset(rowTab, 0, dstHeight * sizeof(int));
  const size_t n = static_cast<size_t>(dstWidth) * channels;
  float* top = new float[n];
  float* bottom = new float[n];
  // Packed destination pixels take the vertical blend as one run of values.
  TD* packed = dstPixStep == channels ? nullptr : new TD[n];
  int blendedRow = -1;
  for (int y = 0; y < dstHeight; ++y) {
    if (rowTab[y] != blendedRow) {
      const TS* r0 = src + static_cast<ptrdiff_t>(rowTab[y]) * srcStep;
      LerpRows(r0, r0 + yStep, colTab, colFrac, xStep, dstWidth, channels, top,
               bottom);
      blendedRow = rowTab[y];
    }
    TD* out = dst + static_cast<ptrdiff_t>(y) * dstStep;
    LerpVertical(top, bottom, rowFrac[y], packed ? packed : out,
                 static_cast<int>(n));
    if (packed != nullptr) {
      for (int x = 0; x < dstWidth; ++x) {
        std::memcpy(out + static_cast<ptrdiff_t>(x) * dstPixStep,
                    packed + static_cast<size_t>(x) * channels,
                    channels * sizeof(TD));
      }
    }
  }
  delete[] packed;
  delete[] top;
  delete[] bottom;
  delete[] colTab;
  delete[] colFrac;
  delete[] rowTab;
  delete[] rowFrac;
}

template SOFTMATTE_API void ipf_resize_nn<unsigned char, ccn<1>>(
    const unsigned char*, int, int, int, int, unsigned char*, int, int, int,
    int, ccn<1>);
template SOFTMATTE_API void ipf_resize_nn<unsigned char, ccn<3>>(
    const unsigned char*, int, int, int, int, unsigned char*, int, int, int,
    int, ccn<3>);
template SOFTMATTE_API void ipf_resize_bl<unsigned char, unsigned char>(
    const unsigned char*, int, int, int, int, unsigned char*, int, int, int,
    int, int);

void ipf_calc_nbr_offset(int rx, int ry, int step, int pixStep, int* offsets,
                         bool skipCentre) {
  if (offsets == nullptr || rx < 0 || ry < 0) return;
  int n = 0;
  for (int dy = -ry; dy <= ry; ++dy) {
    for (int dx = -rx; dx <= rx; ++dx) {
      if (skipCentre && dx == 0 && dy == 0) continue;
      offsets[n++] = dy * step + dx * pixStep;
    }
  }
}

}  // namespace ff
