// The floor for loading a trace library: a C++ library of one exported
// TraceString that uses the C++ runtime (so that libstdc++ is loaded as for
// ours) and writes nothing.
#include <string>

extern "C" __attribute__((visibility("default"))) void TraceString(const char* format, ...) {
  static std::string last;
  last = format;
}
