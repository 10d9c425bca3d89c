// Shared pieces of the collector tests: instruction documents from XML text,
// a test tree that the collector reaches by relative paths (so the texts it
// writes do not depend on where the temporary folder lies), fixed answers
// for the head of summary.txt, and readers for the summary's parts.
//
// The head of summary.txt and the comments file are written once per
// process. CTest runs every test case in a process of its own, so each case
// starts with both still to be written; a case can see the head only once.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_COLLECTOR_TESTSUPPORT_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_COLLECTOR_TESTSUPPORT_H_

#include <sys/stat.h>
#include <unistd.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Log/Log.h"
#include "tests/support/FakeEnv.h"
#include "tests/support/ParsedXml.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/collector.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace collectortest {

using keeltest::ParsedXml;

// A host with fixed answers for the head of summary.txt; a relative bundle
// path is shown below a fixed current folder.
class FixedHost : public keeltest::FakeEnv {
 public:
  FixedHost() {
    SetSummaryFacts("Mon Jan 01 12:00:00 2024 UTC", "Linux: Test Linux 1.0", "tester",
                    "/home/tester/");
  }
};

// The head that FixedHost gives for the bundle path "report".
inline std::string FixedHead() {
  return "KEEL BUNDLE SUMMARY\n"
         "\n"
         "Time:                         Mon Jan 01 12:00:00 2024 UTC\n"
         "OS:                           Linux: Test Linux 1.0\n"
         "User Name:                    tester\n"
         "Bundle on client computer:    /home/tester/report\n";
}

using keeltest::ScopedCwd;

// An instruction that copies `loc` on Linux. `defaultText` empty leaves
// out the `default` element; `extra` goes into the file element ahead of
// `keel`.
inline std::string CopyInstruction(const std::string& id, const std::string& description,
                                   const std::string& loc, const std::string& defaultText = "true",
                                   const std::string& fileAttributes = std::string(),
                                   const std::string& extra = std::string()) {
  std::string text = "<file id=\"" + id + "\"" + fileAttributes + ">";
  if (!description.empty())
    text += "<description>" + description + "</description>";
  if (!defaultText.empty())
    text += "<default>" + defaultText + "</default>";
  text += extra;
  text += "<keel><os opsys=\"linux\"><file_copy_action><action><loc>" + loc +
          "</loc></action></file_copy_action></os></keel></file>";
  return text;
}

// A config with the given groups (already XML) and an optional title.
inline std::string Config(const std::string& groups, const std::string& title = std::string()) {
  std::string text = "<config>";
  if (!title.empty())
    text += "<configure><title>" + title + "</title></configure>";
  return text + groups + "</config>";
}

inline std::string Group(const std::string& files, const std::string& attributes = std::string()) {
  return "<fileGroup" + attributes + ">" + files + "</fileGroup>";
}

// Lines of `text` (without their line feeds).
inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos)
      end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

inline std::string Pad(const std::string& text, size_t width) {
  std::string padded = text.substr(0, width);
  return padded + std::string(width - padded.size(), ' ');
}

// A header or body row of the summary's tables.
inline std::string Row(const std::string& id, const std::string& name,
                       const std::string& description, const std::string& last,
                       size_t lastWidth = 10) {
  return Pad(id, 17) + "  " + Pad(name, 28) + "  " + Pad(description, 40) + "  " +
         Pad(last, lastWidth) + "\n";
}

// The section of a config whose included part is empty and that has no
// omitted files and no notes.
inline std::string EmptySection(const std::string& title) {
  return "\n" + std::string(141, '=') + "\n" + title + ":\n\nFiles Included in Bundle:\n" +
         Row("ID", "Filename", "Description", "File Size") + std::string(101, '-') + "\n" +
         std::string(101, '-') + "\n";
}

