#include "Common/Utility/sysutils.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <climits>
#include <thread>

#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
using keeltest::MillisSince;

timeval Tv(time_t seconds, suseconds_t micros) {
  timeval value{};
  value.tv_sec = seconds;
  value.tv_usec = micros;
  return value;
}

// A pipe whose ends close with the object.
class Pipe {
 public:
  Pipe() {
    if (pipe(m_fds) != 0) {
      m_fds[0] = m_fds[1] = -1;
    }
  }
  ~Pipe() {
    if (m_fds[0] >= 0)
      close(m_fds[0]);
    if (m_fds[1] >= 0)
      close(m_fds[1]);
  }
  int reader() const { return m_fds[0]; }
  int writer() const { return m_fds[1]; }

 private:
  int m_fds[2];
};

std::atomic<int> g_signalsSeen{0};
void CountSignal(int) {
  g_signalsSeen.fetch_add(1);
}

// Installs a SIGUSR1 handler without SA_RESTART, so that a blocked select
// fails with EINTR; the previous handler comes back on destruction.
class InterruptingHandler {
 public:
  InterruptingHandler() {
    struct sigaction action {};
    action.sa_handler = CountSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGUSR1, &action, &m_previous);
    g_signalsSeen = 0;
  }
  ~InterruptingHandler() { sigaction(SIGUSR1, &m_previous, nullptr); }

 private:
  struct sigaction m_previous {};
};

// Sends SIGUSR1 to `target` after `delayMillis`.
std::thread SignalLater(pthread_t target, int delayMillis) {
  return std::thread([target, delayMillis] {
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMillis));
    pthread_kill(target, SIGUSR1);
  });
}

}  // namespace

// fileExists

TEST(FileExists, RegularFileIsTrue) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("a.txt"), "x"));
  EXPECT_TRUE(fileExists(dir.Sub("a.txt")));
}

TEST(FileExists, EmptyRegularFileIsTrue) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("empty"), ""));
  EXPECT_TRUE(fileExists(dir.Sub("empty")));
}

TEST(FileExists, FolderIsFalseAndLogsNothing) {
  keeltest::TempDir dir;
  keeltest::LogCapture capture;
  EXPECT_FALSE(fileExists(dir.path()));
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(FileExists, MissingPathIsFalseAndLogsNothing) {
  keeltest::TempDir dir;
  keeltest::LogCapture capture;
  EXPECT_FALSE(fileExists(dir.Sub("nothing-here")));
  EXPECT_FALSE(fileExists(""));
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(FileExists, PathThroughAFileIsFalseAndLogsOneLine) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("plain"), "x"));
  const std::string path = dir.Sub("plain/below");
  keeltest::LogCapture capture;
  EXPECT_FALSE(fileExists(path));
  const auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  const std::string& message = records[0].message;
  EXPECT_NE(message.find("Function: fileExists"), std::string::npos) << message;
  EXPECT_NE(message.find("Invoked Function: _tstat"), std::string::npos) << message;
  EXPECT_NE(message.find("Return Code: 20 (0x00000014)"), std::string::npos) << message;
  EXPECT_NE(message.find("File: " + path), std::string::npos) << message;
  EXPECT_NE(message.find(std::string("Error: ") + strerror(ENOTDIR)), std::string::npos) << message;
  EXPECT_EQ(records[0].level, LOG_LEVEL_E);
}

TEST(FileExists, SocketIsTrueSinceOnlyTheModeBitCounts) {
  keeltest::TempDir dir;
  const std::string path = dir.Sub("s.sock");
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof(address.sun_path));
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_TRUE(fileExists(path));
  close(fd);
}

TEST(FileExists, FollowsLinks) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("target"), "x"));
  ASSERT_EQ(symlink(dir.Sub("target").c_str(), dir.Sub("link").c_str()), 0);
  ASSERT_EQ(symlink(dir.path().c_str(), dir.Sub("folderlink").c_str()), 0);
  ASSERT_EQ(symlink(dir.Sub("gone").c_str(), dir.Sub("dangling").c_str()), 0);
  keeltest::LogCapture capture;
  EXPECT_TRUE(fileExists(dir.Sub("link")));
  EXPECT_FALSE(fileExists(dir.Sub("folderlink")));
  EXPECT_FALSE(fileExists(dir.Sub("dangling")));
  EXPECT_TRUE(capture.logger().Records().empty());
}

