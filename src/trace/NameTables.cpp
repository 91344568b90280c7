// Symbolic names of PKCS#11 and PC/SC numbers, for the library's own dumps and
// for callers' logs. Each table is a switch compiled into its function, over
// constant texts: there is nothing to build at load time and nothing to lock.
// Only the names listed here are known; every other number, standard or not,
// gets the fallback text.
#include <cstddef>
#include <cstdint>

#include <PCSC/pcsclite.h>

#include "common/base/CharClasses.h"
#include "zelph/trace.h"
#include "zelph/vendor.h"

// Each table is a list of constant names. The list gives, once each, a block
// holding all the names' texts one after the other and the switch that maps a
// value to its name's place in the block. Because the switch yields plain
// numbers, the compiler can turn it into a lookup in a constant array, which
// it cannot do for the texts' addresses in position-independent code: a jump
// through a table costs a mispredicted branch on every lookup. (GCC is
// allowed sparse arrays for these switches, see CMakeLists.txt.)
//
// A known value answers with the name of its own constant, so a table entry
// cannot pair a value with a misspelt or wrong name.
#define ZELPH_NAME_FIELD(name) char name##_[sizeof #name] = #name;
#define ZELPH_NAME_CASE(name)          \
  case name:                           \
    offset = offsetof(Names, name##_); \
    break;
// A function giving the offset of a value's name in the block, or kNoName.
// The vendor values, far above the standard ones, have a switch of their own,
// so that each switch spans a range an array can cover.
#define ZELPH_NAME_OFFSETS(function, Type, LIST)  \
  std::size_t function(CK_ULONG value) noexcept { \
    using Names = Type;                           \
    std::size_t offset = kNoName;                 \
    switch (value) { LIST(ZELPH_NAME_CASE) }      \
    return offset;                                \
  }
#define ZELPH_NAME_TABLE(Type, instance, LIST)   \
  namespace {                                    \
  struct Type {                                  \
    LIST(ZELPH_NAME_FIELD)                       \
  };                                             \
  constexpr Type instance{};                     \
  ZELPH_NAME_OFFSETS(OffsetIn##Type, Type, LIST) \
  }
// The same for a list of standard names and a list of vendor names.
#define ZELPH_VENDOR_NAME_TABLE(Type, instance, LIST, VENDOR_LIST) \
  namespace {                                                      \
  struct Type {                                                    \
    LIST(ZELPH_NAME_FIELD)                                         \
    VENDOR_LIST(ZELPH_NAME_FIELD)                                  \
  };                                                               \
  constexpr Type instance{};                                       \
  ZELPH_NAME_OFFSETS(OffsetIn##Type, Type, LIST)                   \
  ZELPH_NAME_OFFSETS(VendorOffsetIn##Type, Type, VENDOR_LIST)      \
  }

namespace {

// The offset of no name.
constexpr std::size_t kNoName = ~std::size_t{0};

// The name at `offset` in the block `names`.
template <class Names>
const char* NameAt(const Names& names, std::size_t offset) noexcept {
  return reinterpret_cast<const char*>(&names) + offset;
}

// Writes `lead`, `value` in upper-case hexadecimal with at least `minDigits`
// digits (as "%0<minDigits>lX" does) and `tail` into `out`, which must have
// room; returns `out`.
const char* FormatUnknown(char* out, const char* lead, std::uint64_t value, int minDigits,
                          const char* tail) noexcept {
  char digits[16];
  int count = 0;
  do {
    digits[count++] = zelph::kUpperHexDigits[value & 0xF];
    value >>= 4;
  } while (value != 0);
  while (count < minDigits) digits[count++] = '0';
  char* p = out;
  while (*lead != '\0') *p++ = *lead++;
  while (count > 0) *p++ = digits[--count];
  while (*tail != '\0') *p++ = *tail++;
  *p = '\0';
  return out;
}

}  // namespace

// The fallback texts differ on purpose from function to function (case of the
// "u", colon or parentheses, 32 or 64 bits, buffer size): callers parse and
// compare them, so each stays as it is. A fallback lives in its function's own
// buffer until that function's next unknown number. The buffers have room for
// the longest text: a lead, 16 digits and a tail.
extern "C" {

#define ZELPH_ERROR_NAMES(X)              \
  X(CKR_OK)                               \
  X(CKR_CANCEL)                           \
  X(CKR_HOST_MEMORY)                      \
  X(CKR_SLOT_ID_INVALID)                  \
  X(CKR_GENERAL_ERROR)                    \
  X(CKR_FUNCTION_FAILED)                  \
  X(CKR_ARGUMENTS_BAD)                    \
  X(CKR_NO_EVENT)                         \
  X(CKR_NEED_TO_CREATE_THREADS)           \
  X(CKR_CANT_LOCK)                        \
  X(CKR_ATTRIBUTE_READ_ONLY)              \
  X(CKR_ATTRIBUTE_SENSITIVE)              \
  X(CKR_ATTRIBUTE_TYPE_INVALID)           \
  X(CKR_ATTRIBUTE_VALUE_INVALID)          \
  X(CKR_ACTION_PROHIBITED)                \
  X(CKR_DATA_INVALID)                     \
  X(CKR_DATA_LEN_RANGE)                   \
  X(CKR_DEVICE_ERROR)                     \
  X(CKR_DEVICE_MEMORY)                    \
  X(CKR_DEVICE_REMOVED)                   \
  X(CKR_ENCRYPTED_DATA_INVALID)           \
  X(CKR_ENCRYPTED_DATA_LEN_RANGE)         \
  X(CKR_FUNCTION_CANCELED)                \
  X(CKR_FUNCTION_NOT_PARALLEL)            \
  X(CKR_FUNCTION_NOT_SUPPORTED)           \
  X(CKR_KEY_HANDLE_INVALID)               \
  X(CKR_KEY_SIZE_RANGE)                   \
  X(CKR_KEY_TYPE_INCONSISTENT)            \
  X(CKR_KEY_NOT_NEEDED)                   \
  X(CKR_KEY_CHANGED)                      \
  X(CKR_KEY_NEEDED)                       \
  X(CKR_KEY_INDIGESTIBLE)                 \
  X(CKR_KEY_FUNCTION_NOT_PERMITTED)       \
  X(CKR_KEY_NOT_WRAPPABLE)                \
  X(CKR_KEY_UNEXTRACTABLE)                \
  X(CKR_MECHANISM_INVALID)                \
  X(CKR_MECHANISM_PARAM_INVALID)          \
  X(CKR_OBJECT_HANDLE_INVALID)            \
  X(CKR_OPERATION_ACTIVE)                 \
  X(CKR_OPERATION_NOT_INITIALIZED)        \
  X(CKR_PIN_INCORRECT)                    \
  X(CKR_PIN_INVALID)                      \
  X(CKR_PIN_LEN_RANGE)                    \
  X(CKR_PIN_EXPIRED)                      \
  X(CKR_PIN_LOCKED)                       \
  X(CKR_SESSION_CLOSED)                   \
  X(CKR_SESSION_COUNT)                    \
  X(CKR_SESSION_HANDLE_INVALID)           \
  X(CKR_SESSION_PARALLEL_NOT_SUPPORTED)   \
  X(CKR_SESSION_READ_ONLY)                \
  X(CKR_SESSION_EXISTS)                   \
  X(CKR_SESSION_READ_ONLY_EXISTS)         \
  X(CKR_SESSION_READ_WRITE_SO_EXISTS)     \
  X(CKR_SIGNATURE_INVALID)                \
  X(CKR_SIGNATURE_LEN_RANGE)              \
  X(CKR_TEMPLATE_INCOMPLETE)              \
  X(CKR_TEMPLATE_INCONSISTENT)            \
  X(CKR_TOKEN_NOT_PRESENT)                \
  X(CKR_TOKEN_NOT_RECOGNIZED)             \
  X(CKR_TOKEN_WRITE_PROTECTED)            \
  X(CKR_UNWRAPPING_KEY_HANDLE_INVALID)    \
  X(CKR_UNWRAPPING_KEY_SIZE_RANGE)        \
  X(CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT) \
  X(CKR_USER_ALREADY_LOGGED_IN)           \
  X(CKR_USER_NOT_LOGGED_IN)               \
  X(CKR_USER_PIN_NOT_INITIALIZED)         \
  X(CKR_USER_TYPE_INVALID)                \
  X(CKR_USER_ANOTHER_ALREADY_LOGGED_IN)   \
  X(CKR_USER_TOO_MANY_TYPES)              \
  X(CKR_WRAPPED_KEY_INVALID)              \
  X(CKR_WRAPPED_KEY_LEN_RANGE)            \
  X(CKR_WRAPPING_KEY_HANDLE_INVALID)      \
  X(CKR_WRAPPING_KEY_SIZE_RANGE)          \
  X(CKR_WRAPPING_KEY_TYPE_INCONSISTENT)   \
  X(CKR_RANDOM_SEED_NOT_SUPPORTED)        \
  X(CKR_RANDOM_NO_RNG)                    \
  X(CKR_DOMAIN_PARAMS_INVALID)            \
  X(CKR_BUFFER_TOO_SMALL)                 \
  X(CKR_SAVED_STATE_INVALID)              \
  X(CKR_INFORMATION_SENSITIVE)            \
  X(CKR_STATE_UNSAVEABLE)                 \
  X(CKR_CRYPTOKI_NOT_INITIALIZED)         \
  X(CKR_CRYPTOKI_ALREADY_INITIALIZED)     \
  X(CKR_MUTEX_BAD)                        \
  X(CKR_MUTEX_NOT_LOCKED)
// Vendor extensions, far above the standard values: a switch of their own.
#define ZELPH_ERROR_VENDOR_NAMES(X) \
  X(CXR_CONTAINER_INVALID)          \
  X(CXR_CONTAINER_EXISTS)           \
  X(CXR_NEEDS_REMOUNT)              \
  X(CXR_CERT_NOT_TRUSTED)
ZELPH_VENDOR_NAME_TABLE(CErrorNames, kErrorNames, ZELPH_ERROR_NAMES, ZELPH_ERROR_VENDOR_NAMES)

const char* GetCkErrorString(CK_RV rv) noexcept {
  std::size_t offset = OffsetInCErrorNames(rv);
  if (offset == kNoName) offset = VendorOffsetInCErrorNames(rv);
  if (offset != kNoName) return NameAt(kErrorNames, offset);
  // Return values never use the high half, so the text keeps to eight digits.
  static char unknown[64];
  return FormatUnknown(unknown, "Unknown: 0x", rv & 0xFFFFFFFFUL, 8, "");
}

#define ZELPH_USER_TYPE_NAMES(X) \
  X(CKU_SO)                      \
  X(CKU_USER)
ZELPH_NAME_TABLE(CUserTypeNames, kUserTypeNames, ZELPH_USER_TYPE_NAMES)

const char* GetCkUserTypeString(CK_USER_TYPE userType) noexcept {
  std::size_t offset = OffsetInCUserTypeNames(userType);
  if (offset != kNoName) return NameAt(kUserTypeNames, offset);
  static char unknown[64];
  return FormatUnknown(unknown, "Unknown: 0x", userType & 0xFFFFFFFFUL, 8, "");
}

#define ZELPH_ATTRIBUTE_NAMES(X) \
  X(CKA_CLASS)                   \
  X(CKA_TOKEN)                   \
  X(CKA_PRIVATE)                 \
  X(CKA_LABEL)                   \
  X(CKA_APPLICATION)             \
  X(CKA_VALUE)                   \
  X(CKA_OBJECT_ID)               \
  X(CKA_CERTIFICATE_TYPE)        \
  X(CKA_ISSUER)                  \
  X(CKA_SERIAL_NUMBER)           \
  X(CKA_AC_ISSUER)               \
  X(CKA_OWNER)                   \
  X(CKA_ATTR_TYPES)              \
  X(CKA_TRUSTED)                 \
  X(CKA_KEY_TYPE)                \
  X(CKA_SUBJECT)                 \
  X(CKA_ID)                      \
  X(CKA_SENSITIVE)               \
  X(CKA_ENCRYPT)                 \
  X(CKA_DECRYPT)                 \
  X(CKA_WRAP)                    \
  X(CKA_UNWRAP)                  \
  X(CKA_SIGN)                    \
  X(CKA_SIGN_RECOVER)            \
  X(CKA_VERIFY)                  \
  X(CKA_VERIFY_RECOVER)          \
  X(CKA_DERIVE)                  \
  X(CKA_START_DATE)              \
  X(CKA_END_DATE)                \
  X(CKA_MODULUS)                 \
  X(CKA_MODULUS_BITS)            \
  X(CKA_PUBLIC_EXPONENT)         \
  X(CKA_PRIVATE_EXPONENT)        \
  X(CKA_PRIME_1)                 \
  X(CKA_PRIME_2)                 \
  X(CKA_EXPONENT_1)              \
  X(CKA_EXPONENT_2)              \
  X(CKA_COEFFICIENT)             \
  X(CKA_PRIME)                   \
  X(CKA_SUBPRIME)                \
  X(CKA_BASE)                    \
  X(CKA_PRIME_BITS)              \
  X(CKA_SUBPRIME_BITS)           \
  X(CKA_VALUE_BITS)              \
  X(CKA_VALUE_LEN)               \
  X(CKA_EXTRACTABLE)             \
  X(CKA_LOCAL)                   \
  X(CKA_NEVER_EXTRACTABLE)       \
  X(CKA_ALWAYS_SENSITIVE)        \
  X(CKA_KEY_GEN_MECHANISM)       \
  X(CKA_MODIFIABLE)              \
  X(CKA_EC_PARAMS)               \
  X(CKA_EC_POINT)                \
  X(CKA_SECONDARY_AUTH)          \
  X(CKA_AUTH_PIN_FLAGS)          \
  X(CKA_HW_FEATURE_TYPE)         \
  X(CKA_RESET_ON_INIT)           \
  X(CKA_HAS_RESET)
// Vendor extensions, far above the standard values: a switch of their own.
#define ZELPH_ATTRIBUTE_VENDOR_NAMES(X) \
  X(CXA_CONTAINER_NAME)                 \
  X(CXA_CONTAINER_KEYSPEC)              \
  X(CXA_REQUIRES_PARTIAL_HASH)          \
  X(CXA_VSLOT)                          \
  X(CXA_NO_PIN_CACHE)                   \
  X(CXA_PIN_SESSION_CACHE_ENABLE)       \
  X(CXA_PROFILE_INDICATION)             \
  X(CXA_HAS_PRIVATE_KEY)                \
  X(CXA_TECH_DATA)                      \
  X(CXA_APP_AID)                        \
  X(CXA_CPLC_DATA)                      \
  X(CXA_CARD_CONTAINER)                 \
  X(CXA_ACTIVATE_CONTAINER_COUNT)
ZELPH_VENDOR_NAME_TABLE(CAttributeNames, kAttributeNames, ZELPH_ATTRIBUTE_NAMES,
                        ZELPH_ATTRIBUTE_VENDOR_NAMES)

const char* GetCkAttributeTypeString(CK_ATTRIBUTE_TYPE type) noexcept {
  std::size_t offset = OffsetInCAttributeNames(type);
  if (offset == kNoName) offset = VendorOffsetInCAttributeNames(type);
  if (offset != kNoName) return NameAt(kAttributeNames, offset);
  return "Unknown";
}

#define ZELPH_OBJECT_CLASS_NAMES(X) \
  X(CKO_DATA)                       \
  X(CKO_CERTIFICATE)                \
  X(CKO_PUBLIC_KEY)                 \
  X(CKO_PRIVATE_KEY)                \
  X(CKO_SECRET_KEY)                 \
  X(CKO_HW_FEATURE)                 \
  X(CKO_DOMAIN_PARAMETERS)
// Vendor extensions, far above the standard values: a switch of their own.
#define ZELPH_OBJECT_CLASS_VENDOR_NAMES(X) X(CXO_CONTAINER)
ZELPH_VENDOR_NAME_TABLE(CObjectClassNames, kObjectClassNames, ZELPH_OBJECT_CLASS_NAMES,
                        ZELPH_OBJECT_CLASS_VENDOR_NAMES)

const char* GetCkObjectClassString(CK_OBJECT_CLASS objectClass) noexcept {
  std::size_t offset = OffsetInCObjectClassNames(objectClass);
  if (offset == kNoName) offset = VendorOffsetInCObjectClassNames(objectClass);
  if (offset != kNoName) return NameAt(kObjectClassNames, offset);
  return "Unknown";
}

#define ZELPH_KEY_TYPE_NAMES(X) \
  X(CKK_RSA)                    \
  X(CKK_DSA)                    \
  X(CKK_DH)                     \
  X(CKK_EC)                     \
  X(CKK_X9_42_DH)               \
  X(CKK_KEA)                    \
  X(CKK_GENERIC_SECRET)         \
  X(CKK_RC2)                    \
  X(CKK_RC4)                    \
  X(CKK_DES)                    \
  X(CKK_DES2)                   \
  X(CKK_DES3)                   \
  X(CKK_CAST)                   \
  X(CKK_CAST3)                  \
  X(CKK_CAST128)                \
  X(CKK_RC5)                    \
  X(CKK_IDEA)                   \
  X(CKK_SKIPJACK)               \
  X(CKK_BATON)                  \
  X(CKK_JUNIPER)                \
  X(CKK_CDMF)                   \
  X(CKK_AES)
ZELPH_NAME_TABLE(CKeyTypeNames, kKeyTypeNames, ZELPH_KEY_TYPE_NAMES)

const char* GetCkKeyTypeString(CK_KEY_TYPE keyType) noexcept {
  std::size_t offset = OffsetInCKeyTypeNames(keyType);
  if (offset != kNoName) return NameAt(kKeyTypeNames, offset);
  return "Unknown";
}

#define ZELPH_CERTIFICATE_TYPE_NAMES(X) \
  X(CKC_X_509)                          \
  X(CKC_X_509_ATTR_CERT)
ZELPH_NAME_TABLE(CCertificateTypeNames, kCertificateTypeNames, ZELPH_CERTIFICATE_TYPE_NAMES)

const char* GetCkCertificateTypeString(CK_CERTIFICATE_TYPE certificateType) noexcept {
  std::size_t offset = OffsetInCCertificateTypeNames(certificateType);
  if (offset != kNoName) return NameAt(kCertificateTypeNames, offset);
  return "Unknown";
}

#define ZELPH_MECHANISM_NAMES(X)   \
  X(CKM_RSA_PKCS_KEY_PAIR_GEN)     \
  X(CKM_RSA_PKCS)                  \
  X(CKM_RSA_9796)                  \
  X(CKM_RSA_X_509)                 \
  X(CKM_MD2_RSA_PKCS)              \
  X(CKM_MD5_RSA_PKCS)              \
  X(CKM_SHA1_RSA_PKCS)             \
  X(CKM_RIPEMD128_RSA_PKCS)        \
  X(CKM_RIPEMD160_RSA_PKCS)        \
  X(CKM_RSA_PKCS_OAEP)             \
  X(CKM_RSA_X9_31_KEY_PAIR_GEN)    \
  X(CKM_RSA_X9_31)                 \
  X(CKM_SHA1_RSA_X9_31)            \
  X(CKM_RSA_PKCS_PSS)              \
  X(CKM_SHA1_RSA_PKCS_PSS)         \
  X(CKM_DSA_KEY_PAIR_GEN)          \
  X(CKM_DSA)                       \
  X(CKM_DSA_SHA1)                  \
  X(CKM_DH_PKCS_KEY_PAIR_GEN)      \
  X(CKM_DH_PKCS_DERIVE)            \
  X(CKM_X9_42_DH_KEY_PAIR_GEN)     \
  X(CKM_X9_42_DH_DERIVE)           \
  X(CKM_X9_42_DH_HYBRID_DERIVE)    \
  X(CKM_X9_42_MQV_DERIVE)          \
  X(CKM_SHA256_RSA_PKCS)           \
  X(CKM_RC2_KEY_GEN)               \
  X(CKM_RC2_ECB)                   \
  X(CKM_RC2_CBC)                   \
  X(CKM_RC2_MAC)                   \
  X(CKM_RC2_MAC_GENERAL)           \
  X(CKM_RC2_CBC_PAD)               \
  X(CKM_RC4_KEY_GEN)               \
  X(CKM_RC4)                       \
  X(CKM_DES_KEY_GEN)               \
  X(CKM_DES_ECB)                   \
  X(CKM_DES_CBC)                   \
  X(CKM_DES_MAC)                   \
  X(CKM_DES_MAC_GENERAL)           \
  X(CKM_DES_CBC_PAD)               \
  X(CKM_DES2_KEY_GEN)              \
  X(CKM_DES3_KEY_GEN)              \
  X(CKM_DES3_ECB)                  \
  X(CKM_DES3_CBC)                  \
  X(CKM_DES3_MAC)                  \
  X(CKM_DES3_MAC_GENERAL)          \
  X(CKM_DES3_CBC_PAD)              \
  X(CKM_CDMF_KEY_GEN)              \
  X(CKM_CDMF_ECB)                  \
  X(CKM_CDMF_CBC)                  \
  X(CKM_CDMF_MAC)                  \
  X(CKM_CDMF_MAC_GENERAL)          \
  X(CKM_CDMF_CBC_PAD)              \
  X(CKM_MD2)                       \
  X(CKM_MD2_HMAC)                  \
  X(CKM_MD2_HMAC_GENERAL)          \
  X(CKM_MD5)                       \
  X(CKM_MD5_HMAC)                  \
  X(CKM_MD5_HMAC_GENERAL)          \
  X(CKM_SHA_1)                     \
  X(CKM_SHA_1_HMAC)                \
  X(CKM_SHA_1_HMAC_GENERAL)        \
  X(CKM_RIPEMD128)                 \
  X(CKM_RIPEMD128_HMAC)            \
  X(CKM_RIPEMD128_HMAC_GENERAL)    \
  X(CKM_RIPEMD160)                 \
  X(CKM_RIPEMD160_HMAC)            \
  X(CKM_RIPEMD160_HMAC_GENERAL)    \
  X(CKM_SHA256)                    \
  X(CKM_SHA256_HMAC)               \
  X(CKM_SHA256_HMAC_GENERAL)       \
  X(CKM_CAST_KEY_GEN)              \
  X(CKM_CAST_ECB)                  \
  X(CKM_CAST_CBC)                  \
  X(CKM_CAST_MAC)                  \
  X(CKM_CAST_MAC_GENERAL)          \
  X(CKM_CAST_CBC_PAD)              \
  X(CKM_CAST3_KEY_GEN)             \
  X(CKM_CAST3_ECB)                 \
  X(CKM_CAST3_CBC)                 \
  X(CKM_CAST3_MAC)                 \
  X(CKM_CAST3_MAC_GENERAL)         \
  X(CKM_CAST3_CBC_PAD)             \
  X(CKM_CAST128_KEY_GEN)           \
  X(CKM_CAST128_ECB)               \
  X(CKM_CAST128_CBC)               \
  X(CKM_CAST128_MAC)               \
  X(CKM_CAST128_MAC_GENERAL)       \
  X(CKM_CAST128_CBC_PAD)           \
  X(CKM_RC5_KEY_GEN)               \
  X(CKM_RC5_ECB)                   \
  X(CKM_RC5_CBC)                   \
  X(CKM_RC5_MAC)                   \
  X(CKM_RC5_MAC_GENERAL)           \
  X(CKM_RC5_CBC_PAD)               \
  X(CKM_IDEA_KEY_GEN)              \
  X(CKM_IDEA_ECB)                  \
  X(CKM_IDEA_CBC)                  \
  X(CKM_IDEA_MAC)                  \
  X(CKM_IDEA_MAC_GENERAL)          \
  X(CKM_IDEA_CBC_PAD)              \
  X(CKM_GENERIC_SECRET_KEY_GEN)    \
  X(CKM_CONCATENATE_BASE_AND_KEY)  \
  X(CKM_CONCATENATE_BASE_AND_DATA) \
  X(CKM_CONCATENATE_DATA_AND_BASE) \
  X(CKM_XOR_BASE_AND_DATA)         \
  X(CKM_EXTRACT_KEY_FROM_KEY)      \
  X(CKM_SSL3_PRE_MASTER_KEY_GEN)   \
  X(CKM_SSL3_MASTER_KEY_DERIVE)    \
  X(CKM_SSL3_KEY_AND_MAC_DERIVE)   \
  X(CKM_SSL3_MASTER_KEY_DERIVE_DH) \
  X(CKM_TLS_PRE_MASTER_KEY_GEN)    \
  X(CKM_TLS_MASTER_KEY_DERIVE)     \
  X(CKM_TLS_KEY_AND_MAC_DERIVE)    \
  X(CKM_TLS_MASTER_KEY_DERIVE_DH)  \
  X(CKM_SSL3_MD5_MAC)              \
  X(CKM_SSL3_SHA1_MAC)             \
  X(CKM_MD5_KEY_DERIVATION)        \
  X(CKM_MD2_KEY_DERIVATION)        \
  X(CKM_SHA1_KEY_DERIVATION)       \
  X(CKM_PBE_MD2_DES_CBC)           \
  X(CKM_PBE_MD5_DES_CBC)           \
  X(CKM_PBE_MD5_CAST_CBC)          \
  X(CKM_PBE_MD5_CAST3_CBC)         \
  X(CKM_PBE_MD5_CAST128_CBC)       \
  X(CKM_PBE_SHA1_CAST128_CBC)      \
  X(CKM_PBE_SHA1_RC4_128)          \
  X(CKM_PBE_SHA1_RC4_40)           \
  X(CKM_PBE_SHA1_DES3_EDE_CBC)     \
  X(CKM_PBE_SHA1_DES2_EDE_CBC)     \
  X(CKM_PBE_SHA1_RC2_128_CBC)      \
  X(CKM_PBE_SHA1_RC2_40_CBC)       \
  X(CKM_PKCS5_PBKD2)               \
  X(CKM_PBA_SHA1_WITH_SHA1_HMAC)   \
  X(CKM_KEY_WRAP_LYNKS)            \
  X(CKM_KEY_WRAP_SET_OAEP)         \
  X(CKM_SKIPJACK_KEY_GEN)          \
  X(CKM_SKIPJACK_ECB64)            \
  X(CKM_SKIPJACK_CBC64)            \
  X(CKM_SKIPJACK_OFB64)            \
  X(CKM_SKIPJACK_CFB64)            \
  X(CKM_SKIPJACK_CFB32)            \
  X(CKM_SKIPJACK_CFB16)            \
  X(CKM_SKIPJACK_CFB8)             \
  X(CKM_SKIPJACK_WRAP)             \
  X(CKM_SKIPJACK_PRIVATE_WRAP)     \
  X(CKM_SKIPJACK_RELAYX)           \
  X(CKM_KEA_KEY_PAIR_GEN)          \
  X(CKM_KEA_KEY_DERIVE)            \
  X(CKM_FORTEZZA_TIMESTAMP)        \
  X(CKM_BATON_KEY_GEN)             \
  X(CKM_BATON_ECB128)              \
  X(CKM_BATON_ECB96)               \
  X(CKM_BATON_CBC128)              \
  X(CKM_BATON_COUNTER)             \
  X(CKM_BATON_SHUFFLE)             \
  X(CKM_BATON_WRAP)                \
  X(CKM_EC_KEY_PAIR_GEN)           \
  X(CKM_ECDSA)                     \
  X(CKM_ECDSA_SHA1)                \
  X(CKM_ECDSA_SHA256)              \
  X(CKM_ECDSA_SHA384)              \
  X(CKM_ECDSA_SHA512)              \
  X(CKM_ECDH1_DERIVE)              \
  X(CKM_ECDH1_COFACTOR_DERIVE)     \
  X(CKM_ECMQV_DERIVE)              \
  X(CKM_JUNIPER_KEY_GEN)           \
  X(CKM_JUNIPER_ECB128)            \
  X(CKM_JUNIPER_CBC128)            \
  X(CKM_JUNIPER_COUNTER)           \
  X(CKM_JUNIPER_SHUFFLE)           \
  X(CKM_JUNIPER_WRAP)              \
  X(CKM_FASTHASH)                  \
  X(CKM_AES_KEY_GEN)               \
  X(CKM_AES_ECB)                   \
  X(CKM_AES_CBC)                   \
  X(CKM_AES_MAC)                   \
  X(CKM_AES_MAC_GENERAL)           \
  X(CKM_AES_CBC_PAD)               \
  X(CKM_DSA_PARAMETER_GEN)         \
  X(CKM_DH_PKCS_PARAMETER_GEN)     \
  X(CKM_X9_42_DH_PARAMETER_GEN)
ZELPH_NAME_TABLE(CMechanismNames, kMechanismNames, ZELPH_MECHANISM_NAMES)

const char* GetCkMechanismTypeString(CK_MECHANISM_TYPE mechanism) noexcept {
  std::size_t offset = OffsetInCMechanismNames(mechanism);
  if (offset != kNoName) return NameAt(kMechanismNames, offset);
  static char unknown[128];
  return FormatUnknown(unknown, "unknown (0x", mechanism, 8, ")");
}

#define ZELPH_KEY_SPEC_NAMES(X) \
  X(CXKEYSPEC_KEYEXCHANGE)      \
  X(CXKEYSPEC_SIGNATURE)
ZELPH_NAME_TABLE(CKeySpecNames, kKeySpecNames, ZELPH_KEY_SPEC_NAMES)

const char* GetCxKeySpecString(CK_ULONG keySpec) noexcept {
  std::size_t offset = OffsetInCKeySpecNames(keySpec);
  if (offset != kNoName) return NameAt(kKeySpecNames, offset);
  return "Unknown";
}

#define ZELPH_MECHANISM_FLAG_NAMES(X) \
  X(CKF_HW)                           \
  X(CKF_ENCRYPT)                      \
  X(CKF_DECRYPT)                      \
  X(CKF_DIGEST)                       \
  X(CKF_SIGN)                         \
  X(CKF_SIGN_RECOVER)                 \
  X(CKF_VERIFY)                       \
  X(CKF_VERIFY_RECOVER)               \
  X(CKF_GENERATE)                     \
  X(CKF_GENERATE_KEY_PAIR)            \
  X(CKF_WRAP)                         \
  X(CKF_UNWRAP)                       \
  X(CKF_DERIVE)                       \
  X(CKF_EC_F_P)                       \
  X(CKF_EC_F_2M)                      \
  X(CKF_EC_ECPARAMETERS)              \
  X(CKF_EC_NAMEDCURVE)                \
  X(CKF_EC_UNCOMPRESS)                \
  X(CKF_EC_COMPRESS)                  \
  X(CKF_EXTENSION)
ZELPH_NAME_TABLE(CMechanismFlagNames, kMechanismFlagNames, ZELPH_MECHANISM_FLAG_NAMES)

const char* GetCkMechanismInfoFlagString(CK_FLAGS flag) noexcept {
  std::size_t offset = OffsetInCMechanismFlagNames(flag);
  if (offset != kNoName) return NameAt(kMechanismFlagNames, offset);
  // Several bits at once match no single flag.
  return "Unknown";
}

#define ZELPH_TOKEN_FLAG_NAMES(X)      \
  X(CKF_RNG)                           \
  X(CKF_WRITE_PROTECTED)               \
  X(CKF_LOGIN_REQUIRED)                \
  X(CKF_USER_PIN_INITIALIZED)          \
  X(CKF_RESTORE_KEY_NOT_NEEDED)        \
  X(CKF_CLOCK_ON_TOKEN)                \
  X(CKF_PROTECTED_AUTHENTICATION_PATH) \
  X(CKF_DUAL_CRYPTO_OPERATIONS)        \
  X(CKF_TOKEN_INITIALIZED)             \
  X(CKF_SECONDARY_AUTHENTICATION)      \
  X(CKF_USER_PIN_COUNT_LOW)            \
  X(CKF_USER_PIN_FINAL_TRY)            \
  X(CKF_USER_PIN_LOCKED)               \
  X(CKF_USER_PIN_TO_BE_CHANGED)        \
  X(CKF_SO_PIN_COUNT_LOW)              \
  X(CKF_SO_PIN_FINAL_TRY)              \
  X(CKF_SO_PIN_LOCKED)                 \
  X(CKF_SO_PIN_TO_BE_CHANGED)
ZELPH_NAME_TABLE(CTokenFlagNames, kTokenFlagNames, ZELPH_TOKEN_FLAG_NAMES)

const char* GetCkTokenInfoFlagString(CK_FLAGS flag) noexcept {
  std::size_t offset = OffsetInCTokenFlagNames(flag);
  if (offset != kNoName) return NameAt(kTokenFlagNames, offset);
  // Several bits at once match no single flag.
  return "Unknown";
}

#define ZELPH_CARD_CONTAINER_NAMES(X) \
  X(CXC_NONE)                         \
  X(CXC_AUTH)                         \
  X(CXC_SIGN)                         \
  X(CXC_CONF)                         \
  X(CXC_MPP)                          \
  X(CXC_MPP_RGS)                      \
  X(CXC_WINLOGON)
ZELPH_NAME_TABLE(CCardContainerNames, kCardContainerNames, ZELPH_CARD_CONTAINER_NAMES)

const char* GetQXCardContainer(CK_ULONG container) noexcept {
  std::size_t offset = OffsetInCCardContainerNames(container);
  if (offset != kNoName) return NameAt(kCardContainerNames, offset);
  return "Unknown";
}

#define ZELPH_SCARD_NAMES(X)      \
  X(SCARD_F_INTERNAL_ERROR)       \
  X(SCARD_E_CANCELLED)            \
  X(SCARD_E_INVALID_HANDLE)       \
  X(SCARD_E_INVALID_PARAMETER)    \
  X(SCARD_E_INVALID_TARGET)       \
  X(SCARD_E_NO_MEMORY)            \
  X(SCARD_F_WAITED_TOO_LONG)      \
  X(SCARD_E_INSUFFICIENT_BUFFER)  \
  X(SCARD_E_UNKNOWN_READER)       \
  X(SCARD_E_TIMEOUT)              \
  X(SCARD_E_SHARING_VIOLATION)    \
  X(SCARD_E_NO_SMARTCARD)         \
  X(SCARD_E_UNKNOWN_CARD)         \
  X(SCARD_E_CANT_DISPOSE)         \
  X(SCARD_E_PROTO_MISMATCH)       \
  X(SCARD_E_NOT_READY)            \
  X(SCARD_E_INVALID_VALUE)        \
  X(SCARD_E_SYSTEM_CANCELLED)     \
  X(SCARD_F_COMM_ERROR)           \
  X(SCARD_F_UNKNOWN_ERROR)        \
  X(SCARD_E_INVALID_ATR)          \
  X(SCARD_E_NOT_TRANSACTED)       \
  X(SCARD_E_READER_UNAVAILABLE)   \
  X(SCARD_E_PCI_TOO_SMALL)        \
  X(SCARD_E_READER_UNSUPPORTED)   \
  X(SCARD_E_DUPLICATE_READER)     \
  X(SCARD_E_CARD_UNSUPPORTED)     \
  X(SCARD_E_NO_SERVICE)           \
  X(SCARD_E_SERVICE_STOPPED)      \
  X(SCARD_E_UNSUPPORTED_FEATURE)  \
  X(SCARD_E_NO_READERS_AVAILABLE) \
  X(SCARD_W_UNSUPPORTED_CARD)     \
  X(SCARD_W_UNRESPONSIVE_CARD)    \
  X(SCARD_W_UNPOWERED_CARD)       \
  X(SCARD_W_RESET_CARD)           \
  X(SCARD_W_REMOVED_CARD)
ZELPH_NAME_TABLE(CScardNames, kScardNames, ZELPH_SCARD_NAMES)

const char* GetWin32ErrorString(unsigned long status) noexcept {
  std::size_t offset = OffsetInCScardNames(status);
  if (offset != kNoName) return NameAt(kScardNames, offset);
  static char unknown[32];
  return FormatUnknown(unknown, "Unknown: 0x", status, 8, "");
}
}  // extern "C"
