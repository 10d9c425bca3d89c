#include "Common/Utility/TreeRemoval.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "Common/Utility/ScopedHandles.h"

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

using FileKey = std::pair<dev_t, ino_t>;

FileKey KeyOf(const struct stat& info) {
  return FileKey(info.st_dev, info.st_ino);
}

// One folder on the way down: its name in its parent, who it is, and the
// sub-folders of it still to be emptied.
struct Level {
  std::string name;
  FileKey key;
  std::vector<std::string> pending;
};

// Unlinks what in the folder at `fd` is no folder, and lists its
// sub-folders on the file system `device` in `level`.
void EmptyFiles(int fd, dev_t device, Level& level) {
  for (const std::string& name : NamesInFolder(fd)) {
    struct stat info;
    if (fstatat(fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
      continue;
    if (!S_ISDIR(info.st_mode)) {
      unlinkat(fd, name.c_str(), 0);
      continue;
    }
    if (info.st_dev == device)
      level.pending.push_back(name);
  }
}

// Opens the sub-folder `name` of `fd`, never through a link and never onto
// another file system.
int OpenSubFolder(int fd, const std::string& name, dev_t device, struct stat* info) {
  const int child = openat(fd, name.c_str(), kFolderFlags);
  if (child < 0)
    return -1;
  if (fstat(child, info) != 0 || info->st_dev != device) {
    close(child);
    return -1;
  }
  return child;
}

// Empties the folder open at `top` (itself known as `topKey`) and every
// folder below it.
void EmptyTree(ScopedFd top, const FileKey& topKey) {
  const dev_t device = topKey.first;
  std::vector<Level> path;
  path.push_back(Level{std::string(), topKey, {}});
  ScopedFd current(std::move(top));
  EmptyFiles(current.get(), device, path.back());
  while (!path.empty()) {
    Level& level = path.back();
    if (!level.pending.empty()) {
      const std::string name = level.pending.back();
      level.pending.pop_back();
      struct stat info;
      const int child = OpenSubFolder(current.get(), name, device, &info);
      if (child < 0)
        continue;
      current.reset(child);
      path.push_back(Level{name, KeyOf(info), {}});
      EmptyFiles(current.get(), device, path.back());
      continue;
    }
    if (path.size() == 1)
      return;
    // Back up one level: ".." must be the folder this one was entered from.
    const Level done = std::move(path.back());
    path.pop_back();
    ScopedFd up(openat(current.get(), "..", kFolderFlags));
    struct stat upInfo;
    if (!up.valid() || fstat(up.get(), &upInfo) != 0 || KeyOf(upInfo) != path.back().key)
      return;
    current = std::move(up);
    // A folder that is not empty after all (a mount below it, an entry
    // that would not go, or one added meanwhile) stays; each folder is
    // listed once, so the walk ends.
    unlinkat(current.get(), done.name.c_str(), AT_REMOVEDIR);
  }
}

}  // namespace

std::vector<std::string> NamesInFolder(int folderFd) {
  std::vector<std::string> names;
  // The listing reads through a descriptor of its own: the caller's keeps
  // its position, and closing the listing does not close it.
  const int listFd = openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (listFd < 0)
    return names;
  DirHandle dir(fdopendir(listFd));
  if (!dir) {
    close(listFd);
    return names;
  }
  while (struct dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..")
      names.push_back(name);
  }
  return names;
}

bool RemoveTreeAt(int folderFd, const std::string& name) {
  struct stat info;
  if (fstatat(folderFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT;
  if (!S_ISDIR(info.st_mode))
    return unlinkat(folderFd, name.c_str(), 0) == 0 || errno == ENOENT;
  ScopedFd top(openat(folderFd, name.c_str(), kFolderFlags));
  struct stat opened;
  if (!top.valid() || fstat(top.get(), &opened) != 0 || KeyOf(opened) != KeyOf(info))
    return false;
  EmptyTree(std::move(top), KeyOf(info));
  return unlinkat(folderFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT;
}

bool RemoveTree(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/')
    trimmed.pop_back();
  const size_t slash = trimmed.rfind('/');
  const std::string parent =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : trimmed.substr(0, slash));
  const std::string name = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
  if (name.empty() || name == "." || name == "..")
    return false;
  ScopedFd folder(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid())
    return errno == ENOENT;
  return RemoveTreeAt(folder.get(), name);
}
