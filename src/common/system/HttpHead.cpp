#include "common/system/HttpHead.h"

#include <limits>
#include <string>

#include "common/base/CException.h"

namespace zelph {
namespace {

constexpr std::string_view kVersionPrefix = "HTTP/1.";

bool IsBlank(char c) noexcept {
  return c == ' ' || c == '\t';
}

std::string_view Trim(std::string_view text) noexcept {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

// Reads a run of decimal digits at `position` into `value`, moving past it.
// False when there is no digit there or the value leaves the signed 32-bit
// range.
bool ReadNumber(std::string_view text, std::size_t& position, std::int32_t& value) noexcept {
  constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
  const std::size_t start = position;
  std::int32_t result = 0;
  while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
    const std::int32_t digit = text[position] - '0';
    if (result > (kMax - digit) / 10) return false;
    result = result * 10 + digit;
    ++position;
  }
  if (position == start) return false;
  value = result;
  return true;
}

[[noreturn]] void ThrowBadResponse() {
  throw CHttpException(CUTF8String("Bad HTTP response"));
}
[[noreturn]] void ThrowBadRequest() {
  throw CHttpException(CUTF8String("Bad HTTP request"));
}

// True for a byte that may stand in a header name or a request token.
bool IsTokenByte(char c) noexcept {
  const auto byte = static_cast<unsigned char>(c);
  return byte > 0x20 && byte != 0x7F;
}

CISOString Bytes(std::string_view view) {
  return CISOString(view.data(), view.size());
}

}  // namespace

CHttpStatus ParseStatusLine(std::string_view line) {
  if (!line.starts_with(kVersionPrefix)) ThrowBadResponse();
  CHttpStatus status;
  std::size_t position = kVersionPrefix.size();
  if (!ReadNumber(line, position, status.minorVersion)) ThrowBadResponse();
  if (position >= line.size() || line[position] != ' ') ThrowBadResponse();
  while (position < line.size() && line[position] == ' ') ++position;
  if (!ReadNumber(line, position, status.code)) ThrowBadResponse();
  return status;
}

CHttpRequestLine ParseRequestLine(std::string_view line) {
  const std::size_t first = line.find(' ');
  if (first == std::string_view::npos) ThrowBadRequest();
  const std::size_t second = line.find(' ', first + 1);
  if (second == std::string_view::npos) ThrowBadRequest();
  const std::string_view method = line.substr(0, first);
  const std::string_view target = line.substr(first + 1, second - first - 1);
  const std::string_view version = line.substr(second + 1);
  for (const std::string_view token : {method, target}) {
    if (token.empty()) ThrowBadRequest();
    for (const char c : token) {
      if (!IsTokenByte(c)) ThrowBadRequest();
    }
  }
  if (!version.starts_with(kVersionPrefix)) ThrowBadRequest();
  CHttpRequestLine request;
  std::size_t position = kVersionPrefix.size();
  if (!ReadNumber(version, position, request.minorVersion) || position != version.size()) {
    ThrowBadRequest();
  }
  request.method = Bytes(method);
  request.target = Bytes(target);
  return request;
}

bool ParseHeaderLine(std::string_view line, CISOString& name, CISOString& value) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view rawName = line.substr(0, colon);
  for (const char c : rawName) {
    if (!IsTokenByte(c)) return false;
  }
  name = ToLowerAscii(rawName);
  value = Bytes(Trim(line.substr(colon + 1)));
  return true;
}

void AddHeader(CHttpHeaders& headers, const CISOString& name, const CISOString& value) {
  const auto [entry, inserted] = headers.try_emplace(name, value);
  // An empty field adds no element to the list; joined with ", " it would
  // leave a trailing separator that reads back differently.
  if (!inserted && !value.IsEmpty()) {
    if (!entry->second.IsEmpty()) entry->second += ", ";
    entry->second += value;
  }
}

CISOString ToLowerAscii(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return CISOString(lower.data(), lower.size());
}

CISOString GetMultipartBoundary(std::string_view contentType) {
  std::size_t start = contentType.find(';');
  while (start != std::string_view::npos) {
    const std::size_t end = contentType.find(';', start + 1);
    const std::string_view parameter = Trim(contentType.substr(start + 1, end - start - 1));
    const std::size_t equals = parameter.find('=');
    if (equals != std::string_view::npos &&
        ToLowerAscii(Trim(parameter.substr(0, equals))).View() == "boundary") {
      std::string_view value = Trim(parameter.substr(equals + 1));
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      return Bytes(value);
    }
    start = end;
  }
  return {};
}

}  // namespace zelph
