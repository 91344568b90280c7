// The real PKCS#11 module behind the spy.
#pragma once

#include <p11-kit/pkcs11.h>

#include <array>
#include <atomic>
#include <memory>
#include <span>
#include <string>

#include "common/base/CMutex.h"
#include "spy/Pkcs11Interfaces.h"

namespace zelph {

// The module the spy forwards to. It is found through the environment or the
// configuration, loaded by the first call that needs it (C_Initialize, or a
// 3.0 caller's C_GetInterfaceList or C_GetInterface) and kept until the spy
// itself is unloaded, so that a C_Finalize followed by a new C_Initialize
// reaches the same module.
class CSpyModule {
 public:
  // The spy's own function lists: the 2.40 list of its C_GetFunctionList and
  // the 3.0 list its interfaces are made from.
  struct COwnLists {
    const CK_FUNCTION_LIST* v2;
    const CK_FUNCTION_LIST_3_0* v3;
  };

  CSpyModule();
  CSpyModule(const CSpyModule&) = delete;
  CSpyModule& operator=(const CSpyModule&) = delete;
  ~CSpyModule();

  // The process-wide instance. May throw when the system refuses its mutex.
  static CSpyModule& Get();

  // The path of the real module: the environment variable ZELPH_SPY_MODULE
  // when it is set and not empty, else the key "Module" of section Spy in the
  // configuration file; empty when neither names one.
  static std::string FindModulePath();

  // Loads the real module, fetches its function list and its interfaces and
  // makes the spy's interfaces after them, unless that was done before. A
  // module whose functions turn out to be the spy's own (the spy named as
  // its own target, or the real module's calls bound to the spy's exports) is
  // refused, as forwarding to it would never end. On failure returns false
  // and puts one sentence saying why into `error`; a later call tries again.
  [[nodiscard]] bool Load(const COwnLists& own, std::string& error);

  // The real module's function list; null until Load succeeded.
  const CK_FUNCTION_LIST* GetFunctions() const noexcept {
    return functions_.load(std::memory_order_acquire);
  }

  // The real module's 3.0 function list; null when it offers none.
  const CK_FUNCTION_LIST_3_0* GetFunctions30() const noexcept {
    return GetFunctions() == nullptr ? nullptr : functions30_;
  }

  // The interfaces the spy offers once Load succeeded: for each standard
  // interface of the module it can trace (2.x and 3.0) one of the same name,
  // version and flags with a function list of the spy's; a single 2.40
  // interface for a module without interfaces.
  std::span<CK_INTERFACE> GetInterfaces() noexcept;

  // The spy's interface standing in for the module's `interface`, as its
  // C_GetInterface returned it; null when the spy offers none for it.
  CK_INTERFACE* FindOwnInterface(const CK_INTERFACE* interface) noexcept;

  // The first of the spy's interfaces that C_GetInterface would give for
  // `name`, `version` and `flags` (null for any name or version); null when
  // none matches.
  CK_INTERFACE* MatchInterface(const CK_UTF8CHAR* name, const CK_VERSION* version,
                               CK_FLAGS flags) noexcept;

  // The real module's C_GetInterface; null when it has none.
  CK_C_GetInterface GetRealGetInterface() const noexcept {
    return GetFunctions() == nullptr ? nullptr : getInterface_;
  }

 private:
  struct CLibraryCloser {
    void operator()(void* handle) const noexcept;
  };

  // Asks the module for its interfaces and makes the spy's after them.
  void MakeInterfaces(void* library, const COwnLists& own);

  // As many interfaces as the spy offers at most; more are not traced.
  static constexpr std::size_t kMaxInterfaces = 8;

  CMutex mutex_;  // serialises Load
  std::unique_ptr<void, CLibraryCloser> library_;
  std::atomic<const CK_FUNCTION_LIST*> functions_{nullptr};
  // Written by Load before functions_ is published, read-only after.
  const CK_FUNCTION_LIST_3_0* functions30_ = nullptr;
  CK_C_GetInterface getInterface_ = nullptr;
  std::array<CK_INTERFACE, kMaxInterfaces> interfaces_{};
  // The function list of each of the module's interfaces the spy offers.
  std::array<const void*, kMaxInterfaces> realLists_{};
  // The spy's function list of each offered interface, with the version of
  // the module's.
  std::array<CK_FUNCTION_LIST_3_0, kMaxInterfaces> ownLists_{};
  std::size_t interfaceCount_ = 0;
};

}  // namespace zelph
