#include "common/system/ClientIdentification.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include <zelph/trace.h>

namespace zelph {
namespace {

constexpr char kNetstatCommand[] = "netstat -antp 2> /dev/null | grep \"ESTABLISHED\"";

// Traces entering a function, and leaving it on every way out.
class CTraceScope {
 public:
  explicit CTraceScope(const char* name) noexcept : name_(name) { TraceEnter(name_); }
  CTraceScope(const CTraceScope&) = delete;
  CTraceScope& operator=(const CTraceScope&) = delete;
  ~CTraceScope() { TraceLeave(name_); }

 private:
  const char* name_;
};

struct CPipeCloser {
  void operator()(std::FILE* pipe) const noexcept { pclose(pipe); }
};

bool IsBlank(char c) noexcept {
  return c == ' ' || c == '\t';
}
bool IsDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

// Reads one word that begins with a digit 1-9 into `record`: an address word
// "a.b.c.d:port" fills the next endpoint, "pid/name" the process; anything
// else is ignored.
void ParseWord(std::string_view word, CConnectionLine& record, int& endpoints) {
  std::uint64_t number = 0;
  std::uint32_t address = 0;
  int octets = 0;  // octets closed so far
  bool inPort = false;
  for (std::size_t i = 0; i < word.size(); ++i) {
    const char c = word[i];
    if (IsDigit(c)) {
      // Saturates: no field of a valid line comes near it.
      if (number < 0xFFFFFFFFu) number = number * 10 + static_cast<std::uint64_t>(c - '0');
    } else if (c == '.' && !inPort && octets < 3) {
      // The first written octet is the lowest byte: network order in memory.
      address |= static_cast<std::uint32_t>(number & 0xFF) << (8 * octets);
      ++octets;
      number = 0;
    } else if (c == ':' && !inPort && octets == 3) {
      address |= static_cast<std::uint32_t>(number & 0xFF) << 24;
      inPort = true;
      number = 0;
    } else if (c == '/' && !inPort && octets == 0) {
      record.processId = static_cast<std::int64_t>(number);
      const std::string_view name = word.substr(i + 1);
      record.programName = CUTF8String(name.data(), name.size());
      return;
    } else {
      return;
    }
  }
  if (!inPort) return;
  const auto port = static_cast<std::uint32_t>(number);
  if (endpoints == 0) {
    record.localAddress = address;
    record.localPort = port;
  } else if (endpoints == 1) {
    record.foreignAddress = address;
    record.foreignPort = port;
  }
  ++endpoints;
}

}  // namespace

CConnectionLine ParseConnectionLine(const char* line) {
  CConnectionLine record;
  int endpoints = 0;
  const char* p = line;
  while (*p != '\0') {
    while (IsBlank(*p)) ++p;
    const char* start = p;
    while (*p != '\0' && !IsBlank(*p)) ++p;
    if (p == start || *start < '1' || *start > '9') continue;
    ParseWord(std::string_view(start, static_cast<std::size_t>(p - start)), record, endpoints);
  }
  record.valid = record.localAddress != 0 && record.localPort != 0 && record.foreignAddress != 0 &&
                 record.foreignPort != 0;
  return record;
}

CUTF8String ReadCommand(const char* command) {
  CTraceScope scope("ReadCommand");
  TraceString("cmd = %s", command);
  // "e": the stream stays out of programs that other threads start meanwhile.
  const std::unique_ptr<std::FILE, CPipeCloser> pipe(popen(command, "re"));
  if (!pipe) throw std::runtime_error("popen() failed!");
  CUTF8String output;
  char buffer[128];
  // Raw bytes: a character cut between two pieces must come out whole.
  while (std::fgets(buffer, sizeof buffer, pipe.get()) != nullptr) {
    output.AppendBytes(buffer, std::strlen(buffer));
  }
  return output;
}

std::int64_t GetClientPidFromCommand(int descriptor, const CUTF8String& netstatOutput,
                                     CUTF8String& programName) {
  CTraceScope scope("GetClientPidFromCommand");
  sockaddr_in own{};
  sockaddr_in peer{};
  socklen_t ownSize = sizeof own;
  socklen_t peerSize = sizeof peer;
  if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &ownSize) != 0 ||
      getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0 ||
      own.sin_family != AF_INET || peer.sin_family != AF_INET) {
    return 0;
  }

  // The peer's own line has the endpoints the other way round.
  std::string_view rest = netstatOutput.View();
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    const std::string line(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    const CConnectionLine record = ParseConnectionLine(line.c_str());
    if (record.valid && record.localAddress == peer.sin_addr.s_addr &&
        record.localPort == ntohs(peer.sin_port) && record.foreignAddress == own.sin_addr.s_addr &&
        record.foreignPort == ntohs(own.sin_port)) {
      programName = record.programName;
      return record.processId;
    }
  }
  return 0;
}

pid_t GetSessionIdFromSocket(int descriptor) noexcept {
  CTraceScope scope("GetSessionIdFromSocket");
  try {
    const CUTF8String output = ReadCommand(kNetstatCommand);
    CUTF8String programName;
    const std::int64_t processId = GetClientPidFromCommand(descriptor, output, programName);
    TraceString("Socket PID: %d", static_cast<int>(processId));
    if (processId == 0) return 0;
    const pid_t sessionId = getsid(static_cast<pid_t>(processId));
    TraceString("Socket SID: %d", static_cast<int>(sessionId));
    // A process that has gone meanwhile has no session.
    return sessionId > 0 ? sessionId : 0;
  } catch (...) {
    TraceString("GetClientPid threw an exception");
    return 0;
  }
}

}  // namespace zelph
