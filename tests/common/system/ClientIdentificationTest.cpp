#include "common/system/ClientIdentification.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "SystemTestSupport.h"

namespace zelph {
namespace {

TEST(ClientIdentification, ParsesNetstatLines) {
  const std::uint32_t loopback = inet_addr("127.0.0.1");
  struct Case {
    const char* line;
    std::uint32_t local, localPort, foreign, foreignPort;
    std::int64_t pid;
    const char* name;
    bool valid;
  } cases[] = {
      {"tcp        0      0 127.0.0.1:41234         127.0.0.1:5555          ESTABLISHED "
       "1234/ipc_test       ",
       loopback, 41234, loopback, 5555, 1234, "ipc_test", true},
      {"tcp 0 0 192.168.1.20:22 10.0.0.7:51000 ESTABLISHED -", inet_addr("192.168.1.20"), 22,
       inet_addr("10.0.0.7"), 51000, 0, "", true},
      {"tcp 12 0 127.0.0.1:80 127.0.0.1:9999 ESTABLISHED 77/srv", loopback, 80, loopback, 9999, 77,
       "srv", true},
      {"tcp 0 0 0.0.0.0:2024 0.0.0.0:* LISTEN -", 0, 0, 0, 0, 0, "", false},
      {"tcp6 0 0 ::1:631 ::1:40000 ESTABLISHED 5/cupsd", 0, 0, 0, 0, 5, "cupsd", false},
      {"Proto Recv-Q Send-Q Local Address Foreign Address State PID/Program name", 0, 0, 0, 0, 0,
       "", false},
      {"", 0, 0, 0, 0, 0, "", false},
  };
  for (const Case& c : cases) {
    const CConnectionLine r = ParseConnectionLine(c.line);
    EXPECT_EQ(r.localAddress, c.local) << c.line;
    EXPECT_EQ(r.localPort, c.localPort) << c.line;
    EXPECT_EQ(r.foreignAddress, c.foreign) << c.line;
    EXPECT_EQ(r.foreignPort, c.foreignPort) << c.line;
    EXPECT_EQ(r.processId, c.pid) << c.line;
    EXPECT_EQ(r.programName.View(), c.name) << c.line;
    EXPECT_EQ(r.valid, c.valid) << c.line;
  }
}

TEST(ClientIdentification, ReadCommandReturnsOutputByteForByte) {
  const std::string longLine = std::string(126, 'a') + "\xC3\xA9" + std::string(300, 'b');
  struct Case {
    std::string command, output;
  } cases[] = {
      {"true", ""},
      {"printf 'one\\ntwo\\n'; echo err >&2", "one\ntwo\n"},
      // A two-byte character straddles the first 127-byte piece.
      {"printf '%s\\303\\251%s\\n' " + std::string(126, 'a') + " " + std::string(300, 'b'),
       longLine + "\n"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ReadCommand(c.command.c_str()).View(), c.output) << c.command;
  }
}

// A TCP listener on 127.0.0.1 at a port the system picks.
class CLoopbackListener {
 public:
  CLoopbackListener() : descriptor_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    socklen_t size = sizeof address;
    if (bind(descriptor_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(descriptor_, 5) != 0 ||
        getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      close(descriptor_);
      descriptor_ = -1;
    }
    address_ = address;
  }
  ~CLoopbackListener() { close(descriptor_); }
  CLoopbackListener(const CLoopbackListener&) = delete;
  CLoopbackListener& operator=(const CLoopbackListener&) = delete;

  int Descriptor() const { return descriptor_; }
  // A new client socket connected to the listener, or -1.
  int Connect() const {
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(client, reinterpret_cast<const sockaddr*>(&address_), sizeof address_) != 0) {
      close(client);
      return -1;
    }
    return client;
  }

