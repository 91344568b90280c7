#include "common/base/CException.h"

namespace zelph {

CException::CException(const CUTF8String& text) {
  CTFmtArgs<CUTF8Encoding> args;
  args.Add(text);
  event_ = CEventMessage(kEvtFreeText, kCategorySystem, args);
}

CException::CException(const CEventMessage& event) {
  if (!event.IsNull()) {
    event_ = CEventMessage(event.GetIdentifier(), event.GetCategory(), event.GetArgs());
  }
}

}  // namespace zelph
