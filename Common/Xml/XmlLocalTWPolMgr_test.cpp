#include "Common/Xml/XmlLocalTWPolMgr.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "Common/Utility/InstanceSmartPtr.h"
#include "Common/Utility/StoragePath.h"
#include "Common/Xml/xml_testsupport.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::LogCapture;
using keeltest::TempDir;

const char kNewerWarning[] =
    "The parsed Local Security Policy File version is newer than the current Velon Tessel "
    "Client. Unexpected behaviors can result.";
const char kStructureWarning[] = "Local Policy XML structure is incorrect.";

// A created manager, released at the end of the case, and a folder for the
// document.
class LocalPolicy : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(XmlLocalTWPolMgr::CreateSingletonInstance(&m_manager), 0u);
    ASSERT_NE(m_manager, nullptr);
  }
  void TearDown() override { XmlLocalTWPolMgr::ReleaseInstance(m_manager); }

  std::string Folder() const { return m_dir.path() + "/"; }

  // Writes `body` inside the root element (with `rootAttributes`) and loads.
  ResultCode LoadBody(const std::string& body, const std::string& rootAttributes = "") {
    WriteDocument("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TidewalkerLocalPolicy" +
                  rootAttributes + ">\n" + body + "\n</TidewalkerLocalPolicy>\n");
    return m_manager->LoadLocalTidewalkerPolicy(Folder());
  }
  void WriteDocument(const std::string& text) {
    ASSERT_TRUE(keeltest::WriteFile(m_dir.Sub("TidewalkerLocalPolicy.xml"), text));
  }
  LocalTWPolicyInfo Info() const { return m_manager->getLocalPolicyInfo(); }

  TempDir m_dir;
  XmlLocalTWPolMgr* m_manager = nullptr;
};

// Singleton rules.

TEST(LocalPolicySingleton, SecondCreationIsRefused) {
  XmlLocalTWPolMgr* first = nullptr;
  ASSERT_EQ(XmlLocalTWPolMgr::CreateSingletonInstance(&first), 0u);
  ASSERT_NE(first, nullptr);
  XmlLocalTWPolMgr* second = reinterpret_cast<XmlLocalTWPolMgr*>(0x1);
  EXPECT_EQ(XmlLocalTWPolMgr::CreateSingletonInstance(&second),
            XMLLOCALTWPOLMGR_ERROR_ALREADY_INITIALIZED);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(XmlLocalTWPolMgr::GetAcquisitionCount(), 1u);
  // A second user acquires instead.
  XmlLocalTWPolMgr* shared = XmlLocalTWPolMgr::AcquireInstance();
  EXPECT_EQ(shared, first);
  EXPECT_EQ(XmlLocalTWPolMgr::GetAcquisitionCount(), 2u);
  XmlLocalTWPolMgr::ReleaseInstance(shared);
  XmlLocalTWPolMgr::ReleaseInstance(first);
  EXPECT_EQ(XmlLocalTWPolMgr::GetAcquisitionCount(), 0u);
}

TEST(LocalPolicySingleton, CreationAfterLastReleaseSucceeds) {
  XmlLocalTWPolMgr* first = nullptr;
  ASSERT_EQ(XmlLocalTWPolMgr::CreateSingletonInstance(&first), 0u);
  XmlLocalTWPolMgr::ReleaseInstance(first);
  EXPECT_EQ(XmlLocalTWPolMgr::AcquireInstance(), nullptr);
  EXPECT_EQ(XmlLocalTWPolMgr::GetAcquisitionCount(), 0u);
  XmlLocalTWPolMgr* again = nullptr;
  ASSERT_EQ(XmlLocalTWPolMgr::CreateSingletonInstance(&again), 0u);
  ASSERT_NE(again, nullptr);
  XmlLocalTWPolMgr::ReleaseInstance(again);
}

TEST(LocalPolicySingleton, HandleBeforeCreationIsNullAndCanTakeTheInstanceOver) {
  CInstanceSmartPtr<XmlLocalTWPolMgr> handle;
  EXPECT_TRUE(handle.IsNull());
  XmlLocalTWPolMgr* created = nullptr;
  ASSERT_EQ(XmlLocalTWPolMgr::CreateSingletonInstance(&created), 0u);
  handle.ReplaceInstance(created);
  EXPECT_EQ(handle.get(), created);
  EXPECT_EQ(XmlLocalTWPolMgr::GetAcquisitionCount(), 1u);
  handle.ReplaceInstance(nullptr);
  EXPECT_EQ(XmlLocalTWPolMgr::AcquireInstance(), nullptr);
}

