// The report: one self-contained HTML page with a timeline per process (a
// lane per thread, a bar per call), the summary's tables and duration
// histograms, and every call's lines a click away. The page
// (ReportPage.html) draws everything from the data written into it here.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_map>
#include <vector>

#include "LogSummary.h"

namespace zelph {

class CLogReport : public CLogSink {
 public:
  explicit CLogReport(CLogInputs& inputs) : inputs_(inputs), summary_(inputs) {}

  void BeginProcess(const CLogProcess& process) override;
  void Call(const CLogCall& call, const std::vector<CKeptLine>& lines) override;
  void EndProcess(std::int64_t end) override;
  void Problem(const std::string& log, std::uint64_t line, const std::string& text) override {
    inputs_.Problem(log, line, text);
  }

  const CLogSummary& Summary() const noexcept { return summary_; }

  // Writes the page; false when `out` failed.
  bool Write(std::FILE* out, const CLogNames& names) const;

 private:
  struct CCallRow {
    std::int64_t start, span, duration;
    std::uint32_t thread, function;
    std::int32_t code;
    std::uint8_t status;
    std::uint16_t depth;
    std::uint64_t line;
    std::uint32_t first, count;
  };
  struct CProcess {
    long pid = 0;
    std::string executable;
    std::string origin;
    std::int64_t end = 0;
    std::vector<std::pair<std::uint32_t, char>> threads;
    std::vector<CCallRow> calls;
    std::vector<std::int64_t> lineTimes;
    std::vector<std::uint32_t> lineTexts;
    bool linesOmitted = false;
    // Nested calls wait here for their outermost call, whose lines they share.
    std::vector<std::vector<std::size_t>> pending;  // by thread index
  };

  static const std::pair<const char*, std::int64_t (*)(const CCallRow&)> kCallColumns[11];

  std::uint32_t Intern(const std::string& text);
  void WriteTimeline(std::FILE* out, const CLogNames& names) const;

  CLogInputs& inputs_;
  CLogSummary summary_;
  std::vector<CProcess> processes_;
  std::unordered_map<std::string, std::uint32_t> stringIndex_;
  std::vector<const std::string*> strings_;
  std::size_t stringBytes_ = 0;
  std::size_t callCount_ = 0;
  bool callsOmitted_ = false;
};

}  // namespace zelph
