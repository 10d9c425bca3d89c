// The clearing handlers: remove the files and run the clearing commands that
// instructions mark with clear_log apply="true". Nothing that goes wrong
// while clearing is a failure of the action, and nothing reaches a bundle.
//
// Clearing deletes as root in folders that other users may be able to
// change. So the folder is opened once, through TrustedPath (a link or
// folder of another user that leads elsewhere is refused), and it is listed
// and its files are deleted through that one descriptor: swapping the
// folder for a link while the run goes on can't move a single deletion into
// another folder.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/TrustedPath.h"
#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

bool IsDotEntry(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// The regular files directly in the opened folder `folder` whose name
// matches `pattern`, both compared in lower case. Links, folders and
// anything else are passed over: clearing removes log files only.
std::vector<std::string> MatchingFiles(int folder, const std::string& pattern) {
  std::vector<std::string> names;
  // fdopendir takes the descriptor it is given; the folder's own stays
  // open for the deletions.
  ScopedFd listing(fcntl(folder, F_DUPFD_CLOEXEC, 0));
  if (!listing.valid())
    return names;
  DirHandle dir(fdopendir(listing.get()));
  if (!dir)
    return names;
  listing.release();
  const std::string lowerPattern = CStringUtils::toLowerCopy(pattern);
  while (const dirent* entry = readdir(dir.get())) {
    if (IsDotEntry(entry->d_name))
      continue;
    struct stat info;
    if (fstatat(folder, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode))
      continue;
    if (helperUtil::wildcardMatch(lowerPattern, CStringUtils::toLowerCopy(entry->d_name)))
      names.push_back(entry->d_name);
  }
  return names;
}

}  // namespace

ResultCode KEELClearLogsAction::performFileAction(XMLObject& subtree, TruncAttrsList& records) {
  (void)records;
  FileActionAttributes attributes;
  ResultCode result = parseFileActionAttributes(subtree, attributes);
  if (result != 0)
    return result;
  if (!attributes.clearLog)
    return 0;

  // Every match goes, newest or not, but only in this one folder.
  const std::string folder = helperUtil::splitBeforeLast(attributes.resolvedLoc, "/", true);
  const std::string pattern = helperUtil::splitAfterLast(attributes.resolvedLoc, "/");
  const TrustedPathResult opened = TrustedPath::openFolder(folder);
  if (!opened.ok()) {
    // A folder that is not there has nothing to clear; one that is refused
    // is worth a line in the log.
    if (opened.error != ENOENT)
      KLOG_W("Not clearing \"%s\": %s", folder.c_str(), opened.reason.c_str());
    return 0;
  }
  for (const std::string& name : MatchingFiles(opened.fd.get(), pattern)) {
    // unlinkat never follows the name: had it been swapped for a link
    // since the listing, only the link would go.
    if (unlinkat(opened.fd.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
      const int error = errno;
      KLOG_RC_DESC(LOG_LEVEL_E, "unlinkat", static_cast<ResultCode>(error),
                   errnoText(error).c_str());
    }
  }
  return 0;
}

ResultCode KEELClearLogsAction::performDirectoryAction(XMLObject& subtree,
                                                       TruncAttrsList& records) {
  // Folders copied into a bundle are never cleared.
  (void)subtree;
  (void)records;
  return 0;
}

ResultCode KEELClearLogsAction::performExternalAction(XMLObject& subtree, TruncAttrsList& records,
                                                      std::list<std::string>& deleteList) {
  (void)records;
  (void)deleteList;
  ExternalActionAttributes attributes;
  ResultCode result = parseExternalActionAttributes(subtree, false, attributes);
  if (result != 0)
    return result;
  if (!attributes.clear)
    return 0;

  // With no output file this is always the launch form. The outcome shows
  // only in the log: a clear run has no summary.
  const std::string path = helperUtil::translatePath(attributes.path);
  callExtern(path, attributes.clearCommand, attributes.captureStdout, std::string());
  return 0;
}
