#include "tools/KEEL/KEELCheck/KeelCheck.h"

#include <dirent.h>
#include <libxml/xmlerror.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "Common/Utility/ScopedHandles.h"
#include "tools/KEEL/KEELCheck/AccessCheck.h"
#include "tools/KEEL/KEELCheck/Finding.h"
#include "tools/KEEL/KEELCheck/InstructionFileCheck.h"
#include "tools/KEEL/KEELCheck/PlanReport.h"

namespace keelcheck {

namespace {

// Lines end in a bare line feed: the findings are for editors and tools
// such as grep, which read them in the form compilers write.
const char kLineEnd[] = "\n";

const char kUsage[] =
    "usage: keelcheck [--plan] [FILE|FOLDER]...\n"
    "Checks keelcli's instruction files as keelcli reads them. A FOLDER means\n"
    "every instruction file (\"*.xml\") in it; with neither, the folder xml/config/\n"
    "beside this program.\n"
    "  --plan      show what a bundle run would gather on this host now;\n"
    "              nothing is copied and nothing is run\n"
    "  -h, --help  show this text\n"
    "Exit status: 0 no finding, 1 findings, 2 cannot run.\n";

struct Options {
  bool plan = false;
  bool help = false;
  std::vector<std::string> paths;
};

// False (with the complaint on `err`) for an unknown option.
bool ParseOptions(const std::vector<std::string>& args, Options& options, std::ostream& err) {
  bool optionsEnd = false;
  for (const std::string& arg : args) {
    if (!optionsEnd && arg == "--") {
      optionsEnd = true;
    } else if (!optionsEnd && arg == "--plan") {
      options.plan = true;
    } else if (!optionsEnd && (arg == "-h" || arg == "--help")) {
      options.help = true;
    } else if (!optionsEnd && arg.size() > 1 && arg[0] == '-') {
      err << "keelcheck: unknown option " << arg << kLineEnd << kUsage;
      return false;
    } else {
      options.paths.push_back(arg);
    }
  }
  return true;
}

struct Target {
  std::string path;
  bool isFolder = false;
};

// False (with the complaint on `err`) when a path is not there.
bool ResolveTargets(const std::vector<std::string>& paths, std::vector<Target>& targets,
                    std::ostream& err) {
  for (const std::string& path : paths) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
      err << "keelcheck: cannot check " << path << ": " << strerror(errno) << kLineEnd;
      return false;
    }
    targets.push_back({path, S_ISDIR(info.st_mode)});
  }
  return true;
}

std::string WithSlash(const std::string& folder) {
  return !folder.empty() && folder.back() == '/' ? folder : folder + "/";
}

// One finding at the top of `shown` per writer problem not yet reported.
void AddAccessFindings(const std::vector<AccessProblem>& problems, const std::string& shown,
                       std::set<std::string>& reported, FindingList& findings) {
  for (const AccessProblem& problem : problems) {
    if (!reported.insert(problem.path).second)
      continue;
    Finding finding;
    finding.file = shown;
    if (problem.isFolder) {
      finding.text = "the folder " + problem.path + " can be changed by " + problem.writers +
                     ", who can then add or swap instruction files that keelcli runs as root; "
                     "make it owned by root and writable by root alone";
    } else {
      finding.text = "this file can be changed by " + problem.writers +
                     ", who can then choose what keelcli runs as root; make it owned by root "
                     "and writable by root alone";
    }
    findings.push_back(finding);
  }
}

class Checker {
 public:
  Checker(std::ostream& out) : m_out(out) {}

  void CheckFolder(const std::string& folder) {
    FindingList findings;
    AddAccessFindings(FolderAccessProblems(folder), WithSlash(folder), m_reported, findings);
    const std::vector<std::string> files = InstructionFilesIn(folder);
    if (files.empty()) {
      Finding finding;
      finding.file = WithSlash(folder);
      finding.text = "no instruction file (\"*.xml\") here, so keelcli finds nothing to gather";
      findings.push_back(finding);
    }
    Print(findings);
    for (const std::string& file : files)
      CheckFile(file);
  }

  void CheckFile(const std::string& file) {
    FindingList findings;
    AddAccessFindings(FileAccessProblems(file), file, m_reported, findings);
    FindingList read = CheckInstructionFile(file, file);
    findings.insert(findings.end(), read.begin(), read.end());
    Print(findings);
  }

  bool anyFinding() const { return m_anyFinding; }

 private:
  void Print(const FindingList& findings) {
    for (const Finding& finding : findings)
      m_out << FormatFinding(finding) << kLineEnd;
    m_anyFinding = m_anyFinding || !findings.empty();
  }

  std::ostream& m_out;
  std::set<std::string> m_reported;  // entries whose writers were reported
  bool m_anyFinding = false;
};

int RunPlan(const std::vector<Target>& targets, std::ostream& out) {
  PlanTotals totals;
  bool allRead = true;
  for (const Target& target : targets) {
    const std::vector<std::string> files =
        target.isFolder ? InstructionFilesIn(target.path) : std::vector<std::string>{target.path};
    for (const std::string& file : files)
      allRead = WritePlan(file, file, out, totals) && allRead;
  }
  WritePlanTotal(totals, out);
  return allRead ? kExitClean : kExitFindings;
}

void IgnoreLibxmlReport(void* /*context*/, const char* /*format*/, ...) {}

}  // namespace

std::vector<std::string> InstructionFilesIn(const std::string& folder) {
  std::vector<std::string> files;
  DirHandle dir(opendir(folder.c_str()));
  if (!dir)
    return files;
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    // As keelcli: the first ".xml" must end the name.
    const size_t found = name.find(".xml");
    if (found != std::string::npos && found + 4 == name.size())
      files.push_back(WithSlash(folder) + name);
  }
  std::sort(files.begin(), files.end());
  return files;
}

int RunKeelCheck(const std::vector<std::string>& args, const std::string& defaultFolder,
                 std::ostream& out, std::ostream& err) {
  Options options;
  if (!ParseOptions(args, options, err))
    return kExitCannotRun;
  if (options.help) {
    out << kUsage;
    return kExitClean;
  }
  if (options.paths.empty())
    options.paths.push_back(defaultFolder);
  std::vector<Target> targets;
  if (!ResolveTargets(options.paths, targets, err))
    return kExitCannotRun;

  // libxml2 would repeat on standard error what the findings already say.
  xmlSetGenericErrorFunc(nullptr, IgnoreLibxmlReport);
  if (options.plan)
    return RunPlan(targets, out);
  Checker checker(out);
  for (const Target& target : targets) {
    if (target.isFolder)
      checker.CheckFolder(target.path);
    else
      checker.CheckFile(target.path);
  }
  return checker.anyFinding() ? kExitFindings : kExitClean;
}

}  // namespace keelcheck
