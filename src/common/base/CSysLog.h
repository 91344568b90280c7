// Event log on the system log.
#pragma once

#include <cstdint>

#include "common/base/CEventLog.h"
#include "common/base/CEventMessage.h"
#include "common/base/CTString.h"

namespace zelph {

// Writes events to the system log as "[<category text>] <event text>" under
// the identity "zelph" and facility LOG_USER. One instance per process,
// created on first use (which opens the log) and destroyed at exit (which
// closes it). The system log calls may be made from any thread.
class CSysLog final : public CEventLog {
 public:
  // The process-wide instance.
  static CSysLog& GetInstance();

  ~CSysLog() override;

  // Writes one line for `event` at the priority of its severity.
  void Report(const CEventMessage& event) override;

  // Priority of an identifier: LOG_USER|LOG_INFO for severity 1,
  // LOG_USER|LOG_WARNING for 2, LOG_USER|LOG_CRIT for 0 and 3 (errors are
  // logged as critical on purpose).
  static int GetPriority(std::uint32_t identifier) noexcept;
  // The text between the brackets: the category's catalogue text, "(null)"
  // for a category outside 1-6.
  static const char* GetCategoryText(std::int16_t category) noexcept;
  // The line Report writes, for `event`.
  static CUTF8String FormatLine(const CEventMessage& event);

 private:
  CSysLog() noexcept;
};

}  // namespace zelph
