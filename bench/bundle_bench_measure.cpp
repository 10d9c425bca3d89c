// Runs one command and writes what GNU time's format "%e %U %S %M" would:
// wall seconds, user and system seconds, and peak resident size in KiB, as
// one line. bench/bundle_bench.sh falls back on it where GNU time is not
// installed.
//
// Usage: bench_bundle_bench_measure <result-file> <program> [arguments...]
// The program is looked up on the PATH and inherits the streams. The figures
// come from wait4, so they cover the program and whatever it waited for.
// Exits with the program's status, 128 plus the signal that ended it, or 127
// when it could not be started.
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Common/Utility/ScopedHandles.h"

extern char** environ;

namespace {

double SecondsOf(const struct timeval& time) {
  return time.tv_sec + time.tv_usec / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s <result-file> <program> [arguments...]\n", argv[0]);
    return 127;
  }
  const auto start = std::chrono::steady_clock::now();
  pid_t child = 0;
  const int spawned = posix_spawnp(&child, argv[2], nullptr, nullptr, argv + 2, environ);
  if (spawned != 0) {
    fprintf(stderr, "%s: %s\n", argv[2], strerror(spawned));
    return 127;
  }
  int status = 0;
  struct rusage usage;
  pid_t waited = 0;
  do {
    waited = wait4(child, &status, 0, &usage);
  } while (waited < 0 && errno == EINTR);
  if (waited != child) {
    perror("wait4");
    return 127;
  }
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  FileHandle result(fopen(argv[1], "w"));
  if (!result ||
      fprintf(result.get(), "%.2f %.2f %.2f %ld\n", wall, SecondsOf(usage.ru_utime),
              SecondsOf(usage.ru_stime), usage.ru_maxrss) < 0 ||
      fclose(result.release()) != 0) {
    perror(argv[1]);
    return 127;
  }
  if (WIFSIGNALED(status))
    return 128 + WTERMSIG(status);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 127;
}
