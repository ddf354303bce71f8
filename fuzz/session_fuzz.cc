// A whole matting session on a caller's photo: construction with or without
// a segmentation, a reduced working size picked from the data, then a
// sequence of refinements, matte and colour fetches, smoothing and matte
// replacement in the order the data asks for. Calls of the wrong size must
// be refused and every caller buffer's padding must survive.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "softmatte/session.h"

namespace {

constexpr int kMaxSide = 48;
constexpr int kMaxOps = 8;
constexpr uint8_t kByteSentinel = 0xA5;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

uint8_t Complement(uint8_t v) {
  return v == 128 ? v : static_cast<uint8_t>(255 - v);
}

// The working size the session will choose; the tables need at least three
// working pixels each way, so sizes that reduce further are not fed.
void WorkingSize(int width, int height, int workSize, int* workWidth,
                 int* workHeight) {
  *workWidth = width;
  *workHeight = height;
  if (width > workSize && height > workSize) {
    const double sx = static_cast<double>(workSize) / width;
    const double sy = static_cast<double>(workSize) / height;
    const double s = sx < sy ? sx : sy;
    *workWidth = static_cast<int>(s * width + 0.5);
    *workHeight = static_cast<int>(s * height + 0.5);
  }
  *workWidth &= ~3;
}

// A two-valued mask: an ellipse from the data, with a few pixels flipped, or
// plain noise.
void FillSegmentation(FuzzInput& in, SentinelPlane<uint8_t>& seg, int width,
                      int height) {
  const uint8_t shape = in.Byte();
  const int cx = in.Int(0, width - 1);
  const int cy = in.Int(0, height - 1);
  const int rx = in.Int(1, width);
  const int ry = in.Int(1, height);
  const int flips = in.Int(0, 15);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      bool inside;
      if (shape & 1) {
        inside = in.Byte() & 1;
      } else {
        const long dx = x - cx;
        const long dy = y - cy;
        inside = dx * dx * ry * ry + dy * dy * rx * rx <=
                 static_cast<long>(rx) * rx * ry * ry;
      }
      seg.row(y)[x] = inside ? 255 : 0;
    }
  }
  for (int i = 0; i < flips; ++i) {
    uint8_t& v = seg.row(in.Int(0, height - 1))[in.Int(0, width - 1)];
    v = 255 - v;
  }
}

// A trimap in the session's polarity (subject 0): a segmentation with a band
// of 128 painted around its edge, or raw values now and then.
void FillTrimap(FuzzInput& in, SentinelPlane<uint8_t>& trimap, int width,
                int height) {
  FillSegmentation(in, trimap, width, height);
  const int band = in.Int(0, 3);
  const bool raw = in.Int(0, 7) == 0;
  std::vector<uint8_t> seg(static_cast<size_t>(width) * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) seg[y * width + x] = trimap.row(y)[x];
  }
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t& t = trimap.row(y)[x];
      if (raw) {
        t = in.Byte();
        continue;
      }
      bool edge = false;
      for (int dy = -band; dy <= band && !edge; ++dy) {
        for (int dx = -band; dx <= band && !edge; ++dx) {
          const int yy = y + dy;
          const int xx = x + dx;
          if (yy < 0 || yy >= height || xx < 0 || xx >= width) continue;
          edge = seg[yy * width + xx] != seg[y * width + x];
        }
      }
      t = edge ? 128 : Complement(seg[y * width + x]);
    }
  }
}

struct Output {
  Output(FuzzInput& in, int width, int height, int channels)
      : plane(height, channels * width + in.Int(0, 7), channels * width,
              kByteSentinel) {
    // Start from data so that an untouched output can be told apart.
    in.Bytes(plane.data.data(), plane.data.size());
    for (size_t i = 0; i < plane.data.size(); ++i) {
      if (static_cast<int>(i % plane.step) >= plane.used) {
        plane.data[i] = kByteSentinel;
      }
    }
  }
  SentinelPlane<uint8_t> plane;
};

