// CJoinableThread: a thread started without exceptions.
//
// std::thread (and the thread pools built on it) report a thread the system
// refuses, EAGAIN under a process limit or ENOMEM, by throwing; nothing in
// this code base catches, so the refusal would end the process through
// std::terminate and leave a run's working folder in /tmp. This class starts
// the thread with pthread_create and hands the refusal back as a result
// code, so that the caller cleans up and reports it like any other failure.
//
// One owner, which calls start and join from one thread. The object does
// not move while its thread runs (the thread reads the body through it); the
// destructor joins a thread that was started and not yet joined.
#ifndef COMMON_UTILITY_JOINABLETHREAD_H_
#define COMMON_UTILITY_JOINABLETHREAD_H_

#include <pthread.h>

#include <functional>

#include "Common/Result/ResultCode.h"

class CJoinableThread {
 public:
  CJoinableThread() = default;
  ~CJoinableThread();
  CJoinableThread(const CJoinableThread&) = delete;
  CJoinableThread& operator=(const CJoinableThread&) = delete;

  // Runs `body` on a new thread with the calling thread's signal mask.
  // 0, or THREAD_ERROR_CREATE_FAILED (logged with the system's reason) when
  // the system refuses the thread or one is running already.
  ResultCode start(std::function<void()> body);
  // Waits for the thread; does nothing when none was started.
  void join();
  bool joinable() const { return m_started; }

 private:
  static void* Run(void* self);

  pthread_t m_thread{};
  bool m_started = false;
  std::function<void()> m_body;
};

#endif  // COMMON_UTILITY_JOINABLETHREAD_H_
