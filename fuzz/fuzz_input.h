#ifndef SOFTMATTE_FUZZ_FUZZ_INPUT_H_
#define SOFTMATTE_FUZZ_FUZZ_INPUT_H_

// What every harness shares: reading parameters and pixels from the fuzzer's
// bytes, planes whose row padding and end are guarded, and the trap that
// reports a broken invariant as a crash.
#include <algorithm>
#include <cmath>
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
  bool Bool() { return Byte() & 1; }

  // A value in [lo, hi], from one byte when the range fits in it, else two.
  int Int(int lo, int hi) {
    const unsigned span = static_cast<unsigned>(hi - lo) + 1;
    unsigned v = Byte();
    if (span > 256) v = (v << 8) | Byte();
    return lo + static_cast<int>(v % span);
  }

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
  // Row padding of 0 to 7 elements, from the input.
  SentinelPlane(FuzzInput& in, int rows_, int used_, T sentinel_ = kSentinel)
      : SentinelPlane(rows_, used_ + in.Int(0, 7), used_, sentinel_) {}

  T* p() { return data.data(); }
  T* row(int y) { return p() + static_cast<size_t>(y) * step; }
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
using Plane = SentinelPlane<uint8_t>;

// Colour bytes for a width x height three-channel plane: raw, or drawn from a
// four-colour palette so that flat areas, repeated colours and exact blends
// turn up often.
inline void FillColours(FuzzInput& in, Plane& plane, int width, int height,
                        bool palette, const uint8_t (*colours)[3]) {
  if (!palette) return plane.Fill(in);
  ForEach(width, height, [&](int x, int y) {
    std::memcpy(&plane.at(3 * x, y), colours[in.Byte() & 3], 3);
  });
}

// A mask-like plane (one channel) from the data: up to four discs, some cut
// by the border, with a soft edge of a width from the data unless hard, and
// capped now and then so that the subject or the background is missing; or
// raw bytes.
inline void FillShapes(FuzzInput& in, Plane& plane, bool hard = false) {
  const uint8_t shape = in.Byte();
  if (shape & 1) return plane.Fill(in);
  const int width = plane.used, height = plane.rows;
  const int discs = 1 + (shape >> 1) % 4, cap = shape >> 3 & 3;
  const int ramp = hard ? 0 : in.Int(0, 24);
  int cx[4], cy[4], r[4];
  for (int k = 0; k < discs; ++k) {
    cx[k] = in.Int(-8, width + 8), cy[k] = in.Int(-8, height + 8);
    r[k] = in.Int(0, 72);
  }
  ForEach(width, height, [&](int x, int y) {
    int v = 0;
    for (int k = 0; k < discs; ++k) {
      // How far inside the disc's edge, in whole pixels, times 255.
      const int inside =
          255 * (r[k] - static_cast<int>(std::hypot(x - cx[k], y - cy[k])));
      v = std::max(v, ramp == 0 ? (inside >= 0 ? 255 : 0)
                                : std::clamp(128 + inside / ramp, 0, 255));
    }
    if (!hard) v = std::clamp(v, cap == 2 ? 30 : 0, cap == 1 ? 200 : 255);
    plane.at(x, y) = static_cast<uint8_t>(v);
  });
}

// A trimap: soft shapes cut into the subject (subject_value), the background
// (the other of 0 and 255) and an unknown band of 128 between them.
inline void FillTrimap(FuzzInput& in, Plane& plane, uint8_t subject_value) {
  FillShapes(in, plane);
  ForEach(plane.used, plane.rows, [&](int x, int y) {
    uint8_t& v = plane.at(x, y);
    v = v < 64 ? 255 - subject_value : v > 191 ? subject_value : 128;
  });
}

// The entry point: FUZZ_HARNESS(8) { ... in ... } runs the body on inputs of
// at least 8 bytes, reading them through `in`.
#define FUZZ_HARNESS(min_size)                                           \
  static void FuzzOne(FuzzInput& in);                                    \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t n) { \
    FuzzInput in(data, n);                                               \
    if (n >= (min_size)) FuzzOne(in);                                    \
    return 0;                                                            \
  }                                                                      \
  static void FuzzOne(FuzzInput& in)

#endif  // SOFTMATTE_FUZZ_FUZZ_INPUT_H_
