// helperUtil: the static file, path, text and status operations that the
// engine, the collector and the actions share.
//
// Paths and host lookups keep no state; every failure is soft (an empty or
// untranslated result, at most a log line). File operations return a
// ResultCode and log their own failures. The status channel holds the only
// process-wide state: the config count, the done count, the console flag,
// the listener and its status record.
//
// Threads: everything may be called from any thread, with two exceptions.
// reportStatus touches the status record and the console, so a pool thread
// calls it only while holding statusLock(). fileTruncateEnd and
// fileTruncateFront share the scratch file "temp_out.txt" in the current
// folder and must not run at the same time as each other.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_HELPERUTIL_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_HELPERUTIL_H_

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"
#include "Common/Utility/HostPaths.h"
#include "Common/Utility/ScopedHandles.h"

class XMLObject;
struct HostOSInfo;

// One result of helperUtil::fileFindAll.
struct FileEntry {
  std::string name;       // entry name, with no folder
  std::string directory;  // folder it was found in, ending in "/"
  bool isDirectory = false;
  int64_t modified = 0;  // modification time in seconds
  // Why the entry could not be reached (a link not followed, a folder that
  // could not be opened, a name too long to be a path); empty when it was.
  // Only a FolderListing holds such entries.
  std::string unreachable;
};

// A listing of helperUtil::fileListTree: what fileFindAll lists, together
// with the folder the listing was made from, still open, so that what it
// lists is opened from there (fileCopyAt) and never by its path again.
// Entries that could not be reached stand in `entries` too, in the order
// of the listing, with the reason in `unreachable`.
struct FolderListing {
  ScopedFd folder;         // the listed folder; invalid when it was refused
  uid_t steeringUser = 0;  // the walk's steering user at that folder
  std::vector<FileEntry> entries;
};

// What the status channel last showed, for a listening front end.
struct KEELStatusRecord {
  int32_t percent = 0;
  std::string message;
};

// A front end that receives status instead of the console. Not owned by the
// channel; it must outlive every reportStatus call made while it is set.
class statusListener {
 public:
  virtual ~statusListener() = default;
  // Called by reportStatus (under the caller's statusLock) with the updated
  // record and the code of the report.
  virtual void statusChanged(const KEELStatusRecord& status, ResultCode code) = 0;
};

class helperUtil {
 public:
  helperUtil() = delete;

  // ---- Paths and host lookups --------------------------------------------

  // Expands every "$NAME/" from left to right with the variable's value and
  // one "/". A "$NAME" with no "/" behind it stays as it is; an unset or
  // empty variable is logged and the path comes back as it stands then.
  static std::string translatePath(const std::string& path);
  // getenv of `name` (one leading "$" dropped); empty when unset.
  static std::string getEnvironmentVariable(const std::string& name);
  // The USER variable, or empty.
  static std::string getSessionUser();
  // Not available on this platform: clears `userName` and returns
  // KEELENGINE_ERROR_NOT_IMPLEMENTED.
  static ResultCode GetSessionUsername(std::string& userName);
  // Whether instructions' admin_args apply to the session user. Always false
  // on this platform.
  static bool isUserAdmin();
  static std::string getCurrentFolder();
  // "./x" and "x" are put under the current folder; anything holding a "/"
  // elsewhere ("a/b", "../x", "/x") is returned unchanged.
  static std::string toAbsolutePath(const std::string& path);
  // Folder of the running program with a trailing "/", read from
  // <procRoot>/<pid>/exe; "/opt/velon/tesselclient/keel/" when that fails.
  static std::string getInstallFolder(const HostPaths& paths = HostPaths());
  // `base` (or getInstallFolder() when empty), "/" and "xml/config/".
  static std::string getConfigFolder(const std::string& base = std::string());
  // The XDG desktop entry with a "/" appended, or the literal
  // "$HOME/Desktop/" (not expanded: pass it through translatePath).
  static std::string getDesktopFolder();
  // The XDG desktop entry of user-dirs.dirs below XDG_CONFIG_HOME, or below
  // HOME/.config when that is unset; empty when there is none.
  static std::string readDesktopFolder();
  // "Linux: <release>" for the summary.
  static std::string getOsDescription();
  // The same for a given record: by its family type.
  static std::string getOsDescription(const HostOSInfo& info);

  // ---- File operations ----------------------------------------------------

