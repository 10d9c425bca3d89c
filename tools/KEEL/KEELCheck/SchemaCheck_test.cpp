#include "tools/KEEL/KEELCheck/SchemaCheck.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELCheck/SourceMap.h"

namespace keelcheck {
namespace {

TEST(InstructionSchema, BuiltInTextIsTheGrammarOfTheTree) {
  EXPECT_EQ(InstructionSchemaText(),
            keeltest::ReadFile(keeltest::SourceDir() + "/xml/schema/keel-instructions.rng"));
}

class SchemaValidation : public ::testing::Test {
 protected:
  std::vector<SchemaFailure> Validate(const std::string& text) {
    keeltest::WriteFile(m_dir.Sub("a.xml"), text);
    EXPECT_TRUE(m_map.Read(m_dir.Sub("a.xml")));
    bool compiled = false;
    std::vector<SchemaFailure> failures = ValidateAgainstSchema(m_map, compiled);
    EXPECT_TRUE(compiled);
    return failures;
  }
  keeltest::TempDir m_dir;
  SourceMap m_map;
};

const char kGood[] =
    "<cfg><configure><title>T</title></configure>\n"
    "<fileGroup treeRootName=\"T\"><title>T</title>\n"
    "<file id=\"a\"><name>n</name><description>d</description><default>true</default>\n"
    "<keel><os opsys=\"win\"><use_extern_action><action><regis>x</regis><args>tool</args>"
    "</action></use_extern_action></os>\n"
    "<os opsys=\"linux\"><file_copy_action><action><loc gather_newest=\"true\">/a/*.log</loc>"
    "<clear_log apply=\"false\"/><truncate_type>x</truncate_type></action></file_copy_action>\n"
    "<directory_copy_action><action><loc>/b</loc><pattern>*</pattern></action>"
    "</directory_copy_action>\n"
    "<use_extern_action><action><path>/usr/bin</path><args>timeout -k 5 9 ls</args>"
    "<temp_out>ls.txt</temp_out><stdout/></action></use_extern_action></os></keel></file>\n"
    "</fileGroup></cfg>\n";

TEST_F(SchemaValidation, TheWholeVocabularyValidates) {
  EXPECT_TRUE(Validate(kGood).empty());
}

TEST_F(SchemaValidation, FailuresPointAtTheInnermostElement) {
  std::string text = kGood;
  text.replace(text.find("<pattern>*</pattern>"), 20, "");
  const std::vector<SchemaFailure> failures = Validate(text);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(m_map.elements()[static_cast<size_t>(failures[0].element)].name, "action");
  EXPECT_EQ(failures[0].line, 6);
  EXPECT_EQ(failures[0].message, "Expecting an element pattern, got nothing");
}

TEST_F(SchemaValidation, WhatTheGrammarRefuses) {
  struct Case {
    std::string from;
    std::string to;
    std::string element;
  };
  const std::vector<Case> cases = {
      {"<default>true</default>", "<default>yes</default>", "default"},
      {"<default>true</default>", "<defualt>true</defualt>", "defualt"},
      {"gather_newest=\"true\"", "gather_newest=\"TRUE\"", "loc"},
      {"<temp_out>ls.txt</temp_out>", "<temp_out>/tmp/ls.txt</temp_out>", "temp_out"},
      {"timeout -k 5 9 ls", "ls", "args"},
      {"<loc>/b</loc>", "<loc> </loc>", "loc"},
      {"<os opsys=\"linux\">", "<os opsys=\"Linux\">", "os"},
  };
  for (const Case& change : cases) {
    SCOPED_TRACE(change.to);
    // Without the block for another system, whose alternatives would make
    // libxml2 report its last attempt there.
    std::string text = kGood;
    const size_t win = text.find("<os opsys=\"win\">");
    text.erase(win, text.find("</os>", win) + 5 - win);
    text.replace(text.find(change.from), change.from.size(), change.to);
    const std::vector<SchemaFailure> failures = Validate(text);
    ASSERT_FALSE(failures.empty());
    // The changed element fails, or lies inside or around one that does.
    bool found = false;
    for (const SchemaFailure& failure : failures) {
      if (failure.element < 0)
        continue;
      const size_t first = static_cast<size_t>(failure.element);
      for (size_t i = first; i < m_map.elements()[first].end; ++i)
        found = found || m_map.elements()[i].name == change.element;
      for (size_t i = first; i != m_map.elements()[i].parent; i = m_map.elements()[i].parent)
        found = found || m_map.elements()[m_map.elements()[i].parent].name == change.element;
    }
    EXPECT_TRUE(found) << failures[0].message;
  }
}

}  // namespace
}  // namespace keelcheck
