// File operations of helperUtil: copy, delete, find, cut, make, size.
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/TrustedPath.h"
#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

namespace {

constexpr size_t kCopyBlockSize = 4096;
constexpr char kScratchFile[] = "temp_out.txt";

// The folders on the current recursion path, by device and inode. Trusted
// links are followed, so a link back to one of them would otherwise recurse
// without end.
struct FolderId {
  dev_t device;
  ino_t inode;
};
using FolderPath = std::vector<FolderId>;

bool IsOnPath(const FolderPath& path, dev_t device, ino_t inode) {
  for (const FolderId& id : path) {
    if (id.device == device && id.inode == inode)
      return true;
  }
  return false;
}

// Pushes a folder on the recursion path for the life of the object.
class FolderPathEntry {
 public:
  FolderPathEntry(FolderPath& path, dev_t device, ino_t inode) : m_path(path) {
    m_path.push_back(FolderId{device, inode});
  }
  ~FolderPathEntry() { m_path.pop_back(); }
  FolderPathEntry(const FolderPathEntry&) = delete;
  FolderPathEntry& operator=(const FolderPathEntry&) = delete;

 private:
  FolderPath& m_path;
};

bool IsDotEntry(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

ResultCode DeleteDestination(const std::string& destination) {
  const ResultCode result = helperUtil::fileDelete(destination);
  if (result != 0)
    KLOG_RC(LOG_LEVEL_E, "helperUtil::fileDelete", result);
  return result;
}

// The copy is made private (0600) and never through a link: it may hold a
// file only root could read, and its folder may be left behind after the run.
FILE* OpenCopyDestination(const std::string& destination) {
  const int fd =
      open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0)
    return nullptr;
  FILE* file = fdopen(fd, "wb");
  if (file == nullptr)
    close(fd);
  return file;
}

// A copy that could not be written whole (a full disk, an I/O error) must
// not pass for the file at a cut size: it is removed and reported with the
// system's words.
ResultCode FailWrittenCopy(const std::string& destination, int error, std::string& errorText) {
  errorText = errnoText(error);
  KLOG_RC_DESC(LOG_LEVEL_E, "fwrite", static_cast<ResultCode>(error), errorText.c_str());
  unlink(destination.c_str());
  return KEELENGINE_ERROR_WRITE_FAILURE;
}

// Why a read of a source failed: the copy is removed, and the system's
// words go to the summary.
ResultCode FailReadSource(const std::string& destination, int error, std::string& errorText) {
  errorText = errnoText(error);
  KLOG_RC_DESC(LOG_LEVEL_E, "read", static_cast<ResultCode>(error), errorText.c_str());
  unlink(destination.c_str());
  return KEELENGINE_ERROR_UNEXPECTED;
}

// How many bytes of the opened regular file to copy: the size it had when
// it was opened, so that a log that grows meanwhile is not chased until the
// disk is full. The files of /proc and /sys show a size of 0 and make their
// text when read: those are read to their end.
uint64_t BytesToCopy(const TrustedPathResult& source) {
  struct statfs system;
  if (source.info.st_size == 0 && fstatfs(source.fd.get(), &system) == 0 &&
      (system.f_type == PROC_SUPER_MAGIC || system.f_type == SYSFS_MAGIC))
    return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(source.info.st_size);
}

// Copies the opened regular file `source` up to BytesToCopy. A file that
// shrinks gives what is left.
ResultCode CopyRegularFile(TrustedPathResult& source, const std::string& destination,
                           std::string& errorText) {
  // The destination named by other text may be the source itself: a copy
  // onto itself does nothing, as for the same text.
  struct stat existing;
  if (lstat(destination.c_str(), &existing) == 0 && existing.st_dev == source.info.st_dev &&
      existing.st_ino == source.info.st_ino)
    return 0;
  ResultCode result = DeleteDestination(destination);
  if (result != 0)
    return result;
  FileHandle out(OpenCopyDestination(destination));
  if (!out) {
    KLOG_E("Failed to open file \"%s\"", destination.c_str());
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }

  std::unique_ptr<char[]> block(new char[kCopyBlockSize]);
  uint64_t left = BytesToCopy(source);
  while (left > 0) {
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(left, kCopyBlockSize));
    const ssize_t got = read(source.fd.get(), block.get(), wanted);
    if (got < 0 && errno == EINTR)
      continue;
    // Opened non-blocking: a file of /proc with nothing to give now ends.
    if (got < 0 && errno == EAGAIN)
      break;
    if (got < 0) {
      const int error = errno;
      out.reset();
      return FailReadSource(destination, error, errorText);
    }
    if (got == 0)
      break;
    const size_t count = static_cast<size_t>(got);
    if (fwrite(block.get(), 1, count, out.get()) != count) {
      const int error = errno;
      out.reset();
      return FailWrittenCopy(destination, error, errorText);
    }
    left -= count;
  }
  // The last block reaches the disk only here.
  if (fclose(out.release()) != 0)
    return FailWrittenCopy(destination, errno, errorText);
  return 0;
}

