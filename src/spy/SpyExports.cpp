// The spy's PKCS#11 entry points. Each one writes its call into the trace log
// and forwards it unchanged to the real module, whose result and outputs go
// back to the caller as they are.
//
// Every entry point is a declaration of what it writes, in the order of its
// parameters: ENTRY names the function once and opens its frame in the log,
// the IN_ lines come before the call reaches the module, FORWARD passes the
// arguments on, the OUT_ lines show what the module gave back and DONE writes
// the result. Parameter names reach the log through the preprocessor, so the
// log shows each one as the standard spells it.
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

#include "names/Pkcs11Names.h"
#include "spy/CSpyCall.h"
#include "spy/CSpyModule.h"
#include "spy/Pkcs11Interfaces.h"
#include "spy/SpyMechanism.h"
#include "spy/SpyTrace.h"
#include "zelph/trace.h"

#define ZELPH_SPY_EXPORT __attribute__((visibility("default")))

using zelph::CFlagKind;
using zelph::CSpyCall;
using zelph::HasOutput;

// The 3.0 functions have no prototypes in the system's header: these
// declarations give them, and hold each definition below to its type.
#define ZELPH_DECLARE(name) extern "C" ZELPH_SPY_EXPORT std::remove_pointer_t<CK_##name> name;
ZELPH_PKCS11_V3_FUNCTIONS(ZELPH_DECLARE)
#undef ZELPH_DECLARE

// clang-format off
#define ENTRY(name, parameters)                                 \
  extern "C" ZELPH_SPY_EXPORT CK_RV name parameters {           \
    constexpr auto kFunction = &CK_FUNCTION_LIST_3_0::name;     \
    CSpyCall call(#name);
#define FORWARD(...) const CK_RV rv = call.Forward(kFunction, __VA_ARGS__)
#define DONE return call.Return(rv); }

#define IN_NUMBER(a) zelph::TraceNumber(call, #a, a)
#define IN_FLAGS(a) zelph::TraceFlags(call, #a, a)
#define IN_NAMED_FLAGS(kind, a) zelph::TraceNamedFlags(call, #a, CFlagKind::kind, a)
#define IN_USER(a) zelph::TraceUserType(call, #a, a)
#define IN_PIN(a, length) zelph::TracePin(call, #a, a, length)
#define IN_BUFFER(a, length) zelph::TraceInputBuffer(call, #a, a, length)
#define IN_MECHANISM(a) zelph::TraceMechanismArgument(call, a)
#define IN_TEMPLATE(a, count) zelph::TraceInputTemplate(call, #a, a, count)
#define IN_SET(a, what) call.Line(#a " %s", (a) == nullptr ? "NULL" : what)
// An output buffer and its length, before the call: how much room it has.
#define IN_ROOM(a, length) zelph::TraceOutputBuffer(call, #a, a, #length, length)
#define IN_ROOM_FOR(a, length, unit) zelph::TraceOutputBuffer(call, #a, a, #length, length, unit)
#define OUT_LENGTH(length) zelph::TraceOutputLength(call, "*" #length, length, rv)
#define OUT_HANDLE(a) zelph::TraceOutputHandle(call, "*" #a, a, rv)
#define OUT_INFO(writer, a) if ((a) != nullptr && HasOutput(rv)) zelph::writer(call, *(a))

// The shapes many functions share.
#define SESSION_ENTRY(name) \
  ENTRY(name, (CK_SESSION_HANDLE hSession)) IN_NUMBER(hSession); FORWARD(hSession); DONE
#define KEY_INIT_ENTRY(name)                                                          \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,               \
               CK_OBJECT_HANDLE hKey))                                                \
    IN_NUMBER(hSession); IN_MECHANISM(pMechanism); IN_NUMBER(hKey);                   \
    FORWARD(hSession, pMechanism, hKey);                                              \
  DONE
#define UPDATE_ENTRY(name)                                                            \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen))    \
    IN_NUMBER(hSession); IN_BUFFER(pPart, ulPartLen);                                 \
    FORWARD(hSession, pPart, ulPartLen);                                              \
  DONE
