#include "HttpTestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "common/system/HttpResponder.h"

namespace zelph {
namespace {

namespace fs = std::filesystem;
using CClock = std::chrono::steady_clock;

fs::path& TestDirectory() {
  static fs::path directory;
  return directory;
}

// Switches tracing on into a fresh directory and lets OpenSSL offer the
// anonymous suites too, so that the client can meet servers without a
// certificate. Both must happen before the first trace and OpenSSL call.
class CHttpTestEnvironment final : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string pattern = "/tmp/zelph-http-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    const fs::path directory = TestDirectory() = pattern;
    fs::create_directory(directory / "logs");
    std::ofstream(directory / "zelph.conf")
        << "Quillon {\n\tEnableTrace = 1\n\tTrace = " << (directory / "logs").string() << "\n}\n";
    std::ofstream(directory / "openssl.cnf")
        << "openssl_conf = init\n[init]\nssl_conf = ssl\n[ssl]\nsystem_default = defaults\n"
           "[defaults]\nCipherString = ALL:@SECLEVEL=0\n";
    setenv("ZELPH_CONFFILE", (directory / "zelph.conf").c_str(), 1);
    setenv("OPENSSL_CONF", (directory / "openssl.cnf").c_str(), 1);
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(TestDirectory(), ignored);
  }
};

[[maybe_unused]] ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new CHttpTestEnvironment);

}  // namespace

std::string TextOf(const CException& exception) {
  return std::string(exception.GetEvent().GetText().View());
}
std::string AsString(const CByteBuffer& bytes) {
  return std::string(bytes.begin(), bytes.end());
}
std::string AsString(const CISOString& text) {
  return std::string(text.View());
}

CWatchdog::CWatchdog(int seconds)
    : thread_([this, seconds] {
        std::unique_lock lock(mutex_);
        if (!done_.wait_for(lock, std::chrono::seconds(seconds), [this] { return finished_; })) {
          std::fprintf(stderr, "The test still ran after %d seconds: it hangs.\n", seconds);
          std::_Exit(3);
        }
      }) {}

CWatchdog::~CWatchdog() {
  {
    std::lock_guard lock(mutex_);
    finished_ = true;
  }
  done_.notify_all();
  thread_.join();
}

CTestServer::CTestServer(CHandler handler) : handler_(std::move(handler)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      listen(listener_, 16) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    ADD_FAILURE() << "cannot listen on a loopback port, errno " << errno;
    return;
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] {
    for (;;) {
      const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (descriptor < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
      if (descriptor < 0) return;  // the listener was shut down
      const timeval limit{20, 0};
      setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
      std::string error;
      try {
        handler_(descriptor);
      } catch (const CException& exception) {
        error = TextOf(exception);
      } catch (const std::exception& exception) {
        error = exception.what();
      }
      std::lock_guard lock(mutex_);
      if (!error.empty()) errors_.push_back(error);
      ++served_;
      servedChanged_.notify_all();
    }
  });
}

CTestServer::~CTestServer() {
  shutdown(listener_, SHUT_RDWR);
  if (thread_.joinable()) thread_.join();
  close(listener_);
}

