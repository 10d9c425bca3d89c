#include "Common/Xml/XmlParser.h"

#include "Common/Log/Log.h"
#include "Common/Utility/sysutils.h"
#include "Common/Xml/VVCSaxParser.h"

ResultCode XmlParser::parseMemory(const std::string& text, bool flag) {
  return invokeParser(text, flag, VVCSaxParser::kSourceText);
}

ResultCode XmlParser::parseFile(const std::string& path, bool flag) {
  return invokeParser(path, flag, VVCSaxParser::kSourceFile);
}

ResultCode XmlParser::invokeParser(const std::string& source, bool flag, int kind) {
  (void)flag;
  if (m_pXmlMgr == nullptr) {
    KLOG_E("XML Manager not provided");
    return GLOBAL_ERROR_UNEXPECTED;
  }
  ResultCode result = GLOBAL_ERROR_UNEXPECTED;
  {
    VVCSaxParser parser(m_pXmlMgr);
    std::string copy(source);
    result = parser.startParser(copy, kind);
    CStringUtils::wipeString(copy);
  }
  return result;
}
