#include "Common/Xml/XmlParser.h"

#include <string>
#include <vector>

#include "Common/Xml/VVCSaxParser.h"
#include "Common/Xml/xml_testsupport.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"

namespace {

using ::testing::ElementsAre;

using xmltest::RecordingXmlMgr;

}  // namespace

TEST(XmlParser, NullManagerIsRefusedWithALogLine) {
  XmlParser parser(nullptr);
  keeltest::LogCapture capture;
  EXPECT_EQ(parser.parseMemory("<a/>"), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(parser.parseFile("/nonexistent.xml"), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(capture.Count("XML Manager not provided"), 2u);
  EXPECT_TRUE(capture.Contains("Function: invokeParser"));
  EXPECT_TRUE(capture.Contains("File: Common/Xml/XmlParser.cpp"));
  // Refused before any parse: nothing from the parser layer.
  EXPECT_FALSE(capture.Contains("xmlCreateFileParserCtxt"));
  for (const auto& record : capture.logger().Records()) {
    EXPECT_EQ(record.level, LOG_LEVEL_E);
  }
}

TEST(XmlParser, ParseMemoryReadsText) {
  RecordingXmlMgr manager;
  XmlParser parser(&manager);
  EXPECT_EQ(parser.parseMemory("\n  <p a=\" 1 \">v</p>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:p", "attr:a=1", "value:[v]", "end:p"));
}

TEST(XmlParser, ParseFileReadsAFile) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("p.xml"), "<p><q/></p>"));
  RecordingXmlMgr manager;
  XmlParser parser(&manager);
  EXPECT_EQ(parser.parseFile(dir.Sub("p.xml")), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:p", "start:q", "end:q", "end:p"));
  // The path is not taken for text, nor the text for a path.
  RecordingXmlMgr other;
  XmlParser second(&other);
  EXPECT_EQ(second.parseMemory(dir.Sub("p.xml")), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(second.parseFile("<p/>"), GLOBAL_ERROR_UNEXPECTED);
}

TEST(XmlParser, FlagHasNoEffect) {
  RecordingXmlMgr withFlag;
  RecordingXmlMgr without;
  EXPECT_EQ(XmlParser(&withFlag).parseMemory("<a>x</a>", true), 0u);
  EXPECT_EQ(XmlParser(&without).parseMemory("<a>x</a>", false), 0u);
  EXPECT_EQ(withFlag.events, without.events);
  EXPECT_EQ(XmlParser(&withFlag).parseMemory("<a>", true), GLOBAL_ERROR_UNEXPECTED);
}

TEST(XmlParser, InvokeParserPassesTheKindOn) {
  RecordingXmlMgr manager;
  XmlParser parser(&manager);
  keeltest::LogCapture capture;
  EXPECT_EQ(parser.invokeParser("<a/>", false, VVCSaxParser::kSourceText), 0u);
  EXPECT_EQ(parser.invokeParser("<a/>", false, 7), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(parser.invokeParser("", false, VVCSaxParser::kSourceText), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.logger().Records().empty());
  EXPECT_THAT(manager.events, ElementsAre("start:a", "end:a"));
}

TEST(XmlParser, MalformedTextIsReportedAsUnexpected) {
  RecordingXmlMgr manager;
  XmlParser parser(&manager);
  keeltest::LogCapture capture;
  EXPECT_EQ(parser.parseMemory("<a><b></a>"), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.Contains("Invoked Function: xmlParseDocument"));
  EXPECT_THAT(manager.events, ElementsAre("start:a", "start:b"));
}
