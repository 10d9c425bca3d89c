// The clearing handlers: remove the files and run the clearing commands that
// instructions mark with clear_log apply="true". Nothing that goes wrong
// while clearing is a failure of the action, and nothing reaches a bundle.
#include <string>
#include <vector>

#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

ResultCode KEELClearLogsAction::performFileAction(XMLObject& subtree, TruncAttrsList& records) {
  (void)records;
  FileActionAttributes attributes;
  ResultCode result = parseFileActionAttributes(subtree, attributes);
  if (result != 0)
    return result;
  if (!attributes.clearLog)
    return 0;

  // Every match goes, newest or not, but only in this one folder.
  std::string folder = helperUtil::splitBeforeLast(attributes.resolvedLoc, "/", true);
  std::vector<std::string> patterns{helperUtil::splitAfterLast(attributes.resolvedLoc, "/")};
  std::vector<FileEntry> found;
  if (helperUtil::fileFindAll(folder, patterns, false, found) != 0 || found.empty())
    return 0;
  for (const FileEntry& entry : found)
    helperUtil::fileDelete(folder + entry.name);
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
