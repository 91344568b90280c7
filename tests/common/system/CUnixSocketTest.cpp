#include "common/system/CUnixSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SystemTestSupport.h"
#include "common/base/CException.h"

namespace zelph {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes ToBytes(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

std::string TextOf(const CException& error) {
  return std::string(error.GetEvent().GetText().View());
}

class CUnixSocketTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.Path().empty()) << "cannot create a temp dir"; }

  // A listener on `path_` and a client connected to it, with the server
  // side of the connection accepted.
  void ConnectPair(std::int32_t timeout = 0) {
    listener_ = CUnixSocket::Listen(path_.c_str());
    client_ = CUnixSocket::Connect(path_.c_str(), timeout);
    server_ = listener_->Accept();
  }

  CTempDir dir_;
  std::string path_ = dir_.File("sock");
  std::unique_ptr<CUnixSocket> listener_;
  std::unique_ptr<CUnixSocket> client_;
  std::unique_ptr<CLocalSocket> server_;
};

TEST_F(CUnixSocketTest, LargeMessageCrossesBetweenThreadsIntact) {
  ConnectPair(5);
  Bytes sent(3 << 20);  // far more than the socket buffer: many partial reads
  for (std::size_t i = 0; i < sent.size(); ++i)
    sent[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  auto writer = std::async(std::launch::async, [&] { server_->Write(sent.data(), sent.size()); });
  Bytes received(sent.size());
  client_->Read(received.data(), received.size());
  writer.get();
  EXPECT_TRUE(received == sent) << "bytes were lost or reordered on the way";
}

TEST_F(CUnixSocketTest, ForkedClientAndServerExchangeMessages) {
  listener_ = CUnixSocket::Listen(path_.c_str());
  CChildren children;
  const pid_t child = children.Fork([this] {
    auto socket = CUnixSocket::Connect(path_.c_str(), 10);
    const Bytes request = ToBytes("ping");
    socket->Write(request.data(), request.size());
    Bytes reply(4);
    socket->Read(reply.data(), reply.size());
    return reply == ToBytes("pong") ? 0 : 1;
  });
  ASSERT_GT(child, 0);
  auto server = listener_->Accept();
  Bytes request(4);
  server->Read(request.data(), request.size());
  EXPECT_EQ(request, ToBytes("ping"));
  const Bytes reply = ToBytes("pong");
  server->Write(reply.data(), reply.size());
  EXPECT_EQ(children.Wait(child), 0) << "the child did not get the reply";
}

TEST_F(CUnixSocketTest, ZeroLengthTouchesNothingAndCancelIsStickyUntilReset) {
  ConnectPair();
  const Bytes data = ToBytes("x");
  server_->Write(data.data(), 1);
  std::uint8_t byte = 0;
  client_->Read(&byte, 0);
  client_->Write(nullptr, 0);

  client_->Cancel();
  EXPECT_THROW(client_->Read(&byte, 0), EIOCancelled);
  EXPECT_THROW(client_->Write(nullptr, 0), EIOCancelled);
  try {
    client_->Read(&byte, 1);
    ADD_FAILURE() << "a cancelled stream read";
  } catch (const EIOCancelled& error) {
    EXPECT_EQ(TextOf(error), "The input/output operation has been cancelled.");
  }
  listener_->Cancel();
  EXPECT_THROW(listener_->Accept(), EIOCancelled) << "Accept ignored the cancelled state";

  client_->ResetCancel();
  client_->Read(&byte, 1);
  EXPECT_EQ(byte, 'x') << "a zero-length read consumed data, or reset did not revive the stream";
}

TEST_F(CUnixSocketTest, PeerClosingMidMessageThrowsSocketClosed) {
  ConnectPair(10);
  const Bytes half = ToBytes("abc");
  server_->Write(half.data(), half.size());
  server_.reset();
  Bytes message(10);
  try {
    client_->Read(message.data(), message.size());
    ADD_FAILURE() << "Read returned although the peer closed after 3 of 10 bytes";
  } catch (const EIOSocketClosed& error) {
    EXPECT_EQ(error.GetEvent().GetIdentifier(), kEvtFreeText);
    EXPECT_EQ(error.GetEvent().GetCategory(), kCategoryIO);
    EXPECT_EQ(TextOf(error), std::string(CEventMessage::GetErrorText(ESHUTDOWN).View()));
  }
  EXPECT_EQ(std::string(message.begin(), message.begin() + 3), "abc");
}

TEST_F(CUnixSocketTest, SilentPeerMakesReadTimeOut) {
  ConnectPair(1);
  std::uint8_t byte = 0;
  try {
    client_->Read(&byte, 1);
    ADD_FAILURE() << "Read returned without data";
  } catch (const EIOTimedOut& error) {
    EXPECT_EQ(TextOf(error), "The input/output operation has timed out.");
  }
}

// The kernel's state of thread `tid` of this process ('S': sleeping in a call).
char ThreadState(pid_t tid) {
  const std::string stat = ReadFile("/proc/self/task/" + std::to_string(tid) + "/stat");
  const std::size_t end = stat.rfind(')');
  return end == std::string::npos || end + 2 >= stat.size() ? '?' : stat[end + 2];
}

// Runs `call` in a thread until it blocks, then cancels `target` from here.
// Cancel is repeated: a signal that lands just before the thread enters the
// system call only reaches it on the next attempt. When Cancel fails,
// `unblock` releases the thread so that the test can end.
void ExpectCancelInterrupts(CStream& target, const std::function<void()>& call,
                            const std::function<void()>& unblock) {
  std::atomic<pid_t> tid{0};
  auto blocked = std::async(std::launch::async, [&] {
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    call();
  });
  for (int i = 0; i < 1000 && (tid == 0 || ThreadState(tid) != 'S'); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (int i = 0; i < 200; ++i) {
    target.Cancel();
    if (blocked.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready) break;
  }
  if (blocked.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    ADD_FAILURE() << "the blocked call ignored Cancel";
    unblock();
  }
  EXPECT_THROW(blocked.get(), EIOCancelled);
  target.ResetCancel();
}

TEST_F(CUnixSocketTest, CancelFromAnotherThreadInterruptsBlockedCalls) {
  ConnectPair(0);  // time-out 0: Read would wait for ever
  std::uint8_t byte = 0;
  ExpectCancelInterrupts(
      *client_, [&] { client_->Read(&byte, 1); }, [&] { server_->Write(&byte, 1); });
  Bytes flood(16 << 20);  // the peer never reads: Write blocks
  ExpectCancelInterrupts(
      *server_, [&] { server_->Write(flood.data(), flood.size()); }, [&] { client_.reset(); });
  std::unique_ptr<CUnixSocket> rescuer;
  ExpectCancelInterrupts(
      *listener_, [&] { listener_->Accept(); },
      [&] { rescuer = CUnixSocket::Connect(path_.c_str(), 0); });

  auto other = CUnixSocket::Connect(path_.c_str(), 0);
  EXPECT_NE(listener_->Accept(), nullptr) << "the listener did not recover after ResetCancel";
}

TEST_F(CUnixSocketTest, ConnectFailuresNameTheCause) {
  {
    const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, dir_.File("stale").c_str());
    ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(stale);  // leaves the socket file without a listener
  }
  WriteFile(dir_.File("plain"), "not a socket");
  struct Case {
    const char* name;
    bool noListener;
    int error;
  };
  for (const Case& c : {Case{"missing", true, ENOENT}, Case{"stale", true, ECONNREFUSED},
                        Case{"plain", true, ECONNREFUSED}, Case{"plain/sock", false, ENOTDIR}}) {
    try {
      CUnixSocket::Connect(dir_.File(c.name).c_str(), 1);
      ADD_FAILURE() << c.name << ": connected";
    } catch (const EIOError& error) {
      EXPECT_EQ(dynamic_cast<const EIOSocketNoListener*>(&error) != nullptr, c.noListener)
          << c.name << ": wrong exception class";
      EXPECT_EQ(TextOf(error), "The call to <connect> failed for the following reason: " +
                                   std::string(CEventMessage::GetErrorText(c.error).View()))
          << c.name;
    }
  }
}

TEST_F(CUnixSocketTest, ListenReplacesStaleFileButNotAnotherProcesssSocket) {
  WriteFile(path_, "left over");
  listener_ = CUnixSocket::Listen(path_.c_str());
  auto client = CUnixSocket::Connect(path_.c_str(), 1);
  listener_.reset();
  client.reset();

  // Another process serves the path: its probe connection, then ours.
  CChildren children;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const std::string served = dir_.File("served");
  const pid_t server = children.Fork([&] {
    auto socket = CUnixSocket::Listen(served.c_str());
    const char go = 'g';
    if (write(ready[1], &go, 1) != 1) return 1;
    auto probe = socket->Accept();
    auto client = socket->Accept();
    const std::uint8_t reply = 'k';
    client->Write(&reply, 1);
    pause();  // serves until the test kills it
    return 0;
  });
  ASSERT_GT(server, 0);
  char go = 0;
  ASSERT_EQ(read(ready[0], &go, 1), 1) << "the serving child did not start";
  try {
    CUnixSocket::Listen(served.c_str());
    ADD_FAILURE() << "listened on a path another process serves";
  } catch (const EIOSocketBusy& error) {
    EXPECT_EQ(TextOf(error),
              "Another process is already listening on this socket. Please check that the "
              "service is not already running.");
  }
  auto stillServed = CUnixSocket::Connect(served.c_str(), 10);
  std::uint8_t reply = 0;
  stillServed->Read(&reply, 1);
  EXPECT_EQ(reply, 'k') << "the other process lost its socket file";
  close(ready[0]);
  close(ready[1]);
}

TEST_F(CUnixSocketTest, PathLongerThan107BytesIsCut) {
  const std::string cut = dir_.Path() + "/" + std::string(106 - dir_.Path().size(), 's');
  ASSERT_EQ(cut.size(), CUnixSocket::kMaxPathLength);
  const std::string longPath = cut + "-and-a-tail-that-does-not-fit";
  listener_ = CUnixSocket::Listen(longPath.c_str());
  struct stat info {};
  ASSERT_EQ(stat(cut.c_str(), &info), 0) << "no socket file at the first 107 bytes";
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  for (const std::string& path : {cut, longPath}) {
    auto client = CUnixSocket::Connect(path.c_str(), 1);
    EXPECT_NE(listener_->Accept(), nullptr) << path;
  }
}

TEST_F(CUnixSocketTest, BrokenPipeIsAnErrorNotADeadProcess) {
  ConnectPair();
  server_.reset();
  CChildren children;
  // In a child, so that a process killed by SIGPIPE shows up as such.
  const pid_t child = children.Fork([this] {
    const Bytes data(1024, 1);
    try {
      for (int i = 0; i < 100; ++i) client_->Write(data.data(), data.size());
    } catch (const EIOSocketClosed&) {
      return 2;
    } catch (const EIOError& error) {
      return TextOf(error) == "The call to <write> failed for the following reason: " +
                                  std::string(CEventMessage::GetErrorText(EPIPE).View())
                 ? 0
                 : 3;
    }
    return 1;
  });
  ASSERT_GT(child, 0);
  const int status = children.Wait(child);
  ASSERT_FALSE(WIFSIGNALED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: writes succeeded, 2/3: wrong exception or text";
}

}  // namespace
}  // namespace zelph
