// CArchiveFile: the file an archive is built in, and its move onto the
// archive's path once the archive is whole.
//
// Two things go wrong when an archive is written straight to its path. The
// path may be a symbolic link that another user planted (in /tmp, or in a
// folder that user can write), and a process running as root would then
// overwrite whatever file the link names. And when the disk fills while the
// archive is written, a cut archive stays at the path, where it passes for a
// bundle. So the archive is built in a new file of its own, made exclusively
// (never through an existing name or link, mode 0600) in the folder of the
// path, and renamed onto the path only when every write went out and the
// data reached the disk. The rename replaces whatever is at the path, a
// link included, and never follows it. Any failure removes the new file and
// leaves the path as it was.
//
// minizip writes through fileFunctions(): those functions write through the
// descriptor with a buffer of our own, so no failed write, seek or flush can
// go unnoticed (a stdio stream may report a full disk only at fclose, which
// minizip's zipClose does not look at).
//
// While the new file exists it is registered with CInterruptGuard, so that
// a signal that ends the run unlinks it too.
//
// One object serves one archive on one thread: the thread that created it
// calls minizip, commit() and discard(). The destructor discards a file that
// was not committed.
#ifndef COMMON_ZIP_ARCHIVEFILE_H_
#define COMMON_ZIP_ARCHIVEFILE_H_

#include <minizip/ioapi.h>
#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"
#include "Common/Utility/ScopedHandles.h"

class CArchiveFile {
 public:
  // The size of the write buffer.
  static constexpr size_t kBufferSize = 64 * 1024;

  CArchiveFile();
  ~CArchiveFile();
  CArchiveFile(const CArchiveFile&) = delete;
  CArchiveFile& operator=(const CArchiveFile&) = delete;

  // Makes the new file in the folder of `path` (the current folder when
  // `path` has no "/"). GLOBAL_ERROR_BAD_PARAMETER, logged, when `path` names
  // no file or the folder can't be opened or written.
  ResultCode create(const std::string& path);

  // The functions minizip writes the archive through (zipOpen2_64). Their
  // stream is this object; they are valid until commit() or discard().
  zlib_filefunc64_def* fileFunctions() { return &m_functions; }

  // The path of the new file while it exists (empty before create()).
  const std::string& temporaryPath() const { return m_temporaryPath; }

  // Whether `info` describes the new file, or the file that stood at the
  // archive's path when create() was called: neither belongs in the archive.
  bool isArchive(const struct stat& info) const;

  // The offset the next write through fileFunctions() goes to.
  unsigned long long position() const { return m_position + m_buffer.size(); }

  // Reads `size` bytes at `offset` of what was written; false, logged and
  // remembered as a failure, when they can't all be read.
  bool readAt(unsigned long long offset, void* data, size_t size);

  // Writes `size` bytes over what was written at `offset`, leaving the
  // position of the next write as it was; false, logged and remembered, on
  // failure.
  bool writeAt(unsigned long long offset, const void* data, size_t size);

  // Writes `size` bytes at `offset` and ends the file after them (for the
  // archive's end records, once minizip has closed it); false, logged and
  // remembered, on failure.
  bool replaceTail(unsigned long long offset, const void* data, size_t size);

  // Whether a write, seek or flush has failed so far.
  bool failed() const { return m_error != 0; }

  // Writes out the buffer, flushes the data to disk and renames the file
  // onto the archive's path. Refuses (and discards) when any earlier write
  // failed. GLOBAL_ERROR_UNEXPECTED, logged, on any failure.
  ResultCode commit();

  // Unlinks the unfinished file. Safe to call more than once.
  void discard();

 private:
  static voidpf Open(voidpf opaque, const void* filename, int mode);
  static uLong Read(voidpf opaque, voidpf stream, void* buffer, uLong size);
  static uLong Write(voidpf opaque, voidpf stream, const void* buffer, uLong size);
  static ZPOS64_T Tell(voidpf opaque, voidpf stream);
  static long Seek(voidpf opaque, voidpf stream, ZPOS64_T offset, int origin);
  static int Close(voidpf opaque, voidpf stream);
  static int TestError(voidpf opaque, voidpf stream);

  bool flush();
  bool writeOut(const unsigned char* data, size_t size);
  void remember(int error, const char* what);
  // Unlinks the new file by name and forgets it.
  void removeTemporary();
  void closeDescriptors();

  zlib_filefunc64_def m_functions;
  ScopedFd m_folderFd;  // the archive's folder; every name below is relative to it
  ScopedFd m_fd;        // the new file
  std::string m_folder;
  std::string m_name;           // the archive's name in its folder
  std::string m_temporaryName;  // the new file's name in the same folder
  std::string m_temporaryPath;  // m_folder + "/" + m_temporaryName, for the log and the guard
  bool m_hadOld = false;        // a regular file stood at the archive's path
  struct stat m_old;
  struct stat m_new;
  std::vector<unsigned char> m_buffer;
  unsigned long long m_position = 0;  // file offset of the buffer's first byte
  int m_error = 0;                    // errno of the first failure, or 0
};

#endif  // COMMON_ZIP_ARCHIVEFILE_H_
