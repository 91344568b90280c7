// URLs of the HTTP layer: the record the parser fills, the scheme check,
// percent-encoding and host resolution.
#pragma once

#include <cstdint>
#include <string_view>

#include "common/base/CTString.h"

namespace zelph {

// A URL split into the parts a connection needs. Network text, so ISO-8859-1.
struct CUrl {
  CISOString scheme;       // text before "://", e.g. "http"
  CISOString host;         // name or dotted IPv4 address
  std::uint16_t port = 0;  // explicit port, else 443 for "https" and 80 otherwise
  CISOString path;         // from the first "/" after the host, query included; "/" if absent
  bool valid = false;      // false when the text held no URL; the other fields are then empty

  // True when the record holds a URL.
  bool IsValid() const noexcept { return valid; }
};

// Splits `text` at the first "://" into the scheme and the rest; the host
// part runs to the first "/" and may end in ":" and a decimal port. The
// result holds no URL when "://" is missing, the host is empty or the port is
// not a number from 0 to 65535. Never throws for bad input.
CUrl ParseUrl(std::string_view text);

// Throws CHttpException "Unknown URL scheme" unless the scheme of `url` is
// exactly `scheme` (byte-wise, case-sensitive).
void CheckUrlScheme(const CUrl& url, const char* scheme);

// Writes every byte of `bytes` that is not an ASCII letter, a digit or one
// of "!()*-._~" as "%" and two upper-case hexadecimal digits: "a b&c~" gives
// "a%20b%26c~".
CISOString PercentEncode(std::string_view bytes);

// Turns each "%" followed by two hexadecimal digits (either case) into that
// byte and keeps every other byte, "+" included. A "%" without two digits
// behind it is kept as it is. The result holds the decoded bytes as they
// are; they are not checked to be UTF-8.
CUTF8String PercentDecode(std::string_view text);

// The IPv4 address of `host` in network byte order: a dotted address as it
// stands, otherwise the first address the name service gives. Throws
// CHttpException `Host "<host>" not found` when neither works. Blocks while
// the name service answers.
std::uint32_t ResolveHost(const CISOString& host);

}  // namespace zelph
