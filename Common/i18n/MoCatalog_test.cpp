#include "Common/i18n/MoCatalog.h"

#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Common/i18n/CatalogTestFiles.h"
#include "tests/support/TestSupport.h"

namespace {

using catalogtest::Compile;
using catalogtest::PutWord;
using keeltest::TempDir;

// Every case runs in its own process, so the layer's process-wide state
// (bindings, current domain, cache) starts fresh each time.

// A catalogue folder with catalogues for chosen locales of the domain "app".
class CatalogFolder : public ::testing::Test {
 protected:
  std::string Root() const { return m_dir.Sub("l10n"); }
  std::string PathFor(const std::string& locale, const std::string& domain = "app",
                      const std::string& category = "LC_MESSAGES") const {
    return Root() + "/" + locale + "/" + category + "/" + domain + ".mo";
  }
  void Make(const std::string& locale, const catalogtest::Messages& messages,
            const std::string& domain = "app", bool bigEndian = false) {
    ASSERT_TRUE(Compile(messages, PathFor(locale, domain), bigEndian));
  }
  void Bind(const std::string& domain = "app") {
    ASSERT_NE(intl::bindtextdomain(domain.c_str(), Root().c_str()), nullptr);
  }
  static std::string Lookup(const char* locale, const char* message = "Hello",
                            const char* domain = "app") {
    const char* result = intl::dcigettext(domain, message, message, 1, LC_MESSAGES, locale);
    return result != nullptr ? result : "<null>";
  }

