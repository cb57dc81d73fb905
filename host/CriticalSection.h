// A critical section: the module's one kind of lock, recursive like a
// Windows critical section so that a holder may enter it again.
#pragma once

#include <mutex>

namespace pelka {

// A critical section: a recursive lock, entered and left
// explicitly where the interface asks for it, or held by CriticalSectionLock.
class CCriticalSection {
 public:
  void Enter() { mutex_.lock(); }
  void Leave() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

class CriticalSectionLock {
 public:
  explicit CriticalSectionLock(CCriticalSection& section) : section_(section) { section_.Enter(); }
  ~CriticalSectionLock() { section_.Leave(); }
  CriticalSectionLock(const CriticalSectionLock&) = delete;
  CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

 private:
  CCriticalSection& section_;
};

}  // namespace pelka
