#ifndef SOFTMATTE_RESAMPLE_PAIR_SEARCH_H_
#define SOFTMATTE_RESAMPLE_PAIR_SEARCH_H_

#include <cstddef>

// The colour-guided pair choice shared by the table builders and the
// table-free upsampler: for a full-resolution pixel, which two reduced pixels
// around it, blended with which 12-bit weight, come closest to its colour.
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

// The 2x2 rule rounds columns but truncates rows; existing tables depend on
// both.
inline int MapColumn2x2(int x, double scale, int n) {
  const int u = static_cast<int>(x * scale + 0.5);
  return u < n - 2 ? u : n - 2;
}
inline int MapRow2x2(int y, double scale, int n) {
  const int v = static_cast<int>(y * scale);
  return v < n - 2 ? v : n - 2;
}

// Reduced pixels over full-resolution ones; a single row or column maps to 0.
inline double Scale(int lowSize, int size) {
  return size > 1 ? static_cast<double>(lowSize - 1) / (size - 1) : 0.0;
}

// Candidates are numbered 3x3 row-major from (u-1, v-1), or 2x2 clockwise
// from (u, v).
template <int kCount>
inline int CandidateDx(int k) {
  return kCount == 9 ? k % 3 - 1 : (k == 1 || k == 2);
}
template <int kCount>
inline int CandidateDy(int k) {
  return kCount == 9 ? k / 3 - 1 : (k >= 2);
}

// Unordered pairs i < j in lexicographic order, the order ties are settled
// in.
template <int kCount>
struct PairList {
  static constexpr int kPairs = kCount * (kCount - 1) / 2;
  int first[kPairs];
  int second[kPairs];
  constexpr PairList() : first(), second() {
    int t = 0;
    for (int i = 0; i < kCount - 1; ++i) {
      for (int j = i + 1; j < kCount; ++j, ++t) {
        first[t] = i;
        second[t] = j;
      }
    }
  }
};

// Pixels searched side by side: each step of the search is the same
// arithmetic on every lane, which plain loops turn into vector code.
constexpr int kLanes = 16;

// Every quantity of the search is an integer, or a binary fraction short
// enough, to fit the 24-bit significand of a float, so single precision holds
// it exactly and vector code gives the integer results bit for bit. Only the
// weight's division rounds, and that is checked where it matters.
template <int kCount, int kErr>
struct LaneSearch {
  static constexpr PairList<kCount> kList{};
  static constexpr int kPairs = PairList<kCount>::kPairs;

  float p[kCount][4];  // candidate colours
  float c[4][kLanes];  // the lanes' colours, channel by channel
  // Out: pair number and weight per lane.
  int pair[kLanes];
  int weight[kLanes];

  void Run() {
    for (int k = 0; k < kCount; ++k) {
      for (int l = 0; l < kLanes; ++l) {
        const float s0 = p[k][0] - c[0][l];
        const float s1 = p[k][1] - c[1][l];
        const float s2 = p[k][2] - c[2][l];
        // +1 keeps every sum of two distances positive.
        d[k][l] = s0 * s0 + s1 * s1 + s2 * s2 + 1.0f;
      }
    }
    // Each candidate's largest distance over the lanes bounds every sum of
    // two distances a pair can have.
    for (int k = 0; k < kCount; ++k) {
      float m = d[k][0];
      for (int l = 1; l < kLanes; ++l) m = d[k][l] > m ? d[k][l] : m;
      widest[k] = m;
    }
    Scan();
    float di[kLanes], dj[kLanes];
    for (int l = 0; l < kLanes; ++l) {
      pair[l] = static_cast<int>(best[l]) & 63;
      di[l] = d[kList.first[pair[l]]][l];
      dj[l] = d[kList.second[pair[l]]][l];
    }
    for (int l = 0; l < kLanes; ++l) weight[l] = Weight(di[l], dj[l]);
  }

 private:
  // floor(4096 * dj / (di + dj)): the rounded quotient may have reached the
  // next integer, which one exact integer check takes back.
  static int Weight(float di, float dj) {
    int w = static_cast<int>(dj * 4096.0f / (di + dj));
    const int i = static_cast<int>(di);
    const int j = static_cast<int>(dj);
    return w - (w * (i + j) > (j << kShift));
  }

  // floor(x) for x >= 0 on the 2^-12 grid: moved off the half-way points
  // and added to 1.5 * 2^26, where floats are exactly 8 apart. Everything is
  // scaled by 8 so that the squares come out as 64 times the error.
  static constexpr float kFloorBias = 8.0f / 8192.0f - 4.0f;
  static constexpr float kMagic = 100663296.0f;

  // The lanes' blends and errors for pair t, the weight taken back by one
  // where the rounded division may have reached the next integer.
  template <bool kCorrect>
  void Step(int t, const float (&num)[kCount][kLanes],
            const float (&target)[kErr][kLanes]) {
    const int i = kList.first[t];
    const int j = kList.second[t];
    float a[4], b[4];
    for (int ch = 0; ch < 4; ++ch) {
      a[ch] = (p[i][ch] - p[j][ch]) * (8.0f / kOne);
      b[ch] = 8.0f * p[j][ch] + kFloorBias;
    }
    const float tag = static_cast<float>(t);
    for (int l = 0; l < kLanes; ++l) {
      const float q = num[j][l] / (d[i][l] + d[j][l]);
      const float w = static_cast<float>(kCorrect ? Weight(d[i][l], d[j][l])
                                                  : static_cast<int>(q));
      const float e0 = ((a[0] * w + b[0]) + kMagic) - target[0][l];
      const float e1 = ((a[1] * w + b[1]) + kMagic) - target[1][l];
      const float e2 = ((a[2] * w + b[2]) + kMagic) - target[2][l];
      float e = e0 * e0 + e1 * e1 + e2 * e2;
      if (kErr == 4) {
        const float e3 = ((a[3] * w + b[3]) + kMagic) - target[3][l];
        e += e3 * e3;
      }
      const float key = e + tag;
      best[l] = key < best[l] ? key : best[l];
    }
  }

