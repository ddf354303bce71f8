// An application may run several sessions at once, one per thread. Nothing
// a session, a GeoSeg or a mat_data touches may be shared with another, so
// flows run side by side must give, bit for bit, what they give one after
// another. Kept small: the suite also runs under ThreadSanitizer, which
// reports any unsynchronised access these runs make.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "scenes.h"
#include "softmatte/edit.h"
#include "softmatte/geoseg.h"
#include "softmatte/session.h"
#include "softmatte/solver.h"
#include "test_util.h"

namespace {

using namespace session_test;
using softmatte_test::Packed;

struct Result {
  Plane matte, alpha, colours, solved, curve;
  std::vector<float> probability;
  bool operator==(const Result& o) const {
    return matte == o.matte && alpha == o.alpha && colours == o.colours &&
           solved == o.solved && curve == o.curve &&
           probability == o.probability;
  }
};

// Everything a thread of the application might do with its own photo: a
// session (Init with the mask and Refine, or MakeMatteFromSegmRes), GeoSeg
// and a direct solve.
Result RunFlows(int w, int h, uint32_t seed, bool viaRefine) {
  const double r = 0.3 * w, cx = 0.45 * w, cy = 0.55 * h;
  const Photo photo = DiscOnGradient(w, h, cx, cy, r, seed, 3);
  const Plane seg = Disc(w, h, cx, cy, r, 0, 255, 0);
  const Plane trimap = Disc(w, h, cx, cy, r, 3, 255, 0);
  Plane labels = Disc(w, h, cx, cy, r / 3, 0, 2, 0);
  for (int y : {0, 1, h - 2, h - 1}) labels[y * w] = labels[y * w + w - 1] = 1;
  // Both sides exceed the working size: the reduced solve and the tables run
  // too.
  Result res;
  res.matte.resize(seg.size());
  {
    DSCMatting session;
    if (viaRefine) {
      session.Init(photo.bytes.data(), w, h, photo.stride, seg.data(), w, 60, 6,
                   0.5, 3, 5, 50, 1);
      EXPECT_EQ(session.Refine(res.matte.data(), w, h, w, 3, 1), 1);
    } else {
      session.Init(photo.bytes.data(), w, h, photo.stride, 60);
      EXPECT_EQ(session.MakeMatteFromSegmRes(seg.data(), w, h, w,
                                             res.matte.data(), w, 6, 0.5, 3, 1),
                1);
    }
    int stride = 0;
    const unsigned char* alpha = session.GetAlpha(&stride);
    res.alpha = Packed(alpha, w, h, stride);
    const unsigned char* f = session.GetFImage(&stride, 1);
    res.colours = Packed(f, 3 * w, h, stride);
  }
  GeoSeg geo;
  EXPECT_EQ(geo.SetImage(photo.bytes.data(), w, h, photo.stride, 3), 0);
  res.probability.resize(seg.size());
  geo.GetProb(labels.data(), w, res.probability.data(), w);

  Plane mask(trimap.size());
  for (size_t i = 0; i < mask.size(); ++i) mask[i] = trimap[i] == kUnknown;
  const Plane packed = Packed(photo.bytes.data(), 3 * w, h, photo.stride);
  mat_data problem;
  mat_update(packed.data(), w, h, 3 * w, mask.data(), w, problem, problem,
             nullptr);
  res.solved = trimap;
  mat_run(problem, trimap.data(), res.solved.data(), nullptr);
  // Only reads the tables the main thread filled before the threads began.
  res.curve.resize(256);
  mat_calc_S_transform(res.curve.data(), 30 + w % 40, 60);
  return res;
}

TEST(Concurrency, SessionsOnThreadsMatchTheSameFlowsRunInTurn) {
  // Two different photos and flows, and two threads on identical inputs.
  const struct {
    int w, h, seed;
    bool viaRefine;
  } jobs[] = {{97, 83, 1, false},
              {110, 71, 2, true},
              {89, 77, 3, false},
              {89, 77, 3, false}};
  constexpr int kThreads = 4;
  // The S-transform's tables are filled on first use: the one process-wide
  // step an application must take before its threads start.
  unsigned char curve[256];
  mat_calc_S_transform(curve, 50, 50);
  std::vector<Result> inTurn, side(kThreads);
  for (const auto& j : jobs)
    inTurn.push_back(RunFlows(j.w, j.h, j.seed, j.viaRefine));
  ASSERT_NE(inTurn[0].matte, inTurn[2].matte);
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Start together, so that the flows really overlap.
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      side[t] = RunFlows(jobs[t].w, jobs[t].h, jobs[t].seed, jobs[t].viaRefine);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(side[t] == inTurn[t]) << t;
}

}  // namespace
