#include "TraceLogHarness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <system_error>

extern char** environ;

namespace zelph {
namespace {

namespace fs = std::filesystem;

// Shows control and non-ASCII bytes as escapes, so that failure messages tell
// a tab from a blank and an ISO-8859-1 byte from its UTF-8 form.
std::string Visible(std::string_view text) {
  std::string shown;
  for (const unsigned char c : text) {
    if (c == '\t') {
      shown += "\\t";
    } else if (c == '\r') {
      shown += "\\r";
    } else if (c == '\\') {
      shown += "\\\\";
    } else if (c < 0x20 || c >= 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02X", c);
      shown += escape;
    } else {
      shown += static_cast<char>(c);
    }
  }
  return shown;
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      ADD_FAILURE() << "log ends without a line feed after: " << Visible(text.substr(start));
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// The local time of `when` in the given strftime format.
std::string LocalStamp(std::time_t when, const char* format) {
  std::tm local{};
  localtime_r(&when, &local);
  char stamp[64];
  std::strftime(stamp, sizeof stamp, format, &local);
  return stamp;
}

std::string DriverPath(DriverKind kind) {
  return kind == DriverKind::kLinked ? ZELPH_TRACE_DRIVER : ZELPH_TRACE_DRIVER_DL;
}

// Writes a configuration that switches tracing on into the directory.
const CTempDir& WithTracingOn(const CTempDir& dir) {
  WriteFile(dir.ConfigFile(), TraceConfig("1", dir.Logs()));
  return dir;
}

}  // namespace

CTempDir::CTempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zelph-tracetest-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed: " << std::strerror(errno);
    return;
  }
  path_ = pattern;
  fs::create_directory(Logs());
}

CTempDir::~CTempDir() {
  if (path_.empty()) return;
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const fs::path& path, std::string_view text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!out) ADD_FAILURE() << "cannot write " << path;
}

std::string TraceConfig(std::string_view enableTrace, const fs::path& directory) {
  return "Quillon {\n\tEnableTrace = " + std::string(enableTrace) +
         "\n\tTrace = " + directory.string() + "\n}\n";
}

std::vector<fs::path> LogFiles(const fs::path& directory) {
  std::vector<fs::path> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("zelph_") && name.ends_with(".log")) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

CTraceDriver::CTraceDriver(DriverKind kind, const DriverEnvironment& environment,
                           const fs::path& workDir)
    : kind_(kind) {
  // A driver that dies early must fail its test, not kill the test with SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);

  static int serial = 0;
  errorFile_ = workDir / ("driver-" + std::to_string(++serial) + ".err");

  std::vector<std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view variable(*entry);
    if (variable.starts_with("ZELPH_CONFFILE=") || variable.starts_with("HOME=")) continue;
    variables.emplace_back(variable);
  }
  if (environment.configFile) {
    variables.push_back("ZELPH_CONFFILE=" + environment.configFile->string());
  }
  variables.push_back("HOME=" + environment.home.string());
  std::vector<char*> envp;
  for (std::string& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);

  std::string program = DriverPath(kind);
  std::string library = ZELPH_TRACE_LIB;
  std::vector<char*> argv = {program.data()};
  if (kind == DriverKind::kDlopen) argv.push_back(library.data());
  argv.push_back(nullptr);

  int toChild[2];
  int fromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2 failed: " << std::strerror(errno);
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile_.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int error =
      posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(toChild[0]);
  close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
  if (error != 0) {
    ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(error);
    pid_ = -1;
    finished_ = true;
  }
}

CTraceDriver::CTraceDriver(DriverKind kind, const CTempDir& dir)
    : CTraceDriver(kind, DriverEnvironment{dir.ConfigFile(), dir.Path()}, dir.Path()) {}

