#include "common/system/ServiceControl.h"

#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SystemTestSupport.h"
#include "TestServiceProtocol.h"
#include "common/base/CException.h"
#include "common/system/CUnixSocket.h"

namespace zelph {
namespace {

constexpr char kServiceProgram[] = ZELPH_TEST_SERVICE_PROGRAM;

// Exit status of a wait status, or -1 when the process did not exit normally.
int ExitCode(int status) {
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The test service of TestService.cpp on a socket and PID file of the test's
// own. Daemonised services become children of the test (subreaper), so that
// their end can be waited for and nothing outlives the test.
class ServiceControlTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.Path().empty()) << "cannot create a temp dir";
    setenv("ZELPH_TEST_SOCKET", socket_.c_str(), 1);
    setenv("ZELPH_TEST_PIDFILE", pidFile_.c_str(), 1);
    setenv("ZELPH_TEST_OWNER", std::to_string(getpid()).c_str(), 1);
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    ASSERT_EQ(pipe(output_), 0);
  }
  void TearDown() override {
    close(output_[0]);
    if (output_[1] >= 0) close(output_[1]);
  }

  // Runs the service program with `args`, its standard output and error
  // going to `output_`.
  pid_t Start(const std::vector<const char*>& args) {
    std::vector<char*> argv{const_cast<char*>("zelcachesrv")};
    for (const char* arg : args) argv.push_back(const_cast<char*>(arg));
    argv.push_back(nullptr);
    const pid_t pid = children_.Fork([&] {
      dup2(output_[1], 1);
      dup2(output_[1], 2);
      close(output_[0]);
      close(output_[1]);
      execv(kServiceProgram, argv.data());
      return 127;
    });
    close(output_[1]);
    output_[1] = -1;
    return pid;
  }

  // Sends `command` once the service listens; reads its status for 'i'.
  bool Send(std::uint8_t command, CServiceStatus* status = nullptr) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
      try {
        auto socket = CUnixSocket::Connect(socket_.c_str(), 10);
        socket->Write(&command, 1);
        if (status != nullptr)
          socket->Read(reinterpret_cast<std::uint8_t*>(status), sizeof *status);
        return true;
      } catch (const EIOSocketNoListener&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
    return false;
  }

  // True when every writer of `output_` has closed it, waiting at most
  // `seconds`.
  bool OutputClosed(int seconds) const {
    pollfd entry{output_[0], POLLIN, 0};
    char byte;
    while (poll(&entry, 1, seconds * 1000) == 1) {
      if (read(output_[0], &byte, 1) <= 0) return true;
    }
    return false;
  }

