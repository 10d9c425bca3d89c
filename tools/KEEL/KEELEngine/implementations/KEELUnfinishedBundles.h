// KEELUnfinishedBundles: the archive files that runs which died while
// zipping left beside their bundle path.
//
// An archive is written under a hidden temporary name in the bundle's
// folder (".", the bundle's name, ".", six random characters) and renamed
// to the bundle's name once whole. A run killed in between leaves the
// temporary file, which holds root's copies. A later run, when no other
// run of its user is alive (KEELWorkingFolder::removeLeftovers says so),
// removes such files of its user from the folder it writes its own bundle
// to. Links, other users' files and files with other names are never
// touched.
//
// Called by the engine on the main thread before collection starts.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELUNFINISHEDBUNDLES_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELUNFINISHEDBUNDLES_H_

#include <string>

// Whether `name` has the form of an unfinished archive's temporary name.
bool isUnfinishedBundleName(const std::string& name);

// Removes the unfinished archives of the running user from the folder of
// `bundlePath`; returns how many went.
int removeUnfinishedBundles(const std::string& bundlePath);

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELUNFINISHEDBUNDLES_H_
