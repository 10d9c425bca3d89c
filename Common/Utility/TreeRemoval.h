// TreeRemoval: removes a folder with everything below it, reached only
// through opened folder descriptors.
//
// The folders removed here (a run's working folder, the leftovers of dead
// runs) lie in /tmp and hold what programs and copies put there. No link in
// them is ever followed and no mount below them is entered: a link is
// removed as a link, and a mounted folder is left with what lies in it. The
// walk holds at most two descriptors whatever the depth, and finds its way
// back up through "..", checked against the folder it came from, so depth
// is bounded neither by the descriptor limit nor by PATH_MAX.
//
// Stateless; any thread may call it. Nothing is logged, so that the
// interrupt guard may call it while it cleans up.
#ifndef COMMON_UTILITY_TREEREMOVAL_H_
#define COMMON_UTILITY_TREEREMOVAL_H_

#include <string>
#include <vector>

// Removes the entry `name` of the folder open at `folderFd` and, when it is
// a folder (not a link to one), everything below it. True when the name is
// gone afterwards (also when it was missing to begin with).
bool RemoveTreeAt(int folderFd, const std::string& name);

// The same for a path; the folder holding its last component is opened by
// path, so `path` must name something below a folder the caller trusts.
bool RemoveTree(const std::string& path);

// The names in the folder open at `folderFd`, "." and ".." left out, in the
// folder's own order; empty when it cannot be listed. The descriptor stays
// open and its position is not moved.
std::vector<std::string> NamesInFolder(int folderFd);

#endif  // COMMON_UTILITY_TREEREMOVAL_H_
