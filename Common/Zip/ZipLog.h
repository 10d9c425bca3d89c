// Logging of a failed minizip or zlib call: their result codes are small
// negative numbers that the result-code catalogue does not know, so the log
// gets a readable name for them instead.
#ifndef COMMON_ZIP_ZIPLOG_H_
#define COMMON_ZIP_ZIPLOG_H_

#include "Common/Log/Log.h"

// A readable name for a minizip or zlib result.
const char* ZipLibraryCodeText(int code);

// Logs a failed minizip or zlib call at error level with its own code, the
// name of that code and an optional formatted text.
#define KLOG_LIBRARY(invoked, code, ...)                                 \
  LogDebugReturnCode(__func__, __FILE__, __LINE__, LOG_LEVEL_E, invoked, \
                     static_cast<ResultCode>(code), ZipLibraryCodeText(code), __VA_ARGS__)

#endif  // COMMON_ZIP_ZIPLOG_H_