// The body rows of the table below `heading` ("Files Included in Bundle:"
// or "Files Omitted from Bundle:") of the first section in `summary`, each
// as its four columns with the padding removed.
inline std::vector<std::vector<std::string>> Rows(const std::string& summary,
                                                  const std::string& heading) {
  std::vector<std::vector<std::string>> rows;
  const std::vector<std::string> lines = Lines(summary);
  size_t i = 0;
  while (i < lines.size() && lines[i] != heading)
    ++i;
  if (i == lines.size())
    return rows;
  const std::string rule = lines.size() > i + 2 ? lines[i + 2] : std::string();
  const size_t offsets[] = {0, 19, 49, 91};
  const size_t widths[] = {17, 28, 40, 50};
  for (i += 3; i < lines.size() && lines[i] != rule; ++i) {
    std::vector<std::string> row;
    for (int column = 0; column < 4; ++column) {
      std::string cell = lines[i].size() > offsets[column]
                             ? lines[i].substr(offsets[column], widths[column])
                             : std::string();
      cell.erase(cell.find_last_not_of(' ') + 1);
      row.push_back(cell);
    }
    rows.push_back(row);
  }
  return rows;
}

// The first column of the included rows.
inline std::vector<std::string> IncludedIds(const std::string& summary) {
  std::vector<std::string> ids;
  for (const auto& row : Rows(summary, "Files Included in Bundle:"))
    ids.push_back(row[0]);
  return ids;
}

// The notes of `summary`, without their " - ".
inline std::vector<std::string> Notes(const std::string& summary) {
  std::vector<std::string> notes;
  const std::vector<std::string> lines = Lines(summary);
  size_t i = 0;
  while (i < lines.size() && lines[i] != "Notes:")
    ++i;
  for (++i; i < lines.size() && lines[i].compare(0, 3, " - ") == 0; ++i)
    notes.push_back(lines[i].substr(3));
  return notes;
}

// The children of one part of a summary document as "name|value|attr=v..."
inline std::vector<std::string> Entries(XMLObject* summary, const std::string& part) {
  std::vector<std::string> entries;
  KEELComponent* root = summary != nullptr ? summary->GetRoot() : nullptr;
  KEELComponent* parent = root != nullptr ? root->FindChild(part) : nullptr;
  if (parent == nullptr)
    return entries;
  for (const auto& child : parent->GetChildren()) {
    std::string text = child->GetName() + "|" + child->GetValue();
    for (const auto& attribute : child->GetAttributes())
      text += "|" + attribute->GetName() + "=" + attribute->GetValue();
    entries.push_back(text);
  }
  return entries;
}

// Whether a record of that level holds `text`.
inline bool Logged(keeltest::LogCapture& log, uint32_t level, const std::string& text) {
  for (const keeltest::LogRecord& record : log.logger().Records()) {
    if (record.level == level && record.message.find(text) != std::string::npos)
      return true;
  }
  return false;
}

// A test tree in a temporary folder that is also the current folder, with
// the working folder "work" and sources below "src". Documents parsed with
// Parse live as long as the fixture.
class CollectorFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_cwd.ok());
    ASSERT_EQ(0, mkdir("work", 0777));
    ASSERT_EQ(0, mkdir("src", 0777));
  }

  // Writes src/<name> and returns its relative path.
  std::string Source(const std::string& name, const std::string& content) {
    EXPECT_TRUE(keeltest::WriteFile(dir.Sub("src/" + name), content));
    return "src/" + name;
  }

  XMLObject* Parse(const std::string& text) {
    m_parsed.emplace_back(new ParsedXml(text));
    EXPECT_TRUE(m_parsed.back()->ok()) << text;
    return m_parsed.back()->document();
  }

  std::unique_ptr<collector> Make(bool legacy = false, bool systemLogs = true,
                                  XMLObject* request = nullptr) {
    return std::unique_ptr<collector>(new collector(request != nullptr ? request : &noRequest,
                                                    &unprocessed, "report", legacy, systemLogs,
                                                    &host));
  }

  // One collector run of `config` into "work".
  ResultCode Collect(XMLObject* config, bool legacy = false, bool systemLogs = true) {
    std::string folder = "work";
    return Make(legacy, systemLogs)->Collect(folder, config);
  }

  std::string Summary() const { return keeltest::ReadFile(dir.Sub("work/summary.txt")); }
  bool InWork(const std::string& relative) const {
    return keeltest::PathExists(dir.Sub("work/" + relative));
  }

  keeltest::TempDir dir;
  ScopedCwd m_cwd{dir.path()};
  keeltest::LogCapture log;
  FixedHost host;
  XMLObject noRequest;  // no root: the default selection
  std::list<KEELComponent*> unprocessed;
  std::vector<std::unique_ptr<ParsedXml>> m_parsed;
};

}  // namespace collectortest

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_COLLECTOR_TESTSUPPORT_H_
