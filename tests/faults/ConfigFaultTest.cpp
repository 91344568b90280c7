// Configuration files that are empty, binary, several megabytes, deeply
// nested or unreadable. The store reads what it can and never fails; a host
// whose configuration is such a file traces or stays silent as the file's
// settings say, and runs its script to the end.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <string>

#include "CHostProcess.h"
#include "FaultFiles.h"
#include "common/config/CConfigSection.h"

namespace zelph {
namespace {

namespace fs = std::filesystem;

constexpr char kTracingOn[] = "Quillon {\n\tEnableTrace = 1\n}\n";

std::string RandomBytes(std::size_t count) {
  std::mt19937 random(20240305);
  std::string bytes(count, '\0');
  for (char& b : bytes) b = static_cast<char>(random() & 0xFF);
  return bytes;
}

std::string ManyEntries(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += "key" + std::to_string(i) + " = value" + std::to_string(i) + "\n";
  }
  return text;
}

std::string ManySections(int count) {
  std::string text;
  for (int i = 0; i < count; ++i)
    text += "S" + std::to_string(i) + " {\n\tk = " + std::to_string(i) + "\n}\n";
  return text;
}

// `depth` sections named "a", each inside the one before, never closed.
std::string Nested(std::size_t depth) {
  std::string text;
  text.reserve(2 * depth);
  for (std::size_t i = 0; i < depth; ++i) text += "a{";
  return text;
}

// How deep the chain of first subsections called "a" goes.
int ChainDepth(const CConfigSection& top) {
  int depth = 0;
  for (const CConfigSection* s = top.FindSection("a"); s != nullptr; s = s->FindSection("a")) {
    ++depth;
  }
  return depth;
}

std::unique_ptr<CConfigSection> LoadText(const CFaultDir& dir, const std::string& text) {
  const std::string path = dir.File("zelph.conf");
  EXPECT_TRUE(WriteFile(path, text)) << "cannot write " << path;
  return CConfigSection::Load(path.c_str());
}

int TraceSetting(const CConfigSection& top) {
  const CConfigSection* quillon = top.FindSection("Quillon");
  return quillon == nullptr ? -1 : quillon->GetIntValue("EnableTrace", -1);
}

TEST(ConfigFaultTest, EmptyFileGivesEmptyTreeAndDefaults) {
  CFaultDir dir;
  const auto top = LoadText(dir, "");
  EXPECT_TRUE(top->GetEntries().empty() && top->GetSubsections().empty());
  EXPECT_EQ(top->GetSection("Quillon").GetIntValue("EnableTrace", 7), 7);
  EXPECT_EQ(top->GetFileName().View(), dir.File("zelph.conf"))
      << "the file is still the one to save to";
}

TEST(ConfigFaultTest, BinaryFileIsReadWithoutHarmAndCanBeSavedAndRead) {
  CFaultDir dir;
  const auto top = LoadText(dir, RandomBytes(256 * 1024));
  std::vector<const CConfigSection*> pending{top.get()};
  std::size_t entries = 0;
  while (!pending.empty()) {
    const CConfigSection* section = pending.back();
    pending.pop_back();
    for (const auto& entry : section->GetEntries()) {
      ASSERT_NE(section->FindEntry(entry->key), nullptr) << "a key read from the file is not found";
      (void)section->GetIntValue(entry->key, 0);
      ++entries;
    }
    for (const auto& sub : section->GetSubsections()) pending.push_back(sub.get());
  }
  EXPECT_GT(entries, 0u) << "random bytes hold line feeds, so some keys are expected";
  ASSERT_TRUE(top->Save()) << "a tree read from binary bytes can be written";
  const auto again = CConfigSection::Load(dir.File("zelph.conf").c_str());
  EXPECT_FALSE(again->GetEntries().empty() && again->GetSubsections().empty());
}

struct LargeFileCase {
  const char* name;
  std::function<std::string()> text;
  std::function<void(const CConfigSection&)> check;
};

void PrintTo(const LargeFileCase& c, std::ostream* out) {
  *out << c.name;
}

class ConfigLargeFileTest : public testing::TestWithParam<LargeFileCase> {};

TEST_P(ConfigLargeFileTest, IsReadWhole) {
  CFaultDir dir;
  const std::string text = GetParam().text();
  ASSERT_GE(text.size(), 2u * 1024 * 1024) << "the case should be several megabytes";
  const auto top = LoadText(dir, text);
  GetParam().check(*top);
  EXPECT_EQ(TraceSetting(*top), 1) << "the settings at the end of the file are read";
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ConfigLargeFileTest,
    testing::Values(
        LargeFileCase{"ManyEntries", [] { return ManyEntries(120000) + kTracingOn; },
                      [](const CConfigSection& top) {
                        EXPECT_EQ(top.GetEntries().size(), 120000u);
                        EXPECT_EQ(top.GetValue("key119999").View(), "value119999");
                      }},
        LargeFileCase{"OneLongValue",
                      [] { return "k = " + std::string(4 * 1024 * 1024, 'x') + "\n" + kTracingOn; },
                      [](const CConfigSection& top) {
                        EXPECT_EQ(top.GetValue("k").Size(), 4u * 1024 * 1024);
                      }},
        LargeFileCase{"ManySections", [] { return ManySections(100000) + kTracingOn; },
                      [](const CConfigSection& top) {
                        ASSERT_EQ(top.GetSubsections().size(), 100001u);
                        EXPECT_EQ(top.GetSubsections()[99999]->GetValue("k").View(), "99999");
                      }}),
    [](const auto& info) { return info.param.name; });

TEST(ConfigFaultTest, DeepNestingWithinTheLimitIsReadWhole) {
  CFaultDir dir;
  std::string text = Nested(CConfigSection::kMaxDepth) + "bottom = 1\n";
  for (int i = 0; i < CConfigSection::kMaxDepth; ++i) text += "}\n";
  text += "after = 2\n";
  const auto top = LoadText(dir, text);
  EXPECT_EQ(ChainDepth(*top), CConfigSection::kMaxDepth);
  EXPECT_EQ(top->GetValue("after").View(), "2") << "the file goes on after the nested sections";
}

TEST(ConfigFaultTest, MegabytesOfNestingEndTheReadingInsteadOfTheStack) {
  CFaultDir dir;
  const auto top = LoadText(dir, std::string(kTracingOn) + Nested(2 * 1024 * 1024) + "\nk = 1\n");
  EXPECT_EQ(TraceSetting(*top), 1) << "what comes before the deep part is kept";
  EXPECT_EQ(ChainDepth(*top), CConfigSection::kMaxDepth)
      << "sections are read down to the depth limit";
  EXPECT_FALSE(top->HasValue("k")) << "reading ends where the nesting goes too deep";
  ASSERT_TRUE(top->Save());
  EXPECT_EQ(ChainDepth(*CConfigSection::Load(dir.File("zelph.conf").c_str())),
            CConfigSection::kMaxDepth)
      << "what was kept is written and read back";
}

// Loads `path` in a child process that runs as the unprivileged user when
// this one is root, so that file modes apply. Returns what the child saw: the
// number of entries and sections at the top, or -1 when the child failed.
int TopItemsAsUser(const std::string& path) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(100);
    const auto top = CConfigSection::Load(path.c_str());
    _exit(static_cast<int>(
        std::min<std::size_t>(top->GetEntries().size() + top->GetSubsections().size(), 99)));
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status) == 100 ? -1 : WEXITSTATUS(status);
}

