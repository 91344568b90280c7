#include "spy/SpyTrace.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "trace/AttributeRows.h"
#include "trace/CLineBuffer.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

// The character fields of the information structures are blank-padded and
// not terminated; they are printed with a precision of their size.
const char* Text(const CK_UTF8CHAR* field) noexcept {
  return reinterpret_cast<const char*>(field);
}

// The plural ending for a count of attributes.
const char* Plural(CK_ULONG count) noexcept {
  return count == 1 ? "" : "s";
}

// "0x<value> (<names>)", or "0x<value>" when no bit is set.
std::string FlagText(CFlagKind kind, CK_FLAGS value) {
  char hex[24];
  std::snprintf(hex, sizeof hex, "0x%08lX", value);
  std::string text = hex;
  if (value == 0) return text;
  text += " (";
  AppendFlagNames(text, kind, value);
  return text += ')';
}

// A count of the token information: a number, or the standard's word for
// what the token does not tell.
std::string Count(CK_ULONG value) {
  if (value == CK_UNAVAILABLE_INFORMATION) return "CK_UNAVAILABLE_INFORMATION";
  return std::to_string(value);
}

// The trace library names this attribute type in its template dump.
bool LibraryKnows(CK_ATTRIBUTE_TYPE type) noexcept {
  return std::strcmp(GetCkAttributeTypeString(type), "Unknown") != 0;
}

// Adds a template's rows to the lines of `call`, as the trace library's dump
// writes them: the types it knows under its names, the others under their
// standard names with their values in hexadecimal. After the module
// answered, an attribute it could not give (length CK_UNAVAILABLE_INFORMATION)
// is shown without the buffer it did not write.
void AddTemplate(CSpyCall& call, const CK_ATTRIBUTE* attributes, CK_ULONG count, bool omitValues,
                 bool answered) noexcept {
  try {
    CLineBuffer row;
    for (CK_ULONG i = 0; i < count; ++i) {
      CK_ATTRIBUTE attribute = attributes[i];
      if (answered && attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION) {
        attribute.pValue = nullptr;
      }
      CNameBuffer buffer;
      const char* name = LibraryKnows(attribute.type)
                             ? GetCkAttributeTypeString(attribute.type)
                             : NameOf(CNameKind::kAttribute, attribute.type, buffer);
      row.Clear();
      if (AppendAttributeRow(row, {}, name, attribute, omitValues)) {
        std::string_view text = row.View();
        text.remove_suffix(1);  // the row's line break
        call.Text(text);
      } else {
        call.Line("\t%s\tLen=%d\t(a text of %lu bytes, not shown)", name,
                  Low32(attribute.ulValueLen), attribute.ulValueLen);
      }
    }
  } catch (...) {
    call.Line("\t(%lu attributes not shown: out of memory)", count);
  }
}

}  // namespace

void TraceNumber(CSpyCall& call, const char* name, CK_ULONG value) noexcept {
  call.Line("%s = %lu", name, value);
}

void TraceFlags(CSpyCall& call, const char* name, CK_FLAGS value) noexcept {
  call.Line("%s = 0x%08lX", name, value);
}

void TraceNamedFlags(CSpyCall& call, const char* name, CFlagKind kind, CK_FLAGS value) noexcept {
  if (!call.IsTracing()) return;
  try {
    call.Line("%s = %s", name, FlagText(kind, value).c_str());
  } catch (...) {
    TraceFlags(call, name, value);
  }
}

void TraceUserType(CSpyCall& call, const char* name, CK_USER_TYPE userType) noexcept {
  if (!call.IsTracing()) return;
  CNameBuffer buffer;
  call.Line("%s = %s", name, NameOf(CNameKind::kUserType, userType, buffer));
}

void TraceText(CSpyCall& call, const char* name, const CK_UTF8CHAR* text,
               CK_ULONG length) noexcept {
  if (text == nullptr) {
    call.Line("%s = NULL", name);
    return;
  }
  // The precision bounds what is read; longer texts are cut, not overrun.
  const int shown = length > 256 ? 256 : static_cast<int>(length);
  call.Line("%s = \"%.*s\"", name, shown, reinterpret_cast<const char*>(text));
}

void TraceLabel(CSpyCall& call, const char* name, const CK_UTF8CHAR* label) noexcept {
  TraceText(call, name, label, 32);
}

void TracePin(CSpyCall& call, const char* name, const CK_UTF8CHAR* pin, CK_ULONG length) noexcept {
  if (pin == nullptr) {
    call.Line("%s = NULL, length %lu", name, length);
  } else {
    call.Line("%s: %lu characters, not shown", name, length);
  }
}

void TraceInputBuffer(CSpyCall& call, const char* name, const void* buffer,
                      CK_ULONG length) noexcept {
  if (buffer == nullptr) {
    call.Line("%s = NULL, length %lu", name, length);
  } else {
    call.Line("%s: %lu bytes", name, length);
  }
}

