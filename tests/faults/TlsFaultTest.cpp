// TLS peers that fail during the handshake: they reset the connection
// (SO_LINGER 0, so the kernel sends RST) before or after the ClientHello,
// close it, or answer with bytes that are no ServerHello. Opening the client
// connection must fail with its "SSL connect failed: " exception, without
// SIGPIPE, without a hang and without leaking the socket.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "common/base/CException.h"
#include "common/system/CHttpsConnection.h"
#include "common/system/CUrl.h"

namespace zelph {
namespace {

// Ends the process with a message when a case still runs after `seconds`.
class CHangGuard {
 public:
  explicit CHangGuard(int seconds)
      : thread_([this, seconds] {
          std::unique_lock lock(mutex_);
          if (!done_.wait_for(lock, std::chrono::seconds(seconds), [this] { return finished_; })) {
            std::fprintf(stderr, "TLS fault case hung for %d s\n", seconds);
            std::_Exit(1);
          }
        }) {}
  ~CHangGuard() {
    {
      std::lock_guard lock(mutex_);
      finished_ = true;
    }
    done_.notify_all();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

// Sets a receive time-out so that a peer thread never waits for ever.
void SetReceiveTimeout(int descriptor, int seconds) {
  const timeval timeout{seconds, 0};
  setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

// Closes `descriptor` with an RST instead of a FIN.
void Reset(int descriptor) {
  const linger abort{1, 0};
  setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  close(descriptor);
}

// Reads one whole TLS record (the ClientHello); false when it does not come.
bool ReadRecord(int descriptor) {
  std::vector<std::uint8_t> bytes;
  std::size_t wanted = 5;
  while (bytes.size() < wanted) {
    std::uint8_t chunk[4096];
    const ssize_t count = recv(descriptor, chunk, sizeof chunk, 0);
    if (count <= 0) return false;
    bytes.insert(bytes.end(), chunk, chunk + count);
    if (bytes.size() >= 5) wanted = 5 + (std::size_t{bytes[3]} << 8 | bytes[4]);
  }
  return bytes[0] == 0x16;  // handshake record
}

void SendAll(int descriptor, const std::string& bytes) {
  (void)send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// A plain TCP listener on 127.0.0.1 that runs `peer` on the one connection
// it accepts, in a thread of its own.
class CFaultyPeer {
 public:
  explicit CFaultyPeer(std::function<void(int descriptor)> peer) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener_, 1) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port_ = ntohs(address.sin_port);
    SetReceiveTimeout(listener_, 20);
    thread_ = std::thread([this, peer = std::move(peer)] {
      const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (descriptor < 0) return;
      SetReceiveTimeout(descriptor, 20);
      peer(descriptor);
    });
  }
  ~CFaultyPeer() {
    if (thread_.joinable()) thread_.join();
    close(listener_);
  }

  std::string Url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/"; }
  std::uint16_t Port() const noexcept { return port_; }

 private:
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

int OpenDescriptors() {
  int count = 0;
  if (DIR* directory = opendir("/proc/self/fd")) {
    while (readdir(directory) != nullptr) ++count;
    closedir(directory);
  }
  return count;
}

// How Open must report the broken handshake.
enum class EReport {
  kPeerGone,       // "SSL connect failed: " and the SSL_get_error kind in decimal
  kProtocolError,  // "SSL connect failed: " and OpenSSL's error text
};

struct CFaultCase {
  const char* name;
  std::function<void(int descriptor)> peer;
  EReport report;
};

// Names the case in test output instead of dumping its bytes.
void PrintTo(const CFaultCase& fault, std::ostream* out) {
  *out << fault.name;
}

class TlsHandshakeFaultTest : public testing::TestWithParam<CFaultCase> {};

TEST_P(TlsHandshakeFaultTest, OpenFailsWithSslConnectErrorAndTheHostLivesOn) {
  const CHangGuard guard(60);
  const int before = OpenDescriptors();
  std::string error = "<no exception>";
  {
    CFaultyPeer peer(GetParam().peer);
    ASSERT_NE(peer.Port(), 0) << "no listener for the faulty peer";
    CHttpsConnection connection;
    try {
      connection.Open(ParseUrl(peer.Url()));
    } catch (const CHttpException& exception) {
      error = exception.GetEvent().GetText().View();
    }
  }
  const std::string prefix = "SSL connect failed: ";
  ASSERT_TRUE(error.starts_with(prefix) && error.size() > prefix.size())
      << "Open did not fail with the handshake's exception: " << error;
  const std::string detail = error.substr(prefix.size());
  const bool isKind = detail.find_first_not_of("0123456789") == std::string::npos;
  if (GetParam().report == EReport::kPeerGone) {
    // The kind is SSL_ERROR_SYSCALL (5) for a reset; a plain close reads as
    // SSL_ERROR_ZERO_RETURN (6) since unexpected EOF is not an error here.
    EXPECT_TRUE(isKind && detail != "1")
        << "a vanished peer is reported by its error kind, not as a protocol error: " << error;
  } else {
    EXPECT_FALSE(isKind) << "a protocol error is reported with OpenSSL's text: " << error;
  }
  EXPECT_EQ(OpenDescriptors(), before) << "a descriptor of the failed connection was left open";
}

INSTANTIATE_TEST_SUITE_P(
    Peers, TlsHandshakeFaultTest,
    testing::Values(CFaultCase{"ResetBeforeClientHello", [](int descriptor) { Reset(descriptor); },
                               EReport::kPeerGone},
                    CFaultCase{"ResetAfterClientHello",
                               [](int descriptor) {
                                 ReadRecord(descriptor);
                                 Reset(descriptor);
                               },
                               EReport::kPeerGone},
                    CFaultCase{"ClosedAfterClientHello",
                               [](int descriptor) {
                                 ReadRecord(descriptor);
                                 close(descriptor);
                               },
                               EReport::kPeerGone},
                    CFaultCase{"ResetInsideServerHello",
                               [](int descriptor) {
                                 ReadRecord(descriptor);
                                 // A handshake record header promising 80 bytes, and 3 of them.
                                 SendAll(descriptor,
                                         std::string("\x16\x03\x03\x00\x50\x02\x00\x00", 8));
                                 Reset(descriptor);
                               },
                               EReport::kPeerGone},
                    CFaultCase{"GarbageInsteadOfServerHello",
                               [](int descriptor) {
                                 ReadRecord(descriptor);
                                 SendAll(descriptor, "HTTP/1.1 400 Bad Request\r\n\r\n" +
                                                         std::string(200, 'x'));
                                 close(descriptor);
                               },
                               EReport::kProtocolError},
                    CFaultCase{"AlertInsteadOfServerHello",
                               [](int descriptor) {
                                 ReadRecord(descriptor);
                                 // A fatal handshake_failure alert.
                                 SendAll(descriptor,
                                         std::string("\x15\x03\x03\x00\x02\x02\x28", 7));
                                 close(descriptor);
                               },
                               EReport::kProtocolError}),
    [](const testing::TestParamInfo<CFaultCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zelph
