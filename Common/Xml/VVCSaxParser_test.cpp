#include "Common/Xml/VVCSaxParser.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Common/Xml/xml_testsupport.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"

namespace {

using xmltest::RecordingXmlMgr;

using ::testing::ElementsAre;

// Counts events without keeping their text, for big documents.
class CountingXmlMgr : public XmlMgr {
 public:
  void startElement(const std::string&) override { ++starts; }
  void endElement(const std::string&) override { ++ends; }
  void elementValue(const std::string& text) override { textBytes += text.size(); }
  size_t starts = 0;
  size_t ends = 0;
  size_t textBytes = 0;
};

ResultCode ParseText(XmlMgr* manager, const std::string& text) {
  VVCSaxParser parser(manager);
  return parser.startParser(text, VVCSaxParser::kSourceText);
}

ResultCode ParseFile(XmlMgr* manager, const std::string& path) {
  VVCSaxParser parser(manager);
  return parser.startParser(path, VVCSaxParser::kSourceFile);
}

const char kUtf8Bom[] = "\xEF\xBB\xBF";

}  // namespace

TEST(VVCSaxParser, DeliversEventsInDocumentOrder) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<a x=\"1\" y=\"2\"><b>t</b><c/></a>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "attr:x=1", "attr:y=2", "start:b", "value:[t]",
                                          "end:b", "start:c", "end:c", "end:a"));
}

TEST(VVCSaxParser, ParsesAFile) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(
      dir.Sub("doc.xml"), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r k=\"v\">x</r>\n"));
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseFile(&manager, dir.Sub("doc.xml")), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:r", "attr:k=v", "value:[x]", "end:r"));
}

TEST(VVCSaxParser, EmptySourceFailsWithoutALogLine) {
  RecordingXmlMgr manager;
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseText(&manager, ""), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(ParseFile(&manager, ""), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.logger().Records().empty());
  EXPECT_TRUE(manager.events.empty());
}

TEST(VVCSaxParser, TextOfBlanksOnlyFailsWithoutALogLine) {
  RecordingXmlMgr manager;
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseText(&manager, " \n\r\t \t"), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(VVCSaxParser, UnknownKindFailsWithoutALogLine) {
  RecordingXmlMgr manager;
  VVCSaxParser parser(&manager);
  keeltest::LogCapture capture;
  EXPECT_EQ(parser.startParser("<a/>", 2), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(parser.startParser("<a/>", -1), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.logger().Records().empty());
  EXPECT_TRUE(manager.events.empty());
}

TEST(VVCSaxParser, LeadingBlanksAheadOfTheDeclarationAreSkippedInText) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, " \r\n\t <?xml version=\"1.0\"?><a/>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "end:a"));
}

TEST(VVCSaxParser, OtherLeadingSpaceGoesToLibxml) {
  // A vertical tab or form feed is not skipped, and libxml2 refuses it.
  RecordingXmlMgr manager;
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseText(&manager, "\v<a/>"), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(ParseText(&manager, "\f<a/>"), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(manager.events.empty());
  EXPECT_GE(capture.Count("xml errorCB: "), 2u);
}

TEST(VVCSaxParser, FileIsNotStrippedOfLeadingBlanks) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("blanks.xml"), "  \n<?xml version=\"1.0\"?><a/>"));
  RecordingXmlMgr manager;
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseFile(&manager, dir.Sub("blanks.xml")), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.Contains("xml errorCB: "));
}

TEST(VVCSaxParser, ByteOrderMarkIsLeftToLibxml) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, std::string(kUtf8Bom) + "<?xml version=\"1.0\"?><a>x</a>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "value:[x]", "end:a"));

  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("bom.xml"), std::string(kUtf8Bom) + "<b/>"));
  RecordingXmlMgr fromFile;
  EXPECT_EQ(ParseFile(&fromFile, dir.Sub("bom.xml")), 0u);
  EXPECT_THAT(fromFile.events, ElementsAre("start:b", "end:b"));
}

TEST(VVCSaxParser, BlanksAheadOfAByteOrderMarkAreSkippedButTheMarkIsNot) {
  // Blanks go, and the mark is then at the start where libxml2 accepts it.
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, std::string("\n ") + kUtf8Bom + "<a/>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "end:a"));
  // A mark ahead of the blanks keeps them, and they stand before the
  // declaration where none may.
  RecordingXmlMgr second;
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseText(&second, std::string(kUtf8Bom) + "\n <?xml version=\"1.0\"?><a/>"),
            GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.Contains("xml errorCB: "));
}

