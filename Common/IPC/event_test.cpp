#include "Common/IPC/event.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/IPC/EventList.h"
#include "Common/IPC/event_testsupport.h"
#include "tests/support/TestSupport.h"

namespace {

using ipctest::NewEvent;
using keeltest::LogCapture;
using keeltest::MillisSince;
using keeltest::RunInChild;

// What a callback saw.
struct CallbackLog {
  int calls = 0;
  void* context = nullptr;
  intptr_t value = 0;
  ResultCode answer = 0;
};

ResultCode RecordCallback(void* context, intptr_t value) {
  CallbackLog* log = static_cast<CallbackLog*>(context);
  ++log->calls;
  log->context = context;
  log->value = value;
  return log->answer;
}

class RecordingTarget : public ISignalable {
 public:
  ResultCode OnSignal(void* context, intptr_t value) override {
    ++calls;
    lastContext = context;
    lastValue = value;
    return 0;
  }
  int calls = 0;
  void* lastContext = nullptr;
  intptr_t lastValue = 0;
};

TEST(CCEvent, SetTwiceThenOneWaitWakesOnce) {
  const auto event = NewEvent();
  EXPECT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(event->WaitEvent(0), 0u);
  EXPECT_EQ(event->WaitEvent(0), EVENT_ERROR_WAIT_TIMEOUT);
}

TEST(CCEvent, ZeroWaitOnAnUnsetEventTimesOutAtOnce) {
  const auto event = NewEvent();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(event->WaitEvent(0), EVENT_ERROR_WAIT_TIMEOUT);
  EXPECT_LT(MillisSince(start), 50u);
}

TEST(CCEvent, WaitLastsTheGivenTime) {
  const auto event = NewEvent();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(event->WaitEvent(1100), EVENT_ERROR_WAIT_TIMEOUT);
  const uint32_t elapsed = MillisSince(start);
  EXPECT_GE(elapsed, 1090u);
  EXPECT_LT(elapsed, 3000u);
}

TEST(CCEvent, ResetOnAnEmptyPipeReturnsZeroAtOnce) {
  const auto event = NewEvent();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(event->ResetEvent(), 0u);
  EXPECT_LT(MillisSince(start), 50u);
}

TEST(CCEvent, ResetDrainsAndDisarms) {
  const auto event = NewEvent();
  event->Arm();
  EXPECT_TRUE(event->IsArmed());
  for (int i = 0; i < 40; ++i)
    ASSERT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(event->ResetEvent(), 0u);
  EXPECT_FALSE(event->IsArmed());
  EXPECT_EQ(event->WaitEvent(0), EVENT_ERROR_WAIT_TIMEOUT);
}

TEST(CCEvent, FullPipeIsReportedAsFailureButTheEventStaysSet) {
  LogCapture capture;
  const auto event = NewEvent();
  ResultCode result = 0;
  int writes = 0;
  while (result == 0 && writes < 10000000) {
    result = event->SetEvent(false);
    ++writes;
  }
  EXPECT_EQ(result, EVENT_ERROR_SET_FAILED);
  EXPECT_GT(writes, 1);
  // Quiet unless asked to be verbose.
  EXPECT_FALSE(capture.Contains("::write"));
  EXPECT_EQ(event->SetEvent(true), EVENT_ERROR_SET_FAILED);
  EXPECT_EQ(capture.Count("Invoked Function: ::write\n"), 1u);
  EXPECT_EQ(event->WaitEvent(0), 0u);
  EXPECT_EQ(event->WaitEvent(0), EVENT_ERROR_WAIT_TIMEOUT);
}

TEST(CCEvent, WaitWithCallbackRunsTheFunction) {
  CallbackLog log;
  log.answer = 0;
  const auto event = NewEvent(&RecordCallback, &log, 42);
  ASSERT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(event->WaitEvent(100, true), 0u);
  EXPECT_EQ(log.calls, 1);
  EXPECT_EQ(log.context, &log);
  EXPECT_EQ(log.value, 42);
}

TEST(CCEvent, WaitWithoutCallbackLeavesTheFunctionAlone) {
  CallbackLog log;
  const auto event = NewEvent(&RecordCallback, &log, 42);
  ASSERT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(event->WaitEvent(100), 0u);
  EXPECT_EQ(log.calls, 0);
}

TEST(CCEvent, CallbackAnswerIsReturnedAndLogged) {
  LogCapture capture;
  CallbackLog log;
  log.answer = EVENT_ERROR_UNKNOWN;
  const auto event = NewEvent(&RecordCallback, &log, 1);
  ASSERT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(event->WaitEvent(100, true), EVENT_ERROR_UNKNOWN);
  EXPECT_TRUE(capture.Contains("Invoked Function: CCEvent::processSignaledEvent\n"));
}

TEST(CCEvent, WaitWithCallbackButNoneGivenIsNoCallback) {
  LogCapture capture;
  const auto event = NewEvent();
  ASSERT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(event->WaitEvent(100, true), EVENT_ERROR_NO_CALLBACK);
  // The event was consumed all the same.
  EXPECT_EQ(event->WaitEvent(0), EVENT_ERROR_WAIT_TIMEOUT);
}

TEST(CCEvent, CallbackObjectIsToldWithContextAndValue) {
  RecordingTarget target;
  int context = 0;
  const auto event = NewEvent(&target, &context, -7);
  ASSERT_EQ(event->SetEvent(), 0u);
  EXPECT_EQ(event->WaitEvent(100, true), 0u);
  EXPECT_EQ(target.calls, 1);
  EXPECT_EQ(target.lastContext, &context);
  EXPECT_EQ(target.lastValue, -7);
}

TEST(CCEvent, OneEventCanFireAnother) {
  const auto second = NewEvent();
  const auto first = NewEvent(static_cast<ISignalable*>(second.get()), nullptr, 0);
  ASSERT_EQ(first->SetEvent(), 0u);
  EXPECT_EQ(second->WaitEvent(0), EVENT_ERROR_WAIT_TIMEOUT);
  EXPECT_EQ(first->WaitEvent(100, true), 0u);
  EXPECT_EQ(second->WaitEvent(0), 0u);
}

TEST(CCEvent, NullCallbacksAreRefused) {
  ResultCode created = 0;
  CCEvent withTarget(&created, static_cast<ISignalable*>(nullptr), nullptr, 0);
  EXPECT_EQ(created, EVENT_ERROR_BAD_PARAMETER);
  EXPECT_EQ(withTarget.GetReadFd(), -1);
  created = 0;
  CCEvent withFunction(&created, static_cast<EventCallback>(nullptr), nullptr, 0);
  EXPECT_EQ(created, EVENT_ERROR_BAD_PARAMETER);
  EXPECT_EQ(withFunction.WaitEvent(0), EVENT_ERROR_NOT_INITIALIZED);
}

TEST(CCEvent, TypeAboveTwoIsRefusedBeforeAnyPipe) {
  CallbackLog log;
  ResultCode created = 0;
  CCEvent event(&created, &RecordCallback, &log, 0, 3);
  EXPECT_EQ(created, EVENT_ERROR_BAD_PARAMETER);
  EXPECT_EQ(event.GetReadFd(), -1);
  EXPECT_EQ(event.WaitEvent(0), EVENT_ERROR_NOT_INITIALIZED);
}

TEST(CCEvent, PlainTypeWithAListIsRefused) {
  CEventList list;
  CallbackLog log;
  ResultCode created = 0;
  CCEvent event(&created, &RecordCallback, &log, 0, EVENT_TYPE_PLAIN, &list);
  EXPECT_EQ(created, EVENT_ERROR_EVENT_TYPE_INVALID_FOR_LISTS);
  EXPECT_EQ(event.GetReadFd(), -1);
  EXPECT_EQ(list.GetEventCount(), 0u);
  EXPECT_EQ(event.GetEventList(), nullptr);
}

TEST(CCEvent, EventMadeWithAListJoinsItAndLeavesWhenDestroyed) {
  CEventList list;
  CallbackLog log;
  {
    const auto event = NewEvent(&RecordCallback, &log, 0, EVENT_TYPE_PRIORITY, &list);
    EXPECT_EQ(event->GetEventList(), &list);
    EXPECT_EQ(list.GetEventCount(), 1u);
    EXPECT_EQ(list.GetPriorityCount(), 1u);
  }
  EXPECT_EQ(list.GetEventCount(), 0u);
  EXPECT_EQ(list.GetPriorityCount(), 0u);
}

TEST(CCEvent, ExtraDescriptorSetterRefusesBadValues) {
  ResultCode created = 1;
  CCEvent event(&created);
  ASSERT_EQ(created, 0u);
  EXPECT_EQ(event.SetExtraDescriptor(0, 0), EVENT_ERROR_BAD_PARAMETER);
  EXPECT_EQ(event.SetExtraDescriptor(-1, 0), EVENT_ERROR_BAD_PARAMETER);
  EXPECT_EQ(event.SetExtraDescriptor(5, 2), EVENT_ERROR_BAD_PARAMETER);
  EXPECT_EQ(event.GetExtraFd(), 0);
  EXPECT_EQ(event.SetExtraDescriptor(5, 1), 0u);
  EXPECT_EQ(event.GetExtraFd(), 5);
  EXPECT_EQ(event.GetExtraMode(), 1);
  created = 0;
  CCEvent refused(&created, 4, 2);
  EXPECT_EQ(created, EVENT_ERROR_BAD_PARAMETER);
}

TEST(CCEvent, ReadableExtraDescriptorEndsTheWait) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const auto event = NewEvent(fds[0], EVENT_EXTRA_FD_READ);
  EXPECT_EQ(event->WaitEvent(0), EVENT_ERROR_WAIT_TIMEOUT);
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  EXPECT_EQ(event->WaitEvent(100), 0u);
  close(fds[0]);
  close(fds[1]);
}

