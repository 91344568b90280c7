// One traced call through the spy.
#pragma once

#include <p11-kit/pkcs11.h>

#include <chrono>
#include <string>
#include <string_view>

#include "spy/CSpyModule.h"
#include "spy/Pkcs11Interfaces.h"
#include "zelph/trace.h"

namespace zelph {

// Frames one PKCS#11 call in the log: "Entering" when made, the return value
// and "Leaving" when done. Usage:
//
//   CSpyCall call("C_Logout");
//   call.Line("hSession = %lu", hSession);
//   CK_RV rv = call.Forward(&CK_FUNCTION_LIST_3_0::C_Logout, hSession);
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
  // result, after writing the collected input lines; the time the module
  // takes is kept for the "Returns" line. Before the module is loaded the
  // result is CKR_CRYPTOKI_NOT_INITIALIZED; a module that leaves the function
  // out of its list, or offers no 3.0 list for a 3.0 function, gets
  // CKR_FUNCTION_NOT_SUPPORTED.
  template <class Function, class... Args>
  CK_RV Forward(Function CK_FUNCTION_LIST_3_0::*function, Args... args) noexcept {
    FlushLines();
    const CSpyModule* module = nullptr;
    try {
      module = &CSpyModule::Get();
    } catch (...) {
      return CKR_GENERAL_ERROR;
    }
    if (module->GetFunctions() == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
    // The 2.x functions go to the list of the module's C_GetFunctionList, the
    // 3.0 ones to its 3.0 interface.
    Function target = nullptr;
    const std::size_t offset = OffsetOf(function);
    if (offset < sizeof(CK_FUNCTION_LIST)) {
      target = *reinterpret_cast<const Function*>(
          reinterpret_cast<const char*>(module->GetFunctions()) + offset);
    } else if (module->GetFunctions30() != nullptr) {
      target = module->GetFunctions30()->*function;
    }
    if (target == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
    return Call(target, args...);
  }

  // Calls `target` of the real module with `args`, after writing the
  // collected input lines, and keeps the time it takes.
  template <class Function, class... Args>
  CK_RV Call(Function target, Args... args) noexcept {
    FlushLines();
    const auto start = std::chrono::steady_clock::now();
    const CK_RV rv = target(args...);
    micros_ = std::chrono::duration_cast<std::chrono::microseconds>(
                  std::chrono::steady_clock::now() - start)
                  .count();
    return rv;
  }

  // Adds the line naming the return value, with the module's time when the
  // call reached it, and hands the value back; the line is written with the
  // outputs before "Leaving".
  CK_RV Return(CK_RV rv) noexcept;

 private:
  // Where `function` lies in a function list, in bytes from its start.
  template <class Function>
  static std::size_t OffsetOf(Function CK_FUNCTION_LIST_3_0::*function) noexcept {
    static constexpr CK_FUNCTION_LIST_3_0 kList{};
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&(kList.*function)) -
                                    reinterpret_cast<const char*>(&kList));
  }

  // Appends `text` as one more line of the collected format.
  void AppendLine(std::string_view text);

  const char* name_;
  // The collected lines as a TraceString format: each ended by "\n", every
  // '%' doubled so that it prints as itself.
  std::string lines_;
  // The module's time in microseconds; negative until Forward reached it.
  long long micros_ = -1;
};

}  // namespace zelph
