#include "solver/fine_solve.h"

#include <cmath>
#include <numeric>
#include <vector>

// Only the MPL-2.0 parts of Eigen: the library ships inside applications.
#define EIGEN_MPL2_ONLY
#include <Eigen/OrderingMethods>
#include <Eigen/SparseCholesky>
#include <Eigen/SparseCore>

namespace {

using SparseMatrix = Eigen::SparseMatrix<double, Eigen::ColMajor, int>;
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

// Approximate minimum degree of the free system: position -> free number.
std::vector<int> MinimumDegreeOrder(const Reduced& r) {
  std::vector<int> count(r.size + 1, 1);  // the diagonal
  for (size_t e = 0; e < r.first.size(); ++e) {
    ++count[r.first[e]];
    ++count[r.second[e]];
  }
  Eigen::SparseMatrix<float, Eigen::ColMajor, int> pattern(r.size, r.size);
  int* start = pattern.outerIndexPtr();
  start[0] = 0;
  for (int f = 0; f < r.size; ++f) start[f + 1] = start[f] + count[f];
  pattern.resizeNonZeros(start[r.size]);
  int* row = pattern.innerIndexPtr();
  std::vector<int> fill(start, start + r.size);
  for (int f = 0; f < r.size; ++f) row[fill[f]++] = f;
  for (size_t e = 0; e < r.first.size(); ++e) {
    row[fill[r.first[e]]++] = r.second[e];
    row[fill[r.second[e]]++] = r.first[e];
  }
  Permutation order;
  Eigen::internal::minimum_degree_ordering(pattern, order);
  return std::vector<int>(order.indices().data(),
                          order.indices().data() + r.size);
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
  // columns, and then works on it in place without a copy of its own.
  const std::vector<int> order = MinimumDegreeOrder(r);
  std::vector<int> position(r.size);
  for (int i = 0; i < r.size; ++i) position[order[i]] = i;
  SparseMatrix a(r.size, r.size);
  int* colStart = a.outerIndexPtr();
  std::vector<int> count(r.size, 1);
  for (size_t e = 0; e < r.first.size(); ++e) {
    ++count[std::max(position[r.first[e]], position[r.second[e]])];
  }
  colStart[0] = 0;
  for (int i = 0; i < r.size; ++i) colStart[i + 1] = colStart[i] + count[i];
  a.resizeNonZeros(colStart[r.size]);
  int* rowIndex = a.innerIndexPtr();
  double* value = a.valuePtr();
  std::vector<int> fill(colStart, colStart + r.size);
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

  Eigen::SimplicialLDLT<SparseMatrix, Eigen::Upper, Eigen::NaturalOrdering<int>>
      ldlt(a);
  if (ldlt.info() != Eigen::Success) return -1;
  Eigen::VectorXd permuted(r.size);
  for (int f = 0; f < r.size; ++f) permuted[position[f]] = r.rhs[f];
  const Eigen::VectorXd solution = ldlt.solve(permuted);
  for (int k = 0; k < n; ++k) {
    const int f = r.freeIndex[k];
    x[k] = f >= 0 ? solution[position[f]] : pinned[k];
  }
  return 0;
}
