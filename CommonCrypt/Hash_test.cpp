#include "CommonCrypt/Hash.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using ::testing::_;
using ::testing::Return;

// The upper-case digest of `file` by a coreutils checksum program.
std::string ChecksumOf(const std::string& program, const std::string& file) {
  int status = -1;
  std::string text = keeltest::Shell(program + " '" + file + "'", &status);
  EXPECT_EQ(status, 0);
  text = text.substr(0, text.find(' '));
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

// True when an error-level record names `function` as the caller of
// `invoked` with `code`.
bool LoggedFailedCall(keeltest::LogCapture& capture, const std::string& function,
                      const std::string& invoked, ResultCode code) {
  char codeText[16];
  snprintf(codeText, sizeof(codeText), "(0x%.8X)", code);
  for (const keeltest::LogRecord& record : capture.logger().Records()) {
    const std::string& m = record.message;
    if (record.level == LOG_LEVEL_E && m.find("\nFunction: " + function + "\n") != m.npos &&
        m.find("\nInvoked Function: " + invoked + "\n") != m.npos && m.find(codeText) != m.npos)
      return true;
  }
  return false;
}

std::string Hex(const unsigned char* bytes, unsigned length) {
  std::string text;
  char pair[3];
  for (unsigned i = 0; i < length; ++i) {
    snprintf(pair, sizeof(pair), "%.2X", bytes[i]);
    text += pair;
  }
  return text;
}

class MockHash : public CHash {
 public:
  MOCK_METHOD(ResultCode, Update, (const void* data, unsigned* length), (override));
  MOCK_METHOD(ResultCode, GetDigest, (void* buffer, unsigned* length), (override));
  MOCK_METHOD(ResultCode, GetHash, (std::string & out), (override));
};

// Construction

TEST(OpenSSLHash, KnownDigestNamesConstruct) {
  for (const char* name : {"sha1", "md5", "sha256", "sha384", "sha512", "SHA256"}) {
    ResultCode result = HASH_ERROR_UNKNOWN;
    COpenSSLHash hash(&result, name);
    EXPECT_EQ(result, 0u) << name;
  }
}

TEST(OpenSSLHash, NullNameGivesNullPointerAndAnUnusableObject) {
  ResultCode result = 0;
  COpenSSLHash hash(&result, nullptr);
  EXPECT_EQ(result, HASH_ERROR_NULL_POINTER);
  unsigned length = 1;
  EXPECT_EQ(hash.Update("a", &length), HASH_ERROR_NOT_INITIALIZED);
  std::string out = "keep";
  EXPECT_EQ(hash.GetHash(out), HASH_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(out, "keep");
}

TEST(OpenSSLHash, UnknownNameGivesGetDigestAndAnUnusableObject) {
  for (const char* name : {"nosuchdigest", "", "sha-1x"}) {
    ResultCode result = 0;
    COpenSSLHash hash(&result, name);
    EXPECT_EQ(result, HASH_ERROR_GET_DIGEST) << name;
    unsigned char buffer[64];
    unsigned length = sizeof(buffer);
    EXPECT_EQ(hash.GetDigest(buffer, &length), HASH_ERROR_NOT_INITIALIZED);
  }
}

// Digests

TEST(OpenSSLHash, Sha1OfAbcIsTheKnownVector) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  std::string out;
  EXPECT_EQ(HashString(hash, "abc", out), 0u);
  EXPECT_EQ(out, "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

TEST(OpenSSLHash, Md5OfAbcIsTheKnownVector) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "md5");
  ASSERT_EQ(result, 0u);
  std::string out;
  EXPECT_EQ(HashString(hash, "abc", out), 0u);
  EXPECT_EQ(out, "900150983CD24FB0D6963F7D28E17F72");
}

TEST(OpenSSLHash, Sha256OfNothingIsTheKnownVector) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha256");
  ASSERT_EQ(result, 0u);
  std::string out = "old text is replaced";
  EXPECT_EQ(HashString(hash, "", out), 0u);
  EXPECT_EQ(out, "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
}

TEST(OpenSSLHash, TextIsUpperCaseHexOnly) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha256");
  ASSERT_EQ(result, 0u);
  std::string out;
  ASSERT_EQ(HashString(hash, "abc", out), 0u);
  ASSERT_EQ(out.size(), 64u);
  EXPECT_EQ(out.find_first_not_of("0123456789ABCDEF"), std::string::npos) << out;
  EXPECT_NE(out.find_first_of("ABCDEF"), std::string::npos) << out;
}

