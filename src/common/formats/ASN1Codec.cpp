#include "common/formats/ASN1Codec.h"

#include "common/base/CException.h"

namespace zelph {

namespace {

// Throws `E` with the free text `message`.
template <class E>
[[noreturn]] void Fail(const char* message) {
  throw E(CUTF8String(message));
}

// True when `count` octets fit behind `position` in a buffer of `size`.
bool Fits(std::uint64_t size, std::uint64_t position, std::uint64_t count) noexcept {
  return position <= size && size - position >= count;
}

// Octets of one base-128 subidentifier.
unsigned GetSubIdentifierSize(std::uint64_t value) noexcept {
  if (value < 0x80) return 1;
  if (value < 0x4000) return 2;
  if (value < 0x200000) return 3;
  if (value < 0x10000000) return 4;
  return 5;
}

// Writes one subidentifier, most significant group first, bit 7 set on
// every octet but the last. The caller has checked the space.
void WriteSubIdentifier(std::uint64_t value, std::uint8_t* out, std::uint64_t& position) noexcept {
  const unsigned n = GetSubIdentifierSize(value);
  for (unsigned i = 0; i < n; ++i) {
    const unsigned shift = 7 * (n - 1 - i);
    const auto group = static_cast<std::uint8_t>((value >> shift) & 0x7F);
    out[position++] = i + 1 < n ? static_cast<std::uint8_t>(group | 0x80) : group;
  }
}

// The first subidentifier, combining the first two arcs; throws
// EASN1InvalidData for arcs that cannot be combined.
std::uint64_t GetFirstSubIdentifier(const std::uint32_t* arcs, std::uint64_t count) {
  if (arcs == nullptr || count < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] >= 40)) {
    throw EASN1InvalidData();
  }
  return std::uint64_t{arcs[0]} * 40 + arcs[1];
}

}  // namespace

// ---------------------------------------------------------------------------
// Reading

ASN1Tag ReadASN1Tag(const std::uint8_t* data, std::uint64_t size, std::uint64_t& position) {
  if (position >= size) Fail<EASN1InvalidData>("Incomplete TLV tag");
  const std::uint8_t first = data[position++];
  ASN1Tag tag = first;
  if ((first & 0x1F) < 31) return tag;
  // High tag number form: octets follow while bit 7 is set.
  for (;;) {
    if (tag >= 0x1000000) Fail<EASN1UnsupportedFormat>("TLV tag too long");
    if (position >= size) Fail<EASN1InvalidData>("Incomplete TLV tag");
    const std::uint8_t next = data[position++];
    tag = (tag << 8) | next;
    if ((next & 0x80) == 0) return tag;
  }
}

std::uint64_t ReadASN1Length(const std::uint8_t* data, std::uint64_t size,
                             std::uint64_t& position) {
  if (position >= size) Fail<EASN1InvalidData>("Incomplete TLV length");
  const std::uint8_t first = data[position++];
  if (first < 0x80) return first;
  if (first == 0x80) Fail<EASN1UnsupportedFormat>("TLV indetermined length unsupported");
  const unsigned count = first & 0x7F;
  if (count > 4) Fail<EASN1UnsupportedFormat>("TLV length too long");
  std::uint64_t length = 0;
  for (unsigned i = 0; i < count; ++i) {
    if (position >= size) Fail<EASN1InvalidData>("Incomplete TLV length");
    length = (length << 8) | data[position++];
  }
  return length;
}

const std::uint8_t* ReadASN1Contents(const std::uint8_t* data, std::uint64_t size,
                                     std::uint64_t& position, std::uint64_t length) {
  if (!Fits(size, position, length)) throw EASN1InvalidData();
  const std::uint8_t* contents = data + position;
  position += length;
  return contents;
}

