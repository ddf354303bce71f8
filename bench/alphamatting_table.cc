// Prints, per photo of the alphamatting.com training set, the SAD of the
// matte and the time of assembly plus solve for each solve path, solved at
// full resolution over the set's trimap, and the means over all photos
// beside PyMatting's closed form (peers.csv of the set). Single thread.
//
//   softmatte_alphamatting_table [--paths exact,fine] [--epsilon 1e-7,1e-6]
//                                [--photos 1-27] [--wide]
//
// --epsilon runs the fine path once per value; --wide takes trimap2/.

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "softmatte/solver.h"
#include "test_util.h"

namespace {

using softmatte_test::MattingSample;

struct Path {
  std::string name;
  mat_options options;
};

struct Peer {
  double sad = 0.0;
  double seconds = 0.0;
};

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, separator);) {
    parts.push_back(part);
  }
  return parts;
}

std::map<std::string, Peer> ReadPeers() {
  std::map<std::string, Peer> peers;
  std::ifstream in(softmatte_test::AlphamattingDir() + "/peers.csv");
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    const std::vector<std::string> f = Split(line, ',');
    if (f.size() < 9 || f[2] != "trimap") continue;
    peers[f[0]] = {std::atof(f[4].c_str()), std::atof(f[8].c_str())};
  }
  return peers;
}

double CpuSeconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         1e-6 * (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

// Assembly plus solve of one photo on one path: SAD (thousands) and seconds.
std::pair<double, double> Run(const MattingSample& sample,
                              const mat_options& options) {
  const int w = sample.image.width;
  const int h = sample.image.height;
  const std::vector<unsigned char>& trimap = sample.trimap.pixels;
  std::vector<unsigned char> mask(trimap.size());
  for (size_t p = 0; p < mask.size(); ++p) mask[p] = trimap[p] == 128;
  std::vector<unsigned char> alpha = trimap;
  const double begin = CpuSeconds();
  {
    mat_data problem;
    mat_update(sample.image.pixels.data(), w, h, 3 * w, mask.data(), w, problem,
               options);
    mat_run(problem, trimap.data(), alpha.data(), options);
  }
  const double seconds = CpuSeconds() - begin;
  return {softmatte_test::SadOverUnknown(alpha, sample), seconds};
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> pathNames = {"exact", "fine"};
  std::vector<std::string> epsilons;
  int first = 1;
  int last = 27;
  bool wide = false;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : "";
    if (flag == "--paths") {
      pathNames = Split(value, ',');
      ++i;
    } else if (flag == "--epsilon") {
      epsilons = Split(value, ',');
      ++i;
    } else if (flag == "--photos") {
      const std::vector<std::string> range = Split(value, '-');
      first = std::atoi(range[0].c_str());
      last = range.size() > 1 ? std::atoi(range[1].c_str()) : first;
      ++i;
    } else if (flag == "--wide") {
      wide = true;
    } else {
      std::fprintf(stderr,
                   "usage: softmatte_alphamatting_table [--paths exact,fine] "
                   "[--epsilon E1,E2] [--photos A-B] [--wide]\n");
      return 2;
    }
  }
  if (softmatte_test::AlphamattingDir().empty()) {
    std::fprintf(stderr, "the alphamatting set is not there\n");
    return 2;
  }

  std::vector<Path> paths;
  for (const std::string& name : pathNames) {
    mat_options options;
    if (name == "fine") {
      options.solver = MAT_SOLVER_FINE;
      if (epsilons.empty()) {
        paths.push_back({"fine", options});
        continue;
      }
      for (const std::string& e : epsilons) {
        options.epsilon = std::atof(e.c_str());
        paths.push_back({"fine " + e, options});
      }
    } else if (name == "exact") {
      paths.push_back({"exact", options});
    }
  }

  const std::map<std::string, Peer> peers = ReadPeers();
  std::printf("| photo | unknowns |");
  for (const Path& p : paths)
    std::printf(" %s SAD | %s s |", p.name.c_str(), p.name.c_str());
  std::printf(" peer SAD | peer s |\n|---|---|");
  for (size_t i = 0; i < paths.size(); ++i) std::printf("---|---|");
  std::printf("---|---|\n");
  std::vector<double> sad(paths.size()), seconds(paths.size());
  Peer peerSum;
  int count = 0;
  for (int index = first; index <= last; ++index) {
    MattingSample sample;
    if (!softmatte_test::LoadMattingSample(index, wide, &sample)) continue;
    ++count;
    long unknowns = 0;
    for (unsigned char v : sample.trimap.pixels) unknowns += v == 128;
    // The exact solve prints its own line; the row goes out whole after it.
    std::string row =
        "| " + sample.name + " | " + std::to_string(unknowns) + " |";
    char cell[64];
    for (size_t i = 0; i < paths.size(); ++i) {
      const auto [s, t] = Run(sample, paths[i].options);
      sad[i] += s;
      seconds[i] += t;
      std::snprintf(cell, sizeof cell, " %.3f | %.3f |", s, t);
      row += cell;
    }
    const auto peer = peers.find(sample.name);
    if (peer != peers.end() && !wide) {
      peerSum.sad += peer->second.sad;
      peerSum.seconds += peer->second.seconds;
      std::snprintf(cell, sizeof cell, " %.3f | %.3f |", peer->second.sad,
                    peer->second.seconds);
      row += cell;
    } else {
      row += " | |";
    }
    std::printf("\n%s", row.c_str());
    std::fflush(stdout);
  }
  if (count == 0) return 2;
  std::printf("\n| mean of %d | |", count);
  for (size_t i = 0; i < paths.size(); ++i) {
    std::printf(" %.3f | %.3f |", sad[i] / count, seconds[i] / count);
  }
  std::printf(" %.3f | %.3f |\n", peerSum.sad / count, peerSum.seconds / count);
  return 0;
}
