#include "CommonCrypt/OpensslUtility.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/rand.h>

#include <cstdint>
#include <vector>

#include "Common/Conversion/BinHex.h"
#include "Common/Log/Log.h"
#include "Common/Log/ManualLock.h"

namespace {

// OPENSSL_INIT_LOAD_CRYPTO_STRINGS (0x2) | OPENSSL_INIT_NO_LOAD_CONFIG (0x80),
// plus 0x200000, the request for the TLS library's strings, which the
// family's programs pass everywhere and libcrypto alone ignores.
constexpr uint64_t kInitOptions = 0x200082;

// Room for one OpenSSL error text.
constexpr size_t kErrorTextSize = 512;

CManualLock g_initLock(500);

// Random bytes that are wiped before their memory goes back.
class SecretBytes {
 public:
  // Never empty, so that data() is a real address even for zero bytes.
  explicit SecretBytes(size_t size) : m_bytes(size > 0 ? size : 1) {}
  ~SecretBytes() { OPENSSL_cleanse(m_bytes.data(), m_bytes.size()); }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  unsigned char* data() { return m_bytes.data(); }

 private:
  std::vector<unsigned char> m_bytes;
};

}  // namespace

ResultCode COpensslUtility::Initialize() {
  CManualLockGuard guard(g_initLock);
  if (OPENSSL_init_crypto(kInitOptions, nullptr) != 1) {
    KLOG_RC(LOG_LEVEL_E, "OPENSSL_init_crypto", OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY);
    return OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY;
  }
  return 0;
}

ResultCode COpensslUtility::GenerateKey(char* text, unsigned textSize, unsigned keyBytes) {
  // Computed in 64 bits so that a huge keyBytes cannot wrap to a small size.
  if (text == nullptr || static_cast<uint64_t>(textSize) < 2 * static_cast<uint64_t>(keyBytes) + 1)
    return OPENSSLUTILITY_ERROR_BAD_PARAMETER;

  SecretBytes key(keyBytes);
  // keyBytes fits an int here: textSize, an unsigned, holds twice as much.
  if (RAND_bytes(key.data(), static_cast<int>(keyBytes)) <= 0) {
    char errorText[kErrorTextSize] = "unknown";
    const unsigned long error = ERR_peek_last_error();
    if (error != 0)
      ERR_error_string_n(error, errorText, sizeof(errorText));
    ERR_clear_error();
    KLOG_RC_DESC(LOG_LEVEL_E, "RAND_bytes", OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY, errorText);
    return OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY;
  }
  return CBinHex::bin2hex(key.data(), keyBytes, text, &textSize);
}
