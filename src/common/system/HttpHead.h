// Reading the head of HTTP messages: status line, request line, header lines
// and the multipart boundary. Plain functions over bytes, so that they can be
// used on any source and never read outside the given text.
#pragma once

#include <cstdint>
#include <map>
#include <string_view>

#include "common/base/CTString.h"

namespace zelph {

// Header fields by name. Names are stored in lower case; a repeated name
// keeps one entry whose values are joined with ", ".
using CHttpHeaders = std::map<CISOString, CISOString>;

// What a status line says.
struct CHttpStatus {
  std::int32_t minorVersion = 0;  // the digit(s) after "HTTP/1."
  std::int32_t code = 0;          // e.g. 200
};

// What a request line says.
struct CHttpRequestLine {
  CISOString method;              // e.g. "GET"
  CISOString target;              // e.g. "/index.html?a=b"
  std::int32_t minorVersion = 0;  // the digit(s) after "HTTP/1."
};

// Reads "HTTP/1.<minor> <code> <reason>". Both numbers are decimal and must
// fit in a signed 32-bit value; the reason phrase is not looked at. Throws
// CHttpException "Bad HTTP response" for a missing prefix, a missing blank
// before the code, a non-digit where a number is due, or an overflow.
CHttpStatus ParseStatusLine(std::string_view line);

// Reads "<method> <target> HTTP/1.<minor>", single blanks between the parts.
// Throws CHttpException "Bad HTTP request" when the line has another shape.
CHttpRequestLine ParseRequestLine(std::string_view line);

// Splits a header line at its first ":" into a lower-case name and a value
// without surrounding blanks and tabs. False, leaving `name` and `value`
// alone, when there is no ":" or the name is empty or holds blanks or control
// characters.
[[nodiscard]] bool ParseHeaderLine(std::string_view line, CISOString& name, CISOString& value);

// Adds one header field to `headers`, joining it to an earlier one of the
// same name with ", ". `name` must already be lower case.
void AddHeader(CHttpHeaders& headers, const CISOString& name, const CISOString& value);

// `text` with the ASCII letters in lower case.
CISOString ToLowerAscii(std::string_view text);

// The "boundary" parameter of a multipart content type (the parameter name
// in any case, the value with its quotes removed); empty when there is none.
CISOString GetMultipartBoundary(std::string_view contentType);

}  // namespace zelph
