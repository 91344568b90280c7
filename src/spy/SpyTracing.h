// Whether the spy traces in this process.
#pragma once

namespace zelph {

// True when the trace library writes a log in this process, as far as the
// configuration tells: "EnableTrace" of section Quillon is not 0 and "Trace"
// names a directory. Read once per process, from the same load of the
// configuration file that names the real module, so that with tracing off a
// call costs the spy no formatting at all. When the file cannot be read the
// answer is true and the library's own decision stands.
bool IsSpyTracing() noexcept;

}  // namespace zelph
