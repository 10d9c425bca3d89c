#include "Common/IPC/EventList.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/IPC/event.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::LogCapture;

struct Counter {
  int calls = 0;
  ResultCode answer = 0;
};

ResultCode Count(void* context, intptr_t /*value*/) {
  Counter* counter = static_cast<Counter*>(context);
  ++counter->calls;
  return counter->answer;
}

// An event of `type` whose callback counts into `counter`.
std::unique_ptr<CCEvent> MakeEvent(Counter* counter, int32_t type, int32_t extraFd = 0,
                                   int32_t extraMode = 0) {
  ResultCode created = 1;
  std::unique_ptr<CCEvent> event(
      new CCEvent(&created, &Count, counter, 0, type, nullptr, extraFd, extraMode));
  EXPECT_EQ(created, 0u);
  return event;
}

uint32_t MillisSince(std::chrono::steady_clock::time_point start) {
  return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::steady_clock::now() - start)
                                   .count());
}

TEST(CEventList, PriorityEventsGoToTheFrontInOrder) {
  Counter counter;
  CEventList list;
  auto armed1 = MakeEvent(&counter, EVENT_TYPE_ARMED);
  auto priority1 = MakeEvent(&counter, EVENT_TYPE_PRIORITY);
  auto armed2 = MakeEvent(&counter, EVENT_TYPE_ARMED);
  auto priority2 = MakeEvent(&counter, EVENT_TYPE_PRIORITY);
  ASSERT_EQ(list.AddEvent(armed1.get()), 0u);
  ASSERT_EQ(list.AddEvent(priority1.get()), 0u);
  ASSERT_EQ(list.AddEvent(armed2.get()), 0u);
  ASSERT_EQ(list.AddEvent(priority2.get()), 0u);
  EXPECT_EQ(list.GetPriorityCount(), 2u);
  EXPECT_EQ(list.GetEvents(),
            (std::vector<CCEvent*>{priority1.get(), priority2.get(), armed1.get(), armed2.get()}));
  EXPECT_EQ(armed1->GetEventList(), &list);
}

TEST(CEventList, RemovingTheOnlyPriorityEventLeavesTheCountAtZero) {
  Counter counter;
  CEventList list;
  auto priority = MakeEvent(&counter, EVENT_TYPE_PRIORITY);
  auto armed = MakeEvent(&counter, EVENT_TYPE_ARMED);
  ASSERT_EQ(list.AddEvent(priority.get()), 0u);
  ASSERT_EQ(list.AddEvent(armed.get()), 0u);
  ASSERT_EQ(list.GetPriorityCount(), 1u);
  EXPECT_EQ(list.RemoveEvent(priority.get()), 0u);
  EXPECT_EQ(list.GetPriorityCount(), 0u);
  EXPECT_EQ(list.GetEvents(), (std::vector<CCEvent*>{armed.get()}));
  EXPECT_EQ(priority->GetEventList(), nullptr);
}

TEST(CEventList, RemovingAnOrdinaryEventKeepsOrderAndCount) {
  Counter counter;
  CEventList list;
  auto priority = MakeEvent(&counter, EVENT_TYPE_PRIORITY);
  auto a = MakeEvent(&counter, EVENT_TYPE_ARMED);
  auto b = MakeEvent(&counter, EVENT_TYPE_ARMED);
  auto c = MakeEvent(&counter, EVENT_TYPE_ARMED);
  for (CCEvent* event : {priority.get(), a.get(), b.get(), c.get()})
    ASSERT_EQ(list.AddEvent(event), 0u);
  EXPECT_EQ(list.RemoveEvent(b.get()), 0u);
  EXPECT_EQ(list.GetPriorityCount(), 1u);
  EXPECT_EQ(list.GetEvents(), (std::vector<CCEvent*>{priority.get(), a.get(), c.get()}));
  // Once detached it may join again.
  EXPECT_EQ(list.AddEvent(b.get()), 0u);
}

TEST(CEventList, BadArgumentsAreRefused) {
  Counter counter;
  CEventList list;
  auto event = MakeEvent(&counter, EVENT_TYPE_ARMED);
  EXPECT_EQ(list.AddEvent(nullptr), EVENTLIST_ERROR_BAD_PARAMETER);
  EXPECT_EQ(list.RemoveEvent(nullptr), EVENTLIST_ERROR_BAD_PARAMETER);
  EXPECT_EQ(list.RemoveEvent(event.get()), EVENTLIST_ERROR_EVENT_NOT_FOUND);
}

