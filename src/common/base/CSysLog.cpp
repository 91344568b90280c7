#include "common/base/CSysLog.h"

#include <syslog.h>

namespace zelph {

namespace {

constexpr char kIdentity[] = "zelph";
constexpr char kNullText[] = "(null)";

}  // namespace

CSysLog& CSysLog::GetInstance() {
  static CSysLog instance;
  return instance;
}

CSysLog::CSysLog() noexcept {
  openlog(kIdentity, 0, LOG_USER);
}

CSysLog::~CSysLog() {
  closelog();
}

int CSysLog::GetPriority(std::uint32_t identifier) noexcept {
  switch (CEventMessage::GetSeverity(identifier)) {
    case 1:
      return LOG_USER | LOG_INFO;
    case 2:
      return LOG_USER | LOG_WARNING;
    default:
      return LOG_USER | LOG_CRIT;
  }
}

const char* CSysLog::GetCategoryText(std::int16_t category) noexcept {
  if (category < 1 || category > 6) return kNullText;
  return CEventMessage::GetTemplate(static_cast<std::uint32_t>(category));
}

CUTF8String CSysLog::FormatLine(const CEventMessage& event) {
  CUTF8String line("[");
  line += GetCategoryText(event.GetCategory());
  line += "] ";
  line += event.GetText();
  return line;
}

void CSysLog::Report(const CEventMessage& event) {
  const CUTF8String text = event.GetText();
  syslog(GetPriority(event.GetIdentifier()), "[%s] %s", GetCategoryText(event.GetCategory()),
         text.c_str());
}

}  // namespace zelph
