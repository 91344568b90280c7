// The dumps of PKCS#11 structures: attribute templates (one row per
// attribute, values rendered by type, secret values withheld and shown by
// length only), mechanisms, mechanism information and token information.
// Rows are built in a line buffer and written with one write per call where
// the thread's prefix allows it; names come from the exported name tables.
#include "trace/TraceDumps.h"

#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "common/base/CharClasses.h"
#include "trace/CLineBuffer.h"
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

// A name function's text, or "0x" and 16 hexadecimal digits (written into
// `buffer`) when it has none.
const char* NameOf(const char* name, CK_ULONG value, char (&buffer)[19]) noexcept {
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

CK_ULONG ReadULong(const void* value) noexcept {
  CK_ULONG number;
  std::memcpy(&number, value, sizeof number);
  return number;
}

int Low32(CK_ULONG value) noexcept {
  return static_cast<int>(static_cast<std::uint32_t>(value));
}

// Writes one attribute line: the prefix, "\t<name>\tLen=<length>\t", the
// rendering of the value and "\n". Each line goes out in one formatted write
// whose format starts with the prefix (see TraceWritePrefixed).
void WriteAttribute(std::string_view prefix, const CK_ATTRIBUTE& attribute, bool omitValues) {
  char nameBuffer[19];
  const char* name = NameOf(GetCkAttributeTypeString(attribute.type), attribute.type, nameBuffer);
  const int shownLength = Low32(attribute.ulValueLen);
  const CK_ULONG length = attribute.ulValueLen;
  const void* value = attribute.pValue;

  if (value == nullptr) {
    TraceWritePrefixed(prefix, "\t%s\tLen=%d\t(data NULL)\n", name, shownLength);
    return;
  }
  if (omitValues) {
    TraceWritePrefixed(prefix, "\t%s\tLen=%d\t(data present)\n", name, shownLength);
    return;
  }
  const Kind kind = KindOf(attribute.type);
  if (kind == Kind::kSecret) {
    TraceWritePrefixed(prefix, "\t%s\tLen=%d\t<undisclosed, length is %d>\n", name, shownLength,
                       static_cast<int>(length));
    return;
  }
  // A module marks an attribute it cannot reveal with the unavailable length
  // and leaves the caller's buffer untouched: there is nothing to show.
  if (length == CK_UNAVAILABLE_INFORMATION) {
    TraceWritePrefixed(prefix, "\t%s\tLen=%d\t(unavailable)\n", name, shownLength);
    return;
  }
  if (kind == Kind::kText) {
    // The length bounds the text, so an unterminated label is read safely.
    TraceWritePrefixed(prefix, "\t%s\tLen=%d\t", name, shownLength);
    const std::string format = "\"%." + std::to_string(length) + "s\"";
    TraceWriteRaw(format.c_str(), static_cast<const char*>(value));
    TraceWriteText("\n");
    return;
  }
  if (length == 0) {
    TraceWritePrefixed(prefix, "\t%s\tLen=%d\t(empty)\n", name, shownLength);
    return;
  }

  const CK_ULONG expected = kind == Kind::kBoolean ? sizeof(CK_BBOOL)
                            : kind == Kind::kHex   ? 0
                                                   : sizeof(CK_ULONG);
  if (length != expected) {
    // The digits become part of the format; they hold no conversion.
    CLineBuffer format;
    format.Append("\t%s\tLen=%d\t");
    AppendHex(format, value, length);
    format.Append('\n');
    TraceWritePrefixed(prefix, format.c_str(), name, shownLength);
    return;
  }
  const CK_ULONG number = kind == Kind::kBoolean ? 0 : ReadULong(value);
  char valueBuffer[19];
  switch (kind) {
    case Kind::kObjectClass:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOf(GetCkObjectClassString(number), number, valueBuffer));
      break;
    case Kind::kKeyType:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOf(GetCkKeyTypeString(number), number, valueBuffer));
      break;
    case Kind::kCertificateType:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOf(GetCkCertificateTypeString(number), number, valueBuffer));
      break;
    case Kind::kMechanism:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOf(GetCkMechanismTypeString(number), number, valueBuffer));
      break;
    case Kind::kKeySpec:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOf(GetCxKeySpecString(number), number, valueBuffer));
      break;
    case Kind::kCardContainer:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s (0x%08X)\n", name, shownLength,
                         NameOf(GetQXCardContainer(number), number, valueBuffer),
                         static_cast<unsigned>(number));
      break;
    case Kind::kBoolean: {
      const unsigned char byte = *static_cast<const unsigned char*>(value);
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s (%d)\n", name, shownLength,
                         byte != 0 ? "TRUE" : "FALSE", byte);
      break;
    }
    case Kind::kInteger:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%d (0x%08X)\n", name, shownLength,
                         static_cast<int>(number), static_cast<unsigned>(number));
      break;
    case Kind::kDate:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%.8s\n", name, shownLength,
                         static_cast<const char*>(value));
      break;
    case Kind::kText:
    case Kind::kSecret:
    case Kind::kHex:
      break;  // handled above
  }
}

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

