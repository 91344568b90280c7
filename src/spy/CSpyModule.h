// The real PKCS#11 module behind the spy.
#pragma once

#include <p11-kit/pkcs11.h>

#include <atomic>
#include <memory>
#include <string>

#include "common/base/CMutex.h"

namespace zelph {

// The module the spy forwards to. It is found through the environment or the
// configuration, loaded by the first C_Initialize that finds it and kept until
// the spy itself is unloaded, so that a C_Finalize followed by a new
// C_Initialize reaches the same module.
class CSpyModule {
 public:
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

  // Loads the real module and fetches its function list, unless that was done
  // before. `own` is the spy's function list: a module whose functions turn
  // out to be the spy's own (the spy named as its own target, or the real
  // module's calls bound to the spy's exports) is refused, as forwarding to it
  // would never end. On failure returns false and puts one sentence saying
  // why into `error`; a later call tries again.
  [[nodiscard]] bool Load(const CK_FUNCTION_LIST* own, std::string& error);

  // The real module's function list; null until Load succeeded.
  CK_FUNCTION_LIST* GetFunctions() const noexcept {
    return functions_.load(std::memory_order_acquire);
  }

 private:
  struct CLibraryCloser {
    void operator()(void* handle) const noexcept;
  };

  CMutex mutex_;  // serialises Load
  std::unique_ptr<void, CLibraryCloser> library_;
  std::atomic<CK_FUNCTION_LIST*> functions_{nullptr};
};

}  // namespace zelph
