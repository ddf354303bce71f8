#include "softmatte/trimap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using softmatte_test::kSentinel;

constexpr unsigned char kUnknown = 128;

// A segmentation as a caller would pass it, with room for padding.
struct Seg {
  int width = 0;
  int height = 0;
  int stride = 0;
  std::vector<unsigned char> bytes;

  unsigned char at(int x, int y) const {
    return bytes[static_cast<size_t>(y) * stride + x];
  }
};

// Blobs of 255 on 0 with ragged edges, thin lines and a few pixels of other
// values; `fill` 0 or 255 gives a plane of that value only.
Seg RandomSeg(int width, int height, int fill, std::mt19937& rng) {
  Seg s;
  s.width = width;
  s.height = height;
  s.stride = width + 1 + static_cast<int>(rng() % 6);
  s.bytes.assign(static_cast<size_t>(s.stride) * height, kSentinel);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      s.bytes[static_cast<size_t>(y) * s.stride + x] =
          static_cast<unsigned char>(fill < 0 ? 0 : fill);
    }
  }
  if (fill >= 0) return s;
  const int blobs = 1 + static_cast<int>(rng() % 4);
  for (int b = 0; b < blobs; ++b) {
    const int cx = static_cast<int>(rng() % width);
    const int cy = static_cast<int>(rng() % height);
    const int rx = 1 + static_cast<int>(rng() % (width / 2 + 1));
    const int ry = 1 + static_cast<int>(rng() % (height / 2 + 1));
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const double dx = static_cast<double>(x - cx) / rx;
        const double dy = static_cast<double>(y - cy) / ry;
        if (dx * dx + dy * dy <= 1.0 && rng() % 9 != 0) {
          s.bytes[static_cast<size_t>(y) * s.stride + x] = 255;
        }
      }
    }
  }
  const int row = static_cast<int>(rng() % height);
  for (int x = 0; x < width; ++x) {
    s.bytes[static_cast<size_t>(row) * s.stride + x] = 255;
  }
  for (int i = 0; i < 3; ++i) {
    const int x = static_cast<int>(rng() % width);
    const int y = static_cast<int>(rng() % height);
    s.bytes[static_cast<size_t>(y) * s.stride + x] = 100;
  }
  return s;
}

