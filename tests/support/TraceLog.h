// Switching tracing on for a test and reading the logs back: the
// configuration text, the log files of a directory, sessions, and the line
// prefix ("MM-DD_hh:mm:ss:uuuuuu TTTTTTTTmm " plus four blanks per level).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zelph {

// The rule line that opens a session's header and closes its footer.
inline constexpr char kTraceRule[] = "##################################################";

// A configuration whose section Quillon holds "EnableTrace" and "Trace".
std::string TraceConfig(const std::string& logDirectory, std::string_view enableTrace = "1");

// Switches tracing on for this test process, into "<dir>/logs", by pointing
// ZELPH_CONFFILE (and HOME) at a fresh configuration. The session decides once
// per process, so call it before the first trace call (a global test
// environment does). Returns the log directory; later calls return it again.
const std::string& TraceThisProcess();

// The trace logs ("zelph_*.log") in `directory`, sorted by name.
std::vector<std::string> LogFiles(const std::string& directory);
// Every log of `directory`, one after the other in name order.
std::string ReadLogs(const std::string& directory);

// One session of a log: the nine header lines (the last is blank), the body,
// and the three footer lines (empty when the session was never ended).
struct CTraceSessionText {
  std::vector<std::string> header, body, footer;
};
// The sessions of a log; a malformed log adds a test failure.
std::vector<CTraceSessionText> ParseLog(std::string_view text);

// A body line cut into its prefix fields; without a well-formed prefix only
// `text` is set, to the whole line.
struct CTraceLine {
  bool valid = false;
  std::string stamp, thread;  // "MM-DD_hh:mm:ss:uuuuuu", eight upper-case hex digits
  char marker = 0;
  int depth = 0;  // four blanks per level
  std::string text;
};
CTraceLine SplitTraceLine(std::string_view line);

// The marker of the n-th thread (from 0) that traces in a process: fifteen
// punctuation marks once, then A-Z and a-z in a cycle.
char MarkerOfThread(int n);

// Logs made by hand, for the readers of logs: a header as a session writes
// it, and one line "MM-DD_hh:mm:ss:uuuuuu TTTTTTTT" + marker twice + " " +
// four blanks per depth + text + "\n" (pass the marker once for a '%' thread's
// message lines).
std::string MadeLogHeader(const std::string& date = "2026-11-22",
                          const std::string& time = "10:00:00", const std::string& pid = "42",
                          const std::string& executable = "/usr/bin/app");
std::string MadeLogLine(const std::string& stamp, const std::string& thread, int depth,
                        const std::string& text, const std::string& markers = "..");

// Compares two line lists, naming the first line that differs.
void ExpectLines(const std::vector<std::string>& actual, const std::vector<std::string>& expected,
                 std::string_view what);

// Compares `actual` with the lines of the golden file `path`, naming the first
// that differs. With ZELPH_WRITE_GOLDEN=<file> set, writes `actual` there
// first, in the golden file's form, to renew it.
void ExpectGolden(const std::vector<std::string>& actual, const std::string& path);

}  // namespace zelph
