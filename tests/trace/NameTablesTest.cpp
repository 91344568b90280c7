// Loads the built libzelphtrace.so the way a client does and checks the name
// tables through the exported symbols: every listed name, the fallback texts
// for unlisted numbers and the width of the numbers in those texts.
#include <dlfcn.h>

#include <PCSC/pcsclite.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "zelph/vendor.h"

namespace zelph {
namespace {

// Every naming function has this shape once CK_ULONG is spelt out.
using NameFunction = const char* (*)(unsigned long);

// The library under test, opened for the whole program and closed at exit.
class TraceLibrary {
 public:
  TraceLibrary() : handle_(dlopen(ZELPH_TRACE_LIB, RTLD_NOW | RTLD_LOCAL)) {}
  ~TraceLibrary() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  TraceLibrary(const TraceLibrary&) = delete;
  TraceLibrary& operator=(const TraceLibrary&) = delete;

  // Returns the exported function `symbol`, or null (with a test failure).
  NameFunction Find(const char* symbol) const {
    if (handle_ == nullptr) {
      ADD_FAILURE() << "dlopen(" << ZELPH_TRACE_LIB << ") failed: " << dlerror();
      return nullptr;
    }
    auto function = reinterpret_cast<NameFunction>(dlsym(handle_, symbol));
    if (function == nullptr) ADD_FAILURE() << symbol << " is not exported: " << dlerror();
    return function;
  }

