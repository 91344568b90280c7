#include "LogSummary.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "names/Pkcs11NameTables.h"
#include "trace/UserMessage.h"
#include "zelph/trace.h"
#include "zelph/vendor.h"

namespace zelph {
namespace {

constexpr std::size_t kNotedPerProcess = 100;
// A failed call shows its first line and its last ones.
constexpr std::size_t kLastLines = 11;

// Slowest first; unfinished calls (no duration) never count as slow.
bool Slower(const CNotedCall& a, const CNotedCall& b) noexcept {
  return a.duration > b.duration;
}

std::optional<CK_RV> ReturnValueOf(std::string_view name) {
  for (const CNamedValue& named : StandardNamesOf(CNameKind::kReturnValue)) {
    if (name == named.name) return named.value;
  }
  for (const CK_RV vendor :
       {CXR_CONTAINER_INVALID, CXR_CONTAINER_EXISTS, CXR_NEEDS_REMOUNT, CXR_CERT_NOT_TRUSTED}) {
    if (name == GetCkErrorString(vendor)) return vendor;
  }
  // The spy's names of values nobody named: "CKR_VENDOR_DEFINED+0x5", "0x000001C0".
  constexpr std::string_view kVendor = "CKR_VENDOR_DEFINED+0x";
  const bool vendor = name.substr(0, kVendor.size()) == kVendor;
  if (vendor) {
    name.remove_prefix(kVendor.size());
  } else if (name.substr(0, 2) == "0x") {
    name.remove_prefix(2);
  } else {
    return std::nullopt;
  }
  const std::string digits(name);
  char* end = nullptr;
  const unsigned long value = std::strtoul(digits.c_str(), &end, 16);
  if (digits.empty() || *end != '\0') return std::nullopt;
  return vendor ? CKR_VENDOR_DEFINED + value : value;
}

void AddCount(CCodeCounts& counts, std::int32_t code, std::uint64_t count) {
  const auto found = std::ranges::find(counts, code, &CCodeCounts::value_type::first);
  if (found != counts.end()) {
    found->second += count;
  } else {
    counts.emplace_back(code, count);
  }
}

CNotedCall Note(const CLogCall& call) {
  CNotedCall noted;
  noted.function = call.function;
  noted.code = call.code;
  noted.duration = call.duration;
  noted.span = call.span;
  noted.time = TimeOf(call);
  noted.thread = call.thread;
  noted.line = call.line;
  return noted;
}

}  // namespace

std::string UserMessageOf(const std::string& code) {
  const std::optional<CK_RV> value = ReturnValueOf(code);
  return value ? std::string(GetUserErrorMessage(*value).c_str()) : std::string();
}

std::string FormatMicros(std::int64_t micros) {
  char text[32];
  const double value = static_cast<double>(micros);
  if (micros < 1000) {
    std::snprintf(text, sizeof text, "%lld us", static_cast<long long>(micros));
  } else if (micros < 9995) {
    std::snprintf(text, sizeof text, "%.2f ms", value / 1e3);
  } else if (micros < 999950) {
    std::snprintf(text, sizeof text, "%.1f ms", value / 1e3);
  } else if (micros < 9995000) {
    std::snprintf(text, sizeof text, "%.2f s", value / 1e6);
  } else if (micros < 999950000) {
    std::snprintf(text, sizeof text, "%.1f s", value / 1e6);
  } else {
    std::snprintf(text, sizeof text, "%.0f s", value / 1e6);
  }
  return text;
}

void CFunctionStats::Add(const CLogCall& call) {
  ++calls;
  if (call.status == CCallStatus::kUnfinished) {
    ++unfinished;
    return;
  }
  if (call.status == CCallStatus::kFailed) {
    ++failed;
    AddCount(failures, call.code, 1);
  }
  total += call.duration;
  max = std::max(max, call.duration);
  durations.Add(call.duration);
}

void CFunctionStats::Merge(const CFunctionStats& other) {
  calls += other.calls;
  failed += other.failed;
  unfinished += other.unfinished;
  for (const auto& [code, count] : other.failures) AddCount(failures, code, count);
  total += other.total;
  max = std::max(max, other.max);
  durations.Merge(other.durations);
}

void CCallTotals::Add(const CLogCall& call) {
  ++calls;
  failed += call.status == CCallStatus::kFailed;
  unfinished += call.status == CCallStatus::kUnfinished;
  if (call.function >= functions.size()) functions.resize(call.function + 1);
  functions[call.function].Add(call);
}

void CCallTotals::Merge(const CCallTotals& other) {
  calls += other.calls;
  failed += other.failed;
  unfinished += other.unfinished;
  if (other.functions.size() > functions.size()) functions.resize(other.functions.size());
  for (std::size_t i = 0; i < other.functions.size(); ++i) functions[i].Merge(other.functions[i]);
}

void CLogSummary::BeginProcess(const CLogProcess& process) {
  CProcessSummary summary;
  summary.process = process;
  summary.process.executable = inputs_.ToUtf8(process.executable, process.log, process.firstLine);
  processes_.push_back(std::move(summary));
}

void CLogSummary::Call(const CLogCall& call, const std::vector<CKeptLine>& lines) {
  CProcessSummary& process = processes_.back();
  process.totals.Add(call);
  if (call.threadIndex >= process.threads.size()) process.threads.resize(call.threadIndex + 1);
  CProcessSummary::CThreadCount& thread = process.threads[call.threadIndex];
  thread.id = call.thread;
  thread.marker = call.marker;
  ++thread.calls;

  if (call.status == CCallStatus::kFailed) {
    if (process.failed.size() < kNotedPerProcess) {
      CNotedCall noted = Note(call);
      const std::size_t end = call.first + call.count;
      const std::size_t from = call.count > kLastLines + 1 ? end - kLastLines : call.first;
      if (call.count > 0) {
        const CKeptLine& first = lines[call.first];
        noted.lines.push_back(inputs_.ToUtf8(first.text, process.process.log, first.number));
      }
      noted.linesOmitted = from > call.first + 1 ? from - call.first - 1 : 0;
      for (std::size_t i = std::max<std::size_t>(from, call.first + 1); i < end; ++i) {
        noted.lines.push_back(inputs_.ToUtf8(lines[i].text, process.process.log, lines[i].number));
      }
      process.failed.push_back(std::move(noted));
    } else {
      ++process.failedOmitted;
    }
  } else if (call.status == CCallStatus::kUnfinished) {
    if (process.unfinished.size() < kNotedPerProcess) {
      process.unfinished.push_back(Note(call));
    } else {
      ++process.unfinishedOmitted;
    }
    return;
  }
  // The slowest calls: a heap whose top is the fastest of those kept.
  std::vector<CNotedCall>& slowest = process.slowest;
  if (slowest_ == 0) return;
  if (slowest.size() == slowest_) {
    if (call.duration <= slowest.front().duration) return;
    std::ranges::pop_heap(slowest, Slower);
    slowest.pop_back();
  }
  slowest.push_back(Note(call));
  std::ranges::push_heap(slowest, Slower);
}

void CLogSummary::EndProcess(std::int64_t /*end*/) {
  std::ranges::sort_heap(processes_.back().slowest, Slower);
}

std::vector<std::uint32_t> FunctionsByTime(const CCallTotals& totals) {
  std::vector<std::uint32_t> order;
  for (std::uint32_t i = 0; i < totals.functions.size(); ++i) {
    if (totals.functions[i].calls > 0) order.push_back(i);
  }
  std::ranges::stable_sort(order, [&](std::uint32_t a, std::uint32_t b) {
    return totals.functions[a].total > totals.functions[b].total;
  });
  return order;
}

CCodeCounts FailuresByCode(const CCallTotals& totals) {
  CCodeCounts codes;
  for (const CFunctionStats& stats : totals.functions) {
    for (const auto& [code, count] : stats.failures) AddCount(codes, code, count);
  }
  std::ranges::stable_sort(codes, [](const auto& a, const auto& b) { return a.second > b.second; });
  return codes;
}

CCallTotals CLogSummary::All() const {
  CCallTotals all;
  for (const CProcessSummary& process : processes_) all.Merge(process.totals);
  return all;
}

}  // namespace zelph
