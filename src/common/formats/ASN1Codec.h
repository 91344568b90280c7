// A minimal BER/DER tag-length-value codec: identifier octets, length
// octets and the contents of INTEGER, BIT STRING and OBJECT IDENTIFIER
// values. Tags and lengths are limited to four octets, integers to 32 bits.
//
// Readers take a buffer (pointer and size) and a position that each read
// advances; writers take an output buffer and a position the same way. All
// failures throw EASN1 exceptions; a failed read leaves the position past the
// octets it had read, a failed write writes nothing.
#pragma once

#include <cstdint>
#include <vector>

#include "common/formats/CByteBuffer.h"

namespace zelph {

// A tag value holds the identifier octets themselves, first octet most
// significant: the one-octet tag 0x30 is 0x30, the two octets 0x9F 0x1F are
// 0x9F1F. Class and constructed bits are those of the first octet.
using ASN1Tag = std::uint32_t;

// The class bits of a tag.
enum ASN1TagClass : unsigned {
  kASN1Universal = 0,
  kASN1Application = 1,
  kASN1ContextSpecific = 2,
  kASN1Private = 3,
};

// A decoded BIT STRING.
struct CASN1BitString {
  std::uint64_t bitCount = 0;  // significant bits
  CByteBuffer bits;            // the octets holding them, first bit in bit 7
};

// ---- Reading --------------------------------------------------------------

// Reads identifier octets. Throws EASN1InvalidData "Incomplete TLV tag" when
// the buffer ends first, EASN1UnsupportedFormat "TLV tag too long" when more
// than four octets would be needed.
ASN1Tag ReadASN1Tag(const std::uint8_t* data, std::uint64_t size, std::uint64_t& position);

// Reads length octets (short form or up to four long-form octets). Throws
// EASN1InvalidData "Incomplete TLV length" when the buffer ends first,
// EASN1UnsupportedFormat "TLV indetermined length unsupported" for the
// indefinite form and "TLV length too long" for more than four octets.
std::uint64_t ReadASN1Length(const std::uint8_t* data, std::uint64_t size, std::uint64_t& position);

// Returns the `length` contents octets at the position and moves past them.
// Throws EASN1InvalidData when they run past the end of the buffer.
const std::uint8_t* ReadASN1Contents(const std::uint8_t* data, std::uint64_t size,
                                     std::uint64_t& position, std::uint64_t length);

// The value of INTEGER contents: big-endian two's complement, 0 for no
// octets. Throws EASN1UnsupportedFormat "ASN.1 integer too long" for more
// than four octets (also when the extra octet is only a sign octet).
std::int32_t ReadASN1Integer(const std::uint8_t* contents, std::uint64_t count);

// The value of BIT STRING contents: the first octet counts the unused bits
// of the last octet. Throws EASN1InvalidData "ASN.1 bit string too short"
// when there is no octet, or when the unused bits outnumber the bits there
// are.
CASN1BitString ReadASN1BitString(const std::uint8_t* contents, std::uint64_t count);

// Reads one base-128 subidentifier of an OBJECT IDENTIFIER. Throws
// EASN1InvalidData when the buffer ends inside it and
// EASN1UnsupportedFormat when it does not fit in 32 bits.
std::uint32_t ReadASN1SubIdentifier(const std::uint8_t* data, std::uint64_t size,
                                    std::uint64_t& position);

// The arcs of OBJECT IDENTIFIER contents; the first subidentifier gives the
// first two arcs. Throws EASN1InvalidData for empty contents and as
// ReadASN1SubIdentifier does.
std::vector<std::uint32_t> ReadASN1ObjectIdentifier(const std::uint8_t* contents,
                                                    std::uint64_t count);

// ---- Tags -----------------------------------------------------------------

// The tag of class `tagClass` (0-3) and `number`: one octet below 31, else a
// leading octet with 31 and the number base 128, up to 0x1FFFFF. Throws
// EASN1UnsupportedFormat for a larger number.
ASN1Tag MakeASN1Tag(ASN1TagClass tagClass, std::uint32_t number);

// Octets of a tag value: 1 below 0x100, 2 below 0x10000, 3 below
// 0x1000000, else 4.
unsigned GetASN1TagSize(ASN1Tag tag) noexcept;

// True when the constructed bit of the tag's first octet is set.
bool IsASN1Constructed(ASN1Tag tag) noexcept;

// The tag with the constructed bit of its first octet set.
ASN1Tag MakeASN1Constructed(ASN1Tag tag) noexcept;

// ---- Writing --------------------------------------------------------------

// Octets of a length: 1 below 128, then 2 up to 0xFF, 3 up to 0xFFFF, 4 up
// to 0xFFFFFF, else 5.
unsigned GetASN1LengthSize(std::uint64_t length) noexcept;

// Writes the tag's octets, first octet first. Throws EASN1BufferTooSmall
// when they do not fit.
void WriteASN1Tag(ASN1Tag tag, std::uint8_t* out, std::uint64_t size, std::uint64_t& position);

// Writes length octets in the shortest definite form. Throws
// EASN1BufferTooSmall when they do not fit, EASN1UnsupportedFormat for a
// length above 0xFFFFFFFF.
void WriteASN1Length(std::uint64_t length, std::uint8_t* out, std::uint64_t size,
                     std::uint64_t& position);

// Octets of the shortest INTEGER contents for `value`.
unsigned GetASN1IntegerSize(std::int32_t value) noexcept;

// Writes the shortest INTEGER contents for `value`. Throws
// EASN1BufferTooSmall when they do not fit.
void WriteASN1Integer(std::int32_t value, std::uint8_t* out, std::uint64_t size,
                      std::uint64_t& position);

// Octets of BIT STRING contents holding `bitCount` bits.
std::uint64_t GetASN1BitStringSize(std::uint64_t bitCount) noexcept;

// Writes BIT STRING contents: the unused-bits octet, then the octets of
// `bits` that hold its bit count. Throws EASN1InvalidData when `bits` holds
// too few octets, EASN1BufferTooSmall when the contents do not fit.
void WriteASN1BitString(const CASN1BitString& bits, std::uint8_t* out, std::uint64_t size,
                        std::uint64_t& position);

// Octets of OBJECT IDENTIFIER contents for `count` arcs. Throws
// EASN1InvalidData for arcs that cannot be encoded (see below).
std::uint64_t GetASN1ObjectIdentifierSize(const std::uint32_t* arcs, std::uint64_t count);

// Writes OBJECT IDENTIFIER contents. At least two arcs are needed, the first
// 0, 1 or 2, and the second below 40 unless the first is 2; else
// EASN1InvalidData. Throws EASN1BufferTooSmall when the contents do not fit.
void WriteASN1ObjectIdentifier(const std::uint32_t* arcs, std::uint64_t count, std::uint8_t* out,
                               std::uint64_t size, std::uint64_t& position);

}  // namespace zelph