// The result of a refused source: a missing one is "not found", as it was
// when the source was looked up by stat; a refused one says why.
ResultCode RefusedSource(const TrustedPathResult& source, std::string& errorText) {
  if (source.error == ENOENT || source.error == ENOTDIR)
    return KEELENGINE_ERROR_FILE_NOT_FOUND;
  errorText = source.reason;
  KLOG_W("Not copying: %s", source.reason.c_str());
  return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
}

ResultCode CopyOpened(TrustedPathResult& source, const std::string& destination,
                      std::string& errorText, FolderPath& ancestors);

// Copies the opened folder `source` entry by entry, each opened from it by
// TrustedPath, never by a path joined anew.
ResultCode CopyFolder(TrustedPathResult& source, const std::string& destination,
                      std::string& errorText, FolderPath& ancestors) {
  ResultCode result = DeleteDestination(destination);
  if (result != 0)
    return result;
  if (IsOnPath(ancestors, source.info.st_dev, source.info.st_ino)) {
    KLOG_W("Not copying \"%s\": it leads back to a folder being copied", destination.c_str());
    return 0;
  }
  DirHandle dir(fdopendir(source.fd.get()));
  if (!dir) {
    errorText = errnoText(errno);
    KLOG_E("Failed to open folder for \"%s\"", destination.c_str());
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  source.fd.release();  // now the stream's

  result = helperUtil::MakeDirectory(destination);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "helperUtils::MakeDirectory", result);
    return 0;
  }

  FolderPathEntry onPath(ancestors, source.info.st_dev, source.info.st_ino);
  while (const dirent* entry = readdir(dir.get())) {
    if (IsDotEntry(entry->d_name))
      continue;
    const std::string target = destination + "/" + entry->d_name;
    TrustedPathResult child = TrustedPath::openAt(dirfd(dir.get()), source.steeringUser,
                                                  entry->d_name, TrustedKind::kFileOrFolder);
    result = child.ok() ? CopyOpened(child, target, errorText, ancestors)
                        : RefusedSource(child, errorText);
    if (result != 0)
      KLOG_RC(LOG_LEVEL_W, "helperUtil::fileCopy", result);
  }
  return 0;
}

ResultCode CopyOpened(TrustedPathResult& source, const std::string& destination,
                      std::string& errorText, FolderPath& ancestors) {
  if (S_ISREG(source.info.st_mode))
    return CopyRegularFile(source, destination, errorText);
  return CopyFolder(source, destination, errorText, ancestors);
}

// One walk of fileFindAll and fileListTree; `patterns` are lower case.
struct TreeWalk {
  const std::vector<std::string>& patterns;
  bool recursive;
  bool listUnreachable;
  std::vector<FileEntry>& results;
  FolderPath ancestors;

