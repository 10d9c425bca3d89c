// CZip: the zip archive of a folder, and the way back.
//
// A class of static operations over minizip and zlib; it holds no state, so
// any thread may call it, one call on one thread. Every file is streamed in
// blocks of kBlockSize bytes, so memory does not grow with file size.
//
// An archive made by Zip has one deflated entry (level 9, raw deflate with a
// 32 KiB window) per regular file below the source folder, in the order of
// the folder walk: each folder's entries in the directory's own order, never
// sorted. Names are relative to the source folder with "/" between folders.
// There are no folder entries (an empty folder is lost), and symbolic links
// and special files are left out. Entries carry no extra fields, comments or
// external attributes; zip64 is chosen per entry from the most its data can
// deflate to. With a password, entries are encrypted with the classic zip
// scheme.
//
// Entries are deflated on a pool of worker threads (CParallelZip), one per
// core, and written in walk order; the archive is byte for byte the one the
// sequential path writes, which stays as the reference and for passwords
// (an encrypted entry needs its CRC before its data).
//
// The archive is built in a new file beside its path and renamed onto the
// path only once it is whole (CArchiveFile): a failure leaves the path as it
// was. A listed file that can't be opened or read whole fails the archive
// (CEntrySource), as does every failure to write the archive, to open or
// close an entry, or to close the archive: an archive is whole or not made.
// Past 65,535 entries or 4 GiB the archive ends with zip64 end records
// (ArchiveTail.h).
#ifndef COMMON_ZIP_CZIP_H_
#define COMMON_ZIP_CZIP_H_

#include <minizip/zip.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"

class CArchiveFile;

class CZip {
 public:
  // The size of every read and write buffer.
  static constexpr size_t kBlockSize = 16384;
  // Files of this size or more get zip64 headers whatever their data;
  // smaller ones may too (see isLargeFile).
  static constexpr uint64_t kLargeFileSize = 0xFFFFFFFFull;
  // As a number of worker threads: deflate on the calling thread, through
  // the sequential path.
  static constexpr unsigned kSequential = 0;

  // The number of worker threads Zip deflates with: one per core the
  // machine reports, at least one.
  static unsigned DefaultWorkerCount();

  // Archives every regular file below `source` into a new file `archive`
  // (replacing a file or link at that path, never writing through it).
  // Entry names are the paths after `source`, with or without its trailing
  // "/". With `recursive` clear, only the files of `source` itself are
  // taken. A `source` that can't be opened as a folder is taken as one file,
  // whose entry is named after its last component. Deflates with
  // DefaultWorkerCount() workers. GLOBAL_ERROR_BAD_PARAMETER for an empty
  // argument or an archive that can't be created; GLOBAL_ERROR_UNEXPECTED
  // when the archive can't be written whole (nothing is then left at
  // `archive` that was not there before).
  static ResultCode Zip(const std::string& source, const std::string& archive,
                        const std::string& password, bool recursive);
  // The same with `workers` worker threads; kSequential, or a password,
  // takes the sequential path.
  static ResultCode Zip(const std::string& source, const std::string& archive,
                        const std::string& password, bool recursive, unsigned workers);

  // Extracts every entry of `archive` below `target` (made if missing) and
  // appends the path of each entry (folder entries included) to `paths`.
  // Existing files are kept with a warning unless `overwrite` is set. Takes
  // no password. Entries whose names climb out of `target` are skipped with
  // an error; a file that can't be written is logged and the run goes on.
  // GLOBAL_ERROR_BAD_PARAMETER for an empty argument or an archive that
  // minizip can't open (which includes one without entries);
  // GLOBAL_ERROR_UNEXPECTED when an entry's header can't be read.
  static ResultCode Unzip(const std::string& archive, const std::string& target,
                          std::vector<std::string>& paths, bool overwrite);

  // Writes `files[i]` under the entry name `names[i]`, in list order, into a
  // new archive, as Zip does. An empty password writes plain entries.
  static ResultCode createZipFile(const std::vector<std::string>& files, const std::string& archive,
                                  const std::vector<std::string>& names,
                                  const std::string& password);
  static ResultCode createZipFile(const std::vector<std::string>& files, const std::string& archive,
                                  const std::vector<std::string>& names,
                                  const std::string& password, unsigned workers);

  // Appends to `list` the path of every regular file in `folder` (and below
  // it, with `recursive`), in walk order. The type comes from the directory
  // entry: where the filesystem reports none, nothing is listed. A path that
  // can't be opened as a folder is appended itself, as one file.
  static ResultCode getDirContents(std::vector<std::string>& list, const std::string& folder,
                                   bool recursive);

  // CRC-32 of the file's bytes; 0 if it can't be opened (and for an empty
  // file).
  static uint32_t getCrc(const std::string& path);

  // Whether the file's entry needs zip64 headers: its size, or the most
  // deflate can make of it (ZipEntryNeedsZip64), reaches kLargeFileSize.
  // False if it can't be opened.
  static bool isLargeFile(const std::string& path);

  // Makes every missing folder of the absolute `path` with mode 0777 (less
  // the umask). False for an empty or relative path, for a prefix that
  // exists and is not a folder, or when a folder can't be made.
  static bool createPath(const std::string& path);

  // Fills `date` from the file's modification time in local time. When the
  // name is "-" or the file can't be examined, `date` holds the local time of
  // the epoch and the result is false.
  static bool getFileDate(const std::string& path, tm_zip* date);

  // The external attributes of an entry: always 0, so that extraction uses
  // the extracting side's defaults.
  static uLong getFileAttributes(const std::string& path);

 private:
  // The sequential path: reads, deflates (and encrypts) and writes each
  // entry in turn on the calling thread into `zip`, which writes through
  // `archive`, counting them in `written`. Files for which `isArchive` holds
  // are left out.
  static ResultCode writeEntries(zipFile zip, CArchiveFile* archive,
                                 const std::vector<std::string>& files,
                                 const std::vector<std::string>& names, const std::string& password,
                                 const std::function<bool(const std::string&)>& isArchive,
                                 size_t* written);
};

#endif  // COMMON_ZIP_CZIP_H_
