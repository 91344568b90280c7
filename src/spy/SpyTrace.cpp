#include "spy/SpyTrace.h"

#include <cstdio>
#include <iterator>
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

void TraceNumber(CSpyCall& call, const char* name, CK_ULONG value) noexcept {
  call.Line("%s = %lu", name, value);
}

void TraceFlags(CSpyCall& call, const char* name, CK_FLAGS value) noexcept {
  call.Line("%s = 0x%08lX", name, value);
}

void TraceUserType(CSpyCall& call, const char* name, CK_USER_TYPE userType) noexcept {
  call.Line("%s = %s", name, GetCkUserTypeString(userType));
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
  if (list == nullptr) return;
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
  if (list == nullptr) return;
  for (CK_ULONG i = 0; i < count; ++i) {
    call.Line("pMechanismList[%lu] = %s", i, GetCkMechanismTypeString(list[i]));
  }
}

void TraceMechanismType(CSpyCall& call, const char* name, CK_MECHANISM_TYPE type) noexcept {
  call.Line("%s = %s", name, GetCkMechanismTypeString(type));
}

void TraceMechanismArgument(CSpyCall& call, const CK_MECHANISM* mechanism) noexcept {
  if (mechanism == nullptr) {
    call.Line("pMechanism = NULL");
    return;
  }
  call.Line("pMechanism:");
  call.FlushLines();
  TraceMechanism(mechanism);
}

void TraceInputTemplate(CSpyCall& call, const char* name, const CK_ATTRIBUTE* attributes,
                        CK_ULONG count) noexcept {
  if (attributes == nullptr) {
    call.Line("%s = NULL, %lu attribute%s", name, count, Plural(count));
    return;
  }
  call.Line("%s: %lu attribute%s", name, count, Plural(count));
  call.FlushLines();
  TraceTemplate(attributes, count, CK_FALSE);
}

void TraceQueryTemplate(CSpyCall& call, const CK_ATTRIBUTE* attributes, CK_ULONG count) noexcept {
  if (attributes == nullptr) {
    call.Line("pTemplate = NULL, %lu attribute%s", count, Plural(count));
    return;
  }
  call.Line("pTemplate: %lu attribute%s asked for", count, Plural(count));
  call.FlushLines();
  TraceTemplate(attributes, count, CK_TRUE);
}

void TraceAnswerTemplate(CSpyCall& call, const CK_ATTRIBUTE* attributes, CK_ULONG count,
                         CK_RV rv) noexcept {
  // After any other result the buffers hold whatever the caller left in them.
  const bool filled = rv == CKR_OK || rv == CKR_ATTRIBUTE_SENSITIVE ||
                      rv == CKR_ATTRIBUTE_TYPE_INVALID || rv == CKR_BUFFER_TOO_SMALL;
  if (attributes == nullptr || !filled) return;
  call.Line("pTemplate: %lu attribute%s answered", count, Plural(count));
  call.FlushLines();
  // The template is dumped from a copy, a chunk at a time: the dump writes one
  // line per attribute whatever the chunks, and the copy needs no memory of
  // its own.
  CK_ATTRIBUTE chunk[16];
  for (CK_ULONG done = 0; done < count;) {
    CK_ULONG size = 0;
    for (; size < std::size(chunk) && done < count; ++size, ++done) {
      chunk[size] = attributes[done];
      // The buffer was not written, and the length is no length at all.
      if (chunk[size].ulValueLen == CK_UNAVAILABLE_INFORMATION) chunk[size].pValue = nullptr;
    }
    TraceTemplate(chunk, size, CK_FALSE);
  }
}

void TraceInitArgs(CSpyCall& call, const void* initArgs) noexcept {
  if (initArgs == nullptr) {
    call.Line("pInitArgs = NULL");
    return;
  }
  const auto& args = *static_cast<const CK_C_INITIALIZE_ARGS*>(initArgs);
  const bool ownMutexes = args.CreateMutex != nullptr || args.DestroyMutex != nullptr ||
                          args.LockMutex != nullptr || args.UnlockMutex != nullptr;
  call.Line("pInitArgs: flags = 0x%08lX, mutex functions %s, pReserved %s", args.flags,
            ownMutexes ? "given" : "none", args.pReserved == nullptr ? "NULL" : "set");
}

// The module's texts are arguments of a format of the spy's own, so that they
// reach the log as the module gave them.
void TraceInfo(CSpyCall& call, const CK_INFO& info) noexcept {
  call.FlushLines();
  TraceString(
      "cryptokiVersion = %d.%d\n"
      "manufacturerID = \"%.32s\"\n"
      "flags = 0x%08lX\n"
      "libraryDescription = \"%.32s\"\n"
      "libraryVersion = %d.%d",
      info.cryptokiVersion.major, info.cryptokiVersion.minor, Text(info.manufacturerID), info.flags,
      Text(info.libraryDescription), info.libraryVersion.major, info.libraryVersion.minor);
}

void TraceSlotInfo(CSpyCall& call, const CK_SLOT_INFO& info) noexcept {
  call.FlushLines();
  TraceString(
      "slotDescription = \"%.64s\"\n"
      "manufacturerID = \"%.32s\"\n"
      "flags = 0x%08lX\n"
      "hardwareVersion = %d.%d\n"
      "firmwareVersion = %d.%d",
      Text(info.slotDescription), Text(info.manufacturerID), info.flags, info.hardwareVersion.major,
      info.hardwareVersion.minor, info.firmwareVersion.major, info.firmwareVersion.minor);
}

void TraceSessionInfo(CSpyCall& call, const CK_SESSION_INFO& info) noexcept {
  call.Line("slotID = %lu", info.slotID);
  call.Line("state = %s", SessionStateName(info.state));
  call.Line("flags = 0x%08lX", info.flags);
  call.Line("ulDeviceError = %lu", info.ulDeviceError);
}

}  // namespace zelph