// An input buffer in, an output buffer out.
#define TRANSFORM_ENTRY(name, in, inLength, out, outLength)                           \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR in, CK_ULONG inLength,         \
               CK_BYTE_PTR out, CK_ULONG_PTR outLength))                              \
    IN_NUMBER(hSession); IN_BUFFER(in, inLength); IN_ROOM(out, outLength);            \
    FORWARD(hSession, in, inLength, out, outLength);                                  \
    OUT_LENGTH(outLength);                                                            \
  DONE
// The end of an operation into an output buffer.
#define FINAL_ENTRY(name, out, outLength)                                             \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR out, CK_ULONG_PTR outLength))  \
    IN_NUMBER(hSession); IN_ROOM(out, outLength);                                     \
    FORWARD(hSession, out, outLength);                                                \
    OUT_LENGTH(outLength);                                                            \
  DONE
// A whole message encrypted or decrypted.
#define CRYPT_MESSAGE_ENTRY(name, in, inLength, out, outLength)                       \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,                    \
               CK_ULONG ulParameterLen, CK_BYTE_PTR pAssociatedData,                  \
               CK_ULONG ulAssociatedDataLen, CK_BYTE_PTR in, CK_ULONG inLength,       \
               CK_BYTE_PTR out, CK_ULONG_PTR outLength))                              \
    IN_NUMBER(hSession); IN_BUFFER(pParameter, ulParameterLen);                       \
    IN_BUFFER(pAssociatedData, ulAssociatedDataLen); IN_BUFFER(in, inLength);         \
    IN_ROOM(out, outLength);                                                          \
    FORWARD(hSession, pParameter, ulParameterLen, pAssociatedData,                    \
            ulAssociatedDataLen, in, inLength, out, outLength);                       \
    OUT_LENGTH(outLength);                                                            \
  DONE
#define CRYPT_MESSAGE_BEGIN_ENTRY(name)                                               \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,                    \
               CK_ULONG ulParameterLen, CK_BYTE_PTR pAssociatedData,                  \
               CK_ULONG ulAssociatedDataLen))                                         \
    IN_NUMBER(hSession); IN_BUFFER(pParameter, ulParameterLen);                       \
    IN_BUFFER(pAssociatedData, ulAssociatedDataLen);                                  \
    FORWARD(hSession, pParameter, ulParameterLen, pAssociatedData,                    \
            ulAssociatedDataLen);                                                     \
  DONE
#define CRYPT_MESSAGE_NEXT_ENTRY(name, in, inLength, out, outLength)                  \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,                    \
               CK_ULONG ulParameterLen, CK_BYTE_PTR in, CK_ULONG inLength,            \
               CK_BYTE_PTR out, CK_ULONG_PTR outLength, CK_FLAGS flags))              \
    IN_NUMBER(hSession); IN_BUFFER(pParameter, ulParameterLen);                       \
    IN_BUFFER(in, inLength); IN_ROOM(out, outLength); IN_FLAGS(flags);                \
    FORWARD(hSession, pParameter, ulParameterLen, in, inLength, out, outLength,       \
            flags);                                                                   \
    OUT_LENGTH(outLength);                                                            \
  DONE
// A message, or a part of one, signed into an output buffer.
#define SIGN_MESSAGE_ENTRY(name)                                                      \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,                    \
               CK_ULONG ulParameterLen, CK_BYTE_PTR pData, CK_ULONG ulDataLen,        \
               CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen))                 \
    IN_NUMBER(hSession); IN_BUFFER(pParameter, ulParameterLen);                       \
    IN_BUFFER(pData, ulDataLen); IN_ROOM(pSignature, pulSignatureLen);                \
    FORWARD(hSession, pParameter, ulParameterLen, pData, ulDataLen, pSignature,       \
            pulSignatureLen);                                                         \
    OUT_LENGTH(pulSignatureLen);                                                      \
  DONE
