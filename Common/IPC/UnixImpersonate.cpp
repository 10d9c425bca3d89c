#include "Common/IPC/UnixImpersonate.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Log/Log.h"
#include "Common/Utility/sysutils.h"

namespace {

// Logs a failed system call with errno as the code and its text.
void LogSystemFailure(const char* function, unsigned line, const char* invoked, int error) {
  const std::string text = errnoText(error);
  LogDebugReturnCode(function, __FILE__, line, LOG_LEVEL_E, invoked, static_cast<ResultCode>(error),
                     text.c_str(), nullptr);
}

#define LOG_SYSTEM_FAILURE(invoked, error) LogSystemFailure(__func__, __LINE__, invoked, error)

const char* const kAdminGroups[] = {"admin", "wheel"};

}  // namespace

CUnixImpersonate::CUnixImpersonate(const char* userName)
    : m_userName(userName != nullptr ? userName : "") {}

CUnixImpersonate::~CUnixImpersonate() {
  if (!m_isImpersonating)
    return;
  const ResultCode code = Stop();
  if (code != 0)
    KLOG_RC(LOG_LEVEL_E, "CUnixImpersonate::Stop", code);
}

ResultCode CUnixImpersonate::impersonate(const passwd* entry, bool permanent) {
  if (entry == nullptr) {
    LOG_SYSTEM_FAILURE("getpwnam", errno);
    return GLOBAL_ERROR_NULL_POINTER;
  }
  if (initgroups(entry->pw_name, entry->pw_gid) != 0) {
    LOG_SYSTEM_FAILURE("initgroups", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  if (permanent) {
    if (setgid(entry->pw_gid) != 0) {
      LOG_SYSTEM_FAILURE("setgid", errno);
      return GLOBAL_ERROR_UNEXPECTED;
    }
    if (setuid(entry->pw_uid) != 0) {
      LOG_SYSTEM_FAILURE("setuid", errno);
      return GLOBAL_ERROR_UNEXPECTED;
    }
    return 0;
  }
  if (setegid(entry->pw_gid) != 0) {
    LOG_SYSTEM_FAILURE("setregid", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  if (seteuid(entry->pw_uid) != 0) {
    LOG_SYSTEM_FAILURE("seteuid", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  return 0;
}

ResultCode CUnixImpersonate::becomeUser(bool permanent) {
  errno = 0;
  const passwd* entry = getpwnam(m_userName.c_str());
  if (entry == nullptr) {
    const int error = errno;
    const std::string text = errnoText(error);
    KLOG_RC_FMT(LOG_LEVEL_E, "getpwnam", static_cast<ResultCode>(error), "error: %s; username: %s",
                text.c_str(), m_userName.c_str());
    return GLOBAL_ERROR_UNEXPECTED;
  }
  const ResultCode code = impersonate(entry, permanent);
  if (code != 0) {
    KLOG_RC(LOG_LEVEL_E, "CUnixImpersonate::impersonate", code);
    return code;
  }
  // A temporary change is undone by Stop; a permanent one leaves nothing to
  // undo.
  m_isImpersonating = !permanent;
  return 0;
}

ResultCode CUnixImpersonate::Start() {
  return becomeUser(false);
}

ResultCode CUnixImpersonate::PermanentlyBecomeUser() {
  return becomeUser(true);
}

ResultCode CUnixImpersonate::Stop() {
  errno = 0;
  const passwd* root = getpwuid(0);
  if (root == nullptr) {
    LOG_SYSTEM_FAILURE("getpwuid", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  // Group first: once the effective user is root again, the groups follow.
  if (setegid(root->pw_gid) != 0) {
    LOG_SYSTEM_FAILURE("setregid", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  if (seteuid(root->pw_uid) != 0) {
    LOG_SYSTEM_FAILURE("seteuid", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  if (initgroups(root->pw_name, root->pw_gid) != 0) {
    LOG_SYSTEM_FAILURE("initgroups", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  m_isImpersonating = false;
  return 0;
}

ResultCode CUnixImpersonate::GetUsernameOwningProcess(int32_t pid, std::string* name,
                                                      const HostPaths& paths) {
  if (name == nullptr)
    return GLOBAL_ERROR_BAD_PARAMETER;
  const std::string folder = paths.procRoot + "/" + std::to_string(pid);
  struct stat info;
  if (stat(folder.c_str(), &info) != 0) {
    LOG_SYSTEM_FAILURE("stat", errno);
    return GLOBAL_ERROR_BAD_HANDLE;
  }
  errno = 0;
  const passwd* entry = getpwuid(info.st_uid);
  if (entry == nullptr) {
    LOG_SYSTEM_FAILURE("getpwuid", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  if (entry->pw_name == nullptr)
    return GLOBAL_ERROR_NULL_POINTER;
  *name = entry->pw_name;
  return 0;
}

bool CUnixImpersonate::GroupListsMember(const group* entry, const std::string& userName) {
  if (entry == nullptr || entry->gr_mem == nullptr)
    return false;
  for (char** member = entry->gr_mem; *member != nullptr; ++member) {
    if (userName == *member)
      return true;
  }
  return false;
}

bool CUnixImpersonate::IsUserInAdminGroup(const GroupLookup& lookup) const {
  for (const char* groupName : kAdminGroups) {
    if (GroupListsMember(lookup(groupName), m_userName))
      return true;
  }
  return false;
}

bool CUnixImpersonate::IsUserInAdminGroup() const {
  return IsUserInAdminGroup([](const char* name) -> const group* { return getgrnam(name); });
}
