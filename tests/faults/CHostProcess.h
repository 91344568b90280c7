// A host program run as a child process for the fault tests: its script goes
// in through stdin, its stdout and stderr are collected, and it can be started
// with a limit on the size of the files it writes.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelph {

// How a host process is started.
struct CHostOptions {
  std::string program;
  std::vector<std::string> arguments;
  // Variables set (or replaced) in the child's environment; an empty
  // optional removes the variable.
  std::map<std::string, std::optional<std::string>> environment;
  // RLIMIT_FSIZE for the child, with SIGXFSZ ignored so that writes past the
  // limit fail with EFBIG instead of killing it: a full disk.
  std::optional<unsigned long> fileSizeLimit;
};

// A running host process. Killed and reaped when the object dies.
class CHostProcess {
 public:
  explicit CHostProcess(const CHostOptions& options);
  CHostProcess(const CHostProcess&) = delete;
  CHostProcess& operator=(const CHostProcess&) = delete;
  ~CHostProcess();

  pid_t Pid() const noexcept { return pid_; }

  // Writes to the child's stdin.
  void Send(std::string_view text);
  // Reads stdout until it holds the line `line` behind everything waited for
  // before. False when the child closed its stdout first.
  bool WaitForLine(std::string_view line);
  // Closes stdin, collects the rest of the output and waits for the end.
  // True when the child exited with status 0.
  bool Finish();

  const std::string& Output() const noexcept { return out_; }
  // Exit status or signal, stdout and stderr, for failure messages.
  std::string Describe() const;

 private:
  // Reads whatever stdout or stderr have; false once both are closed.
  bool ReadSome();

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int errors_ = -1;
  int status_ = -1;
  bool finished_ = false;
  std::string out_;
  std::string err_;
  std::size_t consumed_ = 0;
};

// The contents of the file that the open descriptor `fd` of process `pid`
// refers to, read through /proc, also when the file has been deleted.
std::string ReadOpenFile(pid_t pid, int fd);

// The descriptors of process `pid` whose target path contains `part`.
std::vector<int> FindOpenFiles(pid_t pid, std::string_view part);

}  // namespace zelph
