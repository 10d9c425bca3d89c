// The action base: the three parsers, getPath, the walk of Perform, and the
// end of a launched program with its action.
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/IPC/ProcessAPI_unix.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction_testsupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

using actiontest::ParsedXml;

namespace {

// Parses one action element and runs the file parser on it.
ResultCode ParseFile(const std::string& xml, FileActionAttributes& out) {
  ParsedXml parsed(xml);
  EXPECT_TRUE(parsed.ok()) << xml;
  XMLObject subtree(parsed.root());
  return KEELAction::parseFileActionAttributes(subtree, out);
}

ResultCode ParseDirectory(const std::string& xml, DirectoryActionAttributes& out) {
  ParsedXml parsed(xml);
  EXPECT_TRUE(parsed.ok()) << xml;
  XMLObject subtree(parsed.root());
  return KEELAction::parseDirectoryActionAttributes(subtree, out);
}

ResultCode ParseExternal(const std::string& xml, bool isAdmin, ExternalActionAttributes& out) {
  ParsedXml parsed(xml);
  EXPECT_TRUE(parsed.ok()) << xml;
  XMLObject subtree(parsed.root());
  return KEELAction::parseExternalActionAttributes(subtree, isAdmin, out);
}

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : m_name(name) {
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() { unsetenv(m_name); }

 private:
  const char* m_name;
};

}  // namespace

// ---- parseFileActionAttributes ----------------------------------------------

TEST(ActionFileParser, OnlyTruncateTypeGivesEmptyLoc) {
  FileActionAttributes out;
  EXPECT_EQ(0u, ParseFile("<action><truncate_type>end</truncate_type></action>", out));
  EXPECT_EQ("", out.loc);
  EXPECT_EQ("", out.resolvedLoc);
  EXPECT_EQ("end", out.truncateType);
  EXPECT_FALSE(out.gatherNewest);
  EXPECT_FALSE(out.clearLog);
}

TEST(ActionFileParser, TruncateTypeIsFoundWhereverItStands) {
  FileActionAttributes out;
  EXPECT_EQ(0u, ParseFile("<action><loc>/a/b.log</loc><x><y><truncate_type>front</truncate_type>"
                          "</y></x></action>",
                          out));
  EXPECT_EQ("front", out.truncateType);
  EXPECT_EQ("/a/b.log", out.loc);
}

TEST(ActionFileParser, GatherNewestCompareIsExact) {
  FileActionAttributes upper;
  EXPECT_EQ(0u, ParseFile("<action><loc gather_newest=\"TRUE\">/a/*.log</loc></action>", upper));
  EXPECT_FALSE(upper.gatherNewest);
  FileActionAttributes lower;
  EXPECT_EQ(0u, ParseFile("<action><loc gather_newest=\"true\">/a/*.log</loc></action>", lower));
  EXPECT_TRUE(lower.gatherNewest);
}

TEST(ActionFileParser, SecondLocReplacesFirstButKeepsGatherNewest) {
  FileActionAttributes out;
  EXPECT_EQ(0u, ParseFile("<action><loc gather_newest=\"true\">/first/*.log</loc>"
                          "<loc gather_newest=\"false\">/second/*.txt</loc></action>",
                          out));
  EXPECT_EQ("/second/*.txt", out.loc);
  EXPECT_EQ("/second/*.txt", out.resolvedLoc);
  EXPECT_TRUE(out.gatherNewest);
}

TEST(ActionFileParser, LocIsTranslatedAndKeptAsWritten) {
  ScopedEnv env("KEELTEST_ACTION_ROOT", "/var/keeltest");
  FileActionAttributes out;
  EXPECT_EQ(0u, ParseFile("<action><loc>$KEELTEST_ACTION_ROOT/logs/*.log</loc></action>", out));
  EXPECT_EQ("$KEELTEST_ACTION_ROOT/logs/*.log", out.loc);
  EXPECT_EQ("/var/keeltest/logs/*.log", out.resolvedLoc);
}

