#include "Common/Log/ManualLock.h"

CManualLock::CManualLock(int /*spin*/) : m_lockCount(0) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

CManualLock::~CManualLock() {
  while (Unlock() != 0) {
  }
  pthread_mutex_destroy(&m_mutex);
}

void CManualLock::Lock() {
  pthread_mutex_lock(&m_mutex);
  ++m_lockCount;
}

bool CManualLock::TryLock() {
  if (pthread_mutex_trylock(&m_mutex) != 0)
    return false;
  ++m_lockCount;
  return true;
}

unsigned CManualLock::Unlock() {
  if (m_lockCount == 0)
    return 0;
  const unsigned remaining = --m_lockCount;
  pthread_mutex_unlock(&m_mutex);
  return remaining;
}
