// File operations of helperUtil: copy, delete, find, cut, make, size.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

namespace {

constexpr size_t kCopyBlockSize = 4096;
constexpr char kScratchFile[] = "temp_out.txt";

// The folders on the current recursion path, by device and inode. Links are
// followed, so a link back to one of them would otherwise recurse without
// end.
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

ResultCode CopyRegularFile(const std::string& source, const std::string& destination,
                           std::string& errorText) {
  ResultCode result = DeleteDestination(destination);
  if (result != 0)
    return result;

  FileHandle in(fopen(source.c_str(), "rbe"));
  if (!in) {
    errorText = errnoText(errno);
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  FileHandle out(OpenCopyDestination(destination));
  if (!out) {
    KLOG_E("Failed to open file \"%s\"", destination.c_str());
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }

  std::unique_ptr<char[]> block(new char[kCopyBlockSize]);
  for (;;) {
    const size_t got = fread(block.get(), 1, kCopyBlockSize, in.get());
    if (got > 0 && fwrite(block.get(), 1, got, out.get()) != got) {
      const int error = errno;
      out.reset();
      return FailWrittenCopy(destination, error, errorText);
    }
    if (got < kCopyBlockSize)
      break;
  }
  // The last block reaches the disk only here.
  if (fclose(out.release()) != 0)
    return FailWrittenCopy(destination, errno, errorText);
  return 0;
}

ResultCode CopyPath(const std::string& source, const std::string& destination,
                    std::string& errorText, FolderPath& ancestors);

ResultCode CopyFolder(const std::string& source, const std::string& destination,
                      std::string& errorText, FolderPath& ancestors) {
  ResultCode result = DeleteDestination(destination);
  if (result != 0)
    return result;

  DirHandle dir(opendir(source.c_str()));
  if (!dir) {
    // Neither a regular file nor a readable folder (a device, a pipe, a
    // folder without rights): nothing can be copied.
    errorText = errnoText(errno);
    KLOG_E("Failed to open folder \"%s\"", source.c_str());
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  struct stat self = {};
  if (fstat(dirfd(dir.get()), &self) == 0 && IsOnPath(ancestors, self.st_dev, self.st_ino)) {
    KLOG_W("Not copying \"%s\": it leads back to a folder being copied", source.c_str());
    return 0;
  }

  result = helperUtil::MakeDirectory(destination);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "helperUtils::MakeDirectory", result);
    return 0;
  }

  FolderPathEntry onPath(ancestors, self.st_dev, self.st_ino);
  while (const dirent* entry = readdir(dir.get())) {
    if (IsDotEntry(entry->d_name))
      continue;
    result = CopyPath(source + "/" + entry->d_name, destination + "/" + entry->d_name, errorText,
                      ancestors);
    if (result != 0)
      KLOG_RC(LOG_LEVEL_W, "helperUtil::fileCopy", result);
  }
  return 0;
}

ResultCode CopyPath(const std::string& source, const std::string& destination,
                    std::string& errorText, FolderPath& ancestors) {
  struct stat info;
  if (stat(source.c_str(), &info) != 0)
    return KEELENGINE_ERROR_FILE_NOT_FOUND;
  if (source == destination)
    return 0;
  if (S_ISREG(info.st_mode))
    return CopyRegularFile(source, destination, errorText);
  return CopyFolder(source, destination, errorText, ancestors);
}

// One folder of fileFindAll; `folder` ends in "/" and `patterns` are lower
// case already.
ResultCode FindIn(const std::string& folder, const std::vector<std::string>& patterns,
                  bool recursive, std::vector<FileEntry>& results, FolderPath& ancestors) {
  errno = 0;
  DirHandle dir(opendir(folder.c_str()));
  if (!dir) {
    if (errno == ENOENT) {
      KLOG_I("\"%s\" is not a directory", folder.c_str());
      return KEELENGINE_ERROR_FILE_NOT_FOUND;
    }
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  struct stat self = {};
  fstat(dirfd(dir.get()), &self);
  FolderPathEntry onPath(ancestors, self.st_dev, self.st_ino);

  while (const dirent* entry = readdir(dir.get())) {
    if (IsDotEntry(entry->d_name))
      continue;
    FileEntry found;
    found.name = entry->d_name;
    found.directory = folder;
    // A failed stat (a dangling link, a vanished entry) leaves a zeroed
    // record: the entry is taken as a file from time 0.
    struct stat info = {};
    stat((folder + found.name).c_str(), &info);
    found.isDirectory = S_ISDIR(info.st_mode);
    found.modified = static_cast<int64_t>(info.st_mtime);

    if (found.isDirectory) {
      if (!recursive)
        continue;
      if (IsOnPath(ancestors, info.st_dev, info.st_ino)) {
        KLOG_W("Not searching \"%s%s\": it leads back to a folder being searched", folder.c_str(),
               found.name.c_str());
        continue;
      }
      const ResultCode result =
          FindIn(folder + found.name + "/", patterns, true, results, ancestors);
      if (result != 0)
        KLOG_RC(LOG_LEVEL_E, "helperUtil::fileFindAll", result);
      continue;
    }

    const std::string lowerName = CStringUtils::toLowerCopy(found.name);
    for (const std::string& pattern : patterns) {
      if (helperUtil::wildcardMatch(pattern, lowerName)) {
        results.push_back(found);
        break;
      }
    }
  }
  // The list is shared along the recursion: a folder reports "not found"
  // only while nothing has been found anywhere before it.
  return results.empty() ? KEELENGINE_ERROR_FILE_NOT_FOUND : 0;
}

std::streamoff ToOffset(uint64_t count, bool* fits) {
  const auto largest = static_cast<uint64_t>(std::numeric_limits<std::streamoff>::max());
  *fits = count <= largest;
  return static_cast<std::streamoff>(*fits ? count : largest);
}

}  // namespace

ResultCode helperUtil::fileCopy(const std::string& source, const std::string& destination,
                                std::string& errorText) {
  FolderPath ancestors;
  return CopyPath(source, destination, errorText, ancestors);
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
  if (folder.empty() || patterns.empty())
    return KEELENGINE_ERROR_BAD_PARAMETER;
  if (folder.back() != '/')
    folder += '/';
  for (std::string& pattern : patterns)
    pattern = CStringUtils::toLowerCopy(pattern);
  FolderPath ancestors;
  return FindIn(folder, patterns, recursive, results, ancestors);
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
