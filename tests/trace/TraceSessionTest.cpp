// The trace session as a host process sees it: whether a log appears, its
// name, header and footer, appending, and loading and unloading the library.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <optional>
#include <ostream>
#include <regex>
#include <set>
#include <string>

#include "TraceLogHarness.h"

namespace zelph {
namespace {

namespace fs = std::filesystem;

// One call of every kind, from two threads as well: none of them may leave a
// trace while the session is closed.
constexpr char kEveryCall[] =
    "enter Outer\n"
    "string text\\s%d d:1\n"
    "template 0 0x0,8,u3 0x11,3,x0A0B0C 0x3,5,tlabel\n"
    "mechanism 0x1 3 x01ABFF\n"
    "mechinfo 1024 4096 0x801\n"
    "tokeninfo Label Maker Model 123 0x5 8 4 1 2 3 4 1.0 2.0\n"
    "threads 3 concurrent 2\n"
    "leave Outer\n";

std::set<std::string> Entries(const fs::path& directory) {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// The time stamp a log file name shows for the given time.
std::string StampOf(std::time_t when) {
  std::tm local{};
  localtime_r(&when, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d_%H-%M-%S", &local);
  return stamp;
}

// All sessions of all log files in a directory, files in name (= time) order.
std::vector<CTraceSessionText> AllSessions(const fs::path& directory) {
  std::vector<CTraceSessionText> sessions;
  for (const fs::path& file : LogFiles(directory)) {
    CTraceLogText log = ParseLog(ReadFile(file));
    EXPECT_TRUE(log.preamble.empty()) << file << " does not start with a session header";
    for (CTraceSessionText& session : log.sessions) sessions.push_back(std::move(session));
  }
  return sessions;
}

TEST(TraceSessionTest, OneRunWritesNamedFileWithHeaderBodyAndFooter) {
  CTempDir dir;
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  const std::time_t before = std::time(nullptr);
  CTraceDriver driver(DriverKind::kLinked, dir);
  driver.Send("enter Main\nstring hello\nleave Main\n");
  ASSERT_TRUE(driver.Finish()) << driver.Describe();
  const std::time_t after = std::time(nullptr);

  const std::vector<fs::path> files = LogFiles(dir.Logs());
  ASSERT_EQ(files.size(), 1u) << "one process, one log file";
  const std::string name = files.front().filename().string();
  const std::regex shape(R"(zelph_(\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d)_trace_driver_)" +
                         std::to_string(driver.Pid()) + R"(\.log)");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(name, match, shape))
      << "file name " << name << " is not zelph_<time>_<executable>_<pid>.log";
  std::set<std::string> stamps;
  for (std::time_t t = before; t <= after; ++t) stamps.insert(StampOf(t));
  EXPECT_EQ(stamps.count(match[1]), 1u)
      << "the file name's time " << match[1] << " is not the local time of the run";

  const std::string text = ReadFile(files.front());
  const CTraceLogText log = ParseLog(text);
  EXPECT_TRUE(log.preamble.empty());
  ASSERT_EQ(log.sessions.size(), 1u);
  const CTraceSessionText& session = log.sessions.front();
  ExpectHeader(session, driver.Pid(), driver.ExecutablePath(), before, after);
  const std::string tid = driver.MainThreadId();
  ExpectLines(StripTimeStamps(session.body),
              {"", TraceLine(tid, '.', 0, "Entering Main."), TraceLine(tid, '.', 1, "hello"),
               TraceLine(tid, '.', 0, "Leaving Main."), ""},
              "body (a blank line opens the first output, another closes the outermost call)");
  ExpectFooter(session);
  EXPECT_TRUE(text.ends_with(std::string(kTraceRule) + "\n")) << "the footer's rule line is cut";
}

// How a case prepares the temporary directory; returns the configuration text
// (none: no configuration file at all) and the trace directory to watch.
struct OffSetup {
  std::optional<std::string> config;
  fs::path traceDirectory;
};

struct OffCase {
  const char* name;
  OffSetup (*prepare)(const CTempDir& dir);
  bool needsUnprivilegedUser;
  DriverKind kind = DriverKind::kLinked;
};

const OffCase kOffCases[] = {
    {"EnableTraceZero",
     [](const CTempDir& dir) {
       return OffSetup{TraceConfig("0", dir.Logs()), dir.Logs()};
     },
     false},
    {"EnableTraceAbsent",
     [](const CTempDir& dir) {
       return OffSetup{"Quillon {\n\tTrace = " + dir.Logs().string() + "\n}\n", dir.Logs()};
     },
     false},
    {"EnableTraceIsAWord",
     [](const CTempDir& dir) {
       return OffSetup{TraceConfig("yes", dir.Logs()), dir.Logs()};
     },
     false},
    {"EnableTraceNegative",
     [](const CTempDir& dir) {
       return OffSetup{TraceConfig("-1", dir.Logs()), dir.Logs()};
     },
     false},
    {"EnableTraceInOtherSection",
     [](const CTempDir& dir) {
       return OffSetup{"Other {\n\tEnableTrace = 1\n\tTrace = " + dir.Logs().string() + "\n}\n",
                       dir.Logs()};
     },
     false},
    {"TraceAbsent",
     [](const CTempDir& dir) {
       return OffSetup{"Quillon {\n\tEnableTrace = 1\n}\n", dir.Logs()};
     },
     false},
    {"TraceEmpty",
     [](const CTempDir& dir) {
       // A bare key is a key with an empty value.
       return OffSetup{"Quillon {\n\tEnableTrace = 1\n\tTrace\n}\n", dir.Logs()};
     },
     false},
    {"NoConfigurationFile",
     [](const CTempDir& dir) {
       return OffSetup{std::nullopt, dir.Logs()};
     },
     false},
    {"TraceDirectoryMissing",
     [](const CTempDir& dir) {
       return OffSetup{TraceConfig("1", dir.Logs() / "missing"), dir.Logs() / "missing"};
     },
     false},
    {"TraceDirectoryIsAFile",
     [](const CTempDir& dir) {
       WriteFile(dir.Logs() / "plain", "not a directory\n");
       return OffSetup{TraceConfig("1", dir.Logs() / "plain"), dir.Logs()};
     },
     false},
    {"TraceDirectoryRefusesFiles",
     [](const CTempDir&) {
       return OffSetup{TraceConfig("1", "/proc"), "/proc"};
     },
     false},
    {"TraceDirectoryMissingUnderDlopen",
     [](const CTempDir& dir) {
       return OffSetup{TraceConfig("1", dir.Logs() / "missing"), dir.Logs() / "missing"};
     },
     false, DriverKind::kDlopen},
    {"TraceDirectoryReadOnly",
     [](const CTempDir& dir) {
       fs::create_directory(dir.Logs() / "ro");
       chmod((dir.Logs() / "ro").c_str(), 0555);
       return OffSetup{TraceConfig("1", dir.Logs() / "ro"), dir.Logs() / "ro"};
     },
     true},
};

void PrintTo(const OffCase& c, std::ostream* out) {
  *out << c.name;
}

class TraceSessionOffTest : public testing::TestWithParam<OffCase> {};

TEST_P(TraceSessionOffTest, LeavesNoFileAndHostRuns) {
  const OffCase& c = GetParam();
  if (c.needsUnprivilegedUser && geteuid() == 0) {
    GTEST_SKIP() << "root may write into read-only directories";
  }
  CTempDir dir;
  const OffSetup setup = c.prepare(dir);
  if (setup.config) WriteFile(dir.ConfigFile(), *setup.config);
  const std::set<std::string> before = Entries(dir.Logs());

  CTraceDriver driver(c.kind, dir);
  if (c.kind == DriverKind::kDlopen) {
    // Unloading a closed session, then one the driver unloads before exit.
    driver.Send(std::string("load\n") + kEveryCall + "unload\nload\n" + kEveryCall);
  } else {
    driver.Send(kEveryCall);
  }
  EXPECT_TRUE(driver.Finish()) << "the host must run on with tracing off: " << driver.Describe();

  EXPECT_EQ(Entries(dir.Logs()), before) << "tracing off must not create or change any file";
  EXPECT_TRUE(LogFiles(setup.traceDirectory).empty())
      << "a log file appeared in " << setup.traceDirectory;
}

INSTANTIATE_TEST_SUITE_P(Decision, TraceSessionOffTest, testing::ValuesIn(kOffCases),
                         [](const testing::TestParamInfo<OffCase>& info) {
                           return std::string(info.param.name);
                         });

// Configurations that switch tracing on; the log must land in `Logs()`.
struct OnCase {
  const char* name;
  // Writes the configuration; returns the environment the driver runs with.
  DriverEnvironment (*prepare)(const CTempDir& dir);
};

const OnCase kOnCases[] = {
    {"AnyNonZeroEnableTrace",
     [](const CTempDir& dir) {
       WriteFile(dir.ConfigFile(), TraceConfig("7", dir.Logs()));
       return DriverEnvironment{dir.ConfigFile(), dir.Path()};
     }},
    {"TrailingSlashInDirectory",
     [](const CTempDir& dir) {
       WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs().string() + "/"));
       return DriverEnvironment{dir.ConfigFile(), dir.Path()};
     }},
    {"GlobalFileInHome",
     [](const CTempDir& dir) {
       WriteFile(dir.Path() / ".zelph.global.conf", TraceConfig("1", dir.Logs()));
       return DriverEnvironment{std::nullopt, dir.Path()};
     }},
};

void PrintTo(const OnCase& c, std::ostream* out) {
  *out << c.name;
}

class TraceSessionOnTest : public testing::TestWithParam<OnCase> {};

TEST_P(TraceSessionOnTest, WritesOneCompleteSession) {
  CTempDir dir;
  CTraceDriver driver(DriverKind::kLinked, GetParam().prepare(dir), dir.Path());
  driver.Send("string on\n");
  ASSERT_TRUE(driver.Finish()) << driver.Describe();

  const std::vector<fs::path> files = LogFiles(dir.Logs());
  ASSERT_EQ(files.size(), 1u) << "tracing should be on";
  const CTraceLogText log = ParseLog(ReadFile(files.front()));
  ASSERT_EQ(log.sessions.size(), 1u);
  ExpectLines(StripTimeStamps(log.sessions.front().body),
              {"", TraceLine(driver.MainThreadId(), '.', 0, "on")}, "body");
  ExpectFooter(log.sessions.front());
}

INSTANTIATE_TEST_SUITE_P(Decision, TraceSessionOnTest, testing::ValuesIn(kOnCases),
                         [](const testing::TestParamInfo<OnCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(TraceSessionTest, DecisionIsNotRetriedWhenConfigurationChanges) {
  CTempDir dir;
  WriteFile(dir.ConfigFile(), TraceConfig("0", dir.Logs()));
  CTraceDriver driver(DriverKind::kLinked, dir);
  driver.Send("string before\n");
  ASSERT_TRUE(driver.Sync());
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  driver.Send("string after\n");
  ASSERT_TRUE(driver.Finish()) << driver.Describe();
  EXPECT_TRUE(LogFiles(dir.Logs()).empty())
      << "switching tracing on must take effect only in a new process";
}

TEST(TraceSessionTest, OpenSessionIgnoresLaterConfigurationChanges) {
  CTempDir dir;
  fs::create_directory(dir.Path() / "elsewhere");
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  CTraceDriver driver(DriverKind::kLinked, dir);
  driver.Send("string before\n");
  ASSERT_TRUE(driver.Sync());
  WriteFile(dir.ConfigFile(), TraceConfig("0", dir.Path() / "elsewhere"));
  driver.Send("string after\n");
  ASSERT_TRUE(driver.Finish()) << driver.Describe();

  EXPECT_TRUE(LogFiles(dir.Path() / "elsewhere").empty());
  const CTraceLogText log = ParseLog(ReadOnlyLog(dir.Logs()));
  ASSERT_EQ(log.sessions.size(), 1u);
  const std::string tid = driver.MainThreadId();
  ExpectLines(StripTimeStamps(log.sessions.front().body),
              {"", TraceLine(tid, '.', 0, "before"), TraceLine(tid, '.', 0, "after")},
              "an open session keeps writing to its file");
}

TEST(TraceSessionTest, EveryCallIsInTheFileBeforeItReturns) {
  CTempDir dir;
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  CTraceDriver driver(DriverKind::kLinked, dir);
  driver.Send("enter Open\nmechanism 0x1 0 -\n");
  ASSERT_TRUE(driver.Sync());

  // The process still runs: what is in the file now is what a crash leaves.
  const CTraceLogText log = ParseLog(ReadOnlyLog(dir.Logs()));
  ASSERT_EQ(log.sessions.size(), 1u);
  const std::string tid = driver.MainThreadId();
  ExpectLines(
      StripTimeStamps(log.sessions.front().body),
      {"", TraceLine(tid, '.', 0, "Entering Open."), TraceLine(tid, '.', 1, "\tCKM_RSA_PKCS")},
      "the log while the process runs");
  EXPECT_TRUE(log.sessions.front().footer.empty()) << "footer written before the process ended";
  EXPECT_TRUE(driver.Finish()) << driver.Describe();
}

TEST(TraceSessionTest, TwoProcessesAtOnceWriteTheirOwnFiles) {
  CTempDir dir;
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  CTraceDriver first(DriverKind::kLinked, dir);
  CTraceDriver second(DriverKind::kLinked, dir);
  first.Send("string from\\sfirst\n");
  second.Send("string from\\ssecond\n");
  ASSERT_TRUE(first.Sync());
  ASSERT_TRUE(second.Sync());
  ASSERT_TRUE(first.Finish()) << first.Describe();
  ASSERT_TRUE(second.Finish()) << second.Describe();

  const std::vector<fs::path> files = LogFiles(dir.Logs());
  ASSERT_EQ(files.size(), 2u) << "the process id keeps the files apart";
  for (const CTraceDriver* driver : {&first, &second}) {
    const std::string suffix = "_trace_driver_" + std::to_string(driver->Pid()) + ".log";
    const auto file = std::find_if(files.begin(), files.end(), [&](const fs::path& path) {
      return path.filename().string().ends_with(suffix);
    });
    ASSERT_NE(file, files.end()) << "no file ends in " << suffix;
    const CTraceLogText log = ParseLog(ReadFile(*file));
    ASSERT_EQ(log.sessions.size(), 1u);
    EXPECT_EQ(log.sessions.front().header[2], "# Process ID: " + std::to_string(driver->Pid()));
    const std::string text = driver == &first ? "from first" : "from second";
    ExpectLines(StripTimeStamps(log.sessions.front().body),
                {"", TraceLine(driver->MainThreadId(), '.', 0, text)}, suffix);
  }
}

TEST(TraceSessionTest, AppendsToAnOlderFileOfTheSameNameWithAFreshHeader) {
  CTempDir dir;
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  CTraceDriver driver(DriverKind::kLinked, dir);

  // The name holds the second the session opens; lay an older file under
  // every name the session can take while this test may run.
  const std::string older = "older session\n";
  const std::time_t now = std::time(nullptr);
  for (std::time_t t = now - 1; t <= now + 180; ++t) {
    WriteFile(dir.Logs() / ("zelph_" + StampOf(t) + "_trace_driver_" +
                            std::to_string(driver.Pid()) + ".log"),
              older);
  }
  driver.Send("string appended\n");
  ASSERT_TRUE(driver.Finish()) << driver.Describe();

  std::vector<std::string> extended;
  for (const fs::path& file : LogFiles(dir.Logs())) {
    const std::string text = ReadFile(file);
    if (text != older) extended.push_back(text);
  }
  ASSERT_EQ(extended.size(), 1u) << "the session should have extended exactly one older file";
  EXPECT_TRUE(extended.front().starts_with(older)) << "the older content was not kept";
  const CTraceLogText log = ParseLog(extended.front());
  EXPECT_EQ(log.preamble, std::vector<std::string>{"older session"});
  ASSERT_EQ(log.sessions.size(), 1u);
  ExpectHeader(log.sessions.front(), driver.Pid(), driver.ExecutablePath(), now - 1, now + 180);
  ExpectLines(StripTimeStamps(log.sessions.front().body),
              {"", TraceLine(driver.MainThreadId(), '.', 0, "appended")}, "appended body");
  ExpectFooter(log.sessions.front());
}

TEST(TraceSessionTest, LogDeletedWhileRunningLeavesHostRunning) {
  CTempDir dir;
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  CTraceDriver driver(DriverKind::kLinked, dir);
  driver.Send("string first\n");
  ASSERT_TRUE(driver.Sync());
  const std::vector<fs::path> files = LogFiles(dir.Logs());
  ASSERT_EQ(files.size(), 1u);
  fs::remove(files.front());

  driver.Send(kEveryCall);
  EXPECT_TRUE(driver.Finish()) << "the host must survive the loss of its log: "
                               << driver.Describe();
  EXPECT_TRUE(Entries(dir.Logs()).empty()) << "the deleted log must not be created again";
}

TEST(TraceSessionTest, EachLoadOfTheLibraryIsASessionOfItsOwn) {
  CTempDir dir;
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  const std::time_t before = std::time(nullptr);
  CTraceDriver driver(DriverKind::kDlopen, dir);
  driver.Send("load\nenter A\nstring first\nleave A\nunload\n");
  ASSERT_TRUE(driver.Sync());
  {
    // Unloading ends the session at once, not only at process exit.
    const std::vector<CTraceSessionText> sessions = AllSessions(dir.Logs());
    ASSERT_EQ(sessions.size(), 1u);
    ExpectFooter(sessions.front());
  }
  // A second session; a load without any trace call; a last session that the
  // driver's own dlclose before exit ends.
  driver.Send("load\nstring second\nunload\nload\nunload\nload\nstring third\n");
  ASSERT_TRUE(driver.Finish()) << "nothing may crash once the library is gone: "
                               << driver.Describe();
  const std::time_t after = std::time(nullptr);

  const std::vector<CTraceSessionText> sessions = AllSessions(dir.Logs());
  ASSERT_EQ(sessions.size(), 3u) << "one session per load that traced";
  const std::string tid = driver.MainThreadId();
  // Every load starts afresh: first marker again, blank line for the first output.
  const std::vector<std::vector<std::string>> bodies = {
      {"", TraceLine(tid, '.', 0, "Entering A."), TraceLine(tid, '.', 1, "first"),
       TraceLine(tid, '.', 0, "Leaving A."), ""},
      {"", TraceLine(tid, '.', 0, "second")},
      {"", TraceLine(tid, '.', 0, "third")},
  };
  for (std::size_t i = 0; i < sessions.size(); ++i) {
    SCOPED_TRACE("session " + std::to_string(i + 1));
    ExpectHeader(sessions[i], driver.Pid(), driver.ExecutablePath(), before, after);
    ExpectLines(StripTimeStamps(sessions[i].body), bodies[i], "body");
    ExpectFooter(sessions[i]);
  }
}

}  // namespace
}  // namespace zelph
