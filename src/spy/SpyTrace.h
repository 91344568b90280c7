// How the spy writes the arguments and results of PKCS#11 calls into the
// trace log. A log must be safe to mail to a support desk, so only numbers,
// handles, names, lengths and the template dumps of the trace library (which
// withhold key material) are written: never a PIN, never the bytes of data,
// signatures, ciphertexts, wrapped keys, random numbers or operation states.
//
// Each function adds its lines to those `call` collects and writes after the
// module answered; a template is added as the rows of the trace library's
// template dump. Nothing is formatted when the call is not traced.
#pragma once

#include <p11-kit/pkcs11.h>

#include <span>

#include "names/Pkcs11Names.h"
#include "spy/CSpyCall.h"
#include "spy/Pkcs11Interfaces.h"

namespace zelph {

// True when `rv` says that the module has filled in its outputs.
constexpr bool HasOutput(CK_RV rv) noexcept {
  return rv == CKR_OK;
}

// True when `rv` says that the module has set the lengths of its output
// buffers (also when a buffer was too small).
constexpr bool HasOutputLength(CK_RV rv) noexcept {
  return rv == CKR_OK || rv == CKR_BUFFER_TOO_SMALL;
}

// "<name> = <value>" in decimal: handles, slot ids, counts and sizes.
void TraceNumber(CSpyCall& call, const char* name, CK_ULONG value) noexcept;

// "<name> = 0x<value>": flag words, in eight or more hexadecimal digits.
void TraceFlags(CSpyCall& call, const char* name, CK_FLAGS value) noexcept;

// "<name> = 0x<value> (<flag> | <flag>)": a flag word of `kind`, bit by bit.
void TraceNamedFlags(CSpyCall& call, const char* name, CFlagKind kind, CK_FLAGS value) noexcept;

// "<name> = <user type name>".
void TraceUserType(CSpyCall& call, const char* name, CK_USER_TYPE userType) noexcept;

// A text of the application, at most `length` bytes of it: "NULL" or the
// text in quotes, written as an argument so that it reaches the log as given.
void TraceText(CSpyCall& call, const char* name, const CK_UTF8CHAR* text, CK_ULONG length) noexcept;

// A token label of the application: 32 blank-padded characters.
void TraceLabel(CSpyCall& call, const char* name, const CK_UTF8CHAR* label) noexcept;

// A PIN: "NULL" or its length, never its characters.
void TracePin(CSpyCall& call, const char* name, const CK_UTF8CHAR* pin, CK_ULONG length) noexcept;

// An input buffer: "NULL" or its length, never its bytes.
void TraceInputBuffer(CSpyCall& call, const char* name, const void* buffer,
                      CK_ULONG length) noexcept;

// An output buffer before the call: a null buffer asks for the needed length;
// otherwise the caller's buffer size in *`length`, counted in `unit`, is
// written.
void TraceOutputBuffer(CSpyCall& call, const char* name, const void* buffer, const char* lengthName,
                       const CK_ULONG* length, const char* unit = "bytes") noexcept;

// The length of an output after the call, when `rv` says the module set it.
void TraceOutputLength(CSpyCall& call, const char* lengthName, const CK_ULONG* length,
                       CK_RV rv) noexcept;

// A handle the module returns (a session, an object, a slot), when `rv` is
// CKR_OK.
void TraceOutputHandle(CSpyCall& call, const char* name, const CK_ULONG* handle, CK_RV rv) noexcept;

// A list of handles or slot ids on one line: "<name> = 1, 2, 3".
void TraceHandleList(CSpyCall& call, const char* name, const CK_ULONG* list,
                     CK_ULONG count) noexcept;

// A list of mechanisms, one name per line.
void TraceMechanismList(CSpyCall& call, const CK_MECHANISM_TYPE* list, CK_ULONG count) noexcept;

// "<name> = <mechanism name>".
void TraceMechanismType(CSpyCall& call, const char* name, CK_MECHANISM_TYPE type) noexcept;

// A template the caller passes in, with its values (secret ones withheld by
// the dump). The trace library's template dump writes the attributes it
// knows; the others get a line of the same shape with their standard name
// and their value in hexadecimal, as the dump shows unknown types.
void TraceInputTemplate(CSpyCall& call, const char* name, const CK_ATTRIBUTE* attributes,
                        CK_ULONG count) noexcept;

// The template of C_GetAttributeValue before the call: types, buffer sizes
// and whether buffers are given; the buffers are not read.
void TraceQueryTemplate(CSpyCall& call, const CK_ATTRIBUTE* attributes, CK_ULONG count) noexcept;

// The template of C_GetAttributeValue after the call, with the values the
// module filled in. Written only for the results after which the template is
// defined; an attribute the module could not give (length
// CK_UNAVAILABLE_INFORMATION) is shown without its buffer.
void TraceAnswerTemplate(CSpyCall& call, const CK_ATTRIBUTE* attributes, CK_ULONG count,
                         CK_RV rv) noexcept;

// The argument of C_Initialize: "NULL" or its flags and whether the caller
// brings its own mutex functions.
void TraceInitArgs(CSpyCall& call, const void* initArgs) noexcept;

// The general information of C_GetInfo.
void TraceInfo(CSpyCall& call, const CK_INFO& info) noexcept;

// The slot information of C_GetSlotInfo.
void TraceSlotInfo(CSpyCall& call, const CK_SLOT_INFO& info) noexcept;

// The token information of C_GetTokenInfo.
void TraceTokenInfo(CSpyCall& call, const CK_TOKEN_INFO& info) noexcept;

// The mechanism information of C_GetMechanismInfo.
void TraceMechanismInfo(CSpyCall& call, const CK_MECHANISM_INFO& info) noexcept;

// The session information of C_GetSessionInfo.
void TraceSessionInfo(CSpyCall& call, const CK_SESSION_INFO& info) noexcept;

// What C_GetInterface asks for: a name, a version, flags, each possibly NULL.
void TraceInterfaceRequest(CSpyCall& call, const CK_UTF8CHAR* name, const CK_VERSION* version,
                           CK_FLAGS flags) noexcept;

// An interface the spy hands out: "<name> = "<interface name>" <version>,
// flags = 0x<flags>". The interface and its names are the spy's own.
void TraceInterface(CSpyCall& call, const char* name, const CK_INTERFACE& interface) noexcept;

// The interfaces of C_GetInterfaceList, one per line.
void TraceInterfaceList(CSpyCall& call, std::span<const CK_INTERFACE> interfaces) noexcept;

}  // namespace zelph
