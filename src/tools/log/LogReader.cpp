#include "LogReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace zelph {
namespace {

constexpr std::size_t kBufferSize = 4 << 20;
// Longer lines are cut: no trace call writes one, and a file without line
// ends must not be held whole.
constexpr std::size_t kMaxLine = 1 << 20;
// A file whose first lines hold no trace line and no header is not a log.
constexpr std::uint64_t kProbeLines = 1000;
constexpr std::uint64_t kProbeBytes = 64 << 10;
// The lines kept for one outermost call; past this its calls keep none.
constexpr std::size_t kMaxKeptBytes = 16 << 20;
constexpr std::size_t kMaxKeptLines = 1 << 18;

constexpr std::uint32_t kNoIndex = UINT32_MAX;

bool StartsWith(std::string_view s, std::string_view start) noexcept {
  return s.substr(0, start.size()) == start;
}

// Copies of kept lines, in blocks that never move, so views into them stay
// valid until Clear.
class CLineArena {
 public:
  std::string_view Add(std::string_view line) {
    if (line.size() > kBlock) {
      large_.push_back(std::make_unique<char[]>(line.size()));
      std::memcpy(large_.back().get(), line.data(), line.size());
      return {large_.back().get(), line.size()};
    }
    if (block_ == blocks_.size() || used_ + line.size() > kBlock) {
      if (block_ < blocks_.size()) ++block_;
      if (block_ == blocks_.size()) blocks_.push_back(std::make_unique<char[]>(kBlock));
      used_ = 0;
    }
    char* at = blocks_[block_].get() + used_;
    std::memcpy(at, line.data(), line.size());
    used_ += line.size();
    return {at, line.size()};
  }
  void Clear() noexcept {
    block_ = 0;
    used_ = 0;
    large_.clear();
  }

 private:
  static constexpr std::size_t kBlock = 256 << 10;
  std::vector<std::unique_ptr<char[]>> blocks_;
  std::vector<std::unique_ptr<char[]>> large_;
  std::size_t block_ = 0;
  std::size_t used_ = 0;
};

// The year a log without a header most likely belongs to: the one in its
// file name ("zelph_2026-11-22_..."), else the current one.
struct CNameGuess {
  std::string executable;
  long pid = 0;
  int year = 0;
};

CNameGuess GuessFromName(const std::string& path) {
  CNameGuess guess;
  std::string_view name = path;
  if (const std::size_t slash = name.rfind('/'); slash != std::string_view::npos) {
    name.remove_prefix(slash + 1);
  }
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, used = 0;
  const std::string copy(name);
  if (std::sscanf(copy.c_str(), "zelph_%4d-%2d-%2d_%2d-%2d-%2d%n", &year, &month, &day, &hour,
                  &minute, &second, &used) == 6) {
    guess.year = year;
    std::string_view rest = name.substr(static_cast<std::size_t>(used));
    if (rest.size() > 4 && rest.substr(rest.size() - 4) == ".log") {
      rest.remove_suffix(4);
      const std::size_t underscore = rest.rfind('_');
      if (underscore != std::string_view::npos && underscore > 0 && rest[0] == '_') {
        guess.executable = rest.substr(1, underscore - 1);
        guess.pid = std::atol(std::string(rest.substr(underscore + 1)).c_str());
      }
    }
  }
  if (guess.year == 0) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    guess.year = local.tm_year + 1900;
  }
  return guess;
}

}  // namespace

struct CLogReader::CThread {
  std::uint32_t id = 0;
  char marker = 0;
  std::uint32_t index = kNoIndex;  // numbered by their first call
  std::vector<CLogCall> open;      // innermost last
  std::vector<CKeptLine> lines;
  CLineArena arena;
  std::size_t keptBytes = 0;
  bool dropped = false;
};

std::string TimeOf(const CLogCall& call) {
  char time[32];
  FormatPrefixTime(call.prefix, call.year, time);
  return time;
}

