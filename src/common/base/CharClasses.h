// Character classes and hexadecimal digits shared by every reader and
// writer of text, so that all of them agree on what white space and a hex
// digit are.
#pragma once

#include <cstdint>
#include <cwctype>

namespace zelph {

// Digits of upper-case hexadecimal output, indexed by value.
inline constexpr char kUpperHexDigits[] = "0123456789ABCDEF";

// The value of a hexadecimal digit of either case, or -1.
constexpr int HexDigitValue(std::int32_t c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// True for ASCII white space (blank, tab, line feed, vertical tab, form
// feed, carriage return): the same six characters in every locale.
constexpr bool IsAsciiSpace(std::int32_t c) noexcept {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// True for white space among decoded characters: ASCII by the table above,
// others as the locale's wide-character classification says. End markers
// and invalid characters (negative, or U+FFFE) are never white space.
inline bool IsSpaceChar(std::int32_t c) noexcept {
  if (c < 0) return false;
  if (c < 0x80) return IsAsciiSpace(c);
  return std::iswspace(static_cast<std::wint_t>(c)) != 0;
}

}  // namespace zelph
