// Small system services that the rest of the tool leans on: file tests,
// clocks, a select that survives signals, and string functions.
//
// All functions are stateless and may be called from any thread.
#ifndef COMMON_UTILITY_SYSUTILS_H_
#define COMMON_UTILITY_SYSUTILS_H_

#include <sys/select.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Files.

// True when `path` (links followed) has bit 15 of its mode set: a regular
// file or a socket. Logs failures other than "no such file".
bool fileExists(const std::string& path);
// 0, or errno of unlink, or 22 (EINVAL) for a null path.
int removeFile(const char* path);
// The system's text for an errno value (strerror_r: no shared buffer, so any
// thread may call it).
std::string errnoText(int error);

// Time.

// Wall-clock milliseconds in 32 bits (wraps); 0 if the clock can't be read.
uint32_t getTickMillis();
void sleepMillis(uint32_t milliseconds);
// Local time as text. Form 1: "_MMDD_HHMM" (the bundle-name stamp);
// 2: asctime with its line feed; 3: "%a %b %d %H:%M:%S %Y %Z"; other: "%c".
std::string getTimeNowString(int form);

// timeval arithmetic: add saturates and carries microseconds into seconds;
// compare answers 1, 0 or -1; subtract gives 0 unless b < a.
timeval timevalAdd(const timeval& a, const timeval& b);
int timevalCompare(const timeval& a, const timeval& b);
timeval timevalSubtract(const timeval& a, const timeval& b);

// Waiting.

// select() that restarts itself after EINTR with the time that is left. A
// null timeout polls once (and again only after EINTR).
int vvc_select(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout);

// Strings.

class CStringUtils {
 public:
  virtual ~CStringUtils() = default;

  // Removes what isspace accepts at both ends.
  static std::string trimString(const std::string& text);
  static std::string toLowerCopy(const std::string& text);
  // Every occurrence of `from` replaced by `to`, scanning past each
  // replacement; an empty text or empty `from` changes nothing.
  static std::string replaceAll(const std::string& text, const std::string& from,
                                const std::string& to);
  // Parts between `delimiter`, empty parts kept.
  static std::vector<std::string> splitString(const std::string& text, char delimiter);
  // Parts between any of `separators`, each through strtol base 10.
  static std::vector<int32_t> parseVersionNumbers(const std::string& text,
                                                  const std::string& separators);
  // Compares number by number over the longer list, missing numbers as 0.
  static int compareVersions(const std::vector<int32_t>& a, const std::vector<int32_t>& b);
  // Overwrites every byte with zero in a way the optimiser keeps, then
  // empties the string and releases its buffer. Never throws.
  static void wipeString(std::string& text) noexcept;
  // Zeroes `size` bytes at `data` in a way the optimiser keeps.
  static void wipeBytes(void* data, size_t size) noexcept;
};

#endif  // COMMON_UTILITY_SYSUTILS_H_
