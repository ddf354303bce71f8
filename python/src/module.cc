// The compiled half of the softmatte Python package: numpy arrays in and out
// of the library's one-shot cut-out, the solver, a session with brushes and
// undo, and geodesic segmentation. The Python half (softmatte/__init__.py)
// converts arguments, words the errors and carries the documentation; this
// half checks every array's shape again, so that no call can hand the
// library a plane it would read or write past.
//
// Photos arrive as RGB and the library takes B, G, R: each photo is
// converted once on the way in, and colour results are swapped in place in
// the array that is returned. Everything else is passed by pointer when its
// rows already lie as the library wants them. The heavy calls run without
// the GIL.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cutout.h"  // the command-line tool's scribble rule, shared
#include "softmatte/cutout.h"
#include "softmatte/edit.h"
#include "softmatte/ff/ipf.h"
#include "softmatte/geoseg.h"
#include "softmatte/session.h"
#include "softmatte/solver.h"

namespace py = pybind11;

namespace {

using Bytes = py::array_t<unsigned char, py::array::c_style>;
using Buffer = std::unique_ptr<unsigned char[]>;

constexpr unsigned char kUnknown = 128;

// Uninitialised: every byte is written before it is read, and a 12-megapixel
// photo should not be cleared first for nothing.
Buffer Allocate(size_t bytes) { return Buffer(new unsigned char[bytes]); }

// The geometry of a uint8 array as numpy lays it out: byte strides of rows,
// pixels and channels, any of them negative or zero for views.
struct Plane {
  const unsigned char* data = nullptr;
  int height = 0;
  int width = 0;
  int channels = 1;
  py::ssize_t row = 0;
  py::ssize_t pixel = 0;
  py::ssize_t channel = 0;

