#include "SummaryJson.h"

#include <algorithm>

namespace zelph {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kSchemaVersion = 1;

std::string ThreadId(std::uint32_t thread) {
  char text[12];
  std::snprintf(text, sizeof text, "%08X", thread);
  return text;
}

Json FunctionJson(const std::string& name, const CFunctionStats& stats, const CLogNames& names) {
  Json failures = Json::array();
  for (const auto& [code, count] : stats.failures) {
    failures.push_back({{"code", names.codes[static_cast<std::size_t>(code)]}, {"count", count}});
  }
  const std::uint64_t finished = stats.calls - stats.unfinished;
  Json histogram = Json::array();
  const std::vector<std::uint64_t> bins = stats.durations.PowerOfTwoBins();
  const auto firstBin = std::ranges::find_if(bins, [](std::uint64_t n) { return n > 0; });
  for (auto bin = firstBin; bin != bins.end(); ++bin) {
    const auto k = static_cast<int>(bin - bins.begin());
    histogram.push_back({{"from_us", k == 0 ? 0 : std::int64_t{1} << (k - 1)},
                         {"to_us", std::int64_t{1} << k},
                         {"count", *bin}});
  }
  return {{"name", name},
          {"calls", stats.calls},
          {"failed", stats.failed},
          {"unfinished", stats.unfinished},
          {"failures", failures},
          {"total_us", stats.total},
          {"mean_us",
           finished == 0 ? 0.0 : static_cast<double>(stats.total) / static_cast<double>(finished)},
          {"median_us", stats.durations.Quantile(0.5)},
          {"p95_us", stats.durations.Quantile(0.95)},
          {"max_us", stats.max},
          {"histogram", histogram}};
}

Json TotalsJson(const CCallTotals& totals, const CLogNames& names) {
  Json functions = Json::array();
  for (const std::uint32_t i : FunctionsByTime(totals)) {
    functions.push_back(FunctionJson(names.functions[i], totals.functions[i], names));
  }
  Json failures = Json::array();
  for (const auto& [code, count] : FailuresByCode(totals)) {
    const std::string& name = names.codes[static_cast<std::size_t>(code)];
    failures.push_back({{"code", name}, {"count", count}, {"message", UserMessageOf(name)}});
  }
  return {{"calls", totals.calls},
          {"failed", totals.failed},
          {"unfinished", totals.unfinished},
          {"functions", functions},
          {"failures", failures}};
}

Json CallJson(const CNotedCall& call, const std::string& log, const CLogNames& names) {
  Json json = {{"function", names.functions[call.function]}};
  if (call.code >= 0) {
    const std::string& code = names.codes[static_cast<std::size_t>(call.code)];
    json["code"] = code;
    if (code != "CKR_OK") json["message"] = UserMessageOf(code);
  }
  json["time"] = call.time;
  json["thread"] = ThreadId(call.thread);
  if (call.duration >= 0) json["duration_us"] = call.duration;
  json["log"] = log;
  json["line"] = call.line;
  if (!call.lines.empty()) {
    json["lines"] = call.lines;
    if (call.linesOmitted > 0) json["lines_omitted"] = call.linesOmitted;
  }
  return json;
}

Json CallsJson(const std::vector<CNotedCall>& calls, const std::string& log,
               const CLogNames& names) {
  Json json = Json::array();
  for (const CNotedCall& call : calls) json.push_back(CallJson(call, log, names));
  return json;
}

}  // namespace

Json SummaryJson(const CLogSummary& summary, const CLogInputs& inputs, const CLogNames& names) {
  Json json = {{"schema", "zelph-log summary"}, {"version", kSchemaVersion}};
  Json inputList = Json::array();
  for (const CLogInput& input : inputs.Inputs()) {
    Json problems = Json::array();
    for (const CLogInput::CProblem& problem : input.problems) {
      problems.push_back({{"line", problem.line}, {"text", problem.text}});
    }
    Json item = {{"path", input.path},
                 {"lines", input.lines},
                 {"bytes", input.bytes},
                 {"problems", problems}};
    if (input.problemsOmitted > 0) item["problems_omitted"] = input.problemsOmitted;
    inputList.push_back(item);
  }
  json["inputs"] = inputList;
  json["all"] = TotalsJson(summary.All(), names);
  Json processes = Json::array();
  for (const CProcessSummary& process : summary.Processes()) {
    Json item = TotalsJson(process.totals, names);
    item["executable"] = process.process.executable;
    item["pid"] = process.process.pid;
    item["start"] = process.process.start;
    item["log"] = process.process.log;
    item["first_line"] = process.process.firstLine;
    Json threads = Json::array();
    for (const auto& thread : process.threads) {
      threads.push_back({{"id", ThreadId(thread.id)},
                         {"marker", std::string(1, thread.marker)},
                         {"calls", thread.calls}});
    }
    item["threads"] = threads;
    item["slowest"] = CallsJson(process.slowest, process.process.log, names);
    item["failed_calls"] = CallsJson(process.failed, process.process.log, names);
    item["failed_calls_omitted"] = process.failedOmitted;
    item["unfinished_calls"] = CallsJson(process.unfinished, process.process.log, names);
    item["unfinished_calls_omitted"] = process.unfinishedOmitted;
    processes.push_back(item);
  }
  json["processes"] = processes;
  return json;
}

std::string DumpJson(const Json& value, int indent) {
  return value.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace zelph
