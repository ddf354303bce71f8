#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "softmatte/colour.h"
#include "test_util.h"

namespace {

using softmatte_test::PaddingIntact;
using softmatte_test::RandomPlane;
using Bytes = std::vector<unsigned char>;

// Pixel-by-pixel merge in plain ints: run on a copy with the same aliasing,
// it is also the order the library must match when the planes overlap.
void MergeReference(const unsigned char* image, int w, int h, int is,
                    unsigned char* fg, int fs) {
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w * 4; ++x)
      if (x % 4 != 3) {
        const int i = image[y * is + x / 4 * 3 + x % 4], f = fg[y * fs + x];
        fg[y * fs + x] = static_cast<unsigned char>(
            i + (((f - i) * fg[y * fs + x / 4 * 4 + 3] + 127) >> 8));
      }
}

TEST(MergeForegroundColour, MatchesReferenceInBlocksTailsAndOverlaps) {
  for (int w : {1, 15, 16, 37, 70}) {
    const int is = w * 3 + 5, fs = w * 4 + 3, h = 3;
    const Bytes image = RandomPlane(w * 3, h, is, w);
    Bytes fg = RandomPlane(w * 4, h, fs, w + 1), want = fg;
    for (int x = 3; x < 4 * w; x += 20) fg[x] = want[x] = x % 40 == 3 ? 0 : 255;
    MergeReference(image.data(), w, h, is, want.data(), fs);
    mat_merge_f_color(image.data(), w, h, is, fg.data(), fs);
    EXPECT_EQ(fg, want) << "width " << w;
    EXPECT_TRUE(PaddingIntact(fg, w * 4, h, fs));
    // The image read out of the foreground's own bytes, one pixel ahead.
    Bytes shared = RandomPlane(w * 4 + 8, h, fs + 8, w + 2), ref = shared;
    MergeReference(ref.data() + 4, w, h, fs + 8, ref.data(), fs + 8);
    mat_merge_f_color(shared.data() + 4, w, h, fs + 8, shared.data(), fs + 8);
    EXPECT_EQ(shared, ref) << "width " << w;
  }
  Bytes fg(8, 7);
  mat_merge_f_color(fg.data(), 0, 1, 3, fg.data(), 4);
  EXPECT_EQ(fg, Bytes(8, 7));
}

// One pixel of either improve form: s is the weight, pull the mode.
void ImprovePixel(const unsigned char* in, const unsigned char* ref, bool pull,
                  int alpha, int s, unsigned char* out) {
  const float t = (255 - alpha) / 255.0f;
  for (int c = 0; c < 3; ++c) {
    const float d =
        t * static_cast<float>(pull ? ref[c] - in[c] : in[c] - ref[c]);
    const int target = static_cast<int>(in[c] + d + 0.5f);
    out[c] = std::clamp(out[c] + (((target - out[c]) * s + 127) >> 8), 0, 255);
  }
  out[3] = std::max<int>(out[3], s);
}

TEST(ImproveForeground, BothFormsAndTheMapMatchReference) {
  // Few distinct levels, so that equal strengths and opaque pixels occur.
  const auto levels = [](Bytes p) {
    for (auto& v : p) v = v == 0xA5 ? v : (v % 4) * 85;
    return p;
  };
  for (int w : {1, 19}) {
    const int h = 3, s1 = w + 3, s3 = w * 3 + 1, s4 = w * 4 + 5;
    const Bytes image = RandomPlane(w * 3, h, s3, 1),
                alpha = levels(RandomPlane(w, h, s1, 2));
    Bytes map = levels(RandomPlane(w * 4, h, s4, 3)), map_want = map;
    Bytes applied = levels(RandomPlane(w, h, s1, 4)), applied_want = applied;
    Bytes out = RandomPlane(w * 4, h, s4, 5), out_want = out, out2 = out,
          out2_want = out;
    const unsigned char refs[2][4] = {{10, 200, 90, 129}, {250, 3, 77, 128}};
    for (int k = 0; k < 2; ++k) {
      const Bytes strength = levels(RandomPlane(w, h, s1, 6 + k));
      mat_update_reference_color(map.data(), w, h, s4, refs[k], strength.data(),
                                 s1);
      mat_improve_foreground(image.data(), w, h, s3, alpha.data(), s1,
                             strength.data(), s1, applied.data(), s1,
                             out.data(), s4, refs[k], nullptr, 85);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const int i1 = y * s1 + x, i3 = y * s3 + x * 3, i4 = y * s4 + x * 4;
          const int s = strength[i1];
          if (s > (map_want[i4 + 3] & 254)) {
            std::copy(refs[k], refs[k] + 3, &map_want[i4]);
            map_want[i4 + 3] = (s & 254) | (refs[k][3] > 128);
          }
          if (s <= applied_want[i1] || alpha[i1] < 85) continue;
          ImprovePixel(&image[i3], refs[k], refs[k][3] > 128, alpha[i1], s,
                       &out_want[i4]);
          applied_want[i1] = s;
        }
    }
    mat_improve_foreground(image.data(), w, h, s3, map.data(), s4, alpha.data(),
                           s1, out2.data(), s4, 85);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int i1 = y * s1 + x, i4 = y * s4 + x * 4, m = map_want[i4 + 3];
        if (m != 0 && alpha[i1] >= 85 && alpha[i1] < 255)
          ImprovePixel(&image[y * s3 + x * 3], &map_want[i4], m & 1, alpha[i1],
                       m, &out2_want[i4]);
      }
    EXPECT_EQ(map, map_want) << "width " << w;
    EXPECT_EQ(out, out_want) << "width " << w;
    EXPECT_EQ(applied, applied_want) << "width " << w;
    EXPECT_EQ(out2, out2_want) << "width " << w;
  }
}

}  // namespace
