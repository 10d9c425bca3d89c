#include "tools/KEEL/KEELEngine/implementations/ProgramOutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "Common/Log/Log.h"
#include "Common/Utility/TrustedPath.h"
#include "Common/Utility/sysutils.h"

namespace {

constexpr size_t kBufferSize = 4096;

const char kOpening[] = "Error occurred opening the file: ";
const char kWriting[] = "Error occurred writing the output: ";
const char kLinkAtTheName[] = "a link stands at its name";

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Why an existing file may not take the output; empty when it may.
std::string RefusalOf(const struct stat& info) {
  if (!S_ISREG(info.st_mode))
    return "it is not a regular file";
  if (info.st_uid != geteuid())
    return "it belongs to another user";
  if (info.st_nlink != 1)
    return "it has more than one name";
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return "other users may write it";
  return std::string();
}

}  // namespace

ProgramOutputFile::Buffer::Buffer() : m_space(kBufferSize) {
  setp(m_space.data(), m_space.data() + m_space.size());
}

bool ProgramOutputFile::Buffer::writeAll(const char* data, size_t size) {
  if (m_error != 0)
    return false;
  if (m_fd < 0) {
    m_error = EBADF;
    return false;
  }
  while (size > 0) {
    const ssize_t written = ::write(m_fd, data, size);
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0) {
      // A write that takes nothing and reports nothing is a full disk.
      m_error = written < 0 ? errno : ENOSPC;
      return false;
    }
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

bool ProgramOutputFile::Buffer::drain() {
  const size_t pending = static_cast<size_t>(pptr() - pbase());
  setp(m_space.data(), m_space.data() + m_space.size());
  return writeAll(m_space.data(), pending) && m_error == 0;
}

ProgramOutputFile::Buffer::int_type ProgramOutputFile::Buffer::overflow(int_type ch) {
  if (!drain())
    return traits_type::eof();
  if (!traits_type::eq_int_type(ch, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(ch);
    pbump(1);
  }
  return traits_type::not_eof(ch);
}

int ProgramOutputFile::Buffer::sync() {
  return drain() ? 0 : -1;
}

ProgramOutputFile::ProgramOutputFile() : m_stream(&m_buffer) {}

ProgramOutputFile::~ProgramOutputFile() {
  if (m_fd.valid())
    close();
}

void ProgramOutputFile::fail(const std::string& what, int error) {
  m_failure = what + errnoText(error);
}

bool ProgramOutputFile::open(const std::string& path) {
  TrustedPathResult folder = TrustedPath::openParent(path, m_leaf);
  if (!folder.ok()) {
    m_failure = kOpening + folder.reason;
    return false;
  }
  m_folder = std::move(folder.fd);
  // A link at the name is named as such: in a shared folder the kernel
  // may answer the open below with EACCES rather than ELOOP.
  struct stat named;
  if (fstatat(m_folder.get(), m_leaf.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISLNK(named.st_mode)) {
    m_failure = std::string(kOpening) + kLinkAtTheName;
    return false;
  }
  // O_NOFOLLOW: a link put at the name meanwhile is never written through
  // either. O_NONBLOCK: a FIFO put there can't hold the run; it is refused
  // below.
  m_fd.reset(openat(m_folder.get(), m_leaf.c_str(),
                    O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  if (!m_fd.valid()) {
    const int error = errno;
    m_failure = kOpening + (error == ELOOP ? std::string(kLinkAtTheName) : errnoText(error));
    return false;
  }
  std::string refusal = "the file could not be examined";
  if (fstat(m_fd.get(), &m_info) == 0)
    refusal = RefusalOf(m_info);
  if (!refusal.empty()) {
    m_fd.reset();
    m_failure = kOpening + refusal;
    return false;
  }
  m_buffer.attach(m_fd.get());
  return true;
}

bool ProgramOutputFile::close() {
  if (!m_fd.valid())
    return m_failure.empty();
  m_stream.flush();
  const bool written = m_buffer.drain();
  const int writeError = m_buffer.error();
  m_buffer.attach(-1);
  const int closed = ::close(m_fd.release());
  const int closeError = errno;
  if (written && closed == 0)
    return true;
  fail(kWriting, !written ? writeError : closeError);
  KLOG_E("The output written to \"%s\" is not whole: %s", m_leaf.c_str(), m_failure.c_str());
  removeCut();
  return false;
}

void ProgramOutputFile::removeCut() {
  // Only the file that was written goes, whatever stands at its name now.
  struct stat named;
  if (fstatat(m_folder.get(), m_leaf.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
      SameFile(named, m_info) && unlinkat(m_folder.get(), m_leaf.c_str(), 0) != 0) {
    const int error = errno;
    KLOG_RC_DESC(LOG_LEVEL_E, "unlinkat", static_cast<ResultCode>(error), errnoText(error).c_str());
  }
}

void ProgramOutputFile::remove(const std::string& path) {
  std::string leaf;
  const TrustedPathResult folder = TrustedPath::openParent(path, leaf);
  if (!folder.ok()) {
    if (folder.error != ENOENT)
      KLOG_W("Not removing \"%s\": %s", path.c_str(), folder.reason.c_str());
    return;
  }
  struct stat info;
  if (fstatat(folder.fd.get(), leaf.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISREG(info.st_mode))
    return;
  // unlinkat never follows the name, so a link swapped in meanwhile would
  // only lose its own name.
  if (unlinkat(folder.fd.get(), leaf.c_str(), 0) != 0 && errno != ENOENT) {
    const int error = errno;
    KLOG_RC_DESC(LOG_LEVEL_E, "unlinkat", static_cast<ResultCode>(error), errnoText(error).c_str());
  }
}