TEST(CCEvent, WritableExtraDescriptorEndsTheWait) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const auto event = NewEvent(fds[1], EVENT_EXTRA_FD_WRITE);
  EXPECT_EQ(event->WaitEvent(100), 0u);
  close(fds[0]);
  close(fds[1]);
}

TEST(CCEvent, ListAttachmentRules) {
  CEventList first;
  CEventList second;
  CallbackLog log;
  const auto plain = NewEvent();
  EXPECT_EQ(plain->setEventList(&first), EVENT_ERROR_NO_CALLBACK);
  const auto wrongType = NewEvent(&RecordCallback, &log, 0, EVENT_TYPE_PLAIN);
  EXPECT_EQ(wrongType->setEventList(&first), EVENT_ERROR_EVENT_TYPE_INVALID_FOR_LISTS);
  const auto armed = NewEvent(&RecordCallback, &log, 0, EVENT_TYPE_ARMED);
  EXPECT_EQ(armed->setEventList(&first), 0u);
  EXPECT_EQ(armed->setEventList(&second), EVENT_ERROR_EVENT_IS_ALREADY_ON_A_LIST);
  EXPECT_EQ(armed->setEventList(nullptr), 0u);
  EXPECT_EQ(armed->GetEventList(), nullptr);
  // Detaching needs no test at all.
  EXPECT_EQ(plain->setEventList(nullptr), 0u);
}

