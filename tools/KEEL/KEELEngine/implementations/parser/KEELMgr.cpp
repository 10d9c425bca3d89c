#include "tools/KEEL/KEELEngine/implementations/parser/KEELMgr.h"

#include <dirent.h>

#include <cstring>
#include <memory>

#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlMgr.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlParser.h"

namespace {

constexpr char kXmlSuffix[] = ".xml";

}  // namespace

KEELMgr::KEELMgr(XMLObjectList& documents, const std::string& folder) {
  const std::list<std::string> paths = scanFolder(folder);
  for (const std::string& path : paths) {
    parseOneFile(path, documents);
  }
}

std::list<std::string> KEELMgr::scanFolder(const std::string& folder) {
  std::list<std::string> paths;
  DirHandle dir(opendir(folder.c_str()));
  if (!dir) {
    return paths;
  }
  while (const dirent* entry = readdir(dir.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
      continue;
    }
    addFile(paths, folder, entry->d_name);
  }
  return paths;
}

void KEELMgr::addFile(std::list<std::string>& paths, const std::string& folder,
                      const std::string& name) {
  // Only the first ".xml" counts, and it must end the name.
  const size_t hit = name.find(kXmlSuffix);
  if (hit == std::string::npos || hit + strlen(kXmlSuffix) != name.size()) {
    return;
  }
  const std::string path = folder + name;
  KLOG_RC_DESC(LOG_LEVEL_I, "found file", 0, path.c_str());
  paths.push_back(path);
}

void KEELMgr::parseOneFile(const std::string& path, XMLObjectList& documents) {
  KEELXmlMgr manager;
  KEELXmlParser parser(&manager);
  const ResultCode result = parser.parseFile(path);
  m_results.push_back(result);
  if (result != 0) {
    m_failedFiles.push_back(path);
    return;
  }
  if (manager.getDocument() != nullptr) {
    documents.push_back(new XMLObject(*manager.getDocument()));
  }
}
