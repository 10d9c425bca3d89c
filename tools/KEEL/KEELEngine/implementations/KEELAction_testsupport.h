// Shared pieces of the action tests: instruction trees from XML text, a
// summary document shaped like the collector's, readers for its omitted
// files, scripts for external programs, and a check for left-over children.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELACTION_TESTSUPPORT_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELACTION_TESTSUPPORT_H_

#include <errno.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/ParsedXml.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace actiontest {

using keeltest::ParsedXml;

// A summary document as the collector starts it.
inline std::unique_ptr<XMLObject> MakeSummary() {
  std::unique_ptr<XMLObject> summary(new XMLObject("summary", ""));
  for (const char* section :
       {"Main_Info", "Manifest_Included", "Manifest_Not_Included", "Other_Note"})
    summary->AddChild(summary->GetRoot(), section, "");
  return summary;
}

// One entry below "Manifest_Not_Included".
struct Omitted {
  std::string id;
  std::string name;
  std::string description;
  std::string reason;
  bool operator==(const Omitted& other) const {
    return id == other.id && name == other.name && description == other.description &&
           reason == other.reason;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Omitted& entry) {
  return out << "{" << entry.id << " | " << entry.name << " | " << entry.description << " | "
             << entry.reason << "}";
}

// The omitted files of `summary`, in order. An entry whose attributes are
// not exactly description and reason, in that order, shows as such.
inline std::vector<Omitted> OmittedFiles(const XMLObject& summary) {
  std::vector<Omitted> entries;
  KEELComponent* root = summary.GetRoot();
  KEELComponent* section = root != nullptr ? root->FindChild("Manifest_Not_Included") : nullptr;
  if (section == nullptr)
    return entries;
  for (const auto& child : section->GetChildren()) {
    Omitted entry;
    entry.id = child->GetName();
    entry.name = child->GetValue();
    const auto& attributes = child->GetAttributes();
    if (attributes.size() != 2 || attributes.front()->GetName() != "description" ||
        attributes.back()->GetName() != "reason") {
      entry.reason = "<attributes not description, reason>";
    } else {
      entry.description = attributes.front()->GetValue();
      entry.reason = attributes.back()->GetValue();
    }
    entries.push_back(entry);
  }
  return entries;
}

inline size_t NoteCount(const XMLObject& summary) {
  KEELComponent* root = summary.GetRoot();
  KEELComponent* notes = root != nullptr ? root->FindChild("Other_Note") : nullptr;
  return notes != nullptr ? notes->GetChildren().size() : 0;
}

using keeltest::WriteScript;

// Checks the fields that every record of an action made with MakeSettings
// carries, for the file at `path`.
inline void ExpectRecord(const TruncAttrs& record, const std::string& path) {
  EXPECT_EQ("id-1", record.id);
  EXPECT_EQ(path, record.path);
  EXPECT_EQ("Test logs", record.description);
  EXPECT_EQ(static_cast<double>(std::filesystem::file_size(path)), record.size);
  EXPECT_EQ(TRUNC_END, record.truncateType);
  EXPECT_EQ(4096.0, record.limit);
  EXPECT_EQ(TRUNC_NONE, record.defaultType);
}

using keeltest::NoChildLeft;

// Runs `body` in a child process that is the user "nobody" and may not
// start processes of its own, so that every fork in it fails. Returns the
// text that `body` returned, or "<no setuid>" when the identity cannot be
// changed (the caller then skips).
inline std::string InChildThatCannotFork(const std::function<std::string()>& body) {
  return keeltest::TextAsNobody([&]() -> std::string {
    rlimit none = {0, 0};
    return setrlimit(RLIMIT_NPROC, &none) == 0 ? body() : "<no setuid>";
  });
}

// Settings for an action of ID "id-1" described as "Test logs".
inline ActionSettings MakeSettings(const std::string& bundleFolder, XMLObject* summary,
                                   const std::string& bundleName = std::string()) {
  ActionSettings settings;
  settings.m_fileId = "id-1";
  settings.m_bundleName = bundleName;
  settings.m_bundleFolder = bundleFolder;
  settings.m_description = "Test logs";
  settings.m_truncateType = TRUNC_END;
  settings.m_truncateLimit = 4096.0;
  settings.m_pXMLSummary = summary;
  return settings;
}

}  // namespace actiontest

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELACTION_TESTSUPPORT_H_
