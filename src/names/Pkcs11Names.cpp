// Lookups in the generated tables: binary searches over constant arrays, so
// nothing is built at load time and nothing is locked.
#include "names/Pkcs11Names.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "names/Pkcs11NameTables.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

// The trace library's name function for a kind, which also knows the
// middleware's own values; null where it has none.
using CTraceNameFunction = const char* (*)(CK_ULONG) noexcept;

CTraceNameFunction TraceNameFunctionOf(CNameKind kind) noexcept {
  switch (kind) {
    case CNameKind::kReturnValue:
      return GetCkErrorString;
    case CNameKind::kAttribute:
      return GetCkAttributeTypeString;
    case CNameKind::kObjectClass:
      return GetCkObjectClassString;
    case CNameKind::kKeyType:
      return GetCkKeyTypeString;
    case CNameKind::kCertificateType:
      return GetCkCertificateTypeString;
    case CNameKind::kMechanism:
      return GetCkMechanismTypeString;
    case CNameKind::kUserType:
      return GetCkUserTypeString;
    default:
      return nullptr;
  }
}

// The trace library's name of a vendor value, or null. Its texts for values it
// does not know start "Unknown" or "unknown (" (see trace.h). It is asked only
// where vendor values can be, because such a text is written into a buffer
// that every thread shares.
const char* VendorName(CNameKind kind, CK_ULONG value, const CVendorRange& range) noexcept {
  const CTraceNameFunction function = TraceNameFunctionOf(kind);
  if (function == nullptr || (range.marker != nullptr && value < range.first)) return nullptr;
  const char* name = function(value);
  const bool unknown =
      std::strncmp(name, "Unknown", 7) == 0 || std::strncmp(name, "unknown (", 9) == 0;
  return unknown ? nullptr : name;
}

}  // namespace

const char* FindStandardName(CNameKind kind, CK_ULONG value) noexcept {
  const std::span<const CNamedValue> names = StandardNamesOf(kind);
  const auto found = std::ranges::lower_bound(names, value, {}, &CNamedValue::value);
  return found != names.end() && found->value == value ? found->name : nullptr;
}

const char* NameOf(CNameKind kind, CK_ULONG value, CNameBuffer& buffer) noexcept {
  if (const char* name = FindStandardName(kind, value)) return name;
  const CVendorRange range = VendorRangeOf(kind);
  if (const char* name = VendorName(kind, value, range)) return name;
  if (range.marker != nullptr && value >= range.first) {
    std::snprintf(buffer.text, sizeof buffer.text, "%s+0x%lX", range.marker, value - range.first);
  } else {
    std::snprintf(buffer.text, sizeof buffer.text, "0x%08lX", value);
  }
  return buffer.text;
}

void AppendFlagNames(std::string& out, CFlagKind kind, CK_FLAGS flags) {
  if (flags == 0) {
    out += '0';
    return;
  }
  const char* separator = "";
  for (const CNamedValue& bit : FlagNamesOf(kind)) {
    if ((flags & bit.value) == 0) continue;
    out.append(separator).append(bit.name);
    separator = " | ";
    flags &= ~bit.value;
  }
  if (flags != 0) {
    char number[24];
    std::snprintf(number, sizeof number, "0x%08lX", flags);
    out.append(separator).append(number);
  }
}

}  // namespace zelph
