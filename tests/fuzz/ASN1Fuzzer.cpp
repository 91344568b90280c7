// Fuzzes the ASN.1 codec: arbitrary bytes are walked as nested
// tag-length-value records, and the INTEGER, BIT STRING and OBJECT
// IDENTIFIER contents among them are decoded. Tags, lengths, integers and
// identifiers that read are written again and must read back the same.
#include <algorithm>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/formats/ASN1Codec.h"

using namespace zelph;

namespace {

void CheckRecord(ASN1Tag tag, const std::uint8_t* contents, std::uint64_t length) try {
  std::uint8_t head[16];
  std::uint64_t end = 0, p = 0;
  WriteASN1Tag(tag, head, sizeof head, end);
  WriteASN1Length(length, head, sizeof head, end);
  Require(ReadASN1Tag(head, end, p) == tag && ReadASN1Length(head, end, p) == length && p == end,
          "a written tag and length read back");
  std::vector<std::uint8_t> out(2 * length + 16);
  end = 0;
  if (tag == 0x02) {
    const std::int32_t value = ReadASN1Integer(contents, length);
    WriteASN1Integer(value, out.data(), out.size(), end);
    Require(end == GetASN1IntegerSize(value) && ReadASN1Integer(out.data(), end) == value,
            "a written integer reads back");
  } else if (tag == 0x03) {
    (void)ReadASN1BitString(contents, length);
  } else if (tag == 0x06) {
    const std::vector<std::uint32_t> arcs = ReadASN1ObjectIdentifier(contents, length);
    WriteASN1ObjectIdentifier(arcs.data(), arcs.size(), out.data(), out.size(), end);
    Require(end == GetASN1ObjectIdentifierSize(arcs.data(), arcs.size()) &&
                ReadASN1ObjectIdentifier(out.data(), end) == arcs,
            "a written identifier reads back");
  }
  Require(end <= std::max<std::uint64_t>(length, 1), "no contents grow when written again");
} catch (const EASN1&) {
  // Contents the reader refuses; the walk goes on behind them.
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The records of each range, and of every constructed record in them.
  for (std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges{{0, size}}; !ranges.empty();) {
    auto [position, end] = ranges.back();
    ranges.pop_back();
    while (position < end) {
      try {
        const ASN1Tag tag = ReadASN1Tag(data, end, position);
        const std::uint64_t length = ReadASN1Length(data, end, position);
        const std::uint8_t* contents = ReadASN1Contents(data, end, position, length);
        Require(contents == data + position - length && position <= end, "contents in the range");
        if (IsASN1Constructed(tag)) ranges.emplace_back(position - length, position);
        CheckRecord(tag, contents, length);
      } catch (const EASN1&) {
        Require(position <= end, "a failed read stays inside the range");
        break;
      }
    }
  }
  return 0;
}
