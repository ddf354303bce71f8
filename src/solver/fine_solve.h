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

#endif  // SOFTMATTE_SOLVER_FINE_SOLVE_H_