  const unsigned char* At(int y, int x) const {
    return data + y * row + x * pixel;
  }
  size_t Count() const { return static_cast<size_t>(width) * height; }
  // Rows can go to the library as they are: pixels and channels packed
  // within each row, rows apart by at least a row's bytes.
  bool PackedRows() const {
    const py::ssize_t bytes = static_cast<py::ssize_t>(width) * channels;
    return pixel == channels && (channels == 1 || channel == 1) &&
           row >= bytes && row <= INT_MAX;
  }
};

// A plane of one or more of the given channel counts (1: two dimensions).
// The Python side has checked it already; this keeps bad shapes from ever
// reaching the library.
Plane Inspect(const py::array& a, const char* name,
              std::initializer_list<int> channels) {
  if (a.dtype().kind() != 'u' || a.itemsize() != 1) {
    throw py::type_error(std::string(name) + " must be a uint8 array");
  }
  Plane p;
  const bool grey = *channels.begin() == 1;
  if (a.ndim() != (grey ? 2 : 3)) {
    throw py::value_error(std::string(name) + " must have " +
                          (grey ? "2" : "3") + " dimensions");
  }
  p.channels = grey ? 1 : static_cast<int>(a.shape(2));
  if (std::find(channels.begin(), channels.end(), p.channels) ==
      channels.end()) {
    throw py::value_error(std::string(name) +
                          " has an unexpected number of channels");
  }
  // Sizes the library can index with int arithmetic, four bytes a pixel.
  if (a.shape(0) < 1 || a.shape(1) < 1 || a.shape(0) > INT_MAX / 4 ||
      a.shape(1) > INT_MAX / 4 || a.shape(0) * a.shape(1) > INT_MAX / 4) {
    throw py::value_error(std::string(name) + " is empty or too large");
  }
  p.data = static_cast<const unsigned char*>(a.data());
  p.height = static_cast<int>(a.shape(0));
  p.width = static_cast<int>(a.shape(1));
  p.row = a.strides(0);
  p.pixel = a.strides(1);
  p.channel = grey ? 1 : a.strides(2);
  return p;
}

void RequireSize(const Plane& p, const Plane& image, const char* name) {
  if (p.width != image.width || p.height != image.height) {
    throw py::value_error(std::string(name) +
                          " must have the image's height and width");
  }
}

// The photo as the library takes it: packed B, G, R rows, in an array from
// numpy's allocator, which asks the kernel for huge pages for arrays this
// big: a 12-megapixel photo would otherwise take some nine thousand page
// faults, which cost more than the conversion itself. Needs the GIL.
Bytes BgrBuffer(const Plane& rgb) { return Bytes({rgb.height, rgb.width, 3}); }

// The one full-size conversion on the way in; runs without the GIL.
void ToBgr(const Plane& rgb, unsigned char* out) {
  for (int y = 0; y < rgb.height; ++y) {
    unsigned char* o = out + static_cast<size_t>(3) * rgb.width * y;
    const unsigned char* r = rgb.At(y, 0);
    if (rgb.pixel == 3 && rgb.channel == 1) {
      for (int x = 0; x < rgb.width; ++x, r += 3, o += 3) {
        o[0] = r[2];
        o[1] = r[1];
        o[2] = r[0];
      }
    } else {
      const py::ssize_t c = rgb.channel;
      for (int x = 0; x < rgb.width; ++x, r += rgb.pixel, o += 3) {
        o[0] = r[2 * c];
        o[1] = r[c];
        o[2] = r[0];
      }
    }
  }
}

// B, G, R to R, G, B (or back) in place, over count packed pixels.
void SwapRedBlue(unsigned char* p, size_t count) {
  for (size_t i = 0; i < count; ++i, p += 3) std::swap(p[0], p[2]);
}

// A plane the library can read: the caller's own rows when they are packed,
// else a packed copy (row stride width * channels).
struct Readable {
  const unsigned char* data = nullptr;
  int stride = 0;
  Buffer copy;
};

Readable Borrow(const Plane& p) {
  Readable r;
  if (p.PackedRows()) {
    r.data = p.data;
    r.stride = static_cast<int>(p.row);
    return r;
  }
  const int bytes = p.width * p.channels;
  r.copy = Allocate(static_cast<size_t>(bytes) * p.height);
  for (int y = 0; y < p.height; ++y) {
    unsigned char* o = r.copy.get() + static_cast<size_t>(bytes) * y;
    for (int x = 0; x < p.width; ++x) {
      const unsigned char* s = p.At(y, x);
      for (int c = 0; c < p.channels; ++c)
        o[x * p.channels + c] = s[c * p.channel];
    }
  }
  r.data = r.copy.get();
  r.stride = bytes;
  return r;
}

// Packed copy of a one-channel plane through a byte map.
template <typename Map>
std::vector<unsigned char> Mapped(const Plane& p, Map map) {
  std::vector<unsigned char> out(p.Count());
  for (int y = 0; y < p.height; ++y) {
    unsigned char* o = &out[static_cast<size_t>(y) * p.width];
    for (int x = 0; x < p.width; ++x) o[x] = map(*p.At(y, x));
  }
  return out;
}

unsigned char Complement(unsigned char v) {
  return v == kUnknown ? v : static_cast<unsigned char>(255 - v);
}

Bytes NewPlane(const Plane& like, int channels) {
  if (channels == 1) return Bytes({like.height, like.width});
  return Bytes({like.height, like.width, channels});
}

// base with the caller's choices: another solver starts from its own
// regulariser unless one is given.
mat_options SolveOptions(const mat_options& base, std::optional<int> solver,
                         std::optional<double> epsilon) {
  mat_options o = base;
  if (solver && *solver != o.solver) {
    o.solver = *solver;
    o.epsilon = 0.0;
  }
  if (epsilon) o.epsilon = *epsilon;
  if ((o.solver != MAT_SOLVER_EXACT && o.solver != MAT_SOLVER_FINE) ||
      !(o.epsilon >= 0.0)) {
    throw py::value_error("unknown solver or negative epsilon");
  }
  return o;
}

// ---- One-shot cut-out ----

py::dict CutoutDefaults() {
  const mat_cutout_options o{};
  py::dict d;
  d["work_size"] = o.work_size;
  d["max_band"] = o.max_band;
  d["band_scale"] = o.band_scale;
  d["smooth_window"] = o.smooth_window;
  d["keep_fragments"] = o.keep_fragments;
  d["solver"] = o.solve.solver;
  d["min_work_size"] = softmatte_tool::kMinWorkSize;
  return d;
}

py::dict TimingsDict(const mat_cutout_timings& t) {
  py::dict d;
  d["scribbles"] = t.scribbles;
  d["trimap"] = t.trimap;
  d["tables"] = t.tables;
  d["solve"] = t.solve;
  d["upsampling"] = t.upsampling;
  d["cleanup"] = t.cleanup;
  d["colours"] = t.colours;
  return d;
}

// mat_cutout on an RGB photo: (status, alpha, RGB foreground, timings), the
// arrays None unless the status is MAT_CUTOUT_OK.
py::tuple Cutout(const py::array& image, const py::array& guide, int kind,
                 std::optional<int> work_size, std::optional<int> max_band,
                 std::optional<double> band_scale, std::optional<int> solver,
                 std::optional<double> epsilon) {
  const Plane rgb = Inspect(image, "image", {3});
  const Plane g = Inspect(guide, "guide", {1});
  RequireSize(g, rgb, "guide");
  mat_cutout_options options{};
  if (work_size) options.work_size = *work_size;
  if (max_band) options.max_band = *max_band;
  if (band_scale) options.band_scale = *band_scale;
  options.solve = SolveOptions(options.solve, solver, epsilon);
  Bytes alpha = NewPlane(rgb, 1);
  Bytes foreground = NewPlane(rgb, 3);
  unsigned char* a = alpha.mutable_data();
  unsigned char* f = foreground.mutable_data();
  Bytes staging = BgrBuffer(rgb);
  unsigned char* bgr = staging.mutable_data();
  mat_cutout_timings timings{};
  int status = 0;
  {
    py::gil_scoped_release release;
    ToBgr(rgb, bgr);
    const Readable plane = Borrow(g);
    status = mat_cutout(bgr, rgb.width, rgb.height, 3 * rgb.width, plane.data,
                        plane.stride, kind, options, a, rgb.width, f,
                        3 * rgb.width, &timings);
    if (status == MAT_CUTOUT_OK) SwapRedBlue(f, rgb.Count());
  }
  if (status != MAT_CUTOUT_OK) {
    return py::make_tuple(status, py::none(), py::none(), py::none());
  }
  return py::make_tuple(status, alpha, foreground, TimingsDict(timings));
}

// The bare library call on inputs already as it takes them (packed B, G, R
// photo and packed guide) into caller arrays, with default options: what the
// overhead benchmark holds softmatte.cutout against.
int CutoutRaw(const py::array& bgr, const py::array& guide, int kind,
              py::array& alpha, py::array& foreground) {
  const Plane p = Inspect(bgr, "bgr", {3});
  for (const auto& [a, channels] :
       {std::pair<py::array*, int>{const_cast<py::array*>(&guide), 1},
        {&alpha, 1},
        {&foreground, 3}}) {
    const Plane q = Inspect(*a, "plane", {channels});
    RequireSize(q, p, "plane");
    if (!(a->flags() & py::array::c_style) || !a->writeable()) {
      throw py::value_error("planes must be C-contiguous and writeable");
    }
  }
  if (!(bgr.flags() & py::array::c_style)) {
    throw py::value_error("bgr must be C-contiguous");
  }
  const auto* src = static_cast<const unsigned char*>(bgr.data());
  const auto* g = static_cast<const unsigned char*>(guide.data());
  auto* a = static_cast<unsigned char*>(alpha.mutable_data());
  auto* f = static_cast<unsigned char*>(foreground.mutable_data());
  py::gil_scoped_release release;
  return mat_cutout(src, p.width, p.height, 3 * p.width, g, p.width, kind,
                    mat_cutout_options{}, a, p.width, f, 3 * p.width, nullptr);
}

// foreground x alpha + background x (255 - alpha), per channel: the order of
// the channels does not matter, so RGB goes in and out as it is. A
// background of another size is stretched as the tool stretches it.
Bytes Composite(const py::array& foreground, const py::array& alpha,
                const std::optional<py::array>& background,
                const std::vector<int>& colour) {
  const Plane f = Inspect(foreground, "foreground", {3});
  const Plane a = Inspect(alpha, "alpha", {1});
  RequireSize(a, f, "alpha");
  std::optional<Plane> b;
  if (background) b = Inspect(*background, "background", {3});
  if (colour.size() != 3) throw py::value_error("colour needs three values");
  Bytes out = NewPlane(f, 3);
  unsigned char* o = out.mutable_data();
  const int stride = 3 * f.width;
  py::gil_scoped_release release;
  if (!b) {
    for (size_t i = 0; i < 3 * f.Count(); ++i) {
      o[i] = static_cast<unsigned char>(colour[i % 3]);
    }
  } else {
    const Readable back = Borrow(*b);
    if (b->width == f.width && b->height == f.height) {
      ff::ipf_memcpy_2d(back.data, 3 * f.width, f.height, back.stride, o,
                        stride);
    } else {
      ff::ipf_resize_bl<unsigned char, unsigned char>(
          back.data, b->width, b->height, back.stride, 3, o, f.width, f.height,
          stride, 3, 3);
    }
  }
  const Readable fg = Borrow(f);
  const Readable al = Borrow(a);
  mat_composite(fg.data, fg.stride, al.data, al.stride, o, stride, f.width,
                f.height, o, stride);
  return out;
}

// ---- Solver, scribbles, segmentation ----

// mat_update and mat_run over the whole photo: (status, alpha).
py::tuple SolveAlpha(const py::array& image, const py::array& trimap,
                     std::optional<int> solver, std::optional<double> epsilon) {
  const Plane rgb = Inspect(image, "image", {3});
  const Plane t = Inspect(trimap, "trimap", {1});
  RequireSize(t, rgb, "trimap");
  const mat_options options = SolveOptions(mat_options(), solver, epsilon);
  Bytes alpha = NewPlane(rgb, 1);
  unsigned char* a = alpha.mutable_data();
  Bytes staging = BgrBuffer(rgb);
  unsigned char* bgr = staging.mutable_data();
  int status = 0;
  {
    py::gil_scoped_release release;
    ToBgr(rgb, bgr);
    const std::vector<unsigned char> known =
        Mapped(t, [](unsigned char v) { return v; });
    std::vector<unsigned char> unknown(known.size());
    for (size_t i = 0; i < known.size(); ++i) {
      unknown[i] = known[i] == kUnknown;
    }
    std::memcpy(a, known.data(), known.size());
    mat_data problem;
    mat_update(bgr, rgb.width, rgb.height, 3 * rgb.width, unknown.data(),
               rgb.width, problem, options);
    status = mat_run(problem, known.data(), a, options);
  }
  return py::make_tuple(status, alpha);
}

// The tool's reading of a scribble picture (RGB or RGBA): (labels, subject
// stroke pixels, background stroke pixels).
py::tuple ScribbleLabels(const py::array& picture) {
  const Plane p = Inspect(picture, "scribbles", {3, 4});
  Bytes labels = NewPlane(p, 1);
  unsigned char* l = labels.mutable_data();
  long subject = 0;
  long background = 0;
  {
    py::gil_scoped_release release;
    // The tool's rule reads packed B, G, R, A pixels.
    std::vector<unsigned char> bgra(4 * p.Count());
    for (int y = 0; y < p.height; ++y) {
      for (int x = 0; x < p.width; ++x) {
        const unsigned char* s = p.At(y, x);
        unsigned char* o = &bgra[4 * (static_cast<size_t>(y) * p.width + x)];
        o[0] = s[2 * p.channel];
        o[1] = s[p.channel];
        o[2] = s[0];
        o[3] = p.channels == 4 ? s[3 * p.channel] : 255;
      }
    }
    std::vector<unsigned char> out;
    softmatte_tool::ScribbleLabels(bgra, p.width, p.height, &out, &subject,
                                   &background);
    std::memcpy(l, out.data(), out.size());
  }
  return py::make_tuple(labels, subject, background);
}

// GeoSeg on labels (2 subject, 1 background, anything else nothing): 255
// where the subject is geodesically nearer, as mat_cutout segments
// scribbles.
Bytes SegmentScribbles(const py::array& image, const py::array& labels) {
  const Plane rgb = Inspect(image, "image", {3});
  const Plane l = Inspect(labels, "scribbles", {1});
  RequireSize(l, rgb, "scribbles");
  Bytes mask = NewPlane(rgb, 1);
  unsigned char* m = mask.mutable_data();
  Bytes staging = BgrBuffer(rgb);
  unsigned char* bgr = staging.mutable_data();
  py::gil_scoped_release release;
  ToBgr(rgb, bgr);
  const std::vector<unsigned char> seeds = Mapped(l, [](unsigned char v) {
    return static_cast<unsigned char>(v == 1 || v == 2 ? v : 0);
  });
  std::vector<float> probability(rgb.Count());
  GeoSeg segmenter;
  segmenter.SetImage(bgr, rgb.width, rgb.height, 3 * rgb.width, 3);
  segmenter.GetProb(seeds.data(), rgb.width, probability.data(), rgb.width);
  // Strictly above one half: a pixel neither stroke reaches stays out.
  for (size_t i = 0; i < probability.size(); ++i) {
    m[i] = probability[i] > 0.5f ? 255 : 0;
  }
  return mask;
}

// ---- Session ----

enum BrushMode {
  kErode,
  kDilate,
  kSubject,
  kBackground,
  kSmooth,
  kRestore,
  kThreshold,
};

// A DSCMatting session holding its matte in the caller's polarity (255 the
// subject), with the brushes and an undo history. The library asks that a
// session stays with one thread at a time; every call here takes the
// session's lock (after letting go of the GIL), so a session shared between
// Python threads is used in turn instead of racing.
class Session {
 public:
  Session(const py::array& image, int work_size, std::optional<int> solver,
          std::optional<double> epsilon, int undo_depth)
      : undo_depth_(std::max(undo_depth, 0)) {
    const Plane rgb = Inspect(image, "image", {3});
    // The cut-out's solve unless the caller picks one.
    const mat_options options =
        SolveOptions(mat_cutout_options().solve, solver, epsilon);
    if (work_size < 1) throw py::value_error("work_size must be positive");
    width_ = rgb.width;
    height_ = rgb.height;
    Bytes staging = BgrBuffer(rgb);
    unsigned char* bgr = staging.mutable_data();
    py::gil_scoped_release release;
    ToBgr(rgb, bgr);
    session_.Init(bgr, width_, height_, 3 * width_, work_size);
    session_.SetSolveOptions(options);
    reference_.assign(static_cast<size_t>(width_) * height_, 0);
  }