#define VERIFY_MESSAGE_ENTRY(name)                                                    \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,                    \
               CK_ULONG ulParameterLen, CK_BYTE_PTR pData, CK_ULONG ulDataLen,        \
               CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen))                      \
    IN_NUMBER(hSession); IN_BUFFER(pParameter, ulParameterLen);                       \
    IN_BUFFER(pData, ulDataLen); IN_BUFFER(pSignature, ulSignatureLen);               \
    FORWARD(hSession, pParameter, ulParameterLen, pData, ulDataLen, pSignature,       \
            ulSignatureLen);                                                          \
  DONE
#define MESSAGE_BEGIN_ENTRY(name)                                                     \
  ENTRY(name, (CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,                    \
               CK_ULONG ulParameterLen))                                              \
    IN_NUMBER(hSession); IN_BUFFER(pParameter, ulParameterLen);                       \
    FORWARD(hSession, pParameter, ulParameterLen);                                    \
  DONE
// clang-format on

namespace {

// The spy's own function lists. The link binds these names to the spy's own
// functions (-Bsymbolic), whatever else in the process exports C_ names; the
// designators hold the order of the names to the system's header.
#define ZELPH_LIST_ENTRY(name) .name = name,
const CK_FUNCTION_LIST kSpyFunctions = {.version = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR},
                                        ZELPH_PKCS11_V2_FUNCTIONS(ZELPH_LIST_ENTRY)};
const CK_FUNCTION_LIST_3_0 kSpyFunctions30 = {.version = {3, 0},
                                              ZELPH_PKCS11_V2_FUNCTIONS(ZELPH_LIST_ENTRY)
                                                  ZELPH_PKCS11_V3_FUNCTIONS(ZELPH_LIST_ENTRY)};
#undef ZELPH_LIST_ENTRY

// Loads the real module for `call` unless that was done; on failure says why
// on standard error and in the log.
bool LoadModule(CSpyCall& call) noexcept {
  try {
    // Loading runs the module's code, which may trace: the arguments go to
    // the log before, as in the log of a module loaded by the host itself.
    if (zelph::CSpyModule::Get().GetFunctions() == nullptr) call.FlushLines();
    std::string error;
    if (zelph::CSpyModule::Get().Load({&kSpyFunctions, &kSpyFunctions30}, error)) return true;
    std::fprintf(stderr, "zelph spy: %s\n", error.c_str());
    call.Line("Cannot forward: %s", error.c_str());
  } catch (...) {
    std::fprintf(stderr, "zelph spy: cannot set up the forwarding to the PKCS#11 module\n");
  }
  return false;
}

}  // namespace

// clang-format off

// ---- General purpose ------------------------------------------------------

ENTRY(C_Initialize, (CK_VOID_PTR pInitArgs))
  zelph::TraceInitArgs(call, pInitArgs);
  if (!LoadModule(call)) return call.Return(CKR_GENERAL_ERROR);
  FORWARD(pInitArgs);
DONE

ENTRY(C_Finalize, (CK_VOID_PTR pReserved))
  IN_SET(pReserved, "set");
  FORWARD(pReserved);
DONE

ENTRY(C_GetInfo, (CK_INFO_PTR pInfo))
  FORWARD(pInfo);
  OUT_INFO(TraceInfo, pInfo);
DONE

// Needs no real module: the caller gets the spy's list, whose functions
// forward to the real module once C_Initialize has loaded it.
ENTRY(C_GetFunctionList, (CK_FUNCTION_LIST_PTR_PTR ppFunctionList))
  (void)kFunction;
  if (ppFunctionList == nullptr) return call.Return(CKR_ARGUMENTS_BAD);
  *ppFunctionList = const_cast<CK_FUNCTION_LIST*>(&kSpyFunctions);
  return call.Return(CKR_OK);
}

