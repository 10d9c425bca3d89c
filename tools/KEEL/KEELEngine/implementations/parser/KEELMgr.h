// Reads every instruction file of one folder into its own document.
//
// The constructor does all the work: it lists the folder in the directory's
// own order (nothing is sorted), takes each entry whose first ".xml" ends
// its name (case sensitive: a.xml yes; a.xml.xml, a.xml.bak, A.XML no),
// parses each into a fresh tree and appends a deep copy of every parsed
// document to the caller's list. The caller owns those copies. Their inner
// parent links point into trees that are gone by then (see KEELComponent.h):
// the copies are read-only.
//
// A file that fails to parse goes on the failed list and the rest are still
// read. A folder that can't be opened yields nothing and no log line.
// One thread at a time.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELMGR_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELMGR_H_

#include <cstdint>
#include <list>
#include <string>

#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

class KEELMgr {
 public:
  // `folder` is used as it is, so it must end in "/": a file's path is the
  // folder text with the entry name appended.
  KEELMgr(XMLObjectList& documents, const std::string& folder);
  virtual ~KEELMgr() = default;
  KEELMgr(const KEELMgr&) = delete;
  KEELMgr& operator=(const KEELMgr&) = delete;

  // The result of each parse, in parse order.
  std::list<uint64_t> getResults() const { return m_results; }
  // The paths that did not parse, in parse order.
  std::list<std::string> getFailedFiles() const { return m_failedFiles; }

 private:
  static std::list<std::string> scanFolder(const std::string& folder);
  static void addFile(std::list<std::string>& paths, const std::string& folder,
                      const std::string& name);
  void parseOneFile(const std::string& path, XMLObjectList& documents);

  std::list<uint64_t> m_results;
  std::list<std::string> m_failedFiles;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELMGR_H_
