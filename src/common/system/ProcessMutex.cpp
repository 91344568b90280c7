#include "common/system/ProcessMutex.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>

#include <zelph/trace.h>

#include "common/system/ServiceControl.h"

namespace zelph {
namespace {

// Looks at most this many times, 1 ms apart, for the creator's first semop.
constexpr int kReadyLooks = 10;

// Creates or opens the semaphore into `identifier`; returns 0 or the error
// number of the failure.
int CreateSemaphore(int project, const CUTF8String& keyPath, int& identifier) noexcept {
  const key_t key = ftok(keyPath.c_str(), project & 0xFF);
  // A failed ftok gives -1, which is a usable key: never pass it on.
  if (key == static_cast<key_t>(-1)) return errno;

  identifier = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
  if (identifier >= 0) {
    // Sets the value to 1 (free) and stamps the last-operation time, which
    // tells the processes that opened the set meanwhile that it is ready.
    sembuf initialise{0, 1, 0};
    return semop(identifier, &initialise, 1) == 0 ? 0 : errno;
  }
  if (errno != EEXIST) return errno;

  identifier = semget(key, 1, 0);
  if (identifier < 0) return errno;
  for (int look = 1; look <= kReadyLooks; ++look) {
    semid_ds state{};
    if (semctl(identifier, 0, IPC_STAT, &state) != 0) return errno;
    if (state.sem_otime != 0) return 0;
    if (look < kReadyLooks) usleep(1000);
  }
  return ETIME;
}

// One semop on semaphore 0 with SEM_UNDO, so that the system undoes it when
// the process dies; returns 0 or the error number.
int ChangeSemaphore(int identifier, short delta) noexcept {
  sembuf operation{0, delta, SEM_UNDO};
  int result = 0;
  // A signal handler elsewhere in the process must not turn a wait into a
  // failure: the caller would go on as if it held the mutex.
  do {
    result = semop(identifier, &operation, 1);
  } while (result != 0 && errno == EINTR);
  return result == 0 ? 0 : errno;
}

}  // namespace

int CreateProcessMutex(int project) {
  return CreateProcessMutex(project, GetServiceExecutablePath());
}

int CreateProcessMutex(int project, const CUTF8String& keyPath) {
  int identifier = -1;
  if (const int error = CreateSemaphore(project, keyPath, identifier); error != 0) {
    TraceString("Warning: Mutex creation failed: (errno=%d)", error);
  }
  return identifier;
}

void AcquireProcessMutex(int identifier) noexcept {
  if (identifier < 0) return;
  if (const int error = ChangeSemaphore(identifier, -1); error != 0) {
    TraceString("Warning: Mutex acquisition failed: (errno=%d)", error);
  }
}

void ReleaseProcessMutex(int identifier) noexcept {
  if (identifier < 0) return;
  if (const int error = ChangeSemaphore(identifier, 1); error != 0) {
    TraceString("Warning: Mutex releasing failed: (errno=%d)", error);
  }
}

}  // namespace zelph
