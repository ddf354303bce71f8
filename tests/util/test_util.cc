#include "test_util.h"

#include <png.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "softmatte/trimap.h"

namespace softmatte_test {

void FillRandom(std::vector<unsigned char>& v, uint32_t seed) {
  std::mt19937 rng(seed);
  for (auto& b : v) b = static_cast<unsigned char>(rng());
}

std::vector<unsigned char> RandomBytes(size_t size, uint32_t seed) {
  std::vector<unsigned char> v(size);
  FillRandom(v, seed);
  return v;
}

std::vector<unsigned char> RandomPlane(int rowBytes, int height, int stride,
                                       uint32_t seed) {
  std::vector<unsigned char> plane(static_cast<size_t>(stride) * height,
                                   kSentinel);
  std::mt19937 rng(seed);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < rowBytes; ++x) {
      plane[static_cast<size_t>(y) * stride + x] =
          static_cast<unsigned char>(rng());
    }
  }
  return plane;
}

std::vector<unsigned char> Packed(const unsigned char* p, int rowBytes,
                                  int height, int stride) {
  std::vector<unsigned char> out(static_cast<size_t>(rowBytes) * height);
  for (int y = 0; y < height; ++y) {
    std::memcpy(&out[static_cast<size_t>(y) * rowBytes],
                p + static_cast<size_t>(y) * stride, rowBytes);
  }
  return out;
}

bool PaddingIntact(const std::vector<unsigned char>& plane, int rowBytes,
                   int height, int stride) {
  for (int y = 0; y < height; ++y) {
    for (int x = rowBytes; x < stride; ++x) {
      if (plane[static_cast<size_t>(y) * stride + x] != kSentinel) return false;
    }
  }
  return true;
}

void FillEllipse(std::vector<unsigned char>& plane, int width, int height,
                 double cx, double cy, double rx, double ry,
                 unsigned char value) {
  for (int y = 0; y < height; ++y) {
    const double dy = (y - cy) / ry;
    for (int x = 0; x < width; ++x) {
      const double dx = (x - cx) / rx;
      if (dx * dx + dy * dy <= 1.0) {
        plane[static_cast<size_t>(y) * width + x] = value;
      }
    }
  }
}

std::vector<unsigned char> Binarize(const std::vector<unsigned char>& plane,
                                    unsigned char threshold) {
  std::vector<unsigned char> out(plane.size());
  for (size_t i = 0; i < plane.size(); ++i) {
    out[i] = plane[i] >= threshold ? 255 : 0;
  }
  return out;
}

// Reads path as grey (channels 1) or B, G, R (channels 3). False on failure.
static bool ReadPng(const std::string& path, int channels, Image* out) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
  image.format = channels == 1 ? PNG_FORMAT_GRAY : PNG_FORMAT_BGR;
  out->width = static_cast<int>(image.width);
  out->height = static_cast<int>(image.height);
  out->channels = channels;
  out->pixels.assign(PNG_IMAGE_SIZE(image), 0);
  if (!png_image_finish_read(&image, nullptr, out->pixels.data(), 0, nullptr)) {
    png_image_free(&image);
    return false;
  }
  return true;
}

std::string AlphamattingDir() {
  std::string base;
  if (const char* env = std::getenv("SOFTMATTE_DATA_DIR")) {
    base = env;
  } else {
    base = std::string(SOFTMATTE_SOURCE_DIR) + "/../shared/data";
  }
  const std::string dir = base + "/alphamatting";
  if (FILE* f = std::fopen((dir + "/input/GT01.png").c_str(), "rb")) {
    std::fclose(f);
    return dir;
  }
  return std::string();
}

bool LoadMattingSample(int index, bool wide, MattingSample* out) {
  const std::string dir = AlphamattingDir();
  if (dir.empty()) return false;
  char name[8];
  std::snprintf(name, sizeof name, "GT%02d", index);
  out->name = name;
  const std::string file = std::string("/") + name + ".png";
  return ReadPng(dir + "/input" + file, 3, &out->image) &&
         ReadPng(dir + (wide ? "/trimap2" : "/trimap") + file, 1,
                 &out->trimap) &&
         ReadPng(dir + "/gt" + file, 1, &out->truth);
}