TEST(ActionFileParser, UnsetVariableLeavesLocUntranslatedAndLogs) {
  unsetenv("KEELTEST_ACTION_UNSET");
  keeltest::LogCapture capture;
  FileActionAttributes out;
  EXPECT_EQ(0u, ParseFile("<action><loc>$KEELTEST_ACTION_UNSET/x.log</loc></action>", out));
  EXPECT_EQ("$KEELTEST_ACTION_UNSET/x.log", out.resolvedLoc);
  EXPECT_TRUE(capture.Contains("Cannot determine environment variable"));
}

TEST(ActionFileParser, ClearLogOnlyWithApplyTrue) {
  FileActionAttributes on;
  EXPECT_EQ(0u, ParseFile("<action><loc>/a/x</loc><clear_log apply=\"true\"/></action>", on));
  EXPECT_TRUE(on.clearLog);
  FileActionAttributes off;
  EXPECT_EQ(0u, ParseFile("<action><loc>/a/x</loc><clear_log apply=\"True\"/></action>", off));
  EXPECT_FALSE(off.clearLog);
  FileActionAttributes bare;
  EXPECT_EQ(0u, ParseFile("<action><loc>/a/x</loc><clear_log/></action>", bare));
  EXPECT_FALSE(bare.clearLog);
}

TEST(ActionFileParser, UnknownChildrenAreIgnoredSilently) {
  keeltest::LogCapture capture;
  FileActionAttributes out;
  EXPECT_EQ(0u, ParseFile("<action><bogus>1</bogus><loc>/a/b</loc><deep><er>2</er></deep>"
                          "</action>",
                          out));
  EXPECT_EQ("/a/b", out.loc);
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(ActionFileParser, NoRootIsABadParameter) {
  keeltest::LogCapture capture;
  XMLObject empty;
  FileActionAttributes out;
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, KEELAction::parseFileActionAttributes(empty, out));
  EXPECT_TRUE(capture.Contains("\nrXMLActionSubtree.GetRoot() is NULL"));
}

// ---- parseDirectoryActionAttributes -----------------------------------------

TEST(ActionDirectoryParser, LocGetsTrailingSlashAndPatternsKeepOrder) {
  DirectoryActionAttributes out;
  EXPECT_EQ(0u, ParseDirectory("<action><loc>/var/log/app</loc><pattern>*.log</pattern>"
                               "<pattern>*.TXT</pattern></action>",
                               out));
  EXPECT_EQ("/var/log/app/", out.loc);
  EXPECT_EQ("/var/log/app/", out.resolvedLoc);
  EXPECT_EQ((std::vector<std::string>{"*.log", "*.TXT"}), out.patterns);
}

TEST(ActionDirectoryParser, LocWithSlashStaysAndIsTranslated) {
  ScopedEnv env("KEELTEST_ACTION_ROOT", "/srv");
  DirectoryActionAttributes out;
  EXPECT_EQ(0u, ParseDirectory("<action><loc>$KEELTEST_ACTION_ROOT/data/</loc></action>", out));
  EXPECT_EQ("$KEELTEST_ACTION_ROOT/data/", out.loc);
  EXPECT_EQ("/srv/data/", out.resolvedLoc);
  EXPECT_TRUE(out.patterns.empty());
}

TEST(ActionDirectoryParser, NoChildrenIsSuccess) {
  DirectoryActionAttributes out;
  EXPECT_EQ(0u, ParseDirectory("<action/>", out));
  EXPECT_EQ("", out.loc);
  EXPECT_TRUE(out.patterns.empty());
}

TEST(ActionDirectoryParser, EmptyLocStaysEmpty) {
  DirectoryActionAttributes out;
  EXPECT_EQ(0u, ParseDirectory("<action><loc></loc><pattern>*</pattern></action>", out));
  EXPECT_EQ("", out.loc);
  EXPECT_EQ("", out.resolvedLoc);
}

