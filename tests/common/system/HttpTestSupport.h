// Peers and helpers for the HTTP tests: a loopback server running a handler
// in a thread, child processes that die with the test, a watchdog that turns
// a hang into a failure, and the trace log of the test process (tracing is on
// for the whole process).
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/base/CException.h"
#include "common/system/CHttpConnection.h"

namespace zelph {

std::string TextOf(const CException& exception);
std::string AsString(const CByteBuffer& bytes);
std::string AsString(const CISOString& text);

// The text of the CHttpException `action` throws, "<no exception>", or a
// text naming another CException.
template <class F>
std::string HttpErrorOf(F&& action) {
  try {
    action();
  } catch (const CHttpException& exception) {
    return TextOf(exception);
  } catch (const CException& exception) {
    return "<other CException> " + TextOf(exception);
  }
  return "<no exception>";
}

// Ends the process with a message if it still runs `seconds` after
// construction; child processes die with it.
class CWatchdog {
 public:
  explicit CWatchdog(int seconds = 60);
  ~CWatchdog();

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

// Listens on 127.0.0.1 at a port the system picks and runs `handler` on each
// accepted descriptor (which the handler owns), one connection at a time.
// Accepted sockets time out after 20 seconds; handler exceptions are kept.
class CTestServer {
 public:
  using CHandler = std::function<void(int descriptor)>;

  explicit CTestServer(CHandler handler);
  ~CTestServer();

  std::uint16_t Port() const noexcept { return port_; }
  // "<scheme>://127.0.0.1:<port>" followed by `path`.
  std::string Url(std::string_view path = "", std::string_view scheme = "http") const;
  std::vector<std::string> Errors() const;
  // Waits (at most 20 seconds) until `count` connections were served.
  bool WaitServed(int count) const;

 private:
  CHandler handler_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable servedChanged_;
  std::vector<std::string> errors_;
  int served_ = 0;
  std::thread thread_;
};

// Serves each connection as a plain CHttpConnection.
CTestServer::CHandler PlainHandler(std::function<void(CHttpConnection&)> serve);
// Reads the request head, then writes `bytes` as they are and closes.
CTestServer::CHandler RawReplyHandler(std::string bytes);

// What a server saw of one request.
struct CSeenRequest {
  std::string method, target, body;
  std::string origin;  // the connection's name after ReadHttpRequest
  CHttpHeaders headers;
};

// Requests seen by a handler thread, read by the test. Copies of a CTString
// share its buffer and reference count, which belong to one thread, so the
// log keeps its records as std::string and every request it hands out is
// built afresh, sharing nothing with the server thread.
class CRequestLog {
 public:
  // Reads a request with ReadHttpRequest and its body (by content-length),
  // records and returns it.
  CSeenRequest Read(CHttpConnection& connection);
  // Every request recorded so far, in order.
  std::vector<CSeenRequest> All() const;

 private:
  // One request as the log keeps it.
  struct CRecord {
    std::string method, target, body, origin;
    std::vector<std::pair<std::string, std::string>> headers;
  };

  static CSeenRequest ToSeen(const CRecord& record);

  mutable std::mutex mutex_;
  std::vector<CRecord> requests_;
};

// A program in a process group of its own, stdin on /dev/null, stdout and
// stderr collected. Killed with its group when the object dies, and by the
// kernel when the test process dies first.
class CChildProcess {
 public:
  CChildProcess(const std::vector<std::string>& arguments, const std::string& workDir);
  ~CChildProcess();

  // Reads output until a line contains `marker` and returns it; "" when the
  // child ends or `seconds` pass first.
  std::string WaitForLine(std::string_view marker, int seconds);
  // Collects output until the child closes it (at most `seconds`), then
  // ends the child's group and returns all output.
  std::string Finish(int seconds);
  const std::string& Output() const noexcept { return output_; }

 private:
  bool ReadSome(int milliseconds);
  void Kill() noexcept;

  pid_t pid_ = -1;
  int outputFd_ = -1;
  std::string output_;
  std::size_t scanned_ = 0;
};

// openssl s_server -WWW on 127.0.0.1 at a free port, serving `workDir`.
class COpenSslServer {
 public:
  COpenSslServer(const std::vector<std::string>& options, const std::string& workDir);
  // 0 when the server did not come up.
  std::uint16_t Port() const noexcept { return port_; }
  const std::string& Output() const noexcept { return process_.Output(); }

 private:
  CChildProcess process_;
  std::uint16_t port_ = 0;
};

// The whole trace log this process wrote so far.
std::string TraceLogText();
int CountOf(std::string_view text, std::string_view needle);

}  // namespace zelph
