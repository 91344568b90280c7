#include "trace/TraceLineWriter.h"

#include <pthread.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <string_view>
#include <vector>

#include "common/base/CTString.h"
#include "trace/TraceSession.h"

namespace zelph {
namespace {

// Fifteen punctuation marks first (never reused), then the letters in a cycle.
constexpr char kMarkers[] =
    ".|@_~#/\\^-&*=%:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr int kMarkerCount = sizeof kMarkers - 1;
constexpr int kFirstLetter = 15;
static_assert(kMarkerCount == 67 && kMarkers[kFirstLetter] == 'A');

// All guarded by the trace lock. The records live until the process ends (or
// the library is unloaded).
std::vector<std::unique_ptr<CThreadRecord>> g_threads = [] {
  std::vector<std::unique_ptr<CThreadRecord>> threads;
  threads.reserve(2);
  return threads;
}();
int g_markerCursor = 0;
std::uint32_t g_lastWriter = 0xFFFFFFFFu;

std::uint32_t CurrentThreadId() noexcept {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(
      reinterpret_cast<void*>(pthread_self())));
}

}  // namespace

CTraceFrame::CTraceFrame() {
  if (!TraceLockAvailable()) return;
  GetTraceLock().Lock();
  locked_ = true;
  open_ = IsTraceSessionOpen();
  if (!open_) return;
  const std::uint32_t self = CurrentThreadId();
  if (self != g_lastWriter) {
    g_lastWriter = self;
    TraceWriteText("\n");
  }
}

CTraceFrame::~CTraceFrame() {
  if (open_) TraceFlush();
  if (locked_) GetTraceLock().Unlock();
}

CThreadRecord& CTraceFrame::GetThread() {
  if (thread_ != nullptr) return *thread_;
  const std::uint32_t self = CurrentThreadId();
  for (const auto& record : g_threads) {
    if (record->threadId == self) return *(thread_ = record.get());
  }
  auto record = std::make_unique<CThreadRecord>();
  record->threadId = self;
  record->marker = kMarkers[g_markerCursor];
  if (++g_markerCursor == kMarkerCount) g_markerCursor = kFirstLetter;
  g_threads.push_back(std::move(record));
  return *(thread_ = g_threads.back().get());
}

std::string CTraceFrame::MakePrefix() {
  const CThreadRecord& thread = GetThread();
  std::time_t now = std::time(nullptr);
  std::tm t{};
  localtime_r(&now, &t);
  // The sub-second part comes from the monotonic clock, not the wall clock.
  long micros = 0;
  timespec mono{};
  if (clock_gettime(CLOCK_MONOTONIC, &mono) == 0) {
    const long long nanos =
        (static_cast<long long>(mono.tv_sec) * 1000000000LL + mono.tv_nsec) % 1000000000LL;
    micros = static_cast<long>(nanos * 1000000LL / 1000000000LL);
  }
  char head[65];
  std::snprintf(head, sizeof head, "%02d-%02d_%02d:%02d:%02d:%06d %.8X%c%c ", t.tm_mon + 1,
                t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(micros),
                thread.threadId, thread.marker, thread.marker);
  std::string prefix(head);
  for (std::int32_t level = 0; level < thread.depth; ++level) prefix += "    ";
  return prefix;
}

void WriteTraceEnter(const char* name) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  const std::string prefix = frame.MakePrefix();
  TraceWriteRaw("%sEntering %s.\n", prefix.c_str(), name);
  ++frame.GetThread().depth;
}

void WriteTraceLeave(const char* name) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  CThreadRecord& thread = frame.GetThread();
  if (thread.depth > 0) --thread.depth;
  const std::string prefix = frame.MakePrefix();
  TraceWriteRaw("%sLeaving %s.\n", prefix.c_str(), name);
  if (thread.depth == 0) TraceWriteText("\n");
}

void WriteTraceString(const char* format, std::va_list args) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  // The format reaches the log as ISO-8859-1, like every other trace text.
  const CISOString text(format);
  const std::string prefix = frame.MakePrefix();
  std::string_view body = text.View();
  while (!body.empty() && (body.back() == '\r' || body.back() == '\n')) body.remove_suffix(1);

  // The prefix becomes part of the format, so that every line of a multi-line
  // message carries it.
  std::string composed = prefix;
  for (std::size_t i = 0; i < body.size(); ++i) {
    const char c = body[i];
    if (c != '\r' && c != '\n') {
      composed += c;
      continue;
    }
    // CR LF and LF CR are one line break.
    if (i + 1 < body.size() && (body[i + 1] == '\r' || body[i + 1] == '\n') && body[i + 1] != c) {
      ++i;
    }
    composed += '\n';
    composed += prefix;
  }
  composed += '\n';
  TraceWriteRawV(composed.c_str(), args);
}

}  // namespace zelph
