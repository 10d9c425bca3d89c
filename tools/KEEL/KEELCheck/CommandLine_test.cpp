#include "tools/KEEL/KEELCheck/CommandLine.h"

#include <stdlib.h>

#include <gtest/gtest.h>

namespace keelcheck {
namespace {

std::vector<std::string> Texts(const std::string& line) {
  std::vector<std::string> texts;
  for (const ShellCommand& command : SplitShellLine(line))
    texts.push_back(command.text + (command.startsPipeline ? "" : " [piped]"));
  return texts;
}

TEST(FirstWord, SplitsAtTheFirstBlankOnly) {
  EXPECT_EQ(FirstWord("tool -a -b"), "tool");
  EXPECT_EQ(RestAfterFirstWord("tool -a -b"), "-a -b");
  EXPECT_EQ(FirstWord("tool"), "tool");
  EXPECT_EQ(RestAfterFirstWord("tool"), "");
  EXPECT_EQ(FirstWord("tool\t-a"), "tool\t-a");  // the tool splits at blanks only
}

TEST(SplitShellLine, SeparatorsOutsideQuotesEndCommands) {
  EXPECT_EQ(Texts("a 1; b 2 && c || d | e & f\ng"),
            (std::vector<std::string>{"a 1", "b 2", "c", "d", "e [piped]", "f", "g"}));
  EXPECT_EQ(Texts("echo 'x;y' \"a|b\" c\\;d"),
            (std::vector<std::string>{"echo 'x;y' \"a|b\" c\\;d"}));
}

TEST(SplitShellLine, RedirectionsAreNoSeparators) {
  EXPECT_EQ(Texts("a 2>&1"), (std::vector<std::string>{"a 2>&1"}));
  EXPECT_EQ(Texts("a &>/dev/null <&3"), (std::vector<std::string>{"a &>/dev/null <&3"}));
  const std::vector<ShellCommand> commands = SplitShellLine("printf '%s' 'a b' 2>&1");
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0].words, (std::vector<std::string>{"printf", "%s", "a b", "2>&1"}));
}

TimeBound Bound(const std::string& line, bool shell, std::string* unbounded = nullptr) {
  std::string command;
  const TimeBound bound = CheckTimeBound(line, shell, command);
  if (unbounded != nullptr)
    *unbounded = command;
  return bound;
}

TEST(CheckTimeBound, TimeoutWithDurationAndKillAfterBounds) {
  EXPECT_EQ(Bound("timeout --kill-after=5 30 ls -l 2>&1", true), TimeBound::kBounded);
  EXPECT_EQ(Bound("timeout -k 5 30s ls", true), TimeBound::kBounded);
  EXPECT_EQ(Bound("/usr/bin/timeout -k5 1.5m ls", true), TimeBound::kBounded);
  EXPECT_EQ(Bound("LC_ALL=C timeout -s KILL -k 5 30 ls", true), TimeBound::kBounded);
  EXPECT_EQ(Bound("timeout -k 5 30 a | sort | head", true), TimeBound::kBounded);
}

TEST(CheckTimeBound, WhatIsNotBounded) {
  std::string unbounded;
  EXPECT_EQ(Bound("ls -l", true, &unbounded), TimeBound::kNoTimeout);
  EXPECT_EQ(unbounded, "ls -l");
  EXPECT_EQ(Bound("timeout -k 5 0 ls", true), TimeBound::kNoTimeout);  // 0 means no limit
  EXPECT_EQ(Bound("timeout -k 5 30", true), TimeBound::kNoTimeout);    // no command
  EXPECT_EQ(Bound("timeout -k 5 ls", true), TimeBound::kNoTimeout);    // no duration
  EXPECT_EQ(Bound("timeout -k 5 30 a && tail -f b", true, &unbounded), TimeBound::kNoTimeout);
  EXPECT_EQ(unbounded, "tail -f b");
  EXPECT_EQ(Bound("", true), TimeBound::kNoTimeout);
}

TEST(CheckTimeBound, TimeoutWithoutKillAfter) {
  std::string unbounded;
  EXPECT_EQ(Bound("timeout 30 ls", true, &unbounded), TimeBound::kNoKillAfter);
  EXPECT_EQ(unbounded, "timeout 30 ls");
  // A command with no timeout at all is the worse finding.
  EXPECT_EQ(Bound("timeout 30 ls; sleep 9", true, &unbounded), TimeBound::kNoTimeout);
  EXPECT_EQ(unbounded, "sleep 9");
}

TEST(CheckTimeBound, LaunchFormLooksAtTheProgramOnly) {
  EXPECT_EQ(Bound("timeout 30 ls", false), TimeBound::kBounded);
  EXPECT_EQ(Bound("/usr/bin/timeout", false), TimeBound::kBounded);
  EXPECT_EQ(Bound("tool -a", false), TimeBound::kNoTimeout);
}

TEST(CheckVariables, FollowsTheToolsExpansion) {
  setenv("KEELCHECK_A", "/opt/a", 1);
  setenv("KEELCHECK_SELF", "$KEELCHECK_SELF/x", 1);
  unsetenv("KEELCHECK_UNSET");
  EXPECT_EQ(CheckVariables("/var/log/x").kind, VariableProblem::kNone);
  EXPECT_EQ(CheckVariables("$KEELCHECK_A/b").kind, VariableProblem::kNone);
  EXPECT_EQ(CheckVariables("$KEELCHECK_UNSET").kind, VariableProblem::kNone);  // no "/" after it
  const VariableProblem unset = CheckVariables("$KEELCHECK_A/$KEELCHECK_UNSET/x");
  EXPECT_EQ(unset.kind, VariableProblem::kUnset);
  EXPECT_EQ(unset.name, "KEELCHECK_UNSET");
  const VariableProblem endless = CheckVariables("$KEELCHECK_SELF/y");
  EXPECT_EQ(endless.kind, VariableProblem::kEndless);
  EXPECT_EQ(endless.name, "KEELCHECK_SELF");
  // A shell field such as $1 becomes a variable when a "/" follows.
  EXPECT_EQ(CheckVariables("awk '{print $1}' /etc/x").kind, VariableProblem::kUnset);
  unsetenv("KEELCHECK_A");
  unsetenv("KEELCHECK_SELF");
}

TEST(LexicallyTidy, TakesOutDoubleSlashesAndDotFolders) {
  EXPECT_EQ(LexicallyTidy("/opt//x/./y"), "/opt/x/y");
  EXPECT_EQ(LexicallyTidy("././foo"), "./foo");
  EXPECT_EQ(LexicallyTidy("/a/../b"), "/a/../b");
  EXPECT_EQ(LexicallyTidy("/a/.hidden"), "/a/.hidden");
}

}  // namespace
}  // namespace keelcheck
