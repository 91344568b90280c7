// Per process and for all processes together: per function the calls, the
// failures by return code and the durations; the slowest calls; every failed
// and every unfinished call (up to a bound per process).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "DurationSketch.h"
#include "LogInputs.h"
#include "LogReader.h"

namespace zelph {

struct CFunctionStats {
  std::uint64_t calls = 0;
  std::uint64_t failed = 0;
  std::uint64_t unfinished = 0;
  std::vector<std::pair<std::int32_t, std::uint64_t>> failures;  // code, count, first seen first
  std::int64_t total = 0;  // microseconds of the finished calls
  std::int64_t max = 0;
  CDurationSketch durations;

  void Add(const CLogCall& call);
  void Merge(const CFunctionStats& other);
};

// A call worth naming on its own.
struct CNotedCall {
  std::uint32_t function = 0;
  std::int32_t code = -1;
  std::int64_t duration = -1;
  std::int64_t span = 0;
  std::string time;
  std::uint32_t thread = 0;
  std::uint64_t line = 0;
  std::vector<std::string> lines;  // UTF-8; failed calls only
  std::uint64_t linesOmitted = 0;  // lines between the first and the last ones kept
};

// Calls, failures and durations of a set of calls.
struct CCallTotals {
  std::uint64_t calls = 0;
  std::uint64_t failed = 0;
  std::uint64_t unfinished = 0;
  std::vector<CFunctionStats> functions;  // by function index

  void Add(const CLogCall& call);
  void Merge(const CCallTotals& other);
};

struct CProcessSummary {
  CLogProcess process;  // executable in UTF-8
  CCallTotals totals;
  struct CThreadCount {
    std::uint32_t id = 0;
    char marker = 0;
    std::uint64_t calls = 0;
  };
  std::vector<CThreadCount> threads;
  std::vector<CNotedCall> slowest;  // a heap while reading, slowest first after
  std::vector<CNotedCall> failed;
  std::uint64_t failedOmitted = 0;
  std::vector<CNotedCall> unfinished;
  std::uint64_t unfinishedOmitted = 0;
};

class CLogSummary : public CLogSink {
 public:
  // `slowest`: how many of the slowest calls each process names.
  CLogSummary(CLogInputs& inputs, std::size_t slowest = 10) : inputs_(inputs), slowest_(slowest) {}

  void BeginProcess(const CLogProcess& process) override;
  void Call(const CLogCall& call, const std::vector<CKeptLine>& lines) override;
  void EndProcess(std::int64_t end) override;
  void Problem(const std::string& log, std::uint64_t line, const std::string& text) override {
    inputs_.Problem(log, line, text);
  }

  const std::vector<CProcessSummary>& Processes() const noexcept { return processes_; }
  // All processes together.
  CCallTotals All() const;

 private:
  CLogInputs& inputs_;
  std::size_t slowest_;
  std::vector<CProcessSummary> processes_;
};

// The functions that were called, most total time first.
std::vector<std::uint32_t> FunctionsByTime(const CCallTotals& totals);

// Failed calls counted by return code, most frequent first.
using CCodeCounts = std::vector<std::pair<std::int32_t, std::uint64_t>>;
CCodeCounts FailuresByCode(const CCallTotals& totals);

// What the summary names come from.
struct CLogNames {
  const std::vector<std::string>& functions;
  const std::vector<std::string>& codes;
};

// The sentence an end user is shown for a return code's name; "" when the
// name is no return code.
std::string UserMessageOf(const std::string& code);

// "123 us", "4.56 ms", "7.8 s": at most eight characters.
std::string FormatMicros(std::int64_t micros);

// The summary for a terminal, 80 columns wide.
void PrintSummary(std::FILE* out, const CLogSummary& summary, const CLogInputs& inputs,
                  const CLogNames& names);

}  // namespace zelph
