#include "common/formats/JSONReader.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/formats/CJSValue.h"

namespace zelph {
namespace {

// Control and non-ASCII bytes as \xNN, so that failures show every byte.
std::string Quote(const CUTF8String& text) {
  std::string out = "\"";
  for (const char c : text.View()) {
    const auto b = static_cast<unsigned char>(c);
    if (b < 0x20 || b >= 0x7F) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", b);
      out += hex;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// The tree in JSON-like notation; the null value shows as null.
std::string Dump(const CJSValue& value) {
  if (value.IsNull()) return "null";
  if (dynamic_cast<const CJSString*>(&value)) return Quote(value.GetString());
  if (dynamic_cast<const CJSBoolean*>(&value)) return value.GetBool() ? "true" : "false";
  if (dynamic_cast<const CJSInteger*>(&value)) return std::to_string(value.GetInt());
  std::string out;
  if (dynamic_cast<const CJSArray*>(&value)) {
    for (std::uint64_t i = 0; i < value.GetCount(); ++i) {
      out += (i ? "," : "") + Dump(value.GetItem(i));
    }
    return "[" + out + "]";
  }
  if (dynamic_cast<const CJSObject*>(&value)) {
    for (std::uint64_t i = 0; i < value.GetCount(); ++i) {
      const auto& member = dynamic_cast<const CJSKeyedValue&>(value.GetItem(i));
      out += (i ? "," : "") + Quote(member.GetKey()) + ":" + Dump(member.GetValue());
    }
    return "{" + out + "}";
  }
  return "<unknown value class>";
}

// Parses `text` from a heap copy of exactly its size (so that a read past
// the end is caught by the memory checkers) and reports the bytes consumed.
CJSValuePtr Parse(const std::string& text, std::size_t* consumed = nullptr) {
  const std::vector<char> bytes(text.begin(), text.end());
  const char* begin = bytes.data();
  const char* position = begin;
  CJSValuePtr value = ParseJSON(position, begin + bytes.size());
  if (consumed != nullptr) *consumed = static_cast<std::size_t>(position - begin);
  return value;
}

struct ParseCase {
  std::string text;
  std::string tree;
  std::size_t consumed;
};

const ParseCase kParseCases[] = {
    // Scalars and what is left unread.
    {"  true", "true", 6},
    {"false,", "false", 5},
    {"truex", "true", 4},
    {"tru", "null", 0},
    {"null", "null", 0},
    {"-5", "null", 0},
    {"1.5", "1", 1},
    {"007", "7", 3},
    {"4294967295", "-1", 10},
    {"99999999999999999999", "-1", 20},
    {"", "null", 0},
    {" \t\r\n", "null", 4},
    // Strings: C escapes, continuations, failures.
    {R"("a\tb\"\'\\")", R"("a\x09b"'\")", 12},
    {R"("\b\f\n\r\v")", R"("\x08\x0C\x0A\x0D\x0B")", 12},
    {R"("\101\60x\0")", R"("A0x\x00")", 12},
    {R"("\777")", R"("\xC7\xBF")", 6},
    {R"("\x41\u00e9\u20AC")", R"("A\xC3\xA9\xE2\x82\xAC")", 18},
    {R"("\xZZ9\u12G45")", R"("95")", 14},
    {R"("\ud800\uFFFE")", R"("??")", 14},
    {R"("\q\é!")", R"("!")", 8},
    {"\"a\\\nb\\\r\nc\\\n\rd\\\re\"", R"("abcde")", 17},
    {"\"a\nb\"", "null", 2},
    {R"("abc)", "null", 4},
    {R"("\x4)", "null", 3},
    {R"("\u12")", "null", 3},
    {"\"\xFF\xC3(z\"", R"("??z")", 6},
    {"\"\xC3\"", "null", 3},
    {"\"\xE2\x82", "null", 3},
    // Arrays: one separator byte, whatever it is.
    {"[1,2,]", "[1,2,null]", 6},
    {"[1 2]", "[1]", 4},
    {"[]", "[null]", 2},
    {"[", "[null]", 1},
    {"[1,", "[1,null]", 3},
    {"[ [1,[true]] , {\"k\":[false]} ]", R"([[1,[true]],{"k":[false]}])", 30},
    {"[{\"a\" 1}, 2]", "[null]", 7},
    // Objects: trailing comma accepted, any error voids the object.
    {R"({"a":1,})", R"({"a":1})", 8},
    {R"({ "a" : "x" , "a" : 2 })", R"({"a":"x","a":2})", 23},
    {"{}", "{}", 2},
    {R"({"a":})", R"({"a":null})", 6},
    {R"({"a" 1})", "null", 5},
    {R"({"a":1 "b":2})", "null", 8},
    {R"({"a":1)", "null", 6},
    {R"({a:1})", "null", 1},
    {R"({"a)", "null", 3},
    {"{\"a\":{\"b\":[1,2]}}", R"({"a":{"b":[1,2]}})", 17},
};

TEST(JSONReader, TextGivesExpectedTreeAndConsumption) {
  for (const auto& c : kParseCases) {
    std::size_t consumed = 0;
    const CJSValuePtr value = Parse(c.text, &consumed);
    EXPECT_EQ(Dump(*value), c.tree) << "input: " << c.text;
    EXPECT_EQ(consumed, c.consumed) << "bytes consumed from: " << c.text;
  }
}

TEST(JSONReader, EveryPrefixOfValidDocumentsIsSafe) {
  // Cutting a document anywhere must neither crash nor read past the cut.
  const std::string documents[] = {
      R"({"files":["a.bin","b\x41\u00e9\101"],"n":12,"ok":true,"o":{"x":[[],{}]}})",
      "[\"\xE2\x82\xAC\", \"\\\r\n\", false, 0]",
  };
  for (const auto& document : documents) {
    for (std::size_t n = 0; n <= document.size(); ++n) {
      std::size_t consumed = 0;
      const CJSValuePtr value = Parse(document.substr(0, n), &consumed);
      EXPECT_LE(consumed, n) << "prefix of length " << n << " of " << document;
    }
  }
}

TEST(JSONReader, DeepNestingNeitherOverflowsNorLeaks) {
  const std::size_t depth = 200000;
  const CJSValuePtr arrays = Parse(std::string(depth, '['));
  const CJSValue* item = arrays.get();
  std::size_t levels = 0;
  while (dynamic_cast<const CJSArray*>(item) != nullptr) {
    item = &item->GetItem(0);
    ++levels;
  }
  EXPECT_EQ(levels, depth) << "every [ opens one array";

  std::string objects;
  for (std::size_t i = 0; i < depth; ++i) objects += "{\"k\":";
  EXPECT_TRUE(Parse(objects)->IsNull()) << "unclosed objects fail as a whole";
  objects += "1" + std::string(depth, '}');
  EXPECT_EQ(Parse(objects)->Find("k").Find("k").Find("k").GetCount(), 1u);
}

TEST(CJSValue, NullValueSurvivesDeletionAlsoInsideTrees) {
  CJSValue* null = &GetJSNull();
  delete null;
  CJSValuePtr tree = Parse("[x, {\"a\":}, [], 1]");  // three nulls inside
  tree.reset();
  EXPECT_TRUE(GetJSNull().IsNull());
  EXPECT_TRUE(GetJSNull().GetBoolOr(true)) << "the null value must still answer queries";
  EXPECT_EQ(&GetJSNull().Find("x"), &GetJSNull());
}

TEST(CJSValue, QueriesOnMembersForwardToTheirValues) {
  const CJSValuePtr root =
      Parse(R"({"name":"n","flag":true,"num":7,"list":[3,4],"sub":{"k":"v"},"s":"x","e":})");
  EXPECT_EQ(root->GetCount(), 7u);
  EXPECT_EQ(root->Find("name").GetKey().View(), "name");
  EXPECT_EQ(root->Find("name").GetString().View(), "n");
  EXPECT_TRUE(root->Find("flag").GetBool());
  EXPECT_EQ(root->Find("num").GetInt(), 7);
  EXPECT_EQ(root->Find("list").GetCount(), 2u);
  EXPECT_EQ(root->Find("list").GetItem(1).GetInt(), 4);
  EXPECT_EQ(root->Find("sub").Find("k").GetString().View(), "v");
  EXPECT_EQ(root->GetItem(2).GetKey().View(), "num") << "members keep document order";
  EXPECT_TRUE(root->GetItem(7).IsNull()) << "an object checks the index";
  EXPECT_TRUE(root->Find("Name").IsNull()) << "keys are case-sensitive";
  EXPECT_TRUE(root->Find("missing").Find("deeper").GetItem(3).IsNull());
  EXPECT_TRUE(root->Find("missing").GetBoolOr(true)) << "absent: the default";
  EXPECT_FALSE(root->Find("s").GetBoolOr(true)) << "present non-boolean: false";
  EXPECT_FALSE(root->Find("e").GetBoolOr(true)) << "a member holding null is present";
  EXPECT_EQ(root->Find("num").GetString().View(), "") << "wrong type gives the default";
  EXPECT_EQ(root->GetString().View(), "");
}

TEST(CJSValue, HexBytesOfStringsAndByteKeys) {
  struct Case {
    const char* text;
    CByteBuffer bytes;
  };
  const Case cases[] = {
      {"0a 0B f", {0x0A, 0x0B, 0x0F}},
      {"1g", {0x01}},
      {" abc", {0xAB, 0x0C}},
      {"\t12\n34 ", {0x12, 0x34}},
      {"1 2", {0x01, 0x02}},
      {"", {}},
      {"xyz", {}},
      {"a\xFF"
       "b",
       {0x0A}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CJSString(CUTF8String(c.text)).GetBytes(), c.bytes) << "text: " << c.text;
  }

  const CJSValuePtr root = Parse(R"({"zz":1,"0A0b":2,"":3,"0a 0B":4})");
  EXPECT_EQ(root->FindBytes({0x0A, 0x0B}).GetInt(), 2) << "first match in document order";
  EXPECT_EQ(root->FindBytes({}).GetInt(), 1) << "a key decoding to nothing matches empty bytes";
  EXPECT_TRUE(root->FindBytes({0x0A}).IsNull());
  EXPECT_EQ(root->Find("0a 0B").GetBytes(), CByteBuffer()) << "4 is not hexadecimal text";
}

}  // namespace
}  // namespace zelph
