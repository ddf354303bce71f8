#include "solver/supernodal_ldlt.h"

#include <algorithm>
#include <climits>
#include <cstring>

// Only the MPL-2.0 parts of Eigen: the library ships inside applications.
#define EIGEN_MPL2_ONLY
#include <Eigen/Core>

namespace {

using Eigen::Index;
using Matrix = Eigen::Map<Eigen::MatrixXd>;
using Block = Eigen::Map<const Eigen::MatrixXd, 0, Eigen::OuterStride<>>;

// Pivot columns are factorised one at a time in panels of this width, before
// each panel updates the rest of the front in one product. L is stored and
// solved in the same panels, each from its diagonal down, so that the unused
// upper triangles of the diagonal blocks stay small.
constexpr Index kPanel = 32;

// Entries of a supernode's panels: rows x columns from its diagonal down.
std::size_t PanelStorage(std::size_t rows, std::size_t columns) {
  std::size_t size = 0;
  for (std::size_t p = 0; p < columns; p += kPanel) {
    size += (rows - p) * std::min<std::size_t>(kPanel, columns - p);
  }
  return size;
}

// A child supernode is merged into its parent when the merged supernode
// (of at most `columns` columns) stores at most this share of explicit
// zeros: small supernodes cost more in bookkeeping than their zeros cost in
// arithmetic.
struct Relaxation {
  int columns;
  double zeros;
};
constexpr Relaxation kRelaxations[] = {
    {4, 1.0}, {8, 0.5}, {16, 0.1}, {INT_MAX, 0.02}};

// Entries on and below the diagonal of a supernode.
double Trapezoid(double columns, double rows) {
  return columns * rows - columns * (columns - 1) / 2;
}

std::vector<int> EliminationTree(int n, const int* colStart,
                                 const int* rowIndex) {
  std::vector<int> parent(n, -1), ancestor(n, -1);
  for (int j = 0; j < n; ++j) {
    for (int e = colStart[j]; e < colStart[j + 1]; ++e) {
      // Climbs from the row to the root of its subtree so far, pointing
      // the path at j (path compression).
      for (int i = rowIndex[e]; i != -1 && i < j;) {
        const int next = ancestor[i];
        ancestor[i] = j;
        if (next == -1) parent[i] = j;
        i = next;
      }
    }
  }
  return parent;
}

// Nodes with every subtree contiguous and children before parents; children
// in increasing order, so that an order that already is a postorder stays.
std::vector<int> Postorder(const std::vector<int>& parent) {
  const int n = static_cast<int>(parent.size());
  std::vector<int> head(n, -1), next(n, -1), stack, order;
  order.reserve(n);
  for (int j = n - 1; j >= 0; --j) {
    if (parent[j] == -1) continue;
    next[j] = head[parent[j]];
    head[parent[j]] = j;
  }
  for (int root = 0; root < n; ++root) {
    if (parent[root] != -1) continue;
    stack.push_back(root);
    while (!stack.empty()) {
      const int top = stack.back();
      const int child = head[top];
      if (child == -1) {
        stack.pop_back();
        order.push_back(top);
      } else {
        head[top] = next[child];
        stack.push_back(child);
      }
    }
  }
  return order;
}

// Entries of each column of L, diagonal included, for a postordered tree
// and the lower triangle by columns, in nearly linear time: each row's
// subtree of L contributes through its leaves, and overlapping paths are
// subtracted at least common ancestors (Gilbert, Ng and Peyton, 1994).
std::vector<int> ColumnCounts(const std::vector<int>& parent,
                              const std::vector<int>& start,
                              const std::vector<int>& row) {
  const int n = static_cast<int>(parent.size());
  std::vector<int> first(n, -1), maxFirst(n, -1), prevLeaf(n, -1);
  std::vector<int> ancestor(n), count(n);
  // first[j]: the first node of j's subtree, which in postorder is its
  // smallest; j is a leaf of the tree when that is j itself.
  for (int k = 0; k < n; ++k) {
    for (int j = k; j != -1 && first[j] == -1; j = parent[j]) first[j] = k;
  }
  for (int j = 0; j < n; ++j) {
    count[j] = first[j] == j ? 1 : 0;
    ancestor[j] = j;
  }
  for (int j = 0; j < n; ++j) {
    if (parent[j] != -1) --count[parent[j]];
    for (int e = start[j]; e < start[j + 1]; ++e) {
      const int i = row[e];
      // j is a leaf of row i's subtree unless a node of j's own subtree
      // already came up in row i.
      if (i <= j || first[j] <= maxFirst[i]) continue;
      maxFirst[i] = first[j];
      const int previous = prevLeaf[i];
      prevLeaf[i] = j;
      ++count[j];
      if (previous == -1) continue;
      int q = previous;
      while (q != ancestor[q]) q = ancestor[q];
      for (int s = previous; s != q;) {
        const int up = ancestor[s];
        ancestor[s] = q;
        s = up;
      }
      --count[q];  // the path above the common ancestor is counted already
    }
    if (parent[j] != -1) ancestor[j] = parent[j];
  }
  for (int j = 0; j < n; ++j) {
    if (parent[j] != -1) count[parent[j]] += count[j];
  }
  return count;
}

// Factorises the leading `pivots` columns of the symmetric front F (lower
// triangle) as L D L^T and leaves the Schur complement of the rest in its
// trailing block. Each panel is factorised column by column; its rows below
// then update the trailing lower triangle in one product. scratch holds
// rows x kPanel.
bool PartialLdlt(Matrix& f, Index pivots, double* d, double* scratch) {
  const Index m = f.rows();
  for (Index p = 0; p < pivots; p += kPanel) {
    const Index end = std::min(p + kPanel, pivots);
    for (Index j = p; j < end; ++j) {
      const double pivot = f(j, j);
      if (pivot == 0.0) return false;
      d[j] = pivot;
      // f(:, j) still holds L(:, j) * pivot here.
      for (Index c = j + 1; c < end; ++c) {
        f.col(c).segment(c, m - c) -=
            f.col(j).segment(c, m - c) * (f(c, j) / pivot);
      }
      f.col(j).tail(m - j - 1) /= pivot;
    }
    const Index rest = m - end;
    if (rest == 0) break;
    const Index width = end - p;
    const auto below = f.block(end, p, rest, width);
    Matrix scaled(scratch, rest, width);
    scaled =
        below * Eigen::Map<const Eigen::VectorXd>(d + p, width).asDiagonal();
    f.bottomRightCorner(rest, rest).triangularView<Eigen::Lower>() -=
        below * scaled.transpose();
  }
  return true;
}

}  // namespace

