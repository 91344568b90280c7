// The spy's PKCS#11 entry points. Each one writes its call into the trace log
// and forwards it unchanged to the real module, whose result and outputs go
// back to the caller as they are.
#include <cstdio>
#include <string>

#include "spy/CSpyCall.h"
#include "spy/CSpyModule.h"
#include "spy/SpyTrace.h"
#include "zelph/trace.h"

#define ZELPH_SPY_EXPORT __attribute__((visibility("default")))

using zelph::CSpyCall;
using zelph::HasOutput;

namespace {

// The spy's own function list. The link binds these names to the spy's own
// functions (-Bsymbolic), whatever else in the process exports C_ names.
CK_FUNCTION_LIST spyFunctions = {
    .version = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR},
    .C_Initialize = C_Initialize,
    .C_Finalize = C_Finalize,
    .C_GetInfo = C_GetInfo,
    .C_GetFunctionList = C_GetFunctionList,
    .C_GetSlotList = C_GetSlotList,
    .C_GetSlotInfo = C_GetSlotInfo,
    .C_GetTokenInfo = C_GetTokenInfo,
    .C_GetMechanismList = C_GetMechanismList,
    .C_GetMechanismInfo = C_GetMechanismInfo,
    .C_InitToken = C_InitToken,
    .C_InitPIN = C_InitPIN,
    .C_SetPIN = C_SetPIN,
    .C_OpenSession = C_OpenSession,
    .C_CloseSession = C_CloseSession,
    .C_CloseAllSessions = C_CloseAllSessions,
    .C_GetSessionInfo = C_GetSessionInfo,
    .C_GetOperationState = C_GetOperationState,
    .C_SetOperationState = C_SetOperationState,
    .C_Login = C_Login,
    .C_Logout = C_Logout,
    .C_CreateObject = C_CreateObject,
    .C_CopyObject = C_CopyObject,
    .C_DestroyObject = C_DestroyObject,
    .C_GetObjectSize = C_GetObjectSize,
    .C_GetAttributeValue = C_GetAttributeValue,
    .C_SetAttributeValue = C_SetAttributeValue,
    .C_FindObjectsInit = C_FindObjectsInit,
    .C_FindObjects = C_FindObjects,
    .C_FindObjectsFinal = C_FindObjectsFinal,
    .C_EncryptInit = C_EncryptInit,
    .C_Encrypt = C_Encrypt,
    .C_EncryptUpdate = C_EncryptUpdate,
    .C_EncryptFinal = C_EncryptFinal,
    .C_DecryptInit = C_DecryptInit,
    .C_Decrypt = C_Decrypt,
    .C_DecryptUpdate = C_DecryptUpdate,
    .C_DecryptFinal = C_DecryptFinal,
    .C_DigestInit = C_DigestInit,
    .C_Digest = C_Digest,
    .C_DigestUpdate = C_DigestUpdate,
    .C_DigestKey = C_DigestKey,
    .C_DigestFinal = C_DigestFinal,
    .C_SignInit = C_SignInit,
    .C_Sign = C_Sign,
    .C_SignUpdate = C_SignUpdate,
    .C_SignFinal = C_SignFinal,
    .C_SignRecoverInit = C_SignRecoverInit,
    .C_SignRecover = C_SignRecover,
    .C_VerifyInit = C_VerifyInit,
    .C_Verify = C_Verify,
    .C_VerifyUpdate = C_VerifyUpdate,
    .C_VerifyFinal = C_VerifyFinal,
    .C_VerifyRecoverInit = C_VerifyRecoverInit,
    .C_VerifyRecover = C_VerifyRecover,
    .C_DigestEncryptUpdate = C_DigestEncryptUpdate,
    .C_DecryptDigestUpdate = C_DecryptDigestUpdate,
    .C_SignEncryptUpdate = C_SignEncryptUpdate,
    .C_DecryptVerifyUpdate = C_DecryptVerifyUpdate,
    .C_GenerateKey = C_GenerateKey,
    .C_GenerateKeyPair = C_GenerateKeyPair,
    .C_WrapKey = C_WrapKey,
    .C_UnwrapKey = C_UnwrapKey,
    .C_DeriveKey = C_DeriveKey,
    .C_SeedRandom = C_SeedRandom,
    .C_GenerateRandom = C_GenerateRandom,
    .C_GetFunctionStatus = C_GetFunctionStatus,
    .C_CancelFunction = C_CancelFunction,
    .C_WaitForSlotEvent = C_WaitForSlotEvent,
};

