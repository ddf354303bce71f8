#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <queue>
#include <random>
#include <utility>
#include <vector>

#include "softmatte/ff/ipf.h"

namespace {

constexpr unsigned int kUnreached = 10000000;
constexpr unsigned char kTarget = 7;
constexpr unsigned char kWall = 3;

struct Offset {
  int dx, dy, dz;
  unsigned int weight;
};

std::vector<Offset> ChamferOffsets(bool threeD) {
  std::vector<Offset> out;
  for (int dz = threeD ? -1 : 0; dz <= (threeD ? 1 : 0); ++dz) {
    for (int dy = -1; dy <= 1; ++dy) {
      for (int dx = -1; dx <= 1; ++dx) {
        const int axes = (dx != 0) + (dy != 0) + (dz != 0);
        if (axes == 0) continue;
        out.push_back({dx, dy, dz, axes == 1 ? 100u : axes == 2 ? 141u : 173u});
      }
    }
  }
  return out;
}

// Shortest weighted path from any target voxel to each label-0 voxel through
// label-0 voxels only: the true chamfer distance the sweeps approximate.
std::vector<unsigned int> Dijkstra(const std::vector<unsigned char>& labels,
                                   int width, int height, int depth) {
  const bool threeD = depth > 1;
  const std::vector<Offset> offsets = ChamferOffsets(threeD);
  std::vector<unsigned int> dist(labels.size(), kUnreached);
  using Item = std::pair<unsigned int, size_t>;
  std::priority_queue<Item, std::vector<Item>, std::greater<Item>> queue;
  for (size_t i = 0; i < labels.size(); ++i) {
    if (labels[i] == kTarget) {
      dist[i] = 0;
      queue.push({0, i});
    }
  }
  while (!queue.empty()) {
    const auto [d, i] = queue.top();
    queue.pop();
    if (d != dist[i]) continue;
    const int x = static_cast<int>(i % width);
    const int y = static_cast<int>(i / width % height);
    const int z = static_cast<int>(i / width / height);
    for (const Offset& o : offsets) {
      const int nx = x + o.dx, ny = y + o.dy, nz = z + o.dz;
      if (nx < 0 || ny < 0 || nz < 0 || nx >= width || ny >= height ||
          nz >= depth) {
        continue;
      }
      const size_t j = (static_cast<size_t>(nz) * height + ny) * width + nx;
      if (labels[j] != 0 || d + o.weight >= dist[j]) continue;
      dist[j] = d + o.weight;
      queue.push({dist[j], j});
    }
  }
  return dist;
}

// Unobstructed chamfer length between two pixels.
unsigned int FreeChamfer(int dx, int dy) {
  dx = std::abs(dx);
  dy = std::abs(dy);
  return 141u * std::min(dx, dy) + 100u * (std::max(dx, dy) - std::min(dx, dy));
}

std::vector<unsigned char> RandomLabels(size_t count, double targetShare,
                                        double wallShare, std::mt19937& rng) {
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<unsigned char> labels(count);
  for (auto& v : labels) {
    const double r = u(rng);
    v = r < targetShare ? kTarget : r < targetShare + wallShare ? kWall : 0;
  }
  return labels;
}

// Runs the 2-D transform on a padded copy of labels with padded outputs and
// checks that no padding element changed.
struct Run2d {
  std::vector<unsigned int> dist;  // packed
  std::vector<std::pair<int, int>> nearest;
};

Run2d Transform2d(const std::vector<unsigned char>& labels, int width,
                  int height) {
  const int labelStride = width + 3;
  const int distStride = width + 2;
  const int nearStride = width + 5;
  std::vector<unsigned char> padded(static_cast<size_t>(labelStride) * height,
                                    kTarget);
  for (int y = 0; y < height; ++y) {
    std::copy_n(labels.begin() + static_cast<ptrdiff_t>(y) * width, width,
                padded.begin() + static_cast<ptrdiff_t>(y) * labelStride);
  }
  std::vector<unsigned int> dist(static_cast<size_t>(distStride) * height,
                                 0xA5A5A5A5u);
  std::vector<unsigned short> near(static_cast<size_t>(nearStride) * height * 2,
                                   0xA5A5);
  ff::dist_field* field = ff::ipf_create_distance_field_2d(width, height, 100);
  EXPECT_EQ(
      ff::ipf_distance_transform_2d(
          field, padded.data(), static_cast<unsigned short>(width),
          static_cast<unsigned short>(height), labelStride, kTarget,
          dist.data(), distStride,
          reinterpret_cast<unsigned short(*)[2]>(near.data()), nearStride),
      -1);
  // Without nearest points the distances must be the same.
  std::vector<unsigned int> alone(dist.size(), 0xA5A5A5A5u);
  ff::ipf_distance_transform_2d(
      field, padded.data(), static_cast<unsigned short>(width),
      static_cast<unsigned short>(height), labelStride, kTarget, alone.data(),
      distStride, nullptr, 0);
  EXPECT_EQ(alone, dist);
  ff::ipf_release_distance_field(field);
  Run2d out;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < distStride; ++x) {
      const unsigned int v = dist[static_cast<size_t>(y) * distStride + x];
      if (x < width) {
        out.dist.push_back(v);
      } else {
        EXPECT_EQ(v, 0xA5A5A5A5u) << "distance padding at " << x << "," << y;
      }
    }
    for (int x = 0; x < nearStride; ++x) {
      const size_t i = (static_cast<size_t>(y) * nearStride + x) * 2;
      if (x < width) {
        out.nearest.push_back({near[i], near[i + 1]});
      } else {
        EXPECT_TRUE(near[i] == 0xA5A5 && near[i + 1] == 0xA5A5)
            << "nearest padding at " << x << "," << y;
      }
    }
  }
  return out;
}

