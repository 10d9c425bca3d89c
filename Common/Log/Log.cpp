#include "Common/Log/Log.h"

#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "Common/Log/BoundedText.h"
#include "Common/Log/ManualLock.h"
#include "Common/Log/MessageTable.h"
#include "Common/Result/ResultCatalog.h"

namespace {

// Process-wide state. The sink and the catalogue are written under the scope
// lock and read by log calls without it; atomics keep those reads defined.
std::atomic<ILogger*> g_sink{nullptr};
uint32_t g_scopeCount = 0;
std::atomic<uint32_t> g_moduleCount{0};
std::atomic<const ResultCodeModule*> g_moduleTable{nullptr};

CManualLock& ScopeLock() {
  static CManualLock lock(500);
  return lock;
}

// Per-thread buffers, so that log calls neither allocate nor contend.
constexpr size_t kCallTextSize = 2049;
constexpr size_t kFinalTextSize = 2561;
thread_local char t_messageText[kCallTextSize];
thread_local char t_returnCodeText[kCallTextSize];
thread_local char t_finalText[kFinalTextSize];
thread_local pthread_t t_threadId = 0;

int CachedThreadId() {
  if (t_threadId == 0)
    t_threadId = pthread_self();
  // The raw value printed with "%d": its low 32 bits as a signed number.
  return static_cast<int>(static_cast<uint64_t>(t_threadId));
}

ILogger* SinkFromEnvironment(const char* identifier) {
  const char* output = getenv("VTC_LOGGING_OUTPUT");
  if (output != nullptr && strcmp(output, "STDOUT") == 0)
    return new CStdoutLogger(identifier);
  return new CSDJournalLogger(identifier);
}

std::string g_identifier;  // kept for ReselectLogSink

void LogMessageIdV(unsigned id, unsigned level, va_list arguments) {
  const MessageRow* row = FindMessageRow(id);
  boundedFormatV(t_finalText, kFinalTextSize, row->format, arguments);
  ILogger* sink = g_sink.load(std::memory_order_acquire);
  if (sink == nullptr)
    return;
  sink->Log(row->severity, t_finalText, row->name, id, level);
}

}  // namespace

CLogScope::CLogScope(ResultCode* result, const char* identifier, ILogger* sink) {
  CManualLockGuard guard(ScopeLock());
  ++g_scopeCount;
  g_moduleCount.store(kResultCodeModuleCount, std::memory_order_release);
  g_moduleTable.store(g_resultCodeModules, std::memory_order_release);
  if (g_sink.load() != nullptr) {
    // A second scope shares the first sink; its own arguments are ignored.
    delete sink;
    if (result != nullptr)
      *result = 0;
    return;
  }
  g_identifier = identifier != nullptr ? identifier : "";
  g_sink.store(sink != nullptr ? sink : SinkFromEnvironment(g_identifier.c_str()),
               std::memory_order_release);
  if (result != nullptr)
    *result = 0;
}

CLogScope::~CLogScope() {
  ScopeLock().Lock();
  if (g_scopeCount == 0) {
    ScopeLock().Unlock();
    return;
  }
  const uint32_t before = g_scopeCount--;
  ScopeLock().Unlock();
  if (before == 1)
    delete g_sink.exchange(nullptr);
}

ResultCode ReselectLogSink() {
  CManualLockGuard guard(ScopeLock());
  if (g_scopeCount == 0)
    return GLOBAL_ERROR_NO_INSTANCE;
  delete g_sink.exchange(SinkFromEnvironment(g_identifier.c_str()));
  return 0;
}

namespace {

// The caller's own text of one call, in `buffer` of kCallTextSize bytes;
// empty without a format.
void RenderCallText(char* buffer, const char* format, va_list arguments) {
  buffer[0] = '\0';
  if (format != nullptr)
    boundedFormatV(buffer, kCallTextSize, format, arguments);
}

}  // namespace

bool HasLogSink() {
  return g_sink.load() != nullptr;
}

void LogDebugMessage(const char* function, const char* file, unsigned line, unsigned level,
                     const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  RenderCallText(t_messageText, format, arguments);
  va_end(arguments);
  LogMessageId(MID_DEBUG_MESSAGE, level, CachedThreadId(), function, file, static_cast<int>(line),
               t_messageText);
}

void LogDebugReturnCode(const char* function, const char* file, unsigned line, unsigned level,
                        const char* invokedFunction, ResultCode code, const char* description,
                        const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  RenderCallText(t_returnCodeText, format, arguments);
  va_end(arguments);
  const char* trailing = t_returnCodeText;
  if (description == nullptr) {
    if (code == 0) {
      // A success with a text: the text stands as the description.
      description = format != nullptr ? t_returnCodeText : "unknown";
      if (format != nullptr)
        trailing = "";
    } else {
      description = DescribeResultCode(code, g_moduleCount.load(std::memory_order_acquire),
                                       g_moduleTable.load(std::memory_order_acquire));
    }
  }
  LogMessageId(MID_DEBUG_RETURN_CODE, level, CachedThreadId(), function, file,
               static_cast<int>(line), invokedFunction, static_cast<int>(code),
               static_cast<unsigned>(code), description, trailing);
}

void LogMessageId(unsigned id, unsigned level, ...) {
  va_list arguments;
  va_start(arguments, level);
  LogMessageIdV(id, level, arguments);
  va_end(arguments);
}

void LogMessageIdTrace(unsigned id, ...) {
  va_list arguments;
  va_start(arguments, id);
  LogMessageIdV(id, LOG_LEVEL_T, arguments);
  va_end(arguments);
}
