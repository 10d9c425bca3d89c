// A private folder for fuzzers that write a file per input.
//
// The folder is made below /tmp and, where the process may have a mount
// namespace of its own, covered by a tmpfs that only this process sees, so
// that rewriting the file every input stays in memory rather than waiting
// on the disk. Removed at exit.
#ifndef FUZZ_SCRATCHFOLDER_H_
#define FUZZ_SCRATCHFOLDER_H_

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzzscratch {

inline void Check(bool condition) {
  if (!condition)
    __builtin_trap();
}

struct Scratch {
  std::string root;  // no trailing "/"
  bool mounted = false;
  std::vector<std::string> files;    // removed at exit
  std::vector<std::string> folders;  // removed at exit, last first
};

inline Scratch& TheScratch() {
  static Scratch* scratch = new Scratch();  // outlives every atexit handler
  return *scratch;
}

inline void RemoveScratch() {
  Scratch& scratch = TheScratch();
  for (const std::string& file : scratch.files)
    unlink(file.c_str());
  for (auto it = scratch.folders.rbegin(); it != scratch.folders.rend(); ++it)
    rmdir(it->c_str());
  if (scratch.mounted)
    umount2(scratch.root.c_str(), MNT_DETACH);
  rmdir(scratch.root.c_str());
}

// Makes the folder once and returns it.
inline const std::string& ScratchRoot(const char* prefix) {
  Scratch& scratch = TheScratch();
  if (!scratch.root.empty())
    return scratch.root;
  std::string pattern = std::string("/tmp/") + prefix + "_XXXXXX";
  Check(mkdtemp(&pattern[0]) != nullptr);
  scratch.root = pattern;
  scratch.mounted = unshare(CLONE_NEWNS) == 0 &&
                    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    mount("tmpfs", scratch.root.c_str(), "tmpfs", 0, "size=16m,mode=0700") == 0;
  atexit(RemoveScratch);
  return scratch.root;
}

// Makes `relative` below the root.
inline std::string MakeFolder(const std::string& relative) {
  const std::string path = TheScratch().root + "/" + relative;
  Check(mkdir(path.c_str(), 0700) == 0);
  TheScratch().folders.push_back(path);
  return path;
}

// Registers `path` for removal at exit.
inline void RemoveAtExit(const std::string& path) {
  TheScratch().files.push_back(path);
}

// Replaces the content of `path` with the bytes given.
inline void WriteWhole(const std::string& path, const uint8_t* data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Check(fd >= 0);
  size_t written = 0;
  while (written < size) {
    const ssize_t step = write(fd, data + written, size - written);
    Check(step > 0);
    written += static_cast<size_t>(step);
  }
  close(fd);
}

}  // namespace fuzzscratch

#endif  // FUZZ_SCRATCHFOLDER_H_
