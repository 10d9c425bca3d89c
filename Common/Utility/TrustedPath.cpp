// The walk of TrustedPath: one component at a time from an opened folder,
// with the rule of TrustedPath.h applied at each step.
#include "Common/Utility/TrustedPath.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <utility>
#include <vector>

#include "Common/Utility/sysutils.h"

namespace {

constexpr int kMaxLinks = 40;

// A folder the walk has passed: the bottom one may be the caller's
// descriptor (not owned), every other one is owned by the walk.
struct PassedFolder {
  int fd = -1;
  ScopedFd owned;
  struct stat info {};
};

void SplitInto(const std::string& path, std::deque<std::string>& out) {
  std::vector<std::string> names;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos)
      end = path.size();
    if (end > start)
      names.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  // Put in front of what is still to walk, in their order.
  for (auto it = names.rbegin(); it != names.rend(); ++it)
    out.push_front(*it);
}

std::string Quoted(const std::string& name) {
  return "\"" + name + "\"";
}

const char* KindName(mode_t mode) {
  if (S_ISDIR(mode))
    return "a folder";
  if (S_ISFIFO(mode))
    return "a FIFO";
  if (S_ISSOCK(mode))
    return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode))
    return "a device";
  if (S_ISLNK(mode))
    return "a symbolic link";
  return "not a regular file";
}

// One walk: its folders, the user who steers it and the links followed.
class Walk {
 public:
  Walk(TrustedKind kind, uid_t steeringUser) : m_kind(kind), m_steering(steeringUser) {}

  // Starts at "/" (checked as a folder passed) or at `fd`, not owned.
  bool startAtRoot();
  void startAt(int fd);

  TrustedPathResult run(const std::string& path);

 private:
  bool refuse(int error, const std::string& reason);
  bool refuseSystem(int error) { return refuse(error, errnoText(error)); }
  // The steering rule for one component, refused in words when broken.
  bool mayUse(const std::string& name, const struct stat& info);
  // The checks of a folder or link owned by `info` while m_steering steers;
  // takes the owner as steering user when root steered so far.
  bool pass(const std::string& name, const struct stat& info);
  bool goUp();
  bool step(const std::string& name, bool last);
  bool followLink(const std::string& name, int linkFd, const struct stat& info);
  bool finish(const std::string& name, ScopedFd pathFd, const struct stat& info);

  int top() const { return m_folders.back().fd; }

  TrustedKind m_kind;
  uid_t m_steering;
  int m_links = 0;
  std::vector<PassedFolder> m_folders;
  std::deque<std::string> m_pending;
  TrustedPathResult m_result;
};

bool Walk::refuse(int error, const std::string& reason) {
  m_result.fd.reset();
  m_result.error = error;
  m_result.reason = reason;
  return false;
}

bool Walk::mayUse(const std::string& name, const struct stat& info) {
  if (TrustedPath::mayUse(m_steering, info.st_uid, info.st_mode))
    return true;
  return refuse(EPERM, Quoted(name) + " belongs to uid " + std::to_string(info.st_uid) +
                           " but is reached through a folder or link of uid " +
                           std::to_string(m_steering));
}

bool Walk::pass(const std::string& name, const struct stat& info) {
  if (!mayUse(name, info))
    return false;
  if (m_steering == 0)
    m_steering = info.st_uid;
  return true;
}

bool Walk::startAtRoot() {
  PassedFolder root;
  root.owned.reset(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root.owned.valid() || fstat(root.owned.get(), &root.info) != 0)
    return refuseSystem(errno);
  if (!pass("/", root.info))
    return false;
  root.fd = root.owned.get();
  m_folders.clear();
  m_folders.push_back(std::move(root));
  return true;
}

void Walk::startAt(int fd) {
  PassedFolder start;
  start.fd = fd;
  fstatat(fd, "", &start.info, AT_EMPTY_PATH);
  m_folders.push_back(std::move(start));
}

