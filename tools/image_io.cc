#include "image_io.h"

// clang-format off
#include <stdio.h>  // jpeglib.h uses FILE and size_t without declaring them
#include <jpeglib.h>
#include <jerror.h>
// clang-format on
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace softmatte_tool {
namespace {

constexpr size_t kMessageSize = 200;

// The temporary file being written, removed if the run is interrupted; a
// plain array because the signal handler may only make async-signal-safe
// calls.
char pending_temp[4096];

extern "C" void RemovePendingAndDie(int signal_number) {
  if (pending_temp[0] != '\0') unlink(pending_temp);
  std::signal(signal_number, SIG_DFL);
  std::raise(signal_number);
}

void GuardInterrupts() {
  static bool installed = false;
  if (installed) return;
  installed = true;
  for (int s : {SIGINT, SIGTERM, SIGHUP}) std::signal(s, RemovePendingAndDie);
}

std::string SystemReason() { return std::strerror(errno); }

// "x.png is 60000x60000 = 3600000000 pixels, ..." when the header asks for
// more than max_pixels pixels.
bool WithinLimit(const std::string& path, long long width, long long height,
                 long long max_pixels, std::string* error) {
  if (width * height <= max_pixels) return true;
  *error = path + " is " + std::to_string(width) + "x" +
           std::to_string(height) + " = " + std::to_string(width * height) +
           " pixels, more than the limit of " + std::to_string(max_pixels) +
           " (--max-pixels raises it)";
  return false;
}

// The orientation tag (0x0112) of the first image directory of an Exif
// block, which starts at its TIFF header ("II" or "MM", 42, the directory's
// offset). Anything malformed or out of range counts as 1, upright.
int ExifOrientation(const unsigned char* tiff, size_t size) {
  if (size < 8) return 1;
  const bool motorola = tiff[0] == 'M' && tiff[1] == 'M';
  if (!motorola && !(tiff[0] == 'I' && tiff[1] == 'I')) return 1;
  const auto u16 = [&](size_t at) -> unsigned {
    return motorola ? tiff[at] << 8 | tiff[at + 1]
                    : tiff[at] | tiff[at + 1] << 8;
  };
  const auto u32 = [&](size_t at) -> unsigned long {
    return motorola ? static_cast<unsigned long>(u16(at)) << 16 | u16(at + 2)
                    : static_cast<unsigned long>(u16(at + 2)) << 16 | u16(at);
  };
  const unsigned long directory = u32(4);
  if (u16(2) != 42 || directory > size - 2) return 1;
  const unsigned entries = u16(directory);
  for (unsigned i = 0; i < entries; ++i) {
    const size_t entry = directory + 2 + 12 * static_cast<size_t>(i);
    if (entry + 12 > size) return 1;
    if (u16(entry) != 0x0112) continue;
    // One SHORT, left-justified in the value field.
    const unsigned value = u16(entry + 8);
    const bool usable = u16(entry + 2) == 3 && u32(entry + 4) == 1;
    return usable && value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
  }
  return 1;
}

// The stored pixel that lands at the upright (0, 0), and the distances in
// the stored picture to the pixels that land one step right and one down.
struct Steps {
  ptrdiff_t origin, right, down;
};

// Copies the stored pixels to upright, row by upright row.
template <int kChannels>
void Walk(const Steps& steps, const Picture& picture, unsigned char* upright) {
  const unsigned char* from = picture.pixels.data();
  for (int y = 0; y < picture.height; ++y) {
    ptrdiff_t at = steps.origin + y * steps.down;
    for (int x = 0; x < picture.width; ++x, at += steps.right) {
      std::memcpy(upright, from + at * kChannels, kChannels);
      upright += kChannels;
    }
  }
}

// Turns a decoded picture upright. An Exif orientation names the sides of
// the upright picture along which the stored first row and first column lie
// (the table of the Exif standard, taken from TIFF 6.0):
//   1 top, left: as stored           5 left, top: transposed
//   2 top, right: mirrored           6 right, top: turned 90 deg clockwise
//   3 bottom, right: turned 180 deg  7 right, bottom: transverse
//   4 bottom, left: flipped          8 left, bottom: turned 90 deg counter-
//                                      clockwise
// From 5 on, stored rows become columns: width and height swap.
void TurnUpright(int orientation, Picture* picture) {
  if (orientation < 2 || orientation > 8) return;
  const ptrdiff_t w = picture->width;
  const ptrdiff_t h = picture->height;
  const Steps walks[9] = {{0, 1, w},
                          {0, 1, w},
                          {w - 1, -1, w},
                          {w * h - 1, -1, -w},
                          {(h - 1) * w, 1, -w},
                          {0, w, 1},
                          {(h - 1) * w, -w, 1},
                          {w * h - 1, -w, -1},
                          {w - 1, w, -1}};
  const Steps& walk = walks[orientation];
  if (orientation >= 5) std::swap(picture->width, picture->height);
  std::vector<unsigned char> upright(picture->pixels.size());
  switch (picture->channels) {
    case 1:
      Walk<1>(walk, *picture, upright.data());
      break;
    case 3:
      Walk<3>(walk, *picture, upright.data());
      break;
    default:
      Walk<4>(walk, *picture, upright.data());
      break;
  }
  picture->pixels.swap(upright);
}

// libpng reports through these, with the message buffer as its error
// pointer; its own handlers would print to stderr.
extern "C" void PngFail(png_structp png, png_const_charp message) {
  std::snprintf(static_cast<char*>(png_get_error_ptr(png)), kMessageSize, "%s",
                message);
  png_longjmp(png, 1);
}

extern "C" void PngIgnore(png_structp, png_const_charp) {}

// The Exif orientation of a PNG's eXIf chunk, read from the chunks before
// the pixels; 1 when there is none or the header does not decode (the
// decoder proper then says why). Only plain C objects live in this frame.
int PngOrientation(FILE* file) {
  char message[kMessageSize];
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, message,
                                           PngFail, PngIgnore);
  if (!png) return 1;
  png_infop info = png_create_info_struct(png);
  int orientation = 1;
  if (info && !setjmp(png_jmpbuf(png))) {
    png_init_io(png, file);
    png_read_info(png, info);
    png_bytep exif = nullptr;
    png_uint_32 size = 0;
    if (png_get_eXIf_1(png, info, &size, &exif)) {
      orientation = ExifOrientation(exif, size);
    }
  }
  png_destroy_read_struct(&png, &info, nullptr);
  return orientation;
}

bool ReadPng(FILE* file, const std::string& path, Layout layout,
             long long max_pixels, Picture* out, std::string* error) {
  const int orientation = PngOrientation(file);
  std::rewind(file);
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_stdio(&image, file)) {
    *error = "cannot decode " + path + ": " + image.message;
    return false;
  }
  if (!WithinLimit(path, image.width, image.height, max_pixels, error)) {
    png_image_free(&image);
    return false;
  }
  switch (layout) {
    case Layout::kGrey:
      image.format = PNG_FORMAT_GRAY;
      break;
    case Layout::kBgr:
      image.format = PNG_FORMAT_BGR;
      break;
    case Layout::kBgra:
      image.format = PNG_FORMAT_BGRA;
      break;
    case Layout::kRgba:
      image.format = PNG_FORMAT_RGBA;
      break;
  }
  out->width = static_cast<int>(image.width);
  out->height = static_cast<int>(image.height);
  out->channels = ChannelsOf(layout);
  const size_t bytes =
      static_cast<size_t>(out->width) * out->height * out->channels;
  // libpng's simplified reader fills at most 4 GiB: refuse before asking
  // for more.
  const char* problem = bytes > 0xFFFFFFFFu ? "more than libpng reads" : "";
  try {
    if (!*problem) out->pixels.resize(bytes);
  } catch (const std::bad_alloc&) {
    problem = "not enough memory";
  }
  if (*problem) {
    *error = "cannot decode " + path + ": " + std::to_string(image.width) +
             "x" + std::to_string(image.height) + " pixels, " + problem;
    png_image_free(&image);
    return false;
  }
  if (!png_image_finish_read(&image, nullptr, out->pixels.data(), 0, nullptr)) {
    *error = "cannot decode " + path + ": " + image.message;
    png_image_free(&image);
    return false;
  }
  TurnUpright(orientation, out);
  return true;
}

