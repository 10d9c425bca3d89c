// The log calls of the whole tool, and the scope that opens and closes them.
//
// A call site hands over its function, file, line and a one-letter level;
// the text is rendered into thread-local buffers, made one line and given to
// the process's one sink: the system journal, or standard output when
// VTC_LOGGING_OUTPUT is "STDOUT". Any thread may log at any time; outside an
// open scope the text is rendered and dropped.
#ifndef COMMON_LOG_LOG_H_
#define COMMON_LOG_LOG_H_

#include <cstdint>

#include "Common/Log/Logger.h"
#include "Common/Result/ResultCode.h"

// Opens logging for the process. The first scope installs the catalogue and
// a sink (the given one, which it then owns, or one chosen from the
// environment); later scopes share it and ignore their arguments. The last
// scope to close deletes the sink. Only the main thread opens and closes.
class CLogScope {
 public:
  CLogScope(ResultCode* result, const char* identifier, ILogger* sink);
  ~CLogScope();
  CLogScope(const CLogScope&) = delete;
  CLogScope& operator=(const CLogScope&) = delete;
};

// Deletes the sink and chooses it anew from the environment. For the
// family's other programs; GLOBAL_ERROR_NO_INSTANCE when no scope is open.
ResultCode ReselectLogSink();
// Whether a sink is installed.
bool HasLogSink();

// The compiler checks the arguments of every call against its format, as it
// does for printf; a null format is allowed where the text is optional.
void LogDebugMessage(const char* function, const char* file, unsigned line, unsigned level,
                     const char* format, ...) __attribute__((format(printf, 5, 6)));

// Logs a failed call: `invokedFunction` is the callee, written by hand.
// `description` and `format` may be null; without a description the
// catalogue text of `code` is used.
void LogDebugReturnCode(const char* function, const char* file, unsigned line, unsigned level,
                        const char* invokedFunction, ResultCode code, const char* description,
                        const char* format, ...) __attribute__((format(printf, 8, 9)));

// Renders row `id` of the message table with the remaining arguments.
void LogMessageId(unsigned id, unsigned level, ...);
// The same with the level "T".
void LogMessageIdTrace(unsigned id, ...);

// Call-site macros: the compiler fills in function, file and line.
#define KLOG(level, ...) LogDebugMessage(__func__, __FILE__, __LINE__, level, __VA_ARGS__)
#define KLOG_E(...) KLOG(LOG_LEVEL_E, __VA_ARGS__)
#define KLOG_W(...) KLOG(LOG_LEVEL_W, __VA_ARGS__)
#define KLOG_I(...) KLOG(LOG_LEVEL_I, __VA_ARGS__)
// A failed callee with its code; no description, no text.
#define KLOG_RC(level, invoked, code) \
  LogDebugReturnCode(__func__, __FILE__, __LINE__, level, invoked, code, nullptr, nullptr)
// The same with a description of the caller's own in place of the catalogue's.
#define KLOG_RC_DESC(level, invoked, code, description) \
  LogDebugReturnCode(__func__, __FILE__, __LINE__, level, invoked, code, description, nullptr)
// The same with a formatted trailing text.
#define KLOG_RC_FMT(level, invoked, code, ...) \
  LogDebugReturnCode(__func__, __FILE__, __LINE__, level, invoked, code, nullptr, __VA_ARGS__)

#endif  // COMMON_LOG_LOG_H_