// Back to the folder passed before; above the first one, its real parent.
bool Walk::goUp() {
  if (m_folders.size() > 1) {
    m_folders.pop_back();
    return pass("..", m_folders.back().info);
  }
  PassedFolder parent;
  parent.owned.reset(openat(top(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!parent.owned.valid() || fstat(parent.owned.get(), &parent.info) != 0)
    return refuseSystem(errno);
  if (!pass("..", parent.info))
    return false;
  parent.fd = parent.owned.get();
  m_folders.back() = std::move(parent);
  return true;
}

bool Walk::followLink(const std::string& name, int linkFd, const struct stat& info) {
  const struct stat& folder = m_folders.back().info;
  if (info.st_uid != 0 && info.st_uid != folder.st_uid) {
    return refuse(ELOOP, "symbolic link " + Quoted(name) + " of uid " +
                             std::to_string(info.st_uid) + " in a folder of uid " +
                             std::to_string(folder.st_uid) + " is not followed");
  }
  if (!pass(name, info))
    return false;
  if (++m_links > kMaxLinks)
    return refuse(ELOOP, "more than " + std::to_string(kMaxLinks) + " symbolic links on the way");
  // Read from the descriptor of the link that was checked, not by name.
  char target[PATH_MAX + 1];
  const ssize_t length = readlinkat(linkFd, "", target, sizeof(target));
  if (length < 0)
    return refuseSystem(errno);
  if (length == 0)
    return refuseSystem(ENOENT);
  if (static_cast<size_t>(length) >= sizeof(target))
    return refuseSystem(ENAMETOOLONG);
  const std::string text(target, static_cast<size_t>(length));
  SplitInto(text, m_pending);
  if (text[0] == '/')
    return startAtRoot();
  return true;
}

bool Walk::finish(const std::string& name, ScopedFd pathFd, const struct stat& info) {
  if (S_ISDIR(info.st_mode)) {
    if (m_kind == TrustedKind::kFile)
      return refuse(EINVAL, Quoted(name) + " is a folder, not a regular file");
    if (!pass(name, info))
      return false;
    if (m_kind == TrustedKind::kAny) {
      m_result.fd = std::move(pathFd);
    } else {
      m_result.fd.reset(openat(pathFd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (!m_result.fd.valid())
        return refuseSystem(errno);
    }
  } else {
    if (!mayUse(name, info))
      return false;
    if (m_kind == TrustedKind::kFolder)
      return refuseSystem(ENOTDIR);
    if (m_kind == TrustedKind::kAny) {
      m_result.fd = std::move(pathFd);
    } else {
      if (!S_ISREG(info.st_mode))
        return refuse(EINVAL,
                      Quoted(name) + " is " + KindName(info.st_mode) + ", not a regular file");
      // O_NONBLOCK: should a FIFO be swapped in after the check, opening it
      // returns at once, and the inode test below refuses it.
      m_result.fd.reset(
          openat(top(), name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
      if (!m_result.fd.valid())
        return refuseSystem(errno);
    }
  }
  if (fstat(m_result.fd.get(), &m_result.info) != 0)
    return refuseSystem(errno);
  if (m_result.info.st_dev != info.st_dev || m_result.info.st_ino != info.st_ino)
    return refuse(EAGAIN, Quoted(name) + " was replaced while it was being opened");
  m_result.steeringUser = m_steering;
  return true;
}

bool Walk::step(const std::string& name, bool last) {
  ScopedFd fd(openat(top(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat info {};
  if (!fd.valid() || fstat(fd.get(), &info) != 0)
    return refuseSystem(errno);
  if (S_ISLNK(info.st_mode))
    return followLink(name, fd.get(), info);
  if (last)
    return finish(name, std::move(fd), info);
  if (!S_ISDIR(info.st_mode))
    return refuseSystem(ENOTDIR);
  if (!pass(name, info))
    return false;
  PassedFolder folder;
  folder.fd = fd.get();
  folder.owned = std::move(fd);
  folder.info = info;
  m_folders.push_back(std::move(folder));
  return true;
}

TrustedPathResult Walk::run(const std::string& path) {
  if (!m_result.reason.empty())  // the start was refused
    return std::move(m_result);
  SplitInto(path, m_pending);
  bool going = true;
  while (going && !m_pending.empty()) {
    const std::string name = std::move(m_pending.front());
    m_pending.pop_front();
    if (name == ".")
      continue;
    if (name == "..") {
      going = goUp();
      continue;
    }
    going = step(name, m_pending.empty());
  }
  if (!going)
    return std::move(m_result);
  if (!m_result.fd.valid()) {
    // The path ended in a folder reached by "." or ".." (or named none):
    // that folder is the result.
    if (m_kind == TrustedKind::kFile) {
      refuse(EINVAL, Quoted(path) + " is a folder, not a regular file");
      return std::move(m_result);
    }
    const int flags = m_kind == TrustedKind::kAny ? O_PATH : O_RDONLY | O_DIRECTORY;
    m_result.fd.reset(openat(top(), ".", flags | O_CLOEXEC));
    if (!m_result.fd.valid() || fstat(m_result.fd.get(), &m_result.info) != 0) {
      refuseSystem(errno);
      return std::move(m_result);
    }
    m_result.steeringUser = m_steering;
  }
  return std::move(m_result);
}

}  // namespace

TrustedPathResult TrustedPath::open(const std::string& path, TrustedKind kind) {
  if (path.empty()) {
    TrustedPathResult refused;
    refused.error = ENOENT;
    refused.reason = errnoText(ENOENT);
    return refused;
  }
  Walk walk(kind, 0);
  if (path[0] == '/')
    walk.startAtRoot();
  else
    walk.startAt(AT_FDCWD);
  return walk.run(path);
}

TrustedPathResult TrustedPath::openAt(int folder, uid_t steeringUser, const std::string& path,
                                      TrustedKind kind) {
  Walk walk(kind, steeringUser);
  walk.startAt(folder);
  return walk.run(path);
}

TrustedPathResult TrustedPath::openFolder(const std::string& path) {
  return open(path, TrustedKind::kFolder);
}

TrustedPathResult TrustedPath::openParent(const std::string& path, std::string& leaf) {
  const size_t slash = path.find_last_of('/');
  leaf = slash == std::string::npos ? path : path.substr(slash + 1);
  if (leaf.empty() || leaf == "." || leaf == "..") {
    TrustedPathResult refused;
    refused.error = EINVAL;
    refused.reason = Quoted(path) + " names no file";
    return refused;
  }
  if (slash == std::string::npos)
    return open(".", TrustedKind::kFolder);
  return open(slash == 0 ? "/" : path.substr(0, slash), TrustedKind::kFolder);
}

TrustedPathResult TrustedPath::openFileForReading(const std::string& path) {
  return open(path, TrustedKind::kFile);
}

TrustedPathResult TrustedPath::openFileForReadingAt(int folder, uid_t steeringUser,
                                                    const std::string& name) {
  return openAt(folder, steeringUser, name, TrustedKind::kFile);
}

TrustedPathResult TrustedPath::openFolderAt(int folder, uid_t steeringUser,
                                            const std::string& name) {
  return openAt(folder, steeringUser, name, TrustedKind::kFolder);
}

bool TrustedPath::mayUse(uid_t steeringUser, uid_t owner, mode_t mode) {
  if (steeringUser == 0 || owner == steeringUser)
    return true;
  // What every user may read hands the steering user nothing new.
  return S_ISREG(mode) && (mode & S_IROTH) != 0;
}
