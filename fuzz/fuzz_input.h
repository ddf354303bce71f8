#ifndef SOFTMATTE_FUZZ_FUZZ_INPUT_H_
#define SOFTMATTE_FUZZ_FUZZ_INPUT_H_

// What every harness shares: reading parameters and pixels from the fuzzer's
// bytes, planes whose row padding and end are guarded, and the trap that
// reports a broken invariant as a crash.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

// Reads the fuzzer's bytes front to back. Once they run out every read gives
// zeros, so a harness can take its parameters first and its pixels last and
// still run on short inputs.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t remaining() const { return size_ - pos_; }

  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }

  // A value in [lo, hi], from one byte when the range fits in it, else two.
  int Int(int lo, int hi) {
    const unsigned span = static_cast<unsigned>(hi - lo) + 1;
    unsigned v = Byte();
    if (span > 256) v = (v << 8) | Byte();
    return lo + static_cast<int>(v % span);
  }

  bool Bool() { return Byte() & 1; }

  // Fills n bytes from the input, zeros once it is spent.
  void Bytes(uint8_t* out, size_t n) {
    const size_t take = n < remaining() ? n : remaining();
    if (take) std::memcpy(out, data_ + pos_, take);
    std::memset(out + take, 0, n - take);
    pos_ += take;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// A broken invariant: libFuzzer keeps the input that led here.
inline void Check(bool ok) {
  if (!ok) __builtin_trap();
}

constexpr uint8_t kSentinel = 0xA5;
// For int planes: no label, count or sum the library writes.
constexpr int kIntSentinel = -0x5A5A5A5B;

// f(x, y) for every pixel of a width x height plane, row by row.
template <typename F>
void ForEach(int width, int height, F f) {
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) f(x, y);
  }
}

// A plane of rows step elements apart, of which only the first `used`
// elements of each row belong to the image. The rest holds a sentinel that
// the library must never overwrite. The buffer ends right after the last
// row's used elements, so a read past them is a heap overflow.
template <typename T>
struct SentinelPlane {
  SentinelPlane(int rows_, int step_, int used_, T sentinel_ = kSentinel)
      : rows(rows_),
        step(step_),
        used(used_),
        sentinel(sentinel_),
        data(static_cast<size_t>(rows_ - 1) * step_ + used_, sentinel_) {}

  T* p() { return data.data(); }
  T* row(int y) { return p() + static_cast<size_t>(y) * step; }
  const T* row(int y) const { return data.data() + size_t(y) * step; }
  T& at(int x, int y) { return row(y)[x]; }

  // The used part of every row from the input (byte planes).
  void Fill(FuzzInput& in) {
    for (int y = 0; y < rows; ++y) in.Bytes(row(y), used);
  }

  bool PaddingIntact() const {
    for (size_t i = 0; i < data.size(); ++i)
      if (static_cast<int>(i % step) >= used && data[i] != sentinel)
        return false;
    return true;
  }

  int rows, step, used;
  T sentinel;
  std::vector<T> data;
};

// Colour bytes for a width x height three-channel plane: raw, or drawn from a
// four-colour palette so that flat areas, repeated colours and exact blends
// turn up often.
inline void FillColours(FuzzInput& in, SentinelPlane<uint8_t>& plane, int width,
                        int height, bool palette, const uint8_t (*colours)[3]) {
  if (!palette) {
    for (int y = 0; y < height; ++y) in.Bytes(plane.row(y), size_t(width) * 3);
    return;
  }
  ForEach(width, height, [&](int x, int y) {
    const uint8_t* c = colours[in.Byte() & 3];
    std::memcpy(plane.row(y) + 3 * x, c, 3);
  });
}

// Harnesses over the solver: it reports every system size on standard output,
// and a run of millions would spend its time printing.
#define SOFTMATTE_FUZZ_QUIET_STDOUT()                      \
  extern "C" int LLVMFuzzerInitialize(int*, char***) {     \
    return std::freopen("/dev/null", "w", stdout) ? 0 : 0; \
  }

#endif  // SOFTMATTE_FUZZ_FUZZ_INPUT_H_