// removeFile

TEST(RemoveFile, NullPathIs22) {
  EXPECT_EQ(removeFile(nullptr), 22);
}

TEST(RemoveFile, RemovesAFileAndAnswersZero) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), "x"));
  EXPECT_EQ(removeFile(dir.Sub("f").c_str()), 0);
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("f")));
}

TEST(RemoveFile, FailureAnswersErrnoOfUnlink) {
  keeltest::TempDir dir;
  EXPECT_EQ(removeFile(dir.Sub("missing").c_str()), ENOENT);
  EXPECT_EQ(removeFile(dir.path().c_str()), EISDIR);
  EXPECT_TRUE(keeltest::PathExists(dir.path()));
}

// Time

TEST(GetTickMillis, FollowsTheWallClockIn32Bits) {
  timeval before{};
  gettimeofday(&before, nullptr);
  const uint32_t tick = getTickMillis();
  timeval after{};
  gettimeofday(&after, nullptr);
  const uint32_t low = static_cast<uint32_t>(static_cast<uint64_t>(before.tv_sec) * 1000u +
                                             static_cast<uint64_t>(before.tv_usec) / 1000u);
  const uint32_t high = static_cast<uint32_t>(static_cast<uint64_t>(after.tv_sec) * 1000u +
                                              static_cast<uint64_t>(after.tv_usec) / 1000u);
  // Differences in unsigned arithmetic hold across the wrap.
  EXPECT_LE(static_cast<uint32_t>(tick - low), static_cast<uint32_t>(high - low));
}

TEST(SleepMillis, SleepsAtLeastTheTimeGiven) {
  const auto start = Clock::now();
  sleepMillis(30);
  EXPECT_GE(MillisSince(start), 30u);
}

TEST(SleepMillis, ZeroReturnsAtOnce) {
  const auto start = Clock::now();
  sleepMillis(0);
  EXPECT_LT(MillisSince(start), 20u);
}

namespace {

// Renders the current local time with `format`, twice around `produce`,
// and answers whether the produced text matches one of the two (a minute
// may turn in between).
template <typename Produce>
bool MatchesNow(const char* format, Produce produce, std::string* produced) {
  auto render = [format] {
    const time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char text[128];
    const size_t length = strftime(text, sizeof(text), format, &local);
    return std::string(text, length);
  };
  const std::string before = render();
  *produced = produce();
  const std::string after = render();
  return *produced == before || *produced == after;
}

}  // namespace

TEST(GetTimeNowString, FormOneIsTheBundleStamp) {
  std::string text;
  EXPECT_TRUE(MatchesNow(
      "_%m%d_%H%M", [] { return getTimeNowString(1); }, &text))
      << text;
  ASSERT_EQ(text.size(), 10u) << text;
  for (size_t i = 0; i < text.size(); ++i) {
    if (i == 0 || i == 5) {
      EXPECT_EQ(text[i], '_') << text;
    } else {
      EXPECT_TRUE(isdigit(static_cast<unsigned char>(text[i]))) << text;
    }
  }
}

TEST(GetTimeNowString, FormTwoIsAsctimeWithItsLineFeed) {
  std::string text;
  EXPECT_TRUE(MatchesNow(
      "%a %b %e %H:%M:%S %Y\n", [] { return getTimeNowString(2); }, &text))
      << text;
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
}

TEST(GetTimeNowString, FormThreeCarriesTheZone) {
  setenv("TZ", "UTC", 1);
  tzset();
  std::string text;
  EXPECT_TRUE(MatchesNow(
      "%a %b %d %H:%M:%S %Y %Z", [] { return getTimeNowString(3); }, &text))
      << text;
  EXPECT_EQ(text.substr(text.size() - 4), " UTC");
}

