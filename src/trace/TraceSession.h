// The per-process trace log: whether tracing is on, the log file, its header
// and footer, and the lock every trace call holds while it writes.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

#include "common/base/CMutex.h"
#include "common/base/CTString.h"

namespace zelph {

// The process-wide trace lock. Created when the library is loaded; every
// exported trace call holds it from before the session check until after the
// flush. It is recursive, so a trace call made while tracing is harmless.
CMutex& GetTraceLock() noexcept;
// False only when the system refused the trace lock at load; tracing is then
// off for the life of the process.
bool TraceLockAvailable() noexcept;

// Decides once per process whether tracing is on and, if so, opens the log
// and writes its header. Returns true when the log is open. The caller must
// hold the trace lock. An exception while opening leaves the decision open,
// so the next call tries again.
bool IsTraceSessionOpen();

// What the start and end of every trace call look at, owned by the session:
// the trace lock (null when the system refused it at load), the log stream
// (null while the session is closed) and whether the first call has decided
// about the session. Changed only under the trace lock.
struct CTraceSessionState {
  CMutex* lock = nullptr;
  std::FILE* log = nullptr;
  bool decided = false;
};
extern CTraceSessionState g_traceSession;

// The first call's way through AcquireTraceSession: runs IsTraceSessionOpen
// and, when that throws, releases the trace lock before the exception leaves.
bool DecideTraceSession();

// The start of every trace call: takes the trace lock and runs
// IsTraceSessionOpen. Returns true when the log is open. The lock is held on
// return, also when the log is closed (unless the system refused the lock at
// load, when this returns false without it), until ReleaseTraceSession. Inline,
// because with tracing off this is nearly all a call does.
inline bool AcquireTraceSession() {
  if (g_traceSession.lock == nullptr) return false;
  g_traceSession.lock->Lock();
  // Once decided, the stream is open exactly when the session is (only the
  // end handler closes it again).
  if (g_traceSession.decided) return g_traceSession.log != nullptr;
  return DecideTraceSession();
}

// The end of every trace call: flushes the log when `open` (the result of
// AcquireTraceSession) and releases the trace lock.
inline void ReleaseTraceSession(bool open) noexcept {
  if (open && g_traceSession.log != nullptr) std::fflush(g_traceSession.log);
  if (g_traceSession.lock != nullptr) g_traceSession.lock->Unlock();
}

// How text becomes a printf format. Every trace line starts with the thread's
// prefix, and the prefix is placed in front of the caller's format text
// rather than passed as an argument: in TraceString lines and in the dumps'
// formatted rows the two markers of the thread marked "%" therefore print as
// one "%" (Entering and Leaving pass the prefix as an argument and show
// both). The line writer composes prefix + text + "\n" per line of the
// caller's message. The dumps write rows they can render themselves as
// bytes, unformatted, when the prefix holds no "%", and fall back to a
// prefixed format otherwise. The spy, which only has TraceString, doubles
// every "%" of the text it collects so that no conversion is left without
// its argument, and lets TraceString put the prefix before each line.
//
// printf-style writes straight to the log stream. Only valid while the
// session is open and the trace lock is held; write errors are ignored.
void TraceWriteRaw(const char* format, ...) __attribute__((format(printf, 1, 2)));
void TraceWriteRawV(const char* format, std::va_list args);
// Writes `prefix` followed by `format` as one printf format, so that the
// prefix takes part in the formatting as every trace line's prefix does.
void TraceWritePrefixed(std::string_view prefix, const char* format, ...);
// Writes `text` as it stands (no conversions).
void TraceWriteText(const char* text) noexcept;
// Writes the bytes of `text` as they stand.
void TraceWriteBytes(std::string_view text) noexcept;
// Flushes the log stream; called at the end of every trace call.
void TraceFlush() noexcept;

// The full path of the running executable, read from /proc/<pid>/exe.
CUTF8String GetExecutablePath();
// The executable path after its last "/" (the whole path when it has none).
CUTF8String GetExecutableBaseName();

}  // namespace zelph