TEST(CCEvent, FailedPipeLeavesAnUninitialisedEvent) {
  KEEL_SKIP_UNDER_ADDRESS_SANITIZER();
  const int answer = RunInChild([] {
    LogCapture capture;
    // With no descriptor number free below the limit, pipe fails.
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 3;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
      return 10;
    {
      ResultCode created = 0;
      CCEvent event(&created);
      if (created != EVENT_ERROR_CREATE_FAILED)
        return 11;
      if (event.GetReadFd() != -1)
        return 12;
      if (event.WaitEvent(0) != EVENT_ERROR_NOT_INITIALIZED)
        return 13;
      if (!capture.Contains("Invoked Function: ::pipe\n"))
        return 14;
    }
    // Destroying it closed nothing of ours.
    return fcntl(0, F_GETFD) != -1 ? 0 : 15;
  });
  EXPECT_EQ(answer, 0);
}

CCEvent* g_signalEvent = nullptr;
void SetEventFromHandler(int) {
  g_signalEvent->SetEvent(false);
}

TEST(CCEvent, SetFromASignalHandler) {
  const auto event = NewEvent();
  g_signalEvent = event.get();
  struct sigaction action {};
  action.sa_handler = &SetEventFromHandler;
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
  raise(SIGUSR1);
  EXPECT_EQ(event->WaitEvent(1000), 0u);
  sigaction(SIGUSR1, &previous, nullptr);
  g_signalEvent = nullptr;
}

TEST(CCEventConcurrency, SetFromAnotherThreadWakesTheWaiter) {
  const auto event = NewEvent();
  std::thread setter([&event] {
    usleep(50000);
    event->SetEvent();
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(event->WaitEvent(10000), 0u);
  EXPECT_LT(MillisSince(start), 5000u);
  setter.join();
}

TEST(CCEventConcurrency, ManySettersOneWaiterAlwaysWakes) {
  const auto event = NewEvent();
  constexpr int kSetters = 4;
  constexpr int kRounds = 200;
  std::atomic<bool> stop{false};
  std::vector<std::thread> setters;
  for (int i = 0; i < kSetters; ++i) {
    setters.emplace_back([&event, &stop] {
      for (int round = 0; round < kRounds && !stop.load(); ++round) {
        event->SetEvent(false);
        usleep(100);
      }
    });
  }
  int wakeUps = 0;
  while (wakeUps < 10 && event->WaitEvent(5000) == 0)
    ++wakeUps;
  stop.store(true);
  for (std::thread& setter : setters)
    setter.join();
  EXPECT_EQ(wakeUps, 10);
}

}  // namespace
