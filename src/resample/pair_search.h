#ifndef SOFTMATTE_RESAMPLE_PAIR_SEARCH_H_
#define SOFTMATTE_RESAMPLE_PAIR_SEARCH_H_

#include <climits>
#include <cstddef>

// The colour-guided pair choice shared by the table builders and the
// table-free upsampler: which two reduced pixels, blended with which 12-bit
// weight, come closest to a full-resolution colour.
namespace usam_internal {

constexpr int kOne = 4096;  // 1.0 in the 12-bit weights
constexpr int kShift = 12;

// Reduced column or row of a full-resolution one under the 3x3 rule: rounded,
// then kept one pixel off each edge so the whole neighbourhood exists.
inline int MapCentred(int x, double scale, int n) {
  int u = static_cast<int>(x * scale + 0.5);
  if (u < 1) u = 1;
  if (u > n - 2) u = n - 2;
  return u;
}

// The 2x2 rule rounds columns but truncates rows; callers rely on both.
inline int MapColumn2x2(int x, double scale, int n) {
  const int u = static_cast<int>(x * scale + 0.5);
  return u < n - 2 ? u : n - 2;
}
inline int MapRow2x2(int y, double scale, int n) {
  const int v = static_cast<int>(y * scale);
  return v < n - 2 ? v : n - 2;
}

struct Pick {
  int first;  // candidate numbers, first < second
  int second;
  int weight;  // share of the first, 0 ... kOne
};

// Candidate colours as ints, four slots each whatever the channel count.
template <int kCount>
struct Candidates {
  int p[kCount][4];
};

template <int kBytes, int kCount>
inline void LoadCandidates(const unsigned char* low, int lowStride, int u,
                           int v, Candidates<kCount>* cand) {
  // Numbering: 3x3 row-major from (u-1, v-1); 2x2 clockwise from (u, v).
  static constexpr int kDx3[9] = {-1, 0, 1, -1, 0, 1, -1, 0, 1};
  static constexpr int kDy3[9] = {-1, -1, -1, 0, 0, 0, 1, 1, 1};
  static constexpr int kDx2[4] = {0, 1, 1, 0};
  static constexpr int kDy2[4] = {0, 0, 1, 1};
  for (int k = 0; k < kCount; ++k) {
    const int dx = kCount == 9 ? kDx3[k] : kDx2[k];
    const int dy = kCount == 9 ? kDy3[k] : kDy2[k];
    const unsigned char* p = low + static_cast<ptrdiff_t>(v + dy) * lowStride +
                             static_cast<ptrdiff_t>(u + dx) * kBytes;
    for (int ch = 0; ch < 4; ++ch) cand->p[k][ch] = ch < kBytes ? p[ch] : 0;
  }
}

template <int kCount>
inline int CandidateOffset(int k, int lowWidth) {
  if (kCount == 9) return (k / 3 - 1) * lowWidth + (k % 3 - 1);
  static constexpr int kDx2[4] = {0, 1, 1, 0};
  static constexpr int kDy2[4] = {0, 0, 1, 1};
  return kDy2[k] * lowWidth + kDx2[k];
}

// Chooses the pair whose blend is nearest to colour c. kErr channels count in
// the error, the first three in the distances. The first pair in
// lexicographic order with the least error wins; an exact blend ends the
// search at once.
template <int kCount, int kErr>
inline Pick PickPair(const Candidates<kCount>& cand, const int* c) {
  int d[kCount];
  for (int k = 0; k < kCount; ++k) {
    const int e0 = cand.p[k][0] - c[0];
    const int e1 = cand.p[k][1] - c[1];
    const int e2 = cand.p[k][2] - c[2];
    // +1 keeps every sum of two distances positive.
    d[k] = e0 * e0 + e1 * e1 + e2 * e2 + 1;
  }
  Pick pick{0, 1, 0};
  int best = INT_MAX;
  for (int i = 0; i < kCount - 1; ++i) {
    for (int j = i + 1; j < kCount; ++j) {
      const int w = kOne * d[j] / (d[i] + d[j]);
      int e = 0;
      for (int ch = 0; ch < kErr; ++ch) {
        const int pj = cand.p[j][ch];
        const int q = ((cand.p[i][ch] - pj) * w + pj * kOne) >> kShift;
        e += (q - c[ch]) * (q - c[ch]);
      }
      if (e < best) {
        best = e;
        pick = Pick{i, j, w};
        if (e == 0) return pick;
      }
    }
  }
  return pick;
}

}  // namespace usam_internal

#endif  // SOFTMATTE_RESAMPLE_PAIR_SEARCH_H_
