#include "Common/i18n/MsgCatalog.h"

#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "Common/Xml/XmlLocalTWPolMgr.h"
#include "Common/Xml/xml_testsupport.h"
#include "Common/i18n/CatalogTestFiles.h"
#include "Common/i18n/MoCatalog.h"
#include "tests/support/TestSupport.h"

// Under the leak checker: the C library keeps (and loses track of) its
// split copy of LOCPATH when std::locale builds a locale from a LOCPATH
// folder. That block is the library's, not the code under test's.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:__argz_add_sep\n";
}

namespace {

using catalogtest::Compile;
using keeltest::LogCapture;
using keeltest::TempDir;

const char kInitializedLine[] = "initialized catalog: ";

// Every case runs in its own process: the catalogue starts uninitialised,
// with no singletons.

// Builds a locale with localedef into `folder` and points LOCPATH at it.
bool UseBuiltLocale(const std::string& folder, const std::string& name) {
  if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
    return false;
  const keeltest::CommandResult result =
      keeltest::Run({"localedef", "-i", "en_US", "-f", "UTF-8", folder + "/" + name});
  if ((result.status != 0 && result.status != 1) || !keeltest::PathExists(folder + "/" + name))
    return false;
  setenv("LOCPATH", folder.c_str(), 1);
  return true;
}

// Catalogue folders in a temporary folder, and a policy manager whose
// BypassDefaultLocalization can be chosen.
class Catalogs : public ::testing::Test {
 protected:
  void TearDown() override {
    if (m_policy != nullptr)
      XmlLocalTWPolMgr::ReleaseInstance(m_policy);
  }
  std::string Product() const { return m_dir.Sub("l10n"); }
  std::string Embedded() const { return m_dir.Sub("resources/l10n"); }
  CFixedCatalogFolders Folders() const { return CFixedCatalogFolders(Product(), Embedded()); }

  void MakeProduct(const std::string& locale, const catalogtest::Messages& messages,
                   const std::string& charset = "utf-8") {
    ASSERT_TRUE(Compile(catalogtest::PoText(messages, charset),
                        Product() + "/" + locale + "/LC_MESSAGES/Tidewalker.mo"));
  }
  void MakeFallback(const std::string& locale, const catalogtest::Messages& messages) {
    ASSERT_TRUE(
        Compile(messages, Embedded() + "/" + locale + "/LC_MESSAGES/TesselClientDefault.mo"));
  }
  void MakePolicy(bool bypass) {
    ASSERT_EQ(XmlLocalTWPolMgr::CreateSingletonInstance(&m_policy), 0u);
    ASSERT_TRUE(keeltest::WriteFile(
        m_dir.Sub("policy/TidewalkerLocalPolicy.xml"),
        std::string("<TidewalkerLocalPolicy><BypassDefaultLocalization>") +
            (bypass ? "true" : "false") + "</BypassDefaultLocalization></TidewalkerLocalPolicy>"));
    ASSERT_EQ(m_policy->LoadLocalTidewalkerPolicy(m_dir.Sub("policy/")), 0u);
  }
  std::string Get(const char* message) {
    std::string out = "stale";
    MsgCatalog::getMessage(message, out, Folders());
    return out;
  }

  TempDir m_dir;
  XmlLocalTWPolMgr* m_policy = nullptr;
};

// Language codes.

TEST(MsgCatalogLangCode, TextRules) {
  EXPECT_EQ(MsgCatalog::langCodeOf("en_US.UTF-8"), "en-us");
  EXPECT_EQ(MsgCatalog::langCodeOf("en_US"), "en_us");
  EXPECT_EQ(MsgCatalog::langCodeOf("C"), "c");
  EXPECT_EQ(MsgCatalog::langCodeOf("C.UTF-8"), "c");
  EXPECT_EQ(MsgCatalog::langCodeOf("POSIX"), "posix");
  EXPECT_EQ(MsgCatalog::langCodeOf("de_DE.ISO-8859-1@euro"), "de-de");
  EXPECT_EQ(MsgCatalog::langCodeOf("zh_Hant_TW.UTF-8"), "zh-hant-tw");
  EXPECT_EQ(MsgCatalog::langCodeOf(""), "");
}

TEST(MsgCatalogLangCode, LangCIsLowerCaseC) {
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  setenv("LANG", "C", 1);
  std::string code = "anything";
  MsgCatalog::getLangCode(code);
  EXPECT_EQ(code, "c");
}

TEST(MsgCatalogLangCode, InstalledUtf8LocaleGivesLanguageDashTerritory) {
  TempDir dir;
  if (!UseBuiltLocale(dir.Sub("locales"), "en_US.UTF-8"))
    GTEST_SKIP() << "localedef can't build en_US.UTF-8 here";
  unsetenv("LC_ALL");
  setenv("LANG", "en_US.UTF-8", 1);
  std::string code;
  MsgCatalog::getLangCode(code);
  EXPECT_EQ(code, "en-us");
}

TEST(MsgCatalogLangCode, UnbuildableLocaleIsLoggedAndTheCodeKept) {
  setenv("LC_ALL", "xx_YY.NOPE", 1);
  LogCapture capture;
  std::string code = "Fr_CA.UTF-8";
  MsgCatalog::getLangCode(code);
  EXPECT_EQ(code, "fr-ca");
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, LOG_LEVEL_E);
  EXPECT_NE(records[0].message.find("Function: getLangCode\n"), std::string::npos);
}

