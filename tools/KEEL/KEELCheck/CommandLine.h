// What keelcheck reads out of a command line of a use_extern_action: the
// words the tool splits off, whether every command is bounded in time by
// timeout(1), and the $NAME/ variables the tool would expand in it.
//
// Pure functions (the variable lookup reads the environment); safe on any
// thread that does not change the environment.
#ifndef TOOLS_KEEL_KEELCHECK_COMMANDLINE_H_
#define TOOLS_KEEL_KEELCHECK_COMMANDLINE_H_

#include <string>
#include <vector>

namespace keelcheck {

// The tool's own split: the text before the first blank, or all of it.
std::string FirstWord(const std::string& commandLine);
// Everything behind the first blank, or empty when there is none.
std::string RestAfterFirstWord(const std::string& commandLine);

// The simple commands of a shell line, split at unquoted ";", "&&", "||",
// "|", "&" (not the one of a redirection such as "2>&1") and line ends;
// `startsPipeline` tells whether a command stands first in its pipeline.
struct ShellCommand {
  std::string text;                // as written, trimmed
  std::vector<std::string> words;  // quotes removed
  bool startsPipeline = true;
};
std::vector<ShellCommand> SplitShellLine(const std::string& line);

enum class TimeBound {
  kBounded,      // under timeout with a duration and --kill-after
  kNoTimeout,    // not under timeout, or timeout without a duration above 0
  kNoKillAfter,  // under timeout, but one that ignores SIGTERM is never killed
};

// How a command line is bounded. In the shell form every command that
// starts a pipeline must run under timeout (a later stage ends when its
// input does); in the launch form only the program named first counts.
// `unbounded` receives the first command that is not bounded, as written.
TimeBound CheckTimeBound(const std::string& commandLine, bool shellForm, std::string& unbounded);

// The first problem of the tool's $NAME/ expansion of `text`, done as the
// tool does it (left to right, a value's own variables expanded in turn).
struct VariableProblem {
  enum Kind {
    kNone,
    kUnset,    // `name` is unset or empty: the text keeps "$name/"
    kEndless,  // the expansion of `name` never ends (a value that names itself)
  } kind = kNone;
  std::string name;
};
VariableProblem CheckVariables(const std::string& text);

// A path with "//" and "/./" taken out, for comparing what runs with what
// was meant; ".." is left alone.
std::string LexicallyTidy(const std::string& path);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_COMMANDLINE_H_
