// The SAX event sink that builds a component tree.
//
// Each opened element becomes a KEELComponent(name, "") added below the
// element open around it, or as the document's root; attributes go to the
// element just opened; text chunks, already trimmed by the parser, are
// appended to the value of the innermost open element with no separator.
//
// Owns its document, which the constructor creates empty; getDocument hands
// out a pointer that stays the manager's. Running a second parse into the
// same manager adds to that document: the stack of open elements is not
// reset, and a second root element replaces the root, which the manager
// keeps until it is destroyed. One thread at a time.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLMGR_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLMGR_H_

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Common/Xml/XmlMgr.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

class KEELXmlMgr : public XmlMgr {
 public:
  KEELXmlMgr();
  ~KEELXmlMgr() override;
  KEELXmlMgr(const KEELXmlMgr&) = delete;
  KEELXmlMgr& operator=(const KEELXmlMgr&) = delete;

  void startElement(const std::string& name) override;
  void endElement(const std::string& name) override;
  void elementValue(const std::string& text) override;
  void attribute(const std::string& name, const std::string& value) override;

  // The document built so far; owned by the manager, never null.
  XMLObject* getDocument() const { return m_pDocument.get(); }

 private:
  // Open elements, innermost at the back; not owned.
  std::deque<KEELComponent*> m_stack;
  std::unique_ptr<XMLObject> m_pDocument;
  // Roots that a later root element displaced, kept so that they are freed.
  std::vector<std::unique_ptr<KEELComponent>> m_displacedRoots;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELXMLMGR_H_
