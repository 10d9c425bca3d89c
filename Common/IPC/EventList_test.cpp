#include "Common/IPC/EventList.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <initializer_list>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/IPC/event.h"
#include "Common/IPC/event_testsupport.h"
#include "tests/support/TestSupport.h"

namespace {

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
  return ipctest::NewEvent(&Count, counter, 0, type, nullptr, extraFd, extraMode);
}

// Adds `events` to `list` in order; false, with the refusal reported, when
// one cannot join.
bool JoinAll(CEventList* list, std::initializer_list<CCEvent*> events) {
  for (CCEvent* event : events) {
    const ResultCode added = list->AddEvent(event);
    if (added != 0) {
      ADD_FAILURE() << "AddEvent refused an event: " << added;
      return false;
    }
  }
  return true;
}

// A list and the events it was given, each made with one counting callback
// and added in the order made. The events go before the list.
class EventListOrder : public ::testing::Test {
 protected:
  // An event of `type` on `list`; the test fails when it is refused.
  CCEvent* Joined(int32_t type) {
    owned_.push_back(MakeEvent(&counter_, type));
    EXPECT_EQ(list.AddEvent(owned_.back().get()), 0u);
    return owned_.back().get();
  }
  std::vector<CCEvent*> Events(std::initializer_list<CCEvent*> events) { return events; }

  CEventList list;

 private:
  Counter counter_;
  std::vector<std::unique_ptr<CCEvent>> owned_;
};

TEST_F(EventListOrder, PriorityEventsGoToTheFrontInOrder) {
  CCEvent* armed1 = Joined(EVENT_TYPE_ARMED);
  CCEvent* priority1 = Joined(EVENT_TYPE_PRIORITY);
  CCEvent* armed2 = Joined(EVENT_TYPE_ARMED);
  CCEvent* priority2 = Joined(EVENT_TYPE_PRIORITY);
  EXPECT_EQ(list.GetPriorityCount(), 2u);
  EXPECT_EQ(list.GetEvents(), Events({priority1, priority2, armed1, armed2}));
  EXPECT_EQ(armed1->GetEventList(), &list);
}

TEST_F(EventListOrder, RemovingTheOnlyPriorityEventLeavesTheCountAtZero) {
  CCEvent* priority = Joined(EVENT_TYPE_PRIORITY);
  CCEvent* armed = Joined(EVENT_TYPE_ARMED);
  ASSERT_EQ(list.GetPriorityCount(), 1u);
  EXPECT_EQ(list.RemoveEvent(priority), 0u);
  EXPECT_EQ(priority->GetEventList(), nullptr);
  EXPECT_EQ(list.GetPriorityCount(), 0u);
  EXPECT_EQ(list.GetEvents(), Events({armed}));
}

TEST_F(EventListOrder, RemovingAnOrdinaryEventKeepsOrderAndCount) {
  CCEvent* priority = Joined(EVENT_TYPE_PRIORITY);
  CCEvent* a = Joined(EVENT_TYPE_ARMED);
  CCEvent* b = Joined(EVENT_TYPE_ARMED);
  CCEvent* c = Joined(EVENT_TYPE_ARMED);
  EXPECT_EQ(list.RemoveEvent(b), 0u);
  EXPECT_EQ(list.GetPriorityCount(), 1u);
  EXPECT_EQ(list.GetEvents(), Events({priority, a, c}));
  // Once detached it may join again.
  EXPECT_EQ(list.AddEvent(b), 0u);
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
  keeltest::LogCapture capture;
  Counter counter;
  CEventList list;
  CEventList other;
  const auto noCallback = ipctest::NewEvent();
  EXPECT_EQ(list.AddEvent(noCallback.get()), EVENT_ERROR_NO_CALLBACK);
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
  keeltest::LogCapture capture;
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
  EXPECT_GE(keeltest::MillisSince(start), 55u);
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
  ASSERT_TRUE(JoinAll(&list, {a.get(), b.get(), c.get()}));
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
  ASSERT_TRUE(JoinAll(&list, {a.get(), b.get()}));
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  EXPECT_EQ(list.WaitOnEvents(100), 0u);
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 0);
  close(fds[0]);
  close(fds[1]);
}

TEST(CEventList, FirstFailingCallbackEndsTheWalk) {
  keeltest::LogCapture capture;
  Counter failing;
  failing.answer = EVENT_ERROR_UNKNOWN;
  Counter later;
  CEventList list;
  auto a = MakeEvent(&failing, EVENT_TYPE_PRIORITY);
  auto b = MakeEvent(&later, EVENT_TYPE_PRIORITY);
  ASSERT_TRUE(JoinAll(&list, {a.get(), b.get()}));
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
  keeltest::LogCapture capture;
  Counter counter;
  auto a = MakeEvent(&counter, EVENT_TYPE_PRIORITY);
  auto b = MakeEvent(&counter, EVENT_TYPE_ARMED);
  {
    CEventList list;
    ASSERT_TRUE(JoinAll(&list, {a.get(), b.get()}));
  }
  EXPECT_EQ(capture.Count("\nDeletion of event list containing '2' events"), 1u);
  EXPECT_EQ(a->GetEventList(), nullptr);
  EXPECT_EQ(b->GetEventList(), nullptr);
}

TEST(CEventList, EmptyListIsDestroyedQuietly) {
  keeltest::LogCapture capture;
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
  EXPECT_LT(keeltest::MillisSince(start), 5000u);
  setter.join();
  EXPECT_EQ(counter.calls, 1);
}

}  // namespace
