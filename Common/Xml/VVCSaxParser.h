// One parse of one XML document over libxml2's SAX1 interface.
//
// The parser forwards every event to the XmlMgr given to its constructor
// (not owned, may be null: then each event is logged and dropped) and keeps
// nothing itself. Each chunk of text and each attribute name and value is
// trimmed at both ends before it is handed on; every copy of document text
// the parser makes is overwritten with zero bytes before it is released,
// since a document may carry secrets.
//
// Built on the stack for one parse and used by one thread; parses on
// different threads do not share anything.
#ifndef COMMON_XML_VVCSAXPARSER_H_
#define COMMON_XML_VVCSAXPARSER_H_

#include <string>

#include "Common/Result/ResultCode.h"
#include "Common/Xml/XmlMgr.h"

class VVCSaxParser {
 public:
  // What the source of startParser holds.
  static constexpr int kSourceText = 0;  // the XML text itself
  static constexpr int kSourceFile = 1;  // the path of an XML file

  explicit VVCSaxParser(XmlMgr* manager) : m_pXmlMgr(manager) {}
  virtual ~VVCSaxParser() = default;
  VVCSaxParser(const VVCSaxParser&) = delete;
  VVCSaxParser& operator=(const VVCSaxParser&) = delete;

  // Parses `source` and feeds the manager. 0 on success; on any failure
  // GLOBAL_ERROR_UNEXPECTED, after the events up to the error have been
  // delivered. Text may start with blanks, tabs, line feeds and carriage
  // returns ahead of the declaration; an empty source, text of only those,
  // or an unknown kind fails without a log line.
  ResultCode startParser(const std::string& source, int kind);

 private:
  XmlMgr* m_pXmlMgr;
};

#endif  // COMMON_XML_VVCSAXPARSER_H_
