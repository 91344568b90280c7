// Fuzzes the reading of netstat output: the peer lookup over a real loopback
// connection must pick, from arbitrary output, the first line that shows the
// connection from the other side, and name that line's process.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <string>

#include "FuzzSupport.h"
#include "common/system/ClientIdentification.h"

using namespace zelph;

namespace {

std::string Endpoint(const sockaddr_in& a) {
  return inet_ntoa(a.sin_addr) + (":" + std::to_string(ntohs(a.sin_port)));
}

// One end of a loopback TCP connection (both ends stay open), and the line
// netstat shows for the other end: its endpoint local, this one foreign.
int Connect(std::string& peerLine) {
  sockaddr_in own{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}}, peer{};
  socklen_t size = sizeof own;
  const int listener = socket(AF_INET, SOCK_STREAM, 0), client = socket(AF_INET, SOCK_STREAM, 0);
  auto* any = reinterpret_cast<sockaddr*>(&own);
  Require(bind(listener, any, size) == 0 && listen(listener, 1) == 0 &&
              getsockname(listener, any, &size) == 0 && connect(client, any, size) == 0,
          "a loopback connection can be made");
  const int connected = accept(listener, reinterpret_cast<sockaddr*>(&peer), &size);
  peerLine = "tcp 0 0 " + Endpoint(peer) + " " + Endpoint(own) + " ESTABLISHED ";
  return connected;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::string peerLine;
  static const int connected = Connect(peerLine);
  static const CConnectionLine peer = ParseConnectionLine((peerLine + "1/x").c_str());
  // Arbitrary output; unless its first byte is a multiple of 3, the peer's
  // line, with that byte as process id, goes in at the start of some line.
  std::string output(AsText(data, size));
  if (size > 0 && data[0] % 3 != 0) {
    const std::size_t newline = output.rfind('\n', data[0] % (size + 1));
    output.insert(newline == std::string::npos ? 0 : newline + 1,
                  peerLine + std::to_string(data[0]) + "/peer\n");
  }
  std::int64_t expected = 0;
  for (std::size_t start = 0; start <= output.size() && expected == 0;) {
    const std::size_t end = std::min(output.find('\n', start), output.size());
    const CConnectionLine line = ParseConnectionLine(output.substr(start, end - start).c_str());
    if (line.valid && line.localAddress == peer.localAddress && line.localPort == peer.localPort &&
        line.foreignAddress == peer.foreignAddress && line.foreignPort == peer.foreignPort) {
      expected = line.processId;
    }
    start = end + 1;
  }
  CUTF8String program;
  Require(GetClientPidFromCommand(connected, CUTF8String(output.data(), output.size()), program) ==
              expected,
          "the first line with the swapped endpoints names the peer");
  return 0;
}