// The record.

TEST(LocalPolicyRecord, DefaultsAfterConstruction) {
  LocalTWPolicyInfo info;
  EXPECT_EQ(info.getVersion(), "");
  EXPECT_FALSE(info.getFipsMode());
  EXPECT_FALSE(info.getBypassDownloader());
  EXPECT_FALSE(info.getBypassDefaultLocalization());
  EXPECT_FALSE(info.getRestrictScriptWebDeploy());
  EXPECT_FALSE(info.getRestrictHelpWebDeploy());
  EXPECT_FALSE(info.getRestrictResourceWebDeploy());
  EXPECT_FALSE(info.getRestrictLocalizationWebDeploy());
  EXPECT_FALSE(info.getRestrictWebLaunch());
  EXPECT_FALSE(info.getStrictCertificateTrust());
  EXPECT_FALSE(info.getEnableCRLCheck());
  EXPECT_FALSE(info.getOCSPRevocation());
  EXPECT_EQ(info.getRestrictPreferenceCaching().to_ulong(), 1ul);
  EXPECT_EQ(info.getRestrictTunnelProtocols(), 0u);
  EXPECT_EQ(info.getExcludedCertStores(), 0u);
  EXPECT_FALSE(info.getRestrictServerCertStore());
  EXPECT_TRUE(info.getAllowSoftwareUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowComplianceModuleUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowVPNProfileUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowManagementVPNProfileUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowNACProfileUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowServiceProfileUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowScriptUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowHelpUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowResourceUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAllowLocalizationUpdatesFromAnyServer());
  EXPECT_TRUE(info.getAuthorizedServerList().empty());
  EXPECT_FALSE(info.isServerCertStoreRestricted());
}

TEST(LocalPolicyRecord, CopyAndAssignmentCarryEveryField) {
  LocalTWPolicyInfo info;
  info.setVersion("1.2");
  info.setBypassDefaultLocalization(true);
  info.setAllowHelpUpdatesFromAnyServer(false);
  info.addExcludedCertStores(kExcludePemFileCertStore);
  info.addAuthorizedServer("a.example");
  info.setRestrictTunnelProtocols(TUNNEL_PROTOCOLS_IPSEC);
  LocalTWPolicyInfo copy(info);
  EXPECT_EQ(copy.getVersion(), "1.2");
  EXPECT_TRUE(copy.getBypassDefaultLocalization());
  EXPECT_FALSE(copy.getAllowHelpUpdatesFromAnyServer());
  EXPECT_TRUE(copy.isPemFileCertStoreExcluded());
  EXPECT_EQ(copy.getAuthorizedServerList(), std::vector<std::string>{"a.example"});
  EXPECT_EQ(copy.getRestrictTunnelProtocols(), 2u);
  LocalTWPolicyInfo assigned;
  assigned = info;
  EXPECT_EQ(assigned.getVersion(), "1.2");
  EXPECT_EQ(assigned.getExcludedCertStores(), kExcludePemFileCertStore);
  assigned.ResetToDefaults();
  EXPECT_EQ(assigned.getVersion(), "");
  EXPECT_TRUE(assigned.getAllowHelpUpdatesFromAnyServer());
  EXPECT_EQ(assigned.getExcludedCertStores(), 0u);
}

TEST(LocalPolicyRecord, ServerCertStoreRestrictedByEitherFlag) {
  LocalTWPolicyInfo info;
  info.setStrictCertificateTrust(true);
  EXPECT_TRUE(info.isServerCertStoreRestricted());
  info.setStrictCertificateTrust(false);
  info.setRestrictServerCertStore(true);
  EXPECT_TRUE(info.isServerCertStoreRestricted());
}

// Loading and FIPS.

TEST_F(LocalPolicy, NoDocumentGivesDefaultsAndNoLogLine) {
  LogCapture capture;
  EXPECT_EQ(m_manager->LoadLocalTidewalkerPolicy(Folder()), 0u);
  EXPECT_TRUE(capture.logger().Records().empty());
  EXPECT_EQ(m_manager->getFipsState(), FIPS_STATE_NOT_SETTLED);
  EXPECT_TRUE(Info().getAllowHelpUpdatesFromAnyServer());
  EXPECT_FALSE(Info().getFipsMode());
}

