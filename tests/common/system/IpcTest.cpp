// Unix sockets, the process mutex, client identification and service control,
// with real threads and processes, in a directory of the test's own.
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>

#include <gtest/gtest.h>

#include "CChildProcess.h"
#include "CLoopbackListener.h"
#include "TestFiles.h"
#include "common/base/CException.h"
#include "common/config/CConfigSection.h"
#include "common/system/CUnixSocket.h"
#include "common/system/ClientIdentification.h"
#include "common/system/ProcessMutex.h"
#include "common/system/ServiceControl.h"

namespace zelph {
namespace {

using namespace std::chrono_literals;

class CUnixSocketTest : public testing::Test {
 protected:
  // A listener, a client whose reads wait `timeout` s (0: for ever), and its server side.
  void Connect(std::int32_t timeout) {
    listener_ = CUnixSocket::Listen(dir_.File("sock").c_str());
    client_ = CUnixSocket::Connect(dir_.File("sock").c_str(), timeout);
    server_ = listener_->Accept();
  }

  CTestDir dir_{"ipc"};
  std::unique_ptr<CUnixSocket> listener_, client_;
  std::unique_ptr<CLocalSocket> server_;
};

TEST_F(CUnixSocketTest, LargeMessageArrivesWholeThroughManyPartialReads) {
  Connect(5);
  std::vector<std::uint8_t> sent(3 << 20), received(sent.size());  // far more than a socket holds
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = i * 7 + i / 251;
  auto writer = std::async(std::launch::async, [&] { server_->Write(sent.data(), sent.size()); });
  client_->Read(received.data(), received.size());
  writer.get();
  EXPECT_TRUE(received == sent) << "bytes were lost, reordered or written over";
}

TEST_F(CUnixSocketTest, ReadOfASilentPeerTimesOutAndOfAGoneOneGivesSocketClosed) {
  Connect(1);
  std::uint8_t message[10] = {};
  EXPECT_THROW(client_->Read(message, 1), EIOTimedOut) << "a silent peer";
  server_->Write(reinterpret_cast<const std::uint8_t*>("abc"), 3);
  server_.reset();  // as when the peer process is killed
  EXPECT_THROW(client_->Read(message, sizeof message), EIOSocketClosed) << "a gone peer";
  EXPECT_EQ(std::string(message, message + 3), "abc") << "what arrived was lost";
}

// A blocked Accept is cancelled whenever the service stops (ServiceControlTest).
TEST_F(CUnixSocketTest, CancelEndsABlockedReadAndLaterCallsUntilReset) {
  Connect(0);
  std::uint8_t byte = 'x';
  for (int round = 0; round < 5; ++round) {
    std::promise<long> tid;
    auto reader = std::async(std::launch::async, [&] {
      tid.set_value(syscall(SYS_gettid));
      client_->Read(&byte, 1);
    });
    const std::string stat = "/proc/self/task/" + std::to_string(tid.get_future().get()) + "/stat";
    for (int i = 0; i < 1000 && ReadFile(stat).find(") S ") == std::string::npos; ++i) usleep(2000);
    // Again and again: a signal that lands just before the thread blocks is lost.
    for (int i = 0; i < 100 && reader.wait_for(i * 50ms) == std::future_status::timeout; ++i)
      client_->Cancel();
    if (reader.wait_for(0s) == std::future_status::timeout) {
      ADD_FAILURE() << "the blocked read ignored Cancel";
      server_->Write(&byte, 1);
    }
    EXPECT_THROW(reader.get(), EIOCancelled);
    client_->ResetCancel();
  }
  client_->Cancel();
  EXPECT_THROW(client_->Write(&byte, 1), EIOCancelled) << "Cancel was forgotten between calls";
  client_->ResetCancel();
  server_->Write(&byte, 1);
  EXPECT_NO_THROW(client_->Read(&byte, 1)) << "ResetCancel did not revive the stream";
}

TEST_F(CUnixSocketTest, ConnectTellsWhenNobodyListensAndListenTakesOverOnlyStaleFiles) {
  CUnixSocket::Listen(dir_.File("stale").c_str()).reset();  // leaves its socket file behind
  WriteFile(dir_.File("plain"), "not a socket");
  const auto expect = [&](int line, const char* name, bool noListener, int error) {
    try {
      CUnixSocket::Connect(dir_.File(name).c_str(), 1);
      ADD_FAILURE() << "line " << line << ": connected";
    } catch (const EIOError& e) {
      EXPECT_EQ(dynamic_cast<const EIOSocketNoListener*>(&e) != nullptr, noListener) << line;
      EXPECT_NE(e.GetEvent().GetText().View().find(CEventMessage::GetErrorText(error).View()),
                std::string_view::npos)
          << line << ": " << e.GetEvent().GetText().c_str();
    }
  };
  expect(__LINE__, "missing", true, ENOENT);
  expect(__LINE__, "stale", true, ECONNREFUSED);
  expect(__LINE__, "plain", true, ECONNREFUSED);
  expect(__LINE__, "plain/sock", false, ENOTDIR);
  for (const char* name : {"stale", "plain"}) {
    auto listener = CUnixSocket::Listen(dir_.File(name).c_str());
    EXPECT_THROW(CUnixSocket::Listen(dir_.File(name).c_str()), EIOSocketBusy) << name;
    EXPECT_NO_THROW(CUnixSocket::Connect(dir_.File(name).c_str(), 1)) << name << " was taken over";
  }
}

TEST(ProcessMutex, StartsFreeIsReopenedUnchangedAndComesBackFromADeadHolder) {
  CTestDir dir("ipc");  // its path keys the semaphore
  const int id = CreateProcessMutex('m', dir.Path().c_str());
  ASSERT_GE(id, 0);
  const auto value = [](int set) { return semctl(set, 0, GETVAL); };
  EXPECT_EQ(value(id), 1) << "a new mutex must start free";
  EXPECT_EQ(CreateProcessMutex('m', dir.Path().c_str()), id) << "a second semaphore for one key";
  EXPECT_EQ(value(id), 1) << "opening the mutex changed its value";
  AcquireProcessMutex(id);
  EXPECT_EQ(value(id), 0);
  ReleaseProcessMutex(id);
  CChildOptions holder;
  holder.body = [id] { return AcquireProcessMutex(id), 0; };  // ends holding it
  EXPECT_TRUE(CChildProcess(holder).Finish());
  EXPECT_EQ(value(id), 1) << "the system did not undo the dead holder's hold";
  semctl(id, 0, IPC_RMID);
  EXPECT_LT(CreateProcessMutex('m', dir.File("missing").c_str()), 0);
  AcquireProcessMutex(-1);  // must neither block nor fail
}

TEST(ClientIdentification, FindsTheSessionOfTheLocalPeerThroughNetstat) {
  // Read in pieces of 127 bytes: the two-byte character must come out whole.
  EXPECT_EQ(ReadCommand("printf '%126s\\303\\251\\n' x; echo err >&2").View(),
            std::string(125, ' ') + "x\xC3\xA9\n");
  if (ReadCommand("command -v netstat").IsEmpty()) GTEST_SKIP() << "netstat is not installed";
  std::promise<int> accepted;
  CLoopbackListener listener([&](int descriptor) { accepted.set_value(descriptor); });
  // A shell in a session of its own connects and stays until its stdin closes.
  // netstat shows the connection from both ends: only the shell's line counts.
  CChildOptions options;
  options.command = {
      "/usr/bin/setsid", "bash", "-c",
      "echo $$; exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(listener.Port()) + "; read"};
  CChildProcess peer(options);
  const std::string pid = peer.WaitForLine("");
  auto server = accepted.get_future();
  ASSERT_EQ(server.wait_for(20s), std::future_status::ready) << peer.Describe();
  EXPECT_EQ(std::to_string(GetSessionIdFromSocket(server.get())), pid) << "not the peer's session";
  EXPECT_EQ(GetSessionIdFromSocket(-1), 0) << "no socket";
}

// Each step opens more of ours and keeps it; a program started after it must
// see only what it saw before the first (its standard streams and whatever
// the test runner passed on).
TEST(Descriptors, NoneOfOursReachesAProgramTheProcessStarts) {
  CTestDir dir("ipc");
  const std::string sock = dir.File("sock"), config = dir.File("conf"), gate = dir.File("gate");
  mkfifo(config.c_str(), 0600), mkfifo(gate.c_str(), 0600);
  // Lists the shell's descriptors beyond 0 to 2; no pipeline, whose pipes the shell holds a while.
  CChildOptions lister;
  lister.command = {"/bin/sh", "-c",
                    "find /proc/$$/fd -mindepth 1 ! -name 0 ! -name 1 ! -name 2 "
                    "-printf '%f %l\\n'; true"};
  const auto inherited = [&lister] {
    CChildProcess child(lister);
    return child.Finish(20), child.Output();
  };
  std::string before = inherited();
  std::unique_ptr<CUnixSocket> listener, client;
  std::unique_ptr<CLocalSocket> server;
  std::future<void> loading, reading;
  using CFile = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
  std::vector<CFile> writers;  // first to go: they let the loading and reading threads end
  // Opening a FIFO for writing returns once the other side has it open for reading.
  const auto blockOn = [&](const std::string& fifo, std::future<void>& task, auto body) {
    task = std::async(std::launch::async, body);
    writers.emplace_back(std::fopen(fifo.c_str(), "we"), std::fclose);
  };
  const struct {
    const char* what;
    std::function<void()> open;
  } steps[] = {
      {"a listening socket and its probe", [&] { listener = CUnixSocket::Listen(sock.c_str()); }},
      {"a connected and an accepted socket",
       [&] { client = CUnixSocket::Connect(sock.c_str(), 0), server = listener->Accept(); }},
      {"a configuration file being read",
       [&] { blockOn(config, loading, [&] { CConfigSection::Load(config.c_str()); }); }},
      {"the pipe of a command being read",
       [&] { blockOn(gate, reading, [&] { ReadCommand(("read x < " + gate).c_str()); }); }},
  };
  for (const auto& step : steps) {
    step.open();
    const std::string now = inherited();
    EXPECT_EQ(now, before) << "a started program inherited " << step.what;
    before = now;  // each leak is told once
  }
}

// The test service (TestService.cpp) on a socket and PID file of the test's own.
class ServiceControlTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("ZELPH_TEST_SOCKET", socket_.c_str(), 1);
    setenv("ZELPH_TEST_PIDFILE", pidFile_.c_str(), 1);
  }
  // "<pid> <session> <1 when in /> <1 when standard error is closed>\n", as
  // the service writes it once it runs.
  std::string WaitForStatus() const {
    for (int i = 0; i < 1000 && !ReadFile(status_).ends_with('\n'); ++i) usleep(10000);
    return ReadFile(status_);
  }

