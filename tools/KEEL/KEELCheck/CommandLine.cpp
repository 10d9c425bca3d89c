#include "tools/KEEL/KEELCheck/CommandLine.h"

#include <cctype>
#include <cstdlib>

#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

namespace keelcheck {

namespace {

// A value that keeps naming variables is given up on after this many rounds.
constexpr int kMaxExpansions = 64;
// ...or once the text has grown beyond this.
constexpr size_t kMaxExpandedSize = 1 << 20;

bool IsAssignment(const std::string& word) {
  const size_t equals = word.find('=');
  if (equals == std::string::npos || equals == 0)
    return false;
  for (size_t i = 0; i < equals; ++i) {
    const unsigned char c = static_cast<unsigned char>(word[i]);
    if (!(isalnum(c) || c == '_') || (i == 0 && isdigit(c)))
      return false;
  }
  return true;
}

// A duration of timeout(1): a number, perhaps with a fraction, and an
// optional unit. Zero switches the limit off.
bool IsDuration(const std::string& word, bool& positive) {
  size_t i = 0;
  bool digits = false;
  positive = false;
  while (i < word.size() && (isdigit(static_cast<unsigned char>(word[i])) || word[i] == '.')) {
    if (isdigit(static_cast<unsigned char>(word[i]))) {
      digits = true;
      if (word[i] != '0')
        positive = true;
    }
    ++i;
  }
  if (!digits)
    return false;
  if (i < word.size() && std::string("smhd").find(word[i]) != std::string::npos)
    ++i;
  return i == word.size();
}

// Whether the words of one simple command run under timeout, and with
// --kill-after.
TimeBound BoundOfWords(const std::vector<std::string>& words) {
  size_t i = 0;
  while (i < words.size() && IsAssignment(words[i]))
    ++i;
  if (i >= words.size() || helperUtil::splitAfterLast(words[i], "/") != "timeout")
    return TimeBound::kNoTimeout;
  ++i;
  bool killAfter = false;
  for (; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--") {
      ++i;
      break;
    }
    if (word.size() < 2 || word[0] != '-')
      break;
    if (word == "-k" || word == "--kill-after") {
      killAfter = ++i < words.size();
    } else if (word.compare(0, 2, "-k") == 0 || word.compare(0, 13, "--kill-after=") == 0) {
      killAfter = true;
    } else if (word == "-s" || word == "--signal") {
      ++i;
    }
  }
  bool positive = false;
  if (i >= words.size() || !IsDuration(words[i], positive) || !positive || i + 1 >= words.size())
    return TimeBound::kNoTimeout;
  return killAfter ? TimeBound::kBounded : TimeBound::kNoKillAfter;
}

}  // namespace

std::string FirstWord(const std::string& commandLine) {
  const size_t blank = commandLine.find(' ');
  return blank == std::string::npos ? commandLine : commandLine.substr(0, blank);
}

std::string RestAfterFirstWord(const std::string& commandLine) {
  const size_t blank = commandLine.find(' ');
  return blank == std::string::npos ? std::string() : commandLine.substr(blank + 1);
}