  bool matches(const std::string& name) const {
    const std::string lowerName = CStringUtils::toLowerCopy(name);
    for (const std::string& pattern : patterns) {
      if (helperUtil::wildcardMatch(pattern, lowerName))
        return true;
    }
    return false;
  }

  // An entry that could not be reached: listed with its reason when the
  // walk lists such entries and the entry might have held a match.
  void unreachable(FileEntry& entry, const std::string& reason) {
    KLOG_W("Not searching \"%s%s\": %s", entry.directory.c_str(), entry.name.c_str(),
           reason.c_str());
    if (listUnreachable && (recursive || matches(entry.name))) {
      entry.unreachable = reason;
      results.push_back(entry);
    }
  }
};

ResultCode FindIn(TreeWalk& walk, TrustedPathResult& opened, const std::string& folder);

// Goes into the sub-folder `found` (reached as `reached`, an O_PATH
// descriptor) of the folder `folder`.
void FindInSubFolder(TreeWalk& walk, FileEntry& found, const TrustedPathResult& reached) {
  if (IsOnPath(walk.ancestors, reached.info.st_dev, reached.info.st_ino)) {
    KLOG_W("Not searching \"%s%s\": it leads back to a folder being searched",
           found.directory.c_str(), found.name.c_str());
    return;
  }
  TrustedPathResult sub;
  sub.fd.reset(openat(reached.fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!sub.ok()) {
    walk.unreachable(found, errnoText(errno));
    KLOG_RC(LOG_LEVEL_E, "helperUtil::fileFindAll", KEELENGINE_ERROR_FILE_OPEN_FAILURE);
    return;
  }
  sub.info = reached.info;
  sub.steeringUser = reached.steeringUser;
  const ResultCode result = FindIn(walk, sub, found.directory + found.name + "/");
  if (result != 0)
    KLOG_RC(LOG_LEVEL_E, "helperUtil::fileFindAll", result);
}

// One folder of the walk, opened as `opened` (taken over); `folder` is its
// name, ending in "/".
ResultCode FindIn(TreeWalk& walk, TrustedPathResult& opened, const std::string& folder) {
  DirHandle dir(fdopendir(opened.fd.get()));
  if (!dir)
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  opened.fd.release();  // now the stream's
  FolderPathEntry onPath(walk.ancestors, opened.info.st_dev, opened.info.st_ino);

  while (const dirent* entry = readdir(dir.get())) {
    if (IsDotEntry(entry->d_name))
      continue;
    FileEntry found;
    found.name = entry->d_name;
    found.directory = folder;
    // The names go into the summary and make the copies' paths: one that
    // is no path any more is reported here, and nothing below it looked at.
    if (folder.size() + found.name.size() >= PATH_MAX) {
      walk.unreachable(found, errnoText(ENAMETOOLONG));
      continue;
    }
    const TrustedPathResult reached =
        TrustedPath::openAt(dirfd(dir.get()), opened.steeringUser, found.name, TrustedKind::kAny);
    if (reached.ok()) {
      found.isDirectory = S_ISDIR(reached.info.st_mode);
      found.modified = static_cast<int64_t>(reached.info.st_mtime);
    } else if (reached.error != ENOENT && reached.error != ENOTDIR) {
      walk.unreachable(found, reached.reason);
      continue;
    }
    // Otherwise (a dangling link, a vanished entry) the entry is taken as a
    // file from time 0, and its copy says it is not found.

    if (found.isDirectory) {
      if (walk.recursive)
        FindInSubFolder(walk, found, reached);
      continue;
    }
    if (walk.matches(found.name))
      walk.results.push_back(found);
  }
  // The list is shared along the recursion: a folder reports "not found"
  // only while nothing has been found anywhere before it.
  return walk.results.empty() ? KEELENGINE_ERROR_FILE_NOT_FOUND : 0;
}

// The frame of fileFindAll and fileListTree. `top` receives the listed
// folder, still open, when the caller wants it.
ResultCode FindAll(std::string& folder, std::vector<std::string>& patterns, bool recursive,
                   bool listUnreachable, std::vector<FileEntry>& results, FolderListing* top) {
  if (folder.empty() || patterns.empty())
    return KEELENGINE_ERROR_BAD_PARAMETER;
  if (folder.back() != '/')
    folder += '/';
  for (std::string& pattern : patterns)
    pattern = CStringUtils::toLowerCopy(pattern);

  TreeWalk walk{patterns, recursive, listUnreachable, results, {}};
  TrustedPathResult opened = TrustedPath::openFolder(folder);
  if (!opened.ok()) {
    if (opened.error == ENOENT) {
      KLOG_I("\"%s\" is not a directory", folder.c_str());
      return KEELENGINE_ERROR_FILE_NOT_FOUND;
    }
    if (!listUnreachable || opened.error == ENOTDIR)
      return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
    // The folder itself is what could not be reached.
    const std::string named = folder.substr(0, folder.find_last_not_of('/') + 1);
    FileEntry self;
    self.name = helperUtil::splitAfterLast(named, "/");
    self.directory = named.size() > self.name.size() ? helperUtil::splitBeforeLast(named, "/", true)
                                                     : std::string();
    self.unreachable = opened.reason;
    KLOG_W("Not searching \"%s\": %s", folder.c_str(), opened.reason.c_str());
    results.push_back(self);
    return 0;
  }
  if (top != nullptr) {
    top->folder.reset(fcntl(opened.fd.get(), F_DUPFD_CLOEXEC, 0));
    top->steeringUser = opened.steeringUser;
  }
  return FindIn(walk, opened, folder);
}

std::streamoff ToOffset(uint64_t count, bool* fits) {
  const auto largest = static_cast<uint64_t>(std::numeric_limits<std::streamoff>::max());
  *fits = count <= largest;
  return static_cast<std::streamoff>(*fits ? count : largest);
}

}  // namespace

