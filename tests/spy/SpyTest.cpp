// The spy in this process in front of a module whose functions the test
// supplies, then in front of SoftHSM2 here and in pkcs11-tool.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <regex>

#include "CChildProcess.h"
#include "SoftHsm.h"
#include "TestFiles.h"
#include "TestSkips.h"
#include "TraceLog.h"
#include "spy/Pkcs11Interfaces.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

constexpr const char* kSoftHsm = kSoftHsmModule;
// The fake module's function list, and the spy, loaded once per process.
auto* const fake = static_cast<CK_FUNCTION_LIST_3_0*>(
    dlsym(dlopen(ZELPH_FAKE_MODULE, RTLD_NOW | RTLD_LOCAL), "zelph_fake_functions"));
void* const spyLibrary = dlopen(ZELPH_SPY_LIB, RTLD_NOW | RTLD_LOCAL);

// Traces this process, and asks the spy for its function list.
CK_FUNCTION_LIST* Spy() {
  TraceThisProcess();
  CK_FUNCTION_LIST* functions = nullptr;
  reinterpret_cast<CK_C_GetFunctionList>(dlsym(spyLibrary, "C_GetFunctionList"))(&functions);
  return functions;
}

// A number or pointer as the bytes of a machine word (x86-64).
const auto Word = [](auto value) {
  std::uintptr_t word = 0;
  return std::memcpy(&word, &value, sizeof value), word;
};

// The function and arguments the test sent, those the module got, and what
// the module returns.
std::vector<std::uintptr_t> sent, got;
CK_RV result;

// The module's outputs: kOutput in every CK_ULONG (lengths, counts, handles,
// a list's first entry), '%' in every byte of an information structure, so
// that its texts must reach the log as they are.
constexpr CK_ULONG kOutput = 1;
template <class T>
void Fill(T argument) {
  if constexpr (std::is_same_v<T, CK_ULONG*>) *argument = kOutput;
  if constexpr (requires { argument->flags; }) std::memset(argument, '%', sizeof *argument);
}

template <auto Member, class = std::remove_cvref_t<decltype(CK_FUNCTION_LIST_3_0().*Member)>>
struct CStub;
template <auto Member, class... A>
struct CStub<Member, CK_RV (*)(A...)> {
  static CK_RV Module(A... args) {
    got = {Word(&Module), Word(args)...};
    (Fill(args), ...);
    return result;
  }
  // Puts Module into the module's list, then calls the spy's export `name`.
  static CK_RV Call(const char* name, A... args) {
    fake->*Member = &Module;
    sent = {Word(&Module), Word(args)...};
    return reinterpret_cast<CK_RV (*)(A...)>(dlsym(spyLibrary, name))(args...);
  }
};

// A row: its line, the function, the module's result, which the caller must
// get, the call, the lines between "Entering" and "Returns", each ended by
// '|', and whether the spy forwards the call.
using CRow = std::tuple<int, const char*, CK_RV, CK_RV (*)(), std::string, bool>;

// The caller's side; out[0] holds 64 before each call.
template <class T>
T output;
CK_BYTE data[] = "abcd", buffer[64];
CK_ULONG out[2], list[4];
CK_UTF8CHAR pin[] = "1234", newPin[] = "56789", user[] = "alice%s",
            tokenLabel[] = "zelph 100% %s \xC3\xBC          ";
CK_BBOOL yes = CK_TRUE;
// The library's dump knows the first two; the third gets its standard name.
CK_ATTRIBUTE attributes[] = {{CKA_LABEL, data, 2},
                             {CKA_VALUE, buffer, CK_UNAVAILABLE_INFORMATION},
                             {CKA_ALWAYS_AUTHENTICATE, &yes, 1}};
CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
CK_VERSION version30 = {3, 0};
// A mechanism whose parameter lies at an odd address in a block of its own
// size, so that it must be read unaligned and never past ulParameterLen.
CK_MECHANISM* Mech(CK_MECHANISM_TYPE type, const std::vector<CK_BYTE>& parameter,
                   bool null = false) {
  static std::unique_ptr<CK_BYTE[]> block;
  static CK_MECHANISM given;
  block = std::make_unique<CK_BYTE[]>(parameter.size() + 1);
  std::copy(parameter.begin(), parameter.end(), block.get() + 1);
  return &(given = {type, null ? nullptr : block.get() + 1, parameter.size()});
}
template <class T>
std::vector<CK_BYTE> Of(const T& value) {
  return {reinterpret_cast<const CK_BYTE*>(&value), reinterpret_cast<const CK_BYTE*>(&value + 1)};
}
CK_BYTE d[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
CK_C_INITIALIZE_ARGS initArgs = {nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr};
const std::string k32 = '"' + std::string(32, '%') + "\"|", k64 = '"' + std::string(64, '%') + '"';

// clang-format off
#define ZELPH_ARGS(...) __VA_ARGS__
#define ROW_(f, rv, args, lines, forwarded, ...) \
    CRow{__LINE__, #f, rv, [] { __VA_ARGS__; \
        return CStub<&CK_FUNCTION_LIST_3_0::f>::Call(#f, ZELPH_ARGS args); }, lines, forwarded}
#define ROW(f, rv, args, lines) ROW_(f, rv, args, lines, true)
// The spy answers C_GetFunctionList itself, and every call before C_Initialize.
#define OWN(f, rv, args, lines) ROW_(f, rv, args, lines, false)
// C_Initialize with ZELPH_SPY_MODULE set to `module`.
#define INIT(module, rv, lines) ROW_(C_Initialize, rv, (&initArgs), "pInitArgs: flags = " \
    "0x00000002 (CKF_OS_LOCKING_OK), mutex functions none, pReserved NULL|" lines, rv == CKR_OK, \
    setenv("ZELPH_SPY_MODULE", module, 1))
#define H "hSession = 5|"
#define MECH "pMechanism = CKM_SHA256_RSA_PKCS|"
#define LABEL "pTemplate: 1 attribute|\tCKA_LABEL\tLen=2\t\"ab\"|"
// The shapes many functions share.
#define SESSION(f, rv) ROW(f, rv, (5), H)
#define UPDATE(f, rv) ROW(f, rv, (5, data, 4), H "pPart: 4 bytes|")
#define KEY_INIT(f, rv) ROW(f, rv, (5, &mechanism, 9), H MECH "hKey = 9|")
// A mechanism's parameter, by name where the spy knows its structure.
#define PARAMETER(mechanism, text) \
    ROW(C_EncryptInit, CKR_OK, (5, mechanism, 9), H "pMechanism = " + std::string(text) + "|hKey = 9|")
#define FINAL(f, rv, o, n) ROW(f, rv, (5, buffer, out), H o ": room for 64 bytes|" n " = 1|")
#define TRANSFORM(f, rv, i, o, n) \
    ROW(f, rv, (5, data, 4, buffer, out), H i ": 4 bytes|" o ": room for 64 bytes|" n " = 1|")
// The 3.0 message functions: a parameter, associated data, input and output.
#define P H "pParameter: 4 bytes|"
#define MESSAGE(f, i, o, n) ROW(f, CKR_OK, (5, data, 4, data, 2, data, 4, buffer, out), \
    P "pAssociatedData: 2 bytes|" i ": 4 bytes|" o ": room for 64 bytes|" n " = 1|")
#define BEGIN(f) ROW(f, CKR_OK, (5, data, 4, data, 2), P "pAssociatedData: 2 bytes|")
#define NEXT(f, i, o, n) ROW(f, CKR_OK, (5, data, 4, data, 4, buffer, out, CKF_END_OF_MESSAGE), \
    P i ": 4 bytes|" o ": room for 64 bytes|flags = 0x00000001|" n " = 1|")
#define SIGN(f) ROW(f, CKR_OK, (5, data, 4, data, 4, buffer, out), \
    P "pData: 4 bytes|pSignature: room for 64 bytes|*pulSignatureLen = 1|")
#define VERIFY(f) ROW(f, CKR_SIGNATURE_INVALID, (5, data, 4, data, 4, buffer, 3), \
    P "pData: 4 bytes|pSignature: 3 bytes|")

