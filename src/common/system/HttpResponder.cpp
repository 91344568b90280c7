#include "common/system/HttpResponder.h"

#include "common/base/CException.h"
#include "common/base/CTFmtArgs.h"

namespace zelph {

CHttpRequestLine ReadHttpRequest(CHttpConnection& connection) {
  CISOString line;
  // The blank lines before the request count against the head's bounds, so
  // that a stream of them cannot hold the connection for ever.
  connection.BeginHead();
  do {
    if (!connection.ReceiveHeadLine(line)) {
      throw CHttpException(CUTF8String("Bad HTTP request"));
    }
  } while (line.IsEmpty());
  CHttpRequestLine request = ParseRequestLine(line.View());
  connection.ReadHeaders("Bad HTTP request");
  connection.SetName(connection.GetHeader("origin"));
  return request;
}

void SendResponseHead(CHttpConnection& connection, const CISOString& contentType,
                      std::int32_t contentLength, bool noCache) {
  connection.SendLine("HTTP/1.1 200 OK");
  connection.SendLine("Server: Tarnwick");
  if (!connection.GetName().IsEmpty()) {
    connection.SendLine(CISOString("Access-Control-Allow-Origin: ") + connection.GetName());
  }
  connection.SendLine("Connection: close");
  if (noCache) {
    connection.SendLine("Cache-Control: no-cache, no-store, must-revalidate");
    connection.SendLine("Pragma: no-cache");
    connection.SendLine("Expires: 0");
  }
  connection.SendLine(CISOString("Content-Type: ") + contentType);
  if (contentLength >= 0) {
    CISOFmtArgs length;
    length.Add(static_cast<int>(contentLength));
    connection.SendLine(Format<CISOEncoding>("Content-Length: %1", length));
  }
  connection.SendCRLF();
}

void SendTextResponse(CHttpConnection& connection, const CISOString& contentType,
                      const CISOString& body) {
  SendResponseHead(connection, contentType, -1, false);
  connection.SendLine(body);
}

}  // namespace zelph
