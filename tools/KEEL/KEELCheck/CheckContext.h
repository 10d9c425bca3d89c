// The findings of one instruction file while its checks run, and the place
// of each element of the tool's tree in the file.
//
// The tool's tree (from the tool's own loader) and the SourceMap (the
// second read) hold the same elements in the same pre-order; the context
// pairs them by walking both, and stops pairing at the first name that
// differs, so that a finding is never placed on the wrong element (it goes
// to line 1 instead).
//
// Does not own the tree or the map; both must outlive it. One thread.
#ifndef TOOLS_KEEL_KEELCHECK_CHECKCONTEXT_H_
#define TOOLS_KEEL_KEELCHECK_CHECKCONTEXT_H_

#include <string>
#include <unordered_map>
#include <vector>

#include "tools/KEEL/KEELCheck/Finding.h"
#include "tools/KEEL/KEELCheck/SourceMap.h"

class KEELComponent;

namespace keelcheck {

class CheckContext {
 public:
  // No element index.
  static constexpr long kNoElement = -1;

  // `map` may be empty (a file the tool reads and the second read does
  // not): then every finding points at line 1.
  CheckContext(const std::string& shownPath, const SourceMap& map, const KEELComponent* root);
  CheckContext(const CheckContext&) = delete;
  CheckContext& operator=(const CheckContext&) = delete;

  void Error(const KEELComponent* at, const std::string& text);
  void Warning(const KEELComponent* at, const std::string& text);
  // A finding at a known element index of the map (kNoElement: line 1),
  // or at a bare line when the index is unknown.
  void AddAt(long element, int line, Severity severity, const std::string& text);

  // The index of `component` in the map, or kNoElement.
  long IndexOf(const KEELComponent* component) const;
  // The component at `index` of the map, or null when it is not paired.
  const KEELComponent* ComponentAt(long index) const;
  // The text of `component` as written (pieces joined untrimmed); false
  // when the element is not paired.
  bool TextAsWritten(const KEELComponent* component, std::string& text) const;

  const SourceMap& map() const { return m_map; }
  const std::string& shownPath() const { return m_shownPath; }

  // The findings so far, and for each the element index it is about.
  const FindingList& findings() const { return m_findings; }
  const std::vector<long>& findingElements() const { return m_findingElements; }
  // Hands the findings over, ordered by place.
  FindingList TakeFindings();

 private:
  void Add(const KEELComponent* at, Severity severity, const std::string& text);

  std::string m_shownPath;
  const SourceMap& m_map;
  std::unordered_map<const KEELComponent*, size_t> m_indices;
  std::vector<const KEELComponent*> m_components;  // by index
  FindingList m_findings;
  std::vector<long> m_findingElements;
};

// "<name>" of a component, for the texts of findings.
std::string Tag(const KEELComponent* component);
// `text` in double quotes, control characters shown as \n, \t, \xNN.
std::string Quoted(const std::string& text);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_CHECKCONTEXT_H_
