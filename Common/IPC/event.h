// A waitable flag built on a pipe.
//
// Setting the event writes one byte into the pipe; a wait selects on the read
// end (and, if given, on one more descriptor), and a wake-up drains every byte,
// so any number of SetEvent calls before a wait cause one wake-up. Because an
// event is a descriptor, several of them can be waited on at once through a
// CEventList.
//
// Ownership: the event owns its two pipe descriptors; the extra descriptor,
// the callback object and the list belong to the caller. An event that is on
// a list takes itself off the list when destroyed.
//
// Threads: SetEvent may be called from any thread and from a signal handler
// (with verbose false), since it is a single write. Everything else belongs to
// the thread that waits.
#ifndef COMMON_IPC_EVENT_H_
#define COMMON_IPC_EVENT_H_

#include <sys/select.h>

#include <atomic>
#include <cstdint>

#include "Common/Result/ResultCode.h"

class CEventList;

// Waits in select for the pipes in the sets, up to `time`: 0 when one is
// ready, EVENT_ERROR_WAIT_TIMEOUT when none became ready, and
// EVENT_ERROR_WAIT_FAILED (logged) when select failed.
ResultCode SelectEventPipes(int highest, fd_set* readSet, fd_set* writeSet, timeval* time);

// A wait time meaning "no limit".
constexpr uint32_t EVENT_WAIT_INFINITE = 0xFFFFFFFFu;

// Kinds of event use. Only these two may be placed on a list; an event of
// the priority kind is always watched by CEventList::WaitOnEvents, one of the
// armed kind only while it is armed.
constexpr int32_t EVENT_TYPE_PLAIN = 0;
constexpr int32_t EVENT_TYPE_PRIORITY = 1;
constexpr int32_t EVENT_TYPE_ARMED = 2;

// The extra descriptor is watched for reading or for writing.
enum : int32_t { EVENT_EXTRA_FD_READ = 0, EVENT_EXTRA_FD_WRITE = 1 };

// Something that can be told that an event fired.
class ISignalable {
 public:
  virtual ResultCode OnSignal(void* context, intptr_t value) = 0;
  virtual ~ISignalable() = default;
};

// A plain function told that an event fired.
typedef ResultCode (*EventCallback)(void* context, intptr_t value);

class CCEvent : public ISignalable {
 public:
  // With a callback object. A null `target` gives EVENT_ERROR_BAD_PARAMETER.
  CCEvent(ResultCode* result, ISignalable* target, void* context, intptr_t value,
          int32_t eventType = EVENT_TYPE_PLAIN, CEventList* list = nullptr, int32_t extraFd = 0,
          int32_t extraMode = EVENT_EXTRA_FD_READ);
  // With a callback function. A null `callback` gives EVENT_ERROR_BAD_PARAMETER.
  CCEvent(ResultCode* result, EventCallback callback, void* context, intptr_t value,
          int32_t eventType = EVENT_TYPE_PLAIN, CEventList* list = nullptr, int32_t extraFd = 0,
          int32_t extraMode = EVENT_EXTRA_FD_READ);
  // With neither: an event that is only waited on.
  explicit CCEvent(ResultCode* result, int32_t extraFd = 0,
                   int32_t extraMode = EVENT_EXTRA_FD_READ);

  // Sets this event, so that one event can fire another.
  ResultCode OnSignal(void* context, intptr_t value) override;
  ~CCEvent() override;

  CCEvent(const CCEvent&) = delete;
  CCEvent& operator=(const CCEvent&) = delete;

  // Writes one byte into the pipe. A full pipe is reported as
  // EVENT_ERROR_SET_FAILED, although the event is then set all the same.
  ResultCode SetEvent(bool verbose = true);
  // Disarms the event and drains the pipe; an empty pipe answers 0.
  ResultCode ResetEvent();
  // Waits up to `milliseconds` for the event or the extra descriptor. 0 when
  // it fired (the pipe is then drained, and with `doCallback` the callback has
  // run and its answer is returned); EVENT_ERROR_WAIT_TIMEOUT when time ran
  // out.
  ResultCode WaitEvent(uint32_t milliseconds, bool doCallback = false);

  // Attaches the event to `list`, or detaches it with null. Called by
  // CEventList; attaching needs a callback and the type 1 or 2.
  ResultCode setEventList(CEventList* list);
  CEventList* GetEventList() const { return m_pEventList; }
  int32_t GetEventType() const { return m_eventType; }
  void Arm() { m_isArmed.store(true); }
  bool IsArmed() const { return m_isArmed.load(); }
  // A second descriptor to wait on: `fd` must be 1 or more, `mode` 0 (read)
  // or 1 (write).
  ResultCode SetExtraDescriptor(int32_t fd, int32_t mode);
  int32_t GetReadFd() const { return m_readFd; }
  int32_t GetExtraFd() const { return m_extraFd; }
  int32_t GetExtraMode() const { return m_extraMode; }

 private:
  friend class CEventList;

  ResultCode basicConstructor(CEventList* list, int32_t extraFd, int32_t extraMode);
  // Both constructors end here: the event is made only when it has someone
  // to tell, and *result (when given) says how it went.
  void finishConstruction(ResultCode* result, bool hasReceiver, CEventList* list, int32_t extraFd,
                          int32_t extraMode);
  ResultCode createPipe();
  // Drains the pipe, then (with `doCallback`) hands the event to its callback.
  ResultCode processSignaledEvent(bool doCallback);

  CEventList* m_pEventList = nullptr;
  int32_t m_eventType = EVENT_TYPE_PLAIN;
  ISignalable* m_pSignalTarget = nullptr;
  EventCallback m_pCallback = nullptr;
  void* m_context = nullptr;
  intptr_t m_value = 0;
  std::atomic<bool> m_isArmed{false};
  int32_t m_readFd = -1;
  int32_t m_writeFd = -1;
  int32_t m_extraFd = 0;
  int32_t m_extraMode = EVENT_EXTRA_FD_READ;
};

#endif  // COMMON_IPC_EVENT_H_
