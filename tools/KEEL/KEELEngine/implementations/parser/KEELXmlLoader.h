// The reader of XML documents that the engine keeps: one for the request,
// one for the config folder.
//
// Load reads a text (type 0), a file (type 1) or a folder of ".xml" files
// (type 2) and appends the documents to the caller's list. Ownership of the
// appended pointers differs by type:
//  - types 0 and 1 append the loader's own document (its manager's); the
//    loader keeps it and the caller must not free it. Loading again adds to
//    that same document, so a loader serves one text or file.
//  - type 2 appends deep copies that the caller owns and frees.
// The failed-file list is that of the last folder load.
//
// One thread at a time.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLLOADER_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLLOADER_H_

#include <list>
#include <memory>
#include <string>

#include "tools/KEEL/KEELEngine/implementations/parser/KEELMgr.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlMgr.h"

class KEELXmlLoader {
 public:
  // What the source of Load holds.
  static constexpr int kTypeText = 0;
  static constexpr int kTypeFile = 1;
  static constexpr int kTypeFolder = 2;  // a folder path ending in "/"

  KEELXmlLoader();
  KEELXmlLoader(const KEELXmlLoader&) = delete;
  KEELXmlLoader& operator=(const KEELXmlLoader&) = delete;

  // Whether the last Load succeeded.
  bool isValid() const { return m_isValid; }
  // Paths of the files the last folder load could not parse.
  std::list<std::string> getFailedFiles() const { return m_failedFiles; }

  // Returns &documents on success, null on failure (a parse failure, a
  // folder that yields no document, an unknown type).
  XMLObjectList* Load(const std::string& source, int type, XMLObjectList& documents);

 private:
  std::unique_ptr<KEELXmlMgr> m_pXmlMgr;
  bool m_isValid;
  std::list<std::string> m_failedFiles;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLLOADER_H_
