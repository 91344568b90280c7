#include "common/system/CHttpConnection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string>

#include "common/base/CException.h"
#include "common/base/CTFmtArgs.h"

namespace zelph {
namespace {

// Size of the receive buffer; it grows when a caller needs to look further
// ahead.
constexpr std::size_t kBufferSize = 4096;
constexpr std::int32_t kMaxChunk = std::numeric_limits<std::int32_t>::max();

[[noreturn]] void ThrowHttp(const char* text) {
  throw CHttpException(CUTF8String(text));
}

// Throws `prefix` followed by the system's text for `error`.
[[noreturn]] void ThrowSystem(const char* prefix, int error) {
  char buffer[256];
  // The GNU strerror_r returns the text, which need not be in `buffer`.
  const char* description = strerror_r(error, buffer, sizeof buffer);
  throw CHttpException(CUTF8String(prefix) + description);
}

// Throws `prefix` followed by the time-out that ran out.
[[noreturn]] void ThrowTimedOut(const char* prefix, std::chrono::milliseconds timeout) {
  throw CHttpException(CUTF8String(prefix) + "timed out after " +
                       std::to_string(timeout.count()).c_str() + " ms");
}

// True for the errors a socket time-out gives.
bool IsTimeout(int error) noexcept {
  return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

CHttpConnection::CHttpConnection() noexcept = default;

CHttpConnection::CHttpConnection(int descriptor) noexcept : descriptor_(descriptor) {
  ApplyTimeout();
}

void CHttpConnection::SetTimeout(std::chrono::milliseconds timeout) noexcept {
  timeout_ =
      timeout < std::chrono::milliseconds::zero() ? std::chrono::milliseconds::zero() : timeout;
  ApplyTimeout();
}

void CHttpConnection::ApplyTimeout() const noexcept {
  if (descriptor_ < 0) return;
  // Socket time-outs bound every blocking receive and send, those of the TLS
  // layer on the same descriptor included.
  timeval limit{};
  limit.tv_sec = static_cast<time_t>(timeout_.count() / 1000);
  limit.tv_usec = static_cast<suseconds_t>(timeout_.count() % 1000 * 1000);
  setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

CHttpConnection::~CHttpConnection() {
  if (descriptor_ >= 0) close(descriptor_);
}

std::int32_t CHttpConnection::RawSend(const void* buffer, std::int32_t length) {
  // MSG_NOSIGNAL: a closed peer must give an error, not kill the host process.
  return static_cast<std::int32_t>(send(descriptor_, buffer, length, MSG_NOSIGNAL));
}

std::int32_t CHttpConnection::RawReceive(void* buffer, std::int32_t capacity) {
  return static_cast<std::int32_t>(recv(descriptor_, buffer, capacity, 0));
}

void CHttpConnection::Open(const CUrl& url) {
  if (!url.IsValid()) ThrowHttp("Invalid URL format");
  CheckUrlScheme(url, "http");
  Connect(url);
}

void CHttpConnection::Connect(const CUrl& url) {
  name_ = url.host;
  const std::uint32_t address = ResolveHost(url.host);
  // Close-on-exec, so that programs the host process starts do not keep
  // the connection open. Non-blocking while connecting, so that the connect
  // can be given up after the time-out.
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) ThrowSystem("Unable to create socket: ", errno);
  descriptor_ = descriptor;

  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(url.port);
  peer.sin_addr.s_addr = address;
  static_assert(sizeof peer == 16);
  if (connect(descriptor_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    if (errno != EINPROGRESS) ThrowSystem("Connection failed: ", errno);
    AwaitConnect();
  }
  const int flags = fcntl(descriptor_, F_GETFL);
  if (flags < 0 || fcntl(descriptor_, F_SETFL, flags & ~O_NONBLOCK) != 0) {
    ThrowSystem("Connection failed: ", errno);
  }
  ApplyTimeout();
}

void CHttpConnection::AwaitConnect() {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout_;
  for (;;) {
    int wait = -1;
    if (timeout_.count() > 0) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      wait = static_cast<int>(std::clamp<long long>(left, 0, std::numeric_limits<int>::max()));
    }
    pollfd entry{descriptor_, POLLOUT, 0};
    const int ready = poll(&entry, 1, wait);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) ThrowSystem("Connection failed: ", errno);
    if (ready == 0) ThrowSystem("Connection failed: ", ETIMEDOUT);
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
    if (error != 0) ThrowSystem("Connection failed: ", error);
    return;
  }
}

void CHttpConnection::SendBytes(const void* bytes, std::uint64_t count) {
  const auto* next = static_cast<const std::uint8_t*>(bytes);
  while (count > 0) {
    const auto chunk = static_cast<std::int32_t>(std::min<std::uint64_t>(count, kMaxChunk));
    // errno is cleared so that a stale EINTR cannot cause a retry.
    errno = 0;
    const std::int32_t sent = RawSend(next, chunk);
    if (sent < 0) {
      const int error = errno;
      if (error == EINTR) continue;
      if (IsTimeout(error)) ThrowTimedOut("Unable to send data: ", timeout_);
      ThrowSystem("Unable to send data: ", error);
    }
    if (sent == 0) ThrowHttp("Sent zero bytes");
    next += sent;
    count -= static_cast<std::uint64_t>(sent);
  }
}

void CHttpConnection::SendString(const CISOString& text) {
  SendBytes(text.c_str(), text.Size());
}

void CHttpConnection::SendLine(const CISOString& text) {
  // One write for the line and its end.
  CISOString line = text;
  line += "\r\n";
  SendString(line);
}

void CHttpConnection::SendCRLF() {
  SendBytes("\r\n", 2);
}

std::int32_t CHttpConnection::ReceiveChecked(void* buffer, std::int32_t capacity) {
  for (;;) {
    errno = 0;
    const std::int32_t received = RawReceive(buffer, capacity);
    if (received >= 0) return received;
    const int error = errno;
    if (IsTimeout(error)) ThrowTimedOut("Unable to receive data: ", timeout_);
    if (error != EINTR) ThrowSystem("Unable to receive data: ", error);
  }
}

std::size_t CHttpConnection::Peek(std::size_t count) {
  while (end_ - begin_ < count) {
    if (capacity_ < count || capacity_ == 0) {
      // The library's growth rule: the size asked for plus half the old one.
      const std::size_t capacity = std::max(count + (capacity_ + 1) / 2, kBufferSize);
      auto grown = std::make_unique<std::uint8_t[]>(capacity);
      if (end_ > begin_) std::memcpy(grown.get(), buffer_.get() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
      buffer_ = std::move(grown);
      capacity_ = capacity;
    } else if (capacity_ - begin_ < count || end_ == capacity_) {
      std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    const auto room = static_cast<std::int32_t>(std::min<std::size_t>(capacity_ - end_, kMaxChunk));
    const std::int32_t received = ReceiveChecked(buffer_.get() + end_, room);
    if (received == 0) break;
    end_ += static_cast<std::size_t>(received);
  }
  return end_ - begin_;
}

void CHttpConnection::Consume(std::size_t count) noexcept {
  begin_ += std::min(count, end_ - begin_);
  if (begin_ == end_) begin_ = end_ = 0;
}

std::int32_t CHttpConnection::Receive(void* buffer, std::int32_t capacity) {
  if (capacity <= 0) return 0;
  const auto wanted = static_cast<std::size_t>(capacity);
  if (begin_ == end_ && wanted >= kBufferSize) return ReceiveChecked(buffer, capacity);
  const std::size_t available = std::min(Peek(1), wanted);
  std::memcpy(buffer, GetBuffered(), available);
  Consume(available);
  return static_cast<std::int32_t>(available);
}

bool CHttpConnection::ReceiveLine(CISOString& line) {
  std::size_t scanned = 0;  // bytes known to hold no "\r\n"
  for (;;) {
    const std::size_t available = end_ - begin_;
    const std::uint8_t* data = GetBuffered();
    for (std::size_t i = scanned; i + 1 < available; ++i) {
      if (data[i] == '\r' && data[i + 1] == '\n') {
        if (i > kMaxLineLength) ThrowHttp("HTTP line too long");
        line = CISOString(reinterpret_cast<const char*>(data), i);
        Consume(i + 2);
        return true;
      }
    }
    if (available > kMaxLineLength + 1) ThrowHttp("HTTP line too long");
    scanned = available > 0 ? available - 1 : 0;
    if (Peek(available + 1) == available) {
      if (available == 0) return false;
      line = CISOString(reinterpret_cast<const char*>(GetBuffered()), available);
      Consume(available);
      return true;
    }
  }
}

namespace {

[[noreturn]] void ThrowBodyTooLarge(std::uint64_t maxSize) {
  throw CHttpException(CUTF8String("HTTP body larger than ") + std::to_string(maxSize).c_str() +
                       " bytes");
}

}  // namespace

CByteBuffer CHttpConnection::ReceiveAll(std::uint64_t maxSize) {
  CByteBuffer body;
  std::size_t size = 0;
  for (;;) {
    if (size > maxSize) ThrowBodyTooLarge(maxSize);
    if (body.size() - size < kBufferSize) {
      // One byte past the bound is enough to tell that it was passed.
      const std::uint64_t limit = maxSize + 1;
      body.resize(std::max<std::uint64_t>(
          size + 1, std::min<std::uint64_t>(size + std::max(kBufferSize, size / 2), limit)));
    }
    const auto room =
        static_cast<std::int32_t>(std::min<std::size_t>(body.size() - size, kMaxChunk));
    const std::int32_t received = Receive(body.data() + size, room);
    if (received == 0) break;
    size += static_cast<std::size_t>(received);
  }
  body.resize(size);
  return body;
}

CByteBuffer CHttpConnection::ReceiveBytes(std::uint64_t count, std::uint64_t maxSize) {
  if (count > maxSize) ThrowBodyTooLarge(maxSize);
  CByteBuffer body;
  while (body.size() < count) {
    const std::size_t size = body.size();
    const std::size_t step = std::min<std::uint64_t>(count - size, 1 << 20);
    body.resize(size + step);
    const std::int32_t received = Receive(body.data() + size, static_cast<std::int32_t>(step));
    body.resize(size + static_cast<std::size_t>(received));
    if (received == 0) break;
  }
  return body;
}

void CHttpConnection::Get(const CUrl& url) {
  SendLine(CISOString("GET ") + url.path + " HTTP/1.0");
  SendLine("User-Agent: ZELPH");
  SendLine(CISOString("Origin: ") + kHttpOriginHost);
  SendLine("Accept: */*");
  SendLine(CISOString("Host: ") + url.host);
  SendCRLF();
  ReadResponseHead();
}

void CHttpConnection::Post(const CUrl& url, const CISOString& body) {
  SendLine(CISOString("POST ") + url.path + " HTTP/1.0");
  SendLine("User-Agent: ZELPH");
  SendLine(CISOString("Origin: ") + kHttpOriginHost);
  SendLine(CISOString("Host: ") + url.host);
  SendLine("Content-Type: application/x-www-form-urlencoded");
  CISOFmtArgs length;
  length.Add(static_cast<unsigned long>(body.Size()));
  SendLine(Format<CISOEncoding>("Content-Length: %1", length));
  SendCRLF();
  SendString(body);
  ReadResponseHead();
}

void CHttpConnection::ReadResponseHead() {
  headers_.clear();
  BeginHead();
  CISOString line;
  if (!ReceiveHeadLine(line)) ThrowHttp("Bad HTTP response");
  status_ = ParseStatusLine(line.View());
  ReadHeaders("Bad HTTP response");
}

void CHttpConnection::ReadHeaders(const char* errorText) {
  headers_.clear();
  CISOString line;
  CISOString name;
  CISOString value;
  for (;;) {
    if (!ReceiveHeadLine(line)) ThrowHttp(errorText);
    if (line.IsEmpty()) return;
    if (!ParseHeaderLine(line.View(), name, value)) ThrowHttp(errorText);
    AddHeader(headers_, name, value);
  }
}

bool CHttpConnection::ReceiveHeadLine(CISOString& line) {
  if (!ReceiveLine(line)) return false;
  headBytes_ += line.Size() + 2;
  if (++headLines_ > kMaxHeadLines || headBytes_ > kMaxHeadSize) ThrowHttp("HTTP head too large");
  return true;
}

CISOString CHttpConnection::GetHeader(std::string_view name) const {
  const auto found = headers_.find(ToLowerAscii(name));
  return found != headers_.end() ? found->second : CISOString();
}

}  // namespace zelph