CTraceDriver::~CTraceDriver() {
  if (input_ >= 0) close(input_);
  if (!finished_ && pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (output_ >= 0) close(output_);
}

std::string CTraceDriver::ExecutablePath() const {
  return fs::canonical(DriverPath(kind_)).string();
}

void CTraceDriver::Send(std::string_view script) {
  while (!script.empty() && input_ >= 0) {
    const ssize_t written = write(input_, script.data(), script.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      ADD_FAILURE() << "the driver stopped reading its script: " << Describe();
      return;
    }
    script.remove_prefix(static_cast<std::size_t>(written));
  }
}

bool CTraceDriver::ReadSome() {
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(output_, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    out_.append(buffer, static_cast<std::size_t>(got));
    return true;
  }
}

bool CTraceDriver::Sync() {
  Send("sync\n");
  for (;;) {
    const std::size_t found = out_.find("sync\n", consumed_);
    if (found != std::string::npos) {
      consumed_ = found + 5;
      return true;
    }
    if (!ReadSome()) {
      ADD_FAILURE() << "the driver ended before it reached the sync point: " << Describe();
      return false;
    }
  }
}

bool CTraceDriver::Finish() {
  if (finished_) return false;
  close(input_);
  input_ = -1;
  while (ReadSome()) {
  }
  while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
  }
  finished_ = true;
  return WIFEXITED(status_) && WEXITSTATUS(status_) == 0 && out_.ends_with("done\n");
}

std::string CTraceDriver::Describe() const {
  std::ostringstream text;
  if (!finished_) {
    text << "still running";
  } else if (WIFEXITED(status_)) {
    text << "exit status " << WEXITSTATUS(status_);
  } else if (WIFSIGNALED(status_)) {
    text << "killed by signal " << WTERMSIG(status_) << " (" << strsignal(WTERMSIG(status_)) << ")";
  }
  text << "; stderr: \"" << Visible(ReadFile(errorFile_)) << "\"; stdout: \"" << Visible(out_)
       << "\"";
  return text.str();
}

std::string CTraceDriver::ReportedThreadId(const std::string& label) const {
  const std::string key = "tid " + label + " ";
  std::size_t at = out_.rfind("\n" + key);
  if (at != std::string::npos) {
    ++at;
  } else if (out_.starts_with(key)) {
    at = 0;
  } else {
    ADD_FAILURE() << "the driver did not report thread " << label << ": " << Describe();
    return "????????";
  }
  return out_.substr(at + key.size(), 8);
}

CTraceLogText ParseLog(const std::string& text) {
  const std::vector<std::string> lines = SplitLines(text);
  CTraceLogText log;
  std::size_t i = 0;
  auto startsSession = [&](std::size_t at) {
    return at + 1 < lines.size() && lines[at] == kTraceRule &&
           lines[at + 1].starts_with("# Starting log on ");
  };
  while (i < lines.size() && !startsSession(i)) log.preamble.push_back(lines[i++]);
  while (i < lines.size()) {
    CTraceSessionText session;
    if (i + 9 > lines.size()) {
      ADD_FAILURE() << "log ends inside a session header";
      return log;
    }
    session.header.assign(lines.begin() + i, lines.begin() + i + 9);
    i += 9;
    while (i < lines.size() && lines[i] != "# Ending log" && !startsSession(i)) {
      session.body.push_back(lines[i++]);
    }
    if (i < lines.size() && lines[i] == "# Ending log") {
      // The footer's own blank line was taken into the body above.
      if (session.body.empty() || !session.body.back().empty()) {
        ADD_FAILURE() << "no blank line before \"# Ending log\"";
      } else {
        session.body.pop_back();
      }
      session.footer.push_back("");
      session.footer.push_back(lines[i++]);
      if (i < lines.size()) session.footer.push_back(lines[i++]);
    }
    log.sessions.push_back(std::move(session));
    if (i < lines.size() && !startsSession(i)) {
      ADD_FAILURE() << "text after a session's footer: " << Visible(lines[i]);
      break;
    }
  }
  return log;
}

std::vector<std::string> StripTimeStamps(const std::vector<std::string>& body) {
  static const std::regex kStamp(R"(^(\d\d)-(\d\d)_(\d\d):(\d\d):(\d\d):(\d{6}) )");
  std::vector<std::string> stripped;
  for (const std::string& line : body) {
    std::smatch match;
    if (line.empty()) {
      stripped.push_back(line);
      continue;
    }
    if (!std::regex_search(line, match, kStamp)) {
      stripped.push_back("NO STAMP: " + line);
      continue;
    }
    const int month = std::stoi(match[1]);
    const int day = std::stoi(match[2]);
    const int hour = std::stoi(match[3]);
    const int minute = std::stoi(match[4]);
    const int second = std::stoi(match[5]);
    const bool valid = month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour < 24 &&
                       minute < 60 && second <= 60;
    if (!valid) {
      stripped.push_back("BAD STAMP: " + line);
      continue;
    }
    stripped.push_back(line.substr(match.length(0)));
  }
  return stripped;
}