// The common shape of the one-part and update functions that turn an input
// buffer into an output buffer (encrypt, decrypt, digest, sign, recover).
template <class Function>
CK_RV ForwardTransform(const char* name, Function CK_FUNCTION_LIST::*function,
                       CK_SESSION_HANDLE hSession, const char* inName, CK_BYTE_PTR pIn,
                       CK_ULONG ulInLen, const char* outName, CK_BYTE_PTR pOut,
                       const char* outLenName, CK_ULONG_PTR pulOutLen) noexcept {
  CSpyCall call(name);
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputBuffer(call, inName, pIn, ulInLen);
  zelph::TraceOutputBuffer(call, outName, pOut, outLenName, pulOutLen);
  const CK_RV rv = call.Forward(function, hSession, pIn, ulInLen, pOut, pulOutLen);
  zelph::TraceOutputLength(call, outLenName, pulOutLen, rv);
  return call.Return(rv);
}

// The common shape of the functions that end an operation into an output
// buffer (the Final functions).
template <class Function>
CK_RV ForwardFinal(const char* name, Function CK_FUNCTION_LIST::*function,
                   CK_SESSION_HANDLE hSession, const char* outName, CK_BYTE_PTR pOut,
                   const char* outLenName, CK_ULONG_PTR pulOutLen) noexcept {
  CSpyCall call(name);
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceOutputBuffer(call, outName, pOut, outLenName, pulOutLen);
  const CK_RV rv = call.Forward(function, hSession, pOut, pulOutLen);
  zelph::TraceOutputLength(call, outLenName, pulOutLen, rv);
  return call.Return(rv);
}

// The common shape of the functions that feed one more part of the input.
template <class Function>
CK_RV ForwardUpdate(const char* name, Function CK_FUNCTION_LIST::*function,
                    CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) noexcept {
  CSpyCall call(name);
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputBuffer(call, "pPart", pPart, ulPartLen);
  return call.Return(call.Forward(function, hSession, pPart, ulPartLen));
}

// The common shape of the functions that start an operation with a key.
template <class Function>
CK_RV ForwardKeyInit(const char* name, Function CK_FUNCTION_LIST::*function,
                     CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                     CK_OBJECT_HANDLE hKey) noexcept {
  CSpyCall call(name);
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceMechanismArgument(call, pMechanism);
  zelph::TraceNumber(call, "hKey", hKey);
  return call.Return(call.Forward(function, hSession, pMechanism, hKey));
}

// The common shape of the functions that take only a session.
template <class Function>
CK_RV ForwardSession(const char* name, Function CK_FUNCTION_LIST::*function,
                     CK_SESSION_HANDLE hSession) noexcept {
  CSpyCall call(name);
  zelph::TraceNumber(call, "hSession", hSession);
  return call.Return(call.Forward(function, hSession));
}

}  // namespace

// ---- General purpose ------------------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_Initialize(CK_VOID_PTR pInitArgs) {
  CSpyCall call("C_Initialize");
  zelph::TraceInitArgs(call, pInitArgs);
  // Loading the module runs its code: the arguments are in the log before.
  call.FlushLines();
  try {
    std::string error;
    if (!zelph::CSpyModule::Get().Load(&spyFunctions, error)) {
      std::fprintf(stderr, "zelph spy: %s\n", error.c_str());
      // The text names the module's path: an argument, never the format.
      TraceString("Cannot forward: %s", error.c_str());
      return call.Return(CKR_GENERAL_ERROR);
    }
  } catch (...) {
    std::fprintf(stderr, "zelph spy: cannot set up the forwarding to the PKCS#11 module\n");
    return call.Return(CKR_GENERAL_ERROR);
  }
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_Initialize, pInitArgs));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_Finalize(CK_VOID_PTR pReserved) {
  CSpyCall call("C_Finalize");
  call.Line("pReserved %s", pReserved == nullptr ? "NULL" : "set");
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_Finalize, pReserved));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetInfo(CK_INFO_PTR pInfo) {
  CSpyCall call("C_GetInfo");
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_GetInfo, pInfo);
  if (pInfo != nullptr && HasOutput(rv)) zelph::TraceInfo(call, *pInfo);
  return call.Return(rv);
}

// Needs no real module: the caller gets the spy's list, whose functions
// forward to the real module once C_Initialize has loaded it.
extern "C" ZELPH_SPY_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
  CSpyCall call("C_GetFunctionList");
  if (ppFunctionList == nullptr) return call.Return(CKR_ARGUMENTS_BAD);
  *ppFunctionList = &spyFunctions;
  return call.Return(CKR_OK);
}

