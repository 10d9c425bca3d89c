#include "Common/Utility/StoragePath.h"

#include <errno.h>
#include <pwd.h>
#include <unistd.h>

#include <vector>

#include "Common/Log/Log.h"
#include "Common/Log/ManualLock.h"
#include "Common/Utility/SingletonRegistry.h"

namespace {

const char kInstallRoot[] = "/opt/velon/tesselclient";
const char kResourcesPath[] = "/opt/velon/tesselclient/resources/";
const char kTempPath[] = "/tmp/";

// Built on first use and destroyed at process exit, after any static handle
// that was built before it was first used.
CSingletonRegistry<CStoragePath>& Registry() {
  static CSingletonRegistry<CStoragePath> registry;
  return registry;
}

const char* ModuleWord(StoragePathModule module) {
  switch (module) {
    case STORAGE_PATH_MODULE_VPN:
      return "vpn";
    case STORAGE_PATH_MODULE_NAC_POSTURE:
      return "nacposture";
    case STORAGE_PATH_MODULE_UI:
      return "ui";
  }
  return nullptr;
}

// The home folder of `userName`, or of the real user when it is empty.
bool LookUpHomeFolder(const std::string& userName, std::string* home) {
  long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 16384);
  passwd record;
  passwd* found = nullptr;
  for (;;) {
    int error = userName.empty()
                    ? getpwuid_r(getuid(), &record, buffer.data(), buffer.size(), &found)
                    : getpwnam_r(userName.c_str(), &record, buffer.data(), buffer.size(), &found);
    if (error != ERANGE || buffer.size() >= (1u << 20))
      break;
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr)
    return false;
  *home = found->pw_dir != nullptr ? found->pw_dir : "";
  return true;
}

}  // namespace

CStoragePath::CStoragePath(ResultCode* result) {
  *result = CSTORAGEPATH_ERROR_UNEXPECTED;
  m_installPath = std::string(kInstallRoot) + "/";
  m_installPathCopy = m_installPath;
  *result = 0;
}

CStoragePath::~CStoragePath() = default;

ResultCode CStoragePath::CreateSingletonInstance(CStoragePath** instance) {
  *instance = nullptr;
  // Creation belongs to single-threaded start-up; the lock costs nothing
  // there and keeps a stray second creator from racing the first.
  CManualLockGuard guard(Registry().lock());
  if (!Registry().vacant()) {
    // A second creator shares the instance.
    *instance = AcquireInstance();
    return 0;
  }
  ResultCode result = 0;
  CStoragePath* created = new CStoragePath(&result);
  if (result != 0) {
    ReleaseInstance(created);
    KLOG_RC(LOG_LEVEL_E, "CStoragePath::CStoragePath", result);
    return result;
  }
  Registry().install(created);
  *instance = created;
  return 0;
}

CStoragePath* CStoragePath::AcquireInstance() {
  return Registry().acquire();
}

void CStoragePath::ReleaseInstance(CStoragePath* instance) {
  Registry().release(instance);
}

uint32_t CStoragePath::GetAcquisitionCount() {
  return Registry().count();
}

std::string CStoragePath::GetInstallPath() const {
  return m_installPath;
}

std::string CStoragePath::GetResourcesPath() {
  return kResourcesPath;
}

std::string CStoragePath::GetBinPath() const {
  return m_installPath + "bin/";
}

std::string CStoragePath::GetVpnDataPath() const {
  return m_installPath + "vpn" + "/";
}

std::string CStoragePath::GetProfilePath(int32_t mode) const {
  return GetVpnDataPath() + (mode == 1 ? "profile/mgmttun" : "profile");
}

std::string CStoragePath::GetFeedbackModuleDataPath() const {
  return m_installPath + "CustomerExperienceFeedback" + "/" + "moduledata";
}

std::string CStoragePath::GetUserProgramDataPath(const std::string& userName) const {
  std::string home;
  if (!LookUpHomeFolder(userName, &home)) {
    KLOG_W("Error retrieving user pswd struct.");
    return std::string(".") + "/";
  }
  return home + "/";
}

std::string CStoragePath::GetModuleDataPath(StoragePathModule module, const std::string& userName,
                                            bool plain) const {
  std::string path = GetUserProgramDataPath(userName);
  const char* word = plain ? nullptr : ModuleWord(module);
  if (word != nullptr)
    path += std::string(".") + word + "/";
  return path;
}

std::string CStoragePath::GetProgramDataPath(bool perUser, StoragePathModule module,
                                             const std::string& userName, bool plain) const {
  if (perUser)
    return GetModuleDataPath(module, userName, plain);
  return GetVpnDataPath();
}

std::string CStoragePath::GetUILogPath() const {
  KLOG_W(
      "Call unsupported on CSIDL value provided to CStoragePath::GetUILogPath returned an empty "
      "string.");
  return std::string();
}

ResultCode CStoragePath::GetTempPath(std::string& path, size_t maxLength) const {
  path = kTempPath;
  if (maxLength < path.size())
    return CSTORAGEPATH_ERROR_TEMPPATH_TOO_BIG;
  return 0;
}
