// The trace log under faults of its file system: a full disk, the log
// directory removed and the log file deleted while the session is open. The
// host (the trace_driver program) must run its script to the end and exit
// normally; the session writes what it can and never reopens.
#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "CHostProcess.h"
#include "FaultFiles.h"

namespace zelph {
namespace {

namespace fs = std::filesystem;

constexpr char kRule[] = "##################################################\n";

// A driver with tracing on and its logs in `logs`.
CHostOptions TracingDriver(const CFaultDir& dir, const std::string& logs) {
  fs::create_directory(logs);
  WriteFile(dir.File("zelph.conf"), TraceConfig(logs));
  CHostOptions options;
  options.program = ZELPH_TRACE_DRIVER;
  options.environment = {{"ZELPH_CONFFILE", dir.File("zelph.conf")}, {"HOME", dir.Path()}};
  return options;
}

// `count` numbered message lines for the driver, from `first` on.
std::string NumberedLines(int first, int count) {
  std::string script;
  for (int i = first; i < first + count; ++i) {
    script +=
        "string message\\s%d\\sof\\sa\\slog\\sthat\\smay\\snot\\sfit d:" + std::to_string(i) + "\n";
  }
  return script;
}

// The numbers of the message lines in a log, in log order.
std::vector<int> MessageNumbers(const std::string& log) {
  static const std::regex line(R"(\n[^\n]* message (\d+) of a log that may not fit(?=\n))");
  std::vector<int> numbers;
  for (std::sregex_iterator it(log.begin(), log.end(), line), end; it != end; ++it) {
    numbers.push_back(std::stoi((*it)[1]));
  }
  return numbers;
}

struct FullDiskCase {
  const char* name;
  unsigned long limit;  // bytes the log file may hold
};

void PrintTo(const FullDiskCase& c, std::ostream* out) {
  *out << c.name;
}

class TraceLogFullDiskTest : public testing::TestWithParam<FullDiskCase> {};

TEST_P(TraceLogFullDiskTest, HostRunsOnAndLogHoldsWhatFits) {
  const FullDiskCase& c = GetParam();
  CFaultDir dir;
  const std::string logs = dir.File("logs");
  CHostOptions options = TracingDriver(dir, logs);
  options.fileSizeLimit = c.limit;
  CHostProcess host(options);
  host.Send("enter Main\n" + NumberedLines(0, 400) + "leave Main\n");
  ASSERT_TRUE(host.Finish()) << "the host died on a full disk: " << host.Describe();
  EXPECT_TRUE(host.Output().ends_with("done\n")) << "the script did not run to its end";

  const std::vector<std::string> files = LogFiles(logs);
  ASSERT_EQ(files.size(), 1u) << "the log is created even when nothing fits into it";
  const std::string log = ReadFile(files.front());
  EXPECT_EQ(log.size(), c.limit) << "the log should fill the space there is, and no more";
  const std::string head = log.substr(0, sizeof kRule - 1);
  EXPECT_EQ(head, std::string(kRule).substr(0, head.size()))
      << "the log starts with the header's rule line";
  const std::vector<int> numbers = MessageNumbers(log);
  EXPECT_EQ(numbers.empty(), c.limit < 4096)
      << "message lines fit behind the header only in the largest case";
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    EXPECT_EQ(numbers[i], static_cast<int>(i)) << "a message line is missing before the cut";
  }
  EXPECT_EQ(log.find("# Ending log"), std::string::npos) << "no room was left for the footer";
}

INSTANTIATE_TEST_SUITE_P(Limits, TraceLogFullDiskTest,
                         testing::Values(FullDiskCase{"NothingFits", 0},
                                         FullDiskCase{"HeaderIsCut", 100},
                                         FullDiskCase{"BodyIsCut", 8192}),
                         [](const auto& info) { return info.param.name; });

// What happens to the log between two parts of the script.
enum class Removal { kDirectory, kFile };

struct RemovalCase {
  const char* name;
  Removal what;
};

void PrintTo(const RemovalCase& c, std::ostream* out) {
  *out << c.name;
}

class TraceLogRemovedTest : public testing::TestWithParam<RemovalCase> {};

TEST_P(TraceLogRemovedTest, SessionWritesOnIntoTheOpenFileAndNeverReopens) {
  CFaultDir dir;
  const std::string logs = dir.File("logs");
  CHostProcess host(TracingDriver(dir, logs));
  host.Send("enter Main\n" + NumberedLines(0, 10) + "sync\n");
  ASSERT_TRUE(host.WaitForLine("sync")) << host.Describe();
  const std::vector<std::string> files = LogFiles(logs);
  ASSERT_EQ(files.size(), 1u) << "the session is open before the removal";

  if (GetParam().what == Removal::kDirectory) {
    fs::remove_all(logs);
  } else {
    fs::remove(files.front());
  }
  host.Send(NumberedLines(10, 10) + "threads 4 concurrent 3\nsync\n");
  ASSERT_TRUE(host.WaitForLine("sync"))
      << "the host stopped after the removal: " << host.Describe();

  // The session keeps its stream: the lines after the removal are in the
  // deleted file, which only the process still reaches.
  const std::vector<int> open = FindOpenFiles(host.Pid(), "zelph_");
  ASSERT_EQ(open.size(), 1u) << "the host should still hold its one log file";
  const std::vector<int> numbers = MessageNumbers(ReadOpenFile(host.Pid(), open.front()));
  ASSERT_EQ(numbers.size(), 20u) << "every message line reaches the open file";
  for (std::size_t i = 0; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], static_cast<int>(i));

  host.Send("leave Main\n");
  ASSERT_TRUE(host.Finish()) << host.Describe();
  EXPECT_TRUE(host.Output().ends_with("done\n")) << "the script did not run to its end";
  if (GetParam().what == Removal::kDirectory) {
    EXPECT_FALSE(fs::exists(logs)) << "the session must not create the directory again";
  } else {
    EXPECT_TRUE(LogFiles(logs).empty()) << "the session must not open a new log";
  }
}

INSTANTIATE_TEST_SUITE_P(Removals, TraceLogRemovedTest,
                         testing::Values(RemovalCase{"Directory", Removal::kDirectory},
                                         RemovalCase{"File", Removal::kFile}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace zelph
