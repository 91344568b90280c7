#include "common/base/CTFmtArgs.h"

#include <gtest/gtest.h>

#include <climits>
#include <string_view>

namespace zelph {
namespace {

using namespace std::string_view_literals;

TEST(FormatTemplate, PlaceholdersAndEscapes) {
  CUTF8FmtArgs xy;
  xy.Add("x").Add("y");
  struct Case {
    const char* templ;
    std::string_view expected;
  } cases[] = {
      {"100%%", "100%"sv},
      {"100%", "100"sv},
      {"a%zb", "ab"sv},
      {"%0", ""sv},
      {"%2 %1", "y x"sv},
      {"%10", "x0"sv},      // argument 1, then the text "0"
      {"%3", ""sv},         // missing argument
      {"[%1!!]", "[x]"sv},  // empty conversion, ignored by strings
      {"%1!s!", "x"sv},     // any conversion is ignored by strings
      {"%1!x", ""sv},       // unterminated conversion ends everything
      {"ab%1!x", "ab"sv},
      {"%1!x!", "x"sv},
      {"%1!", ""sv},
      {"%1 !", "x !"sv},     // "!" counts only right behind the digit
      {"a%\xC3(b", "ab"sv},  // "%" + invalid sequence: both dropped
      {"a\xED\xA0\x80"
       "b",
       "a?b"sv},
      {"a\xE2\x82", "a"sv},  // truncated final sequence ends the text
      {"\xE2\x82\xAC%1",
       "\xE2\x82\xAC"
       "x"sv},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Format(c.templ, xy).View(), c.expected) << "template \"" << c.templ << "\"";
  }
}

TEST(FormatTemplate, NoListRemovesEveryPlaceholder) {
  const CUTF8FmtArgs none;
  EXPECT_EQ(none.GetRecord(), nullptr);
  EXPECT_EQ(Format("a%1b%2!d!c%%", none).View(), "abc%"sv);
}

TEST(FormatTemplate, IsoTemplateReadsBytes) {
  CISOFmtArgs args;
  args.Add(42);
  const CISOString templ("\xC3\xA9=%1");  // one byte E9 in ISO
  EXPECT_EQ(Format(templ, args).View(), "\xE9=42"sv);
  EXPECT_EQ(Format(CISOString("\xFF%1!04x!", CISOString::kUntilZero), args).View(),
            "\xFF"
            "002a"sv)
      << "raw ISO bytes must pass through unchanged";
}

TEST(FormatIntegers, PlainAndConvertedText) {
  struct Case {
    const char* name;
    CUTF8FmtArgs args;
    const char* templ;
    std::string_view expected;
  };
  const Case cases[] = {
      {"hex conversion", CUTF8FmtArgs().Add(0x2A), "Code 0x%1!X!", "Code 0x2A"sv},
      {"string gives the same", CUTF8FmtArgs().Add("2A"), "Code 0x%1", "Code 0x2A"sv},
      {"zero-padded", CUTF8FmtArgs().Add(255), "%1!08X!", "000000FF"sv},
      {"INT_MIN plain", CUTF8FmtArgs().Add(INT_MIN), "%1", "-2147483648"sv},
      {"INT_MAX plain", CUTF8FmtArgs().Add(INT_MAX), "%1", "2147483647"sv},
      {"zero", CUTF8FmtArgs().Add(0), "%1", "0"sv},
      {"negative", CUTF8FmtArgs().Add(-7), "%1", "-7"sv},
      {"ULONG_MAX plain", CUTF8FmtArgs().Add(ULONG_MAX), "%1", "18446744073709551615"sv},
      {"unsigned hex", CUTF8FmtArgs().Add(0x80000000UL), "%1!lx!", "80000000"sv},
      {"unsigned int widens", CUTF8FmtArgs().Add(4000000000U), "%1", "4000000000"sv},
      {"cut at 38 characters", CUTF8FmtArgs().Add(1), "%1!50d!",
       std::string_view("                                      ", 38)},
      {"unsafe conversion falls back to plain", CUTF8FmtArgs().Add(5), "%1!s!", "5"sv},
      {"star conversion falls back to plain", CUTF8FmtArgs().Add(5), "%1!*d!", "5"sv},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Format(c.templ, c.args).View(), c.expected) << c.name;
  }
}

TEST(CTFmtArgsList, AppendNumbersAndSharing) {
  CUTF8FmtArgs a;
  a.Add("one");
  const CUTF8FmtArgs shared = a;
  EXPECT_EQ(shared.GetRecord(), a.GetRecord()) << "copy must share the record";
  EXPECT_EQ(a.GetRecord()->GetReferences(), 2);

  a.Add(2);
  EXPECT_NE(shared.GetRecord(), a.GetRecord()) << "appending to a shared list must split it";
  EXPECT_EQ(shared.GetCount(), 1u) << "the other holder must keep its arguments";
  EXPECT_EQ(a.GetCount(), 2u);
  EXPECT_NE(a.GetArg(1), shared.GetArg(1)) << "split lists need distinct argument objects";
  EXPECT_EQ(Format("%1 %2", a).View(), "one 2"sv);
  EXPECT_EQ(Format("%1 %2", shared).View(), "one "sv);
  EXPECT_EQ(a.GetArg(0), nullptr);
  EXPECT_EQ(a.GetArg(3), nullptr);
}

TEST(CTFmtArgsList, TableGrowsLikeStringBuffers) {
  CUTF8FmtArgs a;
  const std::uint64_t expected[] = {1, 3, 3, 6, 6, 6, 10};  // n, then n + (old + 1) / 2
  for (std::uint64_t i = 0; i < std::size(expected); ++i) {
    a.Add(static_cast<int>(i));
    EXPECT_EQ(a.GetRecord()->capacity, expected[i]) << "after " << i + 1 << " arguments";
  }
  EXPECT_EQ(Format("%7%1", a).View(), "60"sv);
}

TEST(CTFmtArgsList, StringArgumentSharesItsString) {
  const CUTF8String value("shared text");
  CUTF8FmtArgs a;
  a.Add(value);
  const auto* arg = dynamic_cast<const CTStrFmtArg<CUTF8Encoding>*>(a.GetArg(1));
  ASSERT_NE(arg, nullptr) << "a string must be stored as a string argument";
  EXPECT_EQ(arg->GetString().GetBuffer(), value.GetBuffer());
  EXPECT_EQ(Format("%1", a).GetBuffer(), value.GetBuffer())
      << "a lone placeholder should hand out the argument's buffer";
}

}  // namespace
}  // namespace zelph
