// zelph-log: reads trace logs back as answers. `summary` counts and times the
// calls of each process, `report` writes a page with a timeline of them, and
// `calls` prints the calls that match, with their lines, like grep per call.
#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "LogReader.h"
#include "LogReport.h"
#include "LogSummary.h"
#include "SummaryJson.h"

namespace zelph {
namespace {

// Exit codes, as grep has them: 1 when `calls` matched nothing, 2 when an
// input could not be read or was not a trace log (what could be read is
// still reported) or the command line was wrong.
constexpr int kNothingMatched = 1;
constexpr int kTrouble = 2;

// Shows on a terminal how far a long read has got.
class CTerminalProgress : public CLogProgress {
 public:
  CTerminalProgress() : shown_(isatty(STDERR_FILENO) == 1) {}
  ~CTerminalProgress() override { Clear(); }

  void Advance(const std::string& log, std::uint64_t done, std::uint64_t total) override {
    if (!shown_ || done < (32u << 20)) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - last_ < std::chrono::milliseconds(200)) return;
    last_ = now;
    const std::string name = log.substr(log.rfind('/') + 1);
    if (total > 0) {
      std::fprintf(stderr, "\r\033[Kzelph-log: reading %.40s %3llu%% of %llu MB", name.c_str(),
                   static_cast<unsigned long long>(done * 100 / total),
                   static_cast<unsigned long long>(total >> 20));
    } else {
      std::fprintf(stderr, "\r\033[Kzelph-log: reading %.40s %llu MB", name.c_str(),
                   static_cast<unsigned long long>(done >> 20));
    }
    dirty_ = true;
  }
  void Clear() {
    if (dirty_) std::fputs("\r\033[K", stderr);
    dirty_ = false;
  }

 private:
  bool shown_;
  bool dirty_ = false;
  std::chrono::steady_clock::time_point last_{};
};

// The files named on the command line; a directory stands for its *.log files.
std::vector<std::string> ExpandInputs(const std::vector<std::string>& arguments, CLogInputs& inputs,
                                      bool& trouble) {
  std::vector<std::string> files;
  for (const std::string& argument : arguments) {
    struct stat status {};
    if (argument == "-" || ::stat(argument.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      files.push_back(argument);  // ReadFile says what is wrong with it
      continue;
    }
    std::vector<std::string> logs;
    if (DIR* directory = ::opendir(argument.c_str())) {
      while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        const std::string path = argument + (argument.ends_with('/') ? "" : "/") + name;
        struct stat entryStatus {};
        if (name.size() > 4 && name.ends_with(".log") && ::stat(path.c_str(), &entryStatus) == 0 &&
            S_ISREG(entryStatus.st_mode)) {
          logs.push_back(path);
        }
      }
      ::closedir(directory);
    }
    if (logs.empty()) {
      inputs.Problem(argument, 0, "a directory without .log files");
      trouble = true;
    }
    std::ranges::sort(logs);
    files.insert(files.end(), logs.begin(), logs.end());
  }
  return files;
}

// Reads every input; false when one of them could not be read or was no
// trace log.
bool ReadAll(CLogReader& reader, CTerminalProgress& progress, CLogInputs& inputs,
             const std::vector<std::string>& arguments) {
  bool trouble = false;
  for (const std::string& file : ExpandInputs(arguments, inputs, trouble)) {
    const bool read = reader.ReadFile(file);
    progress.Clear();
    struct stat status {};
    const bool regular = file != "-" && ::stat(file.c_str(), &status) == 0;
    inputs.Done(file == "-" ? "(standard input)" : file, reader.Lines(),
                regular ? static_cast<std::uint64_t>(status.st_size) : 0);
    trouble = trouble || !read;
  }
  return !trouble;
}

// "10ms", "1.5 s", "250us", "250" (microseconds) as microseconds.
std::optional<std::int64_t> ParseDuration(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || value < 0) return std::nullopt;
  std::string unit = end;
  unit.erase(0, unit.find_first_not_of(' '));
  double scale = 0;
  if (unit.empty() || unit == "us") {
    scale = 1;
  } else if (unit == "ms") {
    scale = 1e3;
  } else if (unit == "s") {
    scale = 1e6;
  } else {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(value * scale + 0.5);
}

struct CCallFilter {
  std::string function;  // a shell pattern
  bool failed = false;
  bool unfinished = false;
  std::optional<std::uint32_t> thread;
  std::int64_t slowerThan = -1;

