#include "CSpyTestBed.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zelph {
namespace {

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

bool SpyToolsAvailable(std::string& missing) {
  if (access(kSoftHsmModule, R_OK) != 0) {
    missing = std::string("SoftHSM2 (") + kSoftHsmModule + ")";
    return false;
  }
  if (std::system("command -v pkcs11-tool >/dev/null 2>&1") != 0) {
    missing = "OpenSC's pkcs11-tool";
    return false;
  }
  return true;
}

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

CSpyTestBed::CSpyTestBed() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zelph-spy-test.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir_ = pattern;
  std::filesystem::create_directory(dir_ / "tokens");
  WriteFile(dir_ / "softhsm2.conf", "directories.tokendir = " + (dir_ / "tokens").string() +
                                        "\nobjectstore.backend = file\nlog.level = ERROR\n");
}

CSpyTestBed::~CSpyTestBed() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

CRunResult CSpyTestBed::Run(const std::string& name, const std::string& command,
                            const CRunOptions& options) {
  const std::filesystem::path runDir = dir_ / name;
  const std::filesystem::path logDir = runDir / "logs";
  std::filesystem::create_directories(logDir);
  std::string config = "Quillon {\n\tEnableTrace = 1\n\tTrace = " + logDir.string() + "\n}\n";
  if (!options.configModule.empty()) {
    config += "Spy {\n\tModule = " + options.configModule + "\n}\n";
  }
  WriteFile(runDir / "zelph.conf", config);

  std::string line = "env -u ZELPH_SPY_MODULE";
  line += " SOFTHSM2_CONF=" + ShellQuote((dir_ / "softhsm2.conf").string());
  line += " ZELPH_CONFFILE=" + ShellQuote((runDir / "zelph.conf").string());
  if (!options.environmentModule.empty()) {
    line += " ZELPH_SPY_MODULE=" + ShellQuote(options.environmentModule);
  }
  line += " sh -c " + ShellQuote(command);
  line += " >" + ShellQuote((runDir / "out").string());
  line += " 2>" + ShellQuote((runDir / "err").string()) + " </dev/null";
  const int status = std::system(line.c_str());

  CRunResult result;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = ReadFile(runDir / "out");
  result.err = ReadFile(runDir / "err");
  for (const auto& entry : std::filesystem::directory_iterator(logDir)) {
    result.log += ReadFile(entry.path());
  }
  return result;
}

}  // namespace zelph
