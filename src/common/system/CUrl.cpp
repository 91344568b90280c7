#include "common/system/CUrl.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/base/CException.h"
#include "common/base/CharClasses.h"

namespace zelph {
namespace {

bool IsUnreserved(unsigned char c) noexcept {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return c != '\0' && std::strchr("!()*-._~", c) != nullptr;
}

CISOString Bytes(std::string_view view) {
  return CISOString(view.data(), view.size());
}

// Reads a decimal port; false for an empty text, another character or a
// value above 65535.
bool ParsePort(std::string_view text, std::uint16_t& port) noexcept {
  if (text.empty()) return false;
  std::uint32_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<std::uint32_t>(c - '0');
    if (value > 0xFFFF) return false;
  }
  port = static_cast<std::uint16_t>(value);
  return true;
}

}  // namespace

CUrl ParseUrl(std::string_view text) {
  CUrl url;
  const std::size_t separator = text.find("://");
  if (separator == std::string_view::npos) return url;
  const std::string_view scheme = text.substr(0, separator);
  const std::string_view rest = text.substr(separator + 3);

  const std::size_t slash = rest.find('/');
  std::string_view hostPart = rest.substr(0, slash);
  const std::string_view path = slash == std::string_view::npos ? "/" : rest.substr(slash);

  std::uint16_t port = scheme == "https" ? 443 : 80;
  const std::size_t colon = hostPart.find(':');
  if (colon != std::string_view::npos) {
    if (!ParsePort(hostPart.substr(colon + 1), port)) return url;
    hostPart = hostPart.substr(0, colon);
  }
  if (hostPart.empty()) return url;

  url.scheme = Bytes(scheme);
  url.host = Bytes(hostPart);
  url.port = port;
  url.path = Bytes(path);
  url.valid = true;
  return url;
}

void CheckUrlScheme(const CUrl& url, const char* scheme) {
  if (url.scheme.View() != scheme) throw CHttpException(CUTF8String("Unknown URL scheme"));
}

CISOString PercentEncode(std::string_view bytes) {
  std::vector<char> out;
  out.reserve(bytes.size() * 3);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsUnreserved(byte)) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kUpperHexDigits[byte >> 4]);
      out.push_back(kUpperHexDigits[byte & 0x0F]);
    }
  }
  return CISOString(out.data(), out.size());
}

CUTF8String PercentDecode(std::string_view text) {
  std::vector<char> out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && text.size() - i >= 3) {
      const int high = HexDigitValue(text[i + 1]);
      const int low = HexDigitValue(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return CUTF8String(out.data(), out.size());
}

std::uint32_t ResolveHost(const CISOString& host) {
  const in_addr_t dotted = inet_addr(host.c_str());
  if (dotted != INADDR_NONE) return dotted;

  // The reentrant form of the lookup: connections of different threads may
  // resolve at the same time.
  hostent entry{};
  hostent* result = nullptr;
  int lookupError = 0;
  std::vector<char> scratch(1024);
  for (;;) {
    const int status = gethostbyname_r(host.c_str(), &entry, scratch.data(), scratch.size(),
                                       &result, &lookupError);
    if (status != ERANGE || scratch.size() >= (std::size_t{1} << 20)) break;
    scratch.resize(scratch.size() * 2);
  }
  if (result != nullptr && result->h_addrtype == AF_INET && result->h_length == sizeof(in_addr_t) &&
      result->h_addr_list[0] != nullptr) {
    in_addr_t address;
    std::memcpy(&address, result->h_addr_list[0], sizeof address);
    return address;
  }
  throw CHttpException(CUTF8String("Host \"") + ToUTF8(host) + "\" not found");
}

}  // namespace zelph
