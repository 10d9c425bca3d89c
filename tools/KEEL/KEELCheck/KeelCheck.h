// The keelcheck program: the checker of keelcli's instruction files.
//
//   keelcheck [--plan] [FILE|FOLDER]...
//
// Reads each FILE, or every instruction file of each FOLDER (the names
// keelcli takes: those whose first ".xml" ends the name), through keelcli's
// own loader and action parsers, and prints one line per finding in the
// form compilers use. With no FILE or FOLDER it checks `defaultFolder`, the
// xml/config/ folder beside the program, which is what a keelcli beside it
// reads. With --plan it prints instead what a bundle run would gather on
// this host now.
//
// One call at a time (it sets libxml2's error handler of the thread).
#ifndef TOOLS_KEEL_KEELCHECK_KEELCHECK_H_
#define TOOLS_KEEL_KEELCHECK_KEELCHECK_H_

#include <ostream>
#include <string>
#include <vector>

namespace keelcheck {

// Exit statuses.
constexpr int kExitClean = 0;      // no finding (with --plan: every file read)
constexpr int kExitFindings = 1;   // findings (with --plan: a file the tool cannot read)
constexpr int kExitCannotRun = 2;  // bad option, or a path that is not there

// Runs the program with `args` (argv without the program name). Findings
// and the plan go to `out`, usage and complaints to `err`.
int RunKeelCheck(const std::vector<std::string>& args, const std::string& defaultFolder,
                 std::ostream& out, std::ostream& err);

// The instruction files of `folder` as keelcli takes them, sorted by name,
// each as the folder joined with its name.
std::vector<std::string> InstructionFilesIn(const std::string& folder);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_KEELCHECK_H_
