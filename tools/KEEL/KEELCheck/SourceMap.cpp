#include "tools/KEEL/KEELCheck/SourceMap.h"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Common/Utility/ScopedHandles.h"
#include "tools/KEEL/KEELCheck/Finding.h"

namespace keelcheck {

// The libxml2 callbacks; they reach the map through the parser context.
struct SourceMapEvents {
  static SourceMap* MapOf(void* context) {
    return static_cast<SourceMap*>(static_cast<xmlParserCtxtPtr>(context)->_private);
  }

  static void StartElement(void* context, const xmlChar* name, const xmlChar** /*attributes*/) {
    xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
    SourceMap* map = MapOf(context);
    SourceMap::Element element;
    element.name = reinterpret_cast<const char*>(name);
    // The handler is called once the start tag's attributes are read; its
    // "<" is the last one before that point, since attribute values may
    // not hold one.
    const long consumed = parser->inputNr == 1 ? xmlByteConsumed(parser) : -1;
    if (consumed > 0 && static_cast<size_t>(consumed) <= map->m_bytes.size()) {
      const size_t open = map->m_bytes.rfind('<', static_cast<size_t>(consumed) - 1);
      if (open != std::string::npos)
        map->PlaceOf(open, element.line, element.column);
    } else if (parser->input != nullptr) {
      element.line = parser->input->line;
    }
    const size_t index = map->m_elements.size();
    element.parent = map->m_open.empty() ? index : map->m_open.back();
    element.end = index + 1;
    map->m_elements.push_back(element);
    map->m_open.push_back(index);
  }

  static void EndElement(void* context, const xmlChar* /*name*/) {
    SourceMap* map = MapOf(context);
    if (map->m_open.empty())
      return;
    map->m_elements[map->m_open.back()].end = map->m_elements.size();
    map->m_open.pop_back();
  }

  static void Characters(void* context, const xmlChar* text, int length) {
    SourceMap* map = MapOf(context);
    if (map->m_open.empty() || text == nullptr || length <= 0)
      return;
    map->m_elements[map->m_open.back()].text.append(reinterpret_cast<const char*>(text),
                                                    static_cast<size_t>(length));
  }

  // libxml2 stores each report in the context before it calls here; the
  // first one is the one worth showing.
  static void Error(void* context, const char* /*format*/, ...) {
    xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
    SourceMap* map = MapOf(context);
    if (map->m_errorSeen)
      return;
    map->m_errorSeen = true;
    const xmlError& last = parser->lastError;
    map->m_error.line = last.line > 0 ? last.line : 1;
    map->m_error.column = last.int2 > 0 ? last.int2 : 1;
    map->m_error.message = OneLine(last.message != nullptr ? last.message : "not well-formed");
  }

  // Warnings change nothing in the parse; they are kept off the console.
  static void Warning(void* /*context*/, const char* /*format*/, ...) {}
};

bool SourceMap::Read(const std::string& path) {
  m_bytes.clear();
  m_elements.clear();
  m_open.clear();
  m_error = ReadError();
  m_errorSeen = false;

  FileHandle file(fopen(path.c_str(), "rbe"));
  struct stat info;
  if (file == nullptr || fstat(fileno(file.get()), &info) != 0) {
    m_error.message = std::string("cannot read the file: ") + strerror(errno);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    m_error.message = "is a folder, not a file";
    return false;
  }
  char buffer[65536];
  size_t got = 0;
  while ((got = fread(buffer, 1, sizeof(buffer), file.get())) > 0)
    m_bytes.append(buffer, got);
  if (ferror(file.get())) {
    m_error.message = std::string("cannot read the file: ") + strerror(errno);
    return false;
  }
  m_lineStarts.assign(1, 0);
  for (size_t i = 0; i < m_bytes.size(); ++i) {
    if (m_bytes[i] == '\n')
      m_lineStarts.push_back(i + 1);
  }
  return Parse();
}

bool SourceMap::Parse() {
  if (m_bytes.empty() || m_bytes.size() > static_cast<size_t>(INT32_MAX)) {
    m_error.message = m_bytes.empty() ? "Document is empty" : "the file is too large";
    return false;
  }
  xmlParserCtxtPtr parser =
      xmlCreateMemoryParserCtxt(m_bytes.data(), static_cast<int>(m_bytes.size()));
  if (parser == nullptr) {
    m_error.message = "libxml2 could not start a parse";
    return false;
  }
  // The same four entries as the tool's handler (warnings only silenced):
  // a handler of any other shape could see other elements.
  xmlSAXHandler handler;
  memset(&handler, 0, sizeof(handler));
  handler.startElement = SourceMapEvents::StartElement;
  handler.endElement = SourceMapEvents::EndElement;
  handler.characters = SourceMapEvents::Characters;
  handler.error = SourceMapEvents::Error;
  handler.warning = SourceMapEvents::Warning;
  xmlSAXHandlerPtr saved = parser->sax;
  parser->sax = &handler;
  parser->_private = this;
  const int result = xmlParseDocument(parser);
  const bool wellFormed = result == 0 && parser->wellFormed != 0;
  parser->sax = saved;
  if (parser->myDoc != nullptr) {
    xmlFreeDoc(parser->myDoc);
    parser->myDoc = nullptr;
  }
  xmlFreeParserCtxt(parser);
  if (!wellFormed && m_error.message.empty())
    m_error.message = "not well-formed";
  // Elements left open by a failed parse end with what was seen.
  for (size_t index : m_open)
    m_elements[index].end = m_elements.size();
  m_open.clear();
  return wellFormed;
}

void SourceMap::PlaceOf(size_t offset, int& line, int& column) const {
  const auto after = std::upper_bound(m_lineStarts.begin(), m_lineStarts.end(), offset);
  const size_t index = static_cast<size_t>(after - m_lineStarts.begin()) - 1;
  line = static_cast<int>(index + 1);
  column = static_cast<int>(offset - m_lineStarts[index] + 1);
}

}  // namespace keelcheck
