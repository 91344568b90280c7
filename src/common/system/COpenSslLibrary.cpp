#include "common/system/COpenSslLibrary.h"

#include <dlfcn.h>

#include <bit>
#include <string>

#include "common/base/CException.h"

namespace zelph {
namespace {

[[noreturn]] void ThrowHttp(const std::string& text) {
  throw CHttpException(CUTF8String(text.c_str()));
}

// Points `function` at `name` in the library behind `handle`.
template <typename TFunction>
void Bind(void* handle, const char* soname, TFunction& function, const char* name) {
  void* const address = dlsym(handle, name);
  if (address == nullptr) ThrowHttp(std::string("Unable to find ") + name + " in " + soname);
  function = std::bit_cast<TFunction>(address);
}

}  // namespace

void COpenSslLibrary::CClose::operator()(void* handle) const noexcept {
  dlclose(handle);
}

COpenSslLibrary::COpenSslLibrary(const char* soname)
    : handle_(dlopen(soname, RTLD_NOW | RTLD_LOCAL)) {
  if (handle_ == nullptr) {
    const char* const why = dlerror();
    ThrowHttp(std::string("Unable to load ") + soname + ": " + (why != nullptr ? why : ""));
  }
#define ZELPH_OPENSSL_BIND(name) Bind(handle_.get(), soname, name, #name);
  ZELPH_OPENSSL_FUNCTIONS(ZELPH_OPENSSL_BIND)
#undef ZELPH_OPENSSL_BIND
}

const COpenSslLibrary& OpenSsl() {
  // A load that throws leaves the object unmade, so the next use tries again.
  static const COpenSslLibrary library("libssl.so.3");
  return library;
}

}  // namespace zelph
