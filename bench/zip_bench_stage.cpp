// The zip stage of a bundle run alone: CZip::Zip of one folder with a given
// number of worker threads, timed in this process.
//
// Usage: bench_zip_bench_stage <source-folder> <archive> <workers>
// <workers> is a number of worker threads, "all" for the machine's count
// (what keelcli uses) or "sequential" for the reference path on the calling
// thread. Prints one line: the number of workers (0 for sequential), wall
// seconds, processor seconds (user and system), peak resident size in KiB
// and the archive's size in bytes. Exits with 1 when the archive fails.
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "Common/Log/Log.h"
#include "Common/Zip/CZip.h"

namespace {

double SecondsOf(const struct timeval& time) {
  return time.tv_sec + time.tv_usec / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s <source-folder> <archive> <workers|all|sequential>\n", argv[0]);
    return 1;
  }
  unsigned workers = CZip::kSequential;
  if (strcmp(argv[3], "all") == 0) {
    workers = CZip::DefaultWorkerCount();
  } else if (strcmp(argv[3], "sequential") != 0) {
    workers = static_cast<unsigned>(strtoul(argv[3], nullptr, 10));
    if (workers == 0) {
      fprintf(stderr, "workers must be a number above 0, \"all\" or \"sequential\"\n");
      return 1;
    }
  }
  ResultCode opened = 0;
  CLogScope scope(&opened, "bench_zip_stage", nullptr);
  const auto start = std::chrono::steady_clock::now();
  const ResultCode result = CZip::Zip(argv[1], argv[2], "", true, workers);
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  struct stat archive;
  const long long size = stat(argv[2], &archive) == 0 ? static_cast<long long>(archive.st_size) : 0;
  printf("%u %.2f %.2f %ld %lld\n", workers, wall,
         SecondsOf(usage.ru_utime) + SecondsOf(usage.ru_stime), usage.ru_maxrss, size);
  return result == 0 ? 0 : 1;
}
