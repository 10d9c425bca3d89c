#include "tools/KEEL/KEELEngine/implementations/collector.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <thread>

#include "Common/Log/Log.h"
#include "Common/Utility/HostOSInfo.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/Thread.h"
#include "Common/Utility/TreeRemoval.h"
#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/Env.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"
#include "tools/KEEL/KEELEngine/implementations/truncator.h"

namespace {

const char kLegacyGroupName[] = "Legacy - Velon Tidewalker Tessel Mobility Client";
const char kKeelConst[] = "keel";

// Column widths of the summary's tables, and the widths of their rules.
struct SummaryWidths {
  int id, name, description, size, reason, includedRule, omittedRule;
};
constexpr SummaryWidths kWidths = {17, 28, 40, 10, 50, 101, 141};
const char kRowFormat[] = "%-*.*s  %-*.*s  %-*.*s  %-*.*s\n";

const std::string& Rule(char c) {
  static const std::string equals(kWidths.omittedRule, '=');
  static const std::string dashes(kWidths.omittedRule, '-');
  return c == '=' ? equals : dashes;
}

// Once-only flags of the process: the head of summary.txt and the comments.
std::once_flag g_summaryHeadOnce;
std::once_flag g_commentsOnce;

std::string AttributeValue(KEELComponent* component, const char* name) {
  return component != nullptr ? component->GetAttributeValue(name) : std::string();
}

bool HasAttribute(KEELComponent* component, const char* name) {
  return component != nullptr && component->FindAttribute(name) != nullptr;
}

// The value of the first descendant of that name, or empty.
std::string ChildValue(KEELComponent* component, const char* name) {
  if (component == nullptr)
    return std::string();
  KEELComponent* child = component->FindChild(name);
  return child != nullptr ? child->GetValue() : std::string();
}

std::vector<KEELComponent*> DirectChildrenNamed(KEELComponent* parent, const char* name) {
  std::vector<KEELComponent*> found;
  if (parent == nullptr)
    return found;
  for (const auto& child : parent->GetChildren()) {
    if (child != nullptr && child->GetName() == name)
      found.push_back(child.get());
  }
  return found;
}

// The run's summary.txt: its path and the descriptor it was created with.
// Guarded by collector::summaryLock().
struct OwnSummary {
  std::string path;
  ScopedFd fd;
};

OwnSummary& RunSummary() {
  static OwnSummary* summary = new OwnSummary();  // lives to the process's end
  return *summary;
}

const char kSummaryNameTakenReason[] = "The bundle's own summary.txt has this name";

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether the summary's name still names the file it was created as.
bool SummaryNameIsItsOwn(const OwnSummary& own) {
  struct stat opened;
  struct stat named;
  return fstat(own.fd.get(), &opened) == 0 && lstat(own.path.c_str(), &named) == 0 &&
         SameFile(opened, named);
}

int CreateSummary(const std::string& path) {
  return open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

// Copies all of `from` to the end of `to`; false when some could not be.
bool CopyContent(int from, int to) {
  char buffer[65536];
  off_t offset = 0;
  for (;;) {
    const ssize_t count = pread(from, buffer, sizeof(buffer), offset);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return false;
    if (count == 0)
      return true;
    for (ssize_t done = 0; done < count;) {
      const ssize_t written = write(to, buffer + done, static_cast<size_t>(count - done));
      if (written < 0 && errno == EINTR)
        continue;
      if (written <= 0)
        return false;
      done += written;
    }
    offset += count;
  }
}

// A file name as a line of summary.txt may hold it: each control character
// (a line feed, a tab, ESC...) written as C source would show it, so that
// no name can end its row and start a forged one. Every other byte stays.
std::string EscapeControls(const std::string& name) {
  static const char kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(name.size());
  for (char c : name) {
    const unsigned char byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\a':
        escaped += "\\a";
        continue;
      case '\b':
        escaped += "\\b";
        continue;
      case '\t':
        escaped += "\\t";
        continue;
      case '\n':
        escaped += "\\n";
        continue;
      case '\v':
        escaped += "\\v";
        continue;
      case '\f':
        escaped += "\\f";
        continue;
      case '\r':
        escaped += "\\r";
        continue;
      default:
        break;
    }
    if (byte < 0x20 || byte == 0x7f) {
      escaped += "\\x";
      escaped += kHex[byte >> 4];
      escaped += kHex[byte & 0x0f];
    } else {
      escaped += c;
    }
  }
  return escaped;
}

bool IsSystemLogId(const std::string& id) {
  return id == "system-logs" || id == "system-log-hist";
}

}  // namespace

