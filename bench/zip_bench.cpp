// Archive throughput and peak memory of CZip::Zip beside `zip -9 -r -q` on
// the same tree, made afresh from a fixed seed, in one of three shapes:
//
//   mixed   log-like text: a few large files and a few thousand small ones;
//   small   100,000 small files of log-like text;
//   single  one sparse file of zeros (multi-gigabyte for a memory check).
//
// CZip::Zip runs three ways: the sequential path, one worker thread, and one
// worker per core (what keelcli uses); the speed-up of all workers over one
// is printed beside the goal of 0.85 x N. The archives of the three ways
// must be the same byte for byte.
//
// Usage: bench_zip_bench [work-base] [megabytes] [seed] [shape]
// Defaults: /tmp, 300, 20240311, mixed. The tree and the archives live in a
// fresh folder below work-base that is removed at the end. Each archiver
// runs in a child process of its own, so that its peak resident size
// (ru_maxrss from wait4) and processor time are its alone; all start from a
// warm page cache. MB/s is input megabytes (10^6 bytes) per second of wall
// time. The load average of the machine stands beside each row. Exits with
// 1 when an archiver fails, the archives differ, or CZip::Zip needs 64 MiB
// or more.
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Zip/CZip.h"
#include "bench/support/LogLines.h"

namespace {

using benchsupport::LogLines;
using benchsupport::TreeCounts;
using benchsupport::WriteLogFile;

constexpr double kMegabyte = 1e6;
constexpr long kMemoryLimitKiB = 64 * 1024;
constexpr int kLargeFiles = 4;
constexpr int kSmallFolders = 40;
// The large files hold this share of the bytes; small files the rest.
constexpr double kLargeShare = 0.6;
constexpr uint64_t kSmallMean = 40 * 1000;
// The "small" shape.
constexpr int kManySmallFiles = 100000;
constexpr int kManySmallFolders = 100;

// Large files at the top, small ones in two levels of folders.
bool MakeTree(const std::string& root, uint64_t total, uint32_t seed, TreeCounts* tree) {
  LogLines lines(seed);
  if (mkdir(root.c_str(), 0755) != 0)
    return false;
  const uint64_t largeSize = static_cast<uint64_t>(total * kLargeShare) / kLargeFiles;
  for (int i = 0; i < kLargeFiles; ++i) {
    if (!WriteLogFile(root + "/client_" + std::to_string(i) + ".log", largeSize, lines))
      return false;
    ++tree->largeFiles;
    tree->bytes += largeSize;
  }
  for (int folder = 0; folder < kSmallFolders; ++folder) {
    const std::string top = root + "/module" + std::to_string(folder % 8);
    const std::string dir = top + "/run" + std::to_string(folder);
    mkdir(top.c_str(), 0755);
    if (mkdir(dir.c_str(), 0755) != 0)
      return false;
  }
  for (int i = 0; tree->bytes < total; ++i) {
    // Sizes from 1 kB to about twice the mean.
    const uint64_t size =
        std::min<uint64_t>(total - tree->bytes, 1000 + lines.draw(2 * kSmallMean - 1000));
    const int folder = i % kSmallFolders;
    const std::string path = root + "/module" + std::to_string(folder % 8) + "/run" +
                             std::to_string(folder) + "/trace_" + std::to_string(i) + ".log";
    if (!WriteLogFile(path, size, lines))
      return false;
    ++tree->smallFiles;
    tree->bytes += size;
  }
  return true;
}

// 100,000 small files in folders of a thousand, together about `total`
// bytes.
bool MakeSmallTree(const std::string& root, uint64_t total, uint32_t seed, TreeCounts* tree) {
  LogLines lines(seed);
  if (mkdir(root.c_str(), 0755) != 0)
    return false;
  const uint64_t mean = std::max<uint64_t>(total / kManySmallFiles, 100);
  for (int i = 0; i < kManySmallFiles; ++i) {
    const std::string dir = root + "/part" + std::to_string(i % kManySmallFolders);
    if (i < kManySmallFolders && mkdir(dir.c_str(), 0755) != 0)
      return false;
    const uint64_t size = mean / 2 + lines.draw(static_cast<unsigned>(mean));
    if (!WriteLogFile(dir + "/event_" + std::to_string(i) + ".log", size, lines))
      return false;
    ++tree->smallFiles;
    tree->bytes += size;
  }
  return true;
}

// One sparse file of `total` zero bytes.
bool MakeSingleFile(const std::string& root, uint64_t total, TreeCounts* tree) {
  if (mkdir(root.c_str(), 0755) != 0)
    return false;
  const std::string path = root + "/zeros.bin";
  FileHandle file(fopen(path.c_str(), "wb"));
  if (!file || ftruncate(fileno(file.get()), static_cast<off_t>(total)) != 0)
    return false;
  tree->largeFiles = 1;
  tree->bytes = total;
  return fclose(file.release()) == 0;
}

struct Outcome {
  bool ok = false;
  double seconds = 0;     // wall time
  double cpuSeconds = 0;  // user and system time
  long peakKiB = 0;
};

// Runs `work` in a child process and reports its exit, wall time and peak
// resident size.
Outcome RunChild(const std::function<int()>& work) {
  Outcome outcome;
  fflush(nullptr);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child < 0)
    return outcome;
  if (child == 0)
    _exit(work());
  int status = 0;
  struct rusage usage;
  if (wait4(child, &status, 0, &usage) != child)
    return outcome;
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  outcome.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  outcome.peakKiB = usage.ru_maxrss;
  outcome.cpuSeconds = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
                       (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  return outcome;
}

uint64_t fileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

// The one-minute load average, as /proc/loadavg gives it.
std::string LoadAverage() {
  FileHandle file(fopen("/proc/loadavg", "r"));
  char text[32] = "?";
  if (!file || fscanf(file.get(), "%31s", text) != 1)
    return "?";
  return text;
}

void PrintRow(const std::string& tool, const Outcome& outcome, uint64_t input, uint64_t archive,
              const std::string& load) {
  printf("%-22s %8.2f %8.1f %8.2f %13.1f %11.1f %6.1f%% %6s%s\n", tool.c_str(), outcome.seconds,
         input / kMegabyte / outcome.seconds, outcome.cpuSeconds, outcome.peakKiB / 1024.0,
         archive / kMegabyte, input > 0 ? 100.0 * archive / input : 0.0, load.c_str(),
         outcome.ok ? "" : "  FAILED");
}

// Reads the page cache full of the tree, as a bundle run finds its working
// folder freshly written.
void warm(const std::string& root) {
  sync();
  const std::string command = "find '" + root + "' -type f -exec cat {} + > /dev/null";
  if (system(command.c_str()) != 0)
    fprintf(stderr, "could not read the tree\n");
}

// Whether two files hold the same bytes, by cmp(1).
bool SameBytes(const std::string& a, const std::string& b) {
  const std::string command = "cmp -s '" + a + "' '" + b + "'";
  return system(command.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string base = argc > 1 ? argv[1] : "/tmp";
  const uint64_t megabytes = argc > 2 ? strtoull(argv[2], nullptr, 10) : 300;
  const uint32_t seed = argc > 3 ? static_cast<uint32_t>(strtoul(argv[3], nullptr, 10)) : 20240311;
  const std::string shape = argc > 4 ? argv[4] : "mixed";
  if (shape != "mixed" && shape != "small" && shape != "single") {
    fprintf(stderr, "shape must be mixed, small or single, not \"%s\"\n", shape.c_str());
    return 1;
  }

  std::string pattern = base + "/keel-zip-bench.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  const std::string work = pattern;
  const std::string root = work + "/tree";
  const std::string theirs = work + "/zip.zip";

  TreeCounts tree;
  printf("Making %llu MB (%s) below %s (seed %u)...\n", static_cast<unsigned long long>(megabytes),
         shape.c_str(), work.c_str(), seed);
  const uint64_t total = megabytes * 1000 * 1000;
  const bool made = shape == "small"    ? MakeSmallTree(root, total, seed, &tree)
                    : shape == "single" ? MakeSingleFile(root, total, &tree)
                                        : MakeTree(root, total, seed, &tree);
  int exitCode = made ? 0 : 1;
  if (made) {
    printf("Tree: %d large and %d small files, %.1f MB; %u cores\n\n", tree.largeFiles,
           tree.smallFiles, tree.bytes / kMegabyte, CZip::DefaultWorkerCount());
    printf("%-22s %8s %8s %8s %13s %11s %7s %6s\n", "archiver", "seconds", "MB/s", "CPU s",
           "peak RSS MiB", "archive MB", "ratio", "load");
    struct Way {
      std::string label;
      unsigned workers;
      std::string archive;
      Outcome outcome;
    };
    const unsigned all = CZip::DefaultWorkerCount();
    std::vector<Way> ways = {
        {"CZip::Zip sequential", CZip::kSequential, work + "/seq.zip", {}},
        {"CZip::Zip 1 worker", 1, work + "/one.zip", {}},
        {"CZip::Zip " + std::to_string(all) + " workers", all, work + "/all.zip", {}}};
    for (Way& way : ways) {
      warm(root);
      const std::string load = LoadAverage();
      way.outcome = RunChild([&] {
        ResultCode opened = 0;
        CLogScope scope(&opened, "bench_zip", nullptr);
        return CZip::Zip(root, way.archive, "", true, way.workers) == 0 ? 0 : 1;
      });
      PrintRow(way.label, way.outcome, tree.bytes, fileSize(way.archive), load);
      if (!way.outcome.ok)
        exitCode = 1;
      if (way.outcome.peakKiB >= kMemoryLimitKiB) {
        printf("  peak resident size %.1f MiB is not below %ld MiB\n", way.outcome.peakKiB / 1024.0,
               kMemoryLimitKiB / 1024);
        exitCode = 1;
      }
    }
    warm(root);
    const std::string load = LoadAverage();
    const Outcome zip = RunChild([&] {
      if (chdir(root.c_str()) != 0)
        return 1;
      execlp("zip", "zip", "-9", "-r", "-q", theirs.c_str(), ".", static_cast<char*>(nullptr));
      return 127;
    });
    PrintRow("zip -9 -r -q", zip, tree.bytes, fileSize(theirs), load);
    if (!zip.ok)
      exitCode = 1;

    const double speedUp =
        ways[2].outcome.seconds > 0 ? ways[1].outcome.seconds / ways[2].outcome.seconds : 0;
    printf("\nspeed-up of %u workers over 1: %.2f (%.2f x N; goal: at least 0.85 x N)\n", all,
           speedUp, speedUp / all);
    bool same = ways[0].outcome.ok;
    for (size_t i = 1; i < ways.size(); ++i)
      same = same && SameBytes(ways[0].archive, ways[i].archive);
    printf("the three archives are the same byte for byte: %s\n", same ? "yes" : "NO");
    if (!same)
      exitCode = 1;
    const std::string test = "unzip -tqq '" + ways[2].archive + "'";
    const bool tested = ways[2].outcome.ok && system(test.c_str()) == 0;
    printf("unzip -t of the workers' archive: %s\n", tested ? "no errors" : "FAILED");
    if (!tested)
      exitCode = 1;
  } else {
    fprintf(stderr, "could not make the tree below %s\n", work.c_str());
  }
  const std::string remove = "rm -rf '" + work + "'";
  if (system(remove.c_str()) != 0)
    fprintf(stderr, "could not remove %s\n", work.c_str());
  return exitCode;
}