ResultCode helperUtil::fileCopy(const std::string& source, const std::string& destination,
                                std::string& errorText) {
  TrustedPathResult opened = TrustedPath::open(source, TrustedKind::kFileOrFolder);
  if (!opened.ok())
    return RefusedSource(opened, errorText);
  if (source == destination)
    return 0;
  FolderPath ancestors;
  return CopyOpened(opened, destination, errorText, ancestors);
}

ResultCode helperUtil::fileCopyAt(int folder, uid_t steeringUser, const std::string& relative,
                                  const std::string& destination, std::string& errorText) {
  TrustedPathResult opened =
      TrustedPath::openAt(folder, steeringUser, relative, TrustedKind::kFileOrFolder);
  if (!opened.ok())
    return RefusedSource(opened, errorText);
  FolderPath ancestors;
  return CopyOpened(opened, destination, errorText, ancestors);
}

ResultCode helperUtil::fileDelete(const std::string& path) {
  const int error = removeFile(path.c_str());
  if (error == 0 || error == ENOENT)
    return 0;
  KLOG_RC(LOG_LEVEL_E, "unlink_file", static_cast<ResultCode>(error));
  return KEELENGINE_ERROR_UNEXPECTED;
}

ResultCode helperUtil::fileFindAll(std::string& folder, std::vector<std::string>& patterns,
                                   bool recursive, std::vector<FileEntry>& results) {
  return FindAll(folder, patterns, recursive, false, results, nullptr);
}

ResultCode helperUtil::fileListTree(std::string& folder, std::vector<std::string>& patterns,
                                    bool recursive, FolderListing& listing) {
  return FindAll(folder, patterns, recursive, true, listing.entries, &listing);
}

