// The summary as a person reads it in a terminal: fits 80 columns.
#include <algorithm>
#include <numeric>

#include "LogSummary.h"

namespace zelph {
namespace {

constexpr int kNameWidth = 20;

std::string Plural(std::uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

// "11-22 21:54:37.437116" from "2026-11-22T21:54:37.437116".
std::string ShortTime(const std::string& time) {
  std::string shorter = time.size() > 5 ? time.substr(5) : time;
  std::ranges::replace(shorter, 'T', ' ');
  return shorter;
}

void PrintFunctionTable(std::FILE* out, const CCallTotals& totals, const CLogNames& names) {
  std::fprintf(out, "%-*s%7s%7s%9s%9s%9s%9s%9s\n", kNameWidth, "Function", "Calls", "Failed",
               "Total", "Mean", "Median", "p95", "Max");
  for (const std::uint32_t function : FunctionsByTime(totals)) {
    const CFunctionStats& stats = totals.functions[function];
    const std::string& name = names.functions[function];
    if (name.size() >= kNameWidth) {
      std::fprintf(out, "%s\n%-*s", name.c_str(), kNameWidth, "");
    } else {
      std::fprintf(out, "%-*s", kNameWidth, name.c_str());
    }
    std::fprintf(out, "%7llu%7llu", static_cast<unsigned long long>(stats.calls),
                 static_cast<unsigned long long>(stats.failed));
    const std::uint64_t finished = stats.calls - stats.unfinished;
    if (finished == 0) {
      std::fprintf(out, "%9s\n", "-");
      continue;
    }
    const auto mean = static_cast<std::int64_t>(
        static_cast<double>(stats.total) / static_cast<double>(finished) + 0.5);
    std::fprintf(out, "%9s%9s%9s%9s%9s\n", FormatMicros(stats.total).c_str(),
                 FormatMicros(mean).c_str(), FormatMicros(stats.durations.Quantile(0.5)).c_str(),
                 FormatMicros(stats.durations.Quantile(0.95)).c_str(),
                 FormatMicros(stats.max).c_str());
  }
}

void PrintFailures(std::FILE* out, const CCallTotals& totals, const CLogNames& names) {
  const CCodeCounts codes = FailuresByCode(totals);
  if (codes.empty()) return;
  std::fprintf(out, "\nFailures by return code\n");
  for (const auto& [code, count] : codes) {
    const std::string& name = names.codes[static_cast<std::size_t>(code)];
    std::fprintf(out, "  %-34s %7llu\n", name.c_str(), static_cast<unsigned long long>(count));
    if (const std::string message = UserMessageOf(name); !message.empty()) {
      std::fprintf(out, "    %s\n", message.c_str());
    }
  }
}

void PrintProcess(std::FILE* out, const CProcessSummary& summary, const CLogNames& names) {
  const CLogProcess& process = summary.process;
  std::string executable = process.executable.substr(process.executable.rfind('/') + 1);
  if (executable.empty()) executable = "(no header)";
  std::fprintf(out, "%s, pid %ld", executable.c_str(), process.pid);
  if (!process.start.empty()) {
    std::string start = process.start;
    std::ranges::replace(start, 'T', ' ');
    std::fprintf(out, ", started %s", start.c_str());
  }
  std::fprintf(out, "\n  %s:%llu\n", process.log.c_str(),
               static_cast<unsigned long long>(process.firstLine));
  const CCallTotals& totals = summary.totals;
  std::fprintf(out, "  %s, %llu failed, %llu unfinished, %s\n\n",
               Plural(totals.calls, "call", "calls").c_str(),
               static_cast<unsigned long long>(totals.failed),
               static_cast<unsigned long long>(totals.unfinished),
               Plural(summary.threads.size(), "thread", "threads").c_str());
  if (totals.calls == 0) return;
  PrintFunctionTable(out, totals, names);
  PrintFailures(out, totals, names);

  if (!summary.slowest.empty()) std::fprintf(out, "\nSlowest calls\n");
  for (const CNotedCall& call : summary.slowest) {
    std::fprintf(out, "  %-*s%9s  %s  %08X  line %llu\n", kNameWidth,
                 names.functions[call.function].c_str(), FormatMicros(call.duration).c_str(),
                 ShortTime(call.time).c_str(), call.thread,
                 static_cast<unsigned long long>(call.line));
  }
  if (!summary.failed.empty()) std::fprintf(out, "\nFailed calls\n");
  for (const CNotedCall& call : summary.failed) {
    const std::string& code = names.codes[static_cast<std::size_t>(call.code)];
    std::fprintf(out, "  %s: %s\n    at %s, thread %08X, line %llu\n",
                 names.functions[call.function].c_str(), code.c_str(), ShortTime(call.time).c_str(),
                 call.thread, static_cast<unsigned long long>(call.line));
    if (const std::string message = UserMessageOf(code); !message.empty()) {
      std::fprintf(out, "    %s\n", message.c_str());
    }
    for (std::size_t i = 0; i < call.lines.size(); ++i) {
      std::fprintf(out, "    | %s\n", call.lines[i].c_str());
      if (i == 0 && call.linesOmitted > 0) {
        std::fprintf(out, "    | [%llu lines]\n",
                     static_cast<unsigned long long>(call.linesOmitted));
      }
    }
  }
  if (summary.failedOmitted > 0) {
    std::fprintf(out, "  and %llu more failed calls (zelph-log calls --failed lists them)\n",
                 static_cast<unsigned long long>(summary.failedOmitted));
  }
  if (!summary.unfinished.empty()) std::fprintf(out, "\nUnfinished calls (no Leaving line)\n");
  for (const CNotedCall& call : summary.unfinished) {
    std::fprintf(out, "  %s\n    at %s, thread %08X, line %llu\n    still open after %s\n",
                 names.functions[call.function].c_str(), ShortTime(call.time).c_str(), call.thread,
                 static_cast<unsigned long long>(call.line), FormatMicros(call.span).c_str());
  }
  if (summary.unfinishedOmitted > 0) {
    std::fprintf(out, "  and %llu more\n",
                 static_cast<unsigned long long>(summary.unfinishedOmitted));
  }
}

}  // namespace

void PrintSummary(std::FILE* out, const CLogSummary& summary, const CLogInputs& inputs,
                  const CLogNames& names) {
  const CCallTotals all = summary.All();
  const std::size_t processes = summary.Processes().size();
  std::fprintf(
      out, "zelph-log: %s, %s, %s, %llu failed, %llu unfinished\n",
      Plural(inputs.Inputs().size(), "log", "logs").c_str(),
      Plural(processes, "process", "processes").c_str(), Plural(all.calls, "call", "calls").c_str(),
      static_cast<unsigned long long>(all.failed), static_cast<unsigned long long>(all.unfinished));
  for (const CProcessSummary& process : summary.Processes()) {
    std::fprintf(out, "\n");
    PrintProcess(out, process, names);
  }
  if (processes > 1 && all.calls > 0) {
    std::fprintf(out, "\nAll %zu processes together\n\n", processes);
    PrintFunctionTable(out, all, names);
    PrintFailures(out, all, names);
  }
}

}  // namespace zelph
