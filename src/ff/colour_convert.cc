#include <algorithm>
#include <cmath>

#include "softmatte/ff/ipf.h"

namespace ff {
namespace {

constexpr double kThird = 1.0 / 3.0;

// The stored byte is the low byte of the truncated value: results outside
// 0 ... 255 wrap instead of saturating, and callers depend on that.
unsigned char LowByte(double v) {
  return static_cast<unsigned char>(static_cast<int>(v));
}

double Linearise(double c) {
  return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}

// The 1.055 sits inside the power, unlike the usual companding curve. Left
// there on purpose: moving it would shift every colour converted back.
unsigned char Compand(double c) {
  const double v =
      c <= 0.00304 ? 12.92 * c : std::pow(1.055 * c, 1.0 / 2.4) - 0.055;
  return static_cast<unsigned char>(std::clamp(v, 0.0, 1.0) * 255.999);
}

double LabF(double t) {
  return t > 0.008856 ? std::pow(t, kThird) : 7.78 * t + 16.0 / 116.0;
}

double Cube(double v) { return std::pow(v, 3.0); }

}  // namespace

void ipf_bgr2lab(const unsigned char* bgr, unsigned char* lab) {
  if (bgr == nullptr || lab == nullptr) return;
  const double r = Linearise(bgr[2] / 255.0);
  const double g = Linearise(bgr[1] / 255.0);
  const double b = Linearise(bgr[0] / 255.0);
  const double x = 0.431 * r + 0.342 * g + 0.178 * b;
  const double y = 0.222 * r + 0.707 * g + 0.071 * b;
  const double z = 0.020 * r + 0.130 * g + 0.939 * b;
  const double l = y > 0.008856 ? 116 * std::pow(y, kThird) - 16 : 903.3 * y;
  const double fy = LabF(y);
  lab[0] = LowByte(l * 2.5599);
  lab[1] = LowByte((LabF(x / 0.951) - fy) * 635 + 128);
  lab[2] = LowByte((fy - LabF(z / 1.089)) * 254 + 128);
}

void ipf_lab2bgr(const unsigned char* lab, unsigned char* bgr) {
  if (lab == nullptr || bgr == nullptr) return;
  const double l = lab[0] / 2.55;
  const double a = (lab[1] - 128) / 1.27;
  const double b = (lab[2] - 128) / 1.27;
  double fy = (l + 16) / 116;
  double y = Cube(fy);
  double x, fz;
  if (y > 0.008856) {
    x = 0.951 * Cube(fy + a / 500);
    fz = fy - b / 200;
  } else {
    y = l / 903.3;
    fy = std::pow(y, kThird);
    x = 0.951 * Cube(fy + a / 500 / 7.787);
    fz = fy - b / 200 / 7.787;
  }
  const double z = 1.089 * Cube(fz);
  bgr[2] = Compand(3.063 * x - 1.393 * y - 0.476 * z);
  bgr[1] = Compand(-0.969 * x + 1.876 * y + 0.042 * z);
  bgr[0] = Compand(0.068 * x - 0.229 * y + 1.069 * z);
}

void ipf_bgr2yuv(const unsigned char* bgr, unsigned char* yuv) {
  if (bgr == nullptr || yuv == nullptr) return;
  const double b = bgr[0], g = bgr[1], r = bgr[2];
  const double y = 0.299 * r + 0.587 * g + 0.114 * b;
  yuv[0] = LowByte(y + 0.5);
  yuv[1] = LowByte((b - y) * 0.564 + 128.5);
  yuv[2] = LowByte((r - y) * 0.713 + 128.5);
}

void ipf_yuv2bgr(const unsigned char* yuv, unsigned char* bgr) {
  if (yuv == nullptr || bgr == nullptr) return;
  const double y = yuv[0];
  const double u = yuv[1] - 128;
  const double v = yuv[2] - 128;
  bgr[2] = LowByte(y + 1.4025 * v + 0.5);
  bgr[1] = LowByte(y - 0.3443 * u - 0.7144 * v + 0.5);
  bgr[0] = LowByte(y + 1.773 * u + 0.5);
}

}  // namespace ff