  int width() const { return width_; }
  int height() const { return height_; }

  // Mask (128 and up the subject) to matte; an empty Bytes when the mask
  // marks no subject.
  py::object MatteFromMask(const py::array& mask, int max_band,
                           double band_scale, int ksize, int keep) {
    const Plane m = Check(mask, "mask");
    Bytes out = NewAlpha();
    unsigned char* o = out.mutable_data();
    bool subject = false;
    {
      py::gil_scoped_release release;
      std::lock_guard<std::mutex> lock(mutex_);
      const std::vector<unsigned char> seg = Mapped(m, [](unsigned char v) {
        return static_cast<unsigned char>(v >= 128 ? 255 : 0);
      });
      subject = std::find(seg.begin(), seg.end(), 255) != seg.end();
      if (subject) {
        session_.MakeMatteFromSegmRes(seg.data(), width_, height_, width_, o,
                                      width_, max_band, band_scale, ksize,
                                      keep);
        NewMatte(o);
      }
    }
    return subject ? py::object(out) : py::none();
  }

  // Trimap binned as mat_cutout bins it (below 64 background, above 191
  // subject, else unknown), solved in the session's own polarity.
  Bytes Refine(const py::array& trimap, int ksize, int keep) {
    const Plane t = Check(trimap, "trimap");
    Bytes out = NewAlpha();
    unsigned char* o = out.mutable_data();
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    const std::vector<unsigned char> inner = Mapped(t, [](unsigned char v) {
      return Complement(v < 64 ? 0 : v > 191 ? 255 : kUnknown);
    });
    session_.Refine(inner.data(), width_, height_, width_, o, width_, ksize,
                    keep);
    std::transform(o, o + inner.size(), o, Complement);
    NewMatte(o);
    return out;
  }

