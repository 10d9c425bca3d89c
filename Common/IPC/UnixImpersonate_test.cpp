#include "Common/IPC/UnixImpersonate.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/FakeDiskHost.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::ProcAt;

using keeltest::LogCapture;
using keeltest::TempDir;

using keeltest::RunInChild;

// The account tests switch to; skipped where it is missing or we are not root.
bool HaveNobody() {
  return getuid() == 0 && getpwnam("nobody") != nullptr;
}

TEST(UnixImpersonate, NullUserNameIsEmpty) {
  CUnixImpersonate user(nullptr);
  EXPECT_EQ(user.GetUserName(), "");
  EXPECT_FALSE(user.IsImpersonating());
}

TEST(UnixImpersonate, DestroyingAfterAFailedStartDoesNothing) {
  LogCapture capture;
  const uid_t euidBefore = geteuid();
  const gid_t egidBefore = getegid();
  size_t recordsBeforeDestruction = 0;
  {
    CUnixImpersonate user("keel-no-such-user");
    EXPECT_EQ(user.Start(), GLOBAL_ERROR_UNEXPECTED);
    EXPECT_FALSE(user.IsImpersonating());
    EXPECT_TRUE(capture.Contains("Invoked Function: getpwnam\n"));
    EXPECT_TRUE(capture.Contains("username: keel-no-such-user"));
    recordsBeforeDestruction = capture.logger().Records().size();
  }
  EXPECT_EQ(capture.logger().Records().size(), recordsBeforeDestruction);
  EXPECT_FALSE(capture.Contains("CUnixImpersonate::Stop"));
  EXPECT_EQ(geteuid(), euidBefore);
  EXPECT_EQ(getegid(), egidBefore);
}

TEST(UnixImpersonate, PermanentlyBecomingAnUnknownUserFails) {
  LogCapture capture;
  CUnixImpersonate user("keel-no-such-user");
  EXPECT_EQ(user.PermanentlyBecomeUser(), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.Contains("error: "));
  EXPECT_TRUE(capture.Contains("username: keel-no-such-user"));
  EXPECT_EQ(getuid(), geteuid());
}

TEST(UnixImpersonate, StartAndStopSwitchTheEffectiveIds) {
  if (!HaveNobody())
    GTEST_SKIP() << "needs root and the account nobody";
  const passwd* nobody = getpwnam("nobody");
  const uid_t uid = nobody->pw_uid;
  const gid_t gid = nobody->pw_gid;
  const int answer = RunInChild([uid, gid] {
    CUnixImpersonate user("nobody");
    if (user.Start() != 0)
      return 10;
    if (!user.IsImpersonating())
      return 11;
    if (geteuid() != uid || getegid() != gid)
      return 12;
    if (getuid() != 0)
      return 13;  // the real id stays, so the way back is open
    if (user.Stop() != 0)
      return 14;
    if (geteuid() != 0 || getegid() != 0 || user.IsImpersonating())
      return 15;
    return 0;
  });
  EXPECT_EQ(answer, 0);
}

TEST(UnixImpersonate, DestructorUndoesAStartThatTookEffect) {
  if (!HaveNobody())
    GTEST_SKIP() << "needs root and the account nobody";
  const int answer = RunInChild([] {
    {
      CUnixImpersonate user("nobody");
      if (user.Start() != 0)
        return 10;
      if (geteuid() == 0)
        return 11;
    }
    return geteuid() == 0 && getegid() == 0 ? 0 : 12;
  });
  EXPECT_EQ(answer, 0);
}

TEST(UnixImpersonate, PermanentSwitchHasNoWayBack) {
  if (!HaveNobody())
    GTEST_SKIP() << "needs root and the account nobody";
  const uid_t uid = getpwnam("nobody")->pw_uid;
  const int answer = RunInChild([uid] {
    {
      LogCapture capture;
      CUnixImpersonate user("nobody");
      if (user.PermanentlyBecomeUser() != 0)
        return 10;
      if (user.IsImpersonating())
        return 11;
      if (getuid() != uid || geteuid() != uid)
        return 12;
      if (setuid(0) == 0)
        return 13;
      // Destroying it attempts nothing.
    }
    return geteuid() == uid ? 0 : 14;
  });
  EXPECT_EQ(answer, 0);
}

TEST(UnixImpersonate, OwnerOfThisProcess) {
  std::string name;
  ASSERT_EQ(CUnixImpersonate::GetUsernameOwningProcess(getpid(), &name), 0u);
  const passwd* entry = getpwuid(getuid());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(name, entry->pw_name);
}

TEST(UnixImpersonate, OwnerIsReadFromTheProcessFolder) {
  if (!HaveNobody())
    GTEST_SKIP() << "needs root and the account nobody";
  TempDir dir;
  keeltest::WriteFile(dir.Sub("77/stat"), "");
  ASSERT_EQ(chown(dir.Sub("77").c_str(), getpwnam("nobody")->pw_uid, 0), 0);
  std::string name = "before";
  EXPECT_EQ(CUnixImpersonate::GetUsernameOwningProcess(77, &name, ProcAt(dir)), 0u);
  EXPECT_EQ(name, "nobody");
}

