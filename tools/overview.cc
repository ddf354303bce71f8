#include "overview.h"

#include <cstring>

#include "softmatte/ff/ipf.h"

namespace softmatte_tool {

Picture MakeOverview(int width, int height,
                     const std::vector<unsigned char>& photo,
                     const std::vector<unsigned char>& guide,
                     const std::vector<unsigned char>& alpha,
                     const std::vector<unsigned char>& composite) {
  const int panelHeight = height < kOverviewHeight ? height : kOverviewHeight;
  int panelWidth =
      static_cast<int>(static_cast<long long>(width) * panelHeight / height);
  if (panelWidth < 1) panelWidth = 1;
  Picture out;
  out.width = 4 * panelWidth + 5 * kOverviewGap;
  out.height = panelHeight + 2 * kOverviewGap;
  out.channels = 3;
  out.pixels.assign(static_cast<size_t>(out.width) * out.height * 3, 128);
  const int stride = 3 * out.width;
  // Grey planes become three equal channels first: one resize serves all.
  auto grey = [&](const std::vector<unsigned char>& plane) {
    std::vector<unsigned char> bgr(3 * plane.size());
    for (size_t i = 0; i < plane.size(); ++i) {
      std::memset(&bgr[3 * i], plane[i], 3);
    }
    return bgr;
  };
  const std::vector<unsigned char>* panels[4] = {&photo, nullptr, nullptr,
                                                 &composite};
  const std::vector<unsigned char> guideBgr = grey(guide);
  const std::vector<unsigned char> alphaBgr = grey(alpha);
  panels[1] = &guideBgr;
  panels[2] = &alphaBgr;
  for (int p = 0; p < 4; ++p) {
    unsigned char* corner =
        &out.pixels[static_cast<size_t>(kOverviewGap) * stride +
                    3 * (kOverviewGap + p * (panelWidth + kOverviewGap))];
    if (panelWidth == width && panelHeight == height) {
      ff::ipf_memcpy_2d(panels[p]->data(), 3 * width, height, 3 * width, corner,
                        stride);
    } else {
      ff::ipf_resize_bl<unsigned char, unsigned char>(
          panels[p]->data(), width, height, 3 * width, 3, corner, panelWidth,
          panelHeight, stride, 3, 3);
    }
  }
  return out;
}

}  // namespace softmatte_tool
