#include "Common/IPC/event.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include "Common/IPC/EventList.h"
#include "Common/Log/Log.h"
#include "Common/Utility/sysutils.h"

namespace {

// ResetEvent gives up after this many interrupted reads in a row.
constexpr int kMaxReadRetries = 100;
// Bytes taken out of the pipe per read while draining it.
constexpr size_t kDrainChunk = 16;

// Adds O_NONBLOCK to `fd`; logs the failing call.
ResultCode MakeNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1) {
    KLOG_RC(LOG_LEVEL_E, "::fcntl(F_GETFL)", EVENT_ERROR_CREATE_FAILED);
    return EVENT_ERROR_CREATE_FAILED;
  }
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) {
    KLOG_RC(LOG_LEVEL_E, "::fcntl(F_SETFL)", EVENT_ERROR_CREATE_FAILED);
    return EVENT_ERROR_CREATE_FAILED;
  }
  return 0;
}

timeval MillisToTimeval(uint32_t milliseconds) {
  timeval time;
  time.tv_sec = milliseconds / 1000;
  time.tv_usec = (milliseconds % 1000) * 1000;
  return time;
}

}  // namespace

ResultCode SelectEventPipes(int highest, fd_set* readSet, fd_set* writeSet, timeval* time) {
  const int ready = vvc_select(highest + 1, readSet, writeSet, nullptr, time);
  if (ready == 0)
    return EVENT_ERROR_WAIT_TIMEOUT;
  if (ready < 0) {
    KLOG_RC(LOG_LEVEL_E, "vvc_select", static_cast<ResultCode>(errno));
    return EVENT_ERROR_WAIT_FAILED;
  }
  return 0;
}

CCEvent::CCEvent(ResultCode* result, ISignalable* target, void* context, intptr_t value,
                 int32_t eventType, CEventList* list, int32_t extraFd, int32_t extraMode)
    : m_eventType(eventType), m_pSignalTarget(target), m_context(context), m_value(value) {
  finishConstruction(result, target != nullptr, list, extraFd, extraMode);
}

CCEvent::CCEvent(ResultCode* result, EventCallback callback, void* context, intptr_t value,
                 int32_t eventType, CEventList* list, int32_t extraFd, int32_t extraMode)
    : m_eventType(eventType), m_pCallback(callback), m_context(context), m_value(value) {
  finishConstruction(result, callback != nullptr, list, extraFd, extraMode);
}

void CCEvent::finishConstruction(ResultCode* result, bool hasReceiver, CEventList* list,
                                 int32_t extraFd, int32_t extraMode) {
  const ResultCode code =
      hasReceiver ? basicConstructor(list, extraFd, extraMode) : EVENT_ERROR_BAD_PARAMETER;
  if (result != nullptr)
    *result = code;
}

CCEvent::CCEvent(ResultCode* result, int32_t extraFd, int32_t extraMode) {
  if (result != nullptr)
    *result = EVENT_ERROR_CREATE_FAILED;
  const ResultCode code = basicConstructor(nullptr, extraFd, extraMode);
  if (result != nullptr)
    *result = code;
}

ResultCode CCEvent::basicConstructor(CEventList* list, int32_t extraFd, int32_t extraMode) {
  m_readFd = -1;
  m_writeFd = -1;
  if (extraFd > 0) {
    const ResultCode code = SetExtraDescriptor(extraFd, extraMode);
    if (code != 0)
      return code;
  }
  // Refused before a pipe exists, so that nothing needs undoing.
  if (m_eventType > EVENT_TYPE_ARMED)
    return EVENT_ERROR_BAD_PARAMETER;
  if (m_eventType == EVENT_TYPE_PLAIN && list != nullptr)
    return EVENT_ERROR_EVENT_TYPE_INVALID_FOR_LISTS;

  ResultCode code = createPipe();
  if (code != 0)
    return code;
  code = MakeNonBlocking(m_readFd);
  if (code != 0)
    return code;
  code = MakeNonBlocking(m_writeFd);
  if (code != 0)
    return code;

  if (list != nullptr) {
    code = list->AddEvent(this);
    if (code != 0) {
      KLOG_RC(LOG_LEVEL_E, "CEventList::AddEvent", code);
      return code;
    }
  }
  return 0;
}

ResultCode CCEvent::createPipe() {
  int fds[2];
  if (pipe(fds) != 0) {
    m_readFd = -1;
    m_writeFd = -1;
    KLOG_RC(LOG_LEVEL_E, "::pipe", EVENT_ERROR_CREATE_FAILED);
    return EVENT_ERROR_CREATE_FAILED;
  }
  m_readFd = fds[0];
  m_writeFd = fds[1];
  return 0;
}

ResultCode CCEvent::OnSignal(void* /*context*/, intptr_t /*value*/) {
  return SetEvent(false);
}