std::uint32_t CLogReader::CNames::Intern(std::string_view name) {
  const std::size_t slot = name.empty()
                               ? 0
                               : (name.size() * 31 + static_cast<unsigned char>(name.back()) * 7 +
                                  static_cast<unsigned char>(name[name.size() / 2])) &
                                     255;
  if (recent[slot] < names.size() && names[recent[slot]] == name) return recent[slot];
  std::uint32_t id = 0;
  if (const auto found = index.find(name); found != index.end()) {
    id = found->second;
  } else {
    id = static_cast<std::uint32_t>(names.size());
    names.emplace_back(name);
    index.emplace(names.back(), id);
  }
  recent[slot] = id;
  return id;
}

CLogReader::CLogReader(CLogSink& sink, CLogProgress* progress)
    : sink_(sink),
      progress_(progress),
      okCode_(static_cast<std::int32_t>(codes_.Intern("CKR_OK"))) {}

CLogReader::~CLogReader() = default;

void CLogReader::Problem(const std::string& text) {
  sink_.Problem(log_, lineNumber_, text);
}

void CLogReader::BeginFile(const std::string& name) {
  log_ = name;
  lineNumber_ = 0;
  traceLines_ = 0;
  sawHeader_ = false;
  sawNul_ = false;
}

bool CLogReader::EndFile(bool cutShort) {
  if (cutShort && (traceLines_ > 0 || sawHeader_)) {
    Problem("the last line has no line end (was the log cut short?)");
  }
  EndProcess();
  if (lineNumber_ == 0) {
    sink_.Problem(log_, 0, "empty file, not a trace log");
    return false;
  }
  if (traceLines_ == 0 && !sawHeader_) {
    sink_.Problem(log_, 0,
                  sawNul_ ? "not a trace log (binary data)"
                          : "not a trace log (no trace line and no log header in its first lines)");
    return false;
  }
  return true;
}

bool CLogReader::ReadBytes(const std::string& name, std::string_view bytes) {
  BeginFile(name);
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\n');
    if (end == std::string_view::npos) {
      Line(bytes);
      return EndFile(true);
    }
    Line(bytes.substr(0, end));
    bytes.remove_prefix(end + 1);
    if (traceLines_ == 0 && !sawHeader_ && lineNumber_ >= kProbeLines) break;
  }
  return EndFile(false);
}

bool CLogReader::ReadFile(const std::string& path) {
  const bool standardInput = path == "-";
  const std::string name = standardInput ? "(standard input)" : path;
  const int fd = standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    sink_.Problem(name, 0, std::string("cannot open: ") + std::strerror(errno));
    return false;
  }
  struct CCloser {
    int fd;
    ~CCloser() {
      if (fd != STDIN_FILENO) ::close(fd);
    }
  } closer{fd};
  struct stat status {};
  const std::uint64_t total = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)
                                  ? static_cast<std::uint64_t>(status.st_size)
                                  : 0;

  BeginFile(name);
  std::unique_ptr<char[]> buffer = std::make_unique<char[]>(kBufferSize);
  std::size_t have = 0;
  std::uint64_t done = 0;
  bool skipping = false;  // inside the rest of a line that was too long
  while (true) {
    const ssize_t got = ::read(fd, buffer.get() + have, kBufferSize - have);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      Problem(std::string("read error: ") + std::strerror(errno));
      break;
    }
    if (got == 0) break;
    have += static_cast<std::size_t>(got);
    done += static_cast<std::uint64_t>(got);
    const char* at = buffer.get();
    const char* const end = at + have;
    while (const void* found = std::memchr(at, '\n', static_cast<std::size_t>(end - at))) {
      const char* const lineEnd = static_cast<const char*>(found);
      if (skipping) {
        skipping = false;
      } else {
        Line({at, static_cast<std::size_t>(lineEnd - at)});
      }
      at = lineEnd + 1;
    }
    have = static_cast<std::size_t>(end - at);
    if (have == kBufferSize) {
      // A line that fills the whole buffer: take its start, skip its rest.
      if (!skipping) Line({buffer.get(), have});
      skipping = true;
      have = 0;
    } else if (have > 0 && at != buffer.get()) {
      std::memmove(buffer.get(), at, have);
    }
    if (progress_ != nullptr) progress_->Advance(name, done, total);
    if (traceLines_ == 0 && !sawHeader_ && (lineNumber_ >= kProbeLines || done >= kProbeBytes)) {
      return EndFile(false);
    }
  }
  const bool cutShort = have > 0 && !skipping;
  if (cutShort) Line({buffer.get(), have});
  return EndFile(cutShort);
}

