#include "LogReport.h"

#include <algorithm>
#include <string_view>

#include "SummaryJson.h"

namespace zelph {

// The page template, generated from ReportPage.html at build time.
extern const char kReportPage[];

namespace {

// Past these bounds calls and lines are no longer kept for the page (the
// tables still count every call), so memory stays bounded on any log.
constexpr std::size_t kMaxCalls = 2'000'000;
constexpr std::size_t kMaxLines = 8'000'000;
constexpr std::size_t kMaxStringBytes = 256 << 20;

constexpr std::string_view kPlaceholder = "/*ZELPH_REPORT_DATA*/";

// A JSON string; "</" is written "<\/" so that the data cannot end the
// script element it sits in.
void WriteJsonString(std::FILE* out, std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + 2);
  escaped += '"';
  char previous = 0;
  for (const char c : text) {
    switch (c) {
      case '"':
        escaped += "\\\"";
        break;
      case '\\':
        escaped += "\\\\";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\t':
        escaped += "\\t";
        break;
      case '/':
        escaped += previous == '<' ? "\\/" : "/";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char code[8];
          std::snprintf(code, sizeof code, "\\u%04X", static_cast<unsigned char>(c));
          escaped += code;
        } else {
          escaped += c;
        }
    }
    previous = c;
  }
  escaped += '"';
  std::fwrite(escaped.data(), 1, escaped.size(), out);
}

template <typename Row, typename Field>
void WriteColumn(std::FILE* out, const char* name, const std::vector<Row>& rows, Field field) {
  std::fprintf(out, "\"%s\":[", name);
  const char* separator = "";
  for (const Row& row : rows) {
    std::fprintf(out, "%s%lld", separator, static_cast<long long>(field(row)));
    separator = ",";
  }
  std::fputs("]", out);
}

template <typename Names>
void WriteStrings(std::FILE* out, const Names& names) {
  std::fputc('[', out);
  const char* separator = "";
  for (const auto& name : names) {
    std::fputs(separator, out);
    if constexpr (std::is_pointer_v<std::decay_t<decltype(name)>>) {
      WriteJsonString(out, *name);  // made UTF-8 when interned
    } else {
      WriteJsonString(out, Utf8FromLog(name));
    }
    separator = ",";
  }
  std::fputc(']', out);
}

}  // namespace

std::uint32_t CLogReport::Intern(const std::string& text) {
  const auto [found, added] =
      stringIndex_.try_emplace(text, static_cast<std::uint32_t>(strings_.size()));
  if (added) {
    strings_.push_back(&found->first);
    stringBytes_ += text.size();
  }
  return found->second;
}

void CLogReport::BeginProcess(const CLogProcess& process) {
  summary_.BeginProcess(process);
  CProcess added;
  added.pid = process.pid;
  added.executable = summary_.Processes().back().process.executable;
  added.origin = process.origin;
  processes_.push_back(std::move(added));
}

void CLogReport::Call(const CLogCall& call, const std::vector<CKeptLine>& lines) {
  summary_.Call(call, lines);
  CProcess& process = processes_.back();
  if (call.threadIndex >= process.threads.size()) {
    process.threads.resize(call.threadIndex + 1);
    process.pending.resize(call.threadIndex + 1);
  }
  process.threads[call.threadIndex] = {call.thread, call.marker};
  if (callCount_ >= kMaxCalls) {
    if (!callsOmitted_) {
      inputs_.Problem(
          summary_.Processes().back().process.log, call.line,
          "too many calls for one report: the timeline stops here (the tables count all)");
    }
    callsOmitted_ = true;
    return;
  }
  ++callCount_;
  process.calls.push_back({call.start, call.span, call.duration, call.threadIndex, call.function,
                           call.code, static_cast<std::uint8_t>(call.status),
                           static_cast<std::uint16_t>(std::min(call.depth, 0xFFFF)), call.line,
                           call.first, call.count});
  std::vector<std::size_t>& pending = process.pending[call.threadIndex];
  if (call.depth > 0) {
    pending.push_back(process.calls.size() - 1);
    return;
  }
  // An outermost call: its lines (and so its nested calls' lines) join the page.
  const bool room =
      process.lineTimes.size() + lines.size() <= kMaxLines && stringBytes_ < kMaxStringBytes;
  const auto base = static_cast<std::uint32_t>(process.lineTimes.size());
  if (room) {
    const std::string& log = summary_.Processes().back().process.log;
    for (const CKeptLine& line : lines) {
      process.lineTimes.push_back(line.time);
      process.lineTexts.push_back(Intern(inputs_.ToUtf8(line.text, log, line.number)));
    }
  } else {
    process.linesOmitted = true;
  }
  pending.push_back(process.calls.size() - 1);
  for (const std::size_t index : pending) {
    CCallRow& row = process.calls[index];
    if (room) {
      row.first += base;
    } else {
      row.first = 0;
      row.count = 0;
    }
  }
  pending.clear();
}

