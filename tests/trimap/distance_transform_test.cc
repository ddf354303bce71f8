#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "softmatte/trimap.h"
#include "test_util.h"

namespace {

using softmatte_test::kSentinel;

constexpr float kFar = 1e20f;

// Squared distance from every pixel to the nearest zero byte of the mask,
// tried against every zero pixel; kFar when the mask has none.
std::vector<float> BruteForceDistance(const std::vector<unsigned char>& mask,
                                      int width, int height, int stride) {
  std::vector<float> out(static_cast<size_t>(width) * height, kFar);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      long best = -1;
      for (int sy = 0; sy < height; ++sy) {
        for (int sx = 0; sx < width; ++sx) {
          if (mask[static_cast<size_t>(sy) * stride + sx] != 0) continue;
          const long d = static_cast<long>(x - sx) * (x - sx) +
                         static_cast<long>(y - sy) * (y - sy);
          if (best < 0 || d < best) best = d;
        }
      }
      if (best >= 0) out[static_cast<size_t>(y) * width + x] = best;
    }
  }
  return out;
}

// Random bytes where a fraction `zeros` of the pixels is 0 (a source);
// the rest is any non-zero value, so that "non-zero" rather than "255" is
// what marks the object. Padding holds the sentinel.
std::vector<unsigned char> RandomMask(int width, int height, int stride,
                                      double zeros, std::mt19937& rng) {
  std::vector<unsigned char> mask(static_cast<size_t>(stride) * height,
                                  kSentinel);
  std::uniform_real_distribution<double> coin(0.0, 1.0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      mask[static_cast<size_t>(y) * stride + x] =
          coin(rng) < zeros ? 0 : static_cast<unsigned char>(1 + rng() % 255);
    }
  }
  return mask;
}

TEST(DistanceTransform, MatchesBruteForceOnRandomMasks) {
  std::mt19937 rng(5150);
  // 2 and 3 are left to the test below: those grids repeat a line.
  for (int width : {1, 4, 5, 7, 16, 33}) {
    for (int height : {1, 4, 6, 9, 31}) {
      for (double zeros : {0.0, 0.01, 0.1, 0.6, 1.0}) {
        const int stride = width + 3;
        const std::vector<unsigned char> mask =
            RandomMask(width, height, stride, zeros, rng);
        std::unique_ptr<float[]> grid(
            DPLMatting_MakeDTInput(mask.data(), width, height, stride));
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            const float want =
                mask[static_cast<size_t>(y) * stride + x] != 0 ? kFar : 0.0f;
            ASSERT_EQ(grid[static_cast<size_t>(y) * width + x], want);
          }
        }
        DistanceTransform(grid.get(), width, height);
        const std::vector<float> want =
            BruteForceDistance(mask, width, height, stride);
        for (size_t i = 0; i < want.size(); ++i) {
          ASSERT_EQ(grid[i], want[i])
              << width << "x" << height << " zeros " << zeros << " at ("
              << i % width << ", " << i / width << ")";
        }
      }
    }
  }
}

// The 1-D transform with arbitrary costs, tried against every sample.
std::vector<float> BruteForce1D(const std::vector<float>& f) {
  const int n = static_cast<int>(f.size());
  std::vector<float> out(f.size());
  for (int p = 0; p < n; ++p) {
    float best = f[0] + static_cast<float>(p * p);
    for (int q = 1; q < n; ++q) {
      const float c = f[q] + static_cast<float>((p - q) * (p - q));
      if (c < best) best = c;
    }
    out[p] = best;
  }
  return out;
}

TEST(DistanceTransform1D, MatchesBruteForceWithAdditiveCosts) {
  std::mt19937 rng(77);
  for (int n : {1, 2, 3, 8, 31, 64}) {
    for (int trial = 0; trial < 20; ++trial) {
      // Small integer costs keep every candidate exact in float, so the
      // envelope must land on a true minimum; kFar entries mix in.
      std::vector<float> f(n);
      for (float& v : f) {
        v = rng() % 5 == 0 ? kFar : static_cast<float>(rng() % 200);
      }
      const std::vector<float> before = f;
      std::unique_ptr<float[]> d(DistanceTransform1D(f.data(), n));
      EXPECT_EQ(f, before) << "the input is only read";
      const std::vector<float> want = BruteForce1D(f);
      for (int p = 0; p < n; ++p) {
        ASSERT_EQ(d[p], want[p])
            << "n " << n << " trial " << trial << " at " << p;
      }
    }
  }
}

TEST(DistanceTransform, SmallGridsTransformTheirFirstLineTwice) {
  // Line ranges are cut at n/4, n/2 and 3 * (n/4): with 2 or 3 lines the
  // last range restarts at 0, so line 0 of that pass goes through twice.
  auto transform_lines = [](std::vector<float>& g, int count, int length,
                            int line_step, int sample_step) {
    auto run = [&](int i) {
      std::vector<float> line(length);
      for (int s = 0; s < length; ++s)
        line[s] = g[i * line_step + s * sample_step];
      const std::vector<float> d = BruteForce1D(line);
      for (int s = 0; s < length; ++s)
        g[i * line_step + s * sample_step] = d[s];
    };
    for (int i = 0; i < count; ++i) run(i);
    if (count == 2 || count == 3) run(0);
  };
  std::mt19937 rng(3);
  for (int width : {2, 3, 5}) {
    for (int height : {2, 3, 4}) {
      for (int trial = 0; trial < 10; ++trial) {
        const std::vector<unsigned char> mask =
            RandomMask(width, height, width, 0.3, rng);
        std::unique_ptr<float[]> grid(
            DPLMatting_MakeDTInput(mask.data(), width, height, width));
        std::vector<float> want(grid.get(), grid.get() + width * height);
        transform_lines(want, width, height, 1, width);  // columns
        transform_lines(want, height, width, width, 1);  // rows
        DistanceTransform(grid.get(), width, height);
        for (int i = 0; i < width * height; ++i) {
          ASSERT_EQ(grid[i], want[i]) << width << "x" << height << " at " << i;
        }
      }
    }
  }
}

