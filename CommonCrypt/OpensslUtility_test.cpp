// Replacing the random source needs OpenSSL's legacy method interface.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "CommonCrypt/OpensslUtility.h"

#include <openssl/err.h>
#include <openssl/rand.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CommonCrypt/Hash.h"
#include "tests/support/TestSupport.h"

namespace {

// A random source that always fails. It may queue errors first; the packed
// code of the last one is kept for the test to compare.
int g_errorsToQueue = 0;
unsigned long g_lastQueued = 0;

int FailingBytes(unsigned char*, int) {
  for (int i = 0; i < g_errorsToQueue; ++i) {
    ERR_raise(ERR_LIB_RAND, i == 0 ? RAND_R_ERROR_INSTANTIATING_DRBG : RAND_R_NOT_A_REGULAR_FILE);
    g_lastQueued = ERR_peek_last_error();
  }
  return 0;
}

int NoSeed(const void*, int) {
  return 1;
}

int NoStatus() {
  return 0;
}

const RAND_METHOD kFailingMethod = {NoSeed, FailingBytes, nullptr, nullptr, FailingBytes, NoStatus};

bool LoggedRandFailure(keeltest::LogCapture& capture, const std::string& description) {
  for (const keeltest::LogRecord& record : capture.logger().Records()) {
    const std::string& m = record.message;
    if (record.level == LOG_LEVEL_E && m.find("\nFunction: GenerateKey\n") != m.npos &&
        m.find("\nInvoked Function: RAND_bytes\n") != m.npos && m.find("(0xFE59000A)") != m.npos &&
        m.find("\nDescription: " + description + "\n") != m.npos)
      return true;
  }
  return false;
}

// Runs `check` in a child process with the failing random source installed
// and returns the child's exit status (0 when `check` held). Once a legacy
// random method has been installed, the library's own clean-up at exit
// leaves blocks behind, so the child leaves with _exit and the parent never
// swaps its random source.
int WithFailingRandom(int errorsToQueue, bool (*check)()) {
  const pid_t child = fork();
  if (child == 0) {
    g_errorsToQueue = errorsToQueue;
    g_lastQueued = 0;
    ERR_clear_error();
    RAND_set_rand_method(&kFailingMethod);
    _exit(check() ? 0 : 1);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
    return -1;
  return WEXITSTATUS(status);
}

TEST(OpensslUtility, InitializeMayBeRepeated) {
  EXPECT_EQ(COpensslUtility::Initialize(), 0u);
  EXPECT_EQ(COpensslUtility::Initialize(), 0u);
}

TEST(GenerateKey, WritesTwoUpperCaseHexDigitsPerByte) {
  char text[33];
  memset(text, '#', sizeof(text));
  ASSERT_EQ(COpensslUtility::GenerateKey(text, sizeof(text), 16), 0u);
  ASSERT_EQ(strlen(text), 32u);
  EXPECT_EQ(std::string(text).find_first_not_of("0123456789ABCDEF"), std::string::npos) << text;
}

TEST(GenerateKey, TwoKeysDiffer) {
  char first[65];
  char second[65];
  ASSERT_EQ(COpensslUtility::GenerateKey(first, sizeof(first), 32), 0u);
  ASSERT_EQ(COpensslUtility::GenerateKey(second, sizeof(second), 32), 0u);
  EXPECT_STRNE(first, second);
}

TEST(GenerateKey, ZeroBytesGiveEmptyText) {
  char text[1] = {'#'};
  EXPECT_EQ(COpensslUtility::GenerateKey(text, sizeof(text), 0), 0u);
  EXPECT_EQ(text[0], '\0');
}

TEST(GenerateKey, TextOneByteTooSmallIsRefusedUntouched) {
  char text[32];
  memset(text, '#', sizeof(text));
  EXPECT_EQ(COpensslUtility::GenerateKey(text, sizeof(text), 16),
            OPENSSLUTILITY_ERROR_BAD_PARAMETER);
  EXPECT_EQ(std::string(text, sizeof(text)), std::string(32, '#'));
}

TEST(GenerateKey, NullTextIsRefused) {
  EXPECT_EQ(COpensslUtility::GenerateKey(nullptr, 100, 4), OPENSSLUTILITY_ERROR_BAD_PARAMETER);
}

TEST(GenerateKey, HugeByteCountDoesNotWrapTheSizeCheck) {
  // 2 * 0x80000000 + 1 wraps to 1 in 32 bits.
  char text[1];
  EXPECT_EQ(COpensslUtility::GenerateKey(text, 1, 0x80000000u), OPENSSLUTILITY_ERROR_BAD_PARAMETER);
}

TEST(GenerateKey, RandomFailureWithEmptyQueueLogsUnknown) {
  EXPECT_EQ(WithFailingRandom(0,
                              [] {
                                keeltest::LogCapture capture;
                                char text[9] = "########";
                                const ResultCode result =
                                    COpensslUtility::GenerateKey(text, sizeof(text), 4);
                                fprintf(stderr, "result 0x%.8X, text %s\n", result, text);
                                return result == OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY &&
                                       LoggedRandFailure(capture, "unknown") &&
                                       strcmp(text, "########") == 0;
                              }),
            0);
}

TEST(GenerateKey, RandomFailureLogsTheLastQueuedErrorAndEmptiesTheQueue) {
  EXPECT_EQ(WithFailingRandom(
                2,
                [] {
                  keeltest::LogCapture capture;
                  char text[9];
                  const ResultCode result = COpensslUtility::GenerateKey(text, sizeof(text), 4);
                  char expected[512] = "";
                  ERR_error_string_n(g_lastQueued, expected, sizeof(expected));
                  fprintf(stderr, "result 0x%.8X, last error %s\n", result, expected);
                  return result == OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY && g_lastQueued != 0 &&
                         strstr(expected, "Not a regular file") != nullptr &&
                         LoggedRandFailure(capture, expected) && ERR_peek_error() == 0;
                }),
            0);
}

// Many threads start the library and hash at once; the start-up lock keeps
// them apart and every thread gets the same digest.
TEST(OpensslStartupConcurrency, ThreadsStartTheLibraryAndHashTogether) {
  std::vector<std::string> results(4);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < results.size(); ++t) {
    threads.emplace_back([&results, t] {
      for (int i = 0; i < 20; ++i) {
        ResultCode result = HASH_ERROR_UNKNOWN;
        COpenSSLHash hash(&result, "sha1");
        std::string out;
        if (result != 0 || HashString(hash, "abc", out) != 0)
          out = "failed";
        if (i == 0 || results[t] == out)
          results[t] = out;
        else
          results[t] = "inconsistent";
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (const std::string& result : results)
    EXPECT_EQ(result, "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

}  // namespace
