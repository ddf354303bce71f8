#ifndef SOFTMATTE_TESTS_TEST_UTIL_H_
#define SOFTMATTE_TESTS_TEST_UTIL_H_

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace softmatte_test {

constexpr unsigned char kSentinel = 0xA5;

// Fills v with bytes from a fixed-seed generator: a failure must replay.
void FillRandom(std::vector<unsigned char>& v, uint32_t seed);

// size bytes from the same fixed-seed generator.
std::vector<unsigned char> RandomBytes(size_t size, uint32_t seed);

// A plane of height rows of stride bytes: the first rowBytes of each row
// random, the padding set to kSentinel.
std::vector<unsigned char> RandomPlane(int rowBytes, int height, int stride,
                                       uint32_t seed);

// The first rowBytes of each of height rows, stride bytes apart, back to
// back: a padded plane reduced to what can be compared.
std::vector<unsigned char> Packed(const unsigned char* p, int rowBytes,
                                  int height, int stride);

// True when every byte past rowBytes in each row is still kSentinel.
bool PaddingIntact(const std::vector<unsigned char>& plane, int rowBytes,
                   int height, int stride);

// Sets the pixels of a packed width x height plane that lie inside the
// ellipse around (cx, cy) with radii rx, ry to value: the shapes the
// benchmarks build their synthetic masks from.
void FillEllipse(std::vector<unsigned char>& plane, int width, int height,
                 double cx, double cy, double rx, double ry,
                 unsigned char value);

// 255 where plane is at least threshold, else 0: a hard mask from a soft one.
std::vector<unsigned char> Binarize(const std::vector<unsigned char>& plane,
                                    unsigned char threshold);

// Empty when each of the height rows of got holds want(x, y) in its first
// rowElems elements and pad after them up to step; else where the first
// difference is.
template <typename T, typename Want>
std::string PlaneMismatch(const std::vector<T>& got, int rowElems, int height,
                          int step, T pad, Want want) {
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < step; ++x) {
      const T w = x < rowElems ? static_cast<T>(want(x, y)) : pad;
      const T g = got[static_cast<size_t>(y) * step + x];
      if (g != w) {
        return "element " + std::to_string(x) + " of row " + std::to_string(y) +
               ": got " + std::to_string(+g) + ", want " + std::to_string(+w);
      }
    }
  }
  return "";
}

// An 8-bit image read from a PNG: channels is 1 (grey) or 3 (B, G, R order,
// as the library takes colour). Rows are packed (stride = width * channels).
struct Image {
  int width = 0;
  int height = 0;
  int channels = 0;
  std::vector<unsigned char> pixels;
};

// The alphamatting set beside the project (../shared/data/alphamatting, or
// $SOFTMATTE_DATA_DIR/alphamatting); empty when it is not there.
std::string AlphamattingDir();

// One photo of the set: its colour input, a trimap and the ground truth.
struct MattingSample {
  std::string name;  // "GT01" ...
  Image image;       // B, G, R
  Image trimap;      // 0, 128, 255
  Image truth;       // grey alpha
};

// Loads GTnn of the set with trimap/ (or trimap2/ when wide is true).
bool LoadMattingSample(int index, bool wide, MattingSample* out);

// Sum over the trimap's unknown pixels of |alpha - truth| / 255, in
// thousands: the benchmark's SAD figure.
double SadOverUnknown(const std::vector<unsigned char>& alpha,
                      const MattingSample& sample);

// Masks as segmenters give them, made from a ground-truth alpha (packed
// width x height planes, 255 subject, 0 background).
// Blocky: the segmenter ran at 1/factor of each side, where a block is the
// subject when the mean of its truth (blocks clipped at the border) is at
// least 128, and its mask was enlarged back by nearest neighbour.
std::vector<unsigned char> BlockyMask(const std::vector<unsigned char>& truth,
                                      int width, int height, int factor);
// Noisy blocky: as BlockyMask, then a fixed-seed share of the background
// blocks next to the subject's edge (within two blocks) turned into subject,
// one in 20, and of the blocks deep inside the subject turned into
// background, one in 50: the strays and pinholes of a real segmenter.
std::vector<unsigned char> NoisyBlockyMask(
    const std::vector<unsigned char>& truth, int width, int height, int factor);
// Moved: truth >= 128 with its edge moved out (shift > 0) or in (shift < 0)
// by |shift| pixels, in Euclidean distance.
std::vector<unsigned char> MovedEdgeMask(
    const std::vector<unsigned char>& truth, int width, int height, int shift);

// Sum over every pixel of |alpha - truth| / 255, in thousands.
double SadOverImage(const std::vector<unsigned char>& alpha,
                    const std::vector<unsigned char>& truth);

}  // namespace softmatte_test

#endif  // SOFTMATTE_TESTS_TEST_UTIL_H_