ResultCode helperUtil::fileGetNewestMatchingFile(const std::string& folder,
                                                 const std::string& pattern, FileEntry& newest) {
  std::string searched = folder;
  std::vector<std::string> patterns{pattern};
  std::vector<FileEntry> found;
  const ResultCode result = fileFindAll(searched, patterns, false, found);
  if (result == KEELENGINE_ERROR_FILE_NOT_FOUND)
    return result;
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "helperUtil::fileFindAll", result);
    return result;
  }
  newest.name.clear();
  newest.modified = 0;
  for (const FileEntry& entry : found) {
    if (entry.modified >= newest.modified) {
      newest.name = entry.name;
      newest.modified = entry.modified;
    }
  }
  return 0;
}

ResultCode helperUtil::fileDeleteAll(const std::string& folder) {
  if (folder.empty()) {
    KLOG_I("tstrDirectory is an empty string");
    return KEELENGINE_ERROR_BAD_PARAMETER;
  }
  std::string path = folder;
  if (path.back() != '/')
    path += '/';
  std::vector<std::string> patterns{"*"};
  std::vector<FileEntry> found;
  ResultCode result = fileFindAll(path, patterns, false, found);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_W, "helperUtil::fileFindAll", result);
    return result;
  }
  ResultCode lastFailure = 0;
  for (const FileEntry& entry : found) {
    result = fileDelete(path + entry.name);
    if (result != 0) {
      KLOG_RC(LOG_LEVEL_E, "helperUtil::fileDelete", result);
      lastFailure = result;
    }
  }
  return lastFailure;
}

ResultCode helperUtil::fileDeleteDirectory(const std::string& folder) {
  if (folder.empty()) {
    KLOG_I("rtstrDirectory is an empty string");
    return KEELENGINE_ERROR_BAD_PARAMETER;
  }
  std::string path = folder;
  if (path.back() != '/')
    path += '/';
  // A link in place of the folder may have been planted by another user to
  // make this delete the files of a folder of their choosing: never follow.
  struct stat self;
  if (lstat(path.substr(0, path.find_last_not_of('/') + 1).c_str(), &self) == 0 &&
      S_ISLNK(self.st_mode)) {
    KLOG_E("Not deleting \"%s\": it is a symbolic link", folder.c_str());
    return KEELENGINE_ERROR_ACCESS_DENIED;
  }
  if (access(path.c_str(), F_OK) != 0) {
    KLOG_RC(LOG_LEVEL_E, "access", static_cast<ResultCode>(errno));
    return KEELENGINE_ERROR_ACCESS_DENIED;
  }

  std::vector<std::string> patterns{"*"};
  std::vector<FileEntry> found;
  const ResultCode listed = fileFindAll(path, patterns, false, found);
  const bool empty = listed == KEELENGINE_ERROR_FILE_NOT_FOUND;
  if (listed != 0) {
    KLOG_RC(LOG_LEVEL_W, "helperUtil::fileFindAll", listed);
    if (!empty)
      return listed;
  }

  // The listing names no folders, so the folder branch is there for entries
  // that turn into folders between listing and removal.
  for (const FileEntry& entry : found) {
    const std::string entryPath = path + entry.name;
    if (entry.isDirectory) {
      if (rmdir(entryPath.c_str()) != 0)
        fileDeleteDirectory(entryPath);
    } else {
      const ResultCode result = fileDelete(entryPath);
      if (result != 0)
        KLOG_RC(LOG_LEVEL_E, "helperUtil::fileDelete", result);
    }
  }

  if (rmdir(path.c_str()) != 0) {
    // Only a folder that listed as empty says why it could not go.
    if (empty)
      KLOG_RC(LOG_LEVEL_E, "rmdir", static_cast<ResultCode>(errno));
    return KEELENGINE_ERROR_UNEXPECTED;
  }
  return 0;
}

