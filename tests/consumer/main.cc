// Builds against the installed headers and library only.
#include <cstdio>

#include "softmatte/softmatte.h"

int main() {
  const unsigned char mask[4 * 3] = {0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0};
  int roi[4];
  if (!ff::ipf_get_mask_roi(mask, 4, 3, 4, roi, 0) || roi[0] != 1 ||
      roi[1] != 1 || roi[2] != 2 || roi[3] != 2) {
    std::puts("unexpected mask region");
    return 1;
  }
  ff::FVTImage image(5, 2, ff::kFormat8UC3, 4);
  if (image.step != 16) {
    std::puts("unexpected row stride");
    return 1;
  }
  std::puts("softmatte consumer ok");
  return 0;
}
