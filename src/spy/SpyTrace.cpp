#include "spy/SpyTrace.h"

#include <cstdio>
#include <string>

#include "zelph/trace.h"

namespace zelph {
namespace {

// The name of a session state, for the session information.
const char* SessionStateName(CK_STATE state) noexcept {
  switch (state) {
    case CKS_RO_PUBLIC_SESSION:
      return "CKS_RO_PUBLIC_SESSION";
    case CKS_RO_USER_FUNCTIONS:
      return "CKS_RO_USER_FUNCTIONS";
    case CKS_RW_PUBLIC_SESSION:
      return "CKS_RW_PUBLIC_SESSION";
    case CKS_RW_USER_FUNCTIONS:
      return "CKS_RW_USER_FUNCTIONS";
    case CKS_RW_SO_FUNCTIONS:
      return "CKS_RW_SO_FUNCTIONS";
    default:
      return "unknown";
  }
}

// The character fields of the information structures are blank-padded and
// not terminated; they are printed with a precision of their size.
const char* Text(const CK_UTF8CHAR* field) noexcept {
  return reinterpret_cast<const char*>(field);
}

// The plural ending for a count of attributes.
const char* Plural(CK_ULONG count) noexcept {
  return count == 1 ? "" : "s";
}

}  // namespace

void TraceNumber(const char* name, CK_ULONG value) noexcept {
  TraceString("%s = %lu", name, value);
}

void TraceFlags(const char* name, CK_FLAGS value) noexcept {
  TraceString("%s = 0x%08lX", name, value);
}

void TraceUserType(const char* name, CK_USER_TYPE userType) noexcept {
  TraceString("%s = %s", name, GetCkUserTypeString(userType));
}

void TracePin(const char* name, const CK_UTF8CHAR* pin, CK_ULONG length) noexcept {
  if (pin == nullptr) {
    TraceString("%s = NULL, length %lu", name, length);
  } else {
    TraceString("%s: %lu characters, not shown", name, length);
  }
}

void TraceInputBuffer(const char* name, const void* buffer, CK_ULONG length) noexcept {
  if (buffer == nullptr) {
    TraceString("%s = NULL, length %lu", name, length);
  } else {
    TraceString("%s: %lu bytes", name, length);
  }
}

void TraceOutputBuffer(const char* name, const void* buffer, const char* lengthName,
                       const CK_ULONG* length, const char* unit) noexcept {
  if (length == nullptr) {
    TraceString("%s = NULL", lengthName);
  } else if (buffer == nullptr) {
    TraceString("%s = NULL (asks for the length)", name);
  } else {
    TraceString("%s: room for %lu %s", name, *length, unit);
  }
}

void TraceOutputLength(const char* lengthName, const CK_ULONG* length, CK_RV rv) noexcept {
  if (length != nullptr && HasOutputLength(rv)) TraceString("%s = %lu", lengthName, *length);
}

void TraceOutputHandle(const char* name, const CK_ULONG* handle, CK_RV rv) noexcept {
  if (handle != nullptr && HasOutput(rv)) TraceString("%s = %lu", name, *handle);
}

void TraceHandleList(const char* name, const CK_ULONG* list, CK_ULONG count) noexcept {
  if (list == nullptr) return;
  try {
    std::string text;
    for (CK_ULONG i = 0; i < count; ++i) {
      if (i > 0) text += ", ";
      text += std::to_string(list[i]);
    }
    TraceString("%s = %s", name, count == 0 ? "(none)" : text.c_str());
  } catch (...) {
    TraceString("%s: %lu entries", name, count);
  }
}

void TraceMechanismList(const CK_MECHANISM_TYPE* list, CK_ULONG count) noexcept {
  if (list == nullptr) return;
  for (CK_ULONG i = 0; i < count; ++i) {
    TraceString("pMechanismList[%lu] = %s", i, GetCkMechanismTypeString(list[i]));
  }
}

void TraceMechanismType(const char* name, CK_MECHANISM_TYPE type) noexcept {
  TraceString("%s = %s", name, GetCkMechanismTypeString(type));
}

void TraceMechanismArgument(const CK_MECHANISM* mechanism) noexcept {
  if (mechanism == nullptr) {
    TraceString("pMechanism = NULL");
    return;
  }
  TraceString("pMechanism:");
  TraceMechanism(mechanism);
}

void TraceInputTemplate(const char* name, const CK_ATTRIBUTE* attributes, CK_ULONG count) noexcept {
  if (attributes == nullptr) {
    TraceString("%s = NULL, %lu attribute%s", name, count, Plural(count));
    return;
  }
  TraceString("%s: %lu attribute%s", name, count, Plural(count));
  TraceTemplate(attributes, count, CK_FALSE);
}

void TraceQueryTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count) noexcept {
  if (attributes == nullptr) {
    TraceString("pTemplate = NULL, %lu attribute%s", count, Plural(count));
    return;
  }
  TraceString("pTemplate: %lu attribute%s asked for", count, Plural(count));
  TraceTemplate(attributes, count, CK_TRUE);
}

void TraceAnswerTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_RV rv) noexcept {
  // After any other result the buffers hold whatever the caller left in them.
  const bool filled = rv == CKR_OK || rv == CKR_ATTRIBUTE_SENSITIVE ||
                      rv == CKR_ATTRIBUTE_TYPE_INVALID || rv == CKR_BUFFER_TOO_SMALL;
  if (attributes == nullptr || !filled) return;
  TraceString("pTemplate: %lu attribute%s answered", count, Plural(count));
  for (CK_ULONG i = 0; i < count; ++i) {
    CK_ATTRIBUTE attribute = attributes[i];
    // The buffer was not written, and the length is no length at all.
    if (attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION) attribute.pValue = nullptr;
    TraceTemplate(&attribute, 1, CK_FALSE);
  }
}

void TraceInitArgs(const void* initArgs) noexcept {
  if (initArgs == nullptr) {
    TraceString("pInitArgs = NULL");
    return;
  }
  const auto& args = *static_cast<const CK_C_INITIALIZE_ARGS*>(initArgs);
  const bool ownMutexes = args.CreateMutex != nullptr || args.DestroyMutex != nullptr ||
                          args.LockMutex != nullptr || args.UnlockMutex != nullptr;
  TraceString("pInitArgs: flags = 0x%08lX, mutex functions %s, pReserved %s", args.flags,
              ownMutexes ? "given" : "none", args.pReserved == nullptr ? "NULL" : "set");
}

void TraceInfo(const CK_INFO& info) noexcept {
  TraceString("cryptokiVersion = %d.%d", info.cryptokiVersion.major, info.cryptokiVersion.minor);
  TraceString("manufacturerID = \"%.32s\"", Text(info.manufacturerID));
  TraceString("flags = 0x%08lX", info.flags);
  TraceString("libraryDescription = \"%.32s\"", Text(info.libraryDescription));
  TraceString("libraryVersion = %d.%d", info.libraryVersion.major, info.libraryVersion.minor);
}

void TraceSlotInfo(const CK_SLOT_INFO& info) noexcept {
  TraceString("slotDescription = \"%.64s\"", Text(info.slotDescription));
  TraceString("manufacturerID = \"%.32s\"", Text(info.manufacturerID));
  TraceString("flags = 0x%08lX", info.flags);
  TraceString("hardwareVersion = %d.%d", info.hardwareVersion.major, info.hardwareVersion.minor);
  TraceString("firmwareVersion = %d.%d", info.firmwareVersion.major, info.firmwareVersion.minor);
}

void TraceSessionInfo(const CK_SESSION_INFO& info) noexcept {
  TraceString("slotID = %lu", info.slotID);
  TraceString("state = %s", SessionStateName(info.state));
  TraceString("flags = 0x%08lX", info.flags);
  TraceString("ulDeviceError = %lu", info.ulDeviceError);
}

}  // namespace zelph
