#include "common/system/CUnixSocket.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <utility>

#include "common/base/CEventMessage.h"
#include "common/base/CException.h"
#include "common/base/CScopedLock.h"

namespace zelph {
namespace {

static_assert(CUnixSocket::kMaxPathLength + 1 == sizeof(sockaddr_un::sun_path),
              "the path and its terminator fill sun_path");

void IgnoreSignal(int /*signal*/) {}

// Installs, once per process, the empty SIGALRM and SIGPIPE handlers.
// Without SA_RESTART a blocking select, read, write or accept returns EINTR
// when one of them arrives; that is how Cancel reaches a blocked thread.
void InstallSignalHandlers() noexcept {
  static const bool installed = [] {
    struct sigaction action {};
    action.sa_handler = IgnoreSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGALRM, &action, nullptr);
    sigaction(SIGPIPE, &action, nullptr);
    return true;
  }();
  static_cast<void>(installed);
}

// Fills `address` for `path`, cut to kMaxPathLength bytes, and returns the
// address length to pass with it.
socklen_t MakeAddress(const CUTF8String& path, sockaddr_un& address) noexcept {
  address = {};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::min<std::size_t>(path.Size(), CUnixSocket::kMaxPathLength);
  std::memcpy(address.sun_path, path.c_str(), length);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

[[noreturn]] void ThrowCallFailure(const char* call, int error) {
  throw EIOError(CEventMessage::MakeSystemCallFailure(call, error, kCategoryIO));
}

// A descriptor closed on scope exit unless released; keeps half-built
// sockets from leaking when a factory throws.
class CDescriptorGuard {
 public:
  explicit CDescriptorGuard(int descriptor) noexcept : descriptor_(descriptor) {}
  CDescriptorGuard(const CDescriptorGuard&) = delete;
  CDescriptorGuard& operator=(const CDescriptorGuard&) = delete;
  ~CDescriptorGuard() {
    if (descriptor_ >= 0) close(descriptor_);
  }

  int Get() const noexcept { return descriptor_; }
  int Release() noexcept { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_;
};

// Holds the guard with every signal blocked, so that the cancelling SIGALRM
// (or a handler calling Cancel) cannot run while the guard is held.
class CGuardSection {
 public:
  explicit CGuardSection(CMutex& guard) noexcept : guard_(guard) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved_);
    guard_.Lock();
  }
  CGuardSection(const CGuardSection&) = delete;
  CGuardSection& operator=(const CGuardSection&) = delete;
  ~CGuardSection() {
    guard_.Unlock();
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
  }

 private:
  CMutex& guard_;
  sigset_t saved_;
};

}  // namespace

// Marks the stream busy for the duration of one blocking call, so that
// Cancel knows which thread to interrupt. Refuses to start when cancelled.
class CUnixSocket::CBusyScope {
 public:
  explicit CBusyScope(CUnixSocket& socket) : socket_(socket) {
    CGuardSection section(socket_.guard_);
    if (socket_.cancelled_) throw EIOCancelled(CEventMessage(kEvtIOCancelled, kCategoryIO));
    socket_.busy_ = true;
    socket_.busyThread_ = pthread_self();
  }
  CBusyScope(const CBusyScope&) = delete;
  CBusyScope& operator=(const CBusyScope&) = delete;
  ~CBusyScope() {
    CGuardSection section(socket_.guard_);
    socket_.busy_ = false;
  }

 private:
  CUnixSocket& socket_;
};

CUnixSocket::CUnixSocket(int descriptor, std::int32_t timeoutSeconds)
    : timeout_(timeoutSeconds), descriptor_(descriptor) {
  InstallSignalHandlers();
}

CUnixSocket::~CUnixSocket() {
  close(descriptor_);
}

std::unique_ptr<CUnixSocket> CUnixSocket::Adopt(int descriptor, std::int32_t timeoutSeconds) {
  CDescriptorGuard owner(descriptor);
  std::unique_ptr<CUnixSocket> socket(new CUnixSocket(descriptor, timeoutSeconds));
  owner.Release();
  return socket;
}

