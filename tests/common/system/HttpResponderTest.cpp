#include "common/system/HttpResponder.h"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "HttpTestSupport.h"

namespace zelph {
namespace {

// A connection on one end of a local socket pair; the test holds the other.
class CSocketPair {
 public:
  CSocketPair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    connection_ = std::make_unique<CHttpConnection>(ends[0]);
    peer_ = ends[1];
  }
  ~CSocketPair() { close(peer_); }

  CHttpConnection& Connection() { return *connection_; }
  // Closes the connection and returns everything it wrote.
  std::string Written() {
    connection_.reset();
    std::string bytes;
    char buffer[4096];
    for (ssize_t got; (got = read(peer_, buffer, sizeof buffer)) > 0;) bytes.append(buffer, got);
    return bytes;
  }
  // Gives the connection `bytes` to read, then the end of the stream.
  void Feed(const std::string& bytes) {
    EXPECT_EQ(write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    shutdown(peer_, SHUT_WR);
  }

 private:
  std::unique_ptr<CHttpConnection> connection_;
  int peer_ = -1;
};

TEST(HttpResponder, ResponseHeadFollowsOriginLengthAndCacheFlag) {
  struct Case {
    const char* origin;
    std::int32_t length;
    bool noCache;
    std::string head;
  } cases[] = {
      {"", -1, false,
       "HTTP/1.1 200 OK\r\nServer: Tarnwick\r\nConnection: close\r\n"
       "Content-Type: text/html\r\n\r\n"},
      {"http://127.0.0.1:8000", 0, true,
       "HTTP/1.1 200 OK\r\nServer: Tarnwick\r\n"
       "Access-Control-Allow-Origin: http://127.0.0.1:8000\r\nConnection: close\r\n"
       "Cache-Control: no-cache, no-store, must-revalidate\r\nPragma: no-cache\r\nExpires: 0\r\n"
       "Content-Type: text/html\r\nContent-Length: 0\r\n\r\n"},
      {"null", 2147483647, false,
       "HTTP/1.1 200 OK\r\nServer: Tarnwick\r\nAccess-Control-Allow-Origin: null\r\n"
       "Connection: close\r\nContent-Type: text/html\r\nContent-Length: 2147483647\r\n\r\n"},
  };
  for (const Case& c : cases) {
    CSocketPair pair;
    pair.Connection().SetName(c.origin);
    SendResponseHead(pair.Connection(), "text/html", c.length, c.noCache);
    EXPECT_EQ(pair.Written(), c.head) << "origin \"" << c.origin << "\", length " << c.length;
  }

  CSocketPair pair;
  SendTextResponse(pair.Connection(), "application/json", "[\"x\"]");
  EXPECT_EQ(pair.Written(),
            "HTTP/1.1 200 OK\r\nServer: Tarnwick\r\nConnection: close\r\n"
            "Content-Type: application/json\r\n\r\n[\"x\"]\r\n");
}

TEST(HttpResponder, RequestOriginBecomesTheConnectionName) {
  struct Case {
    std::string request;
    const char *target, *origin;
  } cases[] = {
      {"GET /d?x=1 HTTP/1.1\r\nHost: h\r\nOrigin: http://127.0.0.1:4000\r\n\r\n", "/d?x=1",
       "http://127.0.0.1:4000"},
      {"GET / HTTP/1.0\r\nAccept: */*\r\n\r\n", "/", ""},
      {"\r\n\r\nPOST /p HTTP/1.1\r\norigin:  https://a.example  \r\n\r\nbody", "/p",
       "https://a.example"},
  };
  for (const Case& c : cases) {
    CSocketPair pair;
    pair.Feed(c.request);
    EXPECT_EQ(AsString(ReadHttpRequest(pair.Connection()).target), c.target) << c.request;
    EXPECT_EQ(AsString(pair.Connection().GetName()), c.origin) << c.request;
  }
  for (const char* request : {"", "GARBAGE\r\n\r\n", "GET / HTTP/1.1\r\nNo colon\r\n\r\n",
                              "GET / HTTP/1.1\r\nHost: x\r\n"}) {
    CSocketPair pair;
    pair.Feed(request);
    EXPECT_EQ(HttpErrorOf([&] { ReadHttpRequest(pair.Connection()); }), "Bad HTTP request")
        << request;
  }
}

}  // namespace
}  // namespace zelph
