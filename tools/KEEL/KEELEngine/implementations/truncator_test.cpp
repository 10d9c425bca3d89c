#include "tools/KEEL/KEELEngine/implementations/truncator.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELAttribute.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

using keeltest::PathExists;
using keeltest::ReadFile;
using keeltest::TempDir;
using keeltest::WriteFile;

// A summary document shaped as the collector makes it.
std::unique_ptr<XMLObject> MakeSummary() {
  auto summary = std::make_unique<XMLObject>("summary", "KEEL BUNDLE SUMMARY\n");
  KEELComponent* root = summary->GetRoot();
  summary->AddChild(root, "Main_Info", "");
  summary->AddChild(root, "Manifest_Included", "File Manifest:");
  summary->AddChild(root, "Manifest_Not_Included", "Files Requested But Not Included In Bundle:");
  summary->AddChild(root, "Other_Note", "Other notes:");
  return summary;
}

struct Entry {
  std::string id;
  std::string value;
  std::string description;
  std::string last;  // file_size or reason
};

std::vector<Entry> EntriesOf(XMLObject& summary, const char* section, const char* lastAttribute) {
  std::vector<Entry> entries;
  KEELComponent* parent = summary.GetRoot()->FindChild(section);
  for (const auto& child : parent->GetChildren()) {
    KEELAttribute* description = child->FindAttribute("description");
    KEELAttribute* last = child->FindAttribute(lastAttribute);
    entries.push_back(Entry{child->GetName(), child->GetValue(),
                            description != nullptr ? description->GetValue() : "<none>",
                            last != nullptr ? last->GetValue() : "<none>"});
  }
  return entries;
}

std::vector<std::string> Notes(XMLObject& summary) {
  std::vector<std::string> notes;
  for (const auto& child : summary.GetRoot()->FindChild("Other_Note")->GetChildren()) {
    EXPECT_EQ(child->GetName(), " - ");
    notes.push_back(child->GetValue());
  }
  return notes;
}

class TruncatorTest : public ::testing::Test {
 protected:
  // A record for a real file of `size` bytes in the temp folder.
  TruncAttrs File(const std::string& id, const std::string& name, size_t size, TruncateType type,
                  double limit, TruncateType defaultType = TRUNC_NONE) {
    TruncAttrs record;
    record.id = id;
    record.path = dir.Sub(name);
    std::string content;
    for (size_t i = 0; i < size; ++i)
      content += static_cast<char>('a' + i % 26);
    EXPECT_TRUE(WriteFile(record.path, content));
    record.description = "desc " + name;
    record.size = static_cast<double>(size);
    record.truncateType = type;
    record.limit = limit;
    record.defaultType = defaultType;
    return record;
  }

  // Runs the truncator's whole pass over `records`.
  ResultCode Perform(TruncAttrsList& records) {
    truncator cutter(records, summary.get());
    return cutter.perform();
  }

  // The rows of the included files in the summary so far.
  std::vector<Entry> Included() const {
    return EntriesOf(*summary, "Manifest_Included", "file_size");
  }

  // The names of the included files, in summary order.
  std::vector<std::string> IncludedNames() const {
    std::vector<std::string> names;
    for (const Entry& entry : Included())
      names.push_back(entry.value);
    return names;
  }

  // The rows of the files left out, with their reasons.
  std::vector<Entry> NotIncluded() const {
    return EntriesOf(*summary, "Manifest_Not_Included", "reason");
  }

  TempDir dir;
  // The cutting functions go through a scratch file in the current folder;
  // each test keeps its own, so that tests running at once never share it.
  keeltest::ScopedCwd cwd{dir.path()};
  std::unique_ptr<XMLObject> summary = MakeSummary();
};

