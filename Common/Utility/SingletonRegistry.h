// CSingletonRegistry<T>: the process-wide record of a reference-counted
// singleton: the instance, how many holders it has, and the lock that guards
// both. The classes that are such singletons keep one registry each and
// build their Create/Acquire/Release operations on it.
//
// Any thread may acquire and release. The registry owns the instance only in
// the sense that the last release deletes it.
#ifndef COMMON_UTILITY_SINGLETONREGISTRY_H_
#define COMMON_UTILITY_SINGLETONREGISTRY_H_

#include <cstdint>

#include "Common/Log/ManualLock.h"

template <typename T>
class CSingletonRegistry {
 public:
  CSingletonRegistry() : m_lock(500) {}
  CSingletonRegistry(const CSingletonRegistry&) = delete;
  CSingletonRegistry& operator=(const CSingletonRegistry&) = delete;

  // Held by a creator around its test of vacant() and its install().
  CManualLock& lock() { return m_lock; }
  // No instance and no holder. Call with the lock held.
  bool vacant() const { return m_instance == nullptr && m_count == 0; }
  // Stores a new instance with its first holder. Call with the lock held.
  void install(T* instance) {
    m_instance = instance;
    m_count = 1;
  }

  // The instance with one more holder, or null when there is none.
  T* acquire() {
    CManualLockGuard guard(m_lock);
    if (m_instance != nullptr)
      ++m_count;
    return m_instance;
  }

  // Drops one holder of `instance`; the last one deletes it. A pointer that
  // is not the stored instance is deleted at once.
  void release(T* instance) {
    if (instance == nullptr)
      return;
    CManualLockGuard guard(m_lock);
    if (instance == m_instance) {
      if (m_count-- != 1)
        return;
      m_instance = nullptr;
    }
    delete instance;
  }

  uint32_t count() {
    CManualLockGuard guard(m_lock);
    return m_count;
  }

 private:
  T* m_instance = nullptr;
  uint32_t m_count = 0;
  CManualLock m_lock;
};

#endif  // COMMON_UTILITY_SINGLETONREGISTRY_H_
