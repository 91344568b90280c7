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

/* The exported functions never throw; C++ callers may rely on it. */
#ifdef __cplusplus
#define ZELPH_NOEXCEPT noexcept
#else
#define ZELPH_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Tracing ---------------------------------------------------------- */

/* Writes "Entering <name>." and indents the calling thread's later lines. */
ZELPH_EXPORT void TraceEnter(const char* name) ZELPH_NOEXCEPT;

/* Undoes one TraceEnter and writes "Leaving <name>."; a blank line follows
 * when the thread is back at its outermost level. */
ZELPH_EXPORT void TraceLeave(const char* name) ZELPH_NOEXCEPT;

/* Writes a printf-style message, every line of it behind the line prefix.
 * The format is read as UTF-8 and written as ISO-8859-1. */
ZELPH_EXPORT void TraceString(const char* format, ...) ZELPH_NOEXCEPT ZELPH_PRINTF(1, 2);

/* Writes one line per attribute: name, length and a rendering of the value.
 * Key material (CKA_VALUE and the RSA private parts) is shown only by length.
 * With omitValues non-zero, values are not read at all. */
ZELPH_EXPORT void TraceTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count,
                                CK_BBOOL omitValues) ZELPH_NOEXCEPT;

/* Writes the mechanism's name and, when present, its parameter in hexadecimal. */
ZELPH_EXPORT void TraceMechanism(const CK_MECHANISM* mechanism) ZELPH_NOEXCEPT;

/* Writes the key sizes and the flag names of a mechanism's capabilities. */
ZELPH_EXPORT void TraceMechanismInfo(const CK_MECHANISM_INFO* info) ZELPH_NOEXCEPT;

/* Writes a token's label, manufacturer, model, serial number, flags, PIN
 * lengths, memory figures and versions. */
ZELPH_EXPORT void TraceTokenInfo(const CK_TOKEN_INFO* info) ZELPH_NOEXCEPT;

/* ---- Naming ----------------------------------------------------------- */

/* Return values (CKR_, CXR_) ZELPH_NOEXCEPT; unknown: "Unknown: 0x%08X" of the low 32 bits. */
ZELPH_EXPORT const char* GetCkErrorString(CK_RV rv) ZELPH_NOEXCEPT;

/* User types (CKU_) ZELPH_NOEXCEPT; unknown: "Unknown: 0x%08X" of the low 32 bits. */
ZELPH_EXPORT const char* GetCkUserTypeString(CK_USER_TYPE userType) ZELPH_NOEXCEPT;

/* Attribute types (CKA_, CXA_) ZELPH_NOEXCEPT; unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkAttributeTypeString(CK_ATTRIBUTE_TYPE type) ZELPH_NOEXCEPT;

/* Object classes (CKO_, CXO_) ZELPH_NOEXCEPT; unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkObjectClassString(CK_OBJECT_CLASS objectClass) ZELPH_NOEXCEPT;

/* Key types (CKK_) ZELPH_NOEXCEPT; unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkKeyTypeString(CK_KEY_TYPE keyType) ZELPH_NOEXCEPT;

/* Certificate types (CKC_) ZELPH_NOEXCEPT; unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkCertificateTypeString(CK_CERTIFICATE_TYPE certificateType) ZELPH_NOEXCEPT;

/* Mechanism types (CKM_) ZELPH_NOEXCEPT; unknown: "unknown (0x%08lX)" of the full value. */
ZELPH_EXPORT const char* GetCkMechanismTypeString(CK_MECHANISM_TYPE mechanism) ZELPH_NOEXCEPT;

/* Key specs (CXKEYSPEC_) ZELPH_NOEXCEPT; unknown: "Unknown". */
ZELPH_EXPORT const char* GetCxKeySpecString(CK_ULONG keySpec) ZELPH_NOEXCEPT;

/* One mechanism-info flag bit (CKF_) ZELPH_NOEXCEPT; several bits or unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkMechanismInfoFlagString(CK_FLAGS flag) ZELPH_NOEXCEPT;

/* One token-info flag bit (CKF_) ZELPH_NOEXCEPT; several bits or unknown: "Unknown". */
ZELPH_EXPORT const char* GetCkTokenInfoFlagString(CK_FLAGS flag) ZELPH_NOEXCEPT;

/* Card container kinds (CXC_) ZELPH_NOEXCEPT; unknown: "Unknown". */
ZELPH_EXPORT const char* GetQXCardContainer(CK_ULONG container) ZELPH_NOEXCEPT;

/* PC/SC status codes (SCARD_) ZELPH_NOEXCEPT; unknown: "Unknown: 0x%08lX" of the full value. */
ZELPH_EXPORT const char* GetWin32ErrorString(unsigned long status) ZELPH_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* ZELPH_TRACE_H */