std::int32_t ReadASN1Integer(const std::uint8_t* contents, std::uint64_t count) {
  if (count == 0) return 0;
  if (count > 4) Fail<EASN1UnsupportedFormat>("ASN.1 integer too long");
  // Sign-extend from the first octet, then shift the others in.
  auto value =
      static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<std::int8_t>(contents[0])));
  for (std::uint64_t i = 1; i < count; ++i) value = (value << 8) | contents[i];
  return static_cast<std::int32_t>(value);
}

CASN1BitString ReadASN1BitString(const std::uint8_t* contents, std::uint64_t count) {
  if (count == 0) Fail<EASN1InvalidData>("ASN.1 bit string too short");
  const std::uint64_t unused = contents[0];
  // More unused bits than there are bits would make the counts wrap.
  if ((unused + 7) / 8 > count - 1) Fail<EASN1InvalidData>("ASN.1 bit string too short");
  CASN1BitString result;
  result.bitCount = 8 * count - unused - 8;
  const std::uint64_t octets = (8 * count - unused - 1) / 8;
  result.bits.assign(contents + 1, contents + 1 + octets);
  return result;
}

std::uint32_t ReadASN1SubIdentifier(const std::uint8_t* data, std::uint64_t size,
                                    std::uint64_t& position) {
  std::uint32_t value = 0;
  for (;;) {
    // Another group would push the value past 32 bits.
    if (value > 0x1FFFFFF) throw EASN1UnsupportedFormat();
    if (position >= size) throw EASN1InvalidData();
    const std::uint8_t octet = data[position++];
    value = value * 128 + (octet & 0x7F);
    if ((octet & 0x80) == 0) return value;
  }
}

std::vector<std::uint32_t> ReadASN1ObjectIdentifier(const std::uint8_t* contents,
                                                    std::uint64_t count) {
  if (count == 0) throw EASN1InvalidData();
  std::uint64_t position = 0;
  const std::uint32_t first = ReadASN1SubIdentifier(contents, count, position);
  std::vector<std::uint32_t> arcs;
  if (first < 40) {
    arcs = {0, first};
  } else if (first < 80) {
    arcs = {1, first - 40};
  } else {
    arcs = {2, first - 80};
  }
  while (position < count) arcs.push_back(ReadASN1SubIdentifier(contents, count, position));
  return arcs;
}

// ---------------------------------------------------------------------------
// Tags

ASN1Tag MakeASN1Tag(ASN1TagClass tagClass, std::uint32_t number) {
  const std::uint32_t classBits = (static_cast<std::uint32_t>(tagClass) & 3) << 6;
  if (number < 31) return classBits | number;
  const std::uint32_t lead = classBits | 31;
  if (number < 0x80) return (lead << 8) | number;
  if (number < 0x4000) return (lead << 16) | ((0x80 | (number >> 7)) << 8) | (number & 0x7F);
  if (number < 0x200000) {
    return (lead << 24) | ((0x80 | (number >> 14)) << 16) | ((0x80 | ((number >> 7) & 0x7F)) << 8) |
           (number & 0x7F);
  }
  throw EASN1UnsupportedFormat();
}

unsigned GetASN1TagSize(ASN1Tag tag) noexcept {
  if (tag < 0x100) return 1;
  if (tag < 0x10000) return 2;
  if (tag < 0x1000000) return 3;
  return 4;
}

bool IsASN1Constructed(ASN1Tag tag) noexcept {
  return ((tag >> (8 * (GetASN1TagSize(tag) - 1))) & 0x20) != 0;
}

ASN1Tag MakeASN1Constructed(ASN1Tag tag) noexcept {
  return tag | (ASN1Tag{0x20} << (8 * (GetASN1TagSize(tag) - 1)));
}

// ---------------------------------------------------------------------------
// Writing

unsigned GetASN1LengthSize(std::uint64_t length) noexcept {
  if (length < 0x80) return 1;
  if (length <= 0xFF) return 2;
  if (length <= 0xFFFF) return 3;
  if (length <= 0xFFFFFF) return 4;
  return 5;
}

