// Fuzzes the ASN.1 TLV reader: arbitrary bytes are walked as nested
// tag-length-value records, and the INTEGER, BIT STRING and OBJECT
// IDENTIFIER contents among them are decoded. Everything that reads
// successfully is written back and must read back the same.
#include <cstdint>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/formats/ASN1Codec.h"

using namespace zelph;

namespace {

constexpr ASN1Tag kInteger = 0x02;
constexpr ASN1Tag kBitString = 0x03;
constexpr ASN1Tag kObjectIdentifier = 0x06;

void CheckTagAndLength(ASN1Tag tag, std::uint64_t length) {
  std::uint8_t out[16];
  std::uint64_t end = 0;
  WriteASN1Tag(tag, out, sizeof out, end);
  WriteASN1Length(length, out, sizeof out, end);
  std::uint64_t position = 0;
  Require(ReadASN1Tag(out, end, position) == tag, "a written tag reads back");
  Require(ReadASN1Length(out, end, position) == length, "a written length reads back");
  Require(position == end, "tag and length are read to their end");
}

void CheckInteger(const std::uint8_t* contents, std::uint64_t count) {
  const std::int32_t value = ReadASN1Integer(contents, count);
  std::uint8_t out[4];
  std::uint64_t end = 0;
  WriteASN1Integer(value, out, sizeof out, end);
  Require(end == GetASN1IntegerSize(value), "the integer size is what is written");
  Require(count == 0 || end <= count, "the written integer is no longer than the read one");
  Require(ReadASN1Integer(out, end) == value, "a written integer reads back");
}

void CheckBitString(const std::uint8_t* contents, std::uint64_t count) {
  const CASN1BitString bits = ReadASN1BitString(contents, count);
  Require(bits.bits.size() * 8 >= bits.bitCount, "the octets hold every bit");
  std::vector<std::uint8_t> out(GetASN1BitStringSize(bits.bitCount));
  std::uint64_t end = 0;
  WriteASN1BitString(bits, out.data(), out.size(), end);
  Require(end == out.size(), "the bit string size is what is written");
  const CASN1BitString again = ReadASN1BitString(out.data(), end);
  Require(again.bitCount == bits.bitCount, "a written bit string keeps its bit count");
  Require(again.bits ==
              std::vector<std::uint8_t>(bits.bits.begin(), bits.bits.begin() + again.bits.size()),
          "a written bit string keeps its octets");
}

void CheckObjectIdentifier(const std::uint8_t* contents, std::uint64_t count) {
  const std::vector<std::uint32_t> arcs = ReadASN1ObjectIdentifier(contents, count);
  Require(arcs.size() >= 2 && arcs[0] <= 2, "an identifier has two arcs and a valid first one");
  std::vector<std::uint8_t> out(GetASN1ObjectIdentifierSize(arcs.data(), arcs.size()));
  std::uint64_t end = 0;
  WriteASN1ObjectIdentifier(arcs.data(), arcs.size(), out.data(), out.size(), end);
  Require(end == out.size(), "the identifier size is what is written");
  Require(end <= count, "the written identifier is no longer than the read one");
  Require(ReadASN1ObjectIdentifier(out.data(), end) == arcs, "a written identifier reads back");
}

// Reads the records of [position, end) and of every constructed record in
// them, without recursion.
void Walk(const std::uint8_t* data, std::uint64_t size) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges{{0, size}};
  while (!ranges.empty()) {
    auto [position, end] = ranges.back();
    ranges.pop_back();
    while (position < end) {
      const std::uint64_t start = position;
      ASN1Tag tag = 0;
      std::uint64_t length = 0;
      const std::uint8_t* contents = nullptr;
      try {
        tag = ReadASN1Tag(data, end, position);
        length = ReadASN1Length(data, end, position);
        contents = ReadASN1Contents(data, end, position, length);
      } catch (const EASN1&) {
        Require(position >= start && position <= end, "a failed read stays inside the buffer");
        break;
      }
      Require(contents == data + position - length, "the contents end at the position");
      CheckTagAndLength(tag, length);
      try {
        if (IsASN1Constructed(tag)) {
          ranges.emplace_back(position - length, position);
        } else if (tag == kInteger) {
          CheckInteger(contents, length);
        } else if (tag == kBitString) {
          CheckBitString(contents, length);
        } else if (tag == kObjectIdentifier) {
          CheckObjectIdentifier(contents, length);
        }
      } catch (const EASN1&) {
        // Contents the reader refuses; the walk goes on behind them.
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Walk(data, size);
  if (size >= 5) {
    const auto tagClass = static_cast<ASN1TagClass>(data[0] & 3);
    const std::uint32_t number =
        (std::uint32_t{data[1]} << 24 | std::uint32_t{data[2]} << 16 | data[3] << 8 | data[4]) >>
        (data[0] >> 2 & 31);
    try {
      const ASN1Tag tag = MakeASN1Tag(tagClass, number);
      Require(number < 0x200000, "only numbers below 0x200000 make a tag");
      CheckTagAndLength(tag, number);
      Require(IsASN1Constructed(MakeASN1Constructed(tag)), "a tag can be made constructed");
      Require(!IsASN1Constructed(tag), "a made tag is primitive");
    } catch (const EASN1UnsupportedFormat&) {
      Require(number >= 0x200000, "numbers below 0x200000 make a tag");
    }
  }
  return 0;
}