void CLogReport::EndProcess(std::int64_t end) {
  summary_.EndProcess(end);
  CProcess& process = processes_.back();
  process.end = end;
  std::ranges::stable_sort(process.calls, [](const CCallRow& a, const CCallRow& b) {
    return a.start != b.start ? a.start < b.start : a.depth < b.depth;
  });
  process.pending.clear();
}

// The columns of the page's calls, in the order docs/zelph-log.md lists them.
const std::pair<const char*, std::int64_t (*)(const CLogReport::CCallRow&)>
    CLogReport::kCallColumns[] = {
        {"start", [](const CCallRow& r) -> std::int64_t { return r.start; }},
        {"span", [](const CCallRow& r) -> std::int64_t { return r.span; }},
        {"duration", [](const CCallRow& r) -> std::int64_t { return r.duration; }},
        {"thread", [](const CCallRow& r) -> std::int64_t { return r.thread; }},
        {"depth", [](const CCallRow& r) -> std::int64_t { return r.depth; }},
        {"function", [](const CCallRow& r) -> std::int64_t { return r.function; }},
        {"code", [](const CCallRow& r) -> std::int64_t { return r.code; }},
        {"status", [](const CCallRow& r) -> std::int64_t { return r.status; }},
        {"line",
         [](const CCallRow& r) -> std::int64_t { return static_cast<std::int64_t>(r.line); }},
        {"first", [](const CCallRow& r) -> std::int64_t { return r.first; }},
        {"count", [](const CCallRow& r) -> std::int64_t { return r.count; }},
};

void CLogReport::WriteTimeline(std::FILE* out, const CLogNames& names) const {
  std::fputs("{\"functions\":", out);
  WriteStrings(out, names.functions);
  std::fputs(",\"codes\":", out);
  WriteStrings(out, names.codes);
  std::fputs(",\"strings\":", out);
  WriteStrings(out, strings_);
  std::fputs(",\"processes\":[", out);
  const char* separator = "";
  for (const CProcess& process : processes_) {
    std::fprintf(out, "%s{\"pid\":%ld,\"executable\":", separator, process.pid);
    separator = ",";
    WriteJsonString(out, process.executable);
    std::fputs(",\"origin\":", out);
    WriteJsonString(out, process.origin);
    std::fprintf(out, ",\"end\":%lld,\"threads\":[", static_cast<long long>(process.end));
    const char* threadSeparator = "";
    for (const auto& [id, marker] : process.threads) {
      std::fprintf(out, "%s{\"id\":\"%08X\",\"marker\":", threadSeparator, id);
      WriteJsonString(out, std::string_view(&marker, 1));
      std::fputc('}', out);
      threadSeparator = ",";
    }
    std::fputs("],\"calls\":{", out);
    const char* columnSeparator = "";
    for (const auto& [name, of] : kCallColumns) {
      std::fputs(columnSeparator, out);
      WriteColumn(out, name, process.calls, of);
      columnSeparator = ",";
    }
    std::fputs("},\"lines\":{", out);
    WriteColumn(out, "time", process.lineTimes, [](std::int64_t t) { return t; });
    std::fputc(',', out);
    WriteColumn(out, "text", process.lineTexts, [](std::uint32_t t) { return t; });
    std::fprintf(out, "},\"lines_omitted\":%s}", process.linesOmitted ? "true" : "false");
  }
  std::fputs("]}", out);
}

bool CLogReport::Write(std::FILE* out, const CLogNames& names) const {
  const std::string_view page = kReportPage;
  const std::size_t at = page.find(kPlaceholder);
  if (at == std::string_view::npos) return false;
  std::fwrite(page.data(), 1, at, out);
  std::string summary = DumpJson(SummaryJson(summary_, inputs_, names), -1);
  for (std::size_t i = summary.find("</"); i != std::string::npos; i = summary.find("</", i)) {
    summary.replace(i, 2, "<\\/");
  }
  std::fputs("{\"summary\":", out);
  std::fwrite(summary.data(), 1, summary.size(), out);
  std::fputs(",\"timeline\":", out);
  WriteTimeline(out, names);
  std::fputc('}', out);
  const std::string_view rest = page.substr(at + kPlaceholder.size());
  std::fwrite(rest.data(), 1, rest.size(), out);
  return std::fflush(out) == 0 && std::ferror(out) == 0;
}

}  // namespace zelph
