#include "common/system/HttpHead.h"

#include <string>

#include <gtest/gtest.h>

#include "HttpTestSupport.h"

namespace zelph {
namespace {

TEST(HttpHead, StatusLines) {
  struct Case {
    const char* line;
    std::int32_t minor, code;
  } good[] = {
      {"HTTP/1.0 200 OK", 0, 200},
      {"HTTP/1.1   404", 1, 404},
      {"HTTP/1.1 2147483647 Largest", 1, 2147483647},
  };
  for (const Case& c : good) {
    const CHttpStatus status = ParseStatusLine(c.line);
    EXPECT_EQ(status.minorVersion, c.minor) << c.line;
    EXPECT_EQ(status.code, c.code) << c.line;
  }
  for (const char* line :
       {"", "HTTP/2 200 OK", "http/1.1 200 OK", "HTTP/1.x 200", "HTTP/1.1 OK", "HTTP/1.1200 OK",
        "HTTP/1.1 -200", "HTTP/1.1 2147483648", "HTTP/1.1 4294967296", "HTTP/1.99999999999 200"}) {
    EXPECT_EQ(HttpErrorOf([line] { ParseStatusLine(line); }), "Bad HTTP response") << line;
  }
}

TEST(HttpHead, HeaderLines) {
  struct Case {
    const char *line, *name, *value;
  } good[] = {
      {"Content-Type: text/html", "content-type", "text/html"},
      {"X-Spaced:  a b \t", "x-spaced", "a b"},
      {"Location: http://h:8/x", "location", "http://h:8/x"},
  };
  for (const Case& c : good) {
    CISOString name, value;
    ASSERT_TRUE(ParseHeaderLine(c.line, name, value)) << c.line;
    EXPECT_EQ(AsString(name), c.name) << c.line;
    EXPECT_EQ(AsString(value), c.value) << c.line;
  }
  for (const char* line : {"no colon here", ": value", "Bad Name: v", " Folded: v"}) {
    CISOString name, value;
    EXPECT_FALSE(ParseHeaderLine(line, name, value)) << "accepted: " << line;
  }
  CHttpHeaders headers;
  for (const char* value : {"1", "3"}) AddHeader(headers, "x-a", value);
  EXPECT_EQ(AsString(headers["x-a"]), "1, 3") << "repeated names are joined";
}

TEST(HttpHead, RequestLines) {
  const CHttpRequestLine request = ParseRequestLine("POST /a?b=c HTTP/1.1");
  EXPECT_EQ(AsString(request.method), "POST");
  EXPECT_EQ(AsString(request.target), "/a?b=c");
  EXPECT_EQ(request.minorVersion, 1);
  for (const char* line :
       {"", "GET /", "GET / HTTP/2.0", "GET  / HTTP/1.1", "GET / HTTP/1.1 x", "GET / HTTP/1."}) {
    EXPECT_EQ(HttpErrorOf([line] { ParseRequestLine(line); }), "Bad HTTP request") << line;
  }
}

TEST(HttpHead, MultipartBoundaryComesFromTheContentType) {
  struct Case {
    const char *contentType, *boundary;
  } cases[] = {
      {"multipart/mixed; boundary=abc", "abc"},
      {"multipart/form-data; charset=utf-8; BOUNDARY=\"a b:c\"", "a b:c"},
      {"multipart/mixed;boundary=x;other=y", "x"},
      {"multipart/mixed", ""},
      {"text/plain; charset=utf-8", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(AsString(GetMultipartBoundary(c.contentType)), c.boundary) << c.contentType;
  }
}

}  // namespace
}  // namespace zelph
