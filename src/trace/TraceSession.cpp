#include "trace/TraceSession.h"

#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "common/config/ConfigFile.h"
#include "trace/CLineBuffer.h"
#include "trace/TraceSettings.h"

namespace zelph {
namespace {

constexpr const char kRule[] = "##################################################\n";
constexpr const char kArch[] = "x86_64";
constexpr const char kMiddlewarePath[] = "/usr/lib/Zwmware";
constexpr const char kMiddlewareVersion[] = "6.20.5.0";
constexpr const char kOsVersion[] = "linux.workstation";

// Created at load so that the first trace call of two racing threads already
// finds it. If the system refuses a mutex, the library stays silent instead of
// taking the host down at load time.
std::optional<CMutex> MakeTraceLock() noexcept {
  try {
    return std::optional<CMutex>(std::in_place);
  } catch (...) {
    return std::nullopt;
  }
}
std::optional<CMutex> g_traceLock = MakeTraceLock();

// The trace directory is read once per process from the shared configuration.
// `loaded`, the configuration the caller has just read, becomes the shared one
// when that is not loaded yet, so that the file is read once. Returns null when
// no directory is configured.
const CUTF8String* GetTraceDirectory(std::unique_ptr<CConfigSection> loaded) {
  static const std::optional<CUTF8String> directory = [&]() -> std::optional<CUTF8String> {
    CUTF8String value =
        ShareConfig(std::move(loaded)).GetSection(kTraceSection).GetValue(kTraceDirectoryKey);
    if (value.IsEmpty()) return std::nullopt;
    return value;
  }();
  return directory ? &*directory : nullptr;
}

std::tm LocalNow() noexcept {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local;
}

// Runs at process exit, or when the library is unloaded.
void EndTraceSession() {
  if (g_traceSession.log == nullptr) return;
  std::FILE* log = g_traceSession.log;
  g_traceSession.log = nullptr;
  std::fputs("\n", log);
  std::fputs("# Ending log\n", log);
  std::fputs(kRule, log);
  std::fclose(log);
}

void WriteHeader() {
  const std::tm t = LocalNow();
  TraceWriteRaw("%s", kRule);
  TraceWriteRaw("# Starting log on %04d-%02d-%02d at %02d:%02d:%02d\n", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  char pid[32];
  std::snprintf(pid, sizeof pid, "%d", static_cast<int>(getpid()));
  TraceWriteRaw("# Process ID: %s\n", pid);
  TraceWriteRaw("# Arch: %s\n", kArch);
  const CISOString path(GetExecutablePath().c_str());
  TraceWriteRaw("# Executable path: %s\n", path.c_str());
  TraceWriteRaw("# Middleware path: %s\n", kMiddlewarePath);
  TraceWriteRaw("# Middleware version: %s\n", kMiddlewareVersion);
  TraceWriteRaw("# OS version: %s\n", kOsVersion);
  TraceWriteRaw("\n");
}

bool OpenTraceSession() {
  std::unique_ptr<CConfigSection> config = OpenConfig();
  const int enabled = config->GetSection(kTraceSection).GetIntValue(kEnableTraceKey, 0);
  const CUTF8String* directory = GetTraceDirectory(std::move(config));
  if (directory == nullptr || enabled == 0) return false;

  const std::tm t = LocalNow();
  char stamp[65];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d_%02d-%02d-%02d", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  CUTF8String path = *directory;
  path += "/zelph_";
  path += stamp;
  const CUTF8String base = GetExecutableBaseName();
  if (!base.IsEmpty()) {
    path += "_";
    path += base;
  }
  char pid[32];
  std::snprintf(pid, sizeof pid, "_%d.log", static_cast<int>(getpid()));
  path += pid;

  // Appending text; "e" (close-on-exec) keeps the log out of programs the
  // host starts.
  g_traceSession.log = std::fopen(path.c_str(), "ate");
  if (g_traceSession.log != nullptr) WriteHeader();
  static const bool registered = (std::atexit(EndTraceSession), true);
  (void)registered;
  return g_traceSession.log != nullptr;
}

bool SessionOpen() {
  static const bool open = OpenTraceSession();
  g_traceSession.decided = true;
  return open && g_traceSession.log != nullptr;
}

}  // namespace

// The log stream is null while the session is closed, and again once the
// footer has been written, so that a late call at exit writes nothing.
CTraceSessionState g_traceSession{g_traceLock ? &*g_traceLock : nullptr};

CMutex& GetTraceLock() noexcept {
  return *g_traceLock;
}

bool TraceLockAvailable() noexcept {
  return g_traceLock.has_value();
}

bool IsTraceSessionOpen() {
  return SessionOpen();
}

bool DecideTraceSession() {
  try {
    return SessionOpen();
  } catch (...) {
    g_traceSession.lock->Unlock();
    throw;
  }
}

void TraceWriteRawV(const char* format, std::va_list args) {
  if (g_traceSession.log != nullptr) std::vfprintf(g_traceSession.log, format, args);
}

void TraceWriteRaw(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  TraceWriteRawV(format, args);
  va_end(args);
}

void TraceWritePrefixed(std::string_view prefix, const char* format, ...) {
  CLineBuffer composed;
  composed.Append(prefix);
  composed.Append(format);
  std::va_list args;
  va_start(args, format);
  TraceWriteRawV(composed.c_str(), args);
  va_end(args);
}

void TraceWriteText(const char* text) noexcept {
  if (g_traceSession.log != nullptr) std::fputs(text, g_traceSession.log);
}

void TraceWriteBytes(std::string_view text) noexcept {
  if (g_traceSession.log != nullptr && !text.empty())
    std::fwrite(text.data(), 1, text.size(), g_traceSession.log);
}

void TraceFlush() noexcept {
  if (g_traceSession.log != nullptr) std::fflush(g_traceSession.log);
}

CUTF8String GetExecutablePath() {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(getpid()));
  // A failing readlink (-1) compares as "did not fit" and the buffer doubles;
  // the loop ends when the allocator gives up.
  for (std::size_t size = 256;; size *= 2) {
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[size + 1]);
    if (!buffer) return CUTF8String();
    const ssize_t length = readlink(link, buffer.get(), size);
    if (static_cast<std::size_t>(length) < size) {
      buffer[length] = '\0';
      return CUTF8String(buffer.get());
    }
  }
}

CUTF8String GetExecutableBaseName() {
  const CUTF8String path = GetExecutablePath();
  const char* text = path.c_str();
  const char* slash = std::strrchr(text, '/');
  return slash == nullptr ? path : CUTF8String(slash + 1);
}

}  // namespace zelph
