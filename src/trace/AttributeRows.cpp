#include "trace/AttributeRows.h"

#include <charconv>
#include <climits>
#include <cstdio>

#include "common/base/CharClasses.h"
#include "zelph/trace.h"
#include "zelph/vendor.h"

namespace zelph {
namespace {

void AppendDecimal(CLineBuffer& out, int value) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.Append(std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

// Eight upper-case hexadecimal digits, as "%08X" writes a 32-bit number.
void AppendHex32(CLineBuffer& out, unsigned value) {
  char digits[8];
  for (int i = 7; i >= 0; --i, value >>= 4) digits[i] = kUpperHexDigits[value & 0xF];
  out.Append(std::string_view(digits, sizeof digits));
}

}  // namespace

AttributeKind KindOfAttribute(CK_ATTRIBUTE_TYPE type) noexcept {
  switch (type) {
    case CKA_CLASS:
      return AttributeKind::kObjectClass;
    case CKA_LABEL:
    case CKA_APPLICATION:
    case CXA_CONTAINER_NAME:
      return AttributeKind::kText;
    case CKA_VALUE:
    case CKA_PRIVATE_EXPONENT:
    case CKA_PRIME_1:
    case CKA_PRIME_2:
    case CKA_EXPONENT_1:
    case CKA_EXPONENT_2:
    case CKA_COEFFICIENT:
      return AttributeKind::kSecret;
    case CKA_CERTIFICATE_TYPE:
      return AttributeKind::kCertificateType;
    case CKA_KEY_TYPE:
      return AttributeKind::kKeyType;
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
      return AttributeKind::kBoolean;
    case CKA_START_DATE:
    case CKA_END_DATE:
      return AttributeKind::kDate;
    case CKA_MODULUS_BITS:
    case CKA_PRIME_BITS:
    case CKA_SUBPRIME_BITS:
    case CKA_VALUE_BITS:
    case CKA_VALUE_LEN:
    case CKA_AUTH_PIN_FLAGS:
    case CXA_VSLOT:
    case CXA_ACTIVATE_CONTAINER_COUNT:
      return AttributeKind::kInteger;
    case CKA_KEY_GEN_MECHANISM:
      return AttributeKind::kMechanism;
    case CXA_CONTAINER_KEYSPEC:
      return AttributeKind::kKeySpec;
    case CXA_CARD_CONTAINER:
      return AttributeKind::kCardContainer;
    default:
      return AttributeKind::kHex;
  }
}

// A name function's text, or "0x" and 16 hexadecimal digits (written into
// `buffer`) when it has none.
const char* NameOrHex(const char* name, CK_ULONG value, char (&buffer)[19]) noexcept {
  if (name != nullptr) return name;
  std::snprintf(buffer, sizeof buffer, "0x%016lX", value);
  return buffer;
}

void AppendHex(CLineBuffer& out, const void* data, CK_ULONG length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (CK_ULONG i = 0; i < length; ++i) {
    const char pair[2] = {kUpperHexDigits[bytes[i] >> 4], kUpperHexDigits[bytes[i] & 0x0F]};
    out.Append(std::string_view(pair, 2));
  }
}

bool AppendAttributeRow(CLineBuffer& out, std::string_view prefix, const char* name,
                        const CK_ATTRIBUTE& attribute, bool omitValues) {
  const CK_ULONG length = attribute.ulValueLen;
  const void* value = attribute.pValue;
  const AttributeKind kind = KindOfAttribute(attribute.type);
  if (kind == AttributeKind::kText && value != nullptr && !omitValues &&
      length != CK_UNAVAILABLE_INFORMATION && length > static_cast<CK_ULONG>(INT_MAX)) {
    return false;
  }
  out.Append(prefix);
  out.Append('\t');
  out.Append(name);
  out.Append("\tLen=");
  AppendDecimal(out, Low32(length));
  out.Append('\t');

  if (value == nullptr) {
    out.Append("(data NULL)\n");
  } else if (omitValues) {
    out.Append("(data present)\n");
  } else if (kind == AttributeKind::kSecret) {
    out.Append("<undisclosed, length is ");
    AppendDecimal(out, static_cast<int>(length));
    out.Append(">\n");
  } else if (length == CK_UNAVAILABLE_INFORMATION) {
    out.Append("(unavailable)\n");
  } else if (kind == AttributeKind::kText) {
    // As "%.<length>s": up to the length or the first NUL.
    out.Append('"');
    out.Append(std::string_view(static_cast<const char*>(value),
                                strnlen(static_cast<const char*>(value), length)));
    out.Append("\"\n");
  } else if (length == 0) {
    out.Append("(empty)\n");
  } else if (length != (kind == AttributeKind::kBoolean ? sizeof(CK_BBOOL)
                        : kind == AttributeKind::kHex   ? 0
                                                        : sizeof(CK_ULONG))) {
    AppendHex(out, value, length);
    out.Append('\n');
  } else {
    const CK_ULONG number = kind == AttributeKind::kBoolean ? 0 : ReadULong(value);
    char valueBuffer[19];
    switch (kind) {
      case AttributeKind::kObjectClass:
        out.Append(NameOrHex(GetCkObjectClassString(number), number, valueBuffer));
        break;
      case AttributeKind::kKeyType:
        out.Append(NameOrHex(GetCkKeyTypeString(number), number, valueBuffer));
        break;
      case AttributeKind::kCertificateType:
        out.Append(NameOrHex(GetCkCertificateTypeString(number), number, valueBuffer));
        break;
      case AttributeKind::kMechanism:
        out.Append(NameOrHex(GetCkMechanismTypeString(number), number, valueBuffer));
        break;
      case AttributeKind::kKeySpec:
        out.Append(NameOrHex(GetCxKeySpecString(number), number, valueBuffer));
        break;
      case AttributeKind::kCardContainer:
        out.Append(NameOrHex(GetQXCardContainer(number), number, valueBuffer));
        out.Append(" (0x");
        AppendHex32(out, static_cast<unsigned>(number));
        out.Append(')');
        break;
      case AttributeKind::kBoolean: {
        const unsigned char byte = *static_cast<const unsigned char*>(value);
        out.Append(byte != 0 ? "TRUE (" : "FALSE (");
        AppendDecimal(out, byte);
        out.Append(')');
        break;
      }
      case AttributeKind::kInteger:
        AppendDecimal(out, static_cast<int>(number));
        out.Append(" (0x");
        AppendHex32(out, static_cast<unsigned>(number));
        out.Append(')');
        break;
      case AttributeKind::kDate:
        out.Append(std::string_view(static_cast<const char*>(value),
                                    strnlen(static_cast<const char*>(value), 8)));
        break;
      case AttributeKind::kText:
      case AttributeKind::kSecret:
      case AttributeKind::kHex:
        break;  // handled above
    }
    out.Append('\n');
  }
  return true;
}

}  // namespace zelph
