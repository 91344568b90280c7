// A child process for tests: a program or a forked function, with its own
// environment, stdin fed by the test, and stdout and stderr collected. It
// runs in a process group of its own, which is killed when the object goes
// (and by the kernel when the test process dies first).
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelph {

struct CChildOptions {
  std::vector<std::string> command;  // the program's path and arguments, or
  std::function<int()> body;         // run in a forked copy of the test; exit status (98: it threw)
  // Variables set in the child's environment; an empty optional removes one.
  std::map<std::string, std::optional<std::string>> environment;
  std::string workDir;  // the test's own when empty
};

class CChildProcess {
 public:
  explicit CChildProcess(CChildOptions options);
  CChildProcess(const CChildProcess&) = delete;
  CChildProcess& operator=(const CChildProcess&) = delete;
  ~CChildProcess();

  pid_t Pid() const noexcept { return pid_; }

  void Send(std::string_view text);  // to stdin; nothing once the child is gone
  // Reads stdout until a line not seen before contains `part`, and returns
  // it; "" when the child closes stdout or `seconds` pass first.
  std::string WaitForLine(std::string_view part, int seconds = 30);
  // Closes stdin, collects output until the child closes it (at most
  // `seconds`, then kills it) and reaps it. True on exit status 0.
  bool Finish(int seconds = 60);
  int Status() const noexcept { return status_; }  // wait status; -1 before Finish

  const std::string& Output() const noexcept { return out_; }
  const std::string& Errors() const noexcept { return err_; }
  // How it ended and what it wrote, for failure messages.
  std::string Describe() const;

 private:
  // Reads stdout or stderr, waiting at most `milliseconds`; false when both
  // are closed or nothing came in time.
  bool ReadSome(int milliseconds);
  void Kill() noexcept;

  pid_t pid_ = -1;
  int input_ = -1, output_ = -1, errors_ = -1, status_ = -1;
  std::string out_, err_;
  std::size_t scanned_ = 0;
};

// Runs a child to its end; says how it ended and what it wrote (Describe).
std::string RunToEnd(CChildOptions options);

}  // namespace zelph
