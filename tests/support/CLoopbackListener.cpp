#include "CLoopbackListener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace zelph {

CLoopbackListener::CLoopbackListener(CHandler handler) : handler_(std::move(handler)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  auto* any = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  if (bind(listener_, any, size) != 0 || listen(listener_, 16) != 0 ||
      getsockname(listener_, any, &size) != 0) {
    ADD_FAILURE() << "cannot listen on a loopback port: " << strerror(errno);
    return;
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] {
    for (;;) {
      const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (descriptor < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
      if (descriptor < 0) return;  // the listener was shut down
      const timeval limit{20, 0};
      setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
      try {
        handler_(descriptor);
      } catch (...) {
      }
      const std::lock_guard lock(mutex_);
      ++served_, servedChanged_.notify_all();
    }
  });
}

CLoopbackListener::~CLoopbackListener() {
  shutdown(listener_, SHUT_RDWR);
  if (thread_.joinable()) thread_.join();
  close(listener_);
}

std::string CLoopbackListener::Url(std::string_view path, std::string_view scheme) const {
  return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

bool CLoopbackListener::WaitServed(int count) const {
  std::unique_lock lock(mutex_);
  return servedChanged_.wait_for(lock, std::chrono::seconds(20),
                                 [this, count] { return served_ >= count; });
}

}  // namespace zelph