TEST(OpenSSLHash, Sha512DigestIs64BytesAndFitsExactly) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha512");
  ASSERT_EQ(result, 0u);
  unsigned length = 3;
  ASSERT_EQ(hash.Update("abc", &length), 0u);
  unsigned char digest[COpenSSLHash::kMaxDigestSize];
  length = sizeof(digest);
  ASSERT_EQ(hash.GetDigest(digest, &length), 0u);
  EXPECT_EQ(length, 64u);
  EXPECT_EQ(Hex(digest, length),
            "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A"
            "2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80E2A9AC94FA54CA49F");
}

TEST(OpenSSLHash, Sha512TextIs128Digits) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha512");
  ASSERT_EQ(result, 0u);
  std::string out;
  ASSERT_EQ(HashString(hash, "abc", out), 0u);
  EXPECT_EQ(out.size(), 128u);
  EXPECT_EQ(out.substr(0, 16), "DDAF35A193617ABA");
}

TEST(OpenSSLHash, UpdatesInPiecesEqualOneUpdate) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash pieces(&result, "sha1");
  ASSERT_EQ(result, 0u);
  for (const char* piece : {"a", "", "bc"}) {
    unsigned length = static_cast<unsigned>(strlen(piece));
    ASSERT_EQ(pieces.Update(piece, &length), 0u);
  }
  std::string out;
  ASSERT_EQ(pieces.GetHash(out), 0u);
  EXPECT_EQ(out, "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

TEST(OpenSSLHash, EmbeddedZeroBytesAreHashed) {
  keeltest::TempDir dir;
  const std::string data("a\0b\0", 4);
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("data"), data));
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha256");
  ASSERT_EQ(result, 0u);
  std::string out;
  ASSERT_EQ(HashString(hash, data, out), 0u);
  EXPECT_EQ(out, ChecksumOf("sha256sum", dir.Sub("data")));
}

TEST(OpenSSLHash, NullDataIsRefusedUnlessEmpty) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  unsigned length = 4;
  EXPECT_EQ(hash.Update(nullptr, &length), HASH_ERROR_NULL_POINTER);
  EXPECT_EQ(hash.Update("abcd", nullptr), HASH_ERROR_NULL_POINTER);
  length = 0;
  EXPECT_EQ(hash.Update(nullptr, &length), 0u);
  std::string out;
  ASSERT_EQ(hash.GetHash(out), 0u);
  EXPECT_EQ(out, "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");  // sha1 of nothing
}

// GetDigest protocol

TEST(OpenSSLHash, SmallLengthAsksForTheSizeWithoutSpendingTheObject) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  unsigned length = 0;
  EXPECT_EQ(hash.GetDigest(nullptr, &length), HASH_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 20u);
  length = 19;
  unsigned char digest[20];
  EXPECT_EQ(hash.GetDigest(digest, &length), HASH_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 20u);
  unsigned three = 3;
  ASSERT_EQ(hash.Update("abc", &three), 0u);
  ASSERT_EQ(hash.GetDigest(digest, &length), 0u);
  EXPECT_EQ(Hex(digest, length), "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

TEST(OpenSSLHash, NullBufferOfEnoughLengthIsRefused) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha256");
  ASSERT_EQ(result, 0u);
  unsigned length = 32;
  EXPECT_EQ(hash.GetDigest(nullptr, &length), HASH_ERROR_NULL_POINTER);
  EXPECT_EQ(hash.GetDigest(nullptr, nullptr), HASH_ERROR_NULL_POINTER);
  std::string out;
  EXPECT_EQ(hash.GetHash(out), 0u);  // still usable
}

TEST(OpenSSLHash, LargerBufferGetsTheDigestLength) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "md5");
  ASSERT_EQ(result, 0u);
  unsigned char digest[100];
  unsigned length = sizeof(digest);
  ASSERT_EQ(hash.GetDigest(digest, &length), 0u);
  EXPECT_EQ(length, 16u);
}