void WriteASN1Tag(ASN1Tag tag, std::uint8_t* out, std::uint64_t size, std::uint64_t& position) {
  const unsigned n = GetASN1TagSize(tag);
  if (!Fits(size, position, n)) throw EASN1BufferTooSmall();
  for (unsigned i = 0; i < n; ++i) {
    out[position++] = static_cast<std::uint8_t>(tag >> (8 * (n - 1 - i)));
  }
}

void WriteASN1Length(std::uint64_t length, std::uint8_t* out, std::uint64_t size,
                     std::uint64_t& position) {
  if (length > 0xFFFFFFFF) throw EASN1UnsupportedFormat();
  const unsigned n = GetASN1LengthSize(length);
  if (!Fits(size, position, n)) throw EASN1BufferTooSmall();
  if (n == 1) {
    out[position++] = static_cast<std::uint8_t>(length);
    return;
  }
  out[position++] = static_cast<std::uint8_t>(0x80 | (n - 1));
  for (unsigned i = 1; i < n; ++i) {
    out[position++] = static_cast<std::uint8_t>(length >> (8 * (n - 1 - i)));
  }
}

unsigned GetASN1IntegerSize(std::int32_t value) noexcept {
  const auto bits = static_cast<std::uint32_t>(value);
  unsigned n = 4;
  // A leading octet is redundant when it only repeats the sign of the next.
  while (n > 1) {
    const unsigned top = (bits >> (8 * (n - 1))) & 0xFF;
    const unsigned nextSign = (bits >> (8 * (n - 1) - 1)) & 1;
    if (!((top == 0x00 && nextSign == 0) || (top == 0xFF && nextSign == 1))) break;
    --n;
  }
  return n;
}

void WriteASN1Integer(std::int32_t value, std::uint8_t* out, std::uint64_t size,
                      std::uint64_t& position) {
  const unsigned n = GetASN1IntegerSize(value);
  if (!Fits(size, position, n)) throw EASN1BufferTooSmall();
  const auto bits = static_cast<std::uint32_t>(value);
  for (unsigned i = 0; i < n; ++i) {
    out[position++] = static_cast<std::uint8_t>(bits >> (8 * (n - 1 - i)));
  }
}

std::uint64_t GetASN1BitStringSize(std::uint64_t bitCount) noexcept {
  return 1 + bitCount / 8 + (bitCount % 8 != 0 ? 1 : 0);
}

void WriteASN1BitString(const CASN1BitString& bits, std::uint8_t* out, std::uint64_t size,
                        std::uint64_t& position) {
  const std::uint64_t total = GetASN1BitStringSize(bits.bitCount);
  const std::uint64_t octets = total - 1;
  if (bits.bits.size() < octets) throw EASN1InvalidData();
  if (!Fits(size, position, total)) throw EASN1BufferTooSmall();
  out[position++] = static_cast<std::uint8_t>(octets * 8 - bits.bitCount);
  for (std::uint64_t i = 0; i < octets; ++i) out[position++] = bits.bits[i];
}

std::uint64_t GetASN1ObjectIdentifierSize(const std::uint32_t* arcs, std::uint64_t count) {
  std::uint64_t size = GetSubIdentifierSize(GetFirstSubIdentifier(arcs, count));
  for (std::uint64_t i = 2; i < count; ++i) size += GetSubIdentifierSize(arcs[i]);
  return size;
}

void WriteASN1ObjectIdentifier(const std::uint32_t* arcs, std::uint64_t count, std::uint8_t* out,
                               std::uint64_t size, std::uint64_t& position) {
  const std::uint64_t total = GetASN1ObjectIdentifierSize(arcs, count);
  if (!Fits(size, position, total)) throw EASN1BufferTooSmall();
  WriteSubIdentifier(GetFirstSubIdentifier(arcs, count), out, position);
  for (std::uint64_t i = 2; i < count; ++i) WriteSubIdentifier(arcs[i], out, position);
}

}  // namespace zelph