// The trimap builder done the slow way: components by flood fill, thickness
// as the farthest distance to a zero pixel found by trying them all, and a
// window of 128 painted around every 255 pixel that touches another value.
class TrimapPainter {
 public:
  explicit TrimapPainter(const Seg& seg) : seg_(seg) {
    const int w = seg.width;
    const int h = seg.height;
    component_.assign(static_cast<size_t>(w) * h, -1);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        if (component_[y * w + x] < 0) Flood(x, y, components_++);
      }
    }
    thickness_.assign(components_, 0.0);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        double& t = thickness_[component_[y * w + x]];
        t = std::max(t, SquaredDistanceToZero(x, y));
      }
    }
  }

  std::vector<unsigned char> Paint(int max_band, double band_scale) const {
    std::vector<unsigned char> out = Copy();
    for (int y = 0; y < seg_.height; ++y) {
      for (int x = 0; x < seg_.width; ++x) {
        if (!OnBoundary(x, y)) continue;
        Window(out, x, y, HalfSize(x, y, max_band, band_scale));
      }
    }
    return out;
  }

  std::vector<unsigned char> PaintWithImage(
      const std::vector<unsigned char>& img, int img_stride, int max_band,
      double band_scale, int step, int diff_low, int diff_high,
      int min_band) const {
    std::vector<unsigned char> out = Copy();
    const double low = 3.0 * diff_low * diff_low;
    const double high = 3.0 * diff_high * diff_high;
    for (int y = 0; y < seg_.height; ++y) {
      for (int x = 0; x < seg_.width; ++x) {
        if (!OnBoundary(x, y)) continue;
        const int ring = HalfSize(x, y, max_band, band_scale);
        const long contrast = Contrast(img, img_stride, x, y, ring, step);
        double t = (static_cast<double>(contrast) - low) / (high - low);
        int r = min_band;
        if (!std::isnan(t)) {
          t = std::min(std::max(t, 0.0), 1.0);
          r += static_cast<int>(t * (max_band - min_band) + 0.5);
        }
        Window(out, x, y, r);
      }
    }
    return out;
  }

 private:
  void Flood(int x0, int y0, int id) {
    const int w = seg_.width;
    const unsigned char value = seg_.at(x0, y0);
    std::vector<std::pair<int, int>> todo = {{x0, y0}};
    component_[y0 * w + x0] = id;
    while (!todo.empty()) {
      const auto [x, y] = todo.back();
      todo.pop_back();
      const int nx[] = {x - 1, x + 1, x, x};
      const int ny[] = {y, y, y - 1, y + 1};
      for (int i = 0; i < 4; ++i) {
        if (nx[i] < 0 || ny[i] < 0 || nx[i] >= w || ny[i] >= seg_.height) {
          continue;
        }
        int& c = component_[ny[i] * w + nx[i]];
        if (c < 0 && seg_.at(nx[i], ny[i]) == value) {
          c = id;
          todo.push_back({nx[i], ny[i]});
        }
      }
    }
  }

  double SquaredDistanceToZero(int x, int y) const {
    long best = -1;
    for (int sy = 0; sy < seg_.height; ++sy) {
      for (int sx = 0; sx < seg_.width; ++sx) {
        if (seg_.at(sx, sy) != 0) continue;
        const long d = static_cast<long>(x - sx) * (x - sx) +
                       static_cast<long>(y - sy) * (y - sy);
        if (best < 0 || d < best) best = d;
      }
    }
    return best < 0 ? static_cast<double>(1e20f) : static_cast<double>(best);
  }

  bool OnBoundary(int x, int y) const {
    if (seg_.at(x, y) != 255) return false;
    const int nx[] = {x - 1, x + 1, x, x};
    const int ny[] = {y, y, y - 1, y + 1};
    for (int i = 0; i < 4; ++i) {
      if (nx[i] < 0 || ny[i] < 0 || nx[i] >= seg_.width ||
          ny[i] >= seg_.height) {
        continue;
      }
      if (seg_.at(nx[i], ny[i]) != 255) return true;
    }
    return false;
  }

  int HalfSize(int x, int y, int max_band, double band_scale) const {
    const double t = thickness_[component_[y * seg_.width + x]];
    const double h = std::trunc(std::sqrt(t) * band_scale);
    return h >= max_band ? max_band : static_cast<int>(h);
  }

  // Largest squared colour difference between sampled 255 and non-255
  // pixels on the border of the ring of half-size r, walked clockwise.
  long Contrast(const std::vector<unsigned char>& img, int img_stride, int x,
                int y, int r, int step) const {
    const int left = std::max(x - r, 0);
    const int right = std::min(x + r, seg_.width);
    const int top = std::max(y - r, 0);
    const int bottom = std::min(y + r, seg_.height);
    std::vector<std::pair<int, int>> walk;
    if (left < right && top < bottom) {
      for (int i = left; i < right; ++i) walk.push_back({i, top});
      for (int j = top; j < bottom; ++j) walk.push_back({right - 1, j});
      for (int i = right - 1; i >= left; --i) walk.push_back({i, bottom - 1});
      for (int j = bottom - 1; j >= top; --j) walk.push_back({left, j});
    }
    std::vector<std::pair<int, int>> in;
    std::vector<std::pair<int, int>> out;
    for (const auto& p : walk) {
      (seg_.at(p.first, p.second) == 255 ? in : out).push_back(p);
    }
    long best = INT_MIN;
    for (size_t i = 0; i < in.size(); i += step) {
      for (size_t j = 0; j < out.size(); j += step) {
        long d = 0;
        for (int c = 0; c < 3; ++c) {
          const long a = img[static_cast<size_t>(in[i].second) * img_stride +
                             3 * in[i].first + c];
          const long b = img[static_cast<size_t>(out[j].second) * img_stride +
                             3 * out[j].first + c];
          d += (a - b) * (a - b);
        }
        best = std::max(best, d);
      }
    }
    return best;
  }

  std::vector<unsigned char> Copy() const {
    std::vector<unsigned char> out(static_cast<size_t>(seg_.width) *
                                   seg_.height);
    for (int y = 0; y < seg_.height; ++y) {
      for (int x = 0; x < seg_.width; ++x)
        out[y * seg_.width + x] = seg_.at(x, y);
    }
    return out;
  }

  // Rows and columns [c - r, c + r) clipped: one pixel less after the
  // centre than before it.
  void Window(std::vector<unsigned char>& out, int x, int y, int r) const {
    for (int j = y - r; j < y + r; ++j) {
      for (int i = x - r; i < x + r; ++i) {
        if (i >= 0 && j >= 0 && i < seg_.width && j < seg_.height) {
          out[j * seg_.width + i] = kUnknown;
        }
      }
    }
  }

  const Seg& seg_;
  std::vector<int> component_;
  int components_ = 0;
  std::vector<double> thickness_;
};

// Compares out (rows out_stride apart) with the packed reference; the
// padding must still hold the sentinel.
void ExpectTrimap(const std::vector<unsigned char>& out, int out_stride,
                  const std::vector<unsigned char>& want, int width, int height,
                  const char* what) {
  ASSERT_TRUE(softmatte_test::PaddingIntact(out, width, height, out_stride))
      << what;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      ASSERT_EQ(out[static_cast<size_t>(y) * out_stride + x],
                want[y * width + x])
          << what << " " << width << "x" << height << " at (" << x << ", " << y
          << ")";
    }
  }
}

