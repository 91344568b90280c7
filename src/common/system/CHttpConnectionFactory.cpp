#include "common/system/CHttpConnectionFactory.h"

#include "common/base/CException.h"

namespace zelph {

std::unique_ptr<CHttpConnection> CHttpConnectionFactory::CreateConnection(const CUrl& url) const {
  if (url.scheme.View() == "http") return std::make_unique<CHttpConnection>();
  throw CHttpException(CUTF8String("Invalid protocol :") + ToUTF8(url.scheme));
}

}  // namespace zelph
