// Interface of a service process run by RunService.
#pragma once

#include "common/base/CTString.h"

namespace zelph {

// What a service program supplies to RunService (ServiceControl.h).
class CService {
 public:
  CService(const CService&) = delete;
  CService& operator=(const CService&) = delete;
  virtual ~CService() = default;

  // Short name ("zelcachesrv"); names the PID file.
  virtual CUTF8String GetShortName() const = 0;
  // Name shown in the service's event-log messages.
  virtual CUTF8String GetDisplayName() const = 0;
  // Prepares the service before the process daemonises, with SIGTERM held
  // back so that a stop request finds something to stop. May throw.
  virtual void Initialize() = 0;
  // The service's work; returns when the service stops. May throw.
  virtual void Run() = 0;
  // Makes Run return. Called from the SIGTERM handler, on whichever thread
  // takes the signal: do no more than is safe there (CUnixSocket::Cancel is).
  virtual void Stop() = 0;

 protected:
  CService() = default;
};

}  // namespace zelph
