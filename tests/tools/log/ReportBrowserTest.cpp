// The report of a real spy session (three threads in front of SoftHSM2) in
// headless Chromium: its lanes, bars and table hold the log's calls, a click
// on a bar shows that call's lines, and a screenshot shows how it looks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "CChildProcess.h"
#include "SoftHsm.h"
#include "TestFiles.h"
#include "TraceLog.h"

namespace zelph {
namespace {

// The value of attribute `name` in the HTML tag `tag`.
std::string Attribute(const std::string& tag, const std::string& name) {
  std::smatch match;
  return std::regex_search(tag, match, std::regex(" " + name + "=\"([^\"]*)\"")) ? match[1].str()
                                                                                 : "";
}

// The opening tags of `html` that contain `part`.
std::vector<std::string> TagsWith(const std::string& html, const std::string& part) {
  std::vector<std::string> tags;
  for (std::size_t at = html.find(part); at != std::string::npos; at = html.find(part, at + 1)) {
    const std::size_t start = html.rfind('<', at);
    tags.push_back(html.substr(start, html.find('>', at) - start + 1));
  }
  return tags;
}

std::string Chromium(const std::vector<std::string>& arguments, const CTestDir& profile) {
  std::vector<std::string> command = {"/usr/bin/chromium", "--headless", "--no-sandbox",
                                      "--disable-gpu", "--user-data-dir=" + profile.Path()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  CChildProcess browser({command, {}, {}, {}});
  browser.Finish(120);
  return browser.Output();
}

TEST(ReportInBrowser, LanesBarsAndTableHoldTheCallsOfARealSpySession) {
  if (access("/usr/bin/chromium", X_OK) != 0) GTEST_SKIP() << "/usr/bin/chromium is not installed";
  if (access(kSoftHsmModule, R_OK) != 0) GTEST_SKIP() << "SoftHSM2 is missing; `make deps`";
  const CTestDir dir("report");
  WriteFile(dir.File("zelph.conf"),
            TraceConfig(dir.Path()) + "Spy {\n\tModule = " + kSoftHsmModule + "\n}\n");
  const std::string session = RunToEnd({{ZELPH_THREADED_CLIENT, ZELPH_SPY_LIB},
                                        {},
                                        {{"SOFTHSM2_CONF", SoftHsmStore(dir)},
                                         {"ZELPH_CONFFILE", dir.File("zelph.conf")},
                                         {"ZELPH_SPY_MODULE", std::nullopt}},
                                        {}});
  ASSERT_TRUE(session.starts_with("exit status 0;")) << session;

  // What the log holds, read here line by line.
  std::map<std::string, int> calls, failed, functions;
  for (const std::string& line : SplitLines(ReadLogs(dir.Path()))) {
    const CTraceLine split = SplitTraceLine(line);
    if (!split.valid) continue;
    if (split.text.starts_with("Entering ")) {
      ++calls[split.thread];
      ++functions[split.text.substr(9, split.text.size() - 10)];
    }
    if (split.text.starts_with("Returns ") && !split.text.starts_with("Returns CKR_OK")) {
      ++failed[split.thread];
    }
  }
  ASSERT_EQ(calls.size(), 4u) << "the main thread and three workers";

  const std::string page = dir.File("report.html");
  const std::string report =
      RunToEnd({{ZELPH_LOG_TOOL, "report", dir.Path(), "-o", page}, {}, {}, {}});
  ASSERT_TRUE(report.starts_with("exit status 0;")) << report;
  const CTestDir profile("chromium");
  const std::string dom = Chromium(
      {"--dump-dom", "--virtual-time-budget=30000", "file://" + page + "#selftest"}, profile);
  ASSERT_NE(dom.find("data-rendered=\"1\""), std::string::npos) << "the page never finished\n"
                                                                << dom.substr(0, 2000);

  std::map<std::string, int> lanes, laneFailures;
  for (const std::string& tag : TagsWith(dom, "class=\"lane\"")) {
    lanes[Attribute(tag, "data-thread")] = std::stoi(Attribute(tag, "data-bars"));
    laneFailures[Attribute(tag, "data-thread")] = std::stoi(Attribute(tag, "data-failed"));
  }
  EXPECT_EQ(lanes, calls) << "one lane per thread, one bar per call";
  for (auto& [thread, count] : laneFailures) {
    EXPECT_EQ(count, failed[thread]) << "failed bars of thread " << thread;
  }

  const std::size_t all = dom.find("data-process=\"all\"");
  ASSERT_NE(all, std::string::npos) << "no table for all processes";
  const std::string table = dom.substr(all, dom.find("</table>", all) - all);
  std::map<std::string, int> rows;
  const std::regex row(
      "<tr[^>]* data-function=\"([^\"]+)\"[^>]*>.*?class=\"calls\"[^>]* data-value=\"([0-9]+)\"");
  for (std::sregex_iterator it(table.begin(), table.end(), row), end; it != end; ++it) {
    rows[(*it)[1]] = std::stoi((*it)[2]);
  }
  EXPECT_EQ(rows, functions) << "the table counts every call of every function";

  std::smatch selftest;
  ASSERT_TRUE(
      std::regex_search(dom, selftest, std::regex("<pre id=\"selftest\"[^>]*>([^<]*)</pre>")))
      << "the page ran no click test";
  const nlohmann::json clicks = nlohmann::json::parse(selftest[1].str());
  EXPECT_GT(clicks["clicked"].get<int>(), 5);
  EXPECT_EQ(clicks["matched"], clicks["clicked"])
      << "a click on a bar shows that call's lines: " << clicks.dump();

  const std::string screenshot = std::string(ZELPH_TEST_OUTPUT) + "/zelph-log-report.png";
  Chromium({"--screenshot=" + screenshot, "--window-size=1280,1500", "--hide-scrollbars",
            "--virtual-time-budget=10000", "file://" + page},
           profile);
  EXPECT_GT(ReadFile(screenshot).size(), 20000u) << "no screenshot at " << screenshot;
  std::printf("The report: %s\nIts screenshot: %s\n", page.c_str(), screenshot.c_str());
}

}  // namespace
}  // namespace zelph
