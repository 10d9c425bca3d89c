#include "CommonCrypt/Hash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <vector>

#include "Common/Conversion/BinHex.h"
#include "Common/Log/Log.h"
#include "CommonCrypt/OpensslUtility.h"

namespace {

constexpr size_t kFileBlockSize = 1024;

}  // namespace

COpenSSLHash::COpenSSLHash(ResultCode* result, const char* hashName) {
  *result = HASH_ERROR_UNKNOWN;
  if (hashName == nullptr) {
    *result = HASH_ERROR_NULL_POINTER;
    return;
  }
  const ResultCode started = COpensslUtility::Initialize();
  if (started != 0) {
    *result = started;
    return;
  }
  m_context.reset(EVP_MD_CTX_new());
  if (!m_context) {
    *result = HASH_ERROR_MEMALLOC_FAILED;
    return;
  }
  const EVP_MD* digest = EVP_get_digestbyname(hashName);
  if (digest == nullptr) {
    *result = HASH_ERROR_GET_DIGEST;
    return;
  }
  if (EVP_DigestInit_ex(m_context.get(), digest, nullptr) != 1) {
    *result = HASH_ERROR_INIT;
    return;
  }
  m_initialized = true;
  *result = 0;
}

COpenSSLHash::~COpenSSLHash() = default;

ResultCode COpenSSLHash::Update(const void* data, unsigned* length) {
  if (!IsOpen())
    return HASH_ERROR_NOT_INITIALIZED;
  if (length == nullptr || (data == nullptr && *length != 0))
    return HASH_ERROR_NULL_POINTER;
  if (EVP_DigestUpdate(m_context.get(), data, *length) != 1)
    return HASH_ERROR_UPDATE;
  return 0;
}

ResultCode COpenSSLHash::GetDigest(void* buffer, unsigned* length) {
  if (!IsOpen())
    return HASH_ERROR_NOT_INITIALIZED;
  if (length == nullptr)
    return HASH_ERROR_NULL_POINTER;
  const int size = EVP_MD_CTX_get_size(m_context.get());
  if (size <= 0)
    return HASH_ERROR_GET_HASH;
  if (*length < static_cast<unsigned>(size)) {
    *length = static_cast<unsigned>(size);
    return HASH_ERROR_INSUFFICIENT_BUFFER;
  }
  if (buffer == nullptr)
    return HASH_ERROR_NULL_POINTER;
  // The local buffer bounds what this class can give.
  if (static_cast<unsigned>(size) > kMaxDigestSize)
    return HASH_ERROR_INSUFFICIENT_BUFFER;

  unsigned char digest[kMaxDigestSize];
  unsigned digestLength = 0;
  if (EVP_DigestFinal_ex(m_context.get(), digest, &digestLength) != 1)
    return HASH_ERROR_GET_HASH;
  ResultCode result = HASH_ERROR_INSUFFICIENT_BUFFER;
  if (*length >= digestLength) {
    memcpy(buffer, digest, digestLength);
    *length = digestLength;
    m_finalized = true;
    result = 0;
  }
  OPENSSL_cleanse(digest, sizeof(digest));
  return result;
}

ResultCode COpenSSLHash::GetHash(std::string& out) {
  unsigned char digest[kMaxDigestSize];
  unsigned length = sizeof(digest);
  ResultCode result = GetDigest(digest, &length);
  if (result != 0)
    return result;

  std::vector<char> text(2 * length + 1, '\0');
  unsigned textSize = static_cast<unsigned>(text.size());
  result = CBinHex::bin2hex(digest, length, text.data(), &textSize);
  OPENSSL_cleanse(digest, sizeof(digest));
  if (result != 0)
    return result;
  std::string hex(text.data(), 2 * length);
  out.swap(hex);
  m_finalized = true;
  return 0;
}

ResultCode HashString(CHash& hash, const std::string& data, std::string& out) {
  // Update takes an unsigned length; larger texts are refused, not cut.
  if (data.size() > UINT_MAX) {
    KLOG_E("Text of %zu bytes is too long to hash", data.size());
    return HASH_ERROR_BAD_PARAMETER;
  }
  unsigned length = static_cast<unsigned>(data.size());
  ResultCode result = hash.Update(data.data(), &length);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CHash::Update", result);
    return result;
  }
  result = hash.GetHash(out);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CHash::GetHash", result);
    return result;
  }
  return 0;
}

ResultCode HashFile(CHash& hash, const std::string& path, std::string& out) {
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) {
    KLOG_RC(LOG_LEVEL_E, "std::ifstream::open", HASH_ERROR_IO);
    return HASH_ERROR_IO;
  }
  char block[kFileBlockSize];
  while (file) {
    file.read(block, sizeof(block));
    if (file.bad()) {
      KLOG_RC(LOG_LEVEL_E, "std::ifstream::read", HASH_ERROR_IO);
      return HASH_ERROR_IO;
    }
    unsigned length = static_cast<unsigned>(file.gcount());
    if (length == 0)
      continue;
    if (hash.Update(block, &length) != 0) {
      KLOG_RC(LOG_LEVEL_E, "CHash::Update", HASH_ERROR_UPDATE);
      return HASH_ERROR_UPDATE;
    }
  }
  const ResultCode result = hash.GetHash(out);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CHash::GetHash", result);
    return result;
  }
  return 0;
}

ResultCode HashFileByName(const char* hashName, const std::string& path, std::string& out) {
  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, hashName);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "COpenSSLHash", result);
    return result;
  }
  return HashFile(hash, path, out);
}

ResultCode HashFileByAlgorithm(unsigned algorithm, const std::string& path, std::string& out) {
  KLOG(LOG_LEVEL_T, "provider = %d", static_cast<int>(algorithm));
  static const char* const kNames[] = {"sha1", "md5", "sha256", "sha384", "sha512"};
  if (algorithm >= sizeof(kNames) / sizeof(kNames[0]))
    return HASH_ERROR_BAD_PARAMETER;
  return HashFileByName(kNames[algorithm], path, out);
}
