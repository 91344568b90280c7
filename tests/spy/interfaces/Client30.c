// A PKCS#11 3.0 caller built on NSS's copy of the standard header, so that it
// shares no definition with the spy. It prints results and what came back,
// never pointers, so that a run against a module and one through the spy
// compare byte for byte.
// Usage: zelph_client30 <module> [<parameters for C_Initialize, as NSS's softoken takes them>]
#include <dlfcn.h>
#include <pkcs11.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

// Left in *ppInterface: the module must set it, never read it.
#define GARBAGE ((CK_INTERFACE_PTR)(uintptr_t)0x5a5a5a5a5a5a5a5aULL)

// POSIX allows dlsym's result as a function pointer; ISO C has no cast for it.
typedef void (*CFunction)(void);
static CFunction Find(void* module, const char* name) {
  void* symbol = dlsym(module, name);
  CFunction function;
  return memcpy(&function, &symbol, sizeof symbol), function;
}

static void Print(const CK_INTERFACE* i) {
  const CK_VERSION* v = i->pFunctionList;
  printf(" \"%s\" %u.%u flags 0x%lx\n", (char*)i->pInterfaceName, v->major, v->minor, i->flags);
}

// What C_GetInterface is asked for; version 0.0 stands for none.
static const struct {
  const char* name;
  CK_VERSION version;
  CK_FLAGS flags;
} kAsks[] = {{NULL, {0, 0}, 0},      {"PKCS 11", {3, 0}, 0}, {"PKCS 11", {2, 40}, 0},
             {"PKCS 11", {9, 9}, 0}, {"zelph", {0, 0}, 0},   {NULL, {0, 0}, ~(CK_FLAGS)0}};

