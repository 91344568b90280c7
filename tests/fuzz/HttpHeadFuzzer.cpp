// Fuzzes the readers of HTTP heads: the status, request and header line
// parsers and the multipart boundary on every line of the input, then the
// response-head reader and the server's request reader on the whole input,
// received in chunks whose size the first byte picks.
#include <cstdint>
#include <string>
#include <string_view>

#include "CMemoryConnection.h"
#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/system/HttpHead.h"
#include "common/system/HttpResponder.h"

using namespace zelph;

namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

bool HasUpperAscii(std::string_view text) {
  for (const char c : text) {
    if (c >= 'A' && c <= 'Z') return true;
  }
  return false;
}

// The text of `exception`.
std::string_view TextOf(const CException& exception) {
  return exception.GetEvent().GetText().View();
}

void CheckStatusLine(std::string_view line) {
  CHttpStatus status;
  try {
    status = ParseStatusLine(line);
  } catch (const CHttpException& exception) {
    Require(TextOf(exception) == "Bad HTTP response",
            "a bad status line says \"Bad HTTP response\"");
    return;
  }
  Require(line.starts_with("HTTP/1."), "a status line starts with \"HTTP/1.\"");
  Require(status.minorVersion >= 0 && status.code >= 0, "the numbers of a status line are decimal");
  const std::string again = "HTTP/1." + std::to_string(status.minorVersion) + " " +
                            std::to_string(status.code) + " Reason";
  const CHttpStatus reread = ParseStatusLine(again);
  Require(reread.minorVersion == status.minorVersion && reread.code == status.code,
          "a status line written from its numbers reads the same");
}

void CheckRequestLine(std::string_view line) {
  CHttpRequestLine request;
  try {
    request = ParseRequestLine(line);
  } catch (const CHttpException& exception) {
    Require(TextOf(exception) == "Bad HTTP request",
            "a bad request line says \"Bad HTTP request\"");
    return;
  }
  Require(!request.method.IsEmpty() && !request.target.IsEmpty(),
          "a request line has a method and a target");
  const std::string prefix =
      std::string(request.method.View()) + " " + std::string(request.target.View()) + " HTTP/1.";
  Require(line.starts_with(prefix), "method and target are the line's first two words");
  const CHttpRequestLine reread = ParseRequestLine(prefix + std::to_string(request.minorVersion));
  Require(reread.method == request.method && reread.target == request.target &&
              reread.minorVersion == request.minorVersion,
          "a request line written from its parts reads the same");
}

void CheckHeaderLine(std::string_view line) {
  CISOString name = "unchanged";
  CISOString value = "unchanged";
  if (!ParseHeaderLine(line, name, value)) {
    Require(name.View() == "unchanged" && value.View() == "unchanged",
            "a line that is no header leaves name and value alone");
    return;
  }
  const std::size_t colon = line.find(':');
  Require(colon != std::string_view::npos && colon > 0, "a header has a name before its \":\"");
  Require(name == ToLowerAscii(line.substr(0, colon)),
          "the name is the text before \":\" in lower case");
  Require(!HasUpperAscii(name.View()), "a header name is in lower case");
  const std::string_view text = value.View();
  Require(text.empty() || (!IsBlank(text.front()) && !IsBlank(text.back())),
          "a header value has no surrounding blanks");
  Require(line.substr(colon + 1).find(text) != std::string_view::npos,
          "the value comes from behind the \":\"");
}

void CheckBoundary(std::string_view contentType) {
  const CISOString boundary = GetMultipartBoundary(contentType);
  Require(boundary.Size() <= contentType.size(), "the boundary comes from the content type");
  if (contentType.find(';') == std::string_view::npos) {
    Require(boundary.IsEmpty(), "a content type without parameters has no boundary");
  }
}

// The header table of a head just read.
void CheckHeaderTable(const CHttpConnection& connection) {
  for (const auto& [name, value] : connection.GetHeaders()) {
    Require(!name.IsEmpty() && !HasUpperAscii(name.View()), "table names are lower case");
    Require(connection.GetHeader(name.View()) == value, "GetHeader finds every entry");
  }
}

void CheckResponseHead(std::string_view stream, std::size_t chunk) {
  CMemoryConnection connection(stream, chunk);
  try {
    connection.ReadResponseHead();
  } catch (const CHttpException& exception) {
    Require(TextOf(exception) == "Bad HTTP response" || TextOf(exception) == "HTTP line too long",
            "a bad response head says \"Bad HTTP response\"");
    return;
  }
  Require(stream.starts_with("HTTP/1."), "a response starts with its status line");
  CheckHeaderTable(connection);
}

void CheckRequest(std::string_view stream, std::size_t chunk) {
  CMemoryConnection connection(stream, chunk);
  try {
    (void)ReadHttpRequest(connection);
  } catch (const CHttpException& exception) {
    Require(TextOf(exception) == "Bad HTTP request" || TextOf(exception) == "HTTP line too long",
            "a bad request head says \"Bad HTTP request\"");
    return;
  }
  CheckHeaderTable(connection);
  Require(connection.GetName() == connection.GetHeader("origin"),
          "the connection's name is the request's origin");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (SwitchTracingOff(), true);
  (void)quiet;
  if (size == 0) return 0;
  const std::size_t chunk = data[0] % 32 == 0 ? size : data[0] % 32;
  const std::string_view stream = AsText(data + 1, size - 1);

  std::string_view rest = stream;
  while (!rest.empty()) {
    const std::size_t end = rest.find("\r\n");
    const std::string_view line = rest.substr(0, end);
    CheckStatusLine(line);
    CheckRequestLine(line);
    CheckHeaderLine(line);
    CheckBoundary(line);
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 2);
  }
  CheckResponseHead(stream, chunk);
  CheckRequest(stream, chunk);
  return 0;
}
