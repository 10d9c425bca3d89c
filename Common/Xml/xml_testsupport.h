// What the XML tests share: a manager that records every event it is given.
#ifndef COMMON_XML_XML_TESTSUPPORT_H_
#define COMMON_XML_XML_TESTSUPPORT_H_

#include <string>
#include <vector>

#include "Common/Xml/XmlMgr.h"

namespace xmltest {

// Writes every event as one line: "start:<name>", "attr:<name>=<value>",
// "value:[<text>]", "end:<name>".
class RecordingXmlMgr : public XmlMgr {
 public:
  void startElement(const std::string& name) override { events.push_back("start:" + name); }
  void endElement(const std::string& name) override { events.push_back("end:" + name); }
  void elementValue(const std::string& text) override { events.push_back("value:[" + text + "]"); }
  void attribute(const std::string& name, const std::string& value) override {
    events.push_back("attr:" + name + "=" + value);
  }
  size_t CountStarts() const {
    size_t count = 0;
    for (const auto& event : events) {
      count += event.compare(0, 6, "start:") == 0 ? 1 : 0;
    }
    return count;
  }
  std::vector<std::string> events;
};

}  // namespace xmltest

#endif  // COMMON_XML_XML_TESTSUPPORT_H_