struct JpegFailure {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

extern "C" void JpegFail(j_common_ptr info) {
  auto* failure = reinterpret_cast<JpegFailure*>(info->err);
  info->err->format_message(info, failure->message);
  std::longjmp(failure->jump, 1);
}

// A truncated file only raises a warning in libjpeg and decodes to grey
// rows; for this tool that is an undecodable photo, not a result.
extern "C" void JpegWarn(j_common_ptr info, int level) {
  if (level < 0 && info->err->msg_code == JWRN_JPEG_EOF) JpegFail(info);
}

// One JPEG decode: what is asked, and what the header said.
struct JpegJob {
  Layout layout = Layout::kBgr;
  Picture* out = nullptr;
  std::vector<unsigned char>* ink_row = nullptr;  // a CMYK row, unconverted
  long long max_pixels = 0;
  long long width = 0;
  long long height = 0;
  bool too_large = false;
  bool ink = false;           // CMYK or YCCK, decoded to CMYK
  bool inverted_ink = false;  // Adobe-marked: 0 is full ink
  int orientation = 1;
  JpegFailure failure;
};

// libjpeg's own weights for grey from RGB (16 fraction bits, rounded).
unsigned char GreyOf(int r, int g, int b) {
  return static_cast<unsigned char>(
      (19595 * r + 38470 * g + 7471 * b + 32768) >> 16);
}

// Ink to light with the plain subtractive model that decoders use without a
// colour profile: R = (255 - C)(255 - K) / 255, and so on. Photoshop writes
// Adobe-marked CMYK and YCCK with every channel inverted (255 is no ink), and
// decoders read any Adobe-marked file so, which makes it R = C K / 255.
void InkRowToLayout(const unsigned char* cmyk, int width, bool inverted,
                    Layout layout, unsigned char* to) {
  const int c = ChannelsOf(layout);
  for (int x = 0; x < width; ++x, cmyk += 4, to += c) {
    int light[4];
    for (int i = 0; i < 4; ++i) light[i] = inverted ? cmyk[i] : 255 - cmyk[i];
    int rgb[3];
    for (int i = 0; i < 3; ++i) rgb[i] = (light[i] * light[3] + 127) / 255;
    switch (layout) {
      case Layout::kGrey:
        to[0] = GreyOf(rgb[0], rgb[1], rgb[2]);
        break;
      case Layout::kBgr:
      case Layout::kBgra:
        for (int i = 0; i < 3; ++i)
          to[i] = static_cast<unsigned char>(rgb[2 - i]);
        break;
      case Layout::kRgba:
        for (int i = 0; i < 3; ++i) to[i] = static_cast<unsigned char>(rgb[i]);
        break;
    }
    if (c == 4) to[3] = 255;
  }
}

// Reads every row once the header is known; kept apart from the frame that
// calls setjmp, so that nothing living there changes after it.
void ReadRows(jpeg_decompress_struct* info, JpegJob* job) {
  Picture* out = job->out;
  jpeg_start_decompress(info);
  out->width = static_cast<int>(info->output_width);
  out->height = static_cast<int>(info->output_height);
  out->channels = ChannelsOf(job->layout);
  const size_t row = static_cast<size_t>(out->width) * out->channels;
  bool allocated = true;
  try {
    out->pixels.resize(row * out->height);
    if (job->ink) job->ink_row->resize(4 * static_cast<size_t>(out->width));
  } catch (const std::bad_alloc&) {
    allocated = false;
  }
  if (!allocated) ERREXIT1(info, JERR_OUT_OF_MEMORY, 0);
  while (info->output_scanline < info->output_height) {
    unsigned char* to = out->pixels.data() + row * info->output_scanline;
    JSAMPROW rows[1] = {job->ink ? job->ink_row->data() : to};
    if (jpeg_read_scanlines(info, rows, 1) == 1 && job->ink) {
      InkRowToLayout(rows[0], out->width, job->inverted_ink, job->layout, to);
    }
  }
  jpeg_finish_decompress(info);
}

// The orientation from the first Exif block among the saved APP1 markers.
int JpegOrientation(const jpeg_decompress_struct& info) {
  static const unsigned char kExif[6] = {'E', 'x', 'i', 'f', 0, 0};
  for (jpeg_saved_marker_ptr m = info.marker_list; m; m = m->next) {
    if (m->marker == JPEG_APP0 + 1 && m->data_length >= sizeof kExif &&
        std::memcmp(m->data, kExif, sizeof kExif) == 0) {
      return ExifOrientation(m->data + sizeof kExif,
                             m->data_length - sizeof kExif);
    }
  }
  return 1;
}

// False with job->failure.message set when libjpeg gives up, or with
// job->too_large set. Only plain C objects live in this frame: a longjmp
// back into it skips no destructor.
bool DecodeJpeg(FILE* file, JpegJob* job) {
  jpeg_decompress_struct info;
  info.err = jpeg_std_error(&job->failure.manager);
  job->failure.manager.error_exit = JpegFail;
  job->failure.manager.emit_message = JpegWarn;
  if (setjmp(job->failure.jump)) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  jpeg_create_decompress(&info);
  jpeg_stdio_src(&info, file);
  jpeg_save_markers(&info, JPEG_APP0 + 1, 0xFFFF);
  jpeg_read_header(&info, TRUE);
  job->width = info.image_width;
  job->height = info.image_height;
  if (job->width * job->height > job->max_pixels) {
    job->too_large = true;
    jpeg_destroy_decompress(&info);
    return false;
  }
  job->orientation = JpegOrientation(info);
  // libjpeg turns YCCK into CMYK itself, but neither into RGB.
  job->ink =
      info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK;
  job->inverted_ink = job->ink && info.saw_Adobe_marker;
  const Layout layout = job->layout;
  info.out_color_space = job->ink                  ? JCS_CMYK
                         : layout == Layout::kGrey ? JCS_GRAYSCALE
                         : layout == Layout::kBgr  ? JCS_EXT_BGR
                         : layout == Layout::kBgra ? JCS_EXT_BGRA
                                                   : JCS_EXT_RGBA;
  ReadRows(&info, job);
  jpeg_destroy_decompress(&info);
  return true;
}

bool ReadJpeg(FILE* file, const std::string& path, Layout layout,
              long long max_pixels, Picture* out, std::string* error) {
  std::vector<unsigned char> ink_row;
  JpegJob job;
  job.layout = layout;
  job.out = out;
  job.ink_row = &ink_row;
  job.max_pixels = max_pixels;
  if (DecodeJpeg(file, &job)) {
    TurnUpright(job.orientation, out);
    return true;
  }
  if (!job.too_large) {
    *error = "cannot decode " + path + ": " + job.failure.message;
  } else {
    WithinLimit(path, job.width, job.height, max_pixels, error);
  }
  return false;
}

// One PNG encode, and libpng's message when it gives up.
struct PngWriteJob {
  FILE* file;
  int width;
  int height;
  const RowSource* rows;
  unsigned char* scratch;  // one row
  Layout layout;
  PngCompression compression;
  char message[kMessageSize];
};

// False with job->message set when libpng gives up. Only plain C objects
// live in this frame.
bool EncodePng(PngWriteJob* job) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, job->message,
                                            PngFail, PngIgnore);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info) {
    std::snprintf(job->message, kMessageSize, "out of memory");
    png_destroy_write_struct(&png, nullptr);
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  const Layout layout = job->layout;
  png_init_io(png, job->file);
  png_set_IHDR(png, info, job->width, job->height, 8,
               layout == Layout::kGrey  ? PNG_COLOR_TYPE_GRAY
               : layout == Layout::kBgr ? PNG_COLOR_TYPE_RGB
                                        : PNG_COLOR_TYPE_RGB_ALPHA,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
  png_set_filter(png, PNG_FILTER_TYPE_BASE, job->compression.filters);
  png_set_compression_level(png, job->compression.level);
  png_set_compression_strategy(png, job->compression.strategy);
  png_write_info(png, info);
  if (layout == Layout::kBgr || layout == Layout::kBgra) png_set_bgr(png);
  for (int y = 0; y < job->height; ++y) {
    png_write_row(png, (*job->rows)(y, job->scratch));
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

int ChannelsOf(Layout layout) {
  switch (layout) {
    case Layout::kGrey:
      return 1;
    case Layout::kBgr:
      return 3;
    default:
      return 4;
  }
}

PngCompression PngCompressionForLevel(int level) {
  // Measured on a 12-megapixel cut-out (bench/png_write_bench.cc): the Up
  // filter with run-length matching writes its three files in 45 to 80% of
  // the time libpng's fast setting (level 3, no filter) takes, and little
  // more than half as big. Huffman coding alone is a quarter quicker still,
  // but cannot shrink the flat areas of a matte below a bit a pixel. zlib's
  // levels with libpng's adaptive filters save a fifth at most, for several
  // times the time.
  if (level <= 0) return {0, PNG_FILTER_NONE, Z_DEFAULT_STRATEGY};
  if (level == 1) return {1, PNG_FILTER_UP, Z_RLE};
  return {level < 9 ? level : 9, PNG_ALL_FILTERS, Z_FILTERED};
}

bool ReadPicture(const std::string& path, Layout layout, Picture* out,
                 std::string* error, long long max_pixels) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) {
    *error = "cannot read " + path + ": " + SystemReason();
    return false;
  }
  unsigned char magic[8] = {};
  const size_t got = std::fread(magic, 1, sizeof magic, file);
  if (std::ferror(file)) {
    *error = "cannot read " + path + ": " + SystemReason();
    std::fclose(file);
    return false;
  }
  std::rewind(file);
  bool ok = false;
  try {
    if (got == 8 && png_sig_cmp(magic, 0, 8) == 0) {
      ok = ReadPng(file, path, layout, max_pixels, out, error);
    } else if (got >= 3 && magic[0] == 0xFF && magic[1] == 0xD8 &&
               magic[2] == 0xFF) {
      ok = ReadJpeg(file, path, layout, max_pixels, out, error);
    } else {
      *error = "cannot decode " + path + ": not a PNG or JPEG image";
    }
  } catch (const std::bad_alloc&) {  // turning a huge photo upright
    *error = "cannot decode " + path + ": not enough memory";
    ok = false;
  }
  std::fclose(file);
  if (ok && (out->width < 1 || out->height < 1)) {
    *error = "cannot decode " + path + ": the image is empty";
    ok = false;
  }
  return ok;
}

bool WritePngAtomically(const std::string& path, const Picture& picture,
                        Layout layout, std::string* error,
                        const PngCompression& compression) {
  const size_t row = static_cast<size_t>(picture.width) * picture.channels;
  const RowSource rows = [&](int y, unsigned char*) {
    return picture.pixels.data() + row * y;
  };
  return WritePngRowsAtomically(path, picture.width, picture.height, layout,
                                rows, error, compression);
}

bool WritePngRowsAtomically(const std::string& path, int width, int height,
                            Layout layout, const RowSource& rows,
                            std::string* error,
                            const PngCompression& compression) {
  GuardInterrupts();
  const size_t slash = path.find_last_of('/');
  const std::string folder =
      slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  const std::string base =
      slash == std::string::npos ? path : path.substr(slash + 1);
  // A dot name that does not end in .png: nothing mistakes it for a result.
  std::string temp = folder + "." + base + ".XXXXXX";
  if (temp.size() >= sizeof pending_temp) {
    *error = "cannot write " + path + ": path too long";
    return false;
  }
  std::memcpy(pending_temp, temp.c_str(), temp.size() + 1);
  const int fd = mkstemp(pending_temp);
  if (fd < 0) {
    *error = "cannot write " + path + ": " + SystemReason();
    pending_temp[0] = '\0';
    return false;
  }
  temp = pending_temp;
  // mkstemp makes the file private; results get the usual umask-based mode.
  const mode_t umask_bits = umask(0);
  umask(umask_bits);
  fchmod(fd, 0666 & ~umask_bits);
  FILE* file = fdopen(fd, "wb");
  // Whole megabytes to the kernel at a time rather than stdio's pages: a
  // 12-megapixel cut-out is otherwise some three thousand writes.
  std::vector<char> buffer(1 << 20);
  if (file) std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
  std::vector<unsigned char> scratch(static_cast<size_t>(width) *
                                     ChannelsOf(layout));
  PngWriteJob job{file,           width,  height,      &rows,
                  scratch.data(), layout, compression, ""};
  bool ok = file && EncodePng(&job);
  std::string reason = file ? job.message : SystemReason();
  if (file) {
    ok = ok && std::fflush(file) == 0 && fsync(fileno(file)) == 0;
    if (!ok && reason.empty()) reason = SystemReason();
    ok = std::fclose(file) == 0 && ok;
  } else {
    close(fd);
  }
  if (ok && std::rename(temp.c_str(), path.c_str()) != 0) {
    reason = SystemReason();
    ok = false;
  }
  if (!ok) {
    unlink(temp.c_str());
    *error = "cannot write " + path + ": " + reason;
  }
  pending_temp[0] = '\0';
  return ok;
}

}  // namespace softmatte_tool
