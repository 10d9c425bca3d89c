// The collecting handlers: copy files and folders into the bundle's working
// folder and run programs whose output goes there too. What cannot be had is
// written into the summary as an omitted file with its reason.
#include <filesystem>
#include <string>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

// The words of the summary for a failed copy, with their leading blank.
std::string CopyErrorText(ResultCode code, const std::string& errorText) {
  std::string phrase;
  if (code == KEELENGINE_ERROR_FILE_NOT_FOUND)
    phrase = " File not found";
  else if (code == KEELENGINE_ERROR_FILE_OPEN_FAILURE)
    phrase = " Error occurred opening the file";
  else if (code == KEELENGINE_ERROR_WRITE_FAILURE)
    phrase = " Error occurred writing the copy";
  else
    phrase = " Unexpected error occurred";
  if (!errorText.empty())
    phrase += ": " + errorText;
  return phrase;
}

}  // namespace

ResultCode KEELCollectLogsAction::performFileAction(XMLObject& subtree, TruncAttrsList& records) {
  FileActionAttributes attributes;
  ResultCode result = parseFileActionAttributes(subtree, attributes);
  if (result != 0)
    return result;

  std::string folder = helperUtil::splitBeforeLast(attributes.resolvedLoc, "/", true);
  const std::string pattern = helperUtil::splitAfterLast(attributes.resolvedLoc, "/");

  FileEntry newest;
  if (attributes.gatherNewest) {
    result = helperUtil::fileGetNewestMatchingFile(folder, pattern, newest);
    if (result != 0) {
      helperUtil::fillSummaryFailedFile(m_pXMLSummary, m_fileId, pattern, m_description,
                                        folder + pattern + " not found on client machine.");
      return result;
    }
  }

  // The search gives `folder` its trailing "/", which the sources use. The
  // files are opened from the listed folder, not by their paths again.
  std::vector<std::string> patterns{pattern};
  FolderListing listing;
  if (helperUtil::fileListTree(folder, patterns, false, listing) != 0) {
    helperUtil::fillSummaryFailedFile(
        m_pXMLSummary, m_fileId, "N/A", m_description,
        "No file found with path matching: " + attributes.resolvedLoc);
    return 0;
  }

  for (const FileEntry& entry : listing.entries) {
    const std::string source = entry.directory + entry.name;
    if (attributes.gatherNewest && entry.name != newest.name)
      continue;
    const std::string destination =
        m_bundleFolder + "/" + helperUtil::bundleFileName(m_bundleName, entry.name);
    std::string errorText = entry.unreachable;
    result = KEELENGINE_ERROR_FILE_OPEN_FAILURE;
    if (entry.unreachable.empty())
      result = helperUtil::fileCopyAt(listing.folder.get(), listing.steeringUser, entry.name,
                                      destination, errorText);
    if (result != 0) {
      helperUtil::fillSummaryFailedFile(m_pXMLSummary, m_fileId,
                                        helperUtil::splitAfterLast(source, "/"), m_description,
                                        attributes.loc + CopyErrorText(result, errorText));
      // The newest file was the one wanted; an older one is no substitute.
      if (attributes.gatherNewest)
        return 0;
      continue;
    }
    records.push_back(collectedRecord(destination));
  }
  return 0;
}

ResultCode KEELCollectLogsAction::performDirectoryAction(XMLObject& subtree,
                                                         TruncAttrsList& records) {
  DirectoryActionAttributes attributes;
  ResultCode result = parseDirectoryActionAttributes(subtree, attributes);
  if (result != 0)
    return result;

  // The whole tree is listed before anything is copied, so that the copies
  // never become part of what is listed (the working folder may lie below
  // loc). Each file is then opened from the listed folder, one name at a
  // time.
  std::string searchFolder = attributes.resolvedLoc;
  FolderListing listing;
  if (helperUtil::fileListTree(searchFolder, attributes.patterns, true, listing) != 0) {
    helperUtil::fillSummaryFailedFile(m_pXMLSummary, m_fileId, "N/A", m_description,
                                      attributes.resolvedLoc);
    return 0;
  }

  for (const FileEntry& entry : listing.entries) {
    // The tree below loc is kept inside the bundle folder.
    const std::string target =
        CStringUtils::replaceAll(entry.directory, attributes.resolvedLoc, m_bundleFolder + "/");
    const std::string source = entry.directory + entry.name;
    const std::string destination = target + entry.name;
    std::string errorText = entry.unreachable;
    if (!entry.unreachable.empty()) {
      result = KEELENGINE_ERROR_FILE_OPEN_FAILURE;
    } else {
      std::error_code made;
      std::filesystem::create_directories(target, made);
      // A folder that cannot be made (a full disk) loses its file, and the
      // summary says so.
      result = made ? KEELENGINE_ERROR_WRITE_FAILURE : 0;
      if (made)
        errorText = made.message();
      else
        result = helperUtil::fileCopyAt(listing.folder.get(), listing.steeringUser,
                                        source.substr(searchFolder.size()), destination, errorText);
    }
    if (result != 0) {
      helperUtil::fillSummaryFailedFile(m_pXMLSummary, m_fileId,
                                        helperUtil::splitAfterLast(source, "/"), m_description,
                                        source + CopyErrorText(result, errorText));
      continue;
    }
    records.push_back(collectedRecord(destination));
  }
  return 0;
}