collector::collector(XMLObject* request, std::list<KEELComponent*>* unprocessedIds,
                     const std::string& bundlePath, bool includeLegacyLogs, bool includeSystemLogs,
                     Env* env)
    : m_pXMLRequest(request),
      m_unprocessedIds(unprocessedIds),
      m_bundlePath(bundlePath),
      m_includeLegacyLogs(includeLegacyLogs),
      m_includeSystemLogs(includeSystemLogs),
      m_isAdmin(helperUtil::isUserAdmin()),
      m_pEnv(env != nullptr ? env : Env::Default()) {
  (void)m_constructed;
}

collector::~collector() = default;

std::mutex& collector::summaryLock() {
  static std::mutex lock;
  return lock;
}

// ---- Selection ------------------------------------------------------------

std::vector<KEELComponent*> collector::getFileGroupComponents(XMLObject& document) {
  if (document.GetRoot() == nullptr) {
    KLOG_E("rXMLObject.GetRoot() is NULL");
    return {};
  }
  return DirectChildrenNamed(document.GetRoot(), "fileGroup");
}

std::vector<KEELComponent*> collector::getFileComponents(XMLObject& document) {
  if (document.GetRoot() == nullptr) {
    KLOG_E("rXMLObject.GetRoot() is NULL");
    return {};
  }
  return DirectChildrenNamed(document.GetRoot(), "file");
}

std::vector<KEELComponent*> collector::getFileGroupFileComponents(KEELComponent* fileGroup) {
  if (fileGroup == nullptr || fileGroup->GetName() != "fileGroup") {
    KLOG_E("unexpected KEEL component type; expected fileGroup type");
    return {};
  }
  return DirectChildrenNamed(fileGroup, "file");
}

void collector::sortById(std::vector<KEELComponent*>& files) {
  std::stable_sort(files.begin(), files.end(), [](KEELComponent* a, KEELComponent* b) {
    // A side without an id is never less, so both keep their places.
    if (!HasAttribute(a, "id") || !HasAttribute(b, "id"))
      return false;
    return AttributeValue(a, "id") < AttributeValue(b, "id");
  });
}

bool collector::isDefault(KEELComponent* file) {
  KEELComponent* flag = file != nullptr ? file->FindChild("default") : nullptr;
  return flag != nullptr && flag->GetValue() == "true";
}

ResultCode collector::Collect(std::string& tempFolder, XMLObject* config) {
  if (m_pXMLRequest == nullptr) {
    KLOG_E("m_pXMLRequest is NULL");
    return KEELENGINE_ERROR_NOT_INITIALIZED;
  }
  if (config == nullptr) {
    KLOG_E("pXMLObjectConfig is NULL");
    return KEELENGINE_ERROR_BAD_PARAMETER;
  }
  ResultCode result = initializeSummary();
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "collector::initializedSummary", result);
    return result;
  }
  ActionSettings settings;
  settings.m_pXMLSummary = m_pXMLSummary.get();
  settings.m_pEnv = m_pEnv;
  if (tempFolder.empty())
    tempFolder = helperUtil::translatePath(m_pEnv->paths().workingFolder);
  if (m_pXMLRequest->GetRoot() != nullptr) {
    selectByRequest(tempFolder, *config, settings);
  } else {
    selectByDefault(tempFolder, *config, settings);
  }
  result = writeSummary(tempFolder, config);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "collector::writeSummary", result);
    return result;
  }
  m_pXMLSummary.reset();
  return 0;
}

