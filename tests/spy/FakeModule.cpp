// A PKCS#11 3.0 module whose functions the spy's tests put into its list.
// C_GetFunctionList gives the 2.x part of the same list. The interface lies in
// read-only memory, as some modules' do.
#include <cstring>

#include "spy/Pkcs11Interfaces.h"

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))

extern "C" {
__attribute__((visibility("default"))) CK_FUNCTION_LIST_3_0 zelph_fake_functions;
}

namespace {
const CK_INTERFACE kInterface = {const_cast<CK_CHAR*>(reinterpret_cast<const CK_CHAR*>("PKCS 11")),
                                 &zelph_fake_functions, 0};
}  // namespace

FAKE_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  zelph_fake_functions.version = {3, 0};
  *list = reinterpret_cast<CK_FUNCTION_LIST*>(&zelph_fake_functions);
  return CKR_OK;
}

FAKE_EXPORT CK_RV C_GetInterfaceList(CK_INTERFACE_PTR list, CK_ULONG_PTR count) {
  if (list != nullptr) *list = kInterface;
  *count = 1;
  return CKR_OK;
}

// Only the 3.0 interface is there.
FAKE_EXPORT CK_RV C_GetInterface(CK_UTF8CHAR_PTR, CK_VERSION_PTR version,
                                 CK_INTERFACE_PTR_PTR interface, CK_FLAGS) {
  if (version != nullptr && version->major != 3) return CKR_ARGUMENTS_BAD;
  *interface = const_cast<CK_INTERFACE*>(&kInterface);
  return CKR_OK;
}
