#include "trace/TraceDumps.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "trace/TraceLineWriter.h"
#include "trace/TraceSession.h"
#include "zelph/trace.h"
#include "zelph/vendor.h"

namespace zelph {
namespace {

// How an attribute's value is shown.
enum class Kind {
  kObjectClass,
  kKeyType,
  kCertificateType,
  kMechanism,
  kKeySpec,
  kCardContainer,
  kBoolean,
  kInteger,
  kDate,
  kText,
  kSecret,  // key material: only its length is ever written
  kHex,
};

Kind KindOf(CK_ATTRIBUTE_TYPE type) noexcept {
  switch (type) {
    case CKA_CLASS:
      return Kind::kObjectClass;
    case CKA_LABEL:
    case CKA_APPLICATION:
    case CXA_CONTAINER_NAME:
      return Kind::kText;
    case CKA_VALUE:
    case CKA_PRIVATE_EXPONENT:
    case CKA_PRIME_1:
    case CKA_PRIME_2:
    case CKA_EXPONENT_1:
    case CKA_EXPONENT_2:
    case CKA_COEFFICIENT:
      return Kind::kSecret;
    case CKA_CERTIFICATE_TYPE:
      return Kind::kCertificateType;
    case CKA_KEY_TYPE:
      return Kind::kKeyType;
    case CKA_TOKEN:
    case CKA_PRIVATE:
    case CKA_TRUSTED:
    case CKA_SENSITIVE:
    case CKA_ENCRYPT:
    case CKA_DECRYPT:
    case CKA_WRAP:
    case CKA_UNWRAP:
    case CKA_SIGN:
    case CKA_SIGN_RECOVER:
    case CKA_VERIFY:
    case CKA_VERIFY_RECOVER:
    case CKA_DERIVE:
    case CKA_EXTRACTABLE:
    case CKA_LOCAL:
    case CKA_NEVER_EXTRACTABLE:
    case CKA_ALWAYS_SENSITIVE:
    case CKA_MODIFIABLE:
    case CKA_SECONDARY_AUTH:
    case CKA_RESET_ON_INIT:
    case CKA_HAS_RESET:
      return Kind::kBoolean;
    case CKA_START_DATE:
    case CKA_END_DATE:
      return Kind::kDate;
    case CKA_MODULUS_BITS:
    case CKA_PRIME_BITS:
    case CKA_SUBPRIME_BITS:
    case CKA_VALUE_BITS:
    case CKA_VALUE_LEN:
    case CKA_AUTH_PIN_FLAGS:
    case CXA_VSLOT:
    case CXA_ACTIVATE_CONTAINER_COUNT:
      return Kind::kInteger;
    case CKA_KEY_GEN_MECHANISM:
      return Kind::kMechanism;
    case CXA_CONTAINER_KEYSPEC:
      return Kind::kKeySpec;
    case CXA_CARD_CONTAINER:
      return Kind::kCardContainer;
    default:
      return Kind::kHex;
  }
}

// A name function's text, or "0x" and 16 hexadecimal digits when it has none.
std::string NameOf(const char* name, CK_ULONG value) {
  if (name != nullptr) return name;
  char buffer[19];
  std::snprintf(buffer, sizeof buffer, "0x%016lX", value);
  return buffer;
}

std::string Hex(const void* data, CK_ULONG length) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::string hex;
  hex.reserve(2 * length);
  for (CK_ULONG i = 0; i < length; ++i) {
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 0x0F];
  }
  return hex;
}

CK_ULONG ReadULong(const void* value) noexcept {
  CK_ULONG number;
  std::memcpy(&number, value, sizeof number);
  return number;
}

void WriteValue(const CK_ATTRIBUTE& attribute) {
  const Kind kind = KindOf(attribute.type);
  const CK_ULONG length = attribute.ulValueLen;
  const void* value = attribute.pValue;

  if (kind == Kind::kSecret) {
    TraceWriteRaw("<undisclosed, length is %d>", static_cast<int>(length));
    return;
  }
  // A module marks an attribute it cannot reveal with the unavailable length
  // and leaves the caller's buffer untouched: there is nothing to show.
  if (length == CK_UNAVAILABLE_INFORMATION) {
    TraceWriteText("(unavailable)");
    return;
  }
  if (kind == Kind::kText) {
    // The length bounds the text, so an unterminated label is read safely.
    const std::string format = "\"%." + std::to_string(length) + "s\"";
    TraceWriteRaw(format.c_str(), static_cast<const char*>(value));
    return;
  }
  if (length == 0) {
    TraceWriteText("(empty)");
    return;
  }

  const CK_ULONG expected =
      kind == Kind::kBoolean ? sizeof(CK_BBOOL) : kind == Kind::kHex ? 0 : sizeof(CK_ULONG);
  if (length != expected) {
    TraceWriteText(Hex(value, length).c_str());
    return;
  }
  const CK_ULONG number = kind == Kind::kBoolean ? 0 : ReadULong(value);
  switch (kind) {
    case Kind::kObjectClass:
      TraceWriteRaw("%s", NameOf(GetCkObjectClassString(number), number).c_str());
      break;
    case Kind::kKeyType:
      TraceWriteRaw("%s", NameOf(GetCkKeyTypeString(number), number).c_str());
      break;
    case Kind::kCertificateType:
      TraceWriteRaw("%s", NameOf(GetCkCertificateTypeString(number), number).c_str());
      break;
    case Kind::kMechanism:
      TraceWriteRaw("%s", NameOf(GetCkMechanismTypeString(number), number).c_str());
      break;
    case Kind::kKeySpec:
      TraceWriteRaw("%s", NameOf(GetCxKeySpecString(number), number).c_str());
      break;
    case Kind::kCardContainer:
      TraceWriteRaw("%s (0x%08X)", NameOf(GetQXCardContainer(number), number).c_str(),
                    static_cast<unsigned>(number));
      break;
    case Kind::kBoolean: {
      const unsigned char byte = *static_cast<const unsigned char*>(value);
      TraceWriteRaw("%s (%d)", byte != 0 ? "TRUE" : "FALSE", byte);
      break;
    }
    case Kind::kInteger:
      TraceWriteRaw("%d (0x%08X)", static_cast<int>(number), static_cast<unsigned>(number));
      break;
    case Kind::kDate:
      TraceWriteRaw("%.8s", static_cast<const char*>(value));
      break;
    case Kind::kText:
    case Kind::kSecret:
    case Kind::kHex:
      break;  // handled above
  }
}