TEST(CEventList, EventsThatCannotJoinAreLoggedAndRefused) {
  LogCapture capture;
  Counter counter;
  CEventList list;
  CEventList other;
  ResultCode created = 1;
  CCEvent noCallback(&created);
  ASSERT_EQ(created, 0u);
  EXPECT_EQ(list.AddEvent(&noCallback), EVENT_ERROR_NO_CALLBACK);
  auto plain = MakeEvent(&counter, EVENT_TYPE_PLAIN);
  EXPECT_EQ(list.AddEvent(plain.get()), EVENT_ERROR_EVENT_TYPE_INVALID_FOR_LISTS);
  auto armed = MakeEvent(&counter, EVENT_TYPE_ARMED);
  ASSERT_EQ(other.AddEvent(armed.get()), 0u);
  EXPECT_EQ(list.AddEvent(armed.get()), EVENT_ERROR_EVENT_IS_ALREADY_ON_A_LIST);
  EXPECT_EQ(list.GetEventCount(), 0u);
  EXPECT_EQ(capture.Count("Invoked Function: CCEvent::setEventList\n"), 3u);
}

TEST(CEventList, HoldsAtMost1024Events) {
  // Each event holds a pipe: two descriptors.
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t needed = 2 * CEventList::kMaxEvents + 64;
  if (limit.rlim_cur < needed) {
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < needed)
      GTEST_SKIP() << "descriptor limit too low";
    limit.rlim_cur = needed;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  Counter counter;
  CEventList list;
  std::vector<std::unique_ptr<CCEvent>> events;
  for (size_t i = 0; i < CEventList::kMaxEvents + 1; ++i)
    events.push_back(MakeEvent(&counter, EVENT_TYPE_ARMED));
  for (size_t i = 0; i < CEventList::kMaxEvents; ++i)
    ASSERT_EQ(list.AddEvent(events[i].get()), 0u) << i;
  EXPECT_EQ(list.GetEventCount(), 1024u);
  EXPECT_EQ(list.AddEvent(events.back().get()), EVENTLIST_ERROR_LIMIT_EXCEEDED);
  // The limit is checked before anything else.
  EXPECT_EQ(list.AddEvent(nullptr), EVENTLIST_ERROR_LIMIT_EXCEEDED);
  EXPECT_EQ(events.back()->GetEventList(), nullptr);
  ASSERT_EQ(list.RemoveEvent(events[0].get()), 0u);
  EXPECT_EQ(list.AddEvent(events.back().get()), 0u);
  // Events go before the list: each leaves it on destruction.
  events.clear();
  EXPECT_EQ(list.GetEventCount(), 0u);
}

TEST(CEventList, InfiniteWaitOnAnEmptyListIsRefused) {
  LogCapture capture;
  CEventList list;
  EXPECT_EQ(list.WaitOnEvents(EVENT_WAIT_INFINITE), EVENTLIST_ERROR_BAD_PARAMETER);
  const auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, LOG_LEVEL_E);
  const std::string text = "\nCannot do an infinite wait with no events on which to wait";
  ASSERT_GE(records[0].message.size(), text.size());
  EXPECT_EQ(records[0].message.substr(records[0].message.size() - text.size()), text);
}

TEST(CEventList, WaitOnAnEmptyListSleeps) {
  CEventList list;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(list.WaitOnEvents(60), 0u);
  EXPECT_GE(MillisSince(start), 55u);
}

TEST(CEventList, PriorityEventsAreAlwaysWatched) {
  Counter priorityCounter;
  CEventList list;
  auto priority = MakeEvent(&priorityCounter, EVENT_TYPE_PRIORITY);
  ASSERT_EQ(list.AddEvent(priority.get()), 0u);
  EXPECT_EQ(list.WaitOnEvents(0), EVENT_ERROR_WAIT_TIMEOUT);
  ASSERT_EQ(priority->SetEvent(), 0u);
  ASSERT_EQ(priority->SetEvent(), 0u);
  EXPECT_EQ(list.WaitOnEvents(100), 0u);
  EXPECT_EQ(priorityCounter.calls, 1);
  EXPECT_EQ(list.WaitOnEvents(0), EVENT_ERROR_WAIT_TIMEOUT);
}

TEST(CEventList, OrdinaryEventsAreWatchedOnlyWhileArmed) {
  Counter counter;
  CEventList list;
  auto event = MakeEvent(&counter, EVENT_TYPE_ARMED);
  ASSERT_EQ(list.AddEvent(event.get()), 0u);
  ASSERT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(list.WaitOnEvents(0), EVENT_ERROR_WAIT_TIMEOUT);
  EXPECT_EQ(counter.calls, 0);
  event->Arm();
  EXPECT_EQ(list.WaitOnEvents(0), 0u);
  EXPECT_EQ(counter.calls, 1);
  // Serving it disarmed it.
  EXPECT_FALSE(event->IsArmed());
  ASSERT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(list.WaitOnEvents(0), EVENT_ERROR_WAIT_TIMEOUT);
}

TEST(CEventList, EveryFiredEventIsServedInOneWait) {
  Counter first;
  Counter second;
  Counter quiet;
  CEventList list;
  auto a = MakeEvent(&first, EVENT_TYPE_PRIORITY);
  auto b = MakeEvent(&second, EVENT_TYPE_ARMED);
  auto c = MakeEvent(&quiet, EVENT_TYPE_PRIORITY);
  for (CCEvent* event : {a.get(), b.get(), c.get()})
    ASSERT_EQ(list.AddEvent(event), 0u);
  b->Arm();
  ASSERT_EQ(a->SetEvent(), 0u);
  ASSERT_EQ(b->SetEvent(), 0u);
  EXPECT_EQ(list.WaitOnEvents(100), 0u);
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 1);
  EXPECT_EQ(quiet.calls, 0);
}

