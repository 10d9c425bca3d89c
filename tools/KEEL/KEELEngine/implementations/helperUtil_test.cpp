// Text helpers of helperUtil: wildcard match, bundle names, splits, sizes.
#include <cmath>
#include <ctime>
#include <limits>
#include <set>
#include <string>

#include "gtest/gtest.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

// ---- wildcardMatch ----------------------------------------------------------------

TEST(WildcardMatch, StarMatchesAnyRunIncludingEmpty) {
  EXPECT_TRUE(helperUtil::wildcardMatch("*", ""));
  EXPECT_TRUE(helperUtil::wildcardMatch("*", "anything"));
  EXPECT_TRUE(helperUtil::wildcardMatch("*.log", ".log"));
  EXPECT_TRUE(helperUtil::wildcardMatch("a*b", "ab"));
  EXPECT_TRUE(helperUtil::wildcardMatch("**", "x"));
}

TEST(WildcardMatch, QuestionMarkMatchesExactlyOne) {
  EXPECT_TRUE(helperUtil::wildcardMatch("?", "x"));
  EXPECT_FALSE(helperUtil::wildcardMatch("?", ""));
  EXPECT_FALSE(helperUtil::wildcardMatch("?", "xy"));
  EXPECT_TRUE(helperUtil::wildcardMatch("sys?.log", "sys1.log"));
  EXPECT_FALSE(helperUtil::wildcardMatch("sys?.log", "sys.log"));
}

TEST(WildcardMatch, BacktracksToLastStar) {
  EXPECT_TRUE(helperUtil::wildcardMatch("a*b*c", "aXbYbZc"));
  EXPECT_TRUE(helperUtil::wildcardMatch("*.log", "x.log.log"));
  EXPECT_FALSE(helperUtil::wildcardMatch("*.log", "x.log.1"));
  EXPECT_TRUE(helperUtil::wildcardMatch("*.log*", "x.log.1"));
  EXPECT_TRUE(helperUtil::wildcardMatch("*a?c", "abcabc"));
  EXPECT_FALSE(helperUtil::wildcardMatch("a*b*c", "aXbYbZ"));
}

TEST(WildcardMatch, LiteralsAndEmpty) {
  EXPECT_TRUE(helperUtil::wildcardMatch("", ""));
  EXPECT_FALSE(helperUtil::wildcardMatch("", "a"));
  EXPECT_FALSE(helperUtil::wildcardMatch("a", ""));
  EXPECT_TRUE(helperUtil::wildcardMatch("syslog", "syslog"));
  EXPECT_FALSE(helperUtil::wildcardMatch("syslog", "syslog1"));
}

TEST(WildcardMatch, CaseSensitiveByItself) {
  EXPECT_FALSE(helperUtil::wildcardMatch("*.LOG", "a.log"));
  EXPECT_TRUE(helperUtil::wildcardMatch("*.LOG", "a.LOG"));
}

TEST(WildcardMatch, NullArgumentIsFalse) {
  EXPECT_FALSE(helperUtil::wildcardMatch(nullptr, "a"));
  EXPECT_FALSE(helperUtil::wildcardMatch("*", nullptr));
  EXPECT_FALSE(helperUtil::wildcardMatch(static_cast<const char*>(nullptr), nullptr));
}

TEST(WildcardMatch, StringForm) {
  EXPECT_TRUE(helperUtil::wildcardMatch(std::string("*.txt"), std::string("a b.txt")));
  EXPECT_FALSE(helperUtil::wildcardMatch(std::string("*.txt"), std::string("a b.log")));
}

TEST(WildcardMatch, LongInputDoesNotExplode) {
  const std::string name(20000, 'a');
  EXPECT_FALSE(helperUtil::wildcardMatch("*a*a*a*a*a*b", name.c_str()));
  EXPECT_TRUE(helperUtil::wildcardMatch("*a*a*a*a*a", name.c_str()));
}

// ---- bundleFileName -------------------------------------------------------------

TEST(BundleFileName, NoWantedNameKeepsFoundName) {
  EXPECT_EQ("system.log", helperUtil::bundleFileName("", "system.log"));
  EXPECT_EQ("messages", helperUtil::bundleFileName("", "messages"));
}

TEST(BundleFileName, NoWantedNameAndDotFileLosesDot) {
  EXPECT_EQ("bashrc", helperUtil::bundleFileName("", ".bashrc"));
}

TEST(BundleFileName, WantedBaseAndExtension) {
  EXPECT_EQ("vpn__system__log.txt", helperUtil::bundleFileName("vpn.txt", "system.log"));
}

TEST(BundleFileName, FoundNameWithoutExtensionIsDoubled) {
  EXPECT_EQ("vpn__messages__messages.txt", helperUtil::bundleFileName("vpn.txt", "messages"));
}