TEST(DistanceField, CreateSetsGeometryAndTruncatedWeights) {
  ff::dist_field* f2 = ff::ipf_create_distance_field_2d(31, 9, 100);
  EXPECT_EQ(f2->width, 31);
  EXPECT_EQ(f2->height, 9);
  EXPECT_EQ(f2->depth, 1);
  EXPECT_EQ(f2->neighbour_count, 8);
  EXPECT_EQ(f2->flags, 1);
  const unsigned short want2[8] = {141, 100, 141, 100, 100, 141, 100, 141};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(f2->weights[i], want2[i]) << i;
  ff::ipf_release_distance_field(f2);

  // 7 * 1.414 = 9.898 and 7 * 1.732 = 12.124 truncate, not round.
  ff::dist_field* f3 = ff::ipf_create_distance_field_3d(4, 5, 6, 7);
  EXPECT_EQ(f3->depth, 6);
  EXPECT_EQ(f3->neighbour_count, 26);
  EXPECT_EQ(f3->flags, 1);
  const unsigned short outer[9] = {12, 9, 12, 9, 7, 9, 12, 9, 12};
  const unsigned short middle[8] = {9, 7, 9, 7, 7, 9, 7, 9};
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(f3->weights[i], outer[i]) << i;
    EXPECT_EQ(f3->weights[17 + i], outer[i]) << 17 + i;
  }
  for (int i = 0; i < 8; ++i) EXPECT_EQ(f3->weights[9 + i], middle[i]) << i;
  ff::ipf_release_distance_field(f3);
  ff::ipf_release_distance_field(nullptr);
}

TEST(DistanceField, NeighbourTablesIndexRasterWeightsAndTurnClockwise) {
  for (int i = 0; i < 16; ++i) {
    const int dx = ff::dfp_c8::PCD[i][0];
    const int dy = ff::dfp_c8::PCD[i][1];
    const int raster = (dy + 1) * 3 + dx + 1;
    EXPECT_EQ(ff::dfp_c8::PWI[i], raster > 4 ? raster - 1 : raster) << i;
    if (i < 8) {
      EXPECT_EQ(ff::dfp_c8::PWI[i], i);
    }
  }
  // The second half starts above the centre and turns clockwise (y down).
  EXPECT_EQ(ff::dfp_c8::PCD[8][0], 0);
  EXPECT_EQ(ff::dfp_c8::PCD[8][1], -1);
  for (int i = 8; i < 15; ++i) {
    const int* a = ff::dfp_c8::PCD[i];
    const int* b = ff::dfp_c8::PCD[i + 1];
    EXPECT_GT(a[0] * b[1] - a[1] * b[0], 0) << i;
  }
}

TEST(DistanceTransform2d, WithoutWallsMatchesShortestPathsAndNearestTargets) {
  std::mt19937 rng(8006);
  for (int width : {1, 2, 5, 17, 33}) {
    for (int height : {1, 3, 16, 21}) {
      for (double share : {0.002, 0.03, 0.3}) {
        std::vector<unsigned char> labels =
            RandomLabels(static_cast<size_t>(width) * height, share, 0.0, rng);
        const std::vector<unsigned int> want =
            Dijkstra(labels, width, height, 1);
        const Run2d got = Transform2d(labels, width, height);
        for (int i = 0; i < width * height; ++i) {
          const int x = i % width, y = i / width;
          ASSERT_EQ(got.dist[i], want[i])
              << width << "x" << height << " at (" << x << ", " << y << ")";
          const auto [nx, ny] = got.nearest[i];
          if (want[i] == kUnreached) {
            EXPECT_TRUE(nx == x && ny == y);
            continue;
          }
          // Without walls the straight chamfer line to the nearest target
          // is exactly as long as the distance found.
          ASSERT_EQ(labels[static_cast<size_t>(ny) * width + nx], kTarget);
          ASSERT_EQ(FreeChamfer(nx - x, ny - y), got.dist[i])
              << "(" << x << ", " << y << ") -> (" << nx << ", " << ny << ")";
        }
      }
    }
  }
}