static CK_ULONG length;  // every output length, preset to the room of the buffers
#define CALL(list, f, ...) \
  (length = 16, printf(#f ": 0x%08lx", list->f(__VA_ARGS__)), printf(" length %lu\n", length))

int main(int argc, char** argv) {
  void* module = argc >= 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
  if (!module) return fprintf(stderr, "%s\n", argc >= 2 ? dlerror() : "usage: client30 MODULE"), 2;
  CK_C_GetInterfaceList getList = (CK_C_GetInterfaceList)Find(module, "C_GetInterfaceList");
  CK_C_GetInterface get = (CK_C_GetInterface)Find(module, "C_GetInterface");
  CK_C_GetFunctionList getFunctions = (CK_C_GetFunctionList)Find(module, "C_GetFunctionList");
  CK_FUNCTION_LIST_3_0_PTR f3 = NULL;
  CK_FUNCTION_LIST_PTR f = NULL;
  CK_INTERFACE list[8];
  CK_ULONG count = 0, got, i, j;
  if (!getList || !get) puts("C_GetInterfaceList, C_GetInterface: not exported");
  const CK_RV listed = getList ? getList(NULL, &count) : CKR_OK;
  if (getList) printf("C_GetInterfaceList(NULL): 0x%08lx count %lu\n", listed, count);
  for (i = count - 1; count && i <= count && count <= 8; i++) {  // too little room, then enough
    const CK_RV rv = getList(list, (got = i, &got));
    printf("C_GetInterfaceList(room for %lu): 0x%08lx count %lu\n", i, rv, got);
    for (j = 0; rv == CKR_OK && j < got; j++) Print(&list[j]);
  }
  for (i = 0; get && i < sizeof kAsks / sizeof kAsks[0]; i++) {
    CK_VERSION version = kAsks[i].version;
    CK_INTERFACE_PTR answer = GARBAGE;
    const CK_RV rv = get((CK_UTF8CHAR_PTR)kAsks[i].name, version.major ? &version : NULL, &answer,
                         kAsks[i].flags);
    printf("C_GetInterface(%s, %u.%u, flags 0x%lx): 0x%08lx",
           kAsks[i].name ? kAsks[i].name : "NULL", version.major, version.minor, kAsks[i].flags,
           rv);
    if (rv != CKR_OK || answer == GARBAGE || !answer) {
      puts(answer == GARBAGE ? " untouched" : answer ? " changed" : " NULL");
      continue;
    }
    Print(answer);
    if (!f3 && ((CK_VERSION*)answer->pFunctionList)->major == 3) f3 = answer->pFunctionList;
  }
  printf("C_GetFunctionList: 0x%08lx", getFunctions(&f));
  printf(" %u.%u\n", f ? f->version.major : 0, f ? f->version.minor : 0);
  if (f3) f = (CK_FUNCTION_LIST_PTR)f3;  // its 2.x part
  CK_SLOT_ID slots[16] = {0};
  CK_SESSION_HANDLE s = 0;
  CK_C_INITIALIZE_ARGS init = {.flags = CKF_OS_LOCKING_OK, .LibraryParameters = (void*)argv[2]};
  CALL(f, C_Initialize, argv[2] ? &init : NULL);
  CALL(f, C_GetSlotList, CK_FALSE, slots, &length);
  if (length > 0) CALL(f, C_OpenSession, slots[0], CKF_SERIAL_SESSION, NULL, NULL, &s);
  if (f3) {
    // A session key, where a session opened, so that the messages reach the cipher.
    CK_BYTE iv[12] = {0}, tag[16], data[16] = "zelph 3.0 client", out[16], plain[16] = {0};
    CK_ULONG bytes = 16;
    CK_ATTRIBUTE keyLength = {CKA_VALUE_LEN, &bytes, sizeof bytes};
    CK_MECHANISM keyGen = {CKM_AES_KEY_GEN, NULL, 0}, aes = {CKM_AES_GCM, NULL, 0},
                 hmac = {CKM_SHA256_HMAC, NULL, 0};
    CK_OBJECT_HANDLE key = 1;
    if (s) CALL(f, C_GenerateKey, s, &keyGen, &keyLength, 1, &key);
    CK_GCM_MESSAGE_PARAMS gcm = {iv, 12, 0, CKG_NO_GENERATE, tag, 128};
    CALL(f3, C_LoginUser, s, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4, (CK_UTF8CHAR_PTR) "zelph", 5);
    CALL(f3, C_SessionCancel, s, CKF_ENCRYPT | CKF_SIGN);
    CALL(f3, C_MessageEncryptInit, s, &aes, key);
    CALL(f3, C_EncryptMessage, s, &gcm, sizeof gcm, data, 4, data, 16, out, &length);
    CALL(f3, C_EncryptMessageBegin, s, &gcm, sizeof gcm, data, 4);
    CALL(f3, C_EncryptMessageNext, s, &gcm, sizeof gcm, data, 16, out, &length, CKF_END_OF_MESSAGE);
    CALL(f3, C_MessageEncryptFinal, s);
    CALL(f3, C_MessageDecryptInit, s, &aes, key);
    CALL(f3, C_DecryptMessage, s, &gcm, sizeof gcm, data, 4, out, 16, plain, &length);
    printf("decrypted: %s\n", memcmp(plain, data, 16) ? "other" : "the same");
    CALL(f3, C_DecryptMessageBegin, s, &gcm, sizeof gcm, data, 4);
    CALL(f3, C_DecryptMessageNext, s, &gcm, sizeof gcm, data, 16, out, &length, CKF_END_OF_MESSAGE);
    CALL(f3, C_MessageDecryptFinal, s);
    CALL(f3, C_MessageSignInit, s, &hmac, 1);
    CALL(f3, C_SignMessage, s, NULL, 0, data, 16, out, &length);
    CALL(f3, C_SignMessageBegin, s, NULL, 0);
    CALL(f3, C_SignMessageNext, s, NULL, 0, data, 16, out, &length);
    CALL(f3, C_MessageSignFinal, s);
    CALL(f3, C_MessageVerifyInit, s, &hmac, 1);
    CALL(f3, C_VerifyMessage, s, NULL, 0, data, 16, out, 16);
    CALL(f3, C_VerifyMessageBegin, s, NULL, 0);
    CALL(f3, C_VerifyMessageNext, s, NULL, 0, data, 16, out, 2);
    CALL(f3, C_MessageVerifyFinal, s);
  }
  CALL(f, C_Finalize, NULL);
  return 0;
}
