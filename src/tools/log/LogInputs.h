// The inputs of one run of zelph-log and what was wrong with them. Problems
// are told on standard error as they are found ("zelph-log: FILE:LINE: ...",
// a few per file) and kept, a bounded number per file, for the JSON output.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelph {

struct CLogInput {
  std::string path;
  std::uint64_t lines = 0;
  std::uint64_t bytes = 0;
  struct CProblem {
    std::uint64_t line;  // 0 for the file as a whole
    std::string text;
  };
  std::vector<CProblem> problems;
  std::uint64_t problemsOmitted = 0;
};

// `text` as UTF-8: valid UTF-8 stays, any other byte is read as ISO-8859-1
// (the trace library writes messages so). `latin` tells whether any was.
std::string Utf8FromLog(std::string_view text, bool* latin = nullptr);

class CLogInputs {
 public:
  // `quiet`: keep problems without printing them.
  explicit CLogInputs(bool quiet = false) noexcept : quiet_(quiet) {}

  void Problem(const std::string& log, std::uint64_t line, const std::string& text);
  // Records what was read of `log` once it is done.
  void Done(const std::string& log, std::uint64_t lines, std::uint64_t bytes);

  const std::vector<CLogInput>& Inputs() const noexcept { return inputs_; }

  // Utf8FromLog, and the first line of a file that held ISO-8859-1 is told as
  // a problem.
  std::string ToUtf8(std::string_view text, const std::string& log, std::uint64_t line);

 private:
  CLogInput& InputOf(const std::string& log);

  bool quiet_;
  std::vector<CLogInput> inputs_;
  std::string latinNoted_;  // the last log whose ISO-8859-1 text was noted
};

}  // namespace zelph
