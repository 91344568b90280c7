#include "spy/SpyTracing.h"

#include "common/config/ConfigFile.h"
#include "trace/TraceSettings.h"

namespace zelph {

bool IsSpyTracing() noexcept {
  static const bool tracing = [] {
    try {
      const CConfigSection* section = GetSharedConfig().FindSection(kTraceSection);
      return section != nullptr && section->GetIntValue(kEnableTraceKey, 0) != 0 &&
             !section->GetValue(kTraceDirectoryKey).IsEmpty();
    } catch (...) {
      return true;
    }
  }();
  return tracing;
}

}  // namespace zelph