std::vector<ShellCommand> SplitShellLine(const std::string& line) {
  std::vector<ShellCommand> commands;
  ShellCommand current;
  std::string word;
  bool inWord = false;
  size_t start = 0;  // where the current command's text begins
  auto endWord = [&]() {
    if (inWord)
      current.words.push_back(word);
    word.clear();
    inWord = false;
  };
  // The command ends before `end`; the next one begins at `next`.
  auto endCommand = [&](size_t end, size_t next, bool startsPipeline) {
    endWord();
    if (!current.words.empty()) {
      current.text = CStringUtils::trimString(line.substr(start, end - start));
      commands.push_back(current);
    }
    current = ShellCommand();
    current.startsPipeline = startsPipeline;
    start = next;
  };
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '\\' && i + 1 < line.size()) {
      word += line[++i];
      inWord = true;
    } else if (c == '\'') {
      const size_t close = line.find('\'', i + 1);
      const size_t end = close == std::string::npos ? line.size() : close;
      word += line.substr(i + 1, end - i - 1);
      inWord = true;
      i = end;
    } else if (c == '"') {
      size_t j = i + 1;
      for (; j < line.size() && line[j] != '"'; ++j) {
        if (line[j] == '\\' && j + 1 < line.size())
          ++j;
        word += line[j];
      }
      inWord = true;
      i = j;
    } else if (c == ' ' || c == '\t') {
      endWord();
    } else if (c == ';' || c == '\n') {
      endCommand(i, i + 1, true);
    } else if (c == '|') {
      const bool orList = i + 1 < line.size() && line[i + 1] == '|';
      endCommand(i, orList ? i + 2 : i + 1, orList);
      if (orList)
        ++i;
    } else if (c == '&') {
      // "2>&1", "<&3" and "&>file" are redirections, not separators.
      const bool redirection = (i > 0 && (line[i - 1] == '>' || line[i - 1] == '<')) ||
                               (i + 1 < line.size() && line[i + 1] == '>');
      if (redirection) {
        word += c;
        inWord = true;
      } else {
        const bool andList = i + 1 < line.size() && line[i + 1] == '&';
        endCommand(i, andList ? i + 2 : i + 1, true);
        if (andList)
          ++i;
      }
    } else {
      word += c;
      inWord = true;
    }
  }
  endCommand(line.size(), line.size(), true);
  return commands;
}

TimeBound CheckTimeBound(const std::string& commandLine, bool shellForm, std::string& unbounded) {
  unbounded.clear();
  if (!shellForm) {
    // The launcher runs the first word; what stands behind it is one
    // argument, which the several-arguments check speaks about.
    const std::vector<std::string> words{FirstWord(commandLine)};
    if (helperUtil::splitAfterLast(words[0], "/") == "timeout")
      return TimeBound::kBounded;
    unbounded = commandLine;
    return TimeBound::kNoTimeout;
  }
  const std::vector<ShellCommand> commands = SplitShellLine(commandLine);
  if (commands.empty()) {
    unbounded = commandLine;
    return TimeBound::kNoTimeout;
  }
  TimeBound result = TimeBound::kBounded;
  for (const ShellCommand& command : commands) {
    if (!command.startsPipeline)
      continue;
    const TimeBound bound = BoundOfWords(command.words);
    if (bound == TimeBound::kNoTimeout) {
      unbounded = command.text;
      return bound;
    }
    if (bound == TimeBound::kNoKillAfter && result == TimeBound::kBounded) {
      unbounded = command.text;
      result = bound;
    }
  }
  return result;
}

VariableProblem CheckVariables(const std::string& text) {
  VariableProblem problem;
  std::string result = text;
  for (int round = 0;; ++round) {
    const size_t dollar = result.find('$');
    if (dollar == std::string::npos)
      return problem;
    const size_t slash = result.find('/', dollar);
    if (slash == std::string::npos)
      return problem;
    const std::string name = result.substr(dollar + 1, slash - dollar - 1);
    std::string value = helperUtil::getEnvironmentVariable(name);
    if (value.empty()) {
      problem.kind = VariableProblem::kUnset;
      problem.name = name;
      return problem;
    }
    if (round >= kMaxExpansions || result.size() > kMaxExpandedSize) {
      problem.kind = VariableProblem::kEndless;
      problem.name = name;
      return problem;
    }
    if (value.back() != '/')
      value += '/';
    result = result.substr(0, dollar) + value + result.substr(slash + 1);
  }
}

std::string LexicallyTidy(const std::string& path) {
  std::string tidy;
  for (size_t i = 0; i < path.size(); ++i) {
    if (path[i] == '/' && !tidy.empty() && tidy.back() == '/')
      continue;
    if (path[i] == '.' && (tidy.empty() || tidy.back() == '/') &&
        (i + 1 == path.size() || path[i + 1] == '/') && !tidy.empty()) {
      ++i;  // "/./" becomes "/"
      continue;
    }
    tidy += path[i];
  }
  return tidy;
}

}  // namespace keelcheck
