#include "Common/Xml/VVCSaxWriter.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using keeltest::LogCapture;
using keeltest::TempDir;

const std::string kHeader = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

// Whether xmllint accepts the file as well formed.
bool WellFormed(const std::string& path) {
  return keeltest::Run({"xmllint", "--noout", path}).status == 0;
}

// The text content of the root element as xmllint reads it back.
std::string RootText(const std::string& path) {
  std::string text = keeltest::Run({"xmllint", "--xpath", "string(/*)", path}).out;
  if (!text.empty() && text.back() == '\n')
    text.pop_back();  // xmllint ends its answer with a line feed
  return text;
}

// Writes the writer's text to `name` in `dir` and returns the path.
std::string Save(const TempDir& dir, const std::string& name, const VVCSaxWriter& writer) {
  const std::string path = dir.Sub(name);
  EXPECT_TRUE(keeltest::WriteFile(path, writer.getText()));
  return path;
}

TEST(VVCSaxWriter, EmptyDocumentIsHeaderAndRootOpenClose) {
  TempDir dir;
  VVCSaxWriter writer(dir.path() + "/", "out.xml", "TidewalkerLocalPolicy");
  EXPECT_EQ(writer.startDocument(nullptr), 0u);
  EXPECT_EQ(writer.endDocument(), 0u);
  EXPECT_EQ(writer.getText(), kHeader + "<TidewalkerLocalPolicy></TidewalkerLocalPolicy>");
  EXPECT_TRUE(WellFormed(Save(dir, "a.xml", writer)));
}

TEST(VVCSaxWriter, NoIndentationNoLineBreaks) {
  TempDir dir;
  VVCSaxWriter writer(dir.path() + "/", "out.xml", "root");
  SaxAttributeList rootAttributes = {{"twversion", "5.1.9.113"}};
  writer.startDocument(&rootAttributes);
  writer.startElement("UpdatePolicy", nullptr);
  writer.startElement("AllowHelpUpdatesFromAnyServer", nullptr);
  writer.characters("true");
  writer.endElement("AllowHelpUpdatesFromAnyServer");
  writer.endElement("UpdatePolicy");
  writer.endDocument();
  EXPECT_EQ(writer.getText(), kHeader +
                                  "<root twversion=\"5.1.9.113\"><UpdatePolicy>"
                                  "<AllowHelpUpdatesFromAnyServer>true"
                                  "</AllowHelpUpdatesFromAnyServer></UpdatePolicy></root>");
  EXPECT_TRUE(WellFormed(Save(dir, "a.xml", writer)));
}

TEST(VVCSaxWriter, AttributesKeepListOrderAndNullEqualsEmpty) {
  VVCSaxWriter first("/unused/", "x.xml", "r");
  VVCSaxWriter second("/unused/", "x.xml", "r");
  SaxAttributeList empty;
  first.startElement("e", nullptr);
  second.startElement("e", &empty);
  EXPECT_EQ(first.getText(), "<e>");
  EXPECT_EQ(second.getText(), "<e>");

  VVCSaxWriter writer("/unused/", "x.xml", "r");
  SaxAttributeList attributes = {{"z", "1"}, {"a", "2"}, {"m", ""}};
  writer.startElement("e", &attributes);
  EXPECT_EQ(writer.getText(), "<e z=\"1\" a=\"2\" m=\"\">");
}

TEST(VVCSaxWriter, AttributeValuesAreWrittenRawAndCanBreakTheDocument) {
  TempDir dir;
  VVCSaxWriter quote(dir.path() + "/", "q.xml", "r");
  SaxAttributeList quoted = {{"name", "say \"hi\""}};
  quote.startDocument(&quoted);
  quote.endDocument();
  EXPECT_EQ(quote.getText(), kHeader + "<r name=\"say \"hi\"\"></r>");
  EXPECT_FALSE(WellFormed(Save(dir, "q.xml", quote)));

  VVCSaxWriter amp(dir.path() + "/", "a.xml", "r");
  SaxAttributeList ampersand = {{"name", "a & b"}};
  amp.startDocument(&ampersand);
  amp.endDocument();
  EXPECT_EQ(amp.getText(), kHeader + "<r name=\"a & b\"></r>");
  EXPECT_FALSE(WellFormed(Save(dir, "a.xml", amp)));
}

TEST(VVCSaxWriter, TextWithoutAmpersandOrLessThanGetsNoCData) {
  TempDir dir;
  VVCSaxWriter writer(dir.path() + "/", "x.xml", "r");
  writer.startDocument(nullptr);
  writer.characters("a > b ]] c");
  writer.endDocument();
  EXPECT_EQ(writer.getText(), kHeader + "<r>a > b ]] c</r>");
  const std::string path = Save(dir, "x.xml", writer);
  EXPECT_TRUE(WellFormed(path));
  EXPECT_EQ(RootText(path), "a > b ]] c");
}