void SupernodalLdlt::Analyze(int n, const int* colStart, const int* rowIndex) {
  n_ = n;
  const std::vector<int> tree = EliminationTree(n, colStart, rowIndex);

  // A postorder has the same fill as the caller's order and makes every
  // supernode a range of consecutive columns.
  const std::vector<int> order = Postorder(tree);
  position_.assign(n, 0);
  for (int k = 0; k < n; ++k) position_[order[k]] = k;
  std::vector<int> parent(n, -1), children(n, 0);
  for (int k = 0; k < n; ++k) {
    const int p = tree[order[k]];
    if (p == -1) continue;
    parent[k] = position_[p];
    ++children[parent[k]];
  }

  // The permuted lower triangle by columns: each column's rows below are
  // what its front gathers.
  lowerStart_.assign(n + 1, 0);
  for (int c = 0; c < n; ++c) {
    for (int e = colStart[c]; e < colStart[c + 1]; ++e) {
      ++lowerStart_[std::min(position_[rowIndex[e]], position_[c]) + 1];
    }
  }
  for (int j = 0; j < n; ++j) lowerStart_[j + 1] += lowerStart_[j];
  const int entries = lowerStart_[n];
  lowerRow_.resize(entries);
  lowerSource_.resize(entries);
  {
    std::vector<int> fill(lowerStart_.begin(), lowerStart_.end() - 1);
    for (int c = 0; c < n; ++c) {
      for (int e = colStart[c]; e < colStart[c + 1]; ++e) {
        const int i = position_[rowIndex[e]];
        const int j = position_[c];
        const int at = fill[std::min(i, j)]++;
        lowerRow_[at] = std::max(i, j);
        lowerSource_[at] = e;
      }
    }
  }
  const std::vector<int> count = ColumnCounts(parent, lowerStart_, lowerRow_);
  nonZeros_ = 0;
  for (int j = 0; j < n; ++j) nonZeros_ += count[j];

  // Fundamental supernodes: j + 1 continues j's supernode when it is j's
  // parent, j is its only child and L(:, j) is L(:, j + 1) plus row j.
  std::vector<int> start;  // first column of each
  for (int j = 0; j < n; ++j) {
    if (j == 0 || parent[j - 1] != j || children[j] != 1 ||
        count[j - 1] != count[j] + 1) {
      start.push_back(j);
    }
  }
  const int fundamental = static_cast<int>(start.size());
  start.push_back(n);
  std::vector<int> supernodeOf(n);
  for (int s = 0; s < fundamental; ++s) {
    for (int j = start[s]; j < start[s + 1]; ++j) supernodeOf[j] = s;
  }

  // Relaxed amalgamation: a supernode whose parent is the next one (in a
  // postorder, the parent's last child) is merged into it when the merged
  // supernode's explicit zeros are few. Going down from the top, the group
  // a supernode would join starts at the next one.
  std::vector<int> columns(fundamental), rows(fundamental);
  std::vector<double> zeros(fundamental, 0.0);
  std::vector<char> merged(fundamental, 0);  // joined the previous one
  for (int s = fundamental - 1; s >= 0; --s) {
    columns[s] = start[s + 1] - start[s];
    rows[s] = count[start[s]];
    if (s + 1 == fundamental) continue;
    const int up = parent[start[s + 1] - 1];
    if (up == -1 || supernodeOf[up] != s + 1) continue;
    const int c = columns[s] + columns[s + 1];
    const int r = columns[s] + rows[s + 1];
    const double storage = Trapezoid(c, r);
    const double z = storage - Trapezoid(columns[s], rows[s]) -
                     (Trapezoid(columns[s + 1], rows[s + 1]) - zeros[s + 1]);
    for (const Relaxation& relax : kRelaxations) {
      if (c <= relax.columns) {
        if (z <= relax.zeros * storage) {
          columns[s] = c;
          rows[s] = r;
          zeros[s] = z;
          merged[s + 1] = 1;
        }
        break;
      }
    }
  }
  first_.clear();
  for (int s = 0; s < fundamental; ++s) {
    if (!merged[s]) first_.push_back(start[s]);
  }
  const int supernodes = static_cast<int>(first_.size());
  first_.push_back(n);
  for (int s = 0; s < supernodes; ++s) {
    for (int j = first_[s]; j < first_[s + 1]; ++j) supernodeOf[j] = s;
  }
  parent_.assign(supernodes, -1);
  std::vector<int> childHead(supernodes, -1), childNext(supernodes, -1);
  for (int s = supernodes - 1; s >= 0; --s) {
    const int up = parent[first_[s + 1] - 1];
    if (up == -1) continue;
    parent_[s] = supernodeOf[up];
    childNext[s] = childHead[parent_[s]];
    childHead[parent_[s]] = s;
  }

  // Row structures: a supernode's rows below its columns are those of its
  // columns in A and of its children's rows below theirs.
  rowStart_.assign(supernodes + 1, 0);
  valueStart_.assign(supernodes + 1, 0);
  rows_.clear();
  std::vector<int> mark(n, -1);
  frontSize_ = 0;
  stackSize_ = 0;
  std::size_t stack = 0;
  for (int s = 0; s < supernodes; ++s) {
    const int f = first_[s];
    const int l = first_[s + 1];
    for (int j = f; j < l; ++j) rows_.push_back(j);
    const std::size_t below = rows_.size();
    auto add = [&](int i) {
      if (i >= l && mark[i] != s) {
        mark[i] = s;
        rows_.push_back(i);
      }
    };
    for (int j = f; j < l; ++j) {
      for (int e = lowerStart_[j]; e < lowerStart_[j + 1]; ++e) {
        add(lowerRow_[e]);
      }
    }
    for (int c = childHead[s]; c != -1; c = childNext[c]) {
      const std::size_t childBelow = rowStart_[c] + (first_[c + 1] - first_[c]);
      for (std::size_t k = childBelow; k < rowStart_[c + 1]; ++k) {
        add(rows_[k]);
      }
      // The child's update leaves the stack when this front takes it.
      const std::size_t u = rowStart_[c + 1] - childBelow;
      stack -= u * (u + 1) / 2;
    }
    std::sort(rows_.begin() + below, rows_.end());
    rowStart_[s + 1] = rows_.size();
    const std::size_t m = rowStart_[s + 1] - rowStart_[s];
    const std::size_t u = rows_.size() - below;
    valueStart_[s + 1] = valueStart_[s] + PanelStorage(m, l - f);
    frontSize_ = std::max(frontSize_, m * m);
    stack += u * (u + 1) / 2;
    stackSize_ = std::max(stackSize_, stack);
  }
  factor_.reset();
  diagonal_.clear();
}