  bool Matches(const CLogCall& call, const std::string& name) const {
    if (!function.empty() && fnmatch(function.c_str(), name.c_str(), 0) != 0) return false;
    if (failed && call.status != CCallStatus::kFailed) return false;
    if (unfinished && call.status != CCallStatus::kUnfinished) return false;
    if (thread && call.thread != *thread) return false;
    const std::int64_t took = call.duration >= 0 ? call.duration : call.span;
    return slowerThan < 0 || took > slowerThan;
  }
};

// Prints the matching calls, in the order they started within each outermost
// call, each with its lines as the log has them.
class CCallPrinter : public CLogSink {
 public:
  CCallPrinter(CLogInputs& inputs, const CCallFilter& filter, bool json)
      : inputs_(inputs), filter_(filter), json_(json) {}

  // The reader whose function and code names the calls refer to.
  void SetReader(const CLogReader* reader) { reader_ = reader; }
  void BeginProcess(const CLogProcess& process) override {
    log_ = process.log;
    matched_.clear();
  }
  void EndProcess(std::int64_t) override {}
  void Problem(const std::string& log, std::uint64_t line, const std::string& text) override {
    inputs_.Problem(log, line, text);
  }
  void Call(const CLogCall& call, const std::vector<CKeptLine>& lines) override {
    // A nested call's lines are its outermost call's, which are printed
    // from when that ends; other threads' calls may end in between.
    if (call.threadIndex >= matched_.size()) matched_.resize(call.threadIndex + 1);
    std::vector<CLogCall>& matched = matched_[call.threadIndex];
    if (filter_.Matches(call, reader_->Functions()[call.function])) matched.push_back(call);
    if (call.depth > 0 || matched.empty()) return;
    std::ranges::stable_sort(matched, {}, &CLogCall::start);
    for (const CLogCall& match : matched) Print(match, lines);
    matched.clear();
  }
  void Finish() {
    if (json_) std::fputs(printed_ > 0 ? "\n]\n" : "[]\n", stdout);
  }
  std::uint64_t Printed() const noexcept { return printed_; }

 private:
  void Print(const CLogCall& call, const std::vector<CKeptLine>& lines) {
    const std::string& function = reader_->Functions()[call.function];
    const std::string code = call.code >= 0 ? reader_->Codes()[call.code] : "";
    char thread[12];
    std::snprintf(thread, sizeof thread, "%08X", call.thread);
    if (json_) {
      nlohmann::ordered_json json = {{"function", Utf8FromLog(function)}};
      if (!code.empty()) json["code"] = Utf8FromLog(code);
      json["time"] = TimeOf(call);
      json["thread"] = thread;
      if (call.duration >= 0) json["duration_us"] = call.duration;
      json["log"] = Utf8FromLog(log_);
      json["line"] = call.line;
      nlohmann::ordered_json texts = nlohmann::ordered_json::array();
      for (std::uint32_t i = call.first; i < call.first + call.count; ++i) {
        texts.push_back(inputs_.ToUtf8(lines[i].whole, log_, lines[i].number));
      }
      json["lines"] = texts;
      std::fputs(printed_ > 0 ? ",\n  " : "[\n  ", stdout);
      std::fputs(DumpJson(json, -1).c_str(), stdout);
    } else {
      const std::string took = call.status == CCallStatus::kUnfinished
                                   ? "unfinished after " + FormatMicros(call.span)
                                   : FormatMicros(call.duration);
      std::printf("%s==> %s:%llu: %s, thread %s, %s%s%s\n", printed_ > 0 ? "\n" : "", log_.c_str(),
                  static_cast<unsigned long long>(call.line), function.c_str(), thread,
                  took.c_str(), code.empty() ? "" : ", ", code.c_str());
      for (std::uint32_t i = call.first; i < call.first + call.count; ++i) {
        std::fwrite(lines[i].whole.data(), 1, lines[i].whole.size(), stdout);
        std::fputc('\n', stdout);
      }
      if (call.count == 0) std::printf("(too many lines to keep)\n");
    }
    ++printed_;
  }

