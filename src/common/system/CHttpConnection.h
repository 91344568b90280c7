// A small blocking HTTP/1.0 connection over an IPv4 stream socket: the raw
// transfer, lines, GET and POST requests and the response head. The TLS
// variant replaces the raw transfer and adds its handshake to Open.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "common/base/CTString.h"
#include "common/formats/CByteBuffer.h"
#include "common/system/CUrl.h"
#include "common/system/HttpHead.h"

namespace zelph {

// The origin host name the client names in its "Origin:" header.
inline constexpr char kHttpOriginHost[] = "localhost";

// How long a connection waits for its peer in any one wait (connecting, the
// TLS handshake, each receive and send) unless the caller says otherwise.
inline constexpr std::chrono::milliseconds kDefaultHttpTimeout = std::chrono::seconds(30);
// The largest body ReceiveAll and ReceiveBytes take unless the caller says
// otherwise.
inline constexpr std::uint64_t kDefaultMaxHttpBody = std::uint64_t{256} << 20;

// What a caller allows a transfer: the time-out of each wait and the largest
// body.
struct CHttpLimits {
  std::chrono::milliseconds timeout = kDefaultHttpTimeout;
  std::uint64_t maxBodySize = kDefaultMaxHttpBody;
};

// One HTTP connection, used by one thread at a time. Every failure is a
// CHttpException whose text is a fixed prefix, with the system's error text
// behind it where a system call failed. The descriptor is closed by the
// destructor, also after a failure.
//
// Reading is buffered: lines, the response head, Receive and the multipart
// reader all take their bytes from the same receive buffer, so they can be
// mixed freely.
//
// A peer cannot hold a connection or its memory for ever: every wait ends
// after the time-out (kDefaultHttpTimeout unless set) with a CHttpException
// naming the step, a head is bounded in lines and bytes, and a body read to
// its end in bytes.
class CHttpConnection {
 public:
  // The longest line ReceiveLine accepts, terminator excluded.
  static constexpr std::size_t kMaxLineLength = 65536;
  // The most lines and bytes a head (request or status line, header lines,
  // blank lines before a request) may have; past them "HTTP head too large".
  // They also bound a header repeated to grow one joined value.
  static constexpr int kMaxHeadLines = 256;
  static constexpr std::size_t kMaxHeadSize = std::size_t{256} << 10;

  // A client connection, not yet open.
  CHttpConnection() noexcept;
  // A connection around `descriptor`, a connected stream socket (for
  // example one a listener accepted); the connection closes it.
  explicit CHttpConnection(int descriptor) noexcept;
  CHttpConnection(const CHttpConnection&) = delete;
  CHttpConnection& operator=(const CHttpConnection&) = delete;

  // Sends up to `length` bytes once; returns the count, or a negative value
  // with errno set. A peer that has gone gives an error, not SIGPIPE.
  virtual std::int32_t RawSend(const void* buffer, std::int32_t length);
  // Receives up to `capacity` bytes once; returns the count, 0 when the peer
  // closed, or a negative value with errno set.
  virtual std::int32_t RawReceive(void* buffer, std::int32_t capacity);
  virtual ~CHttpConnection();
  // Connects to the host and port of `url`, whose scheme must be "http".
  // Throws "Invalid URL format" for a record without a URL, "Unknown URL
  // scheme", `Host "<host>" not found`, "Unable to create socket: <error>"
  // or "Connection failed: <error>" ("Connection timed out" when the peer
  // does not answer within the time-out). Call once per connection.
  virtual void Open(const CUrl& url);

  // How long each later wait for the peer may take; zero waits for ever.
  // Applies at once to an open connection.
  void SetTimeout(std::chrono::milliseconds timeout) noexcept;
  std::chrono::milliseconds GetTimeout() const noexcept { return timeout_; }

  // Sends all `count` bytes. Throws "Unable to send data: <error>" (also
  // when the peer takes nothing within the time-out) or "Sent zero bytes".
  void SendBytes(const void* bytes, std::uint64_t count);
  // Sends the bytes of `text`.
  void SendString(const CISOString& text);
  // Sends `text` followed by "\r\n".
  void SendLine(const CISOString& text);
  // Sends "\r\n".
  void SendCRLF();