const std::vector<CRow> kRows = {
    OWN(C_GetInfo, CKR_CRYPTOKI_NOT_INITIALIZED, (&output<CK_INFO>), ""),
    INIT("/none/lib.so", CKR_GENERAL_ERROR, "Cannot forward: cannot load the PKCS#11 module /none/"
         "lib.so: /none/lib.so: cannot open shared object file: No such file or directory|"),
    INIT("libc.so.6", CKR_GENERAL_ERROR,
         "Cannot forward: libc.so.6 is not a PKCS#11 module: it has no C_GetFunctionList|"),
    // Asked for its function list, the spy writes that call too.
    INIT(ZELPH_SPY_LIB, CKR_GENERAL_ERROR, "Entering C_GetFunctionList.|    Returns CKR_OK|Leaving "
         "C_GetFunctionList.|Cannot forward: the PKCS#11 module " ZELPH_SPY_LIB
         " leads back to the spy itself; name the real module instead|"),
    INIT(ZELPH_FAKE_MODULE, CKR_OK, ""),
    ROW(C_Finalize, CKR_OK, (nullptr), "pReserved NULL|"),
    ROW(C_GetInfo, CKR_OK, (&output<CK_INFO>), "cryptokiVersion = 37.37|manufacturerID = " + k32 +
        "flags = 0x2525252525252525|libraryDescription = " + k32 + "libraryVersion = 37.37|"),
    OWN(C_GetFunctionList, CKR_OK, (&output<CK_FUNCTION_LIST*>), ""),
    ROW(C_GetSlotList, CKR_OK, (CK_TRUE, list, out),
        "tokenPresent = CK_TRUE|pSlotList: room for 64 slots|*pulCount = 1|pSlotList = 1|"),
    ROW(C_GetSlotInfo, CKR_OK, (3, &output<CK_SLOT_INFO>), "slotID = 3|slotDescription = " + k64 +
        "|manufacturerID = " + k32 + "flags = 0x2525252525252525 (CKF_TOKEN_PRESENT | CKF_HW_SLOT"
        " | 0x2525252525252520)|hardwareVersion = 37.37|firmwareVersion = 37.37|"),
    ROW(C_GetTokenInfo, CKR_TOKEN_NOT_PRESENT, (3, &output<CK_TOKEN_INFO>), "slotID = 3|"),
    ROW(C_GetMechanismList, CKR_OK, (3, list, out), "slotID = 3|pMechanismList: room for 64 "
        "mechanisms|*pulCount = 1|pMechanismList[0] = CKM_RSA_PKCS|"),
    ROW(C_GetMechanismInfo, CKR_MECHANISM_INVALID, (3, CKM_SHA256_RSA_PKCS,
        &output<CK_MECHANISM_INFO>), "slotID = 3|type = CKM_SHA256_RSA_PKCS|"),
    ROW(C_InitToken, CKR_OK, (3, pin, 4, tokenLabel), "slotID = 3|pPin: 4 characters, not shown|"
        "pLabel = \"zelph 100% %s \xC3\xBC          \"|"),
    ROW(C_InitPIN, CKR_PIN_LEN_RANGE, (5, nullptr, 0), H "pPin = NULL, length 0|"),
    ROW(C_SetPIN, CKR_OK, (5, pin, 4, newPin, 5),
        H "pOldPin: 4 characters, not shown|pNewPin: 5 characters, not shown|"),
    ROW(C_OpenSession, CKR_OK, (3, CKF_SERIAL_SESSION | CKF_RW_SESSION, data, nullptr, out),
        "slotID = 3|flags = 0x00000006 (CKF_RW_SESSION | CKF_SERIAL_SESSION)|pApplication set|"
        "Notify NULL|*phSession = 1|"),
    SESSION(C_CloseSession, CKR_SESSION_HANDLE_INVALID), SESSION(C_Logout, CKR_OK),
    ROW(C_CloseAllSessions, CKR_OK, (3), "slotID = 3|"),
    ROW(C_GetSessionInfo, CKR_OK, (5, &output<CK_SESSION_INFO>), H "slotID = 2676586395008836901|"
        "state = 0x2525252525252525|flags = 0x2525252525252525 (CKF_SERIAL_SESSION | "
        "0x2525252525252521)|ulDeviceError = 2676586395008836901|"),
    FINAL(C_GetOperationState, CKR_OK, "pOperationState", "*pulOperationStateLen"),
    ROW(C_SetOperationState, CKR_OK, (5, data, 4, 9, 8),
        H "pOperationState: 4 bytes|hEncryptionKey = 9|hAuthenticationKey = 8|"),
    ROW(C_Login, CKR_PIN_INCORRECT, (5, CKU_SO, pin, 4),
        H "userType = CKU_SO|pPin: 4 characters, not shown|"),
    ROW(C_CreateObject, CKR_OK, (5, attributes, 1, out), H LABEL "*phObject = 1|"),
    ROW(C_CopyObject, CKR_OK, (5, 8, nullptr, 0, out),
        H "hObject = 8|pTemplate = NULL, 0 attributes|*phNewObject = 1|"),
    ROW(C_DestroyObject, CKR_OBJECT_HANDLE_INVALID, (5, 8), H "hObject = 8|"),
    ROW(C_GetObjectSize, CKR_OK, (5, 8, out), H "hObject = 8|*pulSize = 1|"),
    // A refused attribute is shown without whatever the caller left in its buffer.
    ROW(C_GetAttributeValue, CKR_ATTRIBUTE_SENSITIVE, (5, 8, attributes, 3), H "hObject = 8|"
        "pTemplate: 3 attributes asked for|\tCKA_LABEL\tLen=2\t(data present)|\tCKA_VALUE\tLen=-1\t"
        "(data present)|\tCKA_ALWAYS_AUTHENTICATE\tLen=1\t(data present)|pTemplate: 3 attributes "
        "answered|\tCKA_LABEL\tLen=2\t\"ab\"|\tCKA_VALUE\tLen=-1\t(data NULL)|"
        "\tCKA_ALWAYS_AUTHENTICATE\tLen=1\t01|"),
    ROW(C_SetAttributeValue, CKR_OK, (5, 8, attributes, 1), H "hObject = 8|" LABEL),
    ROW(C_FindObjectsInit, CKR_OK, (5, attributes, 1), H LABEL),
    ROW(C_FindObjects, CKR_OK, (5, list, 4, out),
        H "ulMaxObjectCount = 4|*pulObjectCount = 1|phObject = 1|"),
    SESSION(C_FindObjectsFinal, CKR_OK), SESSION(C_GetFunctionStatus, CKR_FUNCTION_NOT_PARALLEL),
    SESSION(C_CancelFunction, CKR_FUNCTION_NOT_PARALLEL),
    KEY_INIT(C_EncryptInit, CKR_KEY_TYPE_INCONSISTENT), KEY_INIT(C_DecryptInit, CKR_OK),
    KEY_INIT(C_SignInit, CKR_OK), KEY_INIT(C_SignRecoverInit, CKR_OK),
    KEY_INIT(C_VerifyInit, CKR_OK), KEY_INIT(C_VerifyRecoverInit, CKR_OK),
    UPDATE(C_DigestUpdate, CKR_OK),
    UPDATE(C_SignUpdate, CKR_OK), UPDATE(C_VerifyUpdate, CKR_OK),
    TRANSFORM(C_Encrypt, CKR_OK, "pData", "pEncryptedData", "*pulEncryptedDataLen"),
    TRANSFORM(C_EncryptUpdate, CKR_OK, "pPart", "pEncryptedPart", "*pulEncryptedPartLen"),
    FINAL(C_EncryptFinal, CKR_OK, "pLastEncryptedPart", "*pulLastEncryptedPartLen"),
    TRANSFORM(C_Decrypt, CKR_OK, "pEncryptedData", "pData", "*pulDataLen"),
    TRANSFORM(C_DecryptUpdate, CKR_OK, "pEncryptedPart", "pPart", "*pulPartLen"),
    FINAL(C_DecryptFinal, CKR_OK, "pLastPart", "*pulLastPartLen"),
    ROW(C_DigestInit, CKR_OK, (5, &mechanism), H MECH),
    TRANSFORM(C_Digest, CKR_OK, "pData", "pDigest", "*pulDigestLen"),
    ROW(C_DigestKey, CKR_KEY_INDIGESTIBLE, (5, 9), H "hKey = 9|"),
    FINAL(C_DigestFinal, CKR_OK, "pDigest", "*pulDigestLen"),
    TRANSFORM(C_Sign, CKR_BUFFER_TOO_SMALL, "pData", "pSignature", "*pulSignatureLen"),
    FINAL(C_SignFinal, CKR_BUFFER_TOO_SMALL, "pSignature", "*pulSignatureLen"),
    TRANSFORM(C_SignRecover, CKR_OK, "pData", "pSignature", "*pulSignatureLen"),
    ROW(C_Verify, CKR_SIGNATURE_INVALID, (5, data, 4, buffer, 3),
        H "pData: 4 bytes|pSignature: 3 bytes|"),
    ROW(C_VerifyFinal, CKR_OK, (5, data, 4), H "pSignature: 4 bytes|"),
    TRANSFORM(C_VerifyRecover, CKR_OK, "pSignature", "pData", "*pulDataLen"),
    TRANSFORM(C_DigestEncryptUpdate, CKR_OK, "pPart", "pEncryptedPart", "*pulEncryptedPartLen"),
    TRANSFORM(C_DecryptDigestUpdate, CKR_OK, "pEncryptedPart", "pPart", "*pulPartLen"),
    TRANSFORM(C_SignEncryptUpdate, CKR_OK, "pPart", "pEncryptedPart", "*pulEncryptedPartLen"),
    TRANSFORM(C_DecryptVerifyUpdate, CKR_OK, "pEncryptedPart", "pPart", "*pulPartLen"),
    ROW(C_GenerateKey, CKR_OK, (5, &mechanism, attributes, 1, out), H MECH LABEL "*phKey = 1|"),
    ROW(C_GenerateKeyPair, CKR_OK, (5, &mechanism, attributes, 1, nullptr, 0, out, out + 1),
        H MECH "pPublicKeyTemplate: 1 attribute|\tCKA_LABEL\tLen=2\t\"ab\"|pPrivateKeyTemplate = "
        "NULL, 0 attributes|*phPublicKey = 1|*phPrivateKey = 1|"),
    ROW(C_WrapKey, CKR_OK, (5, &mechanism, 9, 8, buffer, out), H MECH
        "hWrappingKey = 9|hKey = 8|pWrappedKey: room for 64 bytes|*pulWrappedKeyLen = 1|"),
    ROW(C_UnwrapKey, CKR_OK, (5, &mechanism, 9, data, 4, attributes, 1, out), H MECH
        "hUnwrappingKey = 9|pWrappedKey: 4 bytes|" LABEL "*phKey = 1|"),
    // Handles are shown only after CKR_OK.
    ROW(C_DeriveKey, CKR_MECHANISM_INVALID, (5, &mechanism, 9, attributes, 1, out),
        H MECH "hBaseKey = 9|" LABEL),
    ROW(C_SeedRandom, CKR_RANDOM_SEED_NOT_SUPPORTED, (5, data, 4), H "pSeed: 4 bytes|"),
    ROW(C_GenerateRandom, CKR_OK, (5, buffer, 16), H "RandomData: 16 bytes|"),
    ROW(C_WaitForSlotEvent, CKR_OK, (CKF_DONT_BLOCK, out, nullptr),
        "flags = 0x00000001|*pSlot = 1|"),
    ROW(C_LoginUser, CKR_OK, (5, CKU_USER, pin, 4, user, 5),
        H "userType = CKU_USER|pPin: 4 characters, not shown|pUsername = \"alice\"|"),
    ROW(C_SessionCancel, CKR_OK, (5, CKF_ENCRYPT | CKF_SIGN),
        H "flags = 0x00000900 (CKF_ENCRYPT | CKF_SIGN)|"),
    KEY_INIT(C_MessageEncryptInit, CKR_OK), KEY_INIT(C_MessageDecryptInit, CKR_OK),
    KEY_INIT(C_MessageSignInit, CKR_OK), KEY_INIT(C_MessageVerifyInit, CKR_OK),
    MESSAGE(C_EncryptMessage, "pPlaintext", "pCiphertext", "*pulCiphertextLen"),
    MESSAGE(C_DecryptMessage, "pCiphertext", "pPlaintext", "*pulPlaintextLen"),
    BEGIN(C_EncryptMessageBegin), BEGIN(C_DecryptMessageBegin),
    NEXT(C_EncryptMessageNext, "pPlaintextPart", "pCiphertextPart", "*pulCiphertextPartLen"),
    NEXT(C_DecryptMessageNext, "pCiphertextPart", "pPlaintextPart", "*pulPlaintextPartLen"),
    SIGN(C_SignMessage), SIGN(C_SignMessageNext), VERIFY(C_VerifyMessage), VERIFY(C_VerifyMessageNext),
    ROW(C_SignMessageBegin, CKR_OK, (5, data, 4), P), ROW(C_VerifyMessageBegin, CKR_OK, (5, data, 4), P),
    SESSION(C_MessageEncryptFinal, CKR_OK), SESSION(C_MessageDecryptFinal, CKR_OK),
    SESSION(C_MessageSignFinal, CKR_OK), SESSION(C_MessageVerifyFinal, CKR_OPERATION_NOT_INITIALIZED),
    PARAMETER(nullptr, "NULL"),
    PARAMETER(Mech(CKM_RSA_PKCS_PSS, Of(CK_RSA_PKCS_PSS_PARAMS{CKM_SHA256, CKG_MGF1_SHA256, 32})),
              "CKM_RSA_PKCS_PSS, hashAlg = CKM_SHA256, mgf = CKG_MGF1_SHA256, sLen = 32"),
    PARAMETER(Mech(CKM_RSA_PKCS_OAEP, Of(CK_RSA_PKCS_OAEP_PARAMS{CKM_SHA384, CKG_MGF1_SHA1, 1, d,
              5})), "CKM_RSA_PKCS_OAEP, hashAlg = CKM_SHA384, mgf = CKG_MGF1_SHA1, source = "
              "CKZ_DATA_SPECIFIED, ulSourceDataLen = 5"),
    PARAMETER(Mech(CKM_AES_GCM, Of(CK_GCM_PARAMS{d, 12, 96, d, 16, 128})), "CKM_AES_GCM, pIv = "
              "000102030405060708090A0B (12 bytes), ulIvBits = 96, ulAADLen = 16, ulTagBits = 128"),
    PARAMETER(Mech(CKM_AES_GCM, Of(std::array<CK_ULONG, 5>{0, 12, 0, 0, 96})),  // no ulIvBits
              "CKM_AES_GCM, pIv = NULL (12 bytes), ulAADLen = 0, ulTagBits = 96"),
    PARAMETER(Mech(CKM_AES_CBC, {d, d + 16}), "CKM_AES_CBC, iv = 000102030405060708090A0B0C0D0E0F"),
    PARAMETER(Mech(CKM_AES_CTR, Of(CK_AES_CTR_PARAMS{32, {0xA5, 1}})),
              "CKM_AES_CTR, ulCounterBits = 32, cb = A501" + std::string(28, '0')),
    PARAMETER(Mech(CKM_ECDH1_COFACTOR_DERIVE, Of(CK_ECDH1_DERIVE_PARAMS{CKD_NULL, 0, nullptr, 65,
              d})), "CKM_ECDH1_COFACTOR_DERIVE, kdf = CKD_NULL, ulSharedDataLen = 0, "
              "ulPublicDataLen = 65"),
    PARAMETER(Mech(CKM_RSA_PKCS_PSS, {d, d + 8}), "CKM_RSA_PKCS_PSS, pParameter: 8 bytes "
              "0001020304050607, not the 24 of CK_RSA_PKCS_PSS_PARAMS"),
    PARAMETER(Mech(CKM_AES_CBC, {d, d + 16}, true),
              "CKM_AES_CBC, pParameter = NULL, ulParameterLen = 16"),
    PARAMETER(Mech(CKM_SHA256_HMAC_GENERAL, std::vector<CK_BYTE>(100)), "CKM_SHA256_HMAC_GENERAL, "
              "pParameter: 100 bytes " + std::string(128, '0') + " and 36 more"),
    // The spy hands out its own interface in place of the module's; a 3.0
    // module's answers reach the caller, *ppInterface is only written.
    OWN(C_GetInterfaceList, CKR_OK, (nullptr, out), "pInterfacesList = NULL (asks for the length)|"
        "*pulCount = 1|"),
    OWN(C_GetInterface, CKR_OK, (nullptr, &version30, &output<CK_INTERFACE*>, 0), "pInterfaceName "
        "= NULL|pVersion = 3.0|flags = 0x00000000|*ppInterface = \"PKCS 11\" 3.0, flags = 0x00000000|"),
};
// clang-format on

