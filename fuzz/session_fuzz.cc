// A whole matting session on a caller's photo: construction with or without
// a segmentation, a reduced working size picked from the data, then a
// sequence of refinements, matte and colour fetches, smoothing and matte
// replacement in the order the data asks for. Calls of the wrong size must
// be refused and every caller buffer's padding must survive.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/session.h"

namespace {

constexpr int kMaxSide = 48;
constexpr int kMaxOps = 8;

uint8_t Complement(uint8_t v) { return v == 128 ? v : 255 - v; }

// A two-valued mask: an ellipse from the data, with a few pixels flipped, or
// plain noise.
void FillSegmentation(FuzzInput& in, SentinelPlane<uint8_t>& seg) {
  const int width = seg.used, height = seg.rows;
  const uint8_t shape = in.Byte();
  const long cx = in.Int(0, width - 1), cy = in.Int(0, height - 1);
  const long rx = in.Int(1, width), ry = in.Int(1, height);
  const int flips = in.Int(0, 15);
  ForEach(width, height, [&](int x, int y) {
    const bool inside = shape & 1 ? in.Byte() & 1
                                  : (x - cx) * (x - cx) * ry * ry +
                                            (y - cy) * (y - cy) * rx * rx <=
                                        rx * rx * ry * ry;
    seg.at(x, y) = inside ? 255 : 0;
  });
  for (int i = 0; i < flips; ++i) {
    uint8_t& v = seg.row(in.Int(0, height - 1))[in.Int(0, width - 1)];
    v = 255 - v;
  }
}

// A trimap in the session's polarity (subject 0): a segmentation with a band
// of 128 painted around its edge, or raw values now and then.
void FillTrimap(FuzzInput& in, SentinelPlane<uint8_t>& trimap) {
  FillSegmentation(in, trimap);
  const int band = in.Int(0, 3);
  const bool raw = in.Int(0, 7) == 0;
  const SentinelPlane<uint8_t> seg = trimap;
  ForEach(trimap.used, trimap.rows, [&](int x, int y) {
    bool edge = false;
    for (int yy = std::max(y - band, 0);
         yy <= std::min(y + band, trimap.rows - 1); ++yy) {
      for (int xx = std::max(x - band, 0);
           xx <= std::min(x + band, trimap.used - 1); ++xx) {
        edge |= seg.row(yy)[xx] != seg.row(y)[x];
      }
    }
    trimap.at(x, y) = raw ? in.Byte() : edge ? 128 : Complement(seg.row(y)[x]);
  });
}

// An output plane that starts from data, so that an untouched output can be
// told apart.
struct Output : SentinelPlane<uint8_t> {
  Output(FuzzInput& in, int width, int height, int channels)
      : SentinelPlane(height, channels * width + in.Int(0, 7),
                      channels * width) {
    std::vector<uint8_t> raw(data.size());
    in.Bytes(raw.data(), raw.size());
    ForEach(used, rows, [&](int x, int y) { at(x, y) = raw[y * step + x]; });
    before = data;
  }
  std::vector<uint8_t> before;
};

// A refused call (r == 0) leaves the output as it was; an accepted one copies
// the session's matte, complemented when the call returns the caller's
// polarity. The padding survives either way.
void Settle(DSCMatting& session, int r, Output& out, bool complemented) {
  Check(out.PaddingIntact());
  if (r == 0) return Check(out.data == out.before);
  int stride = -1;
  const unsigned char* alpha = session.GetAlpha(&stride);
  Check(alpha != nullptr && stride >= out.used);
  ForEach(out.used, out.rows, [&](int x, int y) {
    const uint8_t a = alpha[static_cast<size_t>(y) * stride + x];
    Check(out.at(x, y) == (complemented ? Complement(a) : a));
  });
}

}  // namespace