// Appends the line WriteAttribute would write for `attribute`, for a prefix
// without a per-cent sign, to `out`. Returns false, appending nothing, for the
// one line it leaves to WriteAttribute: a text whose length no printf
// precision can hold.
bool RenderAttribute(CLineBuffer& out, std::string_view prefix, const CK_ATTRIBUTE& attribute,
                     bool omitValues) {
  const CK_ULONG length = attribute.ulValueLen;
  const void* value = attribute.pValue;
  const Kind kind = KindOf(attribute.type);
  if (kind == Kind::kText && value != nullptr && !omitValues &&
      length != CK_UNAVAILABLE_INFORMATION && length > static_cast<CK_ULONG>(INT_MAX)) {
    return false;
  }
  char nameBuffer[19];
  out.Append(prefix);
  out.Append('\t');
  out.Append(NameOf(GetCkAttributeTypeString(attribute.type), attribute.type, nameBuffer));
  out.Append("\tLen=");
  AppendDecimal(out, Low32(length));
  out.Append('\t');

  if (value == nullptr) {
    out.Append("(data NULL)\n");
  } else if (omitValues) {
    out.Append("(data present)\n");
  } else if (kind == Kind::kSecret) {
    out.Append("<undisclosed, length is ");
    AppendDecimal(out, static_cast<int>(length));
    out.Append(">\n");
  } else if (length == CK_UNAVAILABLE_INFORMATION) {
    out.Append("(unavailable)\n");
  } else if (kind == Kind::kText) {
    // As "%.<length>s": up to the length or the first NUL.
    out.Append('"');
    out.Append(std::string_view(static_cast<const char*>(value),
                                strnlen(static_cast<const char*>(value), length)));
    out.Append("\"\n");
  } else if (length == 0) {
    out.Append("(empty)\n");
  } else if (length != (kind == Kind::kBoolean ? sizeof(CK_BBOOL)
                        : kind == Kind::kHex   ? 0
                                               : sizeof(CK_ULONG))) {
    AppendHex(out, value, length);
    out.Append('\n');
  } else {
    const CK_ULONG number = kind == Kind::kBoolean ? 0 : ReadULong(value);
    char valueBuffer[19];
    switch (kind) {
      case Kind::kObjectClass:
        out.Append(NameOf(GetCkObjectClassString(number), number, valueBuffer));
        break;
      case Kind::kKeyType:
        out.Append(NameOf(GetCkKeyTypeString(number), number, valueBuffer));
        break;
      case Kind::kCertificateType:
        out.Append(NameOf(GetCkCertificateTypeString(number), number, valueBuffer));
        break;
      case Kind::kMechanism:
        out.Append(NameOf(GetCkMechanismTypeString(number), number, valueBuffer));
        break;
      case Kind::kKeySpec:
        out.Append(NameOf(GetCxKeySpecString(number), number, valueBuffer));
        break;
      case Kind::kCardContainer:
        out.Append(NameOf(GetQXCardContainer(number), number, valueBuffer));
        out.Append(" (0x");
        AppendHex32(out, static_cast<unsigned>(number));
        out.Append(')');
        break;
      case Kind::kBoolean: {
        const unsigned char byte = *static_cast<const unsigned char*>(value);
        out.Append(byte != 0 ? "TRUE (" : "FALSE (");
        AppendDecimal(out, byte);
        out.Append(')');
        break;
      }
      case Kind::kInteger:
        AppendDecimal(out, static_cast<int>(number));
        out.Append(" (0x");
        AppendHex32(out, static_cast<unsigned>(number));
        out.Append(')');
        break;
      case Kind::kDate:
        out.Append(std::string_view(static_cast<const char*>(value),
                                    strnlen(static_cast<const char*>(value), 8)));
        break;
      case Kind::kText:
      case Kind::kSecret:
      case Kind::kHex:
        break;  // handled above
    }
    out.Append('\n');
  }
  return true;
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

}  // namespace

void WriteTraceTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_BBOOL omitValues) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  CLineBuffer prefix;
  frame.AppendPrefix(prefix);
  // The lines are put together here and written at once. Only a prefix with a
  // per-cent sign (the thread whose marker is "%") must take part in the
  // formatting; then, and for what RenderAttribute leaves out, each line is
  // formatted on its own.
  const bool literalPrefix = prefix.View().find('%') == std::string_view::npos;
  CLineBuffer lines;
  for (CK_ULONG i = 0; i < count; ++i) {
    if (literalPrefix && RenderAttribute(lines, prefix.View(), attributes[i], omitValues != 0)) {
      continue;
    }
    TraceWriteBytes(lines.View());
    lines.Clear();
    WriteAttribute(prefix.View(), attributes[i], omitValues != 0);
  }
  TraceWriteBytes(lines.View());
}

void WriteTraceMechanism(const CK_MECHANISM& mechanism) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  CLineBuffer line;
  frame.AppendPrefix(line);
  const std::string_view prefix = line.View();
  char nameBuffer[19];
  TraceWritePrefixed(
      prefix, "\t%s\n",
      NameOf(GetCkMechanismTypeString(mechanism.mechanism), mechanism.mechanism, nameBuffer));
  if (mechanism.pParameter != nullptr && mechanism.ulParameterLen != 0) {
    TraceWritePrefixed(prefix, "\tParameter: ");
    CLineBuffer hex;
    AppendHex(hex, mechanism.pParameter, mechanism.ulParameterLen);
    TraceWriteText(hex.c_str());
    TraceWriteText("\n");
  }
}

void WriteTraceMechanismInfo(const CK_MECHANISM_INFO& info) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  CLineBuffer line;
  frame.AppendPrefix(line);
  const std::string_view prefix = line.View();
  TraceWritePrefixed(prefix, "\tMin key size: %d\n", Low32(info.ulMinKeySize));
  TraceWritePrefixed(prefix, "\tMax key size: %d\n", Low32(info.ulMaxKeySize));
  TraceWritePrefixed(prefix, "\tFlags:        ");
  WriteFlags(info.flags, GetCkMechanismInfoFlagString);
}

void WriteTraceTokenInfo(const CK_TOKEN_INFO& info) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  CLineBuffer line;
  frame.AppendPrefix(line);
  const std::string_view prefix = line.View();
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
