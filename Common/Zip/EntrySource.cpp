#include "Common/Zip/EntrySource.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "Common/Log/Log.h"
#include "Common/Utility/sysutils.h"

bool CEntrySource::open(const std::string& path) {
  m_path = path;
  m_size = 0;
  m_done = 0;
  m_fd.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!m_fd.valid())
    return fail("open", errno);
  struct stat info;
  if (fstat(m_fd.get(), &info) != 0)
    return fail("examine", errno);
  if (!S_ISREG(info.st_mode)) {
    KLOG_E("Could not zip %s: it is not a regular file.", path.c_str());
    m_fd.reset();
    return false;
  }
  m_size = static_cast<uint64_t>(info.st_size);
  return true;
}

bool CEntrySource::read(unsigned char* buffer, size_t capacity, size_t* count) {
  *count = 0;
  const size_t wanted = static_cast<size_t>(std::min<uint64_t>(capacity, m_size - m_done));
  while (*count < wanted) {
    const ssize_t got = ::read(m_fd.get(), buffer + *count, wanted - *count);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      return fail("read", errno);
    if (got == 0) {
      KLOG_E("Could not read %s whole: it ended after %llu of its %llu bytes.", m_path.c_str(),
             static_cast<unsigned long long>(m_done + *count),
             static_cast<unsigned long long>(m_size));
      return false;
    }
    *count += static_cast<size_t>(got);
  }
  m_done += *count;
  return true;
}

bool CEntrySource::rewind() {
  if (lseek(m_fd.get(), 0, SEEK_SET) != 0)
    return fail("rewind", errno);
  m_done = 0;
  return true;
}

bool CEntrySource::fail(const char* what, int error) {
  KLOG_E("Could not %s %s: %s", what, m_path.c_str(), errnoText(error).c_str());
  return false;
}