 private:
  void* handle_;
};

const TraceLibrary& Library() {
  static const TraceLibrary library;
  return library;
}

struct Named {
  unsigned long value;
  const char* name;
};

// A standard constant paired with its own name.
#define NAMED(constant) \
  { static_cast<unsigned long>(constant), #constant }

// clang-format off
// GetCkErrorString
const Named kCkErrorString[] = {
    NAMED(CKR_OK), NAMED(CKR_CANCEL), NAMED(CKR_HOST_MEMORY), NAMED(CKR_SLOT_ID_INVALID),
    NAMED(CKR_GENERAL_ERROR), NAMED(CKR_FUNCTION_FAILED), NAMED(CKR_ARGUMENTS_BAD),
    NAMED(CKR_NO_EVENT), NAMED(CKR_NEED_TO_CREATE_THREADS), NAMED(CKR_CANT_LOCK),
    NAMED(CKR_ATTRIBUTE_READ_ONLY), NAMED(CKR_ATTRIBUTE_SENSITIVE),
    NAMED(CKR_ATTRIBUTE_TYPE_INVALID), NAMED(CKR_ATTRIBUTE_VALUE_INVALID),
    NAMED(CKR_ACTION_PROHIBITED), NAMED(CKR_DATA_INVALID), NAMED(CKR_DATA_LEN_RANGE),
    NAMED(CKR_DEVICE_ERROR), NAMED(CKR_DEVICE_MEMORY), NAMED(CKR_DEVICE_REMOVED),
    NAMED(CKR_ENCRYPTED_DATA_INVALID), NAMED(CKR_ENCRYPTED_DATA_LEN_RANGE),
    NAMED(CKR_FUNCTION_CANCELED), NAMED(CKR_FUNCTION_NOT_PARALLEL),
    NAMED(CKR_FUNCTION_NOT_SUPPORTED), NAMED(CKR_KEY_HANDLE_INVALID), NAMED(CKR_KEY_SIZE_RANGE),
    NAMED(CKR_KEY_TYPE_INCONSISTENT), NAMED(CKR_KEY_NOT_NEEDED), NAMED(CKR_KEY_CHANGED),
    NAMED(CKR_KEY_NEEDED), NAMED(CKR_KEY_INDIGESTIBLE), NAMED(CKR_KEY_FUNCTION_NOT_PERMITTED),
    NAMED(CKR_KEY_NOT_WRAPPABLE), NAMED(CKR_KEY_UNEXTRACTABLE), NAMED(CKR_MECHANISM_INVALID),
    NAMED(CKR_MECHANISM_PARAM_INVALID), NAMED(CKR_OBJECT_HANDLE_INVALID),
    NAMED(CKR_OPERATION_ACTIVE), NAMED(CKR_OPERATION_NOT_INITIALIZED), NAMED(CKR_PIN_INCORRECT),
    NAMED(CKR_PIN_INVALID), NAMED(CKR_PIN_LEN_RANGE), NAMED(CKR_PIN_EXPIRED), NAMED(CKR_PIN_LOCKED),
    NAMED(CKR_SESSION_CLOSED), NAMED(CKR_SESSION_COUNT), NAMED(CKR_SESSION_HANDLE_INVALID),
    NAMED(CKR_SESSION_PARALLEL_NOT_SUPPORTED), NAMED(CKR_SESSION_READ_ONLY),
    NAMED(CKR_SESSION_EXISTS), NAMED(CKR_SESSION_READ_ONLY_EXISTS),
    NAMED(CKR_SESSION_READ_WRITE_SO_EXISTS), NAMED(CKR_SIGNATURE_INVALID),
    NAMED(CKR_SIGNATURE_LEN_RANGE), NAMED(CKR_TEMPLATE_INCOMPLETE),
    NAMED(CKR_TEMPLATE_INCONSISTENT), NAMED(CKR_TOKEN_NOT_PRESENT), NAMED(CKR_TOKEN_NOT_RECOGNIZED),
    NAMED(CKR_TOKEN_WRITE_PROTECTED), NAMED(CKR_UNWRAPPING_KEY_HANDLE_INVALID),
    NAMED(CKR_UNWRAPPING_KEY_SIZE_RANGE), NAMED(CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT),
    NAMED(CKR_USER_ALREADY_LOGGED_IN), NAMED(CKR_USER_NOT_LOGGED_IN),
    NAMED(CKR_USER_PIN_NOT_INITIALIZED), NAMED(CKR_USER_TYPE_INVALID),
    NAMED(CKR_USER_ANOTHER_ALREADY_LOGGED_IN), NAMED(CKR_USER_TOO_MANY_TYPES),
    NAMED(CKR_WRAPPED_KEY_INVALID), NAMED(CKR_WRAPPED_KEY_LEN_RANGE),
    NAMED(CKR_WRAPPING_KEY_HANDLE_INVALID), NAMED(CKR_WRAPPING_KEY_SIZE_RANGE),
    NAMED(CKR_WRAPPING_KEY_TYPE_INCONSISTENT), NAMED(CKR_RANDOM_SEED_NOT_SUPPORTED),
    NAMED(CKR_RANDOM_NO_RNG), NAMED(CKR_DOMAIN_PARAMS_INVALID), NAMED(CKR_BUFFER_TOO_SMALL),
    NAMED(CKR_SAVED_STATE_INVALID), NAMED(CKR_INFORMATION_SENSITIVE), NAMED(CKR_STATE_UNSAVEABLE),
    NAMED(CKR_CRYPTOKI_NOT_INITIALIZED), NAMED(CKR_CRYPTOKI_ALREADY_INITIALIZED),
    NAMED(CKR_MUTEX_BAD), NAMED(CKR_MUTEX_NOT_LOCKED),
};
// GetCkUserTypeString
const Named kCkUserTypeString[] = {
    NAMED(CKU_SO), NAMED(CKU_USER),
};
// GetCkAttributeTypeString
const Named kCkAttributeTypeString[] = {
    NAMED(CKA_CLASS), NAMED(CKA_TOKEN), NAMED(CKA_PRIVATE), NAMED(CKA_LABEL),
    NAMED(CKA_APPLICATION), NAMED(CKA_VALUE), NAMED(CKA_OBJECT_ID), NAMED(CKA_CERTIFICATE_TYPE),
    NAMED(CKA_ISSUER), NAMED(CKA_SERIAL_NUMBER), NAMED(CKA_AC_ISSUER), NAMED(CKA_OWNER),
    NAMED(CKA_ATTR_TYPES), NAMED(CKA_TRUSTED), NAMED(CKA_KEY_TYPE), NAMED(CKA_SUBJECT),
    NAMED(CKA_ID), NAMED(CKA_SENSITIVE), NAMED(CKA_ENCRYPT), NAMED(CKA_DECRYPT), NAMED(CKA_WRAP),
    NAMED(CKA_UNWRAP), NAMED(CKA_SIGN), NAMED(CKA_SIGN_RECOVER), NAMED(CKA_VERIFY),
    NAMED(CKA_VERIFY_RECOVER), NAMED(CKA_DERIVE), NAMED(CKA_START_DATE), NAMED(CKA_END_DATE),
    NAMED(CKA_MODULUS), NAMED(CKA_MODULUS_BITS), NAMED(CKA_PUBLIC_EXPONENT),
    NAMED(CKA_PRIVATE_EXPONENT), NAMED(CKA_PRIME_1), NAMED(CKA_PRIME_2), NAMED(CKA_EXPONENT_1),
    NAMED(CKA_EXPONENT_2), NAMED(CKA_COEFFICIENT), NAMED(CKA_PRIME), NAMED(CKA_SUBPRIME),
    NAMED(CKA_BASE), NAMED(CKA_PRIME_BITS), NAMED(CKA_SUBPRIME_BITS), NAMED(CKA_VALUE_BITS),
    NAMED(CKA_VALUE_LEN), NAMED(CKA_EXTRACTABLE), NAMED(CKA_LOCAL), NAMED(CKA_NEVER_EXTRACTABLE),
    NAMED(CKA_ALWAYS_SENSITIVE), NAMED(CKA_KEY_GEN_MECHANISM), NAMED(CKA_MODIFIABLE),
    NAMED(CKA_EC_PARAMS), NAMED(CKA_EC_POINT), NAMED(CKA_SECONDARY_AUTH), NAMED(CKA_AUTH_PIN_FLAGS),
    NAMED(CKA_HW_FEATURE_TYPE), NAMED(CKA_RESET_ON_INIT), NAMED(CKA_HAS_RESET),
};
// GetCkObjectClassString
const Named kCkObjectClassString[] = {
    NAMED(CKO_DATA), NAMED(CKO_CERTIFICATE), NAMED(CKO_PUBLIC_KEY), NAMED(CKO_PRIVATE_KEY),
    NAMED(CKO_SECRET_KEY), NAMED(CKO_HW_FEATURE), NAMED(CKO_DOMAIN_PARAMETERS),
};
// GetCkKeyTypeString
const Named kCkKeyTypeString[] = {
    NAMED(CKK_RSA), NAMED(CKK_DSA), NAMED(CKK_DH), NAMED(CKK_EC), NAMED(CKK_X9_42_DH),
    NAMED(CKK_KEA), NAMED(CKK_GENERIC_SECRET), NAMED(CKK_RC2), NAMED(CKK_RC4), NAMED(CKK_DES),
    NAMED(CKK_DES2), NAMED(CKK_DES3), NAMED(CKK_CAST), NAMED(CKK_CAST3), NAMED(CKK_CAST128),
    NAMED(CKK_RC5), NAMED(CKK_IDEA), NAMED(CKK_SKIPJACK), NAMED(CKK_BATON), NAMED(CKK_JUNIPER),
    NAMED(CKK_CDMF), NAMED(CKK_AES),
};
// GetCkCertificateTypeString
const Named kCkCertificateTypeString[] = {
    NAMED(CKC_X_509), NAMED(CKC_X_509_ATTR_CERT),
};
// GetCkMechanismTypeString
const Named kCkMechanismTypeString[] = {
    NAMED(CKM_RSA_PKCS_KEY_PAIR_GEN), NAMED(CKM_RSA_PKCS), NAMED(CKM_RSA_9796),
    NAMED(CKM_RSA_X_509), NAMED(CKM_MD2_RSA_PKCS), NAMED(CKM_MD5_RSA_PKCS),
    NAMED(CKM_SHA1_RSA_PKCS), NAMED(CKM_RIPEMD128_RSA_PKCS), NAMED(CKM_RIPEMD160_RSA_PKCS),
    NAMED(CKM_RSA_PKCS_OAEP), NAMED(CKM_RSA_X9_31_KEY_PAIR_GEN), NAMED(CKM_RSA_X9_31),
    NAMED(CKM_SHA1_RSA_X9_31), NAMED(CKM_RSA_PKCS_PSS), NAMED(CKM_SHA1_RSA_PKCS_PSS),
    NAMED(CKM_DSA_KEY_PAIR_GEN), NAMED(CKM_DSA), NAMED(CKM_DSA_SHA1),
    NAMED(CKM_DH_PKCS_KEY_PAIR_GEN), NAMED(CKM_DH_PKCS_DERIVE), NAMED(CKM_X9_42_DH_KEY_PAIR_GEN),
    NAMED(CKM_X9_42_DH_DERIVE), NAMED(CKM_X9_42_DH_HYBRID_DERIVE), NAMED(CKM_X9_42_MQV_DERIVE),
    NAMED(CKM_SHA256_RSA_PKCS), NAMED(CKM_RC2_KEY_GEN), NAMED(CKM_RC2_ECB), NAMED(CKM_RC2_CBC),
    NAMED(CKM_RC2_MAC), NAMED(CKM_RC2_MAC_GENERAL), NAMED(CKM_RC2_CBC_PAD), NAMED(CKM_RC4_KEY_GEN),
    NAMED(CKM_RC4), NAMED(CKM_DES_KEY_GEN), NAMED(CKM_DES_ECB), NAMED(CKM_DES_CBC),
    NAMED(CKM_DES_MAC), NAMED(CKM_DES_MAC_GENERAL), NAMED(CKM_DES_CBC_PAD), NAMED(CKM_DES2_KEY_GEN),
    NAMED(CKM_DES3_KEY_GEN), NAMED(CKM_DES3_ECB), NAMED(CKM_DES3_CBC), NAMED(CKM_DES3_MAC),
    NAMED(CKM_DES3_MAC_GENERAL), NAMED(CKM_DES3_CBC_PAD), NAMED(CKM_CDMF_KEY_GEN),
    NAMED(CKM_CDMF_ECB), NAMED(CKM_CDMF_CBC), NAMED(CKM_CDMF_MAC), NAMED(CKM_CDMF_MAC_GENERAL),
    NAMED(CKM_CDMF_CBC_PAD), NAMED(CKM_MD2), NAMED(CKM_MD2_HMAC), NAMED(CKM_MD2_HMAC_GENERAL),
    NAMED(CKM_MD5), NAMED(CKM_MD5_HMAC), NAMED(CKM_MD5_HMAC_GENERAL), NAMED(CKM_SHA_1),
    NAMED(CKM_SHA_1_HMAC), NAMED(CKM_SHA_1_HMAC_GENERAL), NAMED(CKM_RIPEMD128),
    NAMED(CKM_RIPEMD128_HMAC), NAMED(CKM_RIPEMD128_HMAC_GENERAL), NAMED(CKM_RIPEMD160),
    NAMED(CKM_RIPEMD160_HMAC), NAMED(CKM_RIPEMD160_HMAC_GENERAL), NAMED(CKM_SHA256),
    NAMED(CKM_SHA256_HMAC), NAMED(CKM_SHA256_HMAC_GENERAL), NAMED(CKM_CAST_KEY_GEN),
    NAMED(CKM_CAST_ECB), NAMED(CKM_CAST_CBC), NAMED(CKM_CAST_MAC), NAMED(CKM_CAST_MAC_GENERAL),
    NAMED(CKM_CAST_CBC_PAD), NAMED(CKM_CAST3_KEY_GEN), NAMED(CKM_CAST3_ECB), NAMED(CKM_CAST3_CBC),
    NAMED(CKM_CAST3_MAC), NAMED(CKM_CAST3_MAC_GENERAL), NAMED(CKM_CAST3_CBC_PAD),
    NAMED(CKM_CAST128_KEY_GEN), NAMED(CKM_CAST128_ECB), NAMED(CKM_CAST128_CBC),
    NAMED(CKM_CAST128_MAC), NAMED(CKM_CAST128_MAC_GENERAL), NAMED(CKM_CAST128_CBC_PAD),
    NAMED(CKM_RC5_KEY_GEN), NAMED(CKM_RC5_ECB), NAMED(CKM_RC5_CBC), NAMED(CKM_RC5_MAC),
    NAMED(CKM_RC5_MAC_GENERAL), NAMED(CKM_RC5_CBC_PAD), NAMED(CKM_IDEA_KEY_GEN),
    NAMED(CKM_IDEA_ECB), NAMED(CKM_IDEA_CBC), NAMED(CKM_IDEA_MAC), NAMED(CKM_IDEA_MAC_GENERAL),
    NAMED(CKM_IDEA_CBC_PAD), NAMED(CKM_GENERIC_SECRET_KEY_GEN), NAMED(CKM_CONCATENATE_BASE_AND_KEY),
    NAMED(CKM_CONCATENATE_BASE_AND_DATA), NAMED(CKM_CONCATENATE_DATA_AND_BASE),
    NAMED(CKM_XOR_BASE_AND_DATA), NAMED(CKM_EXTRACT_KEY_FROM_KEY),
    NAMED(CKM_SSL3_PRE_MASTER_KEY_GEN), NAMED(CKM_SSL3_MASTER_KEY_DERIVE),
    NAMED(CKM_SSL3_KEY_AND_MAC_DERIVE), NAMED(CKM_SSL3_MASTER_KEY_DERIVE_DH),
    NAMED(CKM_TLS_PRE_MASTER_KEY_GEN), NAMED(CKM_TLS_MASTER_KEY_DERIVE),
    NAMED(CKM_TLS_KEY_AND_MAC_DERIVE), NAMED(CKM_TLS_MASTER_KEY_DERIVE_DH), NAMED(CKM_SSL3_MD5_MAC),
    NAMED(CKM_SSL3_SHA1_MAC), NAMED(CKM_MD5_KEY_DERIVATION), NAMED(CKM_MD2_KEY_DERIVATION),
    NAMED(CKM_SHA1_KEY_DERIVATION), NAMED(CKM_PBE_MD2_DES_CBC), NAMED(CKM_PBE_MD5_DES_CBC),
    NAMED(CKM_PBE_MD5_CAST_CBC), NAMED(CKM_PBE_MD5_CAST3_CBC), NAMED(CKM_PBE_MD5_CAST128_CBC),
    NAMED(CKM_PBE_SHA1_CAST128_CBC), NAMED(CKM_PBE_SHA1_RC4_128), NAMED(CKM_PBE_SHA1_RC4_40),
    NAMED(CKM_PBE_SHA1_DES3_EDE_CBC), NAMED(CKM_PBE_SHA1_DES2_EDE_CBC),
    NAMED(CKM_PBE_SHA1_RC2_128_CBC), NAMED(CKM_PBE_SHA1_RC2_40_CBC), NAMED(CKM_PKCS5_PBKD2),
    NAMED(CKM_PBA_SHA1_WITH_SHA1_HMAC), NAMED(CKM_KEY_WRAP_LYNKS), NAMED(CKM_KEY_WRAP_SET_OAEP),
    NAMED(CKM_SKIPJACK_KEY_GEN), NAMED(CKM_SKIPJACK_ECB64), NAMED(CKM_SKIPJACK_CBC64),
    NAMED(CKM_SKIPJACK_OFB64), NAMED(CKM_SKIPJACK_CFB64), NAMED(CKM_SKIPJACK_CFB32),
    NAMED(CKM_SKIPJACK_CFB16), NAMED(CKM_SKIPJACK_CFB8), NAMED(CKM_SKIPJACK_WRAP),
    NAMED(CKM_SKIPJACK_PRIVATE_WRAP), NAMED(CKM_SKIPJACK_RELAYX), NAMED(CKM_KEA_KEY_PAIR_GEN),
    NAMED(CKM_KEA_KEY_DERIVE), NAMED(CKM_FORTEZZA_TIMESTAMP), NAMED(CKM_BATON_KEY_GEN),
    NAMED(CKM_BATON_ECB128), NAMED(CKM_BATON_ECB96), NAMED(CKM_BATON_CBC128),
    NAMED(CKM_BATON_COUNTER), NAMED(CKM_BATON_SHUFFLE), NAMED(CKM_BATON_WRAP),
    NAMED(CKM_EC_KEY_PAIR_GEN), NAMED(CKM_ECDSA), NAMED(CKM_ECDSA_SHA1), NAMED(CKM_ECDSA_SHA256),
    NAMED(CKM_ECDSA_SHA384), NAMED(CKM_ECDSA_SHA512), NAMED(CKM_ECDH1_DERIVE),
    NAMED(CKM_ECDH1_COFACTOR_DERIVE), NAMED(CKM_ECMQV_DERIVE), NAMED(CKM_JUNIPER_KEY_GEN),
    NAMED(CKM_JUNIPER_ECB128), NAMED(CKM_JUNIPER_CBC128), NAMED(CKM_JUNIPER_COUNTER),
    NAMED(CKM_JUNIPER_SHUFFLE), NAMED(CKM_JUNIPER_WRAP), NAMED(CKM_FASTHASH),
    NAMED(CKM_AES_KEY_GEN), NAMED(CKM_AES_ECB), NAMED(CKM_AES_CBC), NAMED(CKM_AES_MAC),
    NAMED(CKM_AES_MAC_GENERAL), NAMED(CKM_AES_CBC_PAD), NAMED(CKM_DSA_PARAMETER_GEN),
    NAMED(CKM_DH_PKCS_PARAMETER_GEN), NAMED(CKM_X9_42_DH_PARAMETER_GEN),
};
// GetCkMechanismInfoFlagString
const Named kCkMechanismInfoFlagString[] = {
    NAMED(CKF_HW), NAMED(CKF_ENCRYPT), NAMED(CKF_DECRYPT), NAMED(CKF_DIGEST), NAMED(CKF_SIGN),
    NAMED(CKF_SIGN_RECOVER), NAMED(CKF_VERIFY), NAMED(CKF_VERIFY_RECOVER), NAMED(CKF_GENERATE),
    NAMED(CKF_GENERATE_KEY_PAIR), NAMED(CKF_WRAP), NAMED(CKF_UNWRAP), NAMED(CKF_DERIVE),
    NAMED(CKF_EC_F_P), NAMED(CKF_EC_F_2M), NAMED(CKF_EC_ECPARAMETERS), NAMED(CKF_EC_NAMEDCURVE),
    NAMED(CKF_EC_UNCOMPRESS), NAMED(CKF_EC_COMPRESS), NAMED(CKF_EXTENSION),
};
// GetCkTokenInfoFlagString
const Named kCkTokenInfoFlagString[] = {
    NAMED(CKF_RNG), NAMED(CKF_WRITE_PROTECTED), NAMED(CKF_LOGIN_REQUIRED),
    NAMED(CKF_USER_PIN_INITIALIZED), NAMED(CKF_RESTORE_KEY_NOT_NEEDED), NAMED(CKF_CLOCK_ON_TOKEN),
    NAMED(CKF_PROTECTED_AUTHENTICATION_PATH), NAMED(CKF_DUAL_CRYPTO_OPERATIONS),
    NAMED(CKF_TOKEN_INITIALIZED), NAMED(CKF_SECONDARY_AUTHENTICATION),
    NAMED(CKF_USER_PIN_COUNT_LOW), NAMED(CKF_USER_PIN_FINAL_TRY), NAMED(CKF_USER_PIN_LOCKED),
    NAMED(CKF_USER_PIN_TO_BE_CHANGED), NAMED(CKF_SO_PIN_COUNT_LOW), NAMED(CKF_SO_PIN_FINAL_TRY),
    NAMED(CKF_SO_PIN_LOCKED), NAMED(CKF_SO_PIN_TO_BE_CHANGED),
};
// GetWin32ErrorString
const Named kWin32ErrorString[] = {
    NAMED(SCARD_F_INTERNAL_ERROR), NAMED(SCARD_E_CANCELLED), NAMED(SCARD_E_INVALID_HANDLE),
    NAMED(SCARD_E_INVALID_PARAMETER), NAMED(SCARD_E_INVALID_TARGET), NAMED(SCARD_E_NO_MEMORY),
    NAMED(SCARD_F_WAITED_TOO_LONG), NAMED(SCARD_E_INSUFFICIENT_BUFFER),
    NAMED(SCARD_E_UNKNOWN_READER), NAMED(SCARD_E_TIMEOUT), NAMED(SCARD_E_SHARING_VIOLATION),
    NAMED(SCARD_E_NO_SMARTCARD), NAMED(SCARD_E_UNKNOWN_CARD), NAMED(SCARD_E_CANT_DISPOSE),
    NAMED(SCARD_E_PROTO_MISMATCH), NAMED(SCARD_E_NOT_READY), NAMED(SCARD_E_INVALID_VALUE),
    NAMED(SCARD_E_SYSTEM_CANCELLED), NAMED(SCARD_F_COMM_ERROR), NAMED(SCARD_F_UNKNOWN_ERROR),
    NAMED(SCARD_E_INVALID_ATR), NAMED(SCARD_E_NOT_TRANSACTED), NAMED(SCARD_E_READER_UNAVAILABLE),
    NAMED(SCARD_E_PCI_TOO_SMALL), NAMED(SCARD_E_READER_UNSUPPORTED),
    NAMED(SCARD_E_DUPLICATE_READER), NAMED(SCARD_E_CARD_UNSUPPORTED), NAMED(SCARD_E_NO_SERVICE),
    NAMED(SCARD_E_SERVICE_STOPPED), NAMED(SCARD_E_UNSUPPORTED_FEATURE),
    NAMED(SCARD_E_NO_READERS_AVAILABLE), NAMED(SCARD_W_UNSUPPORTED_CARD),
    NAMED(SCARD_W_UNRESPONSIVE_CARD), NAMED(SCARD_W_UNPOWERED_CARD), NAMED(SCARD_W_RESET_CARD),
    NAMED(SCARD_W_REMOVED_CARD),
};

// clang-format on
#undef NAMED

// The middleware's own values, written out so that a wrong value in the vendor
// header shows up here too.
const Named kVendorErrors[] = {
    {0x80000064, "CXR_CONTAINER_INVALID"},
    {0x80000065, "CXR_CONTAINER_EXISTS"},
    {0x80000068, "CXR_NEEDS_REMOUNT"},
    {0x82000000, "CXR_CERT_NOT_TRUSTED"},
};
const Named kVendorAttributes[] = {
    {0x80000064, "CXA_CONTAINER_NAME"},
    {0x80000065, "CXA_CONTAINER_KEYSPEC"},
    {0x80000067, "CXA_REQUIRES_PARTIAL_HASH"},
    {0x80000068, "CXA_VSLOT"},
    {0x80000069, "CXA_NO_PIN_CACHE"},
    {0x8000006B, "CXA_PIN_SESSION_CACHE_ENABLE"},
    {0x8000006C, "CXA_PROFILE_INDICATION"},
    {0x8000006E, "CXA_HAS_PRIVATE_KEY"},
    {0x8000006F, "CXA_TECH_DATA"},
    {0x80000070, "CXA_APP_AID"},
    {0x80000071, "CXA_CPLC_DATA"},
    {0x80000073, "CXA_CARD_CONTAINER"},
    {0x80000075, "CXA_ACTIVATE_CONTAINER_COUNT"},
};
const Named kVendorObjectClasses[] = {{0x80000064, "CXO_CONTAINER"}};
const Named kKeySpecs[] = {{1, "CXKEYSPEC_KEYEXCHANGE"}, {2, "CXKEYSPEC_SIGNATURE"}};
const Named kCardContainers[] = {
    {0x80000000, "CXC_NONE"},     {0x80000001, "CXC_AUTH"}, {0x80000002, "CXC_SIGN"},
    {0x80000003, "CXC_CONF"},     {0x80000004, "CXC_MPP"},  {0x80000005, "CXC_MPP_RGS"},
    {0x80000006, "CXC_WINLOGON"},
};

// One naming function: the names it must know (with how many there are, so a
// table that lost a row here is noticed) and numbers it must not know, with
// the exact fallback text each gives.
struct Table {
  const char* symbol;
  std::vector<Named> known;
  size_t expectedCount;
  std::vector<Named> unknown;
};

// Failure messages name the function rather than dumping the struct's bytes.
void PrintTo(const Table& table, std::ostream* out) {
  *out << table.symbol;
}

std::vector<Named> Join(std::initializer_list<std::vector<Named>> parts) {
  std::vector<Named> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

template <size_t N>
std::vector<Named> Rows(const Named (&rows)[N]) {
  return {rows, rows + N};
}

std::vector<Table> AllTables() {
  const unsigned long kHigh = 0x100000000UL;  // lowest bit of the upper half
  return {
      {"GetCkErrorString",
       Join({Rows(kCkErrorString), Rows(kVendorErrors)}),
       85 + 4,
       {
           {CKR_FUNCTION_REJECTED, "Unknown: 0x00000200"},
           {CKR_CURVE_NOT_SUPPORTED, "Unknown: 0x00000140"},
           {0x80000067, "Unknown: 0x80000067"},  // the gap before CXR_NEEDS_REMOUNT
           {CKR_VENDOR_DEFINED, "Unknown: 0x80000000"},
           {0x123456789, "Unknown: 0x23456789"},  // only the low 32 bits are shown
           {kHigh | CKR_PIN_INCORRECT, "Unknown: 0x000000A0"},
       }},
      {"GetCkUserTypeString",
       Rows(kCkUserTypeString),
       2,
       {
           {CKU_CONTEXT_SPECIFIC, "Unknown: 0x00000002"},
           {kHigh | CKU_USER, "Unknown: 0x00000001"},
       }},
      {"GetCkAttributeTypeString",
       Join({Rows(kCkAttributeTypeString), Rows(kVendorAttributes)}),
       58 + 13,
       {
           {CKA_CHECK_VALUE, "Unknown"},
           {CKA_ALWAYS_AUTHENTICATE, "Unknown"},
           {CKA_WRAP_WITH_TRUSTED, "Unknown"},
           {CKA_ALLOWED_MECHANISMS, "Unknown"},
           {0x80000066, "Unknown"},
           {0x8000006D, "Unknown"},
           {0x80000072, "Unknown"},
           {0x80000074, "Unknown"},
           {kHigh | CKA_CLASS, "Unknown"},
       }},
      {"GetCkObjectClassString",
       Join({Rows(kCkObjectClassString), Rows(kVendorObjectClasses)}),
       7 + 1,
       {
           {CKO_MECHANISM, "Unknown"},
           {CKO_VENDOR_DEFINED, "Unknown"},
       }},
      {"GetCkKeyTypeString",
       Rows(kCkKeyTypeString),
       22,
       {
           {6, "Unknown"},
           {CKK_BLOWFISH, "Unknown"},
           {CKK_CAMELLIA, "Unknown"},
           {CKK_VENDOR_DEFINED, "Unknown"},
       }},
      {"GetCkCertificateTypeString",
       Rows(kCkCertificateTypeString),
       2,
       {
           {CKC_WTLS, "Unknown"},
       }},
      {"GetCkMechanismTypeString",
       Rows(kCkMechanismTypeString),
       181,
       {
           {CKM_SHA224, "unknown (0x00000255)"},
           {CKM_SHA384, "unknown (0x00000260)"},
           {CKM_SHA512, "unknown (0x00000270)"},
           {CKM_SHA256_RSA_PKCS_PSS, "unknown (0x00000043)"},
           {CKM_AES_CTR, "unknown (0x00001086)"},
           {0x80001234, "unknown (0x80001234)"},
           {0x123456789, "unknown (0x123456789)"},  // all 64 bits are shown
           {~0UL, "unknown (0xFFFFFFFFFFFFFFFF)"},
       }},
      {"GetCxKeySpecString",
       Rows(kKeySpecs),
       2,
       {
           {0, "Unknown"},
           {3, "Unknown"},
       }},
      {"GetCkMechanismInfoFlagString",
       Rows(kCkMechanismInfoFlagString),
       20,
       {
           {0, "Unknown"},
           {0x2, "Unknown"},
           {CKF_HW | CKF_ENCRYPT, "Unknown"},  // several bits at once
           {CKF_DECRYPT | CKF_ENCRYPT, "Unknown"},
           {kHigh | CKF_SIGN, "Unknown"},
           {1UL << 63, "Unknown"},
       }},
      {"GetCkTokenInfoFlagString",
       Rows(kCkTokenInfoFlagString),
       18,
       {
           {0, "Unknown"},
           {0x10, "Unknown"},
           {1UL << 24, "Unknown"},
           {CKF_RNG | CKF_LOGIN_REQUIRED, "Unknown"},
       }},
      {"GetQXCardContainer",
       Rows(kCardContainers),
       7,
       {
           {0, "Unknown"},
           {0x7FFFFFFF, "Unknown"},
           {0x80000007, "Unknown"},
       }},
      {"GetWin32ErrorString",
       Rows(kWin32ErrorString),
       36,
       {
           {static_cast<unsigned long>(SCARD_S_SUCCESS), "Unknown: 0x00000000"},
           {0x80100018, "Unknown: 0x80100018"},
           {static_cast<unsigned long>(SCARD_E_ICC_INSTALLATION), "Unknown: 0x80100020"},
           {static_cast<unsigned long>(SCARD_W_SECURITY_VIOLATION), "Unknown: 0x8010006A"},
           {kHigh | static_cast<unsigned long>(SCARD_E_TIMEOUT), "Unknown: 0x18010000A"},
           {~0UL, "Unknown: 0xFFFFFFFFFFFFFFFF"},
       }},
  };
}

class NameTableTest : public testing::TestWithParam<Table> {};

TEST_P(NameTableTest, EveryListedValueGivesItsName) {
  const Table& table = GetParam();
  NameFunction function = Library().Find(table.symbol);
  ASSERT_NE(function, nullptr);
  EXPECT_EQ(table.known.size(), table.expectedCount)
      << "the test's own list of names is incomplete";
  for (const Named& row : table.known) {
    const char* text = function(row.value);
    ASSERT_NE(text, nullptr) << table.symbol << "(0x" << std::hex << row.value << ")";
    EXPECT_STREQ(text, row.name) << table.symbol << "(0x" << std::hex << row.value
                                 << ") does not give its constant's name";
  }
}

TEST_P(NameTableTest, UnlistedValuesGiveTheExactFallbackText) {
  const Table& table = GetParam();
  NameFunction function = Library().Find(table.symbol);
  ASSERT_NE(function, nullptr);
  for (const Named& row : table.unknown) {
    const char* text = function(row.value);
    ASSERT_NE(text, nullptr) << table.symbol << "(0x" << std::hex << row.value << ")";
    EXPECT_STREQ(text, row.name) << table.symbol << "(0x" << std::hex << row.value
                                 << ") is not known and must give the fallback";
  }
}

INSTANTIATE_TEST_SUITE_P(Exported, NameTableTest, testing::ValuesIn(AllTables()),
                         [](const testing::TestParamInfo<Table>& info) {
                           return std::string(info.param.symbol);
                         });

// Each function formats its unknown numbers into a buffer of its own, so one
// function's fallback must survive unknown numbers given to the others.
TEST(NameTableFallbackTest, FallbackBuffersAreNotSharedBetweenFunctions) {
  NameFunction error = Library().Find("GetCkErrorString");
  NameFunction userType = Library().Find("GetCkUserTypeString");
  NameFunction mechanism = Library().Find("GetCkMechanismTypeString");
  NameFunction status = Library().Find("GetWin32ErrorString");
  ASSERT_TRUE(error && userType && mechanism && status);

  const char* errorText = error(0x7777);
  const char* userTypeText = userType(0x5555);
  const char* mechanismText = mechanism(0x80001234);
  const char* statusText = status(0x80100018);
  EXPECT_STREQ(errorText, "Unknown: 0x00007777") << "overwritten by another function's fallback";
  EXPECT_STREQ(userTypeText, "Unknown: 0x00005555") << "overwritten by another function's fallback";
  EXPECT_STREQ(mechanismText, "unknown (0x80001234)")
      << "overwritten by another function's fallback";
  EXPECT_STREQ(statusText, "Unknown: 0x80100018");

  // Known names are constants and leave the fallback alone.
  EXPECT_STREQ(error(CKR_OK), "CKR_OK");
  EXPECT_STREQ(errorText, "Unknown: 0x00007777") << "a known name overwrote the fallback buffer";
}

}  // namespace
}  // namespace zelph
