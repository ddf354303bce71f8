#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "softmatte/ff/ipf.h"

namespace {

constexpr unsigned int kUnreached = 10000000;
constexpr unsigned char kTarget = 7;
constexpr unsigned char kWall = 3;
using Dists = std::vector<unsigned int>;

// Shortest chamfer path (100 a face, 141 an edge, 173 a corner step) from
// any target voxel to each label-0 voxel through label-0 voxels only,
// relaxed over every step until nothing changes.
Dists ShortestPaths(const std::vector<unsigned char>& labels, int width,
                    int height, int depth) {
  Dists dist(labels.size(), kUnreached);
  for (size_t i = 0; i < labels.size(); ++i)
    dist[i] = labels[i] == kTarget ? 0 : kUnreached;
  for (bool changed = true; changed;) {
    changed = false;
    for (size_t i = 0; i < labels.size(); ++i) {
      const int x = int(i % width), y = int(i / width % height),
                z = int(i / width / height);
      for (int n = 0; n < 27; ++n) {
        const int dx = n % 3 - 1, dy = n / 3 % 3 - 1, dz = n / 9 - 1;
        const int nx = x + dx, ny = y + dy, nz = z + dz;
        if (nx < 0 || ny < 0 || nz < 0 || nx >= width || ny >= height ||
            nz >= depth)
          continue;
        const size_t j = (size_t(nz) * height + ny) * width + nx;
        const unsigned int w =
            100 + 41 * (std::abs(dx) + std::abs(dy) + std::abs(dz) - 1) -
            9 * (dx && dy && dz);
        if (labels[j] != 0 || j == i || dist[i] + w >= dist[j]) continue;
        dist[j] = dist[i] + w;
        changed = true;
      }
    }
  }
  return dist;
}

std::vector<unsigned char> RandomLabels(size_t count, int targetPct,
                                        int wallPct, std::mt19937& rng) {
  std::vector<unsigned char> labels(count);
  for (auto& v : labels) {
    const int r = int(rng() % 1000);
    v = r < targetPct ? kTarget : r < targetPct + wallPct ? kWall : 0;
  }
  return labels;
}

// The 2-D transform on padded label, distance and nearest planes: returns
// the distances and (x, y) of the nearest targets, packed, after checking
// that no padding changed and that leaving out the nearest plane gives the
// same distances.
struct Run2d {
  Dists dist;
  std::vector<std::pair<int, int>> nearest;
};

Run2d Transform2d(const std::vector<unsigned char>& labels, int width,
                  int height) {
  const int ls = width + 3, ds = width + 2, ns = width + 5;
  std::vector<unsigned char> padded(size_t(ls) * height, kTarget);
  for (int y = 0; y < height; ++y)
    std::copy_n(&labels[size_t(y) * width], width, &padded[size_t(y) * ls]);
  Dists dist(size_t(ds) * height, 0xA5A5A5A5u), alone = dist;
  std::vector<unsigned short> near(size_t(ns) * height * 2, 0xA5A5);
  ff::dist_field* field = ff::ipf_create_distance_field_2d(width, height, 100);
  EXPECT_EQ(ff::ipf_distance_transform_2d(
                field, padded.data(), width, height, ls, kTarget, dist.data(),
                ds, reinterpret_cast<unsigned short(*)[2]>(near.data()), ns),
            -1);
  ff::ipf_distance_transform_2d(field, padded.data(), width, height, ls,
                                kTarget, alone.data(), ds, nullptr, 0);
  ff::ipf_release_distance_field(field);
  EXPECT_EQ(alone, dist);
  Run2d out;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < ns; ++x) {
      const unsigned short* n = &near[(size_t(y) * ns + x) * 2];
      if (x < width) {
        out.dist.push_back(dist[size_t(y) * ds + x]);
        out.nearest.push_back({n[0], n[1]});
      } else {
        EXPECT_TRUE(n[0] == 0xA5A5 && n[1] == 0xA5A5) << "nearest padding";
        EXPECT_TRUE(x >= ds || dist[size_t(y) * ds + x] == 0xA5A5A5A5u)
            << "distance padding";
      }
    }
  }
  return out;
}

