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
#include <memory>
#include <random>
#include <string>

namespace {

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

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// Produces lines in the shape of a VPN client's service logs: a time stamp,
// host, process and thread, a level, a component, then a message of words,
// addresses, hexadecimal handles and counters.
class LogLines {
 public:
  explicit LogLines(uint32_t seed) : m_random(seed) {}

  // Appends whole lines to `text` until it holds at least `size` bytes.
  void append(std::string& text, size_t size) {
    static const char* const kLevels[] = {"debug",  "info", "info", "info",
                                          "notice", "warn", "error"};
    static const char* const kComponents[] = {"tunnel", "dns",    "routing", "auth",
                                              "health", "config", "ipc",     "posture"};
    static const char* const kWords[] = {
        "handshake", "complete", "with",     "peer",     "renewing", "lease",  "on",
        "adapter",   "vtun0",    "resolver", "answered", "query",    "for",    "record",
        "policy",    "push",     "accepted", "rejected", "backoff",  "of",     "ms",
        "interface", "state",    "changed",  "up",       "down",     "bytes",  "sent",
        "received",  "session",  "token",    "expired",  "probe",    "failed", "retry"};
    char line[192];
    while (text.size() < size) {
      m_millis += draw(2500);
      const uint64_t second = m_millis / 1000 % 86400;
      int used =
          snprintf(line, sizeof(line), "Mar 11 %02u:%02u:%02u.%03u host%u vtcd[%u/%u] %s %s: ",
                   static_cast<unsigned>(second / 3600), static_cast<unsigned>(second / 60 % 60),
                   static_cast<unsigned>(second % 60), static_cast<unsigned>(m_millis % 1000),
                   draw(4), 2000 + draw(40), draw(16), pick(kLevels), pick(kComponents));
      text.append(line, static_cast<size_t>(used));
      const unsigned words = 3 + draw(16);
      for (unsigned i = 0; i < words; ++i) {
        const unsigned kind = draw(12);
        if (kind == 0)
          used = snprintf(line, sizeof(line), "192.168.%u.%u:%u", draw(256), draw(256),
                          1024 + draw(60000));
        else if (kind == 1)
          used = snprintf(line, sizeof(line), "handle=0x%06x", draw(1u << 24));
        else if (kind == 2)
          used = snprintf(line, sizeof(line), "%u", draw(65536));
        else
          used = snprintf(line, sizeof(line), "%s", pick(kWords));
        text.append(line, static_cast<size_t>(used));
        text += i + 1 < words ? ' ' : '\n';
      }
    }
  }

  // A number below `bound`.
  unsigned draw(unsigned bound) { return static_cast<unsigned>(m_random() % bound); }

 private:
  template <size_t N>
  const char* pick(const char* const (&list)[N]) {
    return list[m_random() % N];
  }

  std::mt19937 m_random;
  uint64_t m_millis = 0;
};

// Writes exactly `size` bytes of log lines to `path`, in blocks of 1 MiB; the
// last line of the file may be cut short.
bool WriteLogFile(const std::string& path, uint64_t size, LogLines& lines) {
  FileHandle file(fopen(path.c_str(), "wb"));
  if (!file) {
    perror(path.c_str());
    return false;
  }
  std::string block;
  for (uint64_t written = 0; written < size;) {
    const uint64_t chunk = std::min<uint64_t>(size - written, 1 << 20);
    block.clear();
    lines.append(block, chunk);
    if (fwrite(block.data(), 1, chunk, file.get()) != chunk) {
      perror(path.c_str());
      return false;
    }
    written += chunk;
  }
  if (fclose(file.release()) != 0) {
    perror(path.c_str());
    return false;
  }
  return true;
}

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

struct Counts {
  int largeFiles = 0;
  int smallFiles = 0;
  uint64_t bytes = 0;
};

bool MakeTree(const std::string& root, uint64_t total, uint32_t seed, Counts* counts) {
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
  Counts counts;
  if (!MakeTree(root, megabytes * 1000 * 1000, seed, &counts)) {
    fprintf(stderr, "could not make the tree below %s\n", root.c_str());
    return 1;
  }
  printf("%d folders, %d large and %d small files, %.1f MB\n", kFolders, counts.largeFiles,
         counts.smallFiles, counts.bytes / kMegabyte);
  return 0;
}