TEST(BundleFileName, FoundDotFileWithWantedBaseAndExtension) {
  EXPECT_EQ("vpn____bashrc.txt", helperUtil::bundleFileName("vpn.txt", ".bashrc"));
}

TEST(BundleFileName, WantedWithoutDotUsesItselfAsExtension) {
  EXPECT_EQ("vpn__system__log.vpn", helperUtil::bundleFileName("vpn", "system.log"));
}

TEST(BundleFileName, WantedBaseWithEmptyExtension) {
  EXPECT_EQ("vpn__system.log", helperUtil::bundleFileName("vpn.", "system.log"));
  EXPECT_EQ("vpn__messages.messages", helperUtil::bundleFileName("vpn.", "messages"));
}

TEST(BundleFileName, WantedDotNameAndFoundDotName) {
  EXPECT_EQ(".log__bashrc__", helperUtil::bundleFileName(".log", ".bashrc"));
}

TEST(BundleFileName, WantedDotNameAndFoundName) {
  EXPECT_EQ(".log__system__log", helperUtil::bundleFileName(".log", "system.log"));
  EXPECT_EQ(".log__messages__messages", helperUtil::bundleFileName(".log", "messages"));
}

TEST(BundleFileName, LastDotDecides) {
  EXPECT_EQ("vpn.all__sys.log__1.txt", helperUtil::bundleFileName("vpn.all.txt", "sys.log.1"));
}

TEST(BundleFileName, EmptyBoth) {
  EXPECT_EQ("", helperUtil::bundleFileName("", ""));
}

// ---- Split helpers ---------------------------------------------------------------

TEST(SplitBeforeFirst, TextBeforeFirstSeparator) {
  EXPECT_EQ("/usr/bin/prog", helperUtil::splitBeforeFirst("/usr/bin/prog -a -b", " "));
  EXPECT_EQ("", helperUtil::splitBeforeFirst(" leading", " "));
  EXPECT_EQ("whole", helperUtil::splitBeforeFirst("whole", " "));
  EXPECT_EQ("a", helperUtil::splitBeforeFirst("a::b::c", "::"));
  EXPECT_EQ("", helperUtil::splitBeforeFirst("", " "));
  EXPECT_EQ("x y", helperUtil::splitBeforeFirst("x y", ""));
}

TEST(SplitAfterFirst, TextBehindFirstSeparator) {
  EXPECT_EQ("b=c", helperUtil::splitAfterFirst("a=b=c", "="));
  EXPECT_EQ("whole", helperUtil::splitAfterFirst("whole", "="));
  EXPECT_EQ("", helperUtil::splitAfterFirst("a=", "="));
  EXPECT_EQ("b::c", helperUtil::splitAfterFirst("a::b::c", "::"));
  EXPECT_EQ("x y", helperUtil::splitAfterFirst("x y", ""));
}

TEST(SplitAfterLast, TextBehindLastSeparator) {
  EXPECT_EQ("x.log", helperUtil::splitAfterLast("/var/log/x.log", "/"));
  EXPECT_EQ("", helperUtil::splitAfterLast("/var/log/", "/"));
  EXPECT_EQ("whole", helperUtil::splitAfterLast("whole", "/"));
  EXPECT_EQ("c", helperUtil::splitAfterLast("a::b::c", "::"));
  EXPECT_EQ("x y", helperUtil::splitAfterLast("x y", ""));
}

TEST(SplitBeforeLast, KeepFlagKeepsSeparator) {
  EXPECT_EQ("/var/log/", helperUtil::splitBeforeLast("/var/log/x.log", "/", true));
  EXPECT_EQ("a//", helperUtil::splitBeforeLast("a//b", "/", true));
  EXPECT_EQ("/", helperUtil::splitBeforeLast("/x", "/", true));
  EXPECT_EQ("whole", helperUtil::splitBeforeLast("whole", "/", true));
}

TEST(SplitBeforeLast, ClearFlagDropsRunOfSeparators) {
  EXPECT_EQ("/var/log", helperUtil::splitBeforeLast("/var/log/x.log", "/", false));
  EXPECT_EQ("a", helperUtil::splitBeforeLast("a///b", "/", false));
  EXPECT_EQ("a/b", helperUtil::splitBeforeLast("a/b//", "/", false));
  EXPECT_EQ("whole", helperUtil::splitBeforeLast("whole", "/", false));
  EXPECT_EQ("a", helperUtil::splitBeforeLast("a::::b", "::", false));
}

TEST(SplitBeforeLast, ReachingTheStartGivesEmpty) {
  EXPECT_EQ("", helperUtil::splitBeforeLast("/x", "/", false));
  EXPECT_EQ("", helperUtil::splitBeforeLast("///x", "/", false));
  EXPECT_EQ("", helperUtil::splitBeforeLast(".bashrc", ".", false));
}