// Writes the names of the set bits among the lowest 32, in bit order, each
// followed by a blank; "none" and an extra empty line when no bit is set.
void WriteFlags(CK_FLAGS flags, const char* (*name)(CK_FLAGS)) {
  if (flags == 0) {
    TraceWriteText("none\n");
    TraceWriteText("\n");
    return;
  }
  for (int bit = 0; bit < 32; ++bit) {
    const CK_FLAGS mask = CK_FLAGS{1} << bit;
    if ((flags & mask) == 0) continue;
    const char* text = name(mask);
    if (text != nullptr) {
      TraceWriteRaw("%s ", text);
    } else {
      TraceWriteRaw("0x%08lX ", mask);
    }
  }
  TraceWriteText("\n");
}

int Low32(CK_ULONG value) noexcept { return static_cast<int>(static_cast<std::uint32_t>(value)); }

}  // namespace

void WriteTraceTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_BBOOL omitValues) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  const std::string prefix = frame.MakePrefix();
  for (CK_ULONG i = 0; i < count; ++i) {
    const CK_ATTRIBUTE& attribute = attributes[i];
    TraceWritePrefixed(prefix, "\t%s\tLen=%d\t",
                       NameOf(GetCkAttributeTypeString(attribute.type), attribute.type).c_str(),
                  Low32(attribute.ulValueLen));
    if (attribute.pValue == nullptr) {
      TraceWriteText("(data NULL)");
    } else if (omitValues) {
      TraceWriteText("(data present)");
    } else {
      WriteValue(attribute);
    }
    TraceWriteText("\n");
  }
}

void WriteTraceMechanism(const CK_MECHANISM& mechanism) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  const std::string prefix = frame.MakePrefix();
  TraceWritePrefixed(prefix, "\t%s\n",
                     NameOf(GetCkMechanismTypeString(mechanism.mechanism), mechanism.mechanism).c_str());
  if (mechanism.pParameter != nullptr && mechanism.ulParameterLen != 0) {
    TraceWritePrefixed(prefix, "\tParameter: ");
    TraceWriteText(Hex(mechanism.pParameter, mechanism.ulParameterLen).c_str());
    TraceWriteText("\n");
  }
}

void WriteTraceMechanismInfo(const CK_MECHANISM_INFO& info) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  const std::string prefix = frame.MakePrefix();
  TraceWritePrefixed(prefix, "\tMin key size: %d\n", Low32(info.ulMinKeySize));
  TraceWritePrefixed(prefix, "\tMax key size: %d\n", Low32(info.ulMaxKeySize));
  TraceWritePrefixed(prefix, "\tFlags:        ");
  WriteFlags(info.flags, GetCkMechanismInfoFlagString);
}

void WriteTraceTokenInfo(const CK_TOKEN_INFO& info) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  const std::string prefix = frame.MakePrefix();
  TraceWritePrefixed(prefix, "\tLabel:                \"%.32s\"\n",
                reinterpret_cast<const char*>(info.label));
  TraceWritePrefixed(prefix, "\tManufacturer:         \"%.32s\"\n",
                reinterpret_cast<const char*>(info.manufacturerID));
  TraceWritePrefixed(prefix, "\tModel:                \"%.16s\"\n",
                reinterpret_cast<const char*>(info.model));
  TraceWritePrefixed(prefix, "\tSerial number:        \"%.16s\"\n",
                reinterpret_cast<const char*>(info.serialNumber));
  TraceWritePrefixed(prefix, "\tFlags:                ");
  WriteFlags(info.flags, GetCkTokenInfoFlagString);
  TraceWritePrefixed(prefix, "\tMax PIN length:       %d\n", Low32(info.ulMaxPinLen));
  TraceWritePrefixed(prefix, "\tMin PIN length:       %d\n", Low32(info.ulMinPinLen));
  TraceWritePrefixed(prefix, "\tTotal public memory:  %d\n", Low32(info.ulTotalPublicMemory));
  TraceWritePrefixed(prefix, "\tFree public memory:   %d\n", Low32(info.ulFreePublicMemory));
  TraceWritePrefixed(prefix, "\tTotal private memory: %d\n", Low32(info.ulTotalPrivateMemory));
  TraceWritePrefixed(prefix, "\tFree private memory:  %d\n", Low32(info.ulFreePrivateMemory));
  TraceWritePrefixed(prefix, "\tHardware version:     %d.%d\n", info.hardwareVersion.major,
                info.hardwareVersion.minor);
  TraceWritePrefixed(prefix, "\tFirmware version:     %d.%d\n", info.firmwareVersion.major,
                info.firmwareVersion.minor);
}

}  // namespace zelph
