#include "common/system/CMultipartReader.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "HttpTestSupport.h"

namespace zelph {
namespace {

struct CPart {
  std::map<std::string, std::string> headers;
  std::string data;

  bool operator==(const CPart&) const = default;
};

std::ostream& operator<<(std::ostream& out, const CPart& part) {
  out << "{";
  for (const auto& [name, value] : part.headers) out << name << ": " << value << "; ";
  return out << "data \"" << part.data << "\"}";
}

// Fetches `body` from a server that answers with `contentType`, and reads
// its parts with Read calls of at most `chunk` bytes.
std::vector<CPart> FetchParts(const std::string& contentType, const std::string& body,
                              std::int32_t chunk) {
  CTestServer server(
      RawReplyHandler("HTTP/1.1 200 OK\r\nContent-Type: " + contentType + "\r\n\r\n" + body));
  const CUrl url = ParseUrl(server.Url("/parts"));
  CHttpConnection connection;
  connection.Open(url);
  connection.Get(url);
  CMultipartReader reader(connection);
  std::vector<CPart> parts;
  CHttpHeaders headers;
  while (reader.NextPart(headers)) {
    CPart part;
    for (const auto& [name, value] : headers) part.headers[AsString(name)] = AsString(value);
    std::vector<char> buffer(static_cast<std::size_t>(chunk));
    for (std::int32_t count; (count = reader.Read(buffer.data(), chunk)) > 0;) {
      part.data.append(buffer.data(), static_cast<std::size_t>(count));
    }
    parts.push_back(std::move(part));
  }
  EXPECT_FALSE(reader.NextPart(headers)) << "the closing delimiter ends the body for good";
  return parts;
}

TEST(MultipartReader, ReadsPartsWithHeadersAndData) {
  const CWatchdog watchdog;
  std::string big;
  for (int i = 0; i < 200000; ++i) big.push_back("ab\r\n-\r"[i % 6]);
  struct Case {
    const char* what;
    std::string body;
    std::vector<CPart> parts;
  } cases[] = {
      {"preamble, two parts, epilogue",
       "preamble\r\n--XyZ\r\nContent-Type: text/plain\r\nX-Part: 1\r\n\r\nfirst\r\n"
       "--XyZ\r\n\r\nsecond\r\n--Xy not yet\r\n--XyZ--\r\nepilogue",
       {{{{"content-type", "text/plain"}, {"x-part", "1"}}, "first"},
        {{}, "second\r\n--Xy not yet"}}},
      {"body opens with the delimiter", "--XyZ\r\n\r\nA\r\n--XyZ--", {{{}, "A"}}},
      {"empty part and padding behind the delimiter",
       "--XyZ \t\r\nX: y\r\n\r\n\r\n--XyZ\r\n\r\n\r\r\n\r\n--XyZ--",
       {{{{"x", "y"}}, ""}, {{}, "\r\r\n"}}},
      {"no parts", "--XyZ--", {}},
      {"large data full of line ends", "--XyZ\r\n\r\n" + big + "\r\n--XyZ--", {{{}, big}}},
  };
  for (const Case& c : cases) {
    for (const std::int32_t chunk : {1, 7, 4096}) {
      EXPECT_EQ(FetchParts("multipart/mixed; boundary=XyZ", c.body, chunk), c.parts)
          << c.what << ", read " << chunk << " bytes at a time";
    }
  }
}

TEST(MultipartReader, MalformedDataIsInvalid) {
  const CWatchdog watchdog;
  struct Case {
    const char* what;
    std::string contentType;
    std::string body;
  } cases[] = {
      {"other bytes behind a delimiter", "multipart/mixed; boundary=XyZ",
       "--XyZ\r\n\r\nA\r\n--XyZxx\r\n"},
      {"body ends inside a part", "multipart/mixed; boundary=XyZ", "--XyZ\r\n\r\nA"},
      {"no delimiter at all", "multipart/mixed; boundary=XyZ", "just text"},
      {"part header without colon", "multipart/mixed; boundary=XyZ",
       "--XyZ\r\nNo colon\r\n\r\nA\r\n--XyZ--"},
      {"part headers cut off", "multipart/mixed; boundary=XyZ", "--XyZ\r\nX: y\r\n"},
      {"no boundary in the content type", "multipart/mixed", "--XyZ--"},
      {"boundary too long", "multipart/mixed; boundary=" + std::string(71, 'b'), "--"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(HttpErrorOf([&] { FetchParts(c.contentType, c.body, 4096); }),
              "Invalid multipart data")
        << c.what;
  }
}

}  // namespace
}  // namespace zelph
