#include "TraceLog.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>

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
  if (!text.empty() && text.back() != '\n')
    ADD_FAILURE() << "the log does not end with a line feed";
  const std::vector<std::string> lines = SplitLines(text);
  auto startsSession = [&](std::size_t at) {
    return at + 1 < lines.size() && lines[at] == kTraceRule &&
           lines[at + 1].starts_with("# Starting log on ");
  };
  std::vector<CTraceSessionText> sessions;
  for (std::size_t i = 0; i < lines.size();) {
    if (!startsSession(i) || i + 9 > lines.size()) {
      ADD_FAILURE() << "no whole session header at line " << i << ": " << Visible(lines[i]);
      break;
    }
    CTraceSessionText& session = sessions.emplace_back();
    session.header.assign(lines.begin() + long(i), lines.begin() + long(i + 9));
    for (i += 9; i < lines.size() && lines[i] != "# Ending log" && !startsSession(i); ++i)
      session.body.push_back(lines[i]);
    if (i == lines.size() || startsSession(i)) continue;  // never ended
    if (session.body.empty() || !session.body.back().empty())
      ADD_FAILURE() << "no blank line before \"# Ending log\"";
    if (!session.body.empty()) session.body.pop_back();
    session.footer = {"", lines[i++]};
    if (i < lines.size()) session.footer.push_back(lines[i++]);
  }
  return sessions;
}

CTraceLine SplitTraceLine(std::string_view line) {
  // "MM-DD_hh:mm:ss:uuuuuu " then 8 upper-case hex digits, the marker twice, a blank.
  constexpr std::string_view kShape = "00-00_00:00:00:000000 HHHHHHHHmm ";
  CTraceLine split;
  split.text = line;
  if (line.size() < kShape.size() || line[30] != line[31]) return split;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const char c = line[i], shape = kShape[i];
    const bool digit = c >= '0' && c <= '9';
    if (shape == '0'   ? !digit
        : shape == 'H' ? !digit && (c < 'A' || c > 'F')
                       : shape != 'm' && c != shape) {
      return split;
    }
  }
  split.valid = true, split.stamp = line.substr(0, 21), split.thread = line.substr(22, 8);
  split.marker = line[30];
  for (line.remove_prefix(33); line.starts_with("    "); line.remove_prefix(4)) ++split.depth;
  split.text = line;
  return split;
}

char MarkerOfThread(int n) {
  static constexpr std::string_view kMarkers =
      ".|@_~#/\\^-&*=%:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  return n < 15 ? kMarkers[static_cast<std::size_t>(n)]
                : kMarkers[15 + static_cast<std::size_t>(n - 15) % 52];
}

void ExpectLines(const std::vector<std::string>& actual, const std::vector<std::string>& expected,
                 std::string_view what) {
  std::size_t i = 0;
  while (i < actual.size() && i < expected.size() && actual[i] == expected[i]) ++i;
  if (i == actual.size() && i == expected.size()) return;
  ADD_FAILURE() << what << ": line " << i << " differs (" << actual.size() << " lines, "
                << expected.size() << " expected)\n  actual:   \""
                << (i < actual.size() ? Visible(actual[i]) : "<none>") << "\"\n  expected: \""
                << (i < expected.size() ? Visible(expected[i]) : "<none>") << "\"";
}

void ExpectGolden(const std::vector<std::string>& actual, const std::string& path) {
  if (const char* renewed = std::getenv("ZELPH_WRITE_GOLDEN")) {
    std::string text;
    for (const std::string& line : actual) text += line + "\n";
    EXPECT_TRUE(WriteFile(renewed, text)) << renewed;
  }
  ExpectLines(actual, SplitLines(ReadFile(path)), path);
}

std::string MadeLogHeader(const std::string& date, const std::string& time,
                          const std::string& pid, const std::string& executable) {
  return std::string(kTraceRule) + "\n# Starting log on " + date + " at " + time +
         "\n# Process ID: " + pid + "\n# Arch: x86_64\n# Executable path: " + executable +
         "\n# Middleware path: /usr/lib/Zwmware\n# Middleware version: 6.20.5.0\n"
         "# OS version: linux.workstation\n\n\n";
}

std::string MadeLogLine(const std::string& stamp, const std::string& thread, int depth,
                        const std::string& text, const std::string& markers) {
  return stamp + " " + thread + markers + " " + std::string(4 * depth, ' ') + text + "\n";
}

}  // namespace zelph