std::string CTestServer::Url(std::string_view path, std::string_view scheme) const {
  return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

std::vector<std::string> CTestServer::Errors() const {
  std::lock_guard lock(mutex_);
  return errors_;
}

bool CTestServer::WaitServed(int count) const {
  std::unique_lock lock(mutex_);
  return servedChanged_.wait_for(lock, std::chrono::seconds(20),
                                 [this, count] { return served_ >= count; });
}

CTestServer::CHandler PlainHandler(std::function<void(CHttpConnection&)> serve) {
  return [serve = std::move(serve)](int descriptor) {
    CHttpConnection connection(descriptor);
    serve(connection);
  };
}

CTestServer::CHandler RawReplyHandler(std::string bytes) {
  return PlainHandler([bytes = std::move(bytes)](CHttpConnection& connection) {
    CISOString line;
    while (connection.ReceiveLine(line) && !line.IsEmpty()) {
    }
    connection.SendBytes(bytes.data(), bytes.size());
  });
}

CSeenRequest CRequestLog::Read(CHttpConnection& connection) {
  CSeenRequest seen;
  const CHttpRequestLine request = ReadHttpRequest(connection);
  seen.method = AsString(request.method);
  seen.target = AsString(request.target);
  seen.origin = AsString(connection.GetName());
  seen.headers = connection.GetHeaders();
  const CISOString length = connection.GetHeader("Content-Length");
  if (!length.IsEmpty()) {
    seen.body = AsString(connection.ReceiveBytes(std::stoull(AsString(length))));
  }
  CRecord record{seen.method, seen.target, seen.body, seen.origin, {}};
  for (const auto& [name, value] : seen.headers)
    record.headers.emplace_back(AsString(name), AsString(value));
  std::lock_guard lock(mutex_);
  requests_.push_back(std::move(record));
  return seen;
}

CSeenRequest CRequestLog::ToSeen(const CRecord& record) {
  CSeenRequest seen{record.method, record.target, record.body, record.origin, {}};
  for (const auto& [name, value] : record.headers) {
    seen.headers.emplace(CISOString(name.data(), name.size()),
                         CISOString(value.data(), value.size()));
  }
  return seen;
}

std::vector<CSeenRequest> CRequestLog::All() const {
  std::vector<CSeenRequest> requests;
  std::lock_guard lock(mutex_);
  for (const CRecord& record : requests_) requests.push_back(ToSeen(record));
  return requests;
}

CChildProcess::CChildProcess(const std::vector<std::string>& arguments,
                             const std::string& workDir) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    // Async-signal-safe calls only.
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(ends[1], 1);
    dup2(ends[1], 2);
    if (chdir(workDir.c_str()) == 0) execv(argv[0], argv.data());
    _exit(127);
  }
  if (pid_ > 0) setpgid(pid_, pid_);  // whichever of the two runs first
  close(ends[1]);
  outputFd_ = ends[0];
}

CChildProcess::~CChildProcess() {
  Kill();
  close(outputFd_);
}

void CChildProcess::Kill() noexcept {
  if (pid_ <= 0) return;
  // Not reaped yet, so the id still names this child and its group.
  kill(-pid_, SIGKILL);
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

bool CChildProcess::ReadSome(int milliseconds) {
  pollfd ready{outputFd_, POLLIN, 0};
  if (poll(&ready, 1, milliseconds) <= 0) return false;
  char buffer[4096];
  const ssize_t got = read(outputFd_, buffer, sizeof buffer);
  if (got <= 0) return false;
  output_.append(buffer, static_cast<std::size_t>(got));
  return true;
}

std::string CChildProcess::WaitForLine(std::string_view marker, int seconds) {
  const auto deadline = CClock::now() + std::chrono::seconds(seconds);
  for (;;) {
    for (std::size_t end; (end = output_.find('\n', scanned_)) != std::string::npos;) {
      const std::string line = output_.substr(scanned_, end - scanned_);
      scanned_ = end + 1;
      if (line.find(marker) != std::string::npos) return line;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - CClock::now()).count();
    if (left <= 0 || !ReadSome(static_cast<int>(left))) return "";
  }
}

std::string CChildProcess::Finish(int seconds) {
  const auto deadline = CClock::now() + std::chrono::seconds(seconds);
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - CClock::now()).count();
    if (left <= 0 || !ReadSome(static_cast<int>(left))) break;
  }
  Kill();
  return output_;
}

COpenSslServer::COpenSslServer(const std::vector<std::string>& options, const std::string& workDir)
    : process_(
          [&options] {
            std::vector<std::string> arguments{"/usr/bin/openssl", "s_server", "-accept",
                                               "127.0.0.1:0", "-WWW"};
            arguments.insert(arguments.end(), options.begin(), options.end());
            return arguments;
          }(),
          workDir) {
  const std::string line = process_.WaitForLine("ACCEPT", 20);  // "ACCEPT 127.0.0.1:<port>"
  const std::size_t colon = line.rfind(':');
  if (colon != std::string::npos) port_ = static_cast<std::uint16_t>(std::atoi(&line[colon + 1]));
}

std::string TraceLogText() {
  std::vector<fs::path> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(TestDirectory() / "logs", error)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  std::string text;
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    text.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return text;
}

int CountOf(std::string_view text, std::string_view needle) {
  int count = 0;
  for (std::size_t at = text.find(needle); at != std::string_view::npos;
       at = text.find(needle, at + needle.size())) {
    ++count;
  }
  return count;
}

}  // namespace zelph
