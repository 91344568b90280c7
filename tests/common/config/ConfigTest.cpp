// Configuration files: reading (faulty ones too), lookups, saving, which file a process reads.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "CChildProcess.h"
#include "TestFiles.h"
#include "common/config/ConfigFile.h"

namespace zelph {
namespace {

// A tree in one line: entries as key="value"; then subsections as name{...}.
std::string Dump(const CConfigSection& section) {
  std::string out;
  for (const auto& e : section.GetEntries())
    out.append(e->key.View()).append("=\"").append(e->value.View()).append("\";");
  for (const auto& s : section.GetSubsections())
    out.append(s->GetName().View()) += "{" + Dump(*s) + "}";
  return out;
}

std::unique_ptr<CConfigSection> LoadText(const CTestDir& dir, std::string_view text) {
  WriteFile(dir.File("test.conf"), text);
  return CConfigSection::Load(dir.File("test.conf").c_str());
}

int ChainDepth(const CConfigSection& top) {  // of first subsections called "a"
  int depth = 0;
  for (const CConfigSection* s = &top; (s = s->FindSection("a")) != nullptr;) ++depth;
  return depth;
}

TEST(CConfigSection, FileTextGivesTreeAndSavedTreeReadsBackTheSame) {
  const struct {
    int line;
    std::string_view text, tree;
  } cases[] = {
      {__LINE__, "", ""},
      {__LINE__, "a=1\n \t\r\nb = 2 \n", R"(a="1";b="2";)"},
      {__LINE__, "name with spaces = value  with spaces\n",
       R"(name with spaces="value  with spaces";)"},
      {__LINE__, "k =\n\n  \nnext = 1\n", R"(k="next = 1";)"},  // "=" at a line end
      {__LINE__, "a = 1\n}\nk = 1\n", R"(a="1";)"},             // a top-level "}" ends the file
      {__LINE__, "S { k = v }\nx = 1\n", R"(S{k="v }";x="1";})"},
      {__LINE__, "beta = 2\nalpha\n", R"(beta="2";alpha="";)"},  // a bare word: empty value
      {__LINE__, "S {\nk = 1\nbare}\nt = 2\nlast", R"(t="2";S{k="1";})"},
      {__LINE__, "S {\n{ {x} = 1 }\ny = 2\n}\nz = 3\n", R"(y="2";S{})"},  // nameless block
      {__LINE__, "= junk\nk = 1\nk = 2\nS {\n}\nS {\n}\n", R"(k="1";k="2";S{}S{})"},
      {__LINE__, "a = 1\r\nS {\r\n\tb = 2\r\n}\r\n", R"(a="1";S{b="2";})"},
      {__LINE__, "url = http://x/?a=b{c}\nS\n{\nk = 1\n}\n", R"(url="http://x/?a=b{c}";S="";)"},
      {__LINE__, "O {\n I {\n  k = v\n }\n o = 2\n}\n", R"(O{o="2";I{k="v";}})"},
      {__LINE__, "k\xFF = v\xC3(x\nc = v\xE2\x82", R"(k?="v?x";c="v";)"},
  };
  CTestDir dir("config");
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "file text of line " << c.line << ": " << Visible(c.text));
    const auto top = LoadText(dir, c.text);
    EXPECT_EQ(Dump(*top), c.tree) << "read into the wrong tree";
    ASSERT_TRUE(top->Save());
    EXPECT_EQ(Dump(*CConfigSection::Load(top->GetFileName())), c.tree)
        << "saved and read back differently; saved:\n"
        << ReadFile(dir.File("test.conf"));
  }
}

TEST(CConfigSection, IntValueIsPlainDecimalUpTo2147483645) {
  CConfigSection top;
  for (const char* text : {"2147483646", "99999999999", "-1", "+1", "1 2", "", "1x"}) {
    EXPECT_FALSE(top.SetValue("k", text)) << "a section without a file name was saved";
    EXPECT_EQ(top.GetIntValue("k", -1), -1) << "\"" << text << "\" must give the default";
  }
  for (const char* text : {"2147483645", "0002147483645"}) {
    EXPECT_FALSE(top.SetValue("k", text));
    EXPECT_EQ(top.GetIntValue("k", -1), 2147483645) << "\"" << text << "\" must be read";
  }
  EXPECT_FALSE(top.SetIntValue("k", INT32_MIN)) << "a section without a file name was saved";
  EXPECT_EQ(top.GetValue("k").View(), "-2147483648");
}

TEST(CConfigSection, ChangesRewriteTheWholeFileOrFail) {
  CTestDir dir("config");
  const std::string original =
      "k = 1\nb\nk = 2\nk\xFF = odd\nS{\nx=1\n}\nS {\nx = 2\n}\n{ nameless }\ndropped = 1\n";
  const auto top = LoadText(dir, original);
  EXPECT_EQ(top->GetValue("k").View(), "1") << "the first of two keys must win";
  EXPECT_TRUE(top->GetValue("K").IsEmpty() && top->GetValue(" k").IsEmpty()) << "keys are exact";
  EXPECT_EQ(top->GetValue("k\xFF").View(), "odd") << "a malformed key must match the same text";
  EXPECT_EQ(top->GetSection("S").GetValue("x").View(), "1");
  EXPECT_TRUE(top->HasValue("b") && !top->HasValue("absent"));
  EXPECT_FALSE(top->SetValue("", "v")) << "an empty key must be refused";
  EXPECT_FALSE(top->GetSection("S").RemoveValue("b")) << "the parent's keys are not the child's";
  CConfigSection& added = top->GetSection("T");
  EXPECT_EQ(&top->GetSection("T"), &added) << "a second GetSection must find the first";
  EXPECT_EQ(ReadFile(dir.File("test.conf")), original) << "a refused change wrote the file";
  ASSERT_TRUE(added.GetSection("U").SetValue("k", "3"));
  ASSERT_TRUE(top->RemoveValue("k"));
  EXPECT_EQ(
      ReadFile(dir.File("test.conf")),
      "S {\n\tx = 1\n}\nS {\n\tx = 2\n}\nT {\n\tU {\n\t\tk = 3\n\t}\n}\nb = \nk = 2\nk? = odd\n");
  EXPECT_FALSE(CConfigSection::Load(dir.File("no/x.conf").c_str())->SetValue("k", "v"))
      << "saving into a missing directory succeeded";
  std::filesystem::remove(dir.File("test.conf"));
  std::filesystem::create_symlink("/dev/full", dir.File("test.conf"));
  EXPECT_FALSE(top->SetValue("k", "2")) << "bytes lost when fclose flushes must fail the save";
}

