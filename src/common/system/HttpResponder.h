// The server half of the HTTP layer: reading a request on an accepted
// connection and answering it with "200 OK" and a fixed header set. It
// serves the browsers of a local web page, so it echoes the caller's origin
// in a CORS header and can forbid caching.
#pragma once

#include <cstdint>

#include "common/base/CTString.h"
#include "common/system/CHttpConnection.h"
#include "common/system/HttpHead.h"

namespace zelph {

// Reads the request line and headers from `connection` (a plain connection
// around an accepted descriptor, or a server-side TLS connection) into its
// header table, and stores the "Origin" header's value as the connection's
// name, the origin the response echoes (empty when the request has none).
// Blank lines before the request line are skipped. A body is left for the
// caller (its length is in "content-length"). Throws CHttpException "Bad
// HTTP request" for a malformed or incomplete head, and the connection's
// receive errors.
CHttpRequestLine ReadHttpRequest(CHttpConnection& connection);

// Sends the head of a "200 OK" reply: the server name, an
// "Access-Control-Allow-Origin" line with the connection's name when that is
// not empty, "Connection: close", three lines that forbid caching when
// `noCache` is set, the content type, "Content-Length" when `contentLength`
// is 0 or more, and the empty line. Throws the connection's send errors.
void SendResponseHead(CHttpConnection& connection, const CISOString& contentType,
                      std::int32_t contentLength, bool noCache);

// Sends a head without length and cache lines, then `body` and "\r\n"; the
// body ends when the connection closes.
void SendTextResponse(CHttpConnection& connection, const CISOString& contentType,
                      const CISOString& body);

}  // namespace zelph
