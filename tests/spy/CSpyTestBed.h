// A scratch area for one end-to-end test of the spy: a SoftHSM2 token store
// of its own, and for every program run a zelph configuration and a log
// directory of its own, so that tests can run side by side.
#pragma once

#include <filesystem>
#include <string>

namespace zelph {

// Where Debian's SoftHSM2 puts its module.
inline constexpr char kSoftHsmModule[] = "/usr/lib/softhsm/libsofthsm2.so";

// True when SoftHSM2's module and OpenSC's pkcs11-tool are installed; else
// `missing` names what is not.
bool SpyToolsAvailable(std::string& missing);

// Quotes `text` for the shell.
std::string ShellQuote(const std::string& text);

// What a program run left behind.
struct CRunResult {
  int exitCode = -1;
  std::string out;  // standard output
  std::string err;  // standard error
  std::string log;  // every trace log the run wrote, one after the other
};

// How a run finds the real module.
struct CRunOptions {
  // Key Module of section Spy; left out of the configuration when empty.
  std::string configModule = kSoftHsmModule;
  // ZELPH_SPY_MODULE; unset when empty.
  std::string environmentModule;
};

// A temporary directory, removed with everything in it on destruction.
class CSpyTestBed {
 public:
  CSpyTestBed();
  CSpyTestBed(const CSpyTestBed&) = delete;
  CSpyTestBed& operator=(const CSpyTestBed&) = delete;
  ~CSpyTestBed();

  const std::filesystem::path& GetDir() const noexcept { return dir_; }

  // Runs the shell command `command` with SOFTHSM2_CONF naming this bed's
  // token store and ZELPH_CONFFILE a fresh configuration, named after `name`
  // (each name once per bed), that switches tracing on into a fresh log
  // directory.
  CRunResult Run(const std::string& name, const std::string& command,
                 const CRunOptions& options = {});

 private:
  std::filesystem::path dir_;
};

}  // namespace zelph
