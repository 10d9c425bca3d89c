#include "Common/Utility/sysutils.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <limits>

#include "Common/Log/BoundedText.h"
#include "Common/Log/Log.h"

namespace {

constexpr long kMicrosPerSecond = 1000000;

// The mode bit that regular files and sockets share; it is the whole test
// of fileExists.
constexpr mode_t kRegularFileBit = 0x8000;

// A clock that never jumps, as a timeval, so that deadlines of vvc_select
// hold when the wall clock is set.
timeval MonotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  timeval result{};
  result.tv_sec = now.tv_sec;
  result.tv_usec = now.tv_nsec / 1000;
  return result;
}

}  // namespace

// Files.

bool fileExists(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) {
    return (info.st_mode & kRegularFileBit) != 0;
  }
  const int error = errno;
  if (error != ENOENT) {
    KLOG_RC_FMT(LOG_LEVEL_E, "_tstat", static_cast<ResultCode>(error), "File: %s\nError: %s",
                path.c_str(), strerror(error));
  }
  return false;
}

std::string errnoText(int error) {
  char buffer[256];
  return strerror_r(error, buffer, sizeof(buffer));
}

int removeFile(const char* path) {
  if (path == nullptr) {
    return EINVAL;
  }
  if (unlink(path) != 0) {
    return errno;
  }
  return 0;
}

// Time.

uint32_t getTickMillis() {
  timeval now{};
  if (gettimeofday(&now, nullptr) != 0) {
    return 0;
  }
  // Unsigned arithmetic so that the value wraps instead of overflowing.
  const uint64_t millis =
      static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_usec) / 1000u;
  return static_cast<uint32_t>(millis);
}

void sleepMillis(uint32_t milliseconds) {
  usleep(static_cast<useconds_t>(milliseconds) * 1000u);
}

std::string getTimeNowString(int form) {
  const time_t now = time(nullptr);
  struct tm local {};
  if (localtime_r(&now, &local) == nullptr) {
    return std::string();
  }
  switch (form) {
    case 1: {
      char stamp[11];
      boundedFormat(stamp, sizeof(stamp), "_%02d%02d_%02d%02d", local.tm_mon + 1, local.tm_mday,
                    local.tm_hour, local.tm_min);
      return stamp;
    }
    case 2: {
      char text[64];
      if (asctime_r(&local, text) == nullptr) {
        return std::string();
      }
      return text;
    }
    case 3: {
      char text[100];
      const size_t length = strftime(text, sizeof(text), "%a %b %d %H:%M:%S %Y %Z", &local);
      return std::string(text, length);
    }
    default: {
      char text[64];
      const size_t length = strftime(text, sizeof(text), "%c", &local);
      return std::string(text, length);
    }
  }
}

timeval timevalAdd(const timeval& a, const timeval& b) {
  timeval sum{};
  long micros = static_cast<long>(a.tv_usec) + static_cast<long>(b.tv_usec);
  time_t carry = 0;
  if (micros >= kMicrosPerSecond) {
    carry = micros / kMicrosPerSecond;
    micros %= kMicrosPerSecond;
  }
  time_t seconds = 0;
  if (__builtin_add_overflow(a.tv_sec, b.tv_sec, &seconds) ||
      __builtin_add_overflow(seconds, carry, &seconds)) {
    // Saturate instead of wrapping into the past.
    sum.tv_sec = std::numeric_limits<time_t>::max();
    sum.tv_usec = kMicrosPerSecond - 1;
    return sum;
  }
  sum.tv_sec = seconds;
  sum.tv_usec = static_cast<suseconds_t>(micros);
  return sum;
}

int timevalCompare(const timeval& a, const timeval& b) {
  if (a.tv_sec != b.tv_sec) {
    return a.tv_sec > b.tv_sec ? 1 : -1;
  }
  if (a.tv_usec != b.tv_usec) {
    return a.tv_usec > b.tv_usec ? 1 : -1;
  }
  return 0;
}

timeval timevalSubtract(const timeval& a, const timeval& b) {
  timeval difference{};
  if (timevalCompare(b, a) >= 0) {
    return difference;
  }
  difference.tv_sec = a.tv_sec - b.tv_sec;
  long micros = static_cast<long>(a.tv_usec) - static_cast<long>(b.tv_usec);
  if (micros < 0) {
    micros += kMicrosPerSecond;
    difference.tv_sec -= 1;
  }
  difference.tv_usec = static_cast<suseconds_t>(micros);
  return difference;
}

