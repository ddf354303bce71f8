#ifndef SOFTMATTE_TOOLS_CUTOUT_H_
#define SOFTMATTE_TOOLS_CUTOUT_H_

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

namespace softmatte_tool {

// Band of unknown pixels drawn around a mask's edge: half-width
// band_scale x the subject's half-thickness, at most max_band pixels. The
// defaults gave the lowest mean SAD, among settings that draw a band at all,
// on the alphamatting training photos with masks cut from their ground truth
// at mid-grey (softmatte_band_search): such masks sit exactly on the true
// edge, so every wider band scored worse there. No band at all scored
// lower still, but leaves nothing to matte.
constexpr int kDefaultMaxBand = 1;
constexpr double kDefaultBandScale = 0.01;
constexpr int kDefaultWorkSize = 1000;
constexpr int kMinWorkSize = 8;
// Smoothing window and fragment count handed to the session's cleanup.
constexpr int kSmoothWindow = 3;
constexpr int kKeepFragments = 0;

struct CutoutSettings {
  int work_size = kDefaultWorkSize;
  int max_band = kDefaultMaxBand;
  double band_scale = kDefaultBandScale;
  int smooth_window = kSmoothWindow;
  int keep_fragments = kKeepFragments;
};

// Prints how long each stage took (wall clock and processor time) to
// standard error when enabled.
class StageClock {
 public:
  explicit StageClock(bool enabled);
  // Ends the running stage (if any) under its name and starts the next.
  void Start(const char* stage);
  void Stop();

 private:
  bool enabled_;
  const char* stage_ = nullptr;
  std::chrono::steady_clock::time_point begin_;
  std::clock_t cpu_begin_ = 0;
};

// Writes the trimap (0, 128 unknown, 255) for a 0/255 mask, both packed
// width x height planes.
void TrimapFromMask(const std::vector<unsigned char>& mask, int width,
                    int height, const CutoutSettings& settings,
                    std::vector<unsigned char>* trimap);

// Labels for geodesic segmentation from a B, G, R, A scribble picture: 2
// where a foreground stroke is, 1 where a background stroke is, else 0.
// Returns the counts of foreground and background stroke pixels.
void ScribbleLabels(const std::vector<unsigned char>& scribbles, int width,
                    int height, std::vector<unsigned char>* labels,
                    long* foreground, long* background);

// The 0/255 mask of pixels geodesically closer to a foreground stroke than
// to a background stroke of labels, over the B, G, R photo.
void MaskFromLabels(const std::vector<unsigned char>& photo, int width,
                    int height, const std::vector<unsigned char>& labels,
                    std::vector<unsigned char>* mask);

// Solves the matte of photo (B, G, R) over trimap's unknown pixels and
// writes it to alpha (foreground 255); with a non-null foreground, also the
// subject's estimated colours (B, G, R). The same matte and colours as a
// DSCMatting session gives, stage by stage so that clock can time each.
// Releases photo and trimap as soon as they are no longer needed, to keep
// the peak memory of large photos down.
void MakeCutout(std::vector<unsigned char>* photo, int width, int height,
                std::vector<unsigned char>* trimap,
                const CutoutSettings& settings, StageClock* clock,
                std::vector<unsigned char>* alpha,
                std::vector<unsigned char>* foreground);

// (foreground x alpha + background x (255 - alpha)) / 255, rounded, per
// channel of the B, G, R planes.
void Composite(const std::vector<unsigned char>& foreground,
               const std::vector<unsigned char>& alpha,
               const std::vector<unsigned char>& background,
               std::vector<unsigned char>* out);

}  // namespace softmatte_tool

#endif  // SOFTMATTE_TOOLS_CUTOUT_H_
