#include "tools/KEEL/KEELCheck/CheckContext.h"

#include <cstdio>
#include <utility>

#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"

namespace keelcheck {

namespace {

// A long text in a finding is cut here; the line is for reading.
constexpr size_t kMaxQuoted = 200;

}  // namespace

constexpr long CheckContext::kNoElement;

CheckContext::CheckContext(const std::string& shownPath, const SourceMap& map,
                           const KEELComponent* root)
    : m_shownPath(shownPath), m_map(map) {
  // Pre-order without recursion: a hostile file may nest deeply.
  std::vector<const KEELComponent*> pending;
  if (root != nullptr)
    pending.push_back(root);
  size_t index = 0;
  const std::vector<SourceMap::Element>& elements = map.elements();
  while (!pending.empty()) {
    const KEELComponent* component = pending.back();
    pending.pop_back();
    if (index >= elements.size() || elements[index].name != component->GetName())
      break;
    m_indices[component] = index++;
    m_components.push_back(component);
    const KEELComponentList& children = component->GetChildren();
    for (auto it = children.rbegin(); it != children.rend(); ++it)
      pending.push_back(it->get());
  }
}

void CheckContext::Error(const KEELComponent* at, const std::string& text) {
  Add(at, Severity::kError, text);
}

void CheckContext::Warning(const KEELComponent* at, const std::string& text) {
  Add(at, Severity::kWarning, text);
}

void CheckContext::Add(const KEELComponent* at, Severity severity, const std::string& text) {
  AddAt(IndexOf(at), 1, severity, text);
}

void CheckContext::AddAt(long element, int line, Severity severity, const std::string& text) {
  Finding finding;
  finding.file = m_shownPath;
  finding.severity = severity;
  finding.text = text;
  finding.line = line;
  if (element != kNoElement) {
    const SourceMap::Element& place = m_map.elements()[static_cast<size_t>(element)];
    finding.line = place.line;
    finding.column = place.column;
  }
  m_findings.push_back(finding);
  m_findingElements.push_back(element);
}

long CheckContext::IndexOf(const KEELComponent* component) const {
  const auto found = m_indices.find(component);
  return found != m_indices.end() ? static_cast<long>(found->second) : kNoElement;
}

const KEELComponent* CheckContext::ComponentAt(long index) const {
  if (index < 0 || static_cast<size_t>(index) >= m_components.size())
    return nullptr;
  return m_components[static_cast<size_t>(index)];
}

bool CheckContext::TextAsWritten(const KEELComponent* component, std::string& text) const {
  const long index = IndexOf(component);
  if (index == kNoElement)
    return false;
  text = m_map.elements()[static_cast<size_t>(index)].text;
  return true;
}

FindingList CheckContext::TakeFindings() {
  FindingList findings = std::move(m_findings);
  m_findings.clear();
  m_findingElements.clear();
  SortByPlace(findings);
  return findings;
}

std::string Tag(const KEELComponent* component) {
  return "<" + (component != nullptr ? component->GetName() : std::string()) + ">";
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (size_t i = 0; i < text.size(); ++i) {
    if (i == kMaxQuoted) {
      quoted += "...";
      break;
    }
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      quoted += "\\n";
    } else if (c == '\t') {
      quoted += "\\t";
    } else if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x", c);
      quoted += escaped;
    } else {
      quoted += static_cast<char>(c);
    }
  }
  return quoted + "\"";
}

}  // namespace keelcheck
