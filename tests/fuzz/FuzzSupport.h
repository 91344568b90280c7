// Helpers shared by the fuzz targets.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace zelph {

// Ends the run as a crash when a property of the code under test does not
// hold, so that libFuzzer keeps the input that broke it.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "property broken: %s\n", what);
  std::abort();
}

// Points the configuration lookup at nothing, so that the trace calls made by
// the code under test (XML warnings, client identification) stay switched
// off instead of writing a log per run.
inline void SwitchTracingOff() {
  setenv("ZELPH_CONFFILE", "", 1);
}

// The fuzz input as text.
inline std::string_view AsText(const unsigned char* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace zelph
