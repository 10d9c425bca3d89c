#include "Common/IPC/EventList.h"

#include <errno.h>
#include <sys/select.h>

#include <algorithm>

#include "Common/Log/Log.h"
#include "Common/Utility/sysutils.h"

CEventList::~CEventList() {
  if (m_events.empty())
    return;
  KLOG_E("Deletion of event list containing '%zu' events", m_events.size());
  for (CCEvent* event : m_events) {
    if (event != nullptr)
      event->setEventList(nullptr);
  }
}

ResultCode CEventList::AddEvent(CCEvent* event) {
  if (m_events.size() >= kMaxEvents)
    return EVENTLIST_ERROR_LIMIT_EXCEEDED;
  if (event == nullptr)
    return EVENTLIST_ERROR_BAD_PARAMETER;
  const ResultCode code = event->setEventList(this);
  if (code != 0) {
    KLOG_RC(LOG_LEVEL_E, "CCEvent::setEventList", code);
    return code;
  }
  if (event->GetEventType() == EVENT_TYPE_PRIORITY) {
    m_events.insert(m_events.begin() + m_priorityCount, event);
    ++m_priorityCount;
  } else {
    m_events.push_back(event);
  }
  return 0;
}

ResultCode CEventList::RemoveEvent(CCEvent* event) {
  if (event == nullptr)
    return EVENTLIST_ERROR_BAD_PARAMETER;
  auto found = std::find(m_events.begin(), m_events.end(), event);
  if (found == m_events.end())
    return EVENTLIST_ERROR_EVENT_NOT_FOUND;
  const size_t index = static_cast<size_t>(found - m_events.begin());
  m_events.erase(found);
  event->setEventList(nullptr);
  if (index < m_priorityCount)
    --m_priorityCount;
  return 0;
}

ResultCode CEventList::WaitOnEvents(uint32_t milliseconds) {
  if (m_events.empty()) {
    if (milliseconds == EVENT_WAIT_INFINITE) {
      KLOG_E("Cannot do an infinite wait with no events on which to wait");
      return EVENTLIST_ERROR_BAD_PARAMETER;
    }
    sleepMillis(milliseconds);
    return 0;
  }

  fd_set readSet;
  fd_set writeSet;
  FD_ZERO(&readSet);
  FD_ZERO(&writeSet);
  int highest = -1;
  // The events that take part in this wait, in list order.
  std::vector<CCEvent*> watched;
  watched.reserve(m_events.size());
  for (size_t index = 0; index < m_events.size(); ++index) {
    CCEvent* event = m_events[index];
    if (event == nullptr)
      return EVENTLIST_ERROR_NULL_POINTER;
    if (index >= m_priorityCount && !event->IsArmed())
      continue;
    const int readFd = event->GetReadFd();
    if (readFd < 0)
      return EVENTLIST_ERROR_BAD_EVENT_PIPE;
    const int extraFd = event->GetExtraFd();
    // select cannot watch a descriptor beyond its fixed set size.
    if (readFd >= FD_SETSIZE || extraFd >= FD_SETSIZE) {
      KLOG_E("Descriptor beyond the select limit of %d: read %d, extra %d", FD_SETSIZE, readFd,
             extraFd);
      return EVENTLIST_ERROR_BAD_EVENT_PIPE;
    }
    FD_SET(readFd, &readSet);
    highest = std::max(highest, readFd);
    if (extraFd > 0) {
      const int mode = event->GetExtraMode();
      if (mode == EVENT_EXTRA_FD_READ)
        FD_SET(extraFd, &readSet);
      else if (mode == EVENT_EXTRA_FD_WRITE)
        FD_SET(extraFd, &writeSet);
      else
        return EVENTLIST_ERROR_BAD_EVENT_HANDLE_TYPE;
      highest = std::max(highest, extraFd);
    }
    watched.push_back(event);
  }

  timeval time;
  time.tv_sec = milliseconds / 1000;
  time.tv_usec = (milliseconds % 1000) * 1000;
  const ResultCode waited = SelectEventPipes(highest, &readSet, &writeSet, &time);
  if (waited != 0)
    return waited;

  for (CCEvent* event : watched) {
    // A callback may have taken an event off the list (or destroyed it);
    // such an event is left alone.
    if (std::find(m_events.begin(), m_events.end(), event) == m_events.end())
      continue;
    const int readFd = event->GetReadFd();
    const int extraFd = event->GetExtraFd();
    fd_set* extraSet = event->GetExtraMode() == EVENT_EXTRA_FD_WRITE ? &writeSet : &readSet;
    const bool readReady = FD_ISSET(readFd, &readSet);
    const bool extraReady = extraFd > 0 && FD_ISSET(extraFd, extraSet);
    if (!readReady && !extraReady)
      continue;
    // Clearing the bits serves two events that share an extra descriptor once.
    FD_CLR(readFd, &readSet);
    if (extraFd > 0)
      FD_CLR(extraFd, extraSet);
    const ResultCode code = event->processSignaledEvent(true);
    if (code != 0) {
      KLOG_RC(LOG_LEVEL_E, "CCEvent::processSignaledEvent", code);
      return code;
    }
  }
  return 0;
}