TEST(GetTimeNowString, AnyOtherFormIsTheLocaleForm) {
  for (int form : {0, 4, -1, INT_MAX}) {
    std::string text;
    EXPECT_TRUE(MatchesNow(
        "%c", [form] { return getTimeNowString(form); }, &text))
        << form << ": " << text;
  }
}

// timeval arithmetic

TEST(TimevalAdd, CarriesMicrosecondsIntoSeconds) {
  const timeval sum = timevalAdd(Tv(1, 700000), Tv(2, 400000));
  EXPECT_EQ(sum.tv_sec, 4);
  EXPECT_EQ(sum.tv_usec, 100000);
  const timeval exact = timevalAdd(Tv(0, 500000), Tv(0, 500000));
  EXPECT_EQ(exact.tv_sec, 1);
  EXPECT_EQ(exact.tv_usec, 0);
  const timeval plain = timevalAdd(Tv(3, 1), Tv(0, 2));
  EXPECT_EQ(plain.tv_sec, 3);
  EXPECT_EQ(plain.tv_usec, 3);
}

TEST(TimevalAdd, SaturatesInsteadOfWrapping) {
  const time_t most = std::numeric_limits<time_t>::max();
  const timeval sum = timevalAdd(Tv(most, 900000), Tv(1, 0));
  EXPECT_EQ(sum.tv_sec, most);
  EXPECT_EQ(sum.tv_usec, 999999);
  const timeval carried = timevalAdd(Tv(most, 900000), Tv(0, 200000));
  EXPECT_EQ(carried.tv_sec, most);
  EXPECT_EQ(carried.tv_usec, 999999);
}

TEST(TimevalCompare, SecondsThenMicroseconds) {
  EXPECT_EQ(timevalCompare(Tv(2, 0), Tv(1, 999999)), 1);
  EXPECT_EQ(timevalCompare(Tv(1, 999999), Tv(2, 0)), -1);
  EXPECT_EQ(timevalCompare(Tv(1, 5), Tv(1, 4)), 1);
  EXPECT_EQ(timevalCompare(Tv(1, 4), Tv(1, 5)), -1);
  EXPECT_EQ(timevalCompare(Tv(7, 7), Tv(7, 7)), 0);
}

TEST(TimevalSubtract, ZeroUnlessTheSecondIsSmaller) {
  timeval zero = timevalSubtract(Tv(1, 0), Tv(1, 0));
  EXPECT_EQ(zero.tv_sec, 0);
  EXPECT_EQ(zero.tv_usec, 0);
  zero = timevalSubtract(Tv(1, 0), Tv(2, 0));
  EXPECT_EQ(zero.tv_sec, 0);
  EXPECT_EQ(zero.tv_usec, 0);
  const timeval borrowed = timevalSubtract(Tv(3, 100), Tv(1, 200));
  EXPECT_EQ(borrowed.tv_sec, 1);
  EXPECT_EQ(borrowed.tv_usec, 999900);
  const timeval plain = timevalSubtract(Tv(3, 500), Tv(1, 200));
  EXPECT_EQ(plain.tv_sec, 2);
  EXPECT_EQ(plain.tv_usec, 300);
}

// vvc_select

TEST(VvcSelect, NullTimeoutReturnsAtOnceWhenNothingIsReady) {
  Pipe channel;
  ASSERT_GE(channel.reader(), 0);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(channel.reader(), &readable);
  const auto start = Clock::now();
  EXPECT_EQ(vvc_select(channel.reader() + 1, &readable, nullptr, nullptr, nullptr), 0);
  EXPECT_LT(MillisSince(start), 50u);
  EXPECT_FALSE(FD_ISSET(channel.reader(), &readable));
}

TEST(VvcSelect, NullTimeoutReportsAReadyDescriptor) {
  Pipe channel;
  ASSERT_EQ(write(channel.writer(), "x", 1), 1);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(channel.reader(), &readable);
  EXPECT_EQ(vvc_select(channel.reader() + 1, &readable, nullptr, nullptr, nullptr), 1);
  EXPECT_TRUE(FD_ISSET(channel.reader(), &readable));
}

