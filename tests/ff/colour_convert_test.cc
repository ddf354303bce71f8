#include <gtest/gtest.h>

#include <array>

#include "softmatte/ff/ipf.h"

using Triple = std::array<unsigned char, 3>;
using Convert = void (*)(const unsigned char*, unsigned char*);

// Expected triples come from a separate double-precision implementation of
// the same formulas. Wraps: blue's b (-8 -> 248) and YUV -> BGR red 433 -> 177,
// blue -226 -> 30, red -179 -> 77. {0, 15, 12} and Lab {10, 200, 60} take the
// dark branch; white comes back as 247 because of the gamma curve's quirk.
TEST(ColourConvert, MatchesIndependentReferenceIncludingWraps) {
  const struct {
    Convert f;
    Triple in, out;
  } cases[] = {
      {ff::ipf_bgr2lab, {0, 0, 0}, {0, 128, 128}},
      {ff::ipf_bgr2lab, {255, 255, 255}, {255, 128, 128}},
      {ff::ipf_bgr2lab, {0, 15, 12}, {9, 124, 135}},
      {ff::ipf_bgr2lab, {255, 0, 0}, {82, 228, 248}},
      {ff::ipf_bgr2lab, {7, 130, 251}, {172, 181, 219}},
      {ff::ipf_lab2bgr, {0, 128, 128}, {0, 0, 0}},
      {ff::ipf_lab2bgr, {255, 128, 128}, {247, 247, 247}},
      {ff::ipf_lab2bgr, {10, 200, 60}, {21, 10, 17}},
      {ff::ipf_lab2bgr, {128, 0, 255}, {0, 144, 0}},
      {ff::ipf_bgr2yuv, {90, 90, 90}, {90, 128, 128}},
      {ff::ipf_bgr2yuv, {17, 203, 64}, {140, 58, 74}},
      {ff::ipf_yuv2bgr, {255, 0, 255}, {28, 208, 177}},
      {ff::ipf_yuv2bgr, {0, 0, 0}, {30, 136, 77}},
  };
  for (const auto& c : cases) {
    Triple got{};
    c.f(c.in.data(), got.data());
    EXPECT_EQ(got, c.out) << "case " << &c - cases;
  }
}
