#include "Common/Conversion/BinHex.h"

#include <climits>

#include "Common/Log/BoundedText.h"
#include "Common/Log/Log.h"

ResultCode CBinHex::bin2hex(const unsigned char* bytes, unsigned length, char* text,
                            unsigned* textSize) {
  if (bytes == nullptr || textSize == nullptr) {
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  // 2 * length + 1 must itself fit in an unsigned.
  if (length > (UINT_MAX - 1) / 2) {
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  const unsigned needed = 2 * length + 1;
  if (text == nullptr) {
    *textSize = needed;
    return 0;
  }
  if (*textSize < needed) {
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  text[0] = '\0';
  for (unsigned i = 0; i < length; ++i) {
    // Three bytes: the two digits and the terminator, which the next pair
    // overwrites.
    boundedFormat(text + 2 * i, 3, "%.2X", static_cast<unsigned>(bytes[i]));
  }
  return 0;
}

ResultCode CBinHex::hexCharToInt(char c, unsigned char* value) {
  if (value == nullptr) {
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  if (c >= '0' && c <= '9') {
    *value = static_cast<unsigned char>(c - '0');
  } else if (c >= 'a' && c <= 'f') {
    *value = static_cast<unsigned char>(c - 'a' + 10);
  } else if (c >= 'A' && c <= 'F') {
    *value = static_cast<unsigned char>(c - 'A' + 10);
  } else {
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  return 0;
}

ResultCode CBinHex::hex2bin(const char* text, unsigned textLength, unsigned char* bytes,
                            unsigned* size) {
  if (textLength % 2 != 0) {
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  const unsigned needed = textLength / 2;
  // The capacity is checked before the size query, so a query must come
  // with a size already large enough.
  if (size == nullptr || *size < needed) {
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  if (text == nullptr) {
    return GLOBAL_ERROR_BAD_PARAMETER;
  }
  if (bytes == nullptr) {
    *size = needed;
    return 0;
  }
  for (unsigned i = 0; i < needed; ++i) {
    unsigned char high = 0;
    unsigned char low = 0;
    ResultCode result = hexCharToInt(text[2 * i], &high);
    if (result == 0) {
      result = hexCharToInt(text[2 * i + 1], &low);
    }
    if (result != 0) {
      KLOG_RC(LOG_LEVEL_E, "CBinHex::hexCharToInt", result);
      return result;
    }
    bytes[i] = static_cast<unsigned char>((high << 4) | low);
  }
  *size = needed;
  return 0;
}