void CLogReader::Line(std::string_view line) {
  ++lineNumber_;
  if (line.size() > kMaxLine) {
    Problem("a line of more than 1 MiB, cut there");
    line = line.substr(0, kMaxLine);
  }
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  CLinePrefix prefix;
  if (prefixes_.Parse(line, prefix)) {
    TraceLine(line, prefix);
  } else if (line.empty()) {
    inHeader_ = false;
  } else if (line[0] == '#') {
    HeaderLine(line);
  } else {
    if (traceLines_ == 0 && !sawHeader_ && std::memchr(line.data(), 0, line.size()) != nullptr) {
      sawNul_ = true;
    }
    ContinuationLine(line);
  }
}

void CLogReader::HeaderLine(std::string_view line) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (StartsWith(line, "# Starting log on ")) {
    EndProcess();
    const std::string copy(line);
    if (std::sscanf(copy.c_str(), "# Starting log on %4d-%2d-%2d at %2d:%2d:%2d", &year, &month,
                    &day, &hour, &minute, &second) != 6) {
      Problem("a log header without a date");
      year = GuessFromName(log_).year;
    }
    sawHeader_ = true;
    inHeader_ = true;
    process_ = CLogProcess{};
    process_.log = log_;
    process_.firstLine = lineNumber_;
    if (month != 0) {
      char start[32];
      std::snprintf(start, sizeof start, "%04d-%02d-%02dT%02d:%02d:%02d", year, month, day, hour,
                    minute, second);
      process_.start = start;
    }
    year_ = year;
    StartProcess(true);
  } else if (StartsWith(line, "# Ending log")) {
    EndProcess();
  } else if (inHeader_ && StartsWith(line, "# Process ID: ")) {
    process_.pid = std::atol(std::string(line.substr(14)).c_str());
  } else if (inHeader_ && StartsWith(line, "# Executable path: ")) {
    process_.executable = line.substr(19);
  } else if (!inHeader_) {
    ContinuationLine(line);
  }
}

void CLogReader::StartProcess(bool fromHeader) {
  if (!fromHeader) {
    const CNameGuess guess = GuessFromName(log_);
    process_ = CLogProcess{};
    process_.log = log_;
    process_.firstLine = lineNumber_;
    process_.executable = guess.executable;
    process_.pid = guess.pid;
    year_ = guess.year;
    Problem("no log header before this line; the year is taken to be " + std::to_string(year_));
  }
  inProcess_ = true;
  announced_ = false;
  clock_ = std::make_unique<CLogClock>(year_);
  now_ = 0;
}

void CLogReader::EndProcess() {
  if (!inProcess_) return;
  if (!announced_) sink_.BeginProcess(process_);
  for (const auto& thread : threads_) {
    while (!thread->open.empty()) Finish(*thread, CCallStatus::kUnfinished);
  }
  sink_.EndProcess(now_);
  threads_.clear();
  callThreads_ = 0;
  lastThread_ = nullptr;
  clock_.reset();
  inProcess_ = false;
  inHeader_ = false;
}

CLogReader::CThread& CLogReader::ThreadOf(const CLinePrefix& prefix) {
  if (lastThread_ != nullptr && lastThread_->id == prefix.thread) return *lastThread_;
  for (const auto& thread : threads_) {
    if (thread->id == prefix.thread) return *thread;
  }
  auto thread = std::make_unique<CThread>();
  thread->id = prefix.thread;
  thread->marker = prefix.marker;
  threads_.push_back(std::move(thread));
  return *threads_.back();
}

