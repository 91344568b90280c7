// Holds a mutex for the lifetime of a scope.
#pragma once

#include "common/base/CMutex.h"

namespace zelph {

// Locks the mutex on construction and unlocks it on destruction.
class CScopedLock {
 public:
  explicit CScopedLock(CMutex& mutex) noexcept : mutex_(&mutex) { mutex_->Lock(); }
  CScopedLock(const CScopedLock&) = delete;
  CScopedLock& operator=(const CScopedLock&) = delete;
  ~CScopedLock() { mutex_->Unlock(); }

 private:
  CMutex* mutex_;
};

}  // namespace zelph
