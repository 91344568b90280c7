// The service the service control tests start: it listens on $ZELPH_TEST_SOCKET
// (any client makes Run fail), keeps its PID file at $ZELPH_TEST_PIDFILE, writes
// "<pid> <session> <1 when in /> <1 when stderr is closed>" to the socket path
// plus ".status" once running, the descriptors it was started with to the path
// plus ".fds", and ends with the process that started it (the test).
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "common/base/CException.h"
#include "common/system/CUnixSocket.h"
#include "common/system/ServiceControl.h"

namespace zelph {

class CTestService final : public CService {
 public:
  CUTF8String GetShortName() const override { return "zelcachesrv-test"; }
  CUTF8String GetDisplayName() const override { return "Test Cache Service"; }
  void Initialize() override { listener_ = CUnixSocket::Listen(socket_.c_str()); }
  void Stop() override { listener_->Cancel(); }
  void Run() override {
    std::thread([this] {
      while (kill(owner_, 0) == 0) sleep(1);
      _exit(3);
    }).detach();
    char cwd[2];
    const bool closed = fcntl(2, F_GETFD) < 0;  // before the status file takes a descriptor
    std::ofstream(socket_ + ".status") << getpid() << ' ' << getsid(0) << ' '
                                       << (getcwd(cwd, 2) != nullptr) << ' ' << closed << '\n';
    try {
      listener_->Accept();
    } catch (const EIOCancelled&) {
      return;  // stopped
    }
    throw CException(CUTF8String("a client asked the service to fail"));
  }

 private:
  const pid_t owner_ = getppid();  // the test, which forked this process
  const std::string socket_ = std::getenv("ZELPH_TEST_SOCKET");
  std::unique_ptr<CUnixSocket> listener_;
};

}  // namespace zelph

int main(int argc, char** argv) {
  // The descriptors it was started with, before it opens any, to the socket path plus ".fds".
  std::string inherited;
  for (int descriptor = 0; descriptor < 1024; ++descriptor)
    if (fcntl(descriptor, F_GETFD) >= 0) inherited += std::to_string(descriptor) + ' ';
  std::ofstream(std::getenv("ZELPH_TEST_SOCKET") + std::string(".fds")) << inherited;
  zelph::CTestService service;
  return zelph::RunService(service, argc, argv, std::getenv("ZELPH_TEST_PIDFILE"));
}