TEST(VvcSelect, TimesOutAfterTheTimeGiven) {
  Pipe channel;
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(channel.reader(), &readable);
  timeval timeout = Tv(0, 40000);
  const auto start = Clock::now();
  EXPECT_EQ(vvc_select(channel.reader() + 1, &readable, nullptr, nullptr, &timeout), 0);
  const long elapsed = MillisSince(start);
  EXPECT_GE(elapsed, 39);
  EXPECT_LT(elapsed, 1000);
}

TEST(VvcSelect, InterruptedBySignalWaitsOnlyForTheRest) {
  InterruptingHandler handler;
  Pipe channel;
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(channel.reader(), &readable);
  // The signal comes with 10 ms of the 500 left; a restart with the whole
  // timeout would end near 990 ms.
  timeval timeout = Tv(0, 500000);
  std::thread sender = SignalLater(pthread_self(), 490);
  const auto start = Clock::now();
  const int result = vvc_select(channel.reader() + 1, &readable, nullptr, nullptr, &timeout);
  const long elapsed = MillisSince(start);
  sender.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(g_signalsSeen.load(), 1);
  EXPECT_GE(elapsed, 499);
  EXPECT_LT(elapsed, 800);
}

TEST(VvcSelect, InterruptedThenDataArrives) {
  InterruptingHandler handler;
  Pipe channel;
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(channel.reader(), &readable);
  timeval timeout = Tv(5, 0);
  const pthread_t self = pthread_self();
  const int writer = channel.writer();
  std::thread helper([self, writer] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pthread_kill(self, SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    (void)!write(writer, "x", 1);
  });
  const auto start = Clock::now();
  const int result = vvc_select(channel.reader() + 1, &readable, nullptr, nullptr, &timeout);
  const long elapsed = MillisSince(start);
  helper.join();
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(FD_ISSET(channel.reader(), &readable));
  EXPECT_EQ(g_signalsSeen.load(), 1);
  EXPECT_LT(elapsed, 2000);
}