TEST_F(LocalPolicy, FipsTrueEnablesAndLogsIt) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<FipsMode>true</FipsMode>"), 0u);
  EXPECT_EQ(capture.Count("\nFIPS mode is enabled."), 1u);
  EXPECT_FALSE(capture.Contains("FIPS mode is disabled."));
  EXPECT_TRUE(Info().getFipsMode());
  EXPECT_EQ(m_manager->getFipsState(), FIPS_STATE_ENABLED);
  EXPECT_TRUE(m_manager->isFipsModeEnabled());
  EXPECT_FALSE(m_manager->isFipsModeChanged());
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, LOG_LEVEL_I);
  EXPECT_NE(records[0].message.find("Function: LoadLocalTidewalkerPolicy\n"), std::string::npos);
}

TEST_F(LocalPolicy, FipsUpperCaseTrueIsDisabled) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<FipsMode>TRUE</FipsMode>"), 0u);
  EXPECT_EQ(capture.Count("\nFIPS mode is disabled."), 1u);
  EXPECT_FALSE(Info().getFipsMode());
  EXPECT_EQ(m_manager->getFipsState(), FIPS_STATE_DISABLED);
}

TEST_F(LocalPolicy, DocumentWithoutFipsModeIsDisabled) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<BypassDownloader>true</BypassDownloader>"), 0u);
  EXPECT_EQ(capture.Count("\nFIPS mode is disabled."), 1u);
  EXPECT_EQ(m_manager->getFipsState(), FIPS_STATE_DISABLED);
}

TEST_F(LocalPolicy, FirstLoadSettlesFipsAndLaterLoadsOnlyNoteAChange) {
  EXPECT_EQ(LoadBody("<FipsMode>true</FipsMode>"), 0u);
  LogCapture capture;
  EXPECT_EQ(LoadBody("<FipsMode>false</FipsMode>"), 0u);
  EXPECT_EQ(capture.Count("\nFIPS mode is enabled."), 1u);
  EXPECT_TRUE(Info().getFipsMode());
  EXPECT_EQ(m_manager->getFipsState(), FIPS_STATE_ENABLED);
  EXPECT_TRUE(m_manager->isFipsModeChanged());
  // The same value again: no change noted.
  EXPECT_EQ(LoadBody("<FipsMode>true</FipsMode>"), 0u);
  EXPECT_FALSE(m_manager->isFipsModeChanged());
}

TEST_F(LocalPolicy, DisabledStaysDisabledWhenALaterDocumentSaysTrue) {
  EXPECT_EQ(LoadBody(""), 0u);
  EXPECT_EQ(LoadBody("<FipsMode>true</FipsMode>"), 0u);
  EXPECT_FALSE(Info().getFipsMode());
  EXPECT_TRUE(m_manager->isFipsModeChanged());
}

TEST_F(LocalPolicy, ReloadResetsTheRecordButKeepsTheFipsState) {
  EXPECT_EQ(LoadBody("<FipsMode>true</FipsMode><BypassDownloader>true</BypassDownloader>"
                     "<UpdatePolicy><AuthorizedServerList><ServerName>a</ServerName>"
                     "</AuthorizedServerList></UpdatePolicy>"),
            0u);
  EXPECT_TRUE(Info().getBypassDownloader());
  ASSERT_EQ(unlink(m_dir.Sub("TidewalkerLocalPolicy.xml").c_str()), 0);
  LogCapture capture;
  EXPECT_EQ(m_manager->LoadLocalTidewalkerPolicy(Folder()), 0u);
  EXPECT_TRUE(capture.logger().Records().empty());
  EXPECT_FALSE(Info().getBypassDownloader());
  EXPECT_TRUE(Info().getAuthorizedServerList().empty());
  // The record's own FIPS flag is reset; the manager's state is not.
  EXPECT_FALSE(Info().getFipsMode());
  EXPECT_EQ(m_manager->getFipsState(), FIPS_STATE_ENABLED);
}

