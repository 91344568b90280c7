// Cross-process mutex of the middleware's processes, on a System V
// semaphore keyed on the cache service executable.
//
// None of these functions throws: failures are traced as warnings and leave
// the mutex unusable (a negative identifier), in which case acquiring and
// releasing do nothing.
#pragma once

#include "common/base/CTString.h"

namespace zelph {

// Creates the semaphore keyed on the cache service executable and
// `project` (its low byte), or opens it when another process created it
// first. Returns the semaphore identifier, negative when it could not be
// created.
int CreateProcessMutex(int project);
// As above, keyed on the existing file `keyPath` instead.
int CreateProcessMutex(int project, const CUTF8String& keyPath);

// Takes the mutex, waiting without limit. The system gives the mutex back
// if the holder dies. Does nothing for a negative `identifier`.
void AcquireProcessMutex(int identifier) noexcept;
// Gives the mutex back. Does nothing for a negative `identifier`.
void ReleaseProcessMutex(int identifier) noexcept;

}  // namespace zelph
