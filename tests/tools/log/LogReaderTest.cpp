// The reader on logs made here line by line: how calls are cut out of them,
// timed and named, and what it says about input that is not a clean log.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "DurationSketch.h"
#include "LogInputs.h"
#include "LogReader.h"
#include "TraceLog.h"

namespace zelph {
namespace {

std::string L(const std::string& stamp, const std::string& thread, int depth,
              const std::string& text, const std::string& markers = "..") {
  return MadeLogLine(stamp, thread, depth, text, markers);
}

std::string Header(const std::string& date = "2026-11-22", const std::string& time = "10:00:00",
                   const std::string& pid = "42") {
  return MadeLogHeader(date, time, pid);
}

// The year the reader gives a log without a header.
std::string Year() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return std::to_string(local.tm_year + 1900);
}

constexpr char kA[] = "0000AAAA";
constexpr char kB[] = "0000BBBB";

// Each call as "NAME@depth status duration/span lines=N [code] time", in the
// order the reader hands them out; processes as "process PID EXE", problems
// as "LINE: text".
class CRecorder : public CLogSink {
 public:
  std::vector<std::string> events;
  const CLogReader* reader = nullptr;

  void BeginProcess(const CLogProcess& p) override {
    events.push_back("process " + std::to_string(p.pid) + " " + p.executable);
  }
  void Call(const CLogCall& call, const std::vector<CKeptLine>& lines) override {
    static const char* const kStatus[] = {"ok", "failed", "unfinished"};
    std::string text = reader->Functions()[call.function] + "@" + std::to_string(call.depth) + " " +
                       kStatus[static_cast<int>(call.status)] + " " +
                       std::to_string(call.duration) + "/" + std::to_string(call.span) +
                       " lines=" + std::to_string(call.count);
    if (call.code >= 0) text += " " + reader->Codes()[call.code];
    text += " " + TimeOf(call);
    if (call.count > 0) {
      EXPECT_EQ(lines[call.first].text.find("Entering "), std::size_t(4 * call.depth))
          << "a call's lines start with its Entering line: " << text;
    }
    events.push_back(text);
  }
  void EndProcess(std::int64_t end) override { events.push_back("end " + std::to_string(end)); }
  void Problem(const std::string&, std::uint64_t line, const std::string& text) override {
    events.push_back(std::to_string(line) + ": " + text);
  }
};

std::vector<std::string> Read(const std::string& log, bool* ok = nullptr) {
  CRecorder recorder;
  CLogReader reader(recorder);
  recorder.reader = &reader;
  const bool read = reader.ReadBytes("test.log", log);
  if (ok != nullptr) *ok = read;
  return recorder.events;
}

struct CReadCase {
  const char* what;
  std::string log;
  std::vector<std::string> events;
};

TEST(LogReader, CutsCallsOutOfLogsAsTheyAreWritten) {
  const CReadCase cases[] = {
      {"a spied call: the spy's own duration wins over the stamps",
       Header() + L("11-22_10:00:00:000100", kA, 0, "Entering C_Sign.") +
           L("11-22_10:00:00:000110", kA, 1, "hSession = 1") +
           L("11-22_10:00:00:000900", kA, 1, "Returns CKR_OK (700 us)") +
           L("11-22_10:00:00:000950", kA, 0, "Leaving C_Sign."),
       {"process 42 /usr/bin/app", "C_Sign@0 ok 700/850 lines=4 CKR_OK 2026-11-22T10:00:00.000100",
        "end 850"}},
      {"the module's own calls inside a spied one, and a failure",
       Header() + L("11-22_10:00:00:000000", kA, 0, "Entering C_Login.") +
           L("11-22_10:00:00:000010", kA, 1, "Entering CardLogin.") +
           L("11-22_10:00:00:000020", kA, 2, "PIN refused") +
           L("11-22_10:00:00:000030", kA, 1, "Leaving CardLogin.") +
           L("11-22_10:00:00:000040", kA, 1, "Returns CKR_PIN_INCORRECT") +
           L("11-22_10:00:00:000050", kA, 0, "Leaving C_Login."),
       {"process 42 /usr/bin/app", "CardLogin@1 ok 20/20 lines=3 2026-11-22T10:00:00.000010",
        "C_Login@0 failed 50/50 lines=6 CKR_PIN_INCORRECT 2026-11-22T10:00:00.000000", "end 50"}},
      {"two threads' lines interleaved; '%' shown once on message lines",
       Header() + L("11-22_10:00:00:000000", kA, 0, "Entering C_Digest.") +
           L("11-22_10:00:00:000005", kB, 0, "Entering C_Encrypt.", "%%") +
           L("11-22_10:00:00:000010", kA, 0, "Leaving C_Digest.") +
           L("11-22_10:00:00:000012", kB, 1, "pData: 3 bytes", "%") +
           L("11-22_10:00:00:000015", kB, 0, "Leaving C_Encrypt.", "%%"),
       {"process 42 /usr/bin/app", "C_Digest@0 ok 10/10 lines=2 2026-11-22T10:00:00.000000",
        "C_Encrypt@0 ok 10/10 lines=3 2026-11-22T10:00:00.000005", "end 15"}},
      {"a dump over several lines, and a message line without prefix",
       Header() + L("11-22_10:00:00:000000", kA, 0, "Entering C_GetAttributeValue.") +
           L("11-22_10:00:00:000001", kA, 1, "pTemplate: 2 attributes") +
           L("11-22_10:00:00:000001", kA, 1, "\tCKA_CLASS\tLen=8") + "a text with a line break\n" +
           L("11-22_10:00:00:000002", kA, 0, "Leaving C_GetAttributeValue."),
       {"process 42 /usr/bin/app",
        "C_GetAttributeValue@0 ok 2/2 lines=5 2026-11-22T10:00:00.000000", "end 2"}},
      {"a process killed inside calls: unfinished, innermost first, timed to the last line",
       Header() + L("11-22_10:00:00:000000", kA, 0, "Entering C_Initialize.") +
           L("11-22_10:00:00:000010", kA, 0, "Leaving C_Initialize.") +
           L("11-22_10:00:00:000020", kA, 0, "Entering C_Sign.") +
           L("11-22_10:00:00:000030", kA, 1, "Entering ReadCard.") +
           L("11-22_10:00:00:500000", kB, 0, "a last line of another thread"),
       {"process 42 /usr/bin/app", "C_Initialize@0 ok 10/10 lines=2 2026-11-22T10:00:00.000000",
        "ReadCard@1 unfinished -1/499970 lines=1 2026-11-22T10:00:00.000030",
        "C_Sign@0 unfinished -1/499980 lines=2 2026-11-22T10:00:00.000020", "end 500000"}},
      {"across midnight and a year's end: the year counts on",
       Header("2025-12-31", "23:59:59") + L("12-31_23:59:59:900000", kA, 0, "Entering C_Sign.") +
           L("01-01_00:00:00:100000", kA, 0, "Leaving C_Sign.") +
           L("01-01_00:00:00:200000", kA, 0, "Entering C_Verify.") +
           L("01-01_00:00:00:300000", kA, 0, "Leaving C_Verify."),
       {"process 42 /usr/bin/app", "C_Sign@0 ok 200000/200000 lines=2 2025-12-31T23:59:59.900000",
        "C_Verify@0 ok 100000/100000 lines=2 2026-01-01T00:00:00.200000", "end 400000"}},
      {"a call of 2.3 s, timed by where the wall second turns against the monotonic one",
       // The wall second turns at monotonic .700000 (learnt from the first
       // two lines), so the call runs from wall 10.05 to 12.35: 2.3 s, where
       // the stamps' own difference says 1.3 s or 2.3 s.
       Header() + L("11-22_10:00:09:699990", kA, 0, "Entering C_GetInfo.") +
           L("11-22_10:00:10:700010", kA, 0, "Leaving C_GetInfo.") +
           L("11-22_10:00:10:750000", kA, 0, "Entering C_GenerateKeyPair.") +
           L("11-22_10:00:12:050000", kA, 0, "Leaving C_GenerateKeyPair."),
       {"process 42 /usr/bin/app", "C_GetInfo@0 ok 20/20 lines=2 2026-11-22T10:00:09.699990",
        "C_GenerateKeyPair@0 ok 2300000/2300000 lines=2 2026-11-22T10:00:10.750000",
        "end 2350010"}},
      {"two processes in one file (a name used twice), each with its header",
       Header() + L("11-22_10:00:00:000000", kA, 0, "Entering C_Finalize.") +
           "\n# Ending log\n##################################################\n" +
           Header("2026-11-22", "10:05:00", "43") +
           L("11-22_10:05:00:000000", kB, 0, "Entering C_Initialize.") +
           L("11-22_10:05:00:000003", kB, 0, "Leaving C_Initialize."),
       {"process 42 /usr/bin/app",
        "C_Finalize@0 unfinished -1/0 lines=1 2026-11-22T10:00:00.000000", "end 0",
        "process 43 /usr/bin/app", "C_Initialize@0 ok 3/3 lines=2 2026-11-22T10:05:00.000000",
        "end 3"}},
      {"a Leaving of a call never entered, and one that leaves an inner call open",
       Header() + L("11-22_10:00:00:000000", kA, 0, "Leaving C_Stray.") +
           L("11-22_10:00:00:000001", kA, 0, "Entering C_Outer.") +
           L("11-22_10:00:00:000002", kA, 1, "Entering Inner.") +
           L("11-22_10:00:00:000004", kA, 0, "Leaving C_Outer."),
       {"process 42 /usr/bin/app", "11: Leaving C_Stray without its Entering line",
        "14: Leaving C_Outer while Inner (line 13) is still open",
        "Inner@1 unfinished -1/2 lines=2 2026-11-22T10:00:00.000002",
        "C_Outer@0 ok 3/3 lines=3 2026-11-22T10:00:00.000001", "end 4"}},
      {"a log without its header, cut in the middle of a line",
       L("11-22_10:00:00:000000", kA, 0, "Entering C_Sign.") + "11-22_10:00:00:0001",
       {"1: no log header before this line; the year is taken to be " + Year(), "process 0 ",
        "2: the last line has no line end (was the log cut short?)",
        "C_Sign@0 unfinished -1/0 lines=2 " + Year() + "-11-22T10:00:00.000000", "end 0"}},
  };
  for (const CReadCase& c : cases) {
    const std::vector<std::string> events = Read(c.log);
    EXPECT_EQ(events, c.events) << c.what;
  }
}

TEST(LogReader, RefusesWhatIsNoTraceLogAndSaysWhy) {
  const std::string binary(
      "\x7F"
      "ELF\x02\x01\x01\0\0\0\0\0\0\0\0\0\n\x03\0>\0",
      22);
  const std::string text(2000, 'x');
  const struct {
    std::string input, problem;
  } cases[] = {
      {"", "0: empty file, not a trace log"},
      {binary, "0: not a trace log (binary data)"},
      {[&] {
         std::string lines;
         for (int i = 0; i < 1100; ++i) lines += "just some text\n";
         return lines;
       }(),
       "0: not a trace log (no trace line and no log header in its first lines)"},
  };
  for (const auto& c : cases) {
    bool ok = true;
    EXPECT_EQ(Read(c.input, &ok), std::vector<std::string>{c.problem}) << c.problem;
    EXPECT_FALSE(ok) << c.problem;
  }
  // A line of more than a mebibyte is cut; the lines after it still count.
  bool ok = false;
  const std::vector<std::string> events =
      Read(Header() + L("11-22_10:00:00:000000", kA, 0, "Entering C_Sign.") +
               L("11-22_10:00:00:000001", kA, 1, std::string(3 << 20, 'x')) +
               L("11-22_10:00:00:000002", kA, 0, "Leaving C_Sign."),
           &ok);
  EXPECT_TRUE(ok);
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[1], "12: a line of more than 1 MiB, cut there");
  EXPECT_EQ(events[2], "C_Sign@0 ok 2/2 lines=3 2026-11-22T10:00:00.000000");
}