// The spy answers with its own interfaces, made after the module's.
ENTRY(C_GetInterfaceList, (CK_INTERFACE_PTR pInterfacesList, CK_ULONG_PTR pulCount))
  (void)kFunction;
  IN_ROOM_FOR(pInterfacesList, pulCount, "interfaces");
  if (!LoadModule(call)) return call.Return(CKR_GENERAL_ERROR);
  if (pulCount == nullptr) return call.Return(CKR_ARGUMENTS_BAD);
  const auto own = zelph::CSpyModule::Get().GetInterfaces();
  CK_RV rv = CKR_OK;
  if (pInterfacesList != nullptr && *pulCount < own.size()) {
    rv = CKR_BUFFER_TOO_SMALL;
  } else if (pInterfacesList != nullptr) {
    std::copy(own.begin(), own.end(), pInterfacesList);
  }
  *pulCount = own.size();
  OUT_LENGTH(pulCount);
  if (pInterfacesList != nullptr && rv == CKR_OK) zelph::TraceInterfaceList(call, own);
DONE

// The module chooses the interface, the spy hands out its own in its place.
// *ppInterface is written, never read.
ENTRY(C_GetInterface, (CK_UTF8CHAR_PTR pInterfaceName, CK_VERSION_PTR pVersion,
                       CK_INTERFACE_PTR_PTR ppInterface, CK_FLAGS flags))
  (void)kFunction;
  zelph::TraceInterfaceRequest(call, pInterfaceName, pVersion, flags);
  if (!LoadModule(call)) return call.Return(CKR_GENERAL_ERROR);
  if (ppInterface == nullptr) return call.Return(CKR_ARGUMENTS_BAD);
  zelph::CSpyModule& module = zelph::CSpyModule::Get();
  CK_INTERFACE* chosen = nullptr;
  CK_RV rv = CKR_OK;
  if (module.GetRealGetInterface() != nullptr) {
    CK_INTERFACE* real = nullptr;
    rv = call.Call(module.GetRealGetInterface(), pInterfaceName, pVersion, &real, flags);
    // One the spy cannot stand in for would leave the log blind.
    if (rv == CKR_OK && (chosen = module.FindOwnInterface(real)) == nullptr) {
      rv = CKR_FUNCTION_FAILED;
    }
  } else {
    // A 2.x module has only what its C_GetFunctionList gives.
    chosen = module.MatchInterface(pInterfaceName, pVersion, flags);
    if (chosen == nullptr) rv = CKR_ARGUMENTS_BAD;
  }
  if (rv == CKR_OK) {
    *ppInterface = chosen;
    zelph::TraceInterface(call, "*ppInterface", *chosen);
  }
DONE

// ---- Slots and tokens -----------------------------------------------------

ENTRY(C_GetSlotList, (CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount))
  call.Line("tokenPresent = %s", tokenPresent ? "CK_TRUE" : "CK_FALSE");
  IN_ROOM_FOR(pSlotList, pulCount, "slots");
  FORWARD(tokenPresent, pSlotList, pulCount);
  OUT_LENGTH(pulCount);
  if (pulCount != nullptr && HasOutput(rv))
    zelph::TraceHandleList(call, "pSlotList", pSlotList, *pulCount);
DONE

ENTRY(C_GetSlotInfo, (CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo))
  IN_NUMBER(slotID);
  FORWARD(slotID, pInfo);
  OUT_INFO(TraceSlotInfo, pInfo);
DONE

ENTRY(C_GetTokenInfo, (CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo))
  IN_NUMBER(slotID);
  FORWARD(slotID, pInfo);
  OUT_INFO(TraceTokenInfo, pInfo);
DONE

ENTRY(C_WaitForSlotEvent, (CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved))
  IN_FLAGS(flags);
  FORWARD(flags, pSlot, pReserved);
  OUT_HANDLE(pSlot);
DONE

ENTRY(C_GetMechanismList, (CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList,
                           CK_ULONG_PTR pulCount))
  IN_NUMBER(slotID);
  IN_ROOM_FOR(pMechanismList, pulCount, "mechanisms");
  FORWARD(slotID, pMechanismList, pulCount);
  OUT_LENGTH(pulCount);
  if (pulCount != nullptr && HasOutput(rv))
    zelph::TraceMechanismList(call, pMechanismList, *pulCount);
DONE

ENTRY(C_GetMechanismInfo, (CK_SLOT_ID slotID, CK_MECHANISM_TYPE type,
                           CK_MECHANISM_INFO_PTR pInfo))
  IN_NUMBER(slotID);
  zelph::TraceMechanismType(call, "type", type);
  FORWARD(slotID, type, pInfo);
  OUT_INFO(TraceMechanismInfo, pInfo);