TEST(VVCSaxParser, AttributeNamesAndValuesAreTrimmed) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<e v=\"  a \" w=\"   \" z=\"\tin  side\n\"/>"), 0u);
  EXPECT_THAT(manager.events,
              ElementsAre("start:e", "attr:v=a", "attr:w=", "attr:z=in  side", "end:e"));
}

TEST(VVCSaxParser, ElementWithoutTextGetsNoValue) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<a></a>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "end:a"));
}

TEST(VVCSaxParser, WhiteSpaceOnlyTextArrivesAsAnEmptyValue) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<a> \n\t </a>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "value:[]", "end:a"));
}

TEST(VVCSaxParser, TextIsTrimmedPerChunk) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<a>\n  some text \n</a>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "value:[some text]", "end:a"));
}

TEST(VVCSaxParser, EntitySplitsTextIntoChunks) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<a>a &amp; b</a>"), 0u);
  EXPECT_THAT(manager.events,
              ElementsAre("start:a", "value:[a]", "value:[&]", "value:[b]", "end:a"));
}

TEST(VVCSaxParser, CdataArrivesAsTrimmedCharacters) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<a><![CDATA[  x < y & z  ]]></a>"), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "value:[x < y & z]", "end:a"));
}

TEST(VVCSaxParser, CommentsAndProcessingInstructionsAreIgnored) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager,
                      "<?xml version=\"1.0\"?><!-- head --><a><!-- c -->t<?pi x?></a>"
                      "<?tail?>"),
            0u);
  EXPECT_THAT(manager.events, ElementsAre("start:a", "value:[t]", "end:a"));
}

TEST(VVCSaxParser, ChildrenBetweenWhiteSpaceGiveEmptyValues) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<a>\n  <b/>\n</a>"), 0u);
  EXPECT_THAT(manager.events,
              ElementsAre("start:a", "value:[]", "start:b", "end:b", "value:[]", "end:a"));
}

TEST(VVCSaxParser, MalformedDocumentFailsAfterDeliveringWhatCameFirst) {
  RecordingXmlMgr manager;
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseText(&manager, "<a><b>x</a>"), GLOBAL_ERROR_UNEXPECTED);
  ASSERT_GE(manager.events.size(), 3u);
  EXPECT_EQ(manager.events[0], "start:a");
  EXPECT_EQ(manager.events[1], "start:b");
  EXPECT_EQ(manager.events[2], "value:[x]");
  EXPECT_TRUE(capture.Contains("Function: errorCB"));
  EXPECT_TRUE(capture.Contains("xml errorCB: "));
  EXPECT_TRUE(capture.Contains("Opening and ending tag mismatch"));
  EXPECT_EQ(capture.Count("Invoked Function: xmlParseDocument"), 1u);
  EXPECT_TRUE(capture.Contains("Return Code: -1 (0xFFFFFFFF)"));
  EXPECT_TRUE(capture.Contains("Function: startParser"));
}

TEST(VVCSaxParser, FailureOnTheLastLineHasDeliveredAlmostEverything) {
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, "<r>\n<a>1</a>\n<b k=\"v\">2</b>\n<c>3</c>\n"),
            GLOBAL_ERROR_UNEXPECTED);
  EXPECT_THAT(manager.events, ElementsAre("start:r", "value:[]", "start:a", "value:[1]", "end:a",
                                          "value:[]", "start:b", "attr:k=v", "value:[2]", "end:b",
                                          "value:[]", "start:c", "value:[3]", "end:c", "value:[]"));
}

TEST(VVCSaxParser, GarbageFails) {
  const std::vector<std::string> inputs = {"not xml",
                                           "<",
                                           "<a",
                                           "</a>",
                                           "<a></b>",
                                           "<a/><b/>",
                                           "<a x='1' x='2'/>",
                                           "&amp;",
                                           std::string("<a>x\0y</a>", 10),
                                           "<a>\xff\xfe</a>",
                                           "<!DOCTYPE a [<!ENTITY e SYSTEM "
                                           "\"/etc/passwd\">]><a>&e;</a>"};
  for (const auto& input : inputs) {
    RecordingXmlMgr manager;
    EXPECT_EQ(ParseText(&manager, input), GLOBAL_ERROR_UNEXPECTED) << input;
  }
}

TEST(VVCSaxParser, ExternalEntitiesAreNotLoaded) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("secret.txt"), "SECRET"));
  RecordingXmlMgr manager;
  ParseText(&manager,
            "<!DOCTYPE a [<!ENTITY e SYSTEM \"" + dir.Sub("secret.txt") + "\">]><a>&e;</a>");
  for (const auto& event : manager.events) {
    EXPECT_EQ(event.find("SECRET"), std::string::npos) << event;
  }
}