TEST(VvcSelect, OtherFailureLogsErrnoAndAnswersMinusOne) {
  // A descriptor that is certainly closed.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  close(fds[1]);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fds[0], &readable);
  timeval timeout = Tv(1, 0);
  keeltest::LogCapture capture;
  EXPECT_EQ(vvc_select(fds[0] + 1, &readable, nullptr, nullptr, &timeout), -1);
  EXPECT_EQ(capture.Count("vvc_select failed with errno: 9"), 1u);
  FD_ZERO(&readable);
  FD_SET(fds[0], &readable);
  EXPECT_EQ(vvc_select(fds[0] + 1, &readable, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(capture.Count("vvc_select failed with errno: 9"), 2u);
}

// CStringUtils

TEST(TrimString, RemovesSpaceAtBothEnds) {
  EXPECT_EQ(CStringUtils::trimString("  a b \t\r\n"), "a b");
  EXPECT_EQ(CStringUtils::trimString("\v\fx"), "x");
  EXPECT_EQ(CStringUtils::trimString("x"), "x");
  EXPECT_EQ(CStringUtils::trimString(" \n\t "), "");
  EXPECT_EQ(CStringUtils::trimString(""), "");
  // Bytes above 127 are never taken for space.
  EXPECT_EQ(CStringUtils::trimString("\xA0z\xA0"), "\xA0z\xA0");
}

TEST(ToLowerCopy, LowersEachByte) {
  EXPECT_EQ(CStringUtils::toLowerCopy("AbC.XML"), "abc.xml");
  EXPECT_EQ(CStringUtils::toLowerCopy(""), "");
  const std::string original = "KEEP";
  EXPECT_EQ(CStringUtils::toLowerCopy(original), "keep");
  EXPECT_EQ(original, "KEEP");
}

TEST(ReplaceAll, ReplacesEveryOccurrenceMovingPastEach) {
  EXPECT_EQ(CStringUtils::replaceAll("a.b.c", ".", "::"), "a::b::c");
  // The replacement is never scanned again, so this ends.
  EXPECT_EQ(CStringUtils::replaceAll("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(CStringUtils::replaceAll("xyx", "x", ""), "y");
  EXPECT_EQ(CStringUtils::replaceAll("none", "q", "r"), "none");
}

TEST(ReplaceAll, EmptyTextOrSearchChangesNothing) {
  EXPECT_EQ(CStringUtils::replaceAll("", "a", "b"), "");
  EXPECT_EQ(CStringUtils::replaceAll("abc", "", "z"), "abc");
}

TEST(SplitString, KeepsEmptyParts) {
  EXPECT_EQ(CStringUtils::splitString("a,,b,", ','), (std::vector<std::string>{"a", "", "b", ""}));
  EXPECT_EQ(CStringUtils::splitString(",", ','), (std::vector<std::string>{"", ""}));
}

TEST(SplitString, TextWithoutDelimiterIsOneItem) {
  EXPECT_EQ(CStringUtils::splitString("abc", ','), (std::vector<std::string>{"abc"}));
  EXPECT_EQ(CStringUtils::splitString("", ','), (std::vector<std::string>{""}));
}

TEST(ParseVersionNumbers, SplitsAtAnySeparator) {
  EXPECT_EQ(CStringUtils::parseVersionNumbers("5.1-9.113", ".-"),
            (std::vector<int32_t>{5, 1, 9, 113}));
  EXPECT_EQ(CStringUtils::parseVersionNumbers("7", "."), (std::vector<int32_t>{7}));
  EXPECT_EQ(CStringUtils::parseVersionNumbers("-3.x4", "."), (std::vector<int32_t>{-3, 0}));
}

TEST(ParseVersionNumbers, EmptyPartsGiveZero) {
  EXPECT_EQ(CStringUtils::parseVersionNumbers("1.2.", "."), (std::vector<int32_t>{1, 2, 0}));
  EXPECT_EQ(CStringUtils::parseVersionNumbers("", "."), (std::vector<int32_t>{0}));
  EXPECT_EQ(CStringUtils::parseVersionNumbers("..", "."), (std::vector<int32_t>{0, 0, 0}));
}

TEST(ParseVersionNumbers, OutOfRangeIsHeldAtTheEnds) {
  EXPECT_EQ(CStringUtils::parseVersionNumbers("99999999999.-99999999999", "."),
            (std::vector<int32_t>{INT32_MAX, INT32_MIN}));
}

TEST(CompareVersions, MissingNumbersCountAsZero) {
  EXPECT_EQ(CStringUtils::compareVersions({1, 2}, {1, 2, 0}), 0);
  EXPECT_EQ(CStringUtils::compareVersions({1, 2}, {1, 2, 1}), -1);
  EXPECT_EQ(CStringUtils::compareVersions({1, 3}, {1, 2, 9}), 1);
  EXPECT_EQ(CStringUtils::compareVersions({}, {}), 0);
  EXPECT_EQ(CStringUtils::compareVersions({}, {-1}), 1);
  EXPECT_EQ(CStringUtils::compareVersions({5, 1, 9, 113}, {5, 1, 10}), -1);
}

TEST(WipeString, EmptiesAndReleases) {
  std::string secret(1000, 's');
  CStringUtils::wipeString(secret);
  EXPECT_TRUE(secret.empty());
  EXPECT_LT(secret.capacity(), 1000u);
  std::string small = "pw";
  CStringUtils::wipeString(small);
  EXPECT_TRUE(small.empty());
  std::string nothing;
  CStringUtils::wipeString(nothing);
  EXPECT_TRUE(nothing.empty());
}

TEST(WipeBytes, ZeroesTheBytesGivenAndNoMore) {
  unsigned char buffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  CStringUtils::wipeBytes(buffer + 1, 6);
  const unsigned char expected[8] = {1, 0, 0, 0, 0, 0, 0, 8};
  EXPECT_EQ(memcmp(buffer, expected, sizeof(buffer)), 0);
  CStringUtils::wipeBytes(nullptr, 10);  // no crash
  CStringUtils::wipeBytes(buffer, 0);
  EXPECT_EQ(buffer[0], 1);
}

TEST(ErrnoText, GivesTheSystemsWords) {
  EXPECT_EQ("No such file or directory", errnoText(ENOENT));
  EXPECT_EQ("No space left on device", errnoText(ENOSPC));
}
