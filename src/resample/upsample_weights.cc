#include <cstddef>

#include "resample/pair_search.h"
#include "resample/upsample_rows.h"
#include "softmatte/resample.h"

namespace {

// The search is plain float arithmetic without contraction, so a copy built
// for wider vectors gives the very same bits; x86-64 picks it at load time
// when the processor has it, other targets keep the one portable build.
// Not under ThreadSanitizer: the compiler instruments the clones' resolver,
// which the loader runs before the sanitizer's runtime is up, and the
// library then crashes while it is being loaded.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && \
    !defined(__SANITIZE_THREAD__)
#define USAM_VECTOR_CLONES \
  __attribute__((target_clones("avx2", "default"), flatten))
#else
#define USAM_VECTOR_CLONES
#endif

template <int kCount, int kErr>
using Search = usam_internal::LaneSearch<kCount, kErr>;

USAM_VECTOR_CLONES void Run9c3(Search<9, 3>& s) { s.Run(); }
USAM_VECTOR_CLONES void Run9c4(Search<9, 4>& s) { s.Run(); }
USAM_VECTOR_CLONES void Run4c3(Search<4, 3>& s) { s.Run(); }
USAM_VECTOR_CLONES void Run4c4(Search<4, 4>& s) { s.Run(); }

void (*Runner(Search<9, 3>*))(Search<9, 3>&) { return Run9c3; }
void (*Runner(Search<9, 4>*))(Search<9, 4>&) { return Run9c4; }
void (*Runner(Search<4, 3>*))(Search<4, 3>&) { return Run4c3; }
void (*Runner(Search<4, 4>*))(Search<4, 4>&) { return Run4c4; }

// Which pixels a fill touches.
struct EveryPixel {
  bool operator()(const unsigned char*, const int*, int) const { return true; }
};
struct MaskNonZero {
  bool operator()(const unsigned char* maskRow, const int*, int x) const {
    return maskRow[x] != 0;
  }
};
// Only holes of the table under the chosen mask value: entries that already
// exist were computed with other data and must survive.
struct HolesWithMaskValue {
  unsigned char value;
  bool operator()(const unsigned char* maskRow, const int* idxRow,
                  int x) const {
    return idxRow[2 * x] < 0 && (maskRow == nullptr || maskRow[x] == value);
  }
};

struct Geometry {
  const unsigned char* img;
  int width;
  int height;
  int imgStride;
  const unsigned char* mask;
  int maskStride;
  const unsigned char* low;
  int lowWidth;
  int lowHeight;
  int lowStride;
  int* idx;
  int idxStride;
  short* wts;
  int wtsStride;
};

// Fills rows [y0, y1) of the image; row y of the mask and of the table lie
// y - tableRow0 rows into them.
template <int kBytes, int kCount, typename Select>
void FillRows(const Geometry& g, Select select, int y0, int y1, int tableRow0) {
  if (!g.img || !g.low || !g.idx || !g.wts || g.width < 1 || g.height < 1) {
    return;
  }
  // Smaller reduced planes have no full neighbourhood to read.
  const int minLow = kCount == 9 ? 3 : 2;
  if (g.lowWidth < minLow || g.lowHeight < minLow) return;
  const double sx = usam_internal::Scale(g.lowWidth, g.width);
  const double sy = usam_internal::Scale(g.lowHeight, g.height);
  int* columns = new int[g.width];
  for (int x = 0; x < g.width; ++x) {
    columns[x] = kCount == 9 ? usam_internal::MapCentred(x, sx, g.lowWidth)
                             : usam_internal::MapColumn2x2(x, sx, g.lowWidth);
  }
  auto pick = [&](int x, int y) {
    const ptrdiff_t row = y - tableRow0;
    const unsigned char* maskRow =
        g.mask ? g.mask + row * g.maskStride : nullptr;
    return select(maskRow, g.idx + row * g.idxStride, x);
  };
  auto store = [&](int x, int y, int a, int b, int w) {
    const ptrdiff_t row = y - tableRow0;
    int* entry = g.idx + row * g.idxStride + 2 * x;
    entry[0] = a;
    entry[1] = b;
    g.wts[row * g.wtsStride + x] = static_cast<short>(w);
  };
  usam_internal::SearchRows<kBytes, kCount>(
      g.img, g.width, g.imgStride, g.low, g.lowWidth, g.lowHeight, g.lowStride,
      columns, sy, y0, y1, pick, store,
      Runner(static_cast<Search<kCount, kBytes>*>(nullptr)));
  delete[] columns;
}

template <int kBytes, int kCount, typename Select>
void Fill(const Geometry& g, Select select) {
  // Rows are independent; they go in four consecutive bands, which a caller
  // could split between workers without changing a single entry.
  const int h = g.height;
  const int bounds[5] = {0, h / 4, h / 2, 3 * (h / 4), h};
  for (int band = 0; band < 4; ++band) {
    FillRows<kBytes, kCount>(g, select, bounds[band], bounds[band + 1], 0);
  }
}

template <int kBytes>
void FillMasked(const Geometry& g, int mode) {
  if (mode == 2) {
    if (g.mask) {
      Fill<kBytes, 4>(g, MaskNonZero());
    } else {
      Fill<kBytes, 4>(g, EveryPixel());
    }
  } else {
    if (g.mask) {
      Fill<kBytes, 9>(g, MaskNonZero());
    } else {
      Fill<kBytes, 9>(g, EveryPixel());
    }
  }
}

}  // namespace