TEST(VVCSaxWriter, AmpersandOrLessThanGoesIntoOneCDataSection) {
  TempDir dir;
  VVCSaxWriter writer(dir.path() + "/", "x.xml", "r");
  writer.startDocument(nullptr);
  writer.characters("a & b < c");
  writer.endDocument();
  EXPECT_EQ(writer.getText(), kHeader + "<r><![CDATA[a & b < c]]></r>");
  const std::string path = Save(dir, "x.xml", writer);
  EXPECT_TRUE(WellFormed(path));
  EXPECT_EQ(RootText(path), "a & b < c");
}

TEST(VVCSaxWriter, CDataTerminatorInTextSplitsIntoTwoSections) {
  TempDir dir;
  VVCSaxWriter writer(dir.path() + "/", "x.xml", "r");
  writer.startDocument(nullptr);
  writer.characters("x<y]]>z");
  writer.endDocument();
  EXPECT_EQ(writer.getText(), kHeader + "<r><![CDATA[x<y]]]]><![CDATA[>z]]></r>");
  const std::string path = Save(dir, "x.xml", writer);
  EXPECT_TRUE(WellFormed(path));
  EXPECT_EQ(RootText(path), "x<y]]>z");
}

TEST(VVCSaxWriter, RepeatedTerminatorsEachStartANewSection) {
  TempDir dir;
  VVCSaxWriter writer(dir.path() + "/", "x.xml", "r");
  writer.startDocument(nullptr);
  writer.characters("&]]>]]>");
  writer.endDocument();
  EXPECT_EQ(writer.getText(), kHeader + "<r><![CDATA[&]]]]><![CDATA[>]]]]><![CDATA[>]]></r>");
  const std::string path = Save(dir, "x.xml", writer);
  EXPECT_TRUE(WellFormed(path));
  EXPECT_EQ(RootText(path), "&]]>]]>");
}

TEST(VVCSaxWriter, TerminatorWithoutAmpersandOrLessThanStaysRaw) {
  // Only "&" and "<" call for CDATA, so a lone "]]>" is written as it is,
  // which XML does not allow in text.
  TempDir dir;
  VVCSaxWriter writer(dir.path() + "/", "x.xml", "r");
  writer.startDocument(nullptr);
  writer.characters("a]]>b");
  writer.endDocument();
  EXPECT_EQ(writer.getText(), kHeader + "<r>a]]>b</r>");
  EXPECT_FALSE(WellFormed(Save(dir, "x.xml", writer)));
}

TEST(VVCSaxWriter, EmptyTextAddsNothing) {
  VVCSaxWriter writer("/unused/", "x.xml", "r");
  writer.characters("");
  EXPECT_EQ(writer.getText(), "");
}

TEST(VVCSaxWriter, StartDocumentStartsOver) {
  VVCSaxWriter writer("/unused/", "x.xml", "r");
  writer.startDocument(nullptr);
  writer.characters("old");
  writer.endDocument();
  writer.startDocument(nullptr);
  writer.endDocument();
  EXPECT_EQ(writer.getText(), kHeader + "<r></r>");
}

TEST(VVCSaxWriter, GrowthLeavesTwoHundredFiftySixBytesToSpare) {
  VVCSaxWriter writer("/unused/", "x.xml", "r");
  const std::string chunk(1000, 'a');
  writer.characters(chunk);
  EXPECT_EQ(writer.getText().size(), 1000u);
  EXPECT_GE(writer.getText().capacity(), 1000u + VVCSaxWriter::kGrowthSlack);
  // Appends that fit into the slack keep the buffer.
  const char* before = writer.getText().data();
  writer.characters(std::string(VVCSaxWriter::kGrowthSlack, 'b'));
  EXPECT_EQ(writer.getText().data(), before);
  EXPECT_EQ(writer.getText().size(), 1000u + VVCSaxWriter::kGrowthSlack);
  // A bigger one moves to a new buffer, again with slack, content intact.
  const size_t capacity = writer.getText().capacity();
  writer.characters(std::string(capacity, 'c'));
  const std::string& text = writer.getText();
  EXPECT_EQ(text.size(), 1000u + VVCSaxWriter::kGrowthSlack + capacity);
  EXPECT_GE(text.capacity(), text.size() + VVCSaxWriter::kGrowthSlack);
  EXPECT_EQ(text.substr(0, 1000), chunk);
  EXPECT_EQ(text.substr(1000, VVCSaxWriter::kGrowthSlack),
            std::string(VVCSaxWriter::kGrowthSlack, 'b'));
  EXPECT_EQ(text.back(), 'c');
}

