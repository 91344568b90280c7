// One traced call through the spy.
#pragma once

#include <p11-kit/pkcs11.h>

#include "spy/CSpyModule.h"
#include "zelph/trace.h"

namespace zelph {

// Frames one PKCS#11 call in the log: "Entering" when made, the return value
// and "Leaving" when done. Usage:
//
//   CSpyCall call("C_Logout");
//   ... trace the inputs ...
//   CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_Logout, hSession);
//   ... trace the outputs ...
//   return call.Return(rv);
class CSpyCall {
 public:
  explicit CSpyCall(const char* name) noexcept : name_(name) { TraceEnter(name_); }
  CSpyCall(const CSpyCall&) = delete;
  CSpyCall& operator=(const CSpyCall&) = delete;
  ~CSpyCall() { TraceLeave(name_); }

  // Calls the real module's `function` with `args` unchanged and returns its
  // result. Before a successful C_Initialize there is no real module and the
  // result is CKR_CRYPTOKI_NOT_INITIALIZED; a module that leaves the function
  // out of its list gets CKR_FUNCTION_NOT_SUPPORTED.
  template <class Function, class... Args>
  CK_RV Forward(Function CK_FUNCTION_LIST::*function, Args... args) noexcept {
    CK_FUNCTION_LIST* real = nullptr;
    try {
      real = CSpyModule::Get().GetFunctions();
    } catch (...) {
      return CKR_GENERAL_ERROR;
    }
    if (real == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
    Function target = real->*function;
    if (target == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
    return target(args...);
  }

  // Writes the return value by name and hands it back.
  CK_RV Return(CK_RV rv) noexcept {
    TraceString("Returns %s", GetCkErrorString(rv));
    return rv;
  }

 private:
  const char* name_;
};

}  // namespace zelph
