// One row of an attribute template dump, put together in memory: the name,
// the length and the value rendered by the attribute's type, with key
// material withheld and shown by its length only. The trace library's
// template dump writes these rows to the log; the spy, which has the library
// only through its exported calls, builds the same rows into the text of a
// call's one TraceString.
#pragma once

#include <p11-kit/pkcs11.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "trace/CLineBuffer.h"

namespace zelph {

// How an attribute's value is shown.
enum class AttributeKind {
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

// How the value of an attribute of `type` is shown.
AttributeKind KindOfAttribute(CK_ATTRIBUTE_TYPE type) noexcept;

// A name function's text, or "0x" and 16 hexadecimal digits (written into
// `buffer`) when it has none.
const char* NameOrHex(const char* name, CK_ULONG value, char (&buffer)[19]) noexcept;

// Appends the bytes of `data` as upper-case hexadecimal digits.
void AppendHex(CLineBuffer& out, const void* data, CK_ULONG length);

// Appends `prefix`, "\t<name>\tLen=<length>\t", the value of `attribute` as
// its type shows it and "\n" to `out`. With `omitValues`, only whether a
// value is given. Returns false, appending nothing, for the one row it cannot
// render as a format would: a text whose length no printf precision can hold.
bool AppendAttributeRow(CLineBuffer& out, std::string_view prefix, const char* name,
                        const CK_ATTRIBUTE& attribute, bool omitValues);

// An attribute value of the size of a CK_ULONG, read without alignment.
inline CK_ULONG ReadULong(const void* value) noexcept {
  CK_ULONG number;
  std::memcpy(&number, value, sizeof number);
  return number;
}

// The low 32 bits, as the dump shows lengths and numbers.
inline int Low32(CK_ULONG value) noexcept {
  return static_cast<int>(static_cast<std::uint32_t>(value));
}

}  // namespace zelph