  Bytes Alpha() {
    Bytes out = NewAlpha();
    unsigned char* o = out.mutable_data();
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    session_.GetAlpha(o, width_);
    return out;
  }

  void SetAlpha(const py::array& alpha) {
    const Plane a = Check(alpha, "alpha");
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    const std::vector<unsigned char> plane =
        Mapped(a, [](unsigned char v) { return v; });
    NewMatte(plane.data());
  }

  // The subject's own colours under the current matte (RGB), estimated again
  // only when the matte changed since the last call.
  Bytes Foreground() {
    Bytes out({height_, width_, 3});
    unsigned char* o = out.mutable_data();
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    session_.GetFImage(o, 3 * width_, colours_stale_ ? 1 : 0);
    colours_stale_ = false;
    SwapRedBlue(o, static_cast<size_t>(width_) * height_);
    return out;
  }

  void Smooth(int ksize, int keep) {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    int stride = 0;
    unsigned char* alpha = session_.GetAlpha(&stride);
    Remember(alpha, stride, 0, 0, width_, height_);
    session_.SmoothBoundary(ksize, keep);
    colours_stale_ = true;
  }

  // One stroke: a dab of the brush at each point (x, y); returns whether
  // any dab touched the photo.
  bool Stroke(int mode,
              const py::array_t<double, py::array::c_style |
                                            py::array::forcecast>& points,
              int radius, float flat, int ksize, int low, int high) {
    if (points.ndim() != 2 || points.shape(1) != 2) {
      throw py::value_error("points must have shape (N, 2)");
    }
    if (mode < kErode || mode > kThreshold || radius < 0 ||
        radius > std::max(width_, height_) || ksize < 1 || low < 0 ||
        low > 255 || high < 0 || high > 255) {
      throw py::value_error("brush setting out of range");
    }
    const double* xy = points.data();
    const py::ssize_t count = points.shape(0);
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    int stride = 0;
    unsigned char* alpha = session_.GetAlpha(&stride);
    const std::vector<unsigned char> before = Copy(alpha, stride);

    const int side = 2 * radius + 1;
    std::vector<unsigned char> weight(static_cast<size_t>(side) * side);
    mat_make_rect_weight(weight.data(), side, side, side, flat);
    // The strongest weight each pixel got in this stroke: a dab passing
    // again over it does not apply twice.
    std::vector<unsigned char> acc(static_cast<size_t>(width_) * height_, 0);
    std::vector<unsigned char> scratch(weight.size());
    int left = width_, top = height_, right = 0, bottom = 0;
    for (py::ssize_t i = 0; i < count; ++i) {
      const double px = xy[2 * i];
      const double py_ = xy[2 * i + 1];
      // Dabs wholly off the photo (or not numbers) touch nothing.
      if (!(std::fabs(px) < 1e9 && std::fabs(py_) < 1e9)) continue;
      const long cx = std::lround(px);
      const long cy = std::lround(py_);
      const int x0 = static_cast<int>(std::max(cx - radius, 0L));
      const int y0 = static_cast<int>(std::max(cy - radius, 0L));
      const int x1 = static_cast<int>(std::min(cx + radius + 1, long{width_}));
      const int y1 = static_cast<int>(std::min(cy + radius + 1, long{height_}));
      if (x0 >= x1 || y0 >= y1) continue;
      const int w = x1 - x0;
      const int h = y1 - y0;
      const unsigned char* wt =
          &weight[static_cast<size_t>(y0 - (cy - radius)) * side +
                  (x0 - (cx - radius))];
      unsigned char* a = alpha + static_cast<ptrdiff_t>(y0) * stride + x0;
      unsigned char* ac = &acc[static_cast<size_t>(y0) * width_ + x0];
      // The window filters may look this far past the dab into the matte.
      int border[4] = {x0, y0, width_ - x1, height_ - y1};
      switch (mode) {
        case kErode:
          mat_erode_brush(a, w, h, stride, wt, side, a, stride, ksize, border);
          break;
        case kDilate:
          mat_dilate_brush(a, w, h, stride, wt, side, a, stride, ksize, border);
          break;
        case kSubject:
        case kBackground:
          mat_set_brush(a, w, h, stride, wt, side, ac, width_, a, stride,
                        mode == kSubject ? 255 : 0);
          break;
        case kRestore:
          mat_undo_brush(&reference_[static_cast<size_t>(y0) * width_ + x0], w,
                         h, width_, 1, wt, side, ac, width_, a, stride, true);
          break;
        case kSmooth:
        case kThreshold:
          // Worked out over the dab's square, then blended in by the dab's
          // weight like the other brushes, so that every brush is round.
          if (mode == kSmooth) {
            mat_smooth_brush(a, w, h, stride, 1, scratch.data(), w, ksize,
                             border);
          } else {
            ff::ipf_memcpy_2d(a, w, h, stride, scratch.data(), w);
            mat_brush_threshold(a, w, h, stride, scratch.data(), w,
                                scratch.data(), w, ksize, border,
                                static_cast<unsigned char>(low),
                                static_cast<unsigned char>(high));
          }
          mat_undo_brush(scratch.data(), w, h, w, 1, wt, side, ac, width_, a,
                         stride, true);
          break;
      }
      left = std::min(left, x0);
      top = std::min(top, y0);
      right = std::max(right, x1);
      bottom = std::max(bottom, y1);
    }
    if (left >= right) return false;
    Remember(before.data(), width_, left, top, right - left, bottom - top);
    colours_stale_ = true;
    return true;
  }