// A spent object

TEST(OpenSSLHash, AfterGetHashUpdateAndGetDigestAnswerNotInitialized) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  std::string out;
  ASSERT_EQ(hash.GetHash(out), 0u);
  unsigned length = 3;
  EXPECT_EQ(hash.Update("abc", &length), HASH_ERROR_NOT_INITIALIZED);
  unsigned char digest[64];
  length = sizeof(digest);
  EXPECT_EQ(hash.GetDigest(digest, &length), HASH_ERROR_NOT_INITIALIZED);
  std::string again = "keep";
  EXPECT_EQ(hash.GetHash(again), HASH_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(again, "keep");
}

TEST(OpenSSLHash, AfterGetDigestTheObjectIsSpentToo) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha256");
  ASSERT_EQ(result, 0u);
  unsigned char digest[64];
  unsigned length = sizeof(digest);
  ASSERT_EQ(hash.GetDigest(digest, &length), 0u);
  unsigned one = 1;
  EXPECT_EQ(hash.Update("a", &one), HASH_ERROR_NOT_INITIALIZED);
  std::string out;
  EXPECT_EQ(hash.GetHash(out), HASH_ERROR_NOT_INITIALIZED);
}

// HashString

TEST(HashString, FailedUpdateIsLoggedAndReturned) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  std::string out;
  ASSERT_EQ(hash.GetHash(out), 0u);
  keeltest::LogCapture capture;
  std::string again = "keep";
  EXPECT_EQ(HashString(hash, "abc", again), HASH_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(again, "keep");
  EXPECT_TRUE(LoggedFailedCall(capture, "HashString", "CHash::Update", HASH_ERROR_NOT_INITIALIZED));
}

TEST(HashString, FailedGetHashIsLoggedAndReturned) {
  MockHash hash;
  EXPECT_CALL(hash, Update(_, _)).WillOnce([](const void* data, unsigned* length) {
    EXPECT_EQ(*length, 5u);  // no terminator
    EXPECT_EQ(std::string(static_cast<const char*>(data), *length), "hello");
    return ResultCode{0};
  });
  EXPECT_CALL(hash, GetHash(_)).WillOnce(Return(HASH_ERROR_GET_HASH));
  keeltest::LogCapture capture;
  std::string out;
  EXPECT_EQ(HashString(hash, "hello", out), HASH_ERROR_GET_HASH);
  EXPECT_TRUE(LoggedFailedCall(capture, "HashString", "CHash::GetHash", HASH_ERROR_GET_HASH));
}

TEST(HashString, SuccessLogsNothing) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  keeltest::LogCapture capture;
  std::string out;
  EXPECT_EQ(HashString(hash, "abc", out), 0u);
  EXPECT_TRUE(capture.logger().Records().empty());
}

// HashFile

TEST(HashFile, MultiBlockFileMatchesSha256sum) {
  keeltest::TempDir dir;
  std::string content;
  for (int i = 0; i < 2600; ++i)
    content += static_cast<char>(i * 7);  // crosses two 1024-byte blocks
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("blob"), content));
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha256");
  ASSERT_EQ(result, 0u);
  std::string out;
  EXPECT_EQ(HashFile(hash, dir.Sub("blob"), out), 0u);
  EXPECT_EQ(out, ChecksumOf("sha256sum", dir.Sub("blob")));
}

TEST(HashFile, ExactBlockSizeAndEmptyFilesMatchSha1sum) {
  keeltest::TempDir dir;
  for (const std::string& content : {std::string(1024, 'z'), std::string()}) {
    ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), content));
    ResultCode result = HASH_ERROR_UNKNOWN;
    COpenSSLHash hash(&result, "sha1");
    ASSERT_EQ(result, 0u);
    std::string out;
    EXPECT_EQ(HashFile(hash, dir.Sub("f"), out), 0u);
    EXPECT_EQ(out, ChecksumOf("sha1sum", dir.Sub("f")));
  }
}

TEST(HashFile, MissingFileGivesIoErrorFromOpen) {
  keeltest::TempDir dir;
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  keeltest::LogCapture capture;
  std::string out;
  EXPECT_EQ(HashFile(hash, dir.Sub("absent"), out), HASH_ERROR_IO);
  EXPECT_TRUE(LoggedFailedCall(capture, "HashFile", "std::ifstream::open", HASH_ERROR_IO));
}

