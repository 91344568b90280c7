// OpenSSL 3, bound when the TLS connection is first used instead of when the
// library is loaded: most hosts never use HTTPS, and binding libssl and
// libcrypto at load costs each of them several milliseconds.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

// The OpenSSL functions the TLS connection calls, by their real names. What
// OpenSSL's headers define as macros is bound as what it expands to:
// OPENSSL_free is CRYPTO_free, SSL_set_tlsext_host_name is SSL_ctrl.
#define ZELPH_OPENSSL_FUNCTIONS(X) \
  X(OPENSSL_init_ssl)              \
  X(TLS_client_method)             \
  X(SSL_CTX_new)                   \
  X(SSL_CTX_free)                  \
  X(SSL_new)                       \
  X(SSL_free)                      \
  X(SSL_set_options)               \
  X(SSL_set_fd)                    \
  X(SSL_ctrl)                      \
  X(SSL_connect)                   \
  X(SSL_accept)                    \
  X(SSL_is_init_finished)          \
  X(SSL_shutdown)                  \
  X(SSL_read)                      \
  X(SSL_write)                     \
  X(SSL_get_error)                 \
  X(SSL_get1_peer_certificate)     \
  X(ERR_get_error)                 \
  X(ERR_error_string_n)            \
  X(ERR_clear_error)               \
  X(X509_get_subject_name)         \
  X(X509_NAME_oneline)             \
  X(X509_free)                     \
  X(i2d_X509)                      \
  X(CRYPTO_free)

namespace zelph {

// A loaded libssl with the functions above, each a typed pointer of the same
// name (libssl pulls in libcrypto, whose functions its handle finds too).
// Immutable once built, so any thread may call through it.
class COpenSslLibrary {
 public:
  // Loads `soname` and binds every function. Throws CHttpException "Unable
  // to load <soname>: <loader's text>", or "Unable to find <function> in
  // <soname>" for the first function it lacks.
  explicit COpenSslLibrary(const char* soname);
  COpenSslLibrary(const COpenSslLibrary&) = delete;
  COpenSslLibrary& operator=(const COpenSslLibrary&) = delete;

#define ZELPH_OPENSSL_POINTER(name) decltype(&::name) name = nullptr;
  ZELPH_OPENSSL_FUNCTIONS(ZELPH_OPENSSL_POINTER)
#undef ZELPH_OPENSSL_POINTER

 private:
  struct CClose {
    void operator()(void* handle) const noexcept;
  };
  std::unique_ptr<void, CClose> handle_;
};

// The process's OpenSSL 3 ("libssl.so.3"), loaded by the first call. Throws
// as the constructor does, again at every call while it cannot be loaded.
const COpenSslLibrary& OpenSsl();

}  // namespace zelph
