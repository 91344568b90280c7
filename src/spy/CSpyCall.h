// One traced call through the spy.
#pragma once

#include <p11-kit/pkcs11.h>

#include <chrono>
#include <string>
#include <string_view>

#include "spy/CSpyModule.h"
#include "spy/Pkcs11Interfaces.h"
#include "spy/SpyTracing.h"
#include "zelph/trace.h"

namespace zelph {

// Frames one PKCS#11 call in the log. Usage:
//
//   CSpyCall call("C_Logout");
//   call.Line("hSession = %lu", hSession);
//   CK_RV rv = call.Forward(&CK_FUNCTION_LIST_3_0::C_Logout, hSession);
//   ... outputs through call.Line ...
//   return call.Return(rv);
//
// Every trace call ends in a write to the log, and a write costs more than
// all the formatting of a call. So a call takes three: "Entering" when it is
// made, so that a host that dies inside the module leaves a log naming the
// call it was in; then, after the module answered, its inputs (put together
// before it was called), outputs and return value with one TraceString; then
// "Leaving". A line that cannot pass through a TraceString format unchanged
// (a text of the module or the application that is not plain ASCII on one
// line) is written on its own in between, keeping the order of the lines.
//
// With tracing off in this process nothing is formatted or written; the call
// only forwards.
class CSpyCall {
 public:
  explicit CSpyCall(const char* name) noexcept : name_(name), tracing_(IsSpyTracing()) {
    if (tracing_) TraceEnter(name_);
  }
  CSpyCall(const CSpyCall&) = delete;
  CSpyCall& operator=(const CSpyCall&) = delete;
  ~CSpyCall() {
    if (!tracing_) return;
    FlushLines();
    TraceLeave(name_);
  }

  // True when this call is traced; the line writers return at once otherwise.
  bool IsTracing() const noexcept { return tracing_; }

  // Adds one line, formatted like printf, to those written after the call.
  // A line that cannot be stored for lack of memory is lost.
  void Line(const char* format, ...) noexcept ZELPH_PRINTF(2, 3);

  // Adds one line as it stands (a rendered row of a dump).
  void Text(std::string_view line) noexcept;

  // Writes the collected lines, each behind the line prefix, with one
  // TraceString; nothing when there are none.
  void FlushLines() noexcept;

  // Calls the real module's `function` with `args` unchanged and returns its
  // result; the time the module takes is kept for the "Returns" line. Before the module is loaded
  // the result is CKR_CRYPTOKI_NOT_INITIALIZED; a module that leaves the function out of its list,
  // or offers no 3.0 list for a 3.0 function, gets CKR_FUNCTION_NOT_SUPPORTED.
  template <class Function, class... Args>
  CK_RV Forward(Function CK_FUNCTION_LIST_3_0::*function, Args... args) noexcept {
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

  // Calls `target` of the real module with `args` and keeps the time it
  // takes.
  template <class Function, class... Args>
  CK_RV Call(Function target, Args... args) noexcept {
    if (!tracing_) return target(args...);
    const auto start = std::chrono::steady_clock::now();
    const CK_RV rv = target(args...);
    micros_ = std::chrono::duration_cast<std::chrono::microseconds>(
                  std::chrono::steady_clock::now() - start)
                  .count();
    return rv;
  }

  // Adds the line naming the return value, with the module's time when the
  // call reached it, and hands the value back.
  CK_RV Return(CK_RV rv) noexcept;

 private:
  // Where `function` lies in a function list, in bytes from its start.
  template <class Function>
  static std::size_t OffsetOf(Function CK_FUNCTION_LIST_3_0::*function) noexcept {
    static constexpr CK_FUNCTION_LIST_3_0 kList{};
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&(kList.*function)) -
                                    reinterpret_cast<const char*>(&kList));
  }

  // Appends `text` as one more line of the collected format, or writes it
  // on its own when a format would change it.
  void Keep(std::string_view text);

  const char* name_;
  const bool tracing_;
  // The collected lines as a TraceString format: each ended by "\n", every
  // '%' doubled so that it prints as itself.
  std::string lines_;
  // The module's time in microseconds; negative until Forward reached it.
  long long micros_ = -1;
};

}  // namespace zelph