  // Receives up to `capacity` bytes into `buffer`, buffered bytes first.
  // Returns 0 when the peer has closed the connection and nothing is left;
  // throws "Unable to receive data: <error>", and "Unable to receive data:
  // timed out after <n> ms" when the peer sends nothing within the time-out.
  std::int32_t Receive(void* buffer, std::int32_t capacity);
  // Reads the next line, up to "\r\n", which is not kept. At the end of the
  // stream the bytes left over form the last line; false when none are
  // left. Throws "HTTP line too long" beyond kMaxLineLength bytes.
  bool ReceiveLine(CISOString& line);
  // Reads everything up to the end of the stream (an HTTP/1.0 body). Throws
  // "HTTP body larger than <maxSize> bytes" as soon as it grows past
  // `maxSize`, releasing what it had read.
  CByteBuffer ReceiveAll(std::uint64_t maxSize = kDefaultMaxHttpBody);
  // Reads `count` bytes, fewer only when the peer closes first (a body of
  // known length). Throws as ReceiveAll when `count` is above `maxSize`,
  // before reading.
  CByteBuffer ReceiveBytes(std::uint64_t count, std::uint64_t maxSize = kDefaultMaxHttpBody);

  // Buffers at least `count` bytes without consuming them, fewer only at
  // the end of the stream, and returns how many are buffered.
  std::size_t Peek(std::size_t count);
  // The buffered bytes; Peek tells how many there are.
  const std::uint8_t* GetBuffered() const noexcept { return buffer_.get() + begin_; }
  // Drops the first `count` buffered bytes (at most as many as are there).
  void Consume(std::size_t count) noexcept;

  // Sends a GET request for the path of `url` and reads the response head.
  void Get(const CUrl& url);
  // Sends a POST request with the form `body` (already percent-encoded) and
  // reads the response head.
  void Post(const CUrl& url, const CISOString& body);
  // Reads the status line and the header lines; the body follows. Throws
  // "Bad HTTP response" for a malformed status line or header line and for a
  // head cut off by the end of the stream.
  void ReadResponseHead();
  // Reads header lines up to the empty line into the header table, which it
  // clears first. Throws CHttpException `errorText` for a line that is not a
  // header or for the end of the stream before the empty line, and "HTTP
  // head too large" past kMaxHeadLines or kMaxHeadSize (counted from the last
  // BeginHead).
  void ReadHeaders(const char* errorText);

  // Starts counting the lines and bytes of a new head.
  void BeginHead() noexcept { headLines_ = 0, headBytes_ = 0; }
  // Reads one line of the head begun by BeginHead, as ReceiveLine does, and
  // counts it against the head's bounds.
  bool ReceiveHeadLine(CISOString& line);

  // The status of the last response head read.
  const CHttpStatus& GetStatus() const noexcept { return status_; }
  // The header table of the last head read.
  const CHttpHeaders& GetHeaders() const noexcept { return headers_; }
  // The value of header `name` (any case); empty when absent.
  CISOString GetHeader(std::string_view name) const;

  // The host of a client connection; on the server side the origin the
  // responder echoes (empty when none was stored).
  const CISOString& GetName() const noexcept { return name_; }
  void SetName(const CISOString& name) { name_ = name; }
  // The socket descriptor, -1 until opened.
  int GetDescriptor() const noexcept { return descriptor_; }

 protected:
  // Resolves the host of `url`, creates the socket and connects it; the
  // host becomes the connection's name. Throws as Open does.
  void Connect(const CUrl& url);

 private:
  // One raw receive into `buffer`, retried when a signal interrupts it.
  std::int32_t ReceiveChecked(void* buffer, std::int32_t capacity);
  // Gives the socket the time-out for its receives and sends.
  void ApplyTimeout() const noexcept;
  // Waits for a connect in progress on the non-blocking socket; throws as
  // Open does.
  void AwaitConnect();

  std::unique_ptr<std::uint8_t[]> buffer_;  // receive buffer
  std::size_t capacity_ = 0;                // bytes allocated for buffer_
  std::size_t begin_ = 0;                   // first buffered byte not yet consumed
  std::size_t end_ = 0;                     // end of the buffered bytes
  CISOString name_;
  int descriptor_ = -1;
  std::chrono::milliseconds timeout_ = kDefaultHttpTimeout;
  int headLines_ = 0;
  std::size_t headBytes_ = 0;
  CHttpStatus status_;
  CHttpHeaders headers_;
};

}  // namespace zelph
