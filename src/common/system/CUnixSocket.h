// Byte stream over an AF_UNIX stream socket.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/base/CMutex.h"
#include "common/base/CTString.h"
#include "common/system/CLocalSocket.h"

namespace zelph {

// The local socket between client processes and the cache service. Reads
// may time out; a call blocked in Read, Write or Accept is cancelled from
// another thread by SIGALRM. The first socket of the process installs empty
// handlers for SIGALRM and SIGPIPE that interrupt blocking calls, so a write
// to a closed peer fails with an EIOError instead of killing the process.
//
// Errors: EIOCancelled, EIOTimedOut, EIOSocketClosed (the peer closed),
// EIOSocketBusy and EIOSocketNoListener from the factories, and EIOError
// naming the failed system call for everything else.
class CUnixSocket final : public CLocalSocket {
 public:
  // Socket paths are cut to this many bytes.
  static constexpr std::size_t kMaxPathLength = 107;

  // Connects to the socket file at `path`. Reads wait at most
  // `timeoutSeconds` for data; 0 or less waits without limit. Throws
  // EIOSocketNoListener when the file is missing or nobody listens on it.
  static std::unique_ptr<CUnixSocket> Connect(const CUTF8String& path, std::int32_t timeoutSeconds);
  // Listens on `path`, replacing a stale socket file, and opens the file to
  // every user. Throws EIOSocketBusy, leaving the file alone, when another
  // process already serves the path.
  static std::unique_ptr<CUnixSocket> Listen(const CUTF8String& path);

  ~CUnixSocket() override;

  void Cancel() override;
  void ResetCancel() override;
  void Read(std::uint8_t* buffer, std::uint64_t length) override;
  void Write(const std::uint8_t* buffer, std::uint64_t length) override;
  std::unique_ptr<CLocalSocket> Accept() override;

 private:
  class CBusyScope;

  // Takes ownership of `descriptor`.
  CUnixSocket(int descriptor, std::int32_t timeoutSeconds);
  // Wraps an open descriptor, closing it when the wrapping fails.
  static std::unique_ptr<CUnixSocket> Adopt(int descriptor, std::int32_t timeoutSeconds);
  // Throws EIOCancelled when the stream is cancelled.
  void ThrowIfCancelled();

  std::int32_t timeout_;
  pthread_t busyThread_{};  // valid while busy_ is set
  CMutex guard_;            // guards the flags and busyThread_, with all signals blocked
  bool cancelled_ = false;
  bool busy_ = false;
  int descriptor_;
};

}  // namespace zelph
