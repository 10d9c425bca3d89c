#include "tools/KEEL/KEELCheck/InstructionFileCheck.h"

#include <vector>

#include "tools/KEEL/KEELCheck/CheckContext.h"
#include "tools/KEEL/KEELCheck/DocumentChecks.h"
#include "tools/KEEL/KEELCheck/SchemaCheck.h"
#include "tools/KEEL/KEELCheck/SourceMap.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace keelcheck {

namespace {

// A grammar failure that a check of the tool's own view already reported,
// in vaguer words: one at, around or inside an element with a finding.
// libxml2 reports the alternatives it tried as well, so what it says below
// such an element is more often noise than news.
bool AlreadyReported(const CheckContext& context, const SchemaFailure& failure) {
  const std::vector<long>& elements = context.findingElements();
  const FindingList& findings = context.findings();
  const std::vector<SourceMap::Element>& places = context.map().elements();
  auto inside = [&places](long inner, long outer) {
    return inner >= outer && static_cast<size_t>(inner) < places[static_cast<size_t>(outer)].end;
  };
  for (size_t i = 0; i < elements.size(); ++i) {
    if (failure.element >= 0 && elements[i] >= 0) {
      if (inside(elements[i], failure.element) || inside(failure.element, elements[i]))
        return true;
    } else if (failure.element < 0 && findings[i].line == failure.line) {
      return true;
    }
  }
  return false;
}

// Inside a block for another system, which the tool passes over here. The
// grammar lets such a block differ from the Linux one, and when an element
// fails libxml2 tends to report the alternative it tried last, which is in
// such a block.
bool InsideOtherSystem(const CheckContext& context, const SchemaFailure& failure) {
  const std::vector<SourceMap::Element>& places = context.map().elements();
  for (long index = failure.element; index >= 0;) {
    const KEELComponent* component = context.ComponentAt(index);
    if (component != nullptr && component->GetName() == "os" &&
        component->GetAttributeValue("opsys") != "linux") {
      return true;
    }
    const long parent = static_cast<long>(places[static_cast<size_t>(index)].parent);
    if (parent == index)
      break;
    index = parent;
  }
  return false;
}

void CheckGrammar(CheckContext& context) {
  bool compiled = true;
  const std::vector<SchemaFailure> failures = ValidateAgainstSchema(context.map(), compiled);
  if (!compiled) {
    context.AddAt(CheckContext::kNoElement, 1, Severity::kError,
                  "the built-in instruction schema does not compile; this keelcheck is broken");
    return;
  }
  for (const SchemaFailure& failure : failures) {
    if (AlreadyReported(context, failure) || InsideOtherSystem(context, failure))
      continue;
    context.AddAt(failure.element, failure.line, Severity::kWarning,
                  "does not match the instruction schema: " + failure.message);
  }
}

}  // namespace

FindingList CheckInstructionFile(const std::string& path, const std::string& shownPath) {
  SourceMap map;
  const bool mapped = map.Read(path);

  KEELXmlLoader loader;
  XMLObjectList documents;
  if (loader.Load(path, KEELXmlLoader::kTypeFile, documents) == nullptr || documents.empty()) {
    Finding finding;
    finding.file = shownPath;
    finding.severity = Severity::kError;
    if (!mapped) {
      finding.line = map.error().line;
      finding.column = map.error().column;
      finding.text =
          "the tool cannot read this file, so nothing in it is gathered: " + map.error().message;
    } else {
      finding.text = "the tool's loader refuses this file, so nothing in it is gathered";
    }
    return FindingList{finding};
  }

  XMLObject* document = documents.front();  // the loader's own; it frees it
  SourceMap empty;
  CheckContext context(shownPath, mapped ? map : empty, document->GetRoot());
  CheckStructure(context, *document);
  CheckTexts(context, document->GetRoot());
  if (mapped)
    CheckGrammar(context);
  return context.TakeFindings();
}

}  // namespace keelcheck
