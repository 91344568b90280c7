#include "common/config/CConfigSection.h"

#include <unistd.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "ConfigTestFiles.h"

namespace zelph {
namespace {

// Writes `text` to a real file in `dir` and loads it.
std::unique_ptr<CConfigSection> LoadText(const CTempDir& dir, const std::string& text) {
  WriteFile(dir.File("test.conf"), text);
  return CConfigSection::Load(dir.File("test.conf").c_str());
}

std::string FileOf(const CConfigSection& top) {
  return ReadFile(ToStd(top.GetFileName()));
}

struct ParseCase {
  const char* label;
  std::string text;
  std::string tree;   // Dump() of the result
  bool survivesSave;  // false: a saved empty value ("k = \n") takes the next line on reload
};

const ParseCase kParseCases[] = {
    {"white space only", "\n \t\r\n", "", true},
    {"blanks around = dropped", "a=1\nb = 2 \n", R"(a="1";b="2";)", true},
    {"inner spaces kept", "name with spaces = value with spaces\n",
     R"(name with spaces="value with spaces";)", true},
    {"trace section", "Quillon {\n EnableTrace = 1\n Trace = /tmp/logs\n}\n",
     R"(Quillon{EnableTrace="1";Trace="/tmp/logs";})", true},
    {"= at line end takes next non-empty line", "k =\n\n  \nnext = 1\n", R"(k="next = 1";)", true},
    {"top-level } ends the file", "a = 1\n}\nk = 1\n", R"(a="1";)", true},
    {"} on a value line belongs to the value", "S { k = v }\nx = 1\n", R"(S{k="v }";x="1";})",
     true},
    {"bare words are empty values", "alpha\nbeta = 2\n", R"(alpha="";beta="2";)", false},
    {"bare word before } or at end dropped", "S {\nk = 1\nbare}\nt = 2\nlast", R"(t="2";S{k="1";})",
     true},
    {"nameless block ends its section too", "S {\n{ {x} = 1 }\ny = 2\n}\nz = 3\n", R"(y="2";S{})",
     true},
    {"nameless = line skipped", "= junk\nk = 1\n", R"(k="1";)", true},
    {"duplicates kept", "k = 1\nk = 2\nS {\n}\nS {\n}\n", R"(k="1";k="2";S{}S{})", true},
    {"# is an ordinary key", "# comment\n#k = v\n", R"(# comment="";#k="v";)", false},
    {"CR LF line ends", "a = 1\r\nS {\r\n\tb = 2\r\n}\r\nc\r\n", R"(a="1";c="";S{b="2";})", true},
    {"specials inside a value", "url = http://x/?a=b{c}\n", R"(url="http://x/?a=b{c}";)", true},
    {"name then { on next line", "S\n{\nk = 1\n}\nafter = 1\n", R"(S="";)", true},
    {"nested sections", "O {\n I {\n  k = v\n }\n o = 2\n}\n", R"(O{o="2";I{k="v";}})", true},
    {"malformed UTF-8 read as ?", "k\xFF = v\xC3(x\n", R"(k?="v?x";)", true},
    {"cut-off sequence is end of text", "k = v\xE2\x82", R"(k="v";)", true},
};

TEST(CConfigSectionLoad, FileTextGivesExpectedTree) {
  CTempDir dir;
  for (const ParseCase& c : kParseCases) {
    EXPECT_EQ(Dump(*LoadText(dir, c.text)), c.tree) << "wrong tree for case \"" << c.label << "\"";
  }
}

TEST(CConfigSectionLoad, SaveThenLoadGivesSameTree) {
  CTempDir dir;
  for (const ParseCase& c : kParseCases) {
    if (!c.survivesSave) continue;
    const auto top = LoadText(dir, c.text);
    ASSERT_TRUE(top->Save()) << c.label;
    EXPECT_EQ(Dump(*CConfigSection::Load(top->GetFileName())), c.tree)
        << "save and reload changed the tree of case \"" << c.label << "\"; saved:\n"
        << FileOf(*top);
  }
}

TEST(CConfigSectionLoad, FileLongerThanOneReadPieceIsReadWhole) {
  CTempDir dir;
  std::string text;
  for (int i = 0; i < 300; ++i) text += "key" + std::to_string(i) + " = value\n";
  EXPECT_EQ(LoadText(dir, text)->GetEntries().size(), 300u);
}

TEST(CConfigSectionLookup, FirstExactMatchWins) {
  CTempDir dir;
  const auto top = LoadText(dir,
                            "k = 1\nk = 2\nS {\na = first\n}\nS {\na = second\n}\n"
                            "k\xFF = odd\nempty\n");
  EXPECT_EQ(ToStd(top->GetValue("k")), "1");
  EXPECT_EQ(ToStd(top->GetValue("K")), "") << "keys are case-sensitive";
  EXPECT_EQ(ToStd(top->GetValue(" k")), "") << "keys are not trimmed";
  EXPECT_EQ(ToStd(top->GetValue("k\xFF")), "odd")
      << "a malformed key in the file must match the same text given by the caller";
  EXPECT_EQ(ToStd(top->GetSection("S").GetValue("a")), "first");
  EXPECT_EQ(ToStd(top->GetValue("empty")), "");
  EXPECT_TRUE(top->HasValue("empty")) << "a key with an empty value is still present";
  EXPECT_FALSE(top->HasValue("absent"));
}

TEST(CConfigSectionLookup, GetSectionAddsOnceAndOnlyInMemory) {
  CTempDir dir;
  const auto top = LoadText(dir, "a = 1\n");
  CConfigSection& created = top->GetSection("New");
  EXPECT_EQ(&top->GetSection("New"), &created) << "second GetSection must find the first";
  EXPECT_EQ(&created.GetSection("Inner").GetTop(), top.get()) << "a subsection knows its top";
  EXPECT_EQ(FileOf(*top), "a = 1\n") << "GetSection must not save";
  ASSERT_TRUE(top->Save());
  EXPECT_EQ(FileOf(*top), "New {\n\tInner {\n\t}\n}\na = 1\n");
}

TEST(CConfigSectionInt, ReadsPlainDecimalUpTo2147483645) {
  constexpr std::int32_t kDefault = -77;
  const std::pair<const char*, std::int32_t> cases[] = {
      {"007", 7},
      {"2147483645", 2147483645},
      {"00002147483645", 2147483645},
      {"2147483646", kDefault},
      {"2147483650", kDefault},
      {"99999999999", kDefault},
      {"-1", kDefault},
      {"+1", kDefault},
      {"1x", kDefault},
      {"1 2", kDefault},
      {"", kDefault},
  };
  CConfigSection top;  // in memory only: the failed saves do not matter here
  for (const auto& [value, expected] : cases) {
    top.SetValue("k", value);
    EXPECT_EQ(top.GetIntValue("k", kDefault), expected) << "GetIntValue of \"" << value << "\"";
  }
  EXPECT_EQ(top.GetIntValue("absent", kDefault), kDefault);
  top.SetIntValue("k", INT32_MIN);
  EXPECT_EQ(ToStd(top.GetValue("k")), "-2147483648");
  top.SetIntValue("k", INT32_MAX);
  EXPECT_EQ(top.GetIntValue("k", 5), 5) << "the reader stops short of the type's limit";
}

TEST(CConfigSectionSave, RewritesFileWithSubsectionsFirstAndTabs) {
  const std::pair<const char*, const char*> cases[] = {
      {"b = 1\nS {\nx = 2\n}\n", "S {\n\tx = 2\n}\nb = 1\n"},
      {"a=1\nO {\n  I {\n k=v\n}\n o = 2\n}\n", "O {\n\tI {\n\t\tk = v\n\t}\n\to = 2\n}\na = 1\n"},
      {"k = 1\n{ nameless }\ndropped = 1\n", "k = 1\n"},
      {"", ""},
  };
  CTempDir dir;
  for (const auto& [text, saved] : cases) {
    const auto top = LoadText(dir, text);
    ASSERT_TRUE(top->Save());
    EXPECT_EQ(FileOf(*top), saved) << "saving \"" << text << "\"";
  }
}

TEST(CConfigSectionSave, FailsWithoutWritableFile) {
  CConfigSection unnamed;
  EXPECT_FALSE(unnamed.SetValue("k", "v")) << "a section without file name was saved";
  EXPECT_EQ(ToStd(unnamed.GetValue("k")), "v") << "a failed save keeps the change in memory";

  CTempDir dir;
  EXPECT_FALSE(CConfigSection::Load(dir.File("no/dir/x.conf").c_str())->SetValue("k", "v"))
      << "saving into a missing directory succeeded";

  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full to test a lost flush";
  const auto top = LoadText(dir, "k = 1\n");
  std::filesystem::remove(dir.File("test.conf"));
  std::filesystem::create_symlink("/dev/full", dir.File("test.conf"));
  EXPECT_FALSE(top->SetValue("k", "2")) << "bytes lost when fclose flushes must fail the save";
}

TEST(CConfigSectionChange, SetAndRemoveWriteWholeFile) {
  CTempDir dir;
  const auto top = LoadText(dir, "k = 1\nb = 2\nk = 2\n");
  ASSERT_TRUE(top->SetValue("k", "3"));
  EXPECT_EQ(FileOf(*top), "k = 3\nb = 2\nk = 2\n") << "only the first k may change";
  ASSERT_TRUE(top->GetSection("Quillon").SetValue("Trace", "/tmp"));
  EXPECT_EQ(FileOf(*top), "Quillon {\n\tTrace = /tmp\n}\nk = 3\nb = 2\nk = 2\n");
  ASSERT_TRUE(top->RemoveValue("k"));
  EXPECT_EQ(FileOf(*top), "Quillon {\n\tTrace = /tmp\n}\nb = 2\nk = 2\n")
      << "RemoveValue must delete the first match and keep the order";
}

TEST(CConfigSectionChange, RefusedChangesWriteNothing) {
  CTempDir dir;
  const std::string original = "a=1\n  S {\nb=2\n}\n";
  const auto top = LoadText(dir, original);
  EXPECT_FALSE(top->SetValue("", "v")) << "empty key must be refused";
  EXPECT_FALSE(top->RemoveValue("absent"));
  EXPECT_FALSE(top->GetSection("S").RemoveValue("a")) << "the parent's keys are not the child's";
  EXPECT_FALSE(top->GetSection("Empty").RemoveValue("a"));
  EXPECT_EQ(FileOf(*top), original) << "a refused change rewrote the file";
  EXPECT_EQ(Dump(*top), R"(a="1";S{b="2";}Empty{})");
}

}  // namespace
}  // namespace zelph