CCEvent::~CCEvent() {
  if (m_pEventList != nullptr) {
    const ResultCode code = m_pEventList->RemoveEvent(this);
    if (code != 0)
      KLOG_RC(LOG_LEVEL_E, "CEventList::RemoveEvent", code);
  }
  if (m_readFd >= 0)
    close(m_readFd);
  if (m_writeFd >= 0)
    close(m_writeFd);
  m_readFd = -1;
  m_writeFd = -1;
}

ResultCode CCEvent::SetEvent(bool verbose) {
  const char byte = 1;
  if (write(m_writeFd, &byte, 1) <= 0) {
    if (verbose)
      KLOG_RC(LOG_LEVEL_E, "::write", EVENT_ERROR_SET_FAILED);
    return EVENT_ERROR_SET_FAILED;
  }
  return 0;
}

ResultCode CCEvent::ResetEvent() {
  m_isArmed.store(false);
  char buffer[kDrainChunk];
  int retries = 0;
  for (;;) {
    const ssize_t count = read(m_readFd, buffer, sizeof(buffer));
    if (count > 0)
      continue;
    // Our own write end stays open, so end of file cannot happen; should it,
    // the pipe is as empty as it will get.
    if (count == 0 || errno == EAGAIN)
      return 0;
    if (errno == EINTR && ++retries < kMaxReadRetries)
      continue;
    KLOG_RC(LOG_LEVEL_E, "::read", EVENT_ERROR_RESET_FAILED);
    return EVENT_ERROR_RESET_FAILED;
  }
}

ResultCode CCEvent::processSignaledEvent(bool doCallback) {
  const ResultCode code = ResetEvent();
  if (code != 0) {
    KLOG_RC(LOG_LEVEL_E, "CCEvent::ResetEvent", code);
    return code;
  }
  if (!doCallback)
    return 0;
  if (m_pSignalTarget != nullptr)
    return m_pSignalTarget->OnSignal(m_context, m_value);
  if (m_pCallback != nullptr)
    return m_pCallback(m_context, m_value);
  return EVENT_ERROR_NO_CALLBACK;
}

ResultCode CCEvent::WaitEvent(uint32_t milliseconds, bool doCallback) {
  if (m_readFd < 0)
    return EVENT_ERROR_NOT_INITIALIZED;
  // select cannot watch a descriptor beyond its fixed set size.
  if (m_readFd >= FD_SETSIZE || m_extraFd >= FD_SETSIZE) {
    KLOG_E("Descriptor beyond the select limit of %d: read %d, extra %d", FD_SETSIZE, m_readFd,
           m_extraFd);
    return EVENT_ERROR_WAIT_FAILED;
  }
  timeval time = MillisToTimeval(milliseconds);

  fd_set readSet;
  fd_set writeSet;
  FD_ZERO(&readSet);
  FD_ZERO(&writeSet);
  FD_SET(m_readFd, &readSet);
  int highest = m_readFd;
  fd_set* extraSet = nullptr;
  if (m_extraFd > 0 && m_extraMode == EVENT_EXTRA_FD_READ)
    extraSet = &readSet;
  else if (m_extraFd > 0 && m_extraMode == EVENT_EXTRA_FD_WRITE)
    extraSet = &writeSet;
  if (extraSet != nullptr) {
    FD_SET(m_extraFd, extraSet);
    if (m_extraFd > highest)
      highest = m_extraFd;
  }

  const ResultCode waited = SelectEventPipes(highest, &readSet, &writeSet, &time);
  if (waited != 0)
    return waited;

  const bool extraReady = extraSet != nullptr && FD_ISSET(m_extraFd, extraSet);
  if (FD_ISSET(m_readFd, &readSet) || extraReady) {
    const ResultCode code = processSignaledEvent(doCallback);
    if (code != 0)
      KLOG_RC(LOG_LEVEL_E, "CCEvent::processSignaledEvent", code);
    return code;
  }
  return EVENT_ERROR_WAIT_FAILED;
}

ResultCode CCEvent::setEventList(CEventList* list) {
  if (list != nullptr) {
    if (m_pEventList != nullptr)
      return EVENT_ERROR_EVENT_IS_ALREADY_ON_A_LIST;
    if (m_pSignalTarget == nullptr && m_pCallback == nullptr)
      return EVENT_ERROR_NO_CALLBACK;
    if (m_eventType != EVENT_TYPE_PRIORITY && m_eventType != EVENT_TYPE_ARMED)
      return EVENT_ERROR_EVENT_TYPE_INVALID_FOR_LISTS;
  }
  m_pEventList = list;
  return 0;
}

ResultCode CCEvent::SetExtraDescriptor(int32_t fd, int32_t mode) {
  if (fd < 1 || mode > EVENT_EXTRA_FD_WRITE)
    return EVENT_ERROR_BAD_PARAMETER;
  m_extraFd = fd;
  m_extraMode = mode;
  return 0;
}