TEST(ActionDirectoryParser, ForeignChildStopsWithUnexpected) {
  keeltest::LogCapture capture;
  DirectoryActionAttributes out;
  EXPECT_EQ(KEELENGINE_ERROR_UNEXPECTED,
            ParseDirectory("<action><pattern>a</pattern><loc>/x</loc><truncate_type>end"
                           "</truncate_type><pattern>b</pattern></action>",
                           out));
  EXPECT_EQ((std::vector<std::string>{"a"}), out.patterns);
  EXPECT_EQ("/x/", out.loc);
  EXPECT_TRUE(capture.Contains("\nUnexpected xml child for directory_copy_action."));
}

TEST(ActionDirectoryParser, NoRootIsABadParameter) {
  keeltest::LogCapture capture;
  XMLObject empty;
  DirectoryActionAttributes out;
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, KEELAction::parseDirectoryActionAttributes(empty, out));
  EXPECT_TRUE(capture.Contains("\nrXMLActionSubtree.GetRoot() is NULL"));
}

// ---- getPath ------------------------------------------------------------------

TEST(ActionGetPath, PathElementGivesItsText) {
  ParsedXml parsed("<path>/usr/bin</path>");
  EXPECT_EQ("/usr/bin", KEELAction::getPath(parsed.root()));
}

TEST(ActionGetPath, TwoQuotesAloneStay) {
  ParsedXml parsed("<path>\"\"</path>");
  EXPECT_EQ("\"\"", KEELAction::getPath(parsed.root()));
}

TEST(ActionGetPath, SurroundingQuotesAreRemoved) {
  ParsedXml parsed("<path>\"/opt/my tools\"</path>");
  EXPECT_EQ("/opt/my tools", KEELAction::getPath(parsed.root()));
  ParsedXml three("<path>\"a\"</path>");
  EXPECT_EQ("a", KEELAction::getPath(three.root()));
  ParsedXml oneSided("<path>\"/opt</path>");
  EXPECT_EQ("\"/opt", KEELAction::getPath(oneSided.root()));
}

TEST(ActionGetPath, PluginResolvesBelowTheProgramFolder) {
  ParsedXml withSub("<plugin>diag</plugin>");
  EXPECT_EQ(helperUtil::getInstallFolder() + "./plugin/diag", KEELAction::getPath(withSub.root()));
  ParsedXml bare("<plugin/>");
  EXPECT_EQ(helperUtil::getInstallFolder() + "./plugin", KEELAction::getPath(bare.root()));
}

TEST(ActionGetPath, OtherElementLogsAndGivesEmpty) {
  keeltest::LogCapture capture;
  ParsedXml parsed("<regis>HKLM\\Software</regis>");
  EXPECT_EQ("", KEELAction::getPath(parsed.root()));
  EXPECT_TRUE(capture.Contains("\npDC is of unknown type \"regis\""));
}

TEST(ActionGetPath, NullLogsAndGivesEmpty) {
  keeltest::LogCapture capture;
  EXPECT_EQ("", KEELAction::getPath(nullptr));
  EXPECT_TRUE(capture.Contains("\npDC is NULL"));
}

// ---- parseExternalActionAttributes -------------------------------------------

TEST(ActionExternalParser, PathElement) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u,
            ParseExternal("<action><path>/usr/bin</path><args>ls -l</args></action>", false, out));
  EXPECT_EQ("/usr/bin", out.path);
  EXPECT_EQ("ls -l", out.args);
  EXPECT_EQ("ls", out.program);
  EXPECT_EQ("ls", out.shortName);
  EXPECT_EQ("args", out.tagName);
}

TEST(ActionExternalParser, RegisAfterPathEmptiesPath) {
  keeltest::LogCapture capture;
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><path>/usr/bin</path><regis>HKLM\\x</regis>"
                              "<args>tool</args></action>",
                              false, out));
  EXPECT_EQ("", out.path);
  EXPECT_TRUE(capture.Contains("pDC is of unknown type \"regis\""));
  ExternalActionAttributes out64;
  EXPECT_EQ(0u, ParseExternal("<action><path>/usr/bin</path><regis64/></action>", false, out64));
  EXPECT_EQ("", out64.path);
}

