// Support for the trace log tests: temporary directories, the trace_driver
// host process fed through stdin, and the reading of the log files it leaves.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelph {

// The rule line that opens a session's header and closes its footer.
inline constexpr char kTraceRule[] = "##################################################";

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object dies. Holds the configuration file, the
// driver's error output and, in "logs", the trace directory.
class CTempDir {
 public:
  CTempDir();
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;
  ~CTempDir();

  const std::filesystem::path& Path() const noexcept { return path_; }
  // The trace directory, created empty.
  std::filesystem::path Logs() const { return path_ / "logs"; }
  // The configuration file the driver is pointed at.
  std::filesystem::path ConfigFile() const { return path_ / "zelph.conf"; }

 private:
  std::filesystem::path path_;
};

std::string ReadFile(const std::filesystem::path& path);
void WriteFile(const std::filesystem::path& path, std::string_view text);

// A configuration file with section Quillon holding "EnableTrace" and "Trace".
std::string TraceConfig(std::string_view enableTrace, const std::filesystem::path& directory);

// The trace log files ("zelph_*.log") in a directory, sorted by name.
std::vector<std::filesystem::path> LogFiles(const std::filesystem::path& directory);

enum class DriverKind {
  kLinked,  // links libzelphtrace.so
  kDlopen,  // loads it with dlopen on the script's "load"
};

// How the driver finds its configuration.
struct DriverEnvironment {
  // ZELPH_CONFFILE; unset when empty.
  std::optional<std::filesystem::path> configFile;
  std::filesystem::path home;
};

// A running trace_driver process. The script goes in through Send(); Finish()
// closes stdin, lets the process run to its end and collects its output.
class CTraceDriver {
 public:
  CTraceDriver(DriverKind kind, const DriverEnvironment& environment,
               const std::filesystem::path& workDir);
  // Uses the temporary directory's configuration file, with HOME there too.
  CTraceDriver(DriverKind kind, const CTempDir& dir);
  CTraceDriver(const CTraceDriver&) = delete;
  CTraceDriver& operator=(const CTraceDriver&) = delete;
  // Kills the process if it still runs.
  ~CTraceDriver();

  pid_t Pid() const noexcept { return pid_; }
  // The canonical path of the driver's executable, as /proc shows it.
  std::string ExecutablePath() const;

  // Writes script lines to the driver's stdin.
  void Send(std::string_view script);
  // Waits until the driver has run everything sent so far. False (with a test
  // failure) if the driver ended instead.
  bool Sync();
  // Closes stdin and waits for the end. True when the driver ran the whole
  // script and exited with status 0.
  bool Finish();
  // What went wrong, for failure messages: status, stderr, stdout.
  std::string Describe() const;

  // The 32-bit thread ids the driver reported, as 8 upper-case hex digits.
  std::string MainThreadId() const { return ReportedThreadId("main"); }
  std::string WorkerThreadId(int index) const { return ReportedThreadId(std::to_string(index)); }

 private:
  std::string ReportedThreadId(const std::string& label) const;
  // Reads stdout once; false at its end.
  bool ReadSome();

  DriverKind kind_;
  std::filesystem::path errorFile_;
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int status_ = -1;
  bool finished_ = false;
  std::string out_;
  std::size_t consumed_ = 0;
};

// One session of a log file: the nine header lines (the last is blank), the
// body and the three footer lines (empty when the session was not ended).
struct CTraceSessionText {
  std::vector<std::string> header;
  std::vector<std::string> body;
  std::vector<std::string> footer;
};

// The text of a log, cut into its sessions. Lines before the first header go
// to `preamble`. A malformed log adds a test failure.
struct CTraceLogText {
  std::vector<std::string> preamble;
  std::vector<CTraceSessionText> sessions;
};
CTraceLogText ParseLog(const std::string& text);

// The body with each line's time stamp ("MM-DD_hh:mm:ss:uuuuuu ") checked and
// removed; lines without a valid stamp are kept whole behind "NO STAMP: ".
std::vector<std::string> StripTimeStamps(const std::vector<std::string>& body);

// The expected rest of a trace line after its time stamp: thread id, marker
// twice, a blank, four blanks per depth level, then the text.
std::string TraceLine(const std::string& threadId, char marker, int depth, std::string_view text);

// Checks a session header: fixed texts, process id, executable path, and a
// start time between the two given times.
void ExpectHeader(const CTraceSessionText& session, pid_t pid, const std::string& executablePath,
                  std::time_t notBefore, std::time_t notAfter);
// Checks the footer of an ended session.
void ExpectFooter(const CTraceSessionText& session);

// Compares two line lists, naming the first line that differs.
void ExpectLines(const std::vector<std::string>& actual, const std::vector<std::string>& expected,
                 std::string_view what);

// One linked driver run with tracing on, in a fresh directory: runs the
// script to its end and reads back the one session it logs. Failures of the
// run or of the log's shape are test failures.
class CTracedRun {
 public:
  explicit CTracedRun(std::string_view script);

  const CTraceDriver& Driver() const noexcept { return driver_; }
  // The whole log file.
  const std::string& LogText() const noexcept { return log_; }
  // The session's body, time stamps removed.
  const std::vector<std::string>& Body() const noexcept { return body_; }

 private:
  CTempDir dir_;
  CTraceDriver driver_;
  std::string log_;
  std::vector<std::string> body_;
};

// The whole log of a driver's run, all files in name order, for runs that are
// expected to leave exactly one log file. Adds a failure otherwise.
std::string ReadOnlyLog(const std::filesystem::path& directory);

}  // namespace zelph
