// The action base: the walk over an instruction's groups, the three parsers
// of the action vocabulary, and the running and watching of one external
// command.
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"

#include <ctime>
#include <mutex>
#include <ostream>
#include <utility>
#include <vector>

#include "Common/IPC/ProcessAPI_unix.h"
#include "Common/Log/Log.h"
#include "tools/KEEL/KEELEngine/implementations/Env.h"
#include "tools/KEEL/KEELEngine/implementations/ProgramOutputFile.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

const char kFileGroup[] = "file_copy_action";
const char kDirectoryGroup[] = "directory_copy_action";
const char kExternalGroup[] = "use_extern_action";

// One wait of the watch loop, in milliseconds.
const uint32_t kWaitCycleMillis = 1000;
// An external program may run while the tool itself uses up to 1,200
// seconds of processor time; clock() counts a million per second.
const clock_t kActivityLimit = 1199999999;
const clock_t kClockPerSecond = 1000000;

const std::string kStars(75, '*');

// The children of `node` as plain pointers: the walks work on this copy, so
// that nothing a handler does can disturb them.
std::vector<KEELComponent*> ChildPointers(const KEELComponent* node) {
  std::vector<KEELComponent*> children;
  for (const auto& child : node->GetChildren())
    children.push_back(child.get());
  return children;
}

// The root of an action element's view and a copy of its children (empty
// places passed over); null, logged, when the view has none.
KEELComponent* ActionRoot(XMLObject& subtree, std::vector<KEELComponent*>& children) {
  KEELComponent* root = subtree.GetRoot();
  if (root == nullptr) {
    KLOG_E("rXMLActionSubtree.GetRoot() is NULL");
    return nullptr;
  }
  for (KEELComponent* child : ChildPointers(root)) {
    if (child != nullptr)
      children.push_back(child);
  }
  return root;
}

// The first word of a command line, or the whole line when that is empty.
std::string FirstWord(const std::string& commandLine) {
  std::string first = helperUtil::splitBeforeFirst(commandLine, " ");
  return first.empty() ? commandLine : first;
}

}  // namespace

KEELAction::KEELAction(const ActionSettings& settings, KEELComponent* configNode, bool isAdmin)
    : m_pConfigNode(configNode),
      m_fileId(settings.m_fileId),
      m_bundleName(settings.m_bundleName),
      m_bundleFolder(settings.m_bundleFolder),
      m_description(settings.m_description),
      m_truncateType(settings.m_truncateType),
      m_truncateLimit(settings.m_truncateLimit),
      m_auxValue(settings.m_auxValue),
      m_pXMLSummary(settings.m_pXMLSummary),
      m_isAdmin(isAdmin),
      m_pEnv(settings.m_pEnv != nullptr ? settings.m_pEnv : Env::Default()) {}

KEELAction::~KEELAction() {
  // No program outlives its action. m_pid is cleared as soon as the
  // program has been collected, so only one still running is stopped: the
  // number of a collected one may belong to another process by now.
  if (m_pProcessApi != nullptr && m_pid > 0)
    m_pProcessApi->KillProcess(m_pid);
  m_pProcessApi.reset();
}

