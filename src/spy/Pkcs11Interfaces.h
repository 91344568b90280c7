// The PKCS#11 3.0 definitions that the distribution's p11-kit header lacks:
// interfaces, the 3.0 function list and the types of its new functions. The
// layout follows the published 3.0 standard; a test compares it with NSS's
// copy of the standard's header.
#pragma once

#include <p11-kit/pkcs11.h>

// clang-format off
// The 2.x functions in the order of CK_FUNCTION_LIST. The spy's own lists
// name each one with a designated initializer, so the compiler checks this
// order against the system's header.
#define ZELPH_PKCS11_V2_FUNCTIONS(X)                                                     \
  X(C_Initialize) X(C_Finalize) X(C_GetInfo) X(C_GetFunctionList) X(C_GetSlotList)       \
  X(C_GetSlotInfo) X(C_GetTokenInfo) X(C_GetMechanismList) X(C_GetMechanismInfo)         \
  X(C_InitToken) X(C_InitPIN) X(C_SetPIN) X(C_OpenSession) X(C_CloseSession)             \
  X(C_CloseAllSessions) X(C_GetSessionInfo) X(C_GetOperationState)                       \
  X(C_SetOperationState) X(C_Login) X(C_Logout) X(C_CreateObject) X(C_CopyObject)       \
  X(C_DestroyObject) X(C_GetObjectSize) X(C_GetAttributeValue) X(C_SetAttributeValue)   \
  X(C_FindObjectsInit) X(C_FindObjects) X(C_FindObjectsFinal) X(C_EncryptInit)           \
  X(C_Encrypt) X(C_EncryptUpdate) X(C_EncryptFinal) X(C_DecryptInit) X(C_Decrypt)        \
  X(C_DecryptUpdate) X(C_DecryptFinal) X(C_DigestInit) X(C_Digest) X(C_DigestUpdate)     \
  X(C_DigestKey) X(C_DigestFinal) X(C_SignInit) X(C_Sign) X(C_SignUpdate) X(C_SignFinal) \
  X(C_SignRecoverInit) X(C_SignRecover) X(C_VerifyInit) X(C_Verify) X(C_VerifyUpdate)    \
  X(C_VerifyFinal) X(C_VerifyRecoverInit) X(C_VerifyRecover) X(C_DigestEncryptUpdate)    \
  X(C_DecryptDigestUpdate) X(C_SignEncryptUpdate) X(C_DecryptVerifyUpdate)               \
  X(C_GenerateKey) X(C_GenerateKeyPair) X(C_WrapKey) X(C_UnwrapKey) X(C_DeriveKey)       \
  X(C_SeedRandom) X(C_GenerateRandom) X(C_GetFunctionStatus) X(C_CancelFunction)         \
  X(C_WaitForSlotEvent)

// The functions PKCS#11 3.0 adds, in the order of CK_FUNCTION_LIST_3_0.
#define ZELPH_PKCS11_V3_FUNCTIONS(X)                                                       \
  X(C_GetInterfaceList) X(C_GetInterface) X(C_LoginUser) X(C_SessionCancel)                \
  X(C_MessageEncryptInit) X(C_EncryptMessage) X(C_EncryptMessageBegin)                     \
  X(C_EncryptMessageNext) X(C_MessageEncryptFinal) X(C_MessageDecryptInit)                 \
  X(C_DecryptMessage) X(C_DecryptMessageBegin) X(C_DecryptMessageNext)                     \
  X(C_MessageDecryptFinal) X(C_MessageSignInit) X(C_SignMessage) X(C_SignMessageBegin)     \
  X(C_SignMessageNext) X(C_MessageSignFinal) X(C_MessageVerifyInit) X(C_VerifyMessage)     \
  X(C_VerifyMessageBegin) X(C_VerifyMessageNext) X(C_MessageVerifyFinal)
// clang-format on

#ifndef CKF_INTERFACE_FORK_SAFE
#define CKF_INTERFACE_FORK_SAFE (0x00000001UL)
#endif
#ifndef CKF_END_OF_MESSAGE
#define CKF_END_OF_MESSAGE (0x00000001UL)
#endif

