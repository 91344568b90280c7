// Fuzzes zelph-log's reading of trace logs: arbitrary bytes go through the
// reader into the summary, its JSON and the report's data, which must come
// out whatever the input, with every call's lines inside the call's.
#include <cstdio>
#include <string>

#include "FuzzSupport.h"
#include "LogReport.h"
#include "SummaryJson.h"

using namespace zelph;

namespace {

// Checks each call as the reader hands it out, then passes it on.
class CCheckedReport : public CLogReport {
 public:
  using CLogReport::CLogReport;
  void Call(const CLogCall& call, const std::vector<CKeptLine>& lines) override {
    Require(call.count == 0 || call.first + call.count <= lines.size(),
            "a call's lines are kept lines");
    Require(call.span >= 0, "no call ends before it starts");
    Require(call.status == CCallStatus::kUnfinished ? call.duration == -1 : call.duration >= 0,
            "finished calls have a duration, unfinished ones none");
    CLogReport::Call(call, lines);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CLogInputs inputs(true);
  CCheckedReport report(inputs);
  CLogReader reader(report);
  reader.ReadBytes("fuzz.log", AsText(data, size));
  const CLogNames names{reader.Functions(), reader.Codes()};
  const std::string json = DumpJson(SummaryJson(report.Summary(), inputs, names), -1);
  Require(!json.empty(), "the summary is written");
  std::FILE* sink = std::fopen("/dev/null", "w");
  Require(sink != nullptr && report.Write(sink, names), "the report is written");
  std::fclose(sink);
  return 0;
}
