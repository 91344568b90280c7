#include "common/formats/ASN1Codec.h"

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/CException.h"

namespace zelph {
namespace {

using Bytes = std::vector<std::uint8_t>;

// What a read did: the value in decimal, or the exception's class and text.
template <class Read>
std::string Outcome(const Read& read) {
  try {
    return std::to_string(read());
  } catch (const EASN1UnsupportedFormat& e) {
    return "Unsupported: " + std::string(e.GetEvent().GetText().View());
  } catch (const EASN1InvalidData& e) {
    return "Invalid: " + std::string(e.GetEvent().GetText().View());
  } catch (const EASN1BufferTooSmall& e) {
    return "TooSmall: " + std::string(e.GetEvent().GetText().View());
  }
}

struct ReadCase {
  Bytes bytes;
  std::string outcome;
  std::uint64_t position;  // after the read, also after a failure
};

// Runs `read` over each case's bytes held in a buffer of exactly their size.
template <class T>
void CheckReads(const char* what, const std::vector<ReadCase>& cases,
                T (*read)(const std::uint8_t*, std::uint64_t, std::uint64_t&)) {
  for (const auto& c : cases) {
    std::uint64_t position = 0;
    const std::string outcome =
        Outcome([&] { return read(c.bytes.data(), c.bytes.size(), position); });
    EXPECT_EQ(outcome, c.outcome) << what << " of " << testing::PrintToString(c.bytes);
    EXPECT_EQ(position, c.position)
        << what << " position after " << testing::PrintToString(c.bytes);
  }
}

TEST(ASN1Reader, TagsGiveValuesOrTheirFailures) {
  CheckReads("tag",
             {
                 {{0x30, 0x00}, std::to_string(0x30), 1},
                 {{0x9F, 0x1F}, std::to_string(0x9F1F), 2},
                 {{0x1F, 0x81, 0x01}, std::to_string(0x1F8101), 3},
                 {{0x1F, 0x81, 0x81, 0x01}, std::to_string(0x1F818101), 4},
                 {{0x1F, 0x81, 0x81, 0x81, 0x01}, "Unsupported: TLV tag too long", 4},
                 {{0x1F, 0x81, 0x81, 0x81}, "Unsupported: TLV tag too long", 4},
                 {{0x1F}, "Invalid: Incomplete TLV tag", 1},
                 {{0x3F, 0x81}, "Invalid: Incomplete TLV tag", 2},
                 {{}, "Invalid: Incomplete TLV tag", 0},
             },
             ReadASN1Tag);
}

TEST(ASN1Reader, LengthsGiveValuesOrTheirFailures) {
  CheckReads("length",
             {
                 {{0x7F}, "127", 1},
                 {{0x81, 0x80}, "128", 2},
                 {{0x82, 0x01, 0x00}, "256", 3},
                 {{0x84, 0xFF, 0xFF, 0xFF, 0xFF}, "4294967295", 5},
                 {{0x85, 1, 2, 3, 4, 5}, "Unsupported: TLV length too long", 1},
                 {{0xFF}, "Unsupported: TLV length too long", 1},
                 {{0x80}, "Unsupported: TLV indetermined length unsupported", 1},
                 {{0x83, 0x01}, "Invalid: Incomplete TLV length", 2},
                 {{}, "Invalid: Incomplete TLV length", 0},
             },
             ReadASN1Length);
}

TEST(ASN1Reader, SubIdentifiersStopAt32Bits) {
  CheckReads("subidentifier",
             {
                 {{0x86, 0x48, 0x01}, "840", 2},
                 {{0x8F, 0xFF, 0xFF, 0xFF, 0x7F}, "4294967295", 5},
                 {{0x90, 0x80, 0x80, 0x80, 0x00}, "Unsupported: ", 4},
                 {{0x81}, "Invalid: ", 1},
             },
             ReadASN1SubIdentifier);
}

TEST(ASN1Reader, ContentsMustLieInsideTheBuffer) {
  const Bytes bytes = {1, 2, 3};
  std::uint64_t position = 1;
  EXPECT_EQ(ReadASN1Contents(bytes.data(), bytes.size(), position, 2), bytes.data() + 1);
  EXPECT_EQ(position, 3u);
  EXPECT_THROW(ReadASN1Contents(bytes.data(), bytes.size(), position, 1), EASN1InvalidData);
  position = 1;
  EXPECT_THROW(ReadASN1Contents(bytes.data(), bytes.size(), position, UINT64_MAX), EASN1InvalidData)
      << "a huge length must not wrap around";
}

TEST(ASN1Reader, IntegersAreSignExtendedUpToFourOctets) {
  struct Case {
    Bytes contents;
    std::string outcome;
  };
  const Case cases[] = {
      {{}, "0"},
      {{0xFF}, "-1"},
      {{0x00, 0xFF}, "255"},
      {{0x80, 0x00, 0x00, 0x00}, std::to_string(INT32_MIN)},
      {{0x7F, 0xFF, 0xFF, 0xFF}, std::to_string(INT32_MAX)},
      {{0xFF, 0x7F}, "-129"},
      {{0x00, 0x80, 0x00, 0x00, 0x00}, "Unsupported: ASN.1 integer too long"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Outcome([&] { return ReadASN1Integer(c.contents.data(), c.contents.size()); }),
              c.outcome)
        << "contents " << testing::PrintToString(c.contents);
  }
}

TEST(ASN1Reader, BitStringsCountTheirBits) {
  struct Case {
    Bytes contents;
    std::uint64_t bitCount;
    Bytes bits;
  };
  const Case cases[] = {
      {{0x06, 0x40}, 2, {0x40}},
      {{0x00}, 0, {}},
      {{0x00, 0xAB, 0xCD}, 16, {0xAB, 0xCD}},
      {{0x07, 0xAB, 0x80}, 9, {0xAB, 0x80}},
      {{0x08, 0xAB}, 0, {}},
  };
  for (const auto& c : cases) {
    const CASN1BitString result = ReadASN1BitString(c.contents.data(), c.contents.size());
    EXPECT_EQ(result.bitCount, c.bitCount) << testing::PrintToString(c.contents);
    EXPECT_EQ(result.bits, c.bits) << testing::PrintToString(c.contents);
  }
  for (const Bytes& bad : {Bytes{}, Bytes{0x01}, Bytes{0x09, 0xAB}, Bytes{0xFF, 0x00}}) {
    EXPECT_EQ(Outcome([&] { return ReadASN1BitString(bad.data(), bad.size()).bitCount; }),
              "Invalid: ASN.1 bit string too short")
        << "more unused bits than bits in " << testing::PrintToString(bad);
  }
}

TEST(ASN1Tags, BuiltFromClassAndNumber) {
  EXPECT_EQ(MakeASN1Tag(kASN1Universal, 16), 0x10u);
  EXPECT_EQ(MakeASN1Tag(kASN1ContextSpecific, 31), 0x9F1Fu);
  EXPECT_EQ(MakeASN1Tag(kASN1Application, 200), 0x5F8148u);
  EXPECT_EQ(MakeASN1Tag(kASN1Private, 0x1FFFFF), 0xDFFFFF7Fu);
  EXPECT_THROW(MakeASN1Tag(kASN1Private, 0x200000), EASN1UnsupportedFormat);

  EXPECT_TRUE(IsASN1Constructed(0x30));
  EXPECT_FALSE(IsASN1Constructed(0x9F1F)) << "only the first octet's bit 5 counts";
  EXPECT_TRUE(IsASN1Constructed(0xBF1F));
  EXPECT_EQ(MakeASN1Constructed(MakeASN1Tag(kASN1Universal, 16)), 0x30u);
  EXPECT_EQ(MakeASN1Constructed(0x9F1F), 0xBF1Fu);
  EXPECT_EQ(MakeASN1Constructed(0x1F818101), 0x3F818101u);
}

TEST(ASN1Writer, LengthsAndObjectIdentifiersGiveTheirOctets) {
  struct Case {
    std::function<void(std::uint8_t*, std::uint64_t, std::uint64_t&)> write;
    std::uint64_t size;  // what the size function says
    Bytes octets;
  };
  const auto length = [](std::uint64_t n) {
    return [n](std::uint8_t* o, std::uint64_t s, std::uint64_t& p) { WriteASN1Length(n, o, s, p); };
  };
  const auto oid = [](std::vector<std::uint32_t> arcs) {
    return [arcs](std::uint8_t* o, std::uint64_t s, std::uint64_t& p) {
      WriteASN1ObjectIdentifier(arcs.data(), arcs.size(), o, s, p);
    };
  };
  const std::vector<std::uint32_t> rsa = {1, 2, 840, 113549, 1, 1, 1};
  const Case cases[] = {
      {length(0), GetASN1LengthSize(0), {0x00}},
      {length(128), GetASN1LengthSize(128), {0x81, 0x80}},
      {length(256), GetASN1LengthSize(256), {0x82, 0x01, 0x00}},
      {length(65536), GetASN1LengthSize(65536), {0x83, 0x01, 0x00, 0x00}},
      {length(0xFFFFFFFF), GetASN1LengthSize(0xFFFFFFFF), {0x84, 0xFF, 0xFF, 0xFF, 0xFF}},
      {oid({1, 2, 840}), 3, {0x2A, 0x86, 0x48}},
      {oid({2, 999}), 2, {0x88, 0x37}},
      {oid(rsa),
       GetASN1ObjectIdentifierSize(rsa.data(), rsa.size()),
       {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01}},
      {oid({2, 0xFFFFFFFF}), 5, {0x90, 0x80, 0x80, 0x80, 0x4F}},
  };
  for (const auto& c : cases) {
    Bytes out(16, 0xEE);
    std::uint64_t position = 1;
    c.write(out.data(), out.size(), position);
    const Bytes written(out.begin() + 1, out.begin() + static_cast<long>(position));
    EXPECT_EQ(written, c.octets);
    EXPECT_EQ(written.size(), c.size) << "the size function must match what is written";

    // One octet short: nothing is written and the position stays.
    Bytes tight(c.octets.size() - 1, 0xEE);
    std::uint64_t start = 0;
    EXPECT_THROW(c.write(tight.data(), tight.size(), start), EASN1BufferTooSmall);
    EXPECT_EQ(start, 0u);
    EXPECT_EQ(tight, Bytes(tight.size(), 0xEE)) << "a failed write must leave the buffer alone";
  }
}

TEST(ASN1Writer, ObjectIdentifiersNeedValidFirstArcs) {
  for (const auto& arcs :
       std::vector<std::vector<std::uint32_t>>{{0, 40}, {1, 40}, {3, 1}, {1}, {}}) {
    std::uint8_t out[16];
    std::uint64_t position = 0;
    EXPECT_THROW(WriteASN1ObjectIdentifier(arcs.data(), arcs.size(), out, sizeof out, position),
                 EASN1InvalidData)
        << testing::PrintToString(arcs);
    EXPECT_THROW(GetASN1ObjectIdentifierSize(arcs.data(), arcs.size()), EASN1InvalidData);
  }
}

TEST(ASN1Codec, WrittenTLVsReadBackUnchanged) {
  const std::vector<std::uint32_t> arcs = {2, 5, 4, 3, 0x7FFFFFFF, 0, 127, 128, 16383, 16384};
  const std::int32_t integers[] = {0,   1,   -1,       127,       128,       -128,     -129,
                                   255, 256, 0x7FFFFF, -0x800000, INT32_MAX, INT32_MIN};
  const CASN1BitString bitString = {13, {0xF0, 0x08}};
  const std::uint32_t tagNumbers[] = {0, 30, 31, 127, 128, 16383, 16384, 0x1FFFFF};

  for (const std::uint32_t number : tagNumbers) {
    const ASN1Tag tag = MakeASN1Constructed(MakeASN1Tag(kASN1ContextSpecific, number));
    for (const std::int32_t value : integers) {
      // Tag, length and contents, in a buffer sized by the size functions.
      const std::uint64_t contents = GetASN1IntegerSize(value);
      Bytes out(GetASN1TagSize(tag) + GetASN1LengthSize(contents) + contents);
      std::uint64_t w = 0;
      WriteASN1Tag(tag, out.data(), out.size(), w);
      WriteASN1Length(contents, out.data(), out.size(), w);
      WriteASN1Integer(value, out.data(), out.size(), w);
      ASSERT_EQ(w, out.size());

      std::uint64_t r = 0;
      EXPECT_EQ(ReadASN1Tag(out.data(), out.size(), r), tag) << "tag number " << number;
      const std::uint64_t length = ReadASN1Length(out.data(), out.size(), r);
      const std::uint8_t* data = ReadASN1Contents(out.data(), out.size(), r, length);
      EXPECT_EQ(ReadASN1Integer(data, length), value) << "tag number " << number;
      EXPECT_EQ(r, out.size());
    }
  }

  Bytes oid(GetASN1ObjectIdentifierSize(arcs.data(), arcs.size()));
  std::uint64_t w = 0;
  WriteASN1ObjectIdentifier(arcs.data(), arcs.size(), oid.data(), oid.size(), w);
  EXPECT_EQ(ReadASN1ObjectIdentifier(oid.data(), oid.size()), arcs);

  Bytes bits(GetASN1BitStringSize(bitString.bitCount));
  w = 0;
  WriteASN1BitString(bitString, bits.data(), bits.size(), w);
  EXPECT_EQ(bits, (Bytes{0x03, 0xF0, 0x08}));
  const CASN1BitString back = ReadASN1BitString(bits.data(), bits.size());
  EXPECT_EQ(back.bitCount, bitString.bitCount);
  EXPECT_EQ(back.bits, bitString.bits);
}

}  // namespace
}  // namespace zelph