void collector::selectByDefault(std::string& tempFolder, XMLObject& config,
                                ActionSettings& settings) {
  for (KEELComponent* group : getFileGroupComponents(config)) {
    const bool legacyGroup = m_includeLegacyLogs && HasAttribute(group, "treeRootName") &&
                             AttributeValue(group, "treeRootName") == kLegacyGroupName;
    std::vector<KEELComponent*> files = getFileGroupFileComponents(group);
    sortById(files);
    const std::string groupFolder = getDirectory(group, tempFolder);
    for (KEELComponent* file : files) {
      const std::string id = AttributeValue(file, "id");
      if (!m_includeSystemLogs && IsSystemLogId(id))
        continue;
      if (!isDefault(file) && !legacyGroup) {
        helperUtil::fillSummaryNote(
            m_pXMLSummary.get(),
            "The file(s) of ID " + id + " is/are not included by default by this config.");
        continue;
      }
      const ResultCode result = moveReaderToCorrectOS(file);
      if (result != 0) {
        KLOG_RC(LOG_LEVEL_I, "collector::moveReaderToCorrectOS", result);
        continue;
      }
      settings.m_bundleFolder = getDirectory(file, groupFolder);
      settings.m_bundleName.clear();
      settings.m_fileId = id;
      settings.m_description = ChildValue(file, "description");
      runCollection(settings);
    }
  }
}

void collector::selectByRequest(std::string& tempFolder, XMLObject& config,
                                ActionSettings& settings) {
  std::vector<KEELComponent*> requested = getFileComponents(*m_pXMLRequest);
  sortById(requested);
  for (KEELComponent* group : getFileGroupComponents(config)) {
    std::vector<KEELComponent*> offered = getFileGroupFileComponents(group);
    sortById(offered);
    const std::string groupFolder = getDirectory(group, tempFolder);
    KEELComponent* commentsComponent = nullptr;
    size_t position = 0;
    for (KEELComponent* entry : requested) {
      const std::string id = AttributeValue(entry, "id");
      if (id == "comments") {
        commentsComponent = entry;
        continue;
      }
      if (id == "summary") {
        if (m_summaryPath.empty()) {
          std::string name = ChildValue(entry, "name");
          if (name.empty())
            name = "summary.txt";
          m_summaryPath = helperUtil::translatePath(tempFolder + "/" + name);
        }
        continue;
      }
      // Both lists are sorted: the position in `offered` only moves forward.
      while (position < offered.size() && AttributeValue(offered[position], "id") < id) {
        ++position;
      }
      if (position == offered.size() || AttributeValue(offered[position], "id") != id)
        continue;
      KEELComponent* file = offered[position];
      const ResultCode result = moveReaderToCorrectOS(file);
      if (result != 0) {
        KLOG_RC(LOG_LEVEL_I, "collector::moveReaderToCorrectOS", result);
        continue;
      }
      settings.m_bundleFolder = getDirectory(file, groupFolder);
      settings.m_fileId = AttributeValue(file, "id");
      settings.m_bundleName = ChildValue(file, "name");
      settings.m_description = ChildValue(file, "description");
      runCollection(settings);
      removeFromUnprocessedList(entry);
    }
    std::call_once(g_commentsOnce, [&] { writeComments(commentsComponent, tempFolder); });
  }
}

void collector::runCollection(const ActionSettings& settings) {
  KLOG_I("Thread %s Continuing Collection On %s", currentThreadIdText().c_str(),
         settings.m_description.c_str());
  {
    std::lock_guard<std::mutex> lock(helperUtil::statusLock());
    helperUtil::reportStatus(helperUtil::progressOf(helperUtil::getDoneCount()),
                             "Processing " + settings.m_description + "...",
                             KEELOFFLINE_ERROR_PROCESSING);
  }
  KEELCollectLogsAction action(settings, m_reader, m_isAdmin);
  action.Perform(m_collectedFiles);
}