TEST(ActionExternalParser, DotSlashCommandGivesDotPath) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><args>./foo bar</args></action>", false, out));
  EXPECT_EQ("foo", out.program);
  EXPECT_EQ("foo", out.shortName);
  EXPECT_EQ(".", out.path);
  EXPECT_EQ("./foo bar", out.args);
}

TEST(ActionExternalParser, ShortNameDropsLastExtension) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><args>foo.sh -x</args></action>", false, out));
  EXPECT_EQ("foo.sh", out.program);
  EXPECT_EQ("foo", out.shortName);
  EXPECT_EQ("", out.path);
  ExternalActionAttributes two;
  EXPECT_EQ(0u, ParseExternal("<action><args>a.tar.gz</args></action>", false, two));
  EXPECT_EQ("a.tar", two.shortName);
}

TEST(ActionExternalParser, HiddenNameHasEmptyShortName) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><args>.hidden</args></action>", false, out));
  EXPECT_EQ(".hidden", out.program);
  EXPECT_EQ("", out.shortName);
  EXPECT_EQ("", out.path);
}

TEST(ActionExternalParser, AdminArgsAloneWithoutAdminGivesEmptyCommand) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><admin_args replace_args=\"true\">tool -a</admin_args>"
                              "</action>",
                              false, out));
  EXPECT_EQ("", out.args);
  EXPECT_EQ("", out.program);
  EXPECT_EQ("", out.shortName);
  EXPECT_EQ("", out.path);
  EXPECT_FALSE(out.replaceArgs);
}

TEST(ActionExternalParser, AdminArgsWinInEitherOrderWhenAdmin) {
  ExternalActionAttributes before;
  EXPECT_EQ(0u, ParseExternal("<action><admin_args>root.sh -r</admin_args>"
                              "<args>user.sh -u</args></action>",
                              true, before));
  EXPECT_EQ("root.sh -r", before.args);
  EXPECT_EQ("root", before.shortName);
  ExternalActionAttributes after;
  EXPECT_EQ(0u, ParseExternal("<action><args>user.sh -u</args>"
                              "<admin_args>root.sh -r</admin_args><args>late.sh</args></action>",
                              true, after));
  EXPECT_EQ("root.sh -r", after.args);
  ExternalActionAttributes notAdmin;
  EXPECT_EQ(0u, ParseExternal("<action><admin_args>root.sh -r</admin_args>"
                              "<args>user.sh -u</args></action>",
                              false, notAdmin));
  EXPECT_EQ("user.sh -u", notAdmin.args);
}

TEST(ActionExternalParser, ReplaceArgsIsNeverReset) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><args replace_args=\"true\">a</args>"
                              "<args replace_args=\"false\">b</args></action>",
                              false, out));
  EXPECT_TRUE(out.replaceArgs);
  EXPECT_EQ("b", out.args);
  ExternalActionAttributes upper;
  EXPECT_EQ(0u,
            ParseExternal("<action><args replace_args=\"TRUE\">a</args></action>", false, upper));
  EXPECT_FALSE(upper.replaceArgs);
}

TEST(ActionExternalParser, ClearLogNeedsApplyTrue) {
  ExternalActionAttributes on;
  EXPECT_EQ(0u, ParseExternal("<action><clear_log apply=\"true\">reset --all</clear_log></action>",
                              false, on));
  EXPECT_TRUE(on.clear);
  EXPECT_EQ("reset --all", on.clearCommand);
  ExternalActionAttributes off;
  EXPECT_EQ(0u, ParseExternal("<action><clear_log apply=\"false\">reset --all</clear_log>"
                              "</action>",
                              false, off));
  EXPECT_FALSE(off.clear);
  EXPECT_EQ("", off.clearCommand);
  ExternalActionAttributes bare;
  EXPECT_EQ(0u, ParseExternal("<action><clear_log>reset</clear_log></action>", false, bare));
  EXPECT_FALSE(bare.clear);
}

