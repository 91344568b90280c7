// Fuzzes the reading of netstat output: arbitrary lines are parsed, a line
// written from known endpoints must parse back to them, and the peer lookup
// over a real loopback connection must pick the first line that shows the
// connection from the other side.
#include <arpa/inet.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "common/system/ClientIdentification.h"

using namespace zelph;

namespace {

// One end of a loopback TCP connection that lives as long as the process.
int g_connected = -1;
std::string g_peerWord;  // the peer's endpoint as netstat writes it
std::string g_ownWord;

std::string Endpoint(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

void OpenConnection() {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  Require(listener >= 0 && bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
              listen(listener, 1) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "a loopback listener can be opened");
  const int client = socket(AF_INET, SOCK_STREAM, 0);
  Require(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
          "the loopback listener accepts a connection");
  g_connected = accept(listener, nullptr, nullptr);
  Require(g_connected >= 0, "the connection is accepted");
  close(listener);
  sockaddr_in own{};
  sockaddr_in peer{};
  socklen_t ownSize = sizeof own;
  socklen_t peerSize = sizeof peer;
  getsockname(g_connected, reinterpret_cast<sockaddr*>(&own), &ownSize);
  getpeername(g_connected, reinterpret_cast<sockaddr*>(&peer), &peerSize);
  g_ownWord = Endpoint(own);
  g_peerWord = Endpoint(peer);
  // The client end stays open too, so that the connection stays established.
}

// The process id GetClientPidFromCommand must find: that of the first line
// showing the peer as local and this socket as foreign endpoint.
std::int64_t ExpectedPeer(const std::string& output) {
  const CConnectionLine peer =
      ParseConnectionLine(("tcp 0 0 " + g_peerWord + " " + g_ownWord + " 1/x").c_str());
  std::size_t start = 0;
  while (start < output.size()) {
    std::size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    const CConnectionLine line = ParseConnectionLine(output.substr(start, end - start).c_str());
    if (line.valid && line.localAddress == peer.localAddress && line.localPort == peer.localPort &&
        line.foreignAddress == peer.foreignAddress && line.foreignPort == peer.foreignPort) {
      return line.processId;
    }
    start = end + 1;
  }
  return 0;
}

std::string Address(std::uint32_t value) {
  in_addr address{};
  address.s_addr = value;
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  SwitchTracingOff();
  OpenConnection();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);

  // A line written from known values parses back to them. Words that start
  // with "0" are skipped by design, so the first octet and the process id
  // start at 1.
  const std::uint32_t local = input.ConsumeIntegral<std::uint32_t>() | 1u;
  const std::uint32_t foreign = input.ConsumeIntegral<std::uint32_t>() | 1u;
  const std::uint16_t localPort = input.ConsumeIntegral<std::uint16_t>();
  const std::uint16_t foreignPort = input.ConsumeIntegral<std::uint16_t>();
  const std::int64_t pid = input.ConsumeIntegralInRange<std::int64_t>(1, 4194304);
  std::string name = input.ConsumeRandomLengthString(24);
  name = name.substr(0, name.find_first_of(std::string(" \t\0", 3)));  // one word
  const std::string line = "tcp        0      0 " + Address(local) + ":" +
                           std::to_string(localPort) + "  " + Address(foreign) + ":" +
                           std::to_string(foreignPort) + " ESTABLISHED " + std::to_string(pid) +
                           "/" + name;
  const CConnectionLine parsed = ParseConnectionLine(line.c_str());
  Require(parsed.localAddress == local && parsed.foreignAddress == foreign,
          "addresses read back in network order");
  Require(parsed.localPort == localPort && parsed.foreignPort == foreignPort, "ports read back");
  Require(parsed.processId == pid && parsed.programName.View() == name, "the process reads back");
  Require(parsed.valid == (localPort != 0 && foreignPort != 0), "valid means no zero field");

  // Arbitrary output, with the peer's own line planted somewhere in it.
  std::string output = input.ConsumeRemainingBytesAsString();
  const std::size_t at = output.empty() ? 0 : static_cast<std::size_t>(pid) % output.size();
  const std::size_t newline = output.rfind('\n', at);
  const std::size_t lineStart = newline == std::string::npos ? 0 : newline + 1;
  if (pid % 3 != 0) {
    output.insert(lineStart, "tcp 0 0 " + g_peerWord + " " + g_ownWord + " ESTABLISHED " +
                                 std::to_string(pid) + "/peer\n");
  }
  std::size_t start = 0;
  while (start <= output.size()) {
    std::size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    const CConnectionLine any = ParseConnectionLine(output.substr(start, end - start).c_str());
    Require(any.valid == (any.localAddress != 0 && any.localPort != 0 && any.foreignAddress != 0 &&
                          any.foreignPort != 0),
            "valid means no zero field");
    start = end + 1;
  }
  CUTF8String program;
  const CUTF8String text(output.data(), output.size());
  Require(GetClientPidFromCommand(g_connected, text, program) == ExpectedPeer(output),
          "the first line with the swapped endpoints names the peer");
  return 0;
}
