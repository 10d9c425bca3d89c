// Paths, host lookups and text helpers of helperUtil.
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <locale>
#include <mutex>
#include <random>
#include <sstream>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/HostOSInfo.h"

namespace {

constexpr char kFallbackInstallFolder[] = "/opt/velon/tesselclient/keel/";
constexpr char kDesktopKey[] = "XDG_DESKTOP_DIR=\"";
constexpr size_t kDesktopKeyLength = sizeof(kDesktopKey) - 1;  // 17

// A variable whose value names itself would otherwise expand for ever; these
// bounds stop such a path long before memory runs out.
constexpr int kMaxExpansions = 1024;
constexpr size_t kMaxTranslatedLength = 1 << 20;

bool EndsWith(const std::string& text, char last) {
  return !text.empty() && text.back() == last;
}

}  // namespace

std::string helperUtil::translatePath(const std::string& path) {
  std::string result = path;
  for (int expansions = 0;; ++expansions) {
    const size_t dollar = result.find('$');
    if (dollar == std::string::npos)
      return result;
    const size_t slash = result.find('/', dollar);
    if (slash == std::string::npos)
      return result;
    if (expansions == kMaxExpansions || result.size() > kMaxTranslatedLength) {
      KLOG_E("Variables in path %s expand without end, translation stopped", path.c_str());
      return result;
    }

    const std::string name = result.substr(dollar + 1, slash - dollar - 1);
    std::string value = getEnvironmentVariable(name);
    if (value.empty()) {
      KLOG_E("Cannot determine environment variable %s, path %s cannot be translated", name.c_str(),
             result.c_str());
      return result;
    }
    // The value's own trailing "/" replaces the one that ended the name.
    if (!EndsWith(value, '/'))
      value += '/';
    result = result.substr(0, dollar) + value + result.substr(slash + 1);
  }
}

std::string helperUtil::getEnvironmentVariable(const std::string& name) {
  const std::string bare = (!name.empty() && name[0] == '$') ? name.substr(1) : name;
  const char* value = std::getenv(bare.c_str());
  return value != nullptr ? value : "";
}

std::string helperUtil::getSessionUser() {
  return getEnvironmentVariable("USER");
}

ResultCode helperUtil::GetSessionUsername(std::string& userName) {
  userName.clear();
  return KEELENGINE_ERROR_NOT_IMPLEMENTED;
}

bool helperUtil::isUserAdmin() {
  return false;
}

std::string helperUtil::getCurrentFolder() {
  std::vector<char> buffer(256, '\0');
  while (getcwd(buffer.data(), buffer.size()) == nullptr && errno == ERANGE)
    buffer.assign(buffer.size() + 256, '\0');
  buffer.back() = '\0';
  return buffer.data();
}

std::string helperUtil::toAbsolutePath(const std::string& path) {
  std::string current = getCurrentFolder();
  if (!EndsWith(current, '/'))
    current += '/';
  if (path.compare(0, 2, "./") == 0)
    return current + path.substr(2);
  if (path.find('/') == std::string::npos)
    return current + path;
  return path;
}

std::string helperUtil::getInstallFolder(const HostPaths& paths) {
  const std::string exeLink = paths.procRoot + "/" + std::to_string(getpid()) + "/exe";
  char target[2048];
  const ssize_t length = readlink(exeLink.c_str(), target, sizeof(target) - 1);
  if (length < 0)
    return kFallbackInstallFolder;
  const std::string text(target, static_cast<size_t>(length));
  const size_t lastSlash = text.rfind('/');
  return lastSlash == std::string::npos ? std::string() : text.substr(0, lastSlash + 1);
}

std::string helperUtil::getConfigFolder(const std::string& base) {
  std::string folder = base.empty() ? getInstallFolder() : base;
  if (!EndsWith(folder, '/'))
    folder += '/';
  return folder + "xml/config/";
}

std::string helperUtil::getDesktopFolder() {
  const std::string desktop = readDesktopFolder();
  return desktop.empty() ? "$HOME/Desktop/" : desktop;
}

std::string helperUtil::readDesktopFolder() {
  std::string file;
  const std::string configHome = getEnvironmentVariable("XDG_CONFIG_HOME");
  if (!configHome.empty()) {
    file = configHome + "/user-dirs.dirs";
  } else {
    const std::string home = getEnvironmentVariable("HOME");
    if (home.empty())
      return std::string();
    file = home + "/.config/user-dirs.dirs";
  }

  std::ifstream in(file);
  std::string result;
  std::string line;
  while (std::getline(in, line)) {
    const size_t p = line.find(kDesktopKey);
    if (p == std::string::npos)
      continue;
    // The length counts from the line's start rather than from the key, so a
    // key that does not open its line (leading blanks) carries the closing
    // quote and what follows it into the result. That is how the entry has
    // always been read, and it stays so.
    const size_t q = line.rfind('"');
    const size_t length = q >= kDesktopKeyLength ? q - kDesktopKeyLength : std::string::npos;
    result = line.substr(p + kDesktopKeyLength, length) + "/";
  }
  return result;
}

