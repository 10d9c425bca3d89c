#include "tools/KEEL/KEELCheck/SchemaCheck.h"

#include <libxml/parser.h>
#include <libxml/relaxng.h>
#include <libxml/tree.h>

#include <map>
#include <memory>
#include <set>

#include "Common/Utility/ScopedHandles.h"
#include "tools/KEEL/KEELCheck/Finding.h"
#include "tools/KEEL/KEELCheck/SourceMap.h"

// Generated at build time from xml/schema/keel-instructions.rng.
extern const char kInstructionSchema[];

namespace keelcheck {

namespace {

void IgnoreReport(void* /*data*/, xmlErrorPtr /*error*/) {}

// The compiled grammar; null when it does not compile. Never freed: it
// lives as long as the process.
xmlRelaxNGPtr CompiledSchema() {
  static xmlRelaxNGPtr schema = []() -> xmlRelaxNGPtr {
    const std::string& text = InstructionSchemaText();
    RelaxNgParserContextHandle parser(
        xmlRelaxNGNewMemParserCtxt(text.data(), static_cast<int>(text.size())));
    if (parser == nullptr)
      return nullptr;
    xmlRelaxNGSetParserStructuredErrors(parser.get(), IgnoreReport, nullptr);
    return xmlRelaxNGParse(parser.get());
  }();
  return schema;
}

std::string QualifiedName(xmlNodePtr node) {
  std::string name = reinterpret_cast<const char*>(node->name);
  if (node->ns != nullptr && node->ns->prefix != nullptr)
    name = std::string(reinterpret_cast<const char*>(node->ns->prefix)) + ":" + name;
  return name;
}

// Pairs the tree's elements with the map's, in pre-order, up to the first
// name that differs.
std::map<xmlNodePtr, long> PairElements(xmlDocPtr document, const SourceMap& map) {
  std::map<xmlNodePtr, long> pairs;
  std::vector<xmlNodePtr> pending;
  xmlNodePtr root = xmlDocGetRootElement(document);
  if (root != nullptr)
    pending.push_back(root);
  size_t index = 0;
  while (!pending.empty()) {
    xmlNodePtr node = pending.back();
    pending.pop_back();
    if (index >= map.elements().size() || map.elements()[index].name != QualifiedName(node))
      break;
    pairs[node] = static_cast<long>(index++);
    std::vector<xmlNodePtr> children;
    for (xmlNodePtr child = node->children; child != nullptr; child = child->next) {
      if (child->type == XML_ELEMENT_NODE)
        children.push_back(child);
    }
    for (auto it = children.rbegin(); it != children.rend(); ++it)
      pending.push_back(*it);
  }
  return pairs;
}

// libxml2 reports a failure at every level it passes on the way out; these
// words only say that something below went wrong.
bool IsGeneric(const std::string& message) {
  for (const char* generic : {"failed to validate content", "Invalid sequence in interleave",
                              "failed to validate attributes", "Expecting an element , got"}) {
    if (message.find(generic) != std::string::npos)
      return true;
  }
  return false;
}

struct Report {
  xmlNodePtr node;
  int line;
  std::string message;
};

void CollectReport(void* data, xmlErrorPtr error) {
  if (error == nullptr)
    return;
  const std::string message = OneLine(error->message != nullptr ? error->message : "");
  static_cast<std::vector<Report>*>(data)->push_back(
      {static_cast<xmlNodePtr>(error->node), error->line, message});
}

}  // namespace

const std::string& InstructionSchemaText() {
  static const std::string text(kInstructionSchema);
  return text;
}

std::vector<SchemaFailure> ValidateAgainstSchema(const SourceMap& map, bool& compiled) {
  std::vector<SchemaFailure> failures;
  xmlRelaxNGPtr schema = CompiledSchema();
  compiled = schema != nullptr;
  if (schema == nullptr || map.bytes().empty())
    return failures;
  // No network, no external entities: only the bytes of the file count.
  XmlDocHandle document(xmlReadMemory(map.bytes().data(), static_cast<int>(map.bytes().size()),
                                      nullptr, nullptr,
                                      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (document == nullptr)
    return failures;
  RelaxNgValidContextHandle validator(xmlRelaxNGNewValidCtxt(schema));
  if (validator == nullptr)
    return failures;
  std::vector<Report> reports;
  xmlRelaxNGSetValidStructuredErrors(validator.get(), CollectReport, &reports);
  if (xmlRelaxNGValidateDoc(validator.get(), document.get()) == 0)
    return failures;

  const std::map<xmlNodePtr, long> pairs = PairElements(document.get(), map);
  // The most telling message of each failing element, in report order.
  std::map<long, std::string> byElement;
  std::vector<long> order;
  std::vector<Report> unplaced;
  for (const Report& report : reports) {
    const auto pair = report.node != nullptr ? pairs.find(report.node) : pairs.end();
    if (pair == pairs.end()) {
      unplaced.push_back(report);
      continue;
    }
    const auto known = byElement.find(pair->second);
    if (known == byElement.end()) {
      byElement[pair->second] = report.message;
      order.push_back(pair->second);
    } else if (IsGeneric(known->second) && !IsGeneric(report.message)) {
      known->second = report.message;
    }
  }
  // Keep the innermost: an element with a failing element inside it only
  // repeats that failure.
  const std::set<long> failing(order.begin(), order.end());
  for (long element : order) {
    const SourceMap::Element& place = map.elements()[static_cast<size_t>(element)];
    const auto inner = failing.upper_bound(element);
    if (inner != failing.end() && static_cast<size_t>(*inner) < place.end)
      continue;
    const std::string& message = byElement[element];
    failures.push_back({element, place.line,
                        IsGeneric(message) ? "<" + place.name + "> does not fit here" : message});
  }
  // Reports that name no element say the same as those that do; alone
  // they still tell that the file fails.
  if (byElement.empty()) {
    for (const Report& report : unplaced)
      failures.push_back({-1, report.line > 0 ? report.line : 1, report.message});
  }
  return failures;
}

}  // namespace keelcheck
