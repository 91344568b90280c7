// Choosing the plain or the TLS connection for a URL's scheme.
#pragma once

#include <memory>

#include "common/system/CHttpConnectionFactory.h"

namespace zelph {

// Makes plain and TLS connections.
class CHttpsConnectionFactory final : public CHttpConnectionFactory {
 public:
  // A new, unopened connection for `url`: a CHttpsConnection (client side)
  // for "https", a CHttpConnection for "http". Throws CHttpException
  // "Invalid protocol :" followed by the scheme for any other.
  std::unique_ptr<CHttpConnection> CreateConnection(const CUrl& url) const override;
};

}  // namespace zelph