std::string helperUtil::getOsDescription() {
  HostOSInfo info;
  getHostOSInfo(info);
  return getOsDescription(info);
}

std::string helperUtil::getOsDescription(const HostOSInfo& info) {
  const std::string version(info.version, strnlen(info.version, sizeof(info.version)));
  switch (info.type) {
    case HOST_OS_TYPE_MACOS:
      return "macOS " + version;
    case HOST_OS_TYPE_LINUX:
      return std::string(info.name, strnlen(info.name, sizeof(info.name))) + ": " + version;
    default:
      return "Unknown: " + version;
  }
}

// ---- Text --------------------------------------------------------------------

bool helperUtil::wildcardMatch(const char* pattern, const char* name) {
  if (pattern == nullptr || name == nullptr)
    return false;
  // Iterative match: remember the last "*" and the name position it was
  // tried at; on a mismatch let that star swallow one more character.
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*name != '\0') {
    if (*pattern == '*') {
      star = pattern++;
      resume = name;
    } else if (*pattern == '?' || *pattern == *name) {
      ++pattern;
      ++name;
    } else if (star != nullptr) {
      pattern = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == '*')
    ++pattern;
  return *pattern == '\0';
}

bool helperUtil::wildcardMatch(const std::string& pattern, const std::string& name) {
  return wildcardMatch(pattern.c_str(), name.c_str());
}

std::string helperUtil::bundleFileName(const std::string& wanted, const std::string& found) {
  const std::string foundBase = splitBeforeLast(found, ".", false);
  const std::string foundExt = splitAfterLast(found, ".");
  if (wanted.empty())
    return foundBase.empty() ? foundExt : found;

  const std::string wantedBase = splitBeforeLast(wanted, ".", false);
  const std::string wantedExt = splitAfterLast(wanted, ".");
  if (!wantedBase.empty()) {
    if (!wantedExt.empty())
      return wantedBase + "__" + foundBase + "__" + foundExt + "." + wantedExt;
    return wantedBase + "__" + foundBase + "." + foundExt;
  }
  if (foundBase.empty())
    return "." + wantedExt + "__" + foundExt + "__";
  return "." + wantedExt + "__" + foundBase + "__" + foundExt;
}

std::string helperUtil::splitBeforeFirst(const std::string& text, const std::string& separator) {
  const size_t at = separator.empty() ? std::string::npos : text.find(separator);
  return at == std::string::npos ? text : text.substr(0, at);
}

std::string helperUtil::splitAfterFirst(const std::string& text, const std::string& separator) {
  const size_t at = separator.empty() ? std::string::npos : text.find(separator);
  return at == std::string::npos ? text : text.substr(at + separator.size());
}

std::string helperUtil::splitAfterLast(const std::string& text, const std::string& separator) {
  const size_t at = separator.empty() ? std::string::npos : text.rfind(separator);
  return at == std::string::npos ? text : text.substr(at + separator.size());
}

std::string helperUtil::splitBeforeLast(const std::string& text, const std::string& separator,
                                        bool keepSeparator) {
  size_t at = separator.empty() ? std::string::npos : text.rfind(separator);
  if (at == std::string::npos)
    return text;
  if (keepSeparator)
    return text.substr(0, at + separator.size());
  // Drop the whole run of separators that ends with the last one.
  while (at >= separator.size() &&
         text.compare(at - separator.size(), separator.size(), separator) == 0)
    at -= separator.size();
  return text.substr(0, at);
}

std::string helperUtil::formatFileSize(int precision, double size) {
  static const char* const kSuffixes[] = {"", "K", "M", "G", "T", "P", "E", "Z", "Y"};
  std::ostringstream text;
  text.imbue(std::locale::classic());
  if (size < 1024.0 || !std::isfinite(size)) {
    text << size << " bytes";
    return text.str();
  }
  size_t power = 0;
  double divisor = 1.0;
  while (divisor * 1024.0 <= size) {
    divisor *= 1024.0;
    ++power;
  }
  text.setf(std::ios::fixed, std::ios::floatfield);
  text.precision(precision < 0 ? 0 : precision);
  text << size / divisor;
  if (power < sizeof(kSuffixes) / sizeof(kSuffixes[0]))
    text << kSuffixes[power];
  else
    text << " bytes";
  return text.str();
}

std::string helperUtil::truncationTypeName(int32_t type) {
  switch (type) {
    case 0:
      return "Whole File";
    case 1:
      return "Data (front or end)";
    case 2:
      return "Truncate end";
    case 3:
      return "Truncate front";
    case 4:
      return "No";
    default:
      return "Unknown";
  }
}

int32_t helperUtil::randomNumber() {
  // From the system's random source: a number another user could predict
  // from the clock would let them make the run's fresh working-folder name
  // in advance.
  static std::mutex lock;
  static std::random_device source;
  std::uniform_int_distribution<int32_t> below(0, 99999);
  std::lock_guard<std::mutex> hold(lock);
  return below(source);
}

std::string helperUtil::stripLeadingBlanks(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  return first == std::string::npos ? std::string() : text.substr(first);
}