TEST(DistanceField, CreateSetsGeometryAndTruncatedWeights) {
  // 7 * 1.414 = 9.898 and 7 * 1.732 = 12.124 truncate, not round.
  ff::dist_field* f2 = ff::ipf_create_distance_field_2d(31, 9, 7);
  ff::dist_field* f3 = ff::ipf_create_distance_field_3d(4, 5, 6, 7);
  EXPECT_EQ(
      std::vector<int>({f2->width, f2->height, f2->depth, f2->neighbour_count,
                        f2->flags, f3->width, f3->height, f3->depth,
                        f3->neighbour_count, f3->flags}),
      std::vector<int>({31, 9, 1, 8, 1, 4, 5, 6, 26, 1}));
  EXPECT_EQ(std::vector<int>(f2->weights, f2->weights + 8),
            (std::vector<int>{9, 7, 9, 7, 7, 9, 7, 9}));
  EXPECT_EQ(std::vector<int>(f3->weights, f3->weights + 26),
            (std::vector<int>{12, 9, 12, 9, 7,  9, 12, 9, 12, 9, 7,  9, 7,
                              7,  9, 7,  9, 12, 9, 12, 9, 7,  9, 12, 9, 12}));
  ff::ipf_release_distance_field(f2);
  ff::ipf_release_distance_field(f3);
  ff::ipf_release_distance_field(nullptr);
}

TEST(DistanceTransform2d, MatchesShortestPathsAndRespectsWalls) {
  std::mt19937 rng(8006);
  for (int width : {1, 2, 5, 17, 40}) {
    for (int height : {1, 3, 16, 23}) {
      for (auto [targets, walls] :
           {std::pair{2, 0}, {30, 0}, {300, 0}, {10, 250}}) {
        const auto labels =
            RandomLabels(size_t(width) * height, targets, walls, rng);
        const Dists want = ShortestPaths(labels, width, height, 1);
        const Run2d got = Transform2d(labels, width, height);
        for (int i = 0; i < width * height; ++i) {
          const int x = i % width, y = i / width;
          const auto [nx, ny] = got.nearest[i];
          SCOPED_TRACE(testing::Message()
                       << width << "x" << height << " walls " << walls
                       << " at (" << x << ", " << y << ")");
          // Without walls the four sweeps are exact; with walls they find
          // real paths, not always the shortest, and what no path reaches
          // (walls included) stays unreached.
          ASSERT_EQ(got.dist[i], walls || want[i] == kUnreached
                                     ? std::max(got.dist[i], want[i])
                                     : want[i]);
          ASSERT_TRUE(want[i] != kUnreached || got.dist[i] == kUnreached);
          if (got.dist[i] == kUnreached) {
            ASSERT_TRUE(nx == x && ny == y);
            continue;
          }
          // The nearest target is one, no farther than a free straight line.
          ASSERT_EQ(labels[size_t(ny) * width + nx], kTarget);
          const int ax = std::abs(nx - x), ay = std::abs(ny - y);
          const unsigned int line =
              141u * std::min(ax, ay) +
              100u * (std::max(ax, ay) - std::min(ax, ay));
          ASSERT_EQ(got.dist[i], walls ? std::max(got.dist[i], line) : line);
        }
      }
    }
  }
}

TEST(DistanceTransform2d, EqualPathsKeepTheEarliestCandidate) {
  // Targets at (0, 0) and (2, 0). (1, 1) is offered both at 141 within one
  // sweep, (0, 0) first; (1, 0) gets 100 from (0, 0) in the first sweep and
  // only an equal offer from (2, 0) later. Neither may switch.
  const Run2d got = Transform2d({kTarget, 0, kTarget, 0, 0, 0}, 3, 2);
  EXPECT_EQ(got.dist, (Dists{0, 100, 0, 100, 141, 100}));
  EXPECT_EQ(got.nearest, (std::vector<std::pair<int, int>>{
                             {0, 0}, {0, 0}, {2, 0}, {0, 0}, {0, 0}, {2, 0}}));
  // Upside down the upper row is first reached by the bottom-up sweep, which
  // lists (-1, 1) before (1, 1): (1, 0) takes the left target.
  const Run2d up = Transform2d({0, 0, 0, kTarget, 0, kTarget}, 3, 2);
  EXPECT_EQ(up.dist, (Dists{100, 141, 100, 0, 100, 0}));
  EXPECT_EQ(up.nearest[1], std::make_pair(0, 1));
  EXPECT_EQ(up.nearest[4], std::make_pair(0, 1));
  EXPECT_EQ(up.nearest[2], std::make_pair(2, 1));
}

