// Sparse LU solve of the matting system through SuperLU.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "slu_ddefs.h"
#include "softmatte/export.h"
#include "softmatte/solver.h"
#include "solver/sparse_expand.h"

// SuperLU asks for its blocking and allocation parameters through this
// function; the shared library calls it through its PLT, so this exported
// definition replaces the library's own. The values suit matting systems
// (at most 25 entries a column) better than SuperLU's generic defaults.
extern "C" SOFTMATTE_API int sp_ienv(int ispec) {
  switch (ispec) {
    case 1:  // panel size
      return 12;
    case 2:  // supernode relaxation
      return 6;
    case 3:  // maximum supernode size
      return 100;
    case 4:
      return 200;
    case 5:  // minimum block dimensions for dense updates
      return 60;
    case 6:  // fill ratio for the first L and U allocation
      return 20;
    case 7:
      return 10;
    default:
      return 0;
  }
}

namespace {

void* AllocOrComplain(size_t bytes) {
  void* p = malloc(bytes);
  if (p == nullptr) printf("malloc fails for buf");
  return p;
}

// The statistics record is filled here instead of by StatInit, which
// aborts the process when memory runs out; the solver goes on instead.
void InitStatistics(SuperLUStat_t* stat) {
  const int panel = sp_ienv(1);
  const int relax = sp_ienv(2);
  // dgstrf counts panels of up to max(panel, relax) columns.
  const size_t histogram = static_cast<size_t>(panel > relax ? panel : relax);
  stat->panel_histo = static_cast<int*>(calloc(histogram + 1, sizeof(int)));
  stat->utime = static_cast<double*>(calloc(NPHASES, sizeof(double)));
  stat->ops = static_cast<flops_t*>(calloc(NPHASES, sizeof(flops_t)));
  if (stat->panel_histo == nullptr || stat->utime == nullptr ||
      stat->ops == nullptr) {
    printf("malloc fails for buf in intcalloc");
  }
  stat->TinyPivots = 0;
  stat->RefineSteps = 0;
  stat->expansions = 0;
}

void FreeStatistics(SuperLUStat_t* stat) {
  free(stat->panel_histo);
  free(stat->utime);
  free(stat->ops);
}

}  // namespace

int SparseLinearSys(int* rowIndex, int* colStart, double* values, double* rhs,
                    double* x, int n, int nnz) {
  superlu_options_t options;
  set_default_options(&options);
  // SuperLU's defaults, spelled out: these are the options the results
  // depend on, and a future SuperLU may change its defaults.
  options.Fact = DOFACT;
  options.Equil = YES;
  options.ColPerm = COLAMD;
  options.Trans = NOTRANS;
  options.IterRefine = NOREFINE;
  options.DiagPivotThresh = 1.0;
  options.SymmetricMode = NO;
  options.PivotGrowth = NO;
  options.ConditionNumber = NO;
  options.PrintStat = YES;

  // The matrices only borrow these arrays: Destroy_SuperMatrix_Store
  // leaves them to the caller. Equilibration scales values and rhs in place.
  SuperMatrix a = {};
  SuperMatrix b = {};
  SuperMatrix xm = {};
  dCreate_CompCol_Matrix(&a, n, n, nnz, values, rowIndex, colStart, SLU_NC,
                         SLU_D, SLU_GE);
  dCreate_Dense_Matrix(&b, n, 1, rhs, n, SLU_DN, SLU_D, SLU_GE);
  dCreate_Dense_Matrix(&xm, n, 1, x, n, SLU_DN, SLU_D, SLU_GE);

  const size_t ints = static_cast<size_t>(n) * sizeof(int);
  const size_t doubles = static_cast<size_t>(n) * sizeof(double);
  int* permR = static_cast<int*>(AllocOrComplain(ints));
  int* permC = static_cast<int*>(AllocOrComplain(ints));
  int* etree = static_cast<int*>(AllocOrComplain(ints));
  double* scaleR = static_cast<double*>(AllocOrComplain(doubles));
  double* scaleC = static_cast<double*>(AllocOrComplain(doubles));
  double* ferr = static_cast<double*>(AllocOrComplain(sizeof(double)));
  double* berr = static_cast<double*>(AllocOrComplain(sizeof(double)));
  SuperLUStat_t stat;
  InitStatistics(&stat);

  // Left empty unless the factorisation gets far enough to build them.
  SuperMatrix l = {};
  SuperMatrix u = {};
  GlobalLU_t glu = {};
  mem_usage_t memUsage = {};
  char equed[1] = {'N'};
  double pivotGrowth = 0.0;
  double rcond = 0.0;
  int info = 0;
  // lwork 0: SuperLU allocates its own work space. info is not examined: a
  // singular or failed factorisation still counts as a solve.
  dgssvx(&options, &a, permC, permR, etree, equed, scaleR, scaleC, &l, &u,
         nullptr, 0, &b, &xm, &pivotGrowth, &rcond, ferr, berr, &glu, &memUsage,
         &stat, &info);

  if (l.Store != nullptr) Destroy_SuperNode_Matrix(&l);
  if (u.Store != nullptr) Destroy_CompCol_Matrix(&u);
  free(permR);
  free(permC);
  free(etree);
  free(scaleR);
  free(scaleC);
  free(ferr);
  free(berr);
  Destroy_SuperMatrix_Store(&a);
  Destroy_SuperMatrix_Store(&b);
  Destroy_SuperMatrix_Store(&xm);
  FreeStatistics(&stat);
  return 0;
}

int mn_sparse_solve_d(const double* values, const int* columns,
                      const int* rowStart, int n, int /*storage*/,
                      const double* rhs, double* x) {
  if (n == 0) return 0;
  if (n < 0) {
    printf("error number of unknowns");
    return -1;
  }
  sparse_expand::CompressedColumns full;
  if (!sparse_expand::ExpandUpperTriangle(values, columns, rowStart, n,
                                          &full)) {
    printf("malloc fails for buf");
    return -1;
  }
  if (full.colStart[n] != full.nnz) {
    printf("error number of unknowns");
    sparse_expand::Release(&full);
    return -1;
  }
  // Equilibration rescales the right-hand side in place, and this one
  // belongs to the caller.
  const size_t rhsBytes = static_cast<size_t>(n) * sizeof(double);
  double* scaledRhs = static_cast<double*>(malloc(rhsBytes));
  if (scaledRhs == nullptr) {
    printf("malloc fails for buf");
    sparse_expand::Release(&full);
    return -1;
  }
  memcpy(scaledRhs, rhs, rhsBytes);
  SparseLinearSys(full.rowIndex, full.colStart, full.values, scaledRhs, x, n,
                  full.nnz);
  free(scaledRhs);
  sparse_expand::Release(&full);
  return 0;
}
