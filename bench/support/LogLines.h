// What the benchmarks share: log-like text from a fixed seed, files of it,
// and the counts of a tree of such files.
#ifndef BENCH_SUPPORT_LOGLINES_H_
#define BENCH_SUPPORT_LOGLINES_H_

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

namespace benchsupport {

// Produces lines in the shape of a VPN client's service logs: a time stamp,
// host, process and thread, a level, a component, then a message of words,
// addresses, hexadecimal handles and counters.
class LogLines {
 public:
  explicit LogLines(uint32_t seed) : m_random(seed) {}

  // Appends whole lines to `text` until it holds at least `size` bytes.
  void append(std::string& text, size_t size);

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

// What a benchmark tree holds, counted as its files are written.
struct TreeCounts {
  int largeFiles = 0;
  int smallFiles = 0;
  uint64_t bytes = 0;
};

// Writes exactly `size` bytes of log lines to `path`, in blocks of 1 MiB; the
// last line of the file may be cut short. A failure is told on stderr.
bool WriteLogFile(const std::string& path, uint64_t size, LogLines& lines);

}  // namespace benchsupport

#endif  // BENCH_SUPPORT_LOGLINES_H_