// ---- Slots and tokens -----------------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList,
                                                CK_ULONG_PTR pulCount) {
  CSpyCall call("C_GetSlotList");
  call.Line("tokenPresent = %s", tokenPresent ? "CK_TRUE" : "CK_FALSE");
  zelph::TraceOutputBuffer(call, "pSlotList", pSlotList, "pulCount", pulCount, "slots");
  const CK_RV rv =
      call.Forward(&CK_FUNCTION_LIST::C_GetSlotList, tokenPresent, pSlotList, pulCount);
  zelph::TraceOutputLength(call, "*pulCount", pulCount, rv);
  if (pulCount != nullptr && HasOutput(rv))
    zelph::TraceHandleList(call, "pSlotList", pSlotList, *pulCount);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo) {
  CSpyCall call("C_GetSlotInfo");
  zelph::TraceNumber(call, "slotID", slotID);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_GetSlotInfo, slotID, pInfo);
  if (pInfo != nullptr && HasOutput(rv)) zelph::TraceSlotInfo(call, *pInfo);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo) {
  CSpyCall call("C_GetTokenInfo");
  zelph::TraceNumber(call, "slotID", slotID);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_GetTokenInfo, slotID, pInfo);
  if (pInfo != nullptr && HasOutput(rv)) {
    call.FlushLines();
    TraceTokenInfo(pInfo);
  }
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot,
                                                     CK_VOID_PTR pReserved) {
  CSpyCall call("C_WaitForSlotEvent");
  zelph::TraceFlags(call, "flags", flags);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_WaitForSlotEvent, flags, pSlot, pReserved);
  zelph::TraceOutputHandle(call, "*pSlot", pSlot, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetMechanismList(CK_SLOT_ID slotID,
                                                     CK_MECHANISM_TYPE_PTR pMechanismList,
                                                     CK_ULONG_PTR pulCount) {
  CSpyCall call("C_GetMechanismList");
  zelph::TraceNumber(call, "slotID", slotID);
  zelph::TraceOutputBuffer(call, "pMechanismList", pMechanismList, "pulCount", pulCount,
                           "mechanisms");
  const CK_RV rv =
      call.Forward(&CK_FUNCTION_LIST::C_GetMechanismList, slotID, pMechanismList, pulCount);
  zelph::TraceOutputLength(call, "*pulCount", pulCount, rv);
  if (pulCount != nullptr && HasOutput(rv))
    zelph::TraceMechanismList(call, pMechanismList, *pulCount);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type,
                                                     CK_MECHANISM_INFO_PTR pInfo) {
  CSpyCall call("C_GetMechanismInfo");
  zelph::TraceNumber(call, "slotID", slotID);
  zelph::TraceMechanismType(call, "type", type);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_GetMechanismInfo, slotID, type, pInfo);
  if (pInfo != nullptr && HasOutput(rv)) {
    call.FlushLines();
    TraceMechanismInfo(pInfo);
  }
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin,
                                              CK_ULONG ulPinLen, CK_UTF8CHAR_PTR pLabel) {
  CSpyCall call("C_InitToken");
  zelph::TraceNumber(call, "slotID", slotID);
  zelph::TracePin(call, "pPin", pPin, ulPinLen);
  if (pLabel == nullptr) {
    call.Line("pLabel = NULL");
  } else {
    // The application's label is an argument, so that it reaches the log
    // unchanged.
    call.FlushLines();
    TraceString("pLabel = \"%.32s\"", reinterpret_cast<const char*>(pLabel));
  }
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_InitToken, slotID, pPin, ulPinLen, pLabel));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_InitPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin,
                                            CK_ULONG ulPinLen) {
  CSpyCall call("C_InitPIN");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TracePin(call, "pPin", pPin, ulPinLen);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_InitPIN, hSession, pPin, ulPinLen));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin,
                                           CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin,
                                           CK_ULONG ulNewLen) {
  CSpyCall call("C_SetPIN");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TracePin(call, "pOldPin", pOldPin, ulOldLen);
  zelph::TracePin(call, "pNewPin", pNewPin, ulNewLen);
  return call.Return(
      call.Forward(&CK_FUNCTION_LIST::C_SetPIN, hSession, pOldPin, ulOldLen, pNewPin, ulNewLen));
}

