#include "Common/Utility/StoragePath.h"

#include <pwd.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "Common/Utility/InstanceSmartPtr.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::LogCapture;

// The shared instance, made or taken once more; the test fails when that is
// refused or gives no instance.
CStoragePath* Created() {
  CStoragePath* instance = nullptr;
  EXPECT_EQ(CStoragePath::CreateSingletonInstance(&instance), 0u);
  EXPECT_NE(instance, nullptr);
  return instance;
}

// Each test case runs in its own process, so every case starts with no
// instance and a count of 0.

TEST(StoragePath, SecondCreateSharesTheInstanceAndNeedsTwoReleases) {
  CStoragePath* first = Created();
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  CStoragePath* second = Created();
  EXPECT_EQ(second, first);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 2u);

  CStoragePath::ReleaseInstance(second);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  // Still alive: a new handle finds it.
  {
    CInstanceSmartPtr<CStoragePath> handle;
    EXPECT_EQ(handle.get(), first);
    EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 2u);
  }
  CStoragePath::ReleaseInstance(first);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 0u);
  EXPECT_EQ(CStoragePath::AcquireInstance(), nullptr);
}

TEST(StoragePath, AcquireBeforeCreationIsNullAndKeepsCountZero) {
  EXPECT_EQ(CStoragePath::AcquireInstance(), nullptr);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 0u);
  CInstanceSmartPtr<CStoragePath> handle;
  EXPECT_TRUE(handle.IsNull());
  EXPECT_FALSE(handle);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 0u);
}

TEST(StoragePath, CreationAfterLastReleaseMakesAFreshInstance) {
  CStoragePath* first = Created();
  CStoragePath::ReleaseInstance(first);
  EXPECT_EQ(CStoragePath::AcquireInstance(), nullptr);
  CStoragePath* again = Created();
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  CStoragePath::ReleaseInstance(again);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 0u);
}

TEST(StoragePath, ReleasingNullChangesNothing) {
  CStoragePath* instance = Created();
  CStoragePath::ReleaseInstance(nullptr);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  CStoragePath::ReleaseInstance(instance);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 0u);
}

TEST(InstanceSmartPtr, HandleTakesAndGivesBackOneReference) {
  CStoragePath* instance = Created();
  {
    CInstanceSmartPtr<CStoragePath> handle;
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle.get(), instance);
    EXPECT_EQ(handle->GetInstallPath(), "/opt/velon/tesselclient/");
    EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 2u);
  }
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  CStoragePath::ReleaseInstance(instance);
}

TEST(InstanceSmartPtr, EmptyHandleTakesOverTheCreatorsReference) {
  // The start-up pattern: a handle built before creation, then filled.
  auto* handle = new CInstanceSmartPtr<CStoragePath>();
  ASSERT_TRUE(handle->IsNull());
  CStoragePath* instance = Created();
  handle->ReplaceInstance(instance);
  EXPECT_EQ(handle->get(), instance);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  delete handle;  // the last reference: the instance goes
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 0u);
  EXPECT_EQ(CStoragePath::AcquireInstance(), nullptr);
}

TEST(InstanceSmartPtr, ReplacingGivesBackTheOldReference) {
  CStoragePath* instance = Created();
  CInstanceSmartPtr<CStoragePath> handle;  // count 2
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 2u);
  handle.ReplaceInstance(nullptr);
  EXPECT_TRUE(handle.IsNull());
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  CStoragePath::ReleaseInstance(instance);
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 0u);
}

class StoragePathAnswers : public ::testing::Test {
 protected:
  void SetUp() override { m_path = Created(); }
  void TearDown() override { CStoragePath::ReleaseInstance(m_path); }
  CStoragePath* m_path = nullptr;
};

TEST_F(StoragePathAnswers, FixedFoldersBelowTheInstallRoot) {
  EXPECT_EQ(m_path->GetInstallPath(), "/opt/velon/tesselclient/");
  EXPECT_EQ(CStoragePath::GetResourcesPath(), "/opt/velon/tesselclient/resources/");
  EXPECT_EQ(m_path->GetBinPath(), "/opt/velon/tesselclient/bin/");
  EXPECT_EQ(m_path->GetVpnDataPath(), "/opt/velon/tesselclient/vpn/");
  EXPECT_EQ(m_path->GetFeedbackModuleDataPath(),
            "/opt/velon/tesselclient/CustomerExperienceFeedback/moduledata");
}

