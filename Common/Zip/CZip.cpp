#include "Common/Zip/CZip.h"

#include <dirent.h>
#include <minizip/unzip.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <thread>

#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Zip/ArchiveFile.h"
#include "Common/Zip/ArchiveTail.h"
#include "Common/Zip/EntryDeflater.h"
#include "Common/Zip/EntrySource.h"
#include "Common/Zip/LocalHeader.h"
#include "Common/Zip/ParallelZip.h"
#include "Common/Zip/ZipCrypto.h"
#include "Common/Zip/ZipLog.h"

namespace {

// Closes the entry that unzOpenCurrentFile opened. A CRC mismatch shows
// only here, once the whole entry has been read.
class CurrentEntry {
 public:
  CurrentEntry(unzFile archive, const std::string* path) : m_archive(archive), m_path(path) {}
  ~CurrentEntry() {
    const int code = unzCloseCurrentFile(m_archive);
    if (code != UNZ_OK)
      KLOG_LIBRARY("unzCloseCurrentFile", code, "%s", m_path->c_str());
  }
  CurrentEntry(const CurrentEntry&) = delete;
  CurrentEntry& operator=(const CurrentEntry&) = delete;

 private:
  unzFile m_archive;
  const std::string* m_path;
};

const char kBadParameterText[] = "Bad parameter(s), parameter(s) is equal to NULL.";

// What minizip writes as "version made by" for ordinary entries.
constexpr uLong kVersionMadeBy = 0;
// General purpose flag bit 0: the entry is encrypted.
constexpr uLong kEncryptedFlag = 1;

std::string WithTrailingSlash(const std::string& path) {
  return !path.empty() && path.back() == '/' ? path : path + "/";
}

// The last component of `path`, trailing slashes ignored.
std::string LastComponent(const std::string& path) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string::npos)
    return path;
  const size_t slash = path.rfind('/', end);
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(start, end + 1 - start);
}

// The entry name of a listed path: what follows the source folder. The one
// path that is not below it is the source itself, listed because it is not
// a folder; it is named after its last component.
std::string EntryName(const std::string& path, size_t prefixLength) {
  if (path.size() > prefixLength)
    return path.substr(prefixLength);
  return LastComponent(path);
}

// True when some "/"-separated component of `name` is "..".
bool ClimbsOut(const std::string& name) {
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('/', start);
    if (end == std::string::npos)
      end = name.size();
    if (name.compare(start, end - start, "..") == 0)
      return true;
    start = end + 1;
  }
  return false;
}

