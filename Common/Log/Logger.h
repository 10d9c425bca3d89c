// Log sinks: where a finished log record goes.
//
// The process has at most one sink, installed by the first CLogScope and
// deleted by the last. Sinks are called from any thread without a lock.
#ifndef COMMON_LOG_LOGGER_H_
#define COMMON_LOG_LOGGER_H_

#include <cstdint>
#include <string>

#include "Common/Result/ResultCode.h"

// The one-letter level of a log call.
constexpr uint32_t LOG_LEVEL_E = 'E';
constexpr uint32_t LOG_LEVEL_W = 'W';
constexpr uint32_t LOG_LEVEL_I = 'I';
constexpr uint32_t LOG_LEVEL_T = 'T';

// The word of a standard-output line for a row severity and a call level.
const char* LogWordFor(uint32_t severity, uint32_t level);
// The journal priority for a row severity and a call level.
int JournalPriorityFor(uint32_t severity, uint32_t level);
// The message with every line feed turned into one blank.
std::string OneLine(const char* message);

class ILogger {
 public:
  virtual ResultCode Log(uint32_t severity, const char* message, const char* messageName,
                         uint32_t messageId, uint32_t level) = 0;
  virtual ~ILogger() = default;
};

// A sink that names the program in every record.
class CNamedLogger : public ILogger {
 protected:
  explicit CNamedLogger(const char* identifier) : m_identifier(identifier) {}
  std::string m_identifier;
};

// Sends each record to the system journal with exactly the fields MESSAGE,
// PRIORITY and SYSLOG_IDENTIFIER.
class CSDJournalLogger : public CNamedLogger {
 public:
  explicit CSDJournalLogger(const char* identifier) : CNamedLogger(identifier) {}
  ResultCode Log(uint32_t severity, const char* message, const char* messageName,
                 uint32_t messageId, uint32_t level) override;
};

// Writes each record as one line on standard output:
// "<local time> <identifier>[<pid>]: [<WORD>] <message>".
class CStdoutLogger : public CNamedLogger {
 public:
  explicit CStdoutLogger(const char* identifier) : CNamedLogger(identifier) {}
  ResultCode Log(uint32_t severity, const char* message, const char* messageName,
                 uint32_t messageId, uint32_t level) override;
};

#endif  // COMMON_LOG_LOGGER_H_