void KEELAction::Perform(TruncAttrsList& records) {
  if (m_pConfigNode == nullptr) {
    KLOG_E("m_pConfigNode is NULL");
    return;
  }
  const std::vector<KEELComponent*> groups = ChildPointers(m_pConfigNode);
  for (KEELComponent* group : groups) {
    if (group == nullptr)
      continue;
    const std::string groupName = group->GetName();
    const bool isFileGroup = groupName == kFileGroup;
    const bool isDirectoryGroup = !isFileGroup && groupName == kDirectoryGroup;
    const bool isExternalGroup = !isFileGroup && !isDirectoryGroup && groupName == kExternalGroup;
    if (!isFileGroup && !isDirectoryGroup && !isExternalGroup)
      continue;

    std::list<std::string> deleteList;
    const std::vector<KEELComponent*> actions = ChildPointers(group);
    for (KEELComponent* actionNode : actions) {
      XMLObject subtree(actionNode);
      TruncAttrsList local;
      ResultCode result = 0;
      const char* invoked = nullptr;
      if (isFileGroup) {
        invoked = "KEELAction::performFileAction";
        result = performFileAction(subtree, local);
      } else if (isDirectoryGroup) {
        invoked = "KEELAction::performDirectoryAction";
        result = performDirectoryAction(subtree, local);
      } else {
        invoked = "KEELAction::performExternalAction";
        result = performExternalAction(subtree, local, deleteList);
      }
      if (result != 0) {
        // A file that is not there is already in the summary; not worth a
        // log line of its own.
        if (result != KEELENGINE_ERROR_FILE_NOT_FOUND)
          KLOG_RC(LOG_LEVEL_E, invoked, result);
        continue;
      }
      records.splice(records.end(), local);
    }
    // Outside output files were copied into the bundle; their originals go
    // once the whole group has run.
    for (const std::string& path : deleteList)
      ProgramOutputFile::remove(path);
  }
}

std::string KEELAction::getPath(KEELComponent* node) {
  if (node == nullptr) {
    KLOG_E("pDC is NULL");
    return std::string();
  }
  std::string result;
  const std::string name = node->GetName();
  if (name == "path") {
    result = node->GetValue();
  } else if (name == "plugin") {
    result = helperUtil::getInstallFolder() + "./plugin";
    const std::string sub = node->GetValue();
    if (!sub.empty())
      result += "/" + sub;
  } else {
    KLOG_E("pDC is of unknown type \"%s\"", name.c_str());
  }
  if (result.size() > 2 && result.front() == '"' && result.back() == '"')
    result = result.substr(1, result.size() - 2);
  return result;
}

ResultCode KEELAction::parseFileActionAttributes(XMLObject& subtree, FileActionAttributes& out) {
  std::vector<KEELComponent*> children;
  KEELComponent* root = ActionRoot(subtree, children);
  if (root == nullptr)
    return KEELENGINE_ERROR_BAD_PARAMETER;
  KEELComponent* truncateType = root->FindChild("truncate_type");
  out.truncateType = truncateType != nullptr ? truncateType->GetValue() : std::string();

  for (KEELComponent* child : children) {
    const std::string name = child->GetName();
    if (name == "loc") {
      out.loc = child->GetValue();
      out.resolvedLoc = helperUtil::translatePath(out.loc);
      // Only ever set: a later loc without the attribute keeps it.
      if (child->GetAttributeValue("gather_newest") == "true")
        out.gatherNewest = true;
    } else if (name == "clear_log") {
      if (child->GetAttributeValue("apply") == "true")
        out.clearLog = true;
    }
  }
  return 0;
}

ResultCode KEELAction::parseDirectoryActionAttributes(XMLObject& subtree,
                                                      DirectoryActionAttributes& out) {
  std::vector<KEELComponent*> children;
  KEELComponent* root = ActionRoot(subtree, children);
  if (root == nullptr)
    return KEELENGINE_ERROR_BAD_PARAMETER;
  for (KEELComponent* child : children) {
    const std::string name = child->GetName();
    if (name == "loc") {
      out.loc = child->GetValue();
      // An empty loc stays empty, so that the search refuses it; a lone "/"
      // would send the recursive search through the whole file system.
      if (!out.loc.empty() && out.loc.back() != '/')
        out.loc += "/";
      out.resolvedLoc = helperUtil::translatePath(out.loc);
    } else if (name == "pattern") {
      out.patterns.push_back(child->GetValue());
    } else {
      KLOG_E("Unexpected xml child for directory_copy_action.");
      return KEELENGINE_ERROR_UNEXPECTED;
    }
  }
  return 0;
}

