// The line writer as it shows in a real log: nesting, blank lines, the
// composition of TraceString lines, markers and threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "TraceLogHarness.h"

namespace zelph {
namespace {

constexpr char kMarkers[] = ".|@_~#/\\^-&*=%:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// The marker of the n-th thread (from 0) that traces in a process.
char MarkerOf(int n) {
  return n < 15 ? kMarkers[n] : kMarkers[15 + (n - 15) % 52];
}

TEST(TraceLineWriterTest, NestingIndentsAndBlankLinesCloseOutermostCalls) {
  const CTracedRun run(
      "enter A\n"
      "enter B\n"
      "string in\\sB\n"
      "leave B\n"
      "leave A\n"
      "leave Orphan\n"
      "enter C\n"
      "leave C\n"
      "enter caf\\xC3\\xA9\\s100%d%s\n"
      "leave caf\\xC3\\xA9\\s100%d%s\n");
  const std::string tid = run.Driver().MainThreadId();
  auto line = [&](int depth, const char* text) { return TraceLine(tid, '.', depth, text); };
  ExpectLines(run.Body(),
              {
                  "",  // the first output of the process
                  line(0, "Entering A."),
                  line(1, "Entering B."),
                  line(2, "in B"),  // a message does not change the depth
                  line(1, "Leaving B."),
                  line(0, "Leaving A."),
                  "",                          // the outermost call is closed
                  line(0, "Leaving Orphan."),  // an unmatched leave stays at depth 0
                  "",
                  line(0, "Entering C."),
                  line(0, "Leaving C."),
                  "",
                  // Names are printed as given: no conversion, no formatting.
                  line(0, "Entering caf\xC3\xA9 100%d%s."),
                  line(0, "Leaving caf\xC3\xA9 100%d%s."),
                  "",
              },
              "nesting");
}

// A TraceString call: the script's tokens and the texts of the lines it must
// write, each behind the full prefix.
struct MessageCase {
  const char* name;
  const char* tokens;
  std::vector<std::string> lines;
};

const MessageCase kMessageCases[] = {
    // Line breaks.
    {"NoBreakIsOneLine", "single", {"single"}},
    {"CrLfInsideTrailingLfsDropped", "a\\r\\nb\\n\\n", {"a", "b"}},
    {"LoneCr", "a\\rb", {"a", "b"}},
    {"LoneLf", "a\\nb", {"a", "b"}},
    {"LfCrIsOneBreak", "a\\n\\rb", {"a", "b"}},
    {"TwoCrAreTwoBreaks", "a\\r\\rb", {"a", "", "b"}},
    {"TwoLfAreTwoBreaks", "a\\n\\nb", {"a", "", "b"}},
    {"TwoCrLfAreTwoBreaks", "a\\r\\n\\r\\nb", {"a", "", "b"}},
    {"LfCrThenLfAreTwoBreaks", "a\\n\\r\\nb", {"a", "", "b"}},
    {"LeadingBreakKept", "\\nlead", {"", "lead"}},
    {"TrailingMixedBreaksDropped", "trail\\r\\n\\r\\n\\r", {"trail"}},
    {"OnlyBreaksGiveOneEmptyLine", "\\r\\n\\n", {""}},
    {"TabsAndBlanksKept", "\\tx\\sy\\s", {"\tx y "}},
    // The format is read as UTF-8 and written as ISO-8859-1.
    {"AccentBecomesOneByte", "caf\\xC3\\xA9", {"caf\xE9"}},
    {"EuroBecomesQuestionMark", "\\xE2\\x82\\xAC\\s5", {"? 5"}},
    {"ConvertedOnEveryLine", "\\xC3\\xBC\\n\\xC3\\x9F", {"\xFC", "\xDF"}},
    {"MalformedByteBecomesQuestionMark", "a\\xFFz", {"a?z"}},
    // printf arguments.
    {"ArgumentBytesUnchanged", "[%s] s:caf\\xC3\\xA9", {"[caf\xC3\xA9]"}},
    {"Decimal", "n=%d d:42", {"n=42"}},
    {"NegativeDecimal", "%d d:-5", {"-5"}},
    {"WidthAndAlignment", "%5d|%-4s| d:7 s:ab", {"    7|ab  |"}},
    {"HexConversions", "%x|%X d:255 d:171", {"ff|AB"}},
    {"DoubledPercent", "100%%", {"100%"}},
    {"ArgumentIsNotAFormat", "%s s:%d%s", {"%d%s"}},
    {"ArgumentsOnSeveralLines", "a=%d\\nb=%s d:1 s:x", {"a=1", "b=x"}},
};

TEST(TraceLineWriterTest, TraceStringComposesEveryLineBehindThePrefix) {
  std::string script;
  for (const MessageCase& c : kMessageCases) script += std::string("string ") + c.tokens + "\n";
  const CTracedRun run(script);
  const std::string tid = run.Driver().MainThreadId();

  const std::vector<std::string>& body = run.Body();
  ASSERT_FALSE(body.empty());
  EXPECT_EQ(body.front(), "") << "the first output of the process opens with a blank line";
  std::size_t at = 1;
  for (const MessageCase& c : kMessageCases) {
    std::vector<std::string> expected;
    for (const std::string& text : c.lines) expected.push_back(TraceLine(tid, '.', 0, text));
    const std::size_t end = std::min(body.size(), at + expected.size());
    ExpectLines(std::vector<std::string>(body.begin() + at, body.begin() + end), expected, c.name);
    at = end;
    if (testing::Test::HasFailure()) break;  // the rest would be out of step
  }
  EXPECT_EQ(at, body.size()) << "more lines than the messages account for";
}

TEST(TraceLineWriterTest, MarkersFollowTheOrderThreadsFirstTrace) {
  // 68 threads, all alive at once, trace one after another.
  const int kThreads = 68;
  const CTracedRun run("threads " + std::to_string(kThreads) + " turns\n");

  std::vector<std::string> expected;
  for (int i = 0; i < kThreads; ++i) {
    const std::string tid = run.Driver().WorkerThreadId(i);
    const char marker = MarkerOf(i);
    expected.push_back("");  // another thread wrote last
    expected.push_back(TraceLine(tid, marker, 0, "Entering turn."));
    // The prefix is part of the format of messages and dumps, so the doubled
    // "%" of the fourteenth thread prints as one there; Entering and Leaving
    // show both.
    std::string message = TraceLine(tid, marker, 1, "thread " + std::to_string(i));
    std::string mechanism = TraceLine(tid, marker, 1, "\tCKM_RSA_PKCS");
    if (marker == '%') {
      message.erase(8, 1);
      mechanism.erase(8, 1);
    }
    expected.push_back(message);
    expected.push_back(mechanism);
    expected.push_back(TraceLine(tid, marker, 0, "Leaving turn."));
    expected.push_back("");
  }
  ASSERT_EQ(MarkerOf(13), '%');
  ASSERT_EQ(MarkerOf(15), 'A') << "the sixteenth thread";
  ASSERT_EQ(MarkerOf(67), 'A') << "the sixty-eighth thread";
  ExpectLines(run.Body(), expected, "68 threads in turn");
}

// One parsed line of a multi-threaded log.
struct ThreadLine {
  std::string tid;
  char marker;
  std::string rest;  // after the markers' blank: indentation and text
};

TEST(TraceLineWriterTest, ConcurrentThreadsKeepLinesWholeAndTheirOwnOrder) {
  const int kThreads = 8;
  const int kRounds = 40;
  const CTracedRun run("string start\nthreads " + std::to_string(kThreads) + " concurrent " +
                       std::to_string(kRounds) + "\nstring end\n");
  const std::string mainTid = run.Driver().MainThreadId();

  // Every line is whole: stamped, id, the marker twice and a blank.
  std::vector<std::string> order;  // thread ids in order of their first line
  std::map<std::string, std::vector<std::string>> perThread;
  std::map<std::string, char> markers;
  std::string lastWriter;
  bool closedCall = false;  // the previous line was a Leaving line at depth 0
  int blanks = 0;
  for (const std::string& line : run.Body()) {
    if (line.empty()) {
      ++blanks;
      continue;
    }
    ASSERT_TRUE(line.size() > 11 && line[8] == line[9] && line[10] == ' ')
        << "torn or malformed line: " << line;
    const ThreadLine parsed{line.substr(0, 8), line[8], line.substr(11)};
    if (!markers.count(parsed.tid)) {
      order.push_back(parsed.tid);
      markers[parsed.tid] = parsed.marker;
    }
    EXPECT_EQ(parsed.marker, markers[parsed.tid]) << "a thread's marker changed: " << line;
    const int expectedBlanks = (parsed.tid != lastWriter ? 1 : 0) + (closedCall ? 1 : 0);
    ASSERT_EQ(blanks, expectedBlanks)
        << "blank lines before \"" << line << "\": one for a change of thread, one after an "
        << "outermost Leaving line";
    perThread[parsed.tid].push_back(line);
    lastWriter = parsed.tid;
    closedCall = parsed.rest.starts_with("Leaving ");
    blanks = 0;
  }
  EXPECT_EQ(blanks, closedCall ? 1 : 0) << "blank lines at the end of the body";

  ASSERT_EQ(order.size(), static_cast<std::size_t>(kThreads + 1));
  EXPECT_EQ(order.front(), mainTid);
  for (std::size_t n = 0; n < order.size(); ++n) {
    EXPECT_EQ(markers[order[n]], MarkerOf(static_cast<int>(n)))
        << "markers go to threads in the order of their first line";
  }
  ExpectLines(perThread[mainTid],
              {TraceLine(mainTid, '.', 0, "start"), TraceLine(mainTid, '.', 0, "end")},
              "main thread");
  for (int i = 0; i < kThreads; ++i) {
    const std::string tid = run.Driver().WorkerThreadId(i);
    ASSERT_TRUE(markers.count(tid)) << "worker " << i << " left no line";
    const char m = markers[tid];
    std::vector<std::string> expected;
    for (int r = 0; r < kRounds; ++r) {
      const std::string round = "t" + std::to_string(i) + " r" + std::to_string(r);
      expected.push_back(TraceLine(tid, m, 0, "Entering outer."));
      expected.push_back(TraceLine(tid, m, 1, round));
      expected.push_back(TraceLine(tid, m, 1, "Entering inner."));
      expected.push_back(TraceLine(tid, m, 2, round + " deep"));
      expected.push_back(TraceLine(tid, m, 1, "Leaving inner."));
      expected.push_back(TraceLine(tid, m, 0, "Leaving outer."));
    }
    ExpectLines(perThread[tid], expected, "worker " + std::to_string(i));
  }
}

}  // namespace
}  // namespace zelph