void TraceOutputBuffer(CSpyCall& call, const char* name, const void* buffer, const char* lengthName,
                       const CK_ULONG* length, const char* unit) noexcept {
  if (length == nullptr) {
    call.Line("%s = NULL", lengthName);
  } else if (buffer == nullptr) {
    call.Line("%s = NULL (asks for the length)", name);
  } else {
    call.Line("%s: room for %lu %s", name, *length, unit);
  }
}

void TraceOutputLength(CSpyCall& call, const char* lengthName, const CK_ULONG* length,
                       CK_RV rv) noexcept {
  if (length != nullptr && HasOutputLength(rv)) call.Line("%s = %lu", lengthName, *length);
}

void TraceOutputHandle(CSpyCall& call, const char* name, const CK_ULONG* handle,
                       CK_RV rv) noexcept {
  if (handle != nullptr && HasOutput(rv)) call.Line("%s = %lu", name, *handle);
}

void TraceHandleList(CSpyCall& call, const char* name, const CK_ULONG* list,
                     CK_ULONG count) noexcept {
  if (list == nullptr || !call.IsTracing()) return;
  try {
    std::string text;
    for (CK_ULONG i = 0; i < count; ++i) {
      if (i > 0) text += ", ";
      text += std::to_string(list[i]);
    }
    call.Line("%s = %s", name, count == 0 ? "(none)" : text.c_str());
  } catch (...) {
    call.Line("%s: %lu entries", name, count);
  }
}

void TraceMechanismList(CSpyCall& call, const CK_MECHANISM_TYPE* list, CK_ULONG count) noexcept {
  if (list == nullptr || !call.IsTracing()) return;
  CNameBuffer buffer;
  for (CK_ULONG i = 0; i < count; ++i) {
    call.Line("pMechanismList[%lu] = %s", i, NameOf(CNameKind::kMechanism, list[i], buffer));
  }
}

void TraceMechanismType(CSpyCall& call, const char* name, CK_MECHANISM_TYPE type) noexcept {
  if (!call.IsTracing()) return;
  CNameBuffer buffer;
  call.Line("%s = %s", name, NameOf(CNameKind::kMechanism, type, buffer));
}

void TraceInputTemplate(CSpyCall& call, const char* name, const CK_ATTRIBUTE* attributes,
                        CK_ULONG count) noexcept {
  if (attributes == nullptr) {
    call.Line("%s = NULL, %lu attribute%s", name, count, Plural(count));
    return;
  }
  call.Line("%s: %lu attribute%s", name, count, Plural(count));
  AddTemplate(call, attributes, count, false, false);
}

void TraceQueryTemplate(CSpyCall& call, const CK_ATTRIBUTE* attributes, CK_ULONG count) noexcept {
  if (attributes == nullptr) {
    call.Line("pTemplate = NULL, %lu attribute%s", count, Plural(count));
    return;
  }
  call.Line("pTemplate: %lu attribute%s asked for", count, Plural(count));
  AddTemplate(call, attributes, count, true, false);
}

void TraceAnswerTemplate(CSpyCall& call, const CK_ATTRIBUTE* attributes, CK_ULONG count,
                         CK_RV rv) noexcept {
  // After any other result the buffers hold whatever the caller left in them.
  const bool filled = rv == CKR_OK || rv == CKR_ATTRIBUTE_SENSITIVE ||
                      rv == CKR_ATTRIBUTE_TYPE_INVALID || rv == CKR_BUFFER_TOO_SMALL;
  if (attributes == nullptr || !filled) return;
  call.Line("pTemplate: %lu attribute%s answered", count, Plural(count));
  AddTemplate(call, attributes, count, false, true);
}

void TraceInitArgs(CSpyCall& call, const void* initArgs) noexcept {
  if (!call.IsTracing()) return;
  if (initArgs == nullptr) {
    call.Line("pInitArgs = NULL");
    return;
  }
  const auto& args = *static_cast<const CK_C_INITIALIZE_ARGS*>(initArgs);
  const bool ownMutexes = args.CreateMutex != nullptr || args.DestroyMutex != nullptr ||
                          args.LockMutex != nullptr || args.UnlockMutex != nullptr;
  try {
    call.Line("pInitArgs: flags = %s, mutex functions %s, pReserved %s",
              FlagText(CFlagKind::kInitialize, args.flags).c_str(), ownMutexes ? "given" : "none",
              args.pReserved == nullptr ? "NULL" : "set");
  } catch (...) {
    call.Line("pInitArgs: flags = 0x%08lX", args.flags);
  }
}

void TraceInfo(CSpyCall& call, const CK_INFO& info) noexcept {
  call.Line("cryptokiVersion = %d.%d", info.cryptokiVersion.major, info.cryptokiVersion.minor);
  call.Line("manufacturerID = \"%.32s\"", Text(info.manufacturerID));
  call.Line("flags = 0x%08lX", info.flags);
  call.Line("libraryDescription = \"%.32s\"", Text(info.libraryDescription));
  call.Line("libraryVersion = %d.%d", info.libraryVersion.major, info.libraryVersion.minor);
}