SOFTMATTE_FUZZ_QUIET_STDOUT()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 16) return 0;
  FuzzInput in(data, size);
  const int width = in.Int(4, kMaxSide);
  const int height = in.Int(3, kMaxSide);
  const int workSize = in.Int(3, 2 * kMaxSide);
  // The working size the session will choose; the tables need at least three
  // working pixels each way, so sizes that reduce further are not fed.
  if (width > workSize && height > workSize) {
    const double s = std::min(static_cast<double>(workSize) / width,
                              static_cast<double>(workSize) / height);
    if ((static_cast<int>(s * width + 0.5) & ~3) < 4) return 0;
    if (static_cast<int>(s * height + 0.5) < 3) return 0;
  }
  const uint8_t setup = in.Byte();
  const bool withSeg = setup & 1;
  SentinelPlane<uint8_t> image(height, 3 * width + in.Int(0, 7), 3 * width);
  SentinelPlane<uint8_t> seg(height, width + in.Int(0, 7), width);
  // Trimap parameters: bands of a few pixels, a sampling step of at least 1.
  const int maxBand = in.Int(0, 8);
  const double bandScale = in.Byte() / 64.0;
  const int step = in.Int(1, 4);
  const uint8_t diffLow = in.Byte();
  const uint8_t diffHigh = in.Byte();
  const int minBand = in.Int(0, 4);
  uint8_t colours[4][3];
  for (auto& c : colours) in.Bytes(c, 3);
  FillColours(in, image, width, height, setup & 4, colours);
  FillSegmentation(in, seg);

  const uint8_t* img = image.p();
  const bool later = setup & 2;  // default-constructed, then Init
  std::unique_ptr<DSCMatting> session(
      later     ? new DSCMatting()
      : withSeg ? new DSCMatting(img, width, height, image.step, seg.p(),
                                 seg.step, workSize, maxBand, bandScale, step,
                                 diffLow, diffHigh, minBand)
                : new DSCMatting(img, width, height, image.step, workSize));
  if (later && withSeg) {
    session->Init(img, width, height, image.step, seg.p(), seg.step, workSize,
                  maxBand, bandScale, step, diffLow, diffHigh, minBand);
  }
  if (later && !withSeg) {
    session->Init(img, width, height, image.step, workSize);
  }

  for (int op = 0; op < kMaxOps && in.remaining() > 0; ++op) {
    const uint8_t code = in.Byte();
    // Now and then a call of the wrong size, which must be refused.
    const bool wrongSize = (code >> 4) == 15;
    const int w = wrongSize ? width + 1 : width, h = height;
    const int ksize = in.Int(1, 15);
    const int keep = in.Int(0, 3);
    // Init's trimap exists only when it was given a segmentation.
    const int withInitTrimap = withSeg && !wrongSize;
    switch (code % 8) {
      case 0: {  // Refine with a caller trimap
        SentinelPlane<uint8_t> trimap(height, width + in.Int(0, 7), width);
        FillTrimap(in, trimap);
        Output out(in, width, height, 1);
        session->Refine(trimap.p(), w, h, trimap.step, out.p(), out.step, ksize,
                        keep);
        Check(trimap.PaddingIntact());
        Settle(*session, !wrongSize, out, false);
        break;
      }
      case 1: {  // Refine with Init's trimap
        Output out(in, width, height, 1);
        const int r = session->Refine(out.p(), w, h, out.step, ksize, keep);
        Check(r == withInitTrimap);
        Settle(*session, r, out, false);
        break;
      }
      case 2: {  // A matte straight from a new segmentation
        SentinelPlane<uint8_t> newSeg(height, width + in.Int(0, 7), width);
        FillSegmentation(in, newSeg);
        const int band = in.Int(0, 8);
        const double scale = in.Byte() / 64.0;
        Output out(in, width, height, 1);
        const int r = session->MakeMatteFromSegmRes(
            newSeg.p(), w, h, newSeg.step, out.p(), out.step, band, scale,
            ksize, keep);
        Check(newSeg.PaddingIntact() && r == !wrongSize);
        Settle(*session, r, out, true);
        break;
      }
      case 3: {  // A matte from Init's trimap
        Output out(in, width, height, 1);
        const int r = session->MakeMatte(out.p(), w, h, out.step, ksize, keep);
        Check(r == withInitTrimap);
        Settle(*session, r, out, true);
        break;
      }
      case 4: {  // Both ways of fetching the matte agree
        Output out(in, width, height, 1);
        session->GetAlpha(out.p(), out.step);
        Settle(*session, 1, out, false);
        break;
      }
      case 5: {  // Foreground colours, cached or not
        const int recompute = in.Int(-1, 1);
        Output out(in, width, height, 3);
        session->GetFImage(out.p(), out.step, recompute);
        Check(out.PaddingIntact());
        int fStride = -1;
        const unsigned char* f = session->GetFImage(&fStride, 0);
        Check(f != nullptr && fStride >= 3 * width);
        ForEach(3 * width, height, [&](int x, int y) {
          Check(f[static_cast<size_t>(y) * fStride + x] == out.at(x, y));
        });
        break;
      }
      case 6:
        session->SmoothBoundary(ksize, keep);
        break;
      case 7: {  // Replace the matte; another size is ignored
        SentinelPlane<uint8_t> alpha(height, width + in.Int(0, 7), width);
        alpha.Fill(in);
        int before = -1, after = -1;
        const unsigned char* was = session->GetAlpha(&before);
        const std::vector<uint8_t> old(was, was + size_t(before) * height);
        session->set_alpha(alpha.p(), w, h, alpha.step);
        const unsigned char* now = session->GetAlpha(&after);
        Check(after == before);
        ForEach(width, height, [&](int x, int y) {
          const size_t i = static_cast<size_t>(y) * after + x;
          Check(now[i] == (wrongSize ? old[i] : alpha.at(x, y)));
        });
        break;
      }
    }
  }
  return 0;
}
