#include "common/base/CSysLog.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zelph {
namespace {

// Exit code of the child when it cannot set up a private /dev/log.
constexpr int kCannotIsolate = 77;

bool WriteAll(int fd, const void* data, std::size_t size) {
  const auto* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Runs in the child: gives it its own /dev on a tmpfs with a datagram socket
// at /dev/log, reports `events` through CSysLog and forwards each datagram
// received to `out`, length-prefixed.
[[noreturn]] void ReceiveInPrivateDev(int out, const std::vector<CEventMessage>& events) {
  if (unshare(CLONE_NEWNS) != 0) _exit(kCannotIsolate);
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(kCannotIsolate);
  if (mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) _exit(kCannotIsolate);
  const int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  if (sock < 0 || bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    _exit(kCannotIsolate);
  }
  // Only a guard against hanging when nothing arrives; no timing is checked.
  const timeval guard{30, 0};
  setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);

  for (const CEventMessage& event : events) CSysLog::GetInstance().Report(event);
  for (std::size_t i = 0; i < events.size(); ++i) {
    char datagram[4096];
    const ssize_t n = recv(sock, datagram, sizeof datagram, 0);
    if (n < 0) _exit(2);
    const auto size = static_cast<std::uint32_t>(n);
    if (!WriteAll(out, &size, sizeof size) || !WriteAll(out, datagram, size)) _exit(3);
  }
  _exit(0);
}

TEST(CSysLogReceiver, LinesArriveWithPriorityIdentityAndBracket) {
  const std::vector<CEventMessage> events = {
      CEventMessage(kEvtServiceStarted, kCategoryService, CUTF8FmtArgs().Add("cachesrv")),
      CEventMessage(kEvtServiceStatusFailed, kCategoryService, CUTF8FmtArgs().Add("a").Add("b")),
      CEventMessage::MakeSystemCallFailure("open", ENOENT, kCategorySystem),
      CEventMessage(kEvtFreeText, 42, CUTF8FmtArgs().Add("odd category")),
  };
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0) << "fork failed";
  if (child == 0) {
    close(pipeFds[0]);
    ReceiveInPrivateDev(pipeFds[1], events);
  }
  close(pipeFds[1]);
  std::string received;
  char chunk[4096];
  for (ssize_t n; (n = read(pipeFds[0], chunk, sizeof chunk)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    ASSERT_GT(n, 0) << "reading the child's pipe failed";
    received.append(chunk, static_cast<std::size_t>(n));
  }
  close(pipeFds[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the receiving child died";
  if (WEXITSTATUS(status) == kCannotIsolate) {
    GTEST_SKIP() << "cannot unshare the mount namespace or mount a tmpfs on /dev "
                    "(needs root / CAP_SYS_ADMIN); no private /dev/log receiver";
  }
  ASSERT_EQ(WEXITSTATUS(status), 0) << "the child did not receive every datagram";

  std::vector<std::string> lines;
  for (std::size_t at = 0; at + sizeof(std::uint32_t) <= received.size();) {
    std::uint32_t size = 0;
    std::memcpy(&size, received.data() + at, sizeof size);
    at += sizeof size;
    lines.push_back(received.substr(at, size));
    at += size;
  }
  ASSERT_EQ(lines.size(), events.size());

  const struct {
    const char* priority;
    const char* tail;
  } expected[] = {
      {"<14>", ": [Service management] The service \"cachesrv\" successfully started."},
      {"<12>", ": [Service management] Unable to update status of service \"a\".\nb"},
      {"<10>",
       ": [System error] The call to <open> failed for the following reason: "
       "No such file or directory. (2)"},
      {"<10>", ": [(null)] odd category"},
  };
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    EXPECT_TRUE(line.starts_with(expected[i].priority))
        << "event " << i << " has the wrong priority: " << line;
    EXPECT_NE(line.find(" zelph"), std::string::npos) << "identity missing: " << line;
    EXPECT_NE(line.find(expected[i].tail), std::string::npos)
        << "event " << i << " text wrong: " << line;
  }
}

}  // namespace
}  // namespace zelph
