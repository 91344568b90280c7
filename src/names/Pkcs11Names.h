// The standard names of PKCS#11 values, generated at build time from the
// system's PKCS#11 headers. The trace library's exported name functions keep
// their own tables and fallbacks; these are the fuller names of the spy's
// lines and of zelph-names.
#pragma once

#include <p11-kit/pkcs11.h>

#include <string>

namespace zelph {

// The kinds of values, each one prefix of the headers' names.
enum class CNameKind : unsigned char {
  kReturnValue,      // CKR_
  kAttribute,        // CKA_
  kObjectClass,      // CKO_
  kKeyType,          // CKK_
  kCertificateType,  // CKC_
  kMechanism,        // CKM_
  kUserType,         // CKU_
  kSessionState,     // CKS_
  kMgf,              // CKG_MGF1_ (RSA PSS and OAEP mask generation)
  kKdf,              // CKD_ (key derivation functions)
  kOaepSource,       // CKZ_DATA_SPECIFIED
  kProfile,          // CKP_ (3.0 profiles, without the PBKDF2 PRFs)
};

// The structures whose flag words are named bit by bit.
enum class CFlagKind : unsigned char {
  kSlot,        // CK_SLOT_INFO
  kToken,       // CK_TOKEN_INFO
  kSession,     // CK_SESSION_INFO and C_OpenSession
  kMechanism,   // CK_MECHANISM_INFO (also C_SessionCancel's operations)
  kInitialize,  // CK_C_INITIALIZE_ARGS
};

// The standard name of `value`, or null when the headers define none. Where
// several names share a value, the one the standard prefers (not the
// deprecated alias) is given.
const char* FindStandardName(CNameKind kind, CK_ULONG value) noexcept;

// Room for a name made up by NameOf.
struct CNameBuffer {
  char text[48];
};

// The name of `value` for a log line: its standard name; else the name the
// trace library knows (the middleware's own vendor values); else, for a value
// at or above the kind's vendor range, "<prefix>VENDOR_DEFINED+0x<offset>";
// else "0x" and the value in eight or more hexadecimal digits. Made-up texts
// are written into `buffer`.
const char* NameOf(CNameKind kind, CK_ULONG value, CNameBuffer& buffer) noexcept;

// Appends the names of the set bits of `flags`, lowest first, joined by
// " | "; the bits no name covers follow as one "0x..." number; "0" when no
// bit is set. Throws std::bad_alloc.
void AppendFlagNames(std::string& out, CFlagKind kind, CK_FLAGS flags);

}  // namespace zelph
