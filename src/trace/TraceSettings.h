// The configuration keys that turn tracing on and say where logs go. The spy
// reads the same keys to know, without asking the library, whether calls are
// traced at all.
#pragma once

namespace zelph {

// The section that holds both keys.
inline constexpr char kTraceSection[] = "Quillon";
// An integer: tracing is on when it is not 0.
inline constexpr char kEnableTraceKey[] = "EnableTrace";
// The directory of the logs; without it tracing is off.
inline constexpr char kTraceDirectoryKey[] = "Trace";

}  // namespace zelph
