// The trace calls against the floors the design puts under them.
//
// Whether a process traces is decided once, at its first trace call, so one
// run of this program measures one side: `--tracing=off` sets TraceString
// against an uncontended lock and unlock of a recursive pthread mutex (all a
// call may cost then); `--tracing=on` sets it against fprintf and fflush of
// the same bytes to a file, TraceTemplate against TraceString writing the
// same lines, and eight threads against one. The program writes its own
// configuration into a scratch directory and points ZELPH_CONFFILE at it.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zelph/trace.h"

namespace zelph::bench {
namespace {

namespace fs = std::filesystem;

// The message every single-line benchmark writes, with its arguments.
#define ZELPH_BENCH_MESSAGE "session %lu, user %s, PIN length %lu"
constexpr unsigned long kSession = 4711;
constexpr char kUser[] = "CKU_USER";
constexpr unsigned long kPinLength = 8;

// A line prefix as the log writes it at depth 0 (time, thread id, marker
// twice, a blank), so that the fprintf floor writes the same bytes per line.
constexpr char kPrefixShape[] = "03-05_14:07:09:004211 7F3A12C0.. ";
constexpr std::size_t kPrefixLength = sizeof kPrefixShape - 1;

[[noreturn]] void Fail(const std::string& why) {
  throw std::runtime_error(why);
}

// A directory of its own under the temporary directory, removed at exit.
class CScratchDir {
 public:
  CScratchDir() {
    std::string pattern = (fs::temp_directory_path() / "zelph-bench.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) Fail("cannot make a scratch directory");
    path_ = pattern;
    fs::create_directory(Logs());
  }
  CScratchDir(const CScratchDir&) = delete;
  CScratchDir& operator=(const CScratchDir&) = delete;
  ~CScratchDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }

  const fs::path& Path() const noexcept { return path_; }
  fs::path Logs() const { return path_ / "logs"; }

 private:
  fs::path path_;
};

std::vector<fs::path> LogFiles(const fs::path& directory) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(directory)) files.push_back(entry.path());
  return files;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// ---------------------------------------------------------------------------
// Tracing off

void BM_RecursiveMutexFloor(benchmark::State& state) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
  }
  pthread_mutex_destroy(&mutex);
  state.SetItemsProcessed(state.iterations());
}

void BM_TraceStringOff(benchmark::State& state) {
  for (auto _ : state) TraceString(ZELPH_BENCH_MESSAGE, kSession, kUser, kPinLength);
  state.SetItemsProcessed(state.iterations());
}

// ---------------------------------------------------------------------------
// Tracing on

// fprintf and fflush of the bytes TraceString writes for the same message.
void BM_FprintfFloor(benchmark::State& state, fs::path file) {
  std::FILE* out = std::fopen(file.c_str(), "a");
  if (out == nullptr) {
    state.SkipWithError("cannot open the floor's file");
    return;
  }
  for (auto _ : state) {
    std::fprintf(out, "%s" ZELPH_BENCH_MESSAGE "\n", kPrefixShape, kSession, kUser, kPinLength);
    std::fflush(out);
  }
  std::fclose(out);
  state.SetItemsProcessed(state.iterations());
}

void BM_TraceStringOn(benchmark::State& state) {
  for (auto _ : state) TraceString(ZELPH_BENCH_MESSAGE, kSession, kUser, kPinLength);
  state.SetItemsProcessed(state.iterations());
}

// The ten attributes of a typical RSA private key template: names, booleans,
// a label, an identifier in hexadecimal, an integer and a withheld secret.
struct CKeyTemplate {
  CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
  CK_KEY_TYPE keyType = CKK_RSA;
  CK_BBOOL yes = CK_TRUE;
  char label[10] = "bench key";
  unsigned char id[16] = {0x3a, 0x94, 0x07, 0xc1, 0x5e, 0x22, 0x80, 0x6b,
                          0xd0, 0x19, 0xf4, 0x41, 0x7e, 0xa3, 0x0c, 0x58};
  CK_ULONG bits = 2048;
  unsigned char exponent[256] = {};
  CK_ATTRIBUTE attributes[10] = {
      {CKA_CLASS, &keyClass, sizeof keyClass}, {CKA_KEY_TYPE, &keyType, sizeof keyType},
      {CKA_TOKEN, &yes, sizeof yes},           {CKA_PRIVATE, &yes, sizeof yes},
      {CKA_LABEL, label, sizeof label - 1},    {CKA_ID, id, sizeof id},
      {CKA_SENSITIVE, &yes, sizeof yes},       {CKA_SIGN, &yes, sizeof yes},
      {CKA_MODULUS_BITS, &bits, sizeof bits},  {CKA_PRIVATE_EXPONENT, exponent, sizeof exponent},
  };
};

