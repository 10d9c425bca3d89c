#include "Common/Log/Logger.h"

// Without this the journal call would add code-location fields of its own.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <ctime>
#include <iostream>

const char* LogWordFor(uint32_t severity, uint32_t level) {
  static const char* const kWords[] = {"EMERGENCY", "ALERT",  "CRITICAL", "ERROR",
                                       "WARNING",   "NOTICE", "INFO"};
  if (severity < 7)
    return kWords[severity];
  switch (level) {
    case LOG_LEVEL_E:
      return "ERROR";
    case LOG_LEVEL_W:
      return "WARNING";
    case LOG_LEVEL_I:
    case LOG_LEVEL_T:
      return "NOTICE";
    default:
      return "DEBUG";
  }
}

int JournalPriorityFor(uint32_t severity, uint32_t level) {
  if (severity < 7)
    return static_cast<int>(severity);
  switch (level) {
    case LOG_LEVEL_E:
      return 3;
    case LOG_LEVEL_W:
      return 4;
    case LOG_LEVEL_I:
    case LOG_LEVEL_T:
      return 5;
    default:
      return 7;
  }
}

std::string OneLine(const char* message) {
  std::string line(message);
  for (char& c : line) {
    if (c == '\n')
      c = ' ';
  }
  return line;
}

ResultCode CSDJournalLogger::Log(uint32_t severity, const char* message,
                                 const char* /*messageName*/, uint32_t /*messageId*/,
                                 uint32_t level) {
  if (message == nullptr)
    return GLOBAL_ERROR_BAD_PARAMETER;
  const std::string line = OneLine(message);
  sd_journal_send("MESSAGE=%s", line.c_str(), "PRIORITY=%i", JournalPriorityFor(severity, level),
                  "SYSLOG_IDENTIFIER=%s", m_identifier.c_str(), nullptr);
  return 0;
}

ResultCode CStdoutLogger::Log(uint32_t severity, const char* message, const char* /*messageName*/,
                              uint32_t /*messageId*/, uint32_t level) {
  if (message == nullptr)
    return GLOBAL_ERROR_BAD_PARAMETER;
  const std::string line = OneLine(message);
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char stamp[32];
  strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
  // Several insertions and no lock: lines of two threads may interleave,
  // which is accepted for a mode meant for debugging.
  std::cout << stamp << ' ' << m_identifier << '[' << getpid() << "]: ["
            << LogWordFor(severity, level) << "] " << line << '\n';
  std::cout.flush();
  return 0;
}
