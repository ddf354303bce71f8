#ifndef SOFTMATTE_SOLVER_FINE_SOLVE_H_
#define SOFTMATTE_SOLVER_FINE_SOLVE_H_

#include "softmatte/solver.h"

// Solves problem's symmetric system with the unknowns whose pinned value is
// not NaN held exactly at it: their couplings move to the right-hand side
// and the rest is factorised as L D L^T. x receives all n values (pinned ones
// copied). Returns 0, or -1 when the reduced system is singular (a group of
// free unknowns coupled to no pinned one) or cannot be factorised; x is then
// untouched.
int SolvePinned(const mat_data& problem, const double* pinned, double* x);

// Assembles the system over the nonzero pixels of mask on the B, G, R image
// with options and solves it into alpha (trimap and alpha: stride width).
// A fine solve that cannot be factorised (nothing known reaches part of the
// band) falls back to the exact one, which always leaves a matte.
void SolveBand(const unsigned char* image, int width, int height, int stride,
               const unsigned char* mask, int maskStride,
               const unsigned char* trimap, unsigned char* alpha,
               const mat_options& options);

#endif  // SOFTMATTE_SOLVER_FINE_SOLVE_H_
