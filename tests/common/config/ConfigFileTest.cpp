#include "common/config/ConfigFile.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "ConfigTestFiles.h"

namespace zelph {
namespace {

// Sets or unsets one environment variable and restores it when it goes.
class CScopedEnv {
 public:
  explicit CScopedEnv(const char* name) : m_name(name) {
    if (const char* value = std::getenv(name)) m_saved = value;
  }
  ~CScopedEnv() { Set(m_saved); }
  CScopedEnv(const CScopedEnv&) = delete;
  CScopedEnv& operator=(const CScopedEnv&) = delete;

  void Set(const std::optional<std::string>& value) {
    if (value) {
      setenv(m_name, value->c_str(), 1);
    } else {
      unsetenv(m_name);
    }
  }

 private:
  const char* m_name;
  std::optional<std::string> m_saved;
};

// A home directory "home" holding both user files, a "bare-home" holding
// none, and "chosen.conf" beside them, each with its own "Source".
class ConfigFileTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(m_dir.Path().empty()) << "cannot create a temporary directory";
    std::filesystem::create_directory(m_dir.File("home"));
    std::filesystem::create_directory(m_dir.File("bare-home"));
    WriteFile(m_dir.File("home/.zelph.global.conf"), "Source = global\n");
    WriteFile(m_dir.File("home/.zelph.conf"), "Source = user\n");
    WriteFile(m_dir.File("chosen.conf"), "Source = chosen\n");
  }

  // `text` with a leading "@" replaced by the temporary directory.
  std::optional<std::string> Expand(const std::optional<std::string>& text) const {
    if (!text || text->empty() || (*text)[0] != '@') return text;
    return m_dir.Path() + text->substr(1);
  }

  CTempDir m_dir;
  CScopedEnv m_conffile{"ZELPH_CONFFILE"};
  CScopedEnv m_home{"HOME"};
};

TEST_F(ConfigFileTest, LookupOrderPicksExpectedFile) {
  struct Case {
    const char* label;
    std::optional<std::string> conffile;  // nullopt: unset
    std::optional<std::string> home;
    std::string path;
    const char* source;  // "Source" read by OpenConfig(); null: not checked
  };
  const Case cases[] = {
      {"ZELPH_CONFFILE wins", "@/chosen.conf", "@/home", "@/chosen.conf", "chosen"},
      {"empty ZELPH_CONFFILE", "", "@/home", "", ""},
      {"missing ZELPH_CONFFILE has no fallback", "@/no.conf", "@/home", "@/no.conf", ""},
      {"ZELPH_CONFFILE without HOME", "@/chosen.conf", std::nullopt, "@/chosen.conf", "chosen"},
      {"malformed ZELPH_CONFFILE", "@/bad\xFF.conf", "@/home", "@/bad?.conf", ""},
      {"global file in HOME", std::nullopt, "@/home", "@/home/.zelph.global.conf", "global"},
      {"HOME ending in /", std::nullopt, "@/home/", "@/home//.zelph.global.conf", "global"},
      {"HOME without global file", std::nullopt, "@/bare-home", "/etc/zelph.conf", nullptr},
      {"neither variable", std::nullopt, std::nullopt, "/etc/zelph.conf", nullptr},
  };
  for (const Case& c : cases) {
    m_conffile.Set(Expand(c.conffile));
    m_home.Set(Expand(c.home));
    const std::string path = *Expand(c.path);
    EXPECT_EQ(ToStd(GetConfigFilePath()), path) << "case \"" << c.label << "\"";
    const auto config = OpenConfig();
    EXPECT_EQ(ToStd(config->GetFileName()), path) << "OpenConfig path, case \"" << c.label << "\"";
    if (c.source) {
      EXPECT_EQ(ToStd(config->GetValue("Source")), c.source)
          << "OpenConfig read the wrong file, case \"" << c.label << "\"";
    }
  }
}

TEST_F(ConfigFileTest, UnreadableGlobalFileFallsBackToEtc) {
  const std::string global = m_dir.File("home/.zelph.global.conf");
  ASSERT_EQ(chmod(global.c_str(), 0), 0);
  if (access(global.c_str(), R_OK) == 0) {
    GTEST_SKIP() << "a mode-000 file is still readable (running as root), so an unreadable "
                    "global file cannot be set up; run as an ordinary user to test it";
  }
  m_conffile.Set(std::nullopt);
  m_home.Set(m_dir.File("home"));
  EXPECT_EQ(ToStd(GetConfigFilePath()), "/etc/zelph.conf");
}

TEST_F(ConfigFileTest, OpenConfigRereadsEveryCall) {
  m_conffile.Set(m_dir.File("chosen.conf"));
  const auto first = OpenConfig();
  WriteFile(m_dir.File("chosen.conf"), "Source = rewritten\n");
  EXPECT_EQ(ToStd(OpenConfig()->GetValue("Source")), "rewritten") << "file change not seen";
  EXPECT_EQ(ToStd(first->GetValue("Source")), "chosen");
}

TEST_F(ConfigFileTest, UserConfigIsPrivateFileInHome) {
  m_conffile.Set(m_dir.File("chosen.conf"));
  m_home.Set(m_dir.File("home"));
  const auto user = OpenUserConfig();
  EXPECT_EQ(ToStd(user->GetValue("Source")), "user")
      << "OpenUserConfig must ignore ZELPH_CONFFILE and the global file";
  ASSERT_TRUE(user->SetValue("Added", "1"));
  EXPECT_EQ(ReadFile(m_dir.File("home/.zelph.conf")), "Source = user\nAdded = 1\n");

  m_home.Set(std::nullopt);
  const auto homeless = OpenUserConfig();
  EXPECT_EQ(Dump(*homeless), "");
  EXPECT_FALSE(homeless->SetValue("k", "v")) << "a user configuration without HOME was saved";
}

// Runs in a child process, so that the shared object stays out of the other
// tests. Returns a description of every check that failed.
std::string CheckSharedConfig(const CTempDir& dir) {
  std::string problems;
  WriteFile(dir.File("a.conf"), "Source = a\n");
  WriteFile(dir.File("b.conf"), "Source = b\n");
  setenv("ZELPH_CONFFILE", dir.File("a.conf").c_str(), 1);
  CConfigSection& first = GetSharedConfig();
  if (ToStd(first.GetValue("Source")) != "a") problems += "first call did not load the file; ";

  setenv("ZELPH_CONFFILE", dir.File("b.conf").c_str(), 1);
  WriteFile(dir.File("a.conf"), "Source = changed\n");
  CConfigSection& second = GetSharedConfig();
  if (&second != &first) problems += "second call returned another object; ";
  if (ToStd(second.GetValue("Source")) != "a") problems += "shared object was reloaded; ";
  if (ToStd(OpenConfig()->GetValue("Source")) != "b") problems += "OpenConfig kept the old path; ";
  return problems;
}

TEST_F(ConfigFileTest, SharedConfigLoadsOnceDespiteChanges) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t pid = fork();
  ASSERT_NE(pid, -1);
  if (pid == 0) {
    const std::string problems = CheckSharedConfig(m_dir);
    const bool sent =
        write(fds[1], problems.data(), problems.size()) == static_cast<ssize_t>(problems.size());
    _exit(sent ? 0 : 1);
  }
  close(fds[1]);
  std::string problems;
  char piece[256];
  for (ssize_t n; (n = read(fds[0], piece, sizeof piece)) > 0;) problems.append(piece, n);
  close(fds[0]);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "child checking the shared configuration failed to report, status " << status;
  EXPECT_EQ(problems, "");
}

}  // namespace
}  // namespace zelph
