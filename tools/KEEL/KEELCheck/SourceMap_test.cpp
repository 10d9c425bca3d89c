#include "tools/KEEL/KEELCheck/SourceMap.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace keelcheck {
namespace {

class SourceMapRead : public ::testing::Test {
 protected:
  bool Read(const std::string& text) {
    keeltest::WriteFile(m_dir.Sub("a.xml"), text);
    return m_map.Read(m_dir.Sub("a.xml"));
  }
  keeltest::TempDir m_dir;
  SourceMap m_map;
};

TEST_F(SourceMapRead, PlacesEveryElementAtItsOpeningBracket) {
  ASSERT_TRUE(
      Read("<?xml version=\"1.0\"?>\n<cfg>\n  <a x=\"1\"\n     y=\"2\"><b/></a>\n"
           "\t<c>t</c></cfg>\n"));
  const std::vector<SourceMap::Element>& elements = m_map.elements();
  ASSERT_EQ(elements.size(), 4u);
  EXPECT_EQ(elements[0].name, "cfg");
  EXPECT_EQ(elements[0].line, 2);
  EXPECT_EQ(elements[0].column, 1);
  EXPECT_EQ(elements[1].name, "a");  // a start tag over two lines
  EXPECT_EQ(elements[1].line, 3);
  EXPECT_EQ(elements[1].column, 3);
  EXPECT_EQ(elements[2].name, "b");
  EXPECT_EQ(elements[2].line, 4);
  EXPECT_EQ(elements[2].column, 12);
  EXPECT_EQ(elements[3].line, 5);
  EXPECT_EQ(elements[3].column, 2);
}

TEST_F(SourceMapRead, KeepsTheSubtreesInPreOrder) {
  ASSERT_TRUE(Read("<r><a><b/><c/></a><d/></r>"));
  const std::vector<SourceMap::Element>& elements = m_map.elements();
  ASSERT_EQ(elements.size(), 5u);
  EXPECT_EQ(elements[0].end, 5u);
  EXPECT_EQ(elements[1].end, 4u);  // a holds b and c
  EXPECT_EQ(elements[2].end, 3u);
  EXPECT_EQ(elements[4].parent, 0u);
  EXPECT_EQ(elements[3].parent, 1u);
}

TEST_F(SourceMapRead, TextKeepsTheBlanksBesideReferences) {
  ASSERT_TRUE(Read("<r><a> x &apos;y&apos; &#65; <![CDATA[ z ]]> </a></r>"));
  EXPECT_EQ(m_map.elements()[1].text, " x 'y' A  z  ");
}

TEST_F(SourceMapRead, NotWellFormedGivesLibxml2sFirstReport) {
  EXPECT_FALSE(Read("<r>\n<a>\n</r>\n"));
  EXPECT_EQ(m_map.error().line, 3);
  EXPECT_EQ(m_map.error().message, "Opening and ending tag mismatch: a line 0 and r");
}

TEST_F(SourceMapRead, MessageOfSeveralLinesBecomesOne) {
  EXPECT_FALSE(Read("<?xml version=\"1.0\"?>\n<r>\xbe</r>\n"));
  EXPECT_EQ(m_map.error().line, 2);
  EXPECT_EQ(m_map.error().message,
            "Input is not proper UTF-8, indicate encoding ! Bytes: 0xBE 0x3C 0x2F 0x72");
}

TEST_F(SourceMapRead, EmptyFileAndFolderCannotBeRead) {
  EXPECT_FALSE(Read(""));
  EXPECT_EQ(m_map.error().message, "Document is empty");
  EXPECT_FALSE(m_map.Read(m_dir.path()));
  EXPECT_EQ(m_map.error().message, "is a folder, not a file");
  EXPECT_FALSE(m_map.Read(m_dir.Sub("missing.xml")));
  EXPECT_EQ(m_map.error().message, "cannot read the file: No such file or directory");
}

}  // namespace
}  // namespace keelcheck