void CLogReader::Keep(CThread& thread, std::string_view line, std::size_t textOffset) {
  if (thread.dropped) return;
  if (thread.keptBytes + line.size() > kMaxKeptBytes || thread.lines.size() >= kMaxKeptLines) {
    thread.dropped = true;
    return;
  }
  thread.keptBytes += line.size();
  const std::string_view kept = thread.arena.Add(line);
  thread.lines.push_back({now_, lineNumber_, kept, kept.substr(textOffset)});
}

void CLogReader::TraceLine(std::string_view line, const CLinePrefix& prefix) {
  ++traceLines_;
  inHeader_ = false;
  if (!inProcess_) StartProcess(false);
  if (!announced_) {
    char origin[32];
    FormatPrefixTime(prefix, year_, origin);
    process_.origin = origin;
    sink_.BeginProcess(process_);
    announced_ = true;
  }
  now_ = clock_->Advance(prefix);
  CThread& thread =
      lastThread_ != nullptr && lastThread_->id == prefix.thread ? *lastThread_ : ThreadOf(prefix);
  lastThread_ = &thread;
  const std::size_t textOffset = line.size() - prefix.text.size();
  const CLineText text = ClassifyLineText(prefix.text);
  switch (text.kind) {
    case CLineKind::kEntering: {
      if (thread.index == kNoIndex) thread.index = callThreads_++;
      CLogCall call;
      call.function = functions_.Intern(text.name);
      call.thread = thread.id;
      call.marker = thread.marker;
      call.threadIndex = thread.index;
      call.depth = static_cast<int>(thread.open.size());
      call.start = now_;
      call.line = lineNumber_;
      call.first = static_cast<std::uint32_t>(thread.lines.size());
      call.prefix = prefix;
      call.prefix.text = {};
      call.year = clock_->Year();
      thread.open.push_back(call);
      Keep(thread, line, textOffset);
      break;
    }
    case CLineKind::kLeaving: {
      // Mostly the innermost call leaves: no need to look its name up.
      const bool innermost =
          !thread.open.empty() && functions_.names[thread.open.back().function] == text.name;
      const std::uint32_t function =
          innermost ? thread.open.back().function : functions_.Intern(text.name);
      std::size_t level = thread.open.size();
      while (level > 0 && thread.open[level - 1].function != function) --level;
      if (level == 0) {
        Problem("Leaving " + std::string(text.name) + " without its Entering line");
        break;
      }
      Keep(thread, line, textOffset);
      while (thread.open.size() > level) {
        Problem("Leaving " + std::string(text.name) + " while " +
                functions_.names[thread.open.back().function] + " (line " +
                std::to_string(thread.open.back().line) + ") is still open");
        Finish(thread, CCallStatus::kUnfinished);
      }
      Finish(thread, CCallStatus::kOk);
      break;
    }
    case CLineKind::kReturns:
      if (thread.open.empty()) break;
      thread.open.back().code =
          text.name == "CKR_OK" ? okCode_ : static_cast<std::int32_t>(codes_.Intern(text.name));
      thread.open.back().duration = text.micros;
      Keep(thread, line, textOffset);
      break;
    case CLineKind::kOther:
      if (!thread.open.empty()) Keep(thread, line, textOffset);
      break;
  }
}

void CLogReader::ContinuationLine(std::string_view line) {
  if (lastThread_ != nullptr && !lastThread_->open.empty()) Keep(*lastThread_, line, 0);
}

void CLogReader::Finish(CThread& thread, CCallStatus status) {
  CLogCall& call = thread.open.back();
  call.span = now_ - call.start;
  if (status == CCallStatus::kUnfinished) {
    call.status = status;
    call.duration = -1;
  } else {
    call.status = call.code >= 0 && call.code != okCode_ ? CCallStatus::kFailed : CCallStatus::kOk;
    if (call.duration < 0) call.duration = call.span;
  }
  call.count = thread.dropped ? 0 : static_cast<std::uint32_t>(thread.lines.size() - call.first);
  sink_.Call(call, thread.lines);
  thread.open.pop_back();
  if (thread.open.empty()) {
    thread.lines.clear();
    thread.arena.Clear();
    thread.keptBytes = 0;
    thread.dropped = false;
  }
}

}  // namespace zelph
