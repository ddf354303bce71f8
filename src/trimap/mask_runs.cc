#include "trimap/mask_runs.h"

#include <cstring>
#include <numeric>

namespace {

int Root(std::vector<int>& parent, int i) {
  while (parent[i] != i) i = parent[i] = parent[parent[i]];
  return i;
}

}  // namespace

MaskRuns FindMaskRuns(const unsigned char* mask, int width, int height) {
  MaskRuns m;
  m.width = width;
  m.height = height;
  m.rowStart.resize(static_cast<size_t>(height > 0 ? height : 0) + 1, 0);
  for (int y = 0; y < height; ++y) {
    m.rowStart[y] = m.runs.size();
    const unsigned char* s = mask + static_cast<size_t>(y) * width;
    int x = 0;
    while (x < width) {
      // Background is skipped a word at a time where it is long.
      while (x + 8 <= width) {
        unsigned long long word;
        std::memcpy(&word, s + x, sizeof word);
        if (word != 0) break;
        x += 8;
      }
      while (x < width && s[x] == 0) ++x;
      if (x == width) break;
      int end = x + 1;
      while (end < width && s[end] != 0) ++end;
      m.runs.push_back({y, x, end});
      x = end;
    }
  }
  if (height > 0) m.rowStart[height] = m.runs.size();

  // Pieces: runs that share a column with a run of the row above.
  std::vector<int> parent(m.runs.size());
  std::iota(parent.begin(), parent.end(), 0);
  for (int y = 1; y < height; ++y) {
    size_t a = m.rowStart[y - 1];
    for (size_t b = m.rowStart[y]; b < m.rowStart[y + 1]; ++b) {
      while (a < m.rowStart[y] && m.runs[a].x1 <= m.runs[b].x0) ++a;
      for (size_t c = a; c < m.rowStart[y] && m.runs[c].x0 < m.runs[b].x1;
           ++c) {
        parent[Root(parent, static_cast<int>(c))] =
            Root(parent, static_cast<int>(b));
      }
    }
  }
  m.piece.resize(m.runs.size());
  std::vector<int> id(m.runs.size(), -1);
  for (size_t r = 0; r < m.runs.size(); ++r) {
    int& p = id[Root(parent, static_cast<int>(r))];
    if (p < 0) p = m.pieces++;
    m.piece[r] = p;
  }
  return m;
}