TEST(ActionExternalParser, TempOutAndStdout) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><args>t</args><temp_out>o.txt</temp_out><stdout>ignored"
                              "</stdout></action>",
                              false, out));
  EXPECT_EQ("o.txt", out.tempOut);
  EXPECT_TRUE(out.captureStdout);
  EXPECT_EQ("stdout", out.tagName);
  EXPECT_EQ("", out.spare);
}

TEST(ActionExternalParser, CommandFolderAddsToPath) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><path>/opt/x</path><args>sub/tool -v</args></action>", false,
                              out));
  EXPECT_EQ("/opt/x/sub", out.path);
  EXPECT_EQ("tool", out.program);
}

TEST(ActionExternalParser, FoldTrimsSlashesAtTheJoin) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><path>/opt/x//</path><args>/abs/bin/tool</args></action>",
                              false, out));
  EXPECT_EQ("/opt/x/abs/bin", out.path);
}

TEST(ActionExternalParser, DottedWordCountsAsFolder) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><args>a.b/c</args></action>", false, out));
  EXPECT_EQ("c", out.program);
  EXPECT_EQ("c", out.shortName);
  EXPECT_EQ("a.b", out.path);
}

TEST(ActionExternalParser, AbsoluteCommandWithoutPathElement) {
  ExternalActionAttributes out;
  EXPECT_EQ(0u, ParseExternal("<action><args>/usr/bin/tool -x</args></action>", false, out));
  EXPECT_EQ("/usr/bin", out.path);
  EXPECT_EQ("tool", out.program);
}

TEST(ActionExternalParser, NestedPathIsInvalid) {
  for (const char* tag : {"path", "plugin", "regis", "regis64"}) {
    keeltest::LogCapture capture;
    ExternalActionAttributes out;
    const std::string name(tag);
    EXPECT_EQ(KEELENGINE_ERROR_INVALID_XML, ParseExternal("<action><args>tool</args><" + name +
                                                              "><x>1</x></" + name + "></action>",
                                                          false, out))
        << tag;
    EXPECT_TRUE(capture.Contains(
        "\nInternal Error: unexpected further nested tags inside the <path></path> tag pairs in "
        "<action></action>."))
        << tag;
    // Stopped before the fold: the command's own state stays as it was.
    EXPECT_EQ("tool", out.args);
    EXPECT_EQ(name, out.tagName);
  }
}

TEST(ActionExternalParser, NestedArgsIsInvalid) {
  for (const char* tag : {"args", "admin_args"}) {
    keeltest::LogCapture capture;
    ExternalActionAttributes out;
    const std::string name(tag);
    EXPECT_EQ(KEELENGINE_ERROR_INVALID_XML,
              ParseExternal("<action><" + name + ">tool<b/></" + name + "></action>", false, out))
        << tag;
    EXPECT_TRUE(capture.Contains(
        "\nInternal Error: unexpected further nested tags inside the <args></args> or "
        "<admin_args></admin_args> tag pairs in <action></action>."))
        << tag;
    EXPECT_EQ("", out.args);
  }
}

TEST(ActionExternalParser, NestedTempOutIsInvalid) {
  keeltest::LogCapture capture;
  ExternalActionAttributes out;
  EXPECT_EQ(KEELENGINE_ERROR_INVALID_XML,
            ParseExternal("<action><temp_out><f>x</f></temp_out></action>", false, out));
  const std::string text =
      "\nInternal Error: unexpected further nested tags inside the <temp_out></temp_out> tag "
      "pairs in <action></action>";
  EXPECT_TRUE(capture.Contains(text));
  EXPECT_FALSE(capture.Contains(text + "."));
}

