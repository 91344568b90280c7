// Choosing the connection class for a URL's scheme.
#pragma once

#include <memory>

#include "common/system/CHttpConnection.h"
#include "common/system/CUrl.h"

namespace zelph {

// Makes plain HTTP connections.
class CHttpConnectionFactory {
 public:
  CHttpConnectionFactory() = default;
  CHttpConnectionFactory(const CHttpConnectionFactory&) = delete;
  CHttpConnectionFactory& operator=(const CHttpConnectionFactory&) = delete;
  virtual ~CHttpConnectionFactory() = default;

  // A new, unopened connection for `url`: a CHttpConnection for the scheme
  // "http". Throws CHttpException "Invalid protocol :" followed by the
  // scheme for any other.
  virtual std::unique_ptr<CHttpConnection> CreateConnection(const CUrl& url) const;
};

}  // namespace zelph