TEST(UnixImpersonate, OwnerWithoutAccountIsUnexpected) {
  constexpr uid_t kStrayUid = 54321;
  if (getuid() != 0 || getpwuid(kStrayUid) != nullptr)
    GTEST_SKIP() << "needs root and a uid without account";
  LogCapture capture;
  TempDir dir;
  keeltest::WriteFile(dir.Sub("78/stat"), "");
  ASSERT_EQ(chown(dir.Sub("78").c_str(), kStrayUid, 0), 0);
  std::string name = "before";
  EXPECT_EQ(CUnixImpersonate::GetUsernameOwningProcess(78, &name, ProcAt(dir)),
            GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(name, "before");
  EXPECT_TRUE(capture.Contains("Invoked Function: getpwuid\n"));
}

TEST(UnixImpersonate, OwnerOfAMissingProcessIsABadHandle) {
  LogCapture capture;
  TempDir dir;
  std::string name = "before";
  EXPECT_EQ(CUnixImpersonate::GetUsernameOwningProcess(79, &name, ProcAt(dir)),
            GLOBAL_ERROR_BAD_HANDLE);
  EXPECT_EQ(name, "before");
  EXPECT_TRUE(
      capture.Contains("Invoked Function: stat\nReturn Code: 2 (0x00000002)\n"
                       "Description: No such file or directory\n"));
  EXPECT_EQ(CUnixImpersonate::GetUsernameOwningProcess(79, nullptr, ProcAt(dir)),
            GLOBAL_ERROR_BAD_PARAMETER);
}

// Group records built by hand, handed out by name.
class FakeGroups {
 public:
  void Add(const std::string& name, gid_t gid, std::vector<std::string> members) {
    Entry entry;
    entry.name = name;
    entry.members = std::move(members);
    entry.gid = gid;
    m_entries.push_back(std::move(entry));
  }
  const group* Lookup(const char* name) {
    m_asked.push_back(name);
    for (Entry& entry : m_entries) {
      if (entry.name != name)
        continue;
      entry.pointers.clear();
      for (std::string& member : entry.members)
        entry.pointers.push_back(&member[0]);
      entry.pointers.push_back(nullptr);
      entry.record = group{};
      entry.record.gr_name = &entry.name[0];
      entry.record.gr_gid = entry.gid;
      entry.record.gr_mem = entry.pointers.data();
      return &entry.record;
    }
    return nullptr;
  }
  CUnixImpersonate::GroupLookup Function() {
    return [this](const char* name) { return Lookup(name); };
  }
  std::vector<std::string> m_asked;

 private:
  struct Entry {
    std::string name;
    gid_t gid = 0;
    std::vector<std::string> members;
    std::vector<char*> pointers;
    group record{};
  };
  std::vector<Entry> m_entries;
};

TEST(UnixImpersonate, PrimaryGroupAloneDoesNotMakeAnAdministrator) {
  // "keeladmin" has wheel (gid 10) as its primary group, which an account
  // record says and a group's member list does not.
  FakeGroups groups;
  groups.Add("wheel", 10, {});
  groups.Add("admin", 11, {"someone"});
  CUnixImpersonate user("keeladmin");
  EXPECT_FALSE(user.IsUserInAdminGroup(groups.Function()));
  EXPECT_EQ(groups.m_asked, (std::vector<std::string>{"admin", "wheel"}));
}

TEST(UnixImpersonate, MemberOfWheelIsAnAdministrator) {
  FakeGroups groups;
  groups.Add("wheel", 10, {"alice", "keeladmin"});
  EXPECT_TRUE(CUnixImpersonate("keeladmin").IsUserInAdminGroup(groups.Function()));
}

TEST(UnixImpersonate, AdminIsAskedFirstAndTheFirstMatchWins) {
  FakeGroups groups;
  groups.Add("admin", 11, {"keeladmin"});
  groups.Add("wheel", 10, {"keeladmin"});
  EXPECT_TRUE(CUnixImpersonate("keeladmin").IsUserInAdminGroup(groups.Function()));
  EXPECT_EQ(groups.m_asked, (std::vector<std::string>{"admin"}));
}

TEST(UnixImpersonate, MemberNamesAreComparedExactly) {
  FakeGroups groups;
  groups.Add("wheel", 10, {"KeelAdmin", "keeladmin2", "keeladmi"});
  EXPECT_FALSE(CUnixImpersonate("keeladmin").IsUserInAdminGroup(groups.Function()));
  EXPECT_FALSE(CUnixImpersonate("").IsUserInAdminGroup(groups.Function()));
}

TEST(UnixImpersonate, MissingGroupsMakeNobodyAnAdministrator) {
  FakeGroups groups;
  EXPECT_FALSE(CUnixImpersonate("root").IsUserInAdminGroup(groups.Function()));
  EXPECT_FALSE(CUnixImpersonate::GroupListsMember(nullptr, "root"));
}

TEST(UnixImpersonate, RealGroupsListNoUnknownAccount) {
  EXPECT_FALSE(CUnixImpersonate("keel-no-such-user").IsUserInAdminGroup());
}

}  // namespace
