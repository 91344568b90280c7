/* A PKCS#11 module whose functions the spy's tests put into its list. */
#include <p11-kit/pkcs11.h>

__attribute__((visibility("default"))) CK_FUNCTION_LIST zelph_fake_functions;

__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  *list = &zelph_fake_functions;
  return CKR_OK;
}