DONE

ENTRY(C_InitToken, (CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen,
                    CK_UTF8CHAR_PTR pLabel))
  IN_NUMBER(slotID);
  IN_PIN(pPin, ulPinLen);
  zelph::TraceLabel(call, "pLabel", pLabel);
  FORWARD(slotID, pPin, ulPinLen, pLabel);
DONE

ENTRY(C_InitPIN, (CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen))
  IN_NUMBER(hSession);
  IN_PIN(pPin, ulPinLen);
  FORWARD(hSession, pPin, ulPinLen);
DONE

ENTRY(C_SetPIN, (CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,
                 CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen))
  IN_NUMBER(hSession);
  IN_PIN(pOldPin, ulOldLen);
  IN_PIN(pNewPin, ulNewLen);
  FORWARD(hSession, pOldPin, ulOldLen, pNewPin, ulNewLen);
DONE

// ---- Sessions -------------------------------------------------------------

ENTRY(C_OpenSession, (CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR pApplication,
                      CK_NOTIFY Notify, CK_SESSION_HANDLE_PTR phSession))
  IN_NUMBER(slotID);
  IN_NAMED_FLAGS(kSession, flags);
  IN_SET(pApplication, "set");
  IN_SET(Notify, "set");
  FORWARD(slotID, flags, pApplication, Notify, phSession);
  OUT_HANDLE(phSession);
DONE

SESSION_ENTRY(C_CloseSession)

ENTRY(C_CloseAllSessions, (CK_SLOT_ID slotID))
  IN_NUMBER(slotID);
  FORWARD(slotID);
DONE

ENTRY(C_GetSessionInfo, (CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo))
  IN_NUMBER(hSession);
  FORWARD(hSession, pInfo);
  OUT_INFO(TraceSessionInfo, pInfo);
DONE

// The saved state may hold keys, so only its length is written.
FINAL_ENTRY(C_GetOperationState, pOperationState, pulOperationStateLen)

ENTRY(C_SetOperationState, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState,
                            CK_ULONG ulOperationStateLen, CK_OBJECT_HANDLE hEncryptionKey,
                            CK_OBJECT_HANDLE hAuthenticationKey))
  IN_NUMBER(hSession);
  IN_BUFFER(pOperationState, ulOperationStateLen);
  IN_NUMBER(hEncryptionKey);
  IN_NUMBER(hAuthenticationKey);
  FORWARD(hSession, pOperationState, ulOperationStateLen, hEncryptionKey, hAuthenticationKey);
DONE

ENTRY(C_Login, (CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
                CK_ULONG ulPinLen))
  IN_NUMBER(hSession);
  IN_USER(userType);
  IN_PIN(pPin, ulPinLen);
  FORWARD(hSession, userType, pPin, ulPinLen);
DONE

// The user name says who logs in; it is the application's text, an argument.
ENTRY(C_LoginUser, (CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
                    CK_ULONG ulPinLen, CK_UTF8CHAR_PTR pUsername, CK_ULONG ulUsernameLen))
  IN_NUMBER(hSession);
  IN_USER(userType);
  IN_PIN(pPin, ulPinLen);
  zelph::TraceText(call, "pUsername", pUsername, ulUsernameLen);
  FORWARD(hSession, userType, pPin, ulPinLen, pUsername, ulUsernameLen);
DONE

SESSION_ENTRY(C_Logout)

ENTRY(C_SessionCancel, (CK_SESSION_HANDLE hSession, CK_FLAGS flags))
  IN_NUMBER(hSession);
  IN_NAMED_FLAGS(kMechanism, flags);
  FORWARD(hSession, flags);
DONE

// ---- Objects --------------------------------------------------------------

ENTRY(C_CreateObject, (CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                       CK_OBJECT_HANDLE_PTR phObject))
  IN_NUMBER(hSession);
  IN_TEMPLATE(pTemplate, ulCount);
  FORWARD(hSession, pTemplate, ulCount, phObject);
  OUT_HANDLE(phObject);