  CTestDir dir_{"ipc"};
  std::string socket_ = dir_.File("sock"), status_ = socket_ + ".status",
              pidFile_ = dir_.File("pid");
  const std::string program_ = ZELPH_TEST_SERVICE_PROGRAM;
};

TEST_F(ServiceControlTest, ForegroundServiceStaysInTheCallerAndRefusesToStartOverAPidFile) {
  CChildOptions foreground;
  foreground.command = {program_, "-f"};
  foreground.workDir = dir_.Path();
  WriteFile(pidFile_, "4242\n");
  CChildProcess refused(foreground);
  refused.Finish(10);
  EXPECT_EQ(refused.Status(), 2 << 8) << "exit code: " << refused.Describe();
  EXPECT_EQ(refused.Errors(), "The service might be already running because the PID file \"" +
                                  pidFile_ + "\" already exists.\n");
  EXPECT_FALSE(std::filesystem::exists(socket_)) << "the refused service was initialised";
  std::filesystem::remove(pidFile_);
  for (const int exitCode : {0, 1}) {  // stopped by SIGTERM, or failed
    std::filesystem::remove(status_);
    CChildProcess service(foreground);
    EXPECT_EQ(WaitForStatus(),
              std::to_string(service.Pid()) + " " + std::to_string(getsid(0)) + " 0 0\n")
        << "it forked, left the session, changed directory or closed standard error";
    EXPECT_FALSE(std::filesystem::exists(pidFile_)) << "a PID file in the foreground";
    exitCode == 0 ? kill(service.Pid(), SIGTERM) : (CUnixSocket::Connect(socket_.c_str(), 1), 0);
    service.Finish(10);
    EXPECT_EQ(service.Status(), exitCode << 8) << "exit code: " << service.Describe();
  }
}

TEST_F(ServiceControlTest, LaunchedServiceRunsAsDaemonAndRemovesItsPidFileWhenItEnds) {
  for (const bool stop : {true, false}) {  // stopped by SIGTERM, or failed
    std::filesystem::remove(status_);
    ASSERT_NO_THROW(LaunchService("Test Cache Service", program_.c_str()));
    const int pid = std::atoi(WaitForStatus().c_str());
    ASSERT_GT(pid, 0) << "the daemon did not run";
    EXPECT_EQ(WaitForStatus(), std::to_string(pid) + " " + std::to_string(pid) + " 1 1\n")
        << "not in a session of its own, in /, without standard streams";
    EXPECT_EQ(ReadFile(pidFile_), std::to_string(pid) + "\n");
    EXPECT_EQ(ReadFile(socket_ + ".fds"), "") << "descriptors the service was started with";
    stop ? kill(pid, SIGTERM) : (CUnixSocket::Connect(socket_.c_str(), 1), 0);
    for (int i = 0; i < 1000 && std::filesystem::exists(pidFile_); ++i) usleep(10000);
    EXPECT_FALSE(std::filesystem::exists(pidFile_))
        << "the service did not end, or kept its PID file";
  }
}

TEST_F(ServiceControlTest, LaunchFailureNamesTheServiceAndTheStartingProcesssStatus) {
  WriteFile(dir_.File("plain"), "#!/bin/sh\n");  // not executable
  WriteFile(dir_.File("killed"), "#!/bin/sh\nkill -KILL $$\n");
  std::filesystem::permissions(dir_.File("killed"), std::filesystem::perms::owner_all);
  setenv("ZELPH_TEST_SOCKET", dir_.File("no/sock").c_str(), 1);  // Initialize fails
  const auto expect = [](int line, const std::string& program, const std::string& status) {
    try {
      LaunchService("Cache", program.c_str());
      ADD_FAILURE() << "line " << line << ": launched";
    } catch (const EService& error) {
      const std::string text(error.GetEvent().GetText().View());
      EXPECT_TRUE(text.starts_with("The service \"Cache\" could not be started.")) << text;
      EXPECT_NE(text.find("Status is " + status + "."), std::string::npos) << line << ": " << text;
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << line << ": the starting process is left over";
  };
  // Cannot be executed: the exec fails in the starting process, which exits with 1.
  expect(__LINE__, dir_.File("missing"), "00000100");
  expect(__LINE__, dir_.File("plain"), "00000100");
  expect(__LINE__, dir_.Path(), "00000100");
  expect(__LINE__, dir_.File("killed"), "00000009");
  expect(__LINE__, program_, "00000200");
}

TEST(ServiceControl, PidFilePathIsThatOfTheServiceRunningWhenAsked) {
  struct CNamed final : CService {
    CUTF8String GetShortName() const override { return "zelph-test-pid"; }
    CUTF8String GetDisplayName() const override { return "Named"; }
    void Initialize() override { std::printf("before Run: %s\n", GetPidFilePath().c_str()); }
    void Run() override { std::printf("in Run: %s\n", GetPidFilePath().c_str()); }
    void Stop() override {}
  };
  CChildOptions options;
  options.body = [] {
    std::printf("before RunService: %s\n", GetPidFilePath().c_str());
    CNamed service;
    char name[] = "named", foreground[] = "-f";
    char* argv[] = {name, foreground, nullptr};
    const int status = RunService(service, 2, argv);
    std::printf("after RunService: %s\n", GetPidFilePath().c_str());
    return status;
  };
  CChildProcess child(options);
  child.Finish(20);
  EXPECT_EQ(child.Output(),
            "before RunService: \nbefore Run: /var/run/zelph-test-pid.pid\n"
            "in Run: /var/run/zelph-test-pid.pid\nafter RunService: \n")
      << "the path asked before the service ran stuck, or is not the running service's";
}

}  // namespace
}  // namespace zelph