bool SupernodalLdlt::Factorize(const double* values) {
  const int supernodes = SupernodeCount();
  // Every entry of the factor is written before it is read: no zeroing.
  factor_.reset(new double[valueStart_[supernodes]]);
  diagonal_.resize(n_);
  std::unique_ptr<double[]> front(new double[frontSize_]);
  std::unique_ptr<double[]> stack(new double[stackSize_]);
  std::size_t top = 0;
  std::vector<int> pending;  // supernodes whose updates are on the stack
  std::vector<int> local(n_), relative;
  std::size_t largest = 0;
  for (int s = 0; s < supernodes; ++s) {
    largest = std::max(largest, rowStart_[s + 1] - rowStart_[s]);
  }
  std::unique_ptr<double[]> scratch(new double[largest * kPanel]);
  relative.reserve(largest);

  for (int s = 0; s < supernodes; ++s) {
    const int f = first_[s];
    const Index ns = first_[s + 1] - f;
    const int* row = rows_.data() + rowStart_[s];
    const Index m = static_cast<Index>(rowStart_[s + 1] - rowStart_[s]);
    for (Index i = 0; i < m; ++i) local[row[i]] = static_cast<int>(i);

    Matrix frontal(front.get(), m, m);
    for (Index j = 0; j < m; ++j) frontal.col(j).tail(m - j).setZero();
    for (Index j = 0; j < ns; ++j) {
      for (int e = lowerStart_[f + j]; e < lowerStart_[f + j + 1]; ++e) {
        frontal(local[lowerRow_[e]], j) += values[lowerSource_[e]];
      }
    }
    // The children's updates are the latest on the stack, the last child's
    // on top. Rows ascend in both fronts, so a child's lower triangle lands
    // in this front's lower triangle.
    while (!pending.empty() && parent_[pending.back()] == s) {
      const int c = pending.back();
      pending.pop_back();
      const std::size_t below = rowStart_[c] + (first_[c + 1] - first_[c]);
      const Index u = static_cast<Index>(rowStart_[c + 1] - below);
      relative.resize(u);
      for (Index i = 0; i < u; ++i) relative[i] = local[rows_[below + i]];
      top -= static_cast<std::size_t>(u) * (u + 1) / 2;
      const double* update = stack.get() + top;
      for (Index j = 0; j < u; ++j) {
        double* column = &frontal(0, relative[j]);
        for (Index i = j; i < u; ++i) column[relative[i]] += *update++;
      }
    }

    if (!PartialLdlt(frontal, ns, diagonal_.data() + f, scratch.get())) {
      return false;
    }
    double* panel = factor_.get() + valueStart_[s];
    for (Index p = 0; p < ns; p += kPanel) {
      const Index width = std::min(kPanel, ns - p);
      const Index rows = m - p;
      for (Index j = 0; j < width; ++j) {
        std::memcpy(panel + j * rows + j, &frontal(p + j, p + j),
                    sizeof(double) * (rows - j));
      }
      panel += rows * width;
    }
    if (parent_[s] != -1) {
      double* update = stack.get() + top;
      for (Index j = ns; j < m; ++j) {
        std::memcpy(update, &frontal(j, j), sizeof(double) * (m - j));
        update += m - j;
      }
      top = update - stack.get();
      pending.push_back(s);
    }
  }
  return true;
}