DONE

ENTRY(C_CopyObject, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                     CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE_PTR phNewObject))
  IN_NUMBER(hSession);
  IN_NUMBER(hObject);
  IN_TEMPLATE(pTemplate, ulCount);
  FORWARD(hSession, hObject, pTemplate, ulCount, phNewObject);
  OUT_HANDLE(phNewObject);
DONE

ENTRY(C_DestroyObject, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject))
  IN_NUMBER(hSession);
  IN_NUMBER(hObject);
  FORWARD(hSession, hObject);
DONE

ENTRY(C_GetObjectSize, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                        CK_ULONG_PTR pulSize))
  IN_NUMBER(hSession);
  IN_NUMBER(hObject);
  FORWARD(hSession, hObject, pulSize);
  OUT_HANDLE(pulSize);
DONE

ENTRY(C_GetAttributeValue, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                            CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount))
  IN_NUMBER(hSession);
  IN_NUMBER(hObject);
  zelph::TraceQueryTemplate(call, pTemplate, ulCount);
  FORWARD(hSession, hObject, pTemplate, ulCount);
  zelph::TraceAnswerTemplate(call, pTemplate, ulCount, rv);
DONE

ENTRY(C_SetAttributeValue, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                            CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount))
  IN_NUMBER(hSession);
  IN_NUMBER(hObject);
  IN_TEMPLATE(pTemplate, ulCount);
  FORWARD(hSession, hObject, pTemplate, ulCount);
DONE

ENTRY(C_FindObjectsInit, (CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount))
  IN_NUMBER(hSession);
  IN_TEMPLATE(pTemplate, ulCount);
  FORWARD(hSession, pTemplate, ulCount);
DONE

ENTRY(C_FindObjects, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject,
                      CK_ULONG ulMaxObjectCount, CK_ULONG_PTR pulObjectCount))
  IN_NUMBER(hSession);
  IN_NUMBER(ulMaxObjectCount);
  FORWARD(hSession, phObject, ulMaxObjectCount, pulObjectCount);
  OUT_HANDLE(pulObjectCount);
  // A count beyond the caller's room would send the list past its end.
  if (pulObjectCount != nullptr && HasOutput(rv) && *pulObjectCount <= ulMaxObjectCount)
    zelph::TraceHandleList(call, "phObject", phObject, *pulObjectCount);
DONE

SESSION_ENTRY(C_FindObjectsFinal)

// ---- Encryption and decryption --------------------------------------------

KEY_INIT_ENTRY(C_EncryptInit)
TRANSFORM_ENTRY(C_Encrypt, pData, ulDataLen, pEncryptedData, pulEncryptedDataLen)
TRANSFORM_ENTRY(C_EncryptUpdate, pPart, ulPartLen, pEncryptedPart, pulEncryptedPartLen)
FINAL_ENTRY(C_EncryptFinal, pLastEncryptedPart, pulLastEncryptedPartLen)
KEY_INIT_ENTRY(C_DecryptInit)
TRANSFORM_ENTRY(C_Decrypt, pEncryptedData, ulEncryptedDataLen, pData, pulDataLen)
TRANSFORM_ENTRY(C_DecryptUpdate, pEncryptedPart, ulEncryptedPartLen, pPart, pulPartLen)
FINAL_ENTRY(C_DecryptFinal, pLastPart, pulLastPartLen)

// ---- Message digesting ----------------------------------------------------

ENTRY(C_DigestInit, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism))
  IN_NUMBER(hSession);
  IN_MECHANISM(pMechanism);
  FORWARD(hSession, pMechanism);
DONE

TRANSFORM_ENTRY(C_Digest, pData, ulDataLen, pDigest, pulDigestLen)
UPDATE_ENTRY(C_DigestUpdate)

ENTRY(C_DigestKey, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey))
  IN_NUMBER(hSession);
  IN_NUMBER(hKey);
  FORWARD(hSession, hKey);
DONE

FINAL_ENTRY(C_DigestFinal, pDigest, pulDigestLen)

// ---- Signing and verifying ------------------------------------------------