TEST(ActionExternalParser, UnknownTagStopsTheParse) {
  keeltest::LogCapture capture;
  ExternalActionAttributes out;
  EXPECT_EQ(KEELENGINE_ERROR_UNKNOWN_XML_TAG,
            ParseExternal("<action><path>/opt/x</path><args>sub/tool</args><loc>/x</loc>"
                          "<temp_out>late.txt</temp_out></action>",
                          false, out));
  EXPECT_TRUE(capture.Contains("\nInternal Error: Unrecognized XML tag."));
  EXPECT_EQ("loc", out.tagName);
  EXPECT_EQ("sub/tool", out.args);
  EXPECT_EQ("", out.tempOut);
  // No fold either: the parse ended before it.
  EXPECT_EQ("/opt/x", out.path);
}

TEST(ActionExternalParser, OutputIsClearedFirst) {
  ExternalActionAttributes out;
  out.args = "stale";
  out.clear = true;
  out.path = "/stale";
  EXPECT_EQ(0u, ParseExternal("<action><stdout/></action>", false, out));
  EXPECT_EQ("", out.args);
  EXPECT_FALSE(out.clear);
  EXPECT_EQ("", out.path);
  EXPECT_TRUE(out.captureStdout);
}

TEST(ActionExternalParser, NoRootIsABadParameter) {
  keeltest::LogCapture capture;
  XMLObject empty;
  ExternalActionAttributes out;
  out.args = "stale";
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER,
            KEELAction::parseExternalActionAttributes(empty, false, out));
  EXPECT_EQ("", out.args);
  EXPECT_TRUE(capture.Contains("\nrXMLActionSubtree.GetRoot() is NULL"));
}

// ---- Perform ----------------------------------------------------------------------

namespace {

// An action whose handlers do what the text of the action element says:
// "ok:<p>" records <p> and succeeds, "fnf:<p>" and "fail:<p>" record <p> and
// fail with FILE_NOT_FOUND or INTERNAL; "del:<p>" puts <p> on the delete
// list; "exists:<p>" notes whether <p> exists at that moment.
class ScriptedAction : public KEELAction {
 public:
  ScriptedAction(const ActionSettings& settings, KEELComponent* node)
      : KEELAction(settings, node, false) {}

  ResultCode performFileAction(XMLObject& subtree, TruncAttrsList& records) override {
    return act("file", subtree, records, nullptr);
  }
  ResultCode performDirectoryAction(XMLObject& subtree, TruncAttrsList& records) override {
    return act("directory", subtree, records, nullptr);
  }
  ResultCode performExternalAction(XMLObject& subtree, TruncAttrsList& records,
                                   std::list<std::string>& deleteList) override {
    return act("external", subtree, records, &deleteList);
  }

  std::vector<std::string> calls;

 private:
  ResultCode act(const std::string& kind, XMLObject& subtree, TruncAttrsList& records,
                 std::list<std::string>* deleteList) {
    const std::string text = subtree.GetRoot() != nullptr ? subtree.GetValue() : "<no root>";
    calls.push_back(kind + " " + text);
    const std::string verb = helperUtil::splitBeforeFirst(text, ":");
    const std::string operand = helperUtil::splitAfterFirst(text, ":");
    if (verb == "del" && deleteList != nullptr) {
      deleteList->push_back(operand);
      return 0;
    }
    if (verb == "exists") {
      calls.back() += keeltest::PathExists(operand) ? " yes" : " no";
      return 0;
    }
    TruncAttrs record;
    record.id = m_fileId;
    record.path = operand;
    records.push_back(record);
    if (verb == "fnf")
      return KEELENGINE_ERROR_FILE_NOT_FOUND;
    if (verb == "fail")
      return KEELENGINE_ERROR_INTERNAL;
    return 0;
  }
};

std::vector<std::string> Paths(const TruncAttrsList& records) {
  std::vector<std::string> paths;
  for (const TruncAttrs& record : records)
    paths.push_back(record.path);
  return paths;
}

}  // namespace

