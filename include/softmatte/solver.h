#ifndef SOFTMATTE_SOLVER_H_
#define SOFTMATTE_SOLVER_H_

#include "softmatte/export.h"

// The matting problem: the upper triangle of a symmetric sparse system,
// stored row by row with 1-based columns, the diagonal first in each row and
// at most 13 entries a row. Owns every array below except indexOrigin.
class SOFTMATTE_API mat_data {
 public:
  mat_data();
  ~mat_data();
  mat_data(const mat_data&) = delete;
  mat_data& operator=(const mat_data&) = delete;

  // Array-deletes every owned array; the integers keep their values.
  void release();
  // release, then room for n unknowns (13 entries a row).
  void create(int n);
  // Takes ownership of indexMap, pixelOf and flags (indexOrigin points into
  // indexMap); the last argument is ignored.
  void set_mask_data(int width, int height, const int* roi, int* indexMap,
                     int* indexOrigin, int indexPitch, int* pixelOf,
                     int systemCount, unsigned char* flags, int unknownCount,
                     unsigned char* unused);
  void release_mask_data();
  void swap(mat_data& other);

  int n;
  double* values;  // 13 * n, row by row, diagonal first
  double* rhs;     // n
  int* rowStart;   // n + 1, 1-based
  int* columns;    // 13 * n, 1-based
  int width;       // image plane the problem was built on
  int height;
  int roi[4];            // left, top, right, bottom (exclusive)
  int* indexMap;         // (roiWidth + 4) x (roiHeight + 4), -1 = no unknown
  int* indexOrigin;      // cell of the roi's top-left pixel inside indexMap
  int* pixelOf;          // n: y * width + x of each unknown
  unsigned char* flags;  // n: 1 = first ring around the unknown region
  int indexPitch;        // roiWidth + 4
  int systemCount;
  int unknownCount;
};

// Builds the matting system over the nonzero pixels of mask (and the ring
// around them) of a B, G, R image, reusing rows of previous that are
// unchanged. previous may be out. Leaves out untouched when mask is empty.
SOFTMATTE_API void mat_update(const unsigned char* image, int width, int height,
                              int stride, const unsigned char* mask,
                              int maskStride, const mat_data& previous,
                              mat_data& out, unsigned char* unused);
// Builds the matting system with every pixel of the image an unknown.
SOFTMATTE_API void mat_init(const unsigned char* image, int width, int height,
                            int stride, mat_data& out, unsigned char* unused);
// Solves problem with trimap's known values (anything but 128) as soft
// constraints and writes round(x * 255) into alpha. Both planes have the
// problem's width as stride. Returns the solver's result, 0 when there is no
// unknown; on a negative result alpha is untouched. The matrix is restored.
SOFTMATTE_API int mat_run(mat_data& problem, const unsigned char* trimap,
                          unsigned char* alpha, unsigned char* unused);
// Re-solves the masked pixels of a whole-image problem from mat_init; inside
// the mask a nonzero constraint pins the alpha. Truncates x * 255 without
// rounding. Returns the solver's result, 0 when nothing is to be solved.
SOFTMATTE_API int mat_mask_run(mat_data& problem,
                               const unsigned char* constraint, int width,
                               int height, int constraintStride,
                               unsigned char* mask, int maskStride,
                               unsigned char* alpha, int alphaStride,
                               int unused, double unused2);
// Writes n values round(x * 255), clamped, to alpha[pixelOf[k]] or, with a
// null pixelOf, to consecutive bytes (returning the byte after the last).
SOFTMATTE_API unsigned char* _mat_get_alpha(unsigned char* alpha,
                                            const double* x, const int* pixelOf,
                                            int n);

// Which solve a matting system gets.
enum mat_solver {
  // SuperLU's general LU over the system with known pixels softly pinned;
  // its results are pinned bit for bit. Window statistics in single
  // precision products.
  MAT_SOLVER_EXACT = 0,
  // A symmetric LDL^T factorisation of the system reduced to the undecided
  // pixels, the known ones moved to the right-hand side; window statistics
  // in double precision, so that a far smaller regulariser stays accurate.
  MAT_SOLVER_FINE = 1,
};

// How the matting system is assembled and solved. Value-initialised, it
// selects the exact path with its own regulariser, which gives the results
// of the plain mat_update and mat_run bit for bit.
struct mat_options {
  int solver = MAT_SOLVER_EXACT;  // a mat_solver value
  // Added to each 3 x 3 window's colour covariance (colours in 0..1). 0 picks
  // the solver's default: 1e-4 (as a float) for the exact solve,
  // MAT_FINE_EPSILON for the fine one. Smaller values follow colour edges
  // more closely and make the system harder.
  double epsilon = 0.0;
};

// The fine solve's default regulariser, chosen by measurement on the
// alphamatting.com training photos.
#define MAT_FINE_EPSILON 1e-9

// mat_update with options, without row reuse: builds out afresh over the
// nonzero pixels of mask (out is untouched when there is none). With default
// options the same as mat_update with a fresh record as previous.
SOFTMATTE_API void mat_update(const unsigned char* image, int width, int height,
                              int stride, const unsigned char* mask,
                              int maskStride, mat_data& out,
                              const mat_options& options);
// Solves problem (built with the same options) like mat_run, but writes the
// n solution values, nominally 0..1, to x in unknown order (pixel
// problem.pixelOf[k], or pixel k for a whole-image problem); known pixels get
// their pinned value. Returns 0 after a solve, a negative value when the
// system could not be factorised (fine: a group of undecided pixels that no
// known pixel reaches) and x is then untouched, 0 when there is no unknown.
// The matrix is left as it was.
SOFTMATTE_API int mat_solve(mat_data& problem, const unsigned char* trimap,
                            const unsigned char* alpha, double* x,
                            const mat_options& options);
// mat_run with options: mat_solve, then round(x * 255) into alpha. With
// default options exactly mat_run(problem, trimap, alpha, nullptr).
SOFTMATTE_API int mat_run(mat_data& problem, const unsigned char* trimap,
                          unsigned char* alpha, const mat_options& options);

// Solves the symmetric system given as its upper triangle (1-based compressed
// rows, diagonal first) through SuperLU. storage is not examined. Returns 0
// after a solve, also when the factorisation failed, and -1 when the
// expanded matrix is inconsistent.
SOFTMATTE_API int mn_sparse_solve_d(const double* values, const int* columns,
                                    const int* rowStart, int n, int storage,
                                    const double* rhs, double* x);
// Solves a full 0-based compressed-column system with SuperLU's expert
// driver (equilibration, COLAMD). The arrays are borrowed. Returns 0.
SOFTMATTE_API int SparseLinearSys(int* rowIndex, int* colStart, double* values,
                                  double* rhs, double* x, int n, int nnz);

#endif  // SOFTMATTE_SOLVER_H_
