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
#include "trace/AttributeRows.h"
#include "trace/CLineBuffer.h"
#include "trace/TraceLineWriter.h"
#include "trace/TraceSession.h"
#include "zelph/trace.h"
#include "zelph/vendor.h"

namespace zelph {
namespace {

// Writes one attribute line: the prefix, "\t<name>\tLen=<length>\t", the
// rendering of the value and "\n". Each line goes out in one formatted write
// whose format starts with the prefix (see TraceWritePrefixed).
void WriteAttribute(std::string_view prefix, const char* name, const CK_ATTRIBUTE& attribute,
                    bool omitValues) {
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
  const AttributeKind kind = KindOfAttribute(attribute.type);
  if (kind == AttributeKind::kSecret) {
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
  if (kind == AttributeKind::kText) {
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

  const CK_ULONG expected = kind == AttributeKind::kBoolean ? sizeof(CK_BBOOL)
                            : kind == AttributeKind::kHex   ? 0
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
  const CK_ULONG number = kind == AttributeKind::kBoolean ? 0 : ReadULong(value);
  char valueBuffer[19];
  switch (kind) {
    case AttributeKind::kObjectClass:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOrHex(GetCkObjectClassString(number), number, valueBuffer));
      break;
    case AttributeKind::kKeyType:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOrHex(GetCkKeyTypeString(number), number, valueBuffer));
      break;
    case AttributeKind::kCertificateType:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOrHex(GetCkCertificateTypeString(number), number, valueBuffer));
      break;
    case AttributeKind::kMechanism:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOrHex(GetCkMechanismTypeString(number), number, valueBuffer));
      break;
    case AttributeKind::kKeySpec:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s\n", name, shownLength,
                         NameOrHex(GetCxKeySpecString(number), number, valueBuffer));
      break;
    case AttributeKind::kCardContainer:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s (0x%08X)\n", name, shownLength,
                         NameOrHex(GetQXCardContainer(number), number, valueBuffer),
                         static_cast<unsigned>(number));
      break;
    case AttributeKind::kBoolean: {
      const unsigned char byte = *static_cast<const unsigned char*>(value);
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%s (%d)\n", name, shownLength,
                         byte != 0 ? "TRUE" : "FALSE", byte);
      break;
    }
    case AttributeKind::kInteger:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%d (0x%08X)\n", name, shownLength,
                         static_cast<int>(number), static_cast<unsigned>(number));
      break;
    case AttributeKind::kDate:
      TraceWritePrefixed(prefix, "\t%s\tLen=%d\t%.8s\n", name, shownLength,
                         static_cast<const char*>(value));
      break;
    case AttributeKind::kText:
    case AttributeKind::kSecret:
    case AttributeKind::kHex:
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

}  // namespace

void WriteTraceTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_BBOOL omitValues) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  CLineBuffer prefix;
  frame.AppendPrefix(prefix);
  // The lines are put together here and written at once. Only a prefix with a
  // per-cent sign (the thread whose marker is "%") must take part in the
  // formatting; then, and for what AppendAttributeRow leaves out, each line is
  // formatted on its own.
  const bool literalPrefix = prefix.View().find('%') == std::string_view::npos;
  CLineBuffer lines;
  for (CK_ULONG i = 0; i < count; ++i) {
    char nameBuffer[19];
    const char* name =
        NameOrHex(GetCkAttributeTypeString(attributes[i].type), attributes[i].type, nameBuffer);
    if (literalPrefix &&
        AppendAttributeRow(lines, prefix.View(), name, attributes[i], omitValues != 0)) {
      continue;
    }
    TraceWriteBytes(lines.View());
    lines.Clear();
    WriteAttribute(prefix.View(), name, attributes[i], omitValues != 0);
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
      NameOrHex(GetCkMechanismTypeString(mechanism.mechanism), mechanism.mechanism, nameBuffer));
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
