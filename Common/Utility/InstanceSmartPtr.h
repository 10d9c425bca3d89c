// CInstanceSmartPtr<T>: a counted handle on a reference-counted singleton.
//
// T offers `static T* AcquireInstance()` (the instance with one more
// reference, or null when none exists) and `static void ReleaseInstance(T*)`.
// The handle takes one reference when it is built and gives it back when it
// is destroyed; a null handle means nobody has created the singleton yet.
// A handle belongs to the thread that holds it; T's own lock makes taking and
// dropping references safe from any thread.
#ifndef COMMON_UTILITY_INSTANCESMARTPTR_H_
#define COMMON_UTILITY_INSTANCESMARTPTR_H_

template <typename T>
class CInstanceSmartPtr {
 public:
  CInstanceSmartPtr() : m_pInstance(T::AcquireInstance()) {}
  virtual ~CInstanceSmartPtr() {
    if (m_pInstance != nullptr)
      T::ReleaseInstance(m_pInstance);
  }

  CInstanceSmartPtr(const CInstanceSmartPtr&) = delete;
  CInstanceSmartPtr& operator=(const CInstanceSmartPtr&) = delete;

  // Gives back the reference held so far, if any, and takes over the one
  // reference that the caller owns on `instance` (for instance the one that
  // CreateSingletonInstance handed out). Null leaves the handle empty.
  void ReplaceInstance(T* instance) {
    if (instance == m_pInstance)
      return;
    T* previous = m_pInstance;
    m_pInstance = instance;
    if (previous != nullptr)
      T::ReleaseInstance(previous);
  }

  T* get() const { return m_pInstance; }
  T* operator->() const { return m_pInstance; }
  T& operator*() const { return *m_pInstance; }
  bool IsNull() const { return m_pInstance == nullptr; }
  explicit operator bool() const { return m_pInstance != nullptr; }

 private:
  T* m_pInstance;
};

#endif  // COMMON_UTILITY_INSTANCESMARTPTR_H_
