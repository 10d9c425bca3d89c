// The message table: numbered log formats shared by the client family.
//
// The table is a list of segments, each a run of rows with consecutive ids.
// This tool emits only ids 1 and 3 of the first segment; the other segments
// belong to other programs and keep only their place in the id space.
#ifndef COMMON_LOG_MESSAGETABLE_H_
#define COMMON_LOG_MESSAGETABLE_H_

#include <cstdint>

struct MessageRow {
  const char* name;
  uint32_t severity;  // 0..6 overrules the call's level; 7 lets it decide.
  const char* format;
};

constexpr uint32_t MID_UNKNOWN = 0;
constexpr uint32_t MID_DEBUG_MESSAGE = 1;
constexpr uint32_t MID_DEBUG_MESSAGE_WITH_PID = 2;
constexpr uint32_t MID_DEBUG_RETURN_CODE = 3;
constexpr uint32_t MID_DEBUG_RETURN_CODE_WITH_PID = 4;
constexpr uint32_t MID_VERBOSE_MESSAGE = 5;

// The row of `id`, or the fall-back row ("UNKNOWN", severity 7, empty
// format) when no segment holds it. Never null.
const MessageRow* FindMessageRow(uint32_t id);

#endif  // COMMON_LOG_MESSAGETABLE_H_