extern "C" {

// One interface a module offers: its name ("PKCS 11" for the standard ones),
// a function list whose first member is its version, and its flags.
struct CK_INTERFACE {
  CK_CHAR* pInterfaceName;
  CK_VOID_PTR pFunctionList;
  CK_FLAGS flags;
};
using CK_INTERFACE_PTR = CK_INTERFACE*;
using CK_INTERFACE_PTR_PTR = CK_INTERFACE**;

using CK_C_GetInterfaceList = CK_RV (*)(CK_INTERFACE_PTR pInterfacesList, CK_ULONG_PTR pulCount);
using CK_C_GetInterface = CK_RV (*)(CK_UTF8CHAR_PTR pInterfaceName, CK_VERSION_PTR pVersion,
                                    CK_INTERFACE_PTR_PTR ppInterface, CK_FLAGS flags);
using CK_C_LoginUser = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType,
                                 CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen, CK_UTF8CHAR_PTR pUsername,
                                 CK_ULONG ulUsernameLen);
using CK_C_SessionCancel = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_FLAGS flags);
using CK_C_MessageInit = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                                   CK_OBJECT_HANDLE hKey);
using CK_C_MessageFinal = CK_RV (*)(CK_SESSION_HANDLE hSession);
// Encrypting, decrypting and signing a whole message into an output buffer.
using CK_C_CryptMessage = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,
                                    CK_ULONG ulParameterLen, CK_BYTE_PTR pAssociatedData,
                                    CK_ULONG ulAssociatedDataLen, CK_BYTE_PTR pIn, CK_ULONG ulInLen,
                                    CK_BYTE_PTR pOut, CK_ULONG_PTR pulOutLen);
using CK_C_CryptMessageBegin = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,
                                         CK_ULONG ulParameterLen, CK_BYTE_PTR pAssociatedData,
                                         CK_ULONG ulAssociatedDataLen);
using CK_C_CryptMessageNext = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,
                                        CK_ULONG ulParameterLen, CK_BYTE_PTR pInPart,
                                        CK_ULONG ulInPartLen, CK_BYTE_PTR pOutPart,
                                        CK_ULONG_PTR pulOutPartLen, CK_FLAGS flags);
using CK_C_SignMessage = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,
                                   CK_ULONG ulParameterLen, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                                   CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen);
using CK_C_VerifyMessage = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,
                                     CK_ULONG ulParameterLen, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                                     CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen);
using CK_C_MessageBegin = CK_RV (*)(CK_SESSION_HANDLE hSession, CK_VOID_PTR pParameter,
                                    CK_ULONG ulParameterLen);

using CK_C_MessageEncryptInit = CK_C_MessageInit;
using CK_C_EncryptMessage = CK_C_CryptMessage;
using CK_C_EncryptMessageBegin = CK_C_CryptMessageBegin;
using CK_C_EncryptMessageNext = CK_C_CryptMessageNext;
using CK_C_MessageEncryptFinal = CK_C_MessageFinal;
using CK_C_MessageDecryptInit = CK_C_MessageInit;
using CK_C_DecryptMessage = CK_C_CryptMessage;
using CK_C_DecryptMessageBegin = CK_C_CryptMessageBegin;
using CK_C_DecryptMessageNext = CK_C_CryptMessageNext;
using CK_C_MessageDecryptFinal = CK_C_MessageFinal;
using CK_C_MessageSignInit = CK_C_MessageInit;
using CK_C_SignMessageBegin = CK_C_MessageBegin;
using CK_C_SignMessageNext = CK_C_SignMessage;
using CK_C_MessageSignFinal = CK_C_MessageFinal;
using CK_C_MessageVerifyInit = CK_C_MessageInit;
using CK_C_VerifyMessageBegin = CK_C_MessageBegin;
using CK_C_VerifyMessageNext = CK_C_VerifyMessage;
using CK_C_MessageVerifyFinal = CK_C_MessageFinal;

// The 3.0 function list: the 2.x list followed by the 3.0 functions.
struct CK_FUNCTION_LIST_3_0 {
  CK_VERSION version;
#define ZELPH_FUNCTION_FIELD(name) CK_##name name;
  ZELPH_PKCS11_V2_FUNCTIONS(ZELPH_FUNCTION_FIELD)
  ZELPH_PKCS11_V3_FUNCTIONS(ZELPH_FUNCTION_FIELD)
#undef ZELPH_FUNCTION_FIELD
};

}  // extern "C"

static_assert(offsetof(CK_FUNCTION_LIST_3_0, C_WaitForSlotEvent) ==
                  offsetof(CK_FUNCTION_LIST, C_WaitForSlotEvent),
              "the 3.0 list must begin with the 2.x list");
