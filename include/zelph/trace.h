/*
 * zelph trace: tracing and naming for PKCS#11 (Cryptoki) code.
 *
 * The trace functions write time-stamped, thread-tagged lines to one log file
 * per process when tracing is switched on in the configuration ("EnableTrace"
 * and "Trace" in section Quillon); otherwise they return at once and write
 * nothing. They never fail and never report errors to the caller.
 *
 * The naming functions turn PKCS#11 and PC/SC numbers into their symbolic
 * names. They return constant texts the caller must not free or modify; the
 * text for an unknown number lives in a per-function buffer that the next call
 * with an unknown number overwrites.
 */
#ifndef ZELPH_TRACE_H
#define ZELPH_TRACE_H

#include <p11-kit/pkcs11.h>

#if defined(__GNUC__)
#define ZELPH_EXPORT __attribute__((visibility("default")))
#define ZELPH_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define ZELPH_EXPORT
#define ZELPH_PRINTF(fmt, args)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Tracing ---------------------------------------------------------- */

/* Writes "Entering <name>." and indents the calling thread's later lines. */
ZELPH_EXPORT void TraceEnter(const char* name);

/* Undoes one TraceEnter and writes "Leaving <name>."; a blank line follows
 * when the thread is back at its outermost level. */
ZELPH_EXPORT void TraceLeave(const char* name);

/* Writes a printf-style message, every line of it behind the line prefix.
 * The format is read as UTF-8 and written as ISO-8859-1. */
ZELPH_EXPORT void TraceString(const char* format, ...) ZELPH_PRINTF(1, 2);

/* Writes one line per attribute: name, length and a rendering of the value.
 * Key material (CKA_VALUE and the RSA private parts) is shown only by length.
 * With omitValues non-zero, values are not read at all. */
ZELPH_EXPORT void TraceTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count,
                                CK_BBOOL omitValues);

/* Writes the mechanism's name and, when present, its parameter in hexadecimal. */
ZELPH_EXPORT void TraceMechanism(const CK_MECHANISM* mechanism);

/* Writes the key sizes and the flag names of a mechanism's capabilities. */
ZELPH_EXPORT void TraceMechanismInfo(const CK_MECHANISM_INFO* info);

/* Writes a token's label, manufacturer, model, serial number, flags, PIN
 * lengths, memory figures and versions. */
ZELPH_EXPORT void TraceTokenInfo(const CK_TOKEN_INFO* info);

/* ---- Naming ----------------------------------------------------------- */

/* Return values (CKR_, CXR_); unknown: "Unknown: 0x%08X" of the low 32 bits. */
ZELPH_EXPORT const char* GetCkErrorString(CK_RV rv);

/* User types (CKU_); unknown: "Unknown: 0x%08X" of the low 32 bits. */
ZELPH_EXPORT const char* GetCkUserTypeString(CK_USER_TYPE userType);

/* Attribute types (CKA_, CXA_); unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkAttributeTypeString(CK_ATTRIBUTE_TYPE type);

/* Object classes (CKO_, CXO_); unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkObjectClassString(CK_OBJECT_CLASS objectClass);

/* Key types (CKK_); unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkKeyTypeString(CK_KEY_TYPE keyType);

/* Certificate types (CKC_); unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkCertificateTypeString(CK_CERTIFICATE_TYPE certificateType);

/* Mechanism types (CKM_); unknown: "unknown (0x%08lX)" of the full value. */
ZELPH_EXPORT const char* GetCkMechanismTypeString(CK_MECHANISM_TYPE mechanism);

/* Key specs (CXKEYSPEC_); unknown: "Unknown". */
ZELPH_EXPORT const char* GetCxKeySpecString(CK_ULONG keySpec);

/* One mechanism-info flag bit (CKF_); several bits or unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkMechanismInfoFlagString(CK_FLAGS flag);

/* One token-info flag bit (CKF_); several bits or unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkTokenInfoFlagString(CK_FLAGS flag);

/* Card container kinds (CXC_); unknown: "Unknown". */
ZELPH_EXPORT const char* GetQXCardContainer(CK_ULONG container);

/* PC/SC status codes (SCARD_); unknown: "Unknown: 0x%08lX" of the full value. */
ZELPH_EXPORT const char* GetWin32ErrorString(unsigned long status);

#ifdef __cplusplus
}
#endif

#endif /* ZELPH_TRACE_H */