void SupernodalLdlt::Solve(double* b) const {
  Eigen::VectorXd x(n_);
  for (int i = 0; i < n_; ++i) x[position_[i]] = b[i];
  Eigen::VectorXd gathered;
  const int supernodes = SupernodeCount();
  for (int s = 0; s < supernodes; ++s) {
    const Index ns = first_[s + 1] - first_[s];
    const int* row = rows_.data() + rowStart_[s];
    const Index m = static_cast<Index>(rowStart_[s + 1] - rowStart_[s]);
    const double* data = factor_.get() + valueStart_[s];
    for (Index p = 0; p < ns; p += kPanel) {
      const Index width = std::min(kPanel, ns - p);
      const Index rows = m - p;
      const Block panel(data, rows, width, Eigen::OuterStride<>(rows));
      data += rows * width;
      auto own = x.segment(row[p], width);
      panel.topRows(width).triangularView<Eigen::UnitLower>().solveInPlace(own);
      gathered.noalias() = panel.bottomRows(rows - width) * own;
      for (Index i = width; i < rows; ++i) x[row[p + i]] -= gathered[i - width];
    }
  }
  x.array() /= Eigen::Map<const Eigen::ArrayXd>(diagonal_.data(), n_);
  for (int s = supernodes - 1; s >= 0; --s) {
    const Index ns = first_[s + 1] - first_[s];
    const int* row = rows_.data() + rowStart_[s];
    const Index m = static_cast<Index>(rowStart_[s + 1] - rowStart_[s]);
    const double* data = factor_.get() + valueStart_[s + 1];
    for (Index p = (ns - 1) / kPanel * kPanel; p >= 0; p -= kPanel) {
      const Index width = std::min(kPanel, ns - p);
      const Index rows = m - p;
      data -= rows * width;
      const Block panel(data, rows, width, Eigen::OuterStride<>(rows));
      gathered.resize(rows - width);
      for (Index i = width; i < rows; ++i) gathered[i - width] = x[row[p + i]];
      auto own = x.segment(row[p], width);
      own.noalias() -= panel.bottomRows(rows - width).transpose() * gathered;
      panel.topRows(width)
          .triangularView<Eigen::UnitLower>()
          .transpose()
          .solveInPlace(own);
    }
  }
  for (int i = 0; i < n_; ++i) b[i] = x[position_[i]];
}

std::size_t SupernodalLdlt::FactorEntries() const {
  std::size_t entries = 0;
  for (int s = 0; s < SupernodeCount(); ++s) {
    const std::size_t ns = first_[s + 1] - first_[s];
    const std::size_t m = rowStart_[s + 1] - rowStart_[s];
    entries += ns * m - ns * (ns - 1) / 2;
  }
  return entries;
}