ResultCode KEELAction::parseExternalActionAttributes(XMLObject& subtree, bool isAdmin,
                                                     ExternalActionAttributes& out) {
  out = ExternalActionAttributes();
  std::vector<KEELComponent*> children;
  KEELComponent* root = ActionRoot(subtree, children);
  if (root == nullptr)
    return KEELENGINE_ERROR_BAD_PARAMETER;

  bool adminArgsTaken = false;
  for (KEELComponent* child : children) {
    out.tagName = child->GetName();
    const std::string& tag = out.tagName;
    if (tag == "path" || tag == "plugin" || tag == "regis" || tag == "regis64") {
      if (!child->IsLeaf()) {
        KLOG_E(
            "Internal Error: unexpected further nested tags inside the <path></path> tag pairs in "
            "<action></action>.");
        return KEELENGINE_ERROR_INVALID_XML;
      }
      out.path = getPath(child);
    } else if (tag == "args" || tag == "admin_args") {
      if (!child->IsLeaf()) {
        KLOG_E(
            "Internal Error: unexpected further nested tags inside the <args></args> or "
            "<admin_args></admin_args> tag pairs in <action></action>.");
        return KEELENGINE_ERROR_INVALID_XML;
      }
      if (tag == "admin_args") {
        if (!isAdmin)
          continue;
        adminArgsTaken = true;
      } else if (adminArgsTaken) {
        continue;
      }
      if (child->GetAttributeValue("replace_args") == "true")
        out.replaceArgs = true;
      out.args = child->GetValue();
      out.program = helperUtil::splitBeforeFirst(out.args, " ");
      if (!out.program.empty())
        out.program = helperUtil::splitAfterLast(out.program, "/");
      else
        out.program = out.args;
      out.shortName = helperUtil::splitBeforeLast(out.program, ".", false);
    } else if (tag == "clear_log") {
      if (child->GetAttributeValue("apply") == "true") {
        out.clear = true;
        out.clearCommand = child->GetValue();
      }
    } else if (tag == "temp_out") {
      if (!child->IsLeaf()) {
        KLOG_E(
            "Internal Error: unexpected further nested tags inside the <temp_out></temp_out> tag "
            "pairs in <action></action>");
        return KEELENGINE_ERROR_INVALID_XML;
      }
      out.tempOut = child->GetValue();
    } else if (tag == "stdout") {
      out.captureStdout = true;
    } else {
      KLOG_E("Internal Error: Unrecognized XML tag.");
      return KEELENGINE_ERROR_UNKNOWN_XML_TAG;
    }
  }

  // A folder written in front of the command adds to the path element.
  std::string dir =
      helperUtil::splitBeforeLast(helperUtil::splitBeforeFirst(out.args, " "), "/", false);
  if (dir != out.program) {
    if (out.path.empty()) {
      out.path = dir;
    } else {
      while (!out.path.empty() && out.path.back() == '/')
        out.path.pop_back();
      out.path += "/";
      size_t start = dir.find_first_not_of('/');
      out.path += start == std::string::npos ? std::string() : dir.substr(start);
    }
  }
  return 0;
}

ResultCode KEELAction::callExtern(const std::string& path, const std::string& commandLine,
                                  bool captureStdout, const std::string& outputFile) {
  if (m_pProcessApi != nullptr) {
    if (m_pid > 0) {
      m_pProcessApi->KillProcess(m_pid);
      m_pid = 0;
    }
    m_pProcessApi.reset();
  }
  m_pProcessApi = m_pEnv->newProcessApi();

  ResultCode result = 0;
  if (!outputFile.empty() && captureStdout)
    result = runInShell(path, commandLine, outputFile);
  else
    result = launch(path, commandLine);
  if (result != 0) {
    helperUtil::fillSummaryFailedFile(m_pXMLSummary, m_fileId, "N/A", m_description,
                                      "Failed to execute " + FirstWord(commandLine));
    return result;
  }
  return watch(commandLine);
}