// The log from byte `from` on, without time and thread prefixes: as the
// golden log shows it, numbers as "#" and what varies by run (the contents of
// the trace library's dumps, the token's serial number) replaced; else with
// one level less indentation.
std::vector<std::string> LogSince(std::size_t from, bool golden = false) {
  std::vector<std::string> lines;
  for (const std::string& line : SplitLines(ReadLogs(TraceThisProcess()).substr(from))) {
    const CTraceLine split = SplitTraceLine(line);
    std::string text = golden && split.text.starts_with('\t') ? "<dump>" : split.text;
    if (golden) {
      text = std::regex_replace(text, std::regex("serialNumber = .*"), "serialNumber = <varies>");
      text = std::regex_replace(text, std::regex("[0-9]+"), "#");
    }
    const int depth = golden || split.depth == 0 ? split.depth : split.depth - 1;
    lines.push_back(split.valid ? std::string(4 * depth, ' ') + text : line);
  }
  return lines;
}

// Runs a program to its end; says how it ended and what it wrote.
std::string RunProgram(std::vector<std::string> command,
                       std::map<std::string, std::optional<std::string>> environment = {}) {
  return RunToEnd({std::move(command), {}, std::move(environment), {}});
}

// The write() calls this process has made so far.
long long WriteCalls() {
  const std::string io = ReadFile("/proc/self/io");
  const std::size_t at = io.find("syscw: ");
  return at == std::string::npos ? -1 : std::stoll(io.substr(at + 7));
}

