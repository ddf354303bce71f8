#include "solver/fine_solve.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "solver/supernodal_ldlt.h"

// Only the MPL-2.0 parts of Eigen: the library ships inside applications.
#define EIGEN_MPL2_ONLY
#include <Eigen/OrderingMethods>
#include <Eigen/SparseCore>

namespace {

using Permutation =
    Eigen::PermutationMatrix<Eigen::Dynamic, Eigen::Dynamic, int>;

int Root(std::vector<int>& parent, int i) {
  while (parent[i] != i) i = parent[i] = parent[parent[i]];
  return i;
}

// The free unknowns' system: its couplings as (row, column) pairs of free
// numbers with row < column, and the right-hand side that the pinned
// neighbours leave.
struct Reduced {
  int size = 0;
  std::vector<int> freeIndex;  // per unknown, -1 when pinned
  std::vector<double> diagonal;
  std::vector<int> first;  // coupling ends, first < second
  std::vector<int> second;
  std::vector<double> coupling;
  Eigen::VectorXd rhs;
};

// False when a group of free unknowns joined by couplings touches no pinned
// unknown: nothing fixes its level and the system is singular.
bool EveryGroupAnchored(const Reduced& r, const std::vector<char>& anchored) {
  std::vector<int> parent(r.size);
  std::iota(parent.begin(), parent.end(), 0);
  for (size_t e = 0; e < r.first.size(); ++e) {
    parent[Root(parent, r.second[e])] = Root(parent, r.first[e]);
  }
  std::vector<char> reached(r.size, 0);
  for (int f = 0; f < r.size; ++f) {
    if (anchored[f]) reached[Root(parent, f)] = 1;
  }
  for (int f = 0; f < r.size; ++f) {
    if (!reached[Root(parent, f)]) return false;
  }
  return true;
}

// The 2 x 2 pixel block of each free unknown, numbered from 0; returns the
// number of blocks. Without pixel positions (a whole-image problem) every
// unknown is a block of its own.
int PixelBlocks(const mat_data& problem, const Reduced& r,
                std::vector<int>& block) {
  block.resize(r.size);
  if (problem.pixelOf == nullptr || problem.width < 1) {
    std::iota(block.begin(), block.end(), 0);
    return r.size;
  }
  const long across = (problem.width + 1) / 2;
  std::vector<std::pair<long, int>> keyed;
  keyed.reserve(r.size);
  for (int k = 0; k < problem.n; ++k) {
    if (r.freeIndex[k] < 0) continue;
    const long p = problem.pixelOf[k];
    keyed.push_back({p / problem.width / 2 * across + p % problem.width / 2,
                     r.freeIndex[k]});
  }
  std::sort(keyed.begin(), keyed.end());
  int blocks = 0;
  for (size_t i = 0; i < keyed.size(); ++i) {
    if (i > 0 && keyed[i].first != keyed[i - 1].first) ++blocks;
    block[keyed[i].second] = blocks;
  }
  return blocks + 1;
}

// Approximate minimum degree of the free system, computed on the graph of
// its 2 x 2 pixel blocks, each block's unknowns kept together: position ->
// free number. Pixels of a block share nearly all neighbours under 3 x 3
// windows, so eliminating them together costs no more fill, and the graph a
// quarter the size is ordered about ten times faster; the blocks' columns
// then also make wider supernodes.
std::vector<int> MinimumDegreeOrder(const mat_data& problem, const Reduced& r) {
  std::vector<int> block;
  const int blocks = PixelBlocks(problem, r, block);
  std::vector<int> count(blocks + 1, 1);  // the diagonal
  for (size_t e = 0; e < r.first.size(); ++e) {
    const int a = block[r.first[e]];
    const int b = block[r.second[e]];
    if (a == b) continue;
    ++count[a];
    ++count[b];
  }
  Eigen::SparseMatrix<float, Eigen::ColMajor, int> pattern(blocks, blocks);
  int* start = pattern.outerIndexPtr();
  start[0] = 0;
  for (int g = 0; g < blocks; ++g) start[g + 1] = start[g] + count[g];
  pattern.resizeNonZeros(start[blocks]);
  int* row = pattern.innerIndexPtr();
  std::vector<int> fill(start, start + blocks);
  for (int g = 0; g < blocks; ++g) row[fill[g]++] = g;
  for (size_t e = 0; e < r.first.size(); ++e) {
    const int a = block[r.first[e]];
    const int b = block[r.second[e]];
    if (a == b) continue;
    row[fill[a]++] = b;
    row[fill[b]++] = a;
  }
  // Two blocks are coupled through several pixel pairs: one entry each.
  std::vector<int> seen(blocks, -1);
  int kept = 0;
  for (int g = 0; g < blocks; ++g) {
    const int begin = start[g];
    start[g] = kept;
    for (int k = begin; k < fill[g]; ++k) {
      if (seen[row[k]] == g) continue;
      seen[row[k]] = g;
      row[kept++] = row[k];
    }
  }
  start[blocks] = kept;
  pattern.resizeNonZeros(kept);
  Permutation blockOrder;
  Eigen::internal::minimum_degree_ordering(pattern, blockOrder);

  std::vector<int> blockPosition(blocks);
  for (int i = 0; i < blocks; ++i) blockPosition[blockOrder.indices()[i]] = i;
  std::vector<int> next(blocks + 1, 0);
  for (int f = 0; f < r.size; ++f) ++next[blockPosition[block[f]] + 1];
  for (int i = 0; i < blocks; ++i) next[i + 1] += next[i];
  std::vector<int> order(r.size);
  for (int f = 0; f < r.size; ++f) order[next[blockPosition[block[f]]]++] = f;
  return order;
}

}  // namespace