  TempDir m_dir;
};

// textdomain.

TEST(MoTextDomain, StartsWithTheDefaultAndNullReadsIt) {
  EXPECT_STREQ(intl::textdomain(nullptr), "messages");
  EXPECT_STREQ(intl::textdomain("app"), "app");
  EXPECT_STREQ(intl::textdomain(nullptr), "app");
}

TEST(MoTextDomain, EmptyNameSelectsTheDefault) {
  intl::textdomain("app");
  EXPECT_STREQ(intl::textdomain(""), "messages");
  EXPECT_STREQ(intl::textdomain(nullptr), "messages");
}

TEST(MoTextDomain, LongNameIsCutTo4095Characters) {
  const std::string name(5000, 'd');
  EXPECT_EQ(strlen(intl::textdomain(name.c_str())), 4095u);
}

// bindtextdomain.

TEST(MoBindTextDomain, RefusesBadArguments) {
  EXPECT_EQ(intl::bindtextdomain(nullptr, "/tmp"), nullptr);
  EXPECT_EQ(intl::bindtextdomain("", "/tmp"), nullptr);
  EXPECT_EQ(intl::bindtextdomain("app", nullptr), nullptr);
  EXPECT_EQ(intl::bindtextdomain("app", ""), nullptr);
  EXPECT_EQ(intl::bindtextdomain("app", "relative/l10n"), nullptr);
}

TEST(MoBindTextDomain, LengthLimitsCountTheTerminator) {
  const std::string folder4095 = "/" + std::string(4094, 'f');
  const std::string folder4096 = "/" + std::string(4095, 'f');
  EXPECT_STREQ(intl::bindtextdomain("app", folder4095.c_str()), "app");
  EXPECT_EQ(intl::bindtextdomain("other", folder4096.c_str()), nullptr);
  const std::string domain4095(4095, 'd');
  const std::string domain4096(4096, 'd');
  EXPECT_NE(intl::bindtextdomain(domain4095.c_str(), "/tmp"), nullptr);
  EXPECT_EQ(intl::bindtextdomain(domain4096.c_str(), "/tmp"), nullptr);
}

TEST(MoBindTextDomain, ReturnsTheDomainAlsoWhenBoundAgain) {
  EXPECT_STREQ(intl::bindtextdomain("app", "/one"), "app");
  EXPECT_STREQ(intl::bindtextdomain("app", "/two"), "app");
}

TEST(MoBindTextDomain, CodesetBindingIsNotOffered) {
  EXPECT_EQ(intl::bind_textdomain_codeset("app", "UTF-8"), nullptr);
  EXPECT_EQ(intl::bind_textdomain_codeset(nullptr, nullptr), nullptr);
}

// Lookups.

TEST_F(CatalogFolder, ExplicitLocaleFindsItsCatalogue) {
  Make("de", {{"Hello", "Hallo"}});
  Bind();
  EXPECT_EQ(Lookup("de"), "Hallo");
  EXPECT_EQ(Lookup("de", "Unknown"), "Unknown");
}

TEST_F(CatalogFolder, TerritoryCodeFallsBackToTheLanguage) {
  Make("en", {{"Hello", "Hello there"}});
  Bind();
  EXPECT_EQ(Lookup("en-us"), "Hello there");
}

TEST_F(CatalogFolder, TerritoryCatalogueWinsOverTheLanguage) {
  Make("en", {{"Hello", "language"}});
  Make("en-us", {{"Hello", "territory"}});
  Bind();
  EXPECT_EQ(Lookup("en-us"), "territory");
}

TEST_F(CatalogFolder, UnderscoreCodeIsNotRetried) {
  Make("en", {{"Hello", "Hello there"}});
  Bind();
  EXPECT_EQ(Lookup("en_us"), "Hello");
}

TEST_F(CatalogFolder, LowerCaseCHasNoCatalogue) {
  Bind();
  EXPECT_EQ(Lookup("c"), "Hello");
}

TEST_F(CatalogFolder, CAndPosixNeverHaveACatalogue) {
  Make("C", {{"Hello", "from C"}});
  Make("POSIX", {{"Hello", "from POSIX"}});
  Make("en", {{"Hello", "from en"}});
  Bind();
  EXPECT_EQ(Lookup("C"), "Hello");
  EXPECT_EQ(Lookup("POSIX"), "Hello");
  // The search stops at "C": later names are not tried.
  EXPECT_EQ(Lookup("C:en"), "Hello");
  EXPECT_EQ(Lookup("en:C"), "from en");
}

TEST_F(CatalogFolder, SearchListTriesNamesInOrderAndSkipsEmptyOnes) {
  Make("fr", {{"Hello", "Bonjour"}});
  Bind();
  EXPECT_EQ(Lookup("::xx:fr:"), "Bonjour");
}

TEST_F(CatalogFolder, NamesWithASlashArePassedOver) {
  Make("en", {{"Hello", "from en"}});
  ASSERT_TRUE(Compile({{"Hello", "escaped"}}, m_dir.Sub("x/LC_MESSAGES/app.mo")));
  Bind();
  EXPECT_EQ(Lookup("../x"), "Hello");
  EXPECT_EQ(Lookup("../x:en"), "from en");
}

TEST_F(CatalogFolder, DomainWithASlashIsPassedOver) {
  ASSERT_TRUE(Compile({{"Hello", "escaped"}}, Root() + "/en/LC_MESSAGES/sub/app.mo"));
  ASSERT_NE(intl::bindtextdomain("sub/app", Root().c_str()), nullptr);
  EXPECT_EQ(Lookup("en", "Hello", "sub/app"), "Hello");
}

TEST_F(CatalogFolder, CategoryChoosesTheFolder) {
  ASSERT_TRUE(Compile({{"Hello", "ctype"}}, PathFor("de", "app", "LC_CTYPE")));
  Bind();
  EXPECT_STREQ(intl::dcigettext("app", "Hello", "Hello", 1, LC_CTYPE, "de"), "ctype");
}

TEST_F(CatalogFolder, CategoryOutsideZeroToFiveGivesTheFallBack) {
  Make("de", {{"Hello", "Hallo"}});
  Bind();
  EXPECT_STREQ(intl::dcigettext("app", "Hello", "Hellos", 1, 6, "de"), "Hello");
  EXPECT_STREQ(intl::dcigettext("app", "Hello", "Hellos", 1, -1, "de"), "Hello");
  EXPECT_STREQ(intl::dcigettext("app", "Hello", "Hellos", 2, 6, "de"), "Hellos");
}

TEST_F(CatalogFolder, PluralOnlyChoosesTheFallBack) {
  ASSERT_TRUE(Compile(std::string("msgid \"One file\"\nmsgid_plural \"%d files\"\n"
                                  "msgstr[0] \"Eine Datei\"\nmsgstr[1] \"%d Dateien\"\n"),
                      PathFor("de")));
  Bind();
  // A translation found by the singular is returned whatever n is.
  EXPECT_STREQ(intl::dcigettext("app", "One file", "%d files", 1, LC_MESSAGES, "de"), "Eine Datei");
  EXPECT_STREQ(intl::dcigettext("app", "One file", "%d files", 5, LC_MESSAGES, "de"), "Eine Datei");
  EXPECT_STREQ(intl::dcigettext("app", "Two", "Twos", 5, LC_MESSAGES, "de"), "Twos");
  EXPECT_STREQ(intl::dcigettext("app", "Two", "Twos", 1, LC_MESSAGES, "de"), "Two");
  EXPECT_EQ(intl::dcigettext("app", "Two", nullptr, 5, LC_MESSAGES, "de"), nullptr);
  EXPECT_EQ(intl::dcigettext("app", nullptr, "Twos", 1, LC_MESSAGES, "de"), nullptr);
}

TEST_F(CatalogFolder, UnboundDomainGivesTheFallBack) {
  Make("de", {{"Hello", "Hallo"}});
  EXPECT_EQ(Lookup("de"), "Hello");
  // The failed attempt made no binding: binding now works normally.
  Bind();
  EXPECT_EQ(Lookup("de"), "Hallo");
}

TEST_F(CatalogFolder, NullDomainMeansTheCurrentOne) {
  Make("de", {{"Hello", "Hallo"}});
  Bind();
  intl::textdomain("app");
  EXPECT_STREQ(intl::dcigettext(nullptr, "Hello", "Hello", 1, LC_MESSAGES, "de"), "Hallo");
}

TEST_F(CatalogFolder, LocaleOf4096BytesGivesTheFallBack) {
  Make("de", {{"Hello", "Hallo"}});
  Bind();
  const std::string longLocale = "de:" + std::string(4093, 'x');
  ASSERT_EQ(longLocale.size(), 4096u);
  EXPECT_EQ(Lookup(longLocale.c_str()), "Hello");
  const std::string shorter = "de:" + std::string(4092, 'x');
  EXPECT_EQ(Lookup(shorter.c_str()), "Hallo");
}

TEST_F(CatalogFolder, PathLongerThanTheLimitIsPassedOver) {
  Bind();
  const std::string longName(4090, 'l');
  EXPECT_EQ(Lookup(longName.c_str()), "Hello");
}

TEST_F(CatalogFolder, SwappedCatalogueReadsTheSameAsNative) {
  Make("de", {{"Hello", "Hallo"}, {"Zebra", "Zebra!"}}, "app", true);
  Make("fr", {{"Hello", "Bonjour"}, {"Zebra", "Zèbre"}}, "other", false);
  Bind();
  Bind("other");
  EXPECT_EQ(Lookup("de"), "Hallo");
  EXPECT_EQ(Lookup("de", "Zebra"), "Zebra!");
  EXPECT_EQ(Lookup("fr", "Zebra", "other"), "Zèbre");
  EXPECT_EQ(intl::textdomain_charset("app"), "utf-8");
}

TEST_F(CatalogFolder, CatalogueOfOneMebibyteIsRead) {
  Make("de", {{"Hello", "Hallo"}});
  std::string bytes = keeltest::ReadFile(PathFor("de"));
  bytes.resize(intl::kMaxCatalogSize, '\0');
  ASSERT_TRUE(keeltest::WriteFile(PathFor("de"), bytes));
  Bind();
  EXPECT_EQ(Lookup("de"), "Hallo");
}

TEST_F(CatalogFolder, CatalogueOfOneMebibyteAndOneByteIsIgnored) {
  Make("de", {{"Hello", "Hallo"}});
  Make("en", {{"Hello", "from en"}});
  std::string bytes = keeltest::ReadFile(PathFor("de"));
  bytes.resize(1048577, '\0');
  ASSERT_TRUE(keeltest::WriteFile(PathFor("de"), bytes));
  Bind();
  EXPECT_EQ(Lookup("de"), "Hello");
  // The next name of the list is tried.
  EXPECT_EQ(Lookup("de:en"), "from en");
}

TEST_F(CatalogFolder, RevisionOneIsRefused) {
  Make("de", {{"Hello", "Hallo"}});
  std::string bytes = keeltest::ReadFile(PathFor("de"));
  PutWord(bytes, catalogtest::kRevision, 1);
  ASSERT_TRUE(keeltest::WriteFile(PathFor("de"), bytes));
  Bind();
  EXPECT_EQ(Lookup("de"), "Hello");
}

TEST_F(CatalogFolder, CorruptCataloguesDegradeToTheMessage) {
  Make("de", {{"Hello", "Hallo"}});
  const std::string good = keeltest::ReadFile(PathFor("de"));
  Bind();
  struct Patch {
    size_t field;
    uint32_t value;
  };
  const Patch patches[] = {
      {catalogtest::kKeyTable, static_cast<uint32_t>(good.size())},
      {catalogtest::kTranslationTable, static_cast<uint32_t>(good.size() - 4)},
      {catalogtest::kCount, 100000},
      {catalogtest::EntryAt(good, catalogtest::kKeyTable, 1) + 4,
       static_cast<uint32_t>(good.size())},
      {catalogtest::EntryAt(good, catalogtest::kTranslationTable, 1), 0x7FFFFFFF},
  };
  for (const Patch& patch : patches) {
    std::string bytes = good;
    PutWord(bytes, patch.field, patch.value);
    ASSERT_TRUE(keeltest::WriteFile(PathFor("de"), bytes));
    intl::bindtextdomain("app", Root().c_str());  // forget what was loaded
    EXPECT_EQ(Lookup("de"), "Hello") << "field " << patch.field;
  }
  // Too short for a header, and empty.
  ASSERT_TRUE(keeltest::WriteFile(PathFor("de"), good.substr(0, 12)));
  intl::bindtextdomain("app", Root().c_str());
  EXPECT_EQ(Lookup("de"), "Hello");
  ASSERT_TRUE(keeltest::WriteFile(PathFor("de"), ""));
  intl::bindtextdomain("app", Root().c_str());
  EXPECT_EQ(Lookup("de"), "Hello");
  // And the good one again.
  ASSERT_TRUE(keeltest::WriteFile(PathFor("de"), good));
  intl::bindtextdomain("app", Root().c_str());
  EXPECT_EQ(Lookup("de"), "Hallo");
}

TEST_F(CatalogFolder, FolderInPlaceOfTheCatalogueIsPassedOver) {
  ASSERT_EQ(system(("mkdir -p '" + PathFor("de") + "'").c_str()), 0);
  Make("en", {{"Hello", "from en"}});
  Bind();
  EXPECT_EQ(Lookup("de"), "Hello");
  EXPECT_EQ(Lookup("de:en"), "from en");
}

TEST_F(CatalogFolder, KeyWithAbsentTranslationReturnsTheKey) {
  Make("de", {{"Hello", "Hallo"}, {"Zebra", "Zebra!"}});
  std::string bytes = keeltest::ReadFile(PathFor("de"));
  const size_t translation = catalogtest::EntryAt(bytes, catalogtest::kTranslationTable, 1);
  const size_t key = catalogtest::EntryAt(bytes, catalogtest::kKeyTable, 1);
  PutWord(bytes, translation, 0);
  PutWord(bytes, translation + 4,
          catalogtest::GetWord(bytes, key + 4) + catalogtest::GetWord(bytes, key));
  ASSERT_TRUE(keeltest::WriteFile(PathFor("de"), bytes));
  Bind();
  const char* key1 = "Hello";
  EXPECT_EQ(intl::dcigettext("app", key1, "Hellos", 3, LC_MESSAGES, "de"), key1);
  EXPECT_EQ(Lookup("de", "Zebra"), "Zebra!");
}

TEST_F(CatalogFolder, BindingAgainSwitchesToTheNewFolder) {
  Make("de", {{"Hello", "first"}});
  ASSERT_TRUE(Compile({{"Hello", "second"}}, m_dir.Sub("other/de/LC_MESSAGES/app.mo")));
  Bind();
  EXPECT_EQ(Lookup("de"), "first");
  ASSERT_NE(intl::bindtextdomain("app", m_dir.Sub("other").c_str()), nullptr);
  EXPECT_EQ(Lookup("de"), "second");
}

TEST_F(CatalogFolder, LoadedCatalogueStaysUntilTheDomainIsBoundAgain) {
  Make("de", {{"Hello", "Hallo"}});
  Make("fr", {{"Hello", "Bonjour"}});
  Bind();
  EXPECT_EQ(Lookup("de"), "Hallo");
  // A locale whose catalogue exists finds the one already loaded.
  EXPECT_EQ(Lookup("fr"), "Hallo");
  // One without a catalogue gets the fall-back.
  EXPECT_EQ(Lookup("it"), "Hello");
  Bind();
  EXPECT_EQ(Lookup("fr"), "Bonjour");
}

TEST_F(CatalogFolder, TwoDomainsKeepTheirOwnCatalogues) {
  Make("de", {{"Hello", "Hallo"}});
  Make("de", {{"Hello", "Servus"}}, "other");
  Bind();
  Bind("other");
  EXPECT_EQ(Lookup("de", "Hello", "app"), "Hallo");
  EXPECT_EQ(Lookup("de", "Hello", "other"), "Servus");
  EXPECT_EQ(Lookup("de", "Hello", "app"), "Hallo");
}

TEST_F(CatalogFolder, CharsetOfTheLoadedCatalogue) {
  ASSERT_TRUE(Compile(catalogtest::PoText({{"Hello", "Hallo"}}, "UTF-8"), PathFor("de")));
  Bind();
  EXPECT_EQ(intl::textdomain_charset("app"), "");  // nothing loaded yet
  EXPECT_EQ(Lookup("de"), "Hallo");
  EXPECT_EQ(intl::textdomain_charset("app"), "UTF-8");
  intl::textdomain("app");
  EXPECT_EQ(intl::textdomain_charset(nullptr), "UTF-8");
  EXPECT_EQ(intl::textdomain_charset("unbound"), "");
  // Binding again marks it unloaded.
  Bind();
  EXPECT_EQ(intl::textdomain_charset("app"), "");
}

TEST_F(CatalogFolder, TranslationBytesComeBackUnconverted) {
  ASSERT_TRUE(Compile(catalogtest::PoText({{"Hello", "Gr\\303\\274\\303\\237e"}}, "ISO-8859-1"),
                      PathFor("de")));
  Bind();
  // msgfmt keeps the bytes; so does the lookup.
  EXPECT_EQ(Lookup("de"),
            "Gr\xC3\xBC\xC3\x9F"
            "e");
}

// The process locale.

TEST_F(CatalogFolder, ProcessLocaleCFindsNothing) {
  Make("C", {{"Hello", "from C"}});
  Bind();
  ASSERT_NE(setlocale(LC_ALL, "C"), nullptr);
  intl::textdomain("app");
  EXPECT_STREQ(intl::gettext("Hello"), "Hello");
  EXPECT_STREQ(intl::dcigettext("app", "Hello", "Hello", 1, LC_MESSAGES, nullptr), "Hello");
}

// A locale built for the test with localedef, found through LOCPATH.
bool MakeLocale(const std::string& folder, const std::string& name) {
  if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
    return false;
  const keeltest::CommandResult result =
      keeltest::Run({"localedef", "-i", "en_US", "-f", "UTF-8", folder + "/" + name});
  return result.status == 0 || result.status == 1;  // 1: warnings only
}

TEST_F(CatalogFolder, ProcessLocaleSearchesItsDerivedNames) {
  if (!MakeLocale(m_dir.Sub("locales"), "en_US.UTF-8"))
    GTEST_SKIP() << "localedef can't build en_US.UTF-8 here";
  setenv("LOCPATH", m_dir.Sub("locales").c_str(), 1);
  setenv("LC_ALL", "en_US.UTF-8", 1);
  if (setlocale(LC_ALL, "") == nullptr)
    GTEST_SKIP() << "the test locale can't be selected";
  Make("en-us", {{"Hello", "from en-us"}});
  Make("en", {{"Hello", "from en"}});
  Bind();
  intl::textdomain("app");
  EXPECT_STREQ(intl::gettext("Hello"), "from en-us");
  EXPECT_STREQ(intl::gettext("Other"), "Other");
}

TEST(MoLocaleSearchList, FullNameGivesEveryForm) {
  EXPECT_EQ(intl::LocaleSearchList("de_DE.UTF-8@euro"),
            "de_DE.UTF-8@euro:de_DE@euro:de@euro:de_DE.UTF-8:de_DE:de-de:de");
}

TEST(MoLocaleSearchList, FormsNeedAllTheirParts) {
  EXPECT_EQ(intl::LocaleSearchList("en_US.UTF-8"), "en_US.UTF-8:en_US:en-us:en");
  EXPECT_EQ(intl::LocaleSearchList("en_US"), "en_US:en-us:en");
  EXPECT_EQ(intl::LocaleSearchList("sr@latin"), "sr@latin:sr");
  EXPECT_EQ(intl::LocaleSearchList("C.UTF-8"), "C");
  EXPECT_EQ(intl::LocaleSearchList("C"), "C");
  EXPECT_EQ(intl::LocaleSearchList("POSIX"), "POSIX");
  EXPECT_EQ(intl::LocaleSearchList(""), "");
}

}  // namespace