TEST_F(TruncatorTest, NoneListGoesThroughBothOperationsWithoutNoteOrDeletion) {
  TruncAttrsList records = {File("b", "b.log", 10, TRUNC_NONE, 0),
                            File("a", "a.log", 2000, TRUNC_NONE, 0)};
  truncator lister(records, summary.get());
  EXPECT_EQ(lister.noTruncate(), 0u);
  auto listed = Included();
  ASSERT_EQ(listed.size(), 2u);
  // noTruncate keeps the list order and sorts nothing.
  EXPECT_EQ(listed[0].id, "b");
  EXPECT_EQ(listed[0].value, "b.log");
  EXPECT_EQ(listed[0].description, "desc b.log");
  EXPECT_EQ(listed[0].last, "10 bytes");
  EXPECT_EQ(listed[1].last, "1.95K");

  auto second = MakeSummary();
  truncator cutter(records, second.get());
  EXPECT_EQ(cutter.perform(), 0u);
  listed = EntriesOf(*second, "Manifest_Included", "file_size");
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].id, "a");  // perform sorts by id
  EXPECT_TRUE(Notes(*second).empty());
  EXPECT_TRUE(EntriesOf(*second, "Manifest_Not_Included", "reason").empty());
  EXPECT_TRUE(PathExists(dir.Sub("a.log")));
  EXPECT_TRUE(PathExists(dir.Sub("b.log")));
}

TEST_F(TruncatorTest, EmptyListIsRefused) {
  keeltest::LogCapture capture;
  truncator cutter({}, summary.get());
  EXPECT_EQ(cutter.perform(), KEELENGINE_ERROR_NOT_INITIALIZED);
  EXPECT_TRUE(capture.Contains("m_TruncAttrsList is empty"));
}

TEST_F(TruncatorTest, SortPutsAPrefixFirstAndComparesExactly) {
  TruncAttrsList records = {File("ab", "1", 1, TRUNC_NONE, 0), File("a", "2", 1, TRUNC_NONE, 0),
                            File("a", "3", 5, TRUNC_NONE, 0), File("A", "4", 1, TRUNC_NONE, 0)};
  truncator cutter(records, summary.get());
  cutter.perform();
  std::vector<std::string> order;
  for (const TruncAttrs& record : cutter.records())
    order.push_back(record.id + ":" + record.path.substr(dir.path().size() + 1));
  // "A" sorts before "a" bytewise; within "a" the larger file comes first.
  EXPECT_EQ(order, (std::vector<std::string>{"A:4", "a:3", "a:2", "ab:1"}));
}

TEST_F(TruncatorTest, EqualIdAndSizeKeepTheirOrder) {
  TruncAttrsList records = {File("x", "first", 4, TRUNC_NONE, 0),
                            File("x", "second", 4, TRUNC_NONE, 0)};
  Perform(records);
  auto listed = Included();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].value, "first");
  EXPECT_EQ(listed[1].value, "second");
}

TEST_F(TruncatorTest, WholeKeepsGreedilyLargestFirst) {
  TruncAttrsList records = {File("w", "small", 20, TRUNC_WHOLE, 100),
                            File("w", "big", 80, TRUNC_WHOLE, 100),
                            File("w", "mid", 30, TRUNC_WHOLE, 100)};
  EXPECT_EQ(Perform(records), 0u);
  auto kept = Included();
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].value, "big");
  EXPECT_EQ(kept[0].description, "desc big; see note *1");
  EXPECT_EQ(kept[1].value, "small");  // 80 + 20 fills the 100 exactly
  auto dropped = NotIncluded();
  ASSERT_EQ(dropped.size(), 1u);
  EXPECT_EQ(dropped[0].id, "w");
  EXPECT_EQ(dropped[0].value, "mid");
  EXPECT_EQ(dropped[0].description, "desc mid");
  EXPECT_EQ(dropped[0].last,
            "See note *1; File/whole truncate type specified; total allowed size for this ID is "
            "100 bytes; this file is 30 bytes");
  EXPECT_FALSE(PathExists(dir.Sub("mid")));
  EXPECT_TRUE(PathExists(dir.Sub("big")));
  EXPECT_TRUE(PathExists(dir.Sub("small")));
  EXPECT_EQ(Notes(*summary), (std::vector<std::string>{truncator::kNoteWhole}));
}