int SolvePinned(const mat_data& problem, const double* pinned, double* x) {
  const int n = problem.n;
  Reduced r;
  r.freeIndex.assign(n, -1);
  for (int k = 0; k < n; ++k) {
    if (std::isnan(pinned[k])) r.freeIndex[k] = r.size++;
  }
  if (r.size == 0) {
    for (int k = 0; k < n; ++k) x[k] = pinned[k];
    return 0;
  }

  r.diagonal.resize(r.size);
  r.rhs = Eigen::VectorXd::Zero(r.size);
  std::vector<char> anchored(r.size, 0);
  for (int k = 0; k < n; ++k) {
    const int fk = r.freeIndex[k];
    const int begin = problem.rowStart[k] - 1;
    const int end = problem.rowStart[k + 1] - 1;
    if (fk >= 0) r.diagonal[fk] = problem.values[begin];
    for (int e = begin + 1; e < end; ++e) {
      const int c = problem.columns[e] - 1;
      const int fc = r.freeIndex[c];
      const double v = problem.values[e];
      if (fk >= 0 && fc >= 0) {
        r.first.push_back(fk);
        r.second.push_back(fc);
        r.coupling.push_back(v);
      } else if (fk >= 0) {
        r.rhs[fk] -= v * pinned[c];
        anchored[fk] |= v != 0.0;
      } else if (fc >= 0) {
        r.rhs[fc] -= v * pinned[k];
        anchored[fc] |= v != 0.0;
      }
    }
  }
  if (!EveryGroupAnchored(r, anchored)) return -1;

  // The factorisation takes the matrix already permuted, upper triangle by
  // columns.
  const std::vector<int> order = MinimumDegreeOrder(problem, r);
  std::vector<int> position(r.size);
  for (int i = 0; i < r.size; ++i) position[order[i]] = i;
  std::vector<int> colStart(r.size + 1, 0);
  for (size_t e = 0; e < r.first.size(); ++e) {
    ++colStart[std::max(position[r.first[e]], position[r.second[e]]) + 1];
  }
  for (int i = 0; i < r.size; ++i) colStart[i + 1] += colStart[i] + 1;
  std::vector<int> rowIndex(colStart[r.size]);
  std::vector<double> value(colStart[r.size]);
  std::vector<int> fill(colStart.begin(), colStart.end() - 1);
  for (int f = 0; f < r.size; ++f) {
    const int p = position[f];
    rowIndex[fill[p]] = p;
    value[fill[p]++] = r.diagonal[f];
  }
  for (size_t e = 0; e < r.first.size(); ++e) {
    const int p = position[r.first[e]];
    const int q = position[r.second[e]];
    const int column = std::max(p, q);
    rowIndex[fill[column]] = std::min(p, q);
    value[fill[column]++] = r.coupling[e];
  }
  r.first = {};
  r.second = {};
  r.coupling = {};

  SupernodalLdlt ldlt;
  ldlt.Analyze(r.size, colStart.data(), rowIndex.data());
  if (!ldlt.Factorize(value.data())) return -1;
  std::vector<double> solution(r.size);
  for (int f = 0; f < r.size; ++f) solution[position[f]] = r.rhs[f];
  ldlt.Solve(solution.data());
  for (int k = 0; k < n; ++k) {
    const int f = r.freeIndex[k];
    x[k] = f >= 0 ? solution[position[f]] : pinned[k];
  }
  return 0;
}