TEST(ActionPerform, WalksGroupsInOrderAndKeepsOnlySuccesses) {
  keeltest::LogCapture capture;
  ParsedXml config(
      "<os opsys=\"linux\">"
      "<file_copy_action><a>ok:f1</a><a>fail:f2</a><a>ok:f3</a></file_copy_action>"
      "<directory_copy_action><a>fnf:d1</a><a>ok:d2</a></directory_copy_action>"
      "<use_extern_action><a>ok:e1</a><b>fail:e2</b></use_extern_action>"
      "</os>");
  ASSERT_TRUE(config.ok());
  ActionSettings settings = actiontest::MakeSettings("/nowhere", nullptr);
  ScriptedAction action(settings, config.root());
  TruncAttrsList records;
  records.push_back(TruncAttrs());
  records.back().path = "earlier";
  action.Perform(records);

  EXPECT_EQ(
      (std::vector<std::string>{"file ok:f1", "file fail:f2", "file ok:f3", "directory fnf:d1",
                                "directory ok:d2", "external ok:e1", "external fail:e2"}),
      action.calls);
  EXPECT_EQ((std::vector<std::string>{"earlier", "f1", "f3", "d2", "e1"}), Paths(records));

  // Failures are logged under the handler's name, except a missing file.
  EXPECT_EQ(1u, capture.Count("Invoked Function: KEELAction::performFileAction\n"));
  EXPECT_EQ(0u, capture.Count("Invoked Function: KEELAction::performDirectoryAction"));
  EXPECT_EQ(1u, capture.Count("Invoked Function: KEELAction::performExternalAction\n"));
  EXPECT_EQ(2u, capture.Count("(0xFEB0000A)"));
}