struct UnreadableCase {
  const char* name;
  // Makes the file (or what stands in its place) and returns its path.
  std::function<std::string(const CFaultDir&)> make;
};

void PrintTo(const UnreadableCase& c, std::ostream* out) {
  *out << c.name;
}

class ConfigUnreadableTest : public testing::TestWithParam<UnreadableCase> {};

TEST_P(ConfigUnreadableTest, GivesEmptyTree) {
  CFaultDir dir;
  const std::string path = GetParam().make(dir);
  EXPECT_EQ(TopItemsAsUser(path), 0) << "an unreadable file reads as an empty configuration";
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ConfigUnreadableTest,
    testing::Values(UnreadableCase{"NoReadPermission",
                                   [](const CFaultDir& dir) {
                                     const std::string path = dir.File("zelph.conf");
                                     WriteFile(path, kTracingOn);
                                     chmod(path.c_str(), 0);
                                     return path;
                                   }},
                    UnreadableCase{"Directory",
                                   [](const CFaultDir& dir) {
                                     fs::create_directory(dir.File("zelph.conf"));
                                     return dir.File("zelph.conf");
                                   }},
                    UnreadableCase{"UnderAFile",
                                   [](const CFaultDir& dir) {
                                     WriteFile(dir.File("file"), kTracingOn);
                                     return dir.File("file/zelph.conf");
                                   }},
                    UnreadableCase{"Missing",
                                   [](const CFaultDir& dir) { return dir.File("missing.conf"); }}),
    [](const auto& info) { return info.param.name; });

