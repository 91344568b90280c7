#include "TraceLog.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "TestFiles.h"

namespace zelph {

namespace fs = std::filesystem;

std::string TraceConfig(const std::string& logDirectory, std::string_view enableTrace) {
  return "Quillon {\n\tEnableTrace = " + std::string(enableTrace) + "\n\tTrace = " + logDirectory +
         "\n}\n";
}

const std::string& TraceThisProcess() {
  static const CTestDir dir("trace");
  static const std::string logs = [] {
    const std::string path = dir.File("logs");
    fs::create_directory(path);
    WriteFile(dir.File("zelph.conf"), TraceConfig(path));
    setenv("ZELPH_CONFFILE", dir.File("zelph.conf").c_str(), 1);
    setenv("HOME", dir.Path().c_str(), 1);
    return path;
  }();
  return logs;
}

std::vector<std::string> LogFiles(const std::string& directory) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("zelph_") && name.ends_with(".log")) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string ReadLogs(const std::string& directory) {
  std::string text;
  for (const std::string& file : LogFiles(directory)) text += ReadFile(file);
  return text;
}

std::vector<CTraceSessionText> ParseLog(std::string_view text) {
  if (!text.empty() && text.back() != '\n') ADD_FAILURE() << "the log does not end with a line feed";
  const std::vector<std::string> lines = SplitLines(text);
  std::vector<CTraceSessionText> sessions;
  auto startsSession = [&](std::size_t at) {
    return at + 1 < lines.size() && lines[at] == kTraceRule && lines[at + 1].starts_with("# Starting log on ");
  };
  std::size_t i = 0;
  if (!lines.empty() && !startsSession(0)) ADD_FAILURE() << "the log does not start with a header";
  while (i < lines.size() && !startsSession(i)) ++i;
  while (i < lines.size()) {
    CTraceSessionText session;
    if (i + 9 > lines.size()) {
      ADD_FAILURE() << "the log ends inside a session header";
      break;
    }
    session.header.assign(lines.begin() + static_cast<long>(i), lines.begin() + static_cast<long>(i + 9));
    for (i += 9; i < lines.size() && lines[i] != "# Ending log" && !startsSession(i); ++i) {
      session.body.push_back(lines[i]);
    }
    if (i < lines.size() && lines[i] == "# Ending log") {
      if (session.body.empty() || !session.body.back().empty()) {
        ADD_FAILURE() << "no blank line before \"# Ending log\"";
      } else {
        session.body.pop_back();
      }
      session.footer = {"", lines[i++]};
      if (i < lines.size()) session.footer.push_back(lines[i++]);
    }
    sessions.push_back(std::move(session));
    if (i < lines.size() && !startsSession(i)) {
      ADD_FAILURE() << "text after a session's footer: " << Visible(lines[i]);
      break;
    }
  }
  return sessions;
}

CTraceLine SplitTraceLine(std::string_view line) {
  CTraceLine split;
  split.text = line;
  // "MM-DD_hh:mm:ss:uuuuuu " then 8 hex digits, the marker twice, a blank.
  constexpr std::string_view kShape = "00-00_00:00:00:000000 ";
  if (line.size() < kShape.size() + 11) return split;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const bool digit = line[i] >= '0' && line[i] <= '9';
    if ((kShape[i] == '0') != digit || (!digit && line[i] != kShape[i])) return split;
  }
  const std::string_view thread = line.substr(kShape.size(), 8);
  if (!std::all_of(thread.begin(), thread.end(), [](char c) { return std::isxdigit(c) && !std::islower(c); })) {
    return split;
  }
  const std::size_t at = kShape.size() + 8;
  if (line[at] != line[at + 1] || line[at + 2] != ' ') return split;
  split.valid = true;
  split.stamp = line.substr(0, kShape.size() - 1);
  split.thread = thread;
  split.marker = line[at];
  std::string_view rest = line.substr(at + 3);
  while (rest.starts_with("    ")) {
    ++split.depth;
    rest.remove_prefix(4);
  }
  split.text = rest;
  return split;
}

std::string TraceLine(std::string_view thread, char marker, int depth, std::string_view text) {
  std::string line(thread);
  line += marker;
  line += marker;
  line += ' ';
  line.append(static_cast<std::size_t>(4 * std::max(depth, 0)), ' ');
  line += text;
  return line;
}

char MarkerOfThread(int n) {
  static constexpr std::string_view kMarkers =
      ".|@_~#/\\^-&*=%:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  return n < 15 ? kMarkers[static_cast<std::size_t>(n)] : kMarkers[15 + static_cast<std::size_t>(n - 15) % 52];
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
    for (std::size_t i = common; i < longer.size() && i < common + 5; ++i) extra << "\n  \"" << Visible(longer[i]) << "\"";
    ADD_FAILURE() << what << ": " << actual.size() << " lines instead of " << expected.size() << "; first of the "
                  << (actual.size() > expected.size() ? "surplus" : "missing") << " lines:" << extra.str();
  }
}

}  // namespace zelph
