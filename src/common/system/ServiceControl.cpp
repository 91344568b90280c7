#include "common/system/ServiceControl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "common/base/CEventMessage.h"
#include "common/base/CException.h"
#include "common/base/CSysLog.h"
#include "common/base/CTFmtArgs.h"

namespace zelph {
namespace {

// Descriptors the launcher child closes before starting the service.
constexpr int kLauncherClosedDescriptors = 256;

// The running service, for the SIGTERM handler. Atomic so that the handler
// reads it safely.
std::atomic<CService*> g_runningService{nullptr};

void OnTerminate(int /*signal*/) {
  if (CService* service = g_runningService.load()) service->Stop();
}

// Sets the SIGTERM handler without SA_RESTART, so that a read blocked in
// the thread that takes the signal is interrupted too.
void InstallTerminateHandler() noexcept {
  struct sigaction action {};
  action.sa_handler = OnTerminate;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(SIGTERM, &action, nullptr);
}

void Report(const CEventMessage& event) {
  CSysLog::GetInstance().Report(event);
}

// The event `identifier` of the service category with the display name and
// one more text.
CEventMessage MakeServiceEvent(std::uint32_t identifier, const CUTF8String& displayName,
                               const CUTF8String& details) {
  return CEventMessage(identifier, kCategoryService, CUTF8FmtArgs().Add(displayName).Add(details));
}

// The channel on which a launcher child reports a failed exec: its errno,
// through a pipe whose ends both close on exec, so that a successful exec
// closes the child's end and the service inherits nothing. Non-blocking:
// the parent reads only once the child is reaped, and must not wait on a
// copy of the child's end that a fork in another thread may hold.
class CExecErrorChannel {
 public:
  // Without a pipe the launch still works; only the errno is lost.
  CExecErrorChannel() noexcept {
    if (pipe2(ends_, O_CLOEXEC | O_NONBLOCK) != 0) ends_[0] = ends_[1] = -1;
  }
  CExecErrorChannel(const CExecErrorChannel&) = delete;
  CExecErrorChannel& operator=(const CExecErrorChannel&) = delete;
  ~CExecErrorChannel() {
    for (const int end : ends_) {
      if (end >= 0) close(end);
    }
  }

  int ChildEnd() const noexcept { return ends_[1]; }
  // In the child, after a failed exec. Async-signal-safe.
  void Send(int error) const noexcept {
    if (ends_[1] < 0) return;
    // A failed write leaves the exit status to tell the failure.
    [[maybe_unused]] const ssize_t written = write(ends_[1], &error, sizeof error);
  }
  // In the parent, right after the fork.
  void CloseChildEnd() noexcept {
    if (ends_[1] >= 0) close(std::exchange(ends_[1], -1));
  }
  // In the parent, once the child is reaped: the errno it sent, 0 when its
  // exec succeeded. Four bytes in a pipe arrive whole or not at all.
  int Receive() const noexcept {
    if (ends_[0] < 0) return 0;
    int error = 0;
    ssize_t got = 0;
    do {
      got = read(ends_[0], &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(sizeof error) ? error : 0;
  }

 private:
  int ends_[2] = {-1, -1};
};

// The launcher child between fork and exec. Another thread of the host may
// have held any lock (the allocator's, stdio's, the event log's) at the
// fork, so only async-signal-safe calls are made here: everything else was
// prepared by the parent, and a failed exec goes back through `channel`.
[[noreturn]] void BecomeService(const char* path, const CExecErrorChannel& channel,
                                const sigset_t& mask) noexcept {
  // The host's handlers are not to run in this copy of the process: caught
  // signals go back to their defaults before the caller's mask returns.
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current {};
    if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler != SIG_DFL &&
        current.sa_handler != SIG_IGN) {
      sigaction(signal, &fallback, nullptr);
    }
  }
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  for (int descriptor = 0; descriptor < kLauncherClosedDescriptors; ++descriptor) {
    if (descriptor != channel.ChildEnd()) close(descriptor);
  }
  execl(path, kServiceExecutableName, static_cast<char*>(nullptr));
  channel.Send(errno);
  // _exit: the parent's stdio buffers and exit handlers are not ours to run.
  _exit(1);
}

// Forks the launcher child, which replaces itself with the service
// executable, and waits for it. A failed exec is written to the event log
// here, in the parent. Throws CException on failure.
void StartAndWait(const CUTF8String& executablePath) {
  const char* const path = executablePath.c_str();
  CExecErrorChannel channel;
  // No signal handler may run in the child before it has reset them.
  sigset_t all;
  sigset_t saved;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &saved);
  const pid_t child = fork();
  const int forkError = errno;
  if (child == 0) BecomeService(path, channel, saved);
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  if (child < 0) throw CException(CEventMessage::MakeSystemCallFailure("fork", forkError));
  channel.CloseChildEnd();