ResultCode collector::Clear(XMLObject* config) {
  if (config == nullptr) {
    KLOG_E("pXMLObjectConfig is NULL");
    return KEELENGINE_ERROR_BAD_PARAMETER;
  }
  ActionSettings settings;
  settings.m_pXMLSummary = m_pXMLSummary.get();
  settings.m_pEnv = m_pEnv;
  for (KEELComponent* group : getFileGroupComponents(*config)) {
    std::vector<KEELComponent*> files = getFileGroupFileComponents(group);
    sortById(files);
    for (KEELComponent* file : files) {
      const std::string id = AttributeValue(file, "id");
      if (!m_includeSystemLogs && IsSystemLogId(id))
        continue;
      if (!isDefault(file))
        continue;
      const ResultCode result = moveReaderToCorrectOS(file);
      if (result != 0) {
        KLOG_RC(LOG_LEVEL_I, "collector::moveReaderToCorrectOS", result);
        continue;
      }
      settings.m_bundleName.clear();
      settings.m_fileId = id;
      settings.m_description = ChildValue(file, "description");
      helperUtil::reportStatus(helperUtil::progressOf(helperUtil::getDoneCount()),
                               "Clearing " + settings.m_description + "...",
                               KEELOFFLINE_ERROR_PROCESSING);
      sleepMillis(50);
      KEELClearLogsAction action(settings, m_reader);
      action.Perform(m_collectedFiles);
    }
  }
  return 0;
}

std::string collector::getDirectory(KEELComponent* component, const std::string& parentFolder) {
  std::string result = parentFolder;
  if (component == nullptr ||
      (component->GetName() != "fileGroup" && component->GetName() != "file")) {
    KLOG_E("unexpected KEEL component type; expected fileGroup type");
    return result;
  }
  if (!HasAttribute(component, "directoryName"))
    return result;
  std::string relative = AttributeValue(component, "directoryName");
  std::replace(relative.begin(), relative.end(), '\\', '/');
  const std::string full = parentFolder + "/" + relative;
  // One level at a time from the top. A folder that is there already counts
  // as made, so jobs making the same folder at once do no harm.
  for (size_t slash = full.find('/', 1); slash != std::string::npos;
       slash = full.find('/', slash + 1)) {
    if (helperUtil::MakeDirectory(full.substr(0, slash)) == 0)
      result = full;
  }
  if (helperUtil::MakeDirectory(full) == 0)
    result = full;
  return result;
}

void collector::moveReaderToKEEL(KEELComponent* file) {
  if (file == nullptr) {
    KLOG_E("pDC is NULL");
    return;
  }
  KEELComponent* keel = file->FindChild(kKeelConst);
  if (keel == nullptr) {
    KLOG_E("pDC->FindChild(KEEL_CONST) is NULL");
    return;
  }
  m_reader = keel;
}

ResultCode collector::moveReaderToCorrectOS(KEELComponent* file) {
  if (file == nullptr) {
    KLOG_E("pDC is NULL");
    return KEELENGINE_ERROR_BAD_PARAMETER;
  }
  moveReaderToKEEL(file);
  if (m_reader == nullptr || m_reader->GetChildren().empty())
    return KEELENGINE_ERROR_INTERNAL;
  // Walk a copy of the list: the reader moves during the walk.
  std::vector<KEELComponent*> children;
  for (const auto& child : m_reader->GetChildren())
    children.push_back(child.get());
  for (KEELComponent* child : children) {
    if (child == nullptr || child->GetName() != "os")
      continue;
    const std::string opsys = AttributeValue(child, "opsys");
    // Only "linux" can match on this platform; "mac", "win" and anything
    // else never do.
    if (opsys == "linux" && isLinux()) {
      m_reader = child;
      return 0;
    }
  }
  return KEELENGINE_ERROR_INTERNAL;
}

void collector::removeFromUnprocessedList(KEELComponent* component) {
  if (component == nullptr) {
    KLOG_E("pDC is NULL");
    return;
  }
  if (m_unprocessedIds != nullptr) {
    auto found = std::find(m_unprocessedIds->begin(), m_unprocessedIds->end(), component);
    if (found != m_unprocessedIds->end()) {
      m_unprocessedIds->erase(found);
      return;
    }
  }
  helperUtil::fillSummaryNote(m_pXMLSummary.get(),
                              "WARNING: File ID " + AttributeValue(component, "id") +
                                  " has duplicated instruction found in one of previous config "
                                  "files");
}

