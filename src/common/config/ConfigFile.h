// Which configuration file a process uses and the objects that hold it:
// the lookup through ZELPH_CONFFILE, HOME and /etc, a process-wide shared
// object, and fresh ones for callers that must see the file as it is now.
#pragma once

#include <memory>

#include "common/base/CTString.h"
#include "common/config/CConfigSection.h"

namespace zelph {

// The configuration file of this process: the value of "ZELPH_CONFFILE" when
// that is set (even to the empty string, and whether or not the file exists),
// else "$HOME/.zelph.global.conf" when it is readable, else "/etc/zelph.conf".
CUTF8String GetConfigFilePath();

// The process-wide configuration, loaded from GetConfigFilePath() on the first
// call only and destroyed at process exit. Later changes of the environment or
// of the files do not reach it.
CConfigSection& GetSharedConfig();

// GetSharedConfig for a caller that has just loaded the file itself
// (OpenConfig): when the shared configuration is not loaded yet, `loaded`
// becomes it, which saves reading the file a second time; otherwise `loaded`
// is dropped.
CConfigSection& ShareConfig(std::unique_ptr<CConfigSection> loaded);

// A new configuration loaded from GetConfigFilePath() as the file is now.
std::unique_ptr<CConfigSection> OpenConfig();

// A new configuration loaded from the user's private file "$HOME/.zelph.conf".
// Without "HOME" it is empty and has no file name, so every save fails.
std::unique_ptr<CConfigSection> OpenUserConfig();

}  // namespace zelph
