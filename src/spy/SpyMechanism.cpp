#include "spy/SpyMechanism.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "names/Pkcs11Names.h"

namespace zelph {
namespace {

// No more bytes of a parameter or an IV than this go into a line.
constexpr CK_ULONG kHexCap = 64;

// The hexadecimal of at most the first kHexCap bytes, and how many were left
// out.
std::string Hex(const void* bytes, CK_ULONG length) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const auto* byte = static_cast<const unsigned char*>(bytes);
  std::string text;
  for (CK_ULONG i = 0; i < std::min(length, kHexCap); ++i) {
    text += kDigits[byte[i] >> 4];
    text += kDigits[byte[i] & 0xF];
  }
  if (length > kHexCap) text += " and " + std::to_string(length - kHexCap) + " more";
  return text;
}

std::string Name(CNameKind kind, CK_ULONG value) {
  CNameBuffer buffer;
  return NameOf(kind, value, buffer);
}

std::string Number(CK_ULONG value) {
  return std::to_string(value);
}

// The parameter as its structure, copied because the caller's bytes need not
// be aligned for it.
template <class T>
T As(const void* parameter) noexcept {
  T value;
  std::memcpy(&value, parameter, sizeof value);
  return value;
}

// A parameter that is the IV itself, of the size its row gives.
std::string RawIv(const void* parameter, CK_ULONG length) {
  return "iv = " + Hex(parameter, length);
}

std::string Pss(const void* parameter, CK_ULONG) {
  const auto p = As<CK_RSA_PKCS_PSS_PARAMS>(parameter);
  return "hashAlg = " + Name(CNameKind::kMechanism, p.hashAlg) +
         ", mgf = " + Name(CNameKind::kMgf, p.mgf) + ", sLen = " + Number(p.sLen);
}

// The label is data of the application: only its length is written.
std::string Oaep(const void* parameter, CK_ULONG) {
  const auto p = As<CK_RSA_PKCS_OAEP_PARAMS>(parameter);
  return "hashAlg = " + Name(CNameKind::kMechanism, p.hashAlg) +
         ", mgf = " + Name(CNameKind::kMgf, p.mgf) +
         ", source = " + Name(CNameKind::kOaepSource, p.source) +
         ", ulSourceDataLen = " + Number(p.ulSourceDataLen);
}

std::string Ctr(const void* parameter, CK_ULONG) {
  const auto p = As<CK_AES_CTR_PARAMS>(parameter);
  return "ulCounterBits = " + Number(p.ulCounterBits) + ", cb = " + Hex(p.cb, sizeof p.cb);
}

// The GCM parameter of headers older than CK_GCM_PARAMS, without ulIvBits;
// modules and applications built with them are still about.
struct CGcmParamsWithoutIvBits {
  CK_BYTE_PTR pIv;
  CK_ULONG ulIvLen;
  CK_BYTE_PTR pAAD;
  CK_ULONG ulAADLen;
  CK_ULONG ulTagBits;
};

// The IV is read as far as ulIvLen, which the caller vouches for, and at most
// kHexCap bytes; the AAD is data of the application: only its length is
// written.
template <class T>
std::string Gcm(const void* parameter, CK_ULONG) {
  const auto p = As<T>(parameter);
  std::string text = "pIv = " + (p.pIv == nullptr ? "NULL" : Hex(p.pIv, p.ulIvLen)) + " (" +
                     Number(p.ulIvLen) + " bytes)";
  if constexpr (requires { p.ulIvBits; }) text += ", ulIvBits = " + Number(p.ulIvBits);
  return text + ", ulAADLen = " + Number(p.ulAADLen) + ", ulTagBits = " + Number(p.ulTagBits);
}

// The shared and public data are written only by their lengths.
std::string Ecdh(const void* parameter, CK_ULONG) {
  const auto p = As<CK_ECDH1_DERIVE_PARAMS>(parameter);
  return "kdf = " + Name(CNameKind::kKdf, p.kdf) +
         ", ulSharedDataLen = " + Number(p.ulSharedDataLen) +
         ", ulPublicDataLen = " + Number(p.ulPublicDataLen);
}

// A mechanism's parameter of one size and how it is written. A parameter of
// another size is "not the <size> of <structure>" of the mechanism's first row.
struct CDecoder {
  CK_MECHANISM_TYPE mechanism;
  CK_ULONG size;
  const char* structure;
  std::string (*decode)(const void* parameter, CK_ULONG length);
};

constexpr CDecoder kDecoders[] = {
    {CKM_RSA_PKCS_PSS, sizeof(CK_RSA_PKCS_PSS_PARAMS), "CK_RSA_PKCS_PSS_PARAMS", Pss},
    {CKM_SHA1_RSA_PKCS_PSS, sizeof(CK_RSA_PKCS_PSS_PARAMS), "CK_RSA_PKCS_PSS_PARAMS", Pss},
    {CKM_SHA224_RSA_PKCS_PSS, sizeof(CK_RSA_PKCS_PSS_PARAMS), "CK_RSA_PKCS_PSS_PARAMS", Pss},
    {CKM_SHA256_RSA_PKCS_PSS, sizeof(CK_RSA_PKCS_PSS_PARAMS), "CK_RSA_PKCS_PSS_PARAMS", Pss},
    {CKM_SHA384_RSA_PKCS_PSS, sizeof(CK_RSA_PKCS_PSS_PARAMS), "CK_RSA_PKCS_PSS_PARAMS", Pss},
    {CKM_SHA512_RSA_PKCS_PSS, sizeof(CK_RSA_PKCS_PSS_PARAMS), "CK_RSA_PKCS_PSS_PARAMS", Pss},
    {CKM_RSA_PKCS_OAEP, sizeof(CK_RSA_PKCS_OAEP_PARAMS), "CK_RSA_PKCS_OAEP_PARAMS", Oaep},
    {CKM_AES_GCM, sizeof(CK_GCM_PARAMS), "CK_GCM_PARAMS", Gcm<CK_GCM_PARAMS>},
    {CKM_AES_GCM, sizeof(CGcmParamsWithoutIvBits), "CK_GCM_PARAMS", Gcm<CGcmParamsWithoutIvBits>},
    {CKM_AES_CTR, sizeof(CK_AES_CTR_PARAMS), "CK_AES_CTR_PARAMS", Ctr},
    {CKM_ECDH1_DERIVE, sizeof(CK_ECDH1_DERIVE_PARAMS), "CK_ECDH1_DERIVE_PARAMS", Ecdh},
    {CKM_ECDH1_COFACTOR_DERIVE, sizeof(CK_ECDH1_DERIVE_PARAMS), "CK_ECDH1_DERIVE_PARAMS", Ecdh},
    {CKM_AES_CBC, 16, "an IV", RawIv},
    {CKM_AES_CBC_PAD, 16, "an IV", RawIv},
    {CKM_AES_CTS, 16, "an IV", RawIv},
    {CKM_AES_OFB, 16, "an IV", RawIv},
    {CKM_AES_CFB8, 16, "an IV", RawIv},
    {CKM_AES_CFB128, 16, "an IV", RawIv},
    {CKM_DES3_CBC, 8, "an IV", RawIv},
    {CKM_DES3_CBC_PAD, 8, "an IV", RawIv},
    {CKM_DES_CBC, 8, "an IV", RawIv},
    {CKM_DES_CBC_PAD, 8, "an IV", RawIv},
};

}  // namespace

