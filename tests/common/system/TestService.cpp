// A small service for the service control tests, run through RunService.
//
// Environment: ZELPH_TEST_SOCKET, the socket it serves; ZELPH_TEST_PIDFILE,
// its PID file; ZELPH_TEST_OWNER, the test process, whose end also ends the
// service so that a failed test leaves nothing running.
//
// Each client sends one byte: 'i' is answered with a CServiceStatus, 'x'
// makes the service fail.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "TestServiceProtocol.h"
#include "common/base/CException.h"
#include "common/system/CUnixSocket.h"
#include "common/system/ServiceControl.h"

namespace zelph {
namespace {

const char* Env(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// Ends the process once the test process has gone, or after a minute.
void Watch(pid_t owner) {
  for (int i = 0; i < 600; ++i) {
    if (owner <= 0 || kill(owner, 0) != 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  _exit(3);
}

class CTestService final : public CService {
 public:
  CUTF8String GetShortName() const override { return "zelcachesrv-test"; }
  CUTF8String GetDisplayName() const override { return "Test Cache Service"; }
  void Initialize() override { listener_ = CUnixSocket::Listen(Env("ZELPH_TEST_SOCKET")); }
  void Run() override {
    StartWatchdog();
    for (;;) {
      std::unique_ptr<CLocalSocket> client;
      try {
        client = listener_->Accept();
      } catch (const EIOCancelled&) {
        return;  // stopped
      }
      try {
        Serve(*client);
      } catch (const EIOError&) {
        // A client that went away (such as another instance's probe).
      }
    }
  }
  void Stop() override { listener_->Cancel(); }

 private:
  void Serve(CLocalSocket& client) {
    std::uint8_t command = 0;
    client.Read(&command, 1);
    if (command == 'x') throw CException(CUTF8String("failure requested by the test"));
    char cwd[8] = {};
    CServiceStatus status{getpid(), getsid(0), false};
    status.inRoot = getcwd(cwd, sizeof cwd) != nullptr && cwd[0] == '/' && cwd[1] == '\0';
    client.Write(reinterpret_cast<const std::uint8_t*>(&status), sizeof status);
  }

  // The watchdog thread takes no signals: SIGTERM goes to the service thread.
  void StartWatchdog() {
    sigset_t all;
    sigset_t saved;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved);
    std::thread(Watch, static_cast<pid_t>(std::atoi(Env("ZELPH_TEST_OWNER")))).detach();
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  }

  std::unique_ptr<CUnixSocket> listener_;
};

}  // namespace
}  // namespace zelph

int main(int argc, char** argv) {
  zelph::CTestService service;
  return zelph::RunService(service, argc, argv, zelph::Env("ZELPH_TEST_PIDFILE"));
}
