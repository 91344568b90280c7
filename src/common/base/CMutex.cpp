#include "common/base/CMutex.h"

#include "common/base/CEventMessage.h"
#include "common/base/CException.h"

namespace zelph {

namespace {

[[noreturn]] void ThrowThreadError(const char* call, int error) {
  throw EThreadError(CEventMessage::MakeSystemCallFailure(call, error, kCategorySystem));
}

}  // namespace

CMutex::CMutex() {
  // The pthread calls return their error number; it is kept before the
  // attribute object is destroyed.
  pthread_mutexattr_t attributes;
  int error = pthread_mutexattr_init(&attributes);
  if (error != 0) ThrowThreadError("pthread_mutexattr_init", error);
  error = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  if (error != 0) {
    pthread_mutexattr_destroy(&attributes);
    ThrowThreadError("pthread_mutexattr_settype", error);
  }
  error = pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (error != 0) ThrowThreadError("pthread_mutex_init", error);
}

CMutex::~CMutex() {
  pthread_mutex_destroy(&mutex_);
}

}  // namespace zelph
