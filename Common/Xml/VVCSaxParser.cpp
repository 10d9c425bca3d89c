#include "Common/Xml/VVCSaxParser.h"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>

#include <climits>
#include <cstdarg>
#include <cstring>

#include "Common/Log/BoundedText.h"
#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/sysutils.h"

namespace {

// The characters that may stand ahead of the XML declaration in text.
constexpr char kLeadingBlanks[] = " \n\r\t";

// Wipes a string when the scope ends, however it ends.
class WipeOnExit {
 public:
  explicit WipeOnExit(std::string& text) : m_text(text) {}
  ~WipeOnExit() { CStringUtils::wipeString(m_text); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  std::string& m_text;
};

// Owns a parser context. While a handler of ours is installed, the
// context's own handler is kept aside and put back before the context goes,
// so that libxml2 never frees the handler on our stack. A document the
// context may have built is freed first.
class ParserContext {
 public:
  explicit ParserContext(xmlParserCtxtPtr context) : m_context(context) {}
  ~ParserContext() {
    if (!m_context)
      return;
    if (m_installed)
      m_context->sax = m_savedHandler;
    XmlDocHandle built(m_context->myDoc);
    m_context->myDoc = nullptr;
  }
  ParserContext(const ParserContext&) = delete;
  ParserContext& operator=(const ParserContext&) = delete;

  xmlParserCtxtPtr get() const { return m_context.get(); }

  // `handler` must outlive this object.
  void InstallHandler(xmlSAXHandler* handler) {
    m_savedHandler = m_context->sax;
    m_context->sax = handler;
    m_installed = true;
  }