// A host process whose configuration file is faulty.
struct HostCase {
  const char* name;
  // Makes the configuration at `path`; the logs go to `logs`.
  std::function<void(const std::string& path, const std::string& logs)> make;
  bool expectLog;
};

void PrintTo(const HostCase& c, std::ostream* out) {
  *out << c.name;
}

class ConfigFaultHostTest : public testing::TestWithParam<HostCase> {};

TEST_P(ConfigFaultHostTest, HostRunsOnAndTracesAsTheFileSays) {
  CFaultDir dir;
  const std::string logs = dir.File("logs");
  fs::create_directory(logs);
  const std::string config = dir.File("zelph.conf");
  GetParam().make(config, logs);
  CHostOptions options;
  options.program = ZELPH_TRACE_DRIVER;
  options.environment = {{"ZELPH_CONFFILE", config}, {"HOME", dir.Path()}};
  CHostProcess host(options);
  host.Send("enter Main\nstring hello\nleave Main\n");
  ASSERT_TRUE(host.Finish()) << host.Describe();
  EXPECT_TRUE(host.Output().ends_with("done\n")) << "the script did not run to its end";
  EXPECT_EQ(LogFiles(logs).size(), GetParam().expectLog ? 1u : 0u)
      << (GetParam().expectLog ? "the file switches tracing on" : "tracing should stay off");
}

std::string TracingOnIn(const std::string& logs) {
  return "Quillon {\n\tEnableTrace = 1\n\tTrace = " + logs + "\n}\n";
}

INSTANTIATE_TEST_SUITE_P(
    Files, ConfigFaultHostTest,
    testing::Values(
        HostCase{"Empty", [](const std::string& path, const std::string&) { WriteFile(path, ""); },
                 false},
        HostCase{"Binary",
                 [](const std::string& path, const std::string&) {
                   WriteFile(path, RandomBytes(256 * 1024));
                 },
                 false},
        HostCase{"Directory",
                 [](const std::string& path, const std::string&) { fs::create_directory(path); },
                 false},
        HostCase{"SettingsBeforeBinary",
                 [](const std::string& path, const std::string& logs) {
                   WriteFile(path, TracingOnIn(logs) + RandomBytes(256 * 1024));
                 },
                 true},
        HostCase{"SettingsAfterMegabytes",
                 [](const std::string& path, const std::string& logs) {
                   WriteFile(path, ManyEntries(120000) + TracingOnIn(logs));
                 },
                 true},
        HostCase{"SettingsBeforeMegabytesOfNesting",
                 [](const std::string& path, const std::string& logs) {
                   WriteFile(path, TracingOnIn(logs) + Nested(2 * 1024 * 1024));
                 },
                 true}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace zelph