TEST_F(StoragePathAnswers, ProfilePathModeOneIsTheManagementTunnelFolder) {
  EXPECT_EQ(m_path->GetProfilePath(1), "/opt/velon/tesselclient/vpn/profile/mgmttun");
  EXPECT_EQ(m_path->GetProfilePath(0), "/opt/velon/tesselclient/vpn/profile");
  EXPECT_EQ(m_path->GetProfilePath(2), "/opt/velon/tesselclient/vpn/profile");
  EXPECT_EQ(m_path->GetProfilePath(-1), "/opt/velon/tesselclient/vpn/profile");
}

TEST_F(StoragePathAnswers, TempPathTooShortStillFillsTheString) {
  std::string path = "something";
  EXPECT_EQ(m_path->GetTempPath(path, 4), 0xFE9E000Cu);
  EXPECT_EQ(m_path->GetTempPath(path, 4), CSTORAGEPATH_ERROR_TEMPPATH_TOO_BIG);
  EXPECT_EQ(path, "/tmp/");
  path.clear();
  EXPECT_EQ(m_path->GetTempPath(path, 5), 0u);
  EXPECT_EQ(path, "/tmp/");
  EXPECT_EQ(m_path->GetTempPath(path, 4096), 0u);
}

TEST_F(StoragePathAnswers, UserProgramDataPathIsTheHomeFolderOfTheUser) {
  passwd* self = getpwuid(getuid());
  ASSERT_NE(self, nullptr);
  const std::string ownHome = std::string(self->pw_dir) + "/";
  EXPECT_EQ(m_path->GetUserProgramDataPath(""), ownHome);
  EXPECT_EQ(m_path->GetUserProgramDataPath(self->pw_name), ownHome);
  passwd* root = getpwnam("root");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(m_path->GetUserProgramDataPath("root"), std::string(root->pw_dir) + "/");
}

TEST_F(StoragePathAnswers, UnknownUserGivesDotSlashAndAWarning) {
  LogCapture capture;
  EXPECT_EQ(m_path->GetUserProgramDataPath("no-such-user-keel-test"), "./");
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, LOG_LEVEL_W);
  EXPECT_NE(records[0].message.find("Function: GetUserProgramDataPath\n"), std::string::npos);
  EXPECT_NE(records[0].message.find("\nError retrieving user pswd struct."), std::string::npos);
}

TEST_F(StoragePathAnswers, ModuleDataPathAddsTheModuleDotFolder) {
  const std::string home = m_path->GetUserProgramDataPath("root");
  EXPECT_EQ(m_path->GetModuleDataPath(STORAGE_PATH_MODULE_VPN, "root", false), home + ".vpn/");
  EXPECT_EQ(m_path->GetModuleDataPath(STORAGE_PATH_MODULE_NAC_POSTURE, "root", false),
            home + ".nacposture/");
  EXPECT_EQ(m_path->GetModuleDataPath(STORAGE_PATH_MODULE_UI, "root", false), home + ".ui/");
}

TEST_F(StoragePathAnswers, ModuleDataPathUnknownModuleIsThePlainHomeFolder) {
  const std::string home = m_path->GetUserProgramDataPath("root");
  const std::string path =
      m_path->GetModuleDataPath(static_cast<StoragePathModule>(9), "root", false);
  EXPECT_EQ(path, home);
  EXPECT_EQ(path.back(), '/');
  EXPECT_EQ(path.find("/."), std::string::npos);
}

TEST_F(StoragePathAnswers, ModuleDataPathPlainFlagDropsTheWord) {
  const std::string home = m_path->GetUserProgramDataPath("root");
  EXPECT_EQ(m_path->GetModuleDataPath(STORAGE_PATH_MODULE_VPN, "root", true), home);
}

TEST_F(StoragePathAnswers, ProgramDataPathChoosesPerUserOrVpnFolder) {
  const std::string home = m_path->GetUserProgramDataPath("root");
  EXPECT_EQ(m_path->GetProgramDataPath(true, STORAGE_PATH_MODULE_UI, "root", false), home + ".ui/");
  EXPECT_EQ(m_path->GetProgramDataPath(false, STORAGE_PATH_MODULE_UI, "root", false),
            "/opt/velon/tesselclient/vpn/");
}

TEST_F(StoragePathAnswers, UILogPathIsEmptyAndWarns) {
  LogCapture capture;
  EXPECT_EQ(m_path->GetUILogPath(), "");
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, LOG_LEVEL_W);
  EXPECT_NE(records[0].message.find(
                "\nCall unsupported on CSIDL value provided to CStoragePath::GetUILogPath "
                "returned an empty string."),
            std::string::npos);
}

}  // namespace
