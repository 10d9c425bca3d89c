#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlMgr.h"

KEELXmlMgr::KEELXmlMgr() : m_pDocument(new XMLObject()) {}

KEELXmlMgr::~KEELXmlMgr() = default;

void KEELXmlMgr::startElement(const std::string& name) {
  KEELComponent* component = new KEELComponent(name, "");
  KEELComponent* parent = m_stack.empty() ? nullptr : m_stack.back();
  if (parent == nullptr && m_pDocument->GetRoot() != nullptr) {
    // The document does not free a root it replaces; this manager does.
    m_displacedRoots.emplace_back(m_pDocument->GetRoot());
  }
  // A component of count 1 is always taken, as child or as root.
  m_pDocument->AddChild(parent, component);
  m_stack.push_back(component);
}

void KEELXmlMgr::endElement(const std::string& name) {
  (void)name;  // libxml2 has already matched the tags.
  if (!m_stack.empty()) {
    m_stack.pop_back();
  }
}

void KEELXmlMgr::elementValue(const std::string& text) {
  if (!m_stack.empty()) {
    m_stack.back()->AppendToValue(text);
  }
}

void KEELXmlMgr::attribute(const std::string& name, const std::string& value) {
  if (!m_stack.empty()) {
    m_stack.back()->AddAttribute(name, value);
  }
}
