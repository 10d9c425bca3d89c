#include "Common/Zip/ArchiveFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "Common/Log/Log.h"
#include "Common/Utility/InterruptGuard.h"
#include "Common/Utility/TrustedPath.h"
#include "Common/Utility/sysutils.h"

namespace {

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The longest part of the archive's name that goes into the new file's
// name, so that the prefix, the name and the suffix stay within NAME_MAX.
constexpr size_t kNameInTemporary = 200;

// Makes a new file, mode 0600 whatever the umask, named `prefix` and six
// random letters and digits, in the opened folder `folder`. Returns its
// descriptor and sets `name`, or -1 with errno set.
int CreateFreshFile(int folder, const std::string& prefix, std::string& name) {
  static const char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  constexpr int kTries = 100;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    unsigned char random[6];
    if (getrandom(random, sizeof(random), 0) != static_cast<ssize_t>(sizeof(random)))
      return -1;
    name = prefix;
    for (unsigned char byte : random)
      name += kLetters[byte % (sizeof(kLetters) - 1)];
    const int fd = openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          S_IRUSR | S_IWUSR);
    if (fd >= 0 || errno != EEXIST) {
      // Only the owner may read the bundle, whatever the umask.
      if (fd >= 0 && fchmod(fd, S_IRUSR | S_IWUSR) != 0) {
        const int error = errno;
        unlinkat(folder, name.c_str(), 0);
        close(fd);
        errno = error;
        return -1;
      }
      return fd;
    }
  }
  errno = EEXIST;
  return -1;
}

}  // namespace

CArchiveFile::CArchiveFile() {
  memset(&m_functions, 0, sizeof(m_functions));
  memset(&m_old, 0, sizeof(m_old));
  memset(&m_new, 0, sizeof(m_new));
  m_functions.zopen64_file = Open;
  m_functions.zread_file = Read;
  m_functions.zwrite_file = Write;
  m_functions.ztell64_file = Tell;
  m_functions.zseek64_file = Seek;
  m_functions.zclose_file = Close;
  m_functions.zerror_file = TestError;
  m_functions.opaque = this;
}

CArchiveFile::~CArchiveFile() {
  discard();
}

