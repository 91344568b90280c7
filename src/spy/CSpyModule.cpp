#include "spy/CSpyModule.h"

#include <dlfcn.h>

#include <cstdlib>

#include "common/base/CScopedLock.h"
#include "common/config/ConfigFile.h"
#include "zelph/trace.h"

namespace zelph {

CSpyModule::CSpyModule() = default;

// Unloading the real module runs its own clean-up; a host that never called
// C_Finalize leaves that to the module, as it would without the spy.
CSpyModule::~CSpyModule() = default;

void CSpyModule::CLibraryCloser::operator()(void* handle) const noexcept {
  dlclose(handle);
}

CSpyModule& CSpyModule::Get() {
  static CSpyModule module;
  return module;
}

std::string CSpyModule::FindModulePath() {
  const char* fromEnvironment = std::getenv("ZELPH_SPY_MODULE");
  if (fromEnvironment != nullptr && *fromEnvironment != '\0') return fromEnvironment;
  const CConfigSection* section = GetSharedConfig().FindSection("Spy");
  if (section == nullptr) return {};
  return section->GetValue("Module").c_str();
}

bool CSpyModule::Load(const CK_FUNCTION_LIST* own, std::string& error) {
  CScopedLock lock(mutex_);
  if (GetFunctions() != nullptr) return true;

  const std::string path = FindModulePath();
  if (path.empty()) {
    error = std::string(
                "no PKCS#11 module to forward to: set ZELPH_SPY_MODULE or the key Module "
                "in section Spy of the configuration file ") +
            GetConfigFilePath().c_str();
    return false;
  }
  // RTLD_LOCAL keeps the real module's C_ symbols from standing in for the
  // spy's in later lookups of the host.
  std::unique_ptr<void, CLibraryCloser> library(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!library) {
    const char* reason = dlerror();
    error = "cannot load the PKCS#11 module " + path + ": " + (reason ? reason : "unknown error");
    return false;
  }
  auto getFunctionList =
      reinterpret_cast<CK_C_GetFunctionList>(dlsym(library.get(), "C_GetFunctionList"));
  if (getFunctionList == nullptr) {
    error = path + " is not a PKCS#11 module: it has no C_GetFunctionList";
    return false;
  }
  CK_FUNCTION_LIST* functions = nullptr;
  const CK_RV rv = getFunctionList(&functions);
  if (rv != CKR_OK || functions == nullptr) {
    error = "C_GetFunctionList of " + path + " failed with " + GetCkErrorString(rv);
    return false;
  }
  if (functions == own || functions->C_Initialize == own->C_Initialize) {
    error = "the PKCS#11 module " + path +
            " leads back to the spy itself; name the real module instead";
    return false;
  }
  library_ = std::move(library);
  functions_.store(functions, std::memory_order_release);
  return true;
}

}  // namespace zelph