// The writes of a call whose lines between "Entering" and "Returns" are
// `lines` ('|'-separated): "Entering", the rest and "Leaving", and for a line
// that a format would recode (not ASCII) one of its own after the lines
// before it.
int WritesOfCall(const std::string& lines) {
  int writes = 3;
  bool pending = false;
  std::size_t start = 0;
  for (std::size_t end; (end = lines.find('|', start)) != std::string::npos; start = end + 1) {
    const auto line = std::string_view(lines).substr(start, end - start);
    const bool own = std::any_of(line.begin(), line.end(), [](char c) { return c & 0x80; });
    writes += own ? 1 + pending : 0;
    pending = !own;
  }
  return writes;
}

// First in the process: the misconfigured C_Initialize calls need a spy that
// has not loaded a module yet. C_Initialize loads it for the whole process.
TEST(SpyTest, EveryCallReachesTheModuleUnchangedAndIsLoggedWithoutSecrets) {
  Spy();
  for (const auto& [line, name, rv, run, lines, forwarded] : kRows) {
    SCOPED_TRACE(testing::Message() << "line " << line << ": " << name);
    sent = got = {};
    result = rv;
    out[0] = 64;
    const std::size_t from = ReadLogs(TraceThisProcess()).size();
    testing::internal::CaptureStderr();
    const long long writesBefore = WriteCalls();
    EXPECT_EQ(run(), rv) << "the module's result did not reach the caller";
    // Loading the module writes the inputs first.
    if (forwarded && std::string_view(name) != "C_Initialize") {
      EXPECT_EQ(WriteCalls() - writesBefore, WritesOfCall(lines))
          << "not three writes to the log for the call";
    }
    EXPECT_EQ(CountOf(testing::internal::GetCapturedStderr(), "zelph spy: "),
              CountOf(lines, "Cannot forward: "))
        << "no line on standard error saying why";
    // The module writes its outputs where the caller gave them.
    EXPECT_EQ(got, forwarded ? sent : std::vector<std::uintptr_t>())
        << "the module's function of that name did not get the arguments unchanged";
    EXPECT_NE(dlsym(spyLibrary, name), nullptr) << "not exported";
    std::string logged;
    for (const std::string& text : LogSince(from)) logged += text + "|";
    // The module's time is shown where the call reached it (C_GetInterface
    // asks the module's own).
    const bool timed = forwarded || std::string_view(name) == "C_GetInterface";
    logged = std::regex_replace(logged, std::regex(" \\([0-9]+ us\\)\\|"), " (# us)|");
    EXPECT_EQ(logged, "Entering " + std::string(name) + ".|" + lines + "Returns " +
                          GetCkErrorString(rv) + (timed ? " (# us)" : "") + "|Leaving " + name +
                          ".||");
  }
  // Nothing but the functions of the 3.0 list.
  EXPECT_EQ(CountOf(RunProgram({"/usr/bin/nm", "-D", "--defined-only", "-j", ZELPH_SPY_LIB}), "\n"),
            92);
}

