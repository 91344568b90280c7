#include "common/config/ConfigFile.h"

#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace zelph {

CUTF8String GetConfigFilePath() {
  // Set, even to "", it wins without any test: a missing file is an empty
  // configuration, not a reason to look elsewhere.
  if (const char* file = std::getenv("ZELPH_CONFFILE")) return CUTF8String(file);
  if (const char* home = std::getenv("HOME")) {
    CUTF8String candidate(home);
    candidate += "/.zelph.global.conf";
    if (access(candidate.c_str(), R_OK) == 0) return candidate;
  }
  return CUTF8String("/etc/zelph.conf");
}

namespace {

// The shared configuration, made on the first call: from `loaded` when the
// caller brings one, else loaded from the file. Made under the guard for
// function-local statics, so concurrent first calls share one load; destroyed
// at process exit.
CConfigSection& SharedConfig(std::unique_ptr<CConfigSection>* loaded) {
  static const std::unique_ptr<CConfigSection> shared =
      loaded != nullptr && *loaded ? std::move(*loaded) : CConfigSection::Load(GetConfigFilePath());
  return *shared;
}

}  // namespace

CConfigSection& GetSharedConfig() {
  return SharedConfig(nullptr);
}

CConfigSection& ShareConfig(std::unique_ptr<CConfigSection> loaded) {
  return SharedConfig(&loaded);
}

std::unique_ptr<CConfigSection> OpenConfig() {
  return CConfigSection::Load(GetConfigFilePath());
}

std::unique_ptr<CConfigSection> OpenUserConfig() {
  const char* home = std::getenv("HOME");
  if (!home) return std::make_unique<CConfigSection>();
  CUTF8String path(home);
  path += "/.zelph.conf";
  return CConfigSection::Load(path);
}

}  // namespace zelph
