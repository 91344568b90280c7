#include "CLoopbackListener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

namespace zelph {
CLoopbackListener::CLoopbackListener(CHandler handler) : handler_(std::move(handler)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_, 16) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
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
      std::string error;
      try {
        handler_(descriptor);
      } catch (const std::exception& exception) {
        error = exception.what();
      } catch (...) {
        error = "an exception of another type";
      }
      std::lock_guard lock(mutex_);
      if (!error.empty()) errors_.push_back(error);
      ++served_;
      servedChanged_.notify_all();
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

std::vector<std::string> CLoopbackListener::Errors() const {
  std::lock_guard lock(mutex_);
  return errors_;
}

bool CLoopbackListener::WaitServed(int count) const {
  std::unique_lock lock(mutex_);
  return servedChanged_.wait_for(lock, std::chrono::seconds(20), [this, count] { return served_ >= count; });
}

}  // namespace zelph