bool IsDotOrDotDot(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Streams the source into the open entry. A source that can't be read
// whole stops the entry, logged where found; a failed write is logged here.
// False on either.
bool CopyIntoEntry(zipFile archive, CEntrySource* source, const std::string& path,
                   unsigned char* buffer) {
  for (;;) {
    size_t count = 0;
    if (!source->read(buffer, CZip::kBlockSize, &count))
      return false;
    if (count > 0) {
      const int written = zipWriteInFileInZip(archive, buffer, static_cast<unsigned>(count));
      if (written < 0) {
        KLOG_LIBRARY("zipWriteInFileInZip", written, "%s", path.c_str());
        return false;
      }
    }
    if (count < CZip::kBlockSize)
      return true;
  }
}

// The CRC-32 of the whole source, which is then read again from its start;
// false, logged, when it can't be read whole.
bool SourceCrc(CEntrySource* source, unsigned char* buffer, uLong* crc) {
  *crc = crc32(0L, Z_NULL, 0);
  size_t count = CZip::kBlockSize;
  while (count == CZip::kBlockSize) {
    if (!source->read(buffer, CZip::kBlockSize, &count))
      return false;
    *crc = crc32(*crc, buffer, static_cast<uInt>(count));
  }
  return source->rewind();
}

// What went into an entry written as raw data.
struct RawEntryTotals {
  ZPOS64_T size = 0;
  uLong crc = 0;
  bool failed = false;  // a read or write failed (logged)
};

// Streams the source into an entry opened raw: deflates it here and
// encrypts the result, after the header that carries `headerCrc`.
RawEntryTotals CopyIntoEncryptedEntry(zipFile archive, CEntrySource* source,
                                      const std::string& path, const std::string& password,
                                      uint32_t headerCrc, unsigned char* in, unsigned char* out) {
  RawEntryTotals totals;
  totals.crc = crc32(0L, Z_NULL, 0);
  CZipCrypto cipher(password);
  unsigned char random[CZipCrypto::kRandomSize];
  std::random_device randomSource;
  for (unsigned char& byte : random)
    byte = static_cast<unsigned char>(randomSource());
  unsigned char header[CZipCrypto::kHeaderSize];
  cipher.makeHeader(headerCrc, random, header);
  int written = zipWriteInFileInZip(archive, header, sizeof(header));
  if (written < 0) {
    KLOG_LIBRARY("zipWriteInFileInZip", written, "%s", path.c_str());
    totals.failed = true;
    return totals;
  }
  CDeflateStream deflater;
  const int initialized = deflater.start();
  if (initialized != Z_OK) {
    KLOG_LIBRARY("deflateInit2", initialized, "%s", path.c_str());
    totals.failed = true;
    return totals;
  }
  z_stream* stream = deflater.get();
  int flush = Z_NO_FLUSH;
  while (flush != Z_FINISH) {
    size_t count = 0;
    if (!source->read(in, CZip::kBlockSize, &count)) {
      totals.failed = true;
      return totals;
    }
    if (count < CZip::kBlockSize)
      flush = Z_FINISH;
    totals.crc = crc32(totals.crc, in, static_cast<uInt>(count));
    totals.size += count;
    stream->next_in = in;
    stream->avail_in = static_cast<uInt>(count);
    do {
      stream->next_out = out;
      stream->avail_out = static_cast<uInt>(CZip::kBlockSize);
      deflate(stream, flush);
      const size_t produced = CZip::kBlockSize - stream->avail_out;
      if (produced == 0)
        continue;
      cipher.encrypt(out, produced);
      written = zipWriteInFileInZip(archive, out, static_cast<unsigned>(produced));
      if (written < 0) {
        KLOG_LIBRARY("zipWriteInFileInZip", written, "%s", path.c_str());
        totals.failed = true;
        return totals;
      }
    } while (stream->avail_out == 0);
  }
  return totals;
}

// Writes the open entry to `path`, block by block.
void ExtractEntryTo(unzFile archive, const std::string& path, char* buffer) {
  FileHandle file(fopen(path.c_str(), "wb"));
  if (!file) {
    KLOG_E("Could not create the following file: %s", path.c_str());
    return;
  }
  for (;;) {
    const int count = unzReadCurrentFile(archive, buffer, static_cast<unsigned>(CZip::kBlockSize));
    if (count < 0) {
      KLOG_LIBRARY("unzReadCurrentFile", count, "%s", path.c_str());
      break;
    }
    if (count == 0)
      break;
    if (fwrite(buffer, 1, static_cast<size_t>(count), file.get()) != static_cast<size_t>(count)) {
      KLOG_E("Could not write %s", path.c_str());
      break;
    }
  }
  if (fclose(file.release()) != 0)
    KLOG_E("Could not write %s", path.c_str());
}

// Extracts the entry the archive stands on. Only a failure to open the entry
// or read its header ends the run.
ResultCode ExtractCurrentEntry(unzFile archive, const std::string& base,
                               std::vector<std::string>& paths, bool overwrite, char* buffer) {
  int code = unzOpenCurrentFile(archive);
  if (code != UNZ_OK) {
    KLOG_LIBRARY("unzOpenCurrentFile", code, nullptr);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  std::string fullPath;
  CurrentEntry entry(archive, &fullPath);

  unz_file_info64 info;
  code = unzGetCurrentFileInfo64(archive, &info, nullptr, 0, nullptr, 0, nullptr, 0);
  std::vector<char> nameBuffer;
  if (code == UNZ_OK) {
    nameBuffer.assign(info.size_filename + 1, '\0');
    code = unzGetCurrentFileInfo64(archive, &info, nameBuffer.data(), nameBuffer.size(), nullptr, 0,
                                   nullptr, 0);
  }
  if (code != UNZ_OK) {
    KLOG_LIBRARY("unzGetCurrentFileInfo", code, nullptr);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  const std::string name(nameBuffer.data());
  if (ClimbsOut(name)) {
    KLOG_E("Skipping entry %s, because its name leads out of the target folder.", name.c_str());
    return 0;
  }
  fullPath = base + name;
  paths.push_back(fullPath);

  if (!name.empty() && name.back() == '/') {
    if (!CZip::createPath(fullPath))
      KLOG_E("Could not create the following dir: %s", fullPath.c_str());
    return 0;
  }
  const size_t slash = name.rfind('/');
  if (slash != std::string::npos) {
    const std::string folder = base + name.substr(0, slash);
    if (!CZip::createPath(folder))
      KLOG_E("Could not create the following dir: %s", folder.c_str());
  }
  struct stat existing;
  if (lstat(fullPath.c_str(), &existing) == 0 && !overwrite) {
    KLOG_W("Skipping file %s, because it already exists.", fullPath.c_str());
    return 0;
  }
  ExtractEntryTo(archive, fullPath, buffer);
  return 0;
}

}  // namespace

unsigned CZip::DefaultWorkerCount() {
  const unsigned cores = std::thread::hardware_concurrency();
  return cores > 0 ? cores : 1;
}

ResultCode CZip::Zip(const std::string& source, const std::string& archive,
                     const std::string& password, bool recursive) {
  return Zip(source, archive, password, recursive, DefaultWorkerCount());
}

ResultCode CZip::Zip(const std::string& source, const std::string& archive,
                     const std::string& password, bool recursive, unsigned workers) {
  if (source.empty() || archive.empty()) {
    KLOG_E("%s", kBadParameterText);
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  std::vector<std::string> files;
  ResultCode result = getDirContents(files, source, recursive);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CZip::getDirContents", result);
    return result;
  }
  // Every listed path starts with the source and one "/".
  const size_t prefixLength = source.size() + (source.back() == '/' ? 0 : 1);
  std::vector<std::string> names;
  names.reserve(files.size());
  for (const std::string& file : files)
    names.push_back(EntryName(file, prefixLength));

  result = createZipFile(files, archive, names, password, workers);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CZip::createZipFile", result);
    return result;
  }
  return 0;
}

ResultCode CZip::getDirContents(std::vector<std::string>& list, const std::string& folder,
                                bool recursive) {
  // An empty path would become "/" below and walk the whole filesystem.
  if (folder.empty()) {
    KLOG_E("%s", kBadParameterText);
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  const std::string dir = WithTrailingSlash(folder);
  DirHandle handle(opendir(dir.c_str()));
  if (!handle) {
    list.push_back(folder);
    return 0;
  }
  while (const struct dirent* entry = readdir(handle.get())) {
    if (entry->d_type == DT_REG) {
      list.push_back(dir + entry->d_name);
    } else if (entry->d_type == DT_DIR && recursive && !IsDotOrDotDot(entry->d_name)) {
      const ResultCode result = getDirContents(list, dir + entry->d_name, recursive);
      if (result != 0) {
        KLOG_RC(LOG_LEVEL_E, "CZip::getDirContents", result);
        return result;
      }
    }
  }
  return 0;
}

ResultCode CZip::createZipFile(const std::vector<std::string>& files, const std::string& archive,
                               const std::vector<std::string>& names, const std::string& password) {
  return createZipFile(files, archive, names, password, DefaultWorkerCount());
}

ResultCode CZip::createZipFile(const std::vector<std::string>& files, const std::string& archive,
                               const std::vector<std::string>& names, const std::string& password,
                               unsigned workers) {
  if (files.size() != names.size()) {
    KLOG_E("The lists of files (%zu) and entry names (%zu) differ in length.", files.size(),
           names.size());
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  // Never written at its path directly: see ArchiveFile.h for the link an
  // attacker may plant there and the cut archive a full disk would leave.
  CArchiveFile file;
  ResultCode result = file.create(archive);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CArchiveFile::create", result);
    return result;
  }
  zipFile zip = zipOpen2_64(file.temporaryPath().c_str(), APPEND_STATUS_CREATE, nullptr,
                            file.fileFunctions());
  if (zip == nullptr) {
    KLOG_RC(LOG_LEVEL_E, "zipOpen2_64", GLOBAL_ERROR_BAD_PARAMETER);
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  // The archive may lie inside the listed folder, and so may the file it
  // replaces; reading the one while it grows would never end, and the other
  // is about to go.
  const CParallelZip::SkipTest isArchive = [&file](const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && file.isArchive(info);
  };
  size_t entries = 0;
  if (password.empty() && workers != kSequential) {
    CParallelZip pool(zip, &file, files, names, isArchive, workers);
    result = pool.run();
    entries = pool.entriesWritten();
  } else {
    result = writeEntries(zip, &file, files, names, password, isArchive, &entries);
  }
  // The central directory starts where the last entry ended.
  const uint64_t centralOffset = file.position();
  // zipClose writes the central directory: a failure here leaves an archive
  // that no reader can open, however well the entries went.
  const int closed = zipClose(zip, nullptr);
  if (result == 0 && closed != ZIP_OK) {
    KLOG_LIBRARY("zipClose", closed, nullptr);
    result = GLOBAL_ERROR_UNEXPECTED;
  }
  if (result == 0) {
    result = CompleteArchiveTail(&file, centralOffset, entries);
    if (result != 0)
      KLOG_RC(LOG_LEVEL_E, "CompleteArchiveTail", result);
  }
  if (result != 0) {
    file.discard();
    return result;
  }
  result = file.commit();
  if (result != 0)
    KLOG_RC(LOG_LEVEL_E, "CArchiveFile::commit", result);
  return result;
}

ResultCode CZip::writeEntries(zipFile zip, CArchiveFile* archive,
                              const std::vector<std::string>& files,
                              const std::vector<std::string>& names, const std::string& password,
                              const std::function<bool(const std::string&)>& isArchive,
                              size_t* written) {
  std::unique_ptr<unsigned char[]> in(new unsigned char[kBlockSize]);
  std::unique_ptr<unsigned char[]> out(new unsigned char[kBlockSize]);

  for (size_t i = 0; i < files.size(); ++i) {
    const std::string& file = files[i];
    if (isArchive(file)) {
      KLOG_W("Skipping %s, because it is the archive being written.", file.c_str());
      continue;
    }
    zip_fileinfo info;
    memset(&info, 0, sizeof(info));
    info.external_fa = getFileAttributes(file);
    if (!getFileDate(file, &info.tmz_date))
      KLOG_W("Failed to get file time attributes.");
    // A file that can't be read whole fails the archive (see EntrySource.h).
    CEntrySource source;
    if (!source.open(file))
      return GLOBAL_ERROR_UNEXPECTED;

    const char* entryPassword = nullptr;
    uLong crc = 0;
    if (!password.empty()) {
      if (!SourceCrc(&source, in.get(), &crc))
        return GLOBAL_ERROR_UNEXPECTED;
      if (crc != 0)
        entryPassword = password.c_str();
    }
    const uint64_t overhead = entryPassword == nullptr ? 0 : CZipCrypto::kHeaderSize;
    const int zip64 = ZipEntryNeedsZip64(source.size(), overhead) ? 1 : 0;
    const uint64_t headerOffset = archive->position();
    int opened;
    if (entryPassword == nullptr) {
      opened =
          zipOpenNewFileInZip3_64(zip, names[i].c_str(), &info, nullptr, 0, nullptr, 0, nullptr,
                                  Z_DEFLATED, kZipDeflateLevel, /*raw=*/0, kZipWindowBits,
                                  kZipMemLevel, kZipStrategy, nullptr, 0, zip64);
    } else {
      // Deflated and encrypted here (see ZipCrypto.h); minizip stores the
      // bytes as they come and marks the entry encrypted.
      opened = zipOpenNewFileInZip4_64(zip, names[i].c_str(), &info, nullptr, 0, nullptr, 0,
                                       nullptr, Z_DEFLATED, kZipDeflateLevel, /*raw=*/1,
                                       kZipWindowBits, kZipMemLevel, kZipStrategy, nullptr, 0,
                                       kVersionMadeBy, kEncryptedFlag, zip64);
    }
    if (opened != ZIP_OK) {
      KLOG_LIBRARY(entryPassword == nullptr ? "zipOpenNewFileInZip3_64" : "zipOpenNewFileInZip4_64",
                   opened, "%s", names[i].c_str());
      return GLOBAL_ERROR_UNEXPECTED;
    }
    int closed;
    uint64_t uncompressed = source.size();  // every byte, or a failure
    if (entryPassword == nullptr) {
      if (!CopyIntoEntry(zip, &source, file, in.get()))
        return GLOBAL_ERROR_UNEXPECTED;
      closed = zipCloseFileInZip(zip);
    } else {
      const RawEntryTotals totals =
          CopyIntoEncryptedEntry(zip, &source, file, password, crc, in.get(), out.get());
      if (totals.failed)
        return GLOBAL_ERROR_UNEXPECTED;
      closed = zipCloseFileInZipRaw64(zip, totals.size, totals.crc);
      uncompressed = totals.size;
    }
    if (closed < 0) {
      KLOG_LIBRARY(entryPassword == nullptr ? "zipCloseFileInZip" : "zipCloseFileInZipRaw64",
                   closed, nullptr);
      return GLOBAL_ERROR_UNEXPECTED;
    }
    if (zip64 != 0 && CompleteZip64LocalHeader(archive, headerOffset, uncompressed) != 0)
      return GLOBAL_ERROR_UNEXPECTED;
    ++*written;
  }
  return 0;
}

ResultCode CZip::Unzip(const std::string& archive, const std::string& target,
                       std::vector<std::string>& paths, bool overwrite) {
  if (archive.empty() || target.empty()) {
    KLOG_E("%s", kBadParameterText);
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  UnzipHandle unz(unzOpen64(archive.c_str()));
  if (!unz) {
    KLOG_E("unzOpen64 returned NULL.");
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  unz_global_info64 global;
  int code = unzGetGlobalInfo64(unz.get(), &global);
  if (code == UNZ_OK)
    code = unzGoToFirstFile(unz.get());
  if (code != UNZ_OK) {
    unz.reset();
    KLOG_LIBRARY("unzGotoFirstFile", code, nullptr);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  const std::string base = WithTrailingSlash(target);
  // Entries with a folder part make their folders, and so the target; an
  // entry at the top needs the target to be there already.
  struct stat info;
  if (stat(base.c_str(), &info) != 0 && !createPath(base))
    KLOG_E("Could not create the following dir: %s", base.c_str());
  std::unique_ptr<char[]> buffer(new char[kBlockSize]);
  do {
    const ResultCode result = ExtractCurrentEntry(unz.get(), base, paths, overwrite, buffer.get());
    if (result != 0)
      return result;
    code = unzGoToNextFile(unz.get());
  } while (code == UNZ_OK);
  if (code != UNZ_END_OF_LIST_OF_FILE) {
    KLOG_LIBRARY("unzGoToNextFile", code, nullptr);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  return 0;
}

uint32_t CZip::getCrc(const std::string& path) {
  FileHandle file(fopen(path.c_str(), "rb"));
  if (!file) {
    KLOG_E("Could not open %s", path.c_str());
    return 0;
  }
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[kBlockSize]);
  uLong crc = crc32(0L, Z_NULL, 0);
  size_t count;
  while ((count = fread(buffer.get(), 1, kBlockSize, file.get())) > 0)
    crc = crc32(crc, buffer.get(), static_cast<uInt>(count));
  return static_cast<uint32_t>(crc);
}

bool CZip::isLargeFile(const std::string& path) {
  FileHandle file(fopen(path.c_str(), "rb"));
  if (!file) {
    KLOG_E("Could not open %s", path.c_str());
    return false;
  }
  // A folder opens too, but its end position is no size.
  struct stat info;
  if (fstat(fileno(file.get()), &info) != 0 || S_ISDIR(info.st_mode))
    return false;
  if (fseeko(file.get(), 0, SEEK_END) != 0)
    return false;
  const off_t size = ftello(file.get());
  return size >= 0 && ZipEntryNeedsZip64(static_cast<uint64_t>(size), 0);
}

bool CZip::createPath(const std::string& path) {
  if (path.empty() || path[0] != '/')
    return false;
  size_t start = 1;
  while (start < path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos)
      end = path.size();
    if (end > start) {
      const std::string prefix = path.substr(0, end);
      struct stat info;
      if (stat(prefix.c_str(), &info) == 0) {
        if (!S_ISDIR(info.st_mode))
          return false;
      } else if (mkdir(prefix.c_str(), 0777) != 0) {
        // Someone else may have made it meanwhile.
        if (stat(prefix.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
          return false;
      }
    }
    start = end + 1;
  }
  return true;
}

bool CZip::getFileDate(const std::string& path, tm_zip* date) {
  time_t when = 0;
  bool found = false;
  if (path != "-") {
    struct stat info;
    if (stat(path.c_str(), &info) == 0) {
      when = info.st_mtime;
      found = true;
    }
  }
  // The re-entrant form, as the class may be used on any thread.
  struct tm local;
  memset(&local, 0, sizeof(local));
  localtime_r(&when, &local);
  date->tm_sec = static_cast<uInt>(local.tm_sec);
  date->tm_min = static_cast<uInt>(local.tm_min);
  date->tm_hour = static_cast<uInt>(local.tm_hour);
  date->tm_mday = static_cast<uInt>(local.tm_mday);
  date->tm_mon = static_cast<uInt>(local.tm_mon);
  date->tm_year = static_cast<uInt>(local.tm_year);
  return found;
}

uLong CZip::getFileAttributes(const std::string& /*path*/) {
  return 0;
}