KEY_INIT_ENTRY(C_SignInit)
TRANSFORM_ENTRY(C_Sign, pData, ulDataLen, pSignature, pulSignatureLen)
UPDATE_ENTRY(C_SignUpdate)
FINAL_ENTRY(C_SignFinal, pSignature, pulSignatureLen)
KEY_INIT_ENTRY(C_SignRecoverInit)
TRANSFORM_ENTRY(C_SignRecover, pData, ulDataLen, pSignature, pulSignatureLen)
KEY_INIT_ENTRY(C_VerifyInit)

ENTRY(C_Verify, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                 CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen))
  IN_NUMBER(hSession);
  IN_BUFFER(pData, ulDataLen);
  IN_BUFFER(pSignature, ulSignatureLen);
  FORWARD(hSession, pData, ulDataLen, pSignature, ulSignatureLen);
DONE

UPDATE_ENTRY(C_VerifyUpdate)

ENTRY(C_VerifyFinal, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,
                      CK_ULONG ulSignatureLen))
  IN_NUMBER(hSession);
  IN_BUFFER(pSignature, ulSignatureLen);
  FORWARD(hSession, pSignature, ulSignatureLen);
DONE

KEY_INIT_ENTRY(C_VerifyRecoverInit)
TRANSFORM_ENTRY(C_VerifyRecover, pSignature, ulSignatureLen, pData, pulDataLen)

// ---- Dual-function operations ---------------------------------------------

TRANSFORM_ENTRY(C_DigestEncryptUpdate, pPart, ulPartLen, pEncryptedPart, pulEncryptedPartLen)
TRANSFORM_ENTRY(C_DecryptDigestUpdate, pEncryptedPart, ulEncryptedPartLen, pPart, pulPartLen)
TRANSFORM_ENTRY(C_SignEncryptUpdate, pPart, ulPartLen, pEncryptedPart, pulEncryptedPartLen)
TRANSFORM_ENTRY(C_DecryptVerifyUpdate, pEncryptedPart, ulEncryptedPartLen, pPart, pulPartLen)

// ---- Message-based operations ---------------------------------------------

KEY_INIT_ENTRY(C_MessageEncryptInit)
CRYPT_MESSAGE_ENTRY(C_EncryptMessage, pPlaintext, ulPlaintextLen, pCiphertext, pulCiphertextLen)
CRYPT_MESSAGE_BEGIN_ENTRY(C_EncryptMessageBegin)
CRYPT_MESSAGE_NEXT_ENTRY(C_EncryptMessageNext, pPlaintextPart, ulPlaintextPartLen,
                         pCiphertextPart, pulCiphertextPartLen)
SESSION_ENTRY(C_MessageEncryptFinal)
KEY_INIT_ENTRY(C_MessageDecryptInit)
CRYPT_MESSAGE_ENTRY(C_DecryptMessage, pCiphertext, ulCiphertextLen, pPlaintext, pulPlaintextLen)
CRYPT_MESSAGE_BEGIN_ENTRY(C_DecryptMessageBegin)
CRYPT_MESSAGE_NEXT_ENTRY(C_DecryptMessageNext, pCiphertextPart, ulCiphertextPartLen,
                         pPlaintextPart, pulPlaintextPartLen)
SESSION_ENTRY(C_MessageDecryptFinal)
KEY_INIT_ENTRY(C_MessageSignInit)
SIGN_MESSAGE_ENTRY(C_SignMessage)
MESSAGE_BEGIN_ENTRY(C_SignMessageBegin)
SIGN_MESSAGE_ENTRY(C_SignMessageNext)
SESSION_ENTRY(C_MessageSignFinal)
KEY_INIT_ENTRY(C_MessageVerifyInit)
VERIFY_MESSAGE_ENTRY(C_VerifyMessage)
MESSAGE_BEGIN_ENTRY(C_VerifyMessageBegin)
VERIFY_MESSAGE_ENTRY(C_VerifyMessageNext)
SESSION_ENTRY(C_MessageVerifyFinal)

// ---- Key management -------------------------------------------------------