TEST(ActionPerform, OtherGroupsArePassedOverSilently) {
  keeltest::LogCapture capture;
  ParsedXml config(
      "<os><File_copy_action><a>ok:upper</a></File_copy_action><registry_action><a>ok:r</a>"
      "</registry_action>text<file_copy_action><a>ok:f</a></file_copy_action></os>");
  ASSERT_TRUE(config.ok());
  ActionSettings settings = actiontest::MakeSettings("/nowhere", nullptr);
  ScriptedAction action(settings, config.root());
  TruncAttrsList records;
  action.Perform(records);
  EXPECT_EQ((std::vector<std::string>{"file ok:f"}), action.calls);
  EXPECT_EQ((std::vector<std::string>{"f"}), Paths(records));
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(ActionPerform, DeleteListIsEmptiedAfterTheGroup) {
  keeltest::TempDir tmp;
  const std::string first = tmp.Sub("out1.txt");
  const std::string second = tmp.Sub("out2.txt");
  ASSERT_TRUE(keeltest::WriteFile(first, "1"));
  ASSERT_TRUE(keeltest::WriteFile(second, "2"));
  ParsedXml config("<os><use_extern_action><a>del:" + first + "</a><a>exists:" + first +
                   "</a><a>del:" + second +
                   "</a></use_extern_action>"
                   "<use_extern_action><a>exists:" +
                   first + "</a></use_extern_action></os>");
  ASSERT_TRUE(config.ok());
  ActionSettings settings = actiontest::MakeSettings("/nowhere", nullptr);
  ScriptedAction action(settings, config.root());
  TruncAttrsList records;
  action.Perform(records);
  ASSERT_EQ(4u, action.calls.size());
  EXPECT_EQ("external exists:" + first + " yes", action.calls[1]);
  EXPECT_EQ("external exists:" + first + " no", action.calls[3]);
  EXPECT_FALSE(keeltest::PathExists(second));
  EXPECT_TRUE(records.empty());
}

TEST(ActionPerform, EmptyGroupsAndNoGroupsDoNothing) {
  ParsedXml config("<os><file_copy_action/><directory_copy_action></directory_copy_action></os>");
  ASSERT_TRUE(config.ok());
  ActionSettings settings = actiontest::MakeSettings("/nowhere", nullptr);
  ScriptedAction action(settings, config.root());
  TruncAttrsList records;
  action.Perform(records);
  EXPECT_TRUE(action.calls.empty());
  EXPECT_TRUE(records.empty());
}

TEST(ActionPerform, NullConfigNodeIsLoggedAndSkipped) {
  keeltest::LogCapture capture;
  ActionSettings settings = actiontest::MakeSettings("/nowhere", nullptr);
  ScriptedAction action(settings, nullptr);
  TruncAttrsList records;
  action.Perform(records);
  EXPECT_TRUE(action.calls.empty());
  EXPECT_TRUE(capture.Contains("\nm_pConfigNode is NULL"));
}

TEST(ActionPerform, SettingsAreCopiedAtConstruction) {
  ParsedXml config("<os><file_copy_action><a>ok:x</a></file_copy_action></os>");
  ASSERT_TRUE(config.ok());
  ActionSettings settings = actiontest::MakeSettings("/b", nullptr, "name.txt");
  ScriptedAction action(settings, config.root());
  settings.m_fileId = "changed";
  TruncAttrsList records;
  action.Perform(records);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("id-1", records.front().id);
}

// ---- Lifetime -------------------------------------------------------------------

namespace {

// Starts a program the way callExtern does, without watching it.
class LaunchingAction : public KEELCollectLogsAction {
 public:
  LaunchingAction(const ActionSettings& settings, KEELComponent* node)
      : KEELCollectLogsAction(settings, node, false) {}
  int32_t LaunchAndLeave(const std::string& folder, const std::string& program) {
    m_pProcessApi.reset(new CProcessApi());
    ProcessAttributes attributes;
    attributes.path = folder.c_str();
    std::vector<const char*> argv = {program.c_str()};
    if (m_pProcessApi->Launch(attributes, argv) != 0)
      return 0;
    m_pid = attributes.pid;
    return m_pid;
  }
  ResultCode RunExtern(const std::string& path, const std::string& commandLine) {
    return callExtern(path, commandLine, false, std::string());
  }
};

}  // namespace

TEST(ActionLifetime, DestructorStopsALaunchedProgram) {
  keeltest::TempDir tmp;
  ASSERT_TRUE(actiontest::WriteScript(tmp.Sub("sleeper.sh"), "exec sleep 60\n"));
  ParsedXml config("<os/>");
  int32_t pid = 0;
  {
    LaunchingAction action(actiontest::MakeSettings(tmp.path(), nullptr), config.root());
    pid = action.LaunchAndLeave(tmp.path(), "sleeper.sh");
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kill(pid, 0));
  }
  // Stopped and collected by the destructor.
  errno = 0;
  EXPECT_EQ(-1, kill(pid, 0));
  EXPECT_EQ(ESRCH, errno);
  EXPECT_TRUE(actiontest::NoChildLeft());
}

TEST(ActionLifetime, NextRunStopsTheEarlierProgram) {
  keeltest::TempDir tmp;
  ASSERT_TRUE(actiontest::WriteScript(tmp.Sub("sleeper.sh"), "exec sleep 60\n"));
  ASSERT_TRUE(actiontest::WriteScript(tmp.Sub("quick.sh"),
                                      "echo ran > '" + tmp.Sub("quick.sh.ran") + "'\n"));
  ParsedXml config("<os/>");
  LaunchingAction action(actiontest::MakeSettings(tmp.path(), nullptr), config.root());
  const int32_t pid = action.LaunchAndLeave(tmp.path(), "sleeper.sh");
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0u, action.RunExtern(tmp.path(), "quick.sh"));
  errno = 0;
  EXPECT_EQ(-1, kill(pid, 0));
  EXPECT_EQ(ESRCH, errno);
  EXPECT_EQ("ran\n", keeltest::ReadFile(tmp.Sub("quick.sh.ran")));
  EXPECT_TRUE(actiontest::NoChildLeft());
}

TEST(ActionLifetime, ActionWithoutProgramEndsQuietly) {
  keeltest::LogCapture capture;
  ParsedXml config("<os/>");
  { KEELCollectLogsAction action(actiontest::MakeSettings("/b", nullptr), config.root(), false); }
  EXPECT_TRUE(capture.logger().Records().empty());
}
