// Front of the SAX parser layer for the family's readers of XML (the local
// policy among them): checks that a sink was given and runs one
// VVCSaxParser over a text or a file.
//
// Does not own the manager. One thread at a time.
#ifndef COMMON_XML_XMLPARSER_H_
#define COMMON_XML_XMLPARSER_H_

#include <string>

#include "Common/Result/ResultCode.h"
#include "Common/Xml/XmlMgr.h"

class XmlParser {
 public:
  explicit XmlParser(XmlMgr* manager) : m_pXmlMgr(manager) {}
  virtual ~XmlParser() = default;
  XmlParser(const XmlParser&) = delete;
  XmlParser& operator=(const XmlParser&) = delete;

  // `flag` is accepted from the family's callers and has no effect.
  ResultCode parseMemory(const std::string& text, bool flag = false);
  ResultCode parseFile(const std::string& path, bool flag = false);

  // Parses `source` of VVCSaxParser's `kind` with a wiped working copy.
  // GLOBAL_ERROR_UNEXPECTED when no manager was given or the parse fails.
  ResultCode invokeParser(const std::string& source, bool flag, int kind);

 private:
  XmlMgr* m_pXmlMgr;
};

#endif  // COMMON_XML_XMLPARSER_H_