TEST_F(LocalPolicy, MalformedDocumentReturnsTheParserCodeAndKeepsWhatWasRead) {
  WriteDocument(
      "<?xml version=\"1.0\"?>\n<TidewalkerLocalPolicy>\n"
      "<BypassDownloader>true</BypassDownloader>\n<FipsMode>true</FipsMode>\n"
      "<RestrictWebLaunch>true</Broken>\n<EnableCRLCheck>true</EnableCRLCheck>\n"
      "</TidewalkerLocalPolicy>\n");
  LogCapture capture;
  EXPECT_EQ(m_manager->LoadLocalTidewalkerPolicy(Folder()), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(capture.Contains("Invoked Function: XmlParser::parseFile\n"));
  EXPECT_FALSE(capture.Contains("FIPS mode is"));
  EXPECT_TRUE(Info().getBypassDownloader());
  EXPECT_FALSE(Info().getEnableCRLCheck());
  EXPECT_EQ(m_manager->getFipsState(), FIPS_STATE_NOT_SETTLED);
  EXPECT_FALSE(Info().getFipsMode());
}

TEST_F(LocalPolicy, EmptyDocumentFileFailsToParse) {
  WriteDocument("");
  LogCapture capture;
  EXPECT_EQ(m_manager->LoadLocalTidewalkerPolicy(Folder()), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_FALSE(capture.Contains("FIPS mode is"));
}

TEST_F(LocalPolicy, FolderInPlaceOfTheDocumentCountsAsNoDocument) {
  ASSERT_EQ(mkdir(m_dir.Sub("TidewalkerLocalPolicy.xml").c_str(), 0755), 0);
  LogCapture capture;
  EXPECT_EQ(m_manager->LoadLocalTidewalkerPolicy(Folder()), 0u);
  EXPECT_FALSE(capture.Contains("FIPS mode is"));
}

// Version check.

TEST_F(LocalPolicy, LongerVersionIsNewerAndTheLoadGoesOn) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<BypassDownloader>true</BypassDownloader>", " twversion=\"5.1.9.113.1\""),
            0u);
  EXPECT_EQ(capture.Count(kNewerWarning), 1u);
  EXPECT_EQ(Info().getVersion(), "5.1.9.113.1");
  EXPECT_TRUE(Info().getBypassDownloader());
  EXPECT_TRUE(capture.Contains("FIPS mode is disabled."));
  size_t seen = 0;
  for (const auto& record : capture.logger().Records()) {
    if (record.message.find(kNewerWarning) != std::string::npos) {
      ++seen;
      EXPECT_EQ(record.level, LOG_LEVEL_W);
      EXPECT_NE(record.message.find("Function: addAttribute\n"), std::string::npos);
    }
  }
  EXPECT_EQ(seen, 1u);
}

TEST_F(LocalPolicy, ShorterVersionIsOlder) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("", " twversion=\"5.1.9\""), 0u);
  EXPECT_FALSE(capture.Contains(kNewerWarning));
  EXPECT_EQ(Info().getVersion(), "5.1.9");
}

TEST_F(LocalPolicy, TrailingZeroVersionIsEqual) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("", " twversion=\"5.1.9.113.0\""), 0u);
  EXPECT_FALSE(capture.Contains(kNewerWarning));
}

TEST_F(LocalPolicy, CommaSeparatedVersionIsCompared) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("", " twversion=\"5,1,10\""), 0u);
  EXPECT_EQ(capture.Count(kNewerWarning), 1u);
  EXPECT_EQ(Info().getVersion(), "5,1,10");
}

TEST_F(LocalPolicy, SameVersionIsNotNewer) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("", " twversion=\"5.1.9.113\""), 0u);
  EXPECT_FALSE(capture.Contains(kNewerWarning));
}

TEST_F(LocalPolicy, VersionAttributeIsTrimmed) {
  EXPECT_EQ(LoadBody("", " twversion=\"  5.1.9.113 \""), 0u);
  EXPECT_EQ(Info().getVersion(), "5.1.9.113");
}

TEST_F(LocalPolicy, VersionOnAnotherElementIsIgnored) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<BypassDownloader twversion=\"9.9\">true</BypassDownloader>"), 0u);
  EXPECT_EQ(Info().getVersion(), "");
  EXPECT_FALSE(capture.Contains(kNewerWarning));
}

// Keys.

