#include "Common/Xml/VVCSaxWriter.h"

#include <errno.h>
#include <string.h>

#include <fstream>

#include "Common/Log/Log.h"
#include "Common/Utility/sysutils.h"
#include "Common/Zip/CZip.h"

namespace {

const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
const char kCDataOpen[] = "<![CDATA[";
const char kCDataClose[] = "]]>";

}  // namespace

VVCSaxWriter::VVCSaxWriter(const std::string& folder, const std::string& fileName,
                           const std::string& rootName)
    : m_rootName(rootName), m_folder(folder), m_fileName(fileName) {}

VVCSaxWriter::~VVCSaxWriter() {
  CStringUtils::wipeString(m_text);
}

void VVCSaxWriter::append(const char* data, size_t size) {
  const size_t needed = m_text.size() + size;
  if (needed > m_text.capacity()) {
    // Grow by hand rather than letting the string reallocate, so the buffer
    // given up can be wiped before it is freed.
    std::string grown;
    grown.reserve(needed + kGrowthSlack);
    grown.append(m_text);
    CStringUtils::wipeString(m_text);
    m_text.swap(grown);
  }
  m_text.append(data, size);
}

void VVCSaxWriter::appendCData(const std::string& text) {
  // Each "]]>" is split after its brackets: one section ends in "]]", the
  // next begins with ">".
  size_t start = 0;
  size_t hit;
  while ((hit = text.find(kCDataClose, start)) != std::string::npos) {
    const size_t length = hit - start + 2;
    append(kCDataOpen, sizeof(kCDataOpen) - 1);
    append(text.data() + start, length);
    append(kCDataClose, sizeof(kCDataClose) - 1);
    start += length;
  }
  append(kCDataOpen, sizeof(kCDataOpen) - 1);
  append(text.data() + start, text.size() - start);
  append(kCDataClose, sizeof(kCDataClose) - 1);
}

ResultCode VVCSaxWriter::startDocument(const SaxAttributeList* attributes) {
  CStringUtils::wipeString(m_text);
  append(kDeclaration, sizeof(kDeclaration) - 1);
  return startElement(m_rootName, attributes);
}

ResultCode VVCSaxWriter::startElement(const std::string& name, const SaxAttributeList* attributes) {
  append("<", 1);
  append(name);
  if (attributes != nullptr) {
    for (const auto& attribute : *attributes) {
      append(" ", 1);
      append(attribute.first);
      append("=\"", 2);
      append(attribute.second);
      append("\"", 1);
    }
  }
  append(">", 1);
  return 0;
}

ResultCode VVCSaxWriter::characters(const std::string& text) {
  if (text.find_first_of("&<") == std::string::npos)
    append(text);
  else
    appendCData(text);
  return 0;
}

ResultCode VVCSaxWriter::endElement(const std::string& name) {
  append("</", 2);
  append(name);
  append(">", 1);
  return 0;
}

ResultCode VVCSaxWriter::endDocument() {
  return endElement(m_rootName);
}

ResultCode VVCSaxWriter::writeDocument() {
  if (!CZip::createPath(m_folder)) {
    KLOG_RC_DESC(LOG_LEVEL_E, "VVCSaxWriter::writeDocument", GLOBAL_ERROR_UNEXPECTED,
                 "Error creating needed directory");
    return GLOBAL_ERROR_UNEXPECTED;
  }
  const std::string path = m_folder + m_fileName;
  std::ofstream out;
  errno = 0;
  out.open(path, std::ios::out | std::ios::trunc | std::ios::binary);
  if (!out.is_open()) {
    const int error = errno;
    KLOG_RC_FMT(LOG_LEVEL_E, "std::ofstream::open", GLOBAL_ERROR_UNEXPECTED, "errno %d: %s", error,
                strerror(error));
    return GLOBAL_ERROR_UNEXPECTED;
  }
  // One insertion; the flush belongs to it, so that a write the buffer held
  // back is judged here as well.
  errno = 0;
  out << m_text;
  out.flush();
  if (!out) {
    const int error = errno;
    KLOG_RC_FMT(LOG_LEVEL_E, "std::ofstream::operator<<", GLOBAL_ERROR_UNEXPECTED, "errno %d: %s",
                error, strerror(error));
    return GLOBAL_ERROR_UNEXPECTED;
  }
  out.close();
  return 0;
}
