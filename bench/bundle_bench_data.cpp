// Writes the tree that bench/bundle_bench.sh gathers with keelcli: six
// folders of log-like text holding a few large files and a few thousand
// small ones, made from a fixed seed so that every run sees the same bytes.
//
// Usage: bench_bundle_bench_data <root> [megabytes] [seed]
// Defaults: 300, 20240311. <root> must not exist yet. The first three
// folders are flat, every file directly inside, as a file pattern finds
// them; the other three keep their files in sub-folders, as a folder copy
// walks them. Every file ends in ".log". Prints one line with the counts.
// Exits with 1 when the tree cannot be written.
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/support/LogLines.h"

namespace {

using benchsupport::LogLines;
using benchsupport::TreeCounts;
using benchsupport::WriteLogFile;

constexpr double kMegabyte = 1e6;
constexpr int kFolders = 6;
constexpr int kFlatFolders = 3;
constexpr int kSubFolders = 5;
// One large file in each of these folders, two flat and two nested; together
// they hold kLargeShare of the bytes and the small files the rest.
constexpr int kLargeFolders[] = {0, 1, 3, 4};
constexpr double kLargeShare = 0.6;
constexpr uint64_t kSmallMean = 40 * 1000;
constexpr uint64_t kSmallMin = 500;

const char* const kFolderNames[kFolders] = {"kbench-agent",  "kbench-ui",     "kbench-dns",
                                            "kbench-tunnel", "kbench-health", "kbench-certs"};

bool MakeFolder(const std::string& path) {
  if (mkdir(path.c_str(), 0755) == 0)
    return true;
  perror(path.c_str());
  return false;
}

bool IsNested(int folder) {
  return folder >= kFlatFolders;
}

// Folder that receives the `index`-th file of `folder`.
std::string TargetFolder(const std::string& root, int folder, int index) {
  std::string path = root + "/" + kFolderNames[folder];
  if (IsNested(folder))
    path += "/session_" + std::to_string(index % kSubFolders);
  return path;
}

bool MakeTree(const std::string& root, uint64_t total, uint32_t seed, TreeCounts* counts) {
  LogLines lines(seed);
  if (!MakeFolder(root))
    return false;
  for (int folder = 0; folder < kFolders; ++folder) {
    if (!MakeFolder(root + "/" + kFolderNames[folder]))
      return false;
    for (int sub = 0; IsNested(folder) && sub < kSubFolders; ++sub) {
      if (!MakeFolder(TargetFolder(root, folder, sub)))
        return false;
    }
  }
  const int largeCount = static_cast<int>(sizeof(kLargeFolders) / sizeof(kLargeFolders[0]));
  const uint64_t largeSize = static_cast<uint64_t>(total * kLargeShare) / largeCount;
  for (int folder : kLargeFolders) {
    const std::string path = TargetFolder(root, folder, 0) + "/service.log";
    if (!WriteLogFile(path, largeSize, lines))
      return false;
    ++counts->largeFiles;
    counts->bytes += largeSize;
  }
  // Small files go round the six folders, and round the sub-folders of a
  // nested one; their sizes spread evenly around the mean.
  for (int i = 0; counts->bytes < total; ++i) {
    const int folder = i % kFolders;
    const int index = i / kFolders;
    const uint64_t size = std::min<uint64_t>(total - counts->bytes,
                                             kSmallMin + lines.draw(2 * (kSmallMean - kSmallMin)));
    const std::string path =
        TargetFolder(root, folder, index) + "/trace_" + std::to_string(index) + ".log";
    if (!WriteLogFile(path, size, lines))
      return false;
    ++counts->smallFiles;
    counts->bytes += size;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    fprintf(stderr, "usage: %s <root> [megabytes] [seed]\n", argv[0]);
    return 1;
  }
  const std::string root = argv[1];
  const uint64_t megabytes = argc > 2 ? strtoull(argv[2], nullptr, 10) : 300;
  const uint32_t seed = argc > 3 ? static_cast<uint32_t>(strtoul(argv[3], nullptr, 10)) : 20240311;
  if (megabytes == 0) {
    fprintf(stderr, "megabytes must be a whole number above 0\n");
    return 1;
  }
  TreeCounts counts;
  if (!MakeTree(root, megabytes * 1000 * 1000, seed, &counts)) {
    fprintf(stderr, "could not make the tree below %s\n", root.c_str());
    return 1;
  }
  printf("%d folders, %d large and %d small files, %.1f MB\n", kFolders, counts.largeFiles,
         counts.smallFiles, counts.bytes / kMegabyte);
  return 0;
}
