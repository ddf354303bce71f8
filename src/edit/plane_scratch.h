#ifndef SOFTMATTE_SRC_EDIT_PLANE_SCRATCH_H_
#define SOFTMATTE_SRC_EDIT_PLANE_SCRATCH_H_

#include <cstddef>
#include <memory>

namespace softmatte_edit {

// An uninitialised buffer of n elements; never empty, so that the pointer of
// an empty plane is still a valid one to pass on.
template <typename T>
std::unique_ptr<T[]> scratch(size_t n) {
  return std::unique_ptr<T[]>(new T[n > 0 ? n : 1]);
}

// Row y of a plane of step elements per row.
template <typename T>
T* row(T* p, int step, int y) {
  return p + static_cast<ptrdiff_t>(step) * y;
}

}  // namespace softmatte_edit

#endif  // SOFTMATTE_SRC_EDIT_PLANE_SCRATCH_H_
