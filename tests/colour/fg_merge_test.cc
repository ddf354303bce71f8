#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "softmatte/colour.h"
#include "test_util.h"

namespace {

using softmatte_test::RandomPlane;
using Bytes = std::vector<unsigned char>;

// Pixel by pixel in plain ints: run on a copy with the same aliasing, it is
// also the order the library must keep when the planes overlap.
void MergeReference(const unsigned char* im, int w, int h, int is,
                    unsigned char* fg, int fs) {
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w * 4; ++x)
      if (x % 4 != 3) {
        const int i = im[y * is + x / 4 * 3 + x % 4], f = fg[y * fs + x];
        fg[y * fs + x] =
            i + (((f - i) * fg[y * fs + x / 4 * 4 + 3] + 127) >> 8);
      }
}

TEST(MergeForegroundColour, MatchesReferenceInBlocksTailsAndOverlaps) {
  for (int w : {1, 15, 16, 37, 70}) {
    const int is = w * 3 + 5, fs = w * 4 + 3, h = 3;
    const Bytes image = RandomPlane(w * 3, h, is, w);
    Bytes fg = RandomPlane(w * 4, h, fs, w + 1);
    for (int x = 3; x < 4 * w; x += 20) fg[x] = x % 40 == 3 ? 0 : 255;
    Bytes want = fg;
    MergeReference(image.data(), w, h, is, want.data(), fs);
    mat_merge_f_color(image.data(), w, h, is, fg.data(), fs);
    EXPECT_EQ(fg, want) << "width " << w;
    // The image read out of the foreground's own bytes, one pixel ahead.
    fg = RandomPlane(w * 4 + 8, h, fs + 8, w + 2), want = fg;
    MergeReference(want.data() + 4, w, h, fs + 8, want.data(), fs + 8);
    mat_merge_f_color(fg.data() + 4, w, h, fs + 8, fg.data(), fs + 8);
    EXPECT_EQ(fg, want) << "width " << w;
  }
}

// Either improve form at one pixel, weighted by s.
void Improve(const unsigned char* in, const unsigned char* ref, bool pull,
             int alpha, int s, unsigned char* out) {
  const float t = (255 - alpha) / 255.0f;
  for (int c = 0; c < 3; ++c) {
    const int d = pull ? ref[c] - in[c] : in[c] - ref[c];
    const int target = static_cast<int>(in[c] + t * d + 0.5f);
    out[c] = std::clamp(out[c] + (((target - out[c]) * s + 127) >> 8), 0, 255);
  }
  out[3] = std::max<int>(out[3], s);
}

TEST(ImproveForeground, BothFormsAndTheMapMatchReference) {
  // Few levels, so that equal strengths and opaque pixels occur.
  const auto lv = [](Bytes p) {
    for (auto& v : p) v = v == 0xA5 ? v : (v % 4) * 85;
    return p;
  };
  const int w = 19, h = 3, s1 = w + 3, s3 = w * 3 + 1, s4 = w * 4 + 5;
  const Bytes im = RandomPlane(w * 3, h, s3, 1),
              al = lv(RandomPlane(w, h, s1, 2));
  Bytes map = lv(RandomPlane(w * 4, h, s4, 3)), map_want = map;
  Bytes done = lv(RandomPlane(w, h, s1, 4)), done_want = done;
  Bytes out = RandomPlane(w * 4, h, s4, 5), out_want = out, out2 = out;
  Bytes out2_want = out;
  const unsigned char refs[2][4] = {{10, 200, 90, 129}, {250, 3, 77, 128}};
  for (int k = 0; k < 2; ++k) {
    const unsigned char* ref = refs[k];
    const Bytes st = lv(RandomPlane(w, h, s1, 6 + k));
    mat_update_reference_color(map.data(), w, h, s4, ref, st.data(), s1);
    mat_improve_foreground(im.data(), w, h, s3, al.data(), s1, st.data(), s1,
                           done.data(), s1, out.data(), s4, ref, nullptr, 85);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int i = y * s1 + x, s = st[i];
        const unsigned char *in = &im[y * s3 + x * 3],
                            *m = &map_want[y * s4 + x * 4];
        if (s > (m[3] & 254))
          map_want[y * s4 + x * 4 + 3] = (s & 254) | (ref[3] > 128),
                                    std::copy(ref, ref + 3,
                                              &map_want[y * s4 + x * 4]);
        // The map is final after the last stroke: the map form's turn.
        if (k == 1 && m[3] != 0 && al[i] >= 85 && al[i] < 255)
          Improve(in, m, m[3] & 1, al[i], m[3], &out2_want[y * s4 + x * 4]);
        if (s <= done_want[i] || al[i] < 85) continue;
        Improve(in, ref, ref[3] > 128, al[i], s, &out_want[y * s4 + x * 4]);
        done_want[i] = s;
      }
  }
  mat_improve_foreground(im.data(), w, h, s3, map.data(), s4, al.data(), s1,
                         out2.data(), s4, 85);
  EXPECT_TRUE(map == map_want && out == out_want && done == done_want &&
              out2 == out2_want);
}

}  // namespace
