// Copy throughput of helperUtil::fileCopy beside cp(1) on the same data:
// one large file (MB/s) and many small files (files/s).
//
// Usage: bench_file_copy_bench [work-base] [large-MiB] [small-count] [rounds]
// Defaults: /tmp, 1024, 10000, 3. The data lives in a fresh folder below
// work-base and is removed at the end. Both copiers start from a warm page
// cache and an empty destination, and neither syncs its output; sync() runs
// before each timed round so that earlier writes don't slow it down.
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

double SecondsOf(const std::function<bool()>& work, bool* ok) {
  sync();
  const auto start = std::chrono::steady_clock::now();
  *ok = work();
  const auto stop = std::chrono::steady_clock::now();
  return std::chrono::duration<double>(stop - start).count();
}

bool RunCommand(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& arg : argv)
    args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawnp(&child, args[0], nullptr, nullptr, args.data(), environ) != 0)
    return false;
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool WriteLargeFile(const std::string& path, uint64_t bytes) {
  std::ofstream out(path, std::ios::binary);
  std::mt19937_64 random(42);
  std::vector<uint64_t> block(1 << 17);  // 1 MiB of incompressible data
  for (uint64_t written = 0; written < bytes && out;) {
    for (uint64_t& word : block)
      word = random();
    const uint64_t chunk = std::min<uint64_t>(bytes - written, block.size() * sizeof(uint64_t));
    out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(chunk));
    written += chunk;
  }
  return static_cast<bool>(out);
}

uint64_t WriteSmallFiles(const std::string& folder, int count) {
  std::mt19937 random(7);
  std::uniform_int_distribution<int> size(100, 16000);
  std::string content(16000, 'x');
  for (char& c : content)
    c = static_cast<char>(random());
  uint64_t total = 0;
  fs::create_directories(folder);
  for (int i = 0; i < count; ++i) {
    const int bytes = size(random);
    std::ofstream out(folder + "/file_" + std::to_string(i) + ".log", std::ios::binary);
    out.write(content.data(), bytes);
    total += static_cast<uint64_t>(bytes);
  }
  return total;
}

bool SameContent(const std::string& a, const std::string& b) {
  return RunCommand({"cmp", "-s", a, b});
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void report(const char* what, const char* unit, double amount, const std::vector<double>& times) {
  const double best = *std::min_element(times.begin(), times.end());
  printf("%-38s median %9.1f %s  best %9.1f %s  (median %.3f s)\n", what, amount / median(times),
         unit, amount / best, unit, median(times));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string base = argc > 1 ? argv[1] : "/tmp";
  const uint64_t largeMiB = argc > 2 ? strtoull(argv[2], nullptr, 10) : 1024;
  const int smallCount = argc > 3 ? atoi(argv[3]) : 10000;
  const int rounds = std::max(1, argc > 4 ? atoi(argv[4]) : 3);

  std::string pattern = base + "/keel_copy_bench.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  const std::string work = pattern;
  const std::string large = work + "/large.bin";
  const std::string small = work + "/small";
  int failures = 0;

  printf("data: %s, one file of %llu MiB, %d small files, %d rounds\n", work.c_str(),
         static_cast<unsigned long long>(largeMiB), smallCount, rounds);
  const uint64_t largeBytes = largeMiB << 20;
  if (!WriteLargeFile(large, largeBytes)) {
    fprintf(stderr, "cannot write %s\n", large.c_str());
    fs::remove_all(work);
    return 1;
  }
  const uint64_t smallBytes = WriteSmallFiles(small, smallCount);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(small))
    names.push_back(entry.path().filename().string());
  // Warm the page cache for both copiers alike.
  RunCommand({"sh", "-c", "cat '" + large + "' '" + small + "'/* > /dev/null"});

  std::vector<double> helperLarge, cpLarge, helperEach, helperTree, cpTree;
  for (int round = 0; round < rounds; ++round) {
    bool ok = false;
    const std::string target = work + "/large.copy";

    fs::remove(target);
    helperLarge.push_back(SecondsOf(
        [&] {
          std::string errorText;
          return helperUtil::fileCopy(large, target, errorText) == 0;
        },
        &ok));
    failures += !ok || !SameContent(large, target);

    fs::remove(target);
    cpLarge.push_back(SecondsOf([&] { return RunCommand({"cp", large, target}); }, &ok));
    failures += !ok || !SameContent(large, target);
    fs::remove(target);

    // Small files one call each, as the file actions copy them.
    const std::string eachTarget = work + "/each";
    fs::remove_all(eachTarget);
    fs::create_directories(eachTarget);
    helperEach.push_back(SecondsOf(
        [&] {
          std::string errorText;
          bool all = true;
          for (const std::string& name : names)
            all &=
                helperUtil::fileCopy(small + "/" + name, eachTarget + "/" + name, errorText) == 0;
          return all;
        },
        &ok));
    failures += !ok || static_cast<int>(std::distance(fs::directory_iterator(eachTarget),
                                                      fs::directory_iterator())) != smallCount;
    fs::remove_all(eachTarget);

    // The whole folder in one call, beside cp -r.
    const std::string treeTarget = work + "/tree";
    fs::remove_all(treeTarget);
    helperTree.push_back(SecondsOf(
        [&] {
          std::string errorText;
          return helperUtil::fileCopy(small, treeTarget, errorText) == 0;
        },
        &ok));
    failures += !ok || !RunCommand({"diff", "-r", "-q", small, treeTarget});
    fs::remove_all(treeTarget);

    cpTree.push_back(SecondsOf([&] { return RunCommand({"cp", "-r", small, treeTarget}); }, &ok));
    failures += !ok || !RunCommand({"diff", "-r", "-q", small, treeTarget});
    fs::remove_all(treeTarget);
  }

  const double largeMB = static_cast<double>(largeBytes) / 1e6;
  printf("large file: %.1f MB; small files: %.1f MB in total\n", largeMB,
         static_cast<double>(smallBytes) / 1e6);
  report("large file, helperUtil::fileCopy", "MB/s", largeMB, helperLarge);
  report("large file, cp", "MB/s", largeMB, cpLarge);
  report("small files, fileCopy per file", "files/s", smallCount, helperEach);
  report("small files, fileCopy of the folder", "files/s", smallCount, helperTree);
  report("small files, cp -r of the folder", "files/s", smallCount, cpTree);

  fs::remove_all(work);
  if (failures != 0) {
    fprintf(stderr, "%d copies were wrong or failed\n", failures);
    return 1;
  }
  return 0;
}
