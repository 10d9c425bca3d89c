// What the XML tests share: a manager that records every event it is given,
// and the policy singletons held as a program holds them.
#ifndef COMMON_XML_XML_TESTSUPPORT_H_
#define COMMON_XML_XML_TESTSUPPORT_H_

#include <string>
#include <vector>

#include "Common/Utility/StoragePath.h"
#include "Common/Xml/XmlLocalTWPolMgr.h"
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

// The storage-path and local-policy singletons for the life of the object,
// as a program that reads the installed policy holds them. ok() is false
// when either cannot be made; what was made is given back either way.
class PolicySingletons {
 public:
  PolicySingletons() {
    m_ok = CStoragePath::CreateSingletonInstance(&m_storage) == 0 &&
           XmlLocalTWPolMgr::CreateSingletonInstance(&m_manager) == 0;
  }
  ~PolicySingletons() {
    XmlLocalTWPolMgr::ReleaseInstance(m_manager);
    CStoragePath::ReleaseInstance(m_storage);
  }
  PolicySingletons(const PolicySingletons&) = delete;
  PolicySingletons& operator=(const PolicySingletons&) = delete;

  bool ok() const { return m_ok; }
  XmlLocalTWPolMgr* manager() const { return m_manager; }

 private:
  CStoragePath* m_storage = nullptr;
  XmlLocalTWPolMgr* m_manager = nullptr;
  bool m_ok = false;
};

}  // namespace xmltest

#endif  // COMMON_XML_XML_TESTSUPPORT_H_
