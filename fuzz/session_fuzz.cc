// A whole matting session on a caller's photo: construction with or without
// a segmentation, a reduced working size from the data, then refinements,
// matte and colour fetches, smoothing and matte replacement in the order the
// data asks for. Calls of the wrong size must be refused and every caller
// buffer's padding must survive.
#include <algorithm>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/session.h"

uint8_t Complement(uint8_t v) { return v == 128 ? v : 255 - v; }

// Outputs start as sentinels. A refused call (r == 0) leaves them so; an
// accepted one copies the session's matte, complemented when the call
// returns the caller's polarity, and keeps the padding.
void Settle(DSCMatting& session, int r, Plane& out, bool complemented) {
  Check(out.PaddingIntact());
  if (r == 0) return Check(out.data == std::vector(out.data.size(), kSentinel));
  int stride = -1;
  const unsigned char* alpha = session.GetAlpha(&stride);
  Check(alpha != nullptr && stride >= out.used);
  ForEach(out.used, out.rows, [&](int x, int y) {
    const uint8_t a = alpha[static_cast<size_t>(y) * stride + x];
    Check(out.at(x, y) == (complemented ? Complement(a) : a));
  });
}

SOFTMATTE_FUZZ_QUIET_STDOUT()

FUZZ_HARNESS(16) {
  const int width = in.Int(4, 48), height = in.Int(3, 48);
  const int workSize = in.Int(3, 96);
  // The tables need at least three working pixels each way, so sizes that
  // the session would reduce further are not fed.
  if (width > workSize && height > workSize) {
    const double s =
        std::min(double(workSize) / width, double(workSize) / height);
    if ((static_cast<int>(s * width + 0.5) & ~3) < 4) return;
    if (static_cast<int>(s * height + 0.5) < 3) return;
  }
  const uint8_t setup = in.Byte();
  const bool withSeg = setup & 1, later = setup & 2;
  Plane image(in, height, 3 * width), seg(in, height, width);
  // Trimap parameters: bands of a few pixels, a sampling step of at least 1.
  const int maxBand = in.Int(0, 8);
  const double bandScale = in.Byte() / 64.0;
  const int step = in.Int(1, 4);
  const uint8_t diffLow = in.Byte(), diffHigh = in.Byte();
  const int minBand = in.Int(0, 4);
  uint8_t colours[4][3];
  for (auto& c : colours) in.Bytes(c, 3);
  FillColours(in, image, width, height, setup & 4, colours);
  FillShapes(in, seg, true);

  const uint8_t* img = image.p();
  std::unique_ptr<DSCMatting> session(
      later     ? new DSCMatting()
      : withSeg ? new DSCMatting(img, width, height, image.step, seg.p(),
                                 seg.step, workSize, maxBand, bandScale, step,
                                 diffLow, diffHigh, minBand)
                : new DSCMatting(img, width, height, image.step, workSize));
  if (later && withSeg) {
    session->Init(img, width, height, image.step, seg.p(), seg.step, workSize,
                  maxBand, bandScale, step, diffLow, diffHigh, minBand);
  } else if (later) {
    session->Init(img, width, height, image.step, workSize);
  }

  for (int op = 0; op < 8 && in.remaining() > 0; ++op) {
    const uint8_t code = in.Byte();
    // Now and then a call of the wrong size, which must be refused.
    const bool wrongSize = (code >> 4) == 15;
    const int w = wrongSize ? width + 1 : width, h = height;
    const int ksize = in.Int(1, 15), keep = in.Int(0, 3);
    // Init's trimap exists only when it was given a segmentation.
    const int withInitTrimap = withSeg && !wrongSize;
    Plane out(in, height, width);
    switch (code % 8) {
      case 0: {  // Refine with a caller trimap
        Plane trimap(in, height, width);
        FillTrimap(in, trimap, 0);  // subject 0, as the session has it
        session->Refine(trimap.p(), w, h, trimap.step, out.p(), out.step, ksize,
                        keep);
        Check(trimap.PaddingIntact());
        Settle(*session, !wrongSize, out, false);
        break;
      }
      case 1:
      case 3: {  // Init's trimap: Refine, or MakeMatte in caller polarity
        const int r =
            code % 8 == 1
                ? session->Refine(out.p(), w, h, out.step, ksize, keep)
                : session->MakeMatte(out.p(), w, h, out.step, ksize, keep);
        Check(r == withInitTrimap);
        Settle(*session, r, out, code % 8 == 3);
        break;
      }
      case 2: {  // A matte straight from a new segmentation
        Plane newSeg(in, height, width);
        FillShapes(in, newSeg, true);
        const int band = in.Int(0, 8);
        const double scale = in.Byte() / 64.0;
        const int r = session->MakeMatteFromSegmRes(
            newSeg.p(), w, h, newSeg.step, out.p(), out.step, band, scale,
            ksize, keep);
        Check(newSeg.PaddingIntact() && r == !wrongSize);
        Settle(*session, r, out, true);
        break;
      }
      case 4:  // Both ways of fetching the matte agree
        session->GetAlpha(out.p(), out.step);
        Settle(*session, 1, out, false);
        break;
      case 5: {  // Foreground colours, cached or not, both ways alike
        const int recompute = in.Int(-1, 1);
        Plane colour(in, height, 3 * width);
        session->GetFImage(colour.p(), colour.step, recompute);
        Check(colour.PaddingIntact());
        int fStride = -1;
        const unsigned char* f = session->GetFImage(&fStride, 0);
        Check(f != nullptr && fStride >= 3 * width);
        ForEach(3 * width, height, [&](int x, int y) {
          Check(f[static_cast<size_t>(y) * fStride + x] == colour.at(x, y));
        });
        break;
      }
      case 6:
        session->SmoothBoundary(ksize, keep);
        break;
      case 7: {  // Replace the matte; another size is ignored
        Plane alpha(in, height, width);
        alpha.Fill(in);
        int stride = -1;
        const unsigned char* was = session->GetAlpha(&stride);
        const std::vector<uint8_t> old(was, was + size_t(stride) * height);
        session->set_alpha(alpha.p(), w, h, alpha.step);
        const unsigned char* now = session->GetAlpha(&stride);
        ForEach(width, height, [&](int x, int y) {
          const size_t i = static_cast<size_t>(y) * stride + x;
          Check(now[i] == (wrongSize ? old[i] : alpha.at(x, y)));
        });
        break;
      }
    }
  }
}
