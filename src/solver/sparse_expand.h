#ifndef SOFTMATTE_SOLVER_SPARSE_EXPAND_H_
#define SOFTMATTE_SOLVER_SPARSE_EXPAND_H_

#include <climits>
#include <cstddef>
#include <cstdlib>

// Expansion of a symmetric matrix given as its upper triangle (1-based
// compressed rows, diagonal first in each row, then later columns) into the
// full 0-based compressed-column form a general sparse LU takes. Header-only
// so that the expansion can be timed on its own.
namespace sparse_expand {

// The full matrix. The arrays come from malloc, as the rest of the solver's
// scratch memory; Release frees them.
struct CompressedColumns {
  int n = 0;
  // Entries the triangle asks for: n diagonals plus both mirrors of every
  // stored off-diagonal entry. colStart[n] counts the entries actually
  // placed; the two differ only when the triangle is malformed.
  int nnz = 0;
  int* colStart = nullptr;  // n + 1
  int* rowIndex = nullptr;  // colStart[n], increasing within each column
  double* values = nullptr;
};

inline void Release(CompressedColumns* m) {
  free(m->colStart);
  free(m->rowIndex);
  free(m->values);
  m->colStart = nullptr;
  m->rowIndex = nullptr;
  m->values = nullptr;
}

namespace detail {

// A row is usable when it holds at least its diagonal and lies inside the
// rowStart[n] - 1 stored entries; anything else is never dereferenced.
inline bool RowUsable(const int* rowStart, int r, int n) {
  return rowStart[r] >= 1 && rowStart[r] < rowStart[r + 1] &&
         rowStart[r + 1] <= rowStart[n];
}

// Only later columns belong in the triangle; an entry at or left of the
// diagonal would leave its column out of row order or duplicate an entry.
inline bool ColumnUsable(int c, int r, int n) { return c > r && c < n; }

}  // namespace detail

// Builds out from the triangle. Entries of malformed rows or out-of-range
// columns are counted in nnz but not placed, so colStart[n] != nnz tells the
// caller. Returns false, with nothing allocated, when memory runs out or the
// matrix would have more entries than an int counts. n must be at least 0.
inline bool ExpandUpperTriangle(const double* values, const int* columns,
                                const int* rowStart, int n,
                                CompressedColumns* out) {
  *out = CompressedColumns();
  out->n = n;
  // Counting first, then filling, gives each column exactly its room; the
  // rows are visited in order both times, so every column still receives
  // its entries with increasing row numbers.
  int* colStart =
      static_cast<int*>(calloc(static_cast<size_t>(n) + 1, sizeof(int)));
  int* cursor =
      static_cast<int*>(malloc((static_cast<size_t>(n) + 1) * sizeof(int)));
  if (colStart == nullptr || cursor == nullptr) {
    free(colStart);
    free(cursor);
    return false;
  }

  long long requested = 0;
  int* count = colStart + 1;
  for (int r = 0; r < n; ++r) {
    if (!detail::RowUsable(rowStart, r, n)) {
      ++requested;
      continue;
    }
    requested += 1 + 2LL * (rowStart[r + 1] - rowStart[r] - 1);
    ++count[r];
    for (int k = rowStart[r]; k < rowStart[r + 1] - 1; ++k) {
      const int c = columns[k] - 1;
      if (detail::ColumnUsable(c, r, n)) {
        ++count[c];
        ++count[r];
      }
    }
  }
  // SuperLU indexes with int: a larger matrix cannot be handed over anyway,
  // and stopping here keeps the running sums below from overflowing.
  if (requested > INT_MAX) {
    free(colStart);
    free(cursor);
    return false;
  }
  for (int c = 0; c < n; ++c) colStart[c + 1] += colStart[c];

  const size_t placed = static_cast<size_t>(colStart[n]);
  // One spare element keeps malloc(0) from looking like a failure.
  int* rowIndex = static_cast<int*>(malloc((placed + 1) * sizeof(int)));
  double* full = static_cast<double*>(malloc((placed + 1) * sizeof(double)));
  if (rowIndex == nullptr || full == nullptr) {
    free(colStart);
    free(cursor);
    free(rowIndex);
    free(full);
    return false;
  }

  for (int c = 0; c <= n; ++c) cursor[c] = colStart[c];
  for (int r = 0; r < n; ++r) {
    if (!detail::RowUsable(rowStart, r, n)) continue;
    const int first = rowStart[r] - 1;
    rowIndex[cursor[r]] = r;
    full[cursor[r]++] = values[first];
    for (int k = first + 1; k < rowStart[r + 1] - 1; ++k) {
      const int c = columns[k] - 1;
      if (!detail::ColumnUsable(c, r, n)) continue;
      rowIndex[cursor[c]] = r;
      full[cursor[c]++] = values[k];
      rowIndex[cursor[r]] = c;
      full[cursor[r]++] = values[k];
    }
  }
  free(cursor);

  out->nnz = static_cast<int>(requested);
  out->colStart = colStart;
  out->rowIndex = rowIndex;
  out->values = full;
  return true;
}

}  // namespace sparse_expand

#endif  // SOFTMATTE_SOLVER_SPARSE_EXPAND_H_
