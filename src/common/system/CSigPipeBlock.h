// Keeps SIGPIPE from the calling thread while a library writes to a socket
// it cannot pass MSG_NOSIGNAL to (OpenSSL's socket layer).
#pragma once

#include <signal.h>

namespace zelph {

// Blocks SIGPIPE in the calling thread for the object's lifetime. A SIGPIPE
// raised meanwhile is taken back before the old mask returns, so a write to
// a closed peer fails with EPIPE instead of ending the host process. A
// SIGPIPE that was already pending is left pending.
class CSigPipeBlock {
 public:
  CSigPipeBlock() noexcept;
  ~CSigPipeBlock();
  CSigPipeBlock(const CSigPipeBlock&) = delete;
  CSigPipeBlock& operator=(const CSigPipeBlock&) = delete;

 private:
  sigset_t oldMask_;
  bool wasPending_ = false;
};

}  // namespace zelph
