#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdio>
#include <string>
#include <vector>

#include "softmatte/solver.h"

namespace {

// Row 1 of a 3 x 3 triangle lists, after its diagonal, a column past the
// matrix, its own column again, or one left of the diagonal.
TEST(MnSparseSolveD, InconsistentTriangleIsRejectedWithMessage) {
  for (int bad : {7, 2, 1}) {
    const std::vector<double> values = {2.0, 2.0, 0.5, 2.0}, rhs = {1, 1, 1};
    const std::vector<int> columns = {1, 2, bad, 3}, rowStart = {1, 2, 4, 5};
    std::vector<double> x(3, -123.0);
    testing::internal::CaptureStdout();
    const int result =
        mn_sparse_solve_d(values.data(), columns.data(), rowStart.data(), 3, 4,
                          rhs.data(), x.data());
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "error number of unknowns")
        << "column " << bad;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(x, std::vector<double>(3, -123.0)) << "nothing is solved";
  }
}

// The solver's tuning values only count if SuperLU, which calls sp_ienv
// through its PLT, ends up in ours rather than its own.
TEST(SpIenv, OursIsTheDefinitionSuperLuBindsTo) {
  void* found = dlsym(RTLD_DEFAULT, "sp_ienv");
  ASSERT_NE(found, nullptr);
  Dl_info where;
  ASSERT_NE(dladdr(found, &where), 0);
  Dl_info self;
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&mn_sparse_solve_d), &self), 0);
  // A static build links our definition into this executable instead.
  const std::string object = where.dli_fname;
  EXPECT_TRUE(object.find("softmatte") != std::string::npos ||
              object == self.dli_fname)
      << "sp_ienv resolves to " << object;

  auto ienv = reinterpret_cast<int (*)(int)>(found);
  const int want[8] = {0, 12, 6, 100, 200, 60, 20, 10};
  for (int ispec = 0; ispec < 8; ++ispec) {
    EXPECT_EQ(ienv(ispec), want[ispec]) << "ispec " << ispec;
  }
  for (int ispec : {-1, 8, 100}) EXPECT_EQ(ienv(ispec), 0) << ispec;
}

// SuperLU's StatInit sizes its panel histogram from sp_ienv(1) and (2):
// 13 ints with our values, 21 with the library's own panel size of 20.
TEST(SpIenv, SuperLuSizesItsPanelHistogramWithOurValues) {
  // SuperLUStat_t's layout; the test does not see SuperLU's headers.
  struct Statistics {
    int* panelHisto;
    double* utime;
    float* ops;
    int tinyPivots;
    int refineSteps;
    int expansions;
  };
  using StatFunction = void (*)(Statistics*);
  auto init = reinterpret_cast<StatFunction>(dlsym(RTLD_DEFAULT, "StatInit"));
  auto release =
      reinterpret_cast<StatFunction>(dlsym(RTLD_DEFAULT, "StatFree"));
  if (init == nullptr || release == nullptr) {
    GTEST_SKIP() << "SuperLU's StatInit is not reachable from here";
  }
  Statistics stat = {};
  init(&stat);
  ASSERT_NE(stat.panelHisto, nullptr);
  const size_t bytes = malloc_usable_size(stat.panelHisto);
  EXPECT_GE(bytes, 13 * sizeof(int));
  EXPECT_LT(bytes, 21 * sizeof(int));
  release(&stat);
}

}  // namespace
