// What the IPC tests share: events made with their creation checked.
#ifndef COMMON_IPC_EVENT_TESTSUPPORT_H_
#define COMMON_IPC_EVENT_TESTSUPPORT_H_

#include <memory>

#include <gtest/gtest.h>

#include "Common/IPC/event.h"

namespace ipctest {

// A CCEvent made with `args` after the result slot; the calling test fails
// when the constructor reports an error. The event is returned either way so
// that what the test checks next fails too rather than crashing.
template <typename... Args>
std::unique_ptr<CCEvent> NewEvent(Args... args) {
  ResultCode created = 1;
  std::unique_ptr<CCEvent> event(new CCEvent(&created, args...));
  EXPECT_EQ(created, 0u) << "the event could not be made";
  return event;
}

}  // namespace ipctest

#endif  // COMMON_IPC_EVENT_TESTSUPPORT_H_
