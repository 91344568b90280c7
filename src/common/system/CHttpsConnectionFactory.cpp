#include "common/system/CHttpsConnectionFactory.h"

#include "common/system/CHttpsConnection.h"

namespace zelph {

std::unique_ptr<CHttpConnection> CHttpsConnectionFactory::CreateConnection(const CUrl& url) const {
  if (url.scheme.View() == "https") return std::make_unique<CHttpsConnection>();
  return CHttpConnectionFactory::CreateConnection(url);
}

}  // namespace zelph