TEST(VVCSaxWriter, LargeDocumentStaysWellFormed) {
  TempDir dir;
  VVCSaxWriter writer(dir.path() + "/", "big.xml", "r");
  writer.startDocument(nullptr);
  for (int i = 0; i < 2000; ++i) {
    writer.startElement("ServerName", nullptr);
    writer.characters(i % 2 ? "host.example" : "a&b]]>c");
    writer.endElement("ServerName");
  }
  writer.endDocument();
  ASSERT_EQ(writer.writeDocument(), 0u);
  EXPECT_TRUE(WellFormed(dir.Sub("big.xml")));
}

TEST(VVCSaxWriterFile, WriteDocumentMakesTheFolderAndWritesTheText) {
  TempDir dir;
  const std::string folder = dir.Sub("a/b/c/");
  VVCSaxWriter writer(folder, "TidewalkerLocalPolicy.xml", "TidewalkerLocalPolicy");
  writer.startDocument(nullptr);
  writer.endDocument();
  ASSERT_EQ(writer.writeDocument(), 0u);
  const std::string path = folder + "TidewalkerLocalPolicy.xml";
  EXPECT_EQ(keeltest::ReadFile(path), writer.getText());
  EXPECT_TRUE(WellFormed(path));
}

TEST(VVCSaxWriterFile, WriteDocumentReplacesAnExistingFile) {
  TempDir dir;
  const std::string path = dir.Sub("out.xml");
  ASSERT_TRUE(keeltest::WriteFile(path, std::string(5000, 'x')));
  VVCSaxWriter writer(dir.path() + "/", "out.xml", "r");
  writer.startDocument(nullptr);
  writer.endDocument();
  ASSERT_EQ(writer.writeDocument(), 0u);
  EXPECT_EQ(keeltest::ReadFile(path), kHeader + "<r></r>");
}

TEST(VVCSaxWriterFile, FolderAndFileNameAreJoinedWithoutSeparator) {
  TempDir dir;
  VVCSaxWriter writer(dir.Sub("prefix"), "-name.xml", "r");
  writer.startDocument(nullptr);
  writer.endDocument();
  ASSERT_EQ(writer.writeDocument(), 0u);
  EXPECT_EQ(keeltest::ReadFile(dir.Sub("prefix-name.xml")), kHeader + "<r></r>");
  // The folder itself was made too.
  EXPECT_TRUE(keeltest::PathExists(dir.Sub("prefix")));
}

TEST(VVCSaxWriterFile, FolderThatCannotBeMadeIsReported) {
  TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("plain"), "a file"));
  VVCSaxWriter writer(dir.Sub("plain/sub/"), "out.xml", "r");
  writer.startDocument(nullptr);
  writer.endDocument();
  LogCapture capture;
  EXPECT_EQ(writer.writeDocument(), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.Contains("Invoked Function: VVCSaxWriter::writeDocument\n"));
  EXPECT_TRUE(capture.Contains("Description: Error creating needed directory\n"));
  EXPECT_EQ(keeltest::ReadFile(dir.Sub("plain")), "a file");
}

TEST(VVCSaxWriterFile, RelativeFolderIsRefused) {
  VVCSaxWriter writer("relative/folder/", "out.xml", "r");
  writer.startDocument(nullptr);
  writer.endDocument();
  LogCapture capture;
  EXPECT_EQ(writer.writeDocument(), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.Contains("Description: Error creating needed directory\n"));
}

TEST(VVCSaxWriterFile, FileThatCannotBeOpenedIsReportedWithErrno) {
  TempDir dir;
  ASSERT_EQ(mkdir(dir.Sub("taken").c_str(), 0755), 0);
  VVCSaxWriter writer(dir.path() + "/", "taken", "r");
  writer.startDocument(nullptr);
  writer.endDocument();
  LogCapture capture;
  EXPECT_EQ(writer.writeDocument(), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.Contains("Invoked Function: std::ofstream::open\n"));
  EXPECT_TRUE(capture.Contains("errno 21: Is a directory"));
}

// Runs in a death-test child: a file size limit makes the write itself fail
// (EFBIG), and the limit dies with the child. Exits with 7 when the failure
// was reported as it should be.
void WriteUnderFileSizeLimit(const std::string& folder) {
  VVCSaxWriter writer(folder, "out.xml", "r");
  writer.startDocument(nullptr);
  writer.characters(std::string(64 * 1024, 'x'));
  writer.endDocument();
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {1024, 1024};
  setrlimit(RLIMIT_FSIZE, &limit);
  LogCapture capture;
  const ResultCode result = writer.writeDocument();
  const bool logged = capture.Contains("Invoked Function: std::ofstream::operator<<\n") &&
                      capture.Contains("errno 27: File too large");
  _exit(result == GLOBAL_ERROR_UNEXPECTED && logged ? 7 : 1);
}

TEST(VVCSaxWriterFile, FailedWriteIsReported) {
  TempDir dir;
  EXPECT_EXIT(WriteUnderFileSizeLimit(dir.path() + "/"), ::testing::ExitedWithCode(7), "");
}

}  // namespace