TEST(DistanceTransform2d, WallsNeitherReceiveNorPassDistance) {
  std::mt19937 rng(8007);
  for (int width : {7, 19, 40}) {
    for (int height : {5, 23}) {
      std::vector<unsigned char> labels =
          RandomLabels(static_cast<size_t>(width) * height, 0.01, 0.25, rng);
      const std::vector<unsigned int> want = Dijkstra(labels, width, height, 1);
      const Run2d got = Transform2d(labels, width, height);
      for (int i = 0; i < width * height; ++i) {
        const int x = i % width, y = i / width;
        const auto [nx, ny] = got.nearest[i];
        if (labels[i] == kWall) {
          EXPECT_EQ(got.dist[i], kUnreached);
          EXPECT_TRUE(nx == x && ny == y);
          continue;
        }
        // Four sweeps find real paths, though not always the shortest
        // one around walls; what no path reaches stays unreached.
        ASSERT_GE(got.dist[i], want[i]) << "(" << x << ", " << y << ")";
        if (want[i] == kUnreached) {
          ASSERT_EQ(got.dist[i], kUnreached);
          continue;
        }
        if (got.dist[i] != kUnreached) {
          ASSERT_EQ(labels[static_cast<size_t>(ny) * width + nx], kTarget);
          ASSERT_GE(got.dist[i], FreeChamfer(nx - x, ny - y));
        }
      }
    }
  }
}

TEST(DistanceTransform2d, FindsPathsAroundAWallAndLeavesClosedRoomsUnreached) {
  // Target at the left, a wall with a gap at the bottom, a closed room at
  // the right: every path must first go down to the gap and up again.
  const int width = 11, height = 7;
  const char* map[height] = {
      "T...#......",  //
      "....#..###.",  //
      "....#..#.#.",  //
      "....#..###.",  //
      "....#......",  //
      "....#......",  //
      "...........",
  };
  std::vector<unsigned char> labels(width * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const char c = map[y][x];
      labels[y * width + x] = c == 'T' ? kTarget : c == '#' ? kWall : 0;
    }
  }
  const Run2d got = Transform2d(labels, width, height);
  const std::vector<unsigned int> want = Dijkstra(labels, width, height, 1);
  for (int i = 0; i < width * height; ++i) {
    EXPECT_EQ(got.dist[i], want[i])
        << "(" << i % width << ", " << i / width << ")";
  }
  EXPECT_EQ(got.dist[2 * width + 8], kUnreached);
  // (0, 0) to (3, 5), two diagonals round the wall's end, up column 5.
  EXPECT_EQ(got.dist[0 * width + 5], 623u + 141u + 141u + 500u);
}

TEST(DistanceTransform2d, EqualPathsKeepTheEarliestCandidate) {
  // Targets at (0, 0) and (2, 0). (1, 1) is offered both at 141 within one
  // sweep, (0, 0) first; (1, 0) gets 100 from (0, 0) in the first sweep and
  // only an equal offer from (2, 0) later. Neither may switch.
  std::vector<unsigned char> labels = {kTarget, 0, kTarget, 0, 0, 0};
  const Run2d got = Transform2d(labels, 3, 2);
  EXPECT_EQ(got.dist, (std::vector<unsigned int>{0, 100, 0, 100, 141, 100}));
  EXPECT_EQ(got.nearest[1], std::make_pair(0, 0));
  EXPECT_EQ(got.nearest[4], std::make_pair(0, 0));
  EXPECT_EQ(got.nearest[2], std::make_pair(2, 0));
  EXPECT_EQ(got.nearest[5], std::make_pair(2, 0));

  // Upside down the upper row is first reached by the bottom-up sweep, which
  // lists (-1, 1) before (1, 1): (1, 0) takes the left target.
  labels = {0, 0, 0, kTarget, 0, kTarget};
  const Run2d up = Transform2d(labels, 3, 2);
  EXPECT_EQ(up.dist, (std::vector<unsigned int>{100, 141, 100, 0, 100, 0}));
  EXPECT_EQ(up.nearest[1], std::make_pair(0, 1));
  EXPECT_EQ(up.nearest[4], std::make_pair(0, 1));
  EXPECT_EQ(up.nearest[2], std::make_pair(2, 1));
}

