// Fuzzes URL parsing and percent-coding: a URL that parses, written back from
// its parts, parses to the same parts; encoding and then decoding gives every
// byte string back.
#include <cctype>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "common/system/CUrl.h"

using namespace zelph;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = AsText(data, size);
  if (const CUrl url = ParseUrl(text); url.IsValid()) {
    const std::size_t separator = text.find("://");
    Require(separator != std::string_view::npos && url.scheme.View() == text.substr(0, separator),
            "the scheme is the text before \"://\"");
    Require(!url.host.IsEmpty() && url.path.View().starts_with("/"), "a host and a path");
    const CUrl again =
        ParseUrl(std::string(url.scheme.View()) + "://" + std::string(url.host.View()) + ":" +
                 std::to_string(url.port) + std::string(url.path.View()));
    Require(again.IsValid() && again.scheme == url.scheme && again.host == url.host &&
                again.port == url.port && again.path == url.path,
            "a URL written from its parts parses to the same parts");
  }
  const CISOString encoded = PercentEncode(text);
  for (const char c : encoded.View()) {
    Require(std::isalnum(static_cast<unsigned char>(c)) ||
                std::string_view("%!()*-._~").find(c) != std::string_view::npos,
            "the encoding holds unreserved bytes and escapes only");
  }
  Require(PercentDecode(encoded.View()).View() == text, "decoding the encoding gives the bytes");
  Require(PercentDecode(text).Size() <= size, "decoding never grows the text");
  return 0;
}
