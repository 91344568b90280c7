#include "common/system/CHttpsConnection.h"

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "HttpTestSupport.h"
#include "SystemTestSupport.h"
#include "common/system/CHttpsConnectionFactory.h"
#include "common/system/HttpResponder.h"

namespace zelph {
namespace {

using CContextPtr = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

// A server context without a certificate: anonymous suites over TLS 1.2.
CContextPtr AnonymousServerContext() {
  CContextPtr context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  EXPECT_NE(context, nullptr);
  SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_cipher_list(context.get(), "aNULL:@SECLEVEL=0");
  return context;
}

TEST(HttpsConnection, ServerCertificateIsTracedAndRefused) {
  const CWatchdog watchdog;
  const CTempDir dir;
  const std::string subject = "/CN=zelph-test.localhost/O=zelph tests";
  ASSERT_EQ(std::system(("cd " + dir.Path() +
                         " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 "
                         "-nodes -keyout key.pem -out cert.pem -days 2 -subj '" +
                         subject + "' 2>req.log")
                            .c_str()),
            0)
      << ReadFile(dir.File("req.log"));
  const COpenSslServer server({"-cert", "cert.pem", "-key", "key.pem"}, dir.Path());
  ASSERT_NE(server.Port(), 0) << "s_server did not start: " << server.Output();

  CHttpsConnection connection;
  EXPECT_EQ(HttpErrorOf([&] {
              connection.Open(ParseUrl("https://127.0.0.1:" + std::to_string(server.Port())));
            }),
            "SSL check certificate not implemented")
      << "a certificate must never be trusted without validation";
  const std::string log = TraceLogText();
  const std::size_t header = log.find("Server certificates:\n");
  ASSERT_NE(header, std::string::npos) << log;
  EXPECT_NE(log.find("\tSubject: " + subject + "\n", header), std::string::npos)
      << "no subject line after the header:\n"
      << log.substr(header);
}

TEST(HttpsConnection, ServerWithoutCertificateIsAcceptedAndServes) {
  const CWatchdog watchdog;
  const CTempDir dir;
  WriteFile(dir.File("hello.txt"), "hello over TLS\n");
  const COpenSslServer server({"-nocert", "-cipher", "aNULL:@SECLEVEL=0", "-no_tls1_3"},
                              dir.Path());
  ASSERT_NE(server.Port(), 0) << "s_server did not start: " << server.Output();

  const CUrl url = ParseUrl("https://127.0.0.1:" + std::to_string(server.Port()) + "/hello.txt");
  CHttpsConnection connection;
  ASSERT_EQ(HttpErrorOf([&] { connection.Open(url); }), "<no exception>") << server.Output();
  connection.Get(url);
  EXPECT_EQ(connection.GetStatus().code, 200);
  EXPECT_EQ(AsString(connection.ReceiveAll()), "hello over TLS\n");
}

TEST(HttpsConnection, ServerSideAcceptRejectsPlainHttpClient) {
  const CWatchdog watchdog;
  const CContextPtr context = AnonymousServerContext();
  CTestServer server(
      [&context](int descriptor) { const CHttpsConnection connection(descriptor, context.get()); });
  const CUrl url = ParseUrl(server.Url("/"));
  CHttpConnection client;
  client.Open(url);
  EXPECT_NE(HttpErrorOf([&] { client.Get(url); }), "<no exception>");
  ASSERT_TRUE(server.WaitServed(1));
  const std::vector<std::string> errors = server.Errors();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(errors[0].starts_with("SSL accept failed: error:")) << errors[0];
  EXPECT_NE(errors[0].find("http request"), std::string::npos) << "OpenSSL's reason: " << errors[0];
}

TEST(HttpsConnection, RoundTripThroughServerSideTlsAndResponder) {
  const CWatchdog watchdog;
  const CContextPtr context = AnonymousServerContext();
  CRequestLog log;
  CTestServer server([&](int descriptor) {
    CHttpsConnection connection(descriptor, context.get());
    log.Read(connection);
    SendTextResponse(connection, "text/plain", "secret");
    // TCP closes before the TLS close message, as some HTTP/1.0 servers do.
    shutdown(descriptor, SHUT_WR);
  });
  const CUrl url = ParseUrl(server.Url("/inside?q=1", "https"));
  const std::unique_ptr<CHttpConnection> connection =
      CHttpsConnectionFactory().CreateConnection(url);
  connection->Open(url);
  connection->Get(url);
  EXPECT_EQ(AsString(connection->GetHeader("Access-Control-Allow-Origin")), "localhost")
      << "the responder echoes the client's origin";
  EXPECT_EQ(HttpErrorOf([&] { EXPECT_EQ(AsString(connection->ReceiveAll()), "secret\r\n"); }),
            "<no exception>");
  ASSERT_TRUE(server.WaitServed(1));
  ASSERT_EQ(log.All().size(), 1u);
  EXPECT_EQ(log.All()[0].target, "/inside?q=1");
}

TEST(HttpsConnection, HandshakeFailuresAreConnectFailures) {
  const CWatchdog watchdog;
  const CTestServer::CHandler answerPlainHttp = [](int descriptor) {
    CHttpConnection connection(descriptor);
    connection.SendString("HTTP/1.0 400 Bad Request\r\n\r\n");
    shutdown(descriptor, SHUT_WR);
    for (char rest[512]; connection.Receive(rest, sizeof rest) > 0;) {
    }
  };
  for (const CTestServer::CHandler& handler :
       {answerPlainHttp, CTestServer::CHandler([](int descriptor) { close(descriptor); })}) {
    CTestServer server(handler);
    CHttpsConnection connection;
    const std::string error =
        HttpErrorOf([&] { connection.Open(ParseUrl(server.Url("/", "https"))); });
    EXPECT_TRUE(error.starts_with("SSL connect failed: ")) << error;
  }
  CHttpsConnection connection;
  EXPECT_EQ(HttpErrorOf([&] { connection.Open(ParseUrl("http://127.0.0.1/")); }),
            "Unknown URL scheme");
}

TEST(HttpsConnection, SendingToAClosedPeerThrowsInsteadOfRaisingSigPipe) {
  const CWatchdog watchdog;
  const CContextPtr context = AnonymousServerContext();
  CTestServer server(
      [&context](int descriptor) { const CHttpsConnection connection(descriptor, context.get()); });
  CHttpsConnection connection;
  connection.Open(ParseUrl(server.Url("/", "https")));
  ASSERT_TRUE(server.WaitServed(1));
  const std::string chunk(16 * 1024, 'x');
  const std::string error = HttpErrorOf([&] {
    for (int i = 0; i < 1000; ++i) connection.SendBytes(chunk.data(), chunk.size());
  });
  EXPECT_TRUE(error.starts_with("Unable to send data: ")) << error;
}

}  // namespace
}  // namespace zelph
