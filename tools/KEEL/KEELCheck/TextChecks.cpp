// Text that the reader changes: it trims every piece of text it is handed,
// and libxml2 hands text over in pieces split at entity and character
// references, CDATA sections and comments. Blanks at such a split are lost.
#include <set>
#include <string>
#include <vector>

#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELCheck/CheckContext.h"
#include "tools/KEEL/KEELCheck/DocumentChecks.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"

namespace keelcheck {

namespace {

// The elements whose text the tool reads.
bool TextIsRead(const std::string& name) {
  static const std::set<std::string> names = {
      "name",     "description", "default",     "title",        "loc",       "pattern",
      "path",     "plugin",      "args",        "admin_args",   "clear_log", "temp_out",
      "comments", "url",         "upload_size", "truncate_type"};
  return names.count(name) != 0;
}

}  // namespace

void CheckTexts(CheckContext& context, const KEELComponent* root) {
  std::vector<const KEELComponent*> pending;
  if (root != nullptr)
    pending.push_back(root);
  while (!pending.empty()) {
    const KEELComponent* component = pending.back();
    pending.pop_back();
    for (const auto& child : component->GetChildren())
      pending.push_back(child.get());
    std::string written;
    if (!TextIsRead(component->GetName()) || !context.TextAsWritten(component, written))
      continue;
    const std::string read = component->GetValue();
    if (CStringUtils::trimString(written) == read)
      continue;
    context.Warning(component, "the text of " + Tag(component) +
                                   " loses blanks where it is split by a reference (&...;), "
                                   "CDATA or a comment: the tool reads " +
                                   Quoted(read) +
                                   "; write ' and \" as they are and keep no blank beside a "
                                   "reference");
  }
}

}  // namespace keelcheck
