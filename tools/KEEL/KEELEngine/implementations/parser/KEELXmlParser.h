// Binds a manager to the SAX parser layer for one text or one file.
//
// Does not own the manager and, unlike XmlParser, does not test it for null
// (the layer then logs and drops each event). One thread at a time.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLPARSER_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLPARSER_H_

#include <string>

#include "Common/Result/ResultCode.h"
#include "Common/Xml/XmlMgr.h"

class KEELXmlParser {
 public:
  explicit KEELXmlParser(XmlMgr* manager) : m_pXmlMgr(manager) {}
  virtual ~KEELXmlParser() = default;
  KEELXmlParser(const KEELXmlParser&) = delete;
  KEELXmlParser& operator=(const KEELXmlParser&) = delete;

  // 0, or GLOBAL_ERROR_UNEXPECTED when the text or file does not parse.
  ResultCode parseMemory(const std::string& text);
  ResultCode parseFile(const std::string& path);

 private:
  XmlMgr* m_pXmlMgr;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLPARSER_H_