ResultCode CArchiveFile::create(const std::string& path) {
  const size_t slash = path.rfind('/');
  m_folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  m_name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (m_name.empty() || m_name == "." || m_name == "..") {
    KLOG_E("The archive path \"%s\" names no file.", path.c_str());
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  // Every later step works relative to this descriptor, so that a folder
  // renamed or replaced meanwhile can't redirect the new file or the
  // rename. The folder is reached through TrustedPath: a link or folder of
  // another user on the way that leads into a folder that user does not
  // own is refused, so the archive never lands where only root may write.
  TrustedPathResult folder = TrustedPath::openFolder(m_folder);
  if (!folder.ok()) {
    KLOG_E("Could not open the folder of the archive \"%s\": %s", m_folder.c_str(),
           folder.reason.c_str());
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  m_folderFd = std::move(folder.fd);
  m_hadOld = fstatat(m_folderFd.get(), m_name.c_str(), &m_old, AT_SYMLINK_NOFOLLOW) == 0 &&
             S_ISREG(m_old.st_mode);

  // O_EXCL: an existing name, a planted link among them, is never opened,
  // only passed over for another.
  const std::string prefix = "." + m_name.substr(0, kNameInTemporary) + ".";
  int error = 0;
  {
    CInterruptGuard::Hold hold;
    m_fd.reset(CreateFreshFile(m_folderFd.get(), prefix, m_temporaryName));
    error = errno;
    if (m_fd.valid()) {
      m_temporaryPath = (m_folder == "/" ? "" : m_folder) + "/" + m_temporaryName;
      CInterruptGuard::TrackFile(m_temporaryPath);
    }
  }
  if (!m_fd.valid()) {
    KLOG_E("Could not create a new archive file in \"%s\": %s", m_folder.c_str(),
           errnoText(error).c_str());
    closeDescriptors();
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  if (fstat(m_fd.get(), &m_new) != 0)
    remember(errno, "fstat");
  m_buffer.reserve(kBufferSize);
  m_position = 0;
  return 0;
}

bool CArchiveFile::isArchive(const struct stat& info) const {
  if (m_fd.valid() && SameFile(info, m_new))
    return true;
  return m_hadOld && SameFile(info, m_old);
}

ResultCode CArchiveFile::commit() {
  if (!m_fd.valid()) {
    KLOG_E("There is no archive file to commit.");
    return GLOBAL_ERROR_UNEXPECTED;
  }
  if (flush() && fsync(m_fd.get()) != 0)
    remember(errno, "fsync");
  if (m_error != 0) {
    KLOG_E("The archive \"%s\" was not written whole and is removed.", m_temporaryPath.c_str());
    discard();
    return GLOBAL_ERROR_UNEXPECTED;
  }
  // rename replaces a link at the path with the archive; it never writes
  // through it.
  if (renameat(m_folderFd.get(), m_temporaryName.c_str(), m_folderFd.get(), m_name.c_str()) != 0) {
    const int error = errno;
    KLOG_E("Could not rename \"%s\" to \"%s\" in \"%s\": %s", m_temporaryName.c_str(),
           m_name.c_str(), m_folder.c_str(), errnoText(error).c_str());
    discard();
    return GLOBAL_ERROR_UNEXPECTED;
  }
  CInterruptGuard::ForgetFile(m_temporaryPath);
  // The new name lasts a crash only once the folder is on disk as well; the
  // archive itself is whole either way.
  if (fsync(m_folderFd.get()) != 0) {
    const int error = errno;
    KLOG_W("Could not flush the folder \"%s\": %s", m_folder.c_str(), errnoText(error).c_str());
  }
  closeDescriptors();
  return 0;
}

void CArchiveFile::discard() {
  if (m_fd.valid())
    removeTemporary();
  closeDescriptors();
}

void CArchiveFile::removeTemporary() {
  if (unlinkat(m_folderFd.get(), m_temporaryName.c_str(), 0) != 0) {
    const int error = errno;
    KLOG_E("Could not remove the unfinished archive \"%s\": %s", m_temporaryPath.c_str(),
           errnoText(error).c_str());
  }
  CInterruptGuard::ForgetFile(m_temporaryPath);
}

void CArchiveFile::closeDescriptors() {
  m_fd.reset();
  m_folderFd.reset();
  m_buffer.clear();
  m_buffer.shrink_to_fit();
}

void CArchiveFile::remember(int error, const char* what) {
  if (m_error != 0)
    return;
  m_error = error != 0 ? error : EIO;
  KLOG_E("%s of the archive \"%s\" failed: %s", what, m_temporaryPath.c_str(),
         errnoText(m_error).c_str());
}

bool CArchiveFile::writeOut(const unsigned char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(m_fd.get(), data, size);
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0) {
      // A write that takes nothing and reports no error means no space.
      remember(written < 0 ? errno : ENOSPC, "write");
      return false;
    }
    data += written;
    size -= static_cast<size_t>(written);
    m_position += static_cast<unsigned long long>(written);
  }
  return true;
}

bool CArchiveFile::flush() {
  if (m_error != 0)
    return false;
  const bool written = writeOut(m_buffer.data(), m_buffer.size());
  m_buffer.clear();
  return written;
}

bool CArchiveFile::readAt(unsigned long long offset, void* data, size_t size) {
  if (!flush())
    return false;
  unsigned char* bytes = static_cast<unsigned char*>(data);
  while (size > 0) {
    const ssize_t count = pread(m_fd.get(), bytes, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0) {
      // Nothing where bytes were written: the file is not what was written.
      remember(count < 0 ? errno : EIO, "read");
      return false;
    }
    bytes += count;
    size -= static_cast<size_t>(count);
    offset += static_cast<unsigned long long>(count);
  }
  return true;
}

bool CArchiveFile::writeAt(unsigned long long offset, const void* data, size_t size) {
  if (!flush())
    return false;
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  while (size > 0) {
    const ssize_t count = pwrite(m_fd.get(), bytes, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0) {
      remember(count < 0 ? errno : ENOSPC, "write");
      return false;
    }
    bytes += count;
    size -= static_cast<size_t>(count);
    offset += static_cast<unsigned long long>(count);
  }
  return true;
}

bool CArchiveFile::replaceTail(unsigned long long offset, const void* data, size_t size) {
  if (!flush())
    return false;
  if (lseek(m_fd.get(), static_cast<off_t>(offset), SEEK_SET) < 0) {
    remember(errno, "lseek");
    return false;
  }
  m_position = offset;
  if (!writeOut(static_cast<const unsigned char*>(data), size))
    return false;
  if (ftruncate(m_fd.get(), static_cast<off_t>(m_position)) != 0) {
    remember(errno, "ftruncate");
    return false;
  }
  return true;
}

voidpf CArchiveFile::Open(voidpf opaque, const void* /*filename*/, int /*mode*/) {
  CArchiveFile* self = static_cast<CArchiveFile*>(opaque);
  return self->m_fd.valid() ? self : nullptr;
}

uLong CArchiveFile::Read(voidpf /*opaque*/, voidpf stream, void* buffer, uLong size) {
  CArchiveFile* self = static_cast<CArchiveFile*>(stream);
  if (!self->flush())
    return 0;
  ssize_t count;
  do {
    count = read(self->m_fd.get(), buffer, size);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    self->remember(errno, "read");
    return 0;
  }
  self->m_position += static_cast<unsigned long long>(count);
  return static_cast<uLong>(count);
}

uLong CArchiveFile::Write(voidpf /*opaque*/, voidpf stream, const void* buffer, uLong size) {
  CArchiveFile* self = static_cast<CArchiveFile*>(stream);
  if (self->m_error != 0)
    return 0;
  const unsigned char* data = static_cast<const unsigned char*>(buffer);
  if (self->m_buffer.size() + size > kBufferSize && !self->flush())
    return 0;
  if (size >= kBufferSize) {
    if (!self->writeOut(data, size))
      return 0;
    return size;
  }
  self->m_buffer.insert(self->m_buffer.end(), data, data + size);
  return size;
}

ZPOS64_T CArchiveFile::Tell(voidpf /*opaque*/, voidpf stream) {
  const CArchiveFile* self = static_cast<CArchiveFile*>(stream);
  return self->m_position + self->m_buffer.size();
}

long CArchiveFile::Seek(voidpf /*opaque*/, voidpf stream, ZPOS64_T offset, int origin) {
  CArchiveFile* self = static_cast<CArchiveFile*>(stream);
  if (!self->flush())
    return -1;
  int whence;
  switch (origin) {
    case ZLIB_FILEFUNC_SEEK_SET:
      whence = SEEK_SET;
      break;
    case ZLIB_FILEFUNC_SEEK_CUR:
      whence = SEEK_CUR;
      break;
    case ZLIB_FILEFUNC_SEEK_END:
      whence = SEEK_END;
      break;
    default:
      return -1;
  }
  const off_t position = lseek(self->m_fd.get(), static_cast<off_t>(offset), whence);
  if (position < 0) {
    self->remember(errno, "lseek");
    return -1;
  }
  self->m_position = static_cast<unsigned long long>(position);
  return 0;
}

int CArchiveFile::Close(voidpf /*opaque*/, voidpf /*stream*/) {
  // The descriptor stays open until commit() or discard(): the data is
  // flushed to disk there, and only then renamed.
  return 0;
}

int CArchiveFile::TestError(voidpf /*opaque*/, voidpf stream) {
  return static_cast<CArchiveFile*>(stream)->m_error;
}
