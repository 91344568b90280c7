#include "trace/TraceLineWriter.h"

#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>
#include <vector>

#include "common/base/CTString.h"
#include "common/base/CharClasses.h"
#include "trace/CLineBuffer.h"
#include "trace/TraceSession.h"

namespace zelph {
namespace {

// Fifteen punctuation marks first (never reused), then the letters in a cycle.
constexpr char kMarkers[] = ".|@_~#/\\^-&*=%:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
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
  return static_cast<std::uint32_t>(
      reinterpret_cast<std::uintptr_t>(reinterpret_cast<void*>(pthread_self())));
}

// Writes `value` (0 to 99) as two decimal digits.
char* PutTwoDigits(char* out, int value) noexcept {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
  return out + 2;
}

bool IsTwoDigits(int value) noexcept {
  return value >= 0 && value <= 99;
}

// The local time of `now`. Lines come many to a second, so the conversion of
// the latest second is kept and reused until the clock moves on. Only called
// under the trace lock.
std::tm LocalTime(std::time_t now) noexcept {
  static bool cached = false;
  static std::time_t cachedSecond = 0;
  static std::tm cachedLocal{};
  if (cached && now == cachedSecond) return cachedLocal;
  std::tm local{};
  if (localtime_r(&now, &local) == nullptr) return local;
  cached = true;
  cachedSecond = now;
  cachedLocal = local;
  return local;
}

// True when every byte of `text` is ASCII, which reads the same as UTF-8 and
// as ISO-8859-1. Looks at eight bytes at a time.
bool IsAscii(std::string_view text) noexcept {
  std::uint64_t high = 0;
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, sizeof word);
    high |= word;
  }
  for (; i < text.size(); ++i) high |= static_cast<unsigned char>(text[i]);
  return (high & 0x8080808080808080ULL) == 0;
}

// The index of the first CR or LF of `text` at or after `from`; the size of
// `text` when there is none.
std::size_t FindLineBreak(std::string_view text, std::size_t from) noexcept {
  const char* begin = text.data() + from;
  const std::size_t rest = text.size() - from;
  const void* lf = std::memchr(begin, '\n', rest);
  const void* cr =
      std::memchr(begin, '\r', lf != nullptr ? static_cast<const char*>(lf) - begin : rest);
  const void* first = cr != nullptr ? cr : lf;
  return first != nullptr ? static_cast<std::size_t>(static_cast<const char*>(first) - text.data())
                          : text.size();
}

// The body of TraceString once the log is open.
void WriteMessage(CTraceFrame& frame, const char* format, std::va_list args) {
  // The format reaches the log as ISO-8859-1, like every other trace text;
  // ASCII needs no conversion.
  CISOString converted;
  std::string_view body(format);
  if (!IsAscii(body)) {
    converted = CISOString(format);
    body = converted.View();
  }
  while (!body.empty() && (body.back() == '\r' || body.back() == '\n')) body.remove_suffix(1);

  // The prefix becomes part of the format, so that every line of a multi-line
  // message carries it.
  CLineBuffer composed;
  frame.AppendPrefix(composed);
  const std::size_t prefixLength = composed.View().size();
  std::string prefix;  // a copy for the lines after the first, made when needed
  std::size_t i = 0;
  while (i < body.size()) {
    const std::size_t lineBreak = FindLineBreak(body, i);
    if (lineBreak == body.size()) {
      composed.Append(body.substr(i));
      break;
    }
    composed.Append(body.substr(i, lineBreak - i));
    i = lineBreak + 1;
    // CR LF and LF CR are one line break.
    if (i < body.size() && (body[i] == '\r' || body[i] == '\n') && body[i] != body[lineBreak]) {
      ++i;
    }
    if (prefix.empty()) prefix = std::string(composed.View().substr(0, prefixLength));
    composed.Append('\n');
    composed.Append(prefix);
  }
  composed.Append('\n');
  TraceWriteRawV(composed.c_str(), args);
}

}  // namespace

void CTraceFrame::NoteWriter() noexcept {
  const std::uint32_t self = CurrentThreadId();
  if (self != g_lastWriter) {
    g_lastWriter = self;
    TraceWriteText("\n");
  }
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

std::size_t CTraceFrame::MakePrefixHead(char (&out)[kPrefixHeadSize]) {
  const CThreadRecord& thread = GetThread();
  const std::tm t = LocalTime(std::time(nullptr));
  // The sub-second part comes from the monotonic clock, not the wall clock:
  // (seconds * 10^9 + nanoseconds) modulo 10^9, in microseconds, which is
  // the nanoseconds divided by 1000.
  int micros = 0;
  timespec mono{};
  if (clock_gettime(CLOCK_MONOTONIC, &mono) == 0) micros = static_cast<int>(mono.tv_nsec / 1000);
  const int month = t.tm_mon + 1;
  // Written by hand, as "%02d-%02d_%02d:%02d:%02d:%06d %.8X%c%c " would write
  // it, while every field fits its width; snprintf takes the rest.
  if (!IsTwoDigits(month) || !IsTwoDigits(t.tm_mday) || !IsTwoDigits(t.tm_hour) ||
      !IsTwoDigits(t.tm_min) || !IsTwoDigits(t.tm_sec) || micros < 0 || micros > 999999) {
    std::snprintf(out, sizeof out, "%02d-%02d_%02d:%02d:%02d:%06d %.8X%c%c ", month, t.tm_mday,
                  t.tm_hour, t.tm_min, t.tm_sec, micros, thread.threadId, thread.marker,
                  thread.marker);
    return std::strlen(out);  // the text ends at its first NUL
  }
  char* p = PutTwoDigits(out, month);
  *p++ = '-';
  p = PutTwoDigits(p, t.tm_mday);
  *p++ = '_';
  p = PutTwoDigits(p, t.tm_hour);
  *p++ = ':';
  p = PutTwoDigits(p, t.tm_min);
  *p++ = ':';
  p = PutTwoDigits(p, t.tm_sec);
  *p++ = ':';
  p = PutTwoDigits(p, micros / 10000);
  p = PutTwoDigits(p, micros / 100 % 100);
  p = PutTwoDigits(p, micros % 100);
  *p++ = ' ';
  for (int shift = 28; shift >= 0; shift -= 4) *p++ = kUpperHexDigits[(thread.threadId >> shift) & 0xF];
  *p++ = thread.marker;
  *p++ = thread.marker;
  *p++ = ' ';
  *p = '\0';
  return static_cast<std::size_t>(p - out);  // no NUL inside: markers and digits only
}

void CTraceFrame::AppendPrefix(CLineBuffer& out) {
  char head[kPrefixHeadSize];
  out.Append(std::string_view(head, MakePrefixHead(head)));
  for (std::int32_t level = 0; level < GetThread().depth; ++level) out.Append("    ");
}

void WriteTraceEnter(const char* name) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  CLineBuffer prefix;
  frame.AppendPrefix(prefix);
  TraceWriteRaw("%sEntering %s.\n", prefix.c_str(), name);
  ++frame.GetThread().depth;
}

void WriteTraceLeave(const char* name) {
  CTraceFrame frame;
  if (!frame.IsOpen()) return;
  CThreadRecord& thread = frame.GetThread();
  if (thread.depth > 0) --thread.depth;
  CLineBuffer prefix;
  frame.AppendPrefix(prefix);
  TraceWriteRaw("%sLeaving %s.\n", prefix.c_str(), name);
  if (thread.depth == 0) TraceWriteText("\n");
}

void WriteTraceMessage(CTraceFrame& frame, const char* format, std::va_list args) {
  WriteMessage(frame, format, args);
}

}  // namespace zelph
