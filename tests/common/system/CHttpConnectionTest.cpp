#include "common/system/CHttpConnection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HttpTestSupport.h"
#include "common/system/CHttpConnectionFactory.h"
#include "common/system/CHttpsConnection.h"
#include "common/system/CHttpsConnectionFactory.h"
#include "common/system/HttpResponder.h"

namespace zelph {
namespace {

TEST(HttpConnection, GetSendsTheFixedRequestAndReadsHeadAndBody) {
  const CWatchdog watchdog;
  std::vector<std::string> seen;
  CTestServer server(PlainHandler([&seen](CHttpConnection& connection) {
    for (CISOString line; connection.ReceiveLine(line) && !line.IsEmpty();) {
      seen.push_back(AsString(line));
    }
    connection.SendString(
        "HTTP/1.0 201 Created\r\nContent-Type: text/plain\r\nX-Two: a\r\nx-two: b\r\n\r\n"
        "hello\r\nworld");
  }));
  const CUrl url = ParseUrl(server.Url("/a/b?c=d%20e"));
  CHttpConnection connection;
  connection.Open(url);
  EXPECT_EQ(AsString(connection.GetName()), "127.0.0.1") << "a client is named after its host";
  connection.Get(url);
  const std::string body = AsString(connection.ReceiveAll());
  ASSERT_TRUE(server.WaitServed(1));

  EXPECT_EQ(seen,
            (std::vector<std::string>{"GET /a/b?c=d%20e HTTP/1.0", "User-Agent: ZELPH",
                                      "Origin: localhost", "Accept: */*", "Host: 127.0.0.1"}));
  EXPECT_EQ(connection.GetStatus().minorVersion, 0);
  EXPECT_EQ(connection.GetStatus().code, 201);
  EXPECT_EQ(AsString(connection.GetHeader("Content-Type")), "text/plain");
  EXPECT_EQ(AsString(connection.GetHeader("X-TWO")), "a, b") << "repeated header joined";
  EXPECT_EQ(body, "hello\r\nworld") << "the body runs to the close";
}

TEST(HttpConnection, PostSendsFormBodyWithItsLength) {
  const CWatchdog watchdog;
  CRequestLog log;
  CTestServer server(PlainHandler([&log](CHttpConnection& connection) {
    SendTextResponse(connection, "text/plain", ("got " + log.Read(connection).body).c_str());
  }));
  const CUrl url = ParseUrl(server.Url("/form"));
  const std::string form = "name=" + AsString(PercentEncode("a b&c")) + "&x=%C3%A9";
  CHttpConnection connection;
  connection.Open(url);
  connection.Post(url, CISOString(form.data(), form.size()));
  EXPECT_EQ(AsString(connection.ReceiveAll()), "got " + form + "\r\n");

  ASSERT_EQ(log.All().size(), 1u);
  CSeenRequest request = log.All()[0];
  EXPECT_EQ(request.method + " " + request.target, "POST /form");
  EXPECT_EQ(request.body, form);
  EXPECT_EQ(AsString(request.headers["content-length"]), std::to_string(form.size()));
  EXPECT_EQ(AsString(request.headers["content-type"]), "application/x-www-form-urlencoded");
  EXPECT_EQ(AsString(request.headers["user-agent"]), "ZELPH");
  EXPECT_EQ(request.origin, "localhost");
  EXPECT_EQ(AsString(request.headers["host"]), "127.0.0.1");
  EXPECT_EQ(request.headers.count("accept"), 0u) << "POST sends no Accept line";
}

TEST(HttpConnection, LinesEndOnlyAtCarriageReturnLineFeed) {
  const CWatchdog watchdog;
  CTestServer server([](int descriptor) {
    // In pieces, so that a line end can fall between two reads.
    for (const char* piece : {"one\r", "\ntwo\nstill two\r\n", "\r\n", "last without end"}) {
      send(descriptor, piece, std::strlen(piece), MSG_NOSIGNAL);
    }
    close(descriptor);
  });
  CHttpConnection connection;
  connection.Open(ParseUrl(server.Url()));
  std::vector<std::string> lines;
  for (CISOString line; connection.ReceiveLine(line);) lines.push_back(AsString(line));
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two\nstill two", "", "last without end"}));
}

TEST(HttpConnection, BadResponsesThrowInsteadOfHanging) {
  const CWatchdog watchdog;
  struct Case {
    const char* what;
    std::string reply, error;
  } cases[] = {
      {"version 2", "HTTP/2 200 OK\r\n\r\n", "Bad HTTP response"},
      {"code beyond 32 bits", "HTTP/1.1 4294967296 Big\r\n\r\n", "Bad HTTP response"},
      {"header without colon", "HTTP/1.1 200 OK\r\nNoColonHere\r\n\r\n", "Bad HTTP response"},
      {"head cut off", "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n", "Bad HTTP response"},
      {"closed without answer", "", "Bad HTTP response"},
      {"endless line", std::string(CHttpConnection::kMaxLineLength + 10, 'a'),
       "HTTP line too long"},
  };
  for (const Case& c : cases) {
    CTestServer server(RawReplyHandler(c.reply));
    const CUrl url = ParseUrl(server.Url("/"));
    CHttpConnection connection;
    connection.Open(url);
    EXPECT_EQ(HttpErrorOf([&] { connection.Get(url); }), c.error) << c.what;
  }
}

TEST(HttpConnection, SendingToAClosedPeerThrowsInsteadOfRaisingSigPipe) {
  const CWatchdog watchdog;
  CTestServer server([](int descriptor) { close(descriptor); });
  CHttpConnection connection;
  connection.Open(ParseUrl(server.Url()));
  ASSERT_TRUE(server.WaitServed(1));
  const std::string chunk(64 * 1024, 'x');
  const std::string error = HttpErrorOf([&] {
    for (int i = 0; i < 1000; ++i) connection.SendBytes(chunk.data(), chunk.size());
  });
  EXPECT_TRUE(error == "Unable to send data: Broken pipe" ||
              error == "Unable to send data: Connection reset by peer")
      << error;
}

TEST(HttpConnection, OpenReportsBadUrlsAndUnreachableServers) {
  const CWatchdog watchdog;
  const std::string refused = [] { return CTestServer([](int) {}).Url(); }();
  struct Case {
    std::string url, error;
  } cases[] = {
      {"https://127.0.0.1/", "Unknown URL scheme"},
      {"no url", "Invalid URL format"},
      {"http://no-such-host.invalid/", "Host \"no-such-host.invalid\" not found"},
      {refused, "Connection failed: Connection refused"},
  };
  for (const Case& c : cases) {
    CHttpConnection connection;
    EXPECT_EQ(HttpErrorOf([&] { connection.Open(ParseUrl(c.url)); }), c.error) << c.url;
  }
}

TEST(HttpConnection, FactoriesPickTheClassByScheme) {
  const CHttpConnectionFactory plain;
  const CHttpsConnectionFactory secure;
  const auto isTls = [](const std::unique_ptr<CHttpConnection>& connection) {
    return dynamic_cast<CHttpsConnection*>(connection.get()) != nullptr;
  };
  EXPECT_FALSE(isTls(plain.CreateConnection(ParseUrl("http://h"))));
  EXPECT_TRUE(isTls(secure.CreateConnection(ParseUrl("https://h"))));
  EXPECT_FALSE(isTls(secure.CreateConnection(ParseUrl("http://h"))));
  EXPECT_EQ(HttpErrorOf([&] { plain.CreateConnection(ParseUrl("https://h")); }),
            "Invalid protocol :https");
  for (const CHttpConnectionFactory* factory :
       std::initializer_list<const CHttpConnectionFactory*>{&plain, &secure}) {
    EXPECT_EQ(HttpErrorOf([&] { factory->CreateConnection(ParseUrl("ftp://h/x")); }),
              "Invalid protocol :ftp");
  }
}

}  // namespace
}  // namespace zelph