// Folders.

TEST(MsgCatalogFolders, BelowTheInstallRoot) {
  CStoragePath* storage = nullptr;
  ASSERT_EQ(CStoragePath::CreateSingletonInstance(&storage), 0u);
  EXPECT_EQ(MsgCatalog::getLocalizationPath(), "/opt/velon/tesselclient/l10n");
  EXPECT_EQ(MsgCatalog::getEmbeddedLocalizationPath(), "/opt/velon/tesselclient/resources/l10n");
  CStorageCatalogFolders folders;
  EXPECT_EQ(folders.localizationPath(), "/opt/velon/tesselclient/l10n");
  EXPECT_EQ(folders.embeddedLocalizationPath(), "/opt/velon/tesselclient/resources/l10n");
  EXPECT_EQ(CStoragePath::GetAcquisitionCount(), 1u);
  CStoragePath::ReleaseInstance(storage);
}

TEST(MsgCatalogFolders, NoStoragePathGivesEmptyAndLogs) {
  LogCapture capture;
  EXPECT_EQ(MsgCatalog::getLocalizationPath(), "");
  EXPECT_EQ(MsgCatalog::getEmbeddedLocalizationPath(), "");
  EXPECT_EQ(capture.Count("Invoked Function: CInstanceSmartPtr<StoragePath>\n"), 2u);
  EXPECT_EQ(capture.Count("(0xFE9E000A)"), 2u);
}

// getMessage.

TEST_F(Catalogs, NullMessageIsLoggedAndGivesNothing) {
  LogCapture capture;
  EXPECT_EQ(Get(nullptr), "");
  EXPECT_TRUE(capture.Contains("\nError getting the translated message. NULL pointer."));
  EXPECT_FALSE(MsgCatalog::isInitialized());
}