// ---- Sessions -------------------------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags,
                                                CK_VOID_PTR pApplication, CK_NOTIFY Notify,
                                                CK_SESSION_HANDLE_PTR phSession) {
  CSpyCall call("C_OpenSession");
  zelph::TraceNumber(call, "slotID", slotID);
  zelph::TraceFlags(call, "flags", flags);
  call.Line("pApplication %s, Notify %s", pApplication == nullptr ? "NULL" : "set",
            Notify == nullptr ? "NULL" : "set");
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_OpenSession, slotID, flags, pApplication,
                                Notify, phSession);
  zelph::TraceOutputHandle(call, "*phSession", phSession, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_CloseSession(CK_SESSION_HANDLE hSession) {
  return ForwardSession("C_CloseSession", &CK_FUNCTION_LIST::C_CloseSession, hSession);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_CloseAllSessions(CK_SLOT_ID slotID) {
  CSpyCall call("C_CloseAllSessions");
  zelph::TraceNumber(call, "slotID", slotID);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_CloseAllSessions, slotID));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession,
                                                   CK_SESSION_INFO_PTR pInfo) {
  CSpyCall call("C_GetSessionInfo");
  zelph::TraceNumber(call, "hSession", hSession);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_GetSessionInfo, hSession, pInfo);
  if (pInfo != nullptr && HasOutput(rv)) zelph::TraceSessionInfo(call, *pInfo);
  return call.Return(rv);
}

// The saved state may hold keys, so only its length is written.
extern "C" ZELPH_SPY_EXPORT CK_RV C_GetOperationState(CK_SESSION_HANDLE hSession,
                                                      CK_BYTE_PTR pOperationState,
                                                      CK_ULONG_PTR pulOperationStateLen) {
  return ForwardFinal("C_GetOperationState", &CK_FUNCTION_LIST::C_GetOperationState, hSession,
                      "pOperationState", pOperationState, "*pulOperationStateLen",
                      pulOperationStateLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_SetOperationState(CK_SESSION_HANDLE hSession,
                                                      CK_BYTE_PTR pOperationState,
                                                      CK_ULONG ulOperationStateLen,
                                                      CK_OBJECT_HANDLE hEncryptionKey,
                                                      CK_OBJECT_HANDLE hAuthenticationKey) {
  CSpyCall call("C_SetOperationState");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputBuffer(call, "pOperationState", pOperationState, ulOperationStateLen);
  zelph::TraceNumber(call, "hEncryptionKey", hEncryptionKey);
  zelph::TraceNumber(call, "hAuthenticationKey", hAuthenticationKey);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_SetOperationState, hSession, pOperationState,
                                  ulOperationStateLen, hEncryptionKey, hAuthenticationKey));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType,
                                          CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
  CSpyCall call("C_Login");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceUserType(call, "userType", userType);
  zelph::TracePin(call, "pPin", pPin, ulPinLen);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_Login, hSession, userType, pPin, ulPinLen));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_Logout(CK_SESSION_HANDLE hSession) {
  return ForwardSession("C_Logout", &CK_FUNCTION_LIST::C_Logout, hSession);
}