  void Scan() {
    float num[kCount][kLanes];
    for (int k = 0; k < kCount; ++k) {
      for (int l = 0; l < kLanes; ++l) num[k][l] = d[k][l] * 4096.0f;
    }
    float target[kErr][kLanes];
    for (int ch = 0; ch < kErr; ++ch) {
      for (int l = 0; l < kLanes; ++l) target[ch][l] = kMagic + 8.0f * c[ch][l];
    }
    // Each lane keeps error * 64 + pair number: the smallest key is the
    // smallest error and, among equal errors, the earliest pair, which is
    // what a strict-improvement scan in pair order keeps.
    for (int l = 0; l < kLanes; ++l) best[l] = 3.0e38f;
    for (int t = 0; t < kPairs; ++t) {
      // Below 8192 for the sum, a quotient under 4096 is further from the
      // next integer than half its float spacing, so rounding cannot carry
      // it up and the check is skipped.
      if (widest[kList.first[t]] + widest[kList.second[t]] < 8192.0f) {
        Step<false>(t, num, target);
      } else {
        Step<true>(t, num, target);
      }
      // An exact blend on every lane ends the search: later pairs cannot win.
      // Checked now and then, as it rarely happens on every lane.
      if (t % 4 != 3) continue;
      int exact = 0;
      for (int l = 0; l < kLanes; ++l) exact += best[l] < 64.0f;
      if (exact == kLanes) break;
    }
  }

  float d[kCount][kLanes];
  float widest[kCount];
  float best[kLanes];
};

// Runs the search over every selected pixel of rows [y0, y1), one reduced
// neighbourhood at a time: all pixels that map to the same (u, v) share their
// candidates. select(x, y) picks pixels; store(x, y, a, b, w) receives the
// dense reduced indices of the pair and the weight of a. run, when given,
// replaces LaneSearch::Run (a copy of it built for a wider instruction set).
template <int kBytes, int kCount, typename Select, typename Store>
void SearchRows(const unsigned char* img, int width, int imgStride,
                const unsigned char* low, int lowWidth, int lowHeight,
                int lowStride, const int* columns, double sy, int y0, int y1,
                Select select, Store store,
                void (*run)(LaneSearch<kCount, kBytes>&) = nullptr) {
  constexpr int kErr = kBytes;
  LaneSearch<kCount, kErr> search;
  int laneX[kLanes];
  int laneY[kLanes];
  auto mapRow = [&](int y) {
    return kCount == 9 ? MapCentred(y, sy, lowHeight)
                       : MapRow2x2(y, sy, lowHeight);
  };
  for (int ya = y0; ya < y1;) {
    const int v = mapRow(ya);
    int yb = ya + 1;
    while (yb < y1 && mapRow(yb) == v) ++yb;
    for (int xa = 0; xa < width;) {
      const int u = columns[xa];
      int xb = xa + 1;
      while (xb < width && columns[xb] == u) ++xb;
      int lanes = 0;
      auto flush = [&]() {
        // Idle lanes repeat the first pixel; their results are dropped.
        for (int l = lanes; l < kLanes; ++l) {
          for (int ch = 0; ch < 4; ++ch) search.c[ch][l] = search.c[ch][0];
        }
        if (run) {
          run(search);
        } else {
          search.Run();
        }
        const int base = v * lowWidth + u;
        for (int l = 0; l < lanes; ++l) {
          const int i = LaneSearch<kCount, kErr>::kList.first[search.pair[l]];
          const int j = LaneSearch<kCount, kErr>::kList.second[search.pair[l]];
          store(
              laneX[l], laneY[l],
              base + CandidateDy<kCount>(i) * lowWidth + CandidateDx<kCount>(i),
              base + CandidateDy<kCount>(j) * lowWidth + CandidateDx<kCount>(j),
              search.weight[l]);
        }
        lanes = 0;
      };
      bool loaded = false;
      for (int y = ya; y < yb; ++y) {
        const unsigned char* row = img + static_cast<ptrdiff_t>(y) * imgStride;
        for (int x = xa; x < xb; ++x) {
          if (!select(x, y)) continue;
          if (!loaded) {
            for (int k = 0; k < kCount; ++k) {
              const unsigned char* q =
                  low +
                  static_cast<ptrdiff_t>(v + CandidateDy<kCount>(k)) *
                      lowStride +
                  static_cast<ptrdiff_t>(u + CandidateDx<kCount>(k)) * kBytes;
              for (int ch = 0; ch < 4; ++ch) {
                search.p[k][ch] = ch < kBytes ? q[ch] : 0.0f;
              }
            }
            loaded = true;
          }
          const unsigned char* px = row + static_cast<ptrdiff_t>(x) * kBytes;
          search.c[0][lanes] = px[0];
          search.c[1][lanes] = px[1];
          search.c[2][lanes] = px[2];
          search.c[3][lanes] = kBytes == 4 ? px[kBytes - 1] : 0.0f;
          laneX[lanes] = x;
          laneY[lanes] = y;
          if (++lanes == kLanes) flush();
        }
      }
      if (lanes > 0) flush();
      xa = xb;
    }
    ya = yb;
  }
}

}  // namespace usam_internal

#endif  // SOFTMATTE_RESAMPLE_PAIR_SEARCH_H_
