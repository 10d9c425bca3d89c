#include "Common/Utility/HostOSInfo.h"

#include <sys/utsname.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Common/Log/BoundedText.h"
#include "Common/Utility/sysutils.h"

bool readOSReleaseText(std::string& text, const HostPaths& paths) {
  text.clear();
  const std::string* chosen = nullptr;
  for (const std::string* candidate : {&paths.osRelease, &paths.procVersion, &paths.issue}) {
    if (fileExists(*candidate)) {
      chosen = candidate;
      break;
    }
  }
  if (chosen == nullptr)
    return false;

  std::ifstream in(*chosen);
  if (!in.is_open())
    return false;

  // The os-release file is a list of fields and is taken whole; the other
  // two sources hold a one-line description.
  if (chosen == &paths.osRelease) {
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
  }
  std::string line;
  std::getline(in, line);
  if (in.fail() && !in.eof())
    return false;
  text = line;
  return true;
}

bool getOSField(const std::string& text, const std::string& key, std::string& value) {
  if (text.empty() || key.empty())
    return false;
  value.clear();

  // Deliberately unanchored: "NAME=" is also found inside "PRETTY_NAME=" when
  // that line comes first, and the order of the lines decides.
  const size_t match = text.find(key + "=");
  if (match == std::string::npos)
    return false;
  const size_t start = match + key.size() + 1;
  if (start >= text.size())
    return false;

  if (text[start] == '"') {
    const size_t close = text.find('"', start + 1);
    if (close == std::string::npos)
      return false;
    value = text.substr(start + 1, close - start - 1);
    return true;
  }

  if (start + 1 >= text.size())
    return false;
  // The walk stops one short of the text's last character, so an unquoted
  // value that ends the text without a line feed loses its last character.
  const size_t last = text.size() - 1;
  size_t stop = start + 1;
  while (stop < last && std::isprint(static_cast<unsigned char>(text[stop])))
    ++stop;
  value = text.substr(start, stop - start);
  return true;
}

void getHostOSInfo(HostOSInfo& info, const HostPaths& paths) {
  std::memset(&info, 0, sizeof(info));
  info.type = HOST_OS_TYPE_LINUX;
  boundedCopy(info.name, "Linux", sizeof(info.name));

  std::string text;
  if (readOSReleaseText(text, paths)) {
    std::string name;
    std::string version;
    if (getOSField(text, "NAME", name) && getOSField(text, "VERSION", version)) {
      boundedFormat(info.version, sizeof(info.version), "%s %s", name.c_str(), version.c_str());
      return;
    }
  }

  utsname host;
  if (uname(&host) != 0) {
    boundedCopy(info.version, "Unknown", sizeof(info.version));
    return;
  }
  boundedFormat(info.version, sizeof(info.version), "%s %s %s %s", host.sysname, host.release,
                host.version, host.machine);
}

bool isLinux(const HostPaths& paths) {
  HostOSInfo info;
  getHostOSInfo(info, paths);
  return info.type == HOST_OS_TYPE_LINUX;
}

namespace {

bool ReleaseTextContains(const HostPaths& paths, const char* word) {
  std::string text;
  if (!readOSReleaseText(text, paths))
    return false;
  return CStringUtils::toLowerCopy(text).find(word) != std::string::npos;
}

}  // namespace

bool isUbuntu(const HostPaths& paths) {
  return ReleaseTextContains(paths, "ubuntu");
}

bool isRedHat(const HostPaths& paths) {
  return ReleaseTextContains(paths, "red hat");
}