ResultCode collector::writeComments(KEELComponent* commentsComponent,
                                    const std::string& tempFolder) {
  if (m_pXMLRequest == nullptr || m_pXMLRequest->GetRoot() == nullptr)
    return 0;
  const std::string comments = ChildValue(m_pXMLRequest->GetRoot(), "comments");
  if (comments.empty())
    return 0;
  std::string fileName = "comments.txt";
  if (commentsComponent != nullptr && commentsComponent->FindChild("name") != nullptr) {
    fileName = ChildValue(commentsComponent, "name");
  }
  const std::string path = helperUtil::translatePath(tempFolder + "/" + fileName);
  const std::string text = "Comments from Velon Tessel Client user:\n" + comments;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out.is_open()) {
    const std::string message = "Internal error: can't write comments at " + path;
    helperUtil::fillSummaryFailedFile(m_pXMLSummary.get(), "comments", fileName, "", message);
    KLOG_E("%s", message.c_str());
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  out << text;
  out.close();
  TruncAttrs record;
  record.id = "comments";
  record.path = path;
  record.description = "Velon Tessel Client user comments";
  record.size = helperUtil::fileSize(path.c_str());  // `path` is translated already
  record.truncateType = TRUNC_NONE;
  record.limit = 0;
  record.defaultType = TRUNC_DATA;
  m_collectedFiles.push_back(record);
  return 0;
}

// ---- Summary --------------------------------------------------------------

ResultCode collector::createSummaryFile(const std::string& path) {
  std::lock_guard<std::mutex> lock(summaryLock());
  OwnSummary& own = RunSummary();
  own.fd.reset(CreateSummary(path));
  if (!own.fd.valid()) {
    KLOG_RC(LOG_LEVEL_E, "open", static_cast<ResultCode>(errno));
    KLOG_E("Could not create \"%s\"", path.c_str());
    own.path.clear();
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  own.path = path;
  return 0;
}

void collector::closeSummaryFile() {
  std::lock_guard<std::mutex> lock(summaryLock());
  RunSummary().fd.reset();
  RunSummary().path.clear();
}

void collector::reclaimSummaryName() {
  OwnSummary& own = RunSummary();
  if (!own.fd.valid() || SummaryNameIsItsOwn(own))
    return;
  KLOG_W("Something collected took the name \"%s\"; it is left out of the bundle",
         own.path.c_str());
  RemoveTree(own.path);
  ScopedFd renewed(CreateSummary(own.path));
  if (!renewed.valid() || !CopyContent(own.fd.get(), renewed.get())) {
    KLOG_E("Could not write \"%s\" again", own.path.c_str());
    return;
  }
  own.fd = std::move(renewed);
}

void collector::omitWhatTookTheSummaryName() {
  // A collected file recorded at the summary's name is what took it, or,
  // if the name was put back meanwhile, names the summary itself: either
  // way it is not in the bundle as collected.
  struct stat summary;
  if (lstat(RunSummary().path.c_str(), &summary) != 0)
    return;
  for (auto record = m_collectedFiles.begin(); record != m_collectedFiles.end();) {
    struct stat named;
    if (lstat(record->path.c_str(), &named) == 0 && SameFile(named, summary)) {
      const size_t slash = record->path.rfind('/');
      helperUtil::fillSummaryFailedFile(m_pXMLSummary.get(), record->id,
                                        record->path.substr(slash + 1), record->description,
                                        kSummaryNameTakenReason);
      record = m_collectedFiles.erase(record);
    } else {
      ++record;
    }
  }
}

FILE* collector::openSummary() {
  OwnSummary& own = RunSummary();
  int fd = -1;
  if (own.fd.valid() && own.path == m_summaryPath) {
    omitWhatTookTheSummaryName();
    reclaimSummaryName();
    fd = dup(own.fd.get());
  } else {
    // A summary the run did not create (a request may name another): still
    // never written through a link.
    fd = open(m_summaryPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  }
  if (fd < 0)
    return nullptr;
  FILE* file = fdopen(fd, "a");
  if (file == nullptr)
    close(fd);
  return file;
}

ResultCode collector::initializeSummary() {
  m_pXMLSummary.reset(new XMLObject("summary", "KEEL BUNDLE SUMMARY\n"));
  KEELComponent* root = m_pXMLSummary->GetRoot();
  if (root == nullptr) {
    KLOG_E("m_pXMLSummary->GetRoot() is NULL");
    return KEELENGINE_ERROR_NULL_XML_ROOT;
  }
  m_pXMLSummary->AddChild(root, "Main_Info", "");
  m_pXMLSummary->AddChild(root, "Manifest_Included", "File Manifest:");
  m_pXMLSummary->AddChild(root, "Manifest_Not_Included",
                          "Files Requested But Not Included In Bundle:");
  m_pXMLSummary->AddChild(root, "Other_Note", "Other notes:");
  return 0;
}

ResultCode collector::fillInSummaryMainInfo() {
  KEELComponent* root = m_pXMLSummary ? m_pXMLSummary->GetRoot() : nullptr;
  if (root == nullptr) {
    KLOG_E("m_pXMLSummary->GetRoot() is NULL");
    return KEELENGINE_ERROR_NULL_XML_ROOT;
  }
  KEELComponent* mainInfo = root->FindChild("Main_Info");
  if (mainInfo == nullptr) {
    KLOG_E("pDCMainInfo is NULL");
    return KEELENGINE_ERROR_NULL_XML_CHILD;
  }
  m_pXMLSummary->AddChild(mainInfo, "Time:", m_pEnv->localTimeText());
  m_pXMLSummary->AddChild(mainInfo, "OS:", m_pEnv->osDescription());
  m_pXMLSummary->AddChild(mainInfo, "User Name:", m_pEnv->userName());
  m_pXMLSummary->AddChild(mainInfo,
                          "Bundle on client computer:", m_pEnv->absolutePath(m_bundlePath));
  return 0;
}

ResultCode collector::writeSummary(const std::string& tempFolder, XMLObject* config) {
  if (m_summaryPath.empty()) {
    m_summaryPath = helperUtil::translatePath(tempFolder + "/" + "summary.txt");
  }
  ResultCode result;
  {
    std::lock_guard<std::mutex> lock(summaryLock());
    result = printSummary(config);
  }
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "collector::printSummary", result);
    return result;
  }
  m_collectedFiles.clear();
  return 0;
}

