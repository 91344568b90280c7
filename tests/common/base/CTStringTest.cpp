#include "common/base/CTString.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace zelph {
namespace {

using namespace std::string_view_literals;

std::string Hex(std::string_view bytes) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
    out += ' ';
  }
  return out;
}

struct DecodeCase {
  const char* name;
  const char* input;
  std::string_view utf8;  // bytes of the UTF-8 string built from input
};

TEST(CTStringDecode, ZeroTerminatedInputYieldsExpectedBytes) {
  const DecodeCase cases[] = {
      {"plain ASCII", "abc", "abc"sv},
      {"lead byte before terminator drops the sequence", "a\xC3", "a"sv},
      {"bad continuation consumes the whole sequence", "a\xC3(b", "a?b"sv},
      {"3-byte sequence cut by terminator gives nothing", "\xE2\x82", ""sv},
      {"4-byte sequence cut after 2 continuations", "x\xF0\x9F\x98", "x"sv},
      {"bad middle continuation eats all three", "\xE2(\x82z", "?z"sv},
      {"invalid lead 0x80 is one ?", "\x80z", "?z"sv},
      {"invalid lead 0xF8 is one ?", "\xF8z", "?z"sv},
      {"invalid lead 0xFF is one ?", "\xFF", "?"sv},
      {"overlong NUL kept as a zero byte", "a\xC0\x80z", "a\0z"sv},
      {"overlong 0x7F kept", "\xC1\xBF", "\x7F"sv},
      {"encoded surrogate becomes ?", "\xED\xA0\x80", "?"sv},
      {"last surrogate becomes ?", "\xED\xBF\xBF", "?"sv},
      {"U+FFFE becomes ?", "\xEF\xBF\xBE", "?"sv},
      {"U+FFFF kept", "\xEF\xBF\xBF", "\xEF\xBF\xBF"sv},
      {"two-byte e acute kept", "\xC3\xA9", "\xC3\xA9"sv},
      {"euro sign kept", "\xE2\x82\xAC", "\xE2\x82\xAC"sv},
      {"4-byte U+1F600 kept", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"sv},
      {"4-byte beyond U+10FFFF up to 0x1FFFFF kept", "\xF7\xBF\xBF\xBF", "\xF7\xBF\xBF\xBF"sv},
  };
  for (const DecodeCase& c : cases) {
    const CUTF8String s(c.input);
    EXPECT_EQ(s.View(), c.utf8) << c.name << ": got " << Hex(s.View()) << ", want " << Hex(c.utf8);
    EXPECT_EQ(s.Size(), c.utf8.size()) << c.name;
  }
}

TEST(CTStringDecode, DecoderReturnsValuesAndStopsAtTruncation) {
  struct Case {
    const char* input;
    std::vector<std::int32_t> chars;
  } cases[] = {
      {"\xC0\x80", {0}},
      {"\xC1\xBF", {0x7F}},
      {"\xF7\xBF\xBF\xBF", {0x1FFFFF}},
      {"\xED\xA0\x80", {0xD800}},
      {"\xEF\xBF\xBE", {kInvalidChar}},
      {"a\xC3(b", {'a', kInvalidChar, 'b'}},
      {"a\xE2\x82", {'a'}},
  };
  for (const Case& c : cases) {
    const char* p = c.input;
    std::vector<std::int32_t> got;
    for (std::int32_t ch = DecodeUTF8(p); ch >= 0; ch = DecodeUTF8(p)) got.push_back(ch);
    EXPECT_EQ(got, c.chars) << "input " << Hex(c.input);
    EXPECT_EQ(*p, 0) << "decoder must rest on the terminator after " << Hex(c.input);
    EXPECT_EQ(DecodeUTF8(p), -1) << "end must be sticky for " << Hex(c.input);
  }
}

TEST(CTStringConstruct, IsoStoresBytesBelow256AndQuestionMarkOtherwise) {
  EXPECT_EQ(CISOString("\xC3\xA9\xE2\x82\xAC").View(), "\xE9?"sv) << "é€ in ISO-8859-1";
  EXPECT_EQ(CISOString("a\xC3(b").View(), "a?b"sv);
  EXPECT_EQ(CISOString("\xC3\xBF\xC4\x80").View(), "\xFF?"sv) << "U+00FF kept, U+0100 not";
  EXPECT_EQ(CISOString("\xED\xA0\x80").View(), "?"sv);
}

TEST(CTStringConstruct, NullAndEmptyInputGiveTheNullString) {
  EXPECT_EQ(CUTF8String(nullptr).GetBuffer(), nullptr);
  EXPECT_EQ(CUTF8String("").GetBuffer(), nullptr);
  EXPECT_EQ(CUTF8String("\xE2\x82").GetBuffer(), nullptr) << "truncated input stores nothing";
  const CUTF8String empty;
  EXPECT_TRUE(empty.IsEmpty());
  EXPECT_STREQ(empty.c_str(), "") << "c_str of the null string must be usable";
}

TEST(CTStringConstruct, RawCopyKeepsBytesUndecoded) {
  const CUTF8String counted(
      "a\0\xFF"
      "b",
      4);
  EXPECT_EQ(counted.View(),
            "a\0\xFF"
            "b"sv)
      << "raw copy must keep zero and invalid bytes";
  EXPECT_EQ(counted.GetBuffer()->length, 5u) << "count + 1 bytes with the terminator";
  EXPECT_EQ(counted.c_str()[4], 0);

  const CUTF8String untilZero("ab\0cd", CUTF8String::kUntilZero);
  EXPECT_EQ(untilZero.View(), "ab"sv);
  EXPECT_EQ(CUTF8String(nullptr, 3).GetBuffer(), nullptr);
}

TEST(CTStringBuffer, GrowthRuleAddsHalfTheOldCapacity) {
  struct Case {
    std::uint64_t capacity, request, expected;
  } cases[] = {
      {10, 11, 16},  // 11 + 11/2
      {11, 12, 18},  // 12 + 12/2
      {10, 10, 10},  // fits: no reallocation
      {10, 4, 10},   // never shrinks
      {1, 2, 3},
  };
  for (const Case& c : cases) {
    CTStringBuffer b;
    b.SetLength(c.capacity);
    ASSERT_EQ(b.capacity, c.capacity) << "first allocation is exact";
    b.data[0] = 'x';
    b.SetLength(c.request);
    EXPECT_EQ(b.capacity, c.expected) << "capacity " << c.capacity << " set to " << c.request;
    EXPECT_EQ(b.length, c.request);
    EXPECT_EQ(b.data[0], 'x') << "growth must keep the old bytes";
  }
}

TEST(CTStringBuffer, InsertEraseAndStoreKeepTheTerminator) {
  CTStringBuffer b;
  b.InsertBytes(0, "ace", 3);
  EXPECT_STREQ(b.data, "ace");
  EXPECT_EQ(b.length, 4u);
  b.InsertByte(1, 'b');
  b.InsertBytes(3, "d", 1);
  EXPECT_STREQ(b.data, "abcde");
  b.EraseBytes(1, 3);
  EXPECT_STREQ(b.data, "ae");
  EXPECT_EQ(b.length, 3u);
  EXPECT_GE(b.capacity, 6u) << "erasing must not shrink the allocation";
  b.StoreBytes("xyz", 4);
  EXPECT_STREQ(b.data, "xyz");
  b.StoreBytes(nullptr, 0);
  EXPECT_EQ(b.data, nullptr);
  EXPECT_EQ(b.length + b.capacity, 0u);
}

TEST(CTStringBuild, AppendingCharactersFollowsGrowthRule) {
  CUTF8String s;
  s.AppendChar('a');
  ASSERT_NE(s.GetBuffer(), nullptr);
  EXPECT_EQ(s.GetBuffer()->capacity, 2u) << "first character makes a buffer of length 2";
  EXPECT_EQ(s.GetBuffer()->references, 1);
  s.AppendChar('b');
  EXPECT_EQ(s.GetBuffer()->capacity, 4u) << "3 + (2 + 1) / 2";
  s.AppendChar('c');
  EXPECT_EQ(s.GetBuffer()->capacity, 4u);
  EXPECT_STREQ(s.c_str(), "abc");
}

TEST(CTStringBuild, AppendCharEncodesPerEncoding) {
  struct Case {
    std::uint32_t codepoint;
    std::string_view utf8, iso;
  } cases[] = {
      {0x41, "A"sv, "A"sv},
      {0xE9, "\xC3\xA9"sv, "\xE9"sv},
      {0x7FF, "\xDF\xBF"sv, "?"sv},
      {0x800, "\xE0\xA0\x80"sv, "?"sv},
      {0xD800, "?"sv, "?"sv},
      {0xDFFF, "?"sv, "?"sv},
      {0xFFFE, "?"sv, "?"sv},
      {0xFFFF, "\xEF\xBF\xBF"sv, "?"sv},
      {0x10000, "\xF0\x90\x80\x80"sv, "?"sv},
      {0x1FFFFF, "\xF7\xBF\xBF\xBF"sv, "?"sv},
  };
  for (const Case& c : cases) {
    CUTF8String u;
    u.AppendChar(c.codepoint);
    EXPECT_EQ(u.View(), c.utf8) << "UTF-8 of U+" << std::hex << c.codepoint;
    CISOString i;
    i.AppendChar(c.codepoint);
    EXPECT_EQ(i.View(), c.iso) << "ISO of U+" << std::hex << c.codepoint;
  }
}

TEST(CTStringSharing, CopySharesUntilTheFirstWrite) {
  CUTF8String original("hello");
  CUTF8String copy = original;
  EXPECT_EQ(copy.GetBuffer(), original.GetBuffer()) << "copy must share the buffer";
  EXPECT_EQ(original.GetBuffer()->references, 2);

  original += " world";
  EXPECT_STREQ(copy.c_str(), "hello") << "copy must keep its text after the original changes";
  EXPECT_STREQ(original.c_str(), "hello world");
  EXPECT_NE(copy.GetBuffer(), original.GetBuffer());
  EXPECT_EQ(copy.GetBuffer()->references, 1);

  CUTF8String third = copy;
  char* w = third.GetWritable();
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(third.GetBuffer()->capacity, 6u) << "private copy is sized exactly";
  w[0] = 'j';
  EXPECT_STREQ(third.c_str(), "jello");
  EXPECT_STREQ(copy.c_str(), "hello") << "writing through GetWritable must not touch the copy";
  EXPECT_EQ(CUTF8String().GetWritable(), nullptr);
}

TEST(CTStringSharing, AssignmentAndMoveKeepCountsRight) {
  CUTF8String a("x");
  CUTF8String b("y");
  b = a;
  EXPECT_EQ(a.GetBuffer()->references, 2);
  b = a;
  EXPECT_EQ(a.GetBuffer()->references, 2) << "assigning the same buffer twice must not count twice";
  CUTF8String c(std::move(b));
  EXPECT_EQ(a.GetBuffer()->references, 2) << "a move must not add a reference";
  EXPECT_EQ(b.GetBuffer(), nullptr);
  c = CUTF8String();
  EXPECT_EQ(a.GetBuffer()->references, 1);
}

TEST(CTStringAppend, ConcatenationDecodesOnlyTheTextSide) {
  const CISOString base("ab");
  const CISOString joined = base + "\xC3\xA9\xE2\x82\xAC";
  EXPECT_EQ(joined.View(), "ab\xE9?"sv);
  EXPECT_STREQ(base.c_str(), "ab") << "the left operand must stay unchanged";

  CUTF8String s("a");
  s += CUTF8String("\xFF\xFE", 2);
  EXPECT_EQ(s.View(), "a\xFF\xFE"sv) << "appending a string copies its bytes as they are";
  s += s;
  EXPECT_EQ(s.View(),
            "a\xFF\xFE"
            "a\xFF\xFE"sv)
      << "self-append";

  CUTF8String empty;
  const CUTF8String other("shared");
  empty += other;
  EXPECT_EQ(empty.GetBuffer(), other.GetBuffer()) << "appending to an empty string shares";
}

TEST(CTStringCursor, Utf8NextDecodesAndReportsTheEnd) {
  struct Case {
    const char* name;
    std::string_view bytes;
    std::vector<std::int32_t> chars;
    std::uint64_t finalIndex;
  } cases[] = {
      {"mixed", "a\xC3\xA9\xE2\x82\xAC"sv, {'a', 0xE9, 0x20AC}, 6},
      {"truncated final sequence is the end", "a\xE2\x82"sv, {'a'}, 3},
      {"lone lead at the end is the end", "a\xC3"sv, {'a'}, 2},
      {"bad continuation eats the sequence", "\xE2(\x82z"sv, {kInvalidChar, 'z'}, 4},
      {"invalid lead moves by one", "\xBFz"sv, {kInvalidChar, 'z'}, 2},
      {"embedded zero byte is a character", "a\0b"sv, {'a', 0, 'b'}, 3},
      {"surrogate value is reported as is", "\xED\xA0\x80"sv, {0xD800}, 3},
  };
  for (const Case& c : cases) {
    CUTF8String s(c.bytes.data(), c.bytes.size());
    CTStringCursor<CUTF8Encoding> cursor(s);
    std::vector<std::int32_t> got;
    for (std::int32_t ch = cursor.Next(); ch >= 0; ch = cursor.Next()) got.push_back(ch);
    EXPECT_EQ(got, c.chars) << c.name;
    EXPECT_EQ(cursor.GetIndex(), c.finalIndex) << c.name;
    EXPECT_EQ(cursor.Next(), -1) << c.name << ": end must be sticky";
  }
  CUTF8String null;
  EXPECT_EQ(CTStringCursor<CUTF8Encoding>(null).Next(), -1);
}

TEST(CTStringCursor, IsoNextReturnsBytesAndPeekDoesNotMove) {
  CISOString s("\xC3\xA9z");
  CTStringCursor<CISOEncoding> cursor(s);
  EXPECT_EQ(cursor.Peek(), 0xE9);
  EXPECT_EQ(cursor.GetIndex(), 0u) << "Peek must not move";
  EXPECT_EQ(cursor.Next(), 0xE9) << "bytes are unsigned 0-255";
  EXPECT_EQ(cursor.Next(), 'z');
  EXPECT_EQ(cursor.Next(), -1);
}

TEST(CTStringCursor, InsertEncodesAndMovesPast) {
  CUTF8String s;
  CTStringCursor<CUTF8Encoding> cursor(s);
  cursor.Insert('b');
  EXPECT_EQ(s.GetBuffer()->length, 2u) << "insert into the empty string makes length 2";
  cursor.SetIndex(0);
  cursor.Insert(0x20AC);
  EXPECT_EQ(cursor.GetIndex(), 3u);
  EXPECT_EQ(s.View(),
            "\xE2\x82\xAC"
            "b"sv);
  cursor.Insert(0xD800);
  EXPECT_EQ(s.View(), "\xE2\x82\xAC?b"sv) << "a surrogate is inserted as ?";

  const CUTF8String before = s;
  cursor.SetIndex(100);
  cursor.Insert('!');
  EXPECT_EQ(s.View(), "\xE2\x82\xAC?b!"sv) << "an index past the end appends";
  EXPECT_EQ(before.View(), "\xE2\x82\xAC?b"sv) << "insert must not write a shared buffer";

  CISOString iso("ac");
  CTStringCursor<CISOEncoding> isoCursor(iso, 1);
  isoCursor.Insert(0xE9);
  isoCursor.Insert(0x20AC);
  EXPECT_EQ(iso.View(), "a\xE9?c"sv);
}

TEST(CTStringTail, TailFromCursor) {
  CUTF8String s("hello");
  CTStringCursor<CUTF8Encoding> cursor(s);
  const CUTF8String whole = s.Tail(cursor);
  EXPECT_EQ(whole.GetBuffer(), s.GetBuffer()) << "tail from 0 must share the buffer";
  cursor.SetIndex(2);
  EXPECT_STREQ(s.Tail(cursor).c_str(), "llo");
  cursor.SetIndex(5);
  EXPECT_EQ(s.Tail(cursor).GetBuffer(), nullptr) << "tail at the end is empty";
  cursor.SetIndex(9);
  EXPECT_TRUE(s.Tail(cursor).IsEmpty());

  CUTF8String other("hello");
  CTStringCursor<CUTF8Encoding> foreign(other, 1);
  EXPECT_TRUE(s.Tail(foreign).IsEmpty()) << "a cursor of another string gives the empty string";
}

TEST(CTStringCompare, IsoAgainstUtf8Text) {
  struct Case {
    const char* iso;  // decoded into an ISO string; null gives the null string
    const char* text;
    int expected;
  } cases[] = {
      {nullptr, nullptr, 0},
      {nullptr, "", 0},
      {"", "x", -1},
      {"a", nullptr, 1},
      {"a", "", 1},
      {"ab", "a", 1},
      {"a", "ab", -1},
      {"ab", "ab", 0},
      {"Ab", "ab", -1},
      {"b", "a", 1},
      {"\xC3\xA9", "\xC3\xA9", 0},   // E9 against U+00E9
      {"\xC3\xBF", "\xC4\x80", -1},  // FF against U+0100
      {"a", "a\xC3", 0},             // truncated text tail is no character
      {"?", "\xE2\x82\xAC", -1},     // stored "?" is not the euro sign
      {"a", "\xC3(", -1},            // the invalid marker is above any byte
  };
  for (const Case& c : cases) {
    const CISOString s(c.iso);
    EXPECT_EQ(s.Compare(c.text), c.expected) << "ISO \"" << (c.iso ? c.iso : "(null)") << "\" vs \""
                                             << (c.text ? c.text : "(null)") << "\"";
  }
}

TEST(CTStringCompare, Utf8AgainstUtf8Text) {
  EXPECT_EQ(CUTF8String("\xE2\x82\xAC").Compare("\xE2\x82\xAC"), 0);
  EXPECT_EQ(CUTF8String("\xC3\xA9").Compare("\xE2\x82\xAC"), -1) << "compares code points";
  EXPECT_EQ(CUTF8String("\xED\xA0\x80").Compare("\xED\xA0\x80"), 0)
      << "a string must compare equal to the text it was decoded from";
  EXPECT_EQ(CUTF8String("\xEF\xBF\xBF").Compare("\xEF\xBF\xBE"), 1) << "U+FFFF > ?";
  EXPECT_EQ(CUTF8String("abc").Compare("abd"), -1);
  EXPECT_EQ(CUTF8String().Compare("a"), -1);
}

TEST(CTStringCompare, EqualityAndOrderAreByteWise) {
  EXPECT_EQ(CUTF8String(), CUTF8String("", 0)) << "null equals an allocated empty string";
  EXPECT_EQ(CUTF8String("a\xC3(b"), CUTF8String("a?b"));
  EXPECT_NE(CUTF8String("a"), CUTF8String("a\0", 2));
  EXPECT_LT(CUTF8String("a"), CUTF8String("b"));
}

TEST(CTStringConvert, IsoToUtf8EncodesEachByte) {
  EXPECT_EQ(ToUTF8(CISOString("\xC3\xA9"
                              "a"))
                .View(),
            "\xC3\xA9"
            "a"sv);
  EXPECT_TRUE(ToUTF8(CISOString()).IsEmpty());
}

}  // namespace
}  // namespace zelph
