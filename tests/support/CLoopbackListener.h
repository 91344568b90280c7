// A TCP listener on 127.0.0.1 at a port the system picks, serving each
// accepted connection with a handler in a thread of its own, one connection
// at a time: the peer for client tests (a real server, a silent one, one that
// resets or garbles).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace zelph {

class CLoopbackListener {
 public:
  // Gets the accepted descriptor, which it owns. Accepted sockets time out
  // after 20 seconds both ways, so a handler cannot hang the test; what a
  // handler throws ends only that connection.
  using CHandler = std::function<void(int descriptor)>;

  explicit CLoopbackListener(CHandler handler);
  CLoopbackListener(const CLoopbackListener&) = delete;
  CLoopbackListener& operator=(const CLoopbackListener&) = delete;
  ~CLoopbackListener();

  std::uint16_t Port() const noexcept { return port_; }
  // "<scheme>://127.0.0.1:<port>" followed by `path`.
  std::string Url(std::string_view path = "", std::string_view scheme = "http") const;
  // Waits (at most 20 seconds) until `count` connections were served.
  bool WaitServed(int count) const;

 private:
  CHandler handler_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable servedChanged_;
  int served_ = 0;
  std::thread thread_;
};

}  // namespace zelph