ResultCode KEELCollectLogsAction::performExternalAction(XMLObject& subtree, TruncAttrsList& records,
                                                        std::list<std::string>& deleteList) {
  ExternalActionAttributes attributes;
  ResultCode result = parseExternalActionAttributes(subtree, m_isAdmin, attributes);
  if (result != 0)
    return result;

  // Where the output goes: a bare temp_out name and captured output live in
  // the bundle folder; a temp_out with a folder is written by the program
  // itself and copied in afterwards.
  std::string outputFile;
  bool outputInBundle = false;
  if (!attributes.tempOut.empty()) {
    if (attributes.tempOut.find('/') == std::string::npos) {
      outputFile = m_bundleFolder + "/" + attributes.tempOut;
      outputInBundle = true;
    } else {
      outputFile = attributes.tempOut;
    }
  } else if (attributes.captureStdout) {
    outputFile = m_bundleFolder + "/" +
                 (!m_bundleName.empty() ? m_bundleName : attributes.shortName + "_result.txt");
    outputInBundle = true;
  }

  if (attributes.replaceArgs) {
    attributes.args = CStringUtils::replaceAll(attributes.args, "[BUNDLE_DIR]", m_bundleFolder);
    if (attributes.args.find("[USER]") != std::string::npos) {
      std::string userName;
      result = helperUtil::GetSessionUsername(userName);
      if (result != 0) {
        KLOG_RC(LOG_LEVEL_I, "helperUtil::GetSessionUsername", result);
        return result;
      }
      attributes.args = CStringUtils::replaceAll(attributes.args, "[USER]", userName);
    }
  }

  attributes.path = helperUtil::translatePath(attributes.path);
  attributes.args = helperUtil::translatePath(attributes.args);
  outputFile = helperUtil::translatePath(outputFile);

  m_outputFailure.clear();
  result = callExtern(attributes.path, attributes.args, attributes.captureStdout, outputFile);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "KEELAction::callExtern", result);
    return result;
  }
  // Output that did not reach its file whole is not listed at a cut size:
  // the file is gone, and the summary says why.
  if (!m_outputFailure.empty()) {
    helperUtil::fillSummaryFailedFile(m_pXMLSummary, m_fileId,
                                      helperUtil::splitAfterLast(outputFile, "/"), m_description,
                                      m_outputFailure);
    KLOG_RC_DESC(LOG_LEVEL_E, "KEELAction::callExtern", KEELENGINE_ERROR_WRITE_FAILURE,
                 m_outputFailure.c_str());
    return KEELENGINE_ERROR_WRITE_FAILURE;
  }

  std::string collected = outputFile;
  if (!outputInBundle) {
    // A program run for its side effects leaves nothing in the summary.
    if (outputFile.empty())
      return 0;
    const std::string name = helperUtil::splitAfterLast(outputFile, "/");
    const std::string destination = helperUtil::translatePath(
        m_bundleFolder + "/" + helperUtil::bundleFileName(m_bundleName, name));
    std::string errorText;
    result = helperUtil::fileCopy(outputFile, destination, errorText);
    if (result != 0) {
      std::string reason =
          "KEEL cannot access temporary output at: " + outputFile + " as specified by Config";
      if (!errorText.empty())
        reason += " Error returned:" + errorText;
      helperUtil::fillSummaryFailedFile(m_pXMLSummary, m_fileId, name, m_description, reason);
      KLOG_RC_DESC(LOG_LEVEL_E, "helperUtil::fileCopy", result, reason.c_str());
      return result;
    }
    deleteList.push_back(outputFile);
    collected = destination;
  }

  records.push_back(collectedRecord(collected));
  return 0;
}