void TraceSlotInfo(CSpyCall& call, const CK_SLOT_INFO& info) noexcept {
  call.Line("slotDescription = \"%.64s\"", Text(info.slotDescription));
  call.Line("manufacturerID = \"%.32s\"", Text(info.manufacturerID));
  TraceNamedFlags(call, "flags", CFlagKind::kSlot, info.flags);
  call.Line("hardwareVersion = %d.%d", info.hardwareVersion.major, info.hardwareVersion.minor);
  call.Line("firmwareVersion = %d.%d", info.firmwareVersion.major, info.firmwareVersion.minor);
}

void TraceTokenInfo(CSpyCall& call, const CK_TOKEN_INFO& info) noexcept {
  if (!call.IsTracing()) return;
  call.Line("label = \"%.32s\"", Text(info.label));
  call.Line("manufacturerID = \"%.32s\"", Text(info.manufacturerID));
  call.Line("model = \"%.16s\"", Text(info.model));
  call.Line("serialNumber = \"%.16s\"", Text(info.serialNumber));
  TraceNamedFlags(call, "flags", CFlagKind::kToken, info.flags);
  try {
    call.Line("ulMaxSessionCount = %s, ulSessionCount = %s", Count(info.ulMaxSessionCount).c_str(),
              Count(info.ulSessionCount).c_str());
    call.Line("ulMaxRwSessionCount = %s, ulRwSessionCount = %s",
              Count(info.ulMaxRwSessionCount).c_str(), Count(info.ulRwSessionCount).c_str());
    call.Line("ulMaxPinLen = %lu, ulMinPinLen = %lu", info.ulMaxPinLen, info.ulMinPinLen);
    call.Line("ulTotalPublicMemory = %s, ulFreePublicMemory = %s",
              Count(info.ulTotalPublicMemory).c_str(), Count(info.ulFreePublicMemory).c_str());
    call.Line("ulTotalPrivateMemory = %s, ulFreePrivateMemory = %s",
              Count(info.ulTotalPrivateMemory).c_str(), Count(info.ulFreePrivateMemory).c_str());
  } catch (...) {
    // Out of memory: the counts are left out.
  }
  call.Line("hardwareVersion = %d.%d", info.hardwareVersion.major, info.hardwareVersion.minor);
  call.Line("firmwareVersion = %d.%d", info.firmwareVersion.major, info.firmwareVersion.minor);
  call.Line("utcTime = \"%.16s\"", Text(info.utcTime));
}

void TraceMechanismInfo(CSpyCall& call, const CK_MECHANISM_INFO& info) noexcept {
  call.Line("ulMinKeySize = %lu, ulMaxKeySize = %lu", info.ulMinKeySize, info.ulMaxKeySize);
  TraceNamedFlags(call, "flags", CFlagKind::kMechanism, info.flags);
}

void TraceSessionInfo(CSpyCall& call, const CK_SESSION_INFO& info) noexcept {
  if (!call.IsTracing()) return;
  CNameBuffer buffer;
  call.Line("slotID = %lu", info.slotID);
  call.Line("state = %s", NameOf(CNameKind::kSessionState, info.state, buffer));
  TraceNamedFlags(call, "flags", CFlagKind::kSession, info.flags);
  call.Line("ulDeviceError = %lu", info.ulDeviceError);
}

void TraceInterfaceRequest(CSpyCall& call, const CK_UTF8CHAR* name, const CK_VERSION* version,
                           CK_FLAGS flags) noexcept {
  if (!call.IsTracing()) return;
  // A name is the caller's C string; the bound keeps a missing end in check.
  TraceText(call, "pInterfaceName", name, name == nullptr ? 0 : strnlen(Text(name), 256));
  if (version == nullptr) {
    call.Line("pVersion = NULL");
  } else {
    call.Line("pVersion = %d.%d", version->major, version->minor);
  }
  TraceFlags(call, "flags", flags);
}

void TraceInterface(CSpyCall& call, const char* name, const CK_INTERFACE& interface) noexcept {
  if (!call.IsTracing()) return;
  CK_VERSION version;
  std::memcpy(&version, interface.pFunctionList, sizeof version);
  call.Line("%s = \"%s\" %d.%d, flags = 0x%08lX", name, Text(interface.pInterfaceName),
            version.major, version.minor, interface.flags);
}

void TraceInterfaceList(CSpyCall& call, std::span<const CK_INTERFACE> interfaces) noexcept {
  if (!call.IsTracing()) return;
  for (std::size_t i = 0; i < interfaces.size(); ++i) {
    char name[48];
    std::snprintf(name, sizeof name, "pInterfacesList[%zu]", i);
    TraceInterface(call, name, interfaces[i]);
  }
}

}  // namespace zelph