double SadOverUnknown(const std::vector<unsigned char>& alpha,
                      const MattingSample& sample) {
  double sum = 0.0;
  for (size_t i = 0; i < sample.trimap.pixels.size(); ++i) {
    if (sample.trimap.pixels[i] == 128) {
      sum += std::abs(static_cast<int>(alpha[i]) -
                      static_cast<int>(sample.truth.pixels[i])) /
             255.0;
    }
  }
  return sum / 1000.0;
}

std::vector<unsigned char> BlockyMask(const std::vector<unsigned char>& truth,
                                      int width, int height, int factor) {
  const int lowWidth = (width + factor - 1) / factor;
  const int lowHeight = (height + factor - 1) / factor;
  std::vector<long> sum(static_cast<size_t>(lowWidth) * lowHeight, 0);
  std::vector<int> area(sum.size(), 0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const size_t low =
          static_cast<size_t>(y / factor) * lowWidth + x / factor;
      sum[low] += truth[static_cast<size_t>(y) * width + x];
      ++area[low];
    }
  }
  std::vector<unsigned char> mask(truth.size());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const size_t low =
          static_cast<size_t>(y / factor) * lowWidth + x / factor;
      mask[static_cast<size_t>(y) * width + x] =
          sum[low] >= 128L * area[low] ? 255 : 0;
    }
  }
  return mask;
}

std::vector<unsigned char> NoisyBlockyMask(
    const std::vector<unsigned char>& truth, int width, int height,
    int factor) {
  std::vector<unsigned char> mask = BlockyMask(truth, width, height, factor);
  const int lowWidth = (width + factor - 1) / factor;
  const int lowHeight = (height + factor - 1) / factor;
  auto block = [&](int u, int v) {
    return mask[static_cast<size_t>(v * factor) * width + u * factor] != 0;
  };
  std::vector<unsigned char> flip(static_cast<size_t>(lowWidth) * lowHeight);
  std::mt19937 rng(static_cast<uint32_t>(width * 7919 + height));
  for (int v = 0; v < lowHeight; ++v) {
    for (int u = 0; u < lowWidth; ++u) {
      int near = 0, inside = 0;
      for (int dv = -2; dv <= 2; ++dv) {
        for (int du = -2; du <= 2; ++du) {
          const int uu = u + du, vv = v + dv;
          if (uu < 0 || vv < 0 || uu >= lowWidth || vv >= lowHeight) continue;
          const bool s = block(uu, vv);
          near += s;
          inside += s && std::abs(du) <= 1 && std::abs(dv) <= 1;
        }
      }
      const unsigned roll = rng() % 1000;
      flip[static_cast<size_t>(v) * lowWidth + u] =
          block(u, v) ? inside == 9 && roll < 20 : near > 0 && roll < 50;
    }
  }
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (flip[static_cast<size_t>(y / factor) * lowWidth + x / factor]) {
        unsigned char& m = mask[static_cast<size_t>(y) * width + x];
        m = m ? 0 : 255;
      }
    }
  }
  return mask;
}

std::vector<unsigned char> MovedEdgeMask(
    const std::vector<unsigned char>& truth, int width, int height, int shift) {
  // Squared distance of every pixel to the nearest pixel of the other side:
  // growing measures from the subject, shrinking from the background.
  std::vector<unsigned char> far(truth.size());
  for (size_t i = 0; i < truth.size(); ++i) {
    const bool subject = truth[i] >= 128;
    far[i] = subject == (shift < 0) ? 1 : 0;
  }
  float* distance = DPLMatting_MakeDTInput(far.data(), width, height, width);
  DistanceTransform(distance, width, height);
  const float reach = static_cast<float>(shift) * static_cast<float>(shift);
  std::vector<unsigned char> mask(truth.size());
  for (size_t i = 0; i < truth.size(); ++i) {
    const bool subject = truth[i] >= 128;
    mask[i] = (shift < 0 ? subject && distance[i] > reach
                         : subject || distance[i] <= reach)
                  ? 255
                  : 0;
  }
  delete[] distance;
  return mask;
}

double SadOverImage(const std::vector<unsigned char>& alpha,
                    const std::vector<unsigned char>& truth) {
  double sum = 0.0;
  for (size_t i = 0; i < truth.size(); ++i) {
    sum += std::abs(static_cast<int>(alpha[i]) - static_cast<int>(truth[i]));
  }
  return sum / 255.0 / 1000.0;
}

}  // namespace softmatte_test
