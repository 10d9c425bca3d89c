#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"

#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlParser.h"

KEELXmlLoader::KEELXmlLoader() : m_pXmlMgr(new KEELXmlMgr()), m_isValid(false) {}

XMLObjectList* KEELXmlLoader::Load(const std::string& source, int type, XMLObjectList& documents) {
  m_isValid = false;
  if (type == kTypeText || type == kTypeFile) {
    KEELXmlParser parser(m_pXmlMgr.get());
    const ResultCode result =
        type == kTypeText ? parser.parseMemory(source) : parser.parseFile(source);
    if (result != 0) {
      return nullptr;
    }
    m_isValid = true;
    documents.push_back(m_pXmlMgr->getDocument());
    return &documents;
  }
  if (type == kTypeFolder) {
    KEELMgr reader(documents, source);
    m_failedFiles = reader.getFailedFiles();
    if (documents.empty()) {
      return nullptr;
    }
    m_isValid = true;
    return &documents;
  }
  return nullptr;
}
