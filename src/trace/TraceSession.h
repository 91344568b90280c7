// The per-process trace log: whether tracing is on, the log file, its header
// and footer, and the lock every trace call holds while it writes.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

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

// printf-style writes straight to the log stream. Only valid while the
// session is open and the trace lock is held; write errors are ignored.
void TraceWriteRaw(const char* format, ...) __attribute__((format(printf, 1, 2)));
void TraceWriteRawV(const char* format, std::va_list args);
// Writes `prefix` followed by `format` as one printf format, so that the
// prefix takes part in the formatting as every trace line's prefix does.
void TraceWritePrefixed(const std::string& prefix, const char* format, ...);
// Writes `text` as it stands (no conversions).
void TraceWriteText(const char* text) noexcept;
// Flushes the log stream; called at the end of every trace call.
void TraceFlush() noexcept;

// The full path of the running executable, read from /proc/<pid>/exe.
CUTF8String GetExecutablePath();
// The executable path after its last "/" (the whole path when it has none).
CUTF8String GetExecutableBaseName();

}  // namespace zelph
