// Fuzzes the readers of HTTP heads: the status, request and header line
// parsers on every line of the input, then the response-head reader and the
// server's request reader on the whole input, received in chunks whose size
// the first byte picks. A refused head must say so in the reader's words.
#include <string>
#include <string_view>

#include "CMemoryConnection.h"
#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/system/HttpHead.h"
#include "common/system/HttpResponder.h"

using namespace zelph;

namespace {

// Runs `read`; true when it read, else its message must be `message` (or,
// from a connection, the one for overlong lines).
template <class Read>
bool Reads(const Read& read, std::string_view message) {
  try {
    read();
    return true;
  } catch (const CHttpException& e) {
    const std::string_view text = e.GetEvent().GetText().View();
    Require(text == message || text == "HTTP line too long", "a bad head says so");
    return false;
  }
}

void CheckLine(std::string_view line) {
  Reads([&] { (void)ParseStatusLine(line); }, "Bad HTTP response");
  CHttpRequestLine request;
  if (Reads([&] { request = ParseRequestLine(line); }, "Bad HTTP request")) {
    Require(!request.method.IsEmpty() && !request.target.IsEmpty() &&
                line.starts_with(std::string(request.method.View()) + " " +
                                 std::string(request.target.View()) + " HTTP/1."),
            "method and target are the request line's first two words");
  }
  CISOString name, value;
  if (ParseHeaderLine(line, name, value)) {
    const std::size_t colon = line.find(':');
    Require(colon != std::string_view::npos && name == ToLowerAscii(line.substr(0, colon)) &&
                line.substr(colon + 1).find(value.View()) != std::string_view::npos,
            "a header is the lower-case name before \":\" and a value behind it");
  }
  (void)GetMultipartBoundary(line);
}

void CheckHeaders(const CHttpConnection& connection) {
  for (const auto& [name, value] : connection.GetHeaders()) {
    Require(name == ToLowerAscii(name.View()) && connection.GetHeader(name.View()) == value,
            "the header table holds lower-case names, each found by GetHeader");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t chunk = data[0] % 32 == 0 ? size : data[0] % 32;
  const std::string_view stream = AsText(data + 1, size - 1);
  for (std::size_t start = 0; start <= stream.size();) {
    const std::size_t end = std::min(stream.find("\r\n", start), stream.size());
    CheckLine(stream.substr(start, end - start));
    start = end + 2;
  }
  CMemoryConnection response(stream, chunk), request(stream, chunk);
  if (Reads([&] { response.ReadResponseHead(); }, "Bad HTTP response")) CheckHeaders(response);
  if (Reads([&] { (void)ReadHttpRequest(request); }, "Bad HTTP request")) {
    CheckHeaders(request);
    Require(request.GetName() == request.GetHeader("origin"), "the name is the request's origin");
  }
  return 0;
}