TEST(HashFile, FolderGivesIoErrorFromRead) {
  keeltest::TempDir dir;
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  keeltest::LogCapture capture;
  std::string out;
  EXPECT_EQ(HashFile(hash, dir.path(), out), HASH_ERROR_IO);
  EXPECT_TRUE(LoggedFailedCall(capture, "HashFile", "std::ifstream::read", HASH_ERROR_IO));
}

TEST(HashFile, FailedUpdateGivesUpdateError) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), "content"));
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, "sha1");
  ASSERT_EQ(result, 0u);
  std::string out;
  ASSERT_EQ(hash.GetHash(out), 0u);  // spend it
  keeltest::LogCapture capture;
  EXPECT_EQ(HashFile(hash, dir.Sub("f"), out), HASH_ERROR_UPDATE);
  EXPECT_TRUE(LoggedFailedCall(capture, "HashFile", "CHash::Update", HASH_ERROR_UPDATE));
}

TEST(HashFile, FailedGetHashGivesItsCode) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), "content"));
  MockHash hash;
  EXPECT_CALL(hash, Update(_, _)).WillOnce(Return(0));
  EXPECT_CALL(hash, GetHash(_)).WillOnce(Return(HASH_ERROR_GET_HASH));
  keeltest::LogCapture capture;
  std::string out;
  EXPECT_EQ(HashFile(hash, dir.Sub("f"), out), HASH_ERROR_GET_HASH);
  EXPECT_TRUE(LoggedFailedCall(capture, "HashFile", "CHash::GetHash", HASH_ERROR_GET_HASH));
}

TEST(HashFile, ByAlgorithmNumberMatchesTheChecksumPrograms) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), "some file content\n"));
  const struct {
    unsigned algorithm;
    const char* program;
  } cases[] = {{HASH_ALGORITHM_SHA1, "sha1sum"},
               {HASH_ALGORITHM_MD5, "md5sum"},
               {HASH_ALGORITHM_SHA256, "sha256sum"},
               {HASH_ALGORITHM_SHA384, "sha384sum"},
               {HASH_ALGORITHM_SHA512, "sha512sum"}};
  for (const auto& c : cases) {
    keeltest::LogCapture capture;
    std::string out;
    EXPECT_EQ(HashFileByAlgorithm(c.algorithm, dir.Sub("f"), out), 0u) << c.program;
    EXPECT_EQ(out, ChecksumOf(c.program, dir.Sub("f"))) << c.program;
    EXPECT_TRUE(capture.Contains("\nprovider = " + std::to_string(c.algorithm)));
  }
}

TEST(HashFile, AlgorithmNumberAboveSha512IsABadParameter) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), "x"));
  keeltest::LogCapture capture;
  std::string out = "keep";
  EXPECT_EQ(HashFileByAlgorithm(5, dir.Sub("f"), out), HASH_ERROR_BAD_PARAMETER);
  EXPECT_EQ(HashFileByAlgorithm(0xFFFFFFFFu, dir.Sub("f"), out), HASH_ERROR_BAD_PARAMETER);
  EXPECT_EQ(out, "keep");
  EXPECT_TRUE(capture.Contains("\nprovider = 5"));
  EXPECT_TRUE(capture.Contains("\nprovider = -1"));
}

TEST(HashFile, ByNameRefusesNullAndUnknownNames) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), "x"));
  keeltest::LogCapture capture;
  std::string out;
  EXPECT_EQ(HashFileByName(nullptr, dir.Sub("f"), out), HASH_ERROR_NULL_POINTER);
  EXPECT_EQ(HashFileByName("nosuchdigest", dir.Sub("f"), out), HASH_ERROR_GET_DIGEST);
  EXPECT_TRUE(LoggedFailedCall(capture, "HashFileByName", "COpenSSLHash", HASH_ERROR_GET_DIGEST));
  EXPECT_EQ(HashFileByName("sha256", dir.Sub("f"), out), 0u);
  EXPECT_EQ(out, ChecksumOf("sha256sum", dir.Sub("f")));
}

}  // namespace
