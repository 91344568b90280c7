// The exported trace entry points. Nothing may leave them: whatever goes
// wrong inside is swallowed here, so the host never notices the trace.
#include <cstdarg>

#include "trace/TraceDumps.h"
#include "trace/TraceLineWriter.h"
#include "zelph/trace.h"

extern "C" {

void TraceEnter(const char* name) ZELPH_NOEXCEPT {
  try {
    zelph::WriteTraceEnter(name);
  } catch (...) {
  }
}

void TraceLeave(const char* name) ZELPH_NOEXCEPT {
  try {
    zelph::WriteTraceLeave(name);
  } catch (...) {
  }
}

void TraceString(const char* format, ...) ZELPH_NOEXCEPT {
  try {
    // The frame is taken first and the arguments only looked at when the log
    // is open, so that with tracing off a call costs little more than the
    // lock.
    zelph::CTraceFrame frame;
    if (!frame.IsOpen()) return;
    std::va_list args;
    va_start(args, format);
    try {
      zelph::WriteTraceMessage(frame, format, args);
    } catch (...) {
    }
    va_end(args);
  } catch (...) {
  }
}

void TraceTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count,
                   CK_BBOOL omitValues) ZELPH_NOEXCEPT {
  try {
    zelph::WriteTraceTemplate(attributes, count, omitValues);
  } catch (...) {
  }
}

void TraceMechanism(const CK_MECHANISM* mechanism) ZELPH_NOEXCEPT {
  try {
    zelph::WriteTraceMechanism(*mechanism);
  } catch (...) {
  }
}

void TraceMechanismInfo(const CK_MECHANISM_INFO* info) ZELPH_NOEXCEPT {
  try {
    zelph::WriteTraceMechanismInfo(*info);
  } catch (...) {
  }
}

void TraceTokenInfo(const CK_TOKEN_INFO* info) ZELPH_NOEXCEPT {
  try {
    zelph::WriteTraceTokenInfo(*info);
  } catch (...) {
  }
}

}  // extern "C"
