// The fixed places on the host that the tool reads or works in.
//
// Every function that reads one of them takes a HostPaths, whose defaults
// are the real places; a test points them into a temporary folder. The
// engine hands its Env's paths down, so one value serves a whole run.
#ifndef COMMON_UTILITY_HOSTPATHS_H_
#define COMMON_UTILITY_HOSTPATHS_H_

#include <string>

struct HostPaths {
  // The process table: <procRoot>/<pid>/exe, <procRoot>/<pid>/stat, ...
  std::string procRoot = "/proc";
  // The mount table and the folder of links named by file-system UUID,
  // which together give the device identifier.
  std::string mountTable = "/etc/mtab";
  std::string byUuidFolder = "/dev/disk/by-uuid";
  // The three release sources, tried in this order.
  std::string osRelease = "/etc/os-release";
  std::string procVersion = "/proc/version";
  std::string issue = "/etc/issue";
  // Where a bundle run works before the bundle is zipped.
  std::string workingFolder = "/tmp/KEEL_Temp_Bundle";
};

#endif  // COMMON_UTILITY_HOSTPATHS_H_
