#ifndef SOFTMATTE_BENCH_PEAK_MEMORY_H_
#define SOFTMATTE_BENCH_PEAK_MEMORY_H_

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace softmatte_bench {

inline long StatusKilobytes(const char* key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t length = std::strlen(key);
  while (std::getline(status, line)) {
    if (line.compare(0, length, key) == 0)
      return std::stol(line.substr(length));
  }
  return -1;
}

// How far the resident set's peak rises while run() works, in megabytes:
// measured in a forked child whose peak is first reset to its current size
// (so the parent's history and the inherited scene do not count), after the
// allocator has handed its free pages back (else they would be reused
// unseen); -1 where the kernel cannot reset it. The output plane is the
// caller's and is touched before the reset.
template <typename Run>
double PeakGrowthMB(size_t outputBytes, Run run) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    close(fds[0]);
    std::vector<unsigned char> out(outputBytes, 1);
    malloc_trim(0);
    double mb = -1;
    if (FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
      const bool reset = std::fputs("5", f) >= 0;
      if (std::fclose(f) == 0 && reset) {
        const long before = StatusKilobytes("VmHWM:");
        run(out.data());
        mb = (StatusKilobytes("VmHWM:") - before) / 1024.0;
      }
    }
    if (write(fds[1], &mb, sizeof mb) != sizeof mb) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  double mb = -1;
  if (read(fds[0], &mb, sizeof mb) != sizeof mb) mb = -1;
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  return mb;
}

}  // namespace softmatte_bench

#endif  // SOFTMATTE_BENCH_PEAK_MEMORY_H_