TEST(LogReader, TextThatIsNotUtf8IsReadAsIso88591AndToldOncePerFile) {
  CLogInputs inputs(true);
  EXPECT_EQ(inputs.ToUtf8("caf\xE9 na\xC3\xAFve \xF0\x9F\x94\x91", "a.log", 7),
            "caf\xC3\xA9 na\xC3\xAFve \xF0\x9F\x94\x91");
  EXPECT_EQ(inputs.ToUtf8("\xED\xA0\x80", "a.log", 9), "\xC3\xAD\xC2\xA0\xC2\x80")
      << "a surrogate is no UTF-8";
  ASSERT_EQ(inputs.Inputs().size(), 1u);
  ASSERT_EQ(inputs.Inputs()[0].problems.size(), 1u);
  EXPECT_EQ(inputs.Inputs()[0].problems[0].line, 7u);
}

TEST(DurationSketch, QuantilesAreExactForShortCallsAndWithinOnePercentAbove) {
  CDurationSketch sketch;
  for (int i = 1; i <= 100; ++i) sketch.Add(i);
  EXPECT_EQ(sketch.Quantile(0.5), 50);
  EXPECT_EQ(sketch.Quantile(0.95), 95);
  CDurationSketch large;
  for (std::int64_t i = 1; i <= 1000; ++i) large.Add(i * 10007);
  EXPECT_NEAR(large.Quantile(0.5), 500 * 10007, 500 * 10007 / 100);
  EXPECT_NEAR(large.Quantile(0.95), 950 * 10007, 950 * 10007 / 100);
  EXPECT_LE(large.Quantile(1.0), 1000 * 10007) << "never beyond the largest seen";
  sketch.Merge(large);
  EXPECT_EQ(sketch.Count(), 1100u);
  const std::vector<std::uint64_t> bins = sketch.PowerOfTwoBins();
  ASSERT_EQ(bins.size(), 25u);  // 2^23 <= 10007000 < 2^24
  EXPECT_EQ(bins[1], 1u) << "[1, 2)";
  EXPECT_EQ(bins[7], 37u) << "[64, 128)";
}

}  // namespace
}  // namespace zelph
