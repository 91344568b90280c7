// Identification of the local process at the other end of an accepted
// loopback TCP connection, from the output of netstat.
//
// Every step is traced. Only IPv4 connections are recognised.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "common/base/CTString.h"

namespace zelph {

// One line of "netstat -antp" output, parsed.
struct CConnectionLine {
  std::uint32_t localAddress = 0;    // network byte order, as inet_addr gives it
  std::uint32_t localPort = 0;       // host order
  std::uint32_t foreignAddress = 0;  // network byte order
  std::uint32_t foreignPort = 0;     // host order
  std::int64_t processId = 0;        // 0 when the line shows no process
  CUTF8String programName;
  bool valid = false;  // both addresses and both ports are non-zero
};

// Parses one output line: the first address word ("a.b.c.d:port") is the
// local endpoint, the second the foreign one, and a "pid/name" word the
// process. Words that begin with anything but a digit 1-9 are skipped (the
// zero counters, "tcp", "ESTABLISHED", a "-" process, an all-zero address),
// and so are plain numbers.
CConnectionLine ParseConnectionLine(const char* line);

// Runs `command` through the shell and returns all it wrote to its standard
// output, byte for byte. Throws std::runtime_error("popen() failed!") when
// the command cannot be started.
CUTF8String ReadCommand(const char* command);

// The process id of the peer of the connected IPv4 socket `descriptor`, found
// in `netstatOutput` as the line that sees the connection from the other
// side; the peer's program name goes to `programName`. 0 when the socket is
// not a connected IPv4 socket or no line matches.
std::int64_t GetClientPidFromCommand(int descriptor, const CUTF8String& netstatOutput,
                                     CUTF8String& programName);

// The session id of the local process at the other end of the connection
// `descriptor`, found by running netstat; 0 when it cannot be found. Never
// throws.
pid_t GetSessionIdFromSocket(int descriptor) noexcept;

}  // namespace zelph