// Waiting.

int vvc_select(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout) {
  if (timeout == nullptr) {
    // Polls: a null timeout never blocks here.
    for (;;) {
      timeval zero{};
      const int result = select(nfds, readSet, writeSet, exceptSet, &zero);
      if (result != -1) {
        return result;
      }
      if (errno != EINTR) {
        KLOG_E("vvc_select failed with errno: %d", errno);
        return -1;
      }
    }
  }

  const timeval deadline = timevalAdd(MonotonicNow(), *timeout);
  timeval left = *timeout;
  for (;;) {
    timeval attempt = left;
    const int result = select(nfds, readSet, writeSet, exceptSet, &attempt);
    if (result != -1) {
      return result;
    }
    if (errno != EINTR) {
      KLOG_E("vvc_select failed with errno: %d", errno);
      return -1;
    }
    left = timevalSubtract(deadline, MonotonicNow());
    if (left.tv_sec == 0 && left.tv_usec == 0) {
      return 0;
    }
  }
}

// Strings.

std::string CStringUtils::trimString(const std::string& text) {
  size_t first = 0;
  size_t end = text.size();
  while (first < end && isspace(static_cast<unsigned char>(text[first]))) {
    ++first;
  }
  while (end > first && isspace(static_cast<unsigned char>(text[end - 1]))) {
    --end;
  }
  return text.substr(first, end - first);
}

std::string CStringUtils::toLowerCopy(const std::string& text) {
  std::string lower(text);
  for (char& c : lower) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return lower;
}

std::string CStringUtils::replaceAll(const std::string& text, const std::string& from,
                                     const std::string& to) {
  if (text.empty() || from.empty()) {
    return text;
  }
  std::string result(text);
  size_t position = 0;
  while ((position = result.find(from, position)) != std::string::npos) {
    result.replace(position, from.size(), to);
    position += to.size();
  }
  return result;
}

std::vector<std::string> CStringUtils::splitString(const std::string& text, char delimiter) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(delimiter, start);
    if (end == std::string::npos) {
      parts.push_back(text.substr(start));
      return parts;
    }
    parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

std::vector<int32_t> CStringUtils::parseVersionNumbers(const std::string& text,
                                                       const std::string& separators) {
  std::vector<int32_t> numbers;
  size_t start = 0;
  for (;;) {
    const size_t end =
        separators.empty() ? std::string::npos : text.find_first_of(separators, start);
    const std::string part =
        text.substr(start, end == std::string::npos ? std::string::npos : end - start);
    long value = strtol(part.c_str(), nullptr, 10);
    // Out-of-range parts are held at the ends of the 32-bit range.
    if (value > INT32_MAX) {
      value = INT32_MAX;
    } else if (value < INT32_MIN) {
      value = INT32_MIN;
    }
    numbers.push_back(static_cast<int32_t>(value));
    if (end == std::string::npos) {
      return numbers;
    }
    start = end + 1;
  }
}

int CStringUtils::compareVersions(const std::vector<int32_t>& a, const std::vector<int32_t>& b) {
  const size_t count = a.size() > b.size() ? a.size() : b.size();
  for (size_t i = 0; i < count; ++i) {
    const int32_t left = i < a.size() ? a[i] : 0;
    const int32_t right = i < b.size() ? b[i] : 0;
    if (left != right) {
      return left > right ? 1 : -1;
    }
  }
  return 0;
}

void CStringUtils::wipeString(std::string& text) noexcept {
  // The whole allocation is cleared, not only the current text, since an
  // earlier and longer content may still sit behind the terminator. Growing
  // to the capacity never reallocates.
  text.resize(text.capacity());
  wipeBytes(&text[0], text.size());
  // Swapping with an empty string hands the buffer to the temporary, which
  // frees it; move-assignment could keep it.
  std::string().swap(text);
}

void CStringUtils::wipeBytes(void* data, size_t size) noexcept {
  if (data != nullptr && size != 0) {
    explicit_bzero(data, size);
  }
}
