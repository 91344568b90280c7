#include "spy/CSpyCall.h"

#include <cstdarg>
#include <cstdio>

#include "names/Pkcs11Names.h"

namespace zelph {

namespace {

// True when a TraceString format carries `text` to the log as it stands:
// ASCII (a format that is not is recoded) on one line (a format is split at
// its line breaks).
bool FitsFormat(std::string_view text) noexcept {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80 || c == '\n' || c == '\r') return false;
  }
  return true;
}

}  // namespace

void CSpyCall::Line(const char* format, ...) noexcept {
  if (!tracing_) return;
  // Most lines fit the stack buffer; a longer one (a long handle list) is
  // formatted a second time into a string of its size.
  char small[256];
  std::va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) return;
  const auto size = static_cast<std::size_t>(length);
  try {
    if (size < sizeof small) {
      Keep(std::string_view(small, size));
      return;
    }
    std::string large(size, '\0');
    va_start(args, format);
    std::vsnprintf(large.data(), size + 1, format, args);
    va_end(args);
    Keep(large);
  } catch (...) {
    // Out of memory: the line is lost, the call goes on.
  }
}

void CSpyCall::Text(std::string_view line) noexcept {
  if (!tracing_) return;
  try {
    Keep(line);
  } catch (...) {
    // Out of memory: the line is lost, the call goes on.
  }
}

void CSpyCall::FlushLines() noexcept {
  if (lines_.empty()) return;
  // Each "\n" starts a new line behind the full prefix; the doubled '%'
  // signs leave no conversion for which an argument would be missing.
  TraceString(lines_.c_str());
  lines_.clear();
}

CK_RV CSpyCall::Return(CK_RV rv) noexcept {
  if (!tracing_) return rv;
  CNameBuffer buffer;
  const char* name = NameOf(CNameKind::kReturnValue, rv, buffer);
  if (micros_ < 0) {
    Line("Returns %s", name);
  } else {
    Line("Returns %s (%lld us)", name, micros_);
  }
  return rv;
}

void CSpyCall::Keep(std::string_view text) {
  if (!FitsFormat(text)) {
    // As an argument the text reaches the log byte for byte.
    FlushLines();
    const std::string line(text);
    TraceString("%s", line.c_str());
    return;
  }
  // Room for the lines of a usual call at once.
  if (lines_.empty()) lines_.reserve(512);
  for (std::size_t at; (at = text.find('%')) != std::string_view::npos;
       text.remove_prefix(at + 1)) {
    lines_.append(text.substr(0, at + 1));
    lines_ += '%';
  }
  lines_.append(text);
  // TraceString drops the break after the last line.
  lines_ += '\n';
}

}  // namespace zelph