TEST(DistanceTransform, LongLinesAgreeWithTheOneDimensionalForm) {
  // Whole rows and whole columns of a grid must come out exactly as the 1-D
  // transform of the same samples, up to the longest lines a photo has,
  // where squares and breakpoints outgrow float's exact integers.
  std::mt19937 rng(4096);
  for (int n : {1000, 4095, 4096, 4097, 6001}) {
    for (double zeros : {0.0005, 0.01, 0.5}) {
      std::vector<float> line(n);
      std::uniform_real_distribution<double> coin(0.0, 1.0);
      for (float& v : line) v = coin(rng) < zeros ? 0.0f : kFar;
      // Every other line also gets large costs, whose sums with the
      // squares round in float.
      if (zeros == 0.01) {
        for (float& v : line) {
          if (v != 0.0f && coin(rng) < 0.7) {
            v = static_cast<float>(rng() % 4000000);
          }
        }
      }
      std::unique_ptr<float[]> want(DistanceTransform1D(line.data(), n));
      std::vector<float> row = line;
      DistanceTransform(row.data(), n, 1);
      std::vector<float> column = line;
      DistanceTransform(column.data(), 1, n);
      for (int p = 0; p < n; ++p) {
        ASSERT_EQ(row[p], want[p]) << "row of " << n << " at " << p;
        ASSERT_EQ(column[p], want[p]) << "column of " << n << " at " << p;
      }
    }
  }
}

// Columns, then rows, each through the 1-D transform: the definition of the
// 2-D transform for grids of 4 or more lines each way.
std::vector<float> Separable(std::vector<float> g, int width, int height,
                             bool brute_force) {
  auto line = [&](int start, int step, int n) {
    std::vector<float> f(n);
    for (int i = 0; i < n; ++i) f[i] = g[start + static_cast<size_t>(i) * step];
    std::vector<float> d;
    if (brute_force) {
      d = BruteForce1D(f);
    } else {
      std::unique_ptr<float[]> r(DistanceTransform1D(f.data(), n));
      d.assign(r.get(), r.get() + n);
    }
    for (int i = 0; i < n; ++i) g[start + static_cast<size_t>(i) * step] = d[i];
  };
  for (int x = 0; x < width; ++x) line(x, width, height);
  for (int y = 0; y < height; ++y) line(y * width, 1, width);
  return g;
}

TEST(DistanceTransform, AdditiveCostsMatchSeparableBruteForce) {
  std::mt19937 rng(8);
  for (int width : {4, 9, 30}) {
    for (int height : {4, 7, 25}) {
      for (int trial = 0; trial < 8; ++trial) {
        // Mostly sources and far pixels, so that whole rows and columns of
        // only those sit next to ones with costs, from a row picked at
        // random on.
        const int costly_from = static_cast<int>(rng() % height);
        std::vector<float> grid(static_cast<size_t>(width) * height);
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            const unsigned r = rng() % 10;
            // -0 is a source too, and comes out as +0 like in the 1-D form.
            float v = r < 3 ? (r == 0 ? -0.0f : 0.0f) : kFar;
            if (y >= costly_from && r == 9) v = static_cast<float>(rng() % 90);
            grid[static_cast<size_t>(y) * width + x] = v;
          }
        }
        const std::vector<float> want = Separable(grid, width, height, true);
        DistanceTransform(grid.data(), width, height);
        ASSERT_EQ(0, std::memcmp(grid.data(), want.data(),
                                 sizeof(float) * want.size()))
            << width << "x" << height << " trial " << trial;
      }
    }
  }
}

TEST(DistanceTransform, LargeGridsAgreeWithSeparableOneDimensionalForm) {
  // Past 2^24 the sums round, and nothing but the 1-D transform applied
  // line by line defines the result.
  std::mt19937 rng(12);
  for (auto [width, height] :
       {std::pair{4100, 6}, {4096, 9}, {5, 4500}, {600, 500}, {4096, 1500}}) {
    std::vector<unsigned char> mask(static_cast<size_t>(width) * height, 0);
    for (int b = 0; b < 4; ++b) {
      const int cx = static_cast<int>(rng() % width);
      const int cy = static_cast<int>(rng() % height);
      const double rx = 1 + rng() % (width / 2 + 1);
      const double ry = 1 + rng() % (height / 2 + 1);
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          const double dx = (x - cx) / rx;
          const double dy = (y - cy) / ry;
          if (dx * dx + dy * dy <= 1.0) {
            mask[static_cast<size_t>(y) * width + x] = 255;
          }
        }
      }
    }
    std::unique_ptr<float[]> grid(
        DPLMatting_MakeDTInput(mask.data(), width, height, width));
    const std::vector<float> want =
        Separable(std::vector<float>(grid.get(), grid.get() + mask.size()),
                  width, height, false);
    DistanceTransform(grid.get(), width, height);
    for (size_t i = 0; i < want.size(); ++i) {
      ASSERT_EQ(grid[i], want[i]) << width << "x" << height << " at ("
                                  << i % width << ", " << i / width << ")";
    }
  }
}

}  // namespace
