#include "common/system/ServiceControl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

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

// Forks the launcher child, which replaces itself with the service
// executable, and waits for it. Throws CException on failure.
void StartAndWait(const CUTF8String& executablePath) {
  const pid_t child = fork();
  if (child < 0) throw CException(CEventMessage::MakeSystemCallFailure("fork", errno));
  if (child == 0) {
    for (int descriptor = 0; descriptor < kLauncherClosedDescriptors; ++descriptor) {
      close(descriptor);
    }
    execl(executablePath.c_str(), kServiceExecutableName, static_cast<char*>(nullptr));
    const int error = errno;
    Report(
        CEventMessage::MakeSystemCallFailure(CUTF8String("execl(") + executablePath + ")", error));
    // _exit: the parent's stdio buffers and exit handlers are not ours to run.
    _exit(1);
  }

  int status = 0;
  pid_t waited = 0;
  do {
    waited = waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  if (waited < 0) throw CException(CEventMessage::MakeSystemCallFailure("waitpid", errno));
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
  if (std::FILE* file = std::fopen(pidFilePath.c_str(), "w")) {
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

const CUTF8String& GetPidFilePath() {
  static const CUTF8String path = [] {
    const CService* service = g_runningService.load();
    CUTF8String name = service != nullptr ? service->GetShortName() : CUTF8String();
    return CUTF8String(kPidFileDirectory) + name + ".pid";
  }();
  return path;
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
