// ProgramOutputFile: the file a shell-form command's standard output is
// appended to, opened, written and removed the way a root run must.
//
// The file's path comes from an instruction and may lie in a folder that
// other users can write (/tmp). So it is never opened by path: its folder
// is opened through TrustedPath, and the file inside it with O_NOFOLLOW.
// A file that stands there already is appended to only when it is a
// regular file of the running user, with one name, that no other user can
// write (what an earlier command of the run made, or a file the instruction
// keeps for the purpose); otherwise a new file is made with mode 0600. A
// planted link, a FIFO, a second name of another file, a file of another
// user or one others may write is refused, and the command's output is lost
// with a reason rather than handed to them.
//
// Every write goes through one descriptor and is checked, and so is the
// close: output that could not be written whole (a full disk) is reported
// with the system's words, and the cut file is removed, never passed off
// as whole.
//
// One object serves one command on one thread. remove() is thread-safe.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PROGRAMOUTPUTFILE_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PROGRAMOUTPUTFILE_H_

#include <sys/stat.h>

#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "Common/Utility/ScopedHandles.h"

class ProgramOutputFile {
 public:
  ProgramOutputFile();
  ~ProgramOutputFile();
  ProgramOutputFile(const ProgramOutputFile&) = delete;
  ProgramOutputFile& operator=(const ProgramOutputFile&) = delete;

  // Opens `path` for appending, making it when it is not there. False,
  // with the reason in failure(), when it is refused or can't be opened;
  // the stream then takes and drops whatever is written to it.
  bool open(const std::string& path);

  // What the command's output is written to. A failed write is kept, and
  // every later write to the stream fails.
  std::ostream& stream() { return m_stream; }

  // Writes out what is buffered and closes the file. False, with the
  // reason in failure(), when any write or the close failed; the file is
  // then removed, since it holds only part of what was written.
  bool close();

  // Why the output did not reach the file whole; empty while it did.
  const std::string& failure() const { return m_failure; }

  // Removes the output file `path` once it was copied: through its
  // trusted folder, and only a regular file (a link put there in its
  // place is left alone). A file that is gone counts as removed.
  static void remove(const std::string& path);

 private:
  // The stream's buffer: writes through the descriptor, keeps the errno
  // of the first failure and fails every write after it.
  class Buffer : public std::streambuf {
   public:
    Buffer();
    void attach(int fd) { m_fd = fd; }
    // Writes out what is buffered; false on a failure, now or before.
    bool drain();
    int error() const { return m_error; }

   protected:
    int_type overflow(int_type ch) override;
    int sync() override;

   private:
    bool writeAll(const char* data, size_t size);

    std::vector<char> m_space;
    int m_fd = -1;
    int m_error = 0;
  };

  void fail(const std::string& what, int error);
  void removeCut();

  Buffer m_buffer;
  std::ostream m_stream;
  ScopedFd m_folder;  // the folder of the file; its name is m_leaf there
  ScopedFd m_fd;
  std::string m_leaf;
  struct stat m_info {};
  std::string m_failure;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PROGRAMOUTPUTFILE_H_
