#include "common/system/CHttpsConnection.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cerrno>
#include <string>

#include "common/base/CException.h"
#include "common/system/CSigPipeBlock.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

struct CX509Free {
  void operator()(X509* certificate) const noexcept { X509_free(certificate); }
};
struct COpenSslFree {
  void operator()(char* text) const noexcept { OPENSSL_free(text); }
};

// OpenSSL's text for `code`. The caller's buffer keeps it safe from other
// threads, unlike the shared one ERR_error_string uses without a buffer.
std::string ErrorText(unsigned long code) {
  char buffer[256];
  ERR_error_string_n(code, buffer, sizeof buffer);
  return buffer;
}

[[noreturn]] void ThrowHttp(const std::string& text) {
  throw CHttpException(CUTF8String(text.c_str()));
}

// Traces the subject of the server's certificate and refuses it: without
// validation no certificate can be trusted. A server without a certificate
// is accepted.
void CheckServerCertificate(SSL* session) {
  const std::unique_ptr<X509, CX509Free> certificate(SSL_get1_peer_certificate(session));
  if (certificate == nullptr) return;

  TraceString("Server certificates:");
  const std::unique_ptr<char, COpenSslFree> subject(
      X509_NAME_oneline(X509_get_subject_name(certificate.get()), nullptr, 0));
  TraceString("\tSubject: %s", subject != nullptr ? subject.get() : "");

  if (i2d_X509(certificate.get(), nullptr) != 0) ThrowHttp("SSL check certificate not implemented");
  ThrowHttp("Unable to convert cert");
}

}  // namespace

void CHttpsConnection::CSessionFree::operator()(SSL* session) const noexcept {
  SSL_free(session);
}

void CHttpsConnection::CContextFree::operator()(SSL_CTX* context) const noexcept {
  SSL_CTX_free(context);
}

CHttpsConnection::CHttpsConnection() {
  OPENSSL_init_ssl(0, nullptr);
  context_.reset(SSL_CTX_new(TLS_client_method()));
  if (context_ == nullptr) TraceString("ERROR: Unable to create SSL context");
  session_.reset(SSL_new(context_.get()));
  // OpenSSL 3 reports a close without the TLS close message as an error;
  // HTTP/1.0 servers end their bodies that way.
  if (session_ != nullptr) SSL_set_options(session_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
}

CHttpsConnection::CHttpsConnection(int descriptor, SSL_CTX* context)
    : CHttpConnection(descriptor), session_(SSL_new(context)) {
  if (session_ == nullptr) ThrowHttp("SSL accept failed: " + ErrorText(ERR_get_error()));
  SSL_set_options(session_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_set_fd(session_.get(), descriptor);
  ERR_clear_error();
  int result;
  {
    const CSigPipeBlock noSigPipe;
    result = SSL_accept(session_.get());
  }
  if (result < 1) ThrowHttp("SSL accept failed: " + ErrorText(ERR_get_error()));
}

CHttpsConnection::~CHttpsConnection() {
  if (session_ != nullptr && SSL_is_init_finished(session_.get())) {
    const CSigPipeBlock noSigPipe;
    SSL_shutdown(session_.get());
  }
  session_.reset();
  context_.reset();
}

std::int32_t CHttpsConnection::RawSend(const void* buffer, std::int32_t length) {
  const CSigPipeBlock noSigPipe;
  ERR_clear_error();
  return SSL_write(session_.get(), buffer, length);
}

std::int32_t CHttpsConnection::RawReceive(void* buffer, std::int32_t capacity) {
  // Reading may write too (TLS 1.3 key updates).
  const CSigPipeBlock noSigPipe;
  ERR_clear_error();  // SSL_get_error reads the queue
  const int received = SSL_read(session_.get(), buffer, capacity);
  // SSL_read gives 0 for failures too; only the peer's close may look like
  // the end of the stream, or a damaged session would cut a body short.
  if (received <= 0 && SSL_get_error(session_.get(), received) != SSL_ERROR_ZERO_RETURN) {
    if (errno == 0) errno = EPROTO;
    return -1;
  }
  return received;
}

void CHttpsConnection::Open(const CUrl& url) {
  if (!url.IsValid()) ThrowHttp("Invalid URL format");
  CheckUrlScheme(url, "https");
  Connect(url);

  SSL* const session = session_.get();
  if (session == nullptr) ThrowHttp("SSL connect failed: " + ErrorText(ERR_get_error()));
  SSL_set_fd(session, GetDescriptor());
  if (SSL_set_tlsext_host_name(session, url.host.c_str()) == 0) {
    ThrowHttp("SSL connect failed: unable to set tlsext host name");
  }
  ERR_clear_error();
  int result;
  {
    const CSigPipeBlock noSigPipe;
    result = SSL_connect(session);
  }
  if (result < 1) {
    const int kind = SSL_get_error(session, result);
    if (kind == SSL_ERROR_SSL) ThrowHttp("SSL connect failed: " + ErrorText(ERR_get_error()));
    ThrowHttp("SSL connect failed: " + std::to_string(kind));
  }
  CheckServerCertificate(session);
}

}  // namespace zelph
