// Control of the cache service process: launching its executable from a
// client, and the run routine of the service process itself.
#pragma once

#include "common/base/CTString.h"
#include "common/system/CService.h"

namespace zelph {

// Where the cache service executable is installed, and its name.
inline constexpr char kServiceDirectory[] = "/usr/lib/Zwmware";
inline constexpr char kServiceExecutableName[] = "zelcachesrv";
// The socket the cache service listens on.
inline constexpr char kServiceSocketPath[] = "/tmp/.zelph_socket";
// Where a daemonised service writes its PID file.
inline constexpr char kPidFileDirectory[] = "/var/run/";

// "/usr/lib/Zwmware/zelcachesrv".
CUTF8String GetServiceExecutablePath();

// The PID file of the running service, "/var/run/<short name>.pid", taken
// from the service RunService runs at the time of the call; empty while none
// runs (before RunService and after it returns), so that no caller creates
// or removes a file of no service. Thread-safe.
CUTF8String GetPidFilePath();

// Starts the service executable at `executablePath` (always with the program
// name "zelcachesrv") and waits for it to daemonise. The program inherits the
// calling thread's signal mask, the default action for every signal the
// caller catches, and none of the caller's descriptors below 256 (above, only
// those without close-on-exec). An executable that cannot be run is written
// to the event log. Throws EService
// (service `displayName` could not be started), after writing it to the
// event log, when the fork or wait fails or the program dies or exits with a
// non-zero status before daemonising.
void LaunchService(const CUTF8String& displayName, const CUTF8String& executablePath);

// Runs `service` as the process's service, with the PID file of
// GetPidFilePath(). Refuses to start when the PID file exists (the process
// exits with 2). Unless the only argument is "-f" the process daemonises:
// the calling process exits with 0 and the service goes on in a child in a
// new session, with no standard streams, that writes the PID file. SIGTERM
// stops the service. Returns 0 after a normal stop and 1 when Run threw; an
// Initialize that throws, or a failed fork, ends the process with 2. Start,
// stop and every failure are written to the event log.
int RunService(CService& service, int argc, char** argv);
// As above with the PID file at `pidFilePath`.
int RunService(CService& service, int argc, char** argv, const CUTF8String& pidFilePath);

}  // namespace zelph
