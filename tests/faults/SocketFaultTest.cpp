// Local sockets whose peer process is killed (SIGKILL, so it has no chance to
// say goodbye) in the middle of a message. The surviving side must get the
// exception the stream promises for it and go on living: no hang, no
// SIGPIPE, no crash.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "FaultFiles.h"
#include "common/base/CException.h"
#include "common/system/CUnixSocket.h"

namespace zelph {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A peer process: runs its part, reports readiness through a pipe, then waits
// to be killed. Killed and reaped at the end in any case.
class CPeer {
 public:
  explicit CPeer(const std::function<void()>& part) {
    int ready[2];
    if (pipe(ready) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      try {
        part();
      } catch (...) {
        _exit(3);
      }
      const char byte = 1;
      if (write(ready[1], &byte, 1) != 1) _exit(4);
      for (;;) pause();
    }
    close(ready[1]);
    ready_ = ready[0];
  }
  CPeer(const CPeer&) = delete;
  CPeer& operator=(const CPeer&) = delete;
  ~CPeer() {
    Kill();
    if (ready_ >= 0) close(ready_);
  }

  // True once the peer has done its part (false when it died first).
  bool WaitReady() {
    char byte = 0;
    ssize_t got = 0;
    do {
      got = read(ready_, &byte, 1);
    } while (got < 0 && errno == EINTR);
    return got == 1;
  }

  // SIGKILL, and wait until the process is gone.
  void Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int ready_ = -1;
};

// What a blocking call ended with.
enum class Outcome { kReturned, kSocketClosed, kCancelled, kTimedOut, kOtherIOError, kOther };

const char* Name(Outcome outcome) {
  switch (outcome) {
    case Outcome::kReturned:
      return "returned";
    case Outcome::kSocketClosed:
      return "EIOSocketClosed";
    case Outcome::kCancelled:
      return "EIOCancelled";
    case Outcome::kTimedOut:
      return "EIOTimedOut";
    case Outcome::kOtherIOError:
      return "EIOError";
    case Outcome::kOther:
      return "another exception";
  }
  return "?";
}

Outcome Attempt(const std::function<void()>& call, std::string* text = nullptr) {
  try {
    call();
    return Outcome::kReturned;
  } catch (const EIOSocketClosed&) {
    return Outcome::kSocketClosed;
  } catch (const EIOCancelled&) {
    return Outcome::kCancelled;
  } catch (const EIOTimedOut&) {
    return Outcome::kTimedOut;
  } catch (const EIOError& error) {
    if (text != nullptr) *text = std::string(error.GetEvent().GetText().View());
    return Outcome::kOtherIOError;
  } catch (...) {
    return Outcome::kOther;
  }
}

// The peer is the service side: it accepts on a listener made here before
// the fork (the child inherits it), so the connection cannot race the child.
class SocketPeerKilledTest : public testing::TestWithParam<std::int32_t> {
 protected:
  CFaultDir dir_;
  std::string path_ = dir_.File("sock");
  std::unique_ptr<CUnixSocket> listener_ = CUnixSocket::Listen(path_.c_str());
};

TEST_P(SocketPeerKilledTest, ReaderGetsSocketClosedAndKeepsWhatArrived) {
  CPeer peer([this] {
    auto served = listener_->Accept();
    const Bytes half(100, 0x5A);
    served->Write(half.data(), half.size());
    served.release();  // the connection stays open until the process dies
  });
  auto client = CUnixSocket::Connect(path_.c_str(), GetParam());
  Bytes message(1000, 0);
  auto reader = std::async(std::launch::async, [&] {
    return Attempt([&] { client->Read(message.data(), message.size()); });
  });
  ASSERT_TRUE(peer.WaitReady()) << "the peer did not send its half message";
  peer.Kill();
  const Outcome outcome = reader.get();
  EXPECT_EQ(outcome, Outcome::kSocketClosed) << "the read ended with " << Name(outcome);
  EXPECT_EQ(Bytes(message.begin(), message.begin() + 100), Bytes(100, 0x5A))
      << "the bytes that arrived before the peer died are in the buffer";
  const Outcome again = Attempt([&] { client->Read(message.data(), 1); });
  EXPECT_EQ(again, Outcome::kSocketClosed) << "a dead peer stays dead: " << Name(again);
}

INSTANTIATE_TEST_SUITE_P(Timeouts, SocketPeerKilledTest, testing::Values(0, 30),
                         [](const auto& info) {
                           return info.param == 0 ? std::string("NoTimeout")
                                                  : "Timeout" + std::to_string(info.param);
                         });

TEST(SocketWriterTest, PeerKilledMidMessageGivesAnErrorNotSigpipe) {
  CFaultDir dir;
  const std::string path = dir.File("sock");
  auto listener = CUnixSocket::Listen(path.c_str());
  CPeer peer([&listener] {
    auto served = listener->Accept();
    Bytes part(64 * 1024);
    served->Read(part.data(), part.size());
    served.release();
  });
  auto client = CUnixSocket::Connect(path.c_str(), 0);
  // Far more than the socket buffers hold: the writer blocks until the peer
  // dies.
  const Bytes message(16 << 20, 0x33);
  std::string text;
  auto writer = std::async(std::launch::async, [&] {
    return Attempt([&] { client->Write(message.data(), message.size()); }, &text);
  });
  ASSERT_TRUE(peer.WaitReady()) << "the peer did not read the start of the message";
  peer.Kill();
  const Outcome outcome = writer.get();
  ASSERT_EQ(outcome, Outcome::kOtherIOError) << "the write ended with " << Name(outcome);
  EXPECT_TRUE(text.starts_with("The call to <write> failed for the following reason: "))
      << "the error names the failed call: " << text;
}

TEST(SocketListenerKilledTest, StaleFileRefusesClientsUntilANewListenerReplacesIt) {
  CFaultDir dir;
  const std::string path = dir.File("sock");
  auto listener = CUnixSocket::Listen(path.c_str());
  CPeer service([&listener] {
    auto first = listener->Accept();
    first.release();
  });
  // Only the service may hold the listener; this process closes its copy.
  listener.reset();
  auto client = CUnixSocket::Connect(path.c_str(), 5);
  ASSERT_TRUE(service.WaitReady()) << "the service did not accept";
  service.Kill();

  std::uint8_t byte = 0;
  const Outcome read = Attempt([&] { client->Read(&byte, 1); });
  EXPECT_EQ(read, Outcome::kSocketClosed) << "reading from a dead service: " << Name(read);
  EXPECT_THROW(CUnixSocket::Connect(path.c_str(), 5), EIOSocketNoListener)
      << "the socket file is left behind, but nobody listens on it";
  std::unique_ptr<CUnixSocket> replacement;
  ASSERT_NO_THROW(replacement = CUnixSocket::Listen(path.c_str()))
      << "a new service replaces the stale socket file";
  auto again = CUnixSocket::Connect(path.c_str(), 5);
  EXPECT_NE(replacement->Accept(), nullptr);
}

}  // namespace
}  // namespace zelph
