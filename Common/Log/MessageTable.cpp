#include "Common/Log/MessageTable.h"

#include <vector>

namespace {

const MessageRow kDebugRows[] = {
    {"MID_UNKNOWN", 5, "%s"},
    {"MID_DEBUG_MESSAGE", 7, "[TID=%d]\nFunction: %s\nFile: %s\nLine: %d\n%s"},
    {"MID_DEBUG_MESSAGE_WITH_PID", 7, "[TID=%d PID=%d]\nFunction: %s\nFile: %s\nLine: %d\n%s"},
    {"MID_DEBUG_RETURN_CODE", 7,
     "[TID=%d]\nFunction: %s\nFile: %s\nLine: %d\nInvoked Function: %s\nReturn Code: %d "
     "(0x%.8X)\nDescription: %s\n%s"},
    {"MID_DEBUG_RETURN_CODE_WITH_PID", 7,
     "[TID=%d PID=%d]\nFunction: %s\nFile: %s\nLine: %d\nInvoked Function: %s\nReturn Code: %d "
     "(0x%.8X)\nDescription: %s\n%s"},
    {"MID_VERBOSE_MESSAGE", 7, "[%s] %s:%d(%s) %s"},
};

const MessageRow kFallbackRow = {"UNKNOWN", 7, ""};

struct MessageSegment {
  const MessageRow* rows;  // null: rows of another program, not carried here
  uint32_t firstId;
  uint32_t count;
};

const std::vector<MessageSegment>& Segments() {
  // Built once, on first use.
  static const std::vector<MessageSegment> segments = {
      {kDebugRows, 0, 6}, {nullptr, 10, 6},    {nullptr, 2000, 162}, {nullptr, 3000, 38},
      {nullptr, 4000, 2}, {nullptr, 5000, 23}, {nullptr, 5900, 23},  {nullptr, 6100, 18},
      {nullptr, 6200, 7}, {nullptr, 6300, 1},  {nullptr, 7000, 8},
  };
  return segments;
}

}  // namespace

const MessageRow* FindMessageRow(uint32_t id) {
  for (const MessageSegment& segment : Segments()) {
    if (id >= segment.firstId && id < segment.firstId + segment.count) {
      return segment.rows != nullptr ? &segment.rows[id - segment.firstId] : &kFallbackRow;
    }
  }
  return &kFallbackRow;
}
