// Hash objects over OpenSSL's digest interface, and helpers that hash a
// string or a file into upper-case hex text.
//
// A hash object gives one digest and is then spent: after GetDigest or
// GetHash has succeeded, every further call answers
// HASH_ERROR_NOT_INITIALIZED. Objects hold no shared state; one object
// belongs to one thread at a time.
#ifndef COMMONCRYPT_HASH_H_
#define COMMONCRYPT_HASH_H_

#include <memory>
#include <string>

#include "Common/Result/ResultCode.h"
#include "Common/Utility/ScopedHandles.h"

typedef struct evp_md_ctx_st EVP_MD_CTX;

class CHash {
 public:
  virtual ~CHash() = default;

  // Feeds *length bytes at `data` into the digest.
  virtual ResultCode Update(const void* data, unsigned* length) = 0;
  // Writes the binary digest into `buffer`, of *length bytes, and sets
  // *length to its size. When *length is too small, it is set to the size
  // needed and HASH_ERROR_INSUFFICIENT_BUFFER is returned, so a caller can
  // ask for the size first.
  virtual ResultCode GetDigest(void* buffer, unsigned* length) = 0;
  // The digest as two upper-case hex digits per byte, no separators.
  virtual ResultCode GetHash(std::string& out) = 0;
};

class COpenSSLHash : public CHash {
 public:
  // The largest digest this class gives, in bytes.
  static constexpr unsigned kMaxDigestSize = 64;

  // `hashName` is an OpenSSL digest name such as "sha1" or "sha256".
  // *result is 0 when the object is ready for Update.
  COpenSSLHash(ResultCode* result, const char* hashName);
  ~COpenSSLHash() override;

  COpenSSLHash(const COpenSSLHash&) = delete;
  COpenSSLHash& operator=(const COpenSSLHash&) = delete;

  ResultCode Update(const void* data, unsigned* length) override;
  ResultCode GetDigest(void* buffer, unsigned* length) override;
  ResultCode GetHash(std::string& out) override;

 private:
  bool IsOpen() const { return m_initialized && !m_finalized; }

  bool m_initialized = false;
  bool m_finalized = false;
  DigestContextHandle m_context;
};

// Hashes the bytes of `data` (no terminator) and puts the hex text in `out`.
ResultCode HashString(CHash& hash, const std::string& data, std::string& out);

// Hashes the content of the file at `path`, read in blocks of 1024 bytes.
ResultCode HashFile(CHash& hash, const std::string& path, std::string& out);

// The digests the family's programs choose by number, numbered from 0 in this order.
enum HashAlgorithm : unsigned {
  HASH_ALGORITHM_SHA1,
  HASH_ALGORITHM_MD5,
  HASH_ALGORITHM_SHA256,
  HASH_ALGORITHM_SHA384,
  HASH_ALGORITHM_SHA512,
};

// HashFile with a hash object of its own for the digest `hashName`.
ResultCode HashFileByName(const char* hashName, const std::string& path, std::string& out);
// The same by number; a number above HASH_ALGORITHM_SHA512 gives
// HASH_ERROR_BAD_PARAMETER.
ResultCode HashFileByAlgorithm(unsigned algorithm, const std::string& path, std::string& out);

#endif  // COMMONCRYPT_HASH_H_