TEST(MakeTrimapFromSegRes, BothFormsMatchThePlainPainter) {
  std::mt19937 rng(31337);
  struct Band {
    int max_band;
    double band_scale;
  };
  const Band bands[] = {{3, 0.5}, {20, 1.3}, {6, 2.0}, {5, 0.7}};
  struct Contrast {
    int step, low, high, min_band;
  };
  const Contrast contrasts[] = {{1, 5, 50, 1}, {3, 20, 20, 2}, {2, 40, 10, 0}};
  for (int width : {5, 17, 31, 40}) {
    for (int height : {4, 9, 23}) {
      for (int trial = 0; trial < 6; ++trial) {
        const int fill = trial == 0 ? 0 : (trial == 1 ? 255 : -1);
        const Seg seg = RandomSeg(width, height, fill, rng);
        const TrimapPainter painter(seg);
        // A photo whose two sides differ by a trial-dependent amount.
        const int img_stride = 3 * width + 2;
        std::vector<unsigned char> img =
            softmatte_test::RandomPlane(3 * width, height, img_stride, rng());
        const int offset = static_cast<int>(rng() % 160);
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            for (int c = 0; c < 3; ++c) {
              unsigned char& v =
                  img[static_cast<size_t>(y) * img_stride + 3 * x + c];
              v = static_cast<unsigned char>(
                  v / 4 + (seg.at(x, y) == 255 ? offset : 0));
            }
          }
        }
        const int out_stride = width + 3;
        for (const Band& band : bands) {
          std::vector<unsigned char> out(
              static_cast<size_t>(out_stride) * height, kSentinel);
          MakeTrimapFromSegRes(seg.bytes.data(), width, height, seg.stride,
                               out.data(), out_stride, band.max_band,
                               band.band_scale);
          ExpectTrimap(out, out_stride,
                       painter.Paint(band.max_band, band.band_scale), width,
                       height, "without image");
          for (const Contrast& c : contrasts) {
            std::fill(out.begin(), out.end(), kSentinel);
            MakeTrimapFromSegRes(
                img.data(), width, height, img_stride, seg.bytes.data(),
                seg.stride, out.data(), out_stride, band.max_band,
                band.band_scale, c.step, static_cast<unsigned char>(c.low),
                static_cast<unsigned char>(c.high), c.min_band);
            ExpectTrimap(out, out_stride,
                         painter.PaintWithImage(img, img_stride, band.max_band,
                                                band.band_scale, c.step, c.low,
                                                c.high, c.min_band),
                         width, height, "with image");
          }
        }
      }
    }
  }
}

}  // namespace

// Photos of the set whose subjects have compact edges: every fractional
// ground-truth pixel lies within 20 pixels of the contour where alpha
// crosses 128. (Hair- and glass-like subjects such as GT03, GT16 or GT27
// have wisps 80 pixels or more from it, out of reach of any band around a
// thresholded mask.)
constexpr int kCompactEdgePhotos[] = {5, 11, 14, 19, 25};

TEST(MakeTrimapFromSegRes,
     BandAroundThresholdedTruthHoldsEveryFractionalPixel) {
  // The band the matting flow uses: half-size up to 20 pixels, half the
  // component's thickness below that. These subjects are hundreds of pixels
  // thick, so the half-size is 20 around all of their edge.
  const int max_band = 20;
  const double band_scale = 0.5;
  int loaded = 0;
  for (int index : kCompactEdgePhotos) {
    softmatte_test::MattingSample sample;
    if (!softmatte_test::LoadMattingSample(index, false, &sample)) continue;
    ++loaded;
    const int width = sample.truth.width;
    const int height = sample.truth.height;
    const std::vector<unsigned char>& truth = sample.truth.pixels;
    std::vector<unsigned char> mask(truth.size());
    for (size_t i = 0; i < truth.size(); ++i) {
      mask[i] = truth[i] >= 128 ? 255 : 0;
    }
    const int out_stride = width + 5;
    std::vector<unsigned char> out(static_cast<size_t>(out_stride) * height,
                                   kSentinel);
    MakeTrimapFromSegRes(mask.data(), width, height, width, out.data(),
                         out_stride, max_band, band_scale);
    ASSERT_TRUE(softmatte_test::PaddingIntact(out, width, height, out_stride));
    long band = 0;
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const unsigned char t = out[static_cast<size_t>(y) * out_stride + x];
        const unsigned char a = truth[static_cast<size_t>(y) * width + x];
        band += t == kUnknown;
        // Outside the band nothing is fractional, so the trimap is the truth.
        if (t != kUnknown) {
          ASSERT_EQ(t, a) << sample.name << " at (" << x << ", " << y << ")";
        }
      }
    }
    // A band, not the whole picture.
    EXPECT_LT(band, static_cast<long>(width) * height / 3) << sample.name;
  }
  if (loaded == 0) GTEST_SKIP() << "alphamatting photos not found";
}
