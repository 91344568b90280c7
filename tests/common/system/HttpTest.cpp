// HTTP, HTTPS, multipart bodies and the update client against real peers: socket pairs, loopback.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <thread>

#include "CChildProcess.h"
#include "CLoopbackListener.h"
#include "TestFiles.h"
#include "TraceLog.h"
#include "common/base/CException.h"
#include "common/system/CHttpsConnection.h"
#include "common/system/CHttpsConnectionFactory.h"
#include "common/system/CMultipartReader.h"
#include "common/system/CUnixSocket.h"
#include "common/system/HttpResponder.h"
#include "common/system/UpdateClient.h"

// Designated initializers name only the child options a test sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace zelph {
namespace {

const auto Str = [](const auto& text) { return std::string(text.View()); };
const auto Bytes = [](const CByteBuffer& b) { return std::string(b.begin(), b.end()); };

// Tracing on, and OpenSSL offering the anonymous suites so that the client
// can meet servers without a certificate: both before the first use.
[[maybe_unused]] const bool kSetUp = [] {
  static const CTestDir dir("http");
  WriteFile(dir.File("ssl.cnf"),
            "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n"
            "[c]\nCipherString = ALL:@SECLEVEL=0\n");
  return setenv("OPENSSL_CONF", dir.File("ssl.cnf").c_str(), 1) == 0 && !TraceThisProcess().empty();
}();

// What `action` returns, or the text of the CException it throws.
std::string OutcomeOf(const std::function<std::string()>& action) {
  try {
    return action();
  } catch (const CException& exception) {
    return Str(exception.GetEvent().GetText());
  }
}

// The texts of the trace lines `call` adds (a session's header left out), one a line.
std::string TraceOf(const std::function<void()>& call) {
  const std::size_t before = ReadLogs(TraceThisProcess()).size();
  call();
  std::string texts;
  for (const std::string& line : SplitLines(ReadLogs(TraceThisProcess()).substr(before)))
    if (const CTraceLine split = SplitTraceLine(line); split.valid) texts += split.text + "\n";
  return texts;
}

// Runs `action` on a connection whose peer (a socket pair) sent `input` and closed
// its side: what `action` returned (or the error) and what the connection wrote.
std::pair<std::string, std::string> Exchange(
    const std::string& input, const std::function<std::string(CHttpConnection&)>& action) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  EXPECT_EQ(write(ends[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
  shutdown(ends[1], SHUT_WR);
  const std::string outcome =
      OutcomeOf([&] { return action(*std::make_unique<CHttpConnection>(ends[0])); });
  std::string written(1 << 20, '\0');
  written.resize(std::max<ssize_t>(0, recv(ends[1], written.data(), written.size(), MSG_WAITALL)));
  close(ends[1]);
  return {outcome, written};
}

// A TLS 1.2 server context with `ciphers`; "aNULL" needs no certificate.
std::shared_ptr<SSL_CTX> ServerContext(const char* ciphers) {
  const std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
  return SSL_CTX_set_cipher_list(context.get(), ciphers), context;
}

TEST(HttpParsing, UrlsSplitIntoSchemeHostPortAndPath) {
  for (const auto& [text, parts] : std::vector<std::pair<const char*, std::string>>{
           {"http://host", "http host / 80"},
           {"https://h:8443/a?b=c", "https h /a?b=c 8443"},
           {"HTTPS://h", "HTTPS h / 80"},  // the scheme compares exactly
           {"ftp://h:65535/r?u=http://x", "ftp h /r?u=http://x 65535"}}) {
    const CUrl url = ParseUrl(text);
    EXPECT_EQ(Str(url.scheme + " " + url.host + " " + url.path) + " " + std::to_string(url.port),
              parts);
  }
  for (const char* text :
       {"", "host/path", "http:/host", "http://", "http:///p", "http://:80/", "http://h:/",
        "http://h:65536/", "http://h:8a/", "http://h:99999999999999999999/"}) {
    EXPECT_FALSE(ParseUrl(text).IsValid()) << "accepted as a URL: " << text;
  }
}

// The parts of the multipart body behind the response head, read `chunk`
// bytes at a time: each part's header lines, then its data in brackets.
std::string PartsOf(CHttpConnection& connection, int chunk) {
  connection.ReadResponseHead();
  CMultipartReader reader(connection);
  std::string parts;
  std::vector<char> buffer(chunk);
  for (CHttpHeaders headers; reader.NextPart(headers); parts += "]") {
    for (const auto& [name, value] : headers) parts += Str(name) + ": " + Str(value) + "\n";
    parts += "[";
    for (int got; (got = reader.Read(buffer.data(), chunk)) > 0;) parts.append(buffer.data(), got);
  }
  return parts;
}

TEST(MultipartReader, SplitsBodiesIntoPartsOrFindsThemInvalid) {
  std::string big;
  for (int i = 0; i < 30000; ++i) big.push_back("ab\r\n-\r"[i % 6]);
  const std::string bad = "Invalid multipart data";
  const auto partsOf = [](const std::string& type, const std::string& body, int chunk) {
    const std::string response = "HTTP/1.1 200 OK\r\nContent-Type: " + type + "\r\n\r\n" + body;
    return Exchange(response, [chunk](CHttpConnection& c) { return PartsOf(c, chunk); }).first;
  };
  for (const auto& [line, body, parts] : std::vector<std::tuple<int, std::string, std::string>>{
           {__LINE__,
            "pre\r\n--XyZ\r\nContent-Type: a/b\r\n\r\n1\r\n--XyZ\r\n\r\n2\r\n--Xy\r\n--XyZ--\r\n",
            "content-type: a/b\n[1][2\r\n--Xy]"},
           {__LINE__, "--XyZ\r\n\r\nA\r\n--XyZ--", "[A]"},
           {__LINE__, "--XyZ \t\r\nX: y\r\n\r\n\r\n--XyZ\r\n\r\n\r\r\n\r\n--XyZ--",
            "x: y\n[][\r\r\n]"},
           {__LINE__, "--XyZ\r\n\r\n" + big + "\r\n--XyZ--", "[" + big + "]"},
           {__LINE__, "--XyZ\r\n\r\nA\r\n--XyZxx\r\n", bad},
           {__LINE__, "--XyZ\r\n\r\nA", bad},
           {__LINE__, "--XyZ\r\nNo colon\r\n\r\nA\r\n--XyZ--", bad}}) {
    SCOPED_TRACE(testing::Message() << "line " << line);
    for (const int chunk : {1, 7, 4096}) {
      EXPECT_EQ(partsOf("multipart/mixed; a=b; BOUNDARY=\"XyZ\"", body, chunk), parts)
          << "read " << chunk << " bytes at a time";
    }
  }
  EXPECT_EQ(partsOf("multipart/mixed", "--XyZ--", 9), bad) << "no boundary";
}

TEST(HttpConnection, SendsFixedRequestsAndReadsResponsesOrThrows) {
  const std::string body = "hello\r\n" + std::string(9000, 'b');  // begins in the head's read
  for (const auto& [line, reply, outcome] : std::vector<std::tuple<int, std::string, std::string>>{
           {__LINE__, "HTTP/1.0 201 OK\r\nContent-Type: a/b\r\nX-Two: a\r\nx-two: b\r\n\r\n" + body,
            "a/b a, b " + body},
           {__LINE__, "HTTP/1.1 4294967296 Big\r\n\r\n", "Bad HTTP response"},
           {__LINE__, "HTTP/1.1 200 OK\r\nNo colon\r\n\r\n", "Bad HTTP response"},
           {__LINE__, "HTTP/1.1 200 OK\r\nContent-Type: a/b\r\n", "Bad HTTP response"},
           {__LINE__, std::string(70000, 'a'), "HTTP line too long"}}) {
    SCOPED_TRACE(testing::Message() << "line " << line);
    const auto [response, request] = Exchange(reply, [](CHttpConnection& c) {
      c.Get(ParseUrl("http://h/a?b=%20"));
      return Str(c.GetHeader("Content-Type")) + " " + Str(c.GetHeader("X-TWO")) + " " +
             Bytes(c.ReceiveAll());
    });
    EXPECT_EQ(request,
              "GET /a?b=%20 HTTP/1.0\r\nUser-Agent: ZELPH\r\nOrigin: localhost\r\nAccept: */*\r\n"
              "Host: h\r\n\r\n");
    EXPECT_EQ(response, outcome);
  }
}

TEST(HttpsConnection, ServesAnonymouslyRefusesCertificatesAndFailsBrokenHandshakesCleanly) {
  const CTestDir dir("https");
  CChildProcess request(
      {.command = {"/bin/sh", "-c",
                   "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                   "-keyout key.pem -out cert.pem -subj /CN=zelph-test.localhost"},
       .workDir = dir.Path()});
  ASSERT_TRUE(request.Finish()) << request.Describe();
  const auto anonymous = ServerContext("aNULL:@SECLEVEL=0"), certified = ServerContext("DEFAULT");
  SSL_CTX_use_certificate_file(certified.get(), dir.File("cert.pem").c_str(), SSL_FILETYPE_PEM);
  SSL_CTX_use_PrivateKey_file(certified.get(), dir.File("key.pem").c_str(), SSL_FILETYPE_PEM);
  // The server side with `context`, or a peer that breaks the handshake: it reads the ClientHello
  // or not, sends `reply`, then resets (an RST, by SO_LINGER 0) or closes once the client gave up.
  const auto peer = [](SSL_CTX* context, bool readHello, std::string reply, bool reset) {
    return [=](int descriptor) {
      if (context != nullptr) {
        CHttpsConnection connection(descriptor, context);
        SendTextResponse(connection, "a/b", Str(ReadHttpRequest(connection).target).c_str());
        return (void)shutdown(descriptor, SHUT_WR);  // no TLS close message, as some servers do
      }
      char hello[4096];
      if (readHello) recv(descriptor, hello, sizeof hello, 0);
      send(descriptor, reply.data(), reply.size(), MSG_NOSIGNAL);
      const linger abort{1, 0};
      if (reset) setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
      for (shutdown(descriptor, SHUT_WR); !reset && recv(descriptor, hello, sizeof hello, 0) > 0;) {
      }
      close(descriptor);
    };
  };
  // A vanished peer is named by SSL_get_error's kind (5 or 6), a protocol error by OpenSSL's text.
  const std::string gone = "SSL connect failed: gone", text = "SSL connect failed: error:";
  const std::vector<std::tuple<int, CLoopbackListener::CHandler, std::string>> cases = {
      {__LINE__, peer(anonymous.get(), false, "", false), "localhost /in?q=1\r\n"},
      {__LINE__, peer(certified.get(), false, "", false), "SSL check certificate not implemented"},
      {__LINE__, peer(nullptr, false, "", true), gone},
      {__LINE__, peer(nullptr, true, "", false), gone},
      {__LINE__, peer(nullptr, false, "HTTP/1.0 400 Bad Request\r\n\r\n", false), text}};
  for (const auto& [line, handler, expected] : cases) {
    SCOPED_TRACE(testing::Message() << "line " << line);
    CLoopbackListener listener(handler);
    const std::string outcome = OutcomeOf([&] {
      const CUrl url = ParseUrl(listener.Url("/in?q=1", "https"));
      const auto client = CHttpsConnectionFactory().CreateConnection(url);
      client->Open(url);
      client->Get(url);
      return Str(client->GetHeader("Access-Control-Allow-Origin")) + " " +
             Bytes(client->ReceiveAll());
    });
    const bool vanished = outcome == "SSL connect failed: 5" || outcome == "SSL connect failed: 6";
    EXPECT_EQ(vanished ? gone : outcome.substr(0, expected.size()), expected) << outcome;
  }
  EXPECT_EQ(CountOf(ReadLogs(TraceThisProcess()), "\tSubject: /CN=zelph-test.localhost\n"), 1)
      << "the refused certificate's subject is traced";
}

// Each case writes to a gone peer in a child in which SIGPIPE would end the process.
TEST(Sockets, WritingToAGonePeerFailsInsteadOfRaisingSigPipe) {
  const auto context = ServerContext("aNULL:@SECLEVEL=0");
  CLoopbackListener tls([&](int fd) { const CHttpsConnection accepted(fd, context.get()); });
  const CTestDir dir("pipe");
  const std::vector<std::uint8_t> chunk(16 * 1024, 'x');
  const auto unixSocket = [&] {  // the first Unix socket of a process makes SIGPIPE harmless
    const auto listener = CUnixSocket::Listen(dir.File("s").c_str());
    const auto client = CUnixSocket::Connect(dir.File("s").c_str(), 1);
    listener->Accept().reset();
    for (int i = 0; i < 1000; ++i) client->Write(chunk.data(), chunk.size());
  };
  const auto http = [&] {
    int ends[2] = {-1, -1};
    socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    close(ends[1]);
    CHttpConnection(ends[0]).SendBytes(chunk.data(), chunk.size());
  };
  const auto https = [&] {
    CHttpsConnection connection;
    connection.Open(ParseUrl(tls.Url("/", "https")));
    for (int i = 0; i < 1000; ++i) connection.SendBytes(chunk.data(), chunk.size());
  };
  for (const auto& [line, write, error] :
       std::vector<std::tuple<int, std::function<void()>, std::string>>{
           {__LINE__, unixSocket, "The call to <write> failed for the following reason: "},
           {__LINE__, http, "Unable to send data: Broken pipe"},
           {__LINE__, https, "Unable to send data: "}}) {
    CChildProcess child({.body = [&] {
      signal(SIGPIPE, SIG_DFL);
      return std::fputs(OutcomeOf([&] { return write(), "<no error>"; }).c_str(), stdout) < 0;
    }});
    SCOPED_TRACE(testing::Message() << "line " << line);
    EXPECT_TRUE(child.Finish() && child.Output().starts_with(error)) << child.Describe();
  }
}

TEST(UpdateClient, ListsAndDownloadsWithEncodedQueriesAndTracesEachStep) {
  std::string body(300000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i % 251);
  const auto serve = [](std::string answer) {
    return [answer](int descriptor) {
      CHttpConnection connection(descriptor);
      ReadHttpRequest(connection);
      SendTextResponse(connection, "a/b", CISOString(answer.data(), answer.size()));
    };
  };
  CLoopbackListener json(serve("[\"a b.txt\", 5, \"\", \"c\\u00e9.bin\",]")), html(serve("<p>")),
      file(serve(body));
  const std::string refused = CLoopbackListener([](int) {}).Url();
  for (const auto& [line, url, names, trace] :
       std::vector<std::tuple<int, std::string, std::string, std::string>>{
           {__LINE__, json.Url(), "a b.txt|c\xC3\xA9.bin|",
            "\tFound file: a b.txt\n\tFound file: c\xE9.bin\n"},
           {__LINE__, html.Url(), "", "\tFailed: The update server's answer is not JSON\n"},
           {__LINE__, refused, "", "\tFailed: Connection failed: Connection refused\n"},
           {__LINE__, "gopher://h", "", "\tFailed: Invalid protocol :gopher\n"}}) {
    SCOPED_TRACE(testing::Message() << "line " << line);
    std::string listed;
    EXPECT_EQ(
        TraceOf([&] {
          for (const CUTF8String& name :
               ListRemoteDownloadFiles(url.c_str(), "my dir", "*.txt&x=1", "id \xC3\xA9"))
            listed += Str(name) + "|";
        }),
        "Entering List remote download files.\nAsking update server: " + url +
            "/downloads/index.php?directory=my%20dir&pattern=*.txt%26x%3D1&clientId=id%20%C3%A9\n" +
            trace + "Leaving List remote download files.\n");
    EXPECT_EQ(listed, names) << "strings only, empty ones skipped";
  }
  const CTestDir dir("update");
  WriteFile(dir.File("f"), "old");
  EXPECT_EQ(
      TraceOf([&] { DownloadFile(file.Url().c_str(), "d x", "f&g.bin", dir.File("f").c_str()); }),
      "Downloading: " + file.Url() + "/downloads/download.php?directory=d%20x&name=f%26g.bin\n");
  EXPECT_TRUE(ReadFile(dir.File("f")) == body + "\r\n") << "the file is not the body";
  EXPECT_EQ(
      OutcomeOf([&] { return DownloadFile(refused.c_str(), "d", "n", dir.File("f").c_str()), ""; }),
      "Connection failed: Connection refused");
  EXPECT_TRUE(ReadFile(dir.File("f")) == body + "\r\n") << "a failed download changed the file";
}

// Each hostile peer ends the call in a clear exception within the time-out
// (300 ms here) and the bounds; the address space is limited to 2 GiB (but
// for sanitizer builds, whose shadow memory needs more), so that a missing
// bound fails instead of exhausting the machine.
TEST(HttpLimits, HostilePeersEndInClearExceptionsWithinTheTimeOutAndTheBounds) {
  rlimit before{};
  getrlimit(RLIMIT_AS, &before);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  rlimit bounded = before;
  bounded.rlim_cur = std::min<rlim_t>(before.rlim_cur, rlim_t{2} << 30);
  setrlimit(RLIMIT_AS, &bounded);
#endif
  const CHttpLimits limits{std::chrono::milliseconds(300), 1 << 20};
  // Each handler reads the request, answers, and closes its descriptor: after an RST (SO_LINGER 0)
  // at once, otherwise once the client has given up.
  const auto sendThen = [](std::string first, std::string again, bool reset) {
    return [=](int fd) {
      std::string request;  // the whole head, which the client sends line by line
      char b[4096];
      for (ssize_t n;
           request.find("\r\n\r\n") == std::string::npos && (n = recv(fd, b, sizeof b, 0)) > 0;) {
        request.append(b, static_cast<std::size_t>(n));
      }
      send(fd, first.data(), first.size(), MSG_NOSIGNAL);
      while (!again.empty() && send(fd, again.data(), again.size(), MSG_NOSIGNAL) > 0) {
      }
      const linger abort{1, 0};
      if (reset) setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
      while (!reset && recv(fd, b, sizeof b, 0) > 0) {
      }
      close(fd);
    };
  };
  const auto quietUntilClosed = sendThen("", "", false);
  const std::string head = "HTTP/1.0 200 OK\r\n\r\n", timedOut = "timed out after 300 ms";
  const CTestDir dir("limits");
  const auto download = [&](const std::string& url) {
    DownloadFile(url.c_str(), "d", "n", dir.File("f").c_str(), limits);
    return std::string("downloaded");
  };
  const auto get = [&](const std::string& url) {
    const CUrl parsed = ParseUrl(url);
    const auto client = CHttpsConnectionFactory().CreateConnection(parsed);
    client->SetTimeout(limits.timeout);
    client->Open(parsed);
    client->Get(parsed);
    return Bytes(client->ReceiveAll(limits.maxBodySize));
  };
  for (const auto& [line, handler, scheme, fetch, expected] :
       std::vector<std::tuple<int, CLoopbackListener::CHandler, std::string,
                              std::function<std::string(const std::string&)>, std::string>>{
           {__LINE__, quietUntilClosed, "http", get, "Unable to receive data: " + timedOut},
           {__LINE__, sendThen("HTTP/1.0 200 OK\r\nServer: x", "", false), "http", get,
            "Unable to receive data: " + timedOut},
           {__LINE__,
            sendThen(head.substr(0, 17), "Set-Cookie: " + std::string(1000, 'a') + "\r\n", false),
            "http", get, "HTTP head too large"},
           {__LINE__, sendThen(head, std::string(65536, 'b'), false), "http", get,
            "HTTP body larger than 1048576 bytes"},
           {__LINE__, quietUntilClosed, "https", get, "SSL connect failed: handshake " + timedOut},
           {__LINE__, sendThen(head, std::string(65536, 'b'), false), "http", download,
            "HTTP body larger than 1048576 bytes"},
           {__LINE__, sendThen(head + "part of a body", "", true), "http", download,
            "Unable to receive data: Connection reset by peer"}}) {
    SCOPED_TRACE(testing::Message() << "line " << line);
    WriteFile(dir.File("f"), "old");
    CLoopbackListener listener(handler);
    EXPECT_EQ(OutcomeOf([&] { return fetch(listener.Url("/", scheme)); }), expected);
    EXPECT_EQ(ReadFile(dir.File("f")), "old") << "a failed download changed the file";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), {}), 1)
        << "a failed download left a file behind";
  }

  // A listener whose backlog is full: the connect itself gets no answer.
  const int full = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0),
            filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t size = sizeof address;
  bind(full, reinterpret_cast<sockaddr*>(&address), size);
  listen(full, 0);
  getsockname(full, reinterpret_cast<sockaddr*>(&address), &size);
  connect(filler, reinterpret_cast<sockaddr*>(&address), size);
  EXPECT_EQ(
      OutcomeOf([&] { return get("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port))); }),
      "Connection failed: Connection timed out");
  close(filler);
  close(full);

  // The responder's side: a client that sends nothing, one that sends blank lines for ever.
  for (const auto& [line, input, expected] : std::vector<std::tuple<int, std::string, std::string>>{
           {__LINE__, "", "Unable to receive data: " + timedOut},
           {__LINE__, "\r\n", "HTTP head too large"}}) {
    SCOPED_TRACE(testing::Message() << "line " << line);
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    std::thread writer([&, input = input] {
      while (!input.empty() && send(ends[1], input.data(), input.size(), MSG_NOSIGNAL) > 0) {
      }
    });
    EXPECT_EQ(OutcomeOf([&] {
                CHttpConnection server(ends[0]);
                server.SetTimeout(limits.timeout);
                return Str(ReadHttpRequest(server).target);
              }),
              expected);
    shutdown(ends[1], SHUT_RDWR);
    writer.join();
    close(ends[1]);
  }
  setrlimit(RLIMIT_AS, &before);
}

}  // namespace
}  // namespace zelph
