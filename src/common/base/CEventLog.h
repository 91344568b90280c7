// Sink for events of the message catalogue.
#pragma once

#include "common/base/CEventMessage.h"

namespace zelph {

// Where events are reported; CSysLog is the one implementation.
class CEventLog {
 public:
  virtual ~CEventLog() = default;
  // Writes `event`. Never throws for unknown identifiers or categories.
  virtual void Report(const CEventMessage& event) = 0;

 protected:
  CEventLog() = default;
  CEventLog(const CEventLog&) = delete;
  CEventLog& operator=(const CEventLog&) = delete;
};

}  // namespace zelph
