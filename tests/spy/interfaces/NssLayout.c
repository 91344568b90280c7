// The layout of the 3.0 types in NSS's copy of the standard header, as
// numbers that the test compares with the spy's definitions.
#include <pkcs11.h>
#include <stddef.h>

#define ZELPH_FIELD(type, field) \
  { #type "." #field, offsetof(type, field) }
const struct {
  const char* name;
  size_t value;
} zelph_nss_layout[] = {{"sizeof CK_INTERFACE", sizeof(CK_INTERFACE)},
                        ZELPH_FIELD(CK_INTERFACE, pInterfaceName),
                        ZELPH_FIELD(CK_INTERFACE, pFunctionList),
                        ZELPH_FIELD(CK_INTERFACE, flags),
                        {"sizeof CK_FUNCTION_LIST_3_0", sizeof(CK_FUNCTION_LIST_3_0)},
// Every function of the header's own list, 2.x and 3.0.
#define CK_PKCS11_3_0 1
#define CK_PKCS11_FUNCTION_INFO(name) ZELPH_FIELD(CK_FUNCTION_LIST_3_0, name),
#include <pkcs11f.h>
                        {0, 0}};
