#include "Common/Utility/DeviceID.h"

#include <dirent.h>
#include <errno.h>
#include <mntent.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"

namespace {

// Room for one line of the mount table; longer lines are cut by the C library.
constexpr size_t kMountLineSize = 8192;

bool HasSlash(const std::string& text) {
  return text.find('/') != std::string::npos;
}

// What follows the last "/", or the empty string when there is no "/".
std::string AfterLastSlash(const std::string& text) {
  const size_t slash = text.rfind('/');
  if (slash == std::string::npos)
    return std::string();
  return text.substr(slash + 1);
}

}  // namespace

std::string getTargetPath(const std::string& path) {
  if (path.empty())
    return std::string();

  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    KLOG_E("lstat error %s", strerror(errno));
    return std::string();
  }
  if ((info.st_mode & S_IFMT) != S_IFLNK) {
    KLOG_E("%s is not a link", path.c_str());
    return std::string();
  }

  // st_size of a link is the length of its target, without a terminator.
  const size_t size = static_cast<size_t>(info.st_size);
  std::vector<char> target(size + 1, '\0');
  const ssize_t copied = readlink(path.c_str(), target.data(), target.size());
  if (copied < 0) {
    KLOG_E("::readlink error %s", strerror(errno));
    return std::string();
  }
  // The link may have changed since lstat; never take more than was read.
  const size_t length = static_cast<size_t>(copied) < size ? static_cast<size_t>(copied) : size;
  return std::string(target.data(), length);
}

std::string getDeviceNameForRoot(const HostPaths& paths) {
  // endmntent only closes the stream, as the owner does.
  FileHandle table(setmntent(paths.mountTable.c_str(), "r"));
  if (!table) {
    KLOG_E("setmntent error");
    return std::string();
  }

  // A pseudo entry such as "rootfs / rootfs" may come first; it is kept only
  // until an entry for "/" names a real device path, and the first such wins.
  std::string device;
  std::vector<char> line(kMountLineSize);
  struct mntent entry;
  while (getmntent_r(table.get(), &entry, line.data(), static_cast<int>(line.size())) != nullptr) {
    if (strcmp(entry.mnt_dir, "/") != 0)
      continue;
    if (device.empty() || !HasSlash(device))
      device = entry.mnt_fsname;
    if (HasSlash(device))
      break;
  }
  table.reset();

  if (HasSlash(device)) {
    // Device-mapper and similar roots are links such as vg-root -> ../dm-0;
    // the by-uuid links point at the final node, so follow one level.
    std::string target = getTargetPath(device);
    if (!target.empty())
      device.swap(target);
  }
  return AfterLastSlash(device);
}

bool GetDeviceID(std::string& id, const HostPaths& paths) {
  id.clear();

  const std::string root = getDeviceNameForRoot(paths);
  if (root.empty()) {
    KLOG_E("Unable to find root device name");
    return false;
  }

  DirHandle folder(opendir(paths.byUuidFolder.c_str()));
  if (!folder)
    return false;

  // Directory order, unsorted: with two links to the root, the first seen wins.
  while (const dirent* entry = readdir(folder.get())) {
    if (entry->d_type != DT_LNK)
      continue;
    const std::string target = getTargetPath(paths.byUuidFolder + "/" + entry->d_name);
    if (!HasSlash(target))
      continue;
    if (AfterLastSlash(target) == root) {
      id = entry->d_name;
      break;
    }
  }
  return !id.empty();
}