  std::string ReadOutput() const {
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = read(output_[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
    return text;
  }

  CTempDir dir_;
  std::string socket_ = dir_.File("sock");
  std::string pidFile_ = dir_.File("service.pid");
  int output_[2] = {-1, -1};
  CChildren children_;
};

TEST_F(ServiceControlTest, ForegroundServiceKeepsItsSessionAndStreams) {
  const pid_t pid = Start({"-f"});
  CServiceStatus status{};
  ASSERT_TRUE(Send('i', &status)) << "the service never listened";
  EXPECT_EQ(status.pid, pid) << "the foreground service forked";
  EXPECT_EQ(status.sessionId, getsid(0)) << "the foreground service left the session";
  EXPECT_FALSE(OutputClosed(0)) << "the foreground service closed its standard streams";
  EXPECT_FALSE(std::filesystem::exists(pidFile_)) << "a PID file in the foreground";
  EXPECT_EQ(ExitCode(children_.Terminate(pid)), 0) << "SIGTERM did not stop the service cleanly";
}

TEST_F(ServiceControlTest, DaemonisedServiceDetachesAndRemovesPidFileOnSigterm) {
  const pid_t launcher = Start({});
  CServiceStatus status{};
  ASSERT_TRUE(Send('i', &status)) << "the service never answered";
  children_.Add(status.pid);
  EXPECT_EQ(ExitCode(children_.Wait(launcher)), 0) << "the starting process must exit with 0";
  EXPECT_NE(status.pid, launcher);
  EXPECT_EQ(status.sessionId, status.pid) << "the daemon did not start a new session";
  EXPECT_TRUE(status.inRoot) << "the daemon did not change to /";
  EXPECT_TRUE(OutputClosed(10)) << "the daemon kept its standard streams open";
  EXPECT_EQ(ReadFile(pidFile_), std::to_string(status.pid) + "\n");
  EXPECT_EQ(ExitCode(children_.Terminate(status.pid)), 0);
  EXPECT_FALSE(std::filesystem::exists(pidFile_)) << "the PID file outlived the service";
}

TEST_F(ServiceControlTest, StalePidFileKeepsTheServiceFromStartingUntilRemoved) {
  WriteFile(pidFile_, "4242\n");
  const pid_t refused = Start({"-f"});
  EXPECT_EQ(ExitCode(children_.Wait(refused)), 2);
  EXPECT_EQ(ReadOutput(), "The service might be already running because the PID file \"" +
                              pidFile_ + "\" already exists.\n");
  EXPECT_EQ(ReadFile(pidFile_), "4242\n") << "the PID file of the other run was touched";
  EXPECT_FALSE(std::filesystem::exists(socket_)) << "the refused service was initialised";

  std::filesystem::remove(pidFile_);
  ASSERT_EQ(pipe(output_), 0);
  const pid_t pid = Start({"-f"});
  ASSERT_TRUE(Send('i')) << "the service did not start once the PID file was gone";
  EXPECT_EQ(ExitCode(children_.Terminate(pid)), 0);
}

TEST_F(ServiceControlTest, FailingServiceReturnsOneAndRemovesPidFile) {
  const pid_t launcher = Start({});
  CServiceStatus status{};
  ASSERT_TRUE(Send('i', &status));
  children_.Add(status.pid);
  EXPECT_EQ(ExitCode(children_.Wait(launcher)), 0);
  ASSERT_TRUE(std::filesystem::exists(pidFile_));
  ASSERT_TRUE(Send('x'));
  EXPECT_EQ(ExitCode(children_.Wait(status.pid)), 1);
  EXPECT_FALSE(std::filesystem::exists(pidFile_)) << "the PID file outlived the failed service";
}

TEST_F(ServiceControlTest, LaunchReturnsOnceTheServiceRunsAsDaemon) {
  try {
    LaunchService("Test Cache Service", kServiceProgram);
  } catch (const EService& error) {
    FAIL() << error.GetEvent().GetText().c_str();
  }
  CServiceStatus status{};
  ASSERT_TRUE(Send('i', &status));
  children_.Add(status.pid);
  EXPECT_EQ(status.sessionId, status.pid);
  EXPECT_EQ(ReadFile(pidFile_), std::to_string(status.pid) + "\n");
  EXPECT_EQ(ExitCode(children_.Terminate(status.pid)), 0);
}

std::string LaunchFailure(const char* program) {
  try {
    LaunchService("Cache", program);
  } catch (const EService& error) {
    EXPECT_EQ(error.GetEvent().GetIdentifier(), kEvtServiceStartFailed);
    return std::string(error.GetEvent().GetText().View());
  }
  return "<launched>";
}

std::string LaunchFailureText(const char* status) {
  return std::string(
             "The service \"Cache\" could not be started. Please check that it has been "
             "installed correctly.\nDetails of the failure reason are given below:\nThe service "
             "process has been signaled or has exited while starting up. More detailed "
             "information may have been reported in the logs.\nStatus is ") +
         status + ".\nReinstalling the software may correct the problem.";
}

TEST_F(ServiceControlTest, LaunchFailuresCarryTheStartingProcessStatus) {
  EXPECT_EQ(LaunchFailure(dir_.File("missing").c_str()), LaunchFailureText("00000100"))
      << "a program that cannot be executed";

  // A second instance cannot listen on the socket the first one serves:
  // its initialisation fails and it exits with 2.
  const pid_t first = Start({"-f"});
  ASSERT_TRUE(Send('i'));
  setenv("ZELPH_TEST_PIDFILE", dir_.File("second.pid").c_str(), 1);
  EXPECT_EQ(LaunchFailure(kServiceProgram), LaunchFailureText("00000200"));
  EXPECT_FALSE(std::filesystem::exists(dir_.File("second.pid")));
  EXPECT_TRUE(Send('i')) << "the failed instance disturbed the running one";
  EXPECT_EQ(ExitCode(children_.Terminate(first)), 0);
}

}  // namespace
}  // namespace zelph