TEST_F(LocalPolicy, EveryPlainFlagIsSetByExactTrue) {
  EXPECT_EQ(LoadBody("<BypassDownloader>true</BypassDownloader>"
                     "<BypassDefaultLocalization>true</BypassDefaultLocalization>"
                     "<RestrictScriptWebDeploy>true</RestrictScriptWebDeploy>"
                     "<RestrictHelpWebDeploy>true</RestrictHelpWebDeploy>"
                     "<RestrictResourceWebDeploy>true</RestrictResourceWebDeploy>"
                     "<RestrictLocalizationWebDeploy>true</RestrictLocalizationWebDeploy>"
                     "<RestrictWebLaunch>true</RestrictWebLaunch>"
                     "<StrictCertificateTrust>true</StrictCertificateTrust>"
                     "<EnableCRLCheck>true</EnableCRLCheck>"
                     "<OCSPRevocation>true</OCSPRevocation>"
                     "<RestrictServerCertStore>true</RestrictServerCertStore>"),
            0u);
  LocalTWPolicyInfo info = Info();
  EXPECT_TRUE(info.getBypassDownloader());
  EXPECT_TRUE(info.getBypassDefaultLocalization());
  EXPECT_TRUE(info.getRestrictScriptWebDeploy());
  EXPECT_TRUE(info.getRestrictHelpWebDeploy());
  EXPECT_TRUE(info.getRestrictResourceWebDeploy());
  EXPECT_TRUE(info.getRestrictLocalizationWebDeploy());
  EXPECT_TRUE(info.getRestrictWebLaunch());
  EXPECT_TRUE(info.getStrictCertificateTrust());
  EXPECT_TRUE(info.getEnableCRLCheck());
  EXPECT_TRUE(info.getOCSPRevocation());
  EXPECT_TRUE(info.getRestrictServerCertStore());
  EXPECT_TRUE(info.isServerCertStoreRestricted());
}

TEST_F(LocalPolicy, FlagTextOtherThanLowerCaseTrueIsFalse) {
  EXPECT_EQ(LoadBody("<BypassDownloader>True</BypassDownloader>"
                     "<RestrictWebLaunch>1</RestrictWebLaunch>"
                     "<EnableCRLCheck> true </EnableCRLCheck>"),
            0u);
  EXPECT_FALSE(Info().getBypassDownloader());
  EXPECT_FALSE(Info().getRestrictWebLaunch());
  // Text is trimmed by the parser layer, so blanks around "true" are fine.
  EXPECT_TRUE(Info().getEnableCRLCheck());
}

TEST_F(LocalPolicy, UnknownElementsAreIgnored) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<Unknown>true</Unknown><bypassdownloader>true</bypassdownloader>"), 0u);
  EXPECT_FALSE(Info().getBypassDownloader());
  EXPECT_FALSE(capture.Contains(kStructureWarning));
}

TEST_F(LocalPolicy, AllowKeysInsideUpdatePolicyAreRead) {
  EXPECT_EQ(LoadBody("<UpdatePolicy>\n"
                     "<AllowSoftwareUpdatesFromAnyServer>false"
                     "</AllowSoftwareUpdatesFromAnyServer>\n"
                     "<AllowComplianceModuleUpdatesFromAnyServer>false"
                     "</AllowComplianceModuleUpdatesFromAnyServer>\n"
                     "<AllowVPNProfileUpdatesFromAnyServer>false"
                     "</AllowVPNProfileUpdatesFromAnyServer>\n"
                     "<AllowManagementVPNProfileUpdatesFromAnyServer>false"
                     "</AllowManagementVPNProfileUpdatesFromAnyServer>\n"
                     "<AllowNACProfileUpdatesFromAnyServer>false"
                     "</AllowNACProfileUpdatesFromAnyServer>\n"
                     "<AllowServiceProfileUpdatesFromAnyServer>false"
                     "</AllowServiceProfileUpdatesFromAnyServer>\n"
                     "<AllowScriptUpdatesFromAnyServer>false</AllowScriptUpdatesFromAnyServer>\n"
                     "<AllowHelpUpdatesFromAnyServer>false</AllowHelpUpdatesFromAnyServer>\n"
                     "<AllowResourceUpdatesFromAnyServer>false"
                     "</AllowResourceUpdatesFromAnyServer>\n"
                     "<AllowLocalizationUpdatesFromAnyServer>false"
                     "</AllowLocalizationUpdatesFromAnyServer>\n"
                     "</UpdatePolicy>"),
            0u);
  LocalTWPolicyInfo info = Info();
  EXPECT_FALSE(info.getAllowSoftwareUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowComplianceModuleUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowVPNProfileUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowManagementVPNProfileUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowNACProfileUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowServiceProfileUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowScriptUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowHelpUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowResourceUpdatesFromAnyServer());
  EXPECT_FALSE(info.getAllowLocalizationUpdatesFromAnyServer());
}

