// Fuzzes URL parsing and percent-coding: a URL that parses is written back
// from its parts and parses to the same record; encoding then decoding gives
// every byte string back.
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/system/CUrl.h"

using namespace zelph;

namespace {

bool IsUnreserved(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         std::string_view("!()*-._~").find(c) != std::string_view::npos;
}

bool IsUpperHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

bool SameUrl(const CUrl& a, const CUrl& b) {
  return a.valid == b.valid && a.scheme == b.scheme && a.host == b.host && a.port == b.port &&
         a.path == b.path;
}

void CheckParse(std::string_view text) {
  const CUrl url = ParseUrl(text);
  if (!url.IsValid()) {
    Require(url.scheme.IsEmpty() && url.host.IsEmpty() && url.path.IsEmpty() && url.port == 0,
            "a record without a URL has empty fields");
    return;
  }
  const std::size_t separator = text.find("://");
  Require(separator != std::string_view::npos, "a URL has \"://\"");
  Require(url.scheme.View() == text.substr(0, separator), "the scheme is the text before \"://\"");
  Require(!url.host.IsEmpty(), "a URL has a host");
  Require(!url.path.IsEmpty() && url.path.View()[0] == '/', "the path starts with \"/\"");
  const std::string_view rest = text.substr(separator + 3);
  const std::size_t slash = rest.find('/');
  if (slash == std::string_view::npos) {
    Require(url.path.View() == "/", "a URL without a path has the path \"/\"");
  } else {
    Require(url.path.View() == rest.substr(slash), "the path runs from the first \"/\" on");
  }
  const std::string_view authority = rest.substr(0, slash);
  if (authority == url.host.View()) {
    Require(url.port == (url.scheme.View() == "https" ? 443 : 80),
            "without a port the scheme's default is taken");
  }
  // The check takes the expected scheme as zero-terminated text.
  if (url.scheme.View().find('\0') == std::string_view::npos) {
    CheckUrlScheme(url, std::string(url.scheme.View()).c_str());
  }

  // Written back with an explicit port, the URL reads the same.
  const std::string again = std::string(url.scheme.View()) + "://" + std::string(url.host.View()) +
                            ":" + std::to_string(url.port) + std::string(url.path.View());
  Require(SameUrl(ParseUrl(again), url), "a URL written from its parts parses to the same parts");
}

void CheckPercent(std::string_view bytes) {
  const CISOString encoded = PercentEncode(bytes);
  const std::string_view text = encoded.View();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (IsUnreserved(text[i])) continue;
    Require(
        text[i] == '%' && i + 2 < text.size() && IsUpperHex(text[i + 1]) && IsUpperHex(text[i + 2]),
        "the encoding holds unreserved bytes and %XX only");
    i += 2;
  }
  Require(PercentDecode(text).View() == bytes, "decoding the encoding gives the bytes back");

  const CUTF8String decoded = PercentDecode(bytes);
  Require(decoded.Size() <= bytes.size(), "decoding never grows the text");
  if (bytes.find('%') == std::string_view::npos) {
    Require(decoded.View() == bytes, "text without \"%\" decodes to itself");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (SwitchTracingOff(), true);
  (void)quiet;
  const std::string_view text = AsText(data, size);
  try {
    CheckParse(text);
  } catch (const CHttpException&) {
    Require(false, "parsing and the scheme check of a parsed URL do not throw");
  }
  CheckPercent(text);
  return 0;
}
