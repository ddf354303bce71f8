// An application may run several sessions at once, one per thread. Nothing
// a session, a GeoSeg or a mat_data touches may be shared with another, so
// flows run side by side must give, bit for bit, what they give one after
// another. Kept small: the suite also runs under ThreadSanitizer, which
// reports any unsynchronised access these runs make.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "softmatte/edit.h"
#include "softmatte/geoseg.h"
#include "softmatte/session.h"
#include "softmatte/solver.h"
#include "test_util.h"

namespace {

using Plane = std::vector<unsigned char>;
using softmatte_test::Packed;

constexpr unsigned char kUnknown = 128;
constexpr int kThreads = 4;

struct Job {
  int width, height, stride;
  Plane photo;     // B, G, R with row padding
  Plane seg;       // 0/255, packed
  Plane trimap;    // 0/128/255, packed: the direct solve's input
  Plane labels;    // GeoSeg seeds: 2 inside the subject, 1 in the corners
  bool viaRefine;  // Init with the mask and Refine, else MakeMatteFromSegmRes
};

// A blurred disc on a noisy gradient: real fractions for the solver to find.
Job MakeJob(int w, int h, double r, uint32_t seed, bool viaRefine) {
  Job job{w, h, 3 * w + 3, {}, {}, {}, {}, viaRefine};
  job.photo.assign(static_cast<size_t>(job.stride) * h, 0xA5);
  job.seg.resize(static_cast<size_t>(w) * h);
  job.trimap.resize(job.seg.size());
  job.labels.assign(job.seg.size(), 0);
  std::mt19937 rng(seed);
  const double cx = w * 0.45, cy = h * 0.55;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const double d = std::hypot(x - cx, y - cy);
      const double a = std::clamp((r + 2.0 - d) / 4.0, 0.0, 1.0);
      const int back[3] = {30 + x * 160 / w, 210 - y * 130 / h, 100};
      const int disc[3] = {230, 70, 40};
      unsigned char* px =
          &job.photo[static_cast<size_t>(y) * job.stride + 3 * x];
      for (int c = 0; c < 3; ++c) {
        const double noise = static_cast<int>(rng() % 9) - 4;
        px[c] = static_cast<unsigned char>(
            std::clamp(a * disc[c] + (1.0 - a) * back[c] + noise, 0.0, 255.0));
      }
      const size_t i = static_cast<size_t>(y) * w + x;
      job.seg[i] = d < r ? 255 : 0;
      job.trimap[i] = d < r - 3 ? 255 : (d >= r + 3 ? 0 : kUnknown);
      if (d < r / 3) job.labels[i] = 2;
      if (std::min(x, w - 1 - x) < 4 && std::min(y, h - 1 - y) < 4) {
        job.labels[i] = 1;
      }
    }
  }
  return job;
}

struct Result {
  Plane matte, alpha, colours, solved, curve;
  std::vector<float> probability;
};

// Everything a thread of the application might do with its own photo.
Result RunFlows(const Job& job) {
  const int w = job.width, h = job.height;
  // Both sides exceed it: the reduced solve and the tables run too.
  const int workSize = 60;
  Result r;
  r.matte.resize(static_cast<size_t>(w) * h);
  {
    DSCMatting session;
    if (job.viaRefine) {
      session.Init(job.photo.data(), w, h, job.stride, job.seg.data(), w,
                   workSize, 6, 0.5, 3, 5, 50, 1);
      EXPECT_EQ(session.Refine(r.matte.data(), w, h, w, 3, 1), 1);
    } else {
      session.Init(job.photo.data(), w, h, job.stride, workSize);
      EXPECT_EQ(session.MakeMatteFromSegmRes(job.seg.data(), w, h, w,
                                             r.matte.data(), w, 6, 0.5, 3, 1),
                1);
    }
    int stride = 0;
    const unsigned char* alpha = session.GetAlpha(&stride);
    r.alpha = Packed(alpha, w, h, stride);
    const unsigned char* f = session.GetFImage(&stride, 1);
    r.colours = Packed(f, 3 * w, h, stride);
  }

  GeoSeg geo;
  EXPECT_EQ(geo.SetImage(job.photo.data(), w, h, job.stride, 3), 0);
  r.probability.resize(static_cast<size_t>(w) * h);
  geo.GetProb(job.labels.data(), w, r.probability.data(), w);

  Plane mask(job.trimap.size());
  for (size_t i = 0; i < mask.size(); ++i) mask[i] = job.trimap[i] == kUnknown;
  Plane packedPhoto = Packed(job.photo.data(), 3 * w, h, job.stride);
  mat_data problem;
  mat_update(packedPhoto.data(), w, h, 3 * w, mask.data(), w, problem, problem,
             nullptr);
  r.solved = job.trimap;
  mat_run(problem, job.trimap.data(), r.solved.data(), nullptr);

  // Only reads the tables the main thread filled before the threads began.
  r.curve.resize(256);
  mat_calc_S_transform(r.curve.data(), 30 + w % 40, 60);
  return r;
}

void ExpectSame(const Result& got, const Result& want, int job) {
  EXPECT_TRUE(got.matte == want.matte) << "matte of job " << job;
  EXPECT_TRUE(got.alpha == want.alpha) << "session alpha of job " << job;
  EXPECT_TRUE(got.colours == want.colours) << "colours of job " << job;
  EXPECT_TRUE(got.probability == want.probability) << "GeoSeg of job " << job;
  EXPECT_TRUE(got.solved == want.solved) << "direct solve of job " << job;
  EXPECT_TRUE(got.curve == want.curve) << "S-curve of job " << job;
}

TEST(Concurrency, SessionsOnThreadsMatchTheSameFlowsRunInTurn) {
  // Two different photos and flows, and two threads on identical inputs.
  const Job jobs[kThreads] = {
      MakeJob(97, 83, 28, 1, false),
      MakeJob(110, 71, 22, 2, true),
      MakeJob(89, 77, 25, 3, false),
      MakeJob(89, 77, 25, 3, false),
  };
  // The S-transform's tables are filled on first use: the one process-wide
  // step an application must take before its threads start.
  unsigned char curve[256];
  mat_calc_S_transform(curve, 50, 50);

  std::vector<Result> inTurn;
  for (const Job& job : jobs) inTurn.push_back(RunFlows(job));
  ASSERT_NE(inTurn[0].matte, inTurn[2].matte);

  std::vector<Result> side(kThreads);
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Start together, so that the flows really overlap.
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      side[t] = RunFlows(jobs[t]);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) ExpectSame(side[t], inTurn[t], t);
}

}  // namespace