TEST_F(LocalPolicy, AllowKeyDirectlyUnderTheRootWarnsAndKeepsTheDefault) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<AllowHelpUpdatesFromAnyServer>false</AllowHelpUpdatesFromAnyServer>"), 0u);
  EXPECT_EQ(capture.Count(kStructureWarning), 1u);
  EXPECT_TRUE(Info().getAllowHelpUpdatesFromAnyServer());
  size_t seen = 0;
  for (const auto& record : capture.logger().Records()) {
    if (record.message.find(kStructureWarning) != std::string::npos) {
      ++seen;
      EXPECT_EQ(record.level, LOG_LEVEL_W);
      EXPECT_NE(record.message.find("Function: setElementValue\n"), std::string::npos);
    }
  }
  EXPECT_EQ(seen, 1u);
}

TEST_F(LocalPolicy, AllowKeyAfterUpdatePolicyClosedWarns) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<UpdatePolicy></UpdatePolicy>"
                     "<AllowScriptUpdatesFromAnyServer>false</AllowScriptUpdatesFromAnyServer>"),
            0u);
  EXPECT_EQ(capture.Count(kStructureWarning), 1u);
  EXPECT_TRUE(Info().getAllowScriptUpdatesFromAnyServer());
}

TEST_F(LocalPolicy, ServerNamesInsideTheListAreAppendedInOrder) {
  EXPECT_EQ(LoadBody("<UpdatePolicy><AuthorizedServerList>\n"
                     "  <ServerName>vpn1.example.com</ServerName>\n"
                     "  <ServerName>vpn2.example.com</ServerName>\n"
                     "</AuthorizedServerList></UpdatePolicy>"),
            0u);
  EXPECT_EQ(Info().getAuthorizedServerList(),
            (std::vector<std::string>{"vpn1.example.com", "vpn2.example.com"}));
}

TEST_F(LocalPolicy, ServerNameDirectlyInUpdatePolicyIsDropped) {
  LogCapture capture;
  EXPECT_EQ(LoadBody("<UpdatePolicy><ServerName>stray.example.com</ServerName>"
                     "<AuthorizedServerList><ServerName>ok.example.com</ServerName>"
                     "</AuthorizedServerList></UpdatePolicy>"),
            0u);
  EXPECT_EQ(Info().getAuthorizedServerList(), std::vector<std::string>{"ok.example.com"});
  // Its text never reaches the dispatch, so not even a warning is logged.
  EXPECT_FALSE(capture.Contains(kStructureWarning));
}

TEST_F(LocalPolicy, ServerListOutsideUpdatePolicyIsDropped) {
  EXPECT_EQ(LoadBody("<AuthorizedServerList><ServerName>a.example.com</ServerName>"
                     "</AuthorizedServerList>"),
            0u);
  EXPECT_TRUE(Info().getAuthorizedServerList().empty());
}

TEST_F(LocalPolicy, ServerNameAfterTheListClosedIsDropped) {
  EXPECT_EQ(LoadBody("<UpdatePolicy><AuthorizedServerList><ServerName>a</ServerName>"
                     "</AuthorizedServerList><ServerName>b</ServerName></UpdatePolicy>"),
            0u);
  EXPECT_EQ(Info().getAuthorizedServerList(), std::vector<std::string>{"a"});
}

TEST_F(LocalPolicy, PreferenceCachingTokensAddBitsBesideBitZero) {
  EXPECT_EQ(LoadBody("<RestrictPreferenceCaching>Credentials,All</RestrictPreferenceCaching>"), 0u);
  const PreferenceCachingBits bits = Info().getRestrictPreferenceCaching();
  EXPECT_EQ(bits.to_ulong(), (1ul << 0) | (1ul << 1) | (1ul << 5));
}

TEST_F(LocalPolicy, PreferenceCachingFalseLeavesOnlyBitZeroAndEndsTheList) {
  EXPECT_EQ(LoadBody("<RestrictPreferenceCaching>All,false</RestrictPreferenceCaching>"), 0u);
  EXPECT_EQ(Info().getRestrictPreferenceCaching().to_ulong(), 1ul);
}

TEST_F(LocalPolicy, PreferenceCachingTokensAfterFalseAreNotRead) {
  EXPECT_EQ(LoadBody("<RestrictPreferenceCaching>false,All</RestrictPreferenceCaching>"), 0u);
  EXPECT_EQ(Info().getRestrictPreferenceCaching().to_ulong(), 1ul);
}