void usam_calc_weights_8u_c3(const unsigned char* img, int width, int height,
                             int img_stride, const unsigned char* mask,
                             int mask_stride, const unsigned char* low,
                             int low_width, int low_height, int low_stride,
                             int* idx, int idx_stride, short* wts,
                             int wts_stride, int mode) {
  const Geometry g{img,         width,      height,    img_stride, mask,
                   mask_stride, low,        low_width, low_height, low_stride,
                   idx,         idx_stride, wts,       wts_stride};
  FillMasked<3>(g, mode);
}

void usam_calc_weights_8u_c3(const unsigned char* img, int width, int height,
                             int img_stride, const unsigned char* mask,
                             int mask_stride, unsigned char /*value*/,
                             const unsigned char* low, int low_width,
                             int low_height, int low_stride, int* idx,
                             int idx_stride, short* wts, int wts_stride,
                             int mode) {
  // The value is part of the interface but the mask test stays non-zero.
  usam_calc_weights_8u_c3(img, width, height, img_stride, mask, mask_stride,
                          low, low_width, low_height, low_stride, idx,
                          idx_stride, wts, wts_stride, mode);
}

void usam_calc_weights_8u_c4(const unsigned char* img, int width, int height,
                             int img_stride, const unsigned char* mask,
                             int mask_stride, const unsigned char* low,
                             int low_width, int low_height, int low_stride,
                             int* idx, int idx_stride, short* wts,
                             int wts_stride, int mode) {
  const Geometry g{img,         width,      height,    img_stride, mask,
                   mask_stride, low,        low_width, low_height, low_stride,
                   idx,         idx_stride, wts,       wts_stride};
  FillMasked<4>(g, mode);
}

void usam_update_weights(const unsigned char* img, int width, int height,
                         int img_stride, const unsigned char* mask,
                         int mask_stride, unsigned char value,
                         const unsigned char* low, int low_width,
                         int low_height, int low_stride, int* idx,
                         int idx_stride, short* wts, int wts_stride) {
  const Geometry g{img,         width,      height,    img_stride, mask,
                   mask_stride, low,        low_width, low_height, low_stride,
                   idx,         idx_stride, wts,       wts_stride};
  Fill<3, 9>(g, HolesWithMaskValue{value});
}

void usam_fill_rows_3x3_c3(const unsigned char* img, int width, int height,
                           int img_stride, const unsigned char* mask,
                           int mask_stride, const unsigned char* low,
                           int low_width, int low_height, int low_stride,
                           int y0, int y1, int* idx, int idx_stride, short* wts,
                           int wts_stride) {
  const Geometry g{img,         width,      height,    img_stride, mask,
                   mask_stride, low,        low_width, low_height, low_stride,
                   idx,         idx_stride, wts,       wts_stride};
  FillRows<3, 9>(g, MaskNonZero(), y0, y1, y0);
}
