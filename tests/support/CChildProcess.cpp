#include "CChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

extern char** environ;

namespace zelph {
namespace {

using CClock = std::chrono::steady_clock;

int MillisecondsUntil(CClock::time_point deadline) {
  using std::chrono::milliseconds;
  return static_cast<int>(std::max<long>(
      0, std::chrono::duration_cast<milliseconds>(deadline - CClock::now()).count()));
}

void Reap(pid_t pid, int& status) {
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

CChildProcess::CChildProcess(CChildOptions options) {
  // A child that dies early must fail its test, not kill it with SIGPIPE.
  signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string variable(*entry);
    if (!options.environment.count(variable.substr(0, variable.find('='))))
      variables.push_back(variable);
  }
  for (const auto& [name, value] : options.environment)
    if (value) variables.push_back(name + "=" + *value);
  std::vector<char*> envp, argv;
  for (std::string& variable : variables) envp.push_back(variable.data());
  for (std::string& word : options.command) argv.push_back(word.data());
  envp.push_back(nullptr), argv.push_back(nullptr);

  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    // Without the parent's ends a forked body sees the end of its stdin.
    close(in[1]), close(out[0]), close(err[0]);
    dup2(in[0], STDIN_FILENO), dup2(out[1], STDOUT_FILENO), dup2(err[1], STDERR_FILENO);
    if (!options.workDir.empty() && chdir(options.workDir.c_str()) != 0) _exit(125);
    if (!options.body) execve(argv[0], argv.data(), envp.data()), _exit(127);
    environ = envp.data();
    int code = 98;
    try {
      code = options.body();
    } catch (...) {
    }
    fflush(nullptr);
    _exit(code);
  }
  if (pid_ > 0) setpgid(pid_, pid_);  // whichever of the two runs first
  close(in[0]), close(out[1]), close(err[1]);
  input_ = in[1], output_ = out[0], errors_ = err[0];
}

CChildProcess::~CChildProcess() {
  Kill();
  for (const int fd : {input_, output_, errors_})
    if (fd >= 0) close(fd);
}

void CChildProcess::Kill() noexcept {
  if (pid_ <= 0 || status_ != -1) return;
  // Not reaped yet, so the id still names this child and its group.
  kill(-pid_, SIGKILL), kill(pid_, SIGKILL);
  Reap(pid_, status_);
}

void CChildProcess::Send(std::string_view text) {
  while (!text.empty() && input_ >= 0) {
    const ssize_t written = write(input_, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // the child is gone; Finish tells how
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

bool CChildProcess::ReadSome(int milliseconds) {
  if (output_ < 0 && errors_ < 0) return false;
  pollfd fds[2] = {{output_, POLLIN, 0}, {errors_, POLLIN, 0}};
  const int ready = poll(fds, 2, milliseconds);
  if (ready <= 0) return ready < 0 && errno == EINTR;
  int* descriptors[2] = {&output_, &errors_};
  std::string* sinks[2] = {&out_, &err_};
  char buffer[4096];
  for (int i = 0; i < 2; ++i) {
    if (*descriptors[i] < 0 || fds[i].revents == 0) continue;
    const ssize_t got = read(*descriptors[i], buffer, sizeof buffer);
    if (got > 0) {
      sinks[i]->append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      close(*descriptors[i]), *descriptors[i] = -1;
    }
  }
  return true;
}

std::string CChildProcess::WaitForLine(std::string_view part, int seconds) {
  const auto deadline = CClock::now() + std::chrono::seconds(seconds);
  for (;;) {
    for (std::size_t end; (end = out_.find('\n', scanned_)) != std::string::npos;) {
      std::string line = out_.substr(scanned_, end - scanned_);
      scanned_ = end + 1;
      if (line.find(part) != std::string::npos) return line;
    }
    if (output_ < 0 || !ReadSome(MillisecondsUntil(deadline))) return "";
  }
}

bool CChildProcess::Finish(int seconds) {
  if (pid_ <= 0 || status_ != -1) return false;
  if (input_ >= 0) close(input_), input_ = -1;
  const auto deadline = CClock::now() + std::chrono::seconds(seconds);
  while (MillisecondsUntil(deadline) > 0 && ReadSome(MillisecondsUntil(deadline))) {
  }
  // Still writing, or hung: end it.
  output_ >= 0 || errors_ >= 0 ? Kill() : Reap(pid_, status_);
  return WIFEXITED(status_) && WEXITSTATUS(status_) == 0;
}

std::string CChildProcess::Describe() const {
  std::string text = "still running";
  if (status_ != -1 && WIFEXITED(status_)) {
    text = "exit status " + std::to_string(WEXITSTATUS(status_));
  } else if (status_ != -1 && WIFSIGNALED(status_)) {
    text = "killed by signal " + std::to_string(WTERMSIG(status_)) + " (" +
           strsignal(WTERMSIG(status_)) + ")";
  }
  return text + "; stdout: \"" + out_ + "\"; stderr: \"" + err_ + "\"";
}

std::string RunToEnd(CChildOptions options) {
  CChildProcess child(std::move(options));
  return child.Finish(), child.Describe();
}

}  // namespace zelph
