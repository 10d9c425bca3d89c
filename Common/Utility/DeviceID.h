// The stable identifier of the host: the UUID of the file system that holds
// "/", in the text form of its link name below the by-uuid folder.
//
// The root device comes from the mount table; the UUID is the name of the
// first link in the by-uuid folder (in directory order) whose target ends in
// the same last path component. Nothing is cached: every call reads the
// host anew. The functions hold no state; they are called on the main thread.
#ifndef COMMON_UTILITY_DEVICEID_H_
#define COMMON_UTILITY_DEVICEID_H_

#include <string>

#include "Common/Utility/HostPaths.h"

// Clears `id`, then sets it to the UUID link name of the root file system.
// True when a non-empty id was found.
bool GetDeviceID(std::string& id, const HostPaths& paths = HostPaths());

// The last path component of the device that holds "/" (after one level of
// symbolic link), or the empty string.
std::string getDeviceNameForRoot(const HostPaths& paths = HostPaths());

// The target text of the symbolic link `path`, as it stands (not resolved),
// or the empty string when `path` is empty, missing or not a link.
std::string getTargetPath(const std::string& path);

#endif  // COMMON_UTILITY_DEVICEID_H_
