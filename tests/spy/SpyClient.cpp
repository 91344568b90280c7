// A small PKCS#11 application for the spy's tests. It loads the module named
// on its command line (the spy or SoftHSM2 itself) and runs one scenario,
// printing every call it makes with its result, and the values the tests
// compare, one per line:
//
//   <function> <return value in hexadecimal>
//   value <name> <text>     results that must match with and without the spy
//   secret <name> <hex>     key material read back, which no log may show
//
// Usage: zelph_spy_client <module> init
//        zelph_spy_client <module> session <pin> <label>
//        zelph_spy_client <module> sign <pin> <label>
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

CK_FUNCTION_LIST* module = nullptr;

// Prints a call's result and hands it back.
CK_RV Report(const char* function, CK_RV rv) {
  std::printf("%s 0x%lX\n", function, rv);
  return rv;
}

// Prints a call's result; any result but CKR_OK ends the scenario.
void Require(const char* function, CK_RV rv) {
  if (Report(function, rv) != CKR_OK) std::exit(1);
}

std::string Hex(const std::vector<CK_BYTE>& bytes) {
  std::string text;
  char digits[3];
  for (CK_BYTE b : bytes) {
    std::snprintf(digits, sizeof digits, "%02X", b);
    text += digits;
  }
  return text;
}

// Reads one attribute of any length: the length first, then the value.
std::vector<CK_BYTE> ReadAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                   CK_ATTRIBUTE_TYPE type) {
  CK_ATTRIBUTE attribute = {type, nullptr, 0};
  Require("C_GetAttributeValue", module->C_GetAttributeValue(session, object, &attribute, 1));
  std::vector<CK_BYTE> value(attribute.ulValueLen);
  attribute.pValue = value.data();
  Require("C_GetAttributeValue", module->C_GetAttributeValue(session, object, &attribute, 1));
  return value;
}

// Initialises the module and opens a read-write session on the first slot
// with an initialised token, logged in as user.
CK_SESSION_HANDLE OpenUserSession(const char* pin) {
  Require("C_Initialize", module->C_Initialize(nullptr));
  CK_ULONG count = 0;
  Require("C_GetSlotList", module->C_GetSlotList(CK_TRUE, nullptr, &count));
  std::vector<CK_SLOT_ID> slots(count);
  Require("C_GetSlotList", module->C_GetSlotList(CK_TRUE, slots.data(), &count));
  for (CK_SLOT_ID slot : slots) {
    CK_TOKEN_INFO info;
    Require("C_GetTokenInfo", module->C_GetTokenInfo(slot, &info));
    if ((info.flags & CKF_TOKEN_INITIALIZED) == 0) continue;
    CK_SESSION_HANDLE session = 0;
    Require("C_OpenSession", module->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION,
                                                   nullptr, nullptr, &session));
    Require("C_Login", module->C_Login(session, CKU_USER,
                                       reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(pin)),
                                       std::strlen(pin)));
    return session;
  }
  std::printf("no initialised token\n");
  std::exit(1);
}

void CloseUserSession(CK_SESSION_HANDLE session) {
  Require("C_Logout", module->C_Logout(session));
  Require("C_CloseSession", module->C_CloseSession(session));
  Require("C_Finalize", module->C_Finalize(nullptr));
}

CK_BYTE kMessage[] = "zelph spy test message";
CK_BBOOL kTrue = CK_TRUE;
CK_BBOOL kFalse = CK_FALSE;

std::vector<CK_BYTE> Sign(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
  CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
  Require("C_SignInit", module->C_SignInit(session, &mechanism, key));
  CK_ULONG length = 0;
  Require("C_Sign", module->C_Sign(session, kMessage, sizeof kMessage, nullptr, &length));
  std::vector<CK_BYTE> signature(length);
  Require("C_Sign", module->C_Sign(session, kMessage, sizeof kMessage, signature.data(), &length));
  signature.resize(length);
  return signature;
}

// Before and after C_Initialize: what a module says about itself.
int RunInit() {
  CK_INFO info;
  Report("C_GetInfo", module->C_GetInfo(&info));
  if (Report("C_Initialize", module->C_Initialize(nullptr)) != CKR_OK) return 0;
  Require("C_GetInfo", module->C_GetInfo(&info));
  std::printf("value manufacturer %.32s\n", reinterpret_cast<const char*>(info.manufacturerID));
  Require("C_Finalize", module->C_Finalize(nullptr));
  return 0;
}