 private:
  int descriptor_;
  sockaddr_in address_{};
};

int PortOf(int descriptor, bool peer) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if ((peer ? getpeername(descriptor, raw, &size) : getsockname(descriptor, raw, &size)) != 0) {
    return -1;
  }
  return ntohs(address.sin_port);
}

TEST(ClientIdentification, PicksThePeersOwnViewOfTheConnection) {
  CLoopbackListener listener;
  ASSERT_GE(listener.Descriptor(), 0);
  const int client = listener.Connect();
  ASSERT_GE(client, 0);
  const int server = accept(listener.Descriptor(), nullptr, nullptr);
  ASSERT_GE(server, 0);
  const std::string ours = "127.0.0.1:" + std::to_string(PortOf(server, false));
  const std::string theirs = "127.0.0.1:" + std::to_string(PortOf(server, true));
  const auto line = [](const std::string& local, const std::string& foreign, const char* who) {
    return "tcp 0 0 " + local + " " + foreign + " ESTABLISHED " + who + "\n";
  };
  struct Case {
    const char* name;
    std::string output;
    std::int64_t pid;
    const char* program;
  } cases[] = {
      {"peer's line", line(theirs, ours, "4242/peerprog"), 4242, "peerprog"},
      {"after our own line", line(ours, theirs, "99/self") + line(theirs, ours, "4242/p"), 4242,
       "p"},
      {"only our own line", line(ours, theirs, "99/self"), 0, ""},
      {"another user's process", line(theirs, ours, "-"), 0, ""},
      {"remote host", line("10.1.2.3:" + theirs.substr(10), ours, "4242/p"), 0, ""},
      {"no output", "", 0, ""},
  };
  for (const Case& c : cases) {
    CUTF8String program = "unchanged";
    EXPECT_EQ(GetClientPidFromCommand(server, c.output.c_str(), program), c.pid) << c.name;
    if (c.pid != 0) {
      EXPECT_EQ(program.View(), c.program) << c.name;
    }
  }
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  CUTF8String program;
  EXPECT_EQ(GetClientPidFromCommand(pipeFds[0], line(theirs, ours, "1/x").c_str(), program), 0)
      << "a descriptor that is no socket";
  close(pipeFds[0]);
  close(pipeFds[1]);
  close(server);
  close(client);
}

TEST(ClientIdentification, FindsTheSessionOfAnotherLocalProcess) {
  CLoopbackListener listener;
  ASSERT_GE(listener.Descriptor(), 0);
  int hold[2];
  ASSERT_EQ(pipe(hold), 0);
  CChildren children;
  const pid_t child = children.Fork([&] {
    close(hold[1]);
    if (setsid() < 0) return 1;  // its session id becomes its own pid
    const int client = listener.Connect();
    char none;
    const bool held = read(hold[0], &none, 1) == 0;  // keeps the connection until told
    close(client);
    return client >= 0 && held ? 0 : 1;
  });
  ASSERT_GT(child, 0);
  close(hold[0]);
  const int server = accept(listener.Descriptor(), nullptr, nullptr);
  ASSERT_GE(server, 0);

  EXPECT_EQ(GetSessionIdFromSocket(server), child)
      << "the peer's session was not found through netstat";
  CUTF8String program;
  const CUTF8String output = ReadCommand("netstat -antp 2> /dev/null | grep \"ESTABLISHED\"");
  EXPECT_EQ(GetClientPidFromCommand(server, output, program), child) << output.c_str();
  // netstat shows a piece of the command's first word.
  const std::string command = ReadFile("/proc/self/cmdline").c_str();
  EXPECT_FALSE(program.IsEmpty());
  EXPECT_NE(command.find(std::string(program.View())), std::string::npos)
      << "program " << program.c_str() << " is not this test program " << command;

  close(hold[1]);
  EXPECT_EQ(children.Wait(child), 0);
  close(server);
  EXPECT_EQ(GetSessionIdFromSocket(server), 0) << "a closed descriptor";
}

}  // namespace
}  // namespace zelph
