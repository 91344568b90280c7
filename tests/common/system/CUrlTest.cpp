#include "common/system/CUrl.h"

#include <arpa/inet.h>

#include <string>

#include <gtest/gtest.h>

#include "HttpTestSupport.h"

namespace zelph {
namespace {

TEST(Url, ParseSplitsSchemeHostPortAndPath) {
  struct Case {
    const char *text, *scheme, *host;
    std::uint16_t port;
    const char* path;
  } cases[] = {
      {"http://host", "http", "host", 80, "/"},
      {"https://host:8443/a?b=c", "https", "host", 8443, "/a?b=c"},
      {"https://host", "https", "host", 443, "/"},
      {"HTTPS://host/x", "HTTPS", "host", 80, "/x"},  // the default port compares exactly
      {"ftp://h:65535/p", "ftp", "h", 65535, "/p"},
      {"http://h/r?u=http://x", "http", "h", 80, "/r?u=http://x"},
  };
  for (const Case& c : cases) {
    const CUrl url = ParseUrl(c.text);
    ASSERT_TRUE(url.IsValid()) << c.text;
    EXPECT_EQ(AsString(url.scheme), c.scheme) << c.text;
    EXPECT_EQ(AsString(url.host), c.host) << c.text;
    EXPECT_EQ(url.port, c.port) << c.text;
    EXPECT_EQ(AsString(url.path), c.path) << c.text;
  }
  for (const char* text :
       {"", "host/path", "http:/host", "http://", "http:///path", "http://:80/", "http://h:/",
        "http://h:65536/", "http://h:8a/", "http://h:99999999999999999999/"}) {
    EXPECT_FALSE(ParseUrl(text).IsValid()) << "accepted as a URL: " << text;
  }
}

TEST(Url, SchemeCheckIsExactAndCaseSensitive) {
  EXPECT_EQ(HttpErrorOf([] { CheckUrlScheme(ParseUrl("http://h"), "http"); }), "<no exception>");
  for (const char* url : {"HTTP://h", "https://h", "no url"}) {
    EXPECT_EQ(HttpErrorOf([url] { CheckUrlScheme(ParseUrl(url), "http"); }), "Unknown URL scheme")
        << url;
  }
}

TEST(Url, PercentEncodingAndDecoding) {
  struct Case {
    std::string text, encoded;
  } encodings[] = {
      {"a b&c~", "a%20b%26c~"},
      {"AZaz09!()*-._~", "AZaz09!()*-._~"},
      {"/?=+%#'\xC3\xA9", "%2F%3F%3D%2B%25%23%27%C3%A9"},
      {std::string("a\0b", 3), "a%00b"},
  };
  for (const Case& c : encodings) {
    EXPECT_EQ(AsString(PercentEncode(c.text)), c.encoded) << "encoding " << c.text;
  }
  Case decodings[] = {
      {"a b&c~", "a%20b%26c~"},
      {"\xC3\xA9\xC3\xA9", "%c3%a9%C3%A9"},
      {"a+b", "a+b"},
      {"100%", "100%"},
      {"%4", "%4"},
      {"%zz%4g", "%zz%4g"},
      {"%A", "%%41"},
  };
  for (const Case& c : decodings) {
    EXPECT_EQ(std::string(PercentDecode(c.encoded).View()), c.text) << "decoding " << c.encoded;
  }
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  EXPECT_EQ(std::string(PercentDecode(PercentEncode(all).View()).View()), all)
      << "decoding does not undo encoding";
}

TEST(Url, ResolvesAddressesAndNamesAndNamesUnknownHosts) {
  EXPECT_EQ(ResolveHost("10.20.30.40"), inet_addr("10.20.30.40"));
  EXPECT_EQ(ResolveHost("localhost"), inet_addr("127.0.0.1")) << "localhost from /etc/hosts";
  EXPECT_EQ(HttpErrorOf([] { ResolveHost("no-such-host.invalid"); }),
            "Host \"no-such-host.invalid\" not found");
}

}  // namespace
}  // namespace zelph