// The session's matte equals out (complemented when the call returns the
// caller's polarity).
void CheckMatteCopied(DSCMatting& session, const SentinelPlane<uint8_t>& out,
                      int width, int height, bool complemented) {
  int stride = -1;
  const unsigned char* alpha = session.GetAlpha(&stride);
  Check(alpha != nullptr && stride >= width);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const uint8_t a = alpha[static_cast<size_t>(y) * stride + x];
      const uint8_t o = out.data[static_cast<size_t>(y) * out.step + x];
      Check(o == (complemented ? Complement(a) : a));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The solver reports every system size on standard output.
  if (!std::freopen("/dev/null", "w", stdout)) return 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 16) return 0;
  FuzzInput in(data, size);
  const int width = in.Int(4, kMaxSide);
  const int height = in.Int(3, kMaxSide);
  const int workSize = in.Int(3, 2 * kMaxSide);
  int workWidth, workHeight;
  WorkingSize(width, height, workSize, &workWidth, &workHeight);
  if (workWidth < 4 || workHeight < 3) return 0;
  const uint8_t setup = in.Byte();
  const bool withSeg = setup & 1;
  const bool defaultThenInit = setup & 2;
  const bool palette = setup & 4;
  const int stride = 3 * width + in.Int(0, 7);
  const int segStride = width + in.Int(0, 7);
  // Trimap parameters: bands of a few pixels, a sampling step of at least 1.
  const int maxBand = in.Int(0, 8);
  const double bandScale = in.Byte() / 64.0;
  const int step = in.Int(1, 4);
  const uint8_t diffLow = in.Byte();
  const uint8_t diffHigh = in.Byte();
  const int minBand = in.Int(0, 4);

  SentinelPlane<uint8_t> image(height, stride, 3 * width, kByteSentinel);
  uint8_t colours[4][3];
  for (auto& c : colours) in.Bytes(c, 3);
  FillColours(in, image, width, height, palette, colours);
  SentinelPlane<uint8_t> seg(height, segStride, width, kByteSentinel);
  FillSegmentation(in, seg, width, height);

  std::unique_ptr<DSCMatting> session;
  if (defaultThenInit) {
    session.reset(new DSCMatting());
    if (withSeg) {
      session->Init(image.data.data(), width, height, stride, seg.data.data(),
                    segStride, workSize, maxBand, bandScale, step, diffLow,
                    diffHigh, minBand);
    } else {
      session->Init(image.data.data(), width, height, stride, workSize);
    }
  } else if (withSeg) {
    session.reset(new DSCMatting(image.data.data(), width, height, stride,
                                 seg.data.data(), segStride, workSize, maxBand,
                                 bandScale, step, diffLow, diffHigh, minBand));
  } else {
    session.reset(
        new DSCMatting(image.data.data(), width, height, stride, workSize));
  }

  for (int op = 0; op < kMaxOps && in.remaining() > 0; ++op) {
    const uint8_t code = in.Byte();
    // Now and then a call of the wrong size, which must be refused.
    const bool wrongSize = (code >> 4) == 15;
    const int w = wrongSize ? width + 1 : width;
    const int h = height;
    const int ksize = in.Int(1, 15);
    const int keep = in.Int(0, 3);
    // A refused call leaves the output as it was; an accepted one copies the
    // session's matte.
    auto Settle = [&](int r, Output& out, const std::vector<uint8_t>& before,
                      bool complemented) {
      if (r == 0) {
        Check(out.plane.data == before);
      } else {
        CheckMatteCopied(*session, out.plane, width, height, complemented);
      }
    };
    switch (code % 8) {
      case 0: {  // Refine with a caller trimap
        SentinelPlane<uint8_t> trimap(height, width + in.Int(0, 7), width,
                                      kByteSentinel);
        FillTrimap(in, trimap, width, height);
        Output out(in, width, height, 1);
        const std::vector<uint8_t> before = out.plane.data;
        session->Refine(trimap.data.data(), w, h, trimap.step,
                        out.plane.data.data(), out.plane.step, ksize, keep);
        Check(trimap.PaddingIntact() && out.plane.PaddingIntact());
        if (wrongSize) {
          Check(out.plane.data == before);
        } else {
          CheckMatteCopied(*session, out.plane, width, height, false);
        }
        break;
      }
      case 1: {  // Refine with Init's trimap
        Output out(in, width, height, 1);
        const std::vector<uint8_t> before = out.plane.data;
        const int r = session->Refine(out.plane.data.data(), w, h,
                                      out.plane.step, ksize, keep);
        Check(out.plane.PaddingIntact());
        Check(r == (withSeg && !wrongSize ? 1 : 0));
        Settle(r, out, before, false);
        break;
      }
      case 2: {  // A matte straight from a new segmentation
        const int newSegStride = width + in.Int(0, 7);
        SentinelPlane<uint8_t> newSeg(height, newSegStride, width,
                                      kByteSentinel);
        FillSegmentation(in, newSeg, width, height);
        const int band = in.Int(0, 8);
        const double scale = in.Byte() / 64.0;
        Output out(in, width, height, 1);
        const std::vector<uint8_t> before = out.plane.data;
        const int r = session->MakeMatteFromSegmRes(
            newSeg.data.data(), w, h, newSegStride, out.plane.data.data(),
            out.plane.step, band, scale, ksize, keep);
        Check(newSeg.PaddingIntact() && out.plane.PaddingIntact());
        Check(r == (wrongSize ? 0 : 1));
        Settle(r, out, before, true);
        break;
      }
      case 3: {  // A matte from Init's trimap
        Output out(in, width, height, 1);
        const std::vector<uint8_t> before = out.plane.data;
        const int r = session->MakeMatte(out.plane.data.data(), w, h,
                                         out.plane.step, ksize, keep);
        Check(out.plane.PaddingIntact());
        Check(r == (withSeg && !wrongSize ? 1 : 0));
        Settle(r, out, before, true);
        break;
      }
      case 4: {  // Both ways of fetching the matte agree
        Output out(in, width, height, 1);
        session->GetAlpha(out.plane.data.data(), out.plane.step);
        Check(out.plane.PaddingIntact());
        CheckMatteCopied(*session, out.plane, width, height, false);
        break;
      }
      case 5: {  // Foreground colours, cached or not
        const int recompute = in.Int(-1, 1);
        Output out(in, width, height, 3);
        session->GetFImage(out.plane.data.data(), out.plane.step, recompute);
        Check(out.plane.PaddingIntact());
        int fStride = -1;
        const unsigned char* f = session->GetFImage(&fStride, 0);
        Check(f != nullptr && fStride >= 3 * width);
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < 3 * width; ++x) {
            Check(f[static_cast<size_t>(y) * fStride + x] ==
                  out.plane.data[static_cast<size_t>(y) * out.plane.step + x]);
          }
        }
        break;
      }
      case 6:
        session->SmoothBoundary(ksize, keep);
        break;
      case 7: {  // Replace the matte; another size is ignored
        SentinelPlane<uint8_t> alpha(height, width + in.Int(0, 7), width,
                                     kByteSentinel);
        for (int y = 0; y < height; ++y) in.Bytes(alpha.row(y), width);
        int before = -1;
        const std::vector<uint8_t> old(
            session->GetAlpha(&before),
            session->GetAlpha(&before) + static_cast<size_t>(before) * height);
        session->set_alpha(alpha.data.data(), w, h, alpha.step);
        int after = -1;
        const unsigned char* now = session->GetAlpha(&after);
        Check(after == before);
        for (int y = 0; y < height; ++y) {
          for (int x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(y) * after + x;
            Check(now[i] == (wrongSize ? old[i] : alpha.row(y)[x]));
          }
        }
        break;
      }
    }
  }
  return 0;
}