TEST_F(Catalogs, EmptyMessageGivesNothingAndDoesNotInitialise) {
  LogCapture capture;
  EXPECT_EQ(Get(""), "");
  EXPECT_FALSE(MsgCatalog::isInitialized());
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST_F(Catalogs, LangCFindsNoCatalogueAndKeepsTheMessage) {
  MakeProduct("C", {{"Hello", "should not be used"}});
  unsetenv("LC_ALL");
  setenv("LANG", "C", 1);
  MakePolicy(false);
  EXPECT_EQ(Get("Hello"), "Hello");
  EXPECT_EQ(MsgCatalog::getCurrentLocale(), "c");
}

TEST_F(Catalogs, TerritoryLocaleRetriesWithTheLanguage) {
  MakeProduct("en", {{"Hello", "Hello from en"}});
  MakePolicy(false);
  std::string locale = "en-us";
  MsgCatalog::initMsgCatalog(locale, Folders());
  EXPECT_EQ(Get("Hello"), "Hello from en");
}

TEST_F(Catalogs, Utf8EnvironmentLocaleFindsTheLanguageCatalogue) {
  if (!UseBuiltLocale(m_dir.Sub("locales"), "en_US.UTF-8"))
    GTEST_SKIP() << "localedef can't build en_US.UTF-8 here";
  unsetenv("LC_ALL");
  setenv("LANG", "en_US.UTF-8", 1);
  MakeProduct("en", {{"Hello", "Hello from en"}});
  MakePolicy(false);
  LogCapture capture;
  EXPECT_EQ(Get("Hello"), "Hello from en");
  EXPECT_EQ(MsgCatalog::getCurrentLocale(), "en-us");
  EXPECT_TRUE(capture.Contains("\ninitialized catalog: Tidewalker with locale: en-us"));
}

TEST_F(Catalogs, LocaleWithoutDotIsNotRetried) {
  MakeProduct("en", {{"Hello", "Hello from en"}});
  MakePolicy(false);
  std::string locale = MsgCatalog::langCodeOf("en_US");
  ASSERT_EQ(locale, "en_us");
  MsgCatalog::initMsgCatalog(locale, Folders());
  EXPECT_EQ(Get("Hello"), "Hello");
}

TEST_F(Catalogs, FallbackDomainFillsGapsWithoutBypass) {
  MakeProduct("de", {{"Hello", "Hallo"}});
  MakeFallback("de", {{"Hello", "Servus"}, {"Goodbye", "Tschuess"}});
  MakePolicy(false);
  LogCapture capture;
  std::string locale = "de";
  MsgCatalog::initMsgCatalog(locale, Folders());
  EXPECT_TRUE(capture.Contains("\nBypass Default Localization is set to false"));
  EXPECT_FALSE(MsgCatalog::isBypassDefaultLocalization());
  EXPECT_EQ(Get("Hello"), "Hallo");
  EXPECT_EQ(Get("Goodbye"), "Tschuess");
  EXPECT_EQ(Get("Unknown"), "Unknown");
}

TEST_F(Catalogs, BypassKeepsMissingMessagesEnglish) {
  MakeProduct("de", {{"Hello", "Hallo"}});
  MakeFallback("de", {{"Goodbye", "Tschuess"}});
  MakePolicy(true);
  LogCapture capture;
  std::string locale = "de";
  MsgCatalog::initMsgCatalog(locale, Folders());
  EXPECT_TRUE(capture.Contains("\nBypass Default Localization is set to true"));
  EXPECT_TRUE(MsgCatalog::isBypassDefaultLocalization());
  EXPECT_EQ(Get("Hello"), "Hallo");
  EXPECT_EQ(Get("Goodbye"), "Goodbye");
  // The fall-back domain was not even bound.
  EXPECT_STREQ(intl::dcigettext("TesselClientDefault", "Goodbye", "Goodbye", 1, LC_MESSAGES, "de"),
               "Goodbye");
}

TEST_F(Catalogs, NoPolicyManagerLogsAndUsesTheFallbackDomain) {
  MakeFallback("de", {{"Goodbye", "Tschuess"}});
  LogCapture capture;
  std::string locale = "de";
  MsgCatalog::initMsgCatalog(locale, Folders());
  EXPECT_TRUE(capture.Contains("\nFailed to get a XmlLocalTWPolMgr instance"));
  EXPECT_FALSE(capture.Contains("Bypass Default Localization"));
  EXPECT_EQ(Get("Goodbye"), "Tschuess");
}

TEST_F(Catalogs, FirstMessageInitialisesOnceOnly) {
  MakeProduct("de", {{"Hello", "Hallo"}});
  MakePolicy(false);
  setenv("LC_ALL", "C", 1);
  LogCapture capture;
  EXPECT_FALSE(MsgCatalog::isInitialized());
  Get("Hello");
  EXPECT_TRUE(MsgCatalog::isInitialized());
  EXPECT_EQ(capture.Count(kInitializedLine), 1u);
  EXPECT_TRUE(capture.Contains("\ninitialized catalog: Tidewalker with locale: c"));
  Get("Hello");
  Get("Other");
  EXPECT_EQ(capture.Count(kInitializedLine), 1u);
  EXPECT_EQ(capture.Count("Bypass Default Localization is set to"), 1u);
}

TEST_F(Catalogs, InitLogsTheCatalogueAndLocale) {
  LogCapture capture;
  std::string locale = "xx";
  MsgCatalog::init("Tidewalker", "", locale, Folders());
  EXPECT_EQ(locale, "xx");
  EXPECT_EQ(MsgCatalog::getCurrentLocale(), "xx");
  EXPECT_EQ(MsgCatalog::getCurrentCatalog(), "Tidewalker");
  EXPECT_TRUE(capture.Contains("\ninitialized catalog: Tidewalker with locale: xx"));
  EXPECT_STREQ(intl::textdomain(nullptr), "Tidewalker");
}

TEST_F(Catalogs, InitFillsAnEmptyLocale) {
  setenv("LC_ALL", "C", 1);
  std::string locale;
  MsgCatalog::init("Tidewalker", "", locale, Folders());
  EXPECT_EQ(locale, "c");
}

TEST_F(Catalogs, SameCatalogueIsNotSetTwice) {
  LogCapture capture;
  EXPECT_TRUE(MsgCatalog::setCatalog("Tidewalker", "TesselClientDefault", Folders()));
  capture.logger().Clear();
  // A folder source that would be noticed if asked.
  CFixedCatalogFolders elsewhere("relative", "relative");
  EXPECT_TRUE(MsgCatalog::setCatalog("Tidewalker", "", elsewhere));
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST_F(Catalogs, NoCatalogueForTheProcessLocaleIsNoFault) {
  setenv("LC_ALL", "C", 1);
  LogCapture capture;
  EXPECT_TRUE(MsgCatalog::setCatalog("Tidewalker", "TesselClientDefault", Folders()));
  EXPECT_FALSE(capture.Contains("character set"));
}

TEST_F(Catalogs, LowerCaseUtf8CharsetIsAccepted) {
  if (!UseBuiltLocale(m_dir.Sub("locales"), "en_US.UTF-8"))
    GTEST_SKIP() << "localedef can't build en_US.UTF-8 here";
  setenv("LC_ALL", "en_US.UTF-8", 1);
  MakeProduct("en", {{"Hello", "Hello from en"}}, "utf-8");
  LogCapture capture;
  EXPECT_TRUE(MsgCatalog::setCatalog("Tidewalker", "TesselClientDefault", Folders()));
  EXPECT_EQ(capture.Count("\nThe character set is utf-8."), 1u);
}

TEST_F(Catalogs, UpperCaseUtf8CharsetLogsTwoErrorsButIsUsed) {
  if (!UseBuiltLocale(m_dir.Sub("locales"), "en_US.UTF-8"))
    GTEST_SKIP() << "localedef can't build en_US.UTF-8 here";
  setenv("LC_ALL", "en_US.UTF-8", 1);
  MakeProduct("en", {{"Hello", "Hello from en"}}, "UTF-8");
  MakePolicy(false);
  LogCapture capture;
  std::string locale;
  MsgCatalog::initMsgCatalog(locale, Folders());
  EXPECT_EQ(capture.Count("\nThe specified character set <UTF-8> is unsupported."), 1u);
  EXPECT_EQ(capture.Count("\nError setting the translation catalog Tidewalker."), 1u);
  EXPECT_FALSE(capture.Contains("The character set is utf-8."));
  EXPECT_EQ(Get("Hello"), "Hello from en");
}

TEST_F(Catalogs, WithoutStoragePathEverythingStaysEnglish) {
  MakePolicy(false);
  setenv("LC_ALL", "C", 1);
  LogCapture capture;
  std::string out;
  MsgCatalog::getMessage("Hello", out);
  EXPECT_EQ(out, "Hello");
  // Both folders were asked for and missing.
  EXPECT_EQ(capture.Count("Invoked Function: CInstanceSmartPtr<StoragePath>\n"), 2u);
  MsgCatalog::getMessage("Hello", out);
  EXPECT_EQ(out, "Hello");
  EXPECT_EQ(capture.Count(kInitializedLine), 1u);
}

TEST(MsgCatalogInstalled, CataloguesBelowTheInstallRootAreUsed) {
  TempDir dir;
  if (!UseBuiltLocale(dir.Sub("locales"), "en_US.UTF-8"))
    GTEST_SKIP() << "localedef can't build en_US.UTF-8 here";
  setenv("LC_ALL", "en_US.UTF-8", 1);
  const int status = keeltest::RunWithTmpfsAt("/opt", [] {
    if (!Compile({{"Hello", "Hello from en"}},
                 "/opt/velon/tesselclient/l10n/en/LC_MESSAGES/Tidewalker.mo") ||
        !Compile({{"Goodbye", "Bye from the default"}},
                 "/opt/velon/tesselclient/resources/l10n/en/LC_MESSAGES/TesselClientDefault.mo"))
      return 1;
    xmltest::PolicySingletons singletons;
    if (!singletons.ok() || singletons.manager()->LoadLocalTidewalkerPolicy() != 0)
      return 2;
    std::string hello;
    std::string goodbye;
    MsgCatalog::getMessage("Hello", hello);
    MsgCatalog::getMessage("Goodbye", goodbye);
    if (hello != "Hello from en")
      return 3;
    if (goodbye != "Bye from the default")
      return 4;
    return 0;
  });
  KEEL_EXPECT_ISOLATED_CHILD_PASSED(status);
}

}  // namespace