// Generates an RSA key pair and an AES key, both extractable and not
// sensitive, signs and verifies, reads the secrets back, is refused the value
// of a sensitive key and finds the objects.
int RunSession(const char* pin, const char* label) {
  CK_SESSION_HANDLE session = OpenUserSession(pin);
  CK_ULONG bits = 2048;
  CK_BYTE exponent[] = {0x01, 0x00, 0x01};
  CK_ULONG labelLength = std::strlen(label);
  auto* labelText = const_cast<char*>(label);
  CK_ATTRIBUTE publicTemplate[] = {
      {CKA_TOKEN, &kTrue, 1},
      {CKA_VERIFY, &kTrue, 1},
      {CKA_MODULUS_BITS, &bits, 8},
      {CKA_PUBLIC_EXPONENT, exponent, sizeof exponent},
      {CKA_LABEL, labelText, labelLength},
  };
  CK_ATTRIBUTE privateTemplate[] = {
      {CKA_TOKEN, &kTrue, 1},       {CKA_PRIVATE, &kTrue, 1},
      {CKA_SIGN, &kTrue, 1},        {CKA_SENSITIVE, &kFalse, 1},
      {CKA_EXTRACTABLE, &kTrue, 1}, {CKA_LABEL, labelText, labelLength},
  };
  CK_MECHANISM pairMechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE publicKey = 0, privateKey = 0;
  Require("C_GenerateKeyPair",
          module->C_GenerateKeyPair(session, &pairMechanism, publicTemplate, 5, privateTemplate, 6,
                                    &publicKey, &privateKey));

  CK_ULONG aesLength = 32;
  CK_ATTRIBUTE aesTemplate[] = {
      {CKA_TOKEN, &kTrue, 1},
      {CKA_VALUE_LEN, &aesLength, 8},
      {CKA_SENSITIVE, &kFalse, 1},
      {CKA_EXTRACTABLE, &kTrue, 1},
      {CKA_LABEL, labelText, labelLength},
  };
  CK_MECHANISM aesMechanism = {CKM_AES_KEY_GEN, nullptr, 0};
  CK_OBJECT_HANDLE aesKey = 0;
  Require("C_GenerateKey", module->C_GenerateKey(session, &aesMechanism, aesTemplate, 5, &aesKey));

  std::vector<CK_BYTE> signature = Sign(session, privateKey);
  std::printf("value signature-length %zu\n", signature.size());
  CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
  Require("C_VerifyInit", module->C_VerifyInit(session, &mechanism, publicKey));
  Require("C_Verify",
          module->C_Verify(session, kMessage, sizeof kMessage, signature.data(), signature.size()));

  std::printf("value modulus-length %zu\n", ReadAttribute(session, publicKey, CKA_MODULUS).size());
  std::printf("secret private-exponent %s\n",
              Hex(ReadAttribute(session, privateKey, CKA_PRIVATE_EXPONENT)).c_str());
  std::printf("secret aes-value %s\n", Hex(ReadAttribute(session, aesKey, CKA_VALUE)).c_str());

  // A sensitive key's value is refused: the module answers with the result
  // and a length of CK_UNAVAILABLE_INFORMATION, and leaves the buffer alone.
  CK_ATTRIBUTE sensitiveTemplate[] = {
      {CKA_TOKEN, &kFalse, 1}, {CKA_VALUE_LEN, &aesLength, 8}, {CKA_SENSITIVE, &kTrue, 1}};
  CK_OBJECT_HANDLE sensitiveKey = 0;
  Require("C_GenerateKey",
          module->C_GenerateKey(session, &aesMechanism, sensitiveTemplate, 3, &sensitiveKey));
  CK_BYTE buffer[32] = {};
  CK_ATTRIBUTE refused = {CKA_VALUE, buffer, sizeof buffer};
  Report("C_GetAttributeValue", module->C_GetAttributeValue(session, sensitiveKey, &refused, 1));
  std::printf("value refused-length %ld\n", static_cast<long>(refused.ulValueLen));

  CK_ATTRIBUTE search[] = {{CKA_LABEL, labelText, labelLength}};
  Require("C_FindObjectsInit", module->C_FindObjectsInit(session, search, 1));
  CK_OBJECT_HANDLE found[8];
  CK_ULONG foundCount = 0;
  Require("C_FindObjects", module->C_FindObjects(session, found, 8, &foundCount));
  Require("C_FindObjectsFinal", module->C_FindObjectsFinal(session));
  std::printf("value objects-found %lu\n", foundCount);
  CloseUserSession(session);
  return 0;
}

// Signs the test message with the private key labelled `label`.
int RunSign(const char* pin, const char* label) {
  CK_SESSION_HANDLE session = OpenUserSession(pin);
  CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE search[] = {{CKA_CLASS, &keyClass, sizeof keyClass},
                           {CKA_LABEL, const_cast<char*>(label), std::strlen(label)}};
  Require("C_FindObjectsInit", module->C_FindObjectsInit(session, search, 2));
  CK_OBJECT_HANDLE key = 0;
  CK_ULONG count = 0;
  Require("C_FindObjects", module->C_FindObjects(session, &key, 1, &count));
  Require("C_FindObjectsFinal", module->C_FindObjectsFinal(session));
  if (count != 1) {
    std::printf("no private key labelled %s\n", label);
    return 1;
  }
  std::printf("value signature %s\n", Hex(Sign(session, key)).c_str());
  CloseUserSession(session);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <module> init|session|sign ...\n", argv[0]);
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 2;
  }
  auto getFunctionList =
      reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  if (getFunctionList == nullptr) return 2;
  Require("C_GetFunctionList", getFunctionList(&module));

  const std::string scenario = argv[2];
  if (scenario == "init") return RunInit();
  if (scenario == "session" && argc == 5) return RunSession(argv[3], argv[4]);
  if (scenario == "sign" && argc == 5) return RunSign(argv[3], argv[4]);
  std::fprintf(stderr, "unknown scenario or wrong arguments\n");
  return 2;
}