  bool Undo() {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    if (history_.empty()) return false;
    const Edit& e = history_.back();
    int stride = 0;
    unsigned char* alpha = session_.GetAlpha(&stride);
    ff::ipf_memcpy_2d(e.pixels.data(), e.width, e.height, e.width,
                      alpha + static_cast<ptrdiff_t>(e.y) * stride + e.x,
                      stride);
    history_.pop_back();
    colours_stale_ = true;
    return true;
  }

  size_t UndoCount() {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    return history_.size();
  }

 private:
  // A rectangle of the matte as it was before an edit.
  struct Edit {
    int x, y, width, height;
    std::vector<unsigned char> pixels;
  };

  Plane Check(const py::array& a, const char* name) const {
    const Plane p = Inspect(a, name, {1});
    if (p.width != width_ || p.height != height_) {
      throw py::value_error(std::string(name) +
                            " must have the session image's height and width");
    }
    return p;
  }

  Bytes NewAlpha() const { return Bytes({height_, width_}); }

  std::vector<unsigned char> Copy(const unsigned char* alpha,
                                  int stride) const {
    std::vector<unsigned char> out(static_cast<size_t>(width_) * height_);
    ff::ipf_memcpy_2d(alpha, width_, height_, stride, out.data(), width_);
    return out;
  }

