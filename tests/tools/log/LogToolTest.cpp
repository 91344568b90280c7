// zelph-log run as a program on logs made here: what a support engineer reads
// in its summary, what a script reads in its JSON, the calls it picks, its
// exit codes, and what it says of input that is no log.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CChildProcess.h"
#include "TestFiles.h"
#include "TraceLog.h"

namespace zelph {
namespace {

constexpr char kA[] = "0000AAAA";
constexpr char kB[] = "0000BBBB";

struct CRun {
  int status;
  std::string out, err;
};

CRun Tool(std::vector<std::string> arguments, std::string_view input = "") {
  arguments.insert(arguments.begin(), ZELPH_LOG_TOOL);
  CChildProcess child({std::move(arguments), {}, {}, {}});
  child.Send(input);
  child.Finish(60);
  return {WIFEXITED(child.Status()) ? WEXITSTATUS(child.Status()) : -1, child.Output(),
          child.Errors()};
}

// Two processes: one with a failed and a nested call on two threads, one
// killed inside C_Sign.
class LogTool : public testing::Test {
 protected:
  void SetUp() override {
    const auto L = MadeLogLine;
    WriteFile(dir_.File("zelph_1.log"),
              MadeLogHeader("2026-11-22", "10:00:00", "101", "/usr/bin/pkcs11-tool") +
                  L("11-22_10:00:00:000000", kA, 0, "Entering C_Login.", "..") +
                  L("11-22_10:00:00:000010", kA, 1, "pPin: 4 characters, not shown", "..") +
                  L("11-22_10:00:00:000020", kB, 0, "Entering C_GetSlotList.", "||") +
                  L("11-22_10:00:00:000030", kB, 1, "Returns CKR_OK (4 us)", "||") +
                  L("11-22_10:00:00:000040", kB, 0, "Leaving C_GetSlotList.", "||") +
                  L("11-22_10:00:00:002000", kA, 1, "Returns CKR_PIN_INCORRECT (1990 us)", "..") +
                  L("11-22_10:00:00:002010", kA, 0, "Leaving C_Login.", "..") +
                  L("11-22_10:00:00:003000", kA, 0, "Entering C_Login.", "..") +
                  L("11-22_10:00:00:003010", kA, 1, "Entering CardVerifyPin.", "..") +
                  L("11-22_10:00:00:013010", kA, 1, "Leaving CardVerifyPin.", "..") +
                  L("11-22_10:00:00:013011", kB, 0, "Entering C_GetSlotList.", "||") +
                  L("11-22_10:00:00:013012", kB, 1, "Returns CKR_OK (2 us)", "||") +
                  L("11-22_10:00:00:013015", kB, 0, "Leaving C_GetSlotList.", "||") +
                  L("11-22_10:00:00:013020", kA, 1, "Returns CKR_OK (10015 us)", "..") +
                  L("11-22_10:00:00:013030", kA, 0, "Leaving C_Login.", ".."));
    WriteFile(dir_.File("zelph_2.log"),
              MadeLogHeader("2026-11-22", "10:01:00", "102", "/usr/bin/app") +
                  L("11-22_10:01:00:000000", kA, 0, "Entering C_Sign.", "..") +
                  L("11-22_10:01:00:500000", kA, 1, "pData: 26 bytes", ".."));
  }
  const CTestDir dir_{"log"};
};

TEST_F(LogTool, SummaryNamesCountsFailuresAndSlowCallsInEightyColumns) {
  const CRun run = Tool({"summary", dir_.Path()});
  ASSERT_EQ(run.status, 0) << run.err;
  for (const std::string expected : {
           "zelph-log: 2 logs, 2 processes, 6 calls, 1 failed, 1 unfinished\n",
           "pkcs11-tool, pid 101, started 2026-11-22 10:00:00\n",
           "  5 calls, 1 failed, 0 unfinished, 2 threads\n",
           "C_Login                   2      1  12.0 ms  6.00 ms  1.99 ms  10.0 ms  10.0 ms\n",
           "CardVerifyPin             1      0  10.0 ms",
           "Failures by return code\n  CKR_PIN_INCORRECT                        1\n    The ",
           "Slowest calls\n  C_Login               10.0 ms  11-22 10:00:00.003000  0000AAAA  line "
           "18\n",
           "  C_Login: CKR_PIN_INCORRECT\n    at 11-22 10:00:00.000000, thread 0000AAAA, line 11\n",
           "    | Entering C_Login.\n    |     pPin: 4 characters, not shown\n"
           "    |     Returns CKR_PIN_INCORRECT (1990 us)\n    | Leaving C_Login.\n",
           "Unfinished calls (no Leaving line)\n  C_Sign\n"
           "    at 11-22 10:01:00.000000, thread 0000AAAA, line 11\n    still open after 500.0 "
           "ms\n",
           "All 2 processes together\n",
       }) {
    EXPECT_NE(run.out.find(expected), std::string::npos) << "missing: " << expected << run.out;
  }
  for (const std::string& line : SplitLines(run.out)) {
    EXPECT_LE(line.size(), 80u) << "wider than a terminal: " << line;
  }
}

TEST_F(LogTool, JsonHoldsTheSameForScripts) {
  const CRun run = Tool({"summary", "--json", dir_.File("zelph_1.log"), dir_.File("zelph_2.log")});
  ASSERT_EQ(run.status, 0) << run.err;
  const nlohmann::json json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["schema"], "zelph-log summary");
  EXPECT_EQ(json["version"], 1);
  EXPECT_EQ(json["all"]["calls"], 6);
  ASSERT_EQ(json["processes"].size(), 2u);
  const nlohmann::json& first = json["processes"][0];
  EXPECT_EQ(first["pid"], 101);
  EXPECT_EQ(first["threads"].size(), 2u);
  const nlohmann::json& login = first["functions"][0];
  EXPECT_EQ(login["name"], "C_Login");
  EXPECT_EQ(login["total_us"], 12005);
  EXPECT_EQ(login["failures"][0]["code"], "CKR_PIN_INCORRECT");
  EXPECT_EQ(login["histogram"].size(), 4u) << "bins [1024, 2048) to [8192, 16384)";
  const nlohmann::json& failed = first["failed_calls"][0];
  EXPECT_EQ(failed["time"], "2026-11-22T10:00:00.000000");
  EXPECT_EQ(failed["duration_us"], 1990);
  EXPECT_EQ(failed["lines"].size(), 4u);
  EXPECT_FALSE(failed["message"].get<std::string>().empty());
  EXPECT_EQ(json["processes"][1]["unfinished_calls"][0]["function"], "C_Sign");
  EXPECT_FALSE(json["processes"][1]["unfinished_calls"][0].contains("duration_us"));
}

TEST_F(LogTool, CallsPicksCallsByFunctionFailureThreadAndDuration) {
  const struct {
    std::vector<std::string> filter;
    std::vector<std::string> lines;  // the "==>" lines printed
  } cases[] = {
      {{"--failed"}, {"zelph_1.log:11: C_Login, thread 0000AAAA, 1.99 ms, CKR_PIN_INCORRECT"}},
      {{"--function", "C_*Slot*"},
       {"zelph_1.log:13: C_GetSlotList, thread 0000BBBB, 4 us, CKR_OK",
        "zelph_1.log:21: C_GetSlotList, thread 0000BBBB, 2 us, CKR_OK"}},
      {{"--function", "Card*"}, {"zelph_1.log:19: CardVerifyPin, thread 0000AAAA, 10.0 ms"}},
      {{"--thread", "0000aaaa", "--slower-than", "5ms"},
       {"zelph_1.log:18: C_Login, thread 0000AAAA, 10.0 ms, CKR_OK",
        "zelph_1.log:19: CardVerifyPin, thread 0000AAAA, 10.0 ms",
        "zelph_2.log:11: C_Sign, thread 0000AAAA, unfinished after 500.0 ms"}},
      {{"--unfinished"}, {"zelph_2.log:11: C_Sign, thread 0000AAAA, unfinished after 500.0 ms"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> arguments = {"calls", dir_.Path()};
    arguments.insert(arguments.end(), c.filter.begin(), c.filter.end());
    const CRun run = Tool(arguments);
    std::vector<std::string> headers;
    const std::vector<std::string> lines = SplitLines(run.out);
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (!lines[i].starts_with("==> ")) continue;
      headers.push_back(lines[i].substr(lines[i].rfind('/') + 1));
      const std::string function = headers.back().substr(headers.back().find(": ") + 2);
      EXPECT_NE(lines.at(i + 1).find("Entering " + function.substr(0, function.find(','))),
                std::string::npos)
          << "a call's own lines follow its header: " << lines[i] << "\n"
          << lines.at(i + 1);
    }
    EXPECT_EQ(headers, c.lines) << testing::PrintToString(c.filter) << "\n" << run.out;
  }
  const CRun failed = Tool({"calls", "--failed", dir_.File("zelph_1.log")});
  EXPECT_NE(failed.out.find("\n11-22_10:00:00:002000 0000AAAA..     Returns CKR_PIN_INCORRECT"),
            std::string::npos)
      << "a call is printed with its lines as the log has them: " << failed.out;
  EXPECT_EQ(Tool({"calls", "--function", "C_Nothing", dir_.Path()}).status, 1) << "nothing matched";
  const CRun fromInput =
      Tool({"calls", "--json", "--unfinished", "-"}, ReadFile(dir_.File("zelph_2.log")));
  ASSERT_EQ(fromInput.status, 0) << fromInput.err;
  const nlohmann::json json = nlohmann::json::parse(fromInput.out);
  EXPECT_EQ(json[0]["log"], "(standard input)");
  EXPECT_EQ(json[0]["lines"].size(), 2u);
}

TEST_F(LogTool, BadInputIsNamedAndTheRestStillRead) {
  WriteFile(dir_.File("notes.txt"), "shopping list\nmilk\n");
  const CRun run = Tool({"summary", dir_.File("zelph_1.log"), dir_.File("notes.txt"),
                         dir_.File("missing.log"), dir_.File("zelph_2.log")});
  EXPECT_EQ(run.status, 2) << "an input that is no log is trouble";
  EXPECT_NE(run.out.find("zelph-log: 4 logs, 2 processes, 6 calls"), std::string::npos) << run.out;
  EXPECT_NE(run.err.find(dir_.File("notes.txt") + ": not a trace log"), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find(dir_.File("missing.log") + ": cannot open: No such file"),
            std::string::npos)
      << run.err;
  for (const auto& [arguments, status] : std::vector<std::pair<std::vector<std::string>, int>>{
           {{"--help"}, 0},
           {{"summary"}, 2},
           {{"calls", "--slower-than", "soon", "x"}, 2},
           {{"frobnicate"}, 2},
           {{"report", dir_.Path()}, 2}}) {
    EXPECT_EQ(Tool(arguments).status, status) << testing::PrintToString(arguments);
  }
}

TEST_F(LogTool, ReportIsOnePageThatNeedsNothingFromTheNetwork) {
  const std::string page = dir_.File("report.html");
  const CRun run = Tool({"report", dir_.Path(), "-o", page});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string html = ReadFile(page);
  // (The SVG namespace is a name, not a place the page goes to.)
  for (const char* outside :
       {"src=", "href=", "<link", "@import", "url(", "fetch(", "XMLHttpRequest", "https://"}) {
    EXPECT_EQ(html.find(outside), std::string::npos) << "the page reaches out: " << outside;
  }
  const std::size_t start = html.find("<script id=\"zelph-data\" type=\"application/json\">");
  ASSERT_NE(start, std::string::npos);
  const std::size_t from = html.find('>', start) + 1;
  const nlohmann::json data =
      nlohmann::json::parse(html.substr(from, html.find("</script>", from) - from));
  EXPECT_EQ(data["summary"]["all"]["calls"], 6);
  const nlohmann::json& timeline = data["timeline"]["processes"][0];
  EXPECT_EQ(timeline["calls"]["start"], nlohmann::json::array({0, 20, 3000, 3010, 13011}));
  EXPECT_EQ(timeline["calls"]["depth"], nlohmann::json::array({0, 0, 0, 1, 0}));
  EXPECT_EQ(timeline["calls"]["count"], nlohmann::json::array({4, 3, 5, 2, 3}));
  EXPECT_EQ(timeline["calls"]["first"][3], timeline["calls"]["first"][2].get<int>() + 1)
      << "a nested call's lines lie inside its outer call's";
}

}  // namespace
}  // namespace zelph
