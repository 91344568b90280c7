// A child process for tests: a program or a forked function, with its own
// environment, an optional limit on the size of the files it writes, stdin
// fed by the test, and stdout and stderr collected. It runs in a process
// group of its own, which is killed when the object goes (and by the kernel
// when the test process dies first).
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
  // The program and its arguments (argv[0] is the program's path) ...
  std::vector<std::string> command;
  // ... or, when set, a function run in a forked copy of the test process,
  // whose result becomes the exit status (98 when it throws).
  std::function<int()> body;
  // Variables set or replaced in the child's environment; an empty optional
  // removes the variable.
  std::map<std::string, std::optional<std::string>> environment;
  // RLIMIT_FSIZE, with SIGXFSZ ignored so that writes past the limit fail
  // with EFBIG instead of killing the child: a full disk.
  std::optional<unsigned long> fileSizeLimit;
  // The child's working directory; the test's own when empty.
  std::string workDir;
};

class CChildProcess {
 public:
  explicit CChildProcess(CChildOptions options);
  CChildProcess(const CChildProcess&) = delete;
  CChildProcess& operator=(const CChildProcess&) = delete;
  ~CChildProcess();

  pid_t Pid() const noexcept { return pid_; }

  // Writes to the child's stdin (nothing once the child is gone).
  void Send(std::string_view text);
  // Reads stdout until a line not seen before contains `part`, and returns
  // it; "" when the child closes stdout or `seconds` pass first.
  std::string WaitForLine(std::string_view part, int seconds = 30);
  // Closes stdin, collects output until the child closes it (at most
  // `seconds`, then the child is killed) and reaps it. True when it exited
  // with status 0.
  bool Finish(int seconds = 60);
  // The wait status after Finish, -1 before.
  int Status() const noexcept { return status_; }

  const std::string& Output() const noexcept { return out_; }
  const std::string& Errors() const noexcept { return err_; }
  // How it ended and what it wrote, for failure messages.
  std::string Describe() const;

 private:
  // Reads what stdout or stderr have, waiting at most `milliseconds`; false
  // when both are closed or nothing came in time.
  bool ReadSome(int milliseconds);
  void Kill() noexcept;

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int errors_ = -1;
  int status_ = -1;
  std::string out_;
  std::string err_;
  std::size_t scanned_ = 0;
};

}  // namespace zelph