// ---- Objects --------------------------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_CreateObject(CK_SESSION_HANDLE hSession,
                                                 CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                                                 CK_OBJECT_HANDLE_PTR phObject) {
  CSpyCall call("C_CreateObject");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputTemplate(call, "pTemplate", pTemplate, ulCount);
  const CK_RV rv =
      call.Forward(&CK_FUNCTION_LIST::C_CreateObject, hSession, pTemplate, ulCount, phObject);
  zelph::TraceOutputHandle(call, "*phObject", phObject, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                                               CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                                               CK_OBJECT_HANDLE_PTR phNewObject) {
  CSpyCall call("C_CopyObject");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceNumber(call, "hObject", hObject);
  zelph::TraceInputTemplate(call, "pTemplate", pTemplate, ulCount);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_CopyObject, hSession, hObject, pTemplate,
                                ulCount, phNewObject);
  zelph::TraceOutputHandle(call, "*phNewObject", phNewObject, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession,
                                                  CK_OBJECT_HANDLE hObject) {
  CSpyCall call("C_DestroyObject");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceNumber(call, "hObject", hObject);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_DestroyObject, hSession, hObject));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession,
                                                  CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize) {
  CSpyCall call("C_GetObjectSize");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceNumber(call, "hObject", hObject);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_GetObjectSize, hSession, hObject, pulSize);
  zelph::TraceOutputHandle(call, "*pulSize", pulSize, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession,
                                                      CK_OBJECT_HANDLE hObject,
                                                      CK_ATTRIBUTE_PTR pTemplate,
                                                      CK_ULONG ulCount) {
  CSpyCall call("C_GetAttributeValue");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceNumber(call, "hObject", hObject);
  zelph::TraceQueryTemplate(call, pTemplate, ulCount);
  const CK_RV rv =
      call.Forward(&CK_FUNCTION_LIST::C_GetAttributeValue, hSession, hObject, pTemplate, ulCount);
  zelph::TraceAnswerTemplate(call, pTemplate, ulCount, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession,
                                                      CK_OBJECT_HANDLE hObject,
                                                      CK_ATTRIBUTE_PTR pTemplate,
                                                      CK_ULONG ulCount) {
  CSpyCall call("C_SetAttributeValue");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceNumber(call, "hObject", hObject);
  zelph::TraceInputTemplate(call, "pTemplate", pTemplate, ulCount);
  return call.Return(
      call.Forward(&CK_FUNCTION_LIST::C_SetAttributeValue, hSession, hObject, pTemplate, ulCount));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession,
                                                    CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
  CSpyCall call("C_FindObjectsInit");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputTemplate(call, "pTemplate", pTemplate, ulCount);
  return call.Return(
      call.Forward(&CK_FUNCTION_LIST::C_FindObjectsInit, hSession, pTemplate, ulCount));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_FindObjects(CK_SESSION_HANDLE hSession,
                                                CK_OBJECT_HANDLE_PTR phObject,
                                                CK_ULONG ulMaxObjectCount,
                                                CK_ULONG_PTR pulObjectCount) {
  CSpyCall call("C_FindObjects");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceNumber(call, "ulMaxObjectCount", ulMaxObjectCount);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_FindObjects, hSession, phObject,
                                ulMaxObjectCount, pulObjectCount);
  zelph::TraceOutputHandle(call, "*pulObjectCount", pulObjectCount, rv);
  if (pulObjectCount != nullptr && HasOutput(rv) && *pulObjectCount <= ulMaxObjectCount) {
    zelph::TraceHandleList(call, "phObject", phObject, *pulObjectCount);
  }
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession) {
  return ForwardSession("C_FindObjectsFinal", &CK_FUNCTION_LIST::C_FindObjectsFinal, hSession);
}

// ---- Encryption and decryption --------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession,
                                                CK_MECHANISM_PTR pMechanism,
                                                CK_OBJECT_HANDLE hKey) {
  return ForwardKeyInit("C_EncryptInit", &CK_FUNCTION_LIST::C_EncryptInit, hSession, pMechanism,
                        hKey);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData,
                                            CK_ULONG ulDataLen, CK_BYTE_PTR pEncryptedData,
                                            CK_ULONG_PTR pulEncryptedDataLen) {
  return ForwardTransform("C_Encrypt", &CK_FUNCTION_LIST::C_Encrypt, hSession, "pData", pData,
                          ulDataLen, "pEncryptedData", pEncryptedData, "*pulEncryptedDataLen",
                          pulEncryptedDataLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_EncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart,
                                                  CK_ULONG ulPartLen, CK_BYTE_PTR pEncryptedPart,
                                                  CK_ULONG_PTR pulEncryptedPartLen) {
  return ForwardTransform("C_EncryptUpdate", &CK_FUNCTION_LIST::C_EncryptUpdate, hSession, "pPart",
                          pPart, ulPartLen, "pEncryptedPart", pEncryptedPart,
                          "*pulEncryptedPartLen", pulEncryptedPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_EncryptFinal(CK_SESSION_HANDLE hSession,
                                                 CK_BYTE_PTR pLastEncryptedPart,
                                                 CK_ULONG_PTR pulLastEncryptedPartLen) {
  return ForwardFinal("C_EncryptFinal", &CK_FUNCTION_LIST::C_EncryptFinal, hSession,
                      "pLastEncryptedPart", pLastEncryptedPart, "*pulLastEncryptedPartLen",
                      pulLastEncryptedPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession,
                                                CK_MECHANISM_PTR pMechanism,
                                                CK_OBJECT_HANDLE hKey) {
  return ForwardKeyInit("C_DecryptInit", &CK_FUNCTION_LIST::C_DecryptInit, hSession, pMechanism,
                        hKey);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData,
                                            CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData,
                                            CK_ULONG_PTR pulDataLen) {
  return ForwardTransform("C_Decrypt", &CK_FUNCTION_LIST::C_Decrypt, hSession, "pEncryptedData",
                          pEncryptedData, ulEncryptedDataLen, "pData", pData, "*pulDataLen",
                          pulDataLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DecryptUpdate(CK_SESSION_HANDLE hSession,
                                                  CK_BYTE_PTR pEncryptedPart,
                                                  CK_ULONG ulEncryptedPartLen, CK_BYTE_PTR pPart,
                                                  CK_ULONG_PTR pulPartLen) {
  return ForwardTransform("C_DecryptUpdate", &CK_FUNCTION_LIST::C_DecryptUpdate, hSession,
                          "pEncryptedPart", pEncryptedPart, ulEncryptedPartLen, "pPart", pPart,
                          "*pulPartLen", pulPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DecryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastPart,
                                                 CK_ULONG_PTR pulLastPartLen) {
  return ForwardFinal("C_DecryptFinal", &CK_FUNCTION_LIST::C_DecryptFinal, hSession, "pLastPart",
                      pLastPart, "*pulLastPartLen", pulLastPartLen);
}

// ---- Message digesting ----------------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_DigestInit(CK_SESSION_HANDLE hSession,
                                               CK_MECHANISM_PTR pMechanism) {
  CSpyCall call("C_DigestInit");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceMechanismArgument(call, pMechanism);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_DigestInit, hSession, pMechanism));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData,
                                           CK_ULONG ulDataLen, CK_BYTE_PTR pDigest,
                                           CK_ULONG_PTR pulDigestLen) {
  return ForwardTransform("C_Digest", &CK_FUNCTION_LIST::C_Digest, hSession, "pData", pData,
                          ulDataLen, "pDigest", pDigest, "*pulDigestLen", pulDigestLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart,
                                                 CK_ULONG ulPartLen) {
  return ForwardUpdate("C_DigestUpdate", &CK_FUNCTION_LIST::C_DigestUpdate, hSession, pPart,
                       ulPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DigestKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey) {
  CSpyCall call("C_DigestKey");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceNumber(call, "hKey", hKey);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_DigestKey, hSession, hKey));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest,
                                                CK_ULONG_PTR pulDigestLen) {
  return ForwardFinal("C_DigestFinal", &CK_FUNCTION_LIST::C_DigestFinal, hSession, "pDigest",
                      pDigest, "*pulDigestLen", pulDigestLen);
}

// ---- Signing and verifying ------------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_SignInit(CK_SESSION_HANDLE hSession,
                                             CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return ForwardKeyInit("C_SignInit", &CK_FUNCTION_LIST::C_SignInit, hSession, pMechanism, hKey);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData,
                                         CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
                                         CK_ULONG_PTR pulSignatureLen) {
  return ForwardTransform("C_Sign", &CK_FUNCTION_LIST::C_Sign, hSession, "pData", pData, ulDataLen,
                          "pSignature", pSignature, "*pulSignatureLen", pulSignatureLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart,
                                               CK_ULONG ulPartLen) {
  return ForwardUpdate("C_SignUpdate", &CK_FUNCTION_LIST::C_SignUpdate, hSession, pPart, ulPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,
                                              CK_ULONG_PTR pulSignatureLen) {
  return ForwardFinal("C_SignFinal", &CK_FUNCTION_LIST::C_SignFinal, hSession, "pSignature",
                      pSignature, "*pulSignatureLen", pulSignatureLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_SignRecoverInit(CK_SESSION_HANDLE hSession,
                                                    CK_MECHANISM_PTR pMechanism,
                                                    CK_OBJECT_HANDLE hKey) {
  return ForwardKeyInit("C_SignRecoverInit", &CK_FUNCTION_LIST::C_SignRecoverInit, hSession,
                        pMechanism, hKey);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_SignRecover(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData,
                                                CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
                                                CK_ULONG_PTR pulSignatureLen) {
  return ForwardTransform("C_SignRecover", &CK_FUNCTION_LIST::C_SignRecover, hSession, "pData",
                          pData, ulDataLen, "pSignature", pSignature, "*pulSignatureLen",
                          pulSignatureLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession,
                                               CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
  return ForwardKeyInit("C_VerifyInit", &CK_FUNCTION_LIST::C_VerifyInit, hSession, pMechanism,
                        hKey);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData,
                                           CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
                                           CK_ULONG ulSignatureLen) {
  CSpyCall call("C_Verify");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputBuffer(call, "pData", pData, ulDataLen);
  zelph::TraceInputBuffer(call, "pSignature", pSignature, ulSignatureLen);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_Verify, hSession, pData, ulDataLen,
                                  pSignature, ulSignatureLen));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart,
                                                 CK_ULONG ulPartLen) {
  return ForwardUpdate("C_VerifyUpdate", &CK_FUNCTION_LIST::C_VerifyUpdate, hSession, pPart,
                       ulPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,
                                                CK_ULONG ulSignatureLen) {
  CSpyCall call("C_VerifyFinal");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputBuffer(call, "pSignature", pSignature, ulSignatureLen);
  return call.Return(
      call.Forward(&CK_FUNCTION_LIST::C_VerifyFinal, hSession, pSignature, ulSignatureLen));
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_VerifyRecoverInit(CK_SESSION_HANDLE hSession,
                                                      CK_MECHANISM_PTR pMechanism,
                                                      CK_OBJECT_HANDLE hKey) {
  return ForwardKeyInit("C_VerifyRecoverInit", &CK_FUNCTION_LIST::C_VerifyRecoverInit, hSession,
                        pMechanism, hKey);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_VerifyRecover(CK_SESSION_HANDLE hSession,
                                                  CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen,
                                                  CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen) {
  return ForwardTransform("C_VerifyRecover", &CK_FUNCTION_LIST::C_VerifyRecover, hSession,
                          "pSignature", pSignature, ulSignatureLen, "pData", pData, "*pulDataLen",
                          pulDataLen);
}

// ---- Dual-function operations ---------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_DigestEncryptUpdate(CK_SESSION_HANDLE hSession,
                                                        CK_BYTE_PTR pPart, CK_ULONG ulPartLen,
                                                        CK_BYTE_PTR pEncryptedPart,
                                                        CK_ULONG_PTR pulEncryptedPartLen) {
  return ForwardTransform("C_DigestEncryptUpdate", &CK_FUNCTION_LIST::C_DigestEncryptUpdate,
                          hSession, "pPart", pPart, ulPartLen, "pEncryptedPart", pEncryptedPart,
                          "*pulEncryptedPartLen", pulEncryptedPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DecryptDigestUpdate(CK_SESSION_HANDLE hSession,
                                                        CK_BYTE_PTR pEncryptedPart,
                                                        CK_ULONG ulEncryptedPartLen,
                                                        CK_BYTE_PTR pPart,
                                                        CK_ULONG_PTR pulPartLen) {
  return ForwardTransform("C_DecryptDigestUpdate", &CK_FUNCTION_LIST::C_DecryptDigestUpdate,
                          hSession, "pEncryptedPart", pEncryptedPart, ulEncryptedPartLen, "pPart",
                          pPart, "*pulPartLen", pulPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_SignEncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart,
                                                      CK_ULONG ulPartLen,
                                                      CK_BYTE_PTR pEncryptedPart,
                                                      CK_ULONG_PTR pulEncryptedPartLen) {
  return ForwardTransform("C_SignEncryptUpdate", &CK_FUNCTION_LIST::C_SignEncryptUpdate, hSession,
                          "pPart", pPart, ulPartLen, "pEncryptedPart", pEncryptedPart,
                          "*pulEncryptedPartLen", pulEncryptedPartLen);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DecryptVerifyUpdate(CK_SESSION_HANDLE hSession,
                                                        CK_BYTE_PTR pEncryptedPart,
                                                        CK_ULONG ulEncryptedPartLen,
                                                        CK_BYTE_PTR pPart,
                                                        CK_ULONG_PTR pulPartLen) {
  return ForwardTransform("C_DecryptVerifyUpdate", &CK_FUNCTION_LIST::C_DecryptVerifyUpdate,
                          hSession, "pEncryptedPart", pEncryptedPart, ulEncryptedPartLen, "pPart",
                          pPart, "*pulPartLen", pulPartLen);
}

// ---- Key management -------------------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_GenerateKey(CK_SESSION_HANDLE hSession,
                                                CK_MECHANISM_PTR pMechanism,
                                                CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                                                CK_OBJECT_HANDLE_PTR phKey) {
  CSpyCall call("C_GenerateKey");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceMechanismArgument(call, pMechanism);
  zelph::TraceInputTemplate(call, "pTemplate", pTemplate, ulCount);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_GenerateKey, hSession, pMechanism, pTemplate,
                                ulCount, phKey);
  zelph::TraceOutputHandle(call, "*phKey", phKey, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV
C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                  CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                  CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                  CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey) {
  CSpyCall call("C_GenerateKeyPair");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceMechanismArgument(call, pMechanism);
  zelph::TraceInputTemplate(call, "pPublicKeyTemplate", pPublicKeyTemplate,
                            ulPublicKeyAttributeCount);
  zelph::TraceInputTemplate(call, "pPrivateKeyTemplate", pPrivateKeyTemplate,
                            ulPrivateKeyAttributeCount);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_GenerateKeyPair, hSession, pMechanism,
                                pPublicKeyTemplate, ulPublicKeyAttributeCount, pPrivateKeyTemplate,
                                ulPrivateKeyAttributeCount, phPublicKey, phPrivateKey);
  zelph::TraceOutputHandle(call, "*phPublicKey", phPublicKey, rv);
  zelph::TraceOutputHandle(call, "*phPrivateKey", phPrivateKey, rv);
  return call.Return(rv);
}

// The wrapped key is key material under another key; only its length is written.
extern "C" ZELPH_SPY_EXPORT CK_RV C_WrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                                            CK_OBJECT_HANDLE hWrappingKey, CK_OBJECT_HANDLE hKey,
                                            CK_BYTE_PTR pWrappedKey,
                                            CK_ULONG_PTR pulWrappedKeyLen) {
  CSpyCall call("C_WrapKey");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceMechanismArgument(call, pMechanism);
  zelph::TraceNumber(call, "hWrappingKey", hWrappingKey);
  zelph::TraceNumber(call, "hKey", hKey);
  zelph::TraceOutputBuffer(call, "pWrappedKey", pWrappedKey, "*pulWrappedKeyLen", pulWrappedKeyLen);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_WrapKey, hSession, pMechanism, hWrappingKey,
                                hKey, pWrappedKey, pulWrappedKeyLen);
  zelph::TraceOutputLength(call, "*pulWrappedKeyLen", pulWrappedKeyLen, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_UnwrapKey(CK_SESSION_HANDLE hSession,
                                              CK_MECHANISM_PTR pMechanism,
                                              CK_OBJECT_HANDLE hUnwrappingKey,
                                              CK_BYTE_PTR pWrappedKey, CK_ULONG ulWrappedKeyLen,
                                              CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount,
                                              CK_OBJECT_HANDLE_PTR phKey) {
  CSpyCall call("C_UnwrapKey");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceMechanismArgument(call, pMechanism);
  zelph::TraceNumber(call, "hUnwrappingKey", hUnwrappingKey);
  zelph::TraceInputBuffer(call, "pWrappedKey", pWrappedKey, ulWrappedKeyLen);
  zelph::TraceInputTemplate(call, "pTemplate", pTemplate, ulAttributeCount);
  const CK_RV rv =
      call.Forward(&CK_FUNCTION_LIST::C_UnwrapKey, hSession, pMechanism, hUnwrappingKey,
                   pWrappedKey, ulWrappedKeyLen, pTemplate, ulAttributeCount, phKey);
  zelph::TraceOutputHandle(call, "*phKey", phKey, rv);
  return call.Return(rv);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession,
                                              CK_MECHANISM_PTR pMechanism,
                                              CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate,
                                              CK_ULONG ulAttributeCount,
                                              CK_OBJECT_HANDLE_PTR phKey) {
  CSpyCall call("C_DeriveKey");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceMechanismArgument(call, pMechanism);
  zelph::TraceNumber(call, "hBaseKey", hBaseKey);
  zelph::TraceInputTemplate(call, "pTemplate", pTemplate, ulAttributeCount);
  const CK_RV rv = call.Forward(&CK_FUNCTION_LIST::C_DeriveKey, hSession, pMechanism, hBaseKey,
                                pTemplate, ulAttributeCount, phKey);
  zelph::TraceOutputHandle(call, "*phKey", phKey, rv);
  return call.Return(rv);
}

// ---- Random numbers -------------------------------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_SeedRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSeed,
                                               CK_ULONG ulSeedLen) {
  CSpyCall call("C_SeedRandom");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputBuffer(call, "pSeed", pSeed, ulSeedLen);
  return call.Return(call.Forward(&CK_FUNCTION_LIST::C_SeedRandom, hSession, pSeed, ulSeedLen));
}

// Random bytes often become keys; only their count is written.
extern "C" ZELPH_SPY_EXPORT CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession,
                                                   CK_BYTE_PTR RandomData, CK_ULONG ulRandomLen) {
  CSpyCall call("C_GenerateRandom");
  zelph::TraceNumber(call, "hSession", hSession);
  zelph::TraceInputBuffer(call, "RandomData", RandomData, ulRandomLen);
  return call.Return(
      call.Forward(&CK_FUNCTION_LIST::C_GenerateRandom, hSession, RandomData, ulRandomLen));
}

// ---- Parallel function management (legacy) --------------------------------

extern "C" ZELPH_SPY_EXPORT CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE hSession) {
  return ForwardSession("C_GetFunctionStatus", &CK_FUNCTION_LIST::C_GetFunctionStatus, hSession);
}

extern "C" ZELPH_SPY_EXPORT CK_RV C_CancelFunction(CK_SESSION_HANDLE hSession) {
  return ForwardSession("C_CancelFunction", &CK_FUNCTION_LIST::C_CancelFunction, hSession);
}
