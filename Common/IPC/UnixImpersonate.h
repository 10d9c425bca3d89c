// Changes the identity of the calling process to that of one account.
//
// Start/Stop switch the effective user and group for a while (the destructor
// undoes a Start that took effect); PermanentlyBecomeUser switches the real
// ones too, with no way back, as a child does just before exec.
//
// Identity belongs to the process, so Start and Stop act on every thread.
// There is no lock: one thread uses an object, ideally in a process that has
// only that thread.
#ifndef COMMON_IPC_UNIXIMPERSONATE_H_
#define COMMON_IPC_UNIXIMPERSONATE_H_

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "Common/Result/ResultCode.h"
#include "Common/Utility/HostPaths.h"

class CUnixImpersonate {
 public:
  // Looks up a group record by name; null when there is none.
  typedef std::function<const group*(const char* name)> GroupLookup;

  // A null `userName` gives an empty one.
  explicit CUnixImpersonate(const char* userName);
  virtual ~CUnixImpersonate();

  CUnixImpersonate(const CUnixImpersonate&) = delete;
  CUnixImpersonate& operator=(const CUnixImpersonate&) = delete;

  // Takes on the account's groups and effective ids until Stop.
  ResultCode Start();
  // Back to root's effective ids and groups.
  ResultCode Stop();
  // Takes on the account's groups, real and effective ids for good.
  ResultCode PermanentlyBecomeUser();

  // The name of the account owning `pid`, from the owner of its folder under
  // the process table.
  static ResultCode GetUsernameOwningProcess(int32_t pid, std::string* name,
                                             const HostPaths& paths = HostPaths());

  // True when the account is listed as a member of "admin" or "wheel". The
  // account's primary group is not looked at.
  bool IsUserInAdminGroup() const;
  // The same over group records from `lookup`.
  bool IsUserInAdminGroup(const GroupLookup& lookup) const;
  // True when `entry` lists `userName` among its members, compared exactly.
  static bool GroupListsMember(const group* entry, const std::string& userName);

  const std::string& GetUserName() const { return m_userName; }
  bool IsImpersonating() const { return m_isImpersonating; }

 private:
  // The shared step of Start and PermanentlyBecomeUser.
  ResultCode impersonate(const passwd* entry, bool permanent);
  // Looks the account up and takes its identity, for a while or for good.
  ResultCode becomeUser(bool permanent);

  std::string m_userName;
  bool m_isImpersonating = false;
};

#endif  // COMMON_IPC_UNIXIMPERSONATE_H_