  CLogInputs& inputs_;
  const CCallFilter& filter_;
  bool json_;
  const CLogReader* reader_ = nullptr;
  std::string log_;
  std::vector<std::vector<CLogCall>> matched_;  // by thread, until their outermost call ends
  std::uint64_t printed_ = 0;
};

int Summary(const std::vector<std::string>& logs, bool json, std::size_t slowest) {
  CLogInputs inputs;
  CLogSummary summary(inputs, slowest);
  CTerminalProgress progress;
  CLogReader reader(summary, &progress);
  const bool read = ReadAll(reader, progress, inputs, logs);
  const CLogNames names{reader.Functions(), reader.Codes()};
  if (json) {
    std::puts(DumpJson(SummaryJson(summary, inputs, names), 2).c_str());
  } else {
    PrintSummary(stdout, summary, inputs, names);
  }
  return read ? 0 : kTrouble;
}

int Report(const std::vector<std::string>& logs, const std::string& output) {
  CLogInputs inputs;
  CLogReport report(inputs);
  CTerminalProgress progress;
  CLogReader reader(report, &progress);
  const bool read = ReadAll(reader, progress, inputs, logs);
  std::FILE* out = std::fopen(output.c_str(), "we");
  if (out == nullptr) {
    std::fprintf(stderr, "zelph-log: %s: cannot write: %s\n", output.c_str(), std::strerror(errno));
    return kTrouble;
  }
  const bool written = report.Write(out, {reader.Functions(), reader.Codes()});
  if (std::fclose(out) != 0 || !written) {
    std::fprintf(stderr, "zelph-log: %s: writing failed\n", output.c_str());
    return kTrouble;
  }
  return read ? 0 : kTrouble;
}

int Calls(const std::vector<std::string>& logs, const CCallFilter& filter, bool json) {
  CLogInputs inputs;
  CCallPrinter printer(inputs, filter, json);
  CTerminalProgress progress;
  CLogReader reader(printer, &progress);
  printer.SetReader(&reader);
  const bool read = ReadAll(reader, progress, inputs, logs);
  printer.Finish();
  if (!read) return kTrouble;
  return printer.Printed() > 0 ? 0 : kNothingMatched;
}

int Main(int argc, char** argv) {
  CLI::App app{
      "Reads zelph trace logs back: per function counts, failures and durations,\n"
      "a report page with a timeline of the calls, or the calls that match, with\n"
      "their lines.\n"
      "A LOG is a file, a directory (its *.log files) or - for standard input.\n"
      "Exit status: 0 done, 1 `calls` matched nothing, 2 an input could not be read\n"
      "or is not a trace log (the others are still reported), or a wrong command line.",
      "zelph-log"};
  app.require_subcommand(1);
  app.get_formatter()->column_width(26);

  std::vector<std::string> logs;
  bool json = false;
  std::size_t slowest = 10;
  CLI::App* summary = app.add_subcommand("summary", "per process: calls, failures and durations");
  summary->add_option("LOG", logs, "trace logs")->required();
  summary->add_flag("--json", json, "JSON for scripts (schema \"zelph-log summary\", version 1)");
  summary->add_option("--slowest", slowest, "how many of the slowest calls to name (10)");

  std::string output;
  CLI::App* report = app.add_subcommand("report", "one HTML page: timeline, tables, histograms");
  report->add_option("LOG", logs, "trace logs")->required();
  report->add_option("-o,--output", output, "the page to write")->required();

  CCallFilter filter;
  std::string thread, slower;
  CLI::App* calls = app.add_subcommand("calls", "the matching calls with their lines");
  calls->add_option("LOG", logs, "trace logs")->required();
  calls->add_option("--function", filter.function, "function name (shell pattern: 'C_Sign*')");
  calls->add_flag("--failed", filter.failed, "calls that returned other than CKR_OK");
  calls->add_flag("--unfinished", filter.unfinished, "calls without a Leaving line");
  calls->add_option("--thread", thread, "thread id, as in the log (A468E840)");
  calls->add_option("--slower-than", slower, "duration: 250us, 10ms, 1.5s");
  calls->add_flag("--json", json, "JSON for scripts: an array of calls");

  try {
    app.parse(argc, argv);
    if (!thread.empty()) {
      char* end = nullptr;
      const unsigned long id = std::strtoul(thread.c_str(), &end, 16);
      if (*end != '\0' || id > UINT32_MAX)
        throw CLI::ValidationError("--thread", "not a thread id: " + thread);
      filter.thread = static_cast<std::uint32_t>(id);
    }
    if (!slower.empty()) {
      const std::optional<std::int64_t> micros = ParseDuration(slower);
      if (!micros) throw CLI::ValidationError("--slower-than", "not a duration: " + slower);
      filter.slowerThan = *micros;
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kTrouble;
  }
  if (summary->parsed()) return Summary(logs, json, slowest);
  if (report->parsed()) return Report(logs, output);
  return Calls(logs, filter, json);
}

}  // namespace
}  // namespace zelph

int main(int argc, char** argv) {
  try {
    return zelph::Main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zelph-log: %s\n", error.what());
    return 2;
  }
}
