#include "CHostProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

extern char** environ;

namespace zelph {

namespace fs = std::filesystem;

CHostProcess::CHostProcess(const CHostOptions& options) {
  // A child that dies early must fail its test, not kill it with SIGPIPE.
  signal(SIGPIPE, SIG_IGN);

  std::vector<std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string variable(*entry);
    const std::string name = variable.substr(0, variable.find('='));
    if (options.environment.count(name) == 0) variables.push_back(variable);
  }
  for (const auto& [name, value] : options.environment) {
    if (value) variables.push_back(name + "=" + *value);
  }
  std::vector<char*> envp;
  for (std::string& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);
  std::vector<std::string> words{options.program};
  words.insert(words.end(), options.arguments.begin(), options.arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  int toChild[2];
  int fromChild[2];
  int errorsFromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0 ||
      pipe2(errorsFromChild, O_CLOEXEC) != 0) {
    finished_ = true;
    return;
  }
  pid_ = fork();
  if (pid_ == 0) {
    dup2(toChild[0], STDIN_FILENO);
    dup2(fromChild[1], STDOUT_FILENO);
    dup2(errorsFromChild[1], STDERR_FILENO);
    if (options.fileSizeLimit) {
      const rlimit limit{*options.fileSizeLimit, *options.fileSizeLimit};
      signal(SIGXFSZ, SIG_IGN);  // an ignored signal stays ignored across exec
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(126);
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(toChild[0]);
  close(fromChild[1]);
  close(errorsFromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
  errors_ = errorsFromChild[0];
  if (pid_ < 0) finished_ = true;
}

CHostProcess::~CHostProcess() {
  if (input_ >= 0) close(input_);
  if (!finished_ && pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (output_ >= 0) close(output_);
  if (errors_ >= 0) close(errors_);
}

void CHostProcess::Send(std::string_view text) {
  while (!text.empty() && input_ >= 0) {
    const ssize_t written = write(input_, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // the child is gone; Finish tells how
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

bool CHostProcess::ReadSome() {
  pollfd fds[2] = {{output_, POLLIN, 0}, {errors_, POLLIN, 0}};
  if (output_ < 0 && errors_ < 0) return false;
  if (poll(fds, 2, -1) < 0) return errno == EINTR;
  char buffer[4096];
  int* descriptors[2] = {&output_, &errors_};
  std::string* sinks[2] = {&out_, &err_};
  for (int i = 0; i < 2; ++i) {
    if (*descriptors[i] < 0 || fds[i].revents == 0) continue;
    const ssize_t got = read(*descriptors[i], buffer, sizeof buffer);
    if (got > 0) {
      sinks[i]->append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      close(*descriptors[i]);
      *descriptors[i] = -1;
    }
  }
  return output_ >= 0 || errors_ >= 0;
}

bool CHostProcess::WaitForLine(std::string_view line) {
  const std::string wanted = std::string(line) + "\n";
  for (;;) {
    const std::size_t found = out_.find(wanted, consumed_);
    if (found != std::string::npos && (found == 0 || out_[found - 1] == '\n')) {
      consumed_ = found + wanted.size();
      return true;
    }
    if (output_ < 0 || !ReadSome()) return false;
  }
}

bool CHostProcess::Finish() {
  if (finished_) return false;
  close(input_);
  input_ = -1;
  while (ReadSome()) {
  }
  while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
  }
  finished_ = true;
  return WIFEXITED(status_) && WEXITSTATUS(status_) == 0;
}

std::string CHostProcess::Describe() const {
  std::ostringstream text;
  if (!finished_) {
    text << "still running";
  } else if (WIFEXITED(status_)) {
    text << "exit status " << WEXITSTATUS(status_);
  } else if (WIFSIGNALED(status_)) {
    text << "killed by signal " << WTERMSIG(status_) << " (" << strsignal(WTERMSIG(status_)) << ")";
  }
  text << "; stdout: \"" << out_ << "\"; stderr: \"" << err_ << "\"";
  return text.str();
}

std::string ReadOpenFile(pid_t pid, int fd) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<int> FindOpenFiles(pid_t pid, std::string_view part) {
  std::vector<int> found;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
    std::error_code linkError;
    const std::string target = fs::read_symlink(entry.path(), linkError).string();
    if (!linkError && target.find(part) != std::string::npos) {
      found.push_back(std::stoi(entry.path().filename().string()));
    }
  }
  return found;
}

}  // namespace zelph