// Binary files are the configuration fuzzer's.
TEST(CConfigFaults, LongAndDeepFilesAreReadToTheirLimits) {
  CTestDir dir("config");
  std::string text;
  for (int i = 0; i < CConfigSection::kMaxDepth; ++i) text = "a {\n" + text + "}\n";
  const auto deep = LoadText(dir, text + std::string(2000, '\n') + "after = 2\n");
  EXPECT_EQ(ChainDepth(*deep), CConfigSection::kMaxDepth);
  EXPECT_EQ(deep->GetValue("after").View(), "2")
      << "the file goes on after deep sections, and past 1 KiB";
  // Too deep ends the reading, before it ends the stack.
  text = "k = 1\n";
  for (int i = 0; i < 1000000; ++i) text += "a{";
  const auto tooDeep = LoadText(dir, text + "\nz = 1\n");
  EXPECT_EQ(ChainDepth(*tooDeep), CConfigSection::kMaxDepth);
  EXPECT_TRUE(tooDeep->HasValue("k") && !tooDeep->HasValue("z")) << "reading must end there";
}

// Runs as an ordinary user, so that unreadable files are unreadable.
TEST(ConfigFile, ProcessReadsTheFileItsEnvironmentNamesOrNothing) {
  CTestDir dir("config", 0755);
  std::filesystem::create_directories(dir.File("home"));
  std::filesystem::create_directories(dir.File("locked"));
  WriteFile(dir.File("home/.zelph.global.conf"), "Source = global\n");
  WriteFile(dir.File("locked/.zelph.global.conf"), "Source = locked\n");
  chmod(dir.File("locked/.zelph.global.conf").c_str(), 0);
  WriteFile(dir.File("chosen.conf"), "Source = chosen\n");
  const std::string home = dir.File("home"), chosen = dir.File("chosen.conf");
  const std::string locked = dir.File("locked/.zelph.global.conf");
  const struct {
    int line;
    std::optional<std::string> conffile, home;  // nullopt: unset
    std::string expected;                       // file name|Source
  } cases[] = {
      {__LINE__, chosen, home, chosen + "|chosen"},
      {__LINE__, "", home, "|"},                        // set to "": an empty configuration
      {__LINE__, chosen + "/x", home, chosen + "/x|"},  // missing: no other file is tried
      {__LINE__, locked, home, locked + "|"},
      {__LINE__, home, home, home + "|"},  // a directory
      {__LINE__, std::nullopt, home, home + "/.zelph.global.conf|global"},
      {__LINE__, std::nullopt, dir.File("locked"), "/etc/zelph.conf|?"},
      {__LINE__, std::nullopt, dir.Path(), "/etc/zelph.conf|?"},
      {__LINE__, std::nullopt, std::nullopt, "/etc/zelph.conf|?"},
  };
  for (const auto& c : cases) {
    CChildOptions options;
    options.environment = {{"ZELPH_CONFFILE", c.conffile}, {"HOME", c.home}};
    options.body = [] {
      if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 2;
      const auto config = OpenConfig();
      const bool etc = config->GetFileName().View() == "/etc/zelph.conf";
      std::printf("%s|%s", config->GetFileName().c_str(),
                  etc ? "?" : config->GetValue("Source").c_str());
      return 0;
    };
    CChildProcess child(std::move(options));
    EXPECT_TRUE(child.Finish() && child.Output() == c.expected)
        << "case of line " << c.line << ": want " << c.expected << "; " << child.Describe();
  }
}

TEST(ConfigFile, SharedConfigIsReadOnceAndUserConfigIsPrivate) {
  CTestDir dir("config");
  WriteFile(dir.File("a.conf"), "Source = a\n"), WriteFile(dir.File("b.conf"), "Source = b\n");
  WriteFile(dir.File(".zelph.conf"), "Source = user\n");
  CChildProcess child({{}, [&dir] {
                         CConfigSection& first = GetSharedConfig();
                         setenv("ZELPH_CONFFILE", dir.File("b.conf").c_str(), 1);
                         std::printf("%s %d %s %s ", first.GetValue("Source").c_str(),
                                     &GetSharedConfig() == &first,
                                     OpenConfig()->GetValue("Source").c_str(),
                                     OpenUserConfig()->GetValue("Source").c_str());
                         unsetenv("HOME");
                         return std::printf("%d", OpenUserConfig()->SetValue("k", "v")), 0;
                       },
                       {{"ZELPH_CONFFILE", dir.File("a.conf")}, {"HOME", dir.Path()}}, {}});
  ASSERT_TRUE(child.Finish()) << child.Describe();
  EXPECT_EQ(child.Output(), "a 1 b user 0")
      << "want: the shared configuration read once and kept, OpenConfig reading anew, "
         "the user's file, no saving without HOME";
}

}  // namespace
}  // namespace zelph
