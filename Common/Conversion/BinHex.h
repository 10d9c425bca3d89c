// Conversion between bytes and upper-case hexadecimal text.
#ifndef COMMON_CONVERSION_BINHEX_H_
#define COMMON_CONVERSION_BINHEX_H_

#include "Common/Result/ResultCode.h"

class CBinHex {
 public:
  // Writes two upper-case digits per byte and a terminator into `text`,
  // which must hold 2 * length + 1 bytes. A null `text` asks for that size
  // through *textSize.
  static ResultCode bin2hex(const unsigned char* bytes, unsigned length, char* text,
                            unsigned* textSize);
  // 0-9, a-f, A-F into 0..15.
  static ResultCode hexCharToInt(char c, unsigned char* value);
  // Pairs of digits, high first, into bytes. A null `bytes` asks for the size.
  static ResultCode hex2bin(const char* text, unsigned textLength, unsigned char* bytes,
                            unsigned* size);
};

#endif  // COMMON_CONVERSION_BINHEX_H_
