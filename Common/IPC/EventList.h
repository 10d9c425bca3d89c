// A set of events waited on together with one select.
//
// The list does not own its events; an event takes itself off its list when
// destroyed, and a list destroyed while still holding events detaches them.
// Events of the priority type sit at the front (the first m_priorityCount
// entries) and are always watched; the others only while armed.
//
// Threads: one thread owns a list; there is no lock.
#ifndef COMMON_IPC_EVENTLIST_H_
#define COMMON_IPC_EVENTLIST_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Common/IPC/event.h"
#include "Common/Result/ResultCode.h"

class CEventList {
 public:
  // The most events one list holds.
  static constexpr size_t kMaxEvents = 1024;

  CEventList() = default;
  ~CEventList();

  CEventList(const CEventList&) = delete;
  CEventList& operator=(const CEventList&) = delete;

  // Attaches `event`; an event of the priority type goes behind the other
  // priority events, any other at the end.
  ResultCode AddEvent(CCEvent* event);
  // Takes `event` out, keeping the order of the rest, and detaches it.
  ResultCode RemoveEvent(CCEvent* event);
  // Waits up to `milliseconds` for any watched event; each one that fired is
  // drained and its callback run. An empty list just sleeps, and refuses to
  // sleep for ever (EVENT_WAIT_INFINITE).
  ResultCode WaitOnEvents(uint32_t milliseconds);

  uint32_t GetPriorityCount() const { return m_priorityCount; }
  size_t GetEventCount() const { return m_events.size(); }
  // The entries in order, for inspection.
  const std::vector<CCEvent*>& GetEvents() const { return m_events; }

 private:
  uint32_t m_priorityCount = 0;
  std::vector<CCEvent*> m_events;
};

#endif  // COMMON_IPC_EVENTLIST_H_