void BM_TraceTemplate(benchmark::State& state) {
  CKeyTemplate key;
  for (auto _ : state) TraceTemplate(key.attributes, 10, CK_FALSE);
  state.SetItemsProcessed(state.iterations());
}

// TraceString writing the very lines of BM_TraceTemplate: the message holds
// them one below the other, and TraceString puts the prefix before each.
void BM_TraceStringTemplateText(benchmark::State& state, std::string text) {
  const char* format = text.c_str();
  for (auto _ : state) TraceString(format);  // NOLINT: the text holds no conversion
  state.SetItemsProcessed(state.iterations());
}

void BM_TraceStringThreads(benchmark::State& state) {
  for (auto _ : state) TraceString(ZELPH_BENCH_MESSAGE, kSession, kUser, kPinLength);
  state.SetItemsProcessed(state.iterations());
}

// The text lines (without their prefixes) of the last `count` lines of the
// log, joined by line feeds.
std::string LastLines(const fs::path& log, std::size_t count) {
  std::vector<std::string> lines;
  std::istringstream in(ReadFile(log));
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  if (lines.size() < count) Fail("the log holds fewer lines than expected");
  std::string text;
  for (std::size_t i = lines.size() - count; i < lines.size(); ++i) {
    if (lines[i].size() < kPrefixLength) Fail("a log line is shorter than its prefix");
    if (!text.empty()) text += '\n';
    text += lines[i].substr(kPrefixLength);
  }
  return text;
}

// Makes sure the process traces into `dir` and that the reference text
// reproduces the template dump byte for byte. Returns that text.
std::string PrepareTracingOn(const CScratchDir& dir) {
  CKeyTemplate key;
  TraceTemplate(key.attributes, 10, CK_FALSE);
  const std::vector<fs::path> logs = LogFiles(dir.Logs());
  if (logs.size() != 1) Fail("tracing did not start: no log in " + dir.Logs().string());
  const std::string text = LastLines(logs[0], 10);
  if (text.find('%') != std::string::npos) Fail("the template text holds a per-cent sign");
  TraceString(text.c_str());  // NOLINT: checked above, no conversion
  if (LastLines(logs[0], 10) != text) {
    Fail("TraceString does not reproduce the template dump:\n" + text);
  }
  return text;
}

void RegisterTracingOff() {
  benchmark::RegisterBenchmark("TraceOff/RecursiveMutexFloor", BM_RecursiveMutexFloor);
  benchmark::RegisterBenchmark("TraceOff/TraceString", BM_TraceStringOff);
}

void RegisterTracingOn(const CScratchDir& dir) {
  const std::string templateText = PrepareTracingOn(dir);
  benchmark::RegisterBenchmark("TraceOn/FprintfFloor", BM_FprintfFloor, dir.Path() / "floor.log");
  benchmark::RegisterBenchmark("TraceOn/TraceString", BM_TraceStringOn);
  benchmark::RegisterBenchmark("TraceOn/TraceTemplate10", BM_TraceTemplate);
  benchmark::RegisterBenchmark("TraceOn/TraceStringTemplateText", BM_TraceStringTemplateText,
                               templateText);
  // Threads share the one trace lock: wall-clock rates of all threads
  // together.
  benchmark::RegisterBenchmark("TraceOn/TraceStringThreads", BM_TraceStringThreads)
      ->Threads(1)
      ->Threads(8)
      ->UseRealTime();
}

// Writes the configuration, registers the benchmarks of one side and runs
// them. Returns the exit code.
int Run(bool on, int argc, char** argv) {
  const CScratchDir dir;
  const fs::path config = dir.Path() / "zelph.conf";
  {
    std::ofstream out(config);
    out << "Quillon {\n\tEnableTrace = " << (on ? 1 : 0) << "\n\tTrace = " << dir.Logs().string()
        << "\n}\n";
  }
  setenv("ZELPH_CONFFILE", config.c_str(), 1);

  if (on) {
    RegisterTracingOn(dir);
  } else {
    RegisterTracingOff();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!on && !LogFiles(dir.Logs()).empty())
    Fail("tracing was meant to be off but a log was written");
  return 0;
}

}  // namespace
}  // namespace zelph::bench

int main(int argc, char** argv) {
  // Our own option is taken out before the benchmark library reads the rest.
  std::string_view tracing;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.rfind("--tracing=", 0) == 0) {
      tracing = arg.substr(10);
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  if (tracing != "on" && tracing != "off") {
    std::cerr << "usage: zelph_trace_bench --tracing=on|off [benchmark options]\n";
    return 2;
  }
  try {
    return zelph::bench::Run(tracing == "on", argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "zelph_trace_bench: " << e.what() << "\n";
    return 1;
  }
}
