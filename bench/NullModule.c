/*
 * A PKCS#11 module that does no work: every function succeeds at once, and
 * those the steady-state mix reads answer with fixed values (one slot with
 * the token "bench", session 1, key 2, a digest and a signature length, the
 * key's class, type and label). In front of it a tracer's own cost per call
 * is all there is to measure.
 */
#include <p11-kit/pkcs11.h>
#include <stddef.h>
#include <string.h>

static CK_RV Ok(void) {
  return CKR_OK;
}

static CK_RV GetSlotList(CK_BBOOL present, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
  (void)present;
  if (list != NULL && *count >= 1) list[0] = 0;
  *count = 1;
  return CKR_OK;
}

static CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
  (void)slot;
  memset(info, ' ', sizeof *info);
  memcpy(info->label, "bench", 5);
  return CKR_OK;
}

static CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                         CK_SESSION_HANDLE_PTR session) {
  (void)slot, (void)flags, (void)application, (void)notify;
  *session = 1;
  return CKR_OK;
}

static CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG max,
                         CK_ULONG_PTR count) {
  (void)session;
  *count = max >= 1 ? 1 : 0;
  if (max >= 1) objects[0] = 2;
  return CKR_OK;
}

/* C_Digest and C_Sign: the length of what they would write. */
static CK_RV Digest(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG length, CK_BYTE_PTR out,
                    CK_ULONG_PTR outLength) {
  (void)session, (void)data, (void)length, (void)out;
  *outLength = 32;
  return CKR_OK;
}

static CK_RV Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG length, CK_BYTE_PTR out,
                  CK_ULONG_PTR outLength) {
  (void)session, (void)data, (void)length, (void)out;
  *outLength = 256;
  return CKR_OK;
}

static CK_RV GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                               CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
  (void)session, (void)object;
  static const CK_OBJECT_CLASS class = CKO_PRIVATE_KEY;
  static const CK_KEY_TYPE type = CKK_RSA;
  static const char label[] = "signing key";
  for (CK_ULONG i = 0; i < count; ++i) {
    const void* value = attributes[i].type == CKA_CLASS      ? (const void*)&class
                        : attributes[i].type == CKA_KEY_TYPE ? (const void*)&type
                                                             : (const void*)label;
    const CK_ULONG size = attributes[i].type == CKA_CLASS      ? sizeof class
                          : attributes[i].type == CKA_KEY_TYPE ? sizeof type
                                                               : sizeof label - 1;
    if (attributes[i].pValue != NULL && attributes[i].ulValueLen >= size) {
      memcpy(attributes[i].pValue, value, size);
    }
    attributes[i].ulValueLen = size;
  }
  return CKR_OK;
}

__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  static CK_FUNCTION_LIST functions;
  if (functions.C_Initialize == NULL) {
    /* Every entry first answers CKR_OK whatever its arguments (the return
     * value travels the same way for every signature on this platform). */
    CK_RV (**entry)(void) = (CK_RV(**)(void)) & functions.C_Initialize;
    const size_t count =
        (sizeof functions - offsetof(CK_FUNCTION_LIST, C_Initialize)) / sizeof(CK_RV(*)(void));
    for (size_t i = 0; i < count; ++i) entry[i] = Ok;
    functions.version.major = 2;
    functions.version.minor = 40;
    functions.C_GetSlotList = GetSlotList;
    functions.C_GetTokenInfo = GetTokenInfo;
    functions.C_OpenSession = OpenSession;
    functions.C_FindObjects = FindObjects;
    functions.C_Digest = Digest;
    functions.C_Sign = Sign;
    functions.C_GetAttributeValue = GetAttributeValue;
  }
  *list = &functions;
  return CKR_OK;
}
