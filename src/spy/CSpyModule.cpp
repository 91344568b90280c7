#include "spy/CSpyModule.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/base/CScopedLock.h"
#include "common/config/ConfigFile.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

// The name of the standard interfaces. The spy's interfaces point at this
// constant; callers only read interface names.
CK_CHAR* StandardInterfaceName() noexcept {
  static constexpr char kName[] = "PKCS 11";
  return const_cast<CK_CHAR*>(reinterpret_cast<const CK_CHAR*>(kName));
}

bool IsStandard(const CK_INTERFACE& interface) noexcept {
  return interface.pInterfaceName != nullptr && interface.pFunctionList != nullptr &&
         std::strcmp(reinterpret_cast<const char*>(interface.pInterfaceName), "PKCS 11") == 0;
}

}  // namespace

CSpyModule::CSpyModule() = default;

// The module stays mapped (RTLD_NODELETE); a host that never called
// C_Finalize leaves the clean-up to the module, as it would without the spy.
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

bool CSpyModule::Load(const COwnLists& own, std::string& error) {
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
  // spy's in later lookups of the host. RTLD_NODELETE keeps the module mapped
  // for the life of the process, as when the host loads it itself: what it
  // allocated and the threads it started outlive the spy's unloading.
  std::unique_ptr<void, CLibraryCloser> library(
      dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
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
  // Checked before the module's interfaces are asked for: the spy's own
  // C_GetInterfaceList would come back here.
  if (functions == own.v2 || functions->C_Initialize == own.v2->C_Initialize) {
    error = "the PKCS#11 module " + path +
            " leads back to the spy itself; name the real module instead";
    return false;
  }
  MakeInterfaces(library.get(), own);
  library_ = std::move(library);
  functions_.store(functions, std::memory_order_release);
  return true;
}

void CSpyModule::MakeInterfaces(void* library, const COwnLists& own) {
  interfaceCount_ = 0;
  functions30_ = nullptr;
  getInterface_ = reinterpret_cast<CK_C_GetInterface>(dlsym(library, "C_GetInterface"));
  auto getList = reinterpret_cast<CK_C_GetInterfaceList>(dlsym(library, "C_GetInterfaceList"));
  // The module's list is read from a copy: its memory may be read-only, and
  // the spy never writes into what the module returns.
  std::vector<CK_INTERFACE> real;
  CK_ULONG count = 0;
  if (getList != nullptr && getList(nullptr, &count) == CKR_OK && count > 0 && count <= 64) {
    real.resize(count);
    if (getList(real.data(), &count) != CKR_OK) count = 0;
    real.resize(std::min<std::size_t>(count, real.size()));
  }
  for (const CK_INTERFACE& interface : real) {
    if (!IsStandard(interface) || interfaceCount_ == kMaxInterfaces) continue;
    CK_VERSION version;
    std::memcpy(&version, interface.pFunctionList, sizeof version);
    const bool v3 = version.major == 3 && version.minor == 0;
    if (version.major != 2 && !v3) continue;  // a list the spy cannot stand in for
    if (v3 && functions30_ == nullptr) {
      functions30_ = static_cast<const CK_FUNCTION_LIST_3_0*>(interface.pFunctionList);
    }
    CK_FUNCTION_LIST_3_0& list = ownLists_[interfaceCount_];
    list = *own.v3;
    list.version = version;
    realLists_[interfaceCount_] = interface.pFunctionList;
    interfaces_[interfaceCount_++] = {StandardInterfaceName(), &list, interface.flags};
  }
  if (interfaceCount_ == 0) {
    // A 2.x module: the spy offers what its C_GetFunctionList gives.
    getInterface_ = nullptr;
    realLists_[0] = nullptr;
    interfaces_[0] = {StandardInterfaceName(), const_cast<CK_FUNCTION_LIST*>(own.v2), 0};
    interfaceCount_ = 1;
  }
}

std::span<CK_INTERFACE> CSpyModule::GetInterfaces() noexcept {
  if (GetFunctions() == nullptr) return {};
  return std::span(interfaces_.data(), interfaceCount_);
}

CK_INTERFACE* CSpyModule::FindOwnInterface(const CK_INTERFACE* interface) noexcept {
  if (interface == nullptr || !IsStandard(*interface)) return nullptr;
  for (std::size_t i = 0; i < GetInterfaces().size(); ++i) {
    if (realLists_[i] == interface->pFunctionList) return &interfaces_[i];
  }
  return nullptr;
}

CK_INTERFACE* CSpyModule::MatchInterface(const CK_UTF8CHAR* name, const CK_VERSION* version,
                                         CK_FLAGS flags) noexcept {
  for (CK_INTERFACE& interface : GetInterfaces()) {
    CK_VERSION offered;
    std::memcpy(&offered, interface.pFunctionList, sizeof offered);
    if (name != nullptr && std::strcmp(reinterpret_cast<const char*>(name),
                                       reinterpret_cast<const char*>(interface.pInterfaceName)))
      continue;
    if (version != nullptr && (version->major != offered.major || version->minor != offered.minor))
      continue;
    if ((interface.flags & flags) == flags) return &interface;
  }
  return nullptr;
}

}  // namespace zelph
