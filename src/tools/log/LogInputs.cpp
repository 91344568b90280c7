#include "LogInputs.h"

#include <cstdio>

namespace zelph {
namespace {

constexpr std::size_t kPrintedPerFile = 20;
constexpr std::size_t kKeptPerFile = 100;

// The length of the valid UTF-8 sequence at the start of `text`, or 0.
std::size_t Utf8SequenceAt(std::string_view text) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  std::size_t length = 0;
  std::uint32_t lowest = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, lowest = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, lowest = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, lowest = 0x10000;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  std::uint32_t code = lead & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3F);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code >= lowest && code <= 0x10FFFF && !surrogate ? length : 0;
}

}  // namespace

CLogInput& CLogInputs::InputOf(const std::string& log) {
  if (inputs_.empty() || inputs_.back().path != log) {
    for (CLogInput& input : inputs_) {
      if (input.path == log) return input;
    }
    CLogInput input;
    input.path = log;
    inputs_.push_back(std::move(input));
  }
  return inputs_.back();
}

void CLogInputs::Problem(const std::string& log, std::uint64_t line, const std::string& text) {
  CLogInput& input = InputOf(log);
  const std::size_t seen = input.problems.size() + input.problemsOmitted;
  if (!quiet_ && seen < kPrintedPerFile) {
    if (line > 0) {
      std::fprintf(stderr, "zelph-log: %s:%llu: %s\n", log.c_str(),
                   static_cast<unsigned long long>(line), text.c_str());
    } else {
      std::fprintf(stderr, "zelph-log: %s: %s\n", log.c_str(), text.c_str());
    }
  } else if (!quiet_ && seen == kPrintedPerFile) {
    std::fprintf(stderr, "zelph-log: %s: more problems, not shown\n", log.c_str());
  }
  if (input.problems.size() < kKeptPerFile) {
    input.problems.push_back({line, text});
  } else {
    ++input.problemsOmitted;
  }
}

void CLogInputs::Done(const std::string& log, std::uint64_t lines, std::uint64_t bytes) {
  CLogInput& input = InputOf(log);
  input.lines = lines;
  input.bytes = bytes;
}

std::string CLogInputs::ToUtf8(std::string_view text, const std::string& log, std::uint64_t line) {
  bool latin = false;
  std::string out = Utf8FromLog(text, &latin);
  if (latin && latinNoted_ != log) {
    latinNoted_ = log;
    Problem(log, line, "bytes that are not UTF-8, read as ISO-8859-1 (told once per file)");
  }
  return out;
}

std::string Utf8FromLog(std::string_view text, bool* latinSeen) {
  std::string out;
  out.reserve(text.size());
  bool latin = false;
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x80) {
      out += static_cast<char>(byte);
      ++i;
    } else if (const std::size_t length = Utf8SequenceAt(text.substr(i)); length > 0) {
      out.append(text.substr(i, length));
      i += length;
    } else {
      out += static_cast<char>(0xC0 | byte >> 6);
      out += static_cast<char>(0x80 | (byte & 0x3F));
      latin = true;
      ++i;
    }
  }
  if (latinSeen != nullptr) *latinSeen = latin;
  return out;
}

}  // namespace zelph