TEST_F(TruncatorTest, WholeWithLimitZeroKeepsAnEmptyFile) {
  TruncAttrsList records = {File("w", "empty", 0, TRUNC_WHOLE, 0)};
  Perform(records);
  EXPECT_EQ(Included().size(), 1u);
  EXPECT_TRUE(PathExists(dir.Sub("empty")));
}

TEST_F(TruncatorTest, MixedSchemesRejectTheOtherAsInternalError) {
  keeltest::LogCapture capture;
  TruncAttrsList records = {File("m", "large", 50, TRUNC_NONE, 0),
                            File("m", "smaller", 10, TRUNC_WHOLE, 100)};
  Perform(records);
  auto kept = Included();
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept[0].value, "large");
  auto dropped = NotIncluded();
  ASSERT_EQ(dropped.size(), 1u);
  EXPECT_EQ(dropped[0].value, "smaller");
  EXPECT_EQ(dropped[0].last, "Internal error");
  EXPECT_FALSE(PathExists(dir.Sub("smaller")));
  EXPECT_TRUE(capture.Contains(
      "Two files corresponding to the same fileID have different requested truncation scheme"));
}

TEST_F(TruncatorTest, DataShrinksInProportion) {
  TruncAttrsList records = {File("d", "three", 300, TRUNC_DATA, 100, TRUNC_END),
                            File("d", "one", 100, TRUNC_DATA, 100, TRUNC_END)};
  EXPECT_EQ(Perform(records), 0u);
  EXPECT_EQ(ReadFile(dir.Sub("three")).size(), 75u);
  EXPECT_EQ(ReadFile(dir.Sub("one")).size(), 25u);
  auto listed = Included();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].description, "desc three; see Note *2");
  EXPECT_EQ(listed[0].last, "300 bytes");  // the size from before the cut
  EXPECT_EQ(Notes(*summary), (std::vector<std::string>{truncator::kNoteData}));
}

TEST_F(TruncatorTest, DataRoundsEveryShareDown) {
  TruncAttrsList records = {File("d", "a", 7, TRUNC_DATA, 10, TRUNC_END),
                            File("d", "b", 7, TRUNC_DATA, 10, TRUNC_END),
                            File("d", "c", 7, TRUNC_DATA, 10, TRUNC_END)};
  Perform(records);
  EXPECT_EQ(ReadFile(dir.Sub("a")), "abc");
  EXPECT_EQ(ReadFile(dir.Sub("b")), "abc");
  EXPECT_EQ(ReadFile(dir.Sub("c")), "abc");
}

TEST_F(TruncatorTest, DataShareIsCutTowardsZeroNotRounded) {
  // Shares of a 10-byte allowance for recorded sizes 1 and 2: 3.33 and 6.67
  // bytes, which leave 3 and 6 bytes of the (larger) files on disk.
  TruncAttrsList records = {File("d", "small", 20, TRUNC_DATA, 10, TRUNC_END),
                            File("d", "large", 20, TRUNC_DATA, 10, TRUNC_END)};
  records.front().size = 1;
  records.back().size = 2;
  EXPECT_EQ(Perform(records), 0u);
  EXPECT_EQ(ReadFile(dir.Sub("small")), "abc");
  EXPECT_EQ(ReadFile(dir.Sub("large")), "abcdef");
}

TEST_F(TruncatorTest, WholeRunningTotalStartsAgainAtEachId) {
  // 80 + 50 would pass one allowance of 100, but each id has its own.
  TruncAttrsList records = {File("a", "a.log", 80, TRUNC_WHOLE, 100),
                            File("b", "b.log", 50, TRUNC_WHOLE, 100)};
  EXPECT_EQ(Perform(records), 0u);
  EXPECT_EQ(IncludedNames(), (std::vector<std::string>{"a.log", "b.log"}));
  EXPECT_TRUE(NotIncluded().empty());
  EXPECT_TRUE(PathExists(dir.Sub("a.log")));
  EXPECT_TRUE(PathExists(dir.Sub("b.log")));
}