// A session through the spy in this process in front of SoftHSM2, whose log
// must read as the golden log.
TEST(SpyTest, SessionWithSoftHsmIsLoggedLineForLineAsTheGoldenLog) {
  if (access(kSoftHsm, R_OK) != 0) GTEST_SKIP() << "SoftHSM2 is missing; `make deps` installs it";
  const CTestDir dir("spy");
  setenv("SOFTHSM2_CONF", SoftHsmStore(dir).c_str(), 1);
  setenv("ZELPH_SPY_MODULE", ZELPH_FAKE_MODULE, 1);
  CK_FUNCTION_LIST* f = Spy();  // the log is open
  reinterpret_cast<CK_C_GetFunctionList>(dlsym(dlopen(kSoftHsm, RTLD_NOW), "C_GetFunctionList"))(
      &f);
  std::memcpy(fake, f, sizeof *f);  // the module's functions are now SoftHSM2's
  const std::size_t from = ReadLogs(TraceThisProcess()).size();
  f = Spy();
  f->C_Initialize(nullptr);
  f->C_GetInfo(&output<CK_INFO>);
  CK_ULONG count = 4, length = 32;
  f->C_GetSlotList(CK_TRUE, list, &count);
  f->C_GetTokenInfo(list[0], &output<CK_TOKEN_INFO>);
  CK_SESSION_HANDLE s = 0;
  f->C_OpenSession(list[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &s);
  f->C_Login(s, CKU_USER, pin, 4);
  CK_BBOOL no = CK_FALSE;
  CK_ATTRIBUTE key[] = {{CKA_TOKEN, &no, 1}, {CKA_VALUE_LEN, &length, 8}, {CKA_SENSITIVE, &yes, 1}};
  CK_MECHANISM generate = {CKM_AES_KEY_GEN, nullptr, 0};
  f->C_GenerateKey(s, &generate, key, 3, &out[0]);
  CK_ATTRIBUTE value = {CKA_VALUE, buffer, 32};
  f->C_GetAttributeValue(s, out[0], &value, 1);  // refused: the key is sensitive
  f->C_FindObjectsInit(s, key, 1);
  f->C_FindObjects(s, list, 4, &count);
  f->C_FindObjectsFinal(s);
  f->C_Logout(s);
  f->C_CloseSession(s);
  f->C_Finalize(nullptr);
  ExpectGolden(LogSince(from, true), ZELPH_SPY_GOLDEN_LOG);
}

TEST(SpyTest, Pkcs11ToolSelfTestPrintsTheSameThroughTheSpy) {
  ZELPH_SKIP_UNDER_TSAN("loads the spy into pkcs11-tool");
  if (access(kSoftHsm, R_OK) != 0 || access("/usr/bin/pkcs11-tool", X_OK) != 0) {
    GTEST_SKIP() << "SoftHSM2 or OpenSC's pkcs11-tool is missing; `make deps` installs them";
  }
  const CTestDir dir("spy");
  WriteFile(dir.File("zelph.conf"),
            TraceConfig(dir.Path()) + "Spy {\n\tModule = " + kSoftHsm + "\n}\n");
  const std::string store = SoftHsmStore(dir);
  const auto tool = [&](const char* module, std::vector<std::string> args) {
    args.insert(args.begin(),
                {"/usr/bin/pkcs11-tool", "--module", module, "--login", "--pin", "1234"});
    return RunProgram(args, {{"SOFTHSM2_CONF", store},
                             {"ZELPH_CONFFILE", dir.File("zelph.conf")},
                             {"ZELPH_SPY_MODULE", std::nullopt}});
  };
  const std::string keys = tool(kSoftHsm, {"--keypairgen", "--key-type", "rsa:2048"});
  ASSERT_TRUE(keys.starts_with("exit status 0;")) << keys;
  const std::string direct = tool(kSoftHsm, {"--test"});
  EXPECT_EQ(tool(ZELPH_SPY_LIB, {"--test"}), direct) << "the self-test differs through the spy";
  EXPECT_GT(CountOf(ReadLogs(dir.Path()), "Entering C_VerifyInit."), 0) << "not through the spy";
}

}  // namespace
}  // namespace zelph