  // A matte from a solve or the caller: the session holds it (the colours
  // are then those of the subject), the restore brush goes back to it, and
  // the edits before it can no longer be undone.
  void NewMatte(const unsigned char* packed) {
    session_.set_alpha(packed, width_, height_, width_);
    reference_.assign(packed, packed + static_cast<size_t>(width_) * height_);
    history_.clear();
    colours_stale_ = true;
  }

  void Remember(const unsigned char* from, int stride, int x, int y, int w,
                int h) {
    if (undo_depth_ == 0) return;
    Edit e{x, y, w, h, std::vector<unsigned char>(static_cast<size_t>(w) * h)};
    ff::ipf_memcpy_2d(from + static_cast<ptrdiff_t>(y) * stride + x, w, h,
                      stride, e.pixels.data(), w);
    history_.push_back(std::move(e));
    while (history_.size() > static_cast<size_t>(undo_depth_)) {
      history_.pop_front();
    }
  }

  std::mutex mutex_;
  DSCMatting session_;
  int width_ = 0;
  int height_ = 0;
  int undo_depth_;
  std::vector<unsigned char> reference_;
  std::deque<Edit> history_;
  bool colours_stale_ = true;
};

}  // namespace

PYBIND11_MODULE(_softmatte, m) {
  m.doc() =
      "The compiled core of softmatte; use the functions of the softmatte "
      "package, which check and convert their arguments.";
  m.attr("GUIDE_MASK") = int{MAT_GUIDE_MASK};
  m.attr("GUIDE_TRIMAP") = int{MAT_GUIDE_TRIMAP};
  m.attr("GUIDE_SCRIBBLES") = int{MAT_GUIDE_SCRIBBLES};
  m.attr("CUTOUT_OK") = int{MAT_CUTOUT_OK};
  m.attr("CUTOUT_NO_SUBJECT") = int{MAT_CUTOUT_NO_SUBJECT};
  m.attr("CUTOUT_NO_BACKGROUND") = int{MAT_CUTOUT_NO_BACKGROUND};
  m.attr("SOLVER_EXACT") = int{MAT_SOLVER_EXACT};
  m.attr("SOLVER_FINE") = int{MAT_SOLVER_FINE};
  m.attr("FINE_EPSILON") = MAT_FINE_EPSILON;
  m.attr("BRUSH_MODES") =
      py::make_tuple("erode", "dilate", "subject", "background", "smooth",
                     "restore", "threshold");

  m.def("cutout_defaults", &CutoutDefaults,
        "The settings of a value-initialised mat_cutout_options.");
  m.def("cutout", &Cutout, py::arg("image"), py::arg("guide"), py::arg("kind"),
        py::arg("work_size") = py::none(), py::arg("max_band") = py::none(),
        py::arg("band_scale") = py::none(), py::arg("solver") = py::none(),
        py::arg("epsilon") = py::none(),
        "mat_cutout on an RGB photo: (status, alpha, foreground, timings).");
  m.def("cutout_raw", &CutoutRaw, py::arg("bgr"), py::arg("guide"),
        py::arg("kind"), py::arg("alpha"), py::arg("foreground"),
        "mat_cutout with default options on a packed B, G, R photo, into "
        "the given arrays; for measuring the binding's own cost.");
  m.def("composite", &Composite, py::arg("foreground"), py::arg("alpha"),
        py::arg("background"), py::arg("colour"),
        "mat_composite over a background image (stretched to size) or, "
        "when it is None, a colour.");
  m.def("solve_alpha", &SolveAlpha, py::arg("image"), py::arg("trimap"),
        py::arg("solver") = py::none(), py::arg("epsilon") = py::none(),
        "mat_update and mat_run on the whole photo: (status, alpha).");
  m.def("scribble_labels", &ScribbleLabels, py::arg("picture"),
        "The tool's stroke rule: (labels, subject pixels, background "
        "pixels).");
  m.def("segment_scribbles", &SegmentScribbles, py::arg("image"),
        py::arg("labels"), "GeoSeg of labels into a 0/255 mask.");

  py::class_<Session>(m, "Session",
                      "A DSCMatting session with brushes and undo.")
      .def(py::init<const py::array&, int, std::optional<int>,
                    std::optional<double>, int>(),
           py::arg("image"), py::arg("work_size"), py::arg("solver"),
           py::arg("epsilon"), py::arg("undo_depth"))
      .def_property_readonly("width", &Session::width)
      .def_property_readonly("height", &Session::height)
      .def("matte_from_mask", &Session::MatteFromMask)
      .def("refine", &Session::Refine)
      .def("alpha", &Session::Alpha)
      .def("set_alpha", &Session::SetAlpha)
      .def("foreground", &Session::Foreground)
      .def("smooth", &Session::Smooth)
      .def("stroke", &Session::Stroke)
      .def("undo", &Session::Undo)
      .def("undo_count", &Session::UndoCount);
}
