// Process-local recursive mutex.
#pragma once

#include <pthread.h>

namespace zelph {

// A recursive pthread mutex: a thread may lock it again while it holds it.
// Take it through CScopedLock.
class CMutex {
 public:
  // Creates the mutex. Throws EThreadError carrying the system-call failure
  // event that names the failed call when the system refuses.
  CMutex();
  CMutex(const CMutex&) = delete;
  CMutex& operator=(const CMutex&) = delete;
  ~CMutex();

  // pthread_mutex_lock; its result is returned unchecked.
  int Lock() noexcept { return pthread_mutex_lock(&mutex_); }
  // pthread_mutex_unlock; its result is returned unchecked.
  int Unlock() noexcept { return pthread_mutex_unlock(&mutex_); }
  // The underlying mutex.
  pthread_mutex_t* GetNative() noexcept { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

}  // namespace zelph
