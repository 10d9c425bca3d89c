// An XML text read by the tool's own loader into a document that lives as
// long as the object: how the engine's tests make instruction trees.
#ifndef TESTS_SUPPORT_PARSEDXML_H_
#define TESTS_SUPPORT_PARSEDXML_H_

#include <string>

#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace keeltest {

class ParsedXml {
 public:
  explicit ParsedXml(const std::string& text) {
    m_ok = m_loader.Load(text, KEELXmlLoader::kTypeText, m_documents) != nullptr;
  }
  ParsedXml(const ParsedXml&) = delete;
  ParsedXml& operator=(const ParsedXml&) = delete;

  bool ok() const { return m_ok; }
  // The document, owned by the loader; null when the text was refused.
  XMLObject* document() const { return m_documents.empty() ? nullptr : m_documents.front(); }
  KEELComponent* root() const { return document() != nullptr ? document()->GetRoot() : nullptr; }
  // The first child of the root: the action element of a group snippet.
  KEELComponent* firstChild() const {
    KEELComponent* top = root();
    if (top == nullptr || top->GetChildren().empty())
      return nullptr;
    return top->GetChildren().front().get();
  }

 private:
  KEELXmlLoader m_loader;
  XMLObjectList m_documents;
  bool m_ok = false;
};

}  // namespace keeltest

#endif  // TESTS_SUPPORT_PARSEDXML_H_
