// Reads trace logs as a stream and hands out their processes and calls. Only
// the lines of calls still open are held, so memory follows the nesting and
// the threads of a log, not its length.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "LogClock.h"
#include "LogLine.h"

namespace zelph {

// One process's section of a log: from its header (or its first trace line,
// in a log without one) to its footer or the end of the file.
struct CLogProcess {
  std::string log;  // the file, as it was named
  std::uint64_t firstLine = 0;
  std::string executable;  // "" when the log has no header
  long pid = 0;
  std::string start;   // "2026-11-22T21:54:37" from the header, or ""
  std::string origin;  // the first trace line's time, "2026-11-22T21:54:37.427960", or ""
};

// A line kept for the calls that contain it.
struct CKeptLine {
  std::int64_t time;       // microseconds from the process's first line
  std::uint64_t number;    // line number in the file
  std::string_view whole;  // the line as written
  std::string_view text;   // what follows the prefix, indentation included
};

enum class CCallStatus : unsigned char { kOk, kFailed, kUnfinished };

// A call from its Entering line to its Leaving line.
struct CLogCall {
  std::uint32_t function = 0;  // index into CLogReader::Functions()
  std::int32_t code = -1;      // index into CLogReader::Codes(); -1 without a Returns line
  CCallStatus status = CCallStatus::kOk;
  std::uint32_t thread = 0;  // the 32-bit thread id
  char marker = 0;
  std::uint32_t threadIndex = 0;  // a process's threads are numbered by their first call
  int depth = 0;                  // 0 for an outermost call
  std::int64_t start = 0;         // microseconds from the process's first line
  std::int64_t span = 0;          // Entering to Leaving; to the last line if unfinished
  std::int64_t duration = -1;     // the spy's measure if logged, else span; -1 unfinished
  std::uint64_t line = 0;         // the Entering line's number
  CLinePrefix prefix;             // the Entering line's prefix (its text is gone)
  int year = 0;                   // the year of the Entering line
  // The call's lines (its nested calls' included) are lines [first, first +
  // count) of its outermost call; count is 0 when they were too many to keep.
  std::uint32_t first = 0;
  std::uint32_t count = 0;
};

// "2026-11-22T21:54:37.437116": when the call entered, as its log says.
std::string TimeOf(const CLogCall& call);

// What a reader finds, in the order of the input. Calls arrive when they end,
// so a nested call comes before the call around it; an outermost call's
// lines stay valid until Call returns.
class CLogSink {
 public:
  virtual ~CLogSink() = default;
  virtual void BeginProcess(const CLogProcess& process) = 0;
  // `lines` are the lines kept for the call's outermost call.
  virtual void Call(const CLogCall& call, const std::vector<CKeptLine>& lines) = 0;
  // The process's section ends; `end` is its last line's time.
  virtual void EndProcess(std::int64_t end) = 0;
  // Something in the input that a reader should know: "FILE:LINE: text".
  virtual void Problem(const std::string& log, std::uint64_t line, const std::string& text) = 0;
};

// Reports how far the reading has got; called every few megabytes.
class CLogProgress {
 public:
  virtual ~CLogProgress() = default;
  virtual void Advance(const std::string& log, std::uint64_t done, std::uint64_t total) = 0;
};

class CLogReader {
 public:
  explicit CLogReader(CLogSink& sink, CLogProgress* progress = nullptr);
  ~CLogReader();

  // Reads one file ("-" is standard input) to its end. False when it could
  // not be read or is not a trace log (the sink was told why).
  bool ReadFile(const std::string& path);
  // Reads `bytes` as the whole of a log named `name`.
  bool ReadBytes(const std::string& name, std::string_view bytes);

  const std::vector<std::string>& Functions() const noexcept { return functions_.names; }
  const std::vector<std::string>& Codes() const noexcept { return codes_.names; }
  // Lines and bytes of the last file read.
  std::uint64_t Lines() const noexcept { return lineNumber_; }

 private:
  struct CThread;
  struct CNames {
    struct CHash {
      using is_transparent = void;
      std::size_t operator()(std::string_view s) const noexcept {
        return std::hash<std::string_view>{}(s);
      }
    };
    std::unordered_map<std::string, std::uint32_t, CHash, std::equal_to<>> index;
    std::vector<std::string> names;
    std::uint32_t Intern(std::string_view name);
    // Recent names by a cheap hash of their length and two characters: most
    // lines name a function seen a moment ago.
    std::uint32_t recent[256] = {};
  };

  void BeginFile(const std::string& name);
  bool EndFile(bool cutShort);
  void Line(std::string_view line);
  void HeaderLine(std::string_view line);
  void TraceLine(std::string_view line, const CLinePrefix& prefix);
  void ContinuationLine(std::string_view line);
  void StartProcess(bool fromHeader);
  void EndProcess();
  CThread& ThreadOf(const CLinePrefix& prefix);
  void Keep(CThread& thread, std::string_view line, std::size_t textOffset);
  void Finish(CThread& thread, CCallStatus unfinished);
  void Problem(const std::string& text);

  CLogSink& sink_;
  CLogProgress* progress_;
  CPrefixParser prefixes_;
  CNames functions_;
  CNames codes_;
  std::int32_t okCode_ = -1;

  // The file being read.
  std::string log_;
  std::uint64_t lineNumber_ = 0;
  std::uint64_t traceLines_ = 0;
  bool sawHeader_ = false;
  bool sawNul_ = false;
  unsigned problems_ = 0;

  // The process being read.
  bool inProcess_ = false;
  bool inHeader_ = false;
  bool announced_ = false;
  CLogProcess process_;
  int year_ = 0;
  std::unique_ptr<CLogClock> clock_;
  std::int64_t now_ = 0;
  std::vector<std::unique_ptr<CThread>> threads_;
  CThread* lastThread_ = nullptr;
  std::uint32_t callThreads_ = 0;
};

}  // namespace zelph
