// Process-wide start-up of OpenSSL's crypto library, and random key text.
//
// Any thread may call these. The start-up runs under one process-wide lock;
// repeating it is harmless, so every hash object asks for it.
#ifndef COMMONCRYPT_OPENSSLUTILITY_H_
#define COMMONCRYPT_OPENSSLUTILITY_H_

#include "Common/Result/ResultCode.h"

class COpensslUtility {
 public:
  // Loads the crypto error strings and skips the configuration file.
  // OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY when the library refuses.
  static ResultCode Initialize();

  // Draws `keyBytes` random bytes and writes them as upper-case hex text
  // into `text`, which must hold 2 * keyBytes + 1 bytes. The raw bytes are
  // wiped before they are released, whatever the outcome.
  static ResultCode GenerateKey(char* text, unsigned textSize, unsigned keyBytes);
};

#endif  // COMMONCRYPT_OPENSSLUTILITY_H_
