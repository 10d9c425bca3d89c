// The event sink of the SAX parser layer.
//
// VVCSaxParser forwards each parser event to one XmlMgr: an element opens
// (startElement, then attribute once per attribute in document order), a
// chunk of text arrives (elementValue), an element closes (endElement). The
// strings handed over are the parser's own copies, already trimmed where the
// layer trims, and are wiped as soon as the call returns: a sink that wants
// to keep a text copies it.
//
// The parser does not own its sink. A sink is driven by the one thread that
// runs the parse.
#ifndef COMMON_XML_XMLMGR_H_
#define COMMON_XML_XMLMGR_H_

#include <string>

class XmlMgr {
 public:
  virtual ~XmlMgr() = default;

  // An element opens; its name is not trimmed.
  virtual void startElement(const std::string& name) { (void)name; }
  // An element closes.
  virtual void endElement(const std::string& name) { (void)name; }
  // A chunk of character data, trimmed at both ends; may be empty.
  virtual void elementValue(const std::string& text) { (void)text; }
  // One attribute of the element just opened, name and value trimmed.
  virtual void attribute(const std::string& name, const std::string& value) {
    (void)name;
    (void)value;
  }
};

#endif  // COMMON_XML_XMLMGR_H_