TEST_F(LocalPolicy, PreferenceCachingUnknownTokenCountsAsFalse) {
  EXPECT_EQ(LoadBody("<RestrictPreferenceCaching>Thumbprints</RestrictPreferenceCaching>"
                     "<RestrictPreferenceCaching>AutomaticServerSelection,credentials,All"
                     "</RestrictPreferenceCaching>"),
            0u);
  // The second element adds bit 4, then the lower-case token clears all.
  EXPECT_EQ(Info().getRestrictPreferenceCaching().to_ulong(), 1ul);
}

TEST_F(LocalPolicy, PreferenceCachingElementsAccumulate) {
  EXPECT_EQ(LoadBody("<RestrictPreferenceCaching>Thumbprints</RestrictPreferenceCaching>"
                     "<RestrictPreferenceCaching>CredentialsAndThumbprints,"
                     "AutomaticServerSelection</RestrictPreferenceCaching>"),
            0u);
  EXPECT_EQ(Info().getRestrictPreferenceCaching().to_ulong(),
            (1ul << 0) | (1ul << 2) | (1ul << 3) | (1ul << 4));
}

TEST_F(LocalPolicy, TunnelProtocolsKnownWordsOnly) {
  EXPECT_EQ(LoadBody("<RestrictTunnelProtocols>tls</RestrictTunnelProtocols>"), 0u);
  EXPECT_EQ(Info().getRestrictTunnelProtocols(), 1u);
  EXPECT_EQ(LoadBody("<RestrictTunnelProtocols>ipsec</RestrictTunnelProtocols>"), 0u);
  EXPECT_EQ(Info().getRestrictTunnelProtocols(), 2u);
  EXPECT_EQ(LoadBody("<RestrictTunnelProtocols>ipsec</RestrictTunnelProtocols>"
                     "<RestrictTunnelProtocols>TLS</RestrictTunnelProtocols>"),
            0u);
  EXPECT_EQ(Info().getRestrictTunnelProtocols(), 2u);
  EXPECT_EQ(LoadBody("<RestrictTunnelProtocols>tls</RestrictTunnelProtocols>"
                     "<RestrictTunnelProtocols>false</RestrictTunnelProtocols>"),
            0u);
  EXPECT_EQ(Info().getRestrictTunnelProtocols(), 0u);
}

TEST_F(LocalPolicy, ExclusionFalseChangesNothing) {
  EXPECT_EQ(LoadBody("<ExcludeWinNativeCertStore>false</ExcludeWinNativeCertStore>"), 0u);
  EXPECT_EQ(Info().getExcludedCertStores(), 0u);
  EXPECT_FALSE(Info().isWinNativeCertStoreExcluded());
}

TEST_F(LocalPolicy, ExclusionBitsAreNeverRemoved) {
  EXPECT_EQ(LoadBody("<ExcludeWinNativeCertStore>true</ExcludeWinNativeCertStore>"
                     "<ExcludeWinNativeCertStore>false</ExcludeWinNativeCertStore>"
                     "<ExcludeFirefoxNSSCertStore>true</ExcludeFirefoxNSSCertStore>"),
            0u);
  LocalTWPolicyInfo info = Info();
  EXPECT_EQ(info.getExcludedCertStores(), 0xC3u | 0x8u);
  EXPECT_TRUE(info.isWinNativeCertStoreExcluded());
  EXPECT_TRUE(info.isFirefoxNSSCertStoreExcluded());
  EXPECT_FALSE(info.isPemFileCertStoreExcluded());
  EXPECT_FALSE(info.isMacNativeCertStoreExcluded());
}

TEST_F(LocalPolicy, EveryExclusionHasItsBits) {
  EXPECT_EQ(LoadBody("<ExcludePemFileCertStore>true</ExcludePemFileCertStore>"
                     "<ExcludeMacNativeCertStore>true</ExcludeMacNativeCertStore>"),
            0u);
  EXPECT_EQ(Info().getExcludedCertStores(), 0xC00u | 0x2104u);
  EXPECT_TRUE(Info().isPemFileCertStoreExcluded());
  EXPECT_TRUE(Info().isMacNativeCertStoreExcluded());
}

TEST_F(LocalPolicy, RecordIsHandedOutAsACopy) {
  EXPECT_EQ(LoadBody("<BypassDefaultLocalization>true</BypassDefaultLocalization>"), 0u);
  LocalTWPolicyInfo copy = m_manager->getLocalPolicyInfo();
  copy.setBypassDefaultLocalization(false);
  EXPECT_TRUE(m_manager->getLocalPolicyInfo().getBypassDefaultLocalization());
}