TEST(DistanceTransform2d, RejectsMismatchAndNullsWithoutWriting) {
  const int width = 6, height = 4;
  std::vector<unsigned char> labels(width * height, 0);
  labels[0] = kTarget;
  std::vector<unsigned int> dist(width * height, 77);
  ff::dist_field* field = ff::ipf_create_distance_field_2d(width, height, 100);
  EXPECT_EQ(ff::ipf_distance_transform_2d(nullptr, labels.data(), width, height,
                                          width, kTarget, dist.data(), width,
                                          nullptr, 0),
            -1);
  EXPECT_EQ(ff::ipf_distance_transform_2d(field, labels.data(), width + 1,
                                          height, width, kTarget, dist.data(),
                                          width, nullptr, 0),
            -1);
  EXPECT_EQ(ff::ipf_distance_transform_2d(field, labels.data(), width,
                                          height - 1, width, kTarget,
                                          dist.data(), width, nullptr, 0),
            -1);
  EXPECT_EQ(
      ff::ipf_distance_transform_2d(field, nullptr, width, height, width,
                                    kTarget, dist.data(), width, nullptr, 0),
      -1);
  EXPECT_EQ(
      ff::ipf_distance_transform_2d(field, labels.data(), width, height, width,
                                    kTarget, nullptr, width, nullptr, 0),
      -1);
  EXPECT_TRUE(std::all_of(dist.begin(), dist.end(),
                          [](unsigned int v) { return v == 77; }));

  // Without nearest points the distances are the same.
  EXPECT_EQ(
      ff::ipf_distance_transform_2d(field, labels.data(), width, height, width,
                                    kTarget, dist.data(), width, nullptr, 0),
      -1);
  EXPECT_EQ(dist, Dijkstra(labels, width, height, 1));
  ff::ipf_release_distance_field(field);

  // A 3-D field of the same width and height passes the checks but runs no
  // 8-neighbour sweep: everything, targets too, comes out unreached.
  ff::dist_field* volume =
      ff::ipf_create_distance_field_3d(width, height, 1, 100);
  ff::ipf_distance_transform_2d(volume, labels.data(), width, height, width,
                                kTarget, dist.data(), width, nullptr, 0);
  EXPECT_TRUE(std::all_of(dist.begin(), dist.end(),
                          [](unsigned int v) { return v == kUnreached; }));
  ff::ipf_release_distance_field(volume);
}

TEST(DistanceTransform3d, MatchesShortestPathsAndRespectsWalls) {
  std::mt19937 rng(8008);
  for (const auto& size :
       {std::vector<int>{1, 1, 2}, {5, 3, 4}, {9, 7, 6}, {4, 11, 9}}) {
    const int width = size[0], height = size[1], depth = size[2];
    for (double wallShare : {0.0, 0.2}) {
      const size_t count = static_cast<size_t>(width) * height * depth;
      std::vector<unsigned char> labels =
          RandomLabels(count, 0.02, wallShare, rng);
      const std::vector<unsigned int> want =
          Dijkstra(labels, width, height, depth);
      std::vector<unsigned int> dist(count, 1);
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
        const int x = static_cast<int>(i % width);
        const int y = static_cast<int>(i / width % height);
        const int z = static_cast<int>(i / width / height);
        if (wallShare == 0.0) {
          ASSERT_EQ(dist[i], want[i]) << x << "," << y << "," << z;
        } else {
          ASSERT_GE(dist[i], want[i]) << x << "," << y << "," << z;
          if (want[i] == kUnreached) {
            ASSERT_EQ(dist[i], kUnreached);
          }
        }
        const int nx = near[3 * i], ny = near[3 * i + 1], nz = near[3 * i + 2];
        if (dist[i] == kUnreached || labels[i] == kTarget) {
          EXPECT_TRUE(nx == x && ny == y && nz == z);
        } else {
          const size_t j = (static_cast<size_t>(nz) * height + ny) * width + nx;
          ASSERT_EQ(labels[j], kTarget);
        }
      }
    }
  }
  ff::dist_field* field = ff::ipf_create_distance_field_3d(3, 3, 3, 100);
  std::vector<unsigned char> labels(27, 0);
  std::vector<unsigned int> dist(27, 5);
  EXPECT_EQ(ff::ipf_distance_transform_3d(field, labels.data(), 3, 3, 2,
                                          kTarget, dist.data(), nullptr),
            -1);
  EXPECT_EQ(ff::ipf_distance_transform_3d(field, nullptr, 3, 3, 3, kTarget,
                                          dist.data(), nullptr),
            -1);
  EXPECT_TRUE(std::all_of(dist.begin(), dist.end(),
                          [](unsigned int v) { return v == 5; }));
  labels[13] = kTarget;
  ff::ipf_distance_transform_3d(field, labels.data(), 3, 3, 3, kTarget,
                                dist.data(), nullptr);
  EXPECT_EQ(dist[0], 173u);
  EXPECT_EQ(dist[1], 141u);
  EXPECT_EQ(dist[4], 100u);
  EXPECT_EQ(dist[13], 0u);
  ff::ipf_release_distance_field(field);
}

}  // namespace