TEST(SplitBeforeLast, EmptySeparatorNeverOccurs) {
  EXPECT_EQ("abc", helperUtil::splitBeforeLast("abc", "", false));
  EXPECT_EQ("abc", helperUtil::splitBeforeLast("abc", "", true));
}

// ---- formatFileSize -----------------------------------------------------------------

TEST(FormatFileSize, BelowOneKilobyteIsBytes) {
  EXPECT_EQ("0 bytes", helperUtil::formatFileSize(2, 0.0));
  EXPECT_EQ("512 bytes", helperUtil::formatFileSize(2, 512.0));
  EXPECT_EQ("1023 bytes", helperUtil::formatFileSize(2, 1023.0));
  EXPECT_EQ("1023.5 bytes", helperUtil::formatFileSize(2, 1023.5));
  EXPECT_EQ("-1 bytes", helperUtil::formatFileSize(2, -1.0));
}

TEST(FormatFileSize, UnitsWithPrecision) {
  EXPECT_EQ("1.00K", helperUtil::formatFileSize(2, 1024.0));
  EXPECT_EQ("1.50K", helperUtil::formatFileSize(2, 1536.0));
  EXPECT_EQ("1023.99K", helperUtil::formatFileSize(2, 1048570.0));
  EXPECT_EQ("1.0M", helperUtil::formatFileSize(1, 1048576.0));
  EXPECT_EQ("2.500G", helperUtil::formatFileSize(3, 2.5 * 1073741824.0));
  EXPECT_EQ("1T", helperUtil::formatFileSize(0, std::pow(1024.0, 4)));
  EXPECT_EQ("1.00P", helperUtil::formatFileSize(2, std::pow(1024.0, 5)));
  EXPECT_EQ("1.00E", helperUtil::formatFileSize(2, std::pow(1024.0, 6)));
  EXPECT_EQ("1.00Z", helperUtil::formatFileSize(2, std::pow(1024.0, 7)));
  EXPECT_EQ("3.00Y", helperUtil::formatFileSize(2, 3 * std::pow(1024.0, 8)));
}

TEST(FormatFileSize, BeyondYottaIsDividedYetCalledBytes) {
  EXPECT_EQ("1.00 bytes", helperUtil::formatFileSize(2, std::pow(1024.0, 9)));
  EXPECT_EQ("2.00 bytes", helperUtil::formatFileSize(2, 2 * std::pow(1024.0, 10)));
}

TEST(FormatFileSize, NegativePrecisionCountsAsZero) {
  EXPECT_EQ("2K", helperUtil::formatFileSize(-3, 2048.0));
}

TEST(FormatFileSize, NonFiniteValuesDoNotHang) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ("inf bytes", helperUtil::formatFileSize(2, infinity));
  EXPECT_EQ("nan bytes", helperUtil::formatFileSize(2, std::nan("")));
}

// ---- Small helpers ------------------------------------------------------------------

TEST(TruncationTypeName, EveryType) {
  EXPECT_EQ("Whole File", helperUtil::truncationTypeName(0));
  EXPECT_EQ("Data (front or end)", helperUtil::truncationTypeName(1));
  EXPECT_EQ("Truncate end", helperUtil::truncationTypeName(2));
  EXPECT_EQ("Truncate front", helperUtil::truncationTypeName(3));
  EXPECT_EQ("No", helperUtil::truncationTypeName(4));
  EXPECT_EQ("Unknown", helperUtil::truncationTypeName(5));
  EXPECT_EQ("Unknown", helperUtil::truncationTypeName(-1));
}

TEST(RandomNumber, BelowLimitAndNotPredictableFromTheClock) {
  // Reseeding from the clock gave one number per second, which another user
  // could compute in advance; many calls within a second now differ.
  std::set<int32_t> seen;
  for (int call = 0; call < 50; ++call) {
    const int32_t number = helperUtil::randomNumber();
    EXPECT_GE(number, 0);
    EXPECT_LT(number, 100000);
    seen.insert(number);
  }
  EXPECT_GT(seen.size(), 40u);
}

TEST(StripLeadingBlanks, BlanksAndTabsOnly) {
  EXPECT_EQ("x y \t", helperUtil::stripLeadingBlanks(" \t  x y \t"));
  EXPECT_EQ("\nx", helperUtil::stripLeadingBlanks("\nx"));
  EXPECT_EQ("", helperUtil::stripLeadingBlanks(" \t "));
  EXPECT_EQ("", helperUtil::stripLeadingBlanks(""));
  EXPECT_EQ("abc", helperUtil::stripLeadingBlanks("abc"));
}