  // Copies a file, or a folder tree, to `destination` (its parent must
  // exist). The source is reached by TrustedPath: a link another user
  // could have planted is not followed, and a source that is neither a
  // regular file nor a folder is refused, each as an open failure with the
  // reason in `errorText`; a missing source is KEELENGINE_ERROR_FILE_NOT_FOUND.
  // A file is copied up to the size it had when opened, so a file that
  // grows meanwhile is not chased. An existing destination file is removed
  // first; the copy is made with mode 0600 and never through a link. A copy
  // that cannot be written whole is removed and gives
  // KEELENGINE_ERROR_WRITE_FAILURE with the system's words in `errorText`.
  // Failures inside a folder tree are logged and never reach the caller.
  static ResultCode fileCopy(const std::string& source, const std::string& destination,
                             std::string& errorText);
  // The same for `relative` (a name, or names joined by "/") below the
  // opened folder `folder` whose walk gave `steeringUser`.
  static ResultCode fileCopyAt(int folder, uid_t steeringUser, const std::string& relative,
                               const std::string& destination, std::string& errorText);
  // Removes a file; a missing file counts as removed.
  static ResultCode fileDelete(const std::string& path);
  // Removes the files directly in `folder`; sub-folders stay.
  static ResultCode fileDeleteAll(const std::string& folder);
  // Removes the files of `folder` and the folder itself; one that still
  // holds sub-folders gives KEELENGINE_ERROR_UNEXPECTED. A symbolic link in
  // place of the folder is never followed: KEELENGINE_ERROR_ACCESS_DENIED.
  static ResultCode fileDeleteDirectory(const std::string& folder);
  // Appends to `results` every file (never a folder) of `folder` whose
  // lower-cased name matches a pattern, going into sub-folders when
  // `recursive` is set. `folder` gets a trailing "/" and `patterns` are
  // lower-cased in place. The walk goes by descriptor and follows only the
  // links TrustedPath trusts; what it cannot reach is logged and left out.
  // An empty result is KEELENGINE_ERROR_FILE_NOT_FOUND, never success.
  static ResultCode fileFindAll(std::string& folder, std::vector<std::string>& patterns,
                                bool recursive, std::vector<FileEntry>& results);
  // fileFindAll for a copy: the listing keeps its folder open, and what
  // could not be reached is listed with its reason instead of left out: in
  // a recursive listing every such entry (it may be a folder), otherwise
  // those whose names match. A listed folder that is refused for another
  // reason than its absence or not being a folder gives one such entry for
  // itself and success. Names whose path would pass PATH_MAX are not
  // reached either.
  static ResultCode fileListTree(std::string& folder, std::vector<std::string>& patterns,
                                 bool recursive, FolderListing& listing);
  // Sets name and modified of `newest` to the newest match of `pattern`
  // directly in `folder`; of equal times the last one listed wins.
  static ResultCode fileGetNewestMatchingFile(const std::string& folder, const std::string& pattern,
                                              FileEntry& newest);
  // Keeps the first `count` bytes of the file. Goes through "temp_out.txt"
  // in the current folder, which stays behind.
  static ResultCode fileTruncateEnd(uint64_t count, const char* path);
  static ResultCode fileTruncateEnd(uint64_t count, const std::string& path);
  // Keeps the last `count` bytes of the file followed by one byte 0xFF;
  // empties the file when `count` exceeds its size.
  static ResultCode fileTruncateFront(uint64_t count, const char* path);
  static ResultCode fileTruncateFront(uint64_t count, const std::string& path);
  // mkdir of one level, mode 0700. Only EACCES is a failure
  // (KEELENGINE_ERROR_ACCESS_DENIED); anything else is logged and gives 0.
  static ResultCode MakeDirectory(const std::string& path);
  // Size in bytes (links followed), or -1.0 for a null path or a failed stat.
  static double fileSize(const char* path);
  // The same after translatePath(path).
  static double fileSize(const std::string& path);

  // ---- Text ------------------------------------------------------------

  // "*" matches any run (also empty), "?" one character; case sensitive. A
  // null argument gives false.
  static bool wildcardMatch(const char* pattern, const char* name);
  static bool wildcardMatch(const std::string& pattern, const std::string& name);
  // The name of a found file inside the bundle, given the wanted name.
  static std::string bundleFileName(const std::string& wanted, const std::string& found);
  // The split helpers return the whole text when `separator` does not occur
  // (an empty separator never occurs).
  static std::string splitBeforeFirst(const std::string& text, const std::string& separator);
  static std::string splitAfterFirst(const std::string& text, const std::string& separator);
  static std::string splitAfterLast(const std::string& text, const std::string& separator);
  // With keepSeparator the result ends in the last separator. Without it, a
  // run of separators ahead of the last one goes too.
  static std::string splitBeforeLast(const std::string& text, const std::string& separator,
                                     bool keepSeparator);
  // "123 bytes" below 1024; otherwise e.g. "1.50K", "2.00M", with
  // `precision` decimals.
  static std::string formatFileSize(int precision, double size);
  // "Whole File", "Data (front or end)", "Truncate end", "Truncate front",
  // "No", or "Unknown".
  static std::string truncationTypeName(int32_t type);
  // Below 100000, from the system's random source; thread-safe.
  static int32_t randomNumber();
  // Drops leading blanks and tabs.
  static std::string stripLeadingBlanks(const std::string& text);

  // ---- Status channel -----------------------------------------------------

  // Number of config documents; 0 until the engine knows them.
  static void setConfigCount(uint32_t count);
  static uint32_t getConfigCount();
  // The done count starts at 1 and is never reset; one increment per config
  // whose collection has ended. Returns the new value.
  static int32_t incrementDoneCount();
  static int32_t getDoneCount();
  // Percentage for a done count: 0 to just under 92.
  static int32_t progressOf(int32_t done);
  // Chooses the console form of reportStatus. Called once, before the
  // engine is built.
  static void setCliMode(bool cliMode);
  static bool getCliMode();
  // The listener used without console form; null for none. Not owned.
  static void setStatusListener(statusListener* listener);
  // Shows a status. Console form: a final message (code other than
  // KEELOFFLINE_ERROR_PROCESSING) as its own line; a progress message
  // (KEELOFFLINE_ERROR_PROCESSING) rewrites the current line, unless its
  // text is empty or its percent is 0.
  static void reportStatus(int32_t percent, const std::string& message, ResultCode code);
  // Held by pool threads around building a status message and reporting it.
  static std::mutex& statusLock();

  // ---- Summary entries ------------------------------------------------------

  // Adds an omitted file below "Manifest_Not_Included": a component named by
  // `id` with `fileName` as value and the attributes description and reason.
  static void fillSummaryFailedFile(XMLObject* summary, const std::string& id,
                                    const std::string& fileName, const std::string& description,
                                    const std::string& reason);
  // Adds a " - " component with `note` as value below "Other_Note".
  static void fillSummaryNote(XMLObject* summary, const std::string& note);
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_HELPERUTIL_H_
