#include "tools/KEEL/KEELEngine/implementations/KEELUnfinishedBundles.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/TreeRemoval.h"

namespace {

// The archive's temporary name holds at most this much of the bundle's.
constexpr size_t kNameInTemporary = 200;
constexpr size_t kRandomPart = 6;
const char kBundleExtension[] = ".zip";

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

bool isUnfinishedBundleName(const std::string& name) {
  // ".", the bundle's name (which ends in ".zip" unless cut), ".", and six
  // letters or digits.
  if (name.size() < 1 + 1 + 1 + kRandomPart || name[0] != '.')
    return false;
  const size_t dot = name.size() - kRandomPart - 1;
  if (name[dot] != '.')
    return false;
  for (size_t i = dot + 1; i < name.size(); ++i) {
    if (!isalnum(static_cast<unsigned char>(name[i])))
      return false;
  }
  const std::string bundle = name.substr(1, dot - 1);
  return EndsWith(bundle, kBundleExtension) || bundle.size() == kNameInTemporary;
}

int removeUnfinishedBundles(const std::string& bundlePath) {
  const size_t slash = bundlePath.rfind('/');
  const std::string folder =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : bundlePath.substr(0, slash));
  ScopedFd dir(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!dir.valid())
    return 0;  // the destination checks say why, if it matters
  int removed = 0;
  for (const std::string& name : NamesInFolder(dir.get())) {
    if (!isUnfinishedBundleName(name))
      continue;
    struct stat info;
    if (fstatat(dir.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(info.st_mode) || info.st_uid != geteuid() || info.st_nlink != 1)
      continue;
    if (unlinkat(dir.get(), name.c_str(), 0) == 0) {
      KLOG_I("Removed \"%s/%s\", the unfinished bundle of a run that is gone", folder.c_str(),
             name.c_str());
      ++removed;
    } else {
      KLOG_RC(LOG_LEVEL_W, "unlinkat", static_cast<ResultCode>(errno));
    }
  }
  return removed;
}
