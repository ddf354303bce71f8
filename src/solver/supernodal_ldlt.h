#ifndef SOFTMATTE_SOLVER_SUPERNODAL_LDLT_H_
#define SOFTMATTE_SOLVER_SUPERNODAL_LDLT_H_

#include <cstddef>
#include <memory>
#include <vector>

// Sparse symmetric A = L D L^T with L unit lower triangular and D diagonal,
// without pivoting, for matrices that are nearly semi-definite. Columns of L
// with one row structure form supernodes, and each supernode is factorised
// as a dense frontal matrix (multifrontal), so that nearly all arithmetic
// runs in dense block kernels rather than one column at a time.
class SupernodalLdlt {
 public:
  // Symbolic analysis of the n x n pattern given by its upper triangle in
  // 0-based compressed columns (row indices at most the column, in any order
  // within a column; duplicates are summed), already in elimination order.
  void Analyze(int n, const int* colStart, const int* rowIndex);
  // Numeric factorisation: values[e] belongs to rowIndex[e] of the analysed
  // pattern. False on an exactly zero pivot; the factor is unusable then.
  bool Factorize(const double* values);
  // b := A^-1 b, after a successful Factorize.
  void Solve(double* b) const;

  int Size() const { return n_; }
  int SupernodeCount() const { return static_cast<int>(first_.size()) - 1; }
  // Entries of L, diagonal included, that elimination fills in.
  std::size_t NonZeros() const { return nonZeros_; }
  // Entries of L on and below the diagonal as stored: NonZeros() plus the
  // explicit zeros that merging supernodes adds.
  std::size_t FactorEntries() const;

 private:
  int n_ = 0;
  std::size_t nonZeros_ = 0;
  // Internal column (the caller's order, postordered) of each caller column.
  std::vector<int> position_;
  // The permuted lower triangle by columns; each entry remembers which of
  // the caller's entries it holds.
  std::vector<int> lowerStart_, lowerRow_, lowerSource_;
  // Supernode s: columns first_[s] .. first_[s + 1] - 1; rows (its own
  // columns, then the rows below in increasing order) rows_[rowStart_[s]..];
  // its columns of L from valueStart_[s] in factor_, in column panels, each
  // column-major from the panel's diagonal row down.
  std::vector<int> first_ = {0};
  std::vector<int> parent_;  // supernode, -1 at a root
  std::vector<std::size_t> rowStart_;
  std::vector<int> rows_;
  std::vector<std::size_t> valueStart_;
  std::size_t frontSize_ = 0;  // largest front, rows^2
  std::size_t stackSize_ = 0;  // peak of the pending updates, packed
  std::unique_ptr<double[]> factor_;
  std::vector<double> diagonal_;
};

#endif  // SOFTMATTE_SOLVER_SUPERNODAL_LDLT_H_