void TraceMechanismArgument(CSpyCall& call, const CK_MECHANISM* mechanism) noexcept {
  if (!call.IsTracing()) return;
  if (mechanism == nullptr) {
    call.Line("pMechanism = NULL");
    return;
  }
  CNameBuffer buffer;
  const char* name = NameOf(CNameKind::kMechanism, mechanism->mechanism, buffer);
  const void* parameter = mechanism->pParameter;
  const CK_ULONG length = mechanism->ulParameterLen;
  const CDecoder* expected = nullptr;  // the mechanism's first row
  const CDecoder* fits = nullptr;      // its row of the parameter's size
  for (const CDecoder& row : kDecoders) {
    if (row.mechanism != mechanism->mechanism) continue;
    if (expected == nullptr) expected = &row;
    if (fits == nullptr && row.size == length) fits = &row;
  }
  if (parameter == nullptr && length != 0) {
    call.Line("pMechanism = %s, pParameter = NULL, ulParameterLen = %lu", name, length);
    return;
  }
  // No parameter at all, as the message functions' mechanisms come: they get
  // theirs with each message.
  if (length == 0 && (expected == nullptr || parameter == nullptr)) {
    call.Line("pMechanism = %s", name);
    return;
  }
  try {
    std::string text;
    if (fits != nullptr) {
      text = fits->decode(parameter, length);
    } else {
      text = "pParameter: " + Number(length) + " bytes";
      if (length != 0) text += " " + Hex(parameter, length);
      if (expected != nullptr) {
        text += ", not the " + Number(expected->size) + " of " + expected->structure;
      }
    }
    call.Line("pMechanism = %s, %s", name, text.c_str());
  } catch (...) {
    call.Line("pMechanism = %s, pParameter: %lu bytes, not shown for lack of memory", name, length);
  }
}

}  // namespace zelph
