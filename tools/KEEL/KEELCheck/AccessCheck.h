// Who besides root could change what keelcli runs: the writers of an
// instruction file and of the folders on the way to it.
//
// keelcli runs as root and runs the programs its instruction files name. A
// file that another user can write, a drop-in folder where another user
// can add files, or a folder higher up where another user can swap the
// folder below for one of their own, all hand that user root's rights.
// Another user can write when they own the entry, when its group (other
// than root's own, or root's when it has members) may write it, or when
// everyone may. Above the drop-in folder a sticky folder (such as /tmp) is
// safe: there nobody can rename or remove another's entries. Access
// control lists are not looked at.
//
// Stateless; safe on any thread.
#ifndef TOOLS_KEEL_KEELCHECK_ACCESSCHECK_H_
#define TOOLS_KEEL_KEELCHECK_ACCESSCHECK_H_

#include <sys/stat.h>

#include <string>
#include <vector>

namespace keelcheck {

// Who besides root may change an entry with this status, e.g. "its owner
// (uid 1000)", "group users (gid 100)", "every user", joined by ", "; empty
// when nobody. `stickyGuards` says that a sticky folder counts as safe for
// every-user writes.
std::string OtherWriters(const struct stat& info, bool stickyGuards);

struct AccessProblem {
  std::string path;  // the entry (a folder ends in "/")
  bool isFolder = false;
  std::string writers;
};

// The file itself (links followed), then its folder and each folder above.
std::vector<AccessProblem> FileAccessProblems(const std::string& file);
// The folder, as a drop-in folder, and each folder above it.
std::vector<AccessProblem> FolderAccessProblems(const std::string& folder);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_ACCESSCHECK_H_