std::string TraceLine(const std::string& threadId, char marker, int depth, std::string_view text) {
  std::string line = threadId;
  line += marker;
  line += marker;
  line += ' ';
  line.append(static_cast<std::size_t>(4 * depth), ' ');
  line += text;
  return line;
}

void ExpectHeader(const CTraceSessionText& session, pid_t pid, const std::string& executablePath,
                  std::time_t notBefore, std::time_t notAfter) {
  ASSERT_EQ(session.header.size(), 9u);
  const std::vector<std::string>& h = session.header;
  EXPECT_EQ(h[0], kTraceRule);
  bool startInRun = false;
  for (std::time_t t = notBefore; t <= notAfter && !startInRun; ++t) {
    startInRun = h[1] == LocalStamp(t, "# Starting log on %Y-%m-%d at %H:%M:%S");
  }
  EXPECT_TRUE(startInRun) << "the start line \"" << Visible(h[1])
                          << "\" does not show the local time of the driver's run";
  EXPECT_EQ(h[2], "# Process ID: " + std::to_string(pid));
  EXPECT_EQ(h[3], "# Arch: x86_64");
  EXPECT_EQ(h[4], "# Executable path: " + executablePath);
  EXPECT_EQ(h[5], "# Middleware path: /usr/lib/Zwmware");
  EXPECT_EQ(h[6], "# Middleware version: 6.20.5.0");
  EXPECT_EQ(h[7], "# OS version: linux.workstation");
  EXPECT_EQ(h[8], "") << "the header must end with a blank line";
}

void ExpectFooter(const CTraceSessionText& session) {
  const std::vector<std::string> expected = {"", "# Ending log", kTraceRule};
  EXPECT_EQ(session.footer, expected) << "the session was not ended with its footer";
}

void ExpectLines(const std::vector<std::string>& actual, const std::vector<std::string>& expected,
                 std::string_view what) {
  const std::size_t common = std::min(actual.size(), expected.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (actual[i] != expected[i]) {
      ADD_FAILURE() << what << ": line " << i << " differs\n  actual:   \"" << Visible(actual[i])
                    << "\"\n  expected: \"" << Visible(expected[i]) << "\"";
      return;
    }
  }
  if (actual.size() != expected.size()) {
    std::ostringstream extra;
    const auto& longer = actual.size() > expected.size() ? actual : expected;
    for (std::size_t i = common; i < longer.size() && i < common + 5; ++i) {
      extra << "\n  \"" << Visible(longer[i]) << "\"";
    }
    ADD_FAILURE() << what << ": " << actual.size() << " lines instead of " << expected.size()
                  << "; first of the " << (actual.size() > expected.size() ? "surplus" : "missing")
                  << " lines:" << extra.str();
  }
}

CTracedRun::CTracedRun(std::string_view script)
    : driver_(DriverKind::kLinked, WithTracingOn(dir_)) {
  driver_.Send(script);
  if (!driver_.Finish()) ADD_FAILURE() << "the driver failed: " << driver_.Describe();
  log_ = ReadOnlyLog(dir_.Logs());
  const CTraceLogText log = ParseLog(log_);
  if (log.sessions.size() != 1) {
    ADD_FAILURE() << "expected one session, found " << log.sessions.size();
    return;
  }
  ExpectFooter(log.sessions.front());
  body_ = StripTimeStamps(log.sessions.front().body);
}

std::string ReadOnlyLog(const fs::path& directory) {
  const std::vector<fs::path> files = LogFiles(directory);
  if (files.size() != 1) {
    ADD_FAILURE() << "expected exactly one log file in " << directory << ", found " << files.size();
    return files.empty() ? std::string() : ReadFile(files.front());
  }
  return ReadFile(files.front());
}

}  // namespace zelph
