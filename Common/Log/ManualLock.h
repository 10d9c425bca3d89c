// CManualLock: a recursive lock that counts how often its owner holds it.
//
// Any thread may Lock; only the owner may Unlock. The destructor releases
// every hold that is left, so a lock held at destruction is freed.
#ifndef COMMON_LOG_MANUALLOCK_H_
#define COMMON_LOG_MANUALLOCK_H_

#include <pthread.h>

class CManualLock {
 public:
  // `spin` is kept for the family's other platforms and not used here.
  explicit CManualLock(int spin);
  virtual ~CManualLock();

  CManualLock(const CManualLock&) = delete;
  CManualLock& operator=(const CManualLock&) = delete;

  void Lock();
  bool TryLock();
  // Returns the hold count after the call; with no hold it does nothing.
  unsigned Unlock();

 private:
  pthread_mutex_t m_mutex;
  unsigned m_lockCount;
};

// Holds a CManualLock for the life of a scope.
class CManualLockGuard {
 public:
  explicit CManualLockGuard(CManualLock& lock) : m_lock(lock) { m_lock.Lock(); }
  ~CManualLockGuard() { m_lock.Unlock(); }
  CManualLockGuard(const CManualLockGuard&) = delete;
  CManualLockGuard& operator=(const CManualLockGuard&) = delete;

 private:
  CManualLock& m_lock;
};

#endif  // COMMON_LOG_MANUALLOCK_H_