// The folder of the document.

TEST(LocalPolicyFolder, NoStoragePathGivesTheCodeAndAnEmptyFolder) {
  LogCapture capture;
  std::string dir = "stale";
  EXPECT_EQ(XmlLocalTWPolMgr::getLocalSecurityPolicyDir(dir), CSTORAGEPATH_ERROR_NO_INSTANCE);
  EXPECT_EQ(dir, "");
  EXPECT_EQ(capture.Count("Invoked Function: CInstanceSmartPtr<StoragePath>\n"), 1u);
}

TEST(LocalPolicyFolder, PolicyFolderLookupLogsTheFailureTwice) {
  LogCapture capture;
  std::string dir;
  EXPECT_EQ(XmlLocalTWPolMgr::getLocalSecurityPolicy(dir), CSTORAGEPATH_ERROR_NO_INSTANCE);
  EXPECT_EQ(dir, "");
  EXPECT_EQ(capture.Count("Invoked Function: CInstanceSmartPtr<StoragePath>\n"), 1u);
  EXPECT_EQ(capture.Count("Invoked Function: XmlLocalTWPolMgr::getLocalSecurityPolicyDir\n"), 1u);
  EXPECT_EQ(capture.Count("(0xFE9E000A)"), 2u);
}

TEST(LocalPolicyFolder, FolderIsTheInstallRoot) {
  CStoragePath* storage = nullptr;
  ASSERT_EQ(CStoragePath::CreateSingletonInstance(&storage), 0u);
  std::string dir;
  std::string name;
  EXPECT_EQ(XmlLocalTWPolMgr::getLocalSecurityPolicyDir(dir), 0u);
  EXPECT_EQ(dir, "/opt/velon/tesselclient/");
  EXPECT_EQ(XmlLocalTWPolMgr::GetLocalPolicyLocation(dir, name), 0u);
  EXPECT_EQ(dir, "/opt/velon/tesselclient/");
  EXPECT_EQ(name, "TidewalkerLocalPolicy.xml");
  // The handle taken inside was given back.
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  CStoragePath::ReleaseInstance(storage);
}

TEST(LocalPolicyFolder, LoadWithoutStoragePathReturnsTheCode) {
  XmlLocalTWPolMgr* manager = nullptr;
  ASSERT_EQ(XmlLocalTWPolMgr::CreateSingletonInstance(&manager), 0u);
  LogCapture capture;
  EXPECT_EQ(manager->LoadLocalTidewalkerPolicy(), CSTORAGEPATH_ERROR_NO_INSTANCE);
  EXPECT_FALSE(capture.Contains("FIPS mode is"));
  EXPECT_TRUE(manager->getLocalPolicyInfo().getAllowHelpUpdatesFromAnyServer());
  XmlLocalTWPolMgr::ReleaseInstance(manager);
}

TEST(LocalPolicyFixedPath, LoadReadsTheDocumentInTheInstallFolder) {
  const int status = keeltest::RunWithTmpfsAt("/opt", [] {
    if (!keeltest::WriteFile("/opt/velon/tesselclient/TidewalkerLocalPolicy.xml",
                             "<TidewalkerLocalPolicy><FipsMode>true</FipsMode>"
                             "<BypassDefaultLocalization>true</BypassDefaultLocalization>"
                             "</TidewalkerLocalPolicy>"))
      return 1;
    xmltest::PolicySingletons singletons;
    if (!singletons.ok())
      return 2;
    LogCapture capture;
    if (singletons.manager()->LoadLocalTidewalkerPolicy() != 0)
      return 3;
    if (!capture.Contains("\nFIPS mode is enabled."))
      return 4;
    if (!singletons.manager()->getLocalPolicyInfo().getBypassDefaultLocalization())
      return 5;
    return 0;
  });
  KEEL_EXPECT_ISOLATED_CHILD_PASSED(status);
}

TEST(LocalPolicyFixedPath, NoDocumentInTheInstallFolderIsNoFault) {
  const int status = keeltest::RunWithTmpfsAt("/opt", [] {
    xmltest::PolicySingletons singletons;
    if (!singletons.ok())
      return 2;
    LogCapture capture;
    if (singletons.manager()->LoadLocalTidewalkerPolicy() != 0)
      return 3;
    if (!capture.logger().Records().empty())
      return 4;
    return 0;
  });
  KEEL_EXPECT_ISOLATED_CHILD_PASSED(status);
}

}  // namespace
