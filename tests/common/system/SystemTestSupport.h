// Temporary directories, child processes and small I/O helpers for the
// tests of local IPC and service control.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace zelph {

// A fresh directory under /tmp, removed with everything in it at the end.
// Short on purpose: socket paths inside it must stay under 108 bytes.
class CTempDir {
 public:
  CTempDir() : path_("/tmp/zelph-ipc-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) path_.clear();
  }
  ~CTempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  const std::string& Path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Waits for `pid` and returns its wait status; -1 when it cannot be waited for.
inline int WaitStatus(pid_t pid) {
  int status = 0;
  pid_t done = 0;
  do {
    done = waitpid(pid, &status, 0);
  } while (done < 0 && errno == EINTR);
  return done == pid ? status : -1;
}

// Processes a test started; those still running when it ends, passing or
// failing, are killed and reaped.
class CChildren {
 public:
  CChildren() = default;
  CChildren(const CChildren&) = delete;
  CChildren& operator=(const CChildren&) = delete;
  ~CChildren() {
    for (const pid_t pid : pids_) {
      if (kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    }
  }

  // Forks; the child runs `body` and exits with its result, never returning
  // into the test framework.
  template <class F>
  pid_t Fork(F body) {
    const pid_t pid = fork();
    if (pid == 0) {
      int code = 99;
      try {
        code = body();
      } catch (...) {
        code = 98;
      }
      _exit(code);
    }
    if (pid > 0) pids_.push_back(pid);
    return pid;
  }
  // Adopts a process the test learnt about otherwise (a daemon).
  void Add(pid_t pid) { pids_.push_back(pid); }
  // Sends SIGTERM until `pid` ends (a signal that arrives just before the
  // service blocks is missed); returns its wait status, -1 if it never ends.
  int Terminate(pid_t pid) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
      if (attempt % 10 == 0) kill(pid, SIGTERM);
      int status = 0;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        std::erase(pids_, pid);
        return status;
      }
      usleep(10000);
    }
    return -1;
  }
  // Waits for `pid` to end and returns its wait status.
  int Wait(pid_t pid) {
    const int status = WaitStatus(pid);
    std::erase(pids_, pid);
    return status;
  }

 private:
  std::vector<pid_t> pids_;
};

}  // namespace zelph
