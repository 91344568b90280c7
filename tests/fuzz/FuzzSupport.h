// Helpers shared by the fuzz targets.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace zelph {

// Ends the run as a crash when a property does not hold, so that libFuzzer
// keeps the input that broke it.
inline void Require(bool holds, const char* what) {
  if (!holds) std::fprintf(stderr, "property broken: %s\n", what), std::abort();
}

// The configuration lookup points at nothing, so that the trace calls of the
// code under test stay off instead of writing a log per run.
[[maybe_unused]] static const bool kTracingOff = setenv("ZELPH_CONFFILE", "", 1) == 0;

inline std::string_view AsText(const unsigned char* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace zelph
