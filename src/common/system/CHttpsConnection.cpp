#include "common/system/CHttpsConnection.h"

#include <cerrno>
#include <string>

#include "common/base/CException.h"
#include "common/system/COpenSslLibrary.h"
#include "common/system/CSigPipeBlock.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

// OpenSSL's text for `code`. The caller's buffer keeps it safe from other
// threads, unlike the shared one ERR_error_string uses without a buffer.
std::string ErrorText(const COpenSslLibrary& ssl, unsigned long code) {
  char buffer[256];
  ssl.ERR_error_string_n(code, buffer, sizeof buffer);
  return buffer;
}

[[noreturn]] void ThrowHttp(const std::string& text) {
  throw CHttpException(CUTF8String(text.c_str()));
}

// Traces the subject of the server's certificate and refuses it: without
// validation no certificate can be trusted. A server without a certificate
// is accepted.
void CheckServerCertificate(const COpenSslLibrary& ssl, SSL* session) {
  const auto freeCertificate = [&ssl](X509* certificate) { ssl.X509_free(certificate); };
  const std::unique_ptr<X509, decltype(freeCertificate)> certificate(
      ssl.SSL_get1_peer_certificate(session), freeCertificate);
  if (certificate == nullptr) return;

  TraceString("Server certificates:");
  // What OPENSSL_free expands to.
  const auto freeText = [&ssl](char* text) { ssl.CRYPTO_free(text, OPENSSL_FILE, OPENSSL_LINE); };
  const std::unique_ptr<char, decltype(freeText)> subject(
      ssl.X509_NAME_oneline(ssl.X509_get_subject_name(certificate.get()), nullptr, 0), freeText);
  TraceString("\tSubject: %s", subject != nullptr ? subject.get() : "");

  if (ssl.i2d_X509(certificate.get(), nullptr) != 0) {
    ThrowHttp("SSL check certificate not implemented");
  }
  ThrowHttp("Unable to convert cert");
}

}  // namespace

void CHttpsConnection::CSessionFree::operator()(SSL* session) const noexcept {
  ssl->SSL_free(session);
}

void CHttpsConnection::CContextFree::operator()(SSL_CTX* context) const noexcept {
  ssl->SSL_CTX_free(context);
}

CHttpsConnection::CHttpsConnection()
    : ssl_(OpenSsl()), session_(nullptr, {&ssl_}), context_(nullptr, {&ssl_}) {
  ssl_.OPENSSL_init_ssl(0, nullptr);
  context_.reset(ssl_.SSL_CTX_new(ssl_.TLS_client_method()));
  if (context_ == nullptr) TraceString("ERROR: Unable to create SSL context");
  session_.reset(ssl_.SSL_new(context_.get()));
  // OpenSSL 3 reports a close without the TLS close message as an error;
  // HTTP/1.0 servers end their bodies that way.
  if (session_ != nullptr) ssl_.SSL_set_options(session_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
}

CHttpsConnection::CHttpsConnection(int descriptor, SSL_CTX* context)
    : CHttpConnection(descriptor),
      ssl_(OpenSsl()),
      session_(ssl_.SSL_new(context), {&ssl_}),
      context_(nullptr, {&ssl_}) {
  if (session_ == nullptr) ThrowHttp("SSL accept failed: " + ErrorText(ssl_, ssl_.ERR_get_error()));
  ssl_.SSL_set_options(session_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  ssl_.SSL_set_fd(session_.get(), descriptor);
  ssl_.ERR_clear_error();
  int result;
  {
    const CSigPipeBlock noSigPipe;
    result = ssl_.SSL_accept(session_.get());
  }
  if (result < 1) {
    const int kind = ssl_.SSL_get_error(session_.get(), result);
    if (kind == SSL_ERROR_WANT_READ || kind == SSL_ERROR_WANT_WRITE) {
      ThrowHttp("SSL accept failed: handshake timed out after " +
                std::to_string(GetTimeout().count()) + " ms");
    }
    ThrowHttp("SSL accept failed: " + ErrorText(ssl_, ssl_.ERR_get_error()));
  }
}

CHttpsConnection::~CHttpsConnection() {
  if (session_ != nullptr && ssl_.SSL_is_init_finished(session_.get())) {
    const CSigPipeBlock noSigPipe;
    ssl_.SSL_shutdown(session_.get());
  }
  session_.reset();
  context_.reset();
}

std::int32_t CHttpsConnection::RawSend(const void* buffer, std::int32_t length) {
  const CSigPipeBlock noSigPipe;
  ssl_.ERR_clear_error();
  return ssl_.SSL_write(session_.get(), buffer, length);
}

std::int32_t CHttpsConnection::RawReceive(void* buffer, std::int32_t capacity) {
  // Reading may write too (TLS 1.3 key updates).
  const CSigPipeBlock noSigPipe;
  ssl_.ERR_clear_error();  // SSL_get_error reads the queue
  const int received = ssl_.SSL_read(session_.get(), buffer, capacity);
  // SSL_read gives 0 for failures too; only the peer's close may look like
  // the end of the stream, or a damaged session would cut a body short.
  if (received <= 0 && ssl_.SSL_get_error(session_.get(), received) != SSL_ERROR_ZERO_RETURN) {
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
  if (session == nullptr) ThrowHttp("SSL connect failed: " + ErrorText(ssl_, ssl_.ERR_get_error()));
  ssl_.SSL_set_fd(session, GetDescriptor());
  // SSL_set_tlsext_host_name, which OpenSSL defines as a macro over SSL_ctrl.
  if (ssl_.SSL_ctrl(session, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                    const_cast<char*>(url.host.c_str())) == 0) {
    ThrowHttp("SSL connect failed: unable to set tlsext host name");
  }
  ssl_.ERR_clear_error();
  int result;
  {
    const CSigPipeBlock noSigPipe;
    result = ssl_.SSL_connect(session);
  }
  if (result < 1) {
    const int kind = ssl_.SSL_get_error(session, result);
    // On a blocking socket only its time-out makes the handshake wait again.
    if (kind == SSL_ERROR_WANT_READ || kind == SSL_ERROR_WANT_WRITE) {
      ThrowHttp("SSL connect failed: handshake timed out after " +
                std::to_string(GetTimeout().count()) + " ms");
    }
    if (kind == SSL_ERROR_SSL) {
      ThrowHttp("SSL connect failed: " + ErrorText(ssl_, ssl_.ERR_get_error()));
    }
    ThrowHttp("SSL connect failed: " + std::to_string(kind));
  }
  CheckServerCertificate(ssl_, session);
}

}  // namespace zelph
