#include "bench/support/LogLines.h"

#include <algorithm>
#include <cstdio>

#include "Common/Utility/ScopedHandles.h"

namespace benchsupport {

void LogLines::append(std::string& text, size_t size) {
  static const char* const kLevels[] = {"debug", "info", "info", "info", "notice", "warn", "error"};
  static const char* const kComponents[] = {"tunnel", "dns",    "routing", "auth",
                                            "health", "config", "ipc",     "posture"};
  static const char* const kWords[] = {
      "handshake", "complete", "with",     "peer",     "renewing", "lease",  "on",
      "adapter",   "vtun0",    "resolver", "answered", "query",    "for",    "record",
      "policy",    "push",     "accepted", "rejected", "backoff",  "of",     "ms",
      "interface", "state",    "changed",  "up",       "down",     "bytes",  "sent",
      "received",  "session",  "token",    "expired",  "probe",    "failed", "retry"};
  char line[192];
  while (text.size() < size) {
    m_millis += draw(2500);
    const uint64_t second = m_millis / 1000 % 86400;
    int used =
        snprintf(line, sizeof(line), "Mar 11 %02u:%02u:%02u.%03u host%u vtcd[%u/%u] %s %s: ",
                 static_cast<unsigned>(second / 3600), static_cast<unsigned>(second / 60 % 60),
                 static_cast<unsigned>(second % 60), static_cast<unsigned>(m_millis % 1000),
                 draw(4), 2000 + draw(40), draw(16), pick(kLevels), pick(kComponents));
    text.append(line, static_cast<size_t>(used));
    const unsigned words = 3 + draw(16);
    for (unsigned i = 0; i < words; ++i) {
      const unsigned kind = draw(12);
      if (kind == 0)
        used = snprintf(line, sizeof(line), "192.168.%u.%u:%u", draw(256), draw(256),
                        1024 + draw(60000));
      else if (kind == 1)
        used = snprintf(line, sizeof(line), "handle=0x%06x", draw(1u << 24));
      else if (kind == 2)
        used = snprintf(line, sizeof(line), "%u", draw(65536));
      else
        used = snprintf(line, sizeof(line), "%s", pick(kWords));
      text.append(line, static_cast<size_t>(used));
      text += i + 1 < words ? ' ' : '\n';
    }
  }
}

bool WriteLogFile(const std::string& path, uint64_t size, LogLines& lines) {
  FileHandle file(fopen(path.c_str(), "wb"));
  if (!file) {
    perror(path.c_str());
    return false;
  }
  std::string block;
  for (uint64_t written = 0; written < size;) {
    const uint64_t chunk = std::min<uint64_t>(size - written, 1 << 20);
    block.clear();
    lines.append(block, chunk);
    if (fwrite(block.data(), 1, chunk, file.get()) != chunk) {
      perror(path.c_str());
      return false;
    }
    written += chunk;
  }
  if (fclose(file.release()) != 0) {
    perror(path.c_str());
    return false;
  }
  return true;
}

}  // namespace benchsupport
