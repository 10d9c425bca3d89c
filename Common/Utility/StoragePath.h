// CStoragePath: where the client family keeps its files on this host.
//
// A reference-counted singleton. Start-up creates it once; anyone who needs a
// folder takes a CInstanceSmartPtr<CStoragePath>, asks and lets go. Almost
// every answer is a constant below the install root. Creation happens during
// single-threaded start-up; taking and dropping references and reading the
// count are guarded by one process-wide lock, so handles may be used on any
// thread. The strings never change after construction, so the answers need no
// lock. Every answer is a new string.
#ifndef COMMON_UTILITY_STORAGEPATH_H_
#define COMMON_UTILITY_STORAGEPATH_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/Result/ResultCode.h"

// The module argument of the per-user folders. Values outside the list are
// accepted and have no folder word.
enum StoragePathModule : int32_t {
  STORAGE_PATH_MODULE_VPN = 1,          // ".vpn/"
  STORAGE_PATH_MODULE_NAC_POSTURE = 2,  // ".nacposture/"
  STORAGE_PATH_MODULE_UI = 3,           // ".ui/"
};

template <typename T>
class CSingletonRegistry;

class CStoragePath {
 public:
  // Lifetime.

  // Sets *instance to null, then: with no instance, makes one with a count
  // of 1 and hands it out; otherwise hands out the existing one with one
  // more reference. Returns 0, or the constructor's failure.
  static ResultCode CreateSingletonInstance(CStoragePath** instance);
  // The instance with one more reference, or null when there is none.
  static CStoragePath* AcquireInstance();
  // Drops one reference of the stored instance and destroys it with the
  // last one. A pointer that is not the stored instance is destroyed at once.
  static void ReleaseInstance(CStoragePath* instance);
  // The acquisition count, for leak checks.
  static uint32_t GetAcquisitionCount();

  // Answers.

  // "/opt/velon/tesselclient/"
  std::string GetInstallPath() const;
  // "/opt/velon/tesselclient/resources/", whatever the object holds.
  static std::string GetResourcesPath();
  // install root + "bin/"
  std::string GetBinPath() const;
  // install root + "vpn/"
  std::string GetVpnDataPath() const;
  // GetVpnDataPath() + "profile/mgmttun" for mode 1, else + "profile"; no
  // trailing slash.
  std::string GetProfilePath(int32_t mode) const;
  // install root + "CustomerExperienceFeedback/moduledata"; no trailing slash.
  std::string GetFeedbackModuleDataPath() const;
  // The home folder of `userName` (of the real user when empty) + "/", or
  // "./" with a warning when the user can't be found.
  std::string GetUserProgramDataPath(const std::string& userName) const;
  // GetUserProgramDataPath, then "." + the module's word + "/" when the
  // module has a word and `plain` is false.
  std::string GetModuleDataPath(StoragePathModule module, const std::string& userName,
                                bool plain) const;
  // GetModuleDataPath with `perUser`, GetVpnDataPath without.
  std::string GetProgramDataPath(bool perUser, StoragePathModule module,
                                 const std::string& userName, bool plain) const;
  // Not supported here: logs a warning and answers "".
  std::string GetUILogPath() const;
  // Puts "/tmp/" into `path`; CSTORAGEPATH_ERROR_TEMPPATH_TOO_BIG when
  // `maxLength` is shorter than that text, 0 otherwise.
  ResultCode GetTempPath(std::string& path, size_t maxLength) const;

 private:
  // The last release deletes the instance.
  friend class CSingletonRegistry<CStoragePath>;

  explicit CStoragePath(ResultCode* result);
  ~CStoragePath();
  CStoragePath(const CStoragePath&) = delete;
  CStoragePath& operator=(const CStoragePath&) = delete;

  std::string m_installPath;
  // A second copy of the root, which the family's other platforms compute
  // differently from the first.
  std::string m_installPathCopy;
};

#endif  // COMMON_UTILITY_STORAGEPATH_H_
