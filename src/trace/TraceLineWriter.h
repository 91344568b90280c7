// The frame shared by every exported trace call, the per-thread records and
// the line prefix.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

#include "trace/CLineBuffer.h"
#include "trace/TraceSession.h"

namespace zelph {

// Room for a line prefix without its indentation, terminator included.
inline constexpr std::size_t kPrefixHeadSize = 65;

// What the log remembers about a thread that traced: its 32-bit id, its
// Enter/Leave nesting depth and its marker character.
struct CThreadRecord {
  std::uint32_t threadId = 0;
  std::int32_t depth = 0;
  char marker = '.';
};

// One exported trace call: takes the trace lock, opens the session once per
// process and, when the log is open, writes the blank line that separates the
// output of different threads. On destruction it flushes the log (when open)
// and releases the lock. Callers write only when IsOpen() is true.
class CTraceFrame {
 public:
  CTraceFrame() : open_(AcquireTraceSession()) {
    if (open_) NoteWriter();
  }
  CTraceFrame(const CTraceFrame&) = delete;
  CTraceFrame& operator=(const CTraceFrame&) = delete;
  ~CTraceFrame() { ReleaseTraceSession(open_); }

  bool IsOpen() const noexcept { return open_; }
  // The calling thread's record, created on its first trace line.
  CThreadRecord& GetThread();
  // Appends the calling thread's line prefix at its current depth: time,
  // thread id, marker twice, a blank and four blanks per nesting level.
  void AppendPrefix(CLineBuffer& out);
  // The prefix without its indentation, written into `out`; returns its
  // length.
  std::size_t MakePrefixHead(char (&out)[kPrefixHeadSize]);

 private:
  // The thread-change rule: a blank line when another thread wrote last.
  static void NoteWriter() noexcept;

  const bool open_;
  CThreadRecord* thread_ = nullptr;
};

// The exported calls' bodies; they may throw, the exported wrappers catch.
void WriteTraceEnter(const char* name);
void WriteTraceLeave(const char* name);
// TraceString's message, written through `frame`, which must be open.
void WriteTraceMessage(CTraceFrame& frame, const char* format, std::va_list args);

}  // namespace zelph
