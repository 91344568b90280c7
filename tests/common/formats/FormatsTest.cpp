// The ASN.1 codec, the JSON reader and the XML reader and writer.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "TraceLog.h"
#include "common/base/CException.h"
#include "common/formats/ASN1Codec.h"
#include "common/formats/CJSValue.h"
#include "common/formats/JSONReader.h"
#include "common/formats/XMLReader.h"
#include "common/formats/XMLWriter.h"

namespace zelph {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Values = std::vector<std::uint32_t>;
enum Kind { kTag, kLength, kInteger, kIdentifier };

// Reads `bytes` as one `kind`; an integer comes back as its two's complement.
Values Read(Kind kind, const Bytes& bytes, std::uint64_t& p) {
  const auto* d = bytes.data();
  if (kind == kTag) return {ReadASN1Tag(d, bytes.size(), p)};
  if (kind == kLength) return {static_cast<std::uint32_t>(ReadASN1Length(d, bytes.size(), p))};
  p = bytes.size();
  if (kind == kInteger) return {static_cast<std::uint32_t>(ReadASN1Integer(d, bytes.size()))};
  return ReadASN1ObjectIdentifier(d, bytes.size());
}

// Writes `v` as one `kind` into a buffer of the size its size function
// gives; a buffer one octet short must throw and stay untouched.
Bytes Write(Kind kind, const Values& v) {
  const auto n = static_cast<std::int32_t>(v[0]);
  const std::uint64_t size = kind == kTag       ? GetASN1TagSize(v[0])
                             : kind == kLength  ? GetASN1LengthSize(v[0])
                             : kind == kInteger ? GetASN1IntegerSize(n)
                                                : GetASN1ObjectIdentifierSize(v.data(), v.size());
  const auto write = [&](Bytes& b, std::uint64_t& p) {
    if (kind == kTag) WriteASN1Tag(v[0], b.data(), b.size(), p);
    if (kind == kLength) WriteASN1Length(v[0], b.data(), b.size(), p);
    if (kind == kInteger) WriteASN1Integer(n, b.data(), b.size(), p);
    if (kind == kIdentifier) WriteASN1ObjectIdentifier(v.data(), v.size(), b.data(), b.size(), p);
  };
  Bytes tight(size - 1, 0xEE), out(size);
  std::uint64_t p = 0;
  EXPECT_THROW(write(tight, p), EASN1BufferTooSmall) << "a buffer one octet short";
  EXPECT_EQ(tight, Bytes(size - 1, 0xEE)) << "a failed write changed the buffer";
  write(out, p);  // a size function that is too large shows in the octets
  return out;
}

TEST(ASN1Codec, OctetsReadAsTheirValueAndCanonicalValuesWriteBack) {
  const ASN1Tag kContext31 = MakeASN1Constructed(MakeASN1Tag(kASN1ContextSpecific, 31));
  const struct {
    int line;
    Kind kind;
    Bytes octets;
    std::string failure;  // of the read; empty when it gives `value`
    Values value = {};
    bool canonical = true;  // the writer writes `value` as `octets`
  } cases[] = {
      {__LINE__, kTag, {0xBF, 0x1F}, "", {kContext31}},
      {__LINE__, kTag, {0xDF, 0xFF, 0xFF, 0x7F}, "", {MakeASN1Tag(kASN1Private, 0x1FFFFF)}},
      {__LINE__, kTag, {0x1F, 0x81, 0x81, 0x81, 0x01}, "Unsupported: TLV tag too long"},
      {__LINE__, kTag, {0x3F, 0x81}, "Invalid: Incomplete TLV tag"},
      {__LINE__, kLength, {0x7F}, "", {127}},
      {__LINE__, kLength, {0x81, 0x80}, "", {128}},
      {__LINE__, kLength, {0x84, 0xFF, 0xFF, 0xFF, 0xFF}, "", {UINT32_MAX}},
      {__LINE__, kLength, {0x82, 0x00, 0x05}, "", {5}, false},
      {__LINE__, kLength, {0x85, 1, 2, 3, 4, 5}, "Unsupported: TLV length too long"},
      {__LINE__, kLength, {0x80}, "Unsupported: TLV indetermined length unsupported"},
      {__LINE__, kLength, {0x83, 0x01}, "Invalid: Incomplete TLV length"},
      {__LINE__, kInteger, {0x00}, "", {0}},
      {__LINE__, kInteger, {0xFF}, "", {UINT32_MAX}},
      {__LINE__, kInteger, {0x00, 0x80}, "", {128}},
      {__LINE__, kInteger, {0xFF, 0x7F}, "", {0xFFFFFF7F}},
      {__LINE__, kInteger, {0x80, 0x00, 0x00, 0x00}, "", {0x80000000}},
      {__LINE__, kInteger, {0, 0x80, 0, 0, 0}, "Unsupported: ASN.1 integer too long"},
      {__LINE__, kIdentifier, {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D}, "", {1, 2, 840, 113549}},
      {__LINE__, kIdentifier, {0x8F, 0xFF, 0xFF, 0xFF, 0x7F}, "", {2, 0xFFFFFFAF}},
      {__LINE__, kIdentifier, {0x90, 0x80, 0x80, 0x80, 0x4F}, "Unsupported: ", {2, UINT32_MAX}},
      {__LINE__, kIdentifier, {0x2A, 0x81}, "Invalid: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "line " << c.line);
    std::uint64_t p = 0;
    std::string failure;
    try {
      EXPECT_EQ(Read(c.kind, c.octets, p), c.value);
      EXPECT_EQ(p, c.octets.size()) << "the read stopped early";
    } catch (const EASN1& e) {
      failure = dynamic_cast<const EASN1UnsupportedFormat*>(&e) ? "Unsupported: " : "Invalid: ";
      failure += e.GetEvent().GetText().View();
    }
    EXPECT_EQ(failure, c.failure);
    if (!c.canonical || c.value.empty()) continue;
    EXPECT_EQ(Write(c.kind, c.value), c.octets) << "written";
  }
}

TEST(ASN1Codec, InvalidTagsIdentifiersContentsAndBitStringsAreRefused) {
  EXPECT_THROW(MakeASN1Tag(kASN1Private, 0x200000), EASN1UnsupportedFormat);
  EXPECT_FALSE(IsASN1Constructed(0x9F1F)) << "only the first octet's bit 5 counts";
  EXPECT_THROW(GetASN1ObjectIdentifierSize(Values{0, 40}.data(), 2), EASN1InvalidData);
  EXPECT_THROW(GetASN1ObjectIdentifierSize(Values{3, 1}.data(), 2), EASN1InvalidData);
  EXPECT_THROW(GetASN1ObjectIdentifierSize(Values{1}.data(), 1), EASN1InvalidData);
  const Bytes bits = {0x07, 0xAB, 0x80};
  std::uint64_t p = 1;
  EXPECT_THROW(ReadASN1Contents(bits.data(), 3, p, UINT64_MAX), EASN1InvalidData)
      << "a huge length must not wrap around the buffer's end";
  EXPECT_EQ(ReadASN1Contents(bits.data(), 3, p, 2), bits.data() + 1);
  EXPECT_EQ(ReadASN1BitString(bits.data(), 3).bitCount, 9u);
  EXPECT_THROW(ReadASN1BitString(bits.data(), 1), EASN1InvalidData) << "7 unused bits of none";
  Bytes out(GetASN1BitStringSize(13));
  WriteASN1BitString({13, {0xF0, 0x08}}, out.data(), out.size(), p = 0);
  EXPECT_EQ(out, (Bytes{0x03, 0xF0, 0x08}));
}

// The tree in JSON-like notation, strings with every byte visible.
std::string Dump(const CJSValue& v) {
  if (const auto* m = dynamic_cast<const CJSKeyedValue*>(&v))
    return "\"" + std::string(m->GetKey().View()) + "\":" + Dump(m->GetValue());
  if (v.IsNull()) return "null";
  if (dynamic_cast<const CJSString*>(&v)) return "\"" + Visible(v.GetString().View()) + "\"";
  if (dynamic_cast<const CJSBoolean*>(&v)) return v.GetBool() ? "true" : "false";
  if (dynamic_cast<const CJSInteger*>(&v)) return std::to_string(v.GetInt());
  std::string out;
  for (std::uint64_t i = 0; i < v.GetCount(); ++i) out += (i ? "," : "") + Dump(v.GetItem(i));
  return dynamic_cast<const CJSObject*>(&v) ? "{" + out + "}" : "[" + out + "]";
}

// Parses a heap copy of exactly the text's size, so that the memory checkers
// see a read past its end; `consumed` gets the bytes read.
CJSValuePtr ParseJS(const std::string& text, std::size_t* consumed = nullptr) {
  const std::vector<char> bytes(text.begin(), text.end());
  const char* position = bytes.data();
  CJSValuePtr value = ParseJSON(position, bytes.data() + bytes.size());
  if (consumed != nullptr) *consumed = static_cast<std::size_t>(position - bytes.data());
  return value;
}

TEST(JSONReader, TextGivesExpectedTreeAndConsumption) {
  const struct {
    int line;
    std::string text, tree;
    std::size_t consumed;
  } cases[] = {
      {__LINE__, "  truex", "true", 6},
      {__LINE__, "null", "null", 0},
      {__LINE__, "-5", "null", 0},
      {__LINE__, "1990.5", "1990", 4},
      {__LINE__, "99999999999999999999", "-1", 20},
      {__LINE__, R"("a\tb\"\'\\\b\f\n\r\v")", R"("a\tb"'\\\x08\x0C\x0A\x0D\x0B")", 22},
      {__LINE__, R"("\101\60x\0\777")", R"("A0x\x00\xC7\xBF")", 16},
      {__LINE__, R"("\x41\u00e9\u20AC")", R"("A\xC3\xA9\xE2\x82\xAC")", 18},
      {__LINE__, R"("\xZZ9\u12G45\q\é!")", R"("95!")", 20},
      {__LINE__, "\"a\\\nb\\\r\nc\\\n\rd\\\re\"", R"("abcde")", 17},
      {__LINE__, "\"a\nb\"", "null", 2},
      {__LINE__, R"("\u12")", "null", 3},
      {__LINE__, "\"\xFF\xC3(z\"", R"("??z")", 6},
      {__LINE__, "\"\xE2\x82", "null", 3},
      {__LINE__, "[1,2,]", "[1,2,null]", 6},
      {__LINE__, "[1 2]", "[1]", 4},
      {__LINE__, "[{\"a\" 1}, 2]", "[null]", 7},
      {__LINE__, R"({"ab":1,"cd":[true],"ab":"x",})", R"({"ab":1,"cd":[true],"ab":"x"})", 30},
      {__LINE__, R"({"a":})", R"({"a":null})", 6},
      {__LINE__, R"({"a":1 "b":2})", "null", 8},
      {__LINE__, R"({"a":1)", "null", 6},
      {__LINE__, R"({a:1})", "null", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "line " << c.line << ": " << Visible(c.text));
    std::size_t consumed = 0;
    EXPECT_EQ(Dump(*ParseJS(c.text, &consumed)), c.tree);
    EXPECT_EQ(consumed, c.consumed) << "bytes consumed";
  }
}

TEST(JSONReader, DeepNestingNeitherOverflowsTheStackNorLeaks) {
  const std::size_t depth = 200000;
  std::string objects, ends;
  for (std::size_t i = 0; i < depth; ++i) objects += "[{\"k\":", ends += "}]";
  EXPECT_TRUE(ParseJS(objects)->GetItem(0).IsNull()) << "unclosed objects fail as a whole";
  EXPECT_EQ(ParseJS(objects + "1" + ends)->GetItem(0).Find("k").GetItem(0).GetCount(), 1u);
}

TEST(CJSValue, QueriesForwardThroughMembersAndAbsentOnesGiveDefaults) {
  delete &GetJSNull();  // the shared null value must survive its owners
  CJSValuePtr root = ParseJS(R"({"name":"0a 0B f","flag":true,"list":[3,4],"sub":{"k":"v"},"e":})");
  EXPECT_EQ(root->Find("sub").Find("k").GetString().View(), "v");
  EXPECT_EQ(root->Find("list").GetItem(1).GetInt(), 4);
  EXPECT_EQ(root->GetItem(1).GetKey().View(), "flag") << "members keep document order";
  EXPECT_TRUE(root->GetItem(5).IsNull() && root->Find("Name").IsNull()) << "no such member";
  EXPECT_TRUE(root->Find("missing").Find("deeper").GetBoolOr(true)) << "absent: the default";
  EXPECT_FALSE(root->Find("name").GetBoolOr(true)) << "present non-boolean: false";
  EXPECT_FALSE(root->Find("e").GetBoolOr(true)) << "a member holding null is present";
  EXPECT_EQ(root->Find("name").GetBytes(), (CByteBuffer{0x0A, 0x0B, 0x0F}));
  EXPECT_EQ(CJSString(CUTF8String(" abc 1g2")).GetBytes(), (CByteBuffer{0xAB, 0x0C, 0x01}));
  EXPECT_EQ(ParseJS(R"({"zz":1,"0A0b":2})")->FindBytes({0x0A, 0x0B}).GetInt(), 2);
  EXPECT_EQ(ParseJS(R"({"zz":1,"":3})")->FindBytes({}).GetInt(), 1) << "first match in order";
  root.reset();
  EXPECT_TRUE(GetJSNull().IsNull()) << "deleting trees that hold the null value destroyed it";
}

// The reader's warnings go to the trace log, which must be switched on
// before the first trace call of the process.
const std::string& kLogs = TraceThisProcess();

CXMLNodeRef ParseXML(std::string_view text) {
  CUTF8String input(text.data(), text.size());
  CTStringCursor<CUTF8Encoding> cursor(input);
  return ParseXMLDocument(cursor);
}

// The tree as the writer gives it (texts unescaped and behind the children,
// processing instructions as empty elements), or the reader's error.
std::string Rewritten(std::string_view text) {
  try {
    return std::string(WriteXML(*ParseXML(text)).View());
  } catch (const CXMLException& e) {
    return "error: " + std::string(e.GetEvent().GetText().View());
  }
}

TEST(XMLReader, TextGivesExpectedTreeOrMessage) {
  const struct {
    int line;
    std::string text, tree;
  } cases[] = {
      {__LINE__, "<a x = '1'\n\ty=\"a'b\" x='&apos;&quot;&gt;&amp;'/>",
       "<a x='1' y='a&apos;b' x='&apos;&quot;&gt;&amp;'/>"},
      {__LINE__, "<?xml version='1.0'?><r>t</r>trailing junk <", "<r>t</r>"},
      {__LINE__, "<?xml version='1.0'?><?pi?><r/>", "<?pi/>"},
      {__LINE__, "<a><!--1--><!-- a -> b --><b/></a>", "<a><b/></a>"},
      {__LINE__, "<a> x <b/> y </a>", "<a><b/>xy</a>"},
      {__LINE__, "<a>a &amp; b &lt;\xC3\xA9\xFF</a>", "<a>a & b <\xC3\xA9?</a>"},
      {__LINE__, "<a>x  y<!-- - -- --->\n<b/>z</a >", "<a><b/>x  yz</a>"},
      {__LINE__, "<a><b><c d='e'/>t</b><?p q='r'?></a>", "<a><b><c d='e'/>t</b><?p q='r'/></a>"},
      {__LINE__, "<a:b-c.d _e=\"1\"></a:b-c.d>", "<a:b-c.d _e='1'/>"},
      {__LINE__, "<e v=\"it's &lt;&quot;&amp;&gt;\"/>", "<e v='it&apos;s &lt;&quot;&amp;&gt;'/>"},
      {__LINE__, "<?xml version='1.0'?>\n<r>t</r>", "error: XML: '<' character expected"},
      {__LINE__, "<a>x<!-- c -->y</a>", "error: XML: '<' character expected"},
      {__LINE__, "<a><![CDATA[x]]></a>", "error: XML: Tag name expected"},
      {__LINE__, "<a><b/><!--1--><!--2--><!--3--></a>", "error: XML: Tag name expected"},
      {__LINE__, "<?pi x='1'>", "error: XML: '?>' sequence expected"},
      {__LINE__, "<a></a", "error: XML: '>' character expected"},
      {__LINE__, "<a x='1'", "error: XML: '>' or '/>' sequence expected"},
      {__LINE__, "<a x>", "error: XML: '=' character expected"},
      {__LINE__, "<a x=1/>", "error: XML: Expecting quotes for attribute value"},
      {__LINE__, "<a x='1/>", "error: XML: End of file within attribute value"},
      {__LINE__, "<a x='&LT;'/>", "error: XML: Invalid character reference"},
      {__LINE__, "<a x='&#38;'/>", "error: XML: ';' character expected"},
      {__LINE__, "<a><b></b>", "error: XML: Unclosed tag"},
      {__LINE__, "<a>\xE2\x82", "error: XML: Unclosed tag"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Rewritten(c.text), c.tree) << "line " << c.line << ": " << Visible(c.text);
  CUTF8String input("<a><b/></a>rest");
  CTStringCursor<CUTF8Encoding> cursor(input);
  EXPECT_EQ(WriteXML(*ParseXMLElement(cursor)).View(), "<a><b/></a>");
  EXPECT_EQ(input.Tail(cursor).View(), "rest") << "the cursor must stop behind the element";
}

TEST(XMLReader, OdditiesAreTracedNotThrown) {
  EXPECT_EQ(Rewritten("<a>x</b>"), "<a>x</a>");
  EXPECT_EQ(Rewritten("<a><!-- never ends"), "error: XML: Unclosed tag");
  const std::string log = ReadLogs(kLogs);
  EXPECT_EQ(CountOf(log, "Warning: XML: Inconsistent ending tag"), 1) << log;
  EXPECT_EQ(CountOf(log, "Warning: XML Comment never ends"), 1) << log;
}

TEST(CXMLNode, DeepTreesAreWrittenWholeAndInnerHandlesKeepTheirSubtree) {
  const std::size_t depth = 100000;
  std::string open, close;
  for (std::size_t i = 0; i < depth; ++i) open += "<a>", close += "</a>";
  const std::string deep = open + "x" + close;
  CXMLNodeRef root = ParseXML(deep);
  EXPECT_EQ(WriteXML(*root).View(), deep);
  const CXMLNodeRef inner = root->GetChildren()[0]->GetChildren()[0];
  root.Reset();
  ASSERT_EQ(inner->GetChildren().size(), 1u) << "the released tree stripped a shared node";
  EXPECT_EQ(inner->GetChildren()[0]->GetChildren().size(), 1u);
}

}  // namespace
}  // namespace zelph