ResultCode collector::printSummary(XMLObject* config) {
  if (config == nullptr) {
    KLOG_E("pXMLObjectConfig is NULL");
    return KEELENGINE_ERROR_BAD_PARAMETER;
  }
  FileHandle file(openSummary());
  if (!file) {
    KLOG_E("fopen failed to open file \"%s\"", m_summaryPath.c_str());
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  truncator lister(m_collectedFiles, m_pXMLSummary.get());
  lister.noTruncate();
  std::call_once(g_summaryHeadOnce, [&] { writeHead(file.get()); });
  writeSection(file.get(), *config);
  // Every write above leaves the stream's error flag set when it fails (a
  // full disk), and the last of the text reaches the disk only at the
  // close: a summary with a part missing would mislead its reader.
  const bool failed = ferror(file.get()) != 0;
  if (fclose(file.release()) != 0 || failed) {
    KLOG_E("Could not write file \"%s\"", m_summaryPath.c_str());
    return KEELENGINE_ERROR_WRITE_FAILURE;
  }
  return 0;
}

void collector::writeHead(FILE* file) {
  const ResultCode result = fillInSummaryMainInfo();
  if (result != 0)
    KLOG_RC(LOG_LEVEL_E, "collector::fillInSummaryMainInfo", result);
  KEELComponent* root = m_pXMLSummary ? m_pXMLSummary->GetRoot() : nullptr;
  if (root == nullptr)
    return;
  fprintf(file, "%s\n", root->GetValue().c_str());
  KEELComponent* mainInfo = root->FindChild("Main_Info");
  if (mainInfo == nullptr)
    return;
  for (const auto& child : mainInfo->GetChildren()) {
    fprintf(file, "%-*.*s%s\n", 30, 30, child->GetName().c_str(), child->GetValue().c_str());
  }
}

void collector::writeSection(FILE* file, XMLObject& config) {
  fprintf(file, "\n%.*s\n", kWidths.omittedRule, Rule('=').c_str());
  KEELComponent* title = config.FindChildUnder("configure", "title");
  fprintf(file, "%s:\n\n", title != nullptr ? title->GetValue().c_str() : "");
  fprintf(file, "Files Included in Bundle:\n");
  fprintf(file, kRowFormat, kWidths.id, kWidths.id, "ID", kWidths.name, kWidths.name, "Filename",
          kWidths.description, kWidths.description, "Description", kWidths.size, kWidths.size,
          "File Size");
  fprintf(file, "%*.*s\n", kWidths.includedRule, kWidths.includedRule, Rule('-').c_str());
  KEELComponent* root = m_pXMLSummary ? m_pXMLSummary->GetRoot() : nullptr;
  KEELComponent* included = root != nullptr ? root->FindChild("Manifest_Included") : nullptr;
  writeComponentRows(file, included, "file_size", kWidths.size);
  fprintf(file, "%.*s\n", kWidths.includedRule, Rule('-').c_str());

  KEELComponent* omitted = root != nullptr ? root->FindChild("Manifest_Not_Included") : nullptr;
  if (omitted != nullptr && !omitted->GetChildren().empty()) {
    fprintf(file, "\n\nFiles Omitted from Bundle:\n");
    fprintf(file, kRowFormat, kWidths.id, kWidths.id, "ID", kWidths.name, kWidths.name, "Filename",
            kWidths.description, kWidths.description, "Description", kWidths.reason, kWidths.reason,
            "Reason Omitted");
    fprintf(file, "%.*s\n", kWidths.omittedRule, Rule('-').c_str());
    writeComponentRows(file, omitted, "reason", kWidths.reason);
    fprintf(file, "%.*s\n", kWidths.omittedRule, Rule('-').c_str());
  }

  KEELComponent* notes = root != nullptr ? root->FindChild("Other_Note") : nullptr;
  if (notes != nullptr && !notes->GetChildren().empty()) {
    fprintf(file, "\n\nNotes:\n");
    for (const auto& note : notes->GetChildren()) {
      fprintf(file, "%s%s\n", note->GetName().c_str(), note->GetValue().c_str());
    }
  }
}

void collector::writeComponentRows(FILE* file, KEELComponent* parent, const char* lastAttribute,
                                   int lastWidth) {
  if (parent == nullptr)
    return;
  for (const auto& child : parent->GetChildren()) {
    ColumnText id{child->GetName()};
    ColumnText name{EscapeControls(child->GetValue())};
    ColumnText description{AttributeValue(child.get(), "description")};
    // A reason may quote a path, and so a name, too.
    ColumnText last{EscapeControls(AttributeValue(child.get(), lastAttribute))};
    // At least one row, also for four empty texts; more while any is left.
    do {
      const std::string lastPiece = nextPiece(last, lastWidth);
      const std::string descriptionPiece = nextPiece(description, kWidths.description);
      const std::string namePiece = nextPiece(name, kWidths.name);
      const std::string idPiece = nextPiece(id, kWidths.id);
      fprintf(file, kRowFormat, kWidths.id, kWidths.id, idPiece.c_str(), kWidths.name, kWidths.name,
              namePiece.c_str(), kWidths.description, kWidths.description, descriptionPiece.c_str(),
              lastWidth, lastWidth, lastPiece.c_str());
    } while (!id.done() || !name.done() || !description.done() || !last.done());
  }
}

std::string collector::nextPiece(std::string& text, size_t width) {
  ColumnText column{text};
  std::string piece = nextPiece(column, width);
  text.erase(0, column.start);
  return piece;
}

std::string collector::nextPiece(ColumnText& column, size_t width) {
  // The rest of the text is never copied or moved, only `start` advances:
  // the pieces of a text of any length cost time in proportion to it.
  const std::string& text = column.text;
  auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  auto skipBlanks = [&] {
    while (column.start < text.size() && isSpace(text[column.start]))
      ++column.start;
  };
  skipBlanks();
  if (column.done())
    return std::string();
  const size_t left = text.size() - column.start;
  std::string piece;
  if (width >= left) {
    piece = text.substr(column.start);
    column.start = text.size();
    return piece;
  }
  for (size_t i = width; i-- > 0;) {
    if (isSpace(text[column.start + i])) {
      // Only that one blank is dropped.
      piece = text.substr(column.start, i);
      column.start += i + 1;
      return piece;
    }
  }
  // No blank to break at: one character fewer than the column holds.
  const size_t cut = width > 0 ? width - 1 : 0;
  piece = text.substr(column.start, cut);
  column.start += cut;
  skipBlanks();
  return piece;
}
