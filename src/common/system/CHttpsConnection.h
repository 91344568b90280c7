// The TLS variant of the HTTP connection, on OpenSSL 3, which the first
// connection loads (COpenSslLibrary).
#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <memory>

#include "common/system/CHttpConnection.h"

namespace zelph {

class COpenSslLibrary;

// An HTTP connection whose bytes travel through a TLS session. Everything
// above the raw transfer (lines, requests, responses) is the base's.
//
// The client side does not validate the server: a server that presents a
// certificate makes Open fail with "SSL check certificate not implemented"
// after the handshake, while a server without one (anonymous cipher suites)
// is accepted. Refusing every certificate is the intended outcome as long as
// no validation exists; it must not be relaxed to trusting them.
class CHttpsConnection final : public CHttpConnection {
 public:
  // A client connection with its own context on the library's default
  // client settings. A context that cannot be made is traced ("ERROR: Unable
  // to create SSL context") and makes Open fail with "SSL connect failed: ".
  // Throws CHttpException "Unable to load libssl.so.3: ..." or "Unable to
  // find <function> in libssl.so.3" when OpenSSL 3 is missing (OpenSsl()).
  CHttpsConnection();
  // The server side on `descriptor`, a socket a listener accepted: performs
  // the TLS accept with `context`, which stays the caller's. The connection
  // owns the descriptor, also when the accept fails. Throws CHttpException
  // "SSL accept failed: " with OpenSSL's error text.
  CHttpsConnection(int descriptor, SSL_CTX* context);

  // SSL_write and SSL_read. A peer that closes the TCP connection without
  // the TLS close message ends the stream like a close (0), as an HTTP/1.0
  // body ends; any other failure of SSL_read is an error (-1, errno EPROTO
  // when the system reported nothing).
  std::int32_t RawSend(const void* buffer, std::int32_t length) override;
  std::int32_t RawReceive(void* buffer, std::int32_t capacity) override;
  // Shuts the session down when its handshake completed, then frees it (and
  // the context of a client connection) before the descriptor is closed.
  ~CHttpsConnection() override;
  // Connects to the host and port of `url`, whose scheme must be "https",
  // sends the host name as SNI, performs the handshake and checks the server
  // certificate (see the class comment). Throws what the base's Open throws
  // with "https" for "http", "SSL connect failed: unable to set tlsext host
  // name", "SSL connect failed: " with OpenSSL's error text for a TLS
  // protocol failure or with the SSL_get_error kind in decimal for the other
  // failures (5 for a peer that reset the connection during the handshake, 6 for one that closed
  // it), "SSL check certificate not implemented" and "Unable to convert cert".
  void Open(const CUrl& url) override;

 private:
  struct CSessionFree {
    const COpenSslLibrary* ssl;
    void operator()(SSL* session) const noexcept;
  };
  struct CContextFree {
    const COpenSslLibrary* ssl;
    void operator()(SSL_CTX* context) const noexcept;
  };

  const COpenSslLibrary& ssl_;  // first: loaded before anything uses it
  std::unique_ptr<SSL, CSessionFree> session_;
  std::unique_ptr<SSL_CTX, CContextFree> context_;  // null on the server side
};

}  // namespace zelph
