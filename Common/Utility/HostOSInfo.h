// What the tool runs on: the operating-system family and a one-line
// description of its release, read afresh from the host's release files on
// every call (nothing is cached).
//
// The release files are named by a HostPaths value, so that callers
// other than production (tests, tools) can point the lookups at their own
// files. All functions use local state only and may be called from any
// thread.
#ifndef COMMON_UTILITY_HOSTOSINFO_H_
#define COMMON_UTILITY_HOSTOSINFO_H_

#include <cstdint>
#include <string>

#include "Common/Utility/HostPaths.h"

// Family values of HostOSInfo::type. This build only ever produces
// HOST_OS_TYPE_LINUX; the others exist for code shared with other platforms.
constexpr uint32_t HOST_OS_TYPE_MACOS = 5;
constexpr uint32_t HOST_OS_TYPE_LINUX = 6;
constexpr uint32_t HOST_OS_TYPE_OTHER = 7;

// A plain, fixed-size record; getHostOSInfo zero-fills it before use.
struct HostOSInfo {
  uint32_t type;
  uint32_t major;  // stays 0 on this platform
  uint32_t minor;  // stays 0 on this platform
  char name[64];
  char version[256];
};

// The three release sources of HostPaths are tried in order; the first that
// exists is the only one read. The first is read whole, the other two by
// their first line only.

// Puts the release text into `text` (cleared first). False when no source
// exists or the chosen one can't be read.
bool readOSReleaseText(std::string& text, const HostPaths& paths = HostPaths());

// Looks up `key` + "=" anywhere in `text` (the first match wins, with no
// anchoring at a line start) and puts its value into `value`. A quoted value
// runs to the closing quote; an unquoted one runs over printable characters
// but never reaches the text's last character.
bool getOSField(const std::string& text, const std::string& key, std::string& value);

// Fills `info`: type Linux, name "Linux", and the version "NAME VERSION" of
// the release text, or the four uname fields, or "Unknown".
void getHostOSInfo(HostOSInfo& info, const HostPaths& paths = HostPaths());

// True when getHostOSInfo gives the Linux family, which on this build is
// always the case.
bool isLinux(const HostPaths& paths = HostPaths());
// The lower-cased release text contains "ubuntu", resp. "red hat".
bool isUbuntu(const HostPaths& paths = HostPaths());
bool isRedHat(const HostPaths& paths = HostPaths());

#endif  // COMMON_UTILITY_HOSTOSINFO_H_