TEST(VVCSaxParser, DeepNestingFailsWithoutCrashing) {
  std::string text;
  const int depth = 10000;
  for (int i = 0; i < depth; ++i) {
    text += "<d>";
  }
  for (int i = 0; i < depth; ++i) {
    text += "</d>";
  }
  CountingXmlMgr manager;
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseText(&manager, text), GLOBAL_ERROR_UNEXPECTED);
  // libxml2 stops at its depth limit, well before the bottom.
  EXPECT_GT(manager.starts, 0u);
  EXPECT_LT(manager.starts, static_cast<size_t>(depth));
  EXPECT_TRUE(capture.Contains("xml errorCB: "));
}

TEST(VVCSaxParser, TenMegabyteDocumentParses) {
  std::string text = "<root>";
  const std::string item = "<item name=\"n\">0123456789abcdef0123456789abcdef</item>\n";
  while (text.size() < 10u * 1024u * 1024u) {
    text += item;
  }
  const size_t items = (text.size() - 6) / item.size();
  text += "<big>" + std::string(1024 * 1024, 'x') + "</big></root>";
  CountingXmlMgr manager;
  EXPECT_EQ(ParseText(&manager, text), 0u);
  EXPECT_EQ(manager.starts, items + 2);
  EXPECT_EQ(manager.ends, items + 2);
  EXPECT_EQ(manager.textBytes, items * 32 + 1024 * 1024);
}

TEST(VVCSaxParser, MissingFileIsLoggedAsNoContext) {
  keeltest::TempDir dir;
  RecordingXmlMgr manager;
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseFile(&manager, dir.Sub("missing.xml")), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(capture.Count("Invoked Function: xmlCreateFileParserCtxt"), 1u);
  EXPECT_TRUE(capture.Contains("(0xFE000005)"));
  EXPECT_TRUE(capture.Contains("Function: startParser"));
  EXPECT_TRUE(capture.Contains("File: Common/Xml/VVCSaxParser.cpp"));
}

TEST(VVCSaxParser, FolderInPlaceOfAFileFails) {
  keeltest::TempDir dir;
  ASSERT_EQ(mkdir(dir.Sub("x.xml").c_str(), 0755), 0);
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseFile(&manager, dir.Sub("x.xml")), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(manager.events.empty());
}

TEST(VVCSaxParser, EmptyFileFails) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("empty.xml"), ""));
  RecordingXmlMgr manager;
  EXPECT_EQ(ParseFile(&manager, dir.Sub("empty.xml")), GLOBAL_ERROR_UNEXPECTED);
}

TEST(VVCSaxParser, UnreadableFileFails) {
  keeltest::TempDir dir;
  const std::string path = dir.Sub("locked.xml");
  ASSERT_TRUE(keeltest::WriteFile(path, "<a/>"));
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  const int answer = keeltest::RunAsNobody([&] {
    RecordingXmlMgr manager;
    const ResultCode result = ParseFile(&manager, path);
    return result == GLOBAL_ERROR_UNEXPECTED && manager.events.empty() ? 0 : 1;
  });
  if (answer == keeltest::kCannotBecomeNobody)
    GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_EQ(answer, 0);
}

TEST(VVCSaxParser, NullManagerDropsEveryEventWithALogLine) {
  keeltest::LogCapture capture;
  EXPECT_EQ(ParseText(nullptr, "<a k=\"v\">t</a>"), 0u);
  // start, text, end: attributes are never reached without a manager.
  EXPECT_EQ(capture.Count("No XML Manager provided."), 3u);
  EXPECT_TRUE(capture.Contains("Function: startElementCB"));
  EXPECT_TRUE(capture.Contains("Function: elementValueCB"));
  EXPECT_TRUE(capture.Contains("Function: endElementCB"));
}

TEST(VVCSaxParser, SourceIsLeftUnchanged) {
  RecordingXmlMgr manager;
  const std::string source = "  <a>secret</a>";
  const std::string before = source;
  EXPECT_EQ(ParseText(&manager, source), 0u);
  EXPECT_EQ(source, before);
}

TEST(VVCSaxParser, ParserCanRunAgain) {
  RecordingXmlMgr manager;
  VVCSaxParser parser(&manager);
  EXPECT_EQ(parser.startParser("<a/>", VVCSaxParser::kSourceText), 0u);
  EXPECT_EQ(parser.startParser("<a", VVCSaxParser::kSourceText), GLOBAL_ERROR_UNEXPECTED);
  manager.events.clear();
  EXPECT_EQ(parser.startParser("<b/>", VVCSaxParser::kSourceText), 0u);
  EXPECT_THAT(manager.events, ElementsAre("start:b", "end:b"));
}
