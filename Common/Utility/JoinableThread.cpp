#include "Common/Utility/JoinableThread.h"

#include <utility>

#include "Common/Log/Log.h"

CJoinableThread::~CJoinableThread() {
  join();
}

ResultCode CJoinableThread::start(std::function<void()> body) {
  if (m_started) {
    KLOG_E("A thread is running already");
    return THREAD_ERROR_CREATE_FAILED;
  }
  m_body = std::move(body);
  const int error = pthread_create(&m_thread, nullptr, Run, this);
  if (error != 0) {
    KLOG_RC(LOG_LEVEL_E, "pthread_create", static_cast<ResultCode>(error));
    m_body = nullptr;
    return THREAD_ERROR_CREATE_FAILED;
  }
  m_started = true;
  return 0;
}

void CJoinableThread::join() {
  if (!m_started)
    return;
  pthread_join(m_thread, nullptr);
  m_started = false;
  m_body = nullptr;
}

void* CJoinableThread::Run(void* self) {
  static_cast<CJoinableThread*>(self)->m_body();
  return nullptr;
}