 private:
  XmlParserContextHandle m_context;
  xmlSAXHandlerPtr m_savedHandler = nullptr;
  bool m_installed = false;
};

// The sink stored in the context that libxml2 hands to every callback.
XmlMgr* ManagerOf(void* context) {
  if (context == nullptr) {
    return nullptr;
  }
  return static_cast<XmlMgr*>(static_cast<xmlParserCtxtPtr>(context)->_private);
}

std::string XmlText(const xmlChar* text) {
  return text != nullptr ? std::string(reinterpret_cast<const char*>(text)) : std::string();
}

// A copy of an attribute name or value, trimmed at both ends.
std::string attributeTextToString(const xmlChar* text) {
  std::string copy = XmlText(text);
  std::string trimmed = CStringUtils::trimString(copy);
  CStringUtils::wipeString(copy);
  return trimmed;
}

void startElementCB(void* context, const xmlChar* name, const xmlChar** attributes) {
  XmlMgr* manager = ManagerOf(context);
  if (manager == nullptr) {
    KLOG_E("No XML Manager provided.");
    return;
  }
  std::string elementName = XmlText(name);
  manager->startElement(elementName);
  CStringUtils::wipeString(elementName);
  if (attributes == nullptr) {
    return;
  }
  // Names at even places, values at odd ones, up to the first null.
  std::string attributeName;
  for (size_t i = 0; attributes[i] != nullptr; ++i) {
    if (i % 2 == 0) {
      attributeName = attributeTextToString(attributes[i]);
      continue;
    }
    std::string attributeValue = attributeTextToString(attributes[i]);
    std::string nameCopy = attributeName;
    std::string valueCopy = attributeValue;
    manager->attribute(nameCopy, valueCopy);
    CStringUtils::wipeString(nameCopy);
    CStringUtils::wipeString(valueCopy);
    CStringUtils::wipeString(attributeValue);
    CStringUtils::wipeString(attributeName);
  }
  CStringUtils::wipeString(attributeName);
}

void endElementCB(void* context, const xmlChar* name) {
  XmlMgr* manager = ManagerOf(context);
  if (manager == nullptr) {
    KLOG_E("No XML Manager provided.");
    return;
  }
  std::string elementName = XmlText(name);
  manager->endElement(elementName);
  CStringUtils::wipeString(elementName);
}

void elementValueCB(void* context, const xmlChar* characters, int length) {
  XmlMgr* manager = ManagerOf(context);
  if (manager == nullptr) {
    KLOG_E("No XML Manager provided.");
    return;
  }
  std::string chunk;
  if (characters != nullptr && length > 0) {
    chunk.reserve(static_cast<size_t>(length));
    for (int i = 0; i < length; ++i) {
      chunk.push_back(static_cast<char>(characters[i]));
    }
  }
  // As a C string the text ends at the first zero byte, if there is one.
  std::string text(chunk.c_str());
  CStringUtils::wipeString(chunk);
  std::string trimmed = CStringUtils::trimString(text);
  CStringUtils::wipeString(text);
  manager->elementValue(trimmed);
  CStringUtils::wipeString(trimmed);
}

// libxml2 reports through the format "%s" with the finished message as the
// one argument, which is what goes into the log line. Should a report ever
// come with another format, it is rendered whole instead of reading an
// argument of a type it may not have.
void errorCB(void* context, const char* format, ...) {
  (void)context;
  va_list arguments;
  va_start(arguments, format);
  if (format != nullptr && strncmp(format, "%s", 2) == 0) {
    const char* message = va_arg(arguments, const char*);
    KLOG_E("xml errorCB: %s", message != nullptr ? message : "");
  } else {
    char message[1024];
    message[0] = '\0';
    if (format != nullptr) {
      boundedFormatV(message, sizeof(message), format, arguments);
    }
    KLOG_E("xml errorCB: %s", message);
  }
  va_end(arguments);
}

}  // namespace

ResultCode VVCSaxParser::startParser(const std::string& source, int kind) {
  if (source.empty()) {
    return GLOBAL_ERROR_UNEXPECTED;
  }
  // The copy of the text that libxml2 reads; wiped after the context goes.
  std::string text;
  WipeOnExit wipeText(text);

  xmlParserCtxtPtr created = nullptr;
  if (kind == kSourceFile) {
    created = xmlCreateFileParserCtxt(source.c_str());
    if (created == nullptr) {
      KLOG_RC(LOG_LEVEL_E, "xmlCreateFileParserCtxt", GLOBAL_ERROR_NULL_POINTER);
      return GLOBAL_ERROR_UNEXPECTED;
    }
  } else if (kind == kSourceText) {
    const size_t first = source.find_first_not_of(kLeadingBlanks);
    if (first == std::string::npos) {
      return GLOBAL_ERROR_UNEXPECTED;
    }
    text.assign(source, first, std::string::npos);
    // libxml2 takes the length as an int; a longer text gets no context.
    if (text.size() <= static_cast<size_t>(INT_MAX)) {
      created = xmlCreateMemoryParserCtxt(text.data(), static_cast<int>(text.size()));
    }
    if (created == nullptr) {
      KLOG_RC(LOG_LEVEL_E, "xmlCreateMemoryParserCtxt", GLOBAL_ERROR_NULL_POINTER);
      return GLOBAL_ERROR_UNEXPECTED;
    }
  } else {
    return GLOBAL_ERROR_UNEXPECTED;
  }

  // Declared ahead of the context so that it outlives it.
  xmlSAXHandler handler;
  memset(&handler, 0, sizeof(handler));
  handler.startElement = startElementCB;
  handler.endElement = endElementCB;
  handler.characters = elementValueCB;
  handler.error = errorCB;

  ParserContext context(created);
  context.get()->_private = m_pXmlMgr;
  context.InstallHandler(&handler);

  ResultCode result = 0;
  const int parsed = xmlParseDocument(context.get());
  if (parsed != 0) {
    KLOG_RC(LOG_LEVEL_E, "xmlParseDocument", static_cast<ResultCode>(parsed));
    result = GLOBAL_ERROR_UNEXPECTED;
  }
  return result;
}
