#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlParser.h"

#include "Common/Xml/VVCSaxParser.h"

ResultCode KEELXmlParser::parseMemory(const std::string& text) {
  VVCSaxParser parser(m_pXmlMgr);
  return parser.startParser(text, VVCSaxParser::kSourceText);
}

ResultCode KEELXmlParser::parseFile(const std::string& path) {
  VVCSaxParser parser(m_pXmlMgr);
  return parser.startParser(path, VVCSaxParser::kSourceFile);
}