TEST_F(TruncatorTest, DataFrontKeepsTheTailAndItsExtraByte) {
  TruncAttrsList records = {File("d", "f", 100, TRUNC_DATA, 10, TRUNC_FRONT)};
  Perform(records);
  const std::string cut = ReadFile(dir.Sub("f"));
  ASSERT_EQ(cut.size(), 11u);
  EXPECT_EQ(static_cast<unsigned char>(cut.back()), 0xFFu);
}

TEST_F(TruncatorTest, DataWithoutDirectionWarnsAndCutsTheEnd) {
  TruncAttrsList records = {File("d", "n.log", 20, TRUNC_DATA, 5, TRUNC_NONE)};
  Perform(records);
  EXPECT_EQ(ReadFile(dir.Sub("n.log")), "abcde");
  EXPECT_EQ(Notes(*summary),
            (std::vector<std::string>{
                "Warning: the file n.log corresponding to ID d has WHOLE or NONE as default "
                "truncation type, however, requested to be DATA-truncated.\n\t KEEL will "
                "truncate end, but there could be possible loss of useful data, or corruption "
                "of the file.",
                truncator::kNoteData}));
}

TEST_F(TruncatorTest, EachNoteOnceAndWholeBeforeData) {
  TruncAttrsList records = {File("d", "d1", 10, TRUNC_DATA, 10, TRUNC_END),
                            File("d", "d2", 10, TRUNC_DATA, 10, TRUNC_END),
                            File("w", "w1", 10, TRUNC_WHOLE, 100),
                            File("w", "w2", 10, TRUNC_WHOLE, 100)};
  Perform(records);
  EXPECT_EQ(Notes(*summary),
            (std::vector<std::string>{truncator::kNoteWhole, truncator::kNoteData}));
}

TEST_F(TruncatorTest, UnknownSchemeDropsTheFile) {
  keeltest::LogCapture capture;
  TruncAttrsList records = {File("u", "odd", 5, TRUNC_END, 0)};
  Perform(records);
  EXPECT_FALSE(PathExists(dir.Sub("odd")));
  auto dropped = NotIncluded();
  ASSERT_EQ(dropped.size(), 1u);
  EXPECT_EQ(dropped[0].last, "Internal error");
  EXPECT_TRUE(capture.Contains("Lost fileID for file: \"" + dir.Sub("odd") + "\""));
  EXPECT_TRUE(Notes(*summary).empty());
}

TEST_F(TruncatorTest, NotesLiteralsHaveTheirExactLengths) {
  EXPECT_EQ(std::string(truncator::kNoteWhole).size(), 200u);
  EXPECT_EQ(std::string(truncator::kNoteData).size(), 262u);
}

TEST_F(TruncatorTest, GoodFileNeedsASummaryWithItsSection) {
  keeltest::LogCapture capture;
  TruncAttrs record = File("g", "g", 1, TRUNC_NONE, 0);
  truncator noSummary({}, nullptr);
  EXPECT_EQ(noSummary.fillSummaryGoodFile(record), KEELENGINE_ERROR_NOT_INITIALIZED);
  EXPECT_TRUE(capture.Contains("m_pXMLSummary is uninitialized"));
  XMLObject empty;
  truncator noRoot({}, &empty);
  EXPECT_EQ(noRoot.fillSummaryGoodFile(record), KEELENGINE_ERROR_NULL_XML_ROOT);
  EXPECT_TRUE(capture.Contains("pDCSummaryRoot is NULL"));
  XMLObject bare("summary", "");
  truncator noSection({}, &bare);
  EXPECT_EQ(noSection.fillSummaryGoodFile(record), KEELENGINE_ERROR_NULL_XML_CHILD);
  EXPECT_TRUE(capture.Contains("pDCGoodFiles is NULL"));
}

}  // namespace