namespace {

// Copies the bytes to keep of `in` to `out`, given the count to keep.
typedef void (*CutBytes)(std::ifstream& in, std::ofstream& out, uint64_t count);

// Keeps the first `count` bytes. When the file is shorter than `count`, the
// failed read at its end is written too, as the byte 0xFF.
void KeepFront(std::ifstream& in, std::ofstream& out, uint64_t count) {
  bool fits = false;
  in.seekg(ToOffset(count, &fits), std::ios::beg);
  const std::streamoff stop = in.tellg();  // -1 when the seek failed: copy all
  in.clear();
  in.seekg(0, std::ios::beg);
  for (std::streamoff position = 0; position != stop; ++position) {
    const int byte = in.get();
    out.put(static_cast<char>(byte));
    if (!in.good())
      break;
  }
}

// Keeps the last `count` bytes. The end test follows the write, so the
// failed last read goes out as a trailing 0xFF byte; the size bookkeeping
// does not count it. A count beyond the file's size fails the seek: nothing
// is copied and the file ends up empty.
void KeepBack(std::ifstream& in, std::ofstream& out, uint64_t count) {
  bool fits = false;
  const std::streamoff offset = ToOffset(count, &fits);
  if (fits)
    in.seekg(-offset, std::ios::end);
  if (!fits || !in.good())
    return;
  for (;;) {
    const int byte = in.get();
    out.put(static_cast<char>(byte));
    if (!in.good())
      break;
  }
}

// The frame both cutting functions share: the kept bytes go through the
// scratch file in the current folder, which is then copied over the file
// and stays behind.
ResultCode CutThroughScratch(uint64_t count, const char* path, CutBytes cut) {
  if (path == nullptr) {
    KLOG_E("pszFilename is NULL");
    return KEELENGINE_ERROR_BAD_PARAMETER;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in.is_open()) {
    KLOG_E("Failed to open \"%s\"", path);
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  // The current folder may be /tmp: a name another user placed there (a
  // link to a file of root's, or a file of theirs to read the bytes from)
  // is removed, and the scratch file made anew, private and exclusively.
  unlink(kScratchFile);
  const int made = open(kScratchFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (made >= 0)
    close(made);
  std::ofstream out;
  if (made >= 0)
    out.open(kScratchFile, std::ios::binary | std::ios::trunc);
  if (!out.is_open()) {
    KLOG_E("Failed to open \"%s\"", kScratchFile);
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  cut(in, out, count);
  in.close();
  out.close();
  std::string errorText;
  const ResultCode result = helperUtil::fileCopy(kScratchFile, path, errorText);
  if (result != 0)
    KLOG_RC(LOG_LEVEL_W, "helperUtil::fileCopy", result);
  return 0;
}

}  // namespace

ResultCode helperUtil::fileTruncateEnd(uint64_t count, const char* path) {
  return CutThroughScratch(count, path, KeepFront);
}

ResultCode helperUtil::fileTruncateEnd(uint64_t count, const std::string& path) {
  return fileTruncateEnd(count, path.c_str());
}

ResultCode helperUtil::fileTruncateFront(uint64_t count, const char* path) {
  return CutThroughScratch(count, path, KeepBack);
}

ResultCode helperUtil::fileTruncateFront(uint64_t count, const std::string& path) {
  return fileTruncateFront(count, path.c_str());
}

ResultCode helperUtil::MakeDirectory(const std::string& path) {
  errno = 0;
  // Private: the folders of a run hold copies of files only root may read.
  if (mkdir(path.c_str(), 0700) == 0)
    return 0;
  const int error = errno;
  KLOG_RC(LOG_LEVEL_E, "mkdir", static_cast<ResultCode>(error));
  return error == EACCES ? KEELENGINE_ERROR_ACCESS_DENIED : 0;
}

double helperUtil::fileSize(const char* path) {
  struct stat info;
  if (path == nullptr || stat(path, &info) != 0)
    return -1.0;
  return static_cast<double>(info.st_size);
}

double helperUtil::fileSize(const std::string& path) {
  return fileSize(translatePath(path).c_str());
}
