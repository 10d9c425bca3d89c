// CEntrySource: the file behind one archive entry, opened once and read
// whole.
//
// An entry must hold every byte its file had when it was opened, or the
// archive must not be made: an empty or cut entry in a bundle that counts as
// made would pass for the file's real content. So a file that can't be
// opened (a missing file, no descriptor left), that is no regular file, or
// that can't be read to the size it had at open gives a failure, logged
// here, and never a short entry. Reading stops at that size, so a file that
// grows meanwhile can't outgrow the zip64 decision made from it (see
// ZipEntryNeedsZip64) nor keep the archive growing.
//
// The file is opened without following a link and without blocking, so a
// FIFO put in a file's place fails at once instead of holding the run.
//
// One object serves one entry on one thread.
#ifndef COMMON_ZIP_ENTRYSOURCE_H_
#define COMMON_ZIP_ENTRYSOURCE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/Utility/ScopedHandles.h"

class CEntrySource {
 public:
  CEntrySource() = default;
  CEntrySource(const CEntrySource&) = delete;
  CEntrySource& operator=(const CEntrySource&) = delete;

  // Opens `path`; false, logged, when it can't be opened or is no regular
  // file.
  bool open(const std::string& path);

  // The size at open: the number of bytes the entry gets.
  uint64_t size() const { return m_size; }

  // Reads the next block into `buffer`: `capacity` bytes while that many
  // are left, then what is left, then 0. False, logged, on a read failure or
  // when the file ends before its size at open.
  bool read(unsigned char* buffer, size_t capacity, size_t* count);

  // Starts again from the first byte; false, logged, on failure.
  bool rewind();

 private:
  bool fail(const char* what, int error);

  ScopedFd m_fd;
  std::string m_path;
  uint64_t m_size = 0;
  uint64_t m_done = 0;  // bytes handed out since open or rewind
};

#endif  // COMMON_ZIP_ENTRYSOURCE_H_