TEST(CEventList, EventsSharingAnExtraDescriptorAreServedOnce) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  Counter first;
  Counter second;
  CEventList list;
  auto a = MakeEvent(&first, EVENT_TYPE_PRIORITY, fds[0], EVENT_EXTRA_FD_READ);
  auto b = MakeEvent(&second, EVENT_TYPE_PRIORITY, fds[0], EVENT_EXTRA_FD_READ);
  ASSERT_EQ(list.AddEvent(a.get()), 0u);
  ASSERT_EQ(list.AddEvent(b.get()), 0u);
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  EXPECT_EQ(list.WaitOnEvents(100), 0u);
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 0);
  close(fds[0]);
  close(fds[1]);
}

TEST(CEventList, FirstFailingCallbackEndsTheWalk) {
  LogCapture capture;
  Counter failing;
  failing.answer = EVENT_ERROR_UNKNOWN;
  Counter later;
  CEventList list;
  auto a = MakeEvent(&failing, EVENT_TYPE_PRIORITY);
  auto b = MakeEvent(&later, EVENT_TYPE_PRIORITY);
  ASSERT_EQ(list.AddEvent(a.get()), 0u);
  ASSERT_EQ(list.AddEvent(b.get()), 0u);
  ASSERT_EQ(a->SetEvent(), 0u);
  ASSERT_EQ(b->SetEvent(), 0u);
  EXPECT_EQ(list.WaitOnEvents(100), EVENT_ERROR_UNKNOWN);
  EXPECT_EQ(failing.calls, 1);
  EXPECT_EQ(later.calls, 0);
  EXPECT_TRUE(capture.Contains("Invoked Function: CCEvent::processSignaledEvent\n"));
  // The second one is still set and is served next time.
  EXPECT_EQ(list.WaitOnEvents(0), 0u);
  EXPECT_EQ(later.calls, 1);
}

TEST(CEventList, ExtraDescriptorWithAnUnknownModeIsRefused) {
  Counter counter;
  CEventList list;
  auto event = MakeEvent(&counter, EVENT_TYPE_PRIORITY);
  // The setter only refuses modes above 1.
  ASSERT_EQ(event->SetExtraDescriptor(5, -1), 0u);
  ASSERT_EQ(list.AddEvent(event.get()), 0u);
  EXPECT_EQ(list.WaitOnEvents(0), EVENTLIST_ERROR_BAD_EVENT_HANDLE_TYPE);
}

TEST(CEventList, EventWithoutPipeIsABadPipe) {
  KEEL_SKIP_UNDER_ADDRESS_SANITIZER();
  // An event whose pipe could not be made, placed on a list afterwards.
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 3;  // no descriptor number left for a pipe
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
      _exit(10);
    Counter counter;
    CEventList list;
    ResultCode created = 0;
    CCEvent broken(&created, &Count, &counter, 0, EVENT_TYPE_PRIORITY);
    if (created != EVENT_ERROR_CREATE_FAILED)
      _exit(11);
    if (list.AddEvent(&broken) != 0)
      _exit(12);
    _exit(list.WaitOnEvents(0) == EVENTLIST_ERROR_BAD_EVENT_PIPE ? 0 : 13);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(CEventList, DestroyingAListThatHoldsEventsLogsAndDetachesThem) {
  LogCapture capture;
  Counter counter;
  auto a = MakeEvent(&counter, EVENT_TYPE_PRIORITY);
  auto b = MakeEvent(&counter, EVENT_TYPE_ARMED);
  {
    CEventList list;
    ASSERT_EQ(list.AddEvent(a.get()), 0u);
    ASSERT_EQ(list.AddEvent(b.get()), 0u);
  }
  EXPECT_EQ(capture.Count("\nDeletion of event list containing '2' events"), 1u);
  EXPECT_EQ(a->GetEventList(), nullptr);
  EXPECT_EQ(b->GetEventList(), nullptr);
}

TEST(CEventList, EmptyListIsDestroyedQuietly) {
  LogCapture capture;
  { CEventList list; }
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(CEventListConcurrency, EventSetFromAnotherThreadEndsTheWait) {
  Counter counter;
  CEventList list;
  auto event = MakeEvent(&counter, EVENT_TYPE_PRIORITY);
  ASSERT_EQ(list.AddEvent(event.get()), 0u);
  CCEvent* raw = event.get();
  std::thread setter([raw] {
    usleep(50000);
    raw->SetEvent();
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(list.WaitOnEvents(10000), 0u);
  EXPECT_LT(MillisSince(start), 5000u);
  setter.join();
  EXPECT_EQ(counter.calls, 1);
}

}  // namespace
