// One traced call through the spy.
#pragma once

#include <p11-kit/pkcs11.h>

#include <string>
#include <string_view>

#include "spy/CSpyModule.h"
#include "zelph/trace.h"

namespace zelph {

// Frames one PKCS#11 call in the log: "Entering" when made, the return value
// and "Leaving" when done. Usage:
//
//   CSpyCall call("C_Logout");
//   call.Line("hSession = %lu", hSession);
//   CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_Logout, hSession);
//   ... outputs through call.Line ...
//   return call.Return(rv);
//
// Every trace call flushes the log, so the plain lines of a call are
// collected and written together by one TraceString: the inputs right before
// the call is forwarded, the outputs and the return value right before
// "Leaving". Whoever writes anything else into the log in between (a dump of
// the trace library, a line with a text of the module or the application)
// calls FlushLines first, so that the log keeps the order of the lines.
class CSpyCall {
 public:
  explicit CSpyCall(const char* name) noexcept : name_(name) { TraceEnter(name_); }
  CSpyCall(const CSpyCall&) = delete;
  CSpyCall& operator=(const CSpyCall&) = delete;
  ~CSpyCall() {
    FlushLines();
    TraceLeave(name_);
  }

  // Adds one line, formatted like printf, to those the next FlushLines
  // writes. Only for the spy's own texts (names, numbers, lengths): the lines
  // become the format of a TraceString, which would recode a text of the
  // module or the application and split it at its line breaks. Such a text
  // is written after FlushLines by a TraceString of its own, as an argument.
  // A line that cannot be stored for lack of memory is lost.
  void Line(const char* format, ...) noexcept ZELPH_PRINTF(2, 3);

  // Writes the collected lines, each behind the line prefix, with one
  // TraceString; nothing when there are none.
  void FlushLines() noexcept;

  // Calls the real module's `function` with `args` unchanged and returns its
  // result, after writing the collected input lines. Before a successful
  // C_Initialize there is no real module and the result is
  // CKR_CRYPTOKI_NOT_INITIALIZED; a module that leaves the function out of
  // its list gets CKR_FUNCTION_NOT_SUPPORTED.
  template <class Function, class... Args>
  CK_RV Forward(Function CK_FUNCTION_LIST::*function, Args... args) noexcept {
    FlushLines();
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

  // Adds the line naming the return value and hands the value back; the
  // line is written with the outputs before "Leaving".
  CK_RV Return(CK_RV rv) noexcept {
    Line("Returns %s", GetCkErrorString(rv));
    return rv;
  }

 private:
  // Appends `text` as one more line of the collected format.
  void AppendLine(std::string_view text);

  const char* name_;
  // The collected lines as a TraceString format: each ended by "\n", every
  // '%' doubled so that it prints as itself.
  std::string lines_;
};

}  // namespace zelph