ResultCode KEELAction::runInShell(const std::string& path, const std::string& commandLine,
                                  const std::string& outputFile) {
  // Appending: every command that names this file adds its own part, under
  // its own banner. A file that is refused or can't be opened loses the
  // output only: the command still runs, and m_outputFailure says why.
  m_outputFailure.clear();
  ProgramOutputFile output;
  if (output.open(outputFile)) {
    std::ostream& stream = output.stream();
    stream << "\n\r" << kStars << std::endl;
    stream << "\"" << commandLine << "\" output:" << std::endl;
    stream << kStars << "\n\r" << std::endl;
  }
  std::string command = commandLine;
  if (!path.empty() && (commandLine.empty() || commandLine[0] != '/'))
    command = path + "/" + commandLine;
  const ResultCode result = m_pEnv->runShell(command, output.stream());
  if (result != 0)
    KLOG_RC(LOG_LEVEL_E, "CCommandShell::Execute", result);
  // The command has ended: what it said is all in the file, or the file
  // is not whole and is gone.
  if (!output.close())
    m_outputFailure = outputFile + " " + output.failure();
  return result;
}

ResultCode KEELAction::launch(const std::string& path, const std::string& commandLine) {
  // Everything behind the first blank is handed over as one argument, also
  // when it is empty.
  std::string program = commandLine;
  std::string arguments;
  const size_t blank = commandLine.find(' ');
  if (blank != std::string::npos) {
    program = commandLine.substr(0, blank);
    arguments = commandLine.substr(blank + 1);
  }
  // The program runs as the tool itself; the folder is always joined, so an
  // empty one means the root of the file system.
  ProcessAttributes attributes;
  attributes.path = path.c_str();
  attributes.inheritStdout = true;
  attributes.inheritStderr = true;
  const std::vector<const char*> argv = {program.c_str(), arguments.c_str()};
  const ResultCode result = m_pProcessApi->Launch(attributes, argv);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CProcessApi::Launch", result);
    return result;
  }
  m_pid = attributes.pid;
  return 0;
}

ResultCode KEELAction::watch(const std::string& commandLine) {
  // One cycle a second until the program has ended, or until the tool has
  // spent its processor-time allowance. After the shell form m_pid is 0:
  // the command has ended and nothing is watched (a poll of 0 would collect
  // any child of the tool, another job's program among them).
  const std::string first = FirstWord(commandLine);
  std::string text = "Processing " + m_description + "...";
  ResultCode result = 0;
  if (m_pid <= 0)
    return result;
  const clock_t start = m_pEnv->processorClock();
  while (m_pProcessApi->PollProcess(m_pid) == 0) {
    // The exit code does not matter: a program that ended has done its part.
    int32_t exitCode = 0;
    result = m_pProcessApi->WaitForProcess(m_pid, &exitCode, nullptr, false, kWaitCycleMillis);
    if (result == PROCESS_API_ERROR_WAIT_INTERRUPTED) {
      KLOG_RC(LOG_LEVEL_E, "CProcessApi::WaitForProcess", result);
      result = KEELENGINE_ERROR_ACTION_CANCELED_BY_USER;
      break;
    }
    {
      std::lock_guard<std::mutex> guard(helperUtil::statusLock());
      helperUtil::reportStatus(helperUtil::progressOf(helperUtil::getDoneCount()), text,
                               KEELOFFLINE_ERROR_PROCESSING);
    }
    const clock_t spent = m_pEnv->processorClock() - start;
    if (spent > kActivityLimit) {
      KLOG_E("Executable %s timed out after %d seconds of activity.", first.c_str(),
             static_cast<int>(spent / kClockPerSecond));
      // The program's keeper ends it with everything it started.
      m_pProcessApi->KillProcess(m_pid);
      m_pid = 0;
      result = KEELENGINE_ERROR_EXTERN_ACTION_TIMEOUT;
      break;
    }
    text = "Still running " + first + ", please be patient as this may take a few minutes...";
  }
  // Ended and collected (or never ours): never to be signalled again.
  m_pid = 0;
  return result;
}

TruncAttrs KEELAction::collectedRecord(const std::string& path) const {
  TruncAttrs record;
  record.id = m_fileId;
  record.path = path;
  record.description = m_description;
  record.size = helperUtil::fileSize(path.c_str());
  record.truncateType = m_truncateType;
  record.limit = m_truncateLimit;
  record.defaultType = TRUNC_NONE;
  return record;
}