std::unique_ptr<CUnixSocket> CUnixSocket::Connect(const CUTF8String& path,
                                                  std::int32_t timeoutSeconds) {
  CDescriptorGuard descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (descriptor.Get() < 0) ThrowCallFailure("socket", errno);
  sockaddr_un address;
  const socklen_t size = MakeAddress(path, address);
  if (connect(descriptor.Get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
    const int error = errno;
    const CEventMessage failure =
        CEventMessage::MakeSystemCallFailure("connect", error, kCategoryIO);
    if (error == ECONNREFUSED || error == ENOENT) throw EIOSocketNoListener(failure);
    throw EIOError(failure);
  }
  return Adopt(descriptor.Release(), timeoutSeconds);
}

std::unique_ptr<CUnixSocket> CUnixSocket::Listen(const CUTF8String& path) {
  sockaddr_un address;
  const socklen_t size = MakeAddress(path, address);

  // A successful connection means that a live process serves the path.
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) ThrowCallFailure("socket", errno);
  if (connect(probe, reinterpret_cast<const sockaddr*>(&address), size) == 0) {
    close(probe);
    throw EIOSocketBusy(CEventMessage(kEvtSocketBusy, kCategoryIO));
  }
  // The failed probe is deliberately left open: the service has always kept
  // it for its lifetime (one descriptor per successful listen). It closes on
  // exec, like every socket here, so no program the process starts holds it.

  // Whatever is left at the path is a stale file of an earlier run.
  unlink(address.sun_path);
  CDescriptorGuard descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (descriptor.Get() < 0) ThrowCallFailure("socket", errno);
  if (bind(descriptor.Get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
    ThrowCallFailure("bind", errno);
  }
  if (listen(descriptor.Get(), 5) != 0) ThrowCallFailure("listen", errno);
  // Clients of every user talk to the one service.
  chmod(address.sun_path, 0777);
  return Adopt(descriptor.Release(), 0);
}

void CUnixSocket::Cancel() {
  bool busy = false;
  pthread_t thread{};
  {
    CGuardSection section(guard_);
    cancelled_ = true;
    busy = busy_;
    thread = busyThread_;
  }
  // Interrupts the blocked call with EINTR; the thread then finds the flag.
  if (busy) pthread_kill(thread, SIGALRM);
}

void CUnixSocket::ResetCancel() {
  CGuardSection section(guard_);
  cancelled_ = false;
}

void CUnixSocket::ThrowIfCancelled() {
  bool cancelled = false;
  {
    CGuardSection section(guard_);
    cancelled = cancelled_;
  }
  if (cancelled) throw EIOCancelled(CEventMessage(kEvtIOCancelled, kCategoryIO));
}

void CUnixSocket::Read(std::uint8_t* buffer, std::uint64_t length) {
  CBusyScope busy(*this);
  if (length == 0) return;
  std::uint64_t total = 0;
  for (;;) {
    if (timeout_ > 0) {
      fd_set readable;
      FD_ZERO(&readable);
      FD_SET(descriptor_, &readable);
      // Fresh for each wait: every wait may last the whole time-out.
      timeval wait{timeout_, 0};
      const int ready = select(descriptor_ + 1, &readable, nullptr, nullptr, &wait);
      const int error = errno;
      ThrowIfCancelled();
      if (ready < 0) {
        if (error != EINTR) ThrowCallFailure("select", error);
        if (total >= length) return;
        continue;
      }
      if (ready == 0) throw EIOTimedOut(CEventMessage(kEvtIOTimedOut, kCategoryIO));
    }
    const ssize_t received = read(descriptor_, buffer + total, length - total);
    const int error = errno;
    ThrowIfCancelled();
    if (received == 0) {
      throw EIOSocketClosed(CEventMessage(
          kEvtFreeText, kCategoryIO, CUTF8FmtArgs().Add(CEventMessage::GetErrorText(ESHUTDOWN))));
    }
    if (received < 0) {
      if (error != EINTR) ThrowCallFailure("read", error);
    } else {
      total += static_cast<std::uint64_t>(received);
    }
    if (total >= length) return;
  }
}

void CUnixSocket::Write(const std::uint8_t* buffer, std::uint64_t length) {
  CBusyScope busy(*this);
  if (length == 0) return;
  const std::uint8_t* current = buffer;
  std::uint64_t total = 0;
  while (total < length) {
    // Each call is given the whole length: the service's message writer has
    // always relied on a blocking stream socket taking the buffer at once.
    const ssize_t sent = write(descriptor_, current, length);
    const int error = errno;
    ThrowIfCancelled();
    if (sent < 0) {
      if (error != EINTR) ThrowCallFailure("write", error);
      continue;
    }
    current += sent;
    total += static_cast<std::uint64_t>(sent);
  }
}

std::unique_ptr<CLocalSocket> CUnixSocket::Accept() {
  CBusyScope busy(*this);
  for (;;) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(descriptor_, &readable);
    const int ready = select(descriptor_ + 1, &readable, nullptr, nullptr, nullptr);
    const int error = errno;
    ThrowIfCancelled();
    if (ready < 0) {
      if (error != EINTR) ThrowCallFailure("select", error);
      continue;
    }
    if (ready == 0) continue;
    const int client = accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) return Adopt(client, 0);
    if (errno != EINTR) ThrowCallFailure("accept", errno);
  }
}

}  // namespace zelph