TEST(DistanceTransform, RejectsMismatchAndNullsWithoutWriting) {
  std::vector<unsigned char> labels(27, 0);
  labels[13] = kTarget;
  Dists dist(27, 77);
  ff::dist_field* flat = ff::ipf_create_distance_field_2d(6, 4, 100);
  ff::dist_field* cube = ff::ipf_create_distance_field_3d(3, 3, 3, 100);
  unsigned char* l = labels.data();
  unsigned int* d = dist.data();
  for (auto [field, lp, w, h, dp] :
       {std::tuple{static_cast<ff::dist_field*>(nullptr), l, 6, 4, d},
        {flat, l, 7, 4, d},
        {flat, l, 6, 3, d},
        {flat, nullptr, 6, 4, d},
        {flat, l, 6, 4, nullptr}})
    EXPECT_EQ(ff::ipf_distance_transform_2d(field, lp, w, h, 6, kTarget, dp, 6,
                                            nullptr, 0),
              -1);
  ff::ipf_distance_transform_3d(cube, l, 3, 3, 2, kTarget, d, nullptr);
  ff::ipf_distance_transform_3d(cube, nullptr, 3, 3, 3, kTarget, d, nullptr);
  EXPECT_EQ(dist, Dists(27, 77));
  // A 3-D field of the same width and height passes the checks but runs no
  // 8-neighbour sweep: everything, targets too, comes out unreached.
  ff::dist_field* volume = ff::ipf_create_distance_field_3d(6, 4, 1, 100);
  ff::ipf_distance_transform_2d(volume, l, 6, 4, 6, kTarget, d, 6, nullptr, 0);
  EXPECT_EQ(Dists(dist.begin(), dist.begin() + 24), Dists(24, kUnreached));
  for (auto* f : {flat, cube, volume}) ff::ipf_release_distance_field(f);
}

TEST(DistanceTransform3d, MatchesShortestPathsAndRespectsWalls) {
  std::mt19937 rng(8008);
  for (auto [width, height, depth] :
       {std::tuple{1, 1, 2}, {3, 3, 3}, {5, 3, 4}, {9, 7, 6}, {4, 11, 9}}) {
    for (int walls : {0, 200}) {
      const size_t count = size_t(width) * height * depth;
      auto labels = RandomLabels(count, 20, walls, rng);
      if (count == 27)
        std::fill(labels.begin(), labels.end(), 0), labels[13] = kTarget;
      const Dists want = ShortestPaths(labels, width, height, depth);
      Dists dist(count, 1);
      std::vector<unsigned short> near(count * 3, 0xA5A5);
      ff::dist_field* field =
          ff::ipf_create_distance_field_3d(width, height, depth, 100);
      EXPECT_EQ(
          ff::ipf_distance_transform_3d(
              field, labels.data(), width, height, depth, kTarget, dist.data(),
              reinterpret_cast<unsigned short(*)[3]>(near.data())),
          -1);
      ff::ipf_release_distance_field(field);
      for (size_t i = 0; i < count; ++i) {
        const int x = int(i % width), y = int(i / width % height),
                  z = int(i / width / height);
        SCOPED_TRACE(testing::Message()
                     << x << "," << y << "," << z << " walls " << walls);
        ASSERT_EQ(dist[i], walls ? std::max(dist[i], want[i]) : want[i]);
        ASSERT_TRUE(want[i] != kUnreached || dist[i] == kUnreached);
        const int nx = near[3 * i], ny = near[3 * i + 1], nz = near[3 * i + 2];
        if (dist[i] == kUnreached || labels[i] == kTarget) {
          ASSERT_TRUE(nx == x && ny == y && nz == z);
        } else {
          ASSERT_EQ(labels[(size_t(nz) * height + ny) * width + nx], kTarget);
        }
      }
    }
  }
}

}  // namespace