  int status = 0;
  pid_t waited = 0;
  do {
    waited = waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  const int waitError = errno;
  if (const int execError = channel.Receive(); execError != 0) {
    Report(CEventMessage::MakeSystemCallFailure(CUTF8String("execl(") + executablePath + ")",
                                                execError));
  }
  if (waited < 0) throw CException(CEventMessage::MakeSystemCallFailure("waitpid", waitError));
  if (WTERMSIG(status) != 0 || WEXITSTATUS(status) != 0) {
    char text[16];
    std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(status));
    throw CException(
        CEventMessage(kEvtServiceStartupExited, kCategoryService, CUTF8FmtArgs().Add(text)));
  }
}

// Detaches the service from its caller: the parent exits with 0, the child
// writes the PID file and continues in a new session without standard
// streams. A failed fork ends the process with 2.
void Daemonise(const CService& service, const CUTF8String& pidFilePath) {
  // Buffered output would otherwise be written by both processes.
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) {
    const CEventMessage failure = CEventMessage::MakeSystemCallFailure("fork", errno);
    Report(MakeServiceEvent(kEvtServiceInitFailed, service.GetDisplayName(), failure.GetText()));
    std::exit(2);
  }
  if (child > 0) std::exit(0);

  // A PID file that cannot be written does not keep the service from running.
  if (std::FILE* file = std::fopen(pidFilePath.c_str(), "we")) {
    std::fprintf(file, "%d\n", static_cast<int>(getpid()));
    std::fclose(file);
  }
  if (chdir("/") != 0) {
    // Staying in the start directory is harmless.
  }
  umask(0);
  setsid();
  close(0);
  close(1);
  close(2);
}

// Opens /dev/null on whichever of descriptors 0, 1 and 2 is closed (a
// service started by LaunchService has none). Otherwise what Initialize opens
// would take those numbers and be closed again when the service daemonises.
void ReserveStandardDescriptors() noexcept {
  // Not close-on-exec: they are the standard streams of what the service starts.
  for (;;) {
    const int descriptor = open("/dev/null", O_RDWR);
    if (descriptor < 0) return;
    if (descriptor > 2) {
      close(descriptor);
      return;
    }
  }
}

// The text of the exception in flight, for the event log.
CUTF8String CurrentErrorText() {
  try {
    throw;
  } catch (const CException& error) {
    return error.GetEvent().GetText();
  } catch (const std::exception& error) {
    return CUTF8String(error.what());
  } catch (...) {
    return CUTF8String("Unknown error.");
  }
}

}  // namespace

CUTF8String GetServiceExecutablePath() {
  return CUTF8String(kServiceDirectory) + "/" + kServiceExecutableName;
}

CUTF8String GetPidFilePath() {
  const CService* service = g_runningService.load();
  if (service == nullptr) return CUTF8String();
  return CUTF8String(kPidFileDirectory) + service->GetShortName() + ".pid";
}

void LaunchService(const CUTF8String& displayName, const CUTF8String& executablePath) {
  try {
    StartAndWait(executablePath);
  } catch (const CException& error) {
    const EService failure(
        MakeServiceEvent(kEvtServiceStartFailed, displayName, error.GetEvent().GetText()));
    Report(failure.GetEvent());
    throw failure;
  }
}

int RunService(CService& service, int argc, char** argv) {
  g_runningService = &service;
  return RunService(service, argc, argv, GetPidFilePath());
}

int RunService(CService& service, int argc, char** argv, const CUTF8String& pidFilePath) {
  g_runningService = &service;
  const CUTF8String displayName = service.GetDisplayName();
  ReserveStandardDescriptors();

  if (access(pidFilePath.c_str(), F_OK) == 0) {
    const CUTF8String message =
        CUTF8String("The service might be already running because the PID file \"") + pidFilePath +
        "\" already exists.";
    std::fprintf(stderr, "%s\n", message.c_str());
    Report(CEventMessage(kEvtFreeText, kCategoryService, CUTF8FmtArgs().Add(message)));
    std::exit(2);
  }

  // SIGTERM waits until the service has been initialised.
  sigset_t terminate;
  sigset_t saved;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &terminate, &saved);
  InstallTerminateHandler();
  try {
    service.Initialize();
  } catch (...) {
    Report(MakeServiceEvent(kEvtServiceInitFailed, displayName, CurrentErrorText()));
    std::exit(2);
  }
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);

  const bool foreground = argc == 2 && std::strcmp(argv[1], "-f") == 0;
  if (!foreground) Daemonise(service, pidFilePath);

  Report(CEventMessage(kEvtServiceStarted, kCategoryService, CUTF8FmtArgs().Add(displayName)));
  try {
    service.Run();
  } catch (...) {
    g_runningService = nullptr;
    Report(MakeServiceEvent(kEvtServiceFailed, displayName, CurrentErrorText()));
    unlink(pidFilePath.c_str());
    return 1;
  }
  g_runningService = nullptr;
  Report(CEventMessage(kEvtServiceStopped, kCategoryService, CUTF8FmtArgs().Add(displayName)));
  unlink(pidFilePath.c_str());
  return 0;
}

}  // namespace zelph
