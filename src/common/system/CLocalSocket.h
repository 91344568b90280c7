// Abstract local socket: a stream that can also listen for clients.
#pragma once

#include <memory>

#include "common/system/CStream.h"

namespace zelph {

// A stream over a local socket. A listening socket hands out one new stream
// per client through Accept.
class CLocalSocket : public CStream {
 public:
  // Waits without limit for one client and returns the stream connected to
  // it, owned by the caller. Throws EIOCancelled when cancelled and EIOError
  // when the system refuses.
  virtual std::unique_ptr<CLocalSocket> Accept() = 0;

 protected:
  CLocalSocket() = default;
};

}  // namespace zelph