ENTRY(C_GenerateKey, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                      CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phKey))
  IN_NUMBER(hSession);
  IN_MECHANISM(pMechanism);
  IN_TEMPLATE(pTemplate, ulCount);
  FORWARD(hSession, pMechanism, pTemplate, ulCount, phKey);
  OUT_HANDLE(phKey);
DONE

ENTRY(C_GenerateKeyPair, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                          CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                          CK_ATTRIBUTE_PTR pPrivateKeyTemplate,
                          CK_ULONG ulPrivateKeyAttributeCount, CK_OBJECT_HANDLE_PTR phPublicKey,
                          CK_OBJECT_HANDLE_PTR phPrivateKey))
  IN_NUMBER(hSession);
  IN_MECHANISM(pMechanism);
  IN_TEMPLATE(pPublicKeyTemplate, ulPublicKeyAttributeCount);
  IN_TEMPLATE(pPrivateKeyTemplate, ulPrivateKeyAttributeCount);
  FORWARD(hSession, pMechanism, pPublicKeyTemplate, ulPublicKeyAttributeCount,
          pPrivateKeyTemplate, ulPrivateKeyAttributeCount, phPublicKey, phPrivateKey);
  OUT_HANDLE(phPublicKey);
  OUT_HANDLE(phPrivateKey);
DONE

// The wrapped key is key material under another key; only its length is written.
ENTRY(C_WrapKey, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                  CK_OBJECT_HANDLE hWrappingKey, CK_OBJECT_HANDLE hKey, CK_BYTE_PTR pWrappedKey,
                  CK_ULONG_PTR pulWrappedKeyLen))
  IN_NUMBER(hSession);
  IN_MECHANISM(pMechanism);
  IN_NUMBER(hWrappingKey);
  IN_NUMBER(hKey);
  IN_ROOM(pWrappedKey, pulWrappedKeyLen);
  FORWARD(hSession, pMechanism, hWrappingKey, hKey, pWrappedKey, pulWrappedKeyLen);
  OUT_LENGTH(pulWrappedKeyLen);
DONE

ENTRY(C_UnwrapKey, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                    CK_OBJECT_HANDLE hUnwrappingKey, CK_BYTE_PTR pWrappedKey,
                    CK_ULONG ulWrappedKeyLen, CK_ATTRIBUTE_PTR pTemplate,
                    CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey))
  IN_NUMBER(hSession);
  IN_MECHANISM(pMechanism);
  IN_NUMBER(hUnwrappingKey);
  IN_BUFFER(pWrappedKey, ulWrappedKeyLen);
  IN_TEMPLATE(pTemplate, ulAttributeCount);
  FORWARD(hSession, pMechanism, hUnwrappingKey, pWrappedKey, ulWrappedKeyLen, pTemplate,
          ulAttributeCount, phKey);
  OUT_HANDLE(phKey);
DONE

ENTRY(C_DeriveKey, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                    CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate,
                    CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey))
  IN_NUMBER(hSession);
  IN_MECHANISM(pMechanism);
  IN_NUMBER(hBaseKey);
  IN_TEMPLATE(pTemplate, ulAttributeCount);
  FORWARD(hSession, pMechanism, hBaseKey, pTemplate, ulAttributeCount, phKey);
  OUT_HANDLE(phKey);
DONE

// ---- Random numbers -------------------------------------------------------

ENTRY(C_SeedRandom, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSeed, CK_ULONG ulSeedLen))
  IN_NUMBER(hSession);
  IN_BUFFER(pSeed, ulSeedLen);
  FORWARD(hSession, pSeed, ulSeedLen);
DONE

// Random bytes often become keys; only their count is written.
ENTRY(C_GenerateRandom, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR RandomData,
                         CK_ULONG ulRandomLen))
  IN_NUMBER(hSession);
  IN_BUFFER(RandomData, ulRandomLen);
  FORWARD(hSession, RandomData, ulRandomLen);
DONE

// ---- Parallel function management (legacy) --------------------------------

SESSION_ENTRY(C_GetFunctionStatus)
SESSION_ENTRY(C_CancelFunction)

// clang-format on
