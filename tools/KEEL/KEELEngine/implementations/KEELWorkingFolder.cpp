#include "tools/KEEL/KEELEngine/implementations/KEELWorkingFolder.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/InterruptGuard.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/TreeRemoval.h"
#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

namespace {

// Opens `path` as a folder without following a link, and takes the run's
// lock on it without waiting. -1 when it is no folder or the lock is held.
int OpenAndLock(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0)
    return -1;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Whether `fd` is still the folder that `path` names, and the running
// user's.
bool StillOurs(int fd, const std::string& path) {
  struct stat opened;
  struct stat named;
  return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 && S_ISDIR(named.st_mode) &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino &&
         opened.st_uid == geteuid();
}

// The folder part of `path` ("." when it has none) and its last component.
void SplitPath(const std::string& path, std::string* folder, std::string* name) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    *folder = ".";
    *name = path;
    return;
  }
  *folder = slash == 0 ? "/" : path.substr(0, slash);
  *name = path.substr(slash + 1);
}

}  // namespace

KEELWorkingFolder::KEELWorkingFolder(const std::string& plainName) : m_plainName(plainName) {}

KEELWorkingFolder::~KEELWorkingFolder() {
  if (m_lockFd >= 0)
    close(m_lockFd);
  if (!m_path.empty())
    CInterruptGuard::ForgetFolder(m_path);
}

ResultCode KEELWorkingFolder::clearPlainName() {
  struct stat info;
  if (lstat(m_plainName.c_str(), &info) != 0) {
    // Missing: reported as the delete reports it.
    return helperUtil::fileDeleteDirectory(m_plainName);
  }
  if (!S_ISDIR(info.st_mode) || info.st_uid != geteuid()) {
    KLOG_W("Not clearing \"%s\": it is not a folder of this user", m_plainName.c_str());
    return KEELENGINE_ERROR_ACCESS_DENIED;
  }
  const int fd = OpenAndLock(m_plainName);
  if (fd < 0) {
    KLOG_W("Not clearing \"%s\": another run works in it", m_plainName.c_str());
    return KEELENGINE_ERROR_ACCESS_DENIED;
  }
  ResultCode result = KEELENGINE_ERROR_ACCESS_DENIED;
  if (StillOurs(fd, m_plainName))
    result = helperUtil::fileDeleteDirectory(m_plainName);
  close(fd);
  return result;
}

ResultCode KEELWorkingFolder::make(bool tryPlainName) {
  for (int attempt = 0; attempt <= kMaxFreshNames + kMaxRandomNames; ++attempt) {
    if (attempt == 0 && !tryPlainName)
      continue;
    // Every fresh name can be made in advance by whoever watches the
    // clock; a random name cannot.
    const bool random = attempt > kMaxFreshNames;
    const std::string candidate =
        attempt == 0 ? m_plainName : (random ? randomName() : freshName());
    switch (makeUnder(candidate)) {
      case Attempt::kMade:
        m_path = candidate;
        m_tookRandomName = random;
        return 0;
      case Attempt::kTaken:
        KLOG_W("\"%s\" exists already; taking another name", candidate.c_str());
        break;
      case Attempt::kFailed:
        return KEELENGINE_ERROR_ACCESS_DENIED;
    }
  }
  KLOG_E("No working folder after %d fresh and %d random names", kMaxFreshNames, kMaxRandomNames);
  return KEELENGINE_ERROR_ACCESS_DENIED;
}

KEELWorkingFolder::Attempt KEELWorkingFolder::makeUnder(const std::string& candidate) {
  // A name that exists, as whatever and whoever's, is never adopted: only a
  // folder this call made is known to be private and unwatched.
  int error = 0;
  {
    CInterruptGuard::Hold hold;
    if (mkdir(candidate.c_str(), 0700) == 0)
      CInterruptGuard::TrackFolder(candidate);
    else
      error = errno;
  }
  if (error == EEXIST)
    return Attempt::kTaken;
  if (error != 0) {
    KLOG_RC(LOG_LEVEL_E, "mkdir", static_cast<ResultCode>(error));
    return Attempt::kFailed;
  }
  const int fd = OpenAndLock(candidate);
  // Another run clearing the plain name may have locked or removed it in
  // the instant since it was made; then it is theirs to deal with.
  if (fd < 0 || !StillOurs(fd, candidate)) {
    if (fd >= 0)
      close(fd);
    CInterruptGuard::ForgetFolder(candidate);
    return Attempt::kTaken;
  }
  // The umask may have taken bits the run itself needs.
  if (fchmod(fd, 0700) != 0)
    KLOG_RC(LOG_LEVEL_W, "fchmod", static_cast<ResultCode>(errno));
  if (m_lockFd >= 0)
    close(m_lockFd);
  m_lockFd = fd;
  return Attempt::kMade;
}

std::string KEELWorkingFolder::freshName() const {
  return m_plainName + "_" + getTimeNowString(1) + "_" + std::to_string(helperUtil::randomNumber());
}

std::string KEELWorkingFolder::randomName() const {
  static std::random_device source;
  const uint64_t bits = (static_cast<uint64_t>(source()) << 32) ^ source();
  char suffix[17];
  snprintf(suffix, sizeof(suffix), "%016llx", static_cast<unsigned long long>(bits));
  return m_plainName + "_" + suffix;
}

bool KEELWorkingFolder::remove() {
  if (m_path.empty())
    return true;
  // The lock is still held: no run starting now takes this folder for a
  // leftover of its own to clear.
  if (!RemoveTree(m_path)) {
    KLOG_E("Could not remove the working folder \"%s\"", m_path.c_str());
    return false;
  }
  CInterruptGuard::ForgetFolder(m_path);
  return true;
}

bool KEELWorkingFolder::isWorkingFolderName(const std::string& plainBase, const std::string& name) {
  return name == plainBase ||
         (name.size() > plainBase.size() + 1 && name.compare(0, plainBase.size(), plainBase) == 0 &&
          name[plainBase.size()] == '_');
}

int KEELWorkingFolder::removeLeftovers() {
  std::string folder;
  std::string plainBase;
  SplitPath(m_plainName, &folder, &plainBase);
  ScopedFd parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent.valid()) {
    KLOG_RC(LOG_LEVEL_W, "open", static_cast<ResultCode>(errno));
    return 0;
  }
  int alive = 0;
  for (const std::string& name : NamesInFolder(parent.get())) {
    if (name == plainBase || !isWorkingFolderName(plainBase, name))
      continue;
    struct stat named;
    if (fstatat(parent.get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(named.st_mode) || named.st_uid != geteuid())
      continue;
    ScopedFd held(
        openat(parent.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!held.valid())
      continue;
    if (flock(held.get(), LOCK_EX | LOCK_NB) != 0) {
      ++alive;
      continue;
    }
    struct stat opened;
    if (fstat(held.get(), &opened) != 0 || opened.st_dev != named.st_dev ||
        opened.st_ino != named.st_ino)
      continue;
    // Removed while locked, so that no run starting meanwhile adopts it.
    if (RemoveTreeAt(parent.get(), name))
      KLOG_I("Removed \"%s/%s\", left by a run that is gone", folder.c_str(), name.c_str());
    else
      KLOG_W("Could not remove \"%s/%s\", left by a run that is gone", folder.c_str(),
             name.c_str());
  }
  return alive;
}
